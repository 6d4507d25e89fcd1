// The library's diagnostic log: one text file per product and day, one line per
// event, flushed as it is written. Every user holds a DiagnosticLog pointer that is
// null when logging is off and tests it before building a line.
//
// The file is <app data>/Tarvo Software/<product name>/Log/tdoc_dll_<YYYY-MM-DD>.log,
// dated when it is opened; a process that runs past midnight keeps its first file,
// and later processes of the same day append to it. Every line starts with
// "[YYYY-MM-DD hh:mm:ss:mmm][ThreadId:nnnnnn]" and ends with the platform's text line
// end. No lock: lines of different threads go out as single writes.
#pragma once
#include <cstdio>
#include <string>
#include <string_view>

#include "os/clock.h"
#include "platform/product_identity.h"

namespace tpcsdk {

class DiagnosticLog {
 public:
  DiagnosticLog() = default;
  ~DiagnosticLog();
  DiagnosticLog(const DiagnosticLog&) = delete;
  DiagnosticLog& operator=(const DiagnosticLog&) = delete;

  // Opens today's log file of the running product for appending. False when the
  // folder or the file cannot be opened; the object then writes nothing. The
  // product is told by the module's directory (see LogProductKind).
  bool Open();
  // The same, with the product told by the application type of the configuration.
  bool Open(std::u16string_view app_type);
  // Opens the given file for appending, creating it when missing. Does nothing and
  // returns true when a file is already open.
  bool OpenPath(const std::u16string& path);

  // Writes one line: the time and thread stamp, then the printf-style text.
  // Text arguments are UTF-8.
  void Write(const char* format, ...)
#if defined(__GNUC__)
      __attribute__((format(printf, 2, 3)))
#endif
      ;
  void Close();
  bool IsOpen() const { return file_ != nullptr; }

  // <app data>/Tarvo Software/<product name>/Log/ with its final separator; empty
  // when the application-data folder is unknown.
  static std::u16string FolderPath(ProductKind kind);
  // tdoc_dll_<YYYY-MM-DD>.log for the given day.
  static std::u16string FileName(const os::LocalTime& day);
  // The stamp that begins every line.
  static std::string Header(const os::LocalTime& now, std::uint32_t thread_id);

 private:
  std::FILE* file_ = nullptr;
};

}  // namespace tpcsdk
