// tdoc demo: the connected-document life cycle against an emulator on loopback.
// It copies the module into a temporary folder with a configuration file that
// names the emulator, points the module's application data (and, on Linux, its
// registry files) into that folder, and then walks the steps a host takes: host
// discovery, client creation, a user check, a document and its versions, a usage
// record, a polled message, the wrapper documents, and the stop. Each step says
// what went over the wire (from the emulator's request log) and how long it took.
#include <CLI/CLI.hpp>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <random>
#include <thread>

#include "common.h"
#include "sys.h"

#ifdef TDOC_INPROCESS_EMULATOR
#include "emulator/emulator.h"
#endif

namespace fs = std::filesystem;

namespace tdoc {
namespace {

struct DemoOptions {
  bool keep = false;
  int message_wait_s = 10;
  std::string emulator;  // a program to start instead of the built-in emulator
};

const char kToken[] = "demo-token-1";
const char kUserId[] = "demo-user";
const char kEmail[] = "ann@demo.test";
const char kAppId[] = "demo-app";
const char kDocId[] = "demo-doc";
const char kAppName[] = "tdoc demo";
const char kAppVersion[] = "1.0";

// The emulator the demo talks to, and its control API.
class Emulator {
 public:
  ~Emulator() { Stop(); }

  // Started in this process where the build has it, else the given program;
  // TDOC_EMULATOR_URL names one that is already running.
  std::string Start(const std::string& program) {
    url_ = sys::GetEnv("TDOC_EMULATOR_URL");
    if (!url_.empty()) {
      how_ = "already running (TDOC_EMULATOR_URL)";
      Control("POST", "reset", "{}");
      return url_;
    }
    std::string error;
#ifdef TDOC_INPROCESS_EMULATOR
    if (program.empty()) {
      inprocess_ = std::make_unique<tpcsdk::emulator::Emulator>();
      tpcsdk::emulator::Options options;
      if (!inprocess_->Start(options, &error)) throw Failure{kExitFailed, "the emulator did not start: " + error};
      url_ = inprocess_->BaseUrl();
      how_ = "started in this process";
      return url_;
    }
#endif
    const std::string path = program.empty() ? sys::ExecutableDirectory() + sys::PathSeparator() + "tdoc-emulator"
                                             : program;
    if (!sys::StartEmulator(path, 10000, &child_, &url_, &error))
      throw Failure{kExitFailed, "the emulator did not start: " + error};
    how_ = "started as " + path;
    return url_;
  }

  void Stop() {
#ifdef TDOC_INPROCESS_EMULATOR
    if (inprocess_) inprocess_->Stop();
    inprocess_.reset();
#endif
    // A child emulator is asked to end first: a native one started under wine is
    // out of reach of the Windows process calls that end a child.
    if (sys::ChildRunning(child_)) Control("POST", "shutdown", "{}");
    sys::StopChild(&child_);
  }

  const std::string& how() const { return how_; }

  // One control call; the reply's JSON, with `status` set (0: no answer).
  Json::Value Control(const std::string& method, const std::string& endpoint, const std::string& body,
                      int* status = nullptr) {
    const sys::HttpReply reply = sys::HttpExchange(url_, method, "/_emulator/" + endpoint, body, 10000);
    if (status) *status = reply.status;
    return JsonOrText(reply.body);
  }

  // "METHOD target" of every request since the last call.
  std::vector<std::string> Wire() {
    const Json::Value log = Control("GET", "log?since=" + std::to_string(last_seq_), "");
    std::vector<std::string> lines;
    if (!log.isObject()) return lines;
    for (const Json::Value& e : log["requests"]) {
      std::string line = e["method"].asString() + " " + e["target"].asString();
      if (e["body_size"].asInt64() > 0) line += "  (" + std::to_string(e["body_size"].asInt64()) + "-byte body)";
      lines.push_back(line);
      if (e["seq"].asUInt64() > last_seq_) last_seq_ = e["seq"].asUInt64();
    }
    return lines;
  }

