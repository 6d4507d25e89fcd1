// CPoliciesStoreEx: the group-policy keys of the application under Software\Policies,
// for the machine and for the user.
//
// The product's sub-key was renamed between generations of the product; the store
// finds the newest name that exists (the machine asked before the user for each
// name) and then reads under that name in both roots.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "os/registry.h"

namespace tpcsdk {

class CPoliciesStoreEx {
 public:
  // Which root a read goes to.
  enum : int { kMachine = 0, kUser = 1 };
  static constexpr int kProductKeyCount = 4;

  CPoliciesStoreEx(os::RegRoot machine, os::RegRoot user);
  virtual ~CPoliciesStoreEx();
  CPoliciesStoreEx(const CPoliciesStoreEx&) = delete;
  CPoliciesStoreEx& operator=(const CPoliciesStoreEx&) = delete;

  // Set by the manager's Load: not 0 for the editor, 0 for the reader.
  void SetProduct(int32_t editor, const std::u16string& version);
  int32_t IsEditor() const { return m_bEditor; }

  // The product sub-key's index, searched for while none has been found.
  int32_t FindVersionIndex();
  // The product sub-key of the index under Software\Policies, or null; index 0 is
  // the newest name.
  static const char16_t* ProductSubKey(int32_t editor, int32_t index);

  // Opens the product key of the index under the root of the flag, replacing the
  // cached key of that root. Null for an index out of 0..3 or a missing key.
  os::RegKey OpenProductKey(int32_t index, int flag);
  // Opens sub_key below the product key, for the caller to close. Null when either
  // is missing or sub_key is null.
  os::RegKey OpenSubKey(const char16_t* sub_key, int32_t index, int flag);

  // A value read into a 4-byte buffer, whatever its type.
  bool ReadDword(const char16_t* sub_key, const char16_t* name, uint32_t& out, int32_t index,
                 int flag);
  // A value read as text, up to its first NUL, whatever its type.
  bool ReadString(const char16_t* sub_key, const char16_t* name, std::u16string& out,
                  int32_t index, int flag);
  // Appends the data of every value of the key as text (values whose name or data
  // don't fit the buffers are passed over).
  static void EnumValueData(os::RegKey key, std::vector<std::u16string>& list);
  // Appends the names of every value not yet in the list, case ignored.
  static void EnumValueNames(os::RegKey key, std::vector<std::u16string>& list);

 private:
  os::RegRoot m_hRootMachine;
  os::RegRoot m_hRootUser;
  os::RegKey m_hKeyMachine = nullptr;
  os::RegKey m_hKeyUser = nullptr;
  int32_t m_bEditor = 1;
  std::u16string m_strVersion;
  int32_t m_nVersionIndex = -1;
};

}  // namespace tpcsdk
