// TetherdocServer: one web-service client, bound to one service host. It loads the
// host's API directory and runs every service call through one request frame.
#pragma once
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include <json/json.h>

#include "tpcsdk/ITetherdocServer.h"

namespace tpcsdk {

class CAsyncWinHttp;
class DiagnosticLog;

// The envelope every service reply carries around its data.
struct ReplyRecord {
  int32_t ret = 0;
  std::string message;
  int32_t returned = 0;
};

// Reads ret, message and returned from root into record and copies data into dataOut
// (null first). Absent members read as 0 and the empty string.
void ParseReplyEnvelope(ReplyRecord& record, Json::Value& dataOut, const Json::Value& root);

// Replaces the first occurrence of pattern in text; false (text unchanged) when absent.
bool ReplaceFirst(std::u16string& text, std::u16string_view pattern,
                  std::u16string_view replacement);

class TetherdocServer final : public ITetherdocServer {
 public:
  // The identity texts as the host's client-information record gives them (UTF-8).
  TetherdocServer(const char* al, const char* an, const char* av);
  // Stops the calls in flight and waits until each has left the client.
  ~TetherdocServer();
  TetherdocServer(const TetherdocServer&) = delete;
  TetherdocServer& operator=(const TetherdocServer&) = delete;

  // Loads the API directory of host, from the disk cache when a fresh entry exists,
  // otherwise from the network. A result code; 0 leaves the client ready.
  int InitApi(const char16_t* host);
  // Frees every request in flight; blocked callers return with what they had. 1.
  int StopRequest();

  const std::u16string& Domain() const { return m_wsDomain; }
  const std::u16string& Host() const { return m_wsHost; }

  // ---- request frame (used by the operations) ----
  std::u16string GetApiUrl(std::u16string_view prefix, std::u16string_view key) const;
  void SetApiUrl(const std::u16string& fullKey, const std::u16string& url);
  void LoadApiTable(const std::u16string& prefix, const Json::Value& value);
  std::u16string ResolveTokenUrl(std::u16string_view key) const;
  // A copy of the access token, taken under the token lock.
  std::u16string AccessToken() const;
  std::u16string BuildClientQuery() const;
  std::u16string BuildUserAgent() const;
  std::u16string BuildRequestHeaders() const;
  CAsyncWinHttp* BeginRequest(const std::u16string& url, const std::u16string& method,
                              const std::string& body);
  int EndRequest(CAsyncWinHttp* request, std::u16string& responseBody,
                 std::u16string& responseExtra);
  int RequestJson(Json::Value& reply, const std::u16string& url, const std::u16string& method,
                  const std::string& body);
  size_t PendingRequests();
  // Waits, at most `bound` in all, until every request in flight has its HTTP status;
  // true when each has. Holds the request list meanwhile.
  bool WaitForPendingStatus(std::chrono::milliseconds bound);

  // ---- ITetherdocServer ----
  int GetWebServiceUrl(const char* key, TDC_LPWSTR* url) override;
  void GetDomain(TDC_LPWSTR* domain) override;
  void GetHost(TDC_LPWSTR* host) override;
  int CheckUserToken(const char* token, int32_t* valid) override;
  void GetAccessToken(char** token) override;
  int SetAccessToken(TDC_LPCWSTR token) override;
  int GetDocOwnerID(const char* cDocID, char** owner) override;
  int GetOwnerEmail(const void* unused, const char* cDocID, char** email, TDC_LPWSTR* name,
                    char** mobile) override;
  int DocumentRights8() override;
  int DocumentRights9() override;
  int GetUserDeviceInfo(const TDC_DEVICE_INFO* info, char** reply) override;
  int UpLoadTDOC(const TDC_TDOC_INFO* info) override;
  int DeleteDocVersion(const char* token, const char* cVersionID) override;
  int GetOpenMessage(const char* second, const char* first, char** reply) override;
  int UpLoadUserLogger(const TDC_USER_LOG* log) override;
  int UpdateNotificationSendEmail(const char* token, const char* cVersionID,
                                  const char* cOwnerEmail) override;
  int GetServerOptionConfig(char** config) override;
  int isUserOnLine(const char* email, int32_t* online) override;
  int DocumentRights18() override;
  int DocumentRights19() override;
  int DocumentRights20() override;
  int ModifyDocVersion(const char* token, const char* json) override;
  int DocumentRights22() override;
  int DocumentRights23() override;
  int DocumentRights24() override;
  int DocumentRights25() override;
  int DocumentRights26() override;
  int DocumentRights27() override;
  int UploadDocInfo(const TDC_DOC_INFO* info) override;
  int UploadVersionInfo(const TDC_VERSION_INFO* info) override;
  int GetEmail(const char* token, char** email) override;
  int SetClientLanguage(const char* language) override;
  int SubscribecAppID(const char* cAppID) override;
  int UnSubscribecAppID() override;
  int SubscribeUser(const char* token) override;
  int UnSubscribeUser(const char* token) override;
  int SetSubscribtionCallback(TDC_MessageCallback onMessage, TDC_ErrorCallback onError,
                              void* userData) override;
  int SubscribeUpdateNotification(const char* token, const char* cDocID,
                                  const char* cVersionID) override;
  int UnSubscribeUpdateNotification(const char* token, const char* cDocID,
                                    const char* cVersionID) override;
  int UploadImage(const char* token, const char* imageType, const char* content,
                  char** reply) override;
  int StartPolling() override;
  int StopPolling() override;
  int Internet_SetPollingConfig(const char* token, int32_t appType) override;
  int stopThread() override;
  int DocumentRights44() override;
  int SendEmailNotification(const char* token, TDC_LPCWSTR subject, TDC_LPCWSTR content,
                            TDC_LPCWSTR sender, TDC_LPCWSTR receiver) override;
  void UpdateWrapperDocuments() override;
  int DocumentRights47() override;
  int GetThirdUser(const char* baseUrl, TDC_LPCWSTR thirdToken, char** reply,
                   int32_t* done) override;
  int GetThirdUserInfo(const char* baseUrl, TDC_LPCWSTR thirdToken, char** reply) override;
  int GetAgreement(const char* baseUrl, char** reply) override;
  int GetCasTicket(const char* first, const char* second, const char* third,
                   char** ticket) override;
  void Destroy(unsigned int flags) override;

 private:
  std::map<std::u16string, std::u16string> m_mapApi;
  int32_t m_nApiReady = 0;
  std::u16string m_wsDomain;
  std::u16string m_wsHost;
  std::string m_al;
  std::string m_an;
  std::string m_av;
  std::string m_cv;
  std::list<CAsyncWinHttp*> m_requests;
  std::recursive_mutex m_lockRequests;
  bool m_bClosing = false;  // under m_lockRequests: the destructor has begun
  // Calls in flight (CallHold); the destructor waits for the count to reach 0.
  struct CallHold;
  std::mutex m_lockCalls;
  std::condition_variable m_callsEnded;
  int m_nCallsInFlight = 0;
  std::recursive_mutex m_lockInitApi;
  mutable std::recursive_mutex m_lockToken;
  std::u16string m_wsAccessToken;
  DiagnosticLog* m_pLog = nullptr;
};

}  // namespace tpcsdk
