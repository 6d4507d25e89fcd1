// Subscriptions and the polling worker's slots (not carried by this build yet: -2).
#include "tpcsdk/tpcsdk.h"
#include "web_service/tetherdoc_server.h"

namespace tpcsdk {

int TetherdocServer::SubscribecAppID(const char*) { return TDC_HRESULT_FAILED; }
int TetherdocServer::UnSubscribecAppID() { return TDC_HRESULT_FAILED; }
int TetherdocServer::SubscribeUser(const char*) { return TDC_HRESULT_FAILED; }
int TetherdocServer::UnSubscribeUser(const char*) { return TDC_HRESULT_FAILED; }
int TetherdocServer::SetSubscribtionCallback(TDC_MessageCallback, TDC_ErrorCallback, void*) {
  return TDC_HRESULT_FAILED;
}
int TetherdocServer::SubscribeUpdateNotification(const char*, const char*, const char*) {
  return TDC_HRESULT_FAILED;
}
int TetherdocServer::UnSubscribeUpdateNotification(const char*, const char*, const char*) {
  return TDC_HRESULT_FAILED;
}
int TetherdocServer::StartPolling() { return TDC_HRESULT_FAILED; }
int TetherdocServer::StopPolling() { return TDC_HRESULT_FAILED; }
int TetherdocServer::Internet_SetPollingConfig(const char*, int32_t) { return TDC_HRESULT_FAILED; }
int TetherdocServer::stopThread() { return TDC_HRESULT_FAILED; }

}  // namespace tpcsdk
