// Subscriptions (users, the application id, document updates), the callbacks, and the
// slots that start and stop the polling worker.
#include <json/json.h>

#include "platform/diagnostic_log.h"
#include "polling/pull_msg_queue.h"
#include "polling/pull_msg_thread.h"
#include "support/guard.h"
#include "support/utf.h"
#include "tpcsdk/tpcsdk.h"
#include "web_service/tetherdoc_server.h"

namespace tpcsdk {
namespace {

constexpr int32_t kPriorityUpdate = 3;
constexpr int32_t kPriorityShareView = 1;
constexpr int32_t kCodeUpdateNotification = 1003;

bool IsEmptyJson(const Json::Value& v) {
  return v.isNull() || ((v.isArray() || v.isObject()) && v.size() == 0);
}

std::string JsonText(const Json::Value& v) {
  return v.isConvertibleTo(Json::stringValue) ? v.asString() : std::string();
}

}  // namespace

// ---- users and the application id ----------------------------------------------

int TetherdocServer::SubscribeUser(const char* token) {
  return Guarded(TDC_HRESULT_FAILED, [&]() -> int {
    if (!token) return TDC_HRESULT_FAILED;
    if (m_pLog) m_pLog->Write("SubscribeUser lpsUserToken:%s", token);
    std::lock_guard<std::recursive_mutex> lock(m_lockUsers);
    for (const std::string& user : m_listUsers)
      if (user == token) return TDC_HRESULT_OK;
    m_listUsers.emplace_back(token);
    m_pPullThread->QueueManager()->AddUserEntries();
    return TDC_HRESULT_OK;
  });
}

int TetherdocServer::UnSubscribeUser(const char* token) {
  return Guarded(TDC_HRESULT_FAILED, [&]() -> int {
    if (!token) return TDC_HRESULT_FAILED;
    if (m_pLog) m_pLog->Write("UnSubscribeUser lpsUserToken:%s", token);
    std::lock_guard<std::recursive_mutex> lock(m_lockUsers);
    for (auto it = m_listUsers.begin(); it != m_listUsers.end(); ++it) {
      if (*it != token) continue;
      m_listUsers.erase(it);
      if (m_listUsers.empty()) m_pPullThread->QueueManager()->RemoveUserEntries();
      return TDC_HRESULT_OK;
    }
    return TDC_HRESULT_FAILED;
  });
}

int TetherdocServer::SubscribecAppID(const char* cAppID) {
  return Guarded(TDC_HRESULT_FAILED, [&]() -> int {
    if (!cAppID) return TDC_HRESULT_FAILED;
    if (m_pLog) m_pLog->Write("SubscribecAppID lpcscAppID:%s", cAppID);
    std::lock_guard<std::recursive_mutex> lock(m_lockAppID);
    m_strAppID = cAppID;
    if (m_strAppID.empty()) return TDC_HRESULT_FAILED;
    m_pPullThread->QueueManager()->AddEntry(kPullShareView, kPriorityShareView);
    return TDC_HRESULT_OK;
  });
}

int TetherdocServer::UnSubscribecAppID() {
  return Guarded(TDC_HRESULT_FAILED, [&]() -> int {
    std::lock_guard<std::recursive_mutex> lock(m_lockAppID);
    m_strAppID.clear();
    m_pPullThread->QueueManager()->RemoveEntry(kPullShareView);
    return TDC_HRESULT_OK;
  });
}

std::vector<std::string> TetherdocServer::SubscribedUsers() {
  std::lock_guard<std::recursive_mutex> lock(m_lockUsers);
  return std::vector<std::string>(m_listUsers.begin(), m_listUsers.end());
}

std::string TetherdocServer::SubscribedAppID() {
  std::lock_guard<std::recursive_mutex> lock(m_lockAppID);
  return m_strAppID;
}

// ---- document updates ------------------------------------------------------------

int TetherdocServer::SubscribeUpdateNotification(const char* token, const char* cDocID,
                                                 const char* cVersionID) {
  return Guarded(TDC_HRESULT_FAILED, [&]() -> int {
    if (!token || !cDocID || !cVersionID) return TDC_HRESULT_FAILED;
    if (m_pLog)
      m_pLog->Write("SubscribeUpdateNotification lpcsUserToken:%s, lpcsDocID:%s, lpcsVersionID:%s",
                    token, cDocID, cVersionID);
    // Held across the look-up below, a request that may call the host back on this
    // thread; the lock is re-entrant so that callback may subscribe or unsubscribe.
    std::lock_guard<std::recursive_mutex> lock(m_lockUpdates);
    {
      std::lock_guard<std::mutex> list(m_lockUpdatesList);
      for (const auto& update : m_listUpdates)
        if (update->token == token && update->document == cDocID &&
            update->localVersion == cVersionID)
          return TDC_HRESULT_OK;
    }
    auto update = std::make_unique<UpdateSubscription>();
    update->token = token;
    update->document = cDocID;
    update->localVersion = cVersionID;
    if (update->token.empty() || update->document.empty() || update->localVersion.empty()) {
      if (m_pLog) m_pLog->Write("Internet_SubscribeUpdateNotification parameter is empty");
      return TDC_HRESULT_OK;
    }
    const std::string latest =
        GetLatestUpdateNotificationMessageExtra(update->token, update->document, update->localVersion);
    update->latestVersion = latest.empty() ? update->localVersion : latest;
    {
      std::lock_guard<std::mutex> list(m_lockUpdatesList);
      m_listUpdates.push_back(std::move(update));
    }
    m_pPullThread->QueueManager()->AddEntry(kPullUpdate, kPriorityUpdate);
    return TDC_HRESULT_OK;
  });
}

int TetherdocServer::UnSubscribeUpdateNotification(const char* token, const char* cDocID,
                                                   const char* cVersionID) {
  return Guarded(TDC_HRESULT_FAILED, [&]() -> int {
    if (!token || !cDocID || !cVersionID) return TDC_HRESULT_FAILED;
    if (m_pLog)
      m_pLog->Write(
          "UnSubscribeUpdateNotification lpcsUserToken:%s, lpcsDocID:%s, lpcsVersionID:%s", token,
          cDocID, cVersionID);
    return RemoveFirstUpdate([&](const UpdateSubscription& update) {
      return update.token == token && update.document == cDocID &&
             update.localVersion == cVersionID;
    });
  });
}

int TetherdocServer::UnSubscribeUpdateNotification(const char* token) {
  return Guarded(TDC_HRESULT_FAILED, [&]() -> int {
    if (!token) return TDC_HRESULT_FAILED;
    if (m_pLog) m_pLog->Write("UnSubscribeUpdateNotification lpcsUserToken:%s", token);
    return RemoveFirstUpdate(
        [&](const UpdateSubscription& update) { return update.token == token; });
  });
}

int TetherdocServer::RemoveFirstUpdate(
    const std::function<bool(const UpdateSubscription&)>& matches) {
  std::lock_guard<std::recursive_mutex> lock(m_lockUpdates);
  std::unique_ptr<UpdateSubscription> removed;
  bool last = false;
  {
    std::lock_guard<std::mutex> list(m_lockUpdatesList);
    for (auto it = m_listUpdates.begin(); it != m_listUpdates.end(); ++it) {
      if (!matches(**it)) continue;
      removed = std::move(*it);
      m_listUpdates.erase(it);
      last = m_listUpdates.empty();
      break;
    }
  }
  if (!removed) return TDC_HRESULT_FAILED;
  // The last update subscription takes its queue entry with it.
  if (last) m_pPullThread->QueueManager()->RemoveEntry(kPullUpdate);
  return TDC_HRESULT_OK;
}

std::vector<UpdateSubscription> TetherdocServer::SubscribedUpdates() {
  std::lock_guard<std::mutex> list(m_lockUpdatesList);
  std::vector<UpdateSubscription> copy;
  copy.reserve(m_listUpdates.size());
  for (const auto& update : m_listUpdates) copy.push_back(*update);
  return copy;
}

std::string TetherdocServer::GetLatestUpdateNotificationMessageExtra(const std::string& token,
                                                                     const std::string& document,
                                                                     const std::string& version) {
  if (m_pLog)
    m_pLog->Write("GetLatestUpdateNotificationMessageExtra token:%s,lpcsDocID:%s lpcsVersionID%s",
                  token.c_str(), document.c_str(), version.c_str());
  const TDC_MessageCallback onMessage = m_pfnMessage;
  const TDC_ErrorCallback onError = m_pfnError;
  void* const userData = m_pUserData;
  if (!onMessage || !onError) return std::string();

  std::u16string url = GetApiUrl(u"url", u"tdc_documents_version_notification");
  if (url.empty()) return std::string();
  if (!ReplaceFirst(url, u"${access-token}", Utf8ToUtf16(token))) return std::string();
  url += u"&" u"cDocID=" + Utf8ToUtf16(document) + u"&cVersionID=" + Utf8ToUtf16(version) +
         u"&latest=" u"1";

  Json::Value reply;
  const int result = RequestJson(reply, url, u"GET", std::string());
  const std::string domain = Utf16ToUtf8(m_wsDomain);
  if (result != TDC_HRESULT_OK) {
    const std::string text = token;
    if (IsEmptyJson(reply)) {
      // The frame reports HTTP failures as 3 or 4, never as 403: only the 3 is reached.
      onError(result == 403 ? TDC_HRESULT_FORBIDDEN : TDC_HRESULT_HTTP_ERROR, text.c_str(),
              domain.c_str(), userData);
    } else {
      ReplyRecord envelope;
      Json::Value data;
      ParseReplyEnvelope(envelope, data, reply);
      onError(envelope.ret, text.c_str(), domain.c_str(), userData);
    }
    return std::string();
  }

  const Json::Value data = reply.isObject() ? reply["data"] : Json::Value();
  if (!data.isArray()) return std::string();
  for (const Json::Value& element : data) {
    if (!element.isObject()) continue;
    Json::Value message = element;
    message["token"] = token;
    message["cDocID"] = document;
    message["cVersionIDLocal"] = version;
    std::string text = Json::FastWriter().write(message);
    PullMsgBuffer buffer{text.data(), static_cast<int32_t>(text.size())};
    onMessage(kCodeUpdateNotification, &buffer, domain.c_str(), userData);
    return JsonText(message["cVersionID"]);
  }
  return std::string();
}

// ---- callbacks and the worker -------------------------------------------------------

int TetherdocServer::SetSubscribtionCallback(TDC_MessageCallback onMessage,
                                             TDC_ErrorCallback onError, void* userData) {
  return Guarded(TDC_HRESULT_FAILED, [&]() -> int {
    std::lock_guard<std::recursive_mutex> lock(m_lockCallback);
    m_pfnMessage = onMessage;
    m_pfnError = onError;
    m_pUserData = userData;
    return TDC_HRESULT_OK;
  });
}

int TetherdocServer::StartPolling() {
  return Guarded(TDC_HRESULT_FAILED, [&]() -> int {
    CPullMsgThread& worker = *m_pPullThread;
    if (worker.IsRunning()) return TDC_HRESULT_FAILED;
    worker.m_nPollInterval = m_nMinimumPollingTime.load();
    worker.m_nMaxNoResult = m_nMaxPollingNotResultCount.load();
    return worker.Start() ? TDC_HRESULT_OK : TDC_HRESULT_FAILED;
  });
}

int TetherdocServer::StopPolling() {
  return Guarded(TDC_HRESULT_FAILED, [&]() -> int {
    CPullMsgThread& worker = *m_pPullThread;
    if (!worker.IsRunning()) return TDC_HRESULT_FAILED;
    return worker.Stop() == 0 ? TDC_HRESULT_FAILED : TDC_HRESULT_OK;
  });
}

int TetherdocServer::stopThread() {
  return Guarded(TDC_HRESULT_OK, [&]() -> int {
    if (m_pPullThread && m_pPullThread->IsRunning()) m_pPullThread->Stop();
    return TDC_HRESULT_OK;
  });
}

}  // namespace tpcsdk
