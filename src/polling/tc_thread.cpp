#include "polling/tc_thread.h"

#include "os/clock.h"
#include "os/thread.h"
#include "support/guard.h"

namespace tpcsdk {

CTC_Thread::~CTC_Thread() {
  std::lock_guard<std::recursive_mutex> lock(m_lockControl);
  RequestStop();
  ReleaseThread(os::kWaitForever);
  os::CloseEvent(m_hStopEvent.exchange(nullptr));
}

void CTC_Thread::SetPriority(int32_t priority) { m_nPriority = priority; }

int32_t CTC_Thread::GetPriority() { return m_nPriority; }

bool CTC_Thread::Start() {
  if (OnOwnThread()) return false;
  std::lock_guard<std::recursive_mutex> lock(m_lockControl);
  if (m_bRunning) return false;
  // The thread of an earlier run may still be finishing its last pass (a stop asked
  // from its own callback does not wait): one body at a time.
  ReleaseThread(os::kWaitForever);
  os::CloseEvent(m_hStopEvent.exchange(os::CreateAutoResetEvent()));
  // The flag goes up before the thread can run, so a stop that comes right after this
  // Start is never undone by the new thread.
  m_bRunning = 1;
  uint32_t id = 0;
  m_hThread = os::CreateSuspendedThread(&CTC_Thread::ThreadEntry, this, &id);
  if (!m_hThread) {
    m_bRunning = 0;
    return false;
  }
  m_nThreadId = id;
  os::SetThreadPriority(m_hThread, m_nPriority);
  os::ResumeThread(m_hThread);
  return true;
}

int CTC_Thread::Stop() {
  if (OnOwnThread()) {
    RequestStop();
    return 1;
  }
  std::lock_guard<std::recursive_mutex> lock(m_lockControl);
  RequestStop();
  if (m_hThread) os::WaitThread(m_hThread, os::kWaitForever);
  return 1;
}

int32_t CTC_Thread::IsRunning() { return m_bRunning; }

void CTC_Thread::Resume() {
  std::lock_guard<std::recursive_mutex> lock(m_lockControl);
  m_bSuspended = false;
  if (m_hThread) os::ResumeThread(m_hThread);
}

void CTC_Thread::Suspend() {
  std::lock_guard<std::recursive_mutex> lock(m_lockControl);
  m_bSuspended = true;
  if (m_hThread) os::SuspendThread(m_hThread);
}

void CTC_Thread::Sleep(uint32_t ms) { os::SleepMs(ms); }

void CTC_Thread::OnStopRequested() {}

void CTC_Thread::Terminate() {
  if (OnOwnThread()) return;
  std::lock_guard<std::recursive_mutex> lock(m_lockControl);
  if (!m_hThread) return;
  os::TerminateThread(m_hThread);
  os::CloseThread(m_hThread);
  m_hThread = nullptr;
}

void CTC_Thread::StopWithTimeout(uint32_t timeoutMs) {
  if (OnOwnThread()) {
    RequestStop();
    return;
  }
  std::lock_guard<std::recursive_mutex> lock(m_lockControl);
  RequestStop();
  if (m_hThread && !os::WaitThread(m_hThread, timeoutMs)) {
    Terminate();
    m_bTimedOut = 1;
  }
}

// The flag is raised by Start before the thread runs; raising it here again could undo
// a stop that came before the thread's first instruction.
void CTC_Thread::OnThreadEnter() {}

void CTC_Thread::OnThreadExit() { SetRunning(0); }

uint32_t CTC_Thread::GetThreadId() { return m_nThreadId; }

void CTC_Thread::ClearRunning() { m_bRunning = 0; }

int CTC_Thread::Run() { return 0; }

void CTC_Thread::SetRunning(int32_t running) { m_bRunning = running; }

bool CTC_Thread::WaitForStopSignal(uint32_t ms) { return os::WaitEvent(m_hStopEvent, ms); }

void CTC_Thread::SuspendPoint() { os::ParkIfSuspended(); }

void CTC_Thread::ThreadEntry(void* self) {
  auto* thread = static_cast<CTC_Thread*>(self);
  thread->m_nBodyThreadId = os::CurrentThreadId();
  thread->OnThreadEnter();
  // Nothing may leave a thread's routine by exception.
  GuardedVoid([&] { thread->Run(); });
  thread->OnThreadExit();
  thread->m_nBodyThreadId = 0;
}

bool CTC_Thread::OnOwnThread() const {
  const uint32_t body = m_nBodyThreadId;
  return body != 0 && body == os::CurrentThreadId();
}

void CTC_Thread::RequestStop() {
  // The flag falls before the signal, so a pass woken by the signal sees it.
  m_bRunning = 0;
  os::SetEvent(m_hStopEvent);
  // A suspended thread could never see the flag.
  if (m_bSuspended.exchange(false) && m_hThread) os::ResumeThread(m_hThread);
  OnStopRequested();
}

void CTC_Thread::ReleaseThread(uint32_t timeoutMs) {
  if (!m_hThread) return;
  os::WaitThread(m_hThread, timeoutMs);
  os::CloseThread(m_hThread);
  m_hThread = nullptr;
}

}  // namespace tpcsdk
