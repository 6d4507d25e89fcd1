// The administrative templates (ADMX with its English ADML) and the example Linux
// hives must be well-formed and name exactly the registry values the module reads,
// each with the type it is read as.
#include <gtest/gtest.h>
#include <json/json.h>

#include <cctype>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#ifdef TPCSDK_TEST_EXPAT
#include <expat.h>
#endif

#include "platform/registry_locations.h"
#include "support/utf.h"
#include "support/xml_reader.h"

namespace tpcsdk {
namespace {

using reg::AdminValueKind;

std::string Slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string Lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

// A registry location as the registry compares it: key path and value name without
// regard to case, no trailing backslash; a list's name is empty.
std::string Location(std::string key, const std::string& name) {
  while (!key.empty() && key.back() == '\\') key.pop_back();
  return Lower(key) + " | " + Lower(name);
}

const char* KindName(AdminValueKind kind) {
  switch (kind) {
    case AdminValueKind::kText: return "text";
    case AdminValueKind::kNumber: return "number";
    case AdminValueKind::kListOfData: return "list of data";
    case AdminValueKind::kListOfNames: return "list of names";
  }
  return "?";
}

using Locations = std::map<std::string, std::string>;  // location -> kind

void Add(Locations& into, const std::u16string& key, const reg::AdminValue& value) {
  into[Location(Utf16ToUtf8(key + value.subkey), value.name ? Utf16ToUtf8(value.name) : "")] =
      KindName(value.kind);
}

// What the module reads from the policy keys, for both products.
Locations PolicyLocations() {
  Locations out;
  for (const char16_t* product : {reg::kReaderPolicyKeys[0], reg::kEditorPolicyKeys[0]})
    for (const auto& value : reg::kAdminPolicyValues)
      Add(out, std::u16string(reg::kPoliciesKey) + u"\\" + product + u"\\", value);
  return out;
}

// What the module reads from the user's key of the templates' release, for both products.
Locations UserReleaseLocations() {
  Locations out;
  for (ProductKind kind : {ProductKind::Reader, ProductKind::Editor})
    for (const auto& value : reg::kAdminUserReleaseValues)
      Add(out, reg::ProductVersionKey(kind, reg::kAdminTemplateVersion), value);
  return out;
}

#ifdef TPCSDK_TEST_EXPAT
// "" for a well-formed document, else the strict parser's complaint and where; counts
// the elements. The files are the same on both platforms, so the native run checks them.
std::string CheckWellFormed(const std::string& x, size_t& elements) {
  elements = 0;
  XML_Parser parser = XML_ParserCreate(nullptr);
  XML_SetUserData(parser, &elements);
  XML_SetStartElementHandler(parser, [](void* count, const XML_Char*, const XML_Char**) {
    ++*static_cast<size_t*>(count);
  });
  std::string why;
  if (XML_Parse(parser, x.data(), static_cast<int>(x.size()), XML_TRUE) != XML_STATUS_OK)
    why = std::string(XML_ErrorString(XML_GetErrorCode(parser))) + " at line " +
          std::to_string(XML_GetCurrentLineNumber(parser));
  XML_ParserFree(parser);
  return why;
}
#endif

size_t CountElements(const XmlElement& element) {
  size_t count = 1;
  for (size_t i = 0; i < element.CountChildren(); ++i)
    if (const XmlElement* child = element.GetElement(i)) count += CountElements(*child);
  return count;
}

std::unique_ptr<XmlElement> ParseTemplate(const std::string& path) {
  const std::string text = Slurp(path);
  EXPECT_FALSE(text.empty()) << path << " is missing or empty";
  auto root = ParseXmlBuffer(text.data(), text.size(), false, false);
  EXPECT_NE(root, nullptr) << path;
#ifdef TPCSDK_TEST_EXPAT
  size_t elements = 0;
  EXPECT_EQ(CheckWellFormed(text, elements), "") << path;
  // The reader passes over what it can't read; a whole tree means it read everything.
  if (root) {
    EXPECT_EQ(CountElements(*root), elements) << path;
  }
#endif
  return root;
}

std::vector<const XmlElement*> Children(const XmlElement* element, const std::string& tag) {
  std::vector<const XmlElement*> out;
  for (size_t i = 0; element && i < element->CountChildren(); ++i) {
    const XmlElement* child = element->GetElement(i);
    if (child && (tag.empty() || child->GetTagName() == tag)) out.push_back(child);
  }
  return out;
}

const XmlElement* Child(const XmlElement* element, const std::string& tag) {
  auto all = Children(element, tag);
  return all.empty() ? nullptr : all.front();
}

std::string Attr(const XmlElement* element, const std::string& name) {
  std::u16string value;
  return element && element->GetAttrValue(name, value) ? Utf16ToUtf8(value) : std::string();
}

// "$(string.Id)" -> "Id"
std::string Reference(const std::string& text, const std::string& table) {
  const std::string head = "$(" + table + ".";
  if (text.compare(0, head.size(), head) != 0 || text.back() != ')') return std::string();
  return text.substr(head.size(), text.size() - head.size() - 1);
}

constexpr char kAdmx[] = "admin/windows/tpcsdk.admx";
constexpr char kAdml[] = "admin/windows/en-US/tpcsdk.adml";

TEST(PolicyTemplates, AreWellFormedAndNameExactlyTheValuesTheModuleReads) {
  auto admx = ParseTemplate(kAdmx);
  ASSERT_NE(admx, nullptr);
  ASSERT_EQ(admx->GetTagName(), "policyDefinitions");

  Locations named;
  std::vector<std::string> repeated;
  auto name = [&](const std::string& key, const std::string& value, const char* kind) {
    if (!named.emplace(Location(key, value), kind).second) repeated.push_back(Location(key, value));
  };
  for (const XmlElement* policy : Children(Child(admx.get(), "policies"), "policy")) {
    const std::string key = Attr(policy, "key");
    ASSERT_FALSE(key.empty()) << Attr(policy, "name");
    if (const XmlElement* enabled = Child(policy, "enabledValue")) {
      const bool number = Child(enabled, "decimal") != nullptr;
      ASSERT_TRUE(number || Child(enabled, "string")) << Attr(policy, "name");
      ASSERT_FALSE(Attr(policy, "valueName").empty()) << Attr(policy, "name");
      name(key, Attr(policy, "valueName"), number ? "number" : "text");
    }
    for (const XmlElement* element : Children(Child(policy, "elements"), "")) {
      const std::string own_key = Attr(element, "key").empty() ? key : Attr(element, "key");
      const std::string tag(element->GetTagName());
      if (tag == "text") {
        name(own_key, Attr(element, "valueName"), "text");
      } else if (tag == "decimal") {
        name(own_key, Attr(element, "valueName"), "number");
      } else if (tag == "list") {
        name(own_key, "", Attr(element, "explicitValue") == "true" ? "list of names" : "list of data");
      } else {
        ADD_FAILURE() << "element <" << tag << "> in " << Attr(policy, "name");
      }
    }
  }
  EXPECT_TRUE(repeated.empty()) << "named twice: " << ::testing::PrintToString(repeated);

  Locations expected = PolicyLocations();
  for (const auto& entry : UserReleaseLocations()) expected.insert(entry);
  EXPECT_EQ(named, expected);
}

TEST(PolicyTemplates, LanguageFileHoldsEveryStringAndPresentationReferenced) {
  auto admx = ParseTemplate(kAdmx);
  auto adml = ParseTemplate(kAdml);
  ASSERT_TRUE(admx && adml);
  ASSERT_EQ(adml->GetTagName(), "policyDefinitionResources");

  const XmlElement* resources = Child(adml.get(), "resources");
  std::set<std::string> strings;
  for (const XmlElement* s : Children(Child(resources, "stringTable"), "string")) {
    EXPECT_TRUE(strings.insert(Attr(s, "id")).second) << "string " << Attr(s, "id") << " twice";
    EXPECT_NE(s->CountChildren(), 0u) << "string " << Attr(s, "id") << " is empty";
  }
  std::map<std::string, std::set<std::string>> presentations;  // id -> refIds
  for (const XmlElement* p : Children(Child(resources, "presentationTable"), "presentation"))
    for (const XmlElement* control : Children(p, "")) presentations[Attr(p, "id")].insert(Attr(control, "refId"));

  // Every display text the ADMX refers to, wherever it stands.
  std::vector<const XmlElement*> pending = {admx.get()};
  size_t references = 0;
  while (!pending.empty()) {
    const XmlElement* element = pending.back();
    pending.pop_back();
    for (const char* attr : {"displayName", "explainText"}) {
      const std::string text = Attr(element, attr);
      if (text.empty()) continue;
      ++references;
      const std::string id = Reference(text, "string");
      EXPECT_TRUE(strings.count(id)) << element->GetTagName() << " " << attr << "=" << text;
    }
    for (const XmlElement* child : Children(element, "")) pending.push_back(child);
  }
  EXPECT_GT(references, 0u);

  // A policy with elements has a presentation with one control for each of them.
  for (const XmlElement* policy : Children(Child(admx.get(), "policies"), "policy")) {
    const auto elements = Children(Child(policy, "elements"), "");
    const std::string id = Reference(Attr(policy, "presentation"), "presentation");
    if (elements.empty()) {
      EXPECT_TRUE(id.empty()) << Attr(policy, "name");
      continue;
    }
    ASSERT_TRUE(presentations.count(id)) << Attr(policy, "name") << " has no presentation";
    std::set<std::string> ids;
    for (const XmlElement* element : elements) ids.insert(Attr(element, "id"));
    EXPECT_EQ(presentations[id], ids) << Attr(policy, "name");
  }
}

// ---- The example hives for Linux ----

Locations HiveLocations(const std::string& path) {
  Json::Value root;
  Json::CharReaderBuilder builder;
  std::istringstream in(Slurp(path));
  std::string errors;
  EXPECT_TRUE(Json::parseFromStream(builder, in, &root, &errors)) << path << ": " << errors;
  EXPECT_TRUE(root.isObject()) << path;
  Locations out;
  if (!root.isObject()) return out;
  // A list key counts once, as the list; its values are entries of any name.
  const Locations lists = PolicyLocations();
  for (const auto& key : root.getMemberNames()) {
    const Json::Value& values = root[key];
    EXPECT_TRUE(values.isObject()) << key;
    if (!values.isObject()) continue;
    auto list = lists.find(Location(key, ""));
    if (list != lists.end()) {
      EXPECT_FALSE(values.empty()) << key;
      for (const auto& entry : values.getMemberNames())
        EXPECT_TRUE(values[entry].isString()) << key << " | " << entry;
      out.insert(*list);
      continue;
    }
    for (const auto& name : values.getMemberNames()) {
      const Json::Value& v = values[name];
      // The hive's types: a string is REG_SZ, an integer REG_DWORD.
      out[Location(key, name)] = v.isString() ? "text" : v.isIntegral() ? "number" : "neither";
    }
  }
  return out;
}

TEST(ExampleHives, NameExactlyTheValuesTheModuleReadsWithTheirTypes) {
  EXPECT_EQ(HiveLocations("admin/linux/machine.json"), PolicyLocations());
  EXPECT_EQ(HiveLocations("admin/linux/user.json"), UserReleaseLocations());
}

}  // namespace
}  // namespace tpcsdk
