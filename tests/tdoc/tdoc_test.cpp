// tdoc run as a user runs it: a process, its output and its exit status, against
// the emulator (in this process natively, the native one under wine).
#include <gtest/gtest.h>
#include <json/json.h>

#include <filesystem>
#include <memory>
#include <sstream>

#ifdef _WIN32
#include <windows.h>
#endif

#include "kit/emulator_client.h"
#include "kit/testkit.h"
#include "tdoc/run_process.h"

namespace fs = std::filesystem;
using tdoctest::Outcome;
using tdoctest::Run;

namespace {
Outcome RunTdoc(const std::vector<std::string>& args, int timeout_ms = 60000) { return Run("tdoc", args, timeout_ms); }
}  // namespace

namespace {

#ifdef _WIN32
const char kModule[] = "TPCSDK64.dll";
#else
const char kModule[] = "libtpcsdk.so";
#endif

// The JSON document on standard output.
Json::Value ParseJson(const std::string& text) {
  Json::Value v;
  Json::CharReaderBuilder builder;
  std::string errors;
  std::istringstream in(text);
  EXPECT_TRUE(Json::parseFromStream(builder, in, &v, &errors)) << text;
  return v;
}

int Lines(const std::string& text) {
  int n = 0;
  for (char c : text) n += c == '\n';
  return n;
}

std::string Describe(const Outcome& o) {
  return "exit " + std::to_string(o.exit) + "\nstdout:\n" + o.out + "\nstderr:\n" + o.err;
}

// Every tdoc this program starts keeps its cache and registry files in a private
// folder, never in the user's own.
class PrivateFolders : public ::testing::Environment {
 public:
  void SetUp() override {
    dir_ = std::make_unique<testkit::TempDir>();
    fs::create_directories(dir_->path() / "appdata");
    fs::create_directories(dir_->path() / "registry");
    appdata_ = std::make_unique<testkit::ScopedEnv>("TPCSDK_APPDATA_DIR", (dir_->path() / "appdata").u8string());
    registry_ = std::make_unique<testkit::ScopedEnv>("TPCSDK_REGISTRY_DIR", (dir_->path() / "registry").u8string());
  }
  void TearDown() override {
    registry_.reset();
    appdata_.reset();
    dir_.reset();
  }

 private:
  std::unique_ptr<testkit::TempDir> dir_;
  std::unique_ptr<testkit::ScopedEnv> appdata_, registry_;
};
const auto* const kPrivateFolders = ::testing::AddGlobalTestEnvironment(new PrivateFolders);

// ---- Bad input: one line on standard error, the documented status, nothing on stdout.

struct BadInput {
  const char* name;
  std::vector<std::string> args;
  int exit;
  const char* says;
};

class BadInputTest : public ::testing::TestWithParam<BadInput> {};

TEST_P(BadInputTest, OneLineAndItsExitStatus) {
  const BadInput& c = GetParam();
  // A fresh application-data folder: no cached API directory answers for a host.
  testkit::TempDir appdata;
  testkit::ScopedEnv fresh("TPCSDK_APPDATA_DIR", appdata.path().u8string());
  const Outcome o = RunTdoc(c.args, 30000);
  EXPECT_EQ(o.exit, c.exit) << Describe(o);
  EXPECT_NE(o.err.find(c.says), std::string::npos) << Describe(o);
  EXPECT_EQ(Lines(o.err), 1) << Describe(o);
  EXPECT_TRUE(o.out.empty()) << Describe(o);
}

INSTANTIATE_TEST_SUITE_P(
    Tdoc, BadInputTest,
    ::testing::Values(
        BadInput{"UnknownCommand", {"frob"}, 2, "unknown command 'frob'"},
        BadInput{"UnknownOption", {"user", "check", "--frob"}, 2, "unknown option '--frob'"},
        BadInput{"MissingHost", {"init"}, 2, "--host is required"},
        BadInput{"MissingValue", {"doc", "owner", "--host", "http://127.0.0.1:1"}, 2, "--doc-id is required"},
        BadInput{"TimeoutOutOfRange", {"--timeout", "0", "discover"}, 2, "--timeout"},
        BadInput{"ModuleMissing", {"--module", "no-such-module.bin", "discover"}, 3, "cannot load the module"},
        // Nothing listens on port 1: InitApi ends with an HTTP error.
        BadInput{"HostNotAnswering", {"init", "--host", "http://127.0.0.1:1"}, 13, "did not answer"}),
    [](const ::testing::TestParamInfo<BadInput>& info) { return std::string(info.param.name); });

TEST(Tdoc, HelpOnEveryCommandEndsWell) {
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"--help"}, {"discover", "--help"}, {"user", "email", "--help"},
        {"doc", "register", "--help"}, {"watch", "--help"}, {"demo", "--help"}}) {
    const Outcome o = RunTdoc(args);
    EXPECT_EQ(o.exit, 0) << Describe(o);
    EXPECT_NE(o.out.find("Usage:"), std::string::npos) << Describe(o);
  }
}

