// Round trips on loopback against the emulator (the one named by TDOC_EMULATOR_URL,
// otherwise one inside this program):
//   InitApiFromCache  - a new client whose directory comes from a fresh disk entry
//   RequestJson       - one GET through the request frame
//   BareCurl          - the same GET with libcurl's easy interface
//   UploadBesideBarePost - one document record through the client interface's slot,
//                       and the same POST (same target, headers and bytes) with one
//                       reused easy handle, in turn
//   UploadDocInfo, BareCurlPost - the two with eight threads: one client shared by all
//                       of them against one easy handle per thread
#include <benchmark/benchmark.h>
#include <curl/curl.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "bench_kit.h"
#include "kit/testkit.h"
#include "support/utf.h"
#include "tpcsdk/ITetherdocServer.h"
#include "web_service/tetherdoc_server.h"

namespace {

using benchkit::Emulator;
using benchkit::ReplyToEveryDocument;
using benchkit::Wide;
using tpcsdk::TetherdocServer;

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

// ---- a document record through the slot, and the same bytes with bare curl ----------

// A ready client shared by the upload benchmarks, and the request it sends, as the
// emulator logged it, for the bare POST to repeat.
struct Upload {
  testkit::TempDir dir;
  testkit::ScopedEnv appdata{"TPCSDK_APPDATA_DIR", dir.path().string()};
  std::unique_ptr<TetherdocServer> client;
  Wide app{"app-1"}, doc{"doc-1"}, name{"Report \xC3\xA9t\xC3\xA9.pdf"},
      created{"2026-11-23 10:00:00"}, modified{"2026-11-23 11:00:00"}, token{"bench-token"};
  TDC_DOC_INFO info{app, doc, name, created, modified, nullptr, nullptr, nullptr, nullptr, nullptr};
  std::string url;
  std::vector<std::string> headers;
  std::string body;
  bool ready = false;

  Upload() {
    testkit::EmulatorClient* emu = Emulator();
    client = std::make_unique<TetherdocServer>("en-US", "Bench App", "1.0");
    if (client->InitApi(tpcsdk::Utf8ToUtf16(emu->base_url()).c_str()) != 0) return;
    ITetherdocServer* api = client.get();
    if (api->SetAccessToken(token) != 0) return;
    if (!ReplyToEveryDocument(emu)) return;
    emu->ClearLog();
    if (api->UploadDocInfo(&info) != 0) return;
    const std::vector<testkit::LoggedRequest> sent = emu->Requests();
    if (sent.size() != 1) return;
    url = sent[0].listener + sent[0].target;
    for (const auto& h : sent[0].headers) {
      if (h.first == "Host" || h.first == "Content-Length") continue;
      headers.push_back(h.first + ": " + h.second);
    }
    body = sent[0].body;
    emu->ClearLog();
    ready = true;
  }
};

Upload& SharedUpload() {
  static Upload* upload = new Upload;  // lives to the end of the program
  return *upload;
}

void UploadDocInfo(benchmark::State& state) {
  Upload& u = SharedUpload();
  if (!u.ready) {
    state.SkipWithError("set-up failed");
    return;
  }
  ITetherdocServer* api = u.client.get();
  for (auto _ : state) {
    if (api->UploadDocInfo(&u.info) != 0) state.SkipWithError("upload failed");
  }
  state.SetItemsProcessed(state.iterations());
}

// The upload's bytes with a reused easy handle of libcurl.
class BarePost {
 public:
  explicit BarePost(const Upload& u) {
    for (const auto& h : u.headers) list_ = curl_slist_append(list_, h.c_str());
    curl_easy_setopt(curl_, CURLOPT_URL, u.url.c_str());
    curl_easy_setopt(curl_, CURLOPT_HTTPHEADER, list_);
    curl_easy_setopt(curl_, CURLOPT_POSTFIELDS, u.body.data());
    curl_easy_setopt(curl_, CURLOPT_POSTFIELDSIZE, static_cast<long>(u.body.size()));
    curl_easy_setopt(curl_, CURLOPT_WRITEFUNCTION, &Discard);
  }
  ~BarePost() {
    curl_easy_cleanup(curl_);
    curl_slist_free_all(list_);
  }
  BarePost(const BarePost&) = delete;
  BarePost& operator=(const BarePost&) = delete;
  bool Perform() { return curl_easy_perform(curl_) == CURLE_OK; }

 private:
  CURL* curl_ = curl_easy_init();
  curl_slist* list_ = nullptr;
};

void BareCurlPost(benchmark::State& state) {
  Upload& u = SharedUpload();
  if (!u.ready) {
    state.SkipWithError("set-up failed");
    return;
  }
  BarePost post(u);
  for (auto _ : state) {
    if (!post.Perform()) state.SkipWithError("curl failed");
  }
  state.SetItemsProcessed(state.iterations());
}

double Median(std::vector<double>& v) {
  if (v.empty()) return 0;
  std::nth_element(v.begin(), v.begin() + static_cast<long>(v.size() / 2), v.end());
  return v[v.size() / 2];
}

// One upload and one bare POST in turn, each timed on its own, the order swapped every
// iteration: a machine busy with other work slows both alike. The counters are the
// medians of each and their ratio.
void UploadBesideBarePost(benchmark::State& state) {
  Upload& u = SharedUpload();
  if (!u.ready) {
    state.SkipWithError("set-up failed");
    return;
  }
  ITetherdocServer* api = u.client.get();
  BarePost post(u);
  std::vector<double> ours, bare;
  using Clock = std::chrono::steady_clock;
  auto timed = [](auto&& call) {
    const auto t0 = Clock::now();
    const bool ok = call();
    return ok ? std::chrono::duration<double, std::micro>(Clock::now() - t0).count() : -1.0;
  };
  bool ours_first = true;
  for (auto _ : state) {
    auto upload = [&] { return api->UploadDocInfo(&u.info) == 0; };
    auto perform = [&] { return post.Perform(); };
    double a, b;
    if (ours_first) {
      a = timed(upload);
      b = timed(perform);
    } else {
      b = timed(perform);
      a = timed(upload);
    }
    ours_first = !ours_first;
    if (a < 0 || b < 0) state.SkipWithError("a call failed");
    ours.push_back(a);
    bare.push_back(b);
  }
  const double mo = Median(ours), mb = Median(bare);
  state.counters["ours_us"] = mo;
  state.counters["bare_us"] = mb;
  state.counters["ratio"] = mb > 0 ? mo / mb : 0;
}

void Latency(benchmark::internal::Benchmark* b) {
  b->Unit(benchmark::kMicrosecond)->Repetitions(5)->ReportAggregatesOnly(true)->UseRealTime();
}
// The eight-thread runs alternate, ours then libcurl's, three times over.
void Throughput(benchmark::internal::Benchmark* b) {
  b->Unit(benchmark::kMicrosecond)->Threads(8)->UseRealTime();
}

BENCHMARK(InitApiFromCache)->Unit(benchmark::kMicrosecond)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(RequestJson)->Apply(Latency);
BENCHMARK(BareCurl)->Apply(Latency);
BENCHMARK(UploadBesideBarePost)->Apply(Latency);
BENCHMARK(UploadDocInfo)->Apply(Throughput);
BENCHMARK(BareCurlPost)->Apply(Throughput);
BENCHMARK(UploadDocInfo)->Apply(Throughput);
BENCHMARK(BareCurlPost)->Apply(Throughput);
BENCHMARK(UploadDocInfo)->Apply(Throughput);
BENCHMARK(BareCurlPost)->Apply(Throughput);

}  // namespace
