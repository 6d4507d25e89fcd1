#include "polling/pull_msg_queue.h"

#include <json/json.h>

#include "web_service/tetherdoc_server.h"

namespace tpcsdk {
namespace {

void AppendWritten(const Json::Value& parameter, std::vector<std::string>& list) {
  std::string text = Json::FastWriter().write(parameter);
  if (!text.empty()) list.push_back(std::move(text));
}

}  // namespace

CPullMsgQueueManager::CPullMsgQueueManager(TetherdocServer* server) : m_pServer(server) {}

CPullMsgQueueManager::~CPullMsgQueueManager() {
  std::lock_guard<std::recursive_mutex> lock(m_Lock);
  m_pEntries.clear();
}

void CPullMsgQueueManager::AddEntry(int32_t type, int32_t priority) {
  std::lock_guard<std::recursive_mutex> lock(m_Lock);
  auto entry = std::make_unique<PullMsgEntry>();
  entry->nType = type;
  entry->nPriority = priority;
  for (const auto& queued : m_pEntries)
    if (queued->nType == type) return;
  m_pEntries.push_back(std::move(entry));
}

void CPullMsgQueueManager::RemoveEntry(int32_t type) {
  std::lock_guard<std::recursive_mutex> lock(m_Lock);
  for (auto it = m_pEntries.begin(); it != m_pEntries.end(); ++it) {
    if ((*it)->nType == type) {
      m_pEntries.erase(it);
      return;
    }
  }
}

void CPullMsgQueueManager::AddUserEntries() {
  AddEntry(kPullUserMessage, 2);
  AddEntry(kPullUntreatedNotify, 1);
  AddEntry(kPullRequestFile, 3);
  AddEntry(kPullHomepage, 3);
}

void CPullMsgQueueManager::RemoveUserEntries() {
  for (int32_t type : {kPullUserMessage, kPullAppMessage, kPullRequestFile, kPullHomepage,
                       kPullShareView, kPullUntreatedNotify})
    RemoveEntry(type);
}

std::vector<PullMsgEntry> CPullMsgQueueManager::Entries() {
  std::lock_guard<std::recursive_mutex> lock(m_Lock);
  std::vector<PullMsgEntry> entries;
  entries.reserve(m_pEntries.size());
  for (const auto& entry : m_pEntries) entries.push_back(*entry);
  return entries;
}

void CPullMsgQueueManager::BuildUserParameters(int32_t type, std::vector<std::string>& list) {
  std::lock_guard<std::recursive_mutex> lock(m_pServer->m_lockPollParams);
  for (const std::string& token : m_pServer->SubscribedUsers()) {
    if (token.empty()) continue;
    Json::Value parameter(Json::objectValue);
    parameter["type"] = type;
    parameter["token"] = token;
    AppendWritten(parameter, list);
  }
}

void CPullMsgQueueManager::BuildAppParameters(int32_t type, std::vector<std::string>& list) {
  std::lock_guard<std::recursive_mutex> lock(m_pServer->m_lockPollParams);
  const std::string appID = m_pServer->SubscribedAppID();
  for (const std::string& token : m_pServer->SubscribedUsers()) {
    if (token.empty() || appID.empty()) continue;
    Json::Value parameter(Json::objectValue);
    parameter["type"] = type;
    parameter["token"] = token;
    parameter["cAppID"] = appID;
    AppendWritten(parameter, list);
  }
}

void CPullMsgQueueManager::BuildUpdateParameters(int32_t type, std::vector<std::string>& list) {
  std::lock_guard<std::recursive_mutex> lock(m_pServer->m_lockPollParams);
  for (const UpdateSubscription& update : m_pServer->SubscribedUpdates()) {
    if (update.token.empty() || update.document.empty() || update.latestVersion.empty())
      continue;
    Json::Value parameter(Json::objectValue);
    parameter["type"] = type;
    parameter["token"] = update.token;
    parameter["cDocID"] = update.document;
    parameter["cVersionID"] = update.latestVersion;
    parameter["cLocalVersionId"] = update.localVersion;
    AppendWritten(parameter, list);
  }
}

}  // namespace tpcsdk