// A host that takes the connection and never answers: every call is bounded, the
// client's creation (which no stop reaches) as well as an operation (which the
// platform's StopAllRequest ends).
struct Stall {
  const char* name;
  const char* path;
  std::vector<std::string> command;
};

class StalledHostTest : public ::testing::TestWithParam<Stall> {};

TEST_P(StalledHostTest, EndsWithinTheTimeout) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  const Stall& c = GetParam();
  // No cached API directory may answer in the emulator's place.
  testkit::TempDir appdata;
  testkit::ScopedEnv fresh("TPCSDK_APPDATA_DIR", appdata.path().u8string());
  emu->FaultOnce("GET", c.path, "stall_before_headers");
  std::vector<std::string> args = {"--timeout", "2"};
  args.insert(args.end(), c.command.begin(), c.command.end());
  args.insert(args.end(), {"--host", emu->base_url()});
  const Outcome o = RunTdoc(args, 30000);
  emu->Release();
  EXPECT_EQ(o.exit, 4) << Describe(o);
  EXPECT_NE(o.err.find("no answer within 2000 ms"), std::string::npos) << Describe(o);
  EXPECT_EQ(Lines(o.err), 1) << Describe(o);
}

INSTANTIATE_TEST_SUITE_P(
    Tdoc, StalledHostTest,
    ::testing::Values(Stall{"ApiDirectory", "*", {"init"}},
                      Stall{"Operation", "/tdocapi/v1/users", {"user", "email", "--token", "T1"}}),
    [](const ::testing::TestParamInfo<Stall>& info) { return std::string(info.param.name); });

// ---- Operations: --json output and the exit status of a result code.

TEST(Tdoc, OperationJsonCarriesTheReply) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  Json::Value reply;
  reply["ret"] = 0;
  reply["message"] = "";
  reply["returned"] = 1;
  reply["data"][0u]["userEmail"] = "ann@x.test";
  reply["data"][0u]["cUserID"] = "u1";
  emu->ScriptJson("GET", "/tdocapi/v1/users", reply);
  const Outcome o = RunTdoc({"--json", "user", "email", "--host", emu->base_url(), "--token", "T1"});
  ASSERT_EQ(o.exit, 0) << Describe(o);
  EXPECT_EQ(Lines(o.out), 1) << Describe(o);
  const Json::Value v = ParseJson(o.out);
  EXPECT_EQ(v["command"].asString(), "user email");
  EXPECT_EQ(v["result"].asInt(), 0);
  EXPECT_EQ(v["result_name"].asString(), "TDC_HRESULT_OK");
  EXPECT_EQ(v["email"].asString(), "ann@x.test");
  const auto sent = emu->RequestsTo("/tdocapi/v1/users");
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].query, "access-token=T1");
}

TEST(Tdoc, ResultCodeBecomesExitStatus) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  Json::Value reply(Json::objectValue);
  emu->ScriptJson("POST", "/tdocapi/v1/documents", reply, 403);
  testkit::ScopedEnv token("TDOC_TOKEN", "T1");
  const Outcome o = RunTdoc({"--json", "doc", "register", "--host", emu->base_url(), "--app-id", "A",
                                 "--doc-id", "D1", "--name", "Plan", "--created", "2026-01-01", "--modified",
                                 "2026-01-02"});
  EXPECT_EQ(o.exit, 14) << Describe(o);
  const Json::Value v = ParseJson(o.out);
  EXPECT_EQ(v["result"].asInt(), 4);
  EXPECT_EQ(v["result_name"].asString(), "TDC_HRESULT_FORBIDDEN");
}

