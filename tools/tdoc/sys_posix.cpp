// The POSIX side of tdoc's system seam.
#include <dlfcn.h>
#include <netdb.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <json/json.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#include "http_text.h"
#include "sys.h"

namespace tdoc::sys {

std::vector<std::string> Arguments(int argc, char** argv) { return std::vector<std::string>(argv, argv + argc); }

const char* ModuleFileName() { return "libtpcsdk.so"; }
char PathSeparator() { return '/'; }

std::string ExecutableDirectory() {
  char buf[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", buf, sizeof(buf) - 1);
  if (n <= 0) return ".";
  std::string path(buf, static_cast<size_t>(n));
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash);
}

void* LoadModule(const std::string& path, std::string* error) {
  void* module = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!module) {
    const char* why = dlerror();
    *error = why ? why : "dlopen failed";
  }
  return module;
}

void* ModuleSymbol(void* module, const char* name) { return dlsym(module, name); }

void UnloadModule(void* module) { dlclose(module); }
bool LoadedModuleFileIsLocked() { return false; }

std::string LoadedModulePath(void* module) {
  void* symbol = dlsym(module, "TDC_GetTDOCPlatform");
  Dl_info info{};
  if (!symbol || !dladdr(symbol, &info) || !info.dli_fname) return std::string();
  char resolved[PATH_MAX];
  return realpath(info.dli_fname, resolved) ? std::string(resolved) : std::string(info.dli_fname);
}

void HardExit(int code) { _exit(code); }

std::FILE* SetAsideStandardOutput() {
  std::fflush(stdout);
  const int kept = dup(STDOUT_FILENO);
  if (kept < 0) return stdout;
  std::FILE* out = fdopen(kept, "w");
  if (!out || dup2(STDERR_FILENO, STDOUT_FILENO) < 0) {
    if (out) std::fclose(out); else close(kept);
    return stdout;
  }
  return out;
}

std::string GetEnv(const char* name) {
  const char* v = std::getenv(name);
  return v ? std::string(v) : std::string();
}

void SetEnv(const char* name, const std::string& value) { setenv(name, value.c_str(), 1); }

void OnInterrupt(std::function<void()> handler) {
  // Every thread started from now on inherits the blocked signals; one thread of
  // ours takes them with sigwait, so the handler runs as ordinary code.
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  std::thread([set, handler] {
    int sig = 0;
    sigwait(&set, &sig);
    handler();
  }).detach();
}

namespace {


bool EqualsNoCase(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    char x = a[i], y = b[i];
    if (x >= 'A' && x <= 'Z') x = static_cast<char>(x - 'A' + 'a');
    if (y >= 'A' && y <= 'Z') y = static_cast<char>(y - 'A' + 'a');
    if (x != y) return false;
  }
  return true;
}

std::string TrimBackslashes(std::string key) {
  while (!key.empty() && key.back() == '\\') key.pop_back();
  return key;
}

std::string HiveFile(Hive hive) {
  const std::string dir = GetEnv("TPCSDK_REGISTRY_DIR");
  const char* name = hive == Hive::CurrentUser ? "user.json" : "machine.json";
  if (!dir.empty()) return dir + "/" + name;
  if (hive == Hive::LocalMachine) return "/etc/tpcsdk/machine.json";
  const std::string xdg = GetEnv("XDG_CONFIG_HOME");
  if (!xdg.empty() && xdg[0] == '/') return xdg + "/tpcsdk/user.json";
  return GetEnv("HOME") + "/.config/tpcsdk/user.json";
}

}  // namespace

