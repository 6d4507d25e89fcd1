#include "profstore/xml_profstore.h"

#include "support/text.h"
#include "support/utf.h"

namespace tpcsdk {
namespace {

// True when el is an item element whose trimmed Text names the item.
bool NamesItem(const XmlElement& el, std::u16string_view item) {
  std::u16string text;
  return el.GetAttrValue("Text", text) && EqualsNoCase(TrimText(text), item);
}

// The first child element of parent whose tag name is name, case ignored.
XmlElement* FindChildByTag(const XmlElement& parent, std::string_view name) {
  for (size_t i = 0; i < parent.CountChildren(); ++i) {
    XmlElement* child = parent.GetElement(i);
    if (child && EqualsNoCase(child->GetTagName(), name)) return child;
  }
  return nullptr;
}

}  // namespace

CXMLProfStoreEx::CXMLProfStoreEx() = default;

CXMLProfStoreEx::~CXMLProfStoreEx() {
  m_pProfstore = nullptr;
  m_pRoot.reset();
}

bool CXMLProfStoreEx::LoadBuffer(const void* data, size_t size) {
  m_pProfstore = nullptr;
  m_pRoot = ParseXmlBuffer(data, size, false, false);
  if (m_pRoot) m_pProfstore = FindChildByTag(*m_pRoot, "Profstore");
  return m_pProfstore != nullptr;
}

bool CXMLProfStoreEx::Lookup(std::u16string_view section_path, std::u16string_view item,
                             std::u16string& out, const char* attr) const {
  if (!m_pProfstore || section_path.empty() || !attr) return false;
  size_t slash = section_path.find(u'\\');
  std::u16string_view section = section_path.substr(0, slash);
  std::u16string_view rest =
      slash == std::u16string_view::npos ? std::u16string_view() : section_path.substr(slash + 1);
  if (section.empty() || item.empty()) return false;

  const XmlElement* sec = FindChildByTag(*m_pProfstore, Utf16ToUtf8(section));
  if (!sec) return false;
  if (rest.empty()) return FindItem(sec, item, out, attr);

  // A section path with a group: the group is a direct child of the section named
  // by its Text, like an item. Its own attribute answers first; otherwise the item
  // is searched below it.
  const XmlElement* group = nullptr;
  for (size_t i = 0; i < sec->CountChildren() && !group; ++i) {
    const XmlElement* child = sec->GetElement(i);
    if (child && NamesItem(*child, rest)) group = child;
  }
  if (!group) return false;
  if (group->HasAttr(attr)) {
    std::u16string value;
    group->GetAttrValue(attr, value);
    if (value.empty()) return false;
    out = std::move(value);
    return true;
  }
  return FindItem(group, item, out, attr);
}

bool CXMLProfStoreEx::FindItem(const XmlElement* el, std::u16string_view item, std::u16string& out,
                               const char* attr) {
  if (!el) return false;
  for (size_t i = 0; i < el->CountChildren(); ++i) {
    const XmlElement* child = el->GetElement(i);
    if (!child || !NamesItem(*child, item)) continue;
    std::u16string value;
    if (!child->GetAttrValue(attr, value) || value.empty()) return false;
    out = std::move(value);
    return true;
  }
  for (size_t i = 0; i < el->CountChildren(); ++i) {
    if (FindItem(el->GetElement(i), item, out, attr)) return true;
  }
  return false;
}

}  // namespace tpcsdk
