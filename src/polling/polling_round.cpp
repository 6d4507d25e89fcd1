// The polling round: the service's polling configuration, the round's request and
// reply, the interval that control elements set, and the round's error callback.
#include <string>

#include <json/json.h>

#include "http_transport/async_winhttp.h"
#include "operations/op_support.h"
#include "platform/diagnostic_log.h"
#include "polling/pull_msg_queue.h"
#include "polling/pull_msg_record.h"
#include "polling/pull_msg_thread.h"
#include "support/guard.h"
#include "support/utf.h"
#include "tpcsdk/tpcsdk.h"
#include "web_service/tetherdoc_server.h"

namespace tpcsdk {
namespace {

using ops::IsEmptyJson;
using ops::JsonInt;
using ops::JsonText;
using ops::Member;

constexpr int32_t kTokenInvalid = 210007;

}  // namespace

// ---- configuration -----------------------------------------------------------------

int TetherdocServer::GetPollingConfig(const std::string& token) {
  if (m_pLog) m_pLog->Write("GetPollingConfig, strToken:%s", token.c_str());
  std::u16string url = GetApiUrl(u"url", u"tdc_messages_polling_config");
  if (url.empty()) {
    if (m_pLog) m_pLog->Write("GetPollingConfig, url is empty!");
    return TDC_HRESULT_FAILED;
  }
  url += u"?" u"appType=" + Utf8ToUtf16(std::to_string(m_nAppType.load()));
  if (!token.empty()) url += u"&" u"access-token=" + Utf8ToUtf16(token);

  Json::Value reply;
  const int result = RequestJson(reply, url, u"GET", std::string());
  if (result != TDC_HRESULT_OK) return result;
  const Json::Value& data = Member(reply, "data");
  if (!data.isArray() || data.empty()) return TDC_HRESULT_FAILED;
  const Json::Value& minimum = Member(data[0u], "minimumPollingTime");
  const Json::Value& limit = Member(data[0u], "maxPollingNotResultCount");
  if (IsEmptyJson(minimum) || IsEmptyJson(limit)) return TDC_HRESULT_OK;
  // A value that is no 32-bit number is refused as a whole, before anything changes.
  if (!minimum.isConvertibleTo(Json::intValue) || !limit.isConvertibleTo(Json::intValue))
    return TDC_HRESULT_FAILED;
  if (minimum.asInt() > 0) m_nMinimumPollingTime = minimum.asInt();
  m_nMaxPollingNotResultCount = limit.asInt();
  return TDC_HRESULT_OK;
}

int TetherdocServer::Internet_SetPollingConfig(const char* token, int32_t appType) {
  return Guarded(TDC_HRESULT_FAILED, [&]() -> int {
    if (!token) return TDC_HRESULT_FAILED;
    if (m_pLog) m_pLog->Write("Internet_SetPollingConfig, strToken:%s. iAppType:%d!", token, appType);
    m_nAppType = appType;  // kept whatever the service answers
    if (GetPollingConfig(token) != TDC_HRESULT_OK) return TDC_HRESULT_FAILED;
    CPullMsgThread& worker = *m_pPullThread;
    // An interval the server set wins over the configuration, limit included.
    if (worker.m_bServerInterval) return TDC_HRESULT_OK;
    worker.m_nPollInterval = m_nMinimumPollingTime.load();
    worker.m_nMaxNoResult = m_nMaxPollingNotResultCount.load();
    worker.m_nNoResultCount = 0;
    return TDC_HRESULT_OK;
  });
}

void TetherdocServer::ApplyNextPollingTime(CPullMsgThread& worker, int32_t seconds) {
  if (seconds > 0) {
    // The server's value wins, also below the configured minimum, until it sends 0.
    worker.m_nPollInterval = seconds;
    worker.m_bServerInterval = 1;
  } else if (seconds == 0 && worker.m_bServerInterval) {
    worker.m_nPollInterval = m_nMinimumPollingTime.load();
    worker.m_bServerInterval = 0;
  }
}

// ---- the round -----------------------------------------------------------------------

TetherdocServer::Callbacks TetherdocServer::CurrentCallbacks() {
  std::lock_guard<std::recursive_mutex> lock(m_lockCallback);
  return Callbacks{m_pfnMessage.load(), m_pfnError.load(), m_pUserData.load()};
}

bool TetherdocServer::RoundStopped() { return !m_pPullThread || !m_pPullThread->IsRunning(); }

void TetherdocServer::StopPollingRound() {
  std::lock_guard<std::recursive_mutex> lock(m_lockRequests);
  if (m_roundThread == std::thread::id()) return;
  // As StopRequest does, for the round's requests only: the worker wakes in its
  // request and leaves through EndRequest, which deletes the object.
  for (auto it = m_requests.begin(); it != m_requests.end();) {
    if ((*it)->Owner() != m_roundThread) {
      ++it;
      continue;
    }
    (*it)->CloseRequest();
    it = m_requests.erase(it);
  }
}

bool TetherdocServer::DecodePollingElement(PullMsgRecord& record, const Json::Value& element,
                                           CPullMsgThread* worker) {
  if (!worker) return false;
  const bool message = ReadPollingElement(record, element);
  if (record.control) ApplyNextPollingTime(*worker, record.nextPollingTime);
  return message;
}

void TetherdocServer::Internet_Polling(const char* lpcsParameterList) {
  const std::string list = lpcsParameterList ? lpcsParameterList : "";
  if (m_pLog) m_pLog->Write("Internet_Polling, lpcsParameterList:%s", list.c_str());
  const Callbacks registered = CurrentCallbacks();
  if (!registered.onMessage || !registered.onError) {
    if (m_pLog) m_pLog->Write("Internet_Polling, call back fun is null");
    return;
  }
  const std::u16string url = GetApiUrl(u"url", u"tdc_messages_polling");
  if (url.empty()) {
    if (m_pLog) m_pLog->Write("Internet_Polling, url is not found");
    return;
  }
  Json::Value parameters;
  if (!Json::Reader().parse(list, parameters)) {
    if (m_pLog) m_pLog->Write("Internet_Polling, lpcsParameterList parse error!");
    return;
  }
  Json::Value body(Json::objectValue);
  body["parameterList"] = parameters;

  // Until the round ends, this thread's requests are the round's, for StopPollingRound.
  // A stop lowers the worker's running flag before it takes this lock to look.
  {
    std::lock_guard<std::recursive_mutex> lock(m_lockRequests);
    if (RoundStopped()) return;
    m_roundThread = std::this_thread::get_id();
  }
  struct RoundEnd {
    TetherdocServer& self;
    ~RoundEnd() {
      std::lock_guard<std::recursive_mutex> lock(self.m_lockRequests);
      self.m_roundThread = std::thread::id();
    }
  } roundEnd{*this};

  Json::Value reply;
  const int result = RequestJson(reply, url, u"POST", ops::CompactJson(body));
  const std::string domain = Utf16ToUtf8(m_wsDomain);
  const Json::Value& data = Member(reply, "data");
  if (result != TDC_HRESULT_OK || JsonInt(Member(reply, "returned")) == 0 || !data.isArray()) {
    // The frame's result is compared with 403, which the frame never gives (an HTTP
    // 403 is its 4): a refused round reaches the host as 3. A round that a stop ended
    // is not reported.
    const Callbacks callbacks = CurrentCallbacks();
    if (callbacks.onError && !RoundStopped())
      callbacks.onError(result == 403 ? TDC_HRESULT_FORBIDDEN : TDC_HRESULT_HTTP_ERROR, "",
                        domain.c_str(), callbacks.userData);
    return;
  }

  for (Json::ArrayIndex i = 0; i < data.size() && !RoundStopped(); ++i) {
    PullMsgRecord record;
    if (!DecodePollingElement(record, data[i], m_pPullThread.get())) continue;
    if (record.messageCode != 0) {
      if (record.messageCode == kTokenInvalid) {
        // The service refused the token: it leaves the update subscriptions (the first
        // of them) and the users.
        UnSubscribeUpdateNotification(record.token.c_str());
        static_cast<ITetherdocServer*>(this)->UnSubscribeUser(record.token.c_str());
      }
      if (m_pLog) m_pLog->Write("CallBackErrorFuncMessager!");
      const Callbacks callbacks = CurrentCallbacks();
      if (callbacks.onError)
        callbacks.onError(record.messageCode, record.token.c_str(), domain.c_str(),
                          callbacks.userData);
      continue;
    }
    if (IsEmptyJson(record.data)) continue;
    switch (record.nType) {
      case kPullUpdate:
        DeliverUpdateMessages(record);
        break;
      case kPullUserMessage:
      case kPullAppMessage:
        DeliverCommonMessages(record);
        break;
      case kPullRequestFile:
        DeliverRequestFileMessages(record);
        break;
      case kPullHomepage:
        DeliverHomepageMessages(record);
        break;
      case kPullShareView:
        DeliverShareViewMessages(record);
        break;
      case kPullUntreatedNotify:
        DeliverUntreatedNotify(record);
        break;
      default:
        break;
    }
  }
}

}  // namespace tpcsdk