// Text in any script reaches the service as UTF-8, from the command line on.
TEST(Tdoc, NonAsciiArgumentsGoOutAsUtf8) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  const std::string name = "Pl\xC3\xA4n \xE8\xA8\x88\xE7\x94\xBB \xF0\x9F\x93\x84";  // "Plän 計画 📄"
  const Outcome o = RunTdoc({"doc", "register", "--host", emu->base_url(), "--app-id", "A", "--doc-id", "D1",
                             "--name", name, "--created", "2026-01-01", "--modified", "2026-01-02"});
  ASSERT_EQ(o.exit, 0) << Describe(o);
  const auto sent = emu->RequestsTo("/tdocapi/v1/documents");
  ASSERT_EQ(sent.size(), 1u);
  const Json::Value body = ParseJson(sent[0].body);
  EXPECT_EQ(body["docName"].asString(), name);
}

// ---- discover: each source wins in turn.

struct Source {
  const char* name;
  const char* config;     // tpcsdk.config beside the module; null: no file
  const char* user_hive;  // the current user's registry file (Linux); null: none
  int winner_slot;
  const char* host;       // null: the build's default
  const char* from;       // words of the explanation
};

#ifdef _WIN32
// Puts a hive in the shape of the Linux registry files ({"key": {"name": "text"}}) into
// the current user's registry, where tdoc, a child process, reads it, and takes away
// every key it had to create. Under wine that registry is the test run's own prefix.
class UserRegistryValues {
 public:
  explicit UserRegistryValues(const char* hive) {
    const Json::Value v = ParseJson(hive);
    for (const std::string& key : v.getMemberNames()) {
      const std::wstring path = fs::u8path(key).wstring();
      RememberFirstMissing(path);
      HKEY h = nullptr;
      if (RegCreateKeyExW(HKEY_CURRENT_USER, path.c_str(), 0, nullptr, 0, KEY_SET_VALUE, nullptr, &h, nullptr) !=
          ERROR_SUCCESS) {
        ADD_FAILURE() << "cannot create the registry key " << key;
        continue;
      }
      for (const std::string& name : v[key].getMemberNames()) {
        const std::wstring data = fs::u8path(v[key][name].asString()).wstring();
        EXPECT_EQ(RegSetValueExW(h, fs::u8path(name).wstring().c_str(), 0, REG_SZ,
                                 reinterpret_cast<const BYTE*>(data.c_str()),
                                 static_cast<DWORD>((data.size() + 1) * sizeof(wchar_t))),
                  ERROR_SUCCESS);
      }
      RegCloseKey(h);
    }
  }
  ~UserRegistryValues() {
    for (const std::wstring& key : created_) {
      RegDeleteTreeW(HKEY_CURRENT_USER, key.c_str());  // what lies below
      RegDeleteKeyW(HKEY_CURRENT_USER, key.c_str());   // and the key itself
    }
  }

 private:
  void RememberFirstMissing(const std::wstring& path) {
    for (size_t end = path.find(L'\\');; end = path.find(L'\\', end + 1)) {
      const std::wstring prefix = path.substr(0, end);
      HKEY h = nullptr;
      if (RegOpenKeyExW(HKEY_CURRENT_USER, prefix.c_str(), 0, KEY_READ, &h) != ERROR_SUCCESS) {
        created_.push_back(prefix);
        return;
      }
      RegCloseKey(h);
      if (end == std::wstring::npos) return;
    }
  }
  std::vector<std::wstring> created_;
};
#endif

class DiscoverTest : public ::testing::TestWithParam<Source> {};

