// Placeholder until the log's file handling lands: opens nothing, writes nothing.
#include "platform/diagnostic_log.h"

namespace tpcsdk {

DiagnosticLog::~DiagnosticLog() { Close(); }
bool DiagnosticLog::Open() { return false; }
void DiagnosticLog::Write(const char*, ...) {}
void DiagnosticLog::Close() {
  if (file_) std::fclose(file_);
  file_ = nullptr;
}

}  // namespace tpcsdk
