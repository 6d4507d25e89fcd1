// Classes over the HTTP client's three kinds of handle: one session for the process,
// and a connection and a request for each service call.
#pragma once
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>

#include "os/http.h"
#include "support/event.h"

namespace tpcsdk {

class DiagnosticLog;

class WinHttpHandle {
 public:
  WinHttpHandle() = default;
  virtual ~WinHttpHandle();
  WinHttpHandle(const WinHttpHandle&) = delete;
  WinHttpHandle& operator=(const WinHttpHandle&) = delete;
  os::HttpHandle Handle() const { return m_hHandle; }

 protected:
  os::HttpHandle m_hHandle = nullptr;
};

// The process-wide session: opened with the first request's agent, closed only when
// the module is unloaded from a live process.
class WinHttpSession final : public WinHttpHandle {
 public:
  // The session, or null before the first Create.
  static WinHttpSession* Instance();
  // Opens the process-wide session with agent unless one exists.
  static void Create(const std::u16string& agent);
  // Closes the process-wide session at the module's end, once every client (and so
  // every request) is gone.
  static void CloseInstance();
  bool Open(const std::u16string& agent);

 private:
  std::u16string m_wsAgent;
};

class WinHttpConnection final : public WinHttpHandle {
 public:
  bool Open(const std::u16string& url);
  const os::HttpUrlParts& Components() const { return m_components; }
  const std::u16string& Url() const { return m_wsUrl; }
  const std::u16string& RawQuery() const { return m_wsRawQuery; }

 private:
  os::HttpUrlParts m_components;
  std::u16string m_wsUrl;
  std::u16string m_wsRawQuery;
};

class WinHttpRequest final : public WinHttpHandle {
 public:
  WinHttpRequest() = default;
  ~WinHttpRequest() override;

  bool Open(WinHttpConnection* connection, const std::u16string& method);
  // Sends and blocks until the exchange ends or the handle is closed. True means
  // only that it ended; the status code and the response text tell what came. A
  // request closed before its send sends nothing and ends at once (status 0).
  bool Send(const std::u16string& headers, const std::string& body);
  // The closing step: close the handle, wait until the client has let go of the
  // request, free what was read. Frees a sender blocked in Send, and stops a send
  // that has not started yet.
  void Close();
  // Close in two steps, so that a stop of many requests closes every handle before it
  // waits for any: BeginClose closes the handle, FinishClose does the rest of Close.
  // Between the two the caller keeps the request alive and runs no other closer.
  void BeginClose();
  void FinishClose();
  // Waits, at most `bound`, until the reply's status has arrived; true when it has.
  bool WaitForStatus(std::chrono::milliseconds bound);

  // One notification of the exchange; the client never runs two at once.
  int32_t OnCallback(uint32_t status, void* information, uint32_t length);

  // The text of the reply: its body when one came, otherwise its raw headers.
  std::u16string ResponseText() const;
  // The same text in UTF-8, as a trip through UTF-16 would leave it.
  std::string ResponseUtf8() const;
  const std::u16string& SecondText() const { return m_wsSecond; }
  int32_t StatusCode() const { return m_nStatusCode.load(); }
  void SetLog(DiagnosticLog* log) { m_pLog = log; }

 private:
  int32_t HandleNotification(uint32_t status, void* information, uint32_t length);
  int32_t QueryResponseHeaders();
  int32_t QueryData();
  void ReadChunk();
  void GatherChunk(char* piece, uint32_t length);
  void FinishBody();
  void FreeBuffers();
  // The exchange has ended (or will never run): frees the sender.
  void Complete();
  static bool Completed(void* self);

  uint32_t m_nChunkSize = 0;
  uint32_t m_nTotalSize = 0;
  std::string m_readBuffer;       // the body so far
  char* m_pPendingPiece = nullptr;  // lent to the client until its read completes
  std::u16string m_wsResponse;  // the raw headers
  std::string m_sBody;          // the body, up to a zero byte, in UTF-8
  bool m_bBodyText = false;     // the body, not the headers, is the reply's text
  std::u16string m_wsSecond;
  std::atomic<int32_t> m_nStatusCode{0};  // also read by waiters while in flight
  std::mutex m_statusLock;                // with m_statusArrived: the status came
  std::condition_variable m_statusArrived;
  WinHttpConnection* m_pConnection = nullptr;
  Event m_completed;
  std::atomic<bool> m_bCompleted{false};  // set with m_completed, never reset
  bool m_bOutOfMemory = false;            // a notification ran out of memory
  Event m_closed;
  DiagnosticLog* m_pLog = nullptr;
  // The sender (Open, Send) and the closers meet under m_closeLock: the handle, the
  // buffers and the two flags change only under it, and never during the exchange.
  std::mutex m_closeLock;
  bool m_bContextGiven = false;  // the send handed this object to the client
  bool m_bStopped = false;       // closed: a send that has not started never will
  bool m_bCloseIssued = false;   // BeginClose closed the handle; FinishClose waits
};

}  // namespace tpcsdk
