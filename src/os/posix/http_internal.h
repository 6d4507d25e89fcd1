// The state behind the Linux HTTP seam, shared by its three parts:
//   http_curl.cpp      the handle table and the entry points of os/http.h
//   http_session.cpp   a session's event thread, its notification queue, closing, and
//                      the operation state machine of a request
//   http_hop.cpp       one hop of a request on libcurl: set-up, callbacks, redirects,
//                      deadlines
//   http_wire.cpp      one hop of a sender's plain request on the lane's own connection,
//                      without libcurl
// Rules:
//   - Each session owns one cookie share and one or more lanes (Core): an event thread
//     with its own multi handle. Each connection, and its requests, stay on one lane;
//     every curl object of a lane is touched only on its thread.
//   - All state of a lane's handles is guarded by the lane's mutex. The event thread
//     holds it while curl runs (curl's callbacks run inside and may use it) and drops it
//     to deliver notifications and to wait for sockets.
//   - Notifications are queued under the mutex and delivered on the event thread in
//     queue order, so they never overlap and HANDLE_CLOSING, queued last for a handle,
//     is delivered last. A queued notification is self-contained: delivery touches no
//     handle state. Each handle counts its notifications not yet delivered.
//   - A request opened with kHttpFlagSenderDrives gets a lane of its own without a
//     thread (own): its sender runs that lane's loop while it waits in HttpDriveUntil,
//     so the exchange needs no hand-off between threads; the lane's multi handle, and
//     the connection it keeps alive, go back to the session's pool at the end. The
//     same rules hold there, with the driving thread as the event thread.
//   - The one delivery off the event thread: a request closed from another thread
//     once its transfer has ended and all its notifications have been delivered (or a
//     connection with no request left) has nothing left for the event thread to do, so
//     its closing runs on the caller's thread at once (as WinHTTP may deliver
//     HANDLE_CLOSING inside the close call).
//   - Handles are ids in a process table; the table entry goes at HttpCloseHandle, the
//     object when its HANDLE_CLOSING has been queued and nothing refers to it any more.
#pragma once
#include <curl/curl.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "os/http.h"
#include "os/posix/http_text.h"

namespace tpcsdk::os::curlhttp {

using Clock = std::chrono::steady_clock;

constexpr int kMaxRedirects = 10;
// How long, and for how many servers, a session remembers the addresses libcurl has
// connected to (libcurl keeps its own name lookups as long).
constexpr int kKnownAddressSeconds = 60;
constexpr size_t kKnownAddressMax = 16;
// The name of every session's event thread, as the system's tools show it.
constexpr char kEventThreadName[] = "tpcsdk-http";
constexpr uint32_t kDefaultSecureProtocols =
    kHttpSecureProtocolTls1 | kHttpSecureProtocolTls1_1 | kHttpSecureProtocolTls1_2;

// A process-wide object made at first use and given back by Take. It cannot be a
// static object: an unloaded module must free it, and at a program's exit the module's
// end runs after static destructors.
template <class T>
class LazyGlobal {
 public:
  T& Get() {
    T* p = ptr_.load(std::memory_order_acquire);
    if (!p) {
      auto* fresh = new T;
      if (ptr_.compare_exchange_strong(p, fresh, std::memory_order_acq_rel)) {
        p = fresh;
      } else {
        delete fresh;
      }
    }
    return *p;
  }
  // The object, which the caller now owns; null when none was made.
  T* Take() { return ptr_.exchange(nullptr); }
  // The object if one was made, still owned here.
  T* Peek() const { return ptr_.load(std::memory_order_acquire); }

