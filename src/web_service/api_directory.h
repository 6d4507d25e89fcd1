// The API directory as the service sends it and as the disk cache keeps it: the
// readers of both texts, which come from outside the module, and the writer of the
// cache's record. None of them touches a file, so each can be fed any bytes.
#pragma once
#include <functional>
#include <map>
#include <string>
#include <string_view>

#include <json/json.h>

namespace tpcsdk {

// True when `now` is less than 86,400 seconds after `cache_time` (a time in the
// future is always fresh). Both texts are read by position with one index running
// over `cache_time`: characters 0-3 give the year, up to 6 the month, up to 9 the
// day, up to 13 the hour, up to 16 the minute and the rest the second; blanks, "-"
// and ":" are left out. Characters missing from `now` count as absent, and those of
// `now` past the end of `cache_time` are not read: an empty `cache_time` is fresh.
bool IsCacheFresh(std::string_view cache_time, std::string_view now);

// A cache record is base64 text (CR LF every 76 characters) of the compact JSON text
// {"api":<directory with cacheTime>,"host":<host URL>,"md5":<digest>} and a line feed,
// whose first 16 bytes are enciphered with AES-128 under a key fixed in this module.
// `md5` is the MD5 of the compact text of `api`, so the check covers `cacheTime`.
//
// The compact text of the record's directory (ending in a line feed), or empty when
// the record is corrupt, altered or 24 hours old. `now` is asked for the local time
// text only once every other check has passed.
// With `api` given, the directory is also handed over as the value its text reads as,
// so that a caller need not parse the text again.
std::string ReadCacheRecord(std::string_view encoded, const std::function<std::string()>& now,
                            Json::Value* api = nullptr);

// The record for the directory text as the server gave it, `cacheTime` set to `now`;
// empty when the text isn't a JSON object or the record can't be made.
std::string WriteCacheRecord(std::u16string_view host, const std::string& text, const std::string& now);

// The URL table of a directory: "<prefix>@<member name>" to the member's text (a
// member that is not a string has none). Anything but an object adds nothing.
using ApiTable = std::map<std::u16string, std::u16string>;

enum class ApiDirectoryStatus {
  kOk,
  kNotJson,          // the text does not parse
  kSizeMismatch,     // "size" does not count the URLs of "url"; the table is left empty
  kNoTwsConfig,      // "twsConfig" is missing or empty
  kEmptyTwsConfig,   // "twsConfig" has no compact text
};

// Reads a directory text into `table` (cleared first, unless the text doesn't parse).
ApiDirectoryStatus ReadApiDirectory(const std::string& text, ApiTable& table);
// The same for a directory already parsed (never kNotJson).
ApiDirectoryStatus ReadApiDirectory(const Json::Value& root, ApiTable& table);

// Adds the members of `value` to `table` under `prefix`, as ReadApiDirectory does for
// its "url" member.
void LoadApiTable(ApiTable& table, const std::u16string& prefix, const Json::Value& value);

}  // namespace tpcsdk
