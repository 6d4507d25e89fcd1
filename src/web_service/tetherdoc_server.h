// TetherdocServer: one web-service client, bound to one service host. It loads the
// host's API directory and runs every service call through one request frame.
#pragma once
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <atomic>
#include <functional>
#include <initializer_list>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <json/json.h>

#include "tpcsdk/ITetherdocServer.h"

namespace tpcsdk {

namespace ops {
class FlatRecord;
}
class CAsyncWinHttp;
class CPullMsgQueueManager;
class CPullMsgThread;
class DiagnosticLog;
struct PullMsgRecord;
struct UserRecord;
struct DocumentRecord;

// One subscription to a document's newer versions (UTF-8 texts).
struct UpdateSubscription {
  std::string token;
  std::string document;
  std::string localVersion;   // what the subscriber holds
  std::string latestVersion;  // the last version the service reported; polled as cVersionID
};

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
  // Points the client's log elsewhere (null: no log); for tools and tests.
  void SetLog(DiagnosticLog* log) { m_pLog = log; }
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
  // BuildRequestHeaders' text, built again only when the language has changed.
  std::u16string RequestHeaders() const;
  // The request headers for the given language.
  std::u16string HeadersFor(const std::string& language) const;
  CAsyncWinHttp* BeginRequest(const std::u16string& url, const std::u16string& method,
                              const std::string& body);
  int EndRequest(CAsyncWinHttp* request, std::u16string& responseBody,
                 std::u16string& responseExtra);
  // EndRequest for a caller that reads the body in UTF-8.
  int EndRequest(CAsyncWinHttp* request, std::string& responseBody);
  int RequestJson(Json::Value& reply, const std::u16string& url, const std::u16string& method,
                  const std::string& body);
  size_t PendingRequests();
  // Waits, at most `bound` in all, until every request in flight has its HTTP status;
  // true when each has. Holds the request list meanwhile.
  bool WaitForPendingStatus(std::chrono::milliseconds bound);

  // ---- helpers the operations share ----
  // The application language ("al"), which SetClientLanguage changes.
  std::string Language() const;
  void SetLanguage(std::string language);
  // The service's time as text; empty on any failure.
  std::string GetServerTime();
  // Looks a user up by record.cUserID, else by record.queryToken. 0 or -2.
  int FetchUser(UserRecord& record);
  // Looks a document up by record.cDocID. 0, -2, the frame's result, or the reply's ret.
  int FetchDocument(DocumentRecord& record);
  // POSTs body to url for one of the upload operations: 0, or the frame's result, or
  // 4 when the reply's ret is one of `rejected`. With forbiddenAtOnce a 403 is returned
  // without a look at the reply.
  // Logs the upload's name and gives its stored URL, logging "<name>. url is empty"
  // when there is none.
  std::u16string UploadUrl(const char* name, std::u16string_view key);
  int PostRecord(const std::u16string& url, const ops::FlatRecord& body,
                 std::initializer_list<int32_t> rejected, bool forbiddenAtOnce);

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

  // ---- polling (worker, queue, subscriptions) ----
  // Fetches the service's polling configuration for this client's application type
  // (token may be empty). 0, -2, or the frame's result; on failure nothing changes.
  int GetPollingConfig(const std::string& token);
  // One polling round with the worker's parameter list (a JSON array).
  void Internet_Polling(const char* lpcsParameterList);
  // Ends a polling round in progress by closing its requests. The worker calls it
  // when asked to stop; from then on the round acknowledges and reports nothing more.
  void StopPollingRound();
  // Turns one element of a polling reply into record; true when the record holds
  // something to act on. A control element sets the worker's interval instead.
  bool DecodePollingElement(PullMsgRecord& record, const Json::Value& element,
                            CPullMsgThread* worker);
  // Acknowledges one message to the service. 0, -2, or the frame's result.
  int UpdateMessage(const std::string& lpsUserToken, int32_t msgType,
                    const std::string& lpsDataBaseID);
  // Fetches the message templates (all of them when id is empty) into the cache.
  // 0, -2, or the frame's result.
  int Internet_InitMessageTemplate(const std::string& token, const std::string& id);
  // A copy of a cached template, or null.
  Json::Value GetMessageTemplate(const std::string& id);
  void SetMessageTemplate(const std::string& id, const Json::Value& value);
  // The deliveries of one decoded element, by type.
  void DeliverUpdateMessages(const PullMsgRecord& record);
  void DeliverCommonMessages(const PullMsgRecord& record);
  void DeliverRequestFileMessages(const PullMsgRecord& record);
  void DeliverHomepageMessages(const PullMsgRecord& record);
  void DeliverShareViewMessages(const PullMsgRecord& record);
  void DeliverUntreatedNotify(const PullMsgRecord& record);
  // Removes the first update subscription of the token. 0, or -2 when there is none.
  int UnSubscribeUpdateNotification(const char* token);
  // Asks the service once for the latest version of a document and hands it to the
  // message callback (code 1003); its cVersionID, or empty.
  std::string GetLatestUpdateNotificationMessageExtra(const std::string& token,
                                                      const std::string& document,
                                                      const std::string& version);
  // Copies of the subscriber lists, each taken under its own lock.
  std::vector<std::string> SubscribedUsers();
  std::string SubscribedAppID();
  std::vector<UpdateSubscription> SubscribedUpdates();
  CPullMsgThread* PollingWorker() { return m_pPullThread.get(); }

