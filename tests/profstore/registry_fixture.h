// Tests of the registry and the preference store run against the real registry
// (Windows, wine's hermetic prefix) or JSON hives in a temporary directory (Linux).
// The fixture moves the hives and clears every key the tests write, before and after.
#pragma once
#include <gtest/gtest.h>

#include <string>

#include "kit/testkit.h"
#include "os/registry.h"

namespace regtest {

using tpcsdk::os::RegRoot;

// The keys these tests write under both roots.
inline const char16_t* const kTestKeys[] = {u"Software\\Policies\\Tarvo",
                                            u"SOFTWARE\\Tarvo Software",
                                            u"Software\\TpcsdkRegistryTest"};

class RegistryTest : public ::testing::Test {
 protected:
  RegistryTest() : env_(tpcsdk::os::kRegistryDirVariable, dir_.path().string()) { Clear(); }
  ~RegistryTest() override { Clear(); }

  static void Clear() {
    for (RegRoot root : {RegRoot::kLocalMachine, RegRoot::kCurrentUser})
      for (const char16_t* key : kTestKeys) tpcsdk::os::DeleteRegTree(root, key);
  }

  static void SetString(RegRoot root, const std::u16string& key, const std::u16string& name,
                        const std::u16string& value) {
    tpcsdk::os::RegKey k = tpcsdk::os::CreateRegKey(root, key);
    ASSERT_NE(k, nullptr);
    EXPECT_TRUE(tpcsdk::os::SetRegString(k, name, value));
    tpcsdk::os::CloseRegKey(k);
  }

  static void SetDword(RegRoot root, const std::u16string& key, const std::u16string& name,
                       uint32_t value) {
    tpcsdk::os::RegKey k = tpcsdk::os::CreateRegKey(root, key);
    ASSERT_NE(k, nullptr);
    EXPECT_TRUE(tpcsdk::os::SetRegDword(k, name, value));
    tpcsdk::os::CloseRegKey(k);
  }

  testkit::TempDir dir_;
  testkit::ScopedEnv env_;
};

}  // namespace regtest
