// Round trips on loopback against an in-process emulator:
//   InitApiFromCache  - a new client whose directory comes from a fresh disk entry
//   RequestJson       - one service call through the request frame
//   BareCurl          - the same GET with libcurl's easy interface
#include <benchmark/benchmark.h>
#include <curl/curl.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "kit/emulator_client.h"
#include "kit/testkit.h"
#include "support/utf.h"
#include "web_service/tetherdoc_server.h"

namespace {

using tpcsdk::TetherdocServer;

testkit::EmulatorClient* Emulator() {
  std::string why;
  bool error = false;
  testkit::EmulatorClient* emu = testkit::AcquireEmulator(&why, &error);
  if (!emu) std::abort();
  return emu;
}

void InitApiFromCache(benchmark::State& state) {
  testkit::TempDir dir;
  testkit::ScopedEnv appdata("TPCSDK_APPDATA_DIR", dir.path().string());
  testkit::EmulatorClient* emu = Emulator();
  const std::u16string host = tpcsdk::Utf8ToUtf16(emu->base_url());
  {
    TetherdocServer first("en-US", "Bench App", "1.0");
    if (first.InitApi(host.c_str()) != 0) state.SkipWithError("first InitApi failed");
  }
  emu->ClearLog();
  for (auto _ : state) {
    TetherdocServer client("en-US", "Bench App", "1.0");
    if (client.InitApi(host.c_str()) != 0) state.SkipWithError("cached InitApi failed");
  }
  state.counters["requests_seen"] = static_cast<double>(emu->Requests().size());
}

void RequestJson(benchmark::State& state) {
  testkit::TempDir dir;
  testkit::ScopedEnv appdata("TPCSDK_APPDATA_DIR", dir.path().string());
  testkit::EmulatorClient* emu = Emulator();
  TetherdocServer client("en-US", "Bench App", "1.0");
  client.InitApi(tpcsdk::Utf8ToUtf16(emu->base_url()).c_str());
  const std::u16string url = tpcsdk::Utf8ToUtf16(emu->base_url() + "/tdocapi/v1/server/time");
  for (auto _ : state) {
    Json::Value reply;
    if (client.RequestJson(reply, url, u"GET", "") != 0) state.SkipWithError("call failed");
  }
}

size_t Discard(char*, size_t size, size_t count, void*) { return size * count; }

void BareCurl(benchmark::State& state) {
  testkit::EmulatorClient* emu = Emulator();
  const std::string url = emu->base_url() + "/tdocapi/v1/server/time";
  CURL* curl = curl_easy_init();
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &Discard);
  for (auto _ : state) {
    if (curl_easy_perform(curl) != CURLE_OK) state.SkipWithError("curl failed");
  }
  curl_easy_cleanup(curl);
}

BENCHMARK(InitApiFromCache)->Unit(benchmark::kMicrosecond)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(RequestJson)->Unit(benchmark::kMicrosecond)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BareCurl)->Unit(benchmark::kMicrosecond)->Repetitions(5)->ReportAggregatesOnly(true);

}  // namespace
