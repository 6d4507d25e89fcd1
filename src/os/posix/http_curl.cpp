// The HTTP seam on Linux: WinHTTP's asynchronous model emulated over libcurl's multi
// interface (see os/http.h for the contract). This file holds the handle table and the
// entry points; every entry point on a handle goes through WithHandle, which catches,
// looks the handle up, locks its session and checks its kind. The event thread and
// the state machine are in http_session.cpp, the libcurl transfer in http_hop.cpp.
#include <algorithm>
#include <atomic>
#include <climits>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

#include "os/posix/http_internal.h"
#include "support/text.h"
#include "support/utf.h"

namespace tpcsdk::os {

namespace curlhttp {

namespace {

thread_local uint32_t t_last_error = 0;

// ---- the handle table -----------------------------------------------------------

// Every entry point looks its handle up here, from every thread that makes calls, so
// the table is split by id: the threads of a busy host mostly use handles of their own,
// and each part has its own lock, so they seldom wait for one another.
struct Table {
  static constexpr size_t kParts = 64;
  struct alignas(64) Part {
    std::mutex mu;
    std::unordered_map<uintptr_t, std::shared_ptr<Handle>> map;
  };
  std::atomic<uintptr_t> next{0x1000};
  Part parts[kParts];
  Part& Of(uintptr_t id) { return parts[(id >> 2) % kParts]; }
};

// Freed by EndAllSessions.
LazyGlobal<Table> g_table;

Table& Handles() { return g_table.Get(); }

HttpHandle Register(const std::shared_ptr<Handle>& h) {
  Table& t = Handles();
  h->id = t.next.fetch_add(4, std::memory_order_relaxed) + 4;
  Table::Part& part = t.Of(h->id);
  std::lock_guard<std::mutex> lock(part.mu);
  part.map[h->id] = h;
  return reinterpret_cast<HttpHandle>(h->id);
}

std::shared_ptr<Handle> Lookup(HttpHandle handle) {
  const auto id = reinterpret_cast<uintptr_t>(handle);
  Table::Part& part = Handles().Of(id);
  std::lock_guard<std::mutex> lock(part.mu);
  auto it = part.map.find(id);
  return it == part.map.end() ? nullptr : it->second;
}

std::shared_ptr<Handle> Unregister(HttpHandle handle) {
  const auto id = reinterpret_cast<uintptr_t>(handle);
  Table::Part& part = Handles().Of(id);
  std::lock_guard<std::mutex> lock(part.mu);
  auto it = part.map.find(id);
  if (it == part.map.end()) return nullptr;
  std::shared_ptr<Handle> h = std::move(it->second);
  part.map.erase(it);
  return h;
}

// Gives a child handle just linked to its parent out. Should even that run out of
// memory, the child is unlinked again (from its lane's requests too), so that no
// closing of the parent waits for a handle nobody holds.
HttpHandle GiveOut(const std::shared_ptr<Handle>& child) {
  try {
    return Register(child);
  } catch (...) {
    if (child->kind == Kind::kRequest) {
      std::lock_guard<std::mutex> lock(child->core->mu);
      auto& list = child->core->requests;
      list.erase(std::remove(list.begin(), list.end(), child), list.end());
    }
    DetachFromParent(child->parent);
    throw;
  }
}

template <class R>
R FailWith(uint32_t error) {
  t_last_error = error;
  return R{};
}

// Runs an entry point with every failure turned into a result, so no exception
// leaves the seam.
template <class F>
auto Guarded(F&& f) -> decltype(f()) {
  try {
    return f();
  } catch (const std::bad_alloc&) {
    t_last_error = kHttpErrorNotEnoughMemory;
  } catch (...) {
    t_last_error = kHttpErrorInternal;
  }
  return {};
}

// The one way into a handle: guarded, looked up, its session locked for the call, and
// of kind T (any kind for Handle). f gets the handle and gives the entry point's result;
// a failure before it gives false or null with the last error set.
template <class T = Handle, class F>
auto WithHandle(HttpHandle handle, F&& f) -> decltype(f(std::shared_ptr<T>())) {
  using Result = decltype(f(std::shared_ptr<T>()));
  return Guarded([&]() -> Result {
    std::shared_ptr<Handle> h = Lookup(handle);
    if (!h) return FailWith<Result>(kHttpErrorInvalidHandle);
    const std::shared_ptr<Core> core = h->core;  // outlives the lock
    std::lock_guard<std::mutex> lock(core->mu);
    if (h->closed_by_app) return FailWith<Result>(kHttpErrorInvalidHandle);
    if constexpr (!std::is_same_v<T, Handle>) {
      if (h->kind != T::kKind) return FailWith<Result>(kHttpErrorIncorrectHandleType);
    }
    return f(std::static_pointer_cast<T>(h));
  });
}

// Makes a handle under `parent`: it inherits the callback and the timeouts.
template <class T>
std::shared_ptr<T> MakeChild(const std::shared_ptr<Handle>& parent) {
  auto child = std::make_shared<T>();
  child->core = parent->core;
  child->parent = parent;
  child->callback = parent->callback;
  child->mask = parent->mask;
  child->timeouts = parent->timeouts;
  parent->children++;
  return child;
}

// ---- small helpers ----------------------------------------------------------------

std::string Narrow(std::u16string_view s) { return Utf16ToUtf8(s); }

constexpr uint32_t kErrorInvalidData = 13;  // a header that does not read as a number
constexpr uint32_t kErrorInvalidHeader = 12153;
constexpr uint32_t kErrorHeaderAlreadyExists = 12155;

// The object name as it goes on the request line. Spaces, control characters and
// bytes of non-ASCII characters (UTF-8) are always escaped, since the line could not
// carry them; the characters that are unsafe in a URL are escaped unless the caller
// asked for the name as it stands; '%' only on request.
std::string EscapeObjectName(std::u16string_view name, uint32_t flags) {
  static const char kHex[] = "0123456789ABCDEF";
  const std::string bytes = Narrow(name);
  std::string out;
  out.reserve(bytes.size() + 8);
  bool in_query = false;
  for (unsigned char c : bytes) {
    if (c == '?') in_query = true;
    const bool unsafe_disabled =
        (flags & kHttpFlagEscapeDisable) || (in_query && (flags & kHttpFlagEscapeDisableQuery));
    bool escape = c <= 0x20 || c >= 0x7F;
    if (c == '%') escape = (flags & kHttpFlagEscapePercent) != 0;
    if (!escape && !unsafe_disabled && std::strchr("\"#<>[\\]^`{|}", c) != nullptr) escape = true;
    if (escape) {
      out.push_back('%');
      out.push_back(kHex[c >> 4]);
      out.push_back(kHex[c & 15]);
    } else {
      out.push_back(static_cast<char>(c));
    }
  }
  if (out.empty() || out[0] != '/') out.insert(out.begin(), '/');
  return out;
}

int32_t* TimeoutField(Timeouts& t, uint32_t option) {
  switch (option) {
    case kHttpOptionResolveTimeout: return &t.resolve;
    case kHttpOptionConnectTimeout: return &t.connect;
    case kHttpOptionSendTimeout: return &t.send;
    case kHttpOptionReceiveTimeout: return &t.receive;
    case kHttpOptionReceiveResponseTimeout: return &t.receive_response;
    default: return nullptr;
  }
}

bool PutBytes(const void* value, uint32_t size, void* buffer, uint32_t* length) {
  if (!buffer || *length < size) {
    *length = size;
    return Fail(kHttpErrorInsufficientBuffer);
  }
  std::memcpy(buffer, value, size);
  *length = size;
  return true;
}

bool PutText(const std::u16string& text, void* buffer, uint32_t* length) {
  const uint32_t needed = static_cast<uint32_t>((text.size() + 1) * sizeof(char16_t));
  if (!buffer || *length < needed) {
    *length = needed;
    return Fail(kHttpErrorInsufficientBuffer);
  }
  std::memcpy(buffer, text.c_str(), needed);
  *length = needed - sizeof(char16_t);
  return true;
}

const char* HeaderNameForLevel(uint32_t level) {
  switch (level) {
    case 1: return "Content-Type";
    case 3: return "Content-Encoding";
    case 5: return "Content-Length";
    case 6: return "Content-Language";
    case 9: return "Date";
    case 10: return "Expires";
    case 11: return "Last-Modified";
    case 23: return "Connection";
    case 33: return "Location";
    case 37: return "Server";
    case 43: return "Set-Cookie";
    case 44: return "Cookie";
    case 48: return "Cache-Control";
    case 53: return "Age";
    case 54: return "ETag";
    case 63: return "Transfer-Encoding";
    default: return nullptr;
  }
}

bool AddHeaders(Request& r, std::u16string_view text, uint32_t modifiers) {
  HeaderFields parsed;
  parsed.reserve(8);
  if (!ParseHeaderLines(Narrow(text), &parsed)) return Fail(kErrorInvalidHeader);
  r.headers.reserve(r.headers.size() + parsed.size());
  for (const auto& field : parsed) {
    const std::string& name = field.first;
    const std::string& value = field.second;
    auto same = [&](const std::string& h) {
      const size_t colon = h.find(':');
      return EqualsNoCase(std::string_view(h).substr(0, colon), name);
    };
    const bool exists = std::any_of(r.headers.begin(), r.headers.end(), same);
    if (modifiers & kHttpAddReqFlagReplace) {
      r.headers.erase(std::remove_if(r.headers.begin(), r.headers.end(), same), r.headers.end());
      if (value.empty()) continue;
    } else if ((modifiers & kHttpAddReqFlagAddIfNew) && exists) {
      return Fail(kErrorHeaderAlreadyExists);
    }
    r.headers.push_back(name + ": " + value);
  }
  return true;
}

// The text of a header query; false with the last error set when there is none.
bool HeaderText(const Request& r, uint32_t level, const char16_t* name, uint32_t index,
                std::string* text) {
  const ResponseHead& head = r.final_head;
  switch (level) {
    case kHttpQueryRawHeadersCrlf:
      *text = head.text + "\r\n";
      return true;
    case kHttpQueryRawHeaders: {
      // Lines separated by NUL characters, ending with an empty line.
      std::string_view all = head.text;
      size_t i = 0;
      while (i < all.size()) {
        const size_t end = all.find("\r\n", i);
        if (end == std::string_view::npos || end == i) break;
        text->append(all.substr(i, end - i));
        text->push_back('\0');
        i = end + 2;
      }
      return true;
    }
    case kHttpQueryStatusCode:
      *text = std::to_string(head.status);
      return true;
    case kHttpQueryVersion:
    case kHttpQueryStatusText: {
      const std::string_view line = std::string_view(head.text).substr(0, head.text.find("\r\n"));
      const size_t sp1 = line.find(' ');
      if (level == kHttpQueryVersion) {
        *text = std::string(line.substr(0, sp1));
      } else {
        const size_t sp2 = sp1 == std::string_view::npos ? sp1 : line.find(' ', sp1 + 1);
        if (sp2 != std::string_view::npos) *text = std::string(line.substr(sp2 + 1));
      }
      return true;
    }
    default: {
      std::string header;
      if (level == kHttpQueryCustom) {
        if (!name) return Fail(kHttpErrorInvalidParameter);
        header = Narrow(std::u16string_view(name));
      } else if (const char* known = HeaderNameForLevel(level)) {
        header = known;
      } else {
        return Fail(kHttpErrorHeaderNotFound);
      }
      if (!head.Find(header, index, text)) return Fail(kHttpErrorHeaderNotFound);
      return true;
    }
  }
}

// Hands a caller's call to the event thread as the request's pending operation. A call
// made on the event thread itself (from inside a notification) goes on at once; the
// loop delivers what it queued as soon as the notification in progress returns. What
// it cannot finish now waits for curl's next work: the loop moves every request on after
// each of curl's steps, so it needs no extra pass for it.
bool Begin(Request& r, Phase pending) {
  r.phase = pending;
  Core& core = *r.core;
  if (std::this_thread::get_id() == core.loop_thread) {
    AdvanceNow(r);
    return true;
  }
  Wake(core);
  return true;
}

// The session's cookie share is used by all of its event threads.
void LockShare(CURL*, curl_lock_data data, curl_lock_access, void* p) {
  static_cast<Settings*>(p)->share_mu[data].lock();
}

void UnlockShare(CURL*, curl_lock_data data, void* p) {
  static_cast<Settings*>(p)->share_mu[data].unlock();
}

// The lanes of a session: one per processor, at most four.
size_t LaneCount() {
  const unsigned n = std::thread::hardware_concurrency();
  return std::clamp<size_t>(n, 1, 4);
}

bool InBody(const Request& r) {
  return r.phase == Phase::kBody || r.phase == Phase::kQuerying || r.phase == Phase::kReading;
}

}  // namespace

bool Fail(uint32_t error) {
  t_last_error = error;
  return false;
}

void SetLastError(uint32_t error) { t_last_error = error; }

Request::~Request() {
  // A sender's lane that was never driven to the end may still hold the transfer.
  if (Active(hop) && core && core->own) EndTransfer(*this);
  if (header_list) curl_slist_free_all(header_list);
}

Settings::~Settings() {
  for (Core* lane : idle) delete lane;
  if (share) curl_share_cleanup(share);
}

namespace {

// Takes a sender's lane back when its last reference goes.
struct LaneReturn {
  std::weak_ptr<Settings> home;
  void operator()(Core* lane) const {
    // Enough for the senders of a busy host; the rest close their connections.
    constexpr size_t kMaxIdle = 16;
    const std::shared_ptr<Settings> settings = home.lock();
    lane->settings.reset();  // an idle lane must not keep its session
    // Nothing refers to the lane any more, so what its lists held has gone with the
    // handles; a lane that still holds something is not used again.
    const bool empty = lane->requests.empty() && lane->passing.empty() && lane->to_close.empty() &&
                       lane->notes.empty() && lane->detach.empty();
    if (settings && empty) {
      // The lists keep their room.
      lane->loop_thread = std::thread::id();
      lane->dirty = lane->polling = lane->delivering = lane->finished = lane->driving = false;
      lane->last_user = std::this_thread::get_id();
      std::lock_guard<std::mutex> lock(settings->idle_mu);
      if (settings->idle.size() < kMaxIdle) {
        settings->idle.push_back(lane);
        return;
      }
    }
    delete lane;
  }
};

}  // namespace

std::shared_ptr<Core> TakeLane(const std::shared_ptr<Settings>& settings) {
  const std::thread::id me = std::this_thread::get_id();
  Core* lane = nullptr;
  {
    std::lock_guard<std::mutex> lock(settings->idle_mu);
    auto& idle = settings->idle;
    if (!idle.empty()) {
      // The calling thread's own, when it left one; otherwise the last one left.
      auto it = std::find_if(idle.rbegin(), idle.rend(), [&](const Core* l) { return l->last_user == me; });
      const auto at = it == idle.rend() ? idle.end() - 1 : std::prev(it.base());
      lane = *at;
      idle.erase(at);
    }
  }
  if (!lane) {
    auto made = std::make_unique<Core>();
    made->own = true;
    made->multi = curl_multi_init();
    if (!made->multi) return nullptr;
    lane = made.release();
  }
  lane->settings = settings;
  // Should the reference itself fail to be made, the lane goes back at once.
  return std::shared_ptr<Core>(lane, LaneReturn{settings});
}

void EndAllSessions() {
  std::vector<std::shared_ptr<Handle>> open;
  {
    Table& t = Handles();
    for (Table::Part& part : t.parts) {
      std::lock_guard<std::mutex> lock(part.mu);
      for (auto& entry : part.map) open.push_back(std::move(entry.second));
      part.map.clear();
    }
  }
  for (const auto& h : open) {
    std::unique_lock<std::mutex> lock(h->core->mu);
    h->callback = nullptr;  // no code above the seam runs from here on
    h->mask = 0;
    h->closed_by_app = true;
    if (CloseHere(h, lock)) continue;
    h->core->to_close.push_back(h);
    Wake(*h->core);
  }
  open.clear();
  JoinSessions();
  delete g_table.Take();
  CurlGlobalCleanup();
}

}  // namespace curlhttp

using namespace curlhttp;

// Used by http_url.cpp.
void HttpSetLastErrorInternal(uint32_t error) { SetLastError(error); }

uint32_t HttpLastError() { return t_last_error; }

HttpHandle HttpOpen(std::u16string_view agent, uint32_t access_type, std::u16string_view proxy,
                    std::u16string_view bypass, uint32_t flags) {
  return Guarded([&]() -> HttpHandle {
    if (!(flags & kHttpFlagAsync)) return FailWith<HttpHandle>(kHttpErrorInvalidParameter);
    if (access_type != kHttpAccessTypeDefaultProxy && access_type != kHttpAccessTypeNoProxy &&
        access_type != kHttpAccessTypeNamedProxy) {
      return FailWith<HttpHandle>(kHttpErrorInvalidParameter);
    }
    if (access_type == kHttpAccessTypeNamedProxy && proxy.empty()) {
      return FailWith<HttpHandle>(kHttpErrorInvalidParameter);
    }
    if (!CurlGlobalInit()) return FailWith<HttpHandle>(kHttpErrorInternal);
    auto settings = std::make_shared<Settings>();
    settings->agent = Narrow(agent);
    if (access_type == kHttpAccessTypeNamedProxy) {
      ParseProxyList(Narrow(proxy), &settings->http_proxy, &settings->https_proxy);
      settings->bypass = ParseBypassList(Narrow(bypass));
    }
    settings->share = curl_share_init();
    CURLSH* share = settings->share;
    const bool shared =
        share && curl_share_setopt(share, CURLSHOPT_LOCKFUNC, &LockShare) == CURLSHE_OK &&
        curl_share_setopt(share, CURLSHOPT_UNLOCKFUNC, &UnlockShare) == CURLSHE_OK &&
        curl_share_setopt(share, CURLSHOPT_USERDATA, settings.get()) == CURLSHE_OK &&
        curl_share_setopt(share, CURLSHOPT_SHARE, CURL_LOCK_DATA_COOKIE) == CURLSHE_OK;
    if (!shared) return FailWith<HttpHandle>(kHttpErrorNotEnoughMemory);
    std::vector<std::shared_ptr<Core>> lanes(LaneCount());
    for (auto& lane : lanes) {
      lane = std::make_shared<Core>();
      lane->settings = settings;
      lane->multi = curl_multi_init();
      if (!lane->multi) return FailWith<HttpHandle>(kHttpErrorNotEnoughMemory);
    }
    const std::shared_ptr<Core> core = lanes.front();
    core->lanes.assign(lanes.begin() + 1, lanes.end());
    auto session = std::make_shared<Session>();
    session->core = core;
    size_t started = 0;
    try {
      for (; started < lanes.size(); ++started) StartSession(lanes[started]);
    } catch (...) {
      // The threads already started end at once: their lanes never get work.
      for (size_t i = 0; i < started; ++i) {
        std::lock_guard<std::mutex> lock(lanes[i]->mu);
        lanes[i]->finished = true;
        Wake(*lanes[i]);
      }
      throw;
    }
    return Register(session);
  });
}

HttpHandle HttpConnect(HttpHandle session, std::u16string_view server, uint16_t port) {
  return Guarded([&]() -> HttpHandle {
    // Made before the session is locked: every host thread connects through it.
    std::string host = Narrow(server);
    std::shared_ptr<Connect> made;
    const bool linked = WithHandle<Session>(session, [&](const std::shared_ptr<Session>& s) {
      if (server.empty()) return Fail(kHttpErrorInvalidParameter);
      auto c = MakeChild<Connect>(s);
      // The connection's lane, in turn; its requests stay on it.
      Core& home = *s->core;
      const size_t turn = home.next_lane;
      home.next_lane = (turn + 1) % (home.lanes.size() + 1);
      if (turn > 0) c->core = home.lanes[turn - 1];
      c->host = std::move(host);
      c->port = port;
      made = std::move(c);
      return true;
    });
    return linked ? GiveOut(made) : nullptr;
  });
}

HttpHandle HttpOpenRequest(HttpHandle connect, std::u16string_view verb,
                           std::u16string_view object_name, uint32_t flags) {
  // What needs no handle is made before the connection's lane is locked: every host
  // thread opens its requests on the few lanes there are.
  return Guarded([&]() -> HttpHandle {
    std::string method = verb.empty() ? std::string("GET") : Narrow(verb);
    std::string target = EscapeObjectName(object_name, flags);
    const bool own_lane = (flags & kHttpFlagSenderDrives) != 0;
    std::shared_ptr<Request> opened;
    std::shared_ptr<Settings> settings;
    const bool linked = WithHandle<Connect>(connect, [&](const std::shared_ptr<Connect>& c) {
      auto r = MakeChild<Request>(c);
      r->host = c->host;
      r->port = c->port;
      r->secure = (flags & kHttpFlagSecure) != 0;
      r->verb = std::move(method);
      r->target = std::move(target);
      if (own_lane) {
        settings = c->core->settings;
      } else {
        r->core->requests.push_back(r);
      }
      opened = std::move(r);
      return true;
    });
    if (!linked) return nullptr;
    // A lane of its own is the request's alone until the handle is given out.
    if (own_lane) {
      std::shared_ptr<Core> lane = TakeLane(settings);
      if (!lane) {
        DetachFromParent(opened->parent);  // never given out: the connection lets it go
        return FailWith<HttpHandle>(kHttpErrorNotEnoughMemory);
      }
      lane->requests.push_back(opened);
      opened->core = std::move(lane);
    }
    return GiveOut(opened);
  });
}

bool HttpSetStatusCallback(HttpHandle handle, HttpStatusCallback callback, uint32_t mask) {
  return WithHandle(handle, [&](const std::shared_ptr<Handle>& h) {
    h->callback = callback;
    h->mask = callback ? mask : 0;
    return true;
  });
}

bool HttpSetOption(HttpHandle handle, uint32_t option, const void* buffer, uint32_t length) {
  return WithHandle(handle, [&](const std::shared_ptr<Handle>& h) -> bool {
    if (!buffer) return Fail(kHttpErrorInvalidParameter);
    uint32_t value = 0;
    auto u32 = [&]() {
      if (length < sizeof(uint32_t)) return Fail(kHttpErrorInvalidParameter);
      std::memcpy(&value, buffer, sizeof(uint32_t));
      return true;
    };
    if (int32_t* field = TimeoutField(h->timeouts, option)) {
      if (!u32()) return false;
      *field = static_cast<int32_t>(value);
      return true;
    }
    switch (option) {
      case kHttpOptionContextValue:
        if (length < sizeof(uintptr_t)) return Fail(kHttpErrorInvalidParameter);
        std::memcpy(&h->context, buffer, sizeof(uintptr_t));
        return true;
      case kHttpOptionSecurityFlags:
        if (h->kind != Kind::kRequest) return Fail(kHttpErrorIncorrectHandleType);
        if (!u32()) return false;
        static_cast<Request&>(*h).security_flags = value;
        return true;
      case kHttpOptionRedirectPolicy:
        if (h->kind != Kind::kRequest) return Fail(kHttpErrorIncorrectHandleType);
        if (!u32()) return false;
        if (value > kHttpRedirectPolicyAlways) return Fail(kHttpErrorInvalidParameter);
        static_cast<Request&>(*h).redirect_policy = value;
        return true;
      case kHttpOptionSecureProtocols:
        if (h->kind != Kind::kSession) return Fail(kHttpErrorIncorrectHandleType);
        if (!u32()) return false;
        if (!(value & (kHttpSecureProtocolTls1 | kHttpSecureProtocolTls1_1 |
                       kHttpSecureProtocolTls1_2 | kHttpSecureProtocolTls1_3))) {
          return Fail(kHttpErrorInvalidParameter);
        }
        h->core->settings->secure_protocols = value;
        return true;
      default:
        return Fail(kHttpErrorInvalidOption);
    }
  });
}

bool HttpQueryOption(HttpHandle handle, uint32_t option, void* buffer, uint32_t* length) {
  if (!length) return Fail(kHttpErrorInvalidParameter);
  return WithHandle(handle, [&](const std::shared_ptr<Handle>& h) -> bool {
    if (int32_t* field = TimeoutField(h->timeouts, option)) {
      return PutBytes(field, sizeof(int32_t), buffer, length);
    }
    const uint32_t* value = nullptr;
    switch (option) {
      case kHttpOptionContextValue:
        return PutBytes(&h->context, sizeof(uintptr_t), buffer, length);
      case kHttpOptionSecurityFlags:
      case kHttpOptionRedirectPolicy: {
        if (h->kind != Kind::kRequest) return Fail(kHttpErrorIncorrectHandleType);
        const Request& r = static_cast<const Request&>(*h);
        value = option == kHttpOptionSecurityFlags ? &r.security_flags : &r.redirect_policy;
        break;
      }
      case kHttpOptionSecureProtocols: {
        if (h->kind != Kind::kSession) return Fail(kHttpErrorIncorrectHandleType);
        const uint32_t protocols = h->core->settings->secure_protocols;
        return PutBytes(&protocols, sizeof(uint32_t), buffer, length);
      }
      default:
        return Fail(kHttpErrorInvalidOption);
    }
    return PutBytes(value, sizeof(uint32_t), buffer, length);
  });
}

bool HttpAddRequestHeaders(HttpHandle request, std::u16string_view headers, uint32_t modifiers) {
  return WithHandle<Request>(request, [&](const std::shared_ptr<Request>& r) -> bool {
    if (r->phase != Phase::kOpen) return Fail(kHttpErrorIncorrectHandleState);
    if (headers.empty()) return Fail(kHttpErrorInvalidParameter);
    return AddHeaders(*r, headers, modifiers);
  });
}

bool HttpSendRequest(HttpHandle request, std::u16string_view headers, const void* optional,
                     uint32_t optional_length, uint32_t total_length, uintptr_t context) {
  return WithHandle<Request>(request, [&](const std::shared_ptr<Request>& r) -> bool {
    if (r->phase != Phase::kOpen) return Fail(kHttpErrorIncorrectHandleState);
    if ((optional_length > 0 && !optional) || total_length != optional_length) {
      return Fail(kHttpErrorInvalidParameter);
    }
    if (!headers.empty() && !AddHeaders(*r, headers, kHttpAddReqFlagAdd)) return false;
    r->body.assign(static_cast<const char*>(optional), optional_length);
    r->context = context;
    return Begin(*r, Phase::kSending);
  });
}

bool HttpReceiveResponse(HttpHandle request) {
  return WithHandle<Request>(request, [&](const std::shared_ptr<Request>& r) -> bool {
    if (r->phase != Phase::kSent) return Fail(kHttpErrorIncorrectHandleState);
    return Begin(*r, Phase::kReceiving);
  });
}

bool HttpQueryHeaders(HttpHandle request, uint32_t info_level, const char16_t* name, void* buffer,
                      uint32_t* length, uint32_t* index) {
  if (!length) return Fail(kHttpErrorInvalidParameter);
  return WithHandle<Request>(request, [&](const std::shared_ptr<Request>& r) -> bool {
    if (!InBody(*r)) return Fail(kHttpErrorIncorrectHandleState);
    std::string text;
    if (!HeaderText(*r, info_level & 0xFFFF, name, index ? *index : 0, &text)) return false;
    bool ok;
    if (info_level & kHttpQueryFlagNumber) {
      if (text.empty() || text.size() > 10 ||
          text.find_first_not_of("0123456789") != std::string::npos) {
        return Fail(kErrorInvalidData);
      }
      const unsigned long long v = std::stoull(text);
      if (v > UINT32_MAX) return Fail(kErrorInvalidData);
      const uint32_t value = static_cast<uint32_t>(v);
      ok = PutBytes(&value, sizeof(value), buffer, length);
    } else {
      ok = PutText(Utf8ToUtf16(text), buffer, length);
    }
    if (ok && index) ++*index;
    return ok;
  });
}

bool HttpQueryDataAvailable(HttpHandle request) {
  return WithHandle<Request>(request, [&](const std::shared_ptr<Request>& r) -> bool {
    if (r->phase != Phase::kBody) return Fail(kHttpErrorIncorrectHandleState);
    return Begin(*r, Phase::kQuerying);
  });
}

bool HttpReadData(HttpHandle request, void* buffer, uint32_t bytes_to_read) {
  return WithHandle<Request>(request, [&](const std::shared_ptr<Request>& r) -> bool {
    if (!buffer) return Fail(kHttpErrorInvalidParameter);
    if (r->phase != Phase::kBody) return Fail(kHttpErrorIncorrectHandleState);
    r->read_buffer = buffer;
    r->read_length = bytes_to_read;
    return Begin(*r, Phase::kReading);
  });
}

bool HttpDriveUntil(HttpHandle request, bool (*done)(void*), void* arg) {
  if (!done) return false;
  return Guarded([&]() -> bool {
    const std::shared_ptr<Handle> h = Lookup(request);
    if (!h || h->kind != Kind::kRequest) return false;
    const std::shared_ptr<Core> core = h->core;
    if (!core->own) return false;
    std::unique_lock<std::mutex> lock(core->mu);
    if (core->driving || h->freed) return false;
    core->driving = true;
    core->loop_thread = std::this_thread::get_id();
    struct Release {
      Core& core;
      ~Release() {
        core.driving = false;
        core.loop_thread = std::thread::id();
      }
    } release{*core};
    Drive(core, lock, done, arg);
    return true;
  });
}

bool HttpCloseHandle(HttpHandle handle) {
  return Guarded([&]() -> bool {
    std::shared_ptr<Handle> h = Unregister(handle);
    if (!h) return Fail(kHttpErrorInvalidHandle);
    std::unique_lock<std::mutex> lock(h->core->mu);
    h->closed_by_app = true;
    if (CloseHere(h, lock)) return true;
    h->core->to_close.push_back(h);
    Wake(*h->core);
    return true;
  });
}

}  // namespace tpcsdk::os
