// The configuration file tpcsdk.config beside the module, and the EnableLogging
// marker beside it. The file is one JSON object whose members are all optional and
// all read as text:
//   env         the service host           upd         the update host
//   logfile     "on" switches logging on   appType     which product this is
//   tDocDomain  the domain of the directory's DNS record
//   Test        "true" says this is no enterprise installation
// Each reader opens the file afresh, so a change takes effect at the next read.
#pragma once
#include <json/json.h>

#include <string>

namespace tpcsdk {

inline constexpr char16_t kConfigFileName[] = u"tpcsdk.config";
inline constexpr char16_t kLoggingMarkerName[] = u"EnableLogging";

// <module directory>/tpcsdk.config and <module directory>/EnableLogging.
std::u16string ConfigFilePath();
std::u16string LoggingMarkerPath();

// One read of the configuration file.
class ConfigFile {
 public:
  enum class Status {
    NotOpened,  // the file can't be opened: each reader goes its own way
    NoMemory,   // the text couldn't be held: each reader has its own failure
    Read,       // read; an empty file, bad JSON or a root that isn't an object has no keys
  };

  // Opens the file at `path` read-only, reads it whole and parses it.
  Status Load(const std::u16string& path);

  // False when the file had no keys at all (empty, not JSON, not an object).
  bool HasKeys() const { return has_keys_; }

  // The member's text; empty when it is missing or null. Numbers and booleans come
  // as their text. An array or object member throws Json::LogicError ("Type is not
  // convertible to string"): the slot that reads it fails as a whole.
  std::u16string Take(const char* key) const;

 private:
  Json::Value root_;
  bool has_keys_ = false;
};

}  // namespace tpcsdk
