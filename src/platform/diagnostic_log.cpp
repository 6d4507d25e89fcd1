#include "platform/diagnostic_log.h"

#include <cstdarg>
#include <vector>

#include "os/paths.h"
#include "support/utf.h"

namespace tpcsdk {

DiagnosticLog::~DiagnosticLog() { Close(); }

std::u16string DiagnosticLog::FolderPath(ProductKind kind) {
  std::u16string dir = os::AppDataDirectory();
  if (dir.empty()) return dir;
  dir += os::kPathSeparator;
  dir += kVendorFolder;
  dir += os::kPathSeparator;
  dir += ProductName(kind);
  dir += os::kPathSeparator;
  dir += u"Log";
  dir += os::kPathSeparator;
  return dir;
}

std::u16string DiagnosticLog::FileName(const os::LocalTime& day) {
  char name[64];
  std::snprintf(name, sizeof name, "tdoc_dll_%04d-%02d-%02d.log", day.year, day.month, day.day);
  return Utf8ToUtf16(name);
}

std::string DiagnosticLog::Header(const os::LocalTime& now, std::uint32_t thread_id) {
  char header[96];
  const int n = std::snprintf(header, sizeof header, "[%04d-%02d-%02d %02u:%02u:%02u:%03d][ThreadId:%06d]",
                              now.year, now.month, now.day, static_cast<unsigned>(now.hour),
                              static_cast<unsigned>(now.minute), static_cast<unsigned>(now.second),
                              now.millisecond, static_cast<int>(thread_id));
  return std::string(header, n > 0 ? static_cast<size_t>(n) : 0);
}

bool DiagnosticLog::Open() { return Open(std::u16string_view()); }

bool DiagnosticLog::Open(std::u16string_view app_type) {
  if (file_) return true;
  const std::u16string folder = FolderPath(LogProductKind(app_type));
  if (folder.empty()) return false;
  // Only the last level is made: without the product's folder there is no log.
  if (!os::PathExists(folder)) os::MakeDirectory(folder);
  return OpenPath(folder + FileName(os::LocalTimeNow()));
}

bool DiagnosticLog::OpenPath(const std::u16string& path) {
  if (file_) return true;
  file_ = os::OpenStdioFile(path, "at+", true);
  return file_ != nullptr;
}

void DiagnosticLog::Write(const char* format, ...) {
  if (!file_ || !format) return;
  std::string line = Header(os::LocalTimeNow(), os::CurrentThreadId());
  const size_t header_size = line.size();

  va_list args;
  va_start(args, format);
  va_list again;
  va_copy(again, args);
  char small[512];
  const int n = std::vsnprintf(small, sizeof small, format, args);
  va_end(args);
  if (n >= 0 && static_cast<size_t>(n) < sizeof small) {
    line.append(small, static_cast<size_t>(n));
  } else if (n >= 0) {
    line.resize(header_size + static_cast<size_t>(n) + 1);
    std::vsnprintf(&line[header_size], static_cast<size_t>(n) + 1, format, again);
    line.resize(header_size + static_cast<size_t>(n));
  }
  va_end(again);
  line += '\n';

  // One write per line keeps lines of different threads whole.
  std::fwrite(line.data(), 1, line.size(), file_);
  std::fflush(file_);
}

void DiagnosticLog::Close() {
  if (file_) std::fclose(file_);
  file_ = nullptr;
}

}  // namespace tpcsdk
