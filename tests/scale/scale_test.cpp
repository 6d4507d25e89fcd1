// Load and stop at scale against tdoc-emulator: many host threads calling one client
// while polling rounds run and deliver, and a platform-wide stop freeing a thousand
// stalled calls. Every wait is bounded; the figures go to the test's output.
#include <gtest/gtest.h>
#include <json/json.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kit/emulator_client.h"
#include "kit/testkit.h"
#include "polling/pull_msg_thread.h"
#include "polling/step_clock.h"
#include "support/utf.h"
#include "tpcsdk/IPDFPlatform.h"
#include "tpcsdk/ITetherdocServer.h"
#include "web_service/tetherdoc_server.h"

namespace {

using Clock = std::chrono::steady_clock;
using tpcsdk::Utf8ToUtf16;

constexpr auto kBound = std::chrono::seconds(60);

int CallsPerThread() {
  const char* text = std::getenv("TPCSDK_SCALE_CALLS");
  const int n = text ? std::atoi(text) : 0;
  return n > 0 ? n : 10000;
}

double Seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

// Counts the threads still to finish; the test waits on it with a bound.
class Countdown {
 public:
  explicit Countdown(size_t n) : left_(n) {}
  void Done() {
    std::lock_guard<std::mutex> lock(m_);
    if (--left_ == 0) cv_.notify_all();
  }
  bool Wait(std::chrono::milliseconds bound) {
    std::unique_lock<std::mutex> lock(m_);
    return cv_.wait_for(lock, bound, [&] { return left_ == 0; });
  }

 private:
  std::mutex m_;
  std::condition_variable cv_;
  size_t left_;
};

// What the host's polling callbacks saw: each message by its _id.
struct Host {
  std::mutex m;
  std::map<std::string, int> deliveries;
  int errors = 0;
};

int OnMessage(int32_t, PullMsgBuffer* buffer, const char*, void* userData) {
  auto* host = static_cast<Host*>(userData);
  Json::Value message;
  Json::Reader().parse(std::string(buffer->text, static_cast<size_t>(buffer->length)), message);
  std::lock_guard<std::mutex> lock(host->m);
  ++host->deliveries[message.isObject() ? message["_id"].asString() : std::string()];
  return 0;
}

int OnError(int32_t, const char*, const char*, void* userData) {
  auto* host = static_cast<Host*>(userData);
  std::lock_guard<std::mutex> lock(host->m);
  ++host->errors;
  return 0;
}

class Scale : public ::testing::Test {
 protected:
  void SetUp() override {
    appdata_ = std::make_unique<testkit::ScopedEnv>("TPCSDK_APPDATA_DIR", dir_.path().string());
  }
  // The platform's client of the emulator.
  tpcsdk::TetherdocServer* Client(testkit::EmulatorClient* emu) {
    IPDFPlatform* platform = TDC_GetTDOCPlatform();
    host_ = Utf8ToUtf16(emu->base_url());
    TDC_CLIENT_INFO info{"en-US", "", "Scale Test", "1.0"};
    TDC_LPWSTR domain = nullptr;
    EXPECT_EQ(platform->InitApi(reinterpret_cast<TDC_LPCWSTR>(host_.c_str()), &info, &domain),
              TDC_HRESULT_OK);
    TDC_ReleaseLPWSTR(domain);
    return static_cast<tpcsdk::TetherdocServer*>(
        platform->GetServerByHost(reinterpret_cast<TDC_LPCWSTR>(host_.c_str())));
  }

  testkit::TempDir dir_;
  std::unique_ptr<testkit::ScopedEnv> appdata_;
  std::u16string host_;
  testkit::StepClock clock_;  // outlives the platform's clients, whose last stop reaches it
};

TEST_F(Scale, StopAllRequestFreesAThousandStalledCallsWithinASecond) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  tpcsdk::TetherdocServer* client = Client(emu);
  ASSERT_NE(client, nullptr);
  IPDFPlatform* platform = TDC_GetTDOCPlatform();
  Json::Value rule;
  rule["method"] = "GET";
  rule["path"] = "/tdocapi/v1/server/option-config";
  rule["kind"] = "stall_before_headers";
  rule["times"] = -1;
  ASSERT_NE(emu->Fault(rule), 0u) << emu->last_error();

