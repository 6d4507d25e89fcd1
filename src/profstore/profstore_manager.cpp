#include "profstore/profstore_manager.h"

#include <cstdio>

#include "os/paths.h"
#include "support/text.h"

namespace tpcsdk {
namespace {

// Reads a whole file; false when it can't be opened or read.
bool ReadWholeFile(const std::u16string& path, std::string& out) {
  std::FILE* f = os::OpenStdioFile(path, "rb");
  if (!f) return false;
  bool ok = std::fseek(f, 0, SEEK_END) == 0;
  long size = ok ? std::ftell(f) : -1;
  ok = ok && size >= 0 && std::fseek(f, 0, SEEK_SET) == 0;
  if (ok) {
    out.resize(static_cast<size_t>(size));
    ok = out.empty() || std::fread(&out[0], 1, out.size(), f) == out.size();
  }
  std::fclose(f);
  return ok;
}

}  // namespace

CReader_ProfStoreManagerEx::CReader_ProfStoreManagerEx()
    : m_policyStore(os::RegRoot::kLocalMachine, os::RegRoot::kCurrentUser) {}

CReader_ProfStoreManagerEx::~CReader_ProfStoreManagerEx() = default;

void CReader_ProfStoreManagerEx::Decipher(std::string& /*buffer*/) {}

void CReader_ProfStoreManagerEx::Load(int32_t kind, const std::u16string& version,
                                      const std::u16string& path) {
  std::string buffer;
  if (!path.empty() && ReadWholeFile(path, buffer)) {
    Decipher(buffer);
    m_xmlStore.LoadBuffer(buffer.data(), buffer.size());
  }
  m_policyStore.SetProduct(kind, version);
}

bool CReader_ProfStoreManagerEx::ReadModeValue(const char16_t* sub_key, const char16_t* name,
                                               const char* attr, int32_t* out) {
  if (!out) return false;
  std::u16string text;
  if (name && m_xmlStore.Lookup(u"Preferences", name, text, attr)) {
    text = TrimText(text);
    if (text.empty()) return false;
    *out = TextToInt(text);
    return true;
  }
  const int32_t index = m_policyStore.FindVersionIndex();
  if (!sub_key || !name) return false;
  uint32_t value = 0;
  if (m_policyStore.ReadDword(sub_key, name, value, index, CPoliciesStoreEx::kMachine) ||
      m_policyStore.ReadDword(sub_key, name, value, index, CPoliciesStoreEx::kUser)) {
    *out = static_cast<int32_t>(value);
    return true;
  }
  return false;
}

std::vector<std::u16string> CReader_ProfStoreManagerEx::SplitList(std::u16string_view text) {
  std::vector<std::u16string> list;
  std::u16string all = TrimText(text);
  if (all.empty()) return list;
  if (all.find(u';') == std::u16string::npos) {
    list.push_back(std::move(all));
    return list;
  }
  size_t start = 0;
  for (;;) {
    size_t end = all.find(u';', start);
    std::u16string piece =
        TrimText(std::u16string_view(all).substr(start, end == std::u16string::npos ? end : end - start));
    if (!piece.empty()) list.push_back(std::move(piece));
    if (end == std::u16string::npos) break;
    start = end + 1;
  }
  return list;
}

void CReader_ProfStoreManagerEx::MergeList(std::vector<std::u16string>& target,
                                           const std::vector<std::u16string>& source) {
  const size_t before = target.size();
  for (const auto& item : source) {
    bool seen = false;
    for (size_t i = 0; i < before && !seen; ++i) seen = EqualsNoCase(target[i], item);
    if (!seen) target.push_back(item);
  }
}

}  // namespace tpcsdk
