// The HTTP seam on Windows: WinHTTP itself. Each call forwards to its WinHTTP
// counterpart; the only state kept here is, per handle, the seam callback that the
// trampoline forwards to and the copy of a request body that WinHTTP reads after the
// send call has returned.
#include "os/http.h"

#include <windows.h>
#include <winhttp.h>

#include <cstddef>
#include <mutex>
#include <string>
#include <unordered_map>

namespace tpcsdk::os {
namespace {

// Our numbers are WinHTTP's; the compiler checks every one that the header defines.
static_assert(kHttpStatusResolvingName == WINHTTP_CALLBACK_STATUS_RESOLVING_NAME);
static_assert(kHttpStatusNameResolved == WINHTTP_CALLBACK_STATUS_NAME_RESOLVED);
static_assert(kHttpStatusConnectingToServer == WINHTTP_CALLBACK_STATUS_CONNECTING_TO_SERVER);
static_assert(kHttpStatusConnectedToServer == WINHTTP_CALLBACK_STATUS_CONNECTED_TO_SERVER);
static_assert(kHttpStatusSendingRequest == WINHTTP_CALLBACK_STATUS_SENDING_REQUEST);
static_assert(kHttpStatusRequestSent == WINHTTP_CALLBACK_STATUS_REQUEST_SENT);
static_assert(kHttpStatusReceivingResponse == WINHTTP_CALLBACK_STATUS_RECEIVING_RESPONSE);
static_assert(kHttpStatusResponseReceived == WINHTTP_CALLBACK_STATUS_RESPONSE_RECEIVED);
static_assert(kHttpStatusClosingConnection == WINHTTP_CALLBACK_STATUS_CLOSING_CONNECTION);
static_assert(kHttpStatusConnectionClosed == WINHTTP_CALLBACK_STATUS_CONNECTION_CLOSED);
static_assert(kHttpStatusHandleCreated == WINHTTP_CALLBACK_STATUS_HANDLE_CREATED);
static_assert(kHttpStatusHandleClosing == WINHTTP_CALLBACK_STATUS_HANDLE_CLOSING);
static_assert(kHttpStatusRedirect == WINHTTP_CALLBACK_STATUS_REDIRECT);
static_assert(kHttpStatusIntermediateResponse == WINHTTP_CALLBACK_STATUS_INTERMEDIATE_RESPONSE);
static_assert(kHttpStatusSecureFailure == WINHTTP_CALLBACK_STATUS_SECURE_FAILURE);
static_assert(kHttpStatusHeadersAvailable == WINHTTP_CALLBACK_STATUS_HEADERS_AVAILABLE);
static_assert(kHttpStatusDataAvailable == WINHTTP_CALLBACK_STATUS_DATA_AVAILABLE);
static_assert(kHttpStatusReadComplete == WINHTTP_CALLBACK_STATUS_READ_COMPLETE);
static_assert(kHttpStatusWriteComplete == WINHTTP_CALLBACK_STATUS_WRITE_COMPLETE);
static_assert(kHttpStatusRequestError == WINHTTP_CALLBACK_STATUS_REQUEST_ERROR);
static_assert(kHttpStatusSendRequestComplete == WINHTTP_CALLBACK_STATUS_SENDREQUEST_COMPLETE);
static_assert(kHttpApiReceiveResponse == API_RECEIVE_RESPONSE);
static_assert(kHttpApiQueryDataAvailable == API_QUERY_DATA_AVAILABLE);
static_assert(kHttpApiReadData == API_READ_DATA);
static_assert(kHttpApiWriteData == API_WRITE_DATA);
static_assert(kHttpApiSendRequest == API_SEND_REQUEST);
static_assert(sizeof(HttpAsyncResult) == sizeof(WINHTTP_ASYNC_RESULT));
static_assert(offsetof(HttpAsyncResult, call) == offsetof(WINHTTP_ASYNC_RESULT, dwResult));
static_assert(offsetof(HttpAsyncResult, error) == offsetof(WINHTTP_ASYNC_RESULT, dwError));
static_assert(kHttpErrorInvalidHandle == ERROR_INVALID_HANDLE);
static_assert(kHttpErrorNotEnoughMemory == ERROR_NOT_ENOUGH_MEMORY);
static_assert(kHttpErrorInvalidParameter == ERROR_INVALID_PARAMETER);
static_assert(kHttpErrorInsufficientBuffer == ERROR_INSUFFICIENT_BUFFER);
static_assert(kHttpErrorTimeout == ERROR_WINHTTP_TIMEOUT);
static_assert(kHttpErrorInternal == ERROR_WINHTTP_INTERNAL_ERROR);
static_assert(kHttpErrorInvalidUrl == ERROR_WINHTTP_INVALID_URL);
static_assert(kHttpErrorUnrecognizedScheme == ERROR_WINHTTP_UNRECOGNIZED_SCHEME);
static_assert(kHttpErrorNameNotResolved == ERROR_WINHTTP_NAME_NOT_RESOLVED);
static_assert(kHttpErrorInvalidOption == ERROR_WINHTTP_INVALID_OPTION);
static_assert(kHttpErrorOptionNotSettable == ERROR_WINHTTP_OPTION_NOT_SETTABLE);
static_assert(kHttpErrorOperationCancelled == ERROR_WINHTTP_OPERATION_CANCELLED);
static_assert(kHttpErrorIncorrectHandleType == ERROR_WINHTTP_INCORRECT_HANDLE_TYPE);
static_assert(kHttpErrorIncorrectHandleState == ERROR_WINHTTP_INCORRECT_HANDLE_STATE);
static_assert(kHttpErrorCannotConnect == ERROR_WINHTTP_CANNOT_CONNECT);
static_assert(kHttpErrorConnectionError == ERROR_WINHTTP_CONNECTION_ERROR);
static_assert(kHttpErrorHeaderNotFound == ERROR_WINHTTP_HEADER_NOT_FOUND);
static_assert(kHttpErrorInvalidServerResponse == ERROR_WINHTTP_INVALID_SERVER_RESPONSE);
static_assert(kHttpErrorRedirectFailed == ERROR_WINHTTP_REDIRECT_FAILED);
static_assert(kHttpErrorSecureFailure == ERROR_WINHTTP_SECURE_FAILURE);
static_assert(kHttpAccessTypeDefaultProxy == WINHTTP_ACCESS_TYPE_DEFAULT_PROXY);
static_assert(kHttpAccessTypeNoProxy == WINHTTP_ACCESS_TYPE_NO_PROXY);
static_assert(kHttpAccessTypeNamedProxy == WINHTTP_ACCESS_TYPE_NAMED_PROXY);
static_assert(kHttpFlagAsync == WINHTTP_FLAG_ASYNC);
static_assert(kHttpFlagEscapePercent == WINHTTP_FLAG_ESCAPE_PERCENT);
static_assert(kHttpFlagEscapeDisable == WINHTTP_FLAG_ESCAPE_DISABLE);
static_assert(kHttpFlagEscapeDisableQuery == WINHTTP_FLAG_ESCAPE_DISABLE_QUERY);
static_assert(kHttpFlagSecure == WINHTTP_FLAG_SECURE);
static_assert(kHttpAddReqFlagAddIfNew == WINHTTP_ADDREQ_FLAG_ADD_IF_NEW);
static_assert(kHttpAddReqFlagAdd == WINHTTP_ADDREQ_FLAG_ADD);
static_assert(kHttpAddReqFlagReplace == WINHTTP_ADDREQ_FLAG_REPLACE);
static_assert(kHttpOptionResolveTimeout == WINHTTP_OPTION_RESOLVE_TIMEOUT);
static_assert(kHttpOptionConnectTimeout == WINHTTP_OPTION_CONNECT_TIMEOUT);
static_assert(kHttpOptionSendTimeout == WINHTTP_OPTION_SEND_TIMEOUT);
static_assert(kHttpOptionReceiveTimeout == WINHTTP_OPTION_RECEIVE_TIMEOUT);
static_assert(kHttpOptionReceiveResponseTimeout == WINHTTP_OPTION_RECEIVE_RESPONSE_TIMEOUT);
static_assert(kHttpOptionSecurityFlags == WINHTTP_OPTION_SECURITY_FLAGS);
static_assert(kHttpOptionContextValue == WINHTTP_OPTION_CONTEXT_VALUE);
static_assert(kHttpOptionSecureProtocols == WINHTTP_OPTION_SECURE_PROTOCOLS);
static_assert(kHttpOptionRedirectPolicy == WINHTTP_OPTION_REDIRECT_POLICY);
static_assert(kHttpSecurityFlagIgnoreUnknownCa == SECURITY_FLAG_IGNORE_UNKNOWN_CA);
static_assert(kHttpSecurityFlagIgnoreCertWrongUsage == SECURITY_FLAG_IGNORE_CERT_WRONG_USAGE);
static_assert(kHttpSecurityFlagIgnoreCertCnInvalid == SECURITY_FLAG_IGNORE_CERT_CN_INVALID);
static_assert(kHttpSecurityFlagIgnoreCertDateInvalid == SECURITY_FLAG_IGNORE_CERT_DATE_INVALID);
static_assert(kHttpSecureProtocolTls1 == WINHTTP_FLAG_SECURE_PROTOCOL_TLS1);
static_assert(kHttpSecureProtocolTls1_1 == WINHTTP_FLAG_SECURE_PROTOCOL_TLS1_1);
static_assert(kHttpSecureProtocolTls1_2 == WINHTTP_FLAG_SECURE_PROTOCOL_TLS1_2);
static_assert(kHttpRedirectPolicyNever == WINHTTP_OPTION_REDIRECT_POLICY_NEVER);
static_assert(kHttpRedirectPolicyDisallowHttpsToHttp ==
              WINHTTP_OPTION_REDIRECT_POLICY_DISALLOW_HTTPS_TO_HTTP);
static_assert(kHttpRedirectPolicyAlways == WINHTTP_OPTION_REDIRECT_POLICY_ALWAYS);
static_assert(kHttpQueryContentType == WINHTTP_QUERY_CONTENT_TYPE);
static_assert(kHttpQueryContentLength == WINHTTP_QUERY_CONTENT_LENGTH);
static_assert(kHttpQueryVersion == WINHTTP_QUERY_VERSION);
static_assert(kHttpQueryStatusCode == WINHTTP_QUERY_STATUS_CODE);
static_assert(kHttpQueryStatusText == WINHTTP_QUERY_STATUS_TEXT);
static_assert(kHttpQueryRawHeaders == WINHTTP_QUERY_RAW_HEADERS);
static_assert(kHttpQueryRawHeadersCrlf == WINHTTP_QUERY_RAW_HEADERS_CRLF);
static_assert(kHttpQueryLocation == WINHTTP_QUERY_LOCATION);
static_assert(kHttpQueryCustom == WINHTTP_QUERY_CUSTOM);
static_assert(kHttpQueryFlagNumber == WINHTTP_QUERY_FLAG_NUMBER);
static_assert(kHttpSchemeHttp == INTERNET_SCHEME_HTTP);
static_assert(kHttpSchemeHttps == INTERNET_SCHEME_HTTPS);

// What the trampoline needs for one handle.
struct Entry {
  HttpStatusCallback callback = nullptr;
  uint32_t mask = 0;
  bool hooked = false;  // the trampoline is installed on the handle
  std::string body;     // the request body, alive until the handle closes
};

struct Registry {
  std::mutex mu;
  std::unordered_map<HINTERNET, Entry> entries;
};

// Never destroyed: WinHTTP's threads may deliver a closing notification while the
// process runs its static destructors.
Registry& Reg() {
  static Registry* r = new Registry;
  return *r;
}

void CALLBACK Trampoline(HINTERNET handle, DWORD_PTR context, DWORD status, LPVOID info,
                         DWORD length) {
  HttpStatusCallback callback = nullptr;
  uint32_t mask = 0;
  {
    std::lock_guard<std::mutex> lock(Reg().mu);
    auto it = Reg().entries.find(handle);
    if (it == Reg().entries.end()) return;
    callback = it->second.callback;
    mask = it->second.mask;
  }
  if (callback && (status & mask) != 0) {
    callback(handle, static_cast<uintptr_t>(context), static_cast<uint32_t>(status), info,
             static_cast<uint32_t>(length));
  }
  if (status == WINHTTP_CALLBACK_STATUS_HANDLE_CLOSING) {
    // The last notification of this handle: its record and body copy go with it.
    std::lock_guard<std::mutex> lock(Reg().mu);
    Reg().entries.erase(handle);
  }
}

bool Hook(HINTERNET handle) {
  return WinHttpSetStatusCallback(handle, Trampoline, WINHTTP_CALLBACK_FLAG_ALL_NOTIFICATIONS,
                                  0) != WINHTTP_INVALID_STATUS_CALLBACK;
}

// A child handle takes over its parent's callback, as WinHTTP's own inheritance does.
void Inherit(HINTERNET parent, HINTERNET child) {
  std::lock_guard<std::mutex> lock(Reg().mu);
  auto it = Reg().entries.find(parent);
  if (it == Reg().entries.end() || !it->second.callback) return;
  Entry e;
  e.callback = it->second.callback;
  e.mask = it->second.mask;
  e.hooked = true;  // WinHTTP copies the parent's trampoline to the child
  Reg().entries[child] = e;
}

std::wstring W(std::u16string_view s) { return std::wstring(s.begin(), s.end()); }
const wchar_t* OrNull(const std::wstring& s) { return s.empty() ? nullptr : s.c_str(); }

std::u16string TakeGlobal(LPWSTR s) {
  std::u16string out;
  if (s) {
    for (const wchar_t* p = s; *p; ++p) out.push_back(static_cast<char16_t>(*p));
    GlobalFree(s);
  }
  return out;
}

}  // namespace

uint32_t HttpLastError() { return static_cast<uint32_t>(GetLastError()); }

bool HttpGetUserProxyConfig(HttpProxyConfig* config) {
  if (!config) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return false;
  }
  WINHTTP_CURRENT_USER_IE_PROXY_CONFIG ie = {};
  if (!WinHttpGetIEProxyConfigForCurrentUser(&ie)) return false;
  config->proxy = TakeGlobal(ie.lpszProxy);
  config->bypass = TakeGlobal(ie.lpszProxyBypass);
  TakeGlobal(ie.lpszAutoConfigUrl);
  return true;
}

