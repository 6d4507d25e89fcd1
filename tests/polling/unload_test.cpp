// A host that loads the module, starts polling and unloads the module with the worker
// running, several times over.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>

#include "kit/emulator_client.h"
#include "kit/testkit.h"
#include "os/module_loader.h"
#include "os/thread.h"
#include "support/utf.h"
#include "tpcsdk/IPDFPlatform.h"
#include "tpcsdk/ITetherdocServer.h"
#include "web_service/tetherdoc_server.h"

namespace {

#ifdef _WIN32
constexpr char kModule[] = "TPCSDK64.dll";
#else
constexpr char kModule[] = "libtpcsdk.so";
#endif

using GetPlatform = IPDFPlatform* (*)();
using ReleaseWide = int (*)(TDC_LPWSTR);

// One host session with the loaded module: platform, a client for host, polling on.
ITetherdocServer* StartPollingClient(tpcsdk::os::LoadedModule* module, const std::u16string& host) {
  auto get = reinterpret_cast<GetPlatform>(tpcsdk::os::ModuleSymbol(module, "TDC_GetTDOCPlatform"));
  auto release =
      reinterpret_cast<ReleaseWide>(tpcsdk::os::ModuleSymbol(module, "TDC_ReleaseLPWSTR"));
  if (!get || !release) return nullptr;
  IPDFPlatform* platform = get();
  if (!platform) return nullptr;
  const auto* whost = reinterpret_cast<TDC_LPCWSTR>(host.c_str());
  TDC_CLIENT_INFO info{"en-US", "", "Unload Test", "1.0"};
  TDC_LPWSTR domain = nullptr;
  if (platform->InitApi(whost, &info, &domain) != TDC_HRESULT_OK) return nullptr;
  release(domain);
  ITetherdocServer* client = platform->GetServerByHost(whost);
  if (!client) return nullptr;
  client->SubscribeUser("tok");
  return client->StartPolling() == TDC_HRESULT_OK ? client : nullptr;
}

TEST(ModuleUnload, WithTheWorkerRunning) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  testkit::TempDir appdata;
  testkit::ScopedEnv env("TPCSDK_APPDATA_DIR", appdata.path().string());
  const std::u16string host = tpcsdk::Utf8ToUtf16(emu->base_url());
  // The directory goes into the cache first, so the loaded module starts its clients
  // from the cache and never opens an HTTP session of its own.
  {
    tpcsdk::TetherdocServer warmUp("en-US", "Unload Test", "1.0");
    ASSERT_EQ(warmUp.InitApi(host.c_str()), TDC_HRESULT_OK);
  }
  const size_t directoryRequests = emu->Requests().size();

  for (int round = 0; round < 5; ++round) {
    tpcsdk::os::LoadedModule* module = tpcsdk::os::LoadModuleBeside(kModule);
    ASSERT_NE(module, nullptr) << kModule;
    ITetherdocServer* client = StartPollingClient(module, host);
    ASSERT_NE(client, nullptr);
    if (tpcsdk::os::ThreadsHoldTheirModule()) {
      // The worker holds the module: freeing it leaves it loaded and the client alive.
      // A host that loads it again and stops polling can then unload it.
      tpcsdk::os::UnloadModule(module);
      ASSERT_TRUE(tpcsdk::os::IsModuleLoadedBeside(kModule));
      module = tpcsdk::os::LoadModuleBeside(kModule);
      ASSERT_NE(module, nullptr);
      EXPECT_EQ(client->StopPolling(), TDC_HRESULT_OK);
    }
    tpcsdk::os::UnloadModule(module);  // the unload stops and joins the worker
    // Where the worker held the module, its own exit may drop the last reference.
    EXPECT_TRUE(testkit::WaitUntil([] { return !tpcsdk::os::IsModuleLoadedBeside(kModule); },
                                   std::chrono::seconds(20)))
        << "round " << round;
  }
  EXPECT_EQ(emu->Requests().size(), directoryRequests) << "the module went to the network";
}

}  // namespace
