// Delivery of polled messages to the host: the acknowledgement, the template cache,
// the message's URL, and the JSON each type hands to the message callback.
#include <cstdint>
#include <string>
#include <vector>

#include <json/json.h>

#include "operations/op_support.h"
#include "platform/diagnostic_log.h"
#include "polling/pull_msg_queue.h"
#include "polling/pull_msg_record.h"
#include "polling/pull_msg_thread.h"
#include "support/utf.h"
#include "tpcsdk/tpcsdk.h"
#include "web_service/tetherdoc_server.h"

namespace tpcsdk {
namespace {

using ops::IsEmptyJson;
using ops::JsonText;
using ops::Member;

// The acknowledgement's msgType of each acknowledged type.
constexpr int32_t kAckUserMessage = 1;
constexpr int32_t kAckAppMessage = 2;
constexpr int32_t kAckRequestFile = 3;
constexpr int32_t kAckHomepage = 4;
constexpr int32_t kAckShareView = 5;

// Where the host opens a message: the stored message URL, the message's id, the
// token and what the type adds.
std::string MessageUrl(TetherdocServer& server, int32_t type, const std::string& token,
                       const std::string& id) {
  std::string url = Utf16ToUtf8(server.GetApiUrl(u"url", u"tdc_message_url")) + id +
                    "&access-token=" + token;
  switch (type) {
    case kPullUserMessage:
      url += "&" + Utf16ToUtf8(server.BuildClientQuery());
      break;
    case kPullRequestFile:
      url += "&mType=requestfile&" + Utf16ToUtf8(server.BuildClientQuery());
      break;
    case kPullHomepage:
      url += "&mType=homepage";
      break;
    case kPullShareView:
      url += "&mType=shareview";
      break;
    default:
      break;
  }
  return url;
}

}  // namespace

// ---- acknowledgement and templates --------------------------------------------------

int TetherdocServer::UpdateMessage(const std::string& lpsUserToken, int32_t msgType,
                                   const std::string& lpsDataBaseID) {
  // The line has always shown the token's address as a number, not its text.
  if (m_pLog)
    m_pLog->Write("UpdateMessage lpsUserToken:%d, msgType:%d, lpsDataBaseID:%s",
                  static_cast<int>(reinterpret_cast<uintptr_t>(lpsUserToken.c_str())), msgType,
                  lpsDataBaseID.c_str());
  std::u16string url = GetApiUrl(u"url", u"tdc_messages");
  if (!url.empty() && !ReplaceFirst(url, u"${access-token}", Utf8ToUtf16(lpsUserToken)))
    return TDC_HRESULT_FAILED;
  if (lpsDataBaseID.empty()) return TDC_HRESULT_FAILED;
  Json::Value body(Json::objectValue);
  body["id"] = lpsDataBaseID;
  body["msgType"] = msgType;
  body["isDelivery"] = 1;
  Json::Value reply;
  return RequestJson(reply, url, u"PUT", ops::CompactJson(body));
}

int TetherdocServer::Internet_InitMessageTemplate(const std::string& token, const std::string& id) {
  if (m_pLog) m_pLog->Write("Internet_InitMessageTemplate");
  std::u16string url = GetApiUrl(u"url", u"tdc_messages_template");
  if (url.empty()) return TDC_HRESULT_FAILED;
  if (!ReplaceFirst(url, u"${access-token}", Utf8ToUtf16(token))) return TDC_HRESULT_FAILED;
  if (!id.empty()) url += u"&id=" + Utf8ToUtf16(id);
  Json::Value reply;
  const int result = RequestJson(reply, url, u"GET", std::string());
  if (result != TDC_HRESULT_OK) return result;
  const Json::Value& data = Member(reply, "data");
  if (!data.isArray()) return TDC_HRESULT_OK;
  for (const Json::Value& element : data)
    if (element.isObject()) SetMessageTemplate(JsonText(Member(element, "_id")), element);
  return TDC_HRESULT_OK;
}

Json::Value TetherdocServer::GetMessageTemplate(const std::string& id) {
  std::lock_guard<std::recursive_mutex> lock(m_lockTemplates);
  const auto it = m_mapTemplates.find(id);
  return it == m_mapTemplates.end() ? Json::Value() : it->second;
}

void TetherdocServer::SetMessageTemplate(const std::string& id, const Json::Value& value) {
  std::lock_guard<std::recursive_mutex> lock(m_lockTemplates);
  m_mapTemplates[id] = value;
}

// ---- delivery -----------------------------------------------------------------------

void TetherdocServer::DeliverMessage(int32_t code, const Json::Value& message) {
  const std::string text = ops::CompactJson(message);
  // The host's copy, alive for the call only.
  std::vector<char> block(text.begin(), text.end());
  block.push_back('\0');
  PullMsgBuffer buffer{block.data(), static_cast<int32_t>(text.size())};
  const std::string domain = Utf16ToUtf8(m_wsDomain);
  if (m_pLog) m_pLog->Write("CallBackFuncMessager!");
  const Callbacks callbacks = CurrentCallbacks();
  if (callbacks.onMessage) callbacks.onMessage(code, &buffer, domain.c_str(), callbacks.userData);
  m_pPullThread->m_nNoResultCount = 0;
}

void TetherdocServer::DeliverAcknowledged(const PullMsgRecord& record, int32_t msgType,
                                          int32_t code) {
  const Json::Value& data = record.data;
  if (!data.isArray()) return;
  for (Json::ArrayIndex i = 0; i < data.size(); ++i) {
    const Json::Value& object = data[i];
    if (!object.isObject()) continue;
    const std::string id = JsonText(Member(object, "_id"));
    const std::string templateId = JsonText(Member(object, "messageTemplateId"));
    // After a stop nothing more is acknowledged; the rest stays with the service for
    // a later round.
    if (RoundStopped()) return;
    // No delivery without acknowledgement.
    if (UpdateMessage(record.token, msgType, id) != TDC_HRESULT_OK) continue;
    Json::Value message = object;
    if (record.nType != kPullAppMessage) {
      Json::Value found = GetMessageTemplate(templateId);
      // An unknown template fetches them all. The message is acknowledged already, so
      // when the fetch fails it goes out without its template rather than not at all.
      if (IsEmptyJson(found) &&
          Internet_InitMessageTemplate(record.token, std::string()) == TDC_HRESULT_OK)
        found = GetMessageTemplate(templateId);
      message["url"] = MessageUrl(*this, record.nType, record.token, id);
      message["templateInfo"] = found;
    }
    DeliverMessage(code, message);
  }
}

void TetherdocServer::DeliverCommonMessages(const PullMsgRecord& record) {
  DeliverAcknowledged(record, record.nType == kPullAppMessage ? kAckAppMessage : kAckUserMessage,
                      TDC_MSG_USER);
}

void TetherdocServer::DeliverRequestFileMessages(const PullMsgRecord& record) {
  DeliverAcknowledged(record, kAckRequestFile, TDC_MSG_APP);
}

void TetherdocServer::DeliverHomepageMessages(const PullMsgRecord& record) {
  DeliverAcknowledged(record, kAckHomepage, TDC_MSG_1005);
}

void TetherdocServer::DeliverShareViewMessages(const PullMsgRecord& record) {
  DeliverAcknowledged(record, kAckShareView, TDC_MSG_1006);
}

void TetherdocServer::DeliverUpdateMessages(const PullMsgRecord& record) {
  const Json::Value& data = record.data;
  if (!data.isArray()) return;
  for (Json::ArrayIndex i = 0; i < data.size(); ++i) {
    const Json::Value& object = data[i];
    if (!object.isObject()) continue;
    if (i == 0) {
      // The first object carries the version that the subscription polls from now on,
      // so that each version is reported once. Only the list's own lock, which is
      // never held across a request: a subscription's look-up in flight does not hold
      // up the round.
      bool subscribed = false;
      {
        std::lock_guard<std::mutex> list(m_lockUpdatesList);
        for (const auto& update : m_listUpdates) {
          if (update->token != record.token || update->document != record.cDocID ||
              update->localVersion != record.cLocalVersionId)
            continue;
          update->latestVersion = JsonText(Member(object, "cVersionID"));
          subscribed = true;
          break;
        }
      }
      if (!subscribed) continue;
    }
    Json::Value message = object;
    message["token"] = record.token;
    message["cDocID"] = record.cDocID;
    // Delivered as cVersionIDLocal, polled as cLocalVersionId.
    message["cVersionIDLocal"] = record.cLocalVersionId;
    DeliverMessage(TDC_MSG_UPDATE_NOTIFICATION, message);
  }
}

void TetherdocServer::DeliverUntreatedNotify(const PullMsgRecord& record) {
  // The count comes as an object; any other shape is not a count and is not delivered.
  if (!record.data.isObject()) return;
  Json::Value message = record.data;
  // Reading the count adds it as null where the service left it out.
  (void)ops::JsonInt(message["untreatedNotify"]);
  DeliverMessage(TDC_MSG_UNTREATED_NOTIFY, message);
}

}  // namespace tpcsdk