HttpReply HttpExchange(const std::string& base_url, const std::string& method,
                       const std::string& target, const std::string& body, int timeout_ms) {
  HttpReply reply;
  std::string host, port;
  if (!SplitBaseUrl(base_url, &host, &port)) {
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
  int s = -1;
  for (addrinfo* a = res; a; a = a->ai_next) {
    s = socket(a->ai_family, a->ai_socktype, a->ai_protocol);
    if (s < 0) continue;
    timeval t{timeout_ms / 1000, (timeout_ms % 1000) * 1000};
    setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, &t, sizeof(t));
    setsockopt(s, SOL_SOCKET, SO_SNDTIMEO, &t, sizeof(t));
    if (connect(s, a->ai_addr, a->ai_addrlen) == 0) break;
    close(s);
    s = -1;
  }
  freeaddrinfo(res);
  if (s < 0) {
    reply.error = "cannot connect to " + host + ":" + port;
    return reply;
  }
  const std::string request = RequestText(method, target, host, port, body);
  size_t sent = 0;
  while (sent < request.size()) {
    const ssize_t n = send(s, request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
    if (n <= 0) break;
    sent += static_cast<size_t>(n);
  }
  std::string in;
  char buf[8192];
  for (;;) {
    const ssize_t n = recv(s, buf, sizeof(buf), 0);
    if (n <= 0) break;
    in.append(buf, static_cast<size_t>(n));
  }
  close(s);
  return ReadReply(in, sent == request.size(), base_url);
}

bool ReadRegistryString(Hive hive, const std::string& key, const std::string& value,
                        std::string* out) {
  std::ifstream file(HiveFile(hive), std::ios::binary);
  if (!file) return false;
  std::stringstream text;
  text << file.rdbuf();
  Json::Value root;
  Json::CharReaderBuilder builder;
  std::string errors;
  std::istringstream stream(text.str());
  if (!Json::parseFromStream(builder, stream, &root, &errors) || !root.isObject()) return false;
  const std::string wanted = TrimBackslashes(key);
  for (const std::string& name : root.getMemberNames()) {
    if (!EqualsNoCase(TrimBackslashes(name), wanted) || !root[name].isObject()) continue;
    for (const std::string& v : root[name].getMemberNames()) {
      if (EqualsNoCase(v, value) && root[name][v].isString()) {
        *out = root[name][v].asString();
        return true;
      }
    }
  }
  return false;
}

std::string DescribeHive(Hive hive) {
  return (hive == Hive::CurrentUser ? "current user (" : "local machine (") + HiveFile(hive) + ")";
}

bool UserRegistryKeyExists(const std::string&) { return false; }
void DeleteUserRegistryKey(const std::string&) {}

bool StartEmulator(const std::string& program, int timeout_ms, Child* child, std::string* url,
                   std::string* error) {
  int fds[2];
  if (pipe(fds) != 0) {
    *error = "pipe failed";
    return false;
  }
  const pid_t pid = fork();
  if (pid < 0) {
    *error = "fork failed";
    close(fds[0]);
    close(fds[1]);
    return false;
  }
  if (pid == 0) {
    dup2(fds[1], 1);
    close(fds[0]);
    close(fds[1]);
    execl(program.c_str(), program.c_str(), "--port", "0", "--print-url", static_cast<char*>(nullptr));
    _exit(127);
  }
  close(fds[1]);
  child->id = pid;
  std::string line;
  const int64_t deadline = timeout_ms;
  int64_t waited = 0;
  while (line.find('\n') == std::string::npos && waited < deadline) {
    pollfd p{fds[0], POLLIN, 0};
    const int r = poll(&p, 1, 100);
    waited += 100;
    if (r <= 0) continue;
    char c[256];
    const ssize_t n = read(fds[0], c, sizeof(c));
    if (n <= 0) break;
    line.append(c, static_cast<size_t>(n));
  }
  close(fds[0]);
  if (line.find('\n') == std::string::npos) {
    *error = "the emulator " + program + " did not print its URL";
    StopChild(child);
    return false;
  }
  *url = line.substr(0, line.find('\n'));
  return true;
}

void StopChild(Child* child) {
  if (child->id <= 0) return;
  kill(static_cast<pid_t>(child->id), SIGTERM);
  int status = 0;
  waitpid(static_cast<pid_t>(child->id), &status, 0);
  child->id = 0;
}

bool CopyFileTo(const std::string& from, const std::string& to) {
  std::ifstream in(from, std::ios::binary);
  std::ofstream out(to, std::ios::binary | std::ios::trunc);
  if (!in || !out) return false;
  out << in.rdbuf();
  return static_cast<bool>(out);
}

}  // namespace tdoc::sys
