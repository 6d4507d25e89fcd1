// CPullMsgThread: the polling worker of one client. It passes every 100 ms; once per
// polling interval it gathers the parameters of the queue's entries that are due at
// this round's level, joins them into one JSON array and makes one polling round.
#pragma once
#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "polling/tc_thread.h"

namespace tpcsdk {

class CPullMsgQueueManager;
class CPullMsgThread;
class TetherdocServer;

// The time the worker runs by: its tick counter and its wait between passes. The
// production clock is the monotonic tick counter and a wait on the stop signal; tests
// give one they step by hand.
class IPollClock {
 public:
  virtual ~IPollClock() = default;
  // Milliseconds, wrapping at 2^32.
  virtual uint32_t TickCount() = 0;
  // Waits out one pass of ms milliseconds; ends early once a stop was requested
  // (worker.IsRunning() is 0 then).
  virtual void WaitPass(CPullMsgThread& worker, uint32_t ms) = 0;
  // Called when a stop is requested, after the running flag fell.
  virtual void Interrupt() {}
};

// How the worker makes a round. Run is given the parameter list (a JSON array written
// compactly, ending in a line feed); Cancel is called when a stop is requested and
// ends a round in progress.
struct PollingRound {
  std::function<void(const std::string& parameterList)> Run;
  std::function<void()> Cancel;
};

class CPullMsgThread : public CTC_Thread {
 public:
  static constexpr uint32_t kPassMs = 100;
  static constexpr int kLevels = 5;

  // server is the client that owns the worker; the round goes to its Internet_Polling.
  explicit CPullMsgThread(TetherdocServer* server);
  // Stops the thread, then frees the queue manager.
  ~CPullMsgThread() override;

  int Run() override;
  void OnStopRequested() override;

  CPullMsgQueueManager* QueueManager() { return m_pQueueManager; }
  // The production pass: waits ms for the stop signal.
  void WaitPass(uint32_t ms);

  // Replace the clock and the round; only while the worker isn't running. A null clock
  // restores the production one.
  void SetClock(IPollClock* clock);
  void SetRound(PollingRound round);

  // The back-off step, made on every pass: once m_nNoResultCount reaches
  // m_nMaxNoResult the interval doubles (while that stays a positive 32-bit number)
  // and the count starts again.
  void ApplyBackOff();
  // The parameter strings of a round of the given level (1 to 5), in the order sent.
  std::vector<std::string> CollectParameters(int level);
  // The strings as one JSON array; strings that aren't JSON objects are dropped.
  static std::string JoinParameters(const std::vector<std::string>& parameters);

  // Plain 32-bit values written by the worker and by host threads.
  std::atomic<int32_t> m_nPollInterval{0};
  std::atomic<int32_t> m_nMaxNoResult{0};
  std::atomic<int32_t> m_nNoResultCount{0};
  std::atomic<int32_t> m_bServerInterval{0};

 private:
  CPullMsgQueueManager* m_pQueueManager = nullptr;
  TetherdocServer* m_pServer = nullptr;
  IPollClock* m_pClock = nullptr;
  PollingRound m_round;
};

}  // namespace tpcsdk
