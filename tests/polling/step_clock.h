// A clock for the polling worker that moves only when the test lets the worker make
// passes, so intervals are driven by the test and never waited out.
#pragma once
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "polling/pull_msg_thread.h"

namespace testkit {

// How long a test waits for the worker before it fails.
constexpr std::chrono::seconds kBound{20};

// A clock that moves only when the test lets the worker make passes. Each pass adds
// the pass length plus `extraPerPass` to the time.
class StepClock final : public tpcsdk::IPollClock {
 public:
  explicit StepClock(uint32_t start = 1000, uint32_t extraPerPass = 0)
      : now_(start), extra_(extraPerPass) {}

  uint32_t TickCount() override {
    std::lock_guard<std::mutex> lock(m_);
    return now_;
  }
  void WaitPass(tpcsdk::CPullMsgThread& worker, uint32_t ms) override {
    std::unique_lock<std::mutex> lock(m_);
    ++arrivals_;
    cv_.notify_all();
    cv_.wait(lock, [&] { return granted_ > 0 || !worker.IsRunning(); });
    if (granted_ > 0) {
      --granted_;
      now_ += ms + extra_;
    }
  }
  void Interrupt() override {
    std::lock_guard<std::mutex> lock(m_);
    cv_.notify_all();
  }
  // Waits until the worker stands at its first wait.
  bool WaitReady() {
    std::unique_lock<std::mutex> lock(m_);
    return cv_.wait_for(lock, kBound, [&] { return arrivals_ > 0; });
  }
  // Lets the worker make n more passes without waiting for them.
  void Grant(uint64_t n) {
    std::lock_guard<std::mutex> lock(m_);
    granted_ += n;
    cv_.notify_all();
  }
  // Lets the worker make n more passes and waits until it has.
  bool RunPasses(uint64_t n) {
    std::unique_lock<std::mutex> lock(m_);
    const uint64_t target = arrivals_ + n;
    granted_ += n;
    cv_.notify_all();
    return cv_.wait_for(lock, kBound, [&] { return arrivals_ >= target; });
  }

 private:
  std::mutex m_;
  std::condition_variable cv_;
  uint32_t now_;
  uint32_t extra_;
  uint64_t granted_ = 0;
  uint64_t arrivals_ = 0;
};

}  // namespace testkit