HttpHandle HttpOpen(std::u16string_view agent, uint32_t access_type, std::u16string_view proxy,
                    std::u16string_view bypass, uint32_t flags) {
  const std::wstring a = W(agent), p = W(proxy), b = W(bypass);
  return WinHttpOpen(OrNull(a), access_type, p.empty() ? WINHTTP_NO_PROXY_NAME : p.c_str(),
                     b.empty() ? WINHTTP_NO_PROXY_BYPASS : b.c_str(), flags);
}

HttpHandle HttpConnect(HttpHandle session, std::u16string_view server, uint16_t port) {
  const std::wstring s = W(server);
  HINTERNET h = WinHttpConnect(session, s.c_str(), port, 0);
  if (h) Inherit(session, h);
  return h;
}

HttpHandle HttpOpenRequest(HttpHandle connect, std::u16string_view verb,
                           std::u16string_view object_name, uint32_t flags) {
  const std::wstring v = W(verb), o = W(object_name);
  HINTERNET h = WinHttpOpenRequest(connect, OrNull(v), OrNull(o), nullptr, WINHTTP_NO_REFERER,
                                   WINHTTP_DEFAULT_ACCEPT_TYPES, flags & ~kHttpFlagSenderDrives);
  if (h) Inherit(connect, h);
  return h;
}

