// Blocks handed to the host through out parameters. They come from the module's own
// heap and go back through the TDC_Release* exports, which free them here.
#pragma once
#include <string>
#include <string_view>

#include "tpcsdk/tpcsdk.h"

namespace tpcsdk {

// Host-facing wide text and the library's UTF-16 strings share one 16-bit layout.
static_assert(sizeof(TDC_WCHAR) == sizeof(char16_t), "wide text must be UTF-16");

inline const char16_t* AsU16(TDC_LPCWSTR s) { return reinterpret_cast<const char16_t*>(s); }
inline TDC_LPWSTR AsWide(char16_t* s) { return reinterpret_cast<TDC_LPWSTR>(s); }

// The text of a host's wide argument; empty for null.
std::u16string WideArg(TDC_LPCWSTR s);

// New NUL-terminated copies for an out parameter; null when memory ran out.
TDC_LPWSTR NewWideBlock(std::u16string_view text);
char* NewTextBlock(std::string_view text);
// Gives a block back; false for null.
bool FreeBlock(void* block);

}  // namespace tpcsdk
