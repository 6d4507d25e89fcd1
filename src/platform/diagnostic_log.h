// The library's diagnostic log: one text file per product and day, one line per
// event, flushed as it is written. Every user holds a DiagnosticLog pointer that is
// null when logging is off and tests it before building a line.
#pragma once
#include <cstdio>
#include <string>

namespace tpcsdk {

class DiagnosticLog {
 public:
  DiagnosticLog() = default;
  ~DiagnosticLog();
  DiagnosticLog(const DiagnosticLog&) = delete;
  DiagnosticLog& operator=(const DiagnosticLog&) = delete;

  // Opens today's log file of the running product for appending. False when the
  // folder or the file cannot be opened; the object then writes nothing.
  bool Open();
  // Writes one line: the time and thread stamp, then the printf-style text.
  // Text arguments are UTF-8.
  void Write(const char* format, ...)
#if defined(__GNUC__)
      __attribute__((format(printf, 2, 3)))
#endif
      ;
  void Close();
  bool IsOpen() const { return file_ != nullptr; }

 private:
  std::FILE* file_ = nullptr;
};

}  // namespace tpcsdk
