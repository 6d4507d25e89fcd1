// Asynchronous HTTP client seam with WinHTTP's semantics.
//
// Design note
// -----------
// The transport classes above this seam are written once, against WinHTTP's model:
// three kinds of opaque handle (session, connection, request), calls that return
// true/false (or a handle/null) and leave an error number for HttpLastError(), and one
// status callback per handle that drives the exchange. This header is that model with
// our own names; every numeric value (notifications, options, flags, error numbers,
// query levels, call numbers in a request error) is WinHTTP's, so log lines print the
// same hex values on both platforms.
//
// Windows: a thin pass-through to WinHTTP (the session must be opened with
// kHttpFlagAsync). Our callback type differs from WinHTTP's only in its integer types,
// so one trampoline forwards each notification to the callback registered for the
// handle (or inherited from its parent when the handle was created).
//
// Linux: libcurl's multi interface, one event thread per session. Every curl object is
// touched only on that thread, and every notification of the session is delivered on
// it, in the order the exchange produces them. The contract it keeps:
//   - The context value is the one given to HttpSendRequest (or kHttpOptionContextValue);
//     notifications before it carry 0, which the transport's callback drops.
//   - One operation at a time per request: send, receive response, query data
//     available, read data. Each completes with exactly one notification
//     (SENDREQUEST_COMPLETE, HEADERS_AVAILABLE, DATA_AVAILABLE, READ_COMPLETE) or one
//     REQUEST_ERROR {call number, error}. A request's notifications never overlap.
//   - DATA_AVAILABLE reports what has arrived and waits for at least one byte; 0 only
//     at the end of the body. READ_COMPLETE reports what was copied (0 at the end).
//   - Received body bytes wait in a bounded buffer; the transfer is paused while it is
//     full, so a slow reader does not grow memory.
//   - Redirects are followed as WinHTTP does by default: up to 10, never from HTTPS to
//     HTTP (that 3xx is handed to the caller), 301/302 turn POST into GET, 303 turns
//     any verb but HEAD into GET, 307/308 keep verb and body. Each hop is announced by
//     a REDIRECT notification carrying the new URL.
//   - Timeouts are WinHTTP's defaults: resolve unlimited, connect 60 s (TCP and TLS
//     handshake), send 30 s, receive 30 s without a byte arriving (the wait for the
//     headers and each wait for body bytes). A paused transfer does not time out. The
//     timeout options change them; the wait for the headers follows
//     kHttpOptionReceiveResponseTimeout, as WinHTTP's does.
//   - TLS 1.0 to 1.2 only (kHttpOptionSecureProtocols, default 0xA80), subject to the
//     system's TLS library policy. Certificate checks follow kHttpOptionSecurityFlags:
//     IGNORE_UNKNOWN_CA turns peer verification off (date included), IGNORE_CERT_CN_INVALID
//     turns the name check off; a refused certificate gives SECURE_FAILURE (a uint32_t
//     of WinHTTP's certificate flags) before the REQUEST_ERROR 12175. HTTP/1.1 only.
//     Cookies are kept per session.
//   - The proxy is fixed when the session opens: HttpGetUserProxyConfig() reads
//     https_proxy / http_proxy / no_proxy once, in WinHTTP's proxy-list form, and
//     kHttpAccessTypeNamedProxy uses it; the default access type means no proxy. The
//     environment is never read again by the transfers.
//   - Closing a request cancels what runs on it: a pending operation ends with
//     REQUEST_ERROR {call, 12017}, then HANDLE_CLOSING. Every handle with a callback
//     gets exactly one HANDLE_CLOSING, after its last other notification; a parent's
//     comes after all its children's. No notification follows HANDLE_CLOSING, and the
//     backend never touches a caller's read buffer after it.
//   - Handles are ids checked against a table, so a stale or made-up handle fails with
//     kHttpErrorInvalidHandle instead of touching freed memory.
//   - When the module ends (dlclose or exit), handles still open are closed without
//     notifications and every session's event thread is joined.
//
// URL cracking (HttpCrackUrl) gives WinHttpCrackUrl's answers on both platforms: scheme
// number, host, port (80/443 by default), user, password, path, extra info (query and
// fragment). With decode set, %XX escapes become the 16-bit unit XX (no UTF-8 folding,
// as WinHTTP does), and each component must fit a buffer of `capacity` characters
// including its terminator, as with WinHttpCrackUrl's caller-supplied buffers.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace tpcsdk::os {

