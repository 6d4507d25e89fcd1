// The Windows side of tdoc's system seam.
#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>
#include <shellapi.h>

#include <io.h>

#include <cstdlib>
#include <fstream>
#include <mutex>

#include "host.h"
#include "http_text.h"
#include "sys.h"

namespace tdoc::sys {
namespace {

std::wstring W(const std::string& utf8) {
  const WString w = Wide(utf8);
  return std::wstring(w.begin(), w.end());
}
std::string U8(const wchar_t* text) { return Narrow(text); }

std::function<void()>* g_interrupt = nullptr;
std::once_flag g_interrupt_once;

BOOL WINAPI CtrlHandler(DWORD type) {
  if (type != CTRL_C_EVENT && type != CTRL_BREAK_EVENT && type != CTRL_CLOSE_EVENT) return FALSE;
  // Runs on a thread the system starts for the event.
  if (g_interrupt) std::call_once(g_interrupt_once, *g_interrupt);
  return TRUE;
}


}  // namespace

std::vector<std::string> Arguments(int argc, char** argv) {
  int count = 0;
  wchar_t** wide = CommandLineToArgvW(GetCommandLineW(), &count);
  if (!wide) return std::vector<std::string>(argv, argv + argc);
  std::vector<std::string> args;
  for (int i = 0; i < count; ++i) args.push_back(U8(wide[i]));
  LocalFree(wide);
  return args;
}

const char* ModuleFileName() { return "TPCSDK64.dll"; }
char PathSeparator() { return '\\'; }

std::string ExecutableDirectory() {
  wchar_t buf[MAX_PATH * 4];
  const DWORD n = GetModuleFileNameW(nullptr, buf, static_cast<DWORD>(sizeof(buf) / sizeof(buf[0])));
  if (n == 0) return ".";
  std::string path = U8(buf);
  const size_t slash = path.find_last_of("\\/");
  return slash == std::string::npos ? "." : path.substr(0, slash);
}

void* LoadModule(const std::string& path, std::string* error) {
  HMODULE module = LoadLibraryExW(W(path).c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
  if (!module) *error = "LoadLibrary failed with error " + std::to_string(GetLastError());
  return reinterpret_cast<void*>(module);
}

void UnloadModule(void* module) { FreeLibrary(static_cast<HMODULE>(module)); }
bool LoadedModuleFileIsLocked() { return true; }

void* ModuleSymbol(void* module, const char* name) {
  return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(module), name));
}

std::string LoadedModulePath(void* module) {
  wchar_t buf[MAX_PATH * 4];
  const DWORD n = GetModuleFileNameW(static_cast<HMODULE>(module), buf,
                                     static_cast<DWORD>(sizeof(buf) / sizeof(buf[0])));
  return n == 0 ? std::string() : U8(buf);
}

void HardExit(int code) { TerminateProcess(GetCurrentProcess(), static_cast<UINT>(code)); for (;;) {} }

std::FILE* SetAsideStandardOutput() {
  std::fflush(stdout);
  const int kept = _dup(_fileno(stdout));
  if (kept < 0) return stdout;
  std::FILE* out = _fdopen(kept, "w");
  if (!out || _dup2(_fileno(stderr), _fileno(stdout)) != 0) {
    if (out) std::fclose(out); else _close(kept);
    return stdout;
  }
  SetStdHandle(STD_OUTPUT_HANDLE, GetStdHandle(STD_ERROR_HANDLE));
  return out;
}

std::string GetEnv(const char* name) {
  wchar_t buf[32768];
  const DWORD n = GetEnvironmentVariableW(W(name).c_str(), buf, 32768);
  return n == 0 || n >= 32768 ? std::string() : U8(buf);
}

void SetEnv(const char* name, const std::string& value) {
  SetEnvironmentVariableW(W(name).c_str(), W(value).c_str());
  _putenv_s(name, value.c_str());
}

