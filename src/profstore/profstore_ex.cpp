#include "profstore/profstore_ex.h"

#include "os/paths.h"
#include "os/registry.h"
#include "platform/registry_locations.h"
#include "support/guard.h"
#include "support/text.h"

namespace tpcsdk {
namespace {

// The file's section of every item, and the policy sub-keys.
constexpr char16_t kPreferences[] = u"Preferences";
using reg::kPolicyPreferences;
using reg::kPolicyTdoc;
using reg::kPolicyTdocPreferences;

CProfstoreEx* g_profstore = nullptr;

// The preference file's default place: ProfStore\ProfStore.xml in the directory of
// the host's executable.
std::u16string DefaultPath() {
  std::u16string exe = os::HostExecutablePath();
  const size_t sep = exe.rfind(os::kPathSeparator);
  exe.erase(sep == std::u16string::npos ? 0 : sep + 1);
  return exe + u"ProfStore" + os::kPathSeparator + u"ProfStore.xml";
}

// A string value of the application's own keys, read as into a fixed 260-byte
// buffer: a missing key or value, or a longer value, reads as empty text.
std::u16string ReadApplicationString(os::RegRoot root, const std::u16string& path,
                                     const char16_t* name) {
  os::RegKey key = os::OpenRegKey(root, path);
  if (!key) return std::u16string();
  char16_t buf[130] = {};
  uint32_t size = sizeof(buf);
  const bool ok = os::QueryRegValue(key, name, nullptr, buf, &size) == os::RegStatus::kOk;
  os::CloseRegKey(key);
  if (!ok) return std::u16string();
  size_t n = 0;
  while (n < size / 2 && buf[n] != u'\0') ++n;
  return std::u16string(buf, n);
}

}  // namespace

CProfstoreEx::CProfstoreEx()
    : m_pManager(std::make_unique<CReader_ProfStoreManagerEx>()),
      m_strVersion(u"10.0"),
      m_nProductKind(1),
      m_strPath(DefaultPath()) {}

CProfstoreEx::~CProfstoreEx() = default;

void CProfstoreEx::Init(int32_t kind, const std::u16string& path, const std::u16string& version) {
  m_nProductKind = kind;
  if (!version.empty()) m_strVersion = version;
  const size_t dot = m_strVersion.find(u'.');
  if (dot != std::u16string::npos && dot > 0) m_strVersion = m_strVersion.substr(0, dot) + u".0";
  if (!path.empty()) m_strPath = path;
  m_pManager->Load(m_nProductKind, m_strVersion, m_strPath);
}

void CProfstoreEx::Destroy(unsigned int flags) {
  if (flags & 1u)
    delete this;
  else
    this->~CProfstoreEx();
}

std::u16string CProfstoreEx::ApplicationKey() const {
  return reg::ProductKeyAllVersions(m_nProductKind == 0 ? ProductKind::Reader : ProductKind::Editor);
}

// The first source that holds the text wins: file, machine policy, user policy.
int CProfstoreEx::TextShape(const char16_t* item, const char* attr, const char16_t* sub_key,
                            const char16_t* value, std::u16string& out) {
  std::u16string text;
  if (m_pManager->Xml().Lookup(kPreferences, item, text, attr)) {
    out = std::move(text);
    return 1;
  }
  CPoliciesStoreEx& policies = m_pManager->Policies();
  const int32_t index = policies.FindVersionIndex();
  if (policies.ReadString(sub_key, value, text, index, CPoliciesStoreEx::kMachine) ||
      policies.ReadString(sub_key, value, text, index, CPoliciesStoreEx::kUser)) {
    out = std::move(text);
    return 1;
  }
  return 0;
}

int CProfstoreEx::FlagShape(const char16_t* sub_key, const char16_t* name, bool& out) {
  int32_t value = 0;
  if (!m_pManager->ReadModeValue(sub_key, name, "Mode", &value)) return 0;
  out = value != 0;
  return 1;
}

int CProfstoreEx::RawModeShape(const char16_t* name, int32_t& out) {
  int32_t value = 0;
  if (!m_pManager->ReadModeValue(kPolicyPreferences, name, "Mode", &value)) return 0;
  out = value;
  return 1;
}

// The file's list first, then the items of the machine's and the user's policy
// key that it doesn't have yet: the values' data, or with `names` their names.
std::vector<std::u16string> CProfstoreEx::ListShape(const char16_t* section, const char16_t* item,
                                                    const char* attr, const char16_t* sub_key,
                                                    bool names) {
  std::vector<std::u16string> list;
  std::u16string text;
  if (m_pManager->Xml().Lookup(section, item, text, attr))
    list = CReader_ProfStoreManagerEx::SplitList(text);
  CPoliciesStoreEx& policies = m_pManager->Policies();
  const int32_t index = policies.FindVersionIndex();
  for (int flag : {CPoliciesStoreEx::kMachine, CPoliciesStoreEx::kUser}) {
    std::vector<std::u16string> policy;
    os::RegKey key = policies.OpenSubKey(sub_key, index, flag);
    if (names)
      CPoliciesStoreEx::EnumValueNames(key, policy);
    else
      CPoliciesStoreEx::EnumValueData(key, policy);
    os::CloseRegKey(key);
    CReader_ProfStoreManagerEx::MergeList(list, policy);
  }
  return list;
}

int CProfstoreEx::GetPrinterName(std::u16string& out) {
  return Guarded(0, [&] {
    return TextShape(u"PrinterName", "Title", kPolicyPreferences, reg::kPolicyPrinterName, out);
  });
}

int CProfstoreEx::GetDistName(std::u16string& out) {
  return Guarded(0, [&] { return TextShape(u"DistName", "Title", kPolicyPreferences, reg::kPolicyDistName, out); });
}

int CProfstoreEx::GetMainFrameName(std::u16string& out) {
  // The file's item and the policy's value name differ in the case of one letter.
  return Guarded(0, [&] {
    return TextShape(u"MainFrameName", "Title", kPolicyPreferences, reg::kPolicyMainFrameName, out);
  });
}

int CProfstoreEx::GetModuleArray(std::u16string& out) {
  return Guarded(0, [&] {
    const auto list = ListShape(u"Modules", u"Default", "ModuleArray", reg::kPolicyModules, false);
    if (list.empty()) return 0;
    std::u16string joined;
    for (const auto& item : list) joined += item + u";";
    out = std::move(joined);
    return 1;
  });
}

int CProfstoreEx::GetDisableInternet(int32_t& out) {
  return Guarded(0, [&] {
    int32_t mode = 0;
    if (m_pManager->ReadModeValue(kPolicyPreferences, reg::kPolicyInternetConnection, "Mode", &mode)) {
      // The stored mode says the connection is on; the question is whether it is off.
      out = mode == 0 ? 1 : 0;
      return 1;
    }
    std::u16string path = ApplicationKey();
    const std::u16string machine =
        ReadApplicationString(os::RegRoot::kLocalMachine, path, reg::kDisableInternetValue);
    if (!machine.empty()) out = TextToInt(machine);
    if (out == 0) {
      path += u"\\" + m_strVersion + reg::kGeneralPreferencesKey;
      out = TextToInt(ReadApplicationString(os::RegRoot::kCurrentUser, path, reg::kDisableInternetValue));
    }
    return 0;  // the value wasn't laid down by the file or a policy, though out is set
  });
}

int CProfstoreEx::GetTDOCServerURL(std::u16string& out) {
  return Guarded(0, [&] {
    std::u16string text;
    if (!TextShape(u"TDOCServer", "String", kPolicyTdoc, reg::kPolicyServiceUrl, text)) return 0;
    text = TrimText(text);
    if (text.empty()) return 0;
    out = std::move(text);
    return 1;
  });
}

int CProfstoreEx::GetCollectData(int32_t& out) {
  return Guarded(0, [&] {
    int32_t mode = 0;
    if (m_pManager->ReadModeValue(kPolicyPreferences, reg::kPolicyCollectData, "Mode", &mode)) {
      out = mode != 0 ? 1 : 0;
      return 1;
    }
    const std::u16string path = ApplicationKey() + u"\\" + m_strVersion + reg::kGeneralPreferencesKey;
    out = TextToInt(ReadApplicationString(os::RegRoot::kCurrentUser, path, reg::kCollectDataValue));
    return 0;
  });
}

int CProfstoreEx::GetInternalUpdate(std::u16string& out) {
  return Guarded(0, [&] { return TextShape(u"InternalUpdate", "String", kPolicyTdoc, reg::kPolicyInternalUpdate, out); });
}

int CProfstoreEx::GetECMPluginArray(std::vector<std::u16string>& out) {
  return Guarded(0, [&] {
    auto list =
        ListShape(u"ECMPlugins", u"Plugin", "ECMPluginArray", reg::kPolicyConnectionExceptions, true);
    if (list.empty()) return 0;
    out = std::move(list);
    return 1;
  });
}

int CProfstoreEx::GetUnloadPluginArray(std::vector<std::u16string>& out) {
  return Guarded(0, [&] {
    auto list = ListShape(u"Plugins", u"Plugin", "UnloadPluginArray", reg::kPolicyPlugins, false);
    if (list.empty()) return 0;
    out = std::move(list);
    return 1;
  });
}

int CProfstoreEx::GetTutorialsUrl(std::u16string& out) {
  return Guarded(0, [&] {
    return TextShape(u"TutorialsUrl", "String", kPolicyPreferences, reg::kPolicyTutorialsUrl, out);
  });
}

int CProfstoreEx::GetAddinSettings(int32_t& outputPdf, int32_t& viewPdf, int32_t& attachments) {
  return Guarded(0, [&] {
    int found = 0;
    const std::pair<const char16_t*, int32_t*> reads[] = {{reg::kPolicyCheckAddinOutputPdf, &outputPdf},
                                                          {reg::kPolicyCheckAddinViewPdf, &viewPdf},
                                                          {reg::kPolicyCheckAddinAttachments, &attachments}};
    for (const auto& [name, target] : reads) {
      int32_t value = 0;
      if (RawModeShape(name, value)) {
        *target = value != 0 ? 1 : 0;
        found = 1;
      }
    }
    return found;
  });
}

int CProfstoreEx::GetCheckAddinOutputPDF(int32_t& out) {
  return Guarded(0, [&] { return RawModeShape(reg::kPolicyCheckAddinOutputPdf, out); });
}

int CProfstoreEx::GetCheckAddinViewPDF(int32_t& out) {
  return Guarded(0, [&] { return RawModeShape(reg::kPolicyCheckAddinViewPdf, out); });
}

int CProfstoreEx::GetCheckAddinAttachments(int32_t& out) {
  return Guarded(0, [&] { return RawModeShape(reg::kPolicyCheckAddinAttachments, out); });
}

// One end of the creator's port range: the file's attribute (blanks only is a miss
// that ends the search), else the 32-bit policy value of the machine, then the user.
bool CProfstoreEx::PortRangeEnd(const char* attr, const char16_t* value, int32_t& out) {
  std::u16string text;
  if (m_pManager->Xml().Lookup(kPreferences, u"CreatorPortRange", text, attr)) {
    text = TrimText(text);
    if (text.empty()) return false;
    out = TextToInt(text);
    return true;
  }
  CPoliciesStoreEx& policies = m_pManager->Policies();
  const int32_t index = policies.FindVersionIndex();
  uint32_t v = 0;
  if (policies.ReadDword(kPolicyPreferences, value, v, index, CPoliciesStoreEx::kMachine) ||
      policies.ReadDword(kPolicyPreferences, value, v, index, CPoliciesStoreEx::kUser)) {
    out = static_cast<int32_t>(v);
    return true;
  }
  return false;
}

int CProfstoreEx::GetCreatorPortRange(int32_t& min, int32_t& max) {
  return Guarded(0, [&] {
    int32_t lo = 0, hi = 0;
    const bool has_lo = PortRangeEnd("Min", reg::kPolicyCreatorPortRangeMin, lo);
    const bool has_hi = PortRangeEnd("Max", reg::kPolicyCreatorPortRangeMax, hi);
    if (!has_lo || !has_hi || static_cast<uint32_t>(lo) > static_cast<uint32_t>(hi)) return 0;
    min = lo;
    max = hi;
    return 1;
  });
}

int CProfstoreEx::GetDisableTetherdoc(bool& out) {
  return Guarded(0, [&] { return FlagShape(kPolicyTdoc, reg::kPolicyDisableTetherdoc, out); });
}

int CProfstoreEx::GetGPOAppendMode(bool& out) {
  return Guarded(0, [&] { return FlagShape(kPolicyPreferences, reg::kPolicyGpoAppendMode, out); });
}

int CProfstoreEx::GetAutoConvertTetherdoc(bool& out) {
  return Guarded(0, [&] { return FlagShape(kPolicyTdocPreferences, reg::kPolicyAutoConvertTetherdoc, out); });
}

int CProfstoreEx::GetOfficeAutoConvertTetherdoc(bool& out) {
  return Guarded(0, [&] { return FlagShape(kPolicyTdocPreferences, reg::kPolicyOfficeAutoConvertTetherdoc, out); });
}

int CProfstoreEx::GetDisableMajorUpdate(bool& out) {
  return Guarded(0, [&] { return FlagShape(kPolicyPreferences, reg::kPolicyDisableMajorUpdate, out); });
}

IProfstore* GetProfStoreEx(int32_t kind, const std::u16string& path, const std::u16string& version) {
  if (g_profstore) return g_profstore;
  return Guarded<IProfstore*>(nullptr, [&]() -> IProfstore* {
    auto store = std::make_unique<CProfstoreEx>();
    store->Init(kind, path, version);
    g_profstore = store.release();
    return g_profstore;
  });
}

void ReleaseProfStoreEx() {
  CProfstoreEx* store = g_profstore;
  g_profstore = nullptr;
  if (store) store->Destroy(1);
}

}  // namespace tpcsdk
