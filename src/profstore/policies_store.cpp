#include "profstore/policies_store.h"

#include "platform/registry_locations.h"
#include "support/text.h"

namespace tpcsdk {
namespace {

using reg::kPoliciesKey;
static_assert(CPoliciesStoreEx::kProductKeyCount == reg::kPolicyProductKeyCount);

// The enumeration buffers: 261 characters of name, 260 bytes of data.
constexpr uint32_t kEnumNameChars = 261;
constexpr uint32_t kEnumDataBytes = 260;

// True when root\Software\Policies\<product key> opens.
bool ProductKeyExists(os::RegRoot root, const char16_t* product) {
  os::RegKey policies = os::OpenRegKey(root, kPoliciesKey);
  if (!policies) return false;
  os::RegKey key = os::OpenRegKey(policies, product);
  os::CloseRegKey(key);
  os::CloseRegKey(policies);
  return key != nullptr;
}

}  // namespace

CPoliciesStoreEx::CPoliciesStoreEx(os::RegRoot machine, os::RegRoot user)
    : m_hRootMachine(machine), m_hRootUser(user) {}

CPoliciesStoreEx::~CPoliciesStoreEx() {
  os::CloseRegKey(m_hKeyMachine);
  os::CloseRegKey(m_hKeyUser);
  m_hKeyMachine = m_hKeyUser = nullptr;
}

void CPoliciesStoreEx::SetProduct(int32_t editor, const std::u16string& version) {
  m_bEditor = editor;
  m_strVersion = version;
}

const char16_t* CPoliciesStoreEx::ProductSubKey(int32_t editor, int32_t index) {
  if (static_cast<uint32_t>(index) >= kProductKeyCount) return nullptr;
  return editor ? reg::kEditorPolicyKeys[index] : reg::kReaderPolicyKeys[index];
}

int32_t CPoliciesStoreEx::FindVersionIndex() {
  if (m_nVersionIndex >= 0) return m_nVersionIndex;
  for (int32_t i = 0; i < kProductKeyCount; ++i) {
    const char16_t* product = ProductSubKey(m_bEditor, i);
    if (ProductKeyExists(m_hRootMachine, product) || ProductKeyExists(m_hRootUser, product)) {
      m_nVersionIndex = i;
      break;
    }
  }
  return m_nVersionIndex;
}

os::RegKey CPoliciesStoreEx::OpenProductKey(int32_t index, int flag) {
  const char16_t* product = ProductSubKey(m_bEditor, index);
  if (!product) return nullptr;
  os::RegKey& cached = flag == kMachine ? m_hKeyMachine : m_hKeyUser;
  os::CloseRegKey(cached);
  cached = nullptr;
  os::RegKey policies = os::OpenRegKey(flag == kMachine ? m_hRootMachine : m_hRootUser, kPoliciesKey);
  if (policies) {
    cached = os::OpenRegKey(policies, product);
    os::CloseRegKey(policies);
  }
  return cached;
}

os::RegKey CPoliciesStoreEx::OpenSubKey(const char16_t* sub_key, int32_t index, int flag) {
  os::RegKey product = OpenProductKey(index, flag);
  if (!product || !sub_key) return nullptr;
  return os::OpenRegKey(product, sub_key);
}

bool CPoliciesStoreEx::ReadDword(const char16_t* sub_key, const char16_t* name, uint32_t& out,
                                 int32_t index, int flag) {
  if (!sub_key || !name) return false;
  os::RegKey key = OpenSubKey(sub_key, index, flag);
  if (!key) return false;
  uint32_t value = 0;
  bool ok = os::QueryRegDword(key, name, value);
  os::CloseRegKey(key);
  if (ok) out = value;
  return ok;
}

bool CPoliciesStoreEx::ReadString(const char16_t* sub_key, const char16_t* name,
                                  std::u16string& out, int32_t index, int flag) {
  if (!sub_key || !name) return false;
  os::RegKey key = OpenSubKey(sub_key, index, flag);
  if (!key) return false;
  // Size first, then a buffer of half that many characters, as the registry's
  // reader does; a value that grows in between fails the second read.
  bool ok = false;
  uint32_t size = 0;
  if (os::QueryRegValue(key, name, nullptr, nullptr, &size) == os::RegStatus::kOk) {
    std::u16string buf(size / 2, u'\0');
    uint32_t got = static_cast<uint32_t>(buf.size() * sizeof(char16_t));
    ok = os::QueryRegValue(key, name, nullptr, buf.empty() ? nullptr : &buf[0], &got) ==
         os::RegStatus::kOk;
    if (ok) {
      size_t n = buf.find(u'\0');
      if (n != std::u16string::npos) buf.resize(n);
      out = std::move(buf);
    }
  }
  os::CloseRegKey(key);
  return ok;
}

void CPoliciesStoreEx::EnumValueData(os::RegKey key, std::vector<std::u16string>& list) {
  uint32_t count = 0;
  if (!key || !os::QueryRegValueCount(key, count)) return;
  for (uint32_t i = 0; i < count; ++i) {
    std::u16string name;
    char16_t data[kEnumDataBytes / 2 + 1] = {};
    uint32_t size = kEnumDataBytes;
    if (os::EnumRegValue(key, i, name, kEnumNameChars, nullptr, data, &size) != os::RegStatus::kOk)
      continue;
    size_t n = 0;
    while (n < size / 2 && data[n] != u'\0') ++n;
    list.emplace_back(data, n);
  }
}

void CPoliciesStoreEx::EnumValueNames(os::RegKey key, std::vector<std::u16string>& list) {
  uint32_t count = 0;
  if (!key || !os::QueryRegValueCount(key, count)) return;
  for (uint32_t i = 0; i < count; ++i) {
    std::u16string name;
    if (os::EnumRegValue(key, i, name, kEnumNameChars, nullptr, nullptr, nullptr) !=
        os::RegStatus::kOk)
      continue;
    bool seen = false;
    for (const auto& item : list) seen = seen || EqualsNoCase(item, name);
    if (!seen) list.push_back(std::move(name));
  }
}

}  // namespace tpcsdk
