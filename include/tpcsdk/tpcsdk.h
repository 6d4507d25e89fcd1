/*
 * tpcsdk.h - the host's view of the connected-document client module.
 *
 * A host loads TPCSDK64.dll (Windows) or libtpcsdk.so (Linux), calls
 * TDC_GetTDOCPlatform once before it starts other threads, and works through the
 * platform object (IPDFPlatform) and the clients it creates (ITetherdocServer).
 * Every text or buffer handed back through an out parameter belongs to the caller,
 * who returns it with the TDC_Release* family.
 *
 * This header is C and C++. From C++, include tpcsdk/IPDFPlatform.h and
 * tpcsdk/ITetherdocServer.h for the interfaces as classes; from C, call slots
 * through the lpVtbl tables declared below.
 */
#ifndef TPCSDK_TPCSDK_H
#define TPCSDK_TPCSDK_H

#include <stdint.h>

#if defined(_WIN32)
#include <wchar.h>
#elif !defined(__cplusplus)
#include <uchar.h>
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Wide text: NUL-terminated UTF-16 ---------------------------------- */
#if defined(_WIN32)
typedef wchar_t TDC_WCHAR;
#else
typedef char16_t TDC_WCHAR;
#endif
typedef TDC_WCHAR* TDC_LPWSTR;
typedef const TDC_WCHAR* TDC_LPCWSTR;

/* ---- Export decoration --------------------------------------------------- */
#if defined(_WIN32)
#define TDC_API /* exported by name through the module definition file */
#elif defined(TPCSDK_BUILDING)
#define TDC_API __attribute__((visibility("default")))
#else
#define TDC_API
#endif

/* ---- Result codes ---------------------------------------------------------- */
#define TDC_HRESULT_OK 0              /* success */
#define TDC_HRESULT_FAILED (-2)       /* bad or missing argument, empty URL, unusable reply,
                                         nothing found; also every retired export */
#define TDC_HRESULT_HTTP_ERROR 3      /* HTTP status other than 200 and 403, or no status */
#define TDC_HRESULT_FORBIDDEN 4       /* HTTP 403 (and refused parameters of the uploads) */
#define TDC_HRESULT_BAD_ARGUMENT 5    /* client creation got a null host or an empty
                                         language, name or version */
#define TDC_HRESULT_SERVICE_ERROR 6   /* the reply is not a JSON object, or its ret is not 0 */
#define TDC_HRESULT_NO_URL 7          /* the key is not in the API table */
#define TDC_HRESULT_NOT_READY 8       /* the API table has not been loaded */
#define TDC_HRESULT_RET_210007 9      /* HTTP 200 with ret 210007 */

/* ---- Parameter records ------------------------------------------------------ */

/* What the host tells a new client about itself. Four UTF-8 texts, none null. */
typedef struct TDC_CLIENT_INFO {
  const char* lpsLanguage;   /* application language: "al" of the client identity */
  const char* lpsReserved;   /* filled by hosts, not read by the library */
  const char* lpsAppName;    /* application name: "an" */
  const char* lpsAppVersion; /* application version: "av" */
} TDC_CLIENT_INFO;

/* A document to register (UploadDocInfo). The first five are required. */
typedef struct TDC_DOC_INFO {
  TDC_LPCWSTR cAppID;
  TDC_LPCWSTR cDocID;
  TDC_LPCWSTR docName;
  TDC_LPCWSTR createTime;
  TDC_LPCWSTR modifiedTime;
  TDC_LPCWSTR parentID;              /* optional */
  TDC_LPCWSTR cUserID;               /* optional */
  TDC_LPCWSTR originalAuthor;        /* optional */
  TDC_LPCWSTR originalFilename;      /* optional */
  TDC_LPCWSTR connectedNotification; /* optional */
} TDC_DOC_INFO;

/* A document together with its first version (UpLoadTDOC). */
typedef struct TDC_TDOC_INFO {
  TDC_LPCWSTR cAppID;
  TDC_LPCWSTR cDocID;
  TDC_LPCWSTR docName;
  TDC_LPCWSTR createTime;
  TDC_LPCWSTR modifiedTime;
  TDC_LPCWSTR parentID;
  TDC_LPCWSTR cUserID;
  TDC_LPCWSTR originalAuthor;
  TDC_LPCWSTR originalFilename;
  TDC_LPCWSTR connectedNotification;
  TDC_LPCWSTR cVersionID;      /* required, non-empty */
  TDC_LPCWSTR docPath;         /* required, may be empty */
  TDC_LPCWSTR docURI;          /* optional */
  TDC_LPCWSTR parentVersionID; /* optional */
  int32_t docSize;
  int32_t docPageCount;        /* must not be 0 */
} TDC_TDOC_INFO;