using HttpHandle = void*;

// Status notifications (WINHTTP_CALLBACK_STATUS_*). The same bits select them in the
// notification mask of HttpSetStatusCallback.
constexpr uint32_t kHttpStatusResolvingName = 0x00000001;
constexpr uint32_t kHttpStatusNameResolved = 0x00000002;
constexpr uint32_t kHttpStatusConnectingToServer = 0x00000004;
constexpr uint32_t kHttpStatusConnectedToServer = 0x00000008;
constexpr uint32_t kHttpStatusSendingRequest = 0x00000010;
constexpr uint32_t kHttpStatusRequestSent = 0x00000020;
constexpr uint32_t kHttpStatusReceivingResponse = 0x00000040;
constexpr uint32_t kHttpStatusResponseReceived = 0x00000080;
constexpr uint32_t kHttpStatusClosingConnection = 0x00000100;
constexpr uint32_t kHttpStatusConnectionClosed = 0x00000200;
constexpr uint32_t kHttpStatusHandleCreated = 0x00000400;
constexpr uint32_t kHttpStatusHandleClosing = 0x00000800;
constexpr uint32_t kHttpStatusRedirect = 0x00004000;
constexpr uint32_t kHttpStatusIntermediateResponse = 0x00008000;
constexpr uint32_t kHttpStatusSecureFailure = 0x00010000;
constexpr uint32_t kHttpStatusHeadersAvailable = 0x00020000;
constexpr uint32_t kHttpStatusDataAvailable = 0x00040000;
constexpr uint32_t kHttpStatusReadComplete = 0x00080000;
constexpr uint32_t kHttpStatusWriteComplete = 0x00100000;
constexpr uint32_t kHttpStatusRequestError = 0x00200000;
constexpr uint32_t kHttpStatusSendRequestComplete = 0x00400000;
constexpr uint32_t kHttpAllNotifications = 0xFFFFFFFF;

// The call a REQUEST_ERROR names (API_*).
constexpr uintptr_t kHttpApiReceiveResponse = 1;
constexpr uintptr_t kHttpApiQueryDataAvailable = 2;
constexpr uintptr_t kHttpApiReadData = 3;
constexpr uintptr_t kHttpApiWriteData = 4;
constexpr uintptr_t kHttpApiSendRequest = 5;

// What a REQUEST_ERROR points to; the layout of WINHTTP_ASYNC_RESULT.
struct HttpAsyncResult {
  uintptr_t call;  // kHttpApi*
  uint32_t error;  // kHttpError*
};

// Error numbers (Windows and WinHTTP error codes).
constexpr uint32_t kHttpErrorInvalidHandle = 6;
constexpr uint32_t kHttpErrorNotEnoughMemory = 8;
constexpr uint32_t kHttpErrorInvalidParameter = 87;
constexpr uint32_t kHttpErrorInsufficientBuffer = 122;
constexpr uint32_t kHttpErrorTimeout = 12002;
constexpr uint32_t kHttpErrorInternal = 12004;
constexpr uint32_t kHttpErrorInvalidUrl = 12005;
constexpr uint32_t kHttpErrorUnrecognizedScheme = 12006;
constexpr uint32_t kHttpErrorNameNotResolved = 12007;
constexpr uint32_t kHttpErrorInvalidOption = 12009;
constexpr uint32_t kHttpErrorOptionNotSettable = 12011;
constexpr uint32_t kHttpErrorOperationCancelled = 12017;
constexpr uint32_t kHttpErrorIncorrectHandleType = 12018;
constexpr uint32_t kHttpErrorIncorrectHandleState = 12019;
constexpr uint32_t kHttpErrorCannotConnect = 12029;
constexpr uint32_t kHttpErrorConnectionError = 12030;
constexpr uint32_t kHttpErrorHeaderNotFound = 12150;
constexpr uint32_t kHttpErrorInvalidServerResponse = 12152;
constexpr uint32_t kHttpErrorRedirectFailed = 12156;
constexpr uint32_t kHttpErrorSecureFailure = 12175;

