// A session's event thread: the notification queue and its delivery, the operation
// state machine of each request, the closing of handles, and the end of the session.
#include <poll.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstring>
#include <utility>

#include "os/posix/http_internal.h"
#include "support/utf.h"

namespace tpcsdk::os::curlhttp {

namespace {

// ---- notifications (core->mu held) --------------------------------------------------

Note& Queue(Handle& h, uint32_t status) {
  Note n;
  n.callback = h.callback;
  n.handle = reinterpret_cast<HttpHandle>(h.id);
  n.context = h.context;
  n.status = status;
  n.owner = h.shared_from_this();
  h.undelivered++;
  h.core->notes.push_back(std::move(n));
  return h.core->notes.back();
}

bool Wants(const Handle& h, uint32_t status) { return h.callback && (h.mask & status) != 0; }

void Deliver(Note& n) {
  if (!n.callback) return;
  void* info = n.info;
  switch (n.status) {
    case kHttpStatusDataAvailable:
    case kHttpStatusSecureFailure:
    case kHttpStatusRequestSent:
    case kHttpStatusResponseReceived:
      info = &n.number;
      break;
    case kHttpStatusRequestError:
      info = &n.result;
      break;
    case kHttpStatusHandleClosing:
      info = &n.handle;
      n.length = sizeof(HttpHandle);
      break;
    case kHttpStatusReadComplete:
      break;
    default:
      info = n.text.empty() && n.length == 0 ? nullptr : n.text.data();
      break;
  }
  try {
    n.callback(n.handle, n.context, n.status, info, n.length);
  } catch (...) {
    // A callback's exception must not end the event thread.
  }
}

// ---- the operation state machine (core->mu held) --------------------------------------

// The call a REQUEST_ERROR names for the operation pending in `phase`; 0 when none is.
uintptr_t PendingCall(Phase phase) {
  switch (phase) {
    case Phase::kSending: return kHttpApiSendRequest;
    case Phase::kReceiving: return kHttpApiReceiveResponse;
    case Phase::kQuerying: return kHttpApiQueryDataAvailable;
    case Phase::kReading: return kHttpApiReadData;
    default: return 0;
  }
}

// Ends the pending operation: the phase moves to `next` and the operation's one
// notification is queued (DATA_AVAILABLE with `count`, READ_COMPLETE with the caller's
// `buffer` and `count`).
void Complete(Request& r, Phase next, uint32_t status, uint32_t count = 0,
              void* buffer = nullptr) {
  r.phase = next;
  if (!Wants(r, status)) return;
  Note& n = Queue(r, status);
  if (status == kHttpStatusDataAvailable) {
    n.number = count;
    n.length = sizeof(uint32_t);
  } else if (status == kHttpStatusReadComplete) {
    n.info = buffer;
    n.length = count;
  }
}

// Ends the pending operation with one REQUEST_ERROR. A failed body operation leaves the
// headers readable and fails again if repeated; a failed send or receive ends it all.
void FailPending(Request& r, uint32_t error) {
  const uintptr_t call = PendingCall(r.phase);
  if (!call) return;
  r.phase = (r.phase == Phase::kQuerying || r.phase == Phase::kReading) ? Phase::kBody
                                                                         : Phase::kFailed;
  r.read_buffer = nullptr;
  r.waiting_noted = false;
  if (!Wants(r, kHttpStatusRequestError)) return;
  Note& n = Queue(r, kHttpStatusRequestError);
  n.result.call = call;
  n.result.error = error;
  n.length = sizeof(HttpAsyncResult);
}

void AdvanceSend(Request& r) {
  const Hop& hop = r.hop;
  if (hop.response_started || (hop.prereq_fired && hop.upload_done) || (r.done && !r.error)) {
    if (!r.request_sent_noted) {
      r.request_sent_noted = true;
      NotifyNumber(r, kHttpStatusRequestSent,
                   RequestHeadBytes(r) + static_cast<uint32_t>(r.body.size()));
    }
    Complete(r, Phase::kSent, kHttpStatusSendRequestComplete);
  } else if (r.done) {
    FailPending(r, r.error);
  }
}

void AdvanceReceive(Request& r) {
  if (r.headers_ready) {
    Notify(r, kHttpStatusReceivingResponse);
    NotifyNumber(r, kHttpStatusResponseReceived, r.hop.header_bytes);
    Complete(r, Phase::kBody, kHttpStatusHeadersAvailable);
  } else if (r.done) {
    FailPending(r, r.error ? r.error : kHttpErrorInvalidServerResponse);
  }
}

// QueryDataAvailable and ReadData: both wait for at least one byte or the end.
void AdvanceBody(Request& r) {
  const size_t avail = r.received.Size();
  if (avail == 0 && !r.done) {
    if (!r.waiting_noted) {
      r.waiting_noted = true;
      Notify(r, kHttpStatusReceivingResponse);
    }
    return;
  }
  if (avail == 0 && r.error) return FailPending(r, r.error);
  if (r.waiting_noted) {
    r.waiting_noted = false;
    NotifyNumber(r, kHttpStatusResponseReceived, static_cast<uint32_t>(avail));
  }
  if (r.phase == Phase::kQuerying) {
    return Complete(r, Phase::kBody, kHttpStatusDataAvailable,
                    static_cast<uint32_t>(std::min<size_t>(avail, UINT32_MAX)));
  }
  const size_t n = r.received.Take(r.read_buffer, r.read_length);
  void* target = r.read_buffer;
  r.read_buffer = nullptr;
  Complete(r, Phase::kBody, kHttpStatusReadComplete, static_cast<uint32_t>(n), target);
}

// Moves one request on as far as what has arrived allows.
void Advance(Request& r) {
  if (r.closed_by_app || r.freed) return;
  if (r.phase != Phase::kOpen && !r.started) StartTransfer(r);
  ResumeIfDrained(r);
  switch (r.phase) {
    case Phase::kSending: return AdvanceSend(r);
    case Phase::kReceiving: return AdvanceReceive(r);
    case Phase::kQuerying:
    case Phase::kReading: return AdvanceBody(r);
    default: return;
  }
}

// ---- closing (core->mu held) ------------------------------------------------------------

// Queues HANDLE_CLOSING for a handle the caller has closed once nothing hangs below
// it; true when it did. The parent is left to the caller.
bool FreeOne(const std::shared_ptr<Handle>& h) {
  if (!h || h->freed || !h->closed_by_app || h->children > 0) return false;
  h->freed = true;
  Core& core = *h->core;
  Notify(*h, kHttpStatusHandleClosing);
  if (h->kind == Kind::kRequest) {
    auto& list = core.requests;
    list.erase(std::remove(list.begin(), list.end(), h), list.end());
  }
  if (h->kind == Kind::kSession) core.finished = true;
  return true;
}

// FreeOne, and the parent follows when it was waiting only for this handle. A parent on
// another lane learns of it later, once the handle's closing has been delivered.
void MaybeFree(const std::shared_ptr<Handle>& h) {
  if (!FreeOne(h) || !h->parent) return;
  if (h->parent->core != h->core) {
    h->core->detach.push_back(h->parent);
    return;
  }
  h->parent->children--;
  MaybeFree(h->parent);
}

// Notifications delivered (by whichever thread): their handles' counts go down.
// core->mu held.
void Delivered(Core& core, std::vector<Note>& notes) {
  for (Note& n : notes) n.owner->undelivered--;
  notes.clear();
  if (notes.capacity() > core.spare_notes.capacity()) core.spare_notes.swap(notes);
}

// An empty batch to swap the queue into, with the room of an earlier one. core->mu held.
std::vector<Note> TakeBatch(Core& core) {
  std::vector<Note> batch;
  batch.swap(core.spare_notes);
  return batch;
}

// A request closed by the caller gives up what is pending on it and the caller's buffer.
void GiveUp(Request& r) {
  FailPending(r, kHttpErrorOperationCancelled);
  r.read_buffer = nullptr;
  r.received.Clear();
}

// A closed request cancels what is pending on it and lets go of the caller's buffer.
void ProcessCloses(Core& core) {
  std::vector<std::shared_ptr<Handle>> closing;
  closing.swap(core.to_close);
  for (const auto& h : closing) {
    if (h->kind == Kind::kRequest) {
      Request& r = static_cast<Request&>(*h);
      EndTransfer(r);
      GiveUp(r);
    }
    MaybeFree(h);
  }
}

// Ends transfers whose phase has run past its deadline; the earliest deadline still to
// come goes to `next`.
void ApplyDeadlines(const std::vector<std::shared_ptr<Request>>& requests,
                    Clock::time_point now, Clock::time_point* next) {
  for (const auto& r : requests) {
    Clock::time_point when;
    if (!Deadline(*r, &when)) continue;
    if (when <= now) {
      FailTransfer(*r, kHttpErrorTimeout);
    } else {
      *next = std::min(*next, when);
    }
  }
}

// One pass of a lane's loop: closings, every request moved on, curl's work, deadlines,
// then the notifications delivered until the callbacks queue no more. `next` gets the
// earliest deadline still to come. True when the lane's work is over.
bool Pass(Core& core, std::unique_lock<std::mutex>& lock, Clock::time_point* now,
          Clock::time_point* next) {
  core.dirty = false;
  ProcessCloses(core);
  // Work on a copy: a callback may close a request while the lock is dropped. The copy
  // keeps its room from pass to pass; only the thread that runs the lane uses it.
  std::vector<std::shared_ptr<Request>>& requests = core.passing;
  requests.assign(core.requests.begin(), core.requests.end());
  struct Release {
    std::vector<std::shared_ptr<Request>>& held;
    ~Release() { held.clear(); }  // whatever way the pass ends
  } release{requests};
  for (const auto& r : requests) Advance(*r);
  int running = 0;
  curl_multi_perform(core.multi, &running);
  int left = 0;
  while (CURLMsg* msg = curl_multi_info_read(core.multi, &left)) {
    if (msg->msg != CURLMSG_DONE) continue;
    void* p = nullptr;
    if (curl_easy_getinfo(msg->easy_handle, CURLINFO_PRIVATE, &p) != CURLE_OK) p = nullptr;
    if (p) OnTransferDone(*static_cast<Request*>(p), msg->data.result);
  }
  if (core.own) {
    for (const auto& r : requests) WireStep(*r);
  }
  *now = Clock::now();
  *next = Clock::time_point::max();
  ApplyDeadlines(requests, *now, next);
  for (const auto& r : requests) Advance(*r);
  // The callbacks' own calls queue their notifications at once (see Begin), so the
  // steps of an exchange whose bytes have all arrived go out in one pass, without a
  // trip through curl between them. A close waits for the next pass.
  bool finish = false;
  do {
    finish = core.finished;
    std::vector<Note> notes = TakeBatch(core);
    notes.swap(core.notes);
    std::vector<std::shared_ptr<Handle>> detach;
    detach.swap(core.detach);
    core.delivering = true;
    lock.unlock();
    for (Note& n : notes) Deliver(n);
    requests.clear();
    for (const auto& parent : detach) DetachFromParent(parent);
    detach.clear();
    lock.lock();
    core.delivering = false;
    Delivered(core, notes);
  } while (!finish && !core.notes.empty() && core.to_close.empty());
  return finish;
}

bool HasWork(const Core& core) {
  return core.dirty || !core.notes.empty() || !core.to_close.empty() || !core.detach.empty();
}

// Waits in curl's poll until a socket is ready, curl's timer or the next deadline is
// due, or someone wakes the lane.
void WaitForWork(Core& core, std::unique_lock<std::mutex>& lock, Clock::time_point now,
                 Clock::time_point next) {
  long curl_ms = -1;
  if (curl_multi_timeout(core.multi, &curl_ms) != CURLM_OK) curl_ms = -1;
  int wait_ms = curl_ms < 0 ? INT_MAX : static_cast<int>(std::min<long>(curl_ms, INT_MAX));
  if (next != Clock::time_point::max()) {
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(next - now).count() + 1;
    wait_ms = static_cast<int>(std::min<long long>(wait_ms, ms));
  }
  // A sender's hop on the lane's own connection waits for its socket in the same poll.
  curl_waitfd wire{};
  short events = 0;
  const bool on_wire = WireWaitsFor(core, &wire.fd, &events);
  wire.events = events == POLLOUT ? CURL_WAIT_POLLOUT : CURL_WAIT_POLLIN;
  // Only a loop that waits in the poll needs a wake-up; otherwise it sees `dirty`
  // before it waits again.
  core.polling = true;
  lock.unlock();
  curl_multi_poll(core.multi, on_wire ? &wire : nullptr, on_wire ? 1 : 0, wait_ms, nullptr);
  lock.lock();
  core.polling = false;
  if (on_wire) WireReady(core, wire.fd);
}

void Loop(std::shared_ptr<Core> core) {
  std::unique_lock<std::mutex> lock(core->mu);
  core->loop_thread = std::this_thread::get_id();
  for (;;) {
    Clock::time_point now, next;
    if (Pass(*core, lock, &now, &next)) break;
    if (HasWork(*core)) continue;
    WaitForWork(*core, lock, now, next);
  }
  // Every handle below the session has been freed, so no transfer is left.
  for (const auto& r : core->requests) EndTransfer(*r);
  core->requests.clear();
  core->notes.clear();  // they hold their handles, and the handles hold the session
  curl_multi_cleanup(core->multi);
  core->multi = nullptr;
  // The session is gone, so its other lanes have nothing left either.
  std::vector<std::shared_ptr<Core>> lanes;
  lanes.swap(core->lanes);
  lock.unlock();
  for (const auto& lane : lanes) {
    std::lock_guard<std::mutex> lane_lock(lane->mu);
    lane->finished = true;
    Wake(*lane);
  }
}

// The event threads of the process. A thread is joined once its loop has ended: the
// next session to start reaps the ended ones, the process's exit those that end then,
// and JoinSessions the rest.
struct Threads {
  std::mutex mu;
  struct Entry {
    std::thread thread;
    std::shared_ptr<std::atomic<bool>> ended;
    std::weak_ptr<Core> core;
  };
  std::vector<Entry> entries;
};

// Freed by JoinSessions.
LazyGlobal<Threads> g_threads;

// Joins the threads whose loops have ended; t.mu held.
void ReapEnded(Threads& t) {
  auto& list = t.entries;
  for (auto it = list.begin(); it != list.end();) {
    if (it->ended->load()) {
      it->thread.join();
      it = list.erase(it);
    } else {
      ++it;
    }
  }
}

// True when the session's loop has ended or is about to: its closing is queued, or the
// application has closed the session, nothing below it is left, and the loop has yet
// to take that up. A session whose children are still open does not end by itself.
bool Ending(const Threads::Entry& e) {
  if (e.ended->load()) return true;
  const std::shared_ptr<Core> core = e.core.lock();
  if (!core) return true;
  std::lock_guard<std::mutex> lock(core->mu);
  if (core->finished) return true;
  for (const auto& h : core->to_close)
    if (h->kind == Kind::kSession && h->children == 0) return true;
  return false;
}

// At the process's exit, and at the module's unload before its own teardown (a static
// object's end is registered for the module that holds it): the threads of sessions
// that have ended, or are ending, are joined then. So none of them is still unjoined
// when the process's exit handlers look for threads left behind. A session still open
// keeps its thread for JoinSessions.
struct ExitReaper {
  ExitReaper() = default;
  ExitReaper(const ExitReaper&) = delete;
  ExitReaper& operator=(const ExitReaper&) = delete;
  ~ExitReaper() {
    Threads* t = g_threads.Peek();
    if (!t) return;
    std::lock_guard<std::mutex> lock(t->mu);
    auto& list = t->entries;
    for (auto it = list.begin(); it != list.end();) {
      if (Ending(*it)) {
        it->thread.join();
        it = list.erase(it);
      } else {
        ++it;
      }
    }
  }
};

}  // namespace

void Notify(Handle& h, uint32_t status) {
  if (Wants(h, status)) Queue(h, status);
}

void NotifyNumber(Handle& h, uint32_t status, uint32_t number) {
  if (!Wants(h, status)) return;
  Note& n = Queue(h, status);
  n.number = number;
  n.length = sizeof(uint32_t);
}

void NotifyText(Handle& h, uint32_t status, std::string_view text) {
  if (!Wants(h, status)) return;
  Note& n = Queue(h, status);
  n.text = Utf8ToUtf16(text);
  n.length = static_cast<uint32_t>(n.text.size() + 1);
}

bool CloseHere(const std::shared_ptr<Handle>& h, std::unique_lock<std::mutex>& lock) {
  Core& core = *h->core;
  // A sender's lane that nobody drives is this thread's to run: its transfer ends here
  // and what it has queued is delivered here, before the closing.
  const bool served_here = core.own && !core.driving;
  if (h->kind == Kind::kSession || h->freed) return false;
  if (!served_here && h->undelivered != 0) return false;
  if (std::this_thread::get_id() == core.loop_thread || core.finished) return false;
  // A connection is closed here once its requests are gone, and when its closing is
  // notified, only after theirs: no notification may wait or be on its way.
  if (h->children != 0) return false;
  if (h->kind == Kind::kConnect && Wants(*h, kHttpStatusHandleClosing) &&
      (core.delivering || !core.notes.empty())) {
    return false;
  }
  Request* r = h->kind == Kind::kRequest ? static_cast<Request*>(h.get()) : nullptr;
  // curl's objects are the event thread's; a transfer under way is ended there.
  if (r && !served_here && (Active(r->hop) || (r->started && !r->done))) return false;
  // What the close queues is taken aside; what others queued stays for the event thread.
  std::vector<Note> mine = TakeBatch(core);
  if (!served_here) mine.swap(core.notes);
  if (r && served_here) EndTransfer(*r);
  if (r) GiveUp(*r);
  FreeOne(h);
  mine.swap(core.notes);
  if (!mine.empty()) {
    lock.unlock();
    for (Note& n : mine) Deliver(n);
    lock.lock();
  }
  Delivered(core, mine);
  // A sender waiting in its lane's poll for a request that had nothing left to do
  // (a body that never ends the exchange) looks again, and finds it closed.
  if (core.own && core.driving) Wake(core);
  // The parent learns of it only now, so its own closing cannot come before this one.
  if (const std::shared_ptr<Handle> parent = h->parent) {
    if (parent->core != h->core) {
      lock.unlock();
      DetachFromParent(parent);
      lock.lock();
      return true;
    }
    const size_t queued = core.notes.size();
    parent->children--;
    MaybeFree(parent);
    if (core.notes.size() != queued || core.finished) Wake(core);
  }
  return true;
}

void Drive(const std::shared_ptr<Core>& core, std::unique_lock<std::mutex>& lock,
           bool (*done)(void*), void* arg) {
  // The lane's one request leaves the list when it is freed.
  auto over = [&] { return done(arg) || (core->requests.empty() && core->notes.empty()); };
  while (!over()) {
    Clock::time_point now, next;
    Pass(*core, lock, &now, &next);
    if (over()) break;
    if (HasWork(*core)) continue;
    WaitForWork(*core, lock, now, next);
  }
}

void DetachFromParent(const std::shared_ptr<Handle>& parent) {
  Core& core = *parent->core;
  std::lock_guard<std::mutex> lock(core.mu);
  const size_t queued = core.notes.size();
  parent->children--;
  MaybeFree(parent);
  if (core.notes.size() != queued || core.finished || !core.detach.empty()) Wake(core);
}

void Wake(Core& core) {
  core.dirty = true;
  if (core.polling && core.multi && std::this_thread::get_id() != core.loop_thread) {
    curl_multi_wakeup(core.multi);
    core.polling = false;  // one wake-up is enough
  }
}

bool AdvanceNow(Request& r) {
  Advance(r);
  return PendingCall(r.phase) == 0;
}

void StartSession(const std::shared_ptr<Core>& core) {
  static ExitReaper reaper;
  Threads& t = g_threads.Get();
  std::lock_guard<std::mutex> lock(t.mu);
  ReapEnded(t);
  auto& list = t.entries;
  auto ended = std::make_shared<std::atomic<bool>>(false);
  std::thread thread([core, ended] {
    Loop(core);
    ended->store(true);
  });
  // Named here, so that the thread shows its name as soon as the session is open.
  pthread_setname_np(thread.native_handle(), kEventThreadName);
  list.push_back({std::move(thread), ended, core});
}

void JoinSessions() {
  Threads* t = g_threads.Take();
  if (!t) return;
  for (auto& e : t->entries) e.thread.join();
  delete t;
}

}  // namespace tpcsdk::os::curlhttp
