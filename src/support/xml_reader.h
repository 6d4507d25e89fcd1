// A small, forgiving XML reader: one memory buffer in, a tree of elements out.
//
// It reads bytes, decodes text as UTF-8 into 16-bit strings, and never reports an
// error: a malformed part of a document only makes the tree shorter. Every read is
// bounded by the buffer's size, so no input can make it read outside the buffer.
// Its one caller is the preference file, which parses with both options off.
#pragma once
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace tpcsdk {

// A run of text inside an element; cdata is set for the body of a CDATA section.
struct XmlContent {
  bool cdata = false;
  std::u16string text;
};

// One attribute: the name space is what stood before the last ":" of its name.
struct XmlAttribute {
  std::string space;
  std::string name;
  std::u16string value;
};

// An element of the parsed tree. It owns its attributes, text runs and children;
// destroying it destroys all of them.
class XmlElement {
 public:
  // The kinds of the entries of the content array.
  enum ContentKind { kElement = 1, kText = 2 };

  XmlElement(XmlElement* parent, std::string space, std::string name);
  ~XmlElement();
  XmlElement(const XmlElement&) = delete;
  XmlElement& operator=(const XmlElement&) = delete;

  XmlElement* GetParent() const { return parent_; }
  const std::string& GetTagSpace() const { return space_; }
  const std::string& GetTagName() const { return name_; }

  // Entries of the content array: child elements and text runs, in document order.
  size_t CountChildren() const { return content_.size(); }
  ContentKind GetChildKind(size_t index) const;
  // The child element at index; null for a text run or an index out of range.
  XmlElement* GetElement(size_t index) const;
  // The text run at index; null for an element or an index out of range.
  const XmlContent* GetContent(size_t index) const;

  size_t CountAttrs() const { return attrs_.size(); }
  const XmlAttribute& GetAttr(size_t index) const { return attrs_[index]; }
  // Attribute look-up by name, exactly as written ("space:name" or "name");
  // names compare with case.
  bool HasAttr(std::string_view qname) const;
  // Copies the value into out and returns true when the attribute is there;
  // leaves out alone otherwise.
  bool GetAttrValue(std::string_view qname, std::u16string& out) const;

  // Building the tree. An attribute with the space and name of an existing one
  // replaces its value.
  void SetAttr(std::string space, std::string name, std::u16string value);
  void AppendChild(std::unique_ptr<XmlElement> child);
  void AppendContent(std::unique_ptr<XmlContent> content);

 private:
  const XmlAttribute* FindAttr(std::string_view qname) const;

  using Entry = std::variant<std::unique_ptr<XmlElement>, std::unique_ptr<XmlContent>>;
  XmlElement* parent_;
  std::string space_;
  std::string name_;
  std::vector<XmlAttribute> attrs_;
  std::vector<Entry> content_;
};

// Parses size bytes at data into a tree and returns its root, or null when the
// buffer doesn't look like a document or its first tag isn't a start tag.
//   save_spaces   keep white space after start tags and at the end of text runs
//   keep_entities "&" in element text is an ordinary byte (attribute values still
//                 decode their entities)
std::unique_ptr<XmlElement> ParseXmlBuffer(const void* data, size_t size, bool save_spaces,
                                           bool keep_entities);

// The document test: after white space, the first byte is "<", or a UTF-8 or
// 16-bit byte-order mark directly followed by "<". A 16-bit document passes the
// test and is then read as bytes, a known limit of this reader.
bool IsXmlDocument(const void* data, size_t size);

// Most elements the reader nests; a deeper element is left out of the tree.
constexpr int kXmlMaxDepth = 512;

}  // namespace tpcsdk
