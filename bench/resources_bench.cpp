// What the module holds while it runs: the CPU an idle polling worker takes, the heap
// that stays behind after many calls, and the heap a ready client holds. Each runs
// once; the figures are counters. The heap figures need the emulator in another
// process (TDOC_EMULATOR_URL), so that only this module's heap is counted.
//   TPCSDK_BENCH_IDLE_SECONDS  the idle window (60 unless set)
//   TPCSDK_BENCH_CALLS         the calls of the heap run (100000 unless set)
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <time.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench_kit.h"
#include "kit/testkit.h"
#include "support/utf.h"
#include "tpcsdk/ITetherdocServer.h"
#include "web_service/tetherdoc_server.h"

namespace {

using benchkit::Emulator;
using benchkit::EmulatorApart;
using benchkit::ReplyToEveryDocument;
using benchkit::Wide;
using tpcsdk::TetherdocServer;

long EnvNumber(const char* name, long fallback) {
  const char* v = std::getenv(name);
  if (!v || !*v) return fallback;
  const long n = std::strtol(v, nullptr, 10);
  return n > 0 ? n : fallback;
}

double ProcessCpuSeconds() {
  timespec t{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

size_t HeapInUse() {
  malloc_trim(0);
  return mallinfo2().uordblks;
}

void IdlePollingWorker(benchmark::State& state) {
  testkit::TempDir dir;
  testkit::ScopedEnv appdata("TPCSDK_APPDATA_DIR", dir.path().string());
  testkit::EmulatorClient* emu = Emulator();
  if (!EmulatorApart()) return state.SkipWithError("the emulator must run in another process");
  const long seconds = EnvNumber("TPCSDK_BENCH_IDLE_SECONDS", 60);
  TetherdocServer client("en-US", "Bench App", "1.0");
  ITetherdocServer* api = &client;
  const bool ok = client.InitApi(tpcsdk::Utf8ToUtf16(emu->base_url()).c_str()) == 0 &&
                  api->SubscribeUser("bench-token") == 0 && api->StartPolling() == 0;
  if (!ok) state.SkipWithError("polling did not start");
  double used = 0;
  for (auto _ : state) {
    const double before = ProcessCpuSeconds();
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    used = ProcessCpuSeconds() - before;
  }
  api->StopPolling();
  state.counters["window_s"] = static_cast<double>(seconds);
  state.counters["cpu_percent"] = 100.0 * used / static_cast<double>(seconds);
}

void HeapOverCalls(benchmark::State& state) {
  testkit::TempDir dir;
  testkit::ScopedEnv appdata("TPCSDK_APPDATA_DIR", dir.path().string());
  testkit::EmulatorClient* emu = Emulator();
  if (!EmulatorApart()) return state.SkipWithError("the emulator must run in another process");
  const long calls = EnvNumber("TPCSDK_BENCH_CALLS", 100000);
  const std::u16string host = tpcsdk::Utf8ToUtf16(emu->base_url());
  Wide app{"app-1"}, doc{"doc-1"}, name{"Report.pdf"}, created{"2026-11-23 10:00:00"},
      modified{"2026-11-23 11:00:00"}, token{"bench-token"};
  TDC_DOC_INFO info{app, doc, name, created, modified, nullptr, nullptr, nullptr, nullptr, nullptr};
  double growth = 0, per_client = 0;
  for (auto _ : state) {
    {
      TetherdocServer client("en-US", "Bench App", "1.0");
      ITetherdocServer* api = &client;
      client.InitApi(host.c_str());
      api->SetAccessToken(token);
      if (!ReplyToEveryDocument(emu)) state.SkipWithError("the emulator refused the reply");
      for (int i = 0; i < 1000; ++i) api->UploadDocInfo(&info);  // warm
      emu->ClearLog();
      const size_t before = HeapInUse();
      for (long i = 0; i < calls; ++i) {
        if (api->UploadDocInfo(&info) != 0) {
          state.SkipWithError("upload failed");
          break;
        }
        if (i % 10000 == 9999) emu->ClearLog();
      }
      growth = static_cast<double>(HeapInUse()) - static_cast<double>(before);
    }
    constexpr int kClients = 16;
    std::vector<std::unique_ptr<TetherdocServer>> clients;
    const size_t before = HeapInUse();
    for (int i = 0; i < kClients; ++i) {
      clients.push_back(std::make_unique<TetherdocServer>("en-US", "Bench App", "1.0"));
      clients.back()->InitApi(host.c_str());
    }
    per_client = (static_cast<double>(HeapInUse()) - static_cast<double>(before)) / kClients;
  }
  state.counters["calls"] = static_cast<double>(calls);
  state.counters["heap_growth_B"] = growth;
  state.counters["heap_per_client_B"] = per_client;
}

BENCHMARK(IdlePollingWorker)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();
BENCHMARK(HeapOverCalls)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

}  // namespace
