// The module's exports: the platform getter, the release family, two kept entry
// points and the retired function-style interface.
#include "platform/platform.h"
#include "support/guard.h"
#include "support/out_buffer.h"
#include "tpcsdk/tpcsdk.h"

using tpcsdk::TDOCPlatform;

namespace {

// The one body behind every retired export: arguments are ignored.
int RetiredExport() { return TDC_HRESULT_FAILED; }

int ReleaseBlock(void* block) {
  return tpcsdk::FreeBlock(block) ? TDC_HRESULT_OK : TDC_HRESULT_FAILED;
}

}  // namespace

extern "C" {

TDC_API IPDFPlatform* TDC_GetTDOCPlatform(void) {
  return tpcsdk::Guarded<IPDFPlatform*>(nullptr, [] { return TDOCPlatform::Instance(); });
}

TDC_API void TDC_ReleaseTDOCPlatform(void) {}

TDC_API int TDC_ReleaseLPSTR(char* text) { return ReleaseBlock(text); }
TDC_API int TDC_ReleaseLPWSTR(TDC_LPWSTR text) { return ReleaseBlock(text); }
TDC_API int TDC_ReleaseBuffer(void* block) { return ReleaseBlock(block); }
TDC_API int TDC_ReleaseBuffer2(void* block) { return ReleaseBlock(block); }

TDC_API int TDC_UpLoadGrayLog(int32_t level) {
  // The level picks a severity name that older hosts expected; nothing is sent.
  const char* severity = "";
  switch (level) {
    case 0:
      severity = "error";
      [[fallthrough]];
    case 1:
      severity = "warning";
      [[fallthrough]];
    case 2:
      severity = "info";
      break;
    default:
      break;
  }
  (void)severity;
  return TDC_HRESULT_FAILED;
}

TDC_API int TDC_AddShareReviewUser(const void* arg) {
  return arg == nullptr ? TDC_HRESULT_OK : TDC_HRESULT_FAILED;
}

#define TPCSDK_RETIRED(name) \
  TDC_API int name(void) { return RetiredExport(); }
TPCSDK_RETIRED(TDC_AddConnectedReviewDoc)
TPCSDK_RETIRED(TDC_AddDrmPermission)
TPCSDK_RETIRED(TDC_AddShareReviewAnnot)
TPCSDK_RETIRED(TDC_ChangeMessageDelivery)
TPCSDK_RETIRED(TDC_ChangeWebService)
TPCSDK_RETIRED(TDC_CopyDRMInfo)
TPCSDK_RETIRED(TDC_DelConnectedReviewDoc)
TPCSDK_RETIRED(TDC_DeleteTDOC)
TPCSDK_RETIRED(TDC_DeleteDRMInfo)
TPCSDK_RETIRED(TDC_DeleteDocVersion)
TPCSDK_RETIRED(TDC_DeleteShareReviewAnnot)
TPCSDK_RETIRED(TDC_DocIsShareReview)
TPCSDK_RETIRED(TDC_GetACL)
TPCSDK_RETIRED(TDC_GetAppeDocPermission)
TPCSDK_RETIRED(TDC_GetContentKey)
TPCSDK_RETIRED(TDC_GetCurrentHost)
TPCSDK_RETIRED(TDC_GetDocInfo)
TPCSDK_RETIRED(TDC_GetDocOwnerID)
TPCSDK_RETIRED(TDC_GetDocumentMessage)
TPCSDK_RETIRED(TDC_GetEmail)
TPCSDK_RETIRED(TDC_GetJSPluginHost)
TPCSDK_RETIRED(TDC_GetLastNetworkError)
TPCSDK_RETIRED(TDC_GetOpenMessage)
TPCSDK_RETIRED(TDC_GetOwnerEmail)
TPCSDK_RETIRED(TDC_GetPollingInfo)
TPCSDK_RETIRED(TDC_GetRecordedHost)
TPCSDK_RETIRED(TDC_GetServiceCollectStrategy)
TPCSDK_RETIRED(TDC_GetShareReviewAnnot)
TPCSDK_RETIRED(TDC_GetShareReviewInitiatorEmail)
TPCSDK_RETIRED(TDC_GetShareReviewPageObjNumList)
TPCSDK_RETIRED(TDC_GetShareReviewUserInfo)
TPCSDK_RETIRED(TDC_GetShareReviewUserList)
TPCSDK_RETIRED(TDC_GetUntreatedMessageCount)
TPCSDK_RETIRED(TDC_GetUserDeviceInfo)
TPCSDK_RETIRED(TDC_GetUserOwnAllAnnots)
TPCSDK_RETIRED(TDC_GetWebServiceURL)
TPCSDK_RETIRED(TDC_GetWebServiceURLbyHost)
TPCSDK_RETIRED(TDC_InitDLL)
TPCSDK_RETIRED(TDC_IsEnterpriseEnv)
TPCSDK_RETIRED(TDC_IsSecureRemoved)
TPCSDK_RETIRED(TDC_LoadcAppID)
TPCSDK_RETIRED(TDC_ModifyDocVersion)
TPCSDK_RETIRED(TDC_RemoveSecure)
TPCSDK_RETIRED(TDC_SendConfirmReply)
TPCSDK_RETIRED(TDC_SendEmailNotification)
TPCSDK_RETIRED(TDC_SetAppeDocPermission)
TPCSDK_RETIRED(TDC_SetClientLanguage)
TPCSDK_RETIRED(TDC_SetClientVersion)
TPCSDK_RETIRED(TDC_SetConnectedReviewPollTime)
TPCSDK_RETIRED(TDC_SetCurrentHost)
TPCSDK_RETIRED(TDC_SetDocumentMessage)
TPCSDK_RETIRED(TDC_SetEnforcedTracking)
TPCSDK_RETIRED(TDC_SetPollingConfig)
TPCSDK_RETIRED(TDC_SetShareReviewState)
TPCSDK_RETIRED(TDC_SetShareReviewUserState)
TPCSDK_RETIRED(TDC_SetSubscribtionCallback)
TPCSDK_RETIRED(TDC_SetUserToken)
TPCSDK_RETIRED(TDC_StartPolling)
TPCSDK_RETIRED(TDC_StartShareReview)
TPCSDK_RETIRED(TDC_StopAllRequest)
TPCSDK_RETIRED(TDC_StopPolling)
TPCSDK_RETIRED(TDC_SubscribeUpdateNotification)
TPCSDK_RETIRED(TDC_SubscribeUser)
TPCSDK_RETIRED(TDC_SubscribecAppID)
TPCSDK_RETIRED(TDC_UnSubscribeUpdateNotification)
TPCSDK_RETIRED(TDC_UnSubscribeUser)
TPCSDK_RETIRED(TDC_UnSubscribecAppID)
TPCSDK_RETIRED(TDC_UpLoadTDOC)
TPCSDK_RETIRED(TDC_UpLoadDocID)
TPCSDK_RETIRED(TDC_UpLoadUserLogger)
TPCSDK_RETIRED(TDC_UpLoadVersionID)
TPCSDK_RETIRED(TDC_UpdateNotificationSendEmail)
TPCSDK_RETIRED(TDC_UpdateShareReviewAnnot)
TPCSDK_RETIRED(TDC_UpdateWebServiceApi)
TPCSDK_RETIRED(TDC_UploadDRMInfo)
TPCSDK_RETIRED(TDC_UploadImage)
TPCSDK_RETIRED(TDC_UserCanJoinShareReview)
TPCSDK_RETIRED(TDC_getConfigUrl)
TPCSDK_RETIRED(TDC_isUserOnLine)
TPCSDK_RETIRED(TDC_stopThread)
#undef TPCSDK_RETIRED

}  // extern "C"
