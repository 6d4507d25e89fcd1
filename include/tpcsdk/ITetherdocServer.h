/*
 * ITetherdocServer: one web-service client, bound to one service host. Slot order is
 * the ABI.
 *
 * Getting one: IPDFPlatform::InitApi creates it, GetServerByHost / GetServerByDomain
 * hand it out. The platform owns it until the module is unloaded; a host never
 * destroys it (slot 52 is the platform's).
 *
 * Arguments: "text" is NUL-terminated UTF-8 (const char*), "wide" NUL-terminated
 * UTF-16 (TDC_LPCWSTR). They are read during the call only; records (TDC_*_INFO,
 * TDC_USER_LOG) likewise. A NULL where a text, record or out pointer is needed gives
 * TDC_HRESULT_FAILED (-2) and sends nothing. Tokens, e-mail addresses and ids go into
 * URLs as given, without escaping.
 *
 * Results: 0 on success, else a TDC_HRESULT_* code of tpcsdk.h: 3 for an HTTP status
 * other than 200 and 403, 4 for 403 (and, in the four uploads, a refused empty
 * field), 6 when the reply is not a JSON object or its ret is not 0, 7 when the API
 * directory has no URL for the call, 9 for ret 210007 (the token names no user).
 *
 * Out buffers: written only on the path that fills them, so start them at NULL and
 * test them afterwards. Each is a new block of the caller's: char** blocks go back
 * through TDC_ReleaseLPSTR, TDC_LPWSTR* blocks through TDC_ReleaseLPWSTR (the release
 * family shares one body; never free() them). JSON handed out is compact text that
 * ends in one line feed.
 *
 * Threads: any thread may call, several at once; each call has its own request and
 * blocks, with no time limit of the library's own, until its exchange ends or the
 * platform's StopAllRequest ends it. Messages and polling errors arrive on the
 * client's polling worker (slot 36). Nothing is retried.
 */
#ifndef TPCSDK_ITETHERDOCSERVER_H
#define TPCSDK_ITETHERDOCSERVER_H

#include "tpcsdk/tpcsdk.h"