/* A version of a registered document (UploadVersionInfo). */
typedef struct TDC_VERSION_INFO {
  TDC_LPCWSTR cAppID;
  TDC_LPCWSTR cDocID;
  TDC_LPCWSTR cVersionID;
  TDC_LPCWSTR docName;
  TDC_LPCWSTR docPath;    /* optional */
  TDC_LPCWSTR docURI;     /* optional */
  TDC_LPCWSTR createTime;
  TDC_LPCWSTR parentID;   /* optional */
  TDC_LPCWSTR cUserID;    /* optional */
  int32_t docSize;
  int32_t docPageCount;   /* must not be 0 */
} TDC_VERSION_INFO;

/* One usage record (UpLoadUserLogger). */
typedef struct TDC_USER_LOG {
  TDC_LPCWSTR cAppID;
  TDC_LPCWSTR cDocID;
  TDC_LPCWSTR cVersionID;
  TDC_LPCWSTR cUserID;         /* optional */
  TDC_LPCWSTR startTime;
  TDC_LPCWSTR operatorType;
  TDC_LPCWSTR operator_;       /* sent as the member "operator" */
  TDC_LPCWSTR operands;        /* optional JSON object text */
  TDC_LPCWSTR docName;
  TDC_LPCWSTR docPath;         /* optional */
  TDC_LPCWSTR docURI;          /* optional */
  TDC_LPCWSTR reviewSessionID; /* optional */
  int32_t isCreview;
} TDC_USER_LOG;

/* The device a user works on (GetUserDeviceInfo). All ten non-null. */
typedef struct TDC_DEVICE_INFO {
  TDC_LPCWSTR type;
  TDC_LPCWSTR mobileDeviceId;
  TDC_LPCWSTR deviceName;
  TDC_LPCWSTR deviceModel;
  TDC_LPCWSTR mac;
  TDC_LPCWSTR os;
  TDC_LPCWSTR productName;
  TDC_LPCWSTR productVendor;
  TDC_LPCWSTR productVersion;
  TDC_LPCWSTR productLanguage;
} TDC_DEVICE_INFO;

/* A message as it reaches the host: UTF-8 JSON ending in a line feed, then a NUL.
 * Valid only during the callback. */
typedef struct PullMsgBuffer {
  char* text;
  int32_t length; /* bytes without the NUL */
} PullMsgBuffer;

/* Codes of the message callback, by the kind of message polled. */
#define TDC_MSG_USER 1001                /* user message, or an application message for one app id */
#define TDC_MSG_APP 1002                 /* application message */
#define TDC_MSG_UPDATE_NOTIFICATION 1003 /* a newer version of a subscribed document */
#define TDC_MSG_1005 1005                /* message of polled type 105 */
#define TDC_MSG_1006 1006                /* message of polled type 109 for one app id */
#define TDC_MSG_UNTREATED_NOTIFY 1007    /* count of untreated notifications */

/* Called on the polling worker with a message; domain is the service domain (UTF-8),
 * userData what the host registered. The result is ignored. */
typedef int (*TDC_MessageCallback)(int32_t code, PullMsgBuffer* message, const char* domain,
                                   void* userData);
/* Called on the polling worker when polling fails. The result is ignored. */
typedef int (*TDC_ErrorCallback)(int32_t code, const char* text, const char* domain,
                                 void* userData);

