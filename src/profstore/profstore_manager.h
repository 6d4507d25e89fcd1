// CReader_ProfStoreManagerEx: joins the preference file and the policy keys, and
// gives the preference store the reads that many of its settings share.
#pragma once
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "profstore/policies_store.h"
#include "profstore/xml_profstore.h"

namespace tpcsdk {

class CReader_ProfStoreManagerEx {
 public:
  CReader_ProfStoreManagerEx();
  virtual ~CReader_ProfStoreManagerEx();
  CReader_ProfStoreManagerEx(const CReader_ProfStoreManagerEx&) = delete;
  CReader_ProfStoreManagerEx& operator=(const CReader_ProfStoreManagerEx&) = delete;

  // Reads the preference file at path, when there is one, and hands the product
  // kind and version to the policy store. A missing or unreadable file leaves the
  // store working from the registry alone.
  void Load(int32_t kind, const std::u16string& version, const std::u16string& path);

  // An integer setting: the attribute of the item named `name` in the file's
  // Preferences section, else the 32-bit policy value sub_key\name of the machine,
  // else of the user. A file value of blanks is a miss that ends the search.
  bool ReadModeValue(const char16_t* sub_key, const char16_t* name, const char* attr,
                     int32_t* out);

  CXMLProfStoreEx& Xml() { return m_xmlStore; }
  CPoliciesStoreEx& Policies() { return m_policyStore; }

  // The file may come enciphered; this is the step that would turn it into plain XML.
  // Only the plain form is read, so the buffer passes through unchanged.
  static void Decipher(std::string& buffer);

  // Splits a ";"-separated list: pieces are trimmed and empty ones dropped.
  static std::vector<std::u16string> SplitList(std::u16string_view text);
  // Appends each source item that no item of the target had before the merge
  // began equals, case ignored (so repeats within the source stay).
  static void MergeList(std::vector<std::u16string>& target,
                        const std::vector<std::u16string>& source);

 private:
  CXMLProfStoreEx m_xmlStore;
  CPoliciesStoreEx m_policyStore;
};

}  // namespace tpcsdk
