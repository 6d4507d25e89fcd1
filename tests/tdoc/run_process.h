// Starts a program beside the test program, collects what it writes and how it
// ends, within a bound.
#pragma once
#include <string>
#include <vector>

namespace tdoctest {

struct Outcome {
  int exit = -1;         // -1: did not end within the bound (then killed)
  std::string out;
  std::string err;
};

// The folder of the running test program (UTF-8).
std::string ProgramDirectory();

// Runs `program` (a name in ProgramDirectory(), without ".exe") with `args`.
Outcome Run(const std::string& program, const std::vector<std::string>& args, int timeout_ms = 60000);

// A running program whose standard error can be waited on and which can be sent
// an interrupt (POSIX only).
class Running {
 public:
  Running(const std::string& program, const std::vector<std::string>& args);
  ~Running();
  // True when `text` has appeared on standard error within the bound.
  bool WaitForErr(const std::string& text, int timeout_ms);
  void Interrupt();
  Outcome Finish(int timeout_ms);

 private:
  long long pid_ = 0;
  int out_ = -1, err_ = -1;
  Outcome got_;
};

}  // namespace tdoctest