void OnInterrupt(std::function<void()> handler) {
  g_interrupt = new std::function<void()>(std::move(handler));
  SetConsoleCtrlHandler(CtrlHandler, TRUE);
}

bool SocketsReady() {
  static const bool ready = [] {
    WSADATA data;
    return WSAStartup(MAKEWORD(2, 2), &data) == 0;
  }();
  return ready;
}

// A loopback port nobody listens on right now (0 when none can be had).
int FreeLoopbackPort() {
  if (!SocketsReady()) return 0;
  SOCKET s = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  if (s == INVALID_SOCKET) return 0;
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  int len = sizeof(a);
  int port = 0;
  if (bind(s, reinterpret_cast<sockaddr*>(&a), sizeof(a)) == 0 &&
      getsockname(s, reinterpret_cast<sockaddr*>(&a), &len) == 0)
    port = ntohs(a.sin_port);
  closesocket(s);
  return port;
}

HttpReply HttpExchange(const std::string& base_url, const std::string& method,
                       const std::string& target, const std::string& body, int timeout_ms) {
  HttpReply reply;
  std::string host, port;
  if (!SocketsReady() || !SplitBaseUrl(base_url, &host, &port)) {
    reply.error = "not a plain http://host:port URL: " + base_url;
    return reply;
  }
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* res = nullptr;
  if (getaddrinfo(host.c_str(), port.c_str(), &hints, &res) != 0 || !res) {
    reply.error = "cannot resolve " + host;
    return reply;
  }
  SOCKET s = INVALID_SOCKET;
  for (addrinfo* a = res; a; a = a->ai_next) {
    s = socket(a->ai_family, a->ai_socktype, a->ai_protocol);
    if (s == INVALID_SOCKET) continue;
    DWORD t = static_cast<DWORD>(timeout_ms);
    setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&t), sizeof(t));
    setsockopt(s, SOL_SOCKET, SO_SNDTIMEO, reinterpret_cast<const char*>(&t), sizeof(t));
    if (connect(s, a->ai_addr, static_cast<int>(a->ai_addrlen)) == 0) break;
    closesocket(s);
    s = INVALID_SOCKET;
  }
  freeaddrinfo(res);
  if (s == INVALID_SOCKET) {
    reply.error = "cannot connect to " + host + ":" + port;
    return reply;
  }
  const std::string request = RequestText(method, target, host, port, body);
  size_t sent = 0;
  while (sent < request.size()) {
    const int n = send(s, request.data() + sent, static_cast<int>(request.size() - sent), 0);
    if (n <= 0) break;
    sent += static_cast<size_t>(n);
  }
  std::string in;
  char buf[8192];
  for (;;) {
    const int n = recv(s, buf, sizeof(buf), 0);
    if (n <= 0) break;
    in.append(buf, static_cast<size_t>(n));
  }
  closesocket(s);
  return ReadReply(in, sent == request.size(), base_url);
}

bool ReadRegistryString(Hive hive, const std::string& key, const std::string& value,
                        std::string* out) {
  HKEY root = hive == Hive::CurrentUser ? HKEY_CURRENT_USER : HKEY_LOCAL_MACHINE;
  wchar_t buf[4096];
  DWORD size = sizeof(buf);
  if (RegGetValueW(root, W(key).c_str(), W(value).c_str(), RRF_RT_REG_SZ, nullptr, buf, &size) !=
      ERROR_SUCCESS)
    return false;
  *out = U8(buf);
  return true;
}

std::string DescribeHive(Hive hive) {
  return hive == Hive::CurrentUser ? "HKEY_CURRENT_USER" : "HKEY_LOCAL_MACHINE";
}

bool UserRegistryKeyExists(const std::string& key) {
  HKEY h = nullptr;
  if (RegOpenKeyExW(HKEY_CURRENT_USER, W(key).c_str(), 0, KEY_READ, &h) != ERROR_SUCCESS) return false;
  RegCloseKey(h);
  return true;
}

