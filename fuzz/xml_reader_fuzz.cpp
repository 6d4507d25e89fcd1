// Fuzz target for the XML reader and the preference-file look-ups. The first byte
// picks the reader's options; the rest is the document. Every tree is walked in
// full, so a bad pointer or length anywhere in it shows up under the sanitizers.
#include <cstddef>
#include <cstdint>
#include <string>

#include "profstore/xml_profstore.h"
#include "support/xml_reader.h"

namespace {

size_t Walk(const tpcsdk::XmlElement& e) {
  size_t n = e.GetTagName().size() + e.GetTagSpace().size();
  for (size_t i = 0; i < e.CountAttrs(); ++i) n += e.GetAttr(i).value.size();
  for (size_t i = 0; i <= e.CountChildren(); ++i) {
    if (const tpcsdk::XmlElement* c = e.GetElement(i))
      n += Walk(*c);
    else if (const tpcsdk::XmlContent* t = e.GetContent(i))
      n += t->text.size();
  }
  return n;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const bool save_spaces = data[0] & 1;
  const bool keep_entities = data[0] & 2;
  auto root = tpcsdk::ParseXmlBuffer(data + 1, size - 1, save_spaces, keep_entities);
  volatile size_t sink = root ? Walk(*root) : 0;
  (void)sink;

  tpcsdk::CXMLProfStoreEx store;
  if (store.LoadBuffer(data + 1, size - 1)) {
    std::u16string out;
    store.Lookup(u"Preferences", u"TDOCServer", out, "String");
    store.Lookup(u"Modules", u"Default", out, "ModuleArray");
    store.Lookup(u"Preferences\\Group", u"Item", out, "Mode");
  }
  return 0;
}
