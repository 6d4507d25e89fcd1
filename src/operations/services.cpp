// Usage records, server facts and small services, wrapper documents (not carried by
// this build yet: -2 or nothing).
#include "tpcsdk/tpcsdk.h"
#include "web_service/tetherdoc_server.h"

namespace tpcsdk {

int TetherdocServer::GetOpenMessage(const char*, const char*, char**) { return TDC_HRESULT_FAILED; }
int TetherdocServer::UpLoadUserLogger(const TDC_USER_LOG*) { return TDC_HRESULT_FAILED; }
int TetherdocServer::UpdateNotificationSendEmail(const char*, const char*, const char*) {
  return TDC_HRESULT_FAILED;
}
int TetherdocServer::GetServerOptionConfig(char**) { return TDC_HRESULT_FAILED; }
int TetherdocServer::SetClientLanguage(const char*) { return TDC_HRESULT_FAILED; }
int TetherdocServer::UploadImage(const char*, const char*, const char*, char**) {
  return TDC_HRESULT_FAILED;
}
int TetherdocServer::SendEmailNotification(const char*, TDC_LPCWSTR, TDC_LPCWSTR, TDC_LPCWSTR,
                                           TDC_LPCWSTR) {
  return TDC_HRESULT_FAILED;
}

}  // namespace tpcsdk
