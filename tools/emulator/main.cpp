// tdoc-emulator: runs the service emulator until SIGINT or SIGTERM.
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "emulator.h"

namespace {

void Usage(FILE* out) {
  std::fputs(
      "usage: tdoc-emulator [options]\n"
      "  --port N            port to listen on (default 0: any free port)\n"
      "  --bind ADDR         address to listen on (default 127.0.0.1)\n"
      "  --tls-self-signed   serve HTTPS with a certificate made at start\n"
      "  --tls-expired       serve HTTPS with a self-signed certificate that has expired\n"
      "  --tls-wrong-name    serve HTTPS with a certificate for another host name\n"
      "  --tls-cert FILE     serve HTTPS with this PEM certificate (with --tls-key)\n"
      "  --tls-key FILE      PEM private key for --tls-cert\n"
      "  --print-url         print the base URL as the first line on stdout\n"
      "  --verbose           one line per request on stderr\n"
      "  --state FILE        keep the service model (users, documents, ...) in FILE\n"
      "                      across runs; it is read at start and rewritten on change\n"
      "Tests drive the emulator through its control API under /_emulator/.\n",
      out);
}

}  // namespace

int main(int argc, char** argv) {
  tpcsdk::emulator::Options opt;
  using Tls = tpcsdk::emulator::Options::Tls;
  bool print_url = false;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    auto value = [&](const char* name) -> std::string {
      if (i + 1 >= argc) {
        std::fprintf(stderr, "tdoc-emulator: %s needs a value\n", name);
        std::exit(2);
      }
      return argv[++i];
    };
    if (a == "--port") {
      std::string v = value("--port");
      char* end = nullptr;
      long p = std::strtol(v.c_str(), &end, 10);
      if (v.empty() || *end != '\0' || p < 0 || p > 65535) {
        std::fprintf(stderr, "tdoc-emulator: bad port '%s'\n", v.c_str());
        return 2;
      }
      opt.port = static_cast<int>(p);
    } else if (a == "--bind") {
      opt.bind = value("--bind");
    } else if (a == "--tls-self-signed") {
      opt.tls = Tls::kSelfSigned;
    } else if (a == "--tls-expired") {
      opt.tls = Tls::kExpired;
    } else if (a == "--tls-wrong-name") {
      opt.tls = Tls::kWrongName;
    } else if (a == "--tls-cert") {
      opt.cert_file = value("--tls-cert");
      opt.tls = Tls::kFiles;
    } else if (a == "--tls-key") {
      opt.key_file = value("--tls-key");
      opt.tls = Tls::kFiles;
    } else if (a == "--print-url") {
      print_url = true;
    } else if (a == "--state") {
      opt.state_file = value("--state");
    } else if (a == "--verbose") {
      opt.verbose = true;
    } else if (a == "--help" || a == "-h") {
      Usage(stdout);
      return 0;
    } else {
      std::fprintf(stderr, "tdoc-emulator: unknown option '%s'\n", a.c_str());
      Usage(stderr);
      return 2;
    }
  }
  if (opt.tls == Tls::kFiles && (opt.cert_file.empty() || opt.key_file.empty())) {
    std::fprintf(stderr, "tdoc-emulator: --tls-cert and --tls-key go together\n");
    return 2;
  }

  // Block the stop signals in every thread; the main thread takes them with sigwait.
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGINT);
  sigaddset(&stop, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop, nullptr);

  // A client may end the emulator through its control API, as a stop signal would:
  // the main thread takes it below.
  opt.on_shutdown = [] { kill(getpid(), SIGTERM); };
  tpcsdk::emulator::Emulator emulator;
  std::string error;
  if (!emulator.Start(opt, &error)) {
    std::fprintf(stderr, "tdoc-emulator: %s\n", error.c_str());
    return 1;
  }
  if (print_url) {
    std::printf("%s\n", emulator.BaseUrl().c_str());
    std::fflush(stdout);
  }
  std::fprintf(stderr, "tdoc-emulator: listening on %s\n", emulator.BaseUrl().c_str());
  int sig = 0;
  sigwait(&stop, &sig);
  std::fprintf(stderr, "tdoc-emulator: stopping on signal %d\n", sig);
  emulator.Stop();
  return 0;
}