void DeleteUserRegistryKey(const std::string& key) {
  RegDeleteTreeW(HKEY_CURRENT_USER, W(key).c_str());
  RegDeleteKeyW(HKEY_CURRENT_USER, W(key).c_str());
}

bool StartEmulator(const std::string& program, int timeout_ms, Child* child, std::string* url,
                   std::string* error) {
  // The port is chosen here, so the emulator can be found by asking it even where its
  // first line cannot be read: under wine a native program does not write into a
  // Windows pipe.
  const int port = FreeLoopbackPort();
  const std::string base = "http://127.0.0.1:" + std::to_string(port);
  SECURITY_ATTRIBUTES sa{sizeof(sa), nullptr, TRUE};
  HANDLE read_end = nullptr, write_end = nullptr;
  if (port == 0 || !CreatePipe(&read_end, &write_end, &sa, 0)) {
    *error = port == 0 ? "no free loopback port" : "CreatePipe failed";
    return false;
  }
  SetHandleInformation(read_end, HANDLE_FLAG_INHERIT, 0);
  STARTUPINFOW si{};
  si.cb = sizeof(si);
  si.dwFlags = STARTF_USESTDHANDLES;
  si.hStdOutput = write_end;
  si.hStdError = GetStdHandle(STD_ERROR_HANDLE);
  si.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
  PROCESS_INFORMATION pi{};
  std::wstring cmd = L"\"" + W(program) + L"\" --port " + W(std::to_string(port)) + L" --print-url";
  if (!CreateProcessW(nullptr, &cmd[0], nullptr, nullptr, TRUE, 0, nullptr, nullptr, &si, &pi)) {
    *error = "cannot start " + program + " (error " + std::to_string(GetLastError()) + ")";
    CloseHandle(read_end);
    CloseHandle(write_end);
    return false;
  }
  CloseHandle(write_end);
  CloseHandle(pi.hThread);
  child->handle = pi.hProcess;
  child->id = pi.dwProcessId;
  std::string line;
  bool pipe_open = true, answered = false;
  const ULONGLONG deadline = GetTickCount64() + static_cast<ULONGLONG>(timeout_ms);
  while (line.find('\n') == std::string::npos && !answered && GetTickCount64() < deadline) {
    DWORD avail = 0;
    if (pipe_open && !PeekNamedPipe(read_end, nullptr, 0, nullptr, &avail, nullptr)) pipe_open = false;
    if (avail > 0) {
      char c[256];
      DWORD n = 0;
      if (ReadFile(read_end, c, avail < sizeof(c) ? avail : sizeof(c), &n, nullptr) && n > 0) line.append(c, n);
      continue;
    }
    if (!pipe_open || WaitForSingleObject(pi.hProcess, 50) == WAIT_OBJECT_0) {
      answered = HttpExchange(base, "GET", "/_emulator/log?since=0", "", 500).status == 200;
      if (!answered) Sleep(50);
    }
  }
  CloseHandle(read_end);
  if (answered) {
    *url = base;
    return true;
  }
  if (line.find('\n') == std::string::npos) {
    *error = "the emulator " + program + " did not start listening on " + base;
    StopChild(child);
    return false;
  }
  *url = line.substr(0, line.find_first_of("\r\n"));
  return true;
}

void StopChild(Child* child) {
  if (!child->handle) return;
  TerminateProcess(static_cast<HANDLE>(child->handle), 0);
  WaitForSingleObject(static_cast<HANDLE>(child->handle), 5000);
  CloseHandle(static_cast<HANDLE>(child->handle));
  child->handle = nullptr;
  child->id = 0;
}

bool CopyFileTo(const std::string& from, const std::string& to) {
  return CopyFileW(W(from).c_str(), W(to).c_str(), FALSE) != 0;
}

}  // namespace tdoc::sys