/* ---- Interfaces as seen from C ----------------------------------------------- */
#ifdef __cplusplus
}
class IPDFPlatform;
class ITetherdocServer;
extern "C" {
#else
typedef struct IPDFPlatform IPDFPlatform;
typedef struct ITetherdocServer ITetherdocServer;

/* Slot order is the ABI; each entry takes the object as its first argument. */
struct IPDFPlatformVtbl {
  int (*InitApi)(IPDFPlatform* self, TDC_LPCWSTR host, TDC_CLIENT_INFO* info, TDC_LPWSTR* domain);
  int (*GetCurrentDomain)(IPDFPlatform* self, TDC_LPWSTR* domain);
  void (*SetCurrentDomain)(IPDFPlatform* self, TDC_LPCWSTR domain);
  ITetherdocServer* (*GetServerByDomain)(IPDFPlatform* self, TDC_LPCWSTR domain);
  ITetherdocServer* (*GetServerByHost)(IPDFPlatform* self, TDC_LPCWSTR host);
  int (*GetRecordHostFromConfig)(IPDFPlatform* self, TDC_LPWSTR* host);
  int (*GetRecordUpdateHostFromConfig)(IPDFPlatform* self, TDC_LPWSTR* host);
  int (*GetRecordHostFromGPO)(IPDFPlatform* self, TDC_LPWSTR* host, TDC_LPCWSTR app,
                              TDC_LPCWSTR version, TDC_LPCWSTR user);
  int (*GetRecordUpdateHostFromGPO)(IPDFPlatform* self, TDC_LPWSTR* host, TDC_LPCWSTR app,
                                    TDC_LPCWSTR version);
  int (*GetRecordHostFromLastDefaultLogined)(IPDFPlatform* self, TDC_LPWSTR* host,
                                             TDC_LPCWSTR app, TDC_LPCWSTR version,
                                             TDC_LPCWSTR user);
  int (*IsEnterpriseEnv)(IPDFPlatform* self, TDC_LPCWSTR app, TDC_LPCWSTR version,
                         TDC_LPCWSTR user);
  void (*StopAllRequest)(IPDFPlatform* self);
};
struct IPDFPlatform {
  const struct IPDFPlatformVtbl* lpVtbl;
};

typedef int (*TDC_ReservedSlot)(ITetherdocServer* self);

struct ITetherdocServerVtbl {
  int (*GetWebServiceUrl)(ITetherdocServer* self, const char* key, TDC_LPWSTR* url);
  void (*GetDomain)(ITetherdocServer* self, TDC_LPWSTR* domain);
  void (*GetHost)(ITetherdocServer* self, TDC_LPWSTR* host);
  int (*CheckUserToken)(ITetherdocServer* self, const char* token, int32_t* valid);
  void (*GetAccessToken)(ITetherdocServer* self, char** token);
  int (*SetAccessToken)(ITetherdocServer* self, TDC_LPCWSTR token);
  int (*GetDocOwnerID)(ITetherdocServer* self, const char* cDocID, char** owner);
  int (*GetOwnerEmail)(ITetherdocServer* self, const void* unused, const char* cDocID,
                       char** email, TDC_LPWSTR* name, char** mobile);
  TDC_ReservedSlot DocumentRights8;
  TDC_ReservedSlot DocumentRights9;
  int (*GetUserDeviceInfo)(ITetherdocServer* self, const TDC_DEVICE_INFO* info, char** reply);
  int (*UpLoadTDOC)(ITetherdocServer* self, const TDC_TDOC_INFO* info);
  int (*DeleteDocVersion)(ITetherdocServer* self, const char* token, const char* cVersionID);
  int (*GetOpenMessage)(ITetherdocServer* self, const char* second, const char* first,
                        char** reply);
  int (*UpLoadUserLogger)(ITetherdocServer* self, const TDC_USER_LOG* log);
  int (*UpdateNotificationSendEmail)(ITetherdocServer* self, const char* token,
                                     const char* cVersionID, const char* cOwnerEmail);
  int (*GetServerOptionConfig)(ITetherdocServer* self, char** config);
  int (*isUserOnLine)(ITetherdocServer* self, const char* email, int32_t* online);
  TDC_ReservedSlot DocumentRights18;
  TDC_ReservedSlot DocumentRights19;
  TDC_ReservedSlot DocumentRights20;
  int (*ModifyDocVersion)(ITetherdocServer* self, const char* token, const char* json);
  TDC_ReservedSlot DocumentRights22;
  TDC_ReservedSlot DocumentRights23;
  TDC_ReservedSlot DocumentRights24;
  TDC_ReservedSlot DocumentRights25;
  TDC_ReservedSlot DocumentRights26;
  TDC_ReservedSlot DocumentRights27;
  int (*UploadDocInfo)(ITetherdocServer* self, const TDC_DOC_INFO* info);
  int (*UploadVersionInfo)(ITetherdocServer* self, const TDC_VERSION_INFO* info);
  int (*GetEmail)(ITetherdocServer* self, const char* token, char** email);
  int (*SetClientLanguage)(ITetherdocServer* self, const char* language);
  int (*SubscribecAppID)(ITetherdocServer* self, const char* cAppID);
  int (*UnSubscribecAppID)(ITetherdocServer* self);
  int (*SubscribeUser)(ITetherdocServer* self, const char* token);
  int (*UnSubscribeUser)(ITetherdocServer* self, const char* token);
  int (*SetSubscribtionCallback)(ITetherdocServer* self, TDC_MessageCallback onMessage,
                                 TDC_ErrorCallback onError, void* userData);
  int (*SubscribeUpdateNotification)(ITetherdocServer* self, const char* token,
                                     const char* cDocID, const char* cVersionID);
  int (*UnSubscribeUpdateNotification)(ITetherdocServer* self, const char* token,
                                       const char* cDocID, const char* cVersionID);
  int (*UploadImage)(ITetherdocServer* self, const char* token, const char* imageType,
                     const char* content, char** reply);
  int (*StartPolling)(ITetherdocServer* self);
  int (*StopPolling)(ITetherdocServer* self);
  int (*Internet_SetPollingConfig)(ITetherdocServer* self, const char* token, int32_t appType);
  int (*stopThread)(ITetherdocServer* self);
  TDC_ReservedSlot DocumentRights44;
  int (*SendEmailNotification)(ITetherdocServer* self, const char* token, TDC_LPCWSTR subject,
                               TDC_LPCWSTR content, TDC_LPCWSTR sender, TDC_LPCWSTR receiver);
  void (*UpdateWrapperDocuments)(ITetherdocServer* self);
  TDC_ReservedSlot DocumentRights47;
  int (*GetThirdUser)(ITetherdocServer* self, const char* baseUrl, TDC_LPCWSTR thirdToken,
                      char** reply, int32_t* done);
  int (*GetThirdUserInfo)(ITetherdocServer* self, const char* baseUrl, TDC_LPCWSTR thirdToken,
                          char** reply);
  int (*GetAgreement)(ITetherdocServer* self, const char* baseUrl, char** reply);
  int (*GetCasTicket)(ITetherdocServer* self, const char* first, const char* second,
                      const char* third, char** ticket);
  void (*Destroy)(ITetherdocServer* self, unsigned int flags);
};
struct ITetherdocServer {
  const struct ITetherdocServerVtbl* lpVtbl;
};
#endif /* !__cplusplus */

/* ---- Exports ------------------------------------------------------------------- */

/* The process-wide platform object, created on the first call; null when memory ran
 * out (a later call tries again). Make the first call before other threads start. */
TDC_API IPDFPlatform* TDC_GetTDOCPlatform(void);
/* Does nothing: the platform lives until the module is unloaded. */
TDC_API void TDC_ReleaseTDOCPlatform(void);

/* Give back a block the library handed out. Null gives -2; otherwise 0. */
TDC_API int TDC_ReleaseLPSTR(char* text);
TDC_API int TDC_ReleaseLPWSTR(TDC_LPWSTR text);
TDC_API int TDC_ReleaseBuffer(void* block);
TDC_API int TDC_ReleaseBuffer2(void* block);

/* Kept for older hosts; sends nothing and always gives -2. */
TDC_API int TDC_UpLoadGrayLog(int32_t level);
/* Kept for older hosts: 0 for a null argument, -2 otherwise. */
TDC_API int TDC_AddShareReviewUser(const void* arg);

/* Retired function-style interface. Each ignores its arguments and gives -2. */
TDC_API int TDC_AddConnectedReviewDoc(void);
TDC_API int TDC_AddDrmPermission(void);
TDC_API int TDC_AddShareReviewAnnot(void);
TDC_API int TDC_ChangeMessageDelivery(void);
TDC_API int TDC_ChangeWebService(void);
TDC_API int TDC_CopyDRMInfo(void);
TDC_API int TDC_DelConnectedReviewDoc(void);
TDC_API int TDC_DeleteTDOC(void);
TDC_API int TDC_DeleteDRMInfo(void);
TDC_API int TDC_DeleteDocVersion(void);
TDC_API int TDC_DeleteShareReviewAnnot(void);
TDC_API int TDC_DocIsShareReview(void);
TDC_API int TDC_GetACL(void);
TDC_API int TDC_GetAppeDocPermission(void);
TDC_API int TDC_GetContentKey(void);
TDC_API int TDC_GetCurrentHost(void);
TDC_API int TDC_GetDocInfo(void);
TDC_API int TDC_GetDocOwnerID(void);
TDC_API int TDC_GetDocumentMessage(void);
TDC_API int TDC_GetEmail(void);
TDC_API int TDC_GetJSPluginHost(void);
TDC_API int TDC_GetLastNetworkError(void);
TDC_API int TDC_GetOpenMessage(void);
TDC_API int TDC_GetOwnerEmail(void);
TDC_API int TDC_GetPollingInfo(void);
TDC_API int TDC_GetRecordedHost(void);
TDC_API int TDC_GetServiceCollectStrategy(void);
TDC_API int TDC_GetShareReviewAnnot(void);
TDC_API int TDC_GetShareReviewInitiatorEmail(void);
TDC_API int TDC_GetShareReviewPageObjNumList(void);
TDC_API int TDC_GetShareReviewUserInfo(void);
TDC_API int TDC_GetShareReviewUserList(void);
TDC_API int TDC_GetUntreatedMessageCount(void);
TDC_API int TDC_GetUserDeviceInfo(void);
TDC_API int TDC_GetUserOwnAllAnnots(void);
TDC_API int TDC_GetWebServiceURL(void);
TDC_API int TDC_GetWebServiceURLbyHost(void);
TDC_API int TDC_InitDLL(void);
TDC_API int TDC_IsEnterpriseEnv(void);
TDC_API int TDC_IsSecureRemoved(void);
TDC_API int TDC_LoadcAppID(void);
TDC_API int TDC_ModifyDocVersion(void);
TDC_API int TDC_RemoveSecure(void);
TDC_API int TDC_SendConfirmReply(void);
TDC_API int TDC_SendEmailNotification(void);
TDC_API int TDC_SetAppeDocPermission(void);
TDC_API int TDC_SetClientLanguage(void);
TDC_API int TDC_SetClientVersion(void);
TDC_API int TDC_SetConnectedReviewPollTime(void);
TDC_API int TDC_SetCurrentHost(void);
TDC_API int TDC_SetDocumentMessage(void);
TDC_API int TDC_SetEnforcedTracking(void);
TDC_API int TDC_SetPollingConfig(void);
TDC_API int TDC_SetShareReviewState(void);
TDC_API int TDC_SetShareReviewUserState(void);
TDC_API int TDC_SetSubscribtionCallback(void);
TDC_API int TDC_SetUserToken(void);
TDC_API int TDC_StartPolling(void);
TDC_API int TDC_StartShareReview(void);
TDC_API int TDC_StopAllRequest(void);
TDC_API int TDC_StopPolling(void);
TDC_API int TDC_SubscribeUpdateNotification(void);
TDC_API int TDC_SubscribeUser(void);
TDC_API int TDC_SubscribecAppID(void);
TDC_API int TDC_UnSubscribeUpdateNotification(void);
TDC_API int TDC_UnSubscribeUser(void);
TDC_API int TDC_UnSubscribecAppID(void);
TDC_API int TDC_UpLoadTDOC(void);
TDC_API int TDC_UpLoadDocID(void);
TDC_API int TDC_UpLoadUserLogger(void);
TDC_API int TDC_UpLoadVersionID(void);
TDC_API int TDC_UpdateNotificationSendEmail(void);
TDC_API int TDC_UpdateShareReviewAnnot(void);
TDC_API int TDC_UpdateWebServiceApi(void);
TDC_API int TDC_UploadDRMInfo(void);
TDC_API int TDC_UploadImage(void);
TDC_API int TDC_UserCanJoinShareReview(void);
TDC_API int TDC_getConfigUrl(void);
TDC_API int TDC_isUserOnLine(void);
TDC_API int TDC_stopThread(void);

#ifdef __cplusplus
}
#endif

#endif /* TPCSDK_TPCSDK_H */
