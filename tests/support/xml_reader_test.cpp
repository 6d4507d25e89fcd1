#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "support/utf.h"
#include "support/xml_reader.h"

using tpcsdk::ParseXmlBuffer;
using tpcsdk::XmlElement;

namespace {

// A compact picture of a tree: name[attr=value,...]{child,"text",C"cdata"}; a
// U+0000 in text shows as \0. Names carry their space as "space:name".
std::string Text(std::u16string_view s) {
  std::string out;
  for (char c : tpcsdk::Utf16ToUtf8(s)) {
    if (c == 0)
      out += "\\0";
    else
      out += c;
  }
  return out;
}

std::string Dump(const XmlElement& e) {
  std::string out(e.GetTagName());
  if (!e.GetTagSpace().empty()) out = std::string(e.GetTagSpace()) + ":" + out;
  if (e.CountAttrs()) {
    out += "[";
    for (size_t i = 0; i < e.CountAttrs(); ++i) {
      const auto& a = e.GetAttr(i);
      out += (i ? "," : "") + (a.space.empty() ? std::string() : std::string(a.space) + ":") + std::string(a.name) +
             "=" + Text(a.value);
    }
    out += "]";
  }
  if (e.CountChildren()) {
    out += "{";
    for (size_t i = 0; i < e.CountChildren(); ++i) {
      if (i) out += ",";
      if (const XmlElement* c = e.GetElement(i))
        out += Dump(*c);
      else if (const auto* t = e.GetContent(i))
        out += (t->cdata ? "C\"" : "\"") + Text(t->text) + "\"";
    }
    out += "}";
  }
  return out;
}

std::string Parse(const std::string& doc, bool save_spaces = false, bool keep_entities = false) {
  // An exactly sized heap copy, so a read past the end is caught by the sanitizer.
  std::vector<char> buf(doc.begin(), doc.end());
  auto root = ParseXmlBuffer(buf.data(), buf.size(), save_spaces, keep_entities);
  return root ? Dump(*root) : "(null)";
}

struct TreeCase {
  const char* what;
  std::string doc;
  std::string tree;
  bool save_spaces = false;
  bool keep_entities = false;
};

class XmlTree : public ::testing::TestWithParam<TreeCase> {};

TEST_P(XmlTree, Parses) {
  const auto& c = GetParam();
  EXPECT_EQ(Parse(c.doc, c.save_spaces, c.keep_entities), c.tree) << c.what;
}

INSTANTIATE_TEST_SUITE_P(
    Documents, XmlTree,
    ::testing::Values(
        // The document test and what stands before the first tag.
        TreeCase{"empty", "", "(null)"},
        TreeCase{"leading white space", " \n\t<a/>", "a"},
        TreeCase{"text before the first tag", "junk<a/>", "(null)"},
        TreeCase{"UTF-8 byte-order mark", "\xEF\xBB\xBF<a/>", "a"},
        TreeCase{"16-bit mark before a byte document", "\xFF\xFE<a/>", "a"},
        TreeCase{"little-endian 16-bit document", std::string("\xFF\xFE<\0a\0/\0>\0", 10), "(null)"},
        TreeCase{"big-endian 16-bit document", std::string("\xFE\xFF\0<\0a\0/\0>", 10), "(null)"},
        TreeCase{"first tag is an end tag", "</a><b/>", "(null)"},
        TreeCase{"declaration and comment first", "<?xml version=\"1.0\"?><!-- c --><a/>", "a"},
        // Tags and names.
        TreeCase{"end tag not compared", "<a></b>", "a"},
        TreeCase{"name spaces, last colon wins", "<x:y:a p:b=\"1\" c='2'/>", "x:y:a[p:b=1,c=2]"},
        TreeCase{"high bytes in names", "<\xC3\xA9t\xC3\xA9 \xC3\xA0=\"1\"/>",
                 "\xC3\xA9t\xC3\xA9[\xC3\xA0=1]"},
        TreeCase{"name starting with a digit", "<r><1a/>x</r>", "r{1a,\"x\"}"},
        TreeCase{"empty name as child", "<r><>x</r>", "r{\">x\"}"},
        TreeCase{"self-closing with junk", "<r><a/ junk>x</r>", "r{a,\"x\"}"},
        // Attributes.
        TreeCase{"unquoted value", "<a b=c>x</a>", "a[b=]{\"x\"}"},
        TreeCase{"name without =", "<r><a b c>x</a>y</r>", "r{\">x\"}"},
        TreeCase{"same name replaces the value", "<a b=\"1\" c=\"2\" b=\"3\"/>", "a[b=3,c=2]"},
        TreeCase{"same name, other space, kept", "<a b=\"1\" x:b=\"2\"/>", "a[b=1,x:b=2]"},
        TreeCase{"blanks around =", "<a b \n= \t'v'/>", "a[b=v]"},
        TreeCase{"entities in a value", "<a b=\"&lt;&#x20AC;&quot;\"/>", "a[b=<\xE2\x82\xAC\"]"},
        TreeCase{"entity without ; swallows the rest", "<a b=\"&lt\" c=\"x\"/>", "a[b=\\0]"},
        TreeCase{"value not closed", "<a b=\"x", "a[b=x]"},
        // Entities in text.
        TreeCase{"named entities", "<a>&lt;&gt;&amp;&apos;&quot;</a>", "a{\"<>&'\"\"}"},
        TreeCase{"unknown entity is 0", "<a>x&unknown;y</a>", "a{\"x\\0y\"}"},
        TreeCase{"upper-case X is decimal", "<a>&#X41;</a>", "a{\")\"}"},
        TreeCase{"hexadecimal and decimal", "<a>&#x41;&#x6a;&#66;</a>", "a{\"AjB\"}"},
        TreeCase{"non-digits passed over", "<a>&#6z5;&#x4g1;</a>", "a{\"AA\"}"},
        TreeCase{"value wraps in 32 bits", "<a>&#4294967361;</a>", "a{\"A\"}"},
        TreeCase{"beyond Unicode dropped", "<a>x&#x110000;y</a>", "a{\"xy\"}"},
        TreeCase{"astral code point", "<a>&#x1F600;</a>", "a{\"\xF0\x9F\x98\x80\"}"},
        TreeCase{"keep entities in text only", "<a b=\"&amp;\">&amp;</a>", "a[b=&]{\"&amp;\"}", false,
                 true},
        // UTF-8.
        TreeCase{"multi-byte text", "<a>\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80</a>",
                 "a{\"\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80\"}"},
        TreeCase{"stray continuation byte dropped", "<a>x\x80y</a>", "a{\"xy\"}"},
        TreeCase{"interrupted sequence dropped", "<a>\xE2\x82z</a>", "a{\"z\"}"},
        TreeCase{"five-byte sequence beyond Unicode", "<a>x\xF8\x88\x80\x80\x80y</a>", "a{\"xy\"}"},
        TreeCase{"FE and FF start nothing", "<a>x\xFE\xFFy</a>", "a{\"xy\"}"},
        // Text runs, white space, comments, processing instructions, CDATA.
        TreeCase{"runs trimmed at the end only", "<a>  x  <b/>  y \r\n</a>", "a{\"x\",b,\"  y\"}"},
        TreeCase{"spaces saved", "<a>  x  <b/> </a>", "a{\"  x  \",b,\" \"}", true},
        TreeCase{"comment joins text", "<a>x<!-- <b/> -->z</a>", "a{\"xz\"}"},
        TreeCase{"PI skips following blanks", "<a>x<?pi ?>  w</a>", "a{\"xw\"}"},
        TreeCase{"CDATA", "<a>t <![CDATA[ <x> &amp; ]]> u</a>", "a{\"t\",C\" <x> &amp; \",\" u\"}"},
        TreeCase{"CDATA keyword not checked", "<a><![ABCDEFxyz]]></a>", "a{C\"xyz\"}"},
        TreeCase{"CDATA shorter than its keyword", "<a><![CD]]>x</a>", "a{\"x\"}"},
        TreeCase{"CDATA not closed", "<a><![CDATA[xy", "a{C\"xy\"}"},
        TreeCase{"data ends in text", "<a>text", "a{\"text\"}"},
        TreeCase{"data ends after <", "<a>text<", "a{\"text\"}"},
        TreeCase{"data ends in a start tag", "<a><b c=\"1\"", "a{b[c=1]}"}));

// Depth: nested elements named e, each level counted down to the deepest.
int DepthOf(const XmlElement* e, const XmlElement** deepest) {
  int depth = 0;
  while (e) {
    ++depth;
    *deepest = e;
    const XmlElement* next = nullptr;
    for (size_t i = 0; i < e->CountChildren() && !next; ++i) next = e->GetElement(i);
    e = next;
  }
  return depth;
}

class XmlDepth : public ::testing::TestWithParam<int> {};

TEST_P(XmlDepth, StopsAt512Levels) {
  const int levels = GetParam();
  std::string doc;
  for (int i = 0; i < levels; ++i) doc += "<e>";
  for (int i = 0; i < levels; ++i) doc += "</e>";
  auto root = ParseXmlBuffer(doc.data(), doc.size(), false, false);
  ASSERT_TRUE(root);
  const XmlElement* deepest = nullptr;
  EXPECT_EQ(DepthOf(root.get(), &deepest), std::min(levels, tpcsdk::kXmlMaxDepth));
  if (levels > tpcsdk::kXmlMaxDepth) {
    // Reading goes on in the deepest element after each refused child: the refused
    // tag's name and its ">" are a text run, and the next end tag closes the element.
    ASSERT_EQ(deepest->CountChildren(), static_cast<size_t>(levels - tpcsdk::kXmlMaxDepth));
    for (size_t i = 0; i < deepest->CountChildren(); ++i) {
      ASSERT_TRUE(deepest->GetContent(i));
      EXPECT_EQ(Text(deepest->GetContent(i)->text), "e>");
    }
  } else {
    EXPECT_EQ(deepest->CountChildren(), 0u);
  }
}

INSTANTIATE_TEST_SUITE_P(Levels, XmlDepth, ::testing::Values(511, 512, 513, 514));

TEST(XmlDepth, HugeNestingNeitherOverflowsNorRecursesDeeper) {
  std::string doc(200000 * 3, ' ');
  for (size_t i = 0; i < doc.size(); i += 3) doc.replace(i, 3, "<e>");
  auto root = ParseXmlBuffer(doc.data(), doc.size(), false, false);
  ASSERT_TRUE(root);
  const XmlElement* deepest = nullptr;
  EXPECT_EQ(DepthOf(root.get(), &deepest), tpcsdk::kXmlMaxDepth);
}

TEST(XmlElementOps, ChildrenAndAttributes) {
  std::string doc = "<r Mode=\"1\" x:Text=\"t\">hi<c/></r>";
  auto root = ParseXmlBuffer(doc.data(), doc.size(), false, false);
  ASSERT_TRUE(root);
  EXPECT_EQ(root->CountChildren(), 2u);
  EXPECT_EQ(root->GetElement(0), nullptr);  // a text run
  ASSERT_NE(root->GetElement(1), nullptr);
  EXPECT_EQ(root->GetElement(1)->GetParent(), root.get());
  EXPECT_EQ(root->GetElement(2), nullptr);
  EXPECT_EQ(root->GetContent(2), nullptr);
  EXPECT_TRUE(root->HasAttr("Mode"));
  EXPECT_FALSE(root->HasAttr("mode"));  // attribute names keep their case
  EXPECT_FALSE(root->HasAttr("Text"));  // the space is part of the name
  std::u16string v = u"untouched";
  EXPECT_FALSE(root->GetAttrValue("mode", v));
  EXPECT_EQ(v, u"untouched");
  EXPECT_TRUE(root->GetAttrValue("x:Text", v));
  EXPECT_EQ(v, u"t");
  EXPECT_EQ(ParseXmlBuffer(nullptr, 10, false, false), nullptr);
}

// Tags with many attributes: past the first few, a repeated name is found through
// an index; it must still replace the value in place and keep other spaces apart.
TEST(XmlAttributes, ManyWithRepeats) {
  for (int n : {7, 8, 9, 40}) {
    std::string doc = "<a";
    std::string want = "a[";
    for (int i = 0; i < n; ++i) {
      doc += " k" + std::to_string(i) + "=\"" + std::to_string(i) + "\"";
      want += (i ? ",k" : "k") + std::to_string(i) + "=" + (i % 3 == 0 ? "r" : std::to_string(i));
    }
    for (int i = 0; i < n; i += 3) doc += " k" + std::to_string(i) + "='r'";
    doc += " x:k0=\"s\"/>";
    want += ",x:k0=s]";
    EXPECT_EQ(Parse(doc), want) << n;
  }
}

// Runs far longer than the reader's first buffer, with entities and multi-byte
// sequences at every offset, come out whole.
TEST(XmlText, LongRunsKeepEveryUnit) {
  std::string body, want;
  for (int i = 0; i < 3000; ++i) {
    body += i % 7 == 0 ? "&amp;" : i % 11 == 0 ? "\xC3\xA9" : i % 13 == 0 ? "&#x1F600;" : "x";
    want += i % 7 == 0 ? "&" : i % 11 == 0 ? "\xC3\xA9" : i % 13 == 0 ? "\xF0\x9F\x98\x80" : "x";
  }
  EXPECT_EQ(Parse("<a v=\"" + body + "\">" + body + "</a>"), "a[v=" + want + "]{\"" + want + "\"}");
}

// The tree keeps its own copies: it reads the same after its input is gone.
TEST(XmlElementOps, TreeOutlivesItsInput) {
  auto buf = std::make_unique<std::string>("<p:r n:a=\"value one\"><c>text run</c><![CDATA[cd]]></p:r>");
  auto root = ParseXmlBuffer(buf->data(), buf->size(), false, false);
  std::fill(buf->begin(), buf->end(), '#');
  buf.reset();
  ASSERT_TRUE(root);
  EXPECT_EQ(Dump(*root), "p:r[n:a=value one]{c{\"text run\"},C\"cd\"}");
}

// A preference-style document cut at every byte offset: each prefix parses to
// nothing or to a tree no larger than the whole one, without reading past its end.
TEST(XmlTruncation, EveryPrefixIsSafe) {
  const std::string doc =
      "\xEF\xBB\xBF<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n"
      "<!-- preferences -->\r\n<Root><Profstore>\r\n"
      " <Preferences><Group name='g'><Item Text=\" TDOCServer \" String=\"https://h&amp;x\"/>"
      "</Group><I Text=\"M\" Mode=\"&#x31;\">t&lt;\xC3\xA9\xF0\x9F\x98\x80<![CDATA[c]]></I>"
      "<?pi x?></Preferences>\r\n <Modules><M Text=\"Default\" ModuleArray=\"a;b\"/></Modules>"
      "</Profstore></Root>";
  auto count = [](const XmlElement& e, auto& self) -> size_t {
    size_t n = 1;
    for (size_t i = 0; i < e.CountChildren(); ++i)
      if (const XmlElement* c = e.GetElement(i)) n += self(*c, self);
    return n;
  };
  auto full = ParseXmlBuffer(doc.data(), doc.size(), false, false);
  ASSERT_TRUE(full);
  const size_t full_count = count(*full, count);
  EXPECT_EQ(full_count, 8u);
  for (size_t n = 0; n <= doc.size(); ++n) {
    std::vector<char> prefix(doc.begin(), doc.begin() + static_cast<std::ptrdiff_t>(n));
    for (bool save : {false, true}) {
      auto root = ParseXmlBuffer(prefix.data(), prefix.size(), save, save);
      if (!root) continue;
      EXPECT_EQ(root->GetTagName().substr(0, 1), "R") << n;
      EXPECT_LE(count(*root, count), full_count) << n;
    }
  }
}

}  // namespace