  constexpr size_t kCalls = 1000;
  std::vector<int> results(kCalls, -100);
  Countdown left(kCalls);
  std::vector<std::thread> threads;
  // Whatever happens below, every call is freed and joined before the test leaves.
  struct Join {
    std::vector<std::thread>& threads;
    testkit::EmulatorClient* emu;
    IPDFPlatform* platform;
    Countdown& left;
    ~Join() {
      if (!left.Wait(std::chrono::milliseconds(0))) {
        emu->Reset();
        platform->StopAllRequest();
      }
      for (auto& t : threads) t.join();
    }
  } join{threads, emu, platform, left};
  for (size_t i = 0; i < kCalls; ++i) {
    threads.emplace_back([&, i] {
      char* config = nullptr;
      results[i] = client->GetServerOptionConfig(&config);
      TDC_ReleaseLPSTR(config);
      left.Done();
    });
  }
  const Clock::time_point start = Clock::now();
  ASSERT_TRUE(emu->WaitForStalls(kCalls, 120000)) << "not every call reached the emulator";
  const Clock::time_point held = Clock::now();
  platform->StopAllRequest();
  const Clock::duration stop = Clock::now() - held;
  ASSERT_TRUE(left.Wait(std::chrono::duration_cast<std::chrono::milliseconds>(kBound)));
  const Clock::duration freed = Clock::now() - held;
  std::printf("%zu calls held in %.3f s; StopAllRequest returned in %.3f s and every call in %.3f s\n",
              kCalls, Seconds(held - start), Seconds(stop), Seconds(freed));
  EXPECT_LT(freed, std::chrono::seconds(1));
  for (size_t i = 0; i < kCalls; ++i) EXPECT_EQ(results[i], TDC_HRESULT_HTTP_ERROR) << i;
  EXPECT_EQ(client->PendingRequests(), 0u);
  emu->Release();
}

TEST_F(Scale, SixteenHostThreadsCallWhilePollingDeliversEachMessageOnce) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  tpcsdk::TetherdocServer* client = Client(emu);
  ASSERT_NE(client, nullptr);
  ASSERT_TRUE(emu->SeedUser("u1", "tok", "ann@example.test", true));
  ASSERT_EQ(client->SetAccessToken(reinterpret_cast<TDC_LPCWSTR>(u"tok")), TDC_HRESULT_OK);
  constexpr int kMessages = 40;
  Host host;
  ASSERT_EQ(client->SetSubscribtionCallback(&OnMessage, &OnError, &host), 0);
  // The worker stands at its first wait; the rounds are made by a thread of the test,
  // one after the other, for as long as the load runs.
  client->PollingWorker()->SetClock(&clock_);
  ASSERT_EQ(client->StartPolling(), 0);
  ASSERT_TRUE(clock_.WaitReady());

  constexpr int kThreads = 16;
  const int calls = CallsPerThread();
  std::atomic<bool> loading{true};
  std::atomic<int> rounds{0};
  std::atomic<long> failures{0};
  std::vector<std::thread> threads;
  const char* list = R"([{"type":102,"token":"tok"}])";
  std::thread poller([&] {
    int queued = 0;
    while (loading.load()) {
      // Messages keep arriving while the load runs.
      if (queued < kMessages) {
        Json::Value message;
        message["n"] = queued++;
        message["messageTemplateId"] = "tpl-share";
        if (emu->QueueMessage("tok", 102, message).isNull()) failures++;
      }
      client->Internet_Polling(list);
      rounds++;
    }
    for (; queued < kMessages; ++queued) {
      Json::Value message;
      message["n"] = queued;
      if (emu->QueueMessage("tok", 102, message).isNull()) failures++;
    }
    client->Internet_Polling(list);  // what is still waiting
    rounds++;
  });
  const Clock::time_point start = Clock::now();
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < calls; ++i) {
        int result;
        if ((i + t) % 2 == 0) {
          char* config = nullptr;
          result = client->GetServerOptionConfig(&config);
          TDC_ReleaseLPSTR(config);
        } else {
          int32_t online = 0;
          result = client->isUserOnLine("ann@example.test", &online);
          if (result == TDC_HRESULT_OK && online != 1) result = -1000;
        }
        if (result != TDC_HRESULT_OK) failures++;
      }
    });
  }
  for (auto& t : threads) t.join();
  const Clock::duration took = Clock::now() - start;
  loading = false;
  poller.join();
  const double total = static_cast<double>(kThreads) * calls;
  std::printf("%d threads x %d calls in %.2f s (%.0f calls/s), %d polling rounds alongside\n",
              kThreads, calls, Seconds(took), total / Seconds(took), rounds.load());

  EXPECT_EQ(failures.load(), 0);
  EXPECT_TRUE(emu->WaitForMessages(kMessages, "acknowledged", "tok", 10000));
  std::lock_guard<std::mutex> lock(host.m);
  EXPECT_EQ(host.errors, 0);
  EXPECT_EQ(host.deliveries.size(), static_cast<size_t>(kMessages));
  for (const auto& [id, count] : host.deliveries) EXPECT_EQ(count, 1) << id;
  EXPECT_EQ(client->PendingRequests(), 0u);
  client->stopThread();
}

}  // namespace