 private:
  std::string url_;
  std::string how_;
  sys::Child child_;
  uint64_t last_seq_ = 0;  // the log's sequence number of the last request shown
#ifdef TDOC_INPROCESS_EMULATOR
  std::unique_ptr<tpcsdk::emulator::Emulator> inprocess_;
#endif
};

enum class Status { Ok, Failed, Unavailable };
const char* StatusText(Status s) {
  return s == Status::Ok ? "ok" : s == Status::Failed ? "FAILED" : "unavailable";
}

struct Step {
  std::string title;
  Status status = Status::Ok;
  int64_t ms = 0;
  std::vector<std::string> said;
  std::vector<std::string> wire;
};

// Prints each step as it ends, and keeps them for --json.
class Walk {
 public:
  Walk(const Context& ctx, Emulator& emulator, int total) : ctx_(ctx), emulator_(emulator), total_(total) {}

  Step& Begin(const std::string& title) {
    steps_.emplace_back();
    steps_.back().title = title;
    start_ = NowMs();
    emulator_.Wire();  // what went before belongs to no step
    return steps_.back();
  }

  void End(Status status) {
    Step& s = steps_.back();
    s.status = status;
    s.ms = NowMs() - start_;
    s.wire = emulator_.Wire();
    if (ctx_.json) return;
    std::printf("[%zu/%d] %-40s %-11s %6lld ms\n", steps_.size(), total_, s.title.c_str(), StatusText(status),
                static_cast<long long>(s.ms));
    for (const std::string& line : s.said) std::printf("      %s\n", line.c_str());
    for (const std::string& line : s.wire) std::printf("      wire: %s\n", line.c_str());
    std::fflush(stdout);
  }

  // Lines printed while a step runs (progress), in text mode only.
  void Progress(const std::string& line) {
    if (!ctx_.json) {
      std::printf("      ... %s\n", line.c_str());
      std::fflush(stdout);
    }
  }

  int Finish() {
    int failed = 0, unavailable = 0;
    for (const Step& s : steps_) {
      failed += s.status == Status::Failed;
      unavailable += s.status == Status::Unavailable;
    }
    if (ctx_.json) {
      Json::Value out(Json::objectValue);
      out["command"] = "demo";
      out["ok"] = failed == 0;
      out["steps"] = Json::Value(Json::arrayValue);
      for (const Step& s : steps_) {
        Json::Value v(Json::objectValue);
        v["title"] = s.title;
        v["status"] = StatusText(s.status);
        v["ms"] = static_cast<Json::Int64>(s.ms);
        v["said"] = Json::Value(Json::arrayValue);
        for (const std::string& l : s.said) v["said"].append(l);
        v["wire"] = Json::Value(Json::arrayValue);
        for (const std::string& l : s.wire) v["wire"].append(l);
        out["steps"].append(v);
      }
      std::fprintf(ctx_.out, "%s\n", CompactJson(out).c_str());
    } else {
      std::printf("\n%zu steps: %zu ok, %d failed, %d unavailable in this module\n", steps_.size(),
                  steps_.size() - static_cast<size_t>(failed + unavailable), failed, unavailable);
    }
    return failed == 0 ? kExitOk : kExitFailed;
  }

