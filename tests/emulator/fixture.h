// The fixture of the emulator's tests: the emulator, reset and ready.
#pragma once
#include <gtest/gtest.h>

#include <string>

#include "kit/emulator_client.h"

namespace emulator_test {

class EmulatorFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string why;
    bool is_error = false;
    emu_ = testkit::AcquireEmulator(&why, &is_error);
    ASSERT_NE(emu_, nullptr) << why;
  }
  testkit::EmulatorClient* emu_ = nullptr;
};

}  // namespace emulator_test
