// The on-disk cache of API directories: one file per host name and application
// under <app data>/Tarvo Software/<application folder>/cacheData/<host name>.dat,
// kept for 24 hours, so a client started within a day of the last one needs no
// network exchange for its directory.
//
// A file holds base64 text (CR LF every 76 characters) of one record, the compact
// JSON text {"api":<directory with cacheTime>,"host":<host URL>,"md5":<digest>}
// followed by a line feed, whose first 16 bytes are enciphered with AES-128 under a
// key fixed in this module. `md5` is the MD5 of the compact text of `api`, so the
// check covers `cacheTime`; `host` is only required to be present.
//
// Use from the client's initialisation, under its InitApi lock:
//   ApiCache cache(an, log);
//   std::string text = cache.GetCacheApi(host);   // fresh directory text, or empty
//   ... if empty, fetch from the network; after every check has passed:
//   cache.SetCacheApi(host, fetched_text);
#pragma once
#include <functional>
#include <string>
#include <string_view>

#include "web_service/api_directory.h"

namespace tpcsdk {

class DiagnosticLog;

// The current local time as "YYYY-MM-DD hh:mm:ss".
std::string NowString();

// The host component of an http or https URL, as the HTTP client's URL cracking
// gives it with escapes decoded (no scheme, user, port or path); empty when the URL
// cannot be taken apart, for example without a scheme.
std::u16string GetHostNameOfUrl(std::u16string_view url);

class ApiCache {
 public:
  // `app_name` is the client's application name (`an`); the folder comes from it
  // through GetAppFolderName. `log` may be null. `now` gives the local time text
  // used for writing and checking `cacheTime` (NowString unless a test sets it).
  explicit ApiCache(std::string app_name, DiagnosticLog* log = nullptr,
                    std::function<std::string()> now = NowString);

  // The compact text of the cached directory for this host URL (ending in a line
  // feed), or an empty string when there is no entry. An entry that is corrupt,
  // altered or 24 hours old is deleted and gives an empty string.
  // With `api` given, a found entry's directory is also handed over already parsed
  // (the value the text reads as), so the caller need not read the text again.
  std::string GetCacheApi(std::u16string_view host, Json::Value* api = nullptr) const;

  // Stores the directory text as the server gave it, with `cacheTime` added. On
  // failure nothing useful is stored and the cache folder's tdoc.dat marker file
  // is deleted. Silent but for the log line "Set Cache Api Success".
  void SetCacheApi(std::u16string_view host, const std::string& text) const;

  // The entry's file path for a host URL (UTF-16); empty when the application-data
  // folder is unknown, or when the host name holds anything but ASCII letters,
  // digits, "-" and "." (or an empty label), or the application's folder name isn't a
  // plain folder name. A host without an entry is neither read nor written.
  std::u16string EntryPath(std::u16string_view host) const;

 private:
  std::u16string CheckedEntryPath(std::u16string_view host) const;

  std::string app_name_;
  DiagnosticLog* log_;
  std::function<std::string()> now_;
};

}  // namespace tpcsdk
