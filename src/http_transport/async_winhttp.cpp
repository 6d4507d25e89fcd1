// Provisional: the transport over the HTTP seam replaces this; until then no request
// can connect, and every service call fails at its first step.
#include "http_transport/async_winhttp.h"

namespace tpcsdk {

CAsyncWinHttp::~CAsyncWinHttp() = default;
void CAsyncWinHttp::EnsureSession(const std::u16string&) {}
bool CAsyncWinHttp::Connect(const std::u16string&) { return false; }
bool CAsyncWinHttp::SendRequest(const std::u16string&, const std::string&, const std::u16string&) {
  return false;
}
void CAsyncWinHttp::CloseRequest() {}
std::u16string CAsyncWinHttp::ResponseText() const { return {}; }
std::u16string CAsyncWinHttp::SecondText() const { return {}; }
int32_t CAsyncWinHttp::StatusCode() const { return 0; }

}  // namespace tpcsdk
