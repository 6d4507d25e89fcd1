// Who the user is: look-ups by token or id, online state, device registration, CAS
// tickets, and the exchange of another identity provider's token.
#include <string>

#include "operations/op_support.h"
#include "operations/records.h"
#include "platform/diagnostic_log.h"
#include "support/guard.h"
#include "support/out_buffer.h"
#include "support/percent_encode.h"
#include "support/utf.h"
#include "tpcsdk/tpcsdk.h"
#include "web_service/tetherdoc_server.h"

#ifndef TPCSDK_APP_SECRET
#define TPCSDK_APP_SECRET "XXXXXXXX"
#endif

namespace tpcsdk {
namespace {

using ops::CompactJson;
using ops::FirstRecord;
using ops::GiveText;
using ops::JsonInt;
using ops::JsonText;

static_assert(sizeof(TPCSDK_APP_SECRET) == 9, "the application secret has 8 characters");

constexpr char16_t kThirdUserPath[] = u"/tdocapi/v2/users/third-user";
constexpr char16_t kThirdUserInfoPath[] = u"/tdocapi/v2/users/third-user-info";
constexpr char16_t kAgreementPath[] = u"/tdocapi/v2/server/agreement?type=1";
constexpr int32_t kThirdUserSuccess = 100000;

// The body of the third-user exchange.
std::string ThirdUserBody(TDC_LPCWSTR thirdToken) {
  Json::Value body(Json::objectValue);
  body["thirdToken"] = ops::WideJson(thirdToken);
  body["appSecret"] = TPCSDK_APP_SECRET;
  body["appName"] = "tarvoCN";
  body["type"] = 1;
  return CompactJson(body);
}

}  // namespace

int TetherdocServer::FetchUser(UserRecord& record) {
  std::u16string url = GetApiUrl(u"url", u"tdc_users");
  if (url.empty()) return TDC_HRESULT_FAILED;
  // An id wins over a token; neither is escaped.
  if (!record.cUserID.empty()) {
    url += u"?cUserID=" + Utf8ToUtf16(record.cUserID);
  } else if (!record.queryToken.empty()) {
    url += u"?access-token=" + Utf8ToUtf16(record.queryToken);
  } else {
    return TDC_HRESULT_FAILED;
  }
  Json::Value reply;
  if (RequestJson(reply, url, u"GET", std::string()) != TDC_HRESULT_OK) return TDC_HRESULT_FAILED;
  return ParseUserRecord(record, reply) ? TDC_HRESULT_OK : TDC_HRESULT_FAILED;
}

int TetherdocServer::CheckUserToken(const char* token, int32_t* valid) {
  return Guarded(TDC_HRESULT_FAILED, [&]() -> int {
    if (!token) return TDC_HRESULT_FAILED;
    // Without a user look-up in the directory the answer is "no URL", not a failure.
    if (GetApiUrl(u"url", u"tdc_users").empty()) return TDC_HRESULT_NO_URL;
    UserRecord record;
    record.queryToken = token;
    const int result = FetchUser(record);
    if (result != TDC_HRESULT_OK) return result;
    if (valid) *valid = (record.userEmail.empty() && record.userMobile.empty()) ? 0 : 1;
    return TDC_HRESULT_OK;
  });
}

int TetherdocServer::GetEmail(const char* token, char** email) {
  return Guarded(TDC_HRESULT_FAILED, [&]() -> int {
    if (!token || !email) return TDC_HRESULT_FAILED;
    UserRecord record;
    record.queryToken = token;
    const int result = FetchUser(record);
    if (result != TDC_HRESULT_OK) return result;
    return GiveText(email, record.userEmail) ? TDC_HRESULT_OK : TDC_HRESULT_FAILED;
  });
}

int TetherdocServer::isUserOnLine(const char* email, int32_t* online) {
  return Guarded(TDC_HRESULT_FAILED, [&]() -> int {
    if (!email || !online) return TDC_HRESULT_FAILED;
    if (m_pLog) m_pLog->Write("isUserOnLine lpcsEmail:%s", email);
    std::u16string url = ResolveTokenUrl(u"tdc_users_online_state");
    *online = 0;
    if (url.empty()) return TDC_HRESULT_FAILED;
    // The stored URL already holds a query; the e-mail goes in unescaped.
    url += u"&userEmail=" + Utf8ToUtf16(email);
    Json::Value reply;
    const int result = RequestJson(reply, url, u"GET", std::string());
    if (result != TDC_HRESULT_OK) return result;
    const Json::Value* state = FirstRecord(ops::Member(reply, "data"));
    if (!state) return TDC_HRESULT_FAILED;
    if (JsonInt(ops::Member(*state, "cState")) == 1) *online = 1;
    return TDC_HRESULT_OK;
  });
}

int TetherdocServer::GetUserDeviceInfo(const TDC_DEVICE_INFO* info, char** reply) {
  return Guarded(TDC_HRESULT_FAILED, [&]() -> int {
    if (!info || !reply) return TDC_HRESULT_FAILED;
    const std::pair<const char*, TDC_LPCWSTR> fields[] = {
        {"type", info->type},
        {"mobileDeviceId", info->mobileDeviceId},
        {"deviceName", info->deviceName},
        {"deviceModel", info->deviceModel},
        {"mac", info->mac},
        {"os", info->os},
        {"productName", info->productName},
        {"productVendor", info->productVendor},
        {"productVersion", info->productVersion},
        {"productLanguage", info->productLanguage},
    };
    Json::Value body(Json::objectValue);
    for (const auto& field : fields) {
      if (!field.second) return TDC_HRESULT_FAILED;
      body[field.first] = ops::WideJson(field.second);
    }
    const std::u16string url = GetApiUrl(u"url", u"tdc_server_client_id");
    if (url.empty()) return TDC_HRESULT_FAILED;
    Json::Value answer;
    const int result = RequestJson(answer, url, u"POST", CompactJson(body));
    if (result != TDC_HRESULT_OK) return result;
    const Json::Value& data = ops::Member(answer, "data");
    if (!data.isArray()) return TDC_HRESULT_FAILED;
    // An empty array hands out "null".
    return GiveText(reply, CompactJson(data[0u])) ? TDC_HRESULT_OK : TDC_HRESULT_FAILED;
  });
}

int TetherdocServer::GetCasTicket(const char* first, const char* second, const char* third,
                                  char** ticket) {
  return Guarded(TDC_HRESULT_FAILED, [&]() -> int {
    const std::u16string format = GetApiUrl(u"url", u"tdc_cas_ticket_by_email");
    if (format.empty() || !first || !second || !third || !ticket) return TDC_HRESULT_FAILED;
    // Only the third value is escaped; the stored URL takes second, third, first.
    const std::u16string url =
        ops::FormatUrl(format, {Utf8ToUtf16(second), Utf8ToUtf16(PercentEncode(third)),
                                Utf8ToUtf16(first)});
    Json::Value reply;
    if (RequestJson(reply, url, u"GET", std::string()) != TDC_HRESULT_OK)
      return TDC_HRESULT_FAILED;
    const Json::Value& value = ops::Member(ops::Member(reply, "data"), "ticket");
    const Json::Value& st = ops::Member(value, "st");
    std::string text;
    if (value.isString()) {
      text = value.asString();
    } else if (st.isString()) {
      text = st.asString();
    }
    return GiveText(ticket, text) ? TDC_HRESULT_OK : TDC_HRESULT_FAILED;
  });
}

int TetherdocServer::GetThirdUser(const char* baseUrl, TDC_LPCWSTR thirdToken, char** reply,
                                  int32_t* done) {
  return Guarded(TDC_HRESULT_FAILED, [&]() -> int {
    if (!baseUrl || !thirdToken || !reply || !done) return TDC_HRESULT_FAILED;
    Json::Value answer;
    const int result =
        RequestJson(answer, Utf8ToUtf16(baseUrl) + kThirdUserPath, u"POST", ThirdUserBody(thirdToken));
    *done = 0;
    // This service tells its outcome in "code"; a reply without "ret" passes the frame.
    if (result != TDC_HRESULT_OK || JsonInt(ops::Member(answer, "code")) != kThirdUserSuccess)
      return TDC_HRESULT_FAILED;
    if (!GiveText(reply, CompactJson(ops::Member(answer, "data")))) return TDC_HRESULT_FAILED;
    *done = 1;
    return TDC_HRESULT_OK;
  });
}

// These two hand the whole reply out and answer -2 even then: the filled buffer, not
// the result, tells the caller that the exchange worked.
int TetherdocServer::GetThirdUserInfo(const char* baseUrl, TDC_LPCWSTR thirdToken, char** reply) {
  return Guarded(TDC_HRESULT_FAILED, [&]() -> int {
    if (!baseUrl || !thirdToken || !reply) return TDC_HRESULT_FAILED;
    Json::Value answer;
    if (RequestJson(answer, Utf8ToUtf16(baseUrl) + kThirdUserInfoPath, u"POST",
                    ThirdUserBody(thirdToken)) == TDC_HRESULT_OK)
      GiveText(reply, CompactJson(answer));
    return TDC_HRESULT_FAILED;
  });
}

int TetherdocServer::GetAgreement(const char* baseUrl, char** reply) {
  return Guarded(TDC_HRESULT_FAILED, [&]() -> int {
    if (!baseUrl || !reply) return TDC_HRESULT_FAILED;
    Json::Value answer;
    if (RequestJson(answer, Utf8ToUtf16(baseUrl) + kAgreementPath, u"GET", std::string()) ==
        TDC_HRESULT_OK)
      GiveText(reply, CompactJson(answer));
    return TDC_HRESULT_FAILED;
  });
}

}  // namespace tpcsdk