// HttpOpen access types and flags.
constexpr uint32_t kHttpAccessTypeDefaultProxy = 0;
constexpr uint32_t kHttpAccessTypeNoProxy = 1;
constexpr uint32_t kHttpAccessTypeNamedProxy = 3;
constexpr uint32_t kHttpFlagAsync = 0x10000000;

// HttpOpenRequest flags.
constexpr uint32_t kHttpFlagEscapePercent = 0x00000004;
constexpr uint32_t kHttpFlagEscapeDisable = 0x00000040;  // object name sent as given
constexpr uint32_t kHttpFlagEscapeDisableQuery = 0x00000080;
constexpr uint32_t kHttpFlagSecure = 0x00800000;
// Not a flag of the wire: the request's sender will wait for its exchange in
// HttpDriveUntil (see there). Other notifications and closing keep the contract.
constexpr uint32_t kHttpFlagSenderDrives = 0x40000000;

// HttpAddRequestHeaders modifiers.
constexpr uint32_t kHttpAddReqFlagAddIfNew = 0x10000000;
constexpr uint32_t kHttpAddReqFlagAdd = 0x20000000;
constexpr uint32_t kHttpAddReqFlagReplace = 0x80000000;

// Options (WINHTTP_OPTION_*). Timeouts are int32 milliseconds, 0 or -1 meaning none.
constexpr uint32_t kHttpOptionResolveTimeout = 2;
constexpr uint32_t kHttpOptionConnectTimeout = 3;
constexpr uint32_t kHttpOptionSendTimeout = 5;
constexpr uint32_t kHttpOptionReceiveTimeout = 6;
constexpr uint32_t kHttpOptionReceiveResponseTimeout = 7;  // the wait for the headers
constexpr uint32_t kHttpOptionSecurityFlags = 31;
constexpr uint32_t kHttpOptionContextValue = 45;
constexpr uint32_t kHttpOptionSecureProtocols = 84;
constexpr uint32_t kHttpOptionRedirectPolicy = 88;

constexpr uint32_t kHttpSecurityFlagIgnoreUnknownCa = 0x00000100;
constexpr uint32_t kHttpSecurityFlagIgnoreCertWrongUsage = 0x00000200;
constexpr uint32_t kHttpSecurityFlagIgnoreCertCnInvalid = 0x00001000;
constexpr uint32_t kHttpSecurityFlagIgnoreCertDateInvalid = 0x00002000;

constexpr uint32_t kHttpSecureProtocolTls1 = 0x00000080;
constexpr uint32_t kHttpSecureProtocolTls1_1 = 0x00000200;
constexpr uint32_t kHttpSecureProtocolTls1_2 = 0x00000800;
constexpr uint32_t kHttpSecureProtocolTls1_3 = 0x00002000;

constexpr uint32_t kHttpRedirectPolicyNever = 0;
constexpr uint32_t kHttpRedirectPolicyDisallowHttpsToHttp = 1;
constexpr uint32_t kHttpRedirectPolicyAlways = 2;

// HttpQueryHeaders info levels (WINHTTP_QUERY_*).
constexpr uint32_t kHttpQueryContentType = 1;
constexpr uint32_t kHttpQueryContentLength = 5;
constexpr uint32_t kHttpQueryVersion = 18;
constexpr uint32_t kHttpQueryStatusCode = 19;
constexpr uint32_t kHttpQueryStatusText = 20;
constexpr uint32_t kHttpQueryRawHeaders = 21;
constexpr uint32_t kHttpQueryRawHeadersCrlf = 22;
constexpr uint32_t kHttpQueryLocation = 33;
constexpr uint32_t kHttpQueryCustom = 65535;
constexpr uint32_t kHttpQueryFlagNumber = 0x20000000;

// Scheme numbers of HttpCrackUrl.
constexpr uint32_t kHttpSchemeHttp = 1;
constexpr uint32_t kHttpSchemeHttps = 2;

// The status callback: the handle, its context value, the notification, and the
// notification's information (see the contract above for what each points to):
//   DATA_AVAILABLE: uint32_t byte count; READ_COMPLETE: the caller's buffer, length =
//   bytes read; REQUEST_ERROR: HttpAsyncResult; HANDLE_CLOSING: the HttpHandle;
//   REDIRECT: the new URL, NUL-terminated UTF-16, length in characters.
using HttpStatusCallback = void (*)(HttpHandle handle, uintptr_t context, uint32_t status,
                                    void* info, uint32_t info_length);

