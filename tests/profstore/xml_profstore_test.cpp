#include <gtest/gtest.h>

#include <string>

#include "profstore/xml_profstore.h"

using tpcsdk::CXMLProfStoreEx;

namespace {

// A preference file as an installer lays it down: a section whose tag differs in
// case, items inside groups, blanks around Text, a Modules list.
const char kProfStoreXml[] =
    "\xEF\xBB\xBF<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n"
    "<!-- Laid down by the installer -->\r\n"
    "<ProfStoreData version=\"2\">\r\n"
    "  <Profstore>\r\n"
    "    <preferences>\r\n"
    "      <General>\r\n"
    "        <Item Text=\"  TDOCServer  \" String=\"  https://tdoc.corp.example  \"/>\r\n"
    "        <Item Text=\"InternalUpdate\" String=\"https://upd.corp.example\"/>\r\n"
    "        <Deeper><Item Text=\"PrinterName\" Title=\"Office &amp; Print\"/></Deeper>\r\n"
    "      </General>\r\n"
    "      <Connectivity>\r\n"
    "        <Setting Text=\"InternetConnection\" Mode=\"0\"/>\r\n"
    "        <Setting Text=\"EmptyFirst\" String=\"\"/>\r\n"
    "        <Setting Text=\"EmptyFirst\" String=\"second\"/>\r\n"
    "        <Setting Text=\"lowercase\" mode=\"1\"/>\r\n"
    "      </Connectivity>\r\n"
    "      <Other><Setting Text=\"EmptyFirst\" String=\"from a sibling group\"/></Other>\r\n"
    "      <Item Text=\"CreatorPortRange\" Min=\" 8000 \" Max=\"9000\"/>\r\n"
    "      <Item Text=\"MainFrameName\" Title=\"\xC3\x89" "diteur\"/>\r\n"
    "      <Group Text=\"Sub\" Title=\"group's own\"><Item Text=\"Inner\" String=\"in\"/></Group>\r\n"
    "      <Group Text=\"Bare\"><Item Text=\"Inner\" String=\"bare in\"/></Group>\r\n"
    "    </preferences>\r\n"
    "    <Modules>\r\n"
    "      <Item Text=\"Default\" ModuleArray=\"Core; Forms ;;Sign\"/>\r\n"
    "    </Modules>\r\n"
    "    <Preferences><Item Text=\"OnlyInSecond\" String=\"x\"/></Preferences>\r\n"
    "  </Profstore>\r\n"
    "</ProfStoreData>\r\n";

struct LookupCase {
  const char* what;
  std::u16string section;
  std::u16string item;
  const char* attr;
  bool found;
  std::u16string value;
};

class XmlProfStoreLookup : public ::testing::TestWithParam<LookupCase> {
 protected:
  void SetUp() override {
    ASSERT_TRUE(store_.LoadBuffer(kProfStoreXml, sizeof(kProfStoreXml) - 1));
  }
  CXMLProfStoreEx store_;
};

TEST_P(XmlProfStoreLookup, Answers) {
  const auto& c = GetParam();
  std::u16string out = u"untouched";
  EXPECT_EQ(store_.Lookup(c.section, c.item, out, c.attr), c.found) << c.what;
  EXPECT_EQ(out, c.found ? c.value : u"untouched") << c.what;
}

INSTANTIATE_TEST_SUITE_P(
    ProfStoreXml, XmlProfStoreLookup,
    ::testing::Values(
        LookupCase{"Text trimmed, value kept as written", u"Preferences", u"TDOCServer", "String",
                   true, u"  https://tdoc.corp.example  "},
        LookupCase{"item name ignores case", u"PREFERENCES", u"tdocserver", "String", true,
                   u"  https://tdoc.corp.example  "},
        LookupCase{"item deep in groups", u"Preferences", u"PrinterName", "Title", true,
                   u"Office & Print"},
        LookupCase{"UTF-8 value", u"Preferences", u"MainFrameName", "Title", true, u"\u00C9diteur"},
        LookupCase{"mode attribute", u"Preferences", u"InternetConnection", "Mode", true, u"0"},
        LookupCase{"attribute names keep case", u"Preferences", u"lowercase", "Mode", false, u""},
        LookupCase{"first match ends its branch; a sibling group still answers", u"Preferences",
                   u"EmptyFirst", "String", true, u"from a sibling group"},
        LookupCase{"item without the attribute", u"Preferences", u"TDOCServer", "Mode", false, u""},
        LookupCase{"first section of that name only", u"Preferences", u"OnlyInSecond", "String",
                   false, u""},
        LookupCase{"list in Modules", u"Modules", u"Default", "ModuleArray", true,
                   u"Core; Forms ;;Sign"},
        LookupCase{"missing section", u"Plugins", u"Plugin", "UnloadPluginArray", false, u""},
        LookupCase{"empty section path", u"", u"TDOCServer", "String", false, u""},
        LookupCase{"empty section before the backslash", u"\\Sub", u"Inner", "String", false, u""},
        LookupCase{"group answers with its own attribute", u"Preferences\\Sub", u"Inner", "Title",
                   true, u"group's own"},
        LookupCase{"group searched for the item", u"Preferences\\Bare", u"Inner", "String", true,
                   u"bare in"},
        LookupCase{"missing group", u"Preferences\\None", u"Inner", "String", false, u""}));

TEST(XmlProfStore, FirstMatchWithEmptyValueEndsTheOnlyBranch) {
  const std::string doc =
      "<r><Profstore><Preferences><G><I Text=\"X\" String=\"\"/><I Text=\"X\" String=\"later\"/>"
      "</G></Preferences></Profstore></r>";
  CXMLProfStoreEx store;
  ASSERT_TRUE(store.LoadBuffer(doc.data(), doc.size()));
  std::u16string out;
  EXPECT_FALSE(store.Lookup(u"Preferences", u"X", out, "String"));
}

struct DocCase {
  const char* what;
  std::string doc;
  bool has_profstore;
};

class XmlProfStoreDocument : public ::testing::TestWithParam<DocCase> {};

TEST_P(XmlProfStoreDocument, FindsProfstoreAmongTheRootsChildren) {
  const auto& c = GetParam();
  CXMLProfStoreEx store;
  EXPECT_EQ(store.LoadBuffer(c.doc.data(), c.doc.size()), c.has_profstore) << c.what;
  std::u16string out;
  EXPECT_EQ(store.Lookup(u"Preferences", u"A", out, "Mode"), c.has_profstore) << c.what;
}

const char kBody[] = "<Preferences><I Text=\"A\" Mode=\"1\"/></Preferences>";

INSTANTIATE_TEST_SUITE_P(
    Documents, XmlProfStoreDocument,
    ::testing::Values(
        DocCase{"root of any name", std::string("<Anything><Profstore>") + kBody + "</Profstore></Anything>", true},
        DocCase{"Profstore in other case", std::string("<r><PROFSTORE>") + kBody + "</PROFSTORE></r>", true},
        DocCase{"Profstore as the root", std::string("<Profstore>") + kBody + "</Profstore>", false},
        DocCase{"Profstore one level too deep",
                std::string("<r><x><Profstore>") + kBody + "</Profstore></x></r>", false},
        DocCase{"not a document", std::string("Profstore") + kBody, false},
        DocCase{"16-bit document", std::string("\xFF\xFE<\0r\0>\0", 8), false}));

}  // namespace
