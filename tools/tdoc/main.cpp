// tdoc: a command-line host of the connected-document module. It loads the module
// the way an application does and drives it: host discovery, client creation,
// every operation family, message polling and a guided demo.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "common.h"
#include "sys.h"

int main(int argc, char** argv) {
  tdoc::Context ctx;
  CLI::App app{"tdoc: drive the connected-document module from a terminal, as a host application does.\n"
               "Exit status: 0 success, 1 a step failed, 2 bad usage, 3 module not loaded,\n"
               "4 no answer within --timeout, 10+|r| for a result code r (e.g. -2 gives 12, 3 gives 13)."};
  app.name("tdoc");
  app.require_subcommand(1);
  app.fallthrough();
  app.option_defaults()->always_capture_default();
  app.add_option("--module", ctx.module_path, "Module to load (default: the one beside tdoc)");
  app.add_flag("--json", ctx.json, "Machine-readable output: one JSON object (watch: one per line)");
  app.add_option("--timeout", ctx.timeout_s, "Bound in seconds of every call into the module")
      ->check(CLI::Range(1, 3600));

  tdoc::AddDiscover(app, ctx);
  tdoc::AddOperations(app, ctx);
  tdoc::AddWatch(app, ctx);
  tdoc::AddDemo(app, ctx);

  std::vector<std::string> args = tdoc::sys::Arguments(argc, argv);
  if (args.empty()) args.push_back("tdoc");
  // An unknown command is named as such, not as a missing one.
  for (size_t i = 1; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (arg == "--module" || arg == "--timeout") {
      ++i;
      continue;
    }
    if (arg.empty() || arg[0] == '-') continue;
    bool known = false;
    for (const CLI::App* command : app.get_subcommands({})) known = known || command->get_name() == arg;
    if (!known) {
      std::fprintf(stderr, "tdoc: unknown command '%s' (see tdoc --help)\n", arg.c_str());
      return tdoc::kExitUsage;
    }
    break;
  }
  try {
    // The parser takes the arguments without the program's name, last first.
    std::vector<std::string> reversed(args.rbegin(), args.rend() - 1);
    app.parse(reversed);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    // Name an option that no command knows before what is missing.
    for (const std::string& extra : app.remaining(true)) {
      if (extra.size() > 1 && extra[0] == '-') {
        std::fprintf(stderr, "tdoc: unknown option '%s' (see tdoc --help)\n", extra.c_str());
        return tdoc::kExitUsage;
      }
    }
    std::fprintf(stderr, "tdoc: %s (see tdoc --help)\n", e.what());
    return tdoc::kExitUsage;
  }
  try {
    if (!ctx.run) {
      std::fprintf(stderr, "tdoc: no command given (see tdoc --help)\n");
      return tdoc::kExitUsage;
    }
    if (ctx.json) ctx.out = tdoc::sys::SetAsideStandardOutput();
    const int code = ctx.run();
    std::fflush(ctx.out);
    std::fflush(stdout);
    return code;
  } catch (const tdoc::Failure& f) {
    std::fflush(ctx.out);
    std::fflush(stdout);
    std::fprintf(stderr, "tdoc: %s\n", f.message.c_str());
    return f.exit;
  } catch (const std::exception& e) {
    std::fflush(stdout);
    std::fprintf(stderr, "tdoc: %s\n", e.what());
    return tdoc::kExitFailed;
  }
}
