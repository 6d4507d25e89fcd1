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
#include <vector>

namespace tpcsdk {

// The tree's strings are views into storage that the root element owns: they stay
// valid while the root lives, and no longer.

// A run of text inside an element; cdata is set for the body of a CDATA section.
struct XmlContent {
  bool cdata = false;
  std::u16string_view text;
};

// One attribute: the name space is what stood before the last ":" of its name.
struct XmlAttribute {
  std::string_view space;
  std::string_view name;
  std::u16string_view value;
};

class XmlArena;
class XmlTreeBuilder;

// An element of the parsed tree. The root returned by ParseXmlBuffer owns the whole
// tree (every element, attribute and text run below it); destroying it destroys all
// of them. Elements are built only by the reader.
class XmlElement {
 public:
  // The kinds of the entries of the content array.
  enum ContentKind { kElement = 1, kText = 2 };

  ~XmlElement();
  XmlElement(const XmlElement&) = delete;
  XmlElement& operator=(const XmlElement&) = delete;

  XmlElement* GetParent() const { return parent_; }
  std::string_view GetTagSpace() const { return space_; }
  std::string_view GetTagName() const { return name_; }

  // Entries of the content array: child elements and text runs, in document order.
  size_t CountChildren() const { return content_count_; }
  ContentKind GetChildKind(size_t index) const;
  // The child element at index; null for a text run or an index out of range.
  XmlElement* GetElement(size_t index) const;
  // The text run at index; null for an element or an index out of range.
  const XmlContent* GetContent(size_t index) const;

  size_t CountAttrs() const { return attr_count_; }
  const XmlAttribute& GetAttr(size_t index) const { return attrs_[index]; }
  // Attribute look-up by name, exactly as written ("space:name" or "name");
  // names compare with case.
  bool HasAttr(std::string_view qname) const;
  // Copies the value into out and returns true when the attribute is there;
  // leaves out alone otherwise.
  bool GetAttrValue(std::string_view qname, std::u16string& out) const;

  // One entry of the content array: exactly one of the two is set.
  struct Entry {
    XmlElement* element;
    const XmlContent* content;
  };

 private:
  friend class XmlTreeBuilder;
  XmlElement(XmlElement* parent, std::string_view space, std::string_view name);
  const XmlAttribute* FindAttr(std::string_view qname) const;

  XmlElement* parent_;
  std::string_view space_;
  std::string_view name_;
  const XmlAttribute* attrs_ = nullptr;
  size_t attr_count_ = 0;
  const Entry* content_ = nullptr;
  size_t content_count_ = 0;
  std::unique_ptr<XmlArena> arena_;  // the root's: the storage of the whole tree
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