bool HttpSetStatusCallback(HttpHandle handle, HttpStatusCallback callback, uint32_t mask) {
  if (!handle) {
    SetLastError(ERROR_INVALID_HANDLE);
    return false;
  }
  bool hooked;
  {
    std::lock_guard<std::mutex> lock(Reg().mu);
    Entry& e = Reg().entries[handle];
    e.callback = callback;
    e.mask = mask;
    hooked = e.hooked;
  }
  // The trampoline stays installed once it is there: it must see the closing
  // notification to drop the handle's record.
  if (!hooked) {
    if (!Hook(handle)) {
      std::lock_guard<std::mutex> lock(Reg().mu);
      Reg().entries.erase(handle);
      return false;
    }
    std::lock_guard<std::mutex> lock(Reg().mu);
    Reg().entries[handle].hooked = true;
  }
  return true;
}

bool HttpSetOption(HttpHandle handle, uint32_t option, const void* buffer, uint32_t length) {
  return WinHttpSetOption(handle, option, const_cast<void*>(buffer), length) != FALSE;
}

bool HttpQueryOption(HttpHandle handle, uint32_t option, void* buffer, uint32_t* length) {
  if (!length) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return false;
  }
  DWORD len = *length;
  const BOOL ok = WinHttpQueryOption(handle, option, buffer, &len);
  *length = len;
  return ok != FALSE;
}