 private:
  const Context& ctx_;
  Emulator& emulator_;
  int total_;
  std::vector<Step> steps_;
  int64_t start_ = 0;
};

std::string Describe(int result) { return std::to_string(result) + " (" + ResultName(result) + ")"; }

// The demo's own folder under the system's temporary folder.
fs::path MakeTempFolder() {
  std::random_device rd;
  const fs::path base = fs::temp_directory_path();
  for (int i = 0; i < 100; ++i) {
    fs::path dir = base / ("tdoc-demo-" + std::to_string(rd() % 1000000000u));
    std::error_code ec;
    if (fs::create_directory(dir, ec)) return dir;
  }
  throw Failure{kExitFailed, "cannot make a temporary folder under " + base.string()};
}

uintmax_t BytesUnder(const fs::path& dir, int* files) {
  uintmax_t total = 0;
  *files = 0;
  std::error_code ec;
  for (auto it = fs::recursive_directory_iterator(dir, ec); !ec && it != fs::recursive_directory_iterator();
       it.increment(ec)) {
    if (it->is_regular_file(ec) && it->path().extension() != ".dat") {
      total += it->file_size(ec);
      ++*files;
    }
  }
  return total;
}

struct MessageWait {
  std::mutex m;
  std::condition_variable cv;
  std::string first;
  int32_t code = 0;
  bool arrived = false;
};

int OnDemoMessage(int32_t code, PullMsgBuffer* message, const char*, void* user) {
  auto* wait = static_cast<MessageWait*>(user);
  std::lock_guard<std::mutex> hold(wait->m);
  if (!wait->arrived && message && message->text && message->length > 0) {
    wait->first.assign(message->text, static_cast<size_t>(message->length));
    while (!wait->first.empty() && (wait->first.back() == '\n' || wait->first.back() == '\r')) wait->first.pop_back();
    wait->code = code;
    wait->arrived = true;
    wait->cv.notify_all();
  }
  return 0;
}

int OnDemoError(int32_t, const char*, const char*, void*) { return 0; }

int RunDemo(Context& ctx, const DemoOptions& o) {
  const int kSteps = 9;
  if (ctx.host.loaded()) throw Failure{kExitFailed, "demo: the module is already loaded"};
  Emulator emulator;
  Walk walk(ctx, emulator, kSteps);
  const fs::path temp = MakeTempFolder();
  // Where a loaded module's file cannot be removed, the module is unloaded before
  // the folder goes; elsewhere it stays loaded until tdoc ends, as in a host.
  // The module keeps the wrapper documents' update time under the application's
  // key of the user's registry; the keys the demo made go again.
  const std::string vendor_key = "SOFTWARE\\Tarvo Software";
  const std::string app_key = vendor_key + "\\" + kAppName + " " + kAppVersion;
  const std::string new_key = !sys::UserRegistryKeyExists(vendor_key) ? vendor_key
                              : !sys::UserRegistryKeyExists(app_key) ? app_key
                                                                     : std::string();
  struct Cleanup {
    Host& host;
    fs::path dir;
    bool keep;
    std::string new_key;
    ~Cleanup() {
      if (sys::LoadedModuleFileIsLocked()) host.Unload();
      std::error_code ec;
      if (keep) return;
      fs::remove_all(dir, ec);
      if (!new_key.empty()) sys::DeleteUserRegistryKey(new_key);
    }
  } cleanup{ctx.host, temp, o.keep, new_key};
  const std::string source_module = ctx.module_path.empty()
                                        ? sys::ExecutableDirectory() + sys::PathSeparator() + sys::ModuleFileName()
                                        : ctx.module_path;

  // 1. The emulator.
  Step* step = &walk.Begin("Start the service emulator");
  const std::string url = emulator.Start(o.emulator);
  step->said.push_back("emulator " + emulator.how() + " at " + url);
  step->said.push_back("working folder " + temp.string() + (o.keep ? " (kept)" : " (removed at the end)"));
  walk.End(Status::Ok);

  // 2. Host discovery, from a configuration file beside a private copy of the module.
  step = &walk.Begin("Host discovery");
  fs::create_directories(temp / "module");
  fs::create_directories(temp / "appdata");
  fs::create_directories(temp / "registry");
  const fs::path module_copy = temp / "module" / sys::ModuleFileName();
  if (!sys::CopyFileTo(source_module, module_copy.string()))
    throw Failure{kExitNoModule, "cannot copy the module " + source_module + " to " + module_copy.string()};
  {
    Json::Value config(Json::objectValue);
    config["env"] = url;
    std::ofstream(temp / "module" / "tpcsdk.config") << CompactJson(config) << "\n";
  }
  // The module keeps its cache (and on Linux its registry files) inside the folder.
  sys::SetEnv("TPCSDK_APPDATA_DIR", (temp / "appdata").string());
  sys::SetEnv("TPCSDK_REGISTRY_DIR", (temp / "registry").string());
  ctx.module_path = module_copy.string();
  ctx.Load();
  IPDFPlatform* platform = ctx.host.platform();
  const WString app = Wide(kAppName), version = Wide(kAppVersion), no_user;
  std::string found;
  const char* names[] = {"policy (slot 7)", "last sign-in (slot 9)", "configuration file (slot 5)"};
  for (int slot = 0; slot < 3 && found.empty(); ++slot) {
    TDC_LPWSTR out = nullptr;
    const int r = ctx.host.Bounded(names[slot], ctx.timeout_ms(), [&] {
      if (slot == 0) return platform->GetRecordHostFromGPO(&out, app.c_str(), version.c_str(), no_user.c_str());
      if (slot == 1)
        return platform->GetRecordHostFromLastDefaultLogined(&out, app.c_str(), version.c_str(), no_user.c_str());
      return platform->GetRecordHostFromConfig(&out);
    });
    found = ctx.host.TakeWide(out);
    step->said.push_back(std::string(names[slot]) + ": " + (found.empty() ? "nothing" : found) + ", result " +
                         Describe(r));
  }
  const bool discovered = found == url;
  step->said.push_back(discovered ? "the configuration file beside the module names the emulator, and wins"
                                  : "discovery chose " + found + "; the demo goes on with the emulator");
  walk.End(discovered ? Status::Ok : Status::Failed);

  // 3. The client.
  step = &walk.Begin("Create the client (InitApi)");
  const WString host = Wide(url);
  TDC_CLIENT_INFO info{"en-US", "", kAppName, kAppVersion};
  TDC_LPWSTR domain = nullptr;
  const int init = ctx.host.Bounded("InitApi", ctx.timeout_ms(), [&] {
    return platform->InitApi(host.c_str(), &info, &domain);
  });
  step->said.push_back("InitApi gave " + Describe(init) + ", service domain " + ctx.host.TakeWide(domain));
  ITetherdocServer* client = init == TDC_HRESULT_OK ? platform->GetServerByHost(host.c_str()) : nullptr;
  walk.End(client ? Status::Ok : Status::Failed);
  if (!client) return walk.Finish();
  auto call = [&](const char* what, const std::function<int()>& fn) {
    return ctx.host.Bounded(what, ctx.timeout_ms(), fn);
  };

  // 4. The user.
  step = &walk.Begin("Check the user");
  Json::Value user(Json::objectValue);
  user["cUserID"] = kUserId;
  user["token"] = kToken;
  user["userEmail"] = kEmail;
  user["firstname"] = "Ann";
  user["lastname"] = "Lee";
  user["cState"] = 1;
  int status = 0;
  emulator.Control("POST", "users", CompactJson(user), &status);
  if (status == 200) {
    step->said.push_back(std::string("seeded user ") + kEmail + " with token " + kToken + " in the emulator");
  } else {
    Json::Value rule(Json::objectValue);
    rule["method"] = "GET";
    rule["path"] = "/tdocapi/v1/users";
    rule["times"] = "always";
    rule["json"]["ret"] = 0;
    rule["json"]["message"] = "";
    rule["json"]["returned"] = 1;
    rule["json"]["data"] = Json::Value(Json::arrayValue);
    rule["json"]["data"].append(user);
    emulator.Control("POST", "script", CompactJson(rule), &status);
    step->said.push_back(std::string("scripted the emulator's user look-up to answer ") + kEmail);
  }
  int32_t valid = 0;
  const int check = call("CheckUserToken", [&] { return client->CheckUserToken(kToken, &valid); });
  char* email = nullptr;
  const int got_email = call("GetEmail", [&] { return client->GetEmail(kToken, &email); });
  const std::string email_text = ctx.host.TakeText(email);
  client->SetAccessToken(Wide(kToken).c_str());
  step->said.push_back("CheckUserToken gave " + Describe(check) + ", token " + (valid == 1 ? "valid" : "not valid"));
  step->said.push_back("GetEmail gave " + Describe(got_email) + ": " + email_text);
  walk.End(check == TDC_HRESULT_OK && valid == 1 && email_text == kEmail ? Status::Ok : Status::Failed);

  // 5. A document and two versions.
  step = &walk.Begin("Register a document and two versions");
  const WString a = Wide(kAppId), d = Wide(kDocId), name = Wide("Quarterly plan.pdf"), t1 = Wide("2026-11-23 10:00:00"),
                t2 = Wide("2026-11-23 11:00:00"), uid = Wide(kUserId), none = Wide("");
  TDC_DOC_INFO doc{a.c_str(), d.c_str(), name.c_str(), t1.c_str(), t2.c_str(),
                   none.c_str(), uid.c_str(), none.c_str(), none.c_str(), none.c_str()};
  const int r_doc = call("UploadDocInfo", [&] { return client->UploadDocInfo(&doc); });
  step->said.push_back("UploadDocInfo " + std::string(kDocId) + " gave " + Describe(r_doc));
  bool versions_ok = r_doc == TDC_HRESULT_OK;
  for (const char* v : {"demo-v1", "demo-v2"}) {
    const WString vid = Wide(v);
    TDC_VERSION_INFO ver{a.c_str(), d.c_str(), vid.c_str(), name.c_str(), none.c_str(), none.c_str(),
                         t2.c_str(), none.c_str(), uid.c_str(), 52431, 12};
    const int r = call("UploadVersionInfo", [&] { return client->UploadVersionInfo(&ver); });
    step->said.push_back("UploadVersionInfo " + std::string(v) + " gave " + Describe(r));
    versions_ok = versions_ok && r == TDC_HRESULT_OK;
  }
  walk.End(versions_ok ? Status::Ok : Status::Failed);

  // 6. A usage record.
  step = &walk.Begin("Upload a usage record");
  const WString v2 = Wide("demo-v2"), op_type = Wide("open"), op = Wide(kEmail), operands = Wide("{\"page\":1}");
  TDC_USER_LOG record{a.c_str(), d.c_str(), v2.c_str(), uid.c_str(), t2.c_str(), op_type.c_str(), op.c_str(),
                      operands.c_str(), name.c_str(), none.c_str(), none.c_str(), none.c_str(), 0};
  const int r_log = call("UpLoadUserLogger", [&] { return client->UpLoadUserLogger(&record); });
  step->said.push_back("UpLoadUserLogger (open, page 1) gave " + Describe(r_log));
  walk.End(r_log == TDC_HRESULT_OK ? Status::Ok : Status::Failed);

  // 7. A message posted to the emulator, polled by the client.
  step = &walk.Begin("Receive a message through polling");
  static MessageWait wait;  // the module may call back until polling has stopped
  // The service's polling configuration asks for a round every second, so that the
  // message arrives within the step's wait rather than after the default 15 s.
  Json::Value config(Json::objectValue);
  config["minimumPollingTime"] = 1;
  config["maxPollingNotResultCount"] = 250;
  emulator.Control("POST", "polling/config", CompactJson(config), &status);
  Json::Value posted(Json::objectValue);
  posted["token"] = kToken;
  posted["type"] = 102;  // a message to the user
  posted["message"]["_id"] = "demo-message-1";
  posted["message"]["messageTemplateId"] = "tpl-share";
  posted["message"]["sender"] = "Bob";
  posted["message"]["docName"] = "Quarterly plan.pdf";
  emulator.Control("POST", "inbox", CompactJson(posted), &status);
  step->said.push_back(status == 200 ? "posted message demo-message-1 for " + std::string(kEmail) +
                                           " to the emulator's inbox; the service asks for a round every second"
                                     : "the emulator refused the message (control call answered " +
                                           std::to_string(status) + ")");
  const int r_cb = call("SetSubscribtionCallback", [&] {
    return client->SetSubscribtionCallback(OnDemoMessage, OnDemoError, &wait);
  });
  const int r_config = call("Internet_SetPollingConfig", [&] { return client->Internet_SetPollingConfig(kToken, 0); });
  step->said.push_back("Internet_SetPollingConfig gave " + Describe(r_config));
  const int r_sub = r_cb == TDC_HRESULT_OK ? call("SubscribeUser", [&] { return client->SubscribeUser(kToken); }) : r_cb;
  const int r_start = r_sub == TDC_HRESULT_OK ? call("StartPolling", [&] { return client->StartPolling(); }) : r_sub;
  Status message_status = Status::Ok;
  if (r_start != TDC_HRESULT_OK) {
    step->said.push_back("the module does not poll: SetSubscribtionCallback gave " + Describe(r_cb) +
                         (r_cb == TDC_HRESULT_OK ? ", SubscribeUser " + Describe(r_sub) : std::string()) +
                         (r_sub == TDC_HRESULT_OK ? ", StartPolling " + Describe(r_start) : std::string()));
    message_status = Status::Unavailable;
  } else {
    std::unique_lock<std::mutex> lock(wait.m);
    const bool arrived =
        wait.cv.wait_for(lock, std::chrono::seconds(o.message_wait_s), [&] { return wait.arrived; });
    if (arrived) {
      step->said.push_back("message " + std::to_string(wait.code) + " arrived: " + wait.first);
    } else {
      step->said.push_back("no message arrived within " + std::to_string(o.message_wait_s) + " s");
      message_status = Status::Failed;
    }
    lock.unlock();
    const int r_stop = call("StopPolling", [&] { return client->StopPolling(); });
    step->said.push_back("StopPolling gave " + Describe(r_stop));
    // What the service saw: the message went out in a round and came back acknowledged.
    const Json::Value inbox = emulator.Control("GET", "inbox", "");
    for (const Json::Value& m : inbox["messages"]) {
      step->said.push_back("the service's inbox: " + m["message"]["_id"].asString() + " carried by " +
                           std::to_string(m["deliveries"].asInt()) + " round(s), acknowledged " +
                           std::to_string(m["acks"].asInt()) + " time(s)");
      if (arrived && m["acks"].asInt() != 1) message_status = Status::Failed;
    }
  }
  walk.End(message_status);

  // 8. Wrapper documents.
  step = &walk.Begin("Bring the wrapper documents up to date");
  Json::Value wrappers(Json::objectValue);
  wrappers["updateTime"] = "2026-11-23 09:00:00";
  emulator.Control("POST", "wrappers", CompactJson(wrappers), &status);
  if (status == 200) step->said.push_back("the emulator offers wrapper documents updated 2026-11-23 09:00:00");
  {
    struct Done {
      std::mutex m;
      std::condition_variable cv;
      bool done = false;
    };
    auto done = std::make_shared<Done>();
    std::thread progress([&] {
      // Shows the files growing in the module's cache folder while the call runs.
      int last_files = -1;
      std::unique_lock<std::mutex> lock(done->m);
      while (!done->cv.wait_for(lock, std::chrono::milliseconds(250), [&] { return done->done; })) {
        int files = 0;
        const uintmax_t bytes = BytesUnder(temp / "appdata", &files);
        if (files != last_files) walk.Progress(std::to_string(files) + " file(s), " + std::to_string(bytes) + " bytes");
        last_files = files;
      }
    });
    call("UpdateWrapperDocuments", [&] {
      client->UpdateWrapperDocuments();
      return TDC_HRESULT_OK;
    });
    {
      std::lock_guard<std::mutex> hold(done->m);
      done->done = true;
      done->cv.notify_all();
    }
    progress.join();
  }
  int files = 0;
  const uintmax_t bytes = BytesUnder(temp / "appdata", &files);
  step->said.push_back("UpdateWrapperDocuments returned; " + std::to_string(files) + " document file(s), " +
                       std::to_string(bytes) + " bytes in the module's cache folder");
  // The call reports nothing itself: what it did shows on the wire and on disk.
  Status wrapper_status = Status::Ok;
  if (files == 0) {
    step->said.push_back("no wrapper document was downloaded by this module");
    wrapper_status = Status::Unavailable;
  }
  walk.End(wrapper_status);

  // 9. Stop.
  step = &walk.Begin("Stop");
  call("StopAllRequest", [&] {
    platform->StopAllRequest();
    return TDC_HRESULT_OK;
  });
  step->said.push_back("StopAllRequest: no call left in flight; the emulator stops next");
  step->said.push_back(o.keep ? "the working folder stays: " + temp.string()
                              : "the working folder goes: " + temp.string());
  walk.End(Status::Ok);
  emulator.Stop();
  return walk.Finish();
}

}  // namespace

void AddDemo(CLI::App& app, Context& ctx) {
  auto o = std::make_shared<DemoOptions>();
  CLI::App* command = app.add_subcommand("demo", "Walk the connected-document life cycle against a local emulator");
  command->add_flag("--keep", o->keep, "Keep the temporary folder (module copy, cache) afterwards");
  command->add_option("--message-wait", o->message_wait_s, "Seconds to wait for the polled message")
      ->check(CLI::Range(1, 300));
  command->add_option("--emulator", o->emulator, "Start this emulator program instead of the built-in one");
  command->callback([&ctx, o] { ctx.run = [&ctx, o] { return RunDemo(ctx, *o); }; });
}

}  // namespace tdoc
