// Parsing a 1 MiB preference-style document with our reader, and the same bytes
// with pugixml and tinyxml2 for comparison. Each builds a full tree; ours also decodes every text
// and attribute value to 16-bit strings.
#include <benchmark/benchmark.h>

#include <pugixml.hpp>
#include <tinyxml2.h>
#include <string>

#include "profstore/xml_profstore.h"
#include "support/xml_reader.h"

namespace {

// Sections of groups of items with the attributes a preference file uses, a few
// entities, comments and UTF-8 text, repeated until the document reaches 1 MiB.
const std::string& PreferenceDocument() {
  static const std::string doc = [] {
    std::string d = "\xEF\xBB\xBF<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n<ProfStoreData>\r\n"
                    "  <Profstore>\r\n";
    const size_t target = 1u << 20;
    for (int section = 0; d.size() < target - 200; ++section) {
      d += "    <Preferences>\r\n      <!-- section " + std::to_string(section) + " -->\r\n";
      for (int group = 0; group < 8 && d.size() < target - 200; ++group) {
        d += "      <Group Text=\"G" + std::to_string(group) + "\">\r\n";
        for (int item = 0; item < 12; ++item) {
          std::string n = std::to_string(section) + "_" + std::to_string(group) + "_" +
                          std::to_string(item);
          d += "        <Item Text=\"  Setting" + n + "  \" Mode=\"" + std::to_string(item % 3) +
               "\" String=\"https://host" + n + ".example/path?a=1&amp;b=2\" Title=\"\xC3\x89" +
               "diteur &lt;" + n + "&gt;\"/>\r\n";
        }
        d += "      </Group>\r\n";
      }
      d += "    </Preferences>\r\n";
    }
    d += "  </Profstore>\r\n</ProfStoreData>\r\n";
    return d;
  }();
  return doc;
}

void BM_ParseXmlBuffer(benchmark::State& state) {
  const std::string& doc = PreferenceDocument();
  for (auto _ : state) {
    auto root = tpcsdk::ParseXmlBuffer(doc.data(), doc.size(), false, false);
    benchmark::DoNotOptimize(root.get());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(doc.size()));
}
BENCHMARK(BM_ParseXmlBuffer)->Unit(benchmark::kMillisecond);

void BM_PugixmlLoadBuffer(benchmark::State& state) {
  const std::string& doc = PreferenceDocument();
  for (auto _ : state) {
    pugi::xml_document tree;
    pugi::xml_parse_result ok = tree.load_buffer(doc.data(), doc.size());
    benchmark::DoNotOptimize(ok.status);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(doc.size()));
}
BENCHMARK(BM_PugixmlLoadBuffer)->Unit(benchmark::kMillisecond);

void BM_Tinyxml2Parse(benchmark::State& state) {
  const std::string& doc = PreferenceDocument();
  for (auto _ : state) {
    tinyxml2::XMLDocument tree;
    tinyxml2::XMLError ok = tree.Parse(doc.data(), doc.size());
    benchmark::DoNotOptimize(ok);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(doc.size()));
}
BENCHMARK(BM_Tinyxml2Parse)->Unit(benchmark::kMillisecond);

// A look-up of the last item in the document: a depth-first walk of all of it.
void BM_ProfstoreLookupLastItem(benchmark::State& state) {
  const std::string& doc = PreferenceDocument();
  tpcsdk::CXMLProfStoreEx store;
  store.LoadBuffer(doc.data(), doc.size());
  std::u16string out;
  for (auto _ : state) {
    bool found = store.Lookup(u"Preferences", u"Setting0_7_11", out, "String");
    benchmark::DoNotOptimize(found);
  }
}
BENCHMARK(BM_ProfstoreLookupLastItem)->Unit(benchmark::kMicrosecond);

}  // namespace
