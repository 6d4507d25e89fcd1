// What the sources of a service host share (slots 5 to 10 of the platform). Each
// source has its own file:
//   host_from_config.cpp       the configuration file, then DNS (slots 5 and 6), and
//                              the constructor's configuration step
//   host_from_policy.cpp       the tenant value, then the preference store (slots 7, 8)
//   host_from_last_signin.cpp  the service the user last signed in to (slot 9)
//   enterprise_env.cpp         the enterprise test (slot 10)
// Each slot is one source with its own fallbacks; the host application decides in
// which order it asks them.
#pragma once
#include <string>

#include "os/registry.h"
#include "tpcsdk/IPDFPlatform.h"

namespace tpcsdk {

// The hosts this build was made for (build-time settings).
std::u16string DefaultServiceHost();
std::u16string RegionalConfigHost();

// Hands a found host to the caller in a new block. False when there is nowhere to put
// it or no memory for it.
bool HandOut(TDC_LPWSTR* out, const std::u16string& host);

// A string value of the registry; false when the key or the value can't be read.
bool ReadRegistryString(os::RegRoot root, const std::u16string& path, const char16_t* name, std::u16string& out);

// True when the application's name holds the word.
bool Holds(const std::u16string& application, const char16_t* word);

}  // namespace tpcsdk
