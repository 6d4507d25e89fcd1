// tdoc watch: takes the service's polling configuration, subscribes the user (and
// optionally an application id and a document version), starts the client's
// polling, and prints every message the module delivers as one JSON line until
// Ctrl-C, --count or --seconds ends it.
// Polling is then stopped through the client before tdoc exits.
#include <CLI/CLI.hpp>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>

#include "common.h"
#include "sys.h"

namespace tdoc {
namespace {

struct WatchOptions {
  ClientOptions client;
  std::string app_id;
  std::string doc;
  std::string doc_version;
  int app_type = 0;
  int count = 0;    // 0: no limit
  int seconds = 0;  // 0: no limit
};

struct WatchState {
  std::mutex m;
  std::condition_variable cv;
  int messages = 0;
  bool interrupted = false;
  std::FILE* out = stdout;  // one JSON line per message
};

int OnMessage(int32_t code, PullMsgBuffer* message, const char* domain, void* user) {
  auto* state = static_cast<WatchState*>(user);
  Json::Value line(Json::objectValue);
  line["code"] = code;
  line["domain"] = domain ? domain : "";
  const std::string text = message && message->text && message->length > 0
                               ? std::string(message->text, static_cast<size_t>(message->length))
                               : std::string();
  line["message"] = JsonOrText(text);
  std::lock_guard<std::mutex> hold(state->m);
  std::fprintf(state->out, "%s\n", CompactJson(line).c_str());
  std::fflush(state->out);
  ++state->messages;
  state->cv.notify_all();
  return 0;
}

int OnError(int32_t code, const char* text, const char* domain, void*) {
  std::fprintf(stderr, "tdoc: watch: polling error %d from %s: %s\n", code, domain ? domain : "",
               text ? text : "");
  return 0;
}

void Check(const char* call, int result) {
  if (result != TDC_HRESULT_OK)
    throw Failure{ExitForResult(result), std::string("watch: ") + call + " gave " + std::to_string(result) + " (" +
                                             ResultName(result) + ")"};
}

int RunWatch(Context& ctx, const WatchOptions& o) {
  // A process-wide state: the module may still call back while tdoc ends.
  static WatchState state;
  sys::OnInterrupt([] {
    std::lock_guard<std::mutex> hold(state.m);
    state.interrupted = true;
    state.cv.notify_all();
  });
  {
    std::lock_guard<std::mutex> hold(state.m);
    state.out = ctx.out;
  }
  ITetherdocServer* client = Connect(ctx, o.client);
  const std::string& token = o.client.token;
  auto bounded = [&](const char* call, const std::function<int()>& fn) {
    Check(call, ctx.host.Bounded(call, ctx.timeout_ms(), fn));
  };
  bounded("SetAccessToken", [&] { return client->SetAccessToken(Wide(token).c_str()); });
  bounded("SetSubscribtionCallback", [&] { return client->SetSubscribtionCallback(OnMessage, OnError, &state); });
  // The service's polling configuration sets the interval; without it the module
  // keeps its defaults, which is worth a word but no reason to stop.
  const int config = ctx.host.Bounded("Internet_SetPollingConfig", ctx.timeout_ms(), [&] {
    return client->Internet_SetPollingConfig(token.c_str(), o.app_type);
  });
  if (config != TDC_HRESULT_OK)
    std::fprintf(stderr, "tdoc: watch: Internet_SetPollingConfig gave %d (%s); polling with the defaults\n", config,
                 ResultName(config));
  bounded("SubscribeUser", [&] { return client->SubscribeUser(token.c_str()); });
  if (!o.app_id.empty()) bounded("SubscribecAppID", [&] { return client->SubscribecAppID(o.app_id.c_str()); });
  if (!o.doc.empty())
    bounded("SubscribeUpdateNotification", [&] {
      return client->SubscribeUpdateNotification(token.c_str(), o.doc.c_str(), o.doc_version.c_str());
    });
  bounded("StartPolling", [&] { return client->StartPolling(); });
  std::fprintf(stderr, "tdoc: watching %s; Ctrl-C stops\n", o.client.host.c_str());

  {
    std::unique_lock<std::mutex> lock(state.m);
    auto done = [&] { return state.interrupted || (o.count > 0 && state.messages >= o.count); };
    if (o.seconds > 0)
      state.cv.wait_for(lock, std::chrono::seconds(o.seconds), done);
    else
      state.cv.wait(lock, done);
  }
  const int stopped = ctx.host.Bounded("StopPolling", ctx.timeout_ms(), [&] { return client->StopPolling(); });
  ctx.host.Bounded("UnSubscribeUser", ctx.timeout_ms(), [&] { return client->UnSubscribeUser(token.c_str()); });
  int messages = 0;
  {
    std::lock_guard<std::mutex> hold(state.m);
    messages = state.messages;
  }
  std::fprintf(stderr, "tdoc: watch stopped after %d message(s); StopPolling gave %d\n", messages, stopped);
  return ExitForResult(stopped);
}

}  // namespace

void AddWatch(CLI::App& app, Context& ctx) {
  auto o = std::make_shared<WatchOptions>();
  CLI::App* command = app.add_subcommand("watch", "Subscribe and print each delivered message as one JSON line");
  AddClientOptions(command, &o->client, true, "--app-version");
  command->add_option("--app-id", o->app_id, "Also poll application messages for this app id");
  command->add_option("--doc", o->doc, "Also poll for newer versions of this document");
  command->add_option("--version", o->doc_version, "The document's current version (with --doc)");
  command->add_option("--app-type", o->app_type, "Application type sent with the polling configuration request");
  command->add_option("--count", o->count, "Stop after this many messages")->check(CLI::NonNegativeNumber);
  command->add_option("--seconds", o->seconds, "Stop after this many seconds")->check(CLI::NonNegativeNumber);
  command->callback([&ctx, o] {
    if (!o->doc.empty() && o->doc_version.empty()) throw CLI::ValidationError("--doc", "needs --version");
    ctx.run = [&ctx, o] { return RunWatch(ctx, *o); };
  });
}

}  // namespace tdoc