TEST_P(DiscoverTest, TheFirstSourceThatNamesAHostWins) {
  const Source& c = GetParam();
#ifdef _WIN32
  std::unique_ptr<UserRegistryValues> values;
  if (c.user_hive) values = std::make_unique<UserRegistryValues>(c.user_hive);
#endif
  testkit::TempDir dir;
  fs::create_directories(dir / "module");
  fs::create_directories(dir / "registry");
  fs::copy_file(fs::u8path(tdoctest::ProgramDirectory()) / kModule, dir / "module" / kModule);
  if (c.config) testkit::WriteFile(dir / "module" / "tpcsdk.config", c.config);
  if (c.user_hive) testkit::WriteFile(dir / "registry" / "user.json", c.user_hive);
  testkit::ScopedEnv registry("TPCSDK_REGISTRY_DIR", (dir / "registry").u8string());
  const Outcome o = RunTdoc({"--json", "--module", (dir / "module" / kModule).u8string(), "discover",
                                 "--app", "Tarvo PDF Reader", "--version", "12.0"});
  ASSERT_EQ(o.exit, 0) << Describe(o);
  const Json::Value v = ParseJson(o.out);
  const Json::Value& service = v["service_host"];
  EXPECT_EQ(service["winner_slot"].asInt(), c.winner_slot) << o.out;
  if (c.host) {
    EXPECT_EQ(service["host"].asString(), c.host) << o.out;
  }
  EXPECT_NE(service["why"].asString().find(c.from), std::string::npos) << o.out;
  // Every slot is reported, in the host's order.
  ASSERT_EQ(service["slots"].size(), 3u);
  EXPECT_EQ(service["slots"][0u]["slot"].asInt(), 7);
  EXPECT_EQ(service["slots"][1u]["slot"].asInt(), 9);
  EXPECT_EQ(service["slots"][2u]["slot"].asInt(), 5);
}

const char kTenantHive[] =
    R"({"SOFTWARE\\Tarvo Software\\Tarvo PDF Reader 12.0\\plugins\\TDOCServer":)"
    R"({"EnterpriseTenantDomain":"https://tenant.example.test"}})";
const char kSignedInHive[] =
    R"({"SOFTWARE\\Tarvo Software\\Tarvo PDF Reader 12.0\\plugins\\TDOCServer\\LoginedService":)"
    R"({"https://other.example.test":"0","https://last.example.test":"1"}})";

INSTANTIATE_TEST_SUITE_P(
    Tdoc, DiscoverTest,
    ::testing::Values(
        Source{"BuiltInDefault", nullptr, nullptr, 5, nullptr, "built-in default"},
        Source{"ConfigurationFile", R"({"env":"https://config.example.test"})", nullptr, 5,
               "https://config.example.test", "configuration file (env)"},
        Source{"LastSignInBeforeFile", R"({"env":"https://config.example.test"})", kSignedInHive, 9,
               "https://last.example.test", "policy gave nothing; the host came from the service marked as default at the last sign-in"},
        Source{"TenantBeforeEverything", R"({"env":"https://config.example.test"})", kTenantHive, 7,
               "https://tenant.example.test", "tenant value"}),
    [](const ::testing::TestParamInfo<Source>& info) { return std::string(info.param.name); });

