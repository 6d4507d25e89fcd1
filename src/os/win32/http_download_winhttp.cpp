// Blocking GET for file downloads on Windows: WinHTTP in its synchronous mode.
#include <windows.h>
#include <winhttp.h>

#include <string>

#include "os/http.h"
#include "os/http_download.h"

namespace tpcsdk::os {

namespace {

std::wstring W(std::u16string_view s) { return std::wstring(s.begin(), s.end()); }

std::wstring TakeGlobal(LPWSTR s) {
  std::wstring out;
  if (s) {
    out = s;
    GlobalFree(s);
  }
  return out;
}

}  // namespace

struct HttpBlockingGet::Impl {
  HINTERNET session = nullptr, connect = nullptr, request = nullptr;
  uint32_t status = 0;
  ~Impl() {
    if (request) WinHttpCloseHandle(request);
    if (connect) WinHttpCloseHandle(connect);
    if (session) WinHttpCloseHandle(session);
  }
};

HttpBlockingGet::HttpBlockingGet() = default;
HttpBlockingGet::~HttpBlockingGet() = default;

bool HttpBlockingGet::Open(std::u16string_view agent, bool secure, std::u16string_view host,
                           uint16_t port, std::u16string_view path) {
  impl_ = std::make_unique<Impl>();
  Impl& d = *impl_;
  WINHTTP_CURRENT_USER_IE_PROXY_CONFIG ie = {};
  std::wstring proxy, bypass;
  if (WinHttpGetIEProxyConfigForCurrentUser(&ie)) {
    proxy = TakeGlobal(ie.lpszProxy);
    bypass = TakeGlobal(ie.lpszProxyBypass);
    TakeGlobal(ie.lpszAutoConfigUrl);
  }
  const std::wstring a = W(agent), h = W(host), p = W(path);
  d.session = WinHttpOpen(a.c_str(),
                          proxy.empty() ? WINHTTP_ACCESS_TYPE_DEFAULT_PROXY
                                        : WINHTTP_ACCESS_TYPE_NAMED_PROXY,
                          proxy.empty() ? WINHTTP_NO_PROXY_NAME : proxy.c_str(),
                          bypass.empty() ? WINHTTP_NO_PROXY_BYPASS : bypass.c_str(), 0);
  if (!d.session) return false;
  DWORD policy = WINHTTP_OPTION_REDIRECT_POLICY_ALWAYS;
  WinHttpSetOption(d.session, WINHTTP_OPTION_REDIRECT_POLICY, &policy, sizeof(policy));
  DWORD http2 = WINHTTP_PROTOCOL_FLAG_HTTP2;
  WinHttpSetOption(d.session, WINHTTP_OPTION_ENABLE_HTTP_PROTOCOL, &http2, sizeof(http2));
  d.connect = WinHttpConnect(d.session, h.c_str(), port, 0);
  if (!d.connect) return false;
  d.request = WinHttpOpenRequest(d.connect, L"GET", p.empty() ? nullptr : p.c_str(), nullptr,
                                 WINHTTP_NO_REFERER, WINHTTP_DEFAULT_ACCEPT_TYPES,
                                 secure ? WINHTTP_FLAG_SECURE : 0);
  if (!d.request) return false;
  if (!WinHttpSendRequest(d.request, WINHTTP_NO_ADDITIONAL_HEADERS, 0, WINHTTP_NO_REQUEST_DATA,
                          0, 0, 0) ||
      !WinHttpReceiveResponse(d.request, nullptr)) {
    return false;
  }
  DWORD code = 0, size = sizeof(code);
  if (!WinHttpQueryHeaders(d.request, WINHTTP_QUERY_STATUS_CODE | WINHTTP_QUERY_FLAG_NUMBER,
                           WINHTTP_HEADER_NAME_BY_INDEX, &code, &size, WINHTTP_NO_HEADER_INDEX)) {
    return false;
  }
  d.status = code;
  return true;
}

uint32_t HttpBlockingGet::Status() const { return impl_ ? impl_->status : 0; }

bool HttpBlockingGet::Header(std::u16string_view name, std::u16string* value) const {
  if (!impl_ || !impl_->request || !value) return false;
  const std::wstring n = W(name);
  DWORD size = 0;
  WinHttpQueryHeaders(impl_->request, WINHTTP_QUERY_CUSTOM, n.c_str(), nullptr, &size,
                      WINHTTP_NO_HEADER_INDEX);
  if (GetLastError() != ERROR_INSUFFICIENT_BUFFER) return false;
  std::wstring text(size / sizeof(wchar_t) + 1, L'\0');
  if (!WinHttpQueryHeaders(impl_->request, WINHTTP_QUERY_CUSTOM, n.c_str(), text.data(), &size,
                           WINHTTP_NO_HEADER_INDEX)) {
    return false;
  }
  text.resize(size / sizeof(wchar_t));
  value->assign(text.begin(), text.end());
  return true;
}

bool HttpBlockingGet::QueryDataAvailable(uint32_t* available) {
  if (!impl_ || !impl_->request || !available) {
    SetLastError(ERROR_WINHTTP_INCORRECT_HANDLE_STATE);
    return false;
  }
  DWORD n = 0;
  if (!WinHttpQueryDataAvailable(impl_->request, &n)) return false;
  *available = n;
  return true;
}

bool HttpBlockingGet::Read(void* buffer, uint32_t size, uint32_t* read) {
  if (!impl_ || !impl_->request || !read) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return false;
  }
  DWORD n = 0;
  if (!WinHttpReadData(impl_->request, buffer, size, &n)) return false;
  *read = n;
  return true;
}

}  // namespace tpcsdk::os
