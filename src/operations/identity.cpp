// Identity operations (not carried by this build yet: -2).
#include "tpcsdk/tpcsdk.h"
#include "web_service/tetherdoc_server.h"

namespace tpcsdk {

int TetherdocServer::CheckUserToken(const char*, int32_t*) { return TDC_HRESULT_FAILED; }
int TetherdocServer::GetUserDeviceInfo(const TDC_DEVICE_INFO*, char**) { return TDC_HRESULT_FAILED; }
int TetherdocServer::isUserOnLine(const char*, int32_t*) { return TDC_HRESULT_FAILED; }
int TetherdocServer::GetEmail(const char*, char**) { return TDC_HRESULT_FAILED; }
int TetherdocServer::GetThirdUser(const char*, TDC_LPCWSTR, char**, int32_t*) {
  return TDC_HRESULT_FAILED;
}
int TetherdocServer::GetThirdUserInfo(const char*, TDC_LPCWSTR, char**) { return TDC_HRESULT_FAILED; }
int TetherdocServer::GetAgreement(const char*, char**) { return TDC_HRESULT_FAILED; }
int TetherdocServer::GetCasTicket(const char*, const char*, const char*, char**) {
  return TDC_HRESULT_FAILED;
}

}  // namespace tpcsdk
