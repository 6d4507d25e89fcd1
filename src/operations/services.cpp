// Usage records, server facts and the small one-shot services: mails, an image, the
// open-message query and the client language.
#include <string>

#include "operations/op_support.h"
#include "platform/diagnostic_log.h"
#include "support/guard.h"
#include "support/out_buffer.h"
#include "support/utf.h"
#include "tpcsdk/tpcsdk.h"
#include "web_service/tetherdoc_server.h"

namespace tpcsdk {
namespace {

using ops::CompactJson;
using ops::GiveText;
using ops::IsEmptyText;
using ops::IsEmptyWide;
using ops::Member;
using ops::Utf8Arg;
using ops::WideJson;

// The ret values of a rejected usage record.
constexpr std::initializer_list<int32_t> kUsageRejected = {110001, 110002, 110003, 110008};

// The operands of a usage record travel as a nested object when the caller's text is
// one; anything else (empty, broken, an array, a number) goes as an empty string.
Json::Value OperandsMember(TDC_LPCWSTR text) {
  Json::Value parsed;
  if (text && Json::Reader().parse(Utf8Arg(text), parsed) && parsed.isObject()) return parsed;
  return Json::Value("");
}

}  // namespace

int TetherdocServer::UpLoadUserLogger(const TDC_USER_LOG* log) {
  return Guarded(TDC_HRESULT_FAILED, [&]() -> int {
    const std::u16string url = UploadUrl("UpLoadUserLogger", u"tdc_documents_log");
    if (url.empty()) return TDC_HRESULT_FAILED;
    if (!log || !log->cAppID || !log->cDocID || !log->cVersionID || !log->startTime ||
        !log->operatorType || !log->operator_ || !log->docName)
      return TDC_HRESULT_FAILED;
    if (IsEmptyWide(log->cAppID) || IsEmptyWide(log->cDocID) || IsEmptyWide(log->cVersionID) ||
        IsEmptyWide(log->startTime) || IsEmptyWide(log->docName) ||
        IsEmptyWide(log->operatorType) || IsEmptyWide(log->operator_)) {
      if (m_pLog)
        m_pLog->Write(
            "UpLoadUserLogger. parameter is empty, cAppID:%s, cDocID:%s cVersionID:%s "
            "startTime:%s docName:%s operatorType:%s Operator:%s",
            Utf8Arg(log->cAppID).c_str(), Utf8Arg(log->cDocID).c_str(),
            Utf8Arg(log->cVersionID).c_str(), Utf8Arg(log->startTime).c_str(),
            Utf8Arg(log->docName).c_str(), Utf8Arg(log->operatorType).c_str(),
            Utf8Arg(log->operator_).c_str());
      return TDC_HRESULT_FORBIDDEN;
    }
    if (m_pLog) m_pLog->Write("UpLoadUserLogger url=%s", Utf16ToUtf8(url).c_str());
    ops::FlatRecord body;
    body.Text("cAppID", log->cAppID);
    body.Text("cDocID", log->cDocID);
    body.Text("cVersionID", log->cVersionID);
    body.Text("cUserID", log->cUserID);
    body.Text("startTime", log->startTime);
    body.Text("operatorType", log->operatorType);
    body.Text("operator", log->operator_);
    body.Value("operands", OperandsMember(log->operands));
    body.Text("docName", log->docName);
    body.Text("docPath", log->docPath);
    body.Text("docURI", log->docURI);
    body.Text("reviewSessionID", log->reviewSessionID);
    body.Number("isCreview", static_cast<int64_t>(log->isCreview));  // as given, not folded
    return PostRecord(url, body, kUsageRejected, false);
  });
}

std::string TetherdocServer::GetServerTime() {
  return Guarded(std::string(), [&]() -> std::string {
    const std::u16string url = GetApiUrl(u"url", u"tdc_server_time");
    if (url.empty()) return {};
    Json::Value reply;
    if (RequestJson(reply, url, u"GET", std::string()) != TDC_HRESULT_OK) return {};
    const Json::Value* fact = ops::FirstRecord(Member(reply, "data"));
    return fact ? ops::JsonText(Member(*fact, "time")) : std::string();
  });
}

int TetherdocServer::GetServerOptionConfig(char** config) {
  return Guarded(TDC_HRESULT_FAILED, [&]() -> int {
    if (!config) return TDC_HRESULT_FAILED;
    const std::u16string url = GetApiUrl(u"url", u"tdc_server_option_config");
    if (url.empty()) return TDC_HRESULT_FAILED;
    Json::Value reply;
    const int result = RequestJson(reply, url, u"GET", std::string());
    if (result != TDC_HRESULT_OK) return result;
    // Whatever data is, a missing one included ("null").
    const std::string text = CompactJson(Member(reply, "data"));
    if (text.empty()) return TDC_HRESULT_FAILED;
    return GiveText(config, text) ? TDC_HRESULT_OK : TDC_HRESULT_FAILED;
  });
}

int TetherdocServer::UpdateNotificationSendEmail(const char* token, const char* cVersionID,
                                                 const char* cOwnerEmail) {
  return Guarded(TDC_HRESULT_FAILED, [&]() -> int {
    if (!token || !cVersionID || !cOwnerEmail) return TDC_HRESULT_FAILED;
    std::u16string url = GetApiUrl(u"url", u"tdc_server_send_email");
    if (url.empty()) return TDC_HRESULT_FAILED;
    url += u"?access-token=" + Utf8ToUtf16(token);
    if (!*cVersionID || !*cOwnerEmail) return TDC_HRESULT_FAILED;
    Json::Value body(Json::objectValue);
    body["cVersionID"] = cVersionID;
    body["cOwnerEmail"] = cOwnerEmail;
    Json::Value reply;
    return RequestJson(reply, url, u"POST", CompactJson(body));
  });
}

int TetherdocServer::SendEmailNotification(const char* token, TDC_LPCWSTR subject,
                                           TDC_LPCWSTR content, TDC_LPCWSTR sender,
                                           TDC_LPCWSTR receiver) {
  return Guarded(TDC_HRESULT_FAILED, [&]() -> int {
    if (!token || !subject || !content || !sender || !receiver) return TDC_HRESULT_FAILED;
    // The token and the content are logged in clear.
    if (m_pLog)
      m_pLog->Write(
          "SendEmailNotification, lpcwsUserToken:%s, lpcwsSubject:%s, lpcwContent:%s "
          "lpcwFromEmail:%s lpcwToEmail:%s",
          token, Utf8Arg(subject).c_str(), Utf8Arg(content).c_str(), Utf8Arg(sender).c_str(),
          Utf8Arg(receiver).c_str());
    const std::u16string format = GetApiUrl(u"url", u"tdc_email_notification");
    if (format.empty()) return TDC_HRESULT_FAILED;
    const std::u16string url = ops::FormatUrl(format, {Utf8ToUtf16(token)});
    if (IsEmptyWide(subject) || IsEmptyWide(content) || IsEmptyWide(sender) ||
        IsEmptyWide(receiver))
      return TDC_HRESULT_FAILED;
    Json::Value body(Json::objectValue);
    body["subject"] = WideJson(subject);
    body["content"] = WideJson(content);
    body["fromEmail"] = WideJson(sender);
    body["toEmail"] = WideJson(receiver);
    Json::Value reply;
    return RequestJson(reply, url, u"POST", CompactJson(body));
  });
}

int TetherdocServer::UploadImage(const char* token, const char* imageType, const char* content,
                                 char** reply) {
  return Guarded(TDC_HRESULT_FAILED, [&]() -> int {
    if (!token || !imageType || !content || !reply) return TDC_HRESULT_FAILED;
    if (m_pLog) m_pLog->Write("UploadImage: %s,", imageType);
    std::u16string url = GetApiUrl(u"url", u"tdc_upload_sign");
    if (url.empty() || !*token) return TDC_HRESULT_FAILED;
    url += u"?access-token=" + Utf8ToUtf16(token);
    if (!*imageType || !*content) return TDC_HRESULT_FAILED;
    Json::Value body(Json::objectValue);
    body["imageType"] = imageType;
    body["content"] = content;
    Json::Value answer;
    if (RequestJson(answer, url, u"POST", CompactJson(body)) != TDC_HRESULT_OK)
      return TDC_HRESULT_FAILED;
    const std::string text = ops::JsonText(Member(answer, "data"));
    if (text.empty()) return TDC_HRESULT_FAILED;
    return GiveText(reply, text) ? TDC_HRESULT_OK : TDC_HRESULT_FAILED;
  });
}

int TetherdocServer::GetOpenMessage(const char* second, const char* first, char** reply) {
  return Guarded(TDC_HRESULT_FAILED, [&]() -> int {
    if (!second || !first || !*first || !reply) return TDC_HRESULT_FAILED;
    std::u16string url = GetApiUrl(u"url", u"tdc_messages_open_message");
    if (url.empty()) return TDC_HRESULT_FAILED;
    // The argument that comes second in the call fills the first placeholder. Each
    // placeholder is looked for after the text already put in, so a value holding
    // "%s" itself is never taken for one.
    const std::u16string values[] = {Utf8ToUtf16(first), Utf8ToUtf16(second)};
    size_t from = 0;
    for (const std::u16string& value : values) {
      const size_t at = url.find(u"%s", from);
      if (at == std::u16string::npos) return TDC_HRESULT_FAILED;
      url.replace(at, 2, value);
      from = at + value.size();
    }
    Json::Value answer;
    const int result = RequestJson(answer, url, u"GET", std::string());
    if (result != TDC_HRESULT_OK) return result;
    const Json::Value& data = Member(answer, "data");
    if (!data.isArray()) return TDC_HRESULT_FAILED;
    return GiveText(reply, CompactJson(data[0u])) ? TDC_HRESULT_OK : TDC_HRESULT_FAILED;
  });
}

int TetherdocServer::SetClientLanguage(const char* language) {
  return Guarded(TDC_HRESULT_FAILED, [&]() -> int {
    if (!language) return TDC_HRESULT_FAILED;
    if (m_pLog) m_pLog->Write("SetClientLanguage, lpsClientLanguage:%s", language);
    if (!*language) {
      if (m_pLog) m_pLog->Write("SetClientLanguage fail, lpsClientLanguage is empty!");
      return TDC_HRESULT_FAILED;
    }
    SetLanguage(language);
    return TDC_HRESULT_OK;
  });
}

}  // namespace tpcsdk
