// What the commands of tdoc share: the run context, the client options, and the
// output of one command as readable lines or, with --json, as one JSON object.
#pragma once
#include <json/json.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <string>

#include "host.h"

namespace CLI {
class App;
}

namespace tdoc {

struct Context {
  Host host;
  std::string module_path;  // --module; empty: the module beside tdoc
  bool json = false;        // --json
  std::FILE* out = stdout;  // where the JSON goes (see sys::SetAsideStandardOutput)
  int timeout_s = 30;       // --timeout: bound of every call into the module
  // The chosen command, set while the arguments are parsed and run after.
  std::function<int()> run;

  int timeout_ms() const { return timeout_s * 1000; }
  // Loads the module unless that has been done.
  void Load();
};

// The options every command that talks to a service takes.
struct ClientOptions {
  std::string host;
  std::string lang = "en-US";
  std::string app = "tdoc";
  std::string version = "1.0";
  std::string token;
};
// `app_version_flag` names the option of the application version ("--version",
// or another name where a command uses --version for a document version).
void AddClientOptions(CLI::App* command, ClientOptions* options, bool with_token,
                      const char* app_version_flag = "--version");

// Creates (or finds) the client for options.host; throws Failure with the
// result's exit status when InitApi fails. `domain` receives the service domain.
ITetherdocServer* Connect(Context& ctx, const ClientOptions& options, std::string* domain = nullptr,
                          int64_t* took_ms = nullptr);

// Prints one command's outcome: `fields` as "name: value" lines, or with --json as
// one object with "command", "result", "result_name", "ms" and the fields.
void PrintOutcome(const Context& ctx, const std::string& command, int result, int64_t ms,
                  const Json::Value& fields);
// One JSON value as compact text on one line.
std::string CompactJson(const Json::Value& value);
// Text that holds JSON, parsed; the text itself as a string when it isn't JSON.
Json::Value JsonOrText(const std::string& text);

// The commands, each adding itself to the program.
void AddDiscover(CLI::App& app, Context& ctx);
void AddOperations(CLI::App& app, Context& ctx);
void AddWatch(CLI::App& app, Context& ctx);
void AddDemo(CLI::App& app, Context& ctx);

}  // namespace tdoc
