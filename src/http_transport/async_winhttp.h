// The objects of one service call over the HTTP client: a connection and a request,
// driven by the client's notifications while the sender blocks on an event.
#pragma once
#include <atomic>
#include <cstdint>
#include <string>
#include <thread>


namespace tpcsdk {

class DiagnosticLog;
class WinHttpConnection;
class WinHttpRequest;

// Called at the end of SendRequest when set: response text, second text, status, data.
using ResultCallback = void (*)(const std::u16string& response, const std::u16string& extra,
                                int32_t status, uint64_t data);

class CAsyncWinHttp {
 public:
  CAsyncWinHttp() = default;
  virtual ~CAsyncWinHttp();
  CAsyncWinHttp(const CAsyncWinHttp&) = delete;
  CAsyncWinHttp& operator=(const CAsyncWinHttp&) = delete;

  // Opens the process-wide session with agent unless one exists.
  static void EnsureSession(const std::u16string& agent);

  bool Connect(const std::u16string& url);
  // Runs the exchange to its end; true when it ended (see the request for what came).
  bool SendRequest(const std::u16string& headers, const std::string& body,
                   const std::u16string& method);
  // Closes the request handle, waits until the client has let go of it, and frees
  // what was read. Frees a sender blocked in SendRequest.
  void CloseRequest();

  void SetLog(DiagnosticLog* log) { m_pLog = log; }
  // What the exchange left: false when no request was ever made.
  bool HasRequest() const { return m_pRequest != nullptr; }
  // The request once SendRequest has created it; null before.
  const WinHttpRequest* RequestObject() const { return m_pRequest.load(); }
  std::u16string ResponseText() const;
  std::u16string SecondText() const;
  int32_t StatusCode() const;
  // The thread that made the object, the one that sends and then waits on it.
  std::thread::id Owner() const { return m_owner; }

 private:
  ResultCallback m_pfnResult = nullptr;
  uint64_t m_nCallbackData = 0;
  WinHttpConnection* m_pConnection = nullptr;
  std::atomic<WinHttpRequest*> m_pRequest{nullptr};  // also read by observers of the list
  DiagnosticLog* m_pLog = nullptr;
  const std::thread::id m_owner = std::this_thread::get_id();
};

}  // namespace tpcsdk
