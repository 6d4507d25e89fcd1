// What the module holds while it runs: the CPU an idle polling worker takes, the heap
// that stays behind after many calls, and the heap a ready client holds. Each runs
// once; the figures are counters. The heap figures need the emulator in another
// process (TDOC_EMULATOR_URL), so that only this module's heap is counted.
//   TPCSDK_BENCH_IDLE_SECONDS  the idle window (60 unless set)
//   TPCSDK_BENCH_CALLS         the calls of the heap run (100000 unless set)
#include <benchmark/benchmark.h>
#include <errno.h>
#include <malloc.h>
#include <unistd.h>
#include <time.h>

#include <atomic>
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

}  // namespace

// The heap figures count the bytes asked for by every live block, exactly: this
// program puts its own malloc family in front of the C library's and notes the size
// of each block it hands out in a table of its own, which takes no memory from the
// heap. A figure moves only when a block is allocated and not freed, whoever
// allocated it (the module, libcurl, the C++ library); the allocator's own state
// (per-thread caches, arenas, the slack it may add to a block) is not in it.
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void __libc_free(void* block);
}

namespace {

std::atomic<long long> g_live_bytes{0};

// Block address to the size asked for: open addressing with linear probing, and
// deletion that moves later entries back, so no marker of a deleted entry builds up.
// A block the table has no room for (or one made before the program started
// counting) is simply not counted.
class SizeTable {
 public:
  void Put(void* block, size_t size) {
    if (!block) return;
    Lock();
    const uintptr_t key = reinterpret_cast<uintptr_t>(block);
    for (size_t i = Home(key), n = 0; n < kSlots; i = (i + 1) & (kSlots - 1), ++n) {
      if (slots_[i].key == 0 || slots_[i].key == key) {
        slots_[i] = {key, size};
        g_live_bytes.fetch_add(static_cast<long long>(size), std::memory_order_relaxed);
        break;
      }
    }
    Unlock();
  }
  void Take(void* block) {
    if (!block) return;
    Lock();
    const uintptr_t key = reinterpret_cast<uintptr_t>(block);
    size_t i = Home(key);
    for (size_t n = 0; n < kSlots && slots_[i].key != 0; i = (i + 1) & (kSlots - 1), ++n) {
      if (slots_[i].key != key) continue;
      g_live_bytes.fetch_sub(static_cast<long long>(slots_[i].size), std::memory_order_relaxed);
      // Later entries of the run move back into the gap when their home allows it.
      size_t gap = i;
      for (size_t j = (i + 1) & (kSlots - 1); slots_[j].key != 0; j = (j + 1) & (kSlots - 1)) {
        const size_t home = Home(slots_[j].key);
        const bool movable = gap <= j ? (home <= gap || home > j) : (home <= gap && home > j);
        if (movable) {
          slots_[gap] = slots_[j];
          gap = j;
        }
      }
      slots_[gap] = {0, 0};
      break;
    }
    Unlock();
  }

 private:
  static constexpr size_t kSlots = size_t{1} << 22;
  struct Slot {
    uintptr_t key;
    size_t size;
  };
  static size_t Home(uintptr_t key) { return (key >> 4) * 0x9E3779B97F4A7C15ull >> 42 & (kSlots - 1); }
  void Lock() {
    while (busy_.test_and_set(std::memory_order_acquire)) {
    }
  }
  void Unlock() { busy_.clear(std::memory_order_release); }
  std::atomic_flag busy_ = ATOMIC_FLAG_INIT;
  Slot slots_[kSlots] = {};
};

SizeTable g_sizes;

void* Counted(void* block, size_t size) {
  g_sizes.Put(block, size);
  return block;
}

}  // namespace

extern "C" {
void* malloc(size_t size) { return Counted(__libc_malloc(size), size); }
void* calloc(size_t count, size_t size) { return Counted(__libc_calloc(count, size), count * size); }
void free(void* block) {
  g_sizes.Take(block);
  __libc_free(block);
}
void* realloc(void* block, size_t size) {
  void* moved = __libc_realloc(block, size);
  if (moved || size == 0) g_sizes.Take(block);  // realloc(p, 0) freed p
  return moved ? Counted(moved, size) : nullptr;
}
void* memalign(size_t alignment, size_t size) { return Counted(__libc_memalign(alignment, size), size); }
void* aligned_alloc(size_t alignment, size_t size) { return Counted(__libc_memalign(alignment, size), size); }
int posix_memalign(void** out, size_t alignment, size_t size) {
  if (alignment < sizeof(void*) || (alignment & (alignment - 1)) != 0) return EINVAL;
  void* block = Counted(__libc_memalign(alignment, size), size);
  if (!block) return ENOMEM;
  *out = block;
  return 0;
}
void* valloc(size_t size) {
  return Counted(__libc_memalign(static_cast<size_t>(sysconf(_SC_PAGESIZE)), size), size);
}
}

namespace {

size_t HeapInUse() { return static_cast<size_t>(g_live_bytes.load()); }

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
