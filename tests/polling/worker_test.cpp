// The polling worker driven by a clock the test steps: the due check, the five-level
// cycle, the back-off, and start, stop and restart from host threads and from the
// worker's own callbacks.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kit/testkit.h"
#include "step_clock.h"
#include "polling/pull_msg_queue.h"
#include "polling/pull_msg_thread.h"
#include "web_service/tetherdoc_server.h"

namespace {

using namespace std::chrono_literals;
using tpcsdk::CPullMsgThread;
using tpcsdk::TetherdocServer;

using testkit::kBound;
using testkit::StepClock;

// Records the rounds the worker makes, with the clock's time of each.
struct RoundLog {
  std::mutex m;
  std::vector<std::string> lists;
  std::vector<uint32_t> times;
  std::atomic<int> cancels{0};
  std::function<void()> inRound;  // runs on the worker inside each round

  tpcsdk::PollingRound Round(StepClock* clock) {
    return {[this, clock](const std::string& list) {
              {
                std::lock_guard<std::mutex> lock(m);
                lists.push_back(list);
                times.push_back(clock ? clock->TickCount() : 0);
              }
              if (inRound) inRound();
            },
            [this] { ++cancels; }};
  }
  size_t Count() {
    std::lock_guard<std::mutex> lock(m);
    return lists.size();
  }
};

class Worker : public ::testing::Test {
 protected:
  Worker() : clock(UseClock()) {}
  void TearDown() override { server.stopThread(); }
  CPullMsgThread& worker() { return *server.PollingWorker(); }
  // A new clock for the worker (and its rounds); only while it isn't running. The
  // clocks live as long as the client, so its last stop can still reach them.
  StepClock& UseClock(uint32_t start = 1000, uint32_t extraPerPass = 0) {
    clocks.push_back(std::make_unique<StepClock>(start, extraPerPass));
    worker().SetClock(clocks.back().get());
    worker().SetRound(rounds.Round(clocks.back().get()));
    return *clocks.back();
  }
  void StartAndWait(StepClock& c) {
    ASSERT_EQ(server.StartPolling(), 0);
    ASSERT_TRUE(c.WaitReady());
  }
  void StartAndWait() { StartAndWait(clock); }

