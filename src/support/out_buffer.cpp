#include "support/out_buffer.h"

#include <cstdlib>
#include <cstring>

#include "support/utf.h"

namespace tpcsdk {

std::u16string WideArg(TDC_LPCWSTR s) {
  const char16_t* p = AsU16(s);
  return p ? std::u16string(p, WideLength(p)) : std::u16string();
}

TDC_LPWSTR NewWideBlock(std::u16string_view text) {
  auto* block = static_cast<char16_t*>(std::malloc((text.size() + 1) * sizeof(char16_t)));
  if (!block) return nullptr;
  if (!text.empty()) std::memcpy(block, text.data(), text.size() * sizeof(char16_t));
  block[text.size()] = 0;
  return AsWide(block);
}

char* NewTextBlock(std::string_view text) {
  auto* block = static_cast<char*>(std::malloc(text.size() + 1));
  if (!block) return nullptr;
  if (!text.empty()) std::memcpy(block, text.data(), text.size());
  block[text.size()] = 0;
  return block;
}

bool FreeBlock(void* block) {
  if (!block) return false;
  std::free(block);
  return true;
}

}  // namespace tpcsdk
