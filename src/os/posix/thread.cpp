#include "os/thread.h"

#include <pthread.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <new>

namespace tpcsdk::os {

namespace {

// What the thread and its handle share: the thread keeps it alive after a handle
// was closed on a thread still running.
struct ThreadState {
  std::mutex mutex;
  std::condition_variable cv;
  ThreadRoutine routine = nullptr;
  void* arg = nullptr;
  std::uint32_t tid = 0;
  bool started = false;    // the thread has recorded its number
  bool ended = false;      // the routine has returned
  int suspendCount = 1;    // created held, released by ResumeThread
  int nice = 0;
  bool niceChanged = false;
};

// The state of the calling thread, for ParkIfSuspended. A plain pointer: no
// destructor runs at thread exit.
thread_local ThreadState* t_current = nullptr;

void ApplyNice(ThreadState& state) {
  // Linux keeps a nice value per thread; setpriority on the thread's id reaches it.
  if (state.niceChanged) setpriority(PRIO_PROCESS, static_cast<id_t>(state.tid), state.nice);
}

void* Entry(void* param) {
  auto* holder = static_cast<std::shared_ptr<ThreadState>*>(param);
  std::shared_ptr<ThreadState> state = std::move(*holder);
  delete holder;
  t_current = state.get();
  {
    std::unique_lock<std::mutex> lock(state->mutex);
    state->tid = static_cast<std::uint32_t>(syscall(SYS_gettid));
    state->started = true;
    state->cv.notify_all();
  }
  ParkIfSuspended();
  state->routine(state->arg);
  {
    std::lock_guard<std::mutex> lock(state->mutex);
    state->ended = true;
    state->cv.notify_all();
  }
  t_current = nullptr;
  return nullptr;
}

bool WaitFor(std::unique_lock<std::mutex>& lock, std::condition_variable& cv,
             std::uint32_t timeoutMs, const bool& flag) {
  if (timeoutMs == kWaitForever) {
    cv.wait(lock, [&] { return flag; });
    return true;
  }
  return cv.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return flag; });
}

}  // namespace

struct ThreadHandle {
  pthread_t thread{};
  bool joined = false;
  std::shared_ptr<ThreadState> state;
};

struct EventHandle {
  std::mutex mutex;
  std::condition_variable cv;
  bool signalled = false;
};

ThreadHandle* CreateSuspendedThread(ThreadRoutine routine, void* arg, std::uint32_t* threadId) {
  auto state = std::make_shared<ThreadState>();
  state->routine = routine;
  state->arg = arg;
  auto handle = std::make_unique<ThreadHandle>();
  handle->state = state;
  auto holder = std::make_unique<std::shared_ptr<ThreadState>>(state);
  if (pthread_create(&handle->thread, nullptr, &Entry, holder.get()) != 0) return nullptr;
  holder.release();  // the thread owns it now
  std::unique_lock<std::mutex> lock(state->mutex);
  state->cv.wait(lock, [&] { return state->started; });
  if (threadId) *threadId = state->tid;
  return handle.release();
}

void SetThreadPriority(ThreadHandle* thread, std::int32_t priority) {
  if (!thread) return;
  ThreadState& state = *thread->state;
  std::lock_guard<std::mutex> lock(state.mutex);
  // The normal priority keeps the nice value the thread inherited.
  if (priority == 0 && !state.niceChanged) return;
  const std::int64_t nice = -static_cast<std::int64_t>(priority) * 5;
  state.nice = static_cast<int>(std::clamp<std::int64_t>(nice, -20, 19));
  state.niceChanged = true;
  if (!state.ended) ApplyNice(state);
}

void ResumeThread(ThreadHandle* thread) {
  if (!thread) return;
  ThreadState& state = *thread->state;
  std::lock_guard<std::mutex> lock(state.mutex);
  if (state.suspendCount > 0 && --state.suspendCount == 0) state.cv.notify_all();
}

void SuspendThread(ThreadHandle* thread) {
  if (!thread) return;
  ThreadState& state = *thread->state;
  std::lock_guard<std::mutex> lock(state.mutex);
  ++state.suspendCount;
}

void ParkIfSuspended() {
  ThreadState* state = t_current;
  if (!state) return;
  std::unique_lock<std::mutex> lock(state->mutex);
  state->cv.wait(lock, [&] { return state->suspendCount == 0; });
}

bool WaitThread(ThreadHandle* thread, std::uint32_t timeoutMs) {
  if (!thread) return false;
  if (thread->joined) return true;
  ThreadState& state = *thread->state;
  {
    std::unique_lock<std::mutex> lock(state.mutex);
    if (!WaitFor(lock, state.cv, timeoutMs, state.ended)) return false;
  }
  // The routine has returned; joining waits for the few instructions after it, so
  // the thread is out of this module's code before the module can be unloaded.
  pthread_join(thread->thread, nullptr);
  thread->joined = true;
  return true;
}

void TerminateThread(ThreadHandle* thread) { WaitThread(thread, kWaitForever); }

void CloseThread(ThreadHandle* thread) {
  if (!thread) return;
  if (!thread->joined) pthread_detach(thread->thread);
  delete thread;
}

EventHandle* CreateAutoResetEvent() { return new (std::nothrow) EventHandle(); }

void SetEvent(EventHandle* event) {
  if (!event) return;
  std::lock_guard<std::mutex> lock(event->mutex);
  event->signalled = true;
  event->cv.notify_one();
}

bool WaitEvent(EventHandle* event, std::uint32_t timeoutMs) {
  if (!event) return false;
  std::unique_lock<std::mutex> lock(event->mutex);
  if (!WaitFor(lock, event->cv, timeoutMs, event->signalled)) return false;
  event->signalled = false;
  return true;
}

void CloseEvent(EventHandle* event) { delete event; }

void SleepMs(std::uint32_t ms) {
  timespec ts{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
  while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
  }
}

bool ThreadsHoldTheirModule() { return false; }

}  // namespace tpcsdk::os