  std::vector<std::unique_ptr<StepClock>> clocks;
  RoundLog rounds;
  TetherdocServer server{"en-US", "Polling Test", "1.0"};
  StepClock& clock;
};

// From an ordinary start, and from one just before the tick counter wraps.
class FirstRound : public Worker, public ::testing::WithParamInterface<uint32_t> {};

TEST_P(FirstRound, AfterOneWholeIntervalThenEveryIntervalAtPassGrain) {
  StepClock& c = UseClock(GetParam());
  server.SubscribeUser("tok");
  StartAndWait(c);
  const uint32_t start = c.TickCount();
  ASSERT_TRUE(c.RunPasses(149));
  EXPECT_EQ(rounds.Count(), 0u) << "a round before the interval was up";
  ASSERT_TRUE(c.RunPasses(1));
  ASSERT_EQ(rounds.Count(), 1u);
  ASSERT_TRUE(c.RunPasses(150 * 5));
  ASSERT_EQ(rounds.Count(), 6u);
  std::lock_guard<std::mutex> lock(rounds.m);
  for (size_t i = 0; i < rounds.times.size(); ++i)
    EXPECT_EQ(rounds.times[i] - start, 15000u * (i + 1)) << "round " << i;
  // The counter counts rounds, not passes.
  EXPECT_EQ(worker().m_nNoResultCount, 6);
}

INSTANTIATE_TEST_SUITE_P(Ticks, FirstRound, ::testing::Values(1000u, 0xFFFFFFFFu - 5000u));

TEST_F(Worker, RoundsDriftByThePassThatFirstReachesTheInterval) {
  StepClock& slow = UseClock(1000, 30);  // passes of 130 ms
  server.SubscribeUser("tok");
  StartAndWait(slow);
  ASSERT_TRUE(slow.RunPasses(240));
  std::lock_guard<std::mutex> lock(rounds.m);
  ASSERT_EQ(rounds.times.size(), 2u);
  EXPECT_EQ(rounds.times[0] - 1000u, 116u * 130u);  // first pass at or after 15000
  EXPECT_EQ(rounds.times[1] - rounds.times[0], 116u * 130u);
}

TEST_F(Worker, EmptyQueueOrNoSubscriberSendsNothingAndDoesNotCount) {
  server.SubscribecAppID("app");  // queued, but no token to poll it with
  StartAndWait();
  ASSERT_TRUE(clock.RunPasses(150 * 3));
  EXPECT_EQ(rounds.Count(), 0u);
  EXPECT_EQ(worker().m_nNoResultCount, 0);
}

TEST_F(Worker, BackOffDoublesTheIntervalOnceTheLimitIsReached) {
  server.SubscribeUser("tok");
  StartAndWait();
  worker().m_nMaxNoResult = 2;
  ASSERT_TRUE(clock.RunPasses(300));  // two rounds at 15 s
  EXPECT_EQ(rounds.Count(), 2u);
  ASSERT_TRUE(clock.RunPasses(1));  // the next pass backs off
  EXPECT_EQ(worker().m_nPollInterval, 30);
  EXPECT_EQ(worker().m_nNoResultCount, 0);
  ASSERT_TRUE(clock.RunPasses(298));
  EXPECT_EQ(rounds.Count(), 2u) << "the new interval counts from the last round";
  ASSERT_TRUE(clock.RunPasses(1));
  EXPECT_EQ(rounds.Count(), 3u);
}

// The back-off step on its own: interval, limit and count before; after `steps` passes.
struct BackOffCase {
  int32_t interval, limit, count;
  int steps;
  int32_t intervalAfter, countAfter;
};

class BackOff : public ::testing::TestWithParam<BackOffCase> {};

TEST_P(BackOff, Series) {
  const BackOffCase c = GetParam();
  TetherdocServer server("en-US", "Polling Test", "1.0");
  CPullMsgThread& worker = *server.PollingWorker();
  worker.m_nPollInterval = c.interval;
  worker.m_nMaxNoResult = c.limit;
  worker.m_nNoResultCount = c.count;
  for (int i = 0; i < c.steps; ++i) worker.ApplyBackOff();
  EXPECT_EQ(worker.m_nPollInterval, c.intervalAfter);
  EXPECT_EQ(worker.m_nNoResultCount, c.countAfter);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, BackOff,
    ::testing::Values(BackOffCase{15, 250, 249, 1, 15, 249},   // below the limit
                      BackOffCase{15, 250, 250, 1, 30, 0},     // 250 rounds: 30
                      BackOffCase{30, 250, 250, 1, 60, 0},     // 250 more: 60
                      BackOffCase{15, 0, 0, 1, 30, 0},         // a limit of 0: every pass
                      BackOffCase{15, 0, 0, 27, 2013265920, 0},
                      // The next doubling is negative: nothing changes, the count stays.
                      BackOffCase{2013265920, 0, 5, 3, 2013265920, 5},
                      BackOffCase{15, -3, 0, 1, 30, 0},
                      BackOffCase{0, 0, 7, 1, 0, 7}));

TEST_F(Worker, FiveLevelCycleWithTwoTokensAnAppAndAnUpdate) {
  server.SubscribeUser("t1");
  server.SubscribeUser("t2");
  server.SubscribecAppID("app");
  server.SubscribeUpdateNotification("t1", "doc", "v1");  // no callbacks: no request
  const auto p = [](int type, const char* token) {
    return std::string(R"({"token":")") + token + R"(","type":)" + std::to_string(type) + "}";
  };
  const auto app = [](const char* token) {
    return std::string(R"({"cAppID":"app","token":")") + token + R"(","type":109})";
  };
  const std::string update =
      R"({"cDocID":"doc","cLocalVersionId":"v1","cVersionID":"v1","token":"t1","type":101})";
  const std::string level1 = p(110, "t1") + "," + p(110, "t2") + "," + app("t1") + "," + app("t2");
  const std::string level2 = level1 + "," + p(102, "t1") + "," + p(102, "t2");
  const std::string level3 = level2 + "," + p(104, "t1") + "," + p(104, "t2") + "," +
                             p(105, "t1") + "," + p(105, "t2") + "," + update;
  const std::string expected[] = {level1, level2, level3, level3, level3, level1};

  StartAndWait();
  ASSERT_TRUE(clock.RunPasses(150 * 6));
  std::lock_guard<std::mutex> lock(rounds.m);
  ASSERT_EQ(rounds.lists.size(), 6u);
  for (size_t i = 0; i < 6; ++i)
    EXPECT_EQ(rounds.lists[i], "[" + expected[i] + "]\n") << "round " << i + 1;
}

TEST(JoinParameters, DropsWhatIsNotAnObject) {
  EXPECT_EQ(CPullMsgThread::JoinParameters({R"({"a":1})", "not json", "[1]", "7", R"({"b":2})"}),
            "[{\"a\":1},{\"b\":2}]\n");
  EXPECT_EQ(CPullMsgThread::JoinParameters({"[]"}), "[]\n");
}

// ---- start, stop, restart --------------------------------------------------------

TEST_F(Worker, SlotResultsAndWhatASecondStartLeavesAlone) {
  EXPECT_EQ(server.StopPolling(), -2) << "not running";
  EXPECT_EQ(server.stopThread(), 0);
  StartAndWait();
  worker().m_nPollInterval = 77;
  worker().m_nMaxNoResult = 5;
  EXPECT_EQ(server.StartPolling(), -2);
  EXPECT_EQ(worker().m_nPollInterval, 77);
  EXPECT_EQ(worker().m_nMaxNoResult, 5);
  EXPECT_EQ(server.StopPolling(), 0);
  EXPECT_EQ(worker().IsRunning(), 0);
  EXPECT_EQ(server.StopPolling(), -2);
  EXPECT_GE(rounds.cancels, 1) << "a stop ends the round in progress";
  // A restart takes the configuration again and counts afresh.
  ASSERT_EQ(server.StartPolling(), 0);
  EXPECT_EQ(worker().m_nPollInterval, 15);
  EXPECT_EQ(worker().m_nMaxNoResult, 250);
  EXPECT_EQ(server.stopThread(), 0);
  EXPECT_EQ(worker().IsRunning(), 0);
}

TEST_F(Worker, StartAndStopFromManyThreadsLeaveOneConsistentWorker) {
  std::vector<std::thread> hosts;
  for (int t = 0; t < 6; ++t) {
    hosts.emplace_back([&, t] {
      for (int i = 0; i < 40; ++i) {
        if ((i + t) % 2) {
          server.StartPolling();
        } else if (t % 3 == 0) {
          server.stopThread();
        } else {
          server.StopPolling();
        }
      }
    });
  }
  for (std::thread& h : hosts) h.join();
  EXPECT_EQ(server.stopThread(), 0);
  EXPECT_EQ(worker().IsRunning(), 0);
  EXPECT_EQ(server.StartPolling(), 0);
  EXPECT_EQ(server.StopPolling(), 0);
}

// Runs f on a thread and fails the test if it does not return within the bound.
void ReturnsWithinBound(const std::function<void()>& f, const char* what) {
  auto done = std::make_shared<testkit::Signal>();
  std::thread runner([f, done] {
    f();
    done->Set();
  });
  if (!done->WaitFor(kBound)) {
    runner.detach();
    FAIL() << what << " did not return";
  }
  runner.join();
}

TEST_F(Worker, AStopEndsThePassWaitAtOnce) {
  StartAndWait();  // the worker waits in its pass and the clock will not move
  ReturnsWithinBound([&] { EXPECT_EQ(server.StopPolling(), 0); }, "StopPolling");
}

TEST_F(Worker, StoppingASuspendedWorkerDoesNotHang) {
  StartAndWait();
  worker().Suspend();
  ReturnsWithinBound([&] { EXPECT_EQ(server.StopPolling(), 0); }, "StopPolling");
  StartAndWait(UseClock());
  worker().Suspend();
  worker().Resume();
  ASSERT_TRUE(clocks.back()->RunPasses(3)) << "a resumed worker goes on";
}

TEST_F(Worker, CallbacksOnTheWorkerMayStopItAndChangeSubscriptions) {
  server.SubscribeUser("tok");
  std::atomic<int> stopResult{99}, startResult{99}, unsubscribeResult{99};
  rounds.inRound = [&] {
    unsubscribeResult = server.UnSubscribeUser("tok");
    stopResult = server.StopPolling();
    startResult = server.StartPolling();  // the worker cannot restart itself
  };
  StartAndWait();
  ASSERT_TRUE(clock.RunPasses(150));
  ASSERT_TRUE(testkit::WaitUntil([&] { return worker().IsRunning() == 0; }, kBound));
  EXPECT_EQ(unsubscribeResult, 0);
  EXPECT_EQ(stopResult, 0);
  EXPECT_EQ(startResult, -2);
  EXPECT_TRUE(worker().QueueManager()->Entries().empty());
  // A host thread restarts it; the start waits for the old body to be gone.
  rounds.inRound = nullptr;
  StartAndWait(UseClock());
  EXPECT_EQ(server.StopPolling(), 0);
}

TEST(WorkerLifetime, DestroyingTheClientEndsARoundInProgress) {
  auto* server = new TetherdocServer("en-US", "Polling Test", "1.0");
  StepClock clock;
  std::mutex m;
  std::condition_variable cv;
  bool inRound = false, cancelled = false;
  CPullMsgThread& worker = *server->PollingWorker();
  worker.SetClock(&clock);
  // A round that only ends when the stop cancels it, as a stalled request would.
  worker.SetRound({[&](const std::string&) {
                     std::unique_lock<std::mutex> lock(m);
                     inRound = true;
                     cv.notify_all();
                     cv.wait(lock, [&] { return cancelled; });
                   },
                   [&] {
                     std::lock_guard<std::mutex> lock(m);
                     cancelled = true;
                     cv.notify_all();
                   }});
  server->SubscribeUser("tok");
  ASSERT_EQ(server->StartPolling(), 0);
  ASSERT_TRUE(clock.WaitReady());
  std::thread stepper([&] { clock.RunPasses(150); });
  {
    std::unique_lock<std::mutex> lock(m);
    ASSERT_TRUE(cv.wait_for(lock, kBound, [&] { return inRound; }));
  }
  ReturnsWithinBound([&] { server->Destroy(1); }, "Destroy");
  stepper.join();
  EXPECT_TRUE(cancelled);
}

TEST(ThreadBase, TerminateAndStopOnAThreadThatNeverRanDoNothing) {
  tpcsdk::CTC_Thread thread;
  thread.Terminate();
  EXPECT_EQ(thread.Stop(), 1);
  thread.StopWithTimeout(10);
  EXPECT_EQ(thread.TimedOut(), 0);
  EXPECT_EQ(thread.IsRunning(), 0);
  thread.SetPriority(2);
  EXPECT_EQ(thread.GetPriority(), 2);
}

}  // namespace
