#include "tdoc/run_process.h"

#ifdef _WIN32
#include <windows.h>

#include <thread>
#else
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#endif

#include "support/utf.h"

namespace tdoctest {

#ifdef _WIN32

std::string ProgramDirectory() {
  wchar_t buf[4 * MAX_PATH];
  const DWORD n = GetModuleFileNameW(nullptr, buf, 4 * MAX_PATH);
  std::string path = tpcsdk::Utf16ToUtf8(std::u16string(buf, buf + n));
  return path.substr(0, path.find_last_of("\\/"));
}

namespace {

void ReadAll(HANDLE h, std::string* into) {
  char buf[4096];
  DWORD n = 0;
  while (ReadFile(h, buf, sizeof(buf), &n, nullptr) && n > 0) into->append(buf, n);
}

std::wstring Quote(const std::string& arg) {
  const std::u16string w = tpcsdk::Utf8ToUtf16(arg);
  return L"\"" + std::wstring(w.begin(), w.end()) + L"\"";
}

}  // namespace

Outcome Run(const std::string& program, const std::vector<std::string>& args, int timeout_ms) {
  Outcome outcome;
  SECURITY_ATTRIBUTES sa{sizeof(sa), nullptr, TRUE};
  HANDLE out_r, out_w, err_r, err_w;
  CreatePipe(&out_r, &out_w, &sa, 0);
  CreatePipe(&err_r, &err_w, &sa, 0);
  SetHandleInformation(out_r, HANDLE_FLAG_INHERIT, 0);
  SetHandleInformation(err_r, HANDLE_FLAG_INHERIT, 0);
  STARTUPINFOW si{};
  si.cb = sizeof(si);
  si.dwFlags = STARTF_USESTDHANDLES;
  si.hStdOutput = out_w;
  si.hStdError = err_w;
  si.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
  std::wstring cmd = Quote(ProgramDirectory() + "\\" + program + ".exe");
  for (const std::string& a : args) cmd += L" " + Quote(a);
  PROCESS_INFORMATION pi{};
  const BOOL started = CreateProcessW(nullptr, &cmd[0], nullptr, nullptr, TRUE, 0, nullptr, nullptr, &si, &pi);
  CloseHandle(out_w);
  CloseHandle(err_w);
  if (started) {
    std::thread out_reader(ReadAll, out_r, &outcome.out);
    std::thread err_reader(ReadAll, err_r, &outcome.err);
    if (WaitForSingleObject(pi.hProcess, static_cast<DWORD>(timeout_ms)) != WAIT_OBJECT_0) {
      TerminateProcess(pi.hProcess, 255);
      WaitForSingleObject(pi.hProcess, INFINITE);
    } else {
      DWORD code = 0;
      GetExitCodeProcess(pi.hProcess, &code);
      outcome.exit = static_cast<int>(code);
    }
    out_reader.join();
    err_reader.join();
    CloseHandle(pi.hProcess);
    CloseHandle(pi.hThread);
  }
  CloseHandle(out_r);
  CloseHandle(err_r);
  return outcome;
}

Running::Running(const std::string&, const std::vector<std::string>&) {}
Running::~Running() {}
bool Running::WaitForErr(const std::string&, int) { return false; }
void Running::Interrupt() {}
Outcome Running::Finish(int) { return got_; }

#else

std::string ProgramDirectory() {
  char buf[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", buf, sizeof(buf) - 1);
  std::string path(buf, n > 0 ? static_cast<size_t>(n) : 0);
  return path.substr(0, path.rfind('/'));
}

namespace {

long long Start(const std::string& program, const std::vector<std::string>& args, int* out, int* err) {
  int o[2], e[2];
  if (pipe(o) != 0 || pipe(e) != 0) return -1;
  const std::string path = ProgramDirectory() + "/" + program;
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(o[1], 1);
    dup2(e[1], 2);
    close(o[0]);
    close(o[1]);
    close(e[0]);
    close(e[1]);
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(path.c_str()));
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(path.c_str(), argv.data());
    _exit(127);
  }
  close(o[1]);
  close(e[1]);
  *out = o[0];
  *err = e[0];
  return pid;
}

// Reads from both pipes until both end or the deadline passes; false on the deadline.
bool Drain(int out, int err, std::string* out_text, std::string* err_text, int timeout_ms,
           const std::string& until_err = std::string()) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  bool out_open = out >= 0, err_open = err >= 0;
  while (out_open || err_open) {
    if (!until_err.empty() && err_text->find(until_err) != std::string::npos) return true;
    const int left = static_cast<int>(
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count());
    if (left <= 0) return false;
    pollfd fds[2] = {{out_open ? out : -1, POLLIN, 0}, {err_open ? err : -1, POLLIN, 0}};
    if (poll(fds, 2, left) <= 0) continue;
    char buf[4096];
    for (int i = 0; i < 2; ++i) {
      if (!(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
      const ssize_t n = read(fds[i].fd, buf, sizeof(buf));
      if (n > 0) {
        (i == 0 ? out_text : err_text)->append(buf, static_cast<size_t>(n));
      } else {
        (i == 0 ? out_open : err_open) = false;
      }
    }
  }
  return until_err.empty() || err_text->find(until_err) != std::string::npos;
}

int Reap(long long pid, bool kill_it) {
  if (kill_it) kill(static_cast<pid_t>(pid), SIGKILL);
  int status = 0;
  waitpid(static_cast<pid_t>(pid), &status, 0);
  if (kill_it) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

Outcome Run(const std::string& program, const std::vector<std::string>& args, int timeout_ms) {
  Outcome outcome;
  int out = -1, err = -1;
  const long long pid = Start(program, args, &out, &err);
  if (pid < 0) return outcome;
  const bool ended = Drain(out, err, &outcome.out, &outcome.err, timeout_ms);
  close(out);
  close(err);
  outcome.exit = Reap(pid, !ended);
  return outcome;
}

Running::Running(const std::string& program, const std::vector<std::string>& args) {
  pid_ = Start(program, args, &out_, &err_);
}

Running::~Running() {
  if (pid_ > 0) Reap(pid_, true);
  if (out_ >= 0) close(out_);
  if (err_ >= 0) close(err_);
}

bool Running::WaitForErr(const std::string& text, int timeout_ms) {
  return pid_ > 0 && Drain(out_, err_, &got_.out, &got_.err, timeout_ms, text);
}

void Running::Interrupt() {
  if (pid_ > 0) kill(static_cast<pid_t>(pid_), SIGINT);
}

Outcome Running::Finish(int timeout_ms) {
  if (pid_ <= 0) return got_;
  const bool ended = Drain(out_, err_, &got_.out, &got_.err, timeout_ms);
  got_.exit = Reap(pid_, !ended);
  pid_ = 0;
  return got_;
}

#endif

}  // namespace tdoctest
