#include "os/thread.h"

#include <windows.h>

#include <new>

namespace tpcsdk::os {

namespace {

struct StartRecord {
  ThreadRoutine routine;
  void* arg;
  HMODULE module;  // the reference this thread holds on its module, or null
  HANDLE ended;    // the thread's own handle of the routine's end signal
};

// The module that holds this code, with one more reference on it; null when the code
// is part of the executable, which is never unloaded.
HMODULE ReferenceOwnModule() {
  HMODULE module = nullptr;
  if (!GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                          reinterpret_cast<LPCWSTR>(&ReferenceOwnModule), &module))
    return nullptr;
  if (module == GetModuleHandleW(nullptr)) return nullptr;
  return module;
}

DWORD WINAPI Entry(LPVOID param) {
  const StartRecord start = *static_cast<StartRecord*>(param);
  delete static_cast<StartRecord*>(param);
  start.routine(start.arg);
  // Waiters wait for this signal, not for the thread's exit: a thread's exit needs the
  // loader lock, which is held while the module's unload hook waits for the worker.
  ::SetEvent(start.ended);
  CloseHandle(start.ended);
  // Dropping the module's reference and ending the thread in one call means no
  // instruction of this module runs after the reference is gone.
  if (start.module) FreeLibraryAndExitThread(start.module, 0);
  return 0;
}

}  // namespace

struct ThreadHandle {
  HANDLE thread;
  HANDLE ended;  // set when the routine has returned
};

struct EventHandle {
  HANDLE event;
};

ThreadHandle* CreateSuspendedThread(ThreadRoutine routine, void* arg, std::uint32_t* threadId) {
  auto* handle = new (std::nothrow) ThreadHandle{nullptr, nullptr};
  auto* start = new (std::nothrow) StartRecord{routine, arg, nullptr, nullptr};
  if (handle) handle->ended = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  if (!handle || !start || !handle->ended ||
      !DuplicateHandle(GetCurrentProcess(), handle->ended, GetCurrentProcess(), &start->ended, 0,
                       FALSE, DUPLICATE_SAME_ACCESS)) {
    if (handle && handle->ended) CloseHandle(handle->ended);
    delete handle;
    delete start;
    return nullptr;
  }
  start->module = ReferenceOwnModule();
  DWORD id = 0;
  handle->thread = CreateThread(nullptr, 0, &Entry, start, CREATE_SUSPENDED, &id);
  if (!handle->thread) {
    if (start->module) FreeLibrary(start->module);
    CloseHandle(start->ended);
    CloseHandle(handle->ended);
    delete start;
    delete handle;
    return nullptr;
  }
  if (threadId) *threadId = id;
  return handle;
}

void SetThreadPriority(ThreadHandle* thread, std::int32_t priority) {
  if (thread) ::SetThreadPriority(thread->thread, priority);
}

void ResumeThread(ThreadHandle* thread) {
  if (thread) ::ResumeThread(thread->thread);
}

void SuspendThread(ThreadHandle* thread) {
  if (thread) ::SuspendThread(thread->thread);
}

void ParkIfSuspended() {}

bool WaitThread(ThreadHandle* thread, std::uint32_t timeoutMs) {
  if (!thread) return false;
  const HANDLE either[2] = {thread->ended, thread->thread};
  return WaitForMultipleObjects(2, either, FALSE, timeoutMs) < WAIT_OBJECT_0 + 2;
}

void TerminateThread(ThreadHandle* thread) {
  if (!thread) return;
  ::TerminateThread(thread->thread, 0);
  WaitForSingleObject(thread->thread, INFINITE);
}

void CloseThread(ThreadHandle* thread) {
  if (!thread) return;
  CloseHandle(thread->thread);
  CloseHandle(thread->ended);
  delete thread;
}

EventHandle* CreateAutoResetEvent() {
  HANDLE event = CreateEventW(nullptr, FALSE, FALSE, nullptr);
  if (!event) return nullptr;
  auto* handle = new (std::nothrow) EventHandle{event};
  if (!handle) CloseHandle(event);
  return handle;
}

void SetEvent(EventHandle* event) {
  if (event) ::SetEvent(event->event);
}

bool WaitEvent(EventHandle* event, std::uint32_t timeoutMs) {
  if (!event) return false;
  return WaitForSingleObject(event->event, timeoutMs) == WAIT_OBJECT_0;
}

void CloseEvent(EventHandle* event) {
  if (!event) return;
  CloseHandle(event->event);
  delete event;
}

void SleepMs(std::uint32_t ms) { ::Sleep(ms); }

bool ThreadsHoldTheirModule() { return true; }

}  // namespace tpcsdk::os