 private:
  std::atomic<T*> ptr_{nullptr};
};

// Sets the calling thread's last error and gives the failure value.
bool Fail(uint32_t error);
void SetLastError(uint32_t error);

// Closes every handle still open, without notifications, and waits for the event
// threads to end: the module's code must not run on them once it is unloaded.
void EndAllSessions();

struct Timeouts {
  int32_t resolve = 0;  // none
  int32_t connect = 60000;
  int32_t send = 30000;
  int32_t receive = 30000;
  int32_t receive_response = 30000;
};

enum class Kind { kSession, kConnect, kRequest };

struct Core;
// Closes a lane's own connection, if it has one.
void CloseWire(Core& core);

struct Handle : std::enable_shared_from_this<Handle> {
  explicit Handle(Kind k) : kind(k) {}
  virtual ~Handle() = default;
  const Kind kind;
  uintptr_t id = 0;
  std::shared_ptr<Core> core;
  std::shared_ptr<Handle> parent;
  // Guarded by core->mu.
  HttpStatusCallback callback = nullptr;
  uint32_t mask = 0;
  uintptr_t context = 0;
  Timeouts timeouts;
  bool closed_by_app = false;
  bool freed = false;  // HANDLE_CLOSING queued
  int children = 0;
  int undelivered = 0;  // notifications queued or being delivered
};

struct Session : Handle {
  static constexpr Kind kKind = Kind::kSession;
  Session() : Handle(kKind) {}
};

struct Connect : Handle {
  static constexpr Kind kKind = Kind::kConnect;
  Connect() : Handle(kKind) {}
  std::string host;  // UTF-8
  uint16_t port = 0;
};

// Where a request's exchange stands. The caller's calls move it forward; a pending
// operation (kSending, kReceiving, kQuerying, kReading) ends with exactly one
// notification, queued by Complete or by FailPending.
enum class Phase {
  kOpen,       // opened; headers may be added
  kSending,    // HttpSendRequest: SENDREQUEST_COMPLETE next
  kSent,       // waiting for HttpReceiveResponse
  kReceiving,  // HttpReceiveResponse: HEADERS_AVAILABLE next
  kBody,       // headers delivered; between body operations
  kQuerying,   // HttpQueryDataAvailable: DATA_AVAILABLE next
  kReading,    // HttpReadData: READ_COMPLETE next
  kFailed,     // a REQUEST_ERROR ended the exchange
};

// A hop run on the sender lane's own connection (http_wire.cpp): plain HTTP/1.1 with
// no proxy, for a session without cookies. libcurl serves every other hop.
struct Wire {
  enum class Stage : uint8_t { kConnect, kSend, kHead, kBody };
  enum class Framing : uint8_t { kNone, kLength, kChunked, kClose };
  enum class Chunk : uint8_t {
    kSize, kSizeEnd, kData, kDataEnd, kTrailer, kTrailerLf, kTrailerEnd, kLast
  };
  bool on = false;
  Stage stage = Stage::kConnect;
  Framing framing = Framing::kNone;
  Chunk chunk = Chunk::kSize;
  bool reused = false;      // on a connection kept from an earlier exchange
  bool retried = false;     // already sent again on a new connection
  bool keep_alive = false;  // the connection may serve the next exchange
  bool complete = false;    // the response has ended where its framing says
  bool ready = false;       // the last wait found the socket ready for `want`
  bool any_reply = false;   // a byte of the response has arrived
  bool foreign_coding = false;  // the body has a transfer coding this client does not read
  bool in_trailer = false;       // within a trailer line of a chunked body
  bool trailer_field = false;    // ... and it has had its ':'
  uint8_t digits = 0;            // hex digits of the chunk size read so far
  short want = 0;           // POLLIN or POLLOUT while the hop waits for its socket
  std::string out;          // the head; the body follows it from the request
  size_t sent = 0;          // bytes of the head and body sent
  std::string in;           // received bytes not yet taken
  size_t in_at = 0;
  uint64_t left = 0;        // body bytes still to come: of the length, or of the chunk
};

// The state of one hop of the transfer: one libcurl easy handle, reset on a redirect.
struct Hop {
  CURL* easy = nullptr;
  std::string url;          // the whole URL of the hop
  std::string base;         // "scheme://host:port"
  std::string target;       // what goes on the request line
  std::string host;
  uint16_t port = 0;
  bool secure = false;
  std::string verb;
  std::string request_line;  // kept alive for curl
  bool has_body = false;
  // The body goes to curl as one block (a small body): curl sends it in the same write
  // as the head, and counts it in the request's size.
  bool inline_body = false;
  bool socket_opened = false;
  bool prereq_fired = false;
  bool upload_done = false;
  bool response_started = false;
  Clock::time_point t_start, t_socket, t_io;
  ResponseHead head;
  bool redirect_pending = false;
  std::string redirect_url;
  uint32_t header_bytes = 0;
  Wire wire;
};

// True while a hop's transfer is under way, on libcurl or on the lane's own connection.
inline bool Active(const Hop& hop) { return hop.easy != nullptr || hop.wire.on; }

struct Request : Handle {
  static constexpr Kind kKind = Kind::kRequest;
  Request() : Handle(kKind) {}
  ~Request() override;

  // Set at open.
  std::string host;
  uint16_t port = 0;
  bool secure = false;
  std::string verb;
  std::string target;                // path and query as they go on the request line
  std::vector<std::string> headers;  // "Name: value"
  uint32_t security_flags = 0;
  uint32_t redirect_policy = kHttpRedirectPolicyDisallowHttpsToHttp;

