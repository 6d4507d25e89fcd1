// The document-rights family: calls that keep a document's protection on the service.
// They hold their places in the client interface and are not carried by this library.
#include "tpcsdk/tpcsdk.h"
#include "web_service/tetherdoc_server.h"

namespace tpcsdk {

int TetherdocServer::DocumentRights8() { return TDC_HRESULT_FAILED; }
int TetherdocServer::DocumentRights9() { return TDC_HRESULT_FAILED; }
int TetherdocServer::DocumentRights18() { return TDC_HRESULT_FAILED; }
int TetherdocServer::DocumentRights19() { return TDC_HRESULT_FAILED; }
int TetherdocServer::DocumentRights20() { return TDC_HRESULT_FAILED; }
int TetherdocServer::DocumentRights22() { return TDC_HRESULT_FAILED; }
int TetherdocServer::DocumentRights23() { return TDC_HRESULT_FAILED; }
int TetherdocServer::DocumentRights24() { return TDC_HRESULT_FAILED; }
int TetherdocServer::DocumentRights25() { return TDC_HRESULT_FAILED; }
int TetherdocServer::DocumentRights26() { return TDC_HRESULT_FAILED; }
int TetherdocServer::DocumentRights27() { return TDC_HRESULT_FAILED; }
int TetherdocServer::DocumentRights44() { return TDC_HRESULT_FAILED; }
int TetherdocServer::DocumentRights47() { return TDC_HRESULT_FAILED; }

}  // namespace tpcsdk