// The error number left by the last failing call on this thread.
uint32_t HttpLastError();

// The user's proxy settings in WinHTTP's proxy-list form ("http=h:p;https=h:p") with a
// bypass list ("a;b;<local>"). Windows: the user's configuration. Linux: https_proxy,
// http_proxy and no_proxy (lower case first, then upper case). Empty strings when none.
struct HttpProxyConfig {
  std::u16string proxy;
  std::u16string bypass;
};
bool HttpGetUserProxyConfig(HttpProxyConfig* config);

// Opens a session. The Linux backend supports the asynchronous mode only.
HttpHandle HttpOpen(std::u16string_view agent, uint32_t access_type, std::u16string_view proxy,
                    std::u16string_view bypass, uint32_t flags);
HttpHandle HttpConnect(HttpHandle session, std::u16string_view server, uint16_t port);
// object_name is the path followed by the extra info; verb empty means "GET".
HttpHandle HttpOpenRequest(HttpHandle connect, std::u16string_view verb,
                           std::u16string_view object_name, uint32_t flags);
// Installs the callback for the notifications in `mask`; handles created later under
// this one inherit it. A null callback removes it.
bool HttpSetStatusCallback(HttpHandle handle, HttpStatusCallback callback, uint32_t mask);
bool HttpSetOption(HttpHandle handle, uint32_t option, const void* buffer, uint32_t length);
// `length` in: the buffer's size in bytes; out: the bytes written, or needed on
// kHttpErrorInsufficientBuffer.
bool HttpQueryOption(HttpHandle handle, uint32_t option, void* buffer, uint32_t* length);
// Header lines separated by CR LF.
bool HttpAddRequestHeaders(HttpHandle request, std::u16string_view headers, uint32_t modifiers);
// Starts the exchange. The body is copied; total_length must equal optional_length.
bool HttpSendRequest(HttpHandle request, std::u16string_view headers, const void* optional,
                     uint32_t optional_length, uint32_t total_length, uintptr_t context);
bool HttpReceiveResponse(HttpHandle request);
// WinHttpQueryHeaders: text levels write UTF-16 with a terminator, `length` in bytes;
// with kHttpQueryFlagNumber a uint32_t. A null buffer asks for the size
// (kHttpErrorInsufficientBuffer). `name` is for kHttpQueryCustom; `index` may be null.
bool HttpQueryHeaders(HttpHandle request, uint32_t info_level, const char16_t* name, void* buffer,
                      uint32_t* length, uint32_t* index);
bool HttpQueryDataAvailable(HttpHandle request);
// The buffer must stay valid until READ_COMPLETE, REQUEST_ERROR or HANDLE_CLOSING.
bool HttpReadData(HttpHandle request, void* buffer, uint32_t bytes_to_read);
bool HttpCloseHandle(HttpHandle handle);
// For a request opened with kHttpFlagSenderDrives, after its send: where the backend
// can, the calling thread runs the request's exchange itself, delivering its
// notifications, until done(arg) is true (checked after each batch of notifications,
// under the backend's lock: it must only read) or the request's HANDLE_CLOSING has
// been delivered. A close from another thread wakes it. False, at once, when the
// backend does not do this for the request; the caller then waits its own way.
bool HttpDriveUntil(HttpHandle request, bool (*done)(void*), void* arg);

// The parts of a URL as WinHttpCrackUrl reports them.
struct HttpUrlParts {
  uint32_t scheme = 0;  // kHttpSchemeHttp / kHttpSchemeHttps
  std::u16string scheme_name;
  std::u16string host;
  uint16_t port = 0;
  std::u16string user;
  std::u16string password;
  std::u16string path;
  std::u16string extra;  // "?query#fragment", as it stands after the path
};
constexpr uint32_t kHttpUrlComponentCapacity = 1024;
// False with kHttpErrorUnrecognizedScheme, kHttpErrorInvalidUrl or
// kHttpErrorInsufficientBuffer (a component does not fit `capacity` characters with
// its terminator).
bool HttpCrackUrl(std::u16string_view url, bool decode, HttpUrlParts* parts,
                  uint32_t capacity = kHttpUrlComponentCapacity);

}  // namespace tpcsdk::os
