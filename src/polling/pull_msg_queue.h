// CPullMsgQueueManager: what the worker polls for, one entry per kind of message with
// the level from which it takes part in a round, and the builders of a round's
// parameter strings from the client's subscriber lists.
//
// Locks: m_Lock guards the entries and is always the inner lock; a caller that holds
// one of the client's polling locks takes it after that one.
#pragma once
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace tpcsdk {

class TetherdocServer;

// Message types of the queue, as the service numbers them.
enum PullMsgType : int32_t {
  kPullUpdate = 101,
  kPullUserMessage = 102,
  kPullAppMessage = 103,
  kPullRequestFile = 104,
  kPullHomepage = 105,
  kPullShareView = 109,
  kPullUntreatedNotify = 110,
};

struct PullMsgEntry {
  int32_t nType = 0;
  int32_t nPriority = 0;  // takes part in rounds of this level and above
};

class CPullMsgQueueManager {
 public:
  explicit CPullMsgQueueManager(TetherdocServer* server);
  virtual ~CPullMsgQueueManager();
  CPullMsgQueueManager(const CPullMsgQueueManager&) = delete;
  CPullMsgQueueManager& operator=(const CPullMsgQueueManager&) = delete;

  // Appends an entry unless one of that type is queued already.
  void AddEntry(int32_t type, int32_t priority);
  // Removes the entry of that type, keeping the order of the others.
  void RemoveEntry(int32_t type);
  // The user types 102, 110, 104, 105, each added on its own.
  void AddUserEntries();
  // Removes 102, 103, 104, 105, 109 and 110.
  void RemoveUserEntries();
  // The queue as it stands, in order of adding.
  std::vector<PullMsgEntry> Entries();

  // Append one parameter string per subscriber to list. Only the worker calls them.
  void BuildUserParameters(int32_t type, std::vector<std::string>& list);
  void BuildAppParameters(int32_t type, std::vector<std::string>& list);
  void BuildUpdateParameters(int32_t type, std::vector<std::string>& list);

 private:
  std::vector<std::unique_ptr<PullMsgEntry>> m_pEntries;
  std::recursive_mutex m_Lock;
  TetherdocServer* m_pServer;
};

}  // namespace tpcsdk
