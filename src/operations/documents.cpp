// Document and version records (not carried by this build yet: -2).
#include "tpcsdk/tpcsdk.h"
#include "web_service/tetherdoc_server.h"

namespace tpcsdk {

int TetherdocServer::GetDocOwnerID(const char*, char**) { return TDC_HRESULT_FAILED; }
int TetherdocServer::GetOwnerEmail(const void*, const char*, char**, TDC_LPWSTR*, char**) {
  return TDC_HRESULT_FAILED;
}
int TetherdocServer::UpLoadTDOC(const TDC_TDOC_INFO*) { return TDC_HRESULT_FAILED; }
int TetherdocServer::DeleteDocVersion(const char*, const char*) { return TDC_HRESULT_FAILED; }
int TetherdocServer::ModifyDocVersion(const char*, const char*) { return TDC_HRESULT_FAILED; }
int TetherdocServer::UploadDocInfo(const TDC_DOC_INFO*) { return TDC_HRESULT_FAILED; }
int TetherdocServer::UploadVersionInfo(const TDC_VERSION_INFO*) { return TDC_HRESULT_FAILED; }

}  // namespace tpcsdk
