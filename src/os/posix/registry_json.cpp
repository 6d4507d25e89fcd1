// POSIX backend of the registry seam: one JSON document per hive.
//
// A hive is a JSON object whose member names are key paths with backslashes and whose
// members are objects of values: a JSON string is a string value (REG_SZ), a JSON
// integer a 32-bit value (REG_DWORD). Parents of a key exist implicitly. Names compare
// without regard to ASCII case. Every call reads the file afresh, so a change made by
// hand is seen at once; writes replace the file atomically (temporary file, rename).
// A rewritten hive keeps its file's mode and owner, so a machine hive that an
// administrator's tool rewrote stays readable to the users. A new hive of the machine
// or of all users is made 0644 in a 0755 folder, a new user hive 0600 in 0700.
// docs/registry.md describes the format.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <json/json.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

#include "os/posix/environment.h"
#include "os/registry.h"
#include "support/guard.h"
#include "support/text.h"
#include "support/utf.h"

namespace tpcsdk::os {

struct RegKeyObject {
  RegRoot root;
  std::string path;  // UTF-8, no trailing backslash; empty for the root itself
  bool writable;
};

namespace {

std::mutex& HiveLock() {
  static std::mutex m;
  return m;
}

std::string HiveFile(RegRoot root) {
  const char* file = root == RegRoot::kLocalMachine ? "machine.json"
                     : root == RegRoot::kUsers      ? "users.json"
                                                    : "user.json";
  std::string dir = EnvValue(kRegistryDirVariable);
  if (!dir.empty()) return dir + "/" + file;
  if (root != RegRoot::kCurrentUser) return std::string("/etc/tpcsdk/") + file;
  std::string config = EnvValue("XDG_CONFIG_HOME");
  if (config.empty() || config[0] != '/') {
    std::string home = HomeDirectory();
    if (home.empty()) return std::string();
    config = home + "/.config";
  }
  return config + "/tpcsdk/" + file;
}

bool SameName(std::string_view a, std::string_view b) { return EqualsNoCase(a, b); }

std::string StripTrailing(std::string p) {
  while (!p.empty() && p.back() == '\\') p.pop_back();
  return p;
}

std::string KeyPath(std::u16string_view path) { return StripTrailing(Utf16ToUtf8(path)); }

std::string Join(const std::string& a, const std::string& b) {
  if (a.empty()) return b;
  if (b.empty()) return a;
  return a + "\\" + b;
}

// A hive as read from its file. `usable` is false when the file exists but isn't a
// JSON object: it then reads as empty and is never written over.
struct Hive {
  Json::Value doc{Json::objectValue};
  bool usable = true;
  std::string file;
};

Hive LoadHive(RegRoot root) {
  Hive h;
  h.file = HiveFile(root);
  if (h.file.empty()) return h;
  const int fd = open(h.file.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    h.usable = errno == ENOENT;  // a missing hive is empty; an unreadable one is kept
    return h;
  }
  std::string s;
  char buf[8192];
  for (;;) {
    ssize_t n = read(fd, buf, sizeof(buf));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      if (n < 0) h.usable = false;
      break;
    }
    s.append(buf, static_cast<size_t>(n));
  }
  close(fd);
  if (!h.usable) return h;
  Json::CharReaderBuilder builder;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value doc;
  std::string errors;
  bool ok = false;
  try {
    ok = reader->parse(s.data(), s.data() + s.size(), &doc, &errors);
  } catch (...) {
    ok = false;  // the reader throws when nesting goes too deep
  }
  if (!ok || !doc.isObject()) {
    h.usable = false;
    return h;
  }
  h.doc = std::move(doc);
  return h;
}

// Modes of a new hive and of the folders made for it: the machine's hives are for
// every user to read, a user's own hive for that user alone.
struct HiveModes {
  mode_t file;
  mode_t folder;
};

HiveModes NewHiveModes(RegRoot root) {
  if (root == RegRoot::kCurrentUser) return {0600, 0700};
  return {0644, 0755};
}

// Makes the folder and its missing parents with exactly `mode` (whatever the umask).
bool MakeDirectories(const std::string& dir, mode_t mode) {
  if (dir.empty()) return false;
  struct stat st {};
  if (stat(dir.c_str(), &st) == 0) return S_ISDIR(st.st_mode);
  const auto slash = dir.find_last_of('/');
  if (slash != std::string::npos && slash > 0 && !MakeDirectories(dir.substr(0, slash), mode)) return false;
  if (mkdir(dir.c_str(), mode) != 0) return errno == EEXIST;
  return chmod(dir.c_str(), mode) == 0;
}

// Gives the new file the mode and owner that the hive it replaces had, or the mode
// of a new hive. False when the owner can't be kept: the hive is then left as it was
// rather than handed to another owner.
bool TakeOverAttributes(int fd, const std::string& file, RegRoot root) {
  struct stat old {};
  if (stat(file.c_str(), &old) != 0) return errno == ENOENT && fchmod(fd, NewHiveModes(root).file) == 0;
  struct stat now {};
  if (fstat(fd, &now) != 0) return false;
  if ((now.st_uid != old.st_uid || now.st_gid != old.st_gid) && fchown(fd, old.st_uid, old.st_gid) != 0)
    return false;
  return fchmod(fd, old.st_mode & 07777) == 0;
}

// Writes the hive to a temporary file beside it and renames that over the hive.
bool SaveHive(const Hive& h, RegRoot root) {
  if (!h.usable || h.file.empty()) return false;
  const auto slash = h.file.find_last_of('/');
  if (slash != std::string::npos && slash > 0 &&
      !MakeDirectories(h.file.substr(0, slash), NewHiveModes(root).folder))
    return false;
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "  ";
  builder["emitUTF8"] = true;
  const std::string text = Json::writeString(builder, h.doc) + "\n";

  static std::atomic<unsigned> counter{0};
  const std::string tmp =
      h.file + ".tmp." + std::to_string(getpid()) + "." + std::to_string(counter++);
  // Readable by the writer alone until it holds the whole text and its final mode.
  const int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  size_t done = 0;
  while (done < text.size()) {
    ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  bool ok = done == text.size() && TakeOverAttributes(fd, h.file, root) && fsync(fd) == 0;
  ok = close(fd) == 0 && ok;
  if (ok) ok = rename(tmp.c_str(), h.file.c_str()) == 0;
  if (!ok) unlink(tmp.c_str());
  return ok;
}

// Member names of the hive that spell the key path, in the hive's order.
std::vector<std::string> MembersOf(const Hive& h, const std::string& path) {
  std::vector<std::string> out;
  for (const auto& name : h.doc.getMemberNames())
    if (SameName(StripTrailing(name), path)) out.push_back(name);
  return out;
}

bool KeyExists(const Hive& h, const std::string& path) {
  if (path.empty()) return true;
  for (const auto& name : h.doc.getMemberNames()) {
    const std::string p = StripTrailing(name);
    if (SameName(p, path)) return true;
    if (p.size() > path.size() && p[path.size()] == '\\' &&
        SameName(std::string_view(p).substr(0, path.size()), path))
      return true;
  }
  return false;
}

// One value with its registry type and bytes.
struct Value {
  std::u16string name;
  uint32_t type = kRegNone;
  std::string bytes;
};

bool ToValue(const std::string& name, const Json::Value& v, Value& out) {
  out.name = Utf8ToUtf16(name);
  out.bytes.clear();
  if (v.isString()) {
    out.type = kRegSz;
    std::u16string text = Utf8ToUtf16(v.asString());
    text.push_back(u'\0');
    for (char16_t c : text) {
      out.bytes.push_back(static_cast<char>(c & 0xFF));
      out.bytes.push_back(static_cast<char>(c >> 8));
    }
    return true;
  }
  uint32_t dword = 0;
  if (v.isUInt())
    dword = v.asUInt();
  else if (v.isInt())
    dword = static_cast<uint32_t>(v.asInt());
  else
    return false;  // other JSON types and integers beyond 32 bits are not values
  out.type = kRegDword;
  for (int i = 0; i < 4; ++i) out.bytes.push_back(static_cast<char>((dword >> (8 * i)) & 0xFF));
  return true;
}

// The values of a key: those of every member that spells its path, the first of
// names that differ only in case winning.
std::vector<Value> ValuesOf(const Hive& h, const std::string& path) {
  std::vector<Value> out;
  for (const auto& member : MembersOf(h, path)) {
    const Json::Value& obj = h.doc[member];
    if (!obj.isObject()) continue;
    for (const auto& name : obj.getMemberNames()) {
      Value v;
      if (!ToValue(name, obj[name], v)) continue;
      bool seen = false;
      for (const auto& o : out) seen = seen || SameName(Utf16ToUtf8(o.name), name);
      if (!seen) out.push_back(std::move(v));
    }
  }
  return out;
}

// Copies a value's bytes out as the registry does.
RegStatus CopyData(const Value& v, uint32_t* type, void* data, uint32_t* size) {
  if (type) *type = v.type;
  const auto need = static_cast<uint32_t>(v.bytes.size());
  if (data) {
    if (!size) return RegStatus::kFailed;
    if (*size < need) {
      *size = need;
      return RegStatus::kMoreData;
    }
    std::memcpy(data, v.bytes.data(), need);
  }
  if (size) *size = need;
  return RegStatus::kOk;
}

// The member that holds a writable key's values, created when missing. Null when
// the hive has the key as something other than an object.
Json::Value* ValueObject(Hive& h, const std::string& path) {
  for (const auto& member : MembersOf(h, path)) {
    Json::Value& obj = h.doc[member];
    return obj.isObject() ? &obj : nullptr;
  }
  return &(h.doc[path] = Json::Value(Json::objectValue));
}

bool SetValue(RegKey key, std::u16string_view name, const Json::Value& value) {
  if (!key || !key->writable) return false;
  std::lock_guard<std::mutex> lock(HiveLock());
  Hive h = LoadHive(key->root);
  if (!h.usable) return false;
  Json::Value* obj = ValueObject(h, key->path);
  if (!obj) return false;
  const std::string n = Utf16ToUtf8(name);
  std::string stored = n;
  for (const auto& existing : obj->getMemberNames())
    if (SameName(existing, n)) stored = existing;  // keeps the spelling already there
  (*obj)[stored] = value;
  return SaveHive(h, key->root);
}

}  // namespace

RegKey OpenRegKey(RegRoot root, std::u16string_view path) {
  return Guarded(RegKey{nullptr}, [&]() -> RegKey {
        std::string p = KeyPath(path);
        std::lock_guard<std::mutex> lock(HiveLock());
        if (!KeyExists(LoadHive(root), p)) return nullptr;
        return new RegKeyObject{root, std::move(p), false};
      });
}

RegKey OpenRegKey(RegKey parent, std::u16string_view path) {
  if (!parent) return nullptr;
  return Guarded(RegKey{nullptr}, [&]() -> RegKey {
        std::string p = Join(parent->path, KeyPath(path));
        std::lock_guard<std::mutex> lock(HiveLock());
        if (!KeyExists(LoadHive(parent->root), p)) return nullptr;
        return new RegKeyObject{parent->root, std::move(p), false};
      });
}

RegKey CreateRegKey(RegRoot root, std::u16string_view path) {
  return Guarded(RegKey{nullptr}, [&]() -> RegKey {
        std::string p = KeyPath(path);
        std::lock_guard<std::mutex> lock(HiveLock());
        Hive h = LoadHive(root);
        if (!h.usable) return nullptr;
        if (!p.empty() && MembersOf(h, p).empty()) {
          h.doc[p] = Json::Value(Json::objectValue);
          if (!SaveHive(h, root)) return nullptr;
        }
        return new RegKeyObject{root, std::move(p), true};
      });
}

void CloseRegKey(RegKey key) { delete key; }

RegStatus QueryRegValue(RegKey key, std::u16string_view name, uint32_t* type, void* data,
                        uint32_t* size) {
  if (!key) return RegStatus::kFailed;
  return Guarded(RegStatus::kFailed, [&]() {
        std::lock_guard<std::mutex> lock(HiveLock());
        const Hive h = LoadHive(key->root);
        const std::string n = Utf16ToUtf8(name);
        for (const auto& v : ValuesOf(h, key->path))
          if (SameName(Utf16ToUtf8(v.name), n)) return CopyData(v, type, data, size);
        return RegStatus::kNotFound;
      });
}

bool QueryRegValueCount(RegKey key, uint32_t& count) {
  if (!key) return false;
  return Guarded(false, [&]() {
        std::lock_guard<std::mutex> lock(HiveLock());
        count = static_cast<uint32_t>(ValuesOf(LoadHive(key->root), key->path).size());
        return true;
      });
}

RegStatus EnumRegValue(RegKey key, uint32_t index, std::u16string& name, uint32_t name_chars,
                       uint32_t* type, void* data, uint32_t* size) {
  if (!key) return RegStatus::kFailed;
  return Guarded(RegStatus::kFailed, [&]() {
        std::lock_guard<std::mutex> lock(HiveLock());
        const auto values = ValuesOf(LoadHive(key->root), key->path);
        if (index >= values.size()) return RegStatus::kNotFound;
        const Value& v = values[index];
        if (v.name.size() + 1 > name_chars) return RegStatus::kMoreData;
        RegStatus st = CopyData(v, type, data, size);
        if (st == RegStatus::kOk) name = v.name;
        return st;
      });
}

bool SetRegString(RegKey key, std::u16string_view name, std::u16string_view value) {
  return Guarded(false, [&]() { return SetValue(key, name, Json::Value(Utf16ToUtf8(value))); });
}

bool SetRegDword(RegKey key, std::u16string_view name, uint32_t value) {
  return Guarded(false, [&]() { return SetValue(key, name, Json::Value(static_cast<Json::UInt>(value))); });
}

bool DeleteRegTree(RegRoot root, std::u16string_view path) {
  return Guarded(false, [&]() {
        const std::string p = KeyPath(path);
        if (p.empty()) return false;
        std::lock_guard<std::mutex> lock(HiveLock());
        Hive h = LoadHive(root);
        if (!h.usable) return false;
        bool removed = false;
        for (const auto& name : h.doc.getMemberNames()) {
          const std::string m = StripTrailing(name);
          const bool below = m.size() > p.size() && m[p.size()] == '\\' &&
                             SameName(std::string_view(m).substr(0, p.size()), p);
          if (SameName(m, p) || below) {
            h.doc.removeMember(name);
            removed = true;
          }
        }
        return removed && SaveHive(h, root);
      });
}

}  // namespace tpcsdk::os