bool HttpAddRequestHeaders(HttpHandle request, std::u16string_view headers, uint32_t modifiers) {
  const std::wstring h = W(headers);
  return WinHttpAddRequestHeaders(request, h.c_str(), static_cast<DWORD>(h.size()), modifiers) !=
         FALSE;
}

bool HttpSendRequest(HttpHandle request, std::u16string_view headers, const void* optional,
                     uint32_t optional_length, uint32_t total_length, uintptr_t context) {
  if (!request || (optional_length > 0 && !optional)) {
    SetLastError(request ? ERROR_INVALID_PARAMETER : ERROR_INVALID_HANDLE);
    return false;
  }
  // WinHTTP reads the body after this call returns; keep a copy until the closing.
  const void* body = nullptr;
  bool hook = false;
  {
    std::lock_guard<std::mutex> lock(Reg().mu);
    Entry& e = Reg().entries[request];
    e.body.assign(static_cast<const char*>(optional), optional_length);
    body = optional_length ? e.body.data() : nullptr;
    hook = !e.hooked;
  }
  if (hook) {
    if (!Hook(request)) {
      std::lock_guard<std::mutex> lock(Reg().mu);
      Reg().entries.erase(request);
      return false;
    }
    std::lock_guard<std::mutex> lock(Reg().mu);
    Reg().entries[request].hooked = true;
  }
  const std::wstring h = W(headers);
  return WinHttpSendRequest(request, h.empty() ? WINHTTP_NO_ADDITIONAL_HEADERS : h.c_str(),
                            static_cast<DWORD>(h.size()), const_cast<void*>(body),
                            optional_length, total_length, context) != FALSE;
}

