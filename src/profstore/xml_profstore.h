// CXMLProfStoreEx: the parsed preference file ProfStore.xml and its look-ups by
// section, item and attribute.
//
// The document is walked as: any root element; its first child named Profstore
// (ASCII case ignored); below that a section element (Preferences, Modules, ...)
// found by tag name, case ignored; below the section, at any depth, an item
// element whose Text attribute, trimmed, names the item, case ignored. The value
// is another attribute of the item element. Tag names of items don't matter.
#pragma once
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "support/xml_reader.h"

namespace tpcsdk {

class CXMLProfStoreEx {
 public:
  CXMLProfStoreEx();
  virtual ~CXMLProfStoreEx();
  CXMLProfStoreEx(const CXMLProfStoreEx&) = delete;
  CXMLProfStoreEx& operator=(const CXMLProfStoreEx&) = delete;

  // Parses a plain-XML buffer with every reader option off, replacing any earlier
  // document, and keeps the Profstore element. True when one was found.
  bool LoadBuffer(const void* data, size_t size);

  // Looks up attr of the item in section_path ("Section" or "Section\Group").
  // True, with the value in out, when the value is there and not empty; out is
  // left alone otherwise.
  bool Lookup(std::u16string_view section_path, std::u16string_view item, std::u16string& out,
              const char* attr) const;

  bool HasProfstore() const { return m_pProfstore != nullptr; }

 private:
  // Depth-first search for the item below el: a direct child naming it ends the
  // search (found or not); otherwise each child element is searched in order.
  static bool FindItem(const XmlElement* el, std::u16string_view item, std::u16string& out,
                       const char* attr);

  XmlElement* m_pProfstore = nullptr;
  std::unique_ptr<XmlElement> m_pRoot;
};

}  // namespace tpcsdk
