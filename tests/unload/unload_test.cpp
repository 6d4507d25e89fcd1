// The module loaded, used and unloaded again and again by one host process, idle, after
// a stalled call was stopped, and with the polling worker's round held by the service.
// After each dlclose the module must be gone from the process, and with it every
// thread it started: a thread left behind would run unmapped code.
#include <dirent.h>
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <string>
#include <thread>

#include "kit/emulator_client.h"
#include "kit/testkit.h"
#include "support/utf.h"
#include "tpcsdk/IPDFPlatform.h"
#include "tpcsdk/ITetherdocServer.h"

namespace {

constexpr int kCycles = 50;
constexpr auto kBound = std::chrono::seconds(20);

// The module's HTTP event threads alive in this process, found by their name.
size_t HttpThreads() {
  size_t n = 0;
  if (DIR* d = opendir("/proc/self/task")) {
    while (dirent* e = readdir(d)) {
      if (e->d_name[0] == '.') continue;
      std::ifstream comm(std::string("/proc/self/task/") + e->d_name + "/comm");
      std::string name;
      if (std::getline(comm, name) && name == "tpcsdk-http") ++n;
    }
    closedir(d);
  }
  return n;
}

// The exports a host needs here, resolved from one loaded copy of the module.
struct Module {
  void* handle = dlopen(TPCSDK_MODULE_PATH, RTLD_NOW | RTLD_LOCAL);
  IPDFPlatform* Platform() const {
    auto get = reinterpret_cast<IPDFPlatform* (*)()>(dlsym(handle, "TDC_GetTDOCPlatform"));
    return get ? get() : nullptr;
  }
  void Release(TDC_LPWSTR block) const {
    auto release = reinterpret_cast<void (*)(TDC_LPWSTR)>(dlsym(handle, "TDC_ReleaseLPWSTR"));
    if (release && block) release(block);
  }
};

bool StillMapped() {
  void* again = dlopen(TPCSDK_MODULE_PATH, RTLD_NOW | RTLD_NOLOAD);
  if (again) dlclose(again);
  return again != nullptr;
}

enum class InFlight { kNothing, kStalledCallEnded, kPollingRoundHeld };

int IgnoreMessage(int32_t, PullMsgBuffer*, const char*, void*) { return 0; }
int IgnoreError(int32_t, const char*, const char*, void*) { return 0; }

class ModuleUnload : public ::testing::TestWithParam<InFlight> {
 protected:
  void SetUp() override {
    appdata_ = std::make_unique<testkit::ScopedEnv>("TPCSDK_APPDATA_DIR", dir_.path().string());
  }
  testkit::TempDir dir_;
  std::unique_ptr<testkit::ScopedEnv> appdata_;
};

// One cycle: load, create a client for the emulator, optionally leave a second client's
// directory fetch stalled until the server drops it, then unload.
TEST_P(ModuleUnload, EachUnloadTakesTheModuleAndItsThreadsAway) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  const InFlight in_flight = GetParam();
  // A held round waits a polling interval (a second) to start; fewer cycles do.
  const int cycles = in_flight == InFlight::kPollingRoundHeld ? 5 : kCycles;
  if (in_flight == InFlight::kPollingRoundHeld) {
    Json::Value config(Json::objectValue);
    config["minimumPollingTime"] = 1;
    config["maxPollingNotResultCount"] = 250;
    ASSERT_TRUE(emu->Call("POST", "polling/config", config)) << emu->last_error();
  }
  const std::u16string host = tpcsdk::Utf8ToUtf16(emu->base_url());
  // Another name of the emulator: another client, with no cached directory.
  std::u16string other = host;
  const size_t at = other.find(u"127.0.0.1");
  ASSERT_NE(at, std::u16string::npos);
  other.replace(at, 9, u"localhost");
  TDC_CLIENT_INFO info{"en-US", "", "Unload Test", "1.0"};