// The readable screen names the winner and the source it came from.
TEST(Tdoc, DiscoverScreenNamesWinnerAndSource) {
  testkit::TempDir dir;
  fs::copy_file(fs::u8path(tdoctest::ProgramDirectory()) / kModule, dir / kModule);
  testkit::WriteFile(dir / "tpcsdk.config", R"({"env":"https://config.example.test","upd":"https://upd.example.test"})");
  const Outcome o = RunTdoc({"--module", (dir / kModule).u8string(), "discover"});
  ASSERT_EQ(o.exit, 0) << Describe(o);
  EXPECT_NE(o.out.find("=> service host: https://config.example.test"), std::string::npos) << o.out;
  EXPECT_NE(o.out.find("the host came from the configuration file (env)"), std::string::npos) << o.out;
  EXPECT_NE(o.out.find("=> update host: https://upd.example.test"), std::string::npos) << o.out;
  EXPECT_NE(o.out.find("no DNS look-up: the file exists"), std::string::npos) << o.out;
}

// ---- demo: the whole life cycle, and nothing left behind.

TEST(Tdoc, DemoWalksTheLifeCycle) {
  // Under wine the demo takes the native emulator named by TDOC_EMULATOR_URL.
#ifdef _WIN32
  TESTKIT_EMULATOR_OR_SKIP(emu);
#endif
  const Outcome o = RunTdoc({"--json", "demo", "--message-wait", "30"}, 120000);
  // Standard output holds the document alone: the module's own line per downloaded
  // file goes to standard error.
  EXPECT_EQ(Lines(o.out), 1) << Describe(o);
  EXPECT_NE(o.err.find("File size: "), std::string::npos) << Describe(o);
  const Json::Value v = ParseJson(o.out);
  const Json::Value& steps = v["steps"];
  ASSERT_EQ(steps.size(), 9u) << Describe(o);
  for (const Json::Value& s : steps) EXPECT_EQ(s["status"].asString(), "ok") << s["title"] << "\n" << o.out;
  EXPECT_EQ(o.exit, 0) << Describe(o);
  EXPECT_TRUE(v["ok"].asBool());
  // The posted message came through the callback, after the service had it acknowledged.
  const std::string said = Json::FastWriter().write(steps[6]["said"]);
  EXPECT_NE(said.find("message 1001 arrived"), std::string::npos) << said;
  EXPECT_NE(said.find("carried by 1 round(s), acknowledged 1 time(s)"), std::string::npos) << said;
  // Discovery found the emulator through the configuration file, and the client
  // fetched the API directory from it.
  EXPECT_EQ(steps[1]["status"].asString(), "ok") << o.out;
  bool directory = false;
  for (const Json::Value& w : steps[2]["wire"]) directory = directory || w.asString().find("tdocApi.json") != std::string::npos;
  EXPECT_TRUE(directory) << o.out;
  // The user check, the document and the usage record each went over the wire.
  for (int i : {3, 4, 5}) EXPECT_GT(steps[i]["wire"].size(), 0u) << steps[i]["title"].asString();
  // The working folder is gone.
  const std::string where = steps[0]["said"][1].asString();
  const std::string folder = where.substr(where.find(' ', where.find("folder")) + 1,
                                          where.find(" (") - where.find(' ', where.find("folder")) - 1);
  EXPECT_FALSE(fs::exists(fs::u8path(folder))) << folder;
}

// ---- watch: messages as JSON lines until stopped.

TEST(Tdoc, WatchPrintsAPostedMessage) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  ASSERT_TRUE(emu->SeedUser("u1", "T1", "ann@example.test")) << emu->last_error();
  Json::Value config(Json::objectValue);
  config["minimumPollingTime"] = 1;
  config["maxPollingNotResultCount"] = 250;
  ASSERT_TRUE(emu->Call("POST", "polling/config", config)) << emu->last_error();
  Json::Value message(Json::objectValue);
  message["_id"] = "w1";
  message["body"] = "hello";
  ASSERT_TRUE(emu->QueueMessage("T1", 104, message).isObject()) << emu->last_error();
  const Outcome o = RunTdoc({"watch", "--host", emu->base_url(), "--token", "T1", "--count", "1", "--seconds", "60"},
                            90000);
  EXPECT_EQ(o.exit, 0) << Describe(o);
  ASSERT_EQ(Lines(o.out), 1) << Describe(o);
  const Json::Value line = ParseJson(o.out);
  EXPECT_EQ(line["code"], 1002) << o.out;
  EXPECT_EQ(line["domain"], emu->base_url()) << o.out;
  EXPECT_EQ(line["message"]["_id"], "w1") << o.out;
  EXPECT_EQ(line["message"]["body"], "hello") << o.out;
  EXPECT_NE(o.err.find("watch stopped after 1 message(s)"), std::string::npos) << Describe(o);
  EXPECT_TRUE(emu->WaitForMessages(1, "acknowledged", "T1", 0));
}

#ifndef _WIN32
TEST(Tdoc, WatchEndsOnInterrupt) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  tdoctest::Running watch("tdoc", {"watch", "--host", emu->base_url(), "--token", "T1"});
  if (!watch.WaitForErr("watching", 30000)) {
    const Outcome o = watch.Finish(30000);
    if (o.exit == 12) GTEST_SKIP() << "this module does not poll yet: " << o.err;
    FAIL() << Describe(o);
  }
  watch.Interrupt();
  const Outcome o = watch.Finish(30000);
  EXPECT_EQ(o.exit, 0) << Describe(o);
  EXPECT_NE(o.err.find("watch stopped"), std::string::npos) << Describe(o);
}
#endif

}  // namespace
