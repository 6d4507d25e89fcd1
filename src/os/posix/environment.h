// The environment as the POSIX backends read it.
#pragma once
#include <string>

namespace tpcsdk::os {

// The variable's value; empty when it is unset.
std::string EnvValue(const char* name);

// The user's home directory: $HOME, or the password database's entry for the user;
// empty when neither names one.
std::string HomeDirectory();

}  // namespace tpcsdk::os