  for (int cycle = 0; cycle < cycles; ++cycle) {
    SCOPED_TRACE("cycle " + std::to_string(cycle));
    // No cached directory: every cycle goes to the network.
    std::filesystem::remove_all(dir_.path());
    std::filesystem::create_directory(dir_.path());
    Module module;
    ASSERT_NE(module.handle, nullptr) << dlerror();
    IPDFPlatform* platform = module.Platform();
    ASSERT_NE(platform, nullptr);
    TDC_LPWSTR domain = nullptr;
    ASSERT_EQ(platform->InitApi(reinterpret_cast<TDC_LPCWSTR>(host.c_str()), &info, &domain),
              TDC_HRESULT_OK);
    module.Release(domain);
    ASSERT_NE(platform->GetServerByHost(reinterpret_cast<TDC_LPCWSTR>(host.c_str())), nullptr);
    // The process-wide session's: one event thread per processor, at most four.
    const size_t lanes = std::clamp<size_t>(std::thread::hardware_concurrency(), 1, 4);
    ASSERT_EQ(HttpThreads(), lanes);

    if (in_flight == InFlight::kStalledCallEnded) {
      Json::Value rule;
      rule["method"] = "GET";
      rule["path"] = "/2.0.0.0/Unload Test/1.0/en-US/tdocApi.json";
      rule["kind"] = "stall_before_headers";
      ASSERT_NE(emu->Fault(rule), 0u) << emu->last_error();
      auto call = std::async(std::launch::async, [&] {
        TDC_LPWSTR ignored = nullptr;
        return platform->InitApi(reinterpret_cast<TDC_LPCWSTR>(other.c_str()), &info, &ignored);
      });
      ASSERT_TRUE(emu->WaitForStalls(1, 10000));
      platform->StopAllRequest();
      ASSERT_TRUE(emu->Reset());  // ends the held connection without a reply
      ASSERT_EQ(call.wait_for(kBound), std::future_status::ready);
      EXPECT_EQ(call.get(), TDC_HRESULT_HTTP_ERROR);
    }

    if (in_flight == InFlight::kPollingRoundHeld) {
      ITetherdocServer* client = platform->GetServerByHost(reinterpret_cast<TDC_LPCWSTR>(host.c_str()));
      ASSERT_EQ(client->SetSubscribtionCallback(IgnoreMessage, IgnoreError, nullptr), TDC_HRESULT_OK);
      ASSERT_EQ(client->Internet_SetPollingConfig("", 0), TDC_HRESULT_OK);
      ASSERT_EQ(client->SubscribeUser("tok"), TDC_HRESULT_OK);
      ASSERT_NE(emu->FaultOnce("POST", "/tdocapi/v1/messages/polling", "stall_before_headers"), 0u)
          << emu->last_error();
      ASSERT_EQ(client->StartPolling(), TDC_HRESULT_OK);
      ASSERT_TRUE(emu->WaitForStalls(1, 10000));
    }

    // The unload ends whatever the module still has going: it must come back.
    auto unload = std::async(std::launch::async, [&] { return dlclose(module.handle); });
    const bool returned = unload.wait_for(kBound) == std::future_status::ready;
    if (!returned) emu->Release();  // let it finish, so the test can end
    ASSERT_TRUE(returned) << "the unload waited for the service";
    ASSERT_EQ(unload.get(), 0) << dlerror();
    ASSERT_FALSE(StillMapped());
    ASSERT_EQ(HttpThreads(), 0u);
    emu->Release();
  }
}

INSTANTIATE_TEST_SUITE_P(Clients, ModuleUnload,
                         ::testing::Values(InFlight::kNothing, InFlight::kStalledCallEnded,
                                           InFlight::kPollingRoundHeld),
                         [](const auto& info) {
                           return info.param == InFlight::kNothing             ? "Idle"
                                  : info.param == InFlight::kStalledCallEnded ? "StalledCallEnded"
                                                                               : "PollingRoundHeld";
                         });

}  // namespace
