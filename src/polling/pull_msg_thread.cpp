#include "polling/pull_msg_thread.h"

#include <json/json.h>

#include "os/clock.h"
#include "polling/pull_msg_queue.h"
#include "support/guard.h"
#include "web_service/tetherdoc_server.h"

#include <new>

namespace tpcsdk {
namespace {

// The monotonic tick counter, and a pass that a stop ends at once.
class MonotonicPollClock final : public IPollClock {
 public:
  uint32_t TickCount() override { return os::TickCount(); }
  void WaitPass(CPullMsgThread& worker, uint32_t ms) override { worker.WaitPass(ms); }
};

// Built once in the module's own storage and never destroyed: a client that ends while
// the process exits (the module's end runs after static destructors) still stops its
// worker through it, and nothing is left on the heap when the module is unloaded.
IPollClock& MonotonicClock() {
  alignas(MonotonicPollClock) static unsigned char storage[sizeof(MonotonicPollClock)];
  static IPollClock* const clock = new (storage) MonotonicPollClock;
  return *clock;
}

// 32-bit signed arithmetic that wraps as the machine's does.
int32_t Wrap32(int64_t value) { return static_cast<int32_t>(static_cast<uint32_t>(value)); }

}  // namespace

CPullMsgThread::CPullMsgThread(TetherdocServer* server)
    : m_pQueueManager(new CPullMsgQueueManager(server)),
      m_pServer(server),
      m_pClock(&MonotonicClock()) {
  m_round.Run = [server](const std::string& list) { server->Internet_Polling(list.c_str()); };
  m_round.Cancel = [server] { server->StopPollingRound(); };
}

CPullMsgThread::~CPullMsgThread() {
  // The body reads the queue manager: it has to be gone before the manager is.
  Stop();
  delete m_pQueueManager;
  m_pQueueManager = nullptr;
}

void CPullMsgThread::SetClock(IPollClock* clock) {
  m_pClock = clock ? clock : &MonotonicClock();
}

void CPullMsgThread::SetRound(PollingRound round) { m_round = std::move(round); }

void CPullMsgThread::WaitPass(uint32_t ms) { WaitForStopSignal(ms); }

int CPullMsgThread::Run() {
  // No round at the start: the first one is due after one whole interval.
  uint32_t lastTick = m_pClock->TickCount();
  int level = 0;
  m_nNoResultCount = 0;
  while (IsRunning()) {
    SuspendPoint();
    // A failed pass (memory ran out, a round that threw) leaves the loop going.
    GuardedVoid([&] {
      ApplyBackOff();
      std::vector<std::string> parameters;
      const uint32_t now = m_pClock->TickCount();
      const int32_t elapsed = static_cast<int32_t>(now - lastTick);
      if (elapsed >= Wrap32(static_cast<int64_t>(m_nPollInterval) * 1000)) {
        lastTick = now;
        ++level;
        parameters = CollectParameters(level);
        if (level == kLevels) level = 0;
      }
      if (!parameters.empty()) {
        const std::string list = JoinParameters(parameters);
        ++m_nNoResultCount;
        if (m_round.Run) m_round.Run(list);
      }
    });
    m_pClock->WaitPass(*this, kPassMs);
  }
  return 1;
}

void CPullMsgThread::OnStopRequested() {
  m_pClock->Interrupt();
  if (m_round.Cancel) m_round.Cancel();
}

void CPullMsgThread::ApplyBackOff() {
  if (m_nNoResultCount < m_nMaxNoResult) return;
  const int32_t interval = m_nPollInterval;
  const int32_t doubled = Wrap32(static_cast<int64_t>(interval) * 2);
  if (doubled <= 0 || doubled == interval) return;
  if (doubled % interval < 6) m_nPollInterval = doubled;
  m_nNoResultCount = 0;
}

std::vector<std::string> CPullMsgThread::CollectParameters(int level) {
  std::vector<std::string> parameters;
  const std::vector<PullMsgEntry> entries = m_pQueueManager->Entries();
  for (int priority = 1; priority <= level; ++priority) {
    for (const PullMsgEntry& entry : entries) {
      if (entry.nPriority != priority) continue;
      switch (entry.nType) {
        case 101:
          m_pQueueManager->BuildUpdateParameters(entry.nType, parameters);
          break;
        case 102:
        case 104:
        case 105:
        case 110:
          m_pQueueManager->BuildUserParameters(entry.nType, parameters);
          break;
        case 103:
        case 109:
          m_pQueueManager->BuildAppParameters(entry.nType, parameters);
          break;
        default:
          break;
      }
    }
  }
  return parameters;
}

std::string CPullMsgThread::JoinParameters(const std::vector<std::string>& parameters) {
  Json::Value list(Json::arrayValue);
  Json::Reader reader;
  for (const std::string& text : parameters) {
    Json::Value parameter;
    if (reader.parse(text, parameter) && parameter.isObject()) list.append(parameter);
  }
  return Json::FastWriter().write(list);
}

}  // namespace tpcsdk