class ITetherdocServer {
 public:
  /* 0  The URL stored under key in the API directory, placeholders unfilled (wide, out).
   *    7 when the directory has no such key, 8 before it was loaded. No traffic. */
  virtual int GetWebServiceUrl(const char* key, TDC_LPWSTR* url) = 0;
  /* 1  The service domain the API directory names (tdc_domain), wide, out. */
  virtual void GetDomain(TDC_LPWSTR* domain) = 0;
  /* 2  The host this client was created for, wide, out. */
  virtual void GetHost(TDC_LPWSTR* host) = 0;
  /* 3  Asks whether the user's token is valid; valid is written on success only. -2
   *    for an empty token and for every failure of the exchange. The token goes in the
   *    query (access-token=). */
  virtual int CheckUserToken(const char* token, int32_t* valid) = 0;
  /* 4  The access token stored by SetAccessToken, UTF-8, out (TDC_ReleaseLPSTR). */
  virtual void GetAccessToken(char** token) = 0;
  /* 5  Stores the user's access token for the URLs that carry it (isUserOnLine, the
   *    document registration of UpLoadTDOC, the wrapper documents, polling). Always 0.
   *    Safe against a concurrent GetAccessToken. */
  virtual int SetAccessToken(TDC_LPCWSTR token) = 0;
  /* 6  The owner's user id of a registered document (text, out). -2 for an empty id;
   *    the service's own ret when it refuses. */
  virtual int GetDocOwnerID(const char* cDocID, char** owner) = 0;
  /* 7  E-mail (text), name (wide) and mobile number (text) of a document's owner; the
   *    first argument is not read. Each out is written only when the reply has it. */
  virtual int GetOwnerEmail(const void* unused, const char* cDocID, char** email,
                            TDC_LPWSTR* name, char** mobile) = 0;
  /* 8, 9  Document-rights family; hold their places, give -2. */
  virtual int DocumentRights8() = 0;
  virtual int DocumentRights9() = 0;
  /* 10 Registers the user's device (all ten fields non-NULL); reply receives the
   *    service's data as JSON text. */
  virtual int GetUserDeviceInfo(const TDC_DEVICE_INFO* info, char** reply) = 0;
  /* 11 Registers a document with its first version, under the stored token. -2 for a
   *    NULL required field, 4 for an empty one or a page count of 0. */
  virtual int UpLoadTDOC(const TDC_TDOC_INFO* info) = 0;
  /* 12 Deletes a version of a document; token goes into the URL. */
  virtual int DeleteDocVersion(const char* token, const char* cVersionID) = 0;
  /* 13 The message shown when a document opens (JSON text, out); first must not be
   *    empty. */
  virtual int GetOpenMessage(const char* second, const char* first, char** reply) = 0;
  /* 14 Uploads one usage record; 4 for an empty required field. */
  virtual int UpLoadUserLogger(const TDC_USER_LOG* log) = 0;
  /* 15 Asks the service to e-mail the owner about a new version; token goes into the
   *    query. */
  virtual int UpdateNotificationSendEmail(const char* token, const char* cVersionID,
                                          const char* cOwnerEmail) = 0;
  /* 16 The service's option configuration as JSON text (out). */
  virtual int GetServerOptionConfig(char** config) = 0;
  /* 17 Whether a user is on line (1) or not (0), under the stored token; online is
   *    set to 0 first. */
  virtual int isUserOnLine(const char* email, int32_t* online) = 0;
  /* 18 to 20  Document-rights family. */
  virtual int DocumentRights18() = 0;
  virtual int DocumentRights19() = 0;
  virtual int DocumentRights20() = 0;
  /* 21 Changes a version's record with the caller's JSON text; token goes into the URL. */
  virtual int ModifyDocVersion(const char* token, const char* json) = 0;
  /* 22 to 27  Document-rights family. */
  virtual int DocumentRights22() = 0;
  virtual int DocumentRights23() = 0;
  virtual int DocumentRights24() = 0;
  virtual int DocumentRights25() = 0;
  virtual int DocumentRights26() = 0;
  virtual int DocumentRights27() = 0;
  /* 28 Registers a document; 4 for an empty required field. */
  virtual int UploadDocInfo(const TDC_DOC_INFO* info) = 0;
  /* 29 Registers a version of a document; 4 for an empty required field or a page
   *    count of 0. */
  virtual int UploadVersionInfo(const TDC_VERSION_INFO* info) = 0;
  /* 30 The e-mail address of the token's user (text, out); -2 for every failure. */
  virtual int GetEmail(const char* token, char** email) = 0;
  /* 31 Changes the language this client reports (al); -2 for an empty text. Not
   *    locked: do not call it while other calls of this client run. */
  virtual int SetClientLanguage(const char* language) = 0;
  /* 32 Polls application messages for an app id. */
  virtual int SubscribecAppID(const char* cAppID) = 0;
  /* 33 Stops polling application messages. */
  virtual int UnSubscribecAppID() = 0;
  /* 34 Polls messages of a user. */
  virtual int SubscribeUser(const char* token) = 0;
  /* 35 Stops polling messages of a user. */
  virtual int UnSubscribeUser(const char* token) = 0;
  /* 36 Sets the callbacks that receive messages and polling errors, and the value
   *    handed to them. They run on the polling worker; a message buffer is valid only
   *    during the call. Always 0. */
  virtual int SetSubscribtionCallback(TDC_MessageCallback onMessage, TDC_ErrorCallback onError,
                                      void* userData) = 0;
  /* 37 Polls for newer versions of a document. */
  virtual int SubscribeUpdateNotification(const char* token, const char* cDocID,
                                          const char* cVersionID) = 0;
  /* 38 Stops polling for newer versions of a document. */
  virtual int UnSubscribeUpdateNotification(const char* token, const char* cDocID,
                                            const char* cVersionID) = 0;
  /* 39 Uploads a signature image; reply receives the service's data (JSON text). */
  virtual int UploadImage(const char* token, const char* imageType, const char* content,
                          char** reply) = 0;
  /* 40 Starts the polling worker, the one thread the library makes for this client.
   *    Stop it (slot 41) before unloading the module. */
  virtual int StartPolling() = 0;
  /* 41 Stops the polling worker and waits for it; called from a callback (on the
   *    worker itself) it only asks the worker to end, and returns. */
  virtual int StopPolling() = 0;
  /* 42 Fetches the polling configuration for the user and application type. */
  virtual int Internet_SetPollingConfig(const char* token, int32_t appType) = 0;
  /* 43 Stops the polling worker; always 0. */
  virtual int stopThread() = 0;
  /* 44 Document-rights family. */
  virtual int DocumentRights44() = 0;
  /* 45 Sends an e-mail through the service; -2 when any text is empty. */
  virtual int SendEmailNotification(const char* token, TDC_LPCWSTR subject, TDC_LPCWSTR content,
                                    TDC_LPCWSTR sender, TDC_LPCWSTR receiver) = 0;
  /* 46 Downloads the current wrapper documents into the service's cache folder, under
   *    the stored token. Blocks for the downloads; reports nothing. */
  virtual void UpdateWrapperDocuments() = 0;
  /* 47 Document-rights family. */
  virtual int DocumentRights47() = 0;
  /* 48 Exchanges a third-party token for a user at baseUrl (the API directory is not
   *    used); reply receives JSON text; done is set to 0 first. -2 for every failure. */
  virtual int GetThirdUser(const char* baseUrl, TDC_LPCWSTR thirdToken, char** reply,
                           int32_t* done) = 0;
  /* 49 The third-party user's details; the filled buffer, not the result, tells success. */
  virtual int GetThirdUserInfo(const char* baseUrl, TDC_LPCWSTR thirdToken, char** reply) = 0;
  /* 50 The user agreement; the filled buffer, not the result, tells success. */
  virtual int GetAgreement(const char* baseUrl, char** reply) = 0;
  /* 51 A sign-in ticket for the user (text, out); -2 for every failure. */
  virtual int GetCasTicket(const char* first, const char* second, const char* third,
                           char** ticket) = 0;
  /* 52 Destroys the client (bit 0 of flags: free its memory). Only the platform calls
   *    it. An ordinary slot rather than a virtual destructor, so the interface has the
   *    same 53 slots under every compiler's object model. */
  virtual void Destroy(unsigned int flags) = 0;

 protected:
  ~ITetherdocServer() = default;
};

#endif /* TPCSDK_ITETHERDOCSERVER_H */
