// Tests of the registry and the preference store run against a registry of their
// own: JSON hives in a temporary directory (Linux), or private keys that stand in for
// the registry's roots (Windows, see PrivateRegistry). Each test starts empty.
#pragma once
#include <gtest/gtest.h>

#include <string>

#include "kit/private_registry.h"
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
  void SetUp() override { ASSERT_TRUE(registry_.ok()) << "no private registry: nothing is written"; }

  // Deletes every key the tests write, under both roots.
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
  testkit::PrivateRegistry registry_{dir_.path()};
};

}  // namespace regtest
