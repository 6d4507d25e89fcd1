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

// ---- Well-formedness: a strict reading of the markup the templates use. ----

bool IsNameChar(char c, bool first) {
  return std::isalpha(static_cast<unsigned char>(c)) || c == '_' || c == ':' ||
         (!first && (std::isdigit(static_cast<unsigned char>(c)) || c == '-' || c == '.'));
}

// Returns "" for a well-formed document, else what is wrong and where; counts the
// elements.
std::string CheckWellFormed(const std::string& x, size_t& elements) {
  size_t pos = 0;
  std::vector<std::string> open;
  bool root_done = false;
  elements = 0;
  auto at = [&](const std::string& what) { return what + " at byte " + std::to_string(pos); };
  auto name = [&] {
    size_t start = pos;
    while (pos < x.size() && IsNameChar(x[pos], pos == start)) ++pos;
    return x.substr(start, pos - start);
  };
  auto space = [&] {
    size_t start = pos;
    while (pos < x.size() && std::isspace(static_cast<unsigned char>(x[pos]))) ++pos;
    return pos > start;
  };
  auto entities_ok = [](const std::string& text) {
    for (size_t i = text.find('&'); i != std::string::npos; i = text.find('&', i + 1)) {
      size_t end = text.find(';', i);
      if (end == std::string::npos) return false;
      const std::string e = text.substr(i + 1, end - i - 1);
      if (e != "amp" && e != "lt" && e != "gt" && e != "quot" && e != "apos" && (e.empty() || e[0] != '#'))
        return false;
    }
    return true;
  };
  if (x.compare(0, 3, "\xEF\xBB\xBF") == 0) pos = 3;
  while (pos < x.size()) {
    size_t lt = x.find('<', pos);
    const std::string text = x.substr(pos, lt == std::string::npos ? std::string::npos : lt - pos);
    if (open.empty() && text.find_first_not_of(" \t\r\n") != std::string::npos) return at("text outside the root");
    if (!entities_ok(text)) return at("a bare \"&\"");
    if (lt == std::string::npos) break;
    pos = lt + 1;
    if (x.compare(pos, 1, "?") == 0) {
      if (elements > 0) return at("a declaration after the root began");
      size_t end = x.find("?>", pos);
      if (end == std::string::npos) return at("an unclosed declaration");
      pos = end + 2;
    } else if (x.compare(pos, 3, "!--") == 0) {
      size_t end = x.find("--", pos + 3);
      if (end == std::string::npos || x.compare(end, 3, "-->") != 0) return at("a bad comment");
      pos = end + 3;
    } else if (x.compare(pos, 1, "!") == 0) {
      return at("markup the templates do not use");
    } else if (x.compare(pos, 1, "/") == 0) {
      ++pos;
      const std::string end_name = name();
      space();
      if (open.empty() || open.back() != end_name) return at("end tag </" + end_name + "> closing nothing open");
      if (x.compare(pos, 1, ">") != 0) return at("an unclosed end tag");
      ++pos;
      open.pop_back();
      if (open.empty()) root_done = true;
    } else {
      if (root_done) return at("a second root");
      const std::string tag = name();
      if (tag.empty()) return at("a start tag without a name");
      ++elements;
      std::set<std::string> attrs;
      for (;;) {
        const bool spaced = space();
        if (x.compare(pos, 2, "/>") == 0) {
          pos += 2;
          if (open.empty()) root_done = true;
          break;
        }
        if (x.compare(pos, 1, ">") == 0) {
          ++pos;
          open.push_back(tag);
          break;
        }
        if (!spaced) return at("an attribute not set off by white space");
        const std::string attr = name();
        if (attr.empty() || !attrs.insert(attr).second) return at("a missing or repeated attribute name");
        space();
        if (x.compare(pos, 1, "=") != 0) return at("an attribute without a value");
        ++pos;
        space();
        if (pos >= x.size() || (x[pos] != '"' && x[pos] != '\'')) return at("an unquoted attribute value");
        const char quote = x[pos++];
        size_t end = x.find(quote, pos);
        if (end == std::string::npos) return at("an unclosed attribute value");
        const std::string value = x.substr(pos, end - pos);
        if (value.find('<') != std::string::npos || !entities_ok(value)) return at("a bad attribute value");
        pos = end + 1;
      }
    }
  }
  if (!open.empty()) return "<" + open.back() + "> is never closed";
  if (!root_done) return "no root element";
  return "";
}

size_t CountElements(const XmlElement& element) {
  size_t count = 1;
  for (size_t i = 0; i < element.CountChildren(); ++i)
    if (const XmlElement* child = element.GetElement(i)) count += CountElements(*child);
  return count;
}

std::unique_ptr<XmlElement> ParseTemplate(const std::string& path) {
  const std::string text = Slurp(path);
  EXPECT_FALSE(text.empty()) << path << " is missing or empty";
  size_t elements = 0;
  EXPECT_EQ(CheckWellFormed(text, elements), "") << path;
  auto root = ParseXmlBuffer(text.data(), text.size(), false, false);
  EXPECT_NE(root, nullptr) << path;
  // The reader passes over what it can't read; a whole tree means it read everything.
  if (root) {
    EXPECT_EQ(CountElements(*root), elements) << path;
  }
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

TEST(PolicyTemplates, StrictCheckFindsTheMistakesTheForgivingReaderPassesOver) {
  size_t n = 0;
  EXPECT_EQ(CheckWellFormed("<?xml version=\"1.0\"?>\n<a x='1'><b/><c>t &amp; u</c></a>\n", n), "");
  EXPECT_EQ(n, 3u);
  for (const char* bad : {"<a><b></a></b>", "<a>", "<a></a><b/>", "<a x=1/>", "<a x='1' x='2'/>",
                          "<a>&</a>", "<a x='<'/>", "text<a/>", "<a x='1'y='2'/>", "<a><!-- x -- y --></a>"}) {
    EXPECT_NE(CheckWellFormed(bad, n), "") << bad;
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