  // The exchange.
  Phase phase = Phase::kOpen;
  bool started = false;  // the transfer has been handed to curl
  bool request_sent_noted = false;
  void* read_buffer = nullptr;
  uint32_t read_length = 0;
  std::string body;
  size_t body_offset = 0;
  curl_slist* header_list = nullptr;
  Hop hop;
  int redirects = 0;
  uint32_t request_bytes = 0;

  // The final response.
  bool headers_ready = false;
  ResponseHead final_head;
  BodyBuffer received;
  bool paused = false;
  bool waiting_noted = false;  // RECEIVING_RESPONSE sent for the wait in progress
  bool done = false;           // no more bytes will arrive
  uint32_t error = 0;          // why the transfer ended early; 0 when it did not
};

// A notification ready for delivery; it holds everything the callback is given.
struct Note {
  HttpStatusCallback callback;
  HttpHandle handle;
  uintptr_t context;
  uint32_t status;
  void* info = nullptr;  // the caller's buffer for READ_COMPLETE
  uint32_t length = 0;
  uint32_t number = 0;
  HttpAsyncResult result{};
  std::u16string text;
  // Whose count of undelivered notifications this one is in; touched only under the
  // session's mutex, once the notification has been delivered.
  std::shared_ptr<Handle> owner;
};

// What every event thread of a session reads when it sets a transfer up: fixed when the
// session opens, except the protocols, which the caller may change at any time. The
// cookie share serves all of the session's threads, under its own locks.
struct Settings {
  Settings() = default;
  ~Settings();
  Settings(const Settings&) = delete;
  Settings& operator=(const Settings&) = delete;
  std::string agent;
  std::string http_proxy, https_proxy;
  std::vector<std::string> bypass;
  std::atomic<uint32_t> secure_protocols{kDefaultSecureProtocols};
  CURLSH* share = nullptr;
  std::mutex share_mu[CURL_LOCK_DATA_LAST];
  // Set once a response has set a cookie: from then on libcurl, which keeps them, serves
  // every request of the session.
  std::atomic<bool> cookies{false};
  // Addresses libcurl has connected to, so that a sender's later requests to the same
  // server can go on the lane's own connection without a name lookup of their own.
  struct Known {
    std::string host;
    uint16_t port;
    std::string ip;
    std::chrono::steady_clock::time_point until;
  };
  std::mutex known_mu;
  std::vector<Known> known;
  // The lanes of sender-driven requests that have ended, each with its multi handle,
  // the connections that keeps alive, its last easy handle and the room of its lists,
  // for the next such request.
  std::mutex idle_mu;
  std::vector<Core*> idle;
};

// A lane for a sender-driven request of the session: an idle one (the calling thread's
// own first, so that curl's memory stays with one thread's heap instead of being freed
// across threads), or a new one. When the last reference goes, the lane goes back to
// the session's idle lanes, or is freed once the session is gone or has enough. Null
// when curl cannot make a multi handle.
std::shared_ptr<Core> TakeLane(const std::shared_ptr<Settings>& settings);

// One event thread with its multi handle: a lane of a session. A session has one lane
// or more; each connection (and every request opened on it) lives on one lane, picked in
// turn, and the session itself on the first. Handles on one lane are guarded by its
// mutex; the one tie across lanes, a connection's parent, is touched only under the
// parent's lane's mutex (see DetachFromParent).
struct Core {
  // Room for the notifications of a whole exchange, in each of the two batches.
  Core() {
    notes.reserve(12);
    spare_notes.reserve(12);
  }
  // The loop gives back the multi handle when it ends; this is for a lane whose loop
  // never started, and for a sender's lane that is not kept for another request.
  ~Core() {
    if (multi) curl_multi_cleanup(multi);
    if (spare) curl_easy_cleanup(spare);
    CloseWire(*this);
  }
  Core(const Core&) = delete;
  Core& operator=(const Core&) = delete;
  std::mutex mu;
  CURLM* multi = nullptr;
  std::thread::id loop_thread;
  bool dirty = false;
  bool polling = false;     // the loop waits in curl's poll: a wake-up must reach it
  bool delivering = false;  // the loop delivers notifications, the lock dropped
  bool finished = false;    // the lane's work is over (the session's HANDLE_CLOSING is queued)
  // A sender's lane: one request and no thread of its own. Its sender runs it while it
  // waits (driving); when nobody drives, a caller that holds the mutex may run it.
  bool own = false;
  bool driving = false;
  CURL* spare = nullptr;  // a sender's lane: an easy handle done with, for the next hop
  // A sender's lane: its own plain connection, kept alive between exchanges, and the
  // server ("host:port") it leads to.
  int wire_fd = -1;
  std::string wire_peer;
  std::thread::id last_user;  // an idle sender's lane: the thread that used it last
  std::vector<std::shared_ptr<Request>> requests;
  std::vector<std::shared_ptr<Request>> passing;  // Pass's copy of `requests`
  std::vector<std::shared_ptr<Handle>> to_close;
  // Queued notifications, in order. The room of a delivered batch is kept for the next
  // (spare_notes), so a lane's steady traffic queues without allocating.
  std::vector<Note> notes;
  std::vector<Note> spare_notes;
  // Parents on another lane whose child has been freed; they learn of it once the
  // child's HANDLE_CLOSING has been delivered.
  std::vector<std::shared_ptr<Handle>> detach;
  std::shared_ptr<Settings> settings;
  // The session's lane only: the session's other lanes, and whose turn is next (0 for
  // this lane, i for lanes[i - 1]).
  std::vector<std::shared_ptr<Core>> lanes;
  size_t next_lane = 0;
};

// ---- http_session.cpp ------------------------------------------------------------

// Queueing notifications (core->mu held).
void Notify(Handle& h, uint32_t status);
void NotifyNumber(Handle& h, uint32_t status, uint32_t number);
void NotifyText(Handle& h, uint32_t status, std::string_view text);
// Asks the event thread to look at the session again.
void Wake(Core& core);
// On the event thread: moves the request on at once as far as what has arrived
// allows; true when its pending operation has ended (its notification is queued).
bool AdvanceNow(Request& r);
// Closes a request or a connection the caller has just given up (closed_by_app set) on
// the calling thread, HANDLE_CLOSING included, when nothing of it is left for the event
// thread: a request's transfer has ended, a connection has no request left, and no
// notification of it waits.
// False when it is not so; then the event thread must close it. `lock` holds
// core->mu; it is dropped while the notifications are delivered.
bool CloseHere(const std::shared_ptr<Handle>& h, std::unique_lock<std::mutex>& lock);
// Starts a lane's event thread (throws when no thread can be made).
void StartSession(const std::shared_ptr<Core>& core);
// Tells a parent on another lane that one of its children is gone; no lane's mutex
// may be held.
void DetachFromParent(const std::shared_ptr<Handle>& parent);
// Runs a sender's lane on the calling thread until done() is true or the lane's request
// has been freed. `lock` holds core->mu and core->driving is set.
void Drive(const std::shared_ptr<Core>& core, std::unique_lock<std::mutex>& lock,
           bool (*done)(void*), void* arg);
// Waits for every event thread to end; their sessions must be closing.
void JoinSessions();

// ---- http_hop.cpp (event thread, core->mu held) -------------------------------------

// Hands the request to libcurl. False when curl refuses.
bool StartTransfer(Request& r);
// Lets a paused transfer go on once the reader has made room.
void ResumeIfDrained(Request& r);
// Takes the transfer's end from libcurl: a redirect to follow, or the response's end.
void OnTransferDone(Request& r, CURLcode code);
// Ends the transfer (early: cancelled, timed out). `reusable`: it ran to its end, so a
// sender's lane may keep its easy handle for the next hop.
void EndTransfer(Request& r, bool reusable = false);
void FailTransfer(Request& r, uint32_t error);
// The deadline of the phase the transfer is in; false when none applies.
bool Deadline(const Request& r, Clock::time_point* when);
// Bytes of the request's head as sent, 0 when not known yet.
uint32_t RequestHeadBytes(const Request& r);
// Takes one line of a response's head, as it arrived: interim heads are dropped, a
// redirect to follow is noted, and the final head is kept for the caller.
void TakeHeaderLine(Request& r, std::string_view line);
// Takes body bytes of the hop: all of them, or none when the reader's buffer is full
// (the transfer pauses).
bool TakeBody(Request& r, const char* data, size_t n);
// Notes, for a sender's later requests, the address a hop has connected to.
void NoteAddress(Request& r, const char* ip);

// ---- http_wire.cpp (core->mu held) ----------------------------------------------------

// True when the hop can run on the lane's own connection; then it starts it. `error`
// gets why it failed at once (0 when it did not).
bool WireStart(Request& r, uint32_t* error);
// Stores a cookie a hop on the lane's own connection has been given (the text after
// "Set-Cookie:") in the session's cookies, where libcurl finds it for the next request.
void KeepCookie(Request& r, std::string_view text);
// Moves the hop on as far as its socket allows.
void WireStep(Request& r);
// Ends the hop; `reusable`: it ran to its end, so the connection may stay open.
void WireEnd(Request& r, bool reusable);
// The socket and events the lane's loop waits for; false when its hop waits for none.
bool WireWaitsFor(const Core& core, int* fd, short* events);
// The wait for that socket has returned.
void WireReady(Core& core, int fd);

}  // namespace tpcsdk::os::curlhttp