bool HttpReceiveResponse(HttpHandle request) {
  return WinHttpReceiveResponse(request, nullptr) != FALSE;
}

bool HttpQueryHeaders(HttpHandle request, uint32_t info_level, const char16_t* name, void* buffer,
                      uint32_t* length, uint32_t* index) {
  if (!length) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return false;
  }
  std::wstring n;
  if (name) {
    for (const char16_t* p = name; *p; ++p) n.push_back(static_cast<wchar_t>(*p));
  }
  DWORD len = *length;
  DWORD idx = index ? *index : 0;
  const BOOL ok = WinHttpQueryHeaders(request, info_level,
                                      name ? n.c_str() : WINHTTP_HEADER_NAME_BY_INDEX, buffer,
                                      &len, index ? &idx : WINHTTP_NO_HEADER_INDEX);
  *length = len;
  if (index) *index = idx;
  return ok != FALSE;
}

bool HttpQueryDataAvailable(HttpHandle request) {
  return WinHttpQueryDataAvailable(request, nullptr) != FALSE;
}

bool HttpReadData(HttpHandle request, void* buffer, uint32_t bytes_to_read) {
  return WinHttpReadData(request, buffer, bytes_to_read, nullptr) != FALSE;
}

bool HttpCloseHandle(HttpHandle handle) { return WinHttpCloseHandle(handle) != FALSE; }

// WinHTTP runs every exchange on its own threads.
bool HttpDriveUntil(HttpHandle, bool (*)(void*), void*) { return false; }

bool HttpCrackUrl(std::u16string_view url, bool decode, HttpUrlParts* parts, uint32_t capacity) {
  if (!parts || capacity == 0) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return false;
  }
  const std::wstring u = W(url);
  std::wstring scheme(capacity, L'\0'), host(capacity, L'\0'), user(capacity, L'\0'),
      pass(capacity, L'\0'), path(capacity, L'\0'), extra(capacity, L'\0');
  URL_COMPONENTS uc = {};
  uc.dwStructSize = sizeof(uc);
  uc.lpszScheme = scheme.data();
  uc.dwSchemeLength = capacity;
  uc.lpszHostName = host.data();
  uc.dwHostNameLength = capacity;
  uc.lpszUserName = user.data();
  uc.dwUserNameLength = capacity;
  uc.lpszPassword = pass.data();
  uc.dwPasswordLength = capacity;
  uc.lpszUrlPath = path.data();
  uc.dwUrlPathLength = capacity;
  uc.lpszExtraInfo = extra.data();
  uc.dwExtraInfoLength = capacity;
  if (!WinHttpCrackUrl(u.c_str(), static_cast<DWORD>(u.size()), decode ? ICU_DECODE : 0, &uc)) {
    return false;
  }
  auto take = [](const wchar_t* p, DWORD n) {
    std::u16string s;
    s.reserve(n);
    for (DWORD i = 0; i < n; ++i) s.push_back(static_cast<char16_t>(p[i]));
    return s;
  };
  parts->scheme = static_cast<uint32_t>(uc.nScheme);
  parts->scheme_name = take(uc.lpszScheme, uc.dwSchemeLength);
  parts->host = take(uc.lpszHostName, uc.dwHostNameLength);
  parts->port = uc.nPort;
  parts->user = take(uc.lpszUserName, uc.dwUserNameLength);
  parts->password = take(uc.lpszPassword, uc.dwPasswordLength);
  parts->path = take(uc.lpszUrlPath, uc.dwUrlPathLength);
  parts->extra = take(uc.lpszExtraInfo, uc.dwExtraInfoLength);
  return true;
}

}  // namespace tpcsdk::os
