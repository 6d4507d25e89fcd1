// CTC_Thread: the library's thread wrapper, a thread with a stop signal and a running
// flag. Derived classes give the body (Run); the body runs while IsRunning is true.
//
// Start, Stop, Terminate, StopWithTimeout and the destructor may be called from any
// number of host threads: they are serialised, and a Start waits until the thread of
// an earlier run has left its body, so two bodies never run at once. Called on the
// thread itself (from a host callback run by the body), Stop only asks the body to
// end and returns, and Start refuses, since waiting there would wait for itself.
//
// Differences on Linux (see os/thread.h): Suspend holds the thread at its next pass
// rather than at once, Terminate waits for the body to return rather than ending it,
// and the priority is a nice value.
#pragma once
#include <atomic>
#include <cstdint>
#include <mutex>

namespace tpcsdk {

namespace os {
struct ThreadHandle;
struct EventHandle;
}  // namespace os

class CTC_Thread {
 public:
  CTC_Thread() = default;
  CTC_Thread(const CTC_Thread&) = delete;
  CTC_Thread& operator=(const CTC_Thread&) = delete;

  // Signals the stop, clears the flag and waits without limit for the body to end.
  virtual ~CTC_Thread();
  // Takes effect at the next Start.
  virtual void SetPriority(int32_t priority);
  virtual int32_t GetPriority();
  // Makes a new thread and runs Run on it. False when the thread runs already, when
  // called on the thread itself, or when no thread could be made.
  virtual bool Start();
  // Asks the body to end and waits without limit until it has. 1.
  virtual int Stop();
  virtual int32_t IsRunning();
  virtual void Resume();
  virtual void Suspend();
  virtual void Sleep(uint32_t ms);
  // Called on every stop path between the request and the wait.
  virtual void OnStopRequested();
  // Ends the thread by force where the platform can (see above) and drops it.
  virtual void Terminate();
  // As Stop, but waits at most timeoutMs, then ends the thread by force.
  virtual void StopWithTimeout(uint32_t timeoutMs);
  virtual void OnThreadEnter();
  virtual void OnThreadExit();
  virtual uint32_t GetThreadId();
  virtual void ClearRunning();
  virtual int Run();
  virtual void SetRunning(int32_t running);

  // True once StopWithTimeout had to end the thread by force.
  int32_t TimedOut() const { return m_bTimedOut; }

 protected:
  // Waits up to ms for the stop signal; true when it came. The body's pass waits here,
  // so a stop ends the wait at once.
  bool WaitForStopSignal(uint32_t ms);
  // Holds the thread here while it is suspended (Linux; Windows suspends at once).
  void SuspendPoint();

 private:
  static void ThreadEntry(void* self);
  bool OnOwnThread() const;
  // The stop request of Stop, StopWithTimeout and the destructor.
  void RequestStop();
  // Waits for the body of the current thread to end and releases its handle.
  void ReleaseThread(uint32_t timeoutMs);

  os::ThreadHandle* m_hThread = nullptr;
  std::atomic<uint32_t> m_nThreadId{0};
  // The thread that is inside ThreadEntry now; 0 outside it. Ids are reused, so this
  // is cleared as the body ends.
  std::atomic<uint32_t> m_nBodyThreadId{0};
  std::atomic<int32_t> m_bRunning{0};
  std::atomic<os::EventHandle*> m_hStopEvent{nullptr};
  std::atomic<bool> m_bSuspended{false};
  std::atomic<int32_t> m_bTimedOut{0};
  std::atomic<int32_t> m_nPriority{0};
  // Serialises the start and stop paths of host threads.
  std::recursive_mutex m_lockControl;
};

}  // namespace tpcsdk