 private:
  std::map<std::u16string, std::u16string> m_mapApi;
  int32_t m_nApiReady = 0;
  std::u16string m_wsDomain;
  std::u16string m_wsHost;
  // EndRequest's steps; `take` copies what the caller wants out of the finished request.
  template <class Take>
  int FinishRequest(CAsyncWinHttp* request, Take&& take);
  std::string m_al;  // under m_lockLanguage
  mutable std::mutex m_lockLanguage;
  // The request headers as last built, for the language they were built with; under
  // m_lockLanguage.
  mutable std::u16string m_wsHeaders;
  mutable std::string m_headersLanguage;
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
  // The calls in flight, and kCallsClosing once the destructor waits for them.
  static constexpr uint32_t kCallsClosing = 0x80000000u;
  std::atomic<uint32_t> m_nCallsInFlight{0};
  std::recursive_mutex m_lockInitApi;
  mutable std::recursive_mutex m_lockToken;
  std::u16string m_wsAccessToken;
  DiagnosticLog* m_pLog = nullptr;

  // ---- polling ----
  // Lock order: at most one of these, then the queue's own lock. The builders of the
  // queue take m_lockPollParams and then, for their copies, the list locks.
  friend class CPullMsgQueueManager;
  // Removes the first update subscription that matches: 0, or -2 when none does.
  int RemoveFirstUpdate(const std::function<bool(const UpdateSubscription&)>& matches);
  // The host's callbacks, read together under the callback lock.
  struct Callbacks {
    TDC_MessageCallback onMessage = nullptr;
    TDC_ErrorCallback onError = nullptr;
    void* userData = nullptr;
  };
  Callbacks CurrentCallbacks();
  // Hands one message to the host as compact JSON with the given code.
  void DeliverMessage(int32_t code, const Json::Value& message);
  // The acknowledged deliveries (types 102 to 109) share one shape.
  void DeliverAcknowledged(const PullMsgRecord& record, int32_t msgType, int32_t code);
  // The interval rule of a control element's nextPollingTime.
  void ApplyNextPollingTime(CPullMsgThread& worker, int32_t seconds);
  // True once the worker has been asked to stop: its round goes no further.
  bool RoundStopped();
  std::recursive_mutex m_lockAppID;
  std::recursive_mutex m_lockUsers;
  std::recursive_mutex m_lockPollParams;
  std::recursive_mutex m_lockCallback;
  std::recursive_mutex m_lockUpdates;  // held across a subscription's whole change
  std::recursive_mutex m_lockTemplates;
  // Guards the contents of m_listUpdates only, never across a request, so that the
  // worker's copy does not wait for a subscription's look-up. Innermost lock.
  std::mutex m_lockUpdatesList;
  std::string m_strAppID;
  std::list<std::string> m_listUsers;
  std::list<std::unique_ptr<UpdateSubscription>> m_listUpdates;
  // Read by the worker without the callback lock.
  std::atomic<TDC_MessageCallback> m_pfnMessage{nullptr};
  std::atomic<TDC_ErrorCallback> m_pfnError{nullptr};
  std::atomic<void*> m_pUserData{nullptr};
  // The polling configuration that StartPolling hands to the worker.
  std::atomic<int32_t> m_nMinimumPollingTime{15};
  std::atomic<int32_t> m_nMaxPollingNotResultCount{250};
  std::atomic<int32_t> m_nAppType{0};
  // message template id -> template object; never emptied while the client lives.
  std::map<std::string, Json::Value> m_mapTemplates;  // under m_lockTemplates
  // The thread of the polling round in progress (none between rounds), under
  // m_lockRequests.
  std::thread::id m_roundThread;
  // Built not running with the client; stopped first and freed by its destructor.
  std::unique_ptr<CPullMsgThread> m_pPullThread;
};

}  // namespace tpcsdk
