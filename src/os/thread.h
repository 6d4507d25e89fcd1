// Threads and signals: the one place the library creates a thread of its own (the
// polling worker) and the auto-reset signal that ends its waits.
//
// What differs between the platforms:
// - Suspend. Windows halts the thread wherever it is. Linux has no safe way to halt
//   another thread at an arbitrary point, so a suspended thread stops at its next
//   ParkIfSuspended() (the worker calls it once per pass) and stays there until
//   ResumeThread. A thread that never calls ParkIfSuspended is not halted.
// - Terminate. Windows ends the thread at once, wherever it is. Linux cannot end a
//   thread from outside without leaving its locks and memory in an unknown state, so
//   TerminateThread waits until the thread's routine returns.
// - Priority. Windows takes the value as a thread priority. Linux maps it to the
//   thread's nice value (priority 1 = nice -5, -1 = nice 5, and so on, within -20..19;
//   0 keeps the nice value the thread inherited);
//   raising it needs the privilege to do so, and without that the value is ignored, as
//   a failed SetThreadPriority is on Windows.
// - Module lifetime. On Windows a thread holds a reference on the module that runs it
//   and drops it as it exits, so the code it runs is never unmapped under it: a host
//   that frees the module while the thread runs leaves the module loaded until the
//   thread ends. On Linux the module's unload hook stops and joins the thread instead.
#pragma once
#include <cstdint>

namespace tpcsdk::os {

constexpr std::uint32_t kWaitForever = 0xFFFFFFFFu;

struct ThreadHandle;
struct EventHandle;

using ThreadRoutine = void (*)(void* arg);

// Creates a thread that runs routine(arg) once ResumeThread lets it go. The thread's
// number goes to *threadId. Null when no thread could be made.
ThreadHandle* CreateSuspendedThread(ThreadRoutine routine, void* arg, std::uint32_t* threadId);
// Sets the priority the thread runs with (see above for Linux).
void SetThreadPriority(ThreadHandle* thread, std::int32_t priority);
// Lets a thread go that was created or suspended; one call undoes one suspension.
void ResumeThread(ThreadHandle* thread);
// Suspends the thread (see above for Linux).
void SuspendThread(ThreadHandle* thread);
// Called by a thread at a point where it may be held while suspended.
void ParkIfSuspended();
// True when the thread's routine has returned (or the thread was ended) within
// timeoutMs (kWaitForever: no limit). On Windows this does not wait for the system's
// own exit path of the thread, which needs the loader lock.
bool WaitThread(ThreadHandle* thread, std::uint32_t timeoutMs);
// Ends the thread (see above for Linux) and waits until it has.
void TerminateThread(ThreadHandle* thread);
// Releases the handle; a thread still running goes on without it.
void CloseThread(ThreadHandle* thread);

// An auto-reset signal: SetEvent releases one wait (or the next one), after which the
// signal is clear again.
EventHandle* CreateAutoResetEvent();
void SetEvent(EventHandle* event);
// True when the signal came within timeoutMs (kWaitForever: no limit).
bool WaitEvent(EventHandle* event, std::uint32_t timeoutMs);
void CloseEvent(EventHandle* event);

void SleepMs(std::uint32_t ms);

// True where a running thread keeps its module loaded (Windows; see above).
bool ThreadsHoldTheirModule();

}  // namespace tpcsdk::os
