// The objects of one service call over the HTTP client: a connection and a request,
// driven by the client's notifications while the sender blocks on an event.
#pragma once
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace tpcsdk {

class DiagnosticLog;
class WinHttpConnection;
class WinHttpRequest;

// Called at the end of SendRequest when set: response text, second text, status, data.
using ResultCallback = void (*)(const std::u16string& response, const std::u16string& extra,
                                int32_t status, uint64_t data);

// One thread, the sender, runs Connect and SendRequest and reads the reply; any other
// thread may run CloseRequest and WaitForStatus while the sender is at work. The owner
// deletes the object only when no other thread can reach it any more.
class CAsyncWinHttp {
 public:
  CAsyncWinHttp();
  virtual ~CAsyncWinHttp();
  CAsyncWinHttp(const CAsyncWinHttp&) = delete;
  CAsyncWinHttp& operator=(const CAsyncWinHttp&) = delete;

  // Opens the process-wide session with agent unless one exists.
  static void EnsureSession(const std::u16string& agent);
  // True once the process-wide session exists.
  static bool HasSession();

  bool Connect(const std::u16string& url);
  // Runs the exchange to its end; true when it ended (see the request for what came).
  // After a CloseRequest nothing is sent, and the exchange ends at once with status 0.
  bool SendRequest(const std::u16string& headers, const std::string& body,
                   const std::u16string& method);
  // Closes the request handle, waits until the client has let go of it, and frees
  // what was read. Frees a sender blocked in SendRequest; a sender that has not sent
  // yet never will.
  void CloseRequest();
  // CloseRequest in two steps (see WinHttpRequest::BeginClose), for a stop of many.
  void BeginClose();
  void FinishClose();
  // Waits, at most `bound`, until the reply's status has arrived; true when it has.
  bool WaitForStatus(std::chrono::milliseconds bound);

  void SetLog(DiagnosticLog* log) { m_pLog = log; }
  // What the exchange left: false when no request was ever made.
  bool HasRequest() const;
  std::u16string ResponseText() const;
  // The response text in UTF-8, for a reader of the reply that takes UTF-8 anyway.
  std::string ResponseUtf8() const;
  std::u16string SecondText() const;
  int32_t StatusCode() const;
  // The thread that made the object, the one that sends and then waits on it.
  std::thread::id Owner() const { return m_owner; }

 private:
  WinHttpRequest* Request() const;

  ResultCallback m_pfnResult = nullptr;
  uint64_t m_nCallbackData = 0;
  std::unique_ptr<WinHttpConnection> m_pConnection;
  std::unique_ptr<WinHttpRequest> m_pRequest;  // set once, under m_lock
  WinHttpRequest* m_pClosing = nullptr;  // what BeginClose closed, for FinishClose
  DiagnosticLog* m_pLog = nullptr;
  mutable std::mutex m_lock;  // the request pointer and the stopped flag
  bool m_bStopped = false;    // CloseRequest ran, perhaps before there was a request
  const std::thread::id m_owner = std::this_thread::get_id();
};

}  // namespace tpcsdk
