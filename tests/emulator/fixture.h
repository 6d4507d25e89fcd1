// The fixture of the emulator's tests: the emulator, reset and ready.
#pragma once
#include <gtest/gtest.h>
#include <json/json.h>

#include <algorithm>
#include <string>

#include "kit/emulator_client.h"

namespace emulator_test {

// `text` parsed; null when it is not JSON.
inline Json::Value Parse(const std::string& text) {
  Json::Value v;
  Json::Reader().parse(text, v);
  return v;
}

// The member at a dotted path ("data.0.cState"); null when absent.
inline Json::Value At(Json::Value v, const std::string& path) {
  for (size_t pos = 0; pos < path.size();) {
    const size_t dot = std::min(path.find('.', pos), path.size());
    const std::string part = path.substr(pos, dot - pos);
    if (v.isArray() && !part.empty() && part.find_first_not_of("0123456789") == std::string::npos)
      v = v.get(static_cast<Json::ArrayIndex>(std::stoul(part)), Json::Value());
    else if (v.isObject())
      v = v.get(part, Json::Value());
    else
      return Json::Value();
    pos = dot + 1;
  }
  return v;
}

// `v` as compact JSON, UTF-8 kept as it is.
inline std::string Compact(const Json::Value& v) {
  Json::StreamWriterBuilder b;
  b["indentation"] = "";
  b["emitUTF8"] = true;
  return Json::writeString(b, v);
}

class EmulatorFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string why;
    bool is_error = false;
    emu_ = testkit::AcquireEmulator(&why, &is_error);
    ASSERT_NE(emu_, nullptr) << why;
  }
  // One exchange with the emulator; the reply parsed (null when it is not JSON).
  Json::Value Call(const std::string& method, const std::string& target,
                   const std::string& body = "", int* status = nullptr) {
    testkit::HttpResult r = testkit::HttpExchange(emu_->base_url(), method, target, body);
    EXPECT_NE(r.status, 0) << r.error;
    if (status != nullptr) *status = r.status;
    return Parse(r.body);
  }
  testkit::EmulatorClient* emu_ = nullptr;
};

}  // namespace emulator_test
