// Every fault tdoc-emulator can script, against one operation of every family: the
// identity look-up, a document upload, the usage log, a service fact, the wrapper
// download and a polling round. Each cell checks the result the host gets, that the
// request went out once, that no call is left in the client, and for the polling round
// that the queued message reaches the host exactly once over the rounds that follow.
// Stalled calls are freed by StopRequest (the blocking wrapper download, which has no
// stop, by releasing the stall), so every wait is bounded.
#include <gtest/gtest.h>
#include <json/json.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "kit/emulator_client.h"
#include "kit/private_registry.h"
#include "kit/testkit.h"
#include "operations/wrappers.h"
#include "polling/pull_msg_thread.h"
#include "polling/step_clock.h"
#include "support/out_buffer.h"
#include "support/utf.h"
#include "tpcsdk/ITetherdocServer.h"
#include "web_service/tetherdoc_server.h"

namespace {

namespace fs = std::filesystem;
using tpcsdk::TetherdocServer;
using tpcsdk::Utf8ToUtf16;

constexpr char kApp[] = "Fault Matrix";
constexpr auto kBound = std::chrono::seconds(20);
constexpr char kPollPath[] = "/tdocapi/v1/messages/polling";
constexpr char kAckPath[] = "/tdocapi/v1/messages";
constexpr char kWrapperPath[] = "/files/wrappers/ProtectWrapper.pdf";

enum Family { kIdentity, kDocuments, kUsageLog, kServices, kWrappers, kPolling, kFamilies };

const char* const kFamilyNames[kFamilies] = {"Identity", "Documents", "UsageLog",
                                             "Services", "Wrappers",  "Polling"};

// Where each family's call goes, and so where the fault is put.
struct Target {
  const char* method;
  const char* path;
};
const Target kTargets[kFamilies] = {{"GET", "/tdocapi/v1/users/online-state"},
                                    {"POST", "/tdocapi/v1/documents"},
                                    {"POST", "/tdocapi/v1/documents/logs"},
                                    {"GET", "/tdocapi/v1/server/option-config"},
                                    {"GET", kWrapperPath},
                                    {"POST", kPollPath}};

// What a cell expects. The four service calls give their result code. The wrapper
// download gives kPresent or kAbsent for the file the fault hit. The polling round
// gives the code of the round's error callback, or kNoError when none came.
constexpr int kPresent = 1;
constexpr int kAbsent = 0;
constexpr int kNoError = -100;

enum class Kind {
  kFault,   // an emulator fault on the family's request
  kScript,  // a scripted reply (status and body) instead of the service's own
};

// Who holds a call that does not end by itself.
enum class Hold {
  kNone,
  kEmulator,  // the emulator holds the connection until it is released
  kEmulatorAfterHeaders,  // the same, once the headers are out
  kClient,    // a reply with an empty body: the client waits until a stop
};

struct Row {
  const char* name;
  Kind kind;
  const char* rule;  // the fault's fields or the scripted reply, as JSON
  Hold hold;
  int expected[kFamilies];
};

// Results by family: identity, documents, usage log, services, wrappers, polling.
const Row kRows[] = {
    // Status codes.
    {"Status201", Kind::kScript, R"({"status":201,"body":"{\"ret\":0,\"data\":[]}"})", Hold::kNone,
     {3, 3, 3, 3, kPresent, 3}},
    {"Status403", Kind::kScript, R"({"status":403,"body":"{\"ret\":0,\"data\":[]}"})", Hold::kNone,
     {4, 4, 4, 4, kAbsent, 3}},
    {"Status404", Kind::kScript, R"({"status":404,"body":"{\"ret\":0,\"data\":[]}"})", Hold::kNone,
     {3, 3, 3, 3, kAbsent, 3}},
    {"Status500", Kind::kScript, R"({"status":500,"body":"{\"ret\":0,\"data\":[]}"})", Hold::kNone,
     {3, 3, 3, 3, kAbsent, 3}},
    // Empty, zero-length and zero-byte bodies.
    {"EmptyBodyLength", Kind::kFault, R"({"kind":"empty_body","framing":"length"})", Hold::kClient,
     {6, 6, 6, 6, kPresent, 3}},
    {"EmptyBodyClose", Kind::kFault, R"({"kind":"empty_body","framing":"close"})", Hold::kClient,
     {6, 6, 6, 6, kPresent, 3}},
    {"EmptyBodyChunked", Kind::kFault, R"({"kind":"empty_body","framing":"chunked"})", Hold::kClient,
     {6, 6, 6, 6, kPresent, 3}},
    {"EmptyBody204", Kind::kFault, R"({"kind":"empty_body","status":204})", Hold::kClient,
     {3, 3, 3, 3, kAbsent, 3}},
    {"ContentLengthZero", Kind::kFault, R"({"kind":"content_length_zero"})", Hold::kClient,
     {6, 6, 6, 6, kPresent, 3}},
    {"ZeroByteFirst", Kind::kFault, R"({"kind":"zero_byte","at":0})", Hold::kNone,
     {6, 6, 6, 6, kPresent, 3}},
    {"ZeroByteMiddle", Kind::kFault, R"({"kind":"zero_byte"})", Hold::kNone,
     {6, 6, 6, 6, kPresent, 3}},
    // Bodies that don't parse, or parse to the wrong thing.
    {"MalformedJson", Kind::kFault, R"({"kind":"malformed_json"})", Hold::kNone,
     {6, 6, 6, 6, kPresent, 3}},
    {"NonObject", Kind::kFault, R"({"kind":"non_object"})", Hold::kNone, {6, 6, 6, 6, kPresent, 3}},
    {"RetAsText", Kind::kScript, R"({"body":"{\"ret\":\"0\",\"returned\":1,\"data\":[]}"})", Hold::kNone,
     {6, 6, 6, 6, kPresent, 3}},
    {"RetRefused", Kind::kScript, R"({"body":"{\"ret\":110001,\"returned\":0,\"data\":[]}"})", Hold::kNone,
     {6, 4, 4, 6, kPresent, 3}},
    {"RetTokenExpired", Kind::kScript, R"({"body":"{\"ret\":210007,\"data\":[]}"})", Hold::kNone,
     {9, 9, 9, 9, kPresent, 3}},
    {"DataAsText", Kind::kScript, R"({"body":"{\"ret\":0,\"returned\":1,\"data\":\"text\"}"})", Hold::kNone,
     {-2, 0, 0, 0, kPresent, 3}},
    {"EmptyObject", Kind::kScript, R"({"body":"{}"})", Hold::kNone, {-2, 0, 0, 0, kPresent, 3}},
    // Connections that end early: before the headers, right after them, mid-body.
    {"ResetBeforeHeaders", Kind::kFault, R"({"kind":"reset_before_headers","times":2})", Hold::kNone,
     {3, 3, 3, 3, kAbsent, 3}},
    {"ResetAfterHeaders", Kind::kFault, R"({"kind":"reset_mid_body","at":0})", Hold::kNone,
     {6, 6, 6, 6, kAbsent, 3}},
    {"ResetMidBody", Kind::kFault, R"({"kind":"reset_mid_body"})", Hold::kNone,
     {6, 6, 6, 6, kAbsent, 3}},
    {"ResetMidChunkedBody", Kind::kFault, R"({"kind":"reset_mid_body","chunked":true})", Hold::kNone,
     {6, 6, 6, 6, kAbsent, 3}},
    {"CloseBeforeHeaders", Kind::kFault, R"({"kind":"close_before_headers","times":2})", Hold::kNone,
     {3, 3, 3, 3, kAbsent, 3}},
    {"CloseMidBody", Kind::kFault, R"({"kind":"close_mid_body"})", Hold::kNone,
     {6, 6, 6, 6, kAbsent, 3}},
    // Stalls: freed by a stop (the download by a release, after which it completes).
    {"StallBeforeHeaders", Kind::kFault, R"({"kind":"stall_before_headers"})", Hold::kEmulator,
     {3, 3, 3, 3, kPresent, 3}},
    {"StallMidBody", Kind::kFault, R"({"kind":"stall_mid_body"})", Hold::kEmulatorAfterHeaders,
     {6, 6, 6, 6, kPresent, 3}},
    // Slow replies that do complete.
    {"SlowBody", Kind::kFault, R"({"kind":"chunks","count":6,"gap_ms":15})", Hold::kNone,
     {0, 0, 0, 0, kPresent, kNoError}},
    {"SlowChunkedBody", Kind::kFault, R"({"kind":"chunks","count":6,"gap_ms":15,"chunked":true})",
     Hold::kNone, {0, 0, 0, 0, kPresent, kNoError}},
    {"Delay", Kind::kFault, R"({"kind":"delay","ms":50})", Hold::kNone, {0, 0, 0, 0, kPresent, kNoError}},
};

// Wide literals for the host's records, whatever the platform's wide type.
struct W {
  explicit W(const char* s) : text(Utf8ToUtf16(s)) {}
  operator TDC_LPCWSTR() const { return reinterpret_cast<TDC_LPCWSTR>(text.c_str()); }
  std::u16string text;
};

// What the host's polling callbacks saw.
struct Host {
  std::mutex m;
  std::vector<std::string> messages;
  std::vector<int32_t> errors;
};

int OnMessage(int32_t, PullMsgBuffer* buffer, const char*, void* userData) {
  auto* host = static_cast<Host*>(userData);
  std::lock_guard<std::mutex> lock(host->m);
  host->messages.emplace_back(buffer->text, static_cast<size_t>(buffer->length));
  return 0;
}

int OnError(int32_t code, const char*, const char*, void* userData) {
  auto* host = static_cast<Host*>(userData);
  std::lock_guard<std::mutex> lock(host->m);
  host->errors.push_back(code);
  return 0;
}

struct Cell {
  const Row* row;
  Family family;
};

std::string CellName(const ::testing::TestParamInfo<Cell>& info) {
  return std::string(info.param.row->name) + "_" + kFamilyNames[info.param.family];
}

std::vector<Cell> AllCells() {
  std::vector<Cell> cells;
  for (const Row& row : kRows)
    for (int f = 0; f < kFamilies; ++f) cells.push_back({&row, static_cast<Family>(f)});
  return cells;
}

class FaultMatrix : public ::testing::TestWithParam<Cell> {
 protected:
  FaultMatrix()
      : appdata_("TPCSDK_APPDATA_DIR", dir_.path().string()), registry_(dir_.path() / "hives") {}
  void TearDown() override {
    if (client_) client_->stopThread();
  }

  // Puts the row's fault or scripted reply on the family's request, once.
  void Arm(testkit::EmulatorClient* emu, const Row& row, Family family) {
    Json::Value rule;
    ASSERT_TRUE(Json::Reader().parse(row.rule, rule)) << row.rule;
    rule["method"] = kTargets[family].method;
    rule["path"] = kTargets[family].path;
    if (!rule.isMember("times")) rule["times"] = 1;
    if (row.kind == Kind::kFault) {
      ASSERT_NE(emu->Fault(rule), 0u) << emu->last_error();
    } else {
      ASSERT_NE(emu->Script(rule), 0u) << emu->last_error();
    }
  }

  // A call that nothing frees would hold the test program for good: it ends the
  // program instead, so that the run fails within its bound.
  template <class T>
  static T Within(std::future<T>& future, const char* what) {
    if (future.wait_for(kBound) != std::future_status::ready) {
      ADD_FAILURE() << what << " did not return";
      std::fflush(stdout);
      std::_Exit(2);
    }
    return future.get();
  }

  // Runs call on another thread. A held call is freed once it is held: by StopRequest
  // from a third thread (under wine, whose WinHTTP lets a closed request go only with
  // its connection, the emulator ends the held connection when the stop has not come
  // back within a few seconds, by letting it go on) or, for the download, which has no stop and finishes an
  // empty body by itself, by releasing the emulator's hold.
  template <class F>
  int Run(testkit::EmulatorClient* emu, const Row& row, Family family, F call) {
    const bool stoppable = family != kWrappers;
    const std::string path = kTargets[family].path, method = kTargets[family].method;
    std::future<int> result = std::async(std::launch::async, call);
    const bool held = row.hold != Hold::kNone && (stoppable || row.hold != Hold::kClient);
    if (held) {
      if (row.hold != Hold::kClient) {
        EXPECT_TRUE(emu->WaitForStalls(1, 10000));
        // A stop that reaches the call before its status has arrived sees none.
        if (row.hold == Hold::kEmulatorAfterHeaders && stoppable) {
          EXPECT_TRUE(client_->WaitForPendingStatus(kBound));
        }
      } else {
        // The request is listed once it has reached the emulator; then its status.
        EXPECT_TRUE(emu->WaitForRequests(1, 10000, path, method));
        EXPECT_TRUE(client_->WaitForPendingStatus(kBound));
      }
      if (stoppable) {
        std::future<int> stop = std::async(std::launch::async, [this] { return client_->StopRequest(); });
        if (testkit::UnderWine() && stop.wait_for(std::chrono::seconds(3)) != std::future_status::ready)
          emu->Release();
        EXPECT_EQ(Within(stop, "StopRequest"), 1);
      } else {
        emu->Release();
      }
    }
    return Within(result, "the call");
  }

  // A client may send once more on a fresh connection when a kept-alive one ends
  // before any reply, so a fault armed for two requests may still wait after the call.
  // Raw exchanges, each on a connection of its own, use it up so that no later request
  // meets it. The count of the family's requests is taken before.
  size_t SentAndDrain(testkit::EmulatorClient* emu, Family family) {
    const Target& target = kTargets[family];
    size_t sent = 0;
    for (const auto& r : emu->RequestsTo(target.path)) sent += r.method == target.method;
    Json::Value rules;
    if (!emu->Call("GET", "rules", Json::Value(Json::objectValue), &rules)) {
      ADD_FAILURE() << emu->last_error();
      return sent;
    }
    for (const Json::Value& fault : rules["faults"])
      for (int64_t i = 0; i < fault["remaining"].asInt64(); ++i)
        testkit::HttpExchange(emu->base_url(), target.method, target.path, "", 10000);
    return sent;
  }

  int CallService(testkit::EmulatorClient* emu, const Row& row, Family family);
  int DownloadWrappers(testkit::EmulatorClient* emu, const Row& row);
  int PollingRounds(testkit::EmulatorClient* emu, const Row& row);

  testkit::TempDir dir_;
  testkit::ScopedEnv appdata_;
  testkit::PrivateRegistry registry_;
  testkit::StepClock clock_;  // outlives the client, whose last stop reaches it
  std::unique_ptr<TetherdocServer> client_;
  size_t sent_ = 0;  // the faulted call's requests to its path
};

int FaultMatrix::CallService(testkit::EmulatorClient* emu, const Row& row, Family family) {
  ITetherdocServer* api = client_.get();
  EXPECT_TRUE(emu->SeedUser("u1", "stored-token", "ann@example.test", true));
  // The usage log is taken only for a known document and version.
  Json::Value document, version;
  document["cDocID"] = "doc-1";
  version["cDocID"] = "doc-1";
  version["cVersionID"] = "ver-1";
  EXPECT_TRUE(emu->Seed("documents", document)) << emu->last_error();
  EXPECT_TRUE(emu->Seed("versions", version)) << emu->last_error();
  EXPECT_EQ(api->SetAccessToken(W("stored-token")), TDC_HRESULT_OK);
  Arm(emu, row, family);
  EXPECT_TRUE(emu->ClearLog());
  const int result = Run(emu, row, family, [&]() -> int {
    switch (family) {
      case kIdentity: {
        int32_t online = -1;
        const int result = api->isUserOnLine("ann@example.test", &online);
        EXPECT_EQ(online, result == TDC_HRESULT_OK ? 1 : 0);
        return result;
      }
      case kDocuments: {
        W app("app-1"), doc("doc-2"), name("Report.pdf"), time("2026-11-23 10:00:00");
        const TDC_DOC_INFO info{app, doc, name, time, time, nullptr, nullptr, nullptr, nullptr, nullptr};
        return api->UploadDocInfo(&info);
      }
      case kUsageLog: {
        W app("app-1"), doc("doc-1"), version("ver-1"), start("2026-11-23 12:00:00"), type("edit"),
            op("save"), operands("{\"page\": 3}"), name("Report.pdf");
        const TDC_USER_LOG log{app,      doc,  version, nullptr, start,   type, op,
                               operands, name, nullptr, nullptr, nullptr, 0};
        return api->UpLoadUserLogger(&log);
      }
      default: {
        char* config = nullptr;
        const int result = api->GetServerOptionConfig(&config);
        EXPECT_EQ(config != nullptr, result == TDC_HRESULT_OK);
        TDC_ReleaseLPSTR(config);
        return result;
      }
    }
  });
  sent_ = SentAndDrain(emu, family);
  return result;
}

// The wrapper download of the first file meets the fault: the file is whole or not
// there, and no partial file is left beside it. The other two arrive regardless.
int FaultMatrix::DownloadWrappers(testkit::EmulatorClient* emu, const Row& row) {
  const fs::path folder = dir_.path() / "Tarvo Software" / kApp / "cacheData" / "127.0.0.1";
  Arm(emu, row, kWrappers);
  EXPECT_TRUE(emu->ClearLog());
  Run(emu, row, kWrappers, [&] {
    static_cast<ITetherdocServer*>(client_.get())->UpdateWrapperDocuments();
    return 0;
  });
  sent_ = SentAndDrain(emu, kWrappers);
  const auto name = [](tpcsdk::wrappers::WrapperFile file) {
    return fs::path(tpcsdk::wrappers::WrapperFileName(file, "en-US"));
  };
  EXPECT_TRUE(fs::exists(folder / name(tpcsdk::wrappers::WrapperFile::kRequestPermission)));
  EXPECT_TRUE(fs::exists(folder / name(tpcsdk::wrappers::WrapperFile::kRequestPermissionLicense)));
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(folder, ec))
    EXPECT_NE(entry.path().extension(), ".part") << entry.path();
  return fs::exists(folder / name(tpcsdk::wrappers::WrapperFile::kProtect)) ? kPresent : kAbsent;
}

// One round meets the fault; two clean rounds follow. The message queued for the token
// reaches the host exactly once, acknowledged once, whichever round carried it.
int FaultMatrix::PollingRounds(testkit::EmulatorClient* emu, const Row& row) {
  Host host;
  ITetherdocServer* api = client_.get();
  EXPECT_TRUE(emu->SeedUser("u1", "tok", "ann@example.test"));
  Json::Value message;
  message["title"] = "hello";
  message["messageTemplateId"] = "tpl-share";
  EXPECT_FALSE(emu->QueueMessage("tok", 102, message).isNull()) << emu->last_error();
  EXPECT_EQ(api->SetSubscribtionCallback(&OnMessage, &OnError, &host), 0);
  // The worker stands at its first wait for the whole test: the rounds below are the
  // test's own, made on this thread while the worker runs.
  client_->PollingWorker()->SetClock(&clock_);
  EXPECT_EQ(client_->StartPolling(), 0);
  EXPECT_TRUE(clock_.WaitReady());
  Arm(emu, row, kPolling);
  EXPECT_TRUE(emu->ClearLog());

  const char* list = R"([{"type":102,"token":"tok"}])";
  Run(emu, row, kPolling, [&] {
    client_->Internet_Polling(list);
    return 0;
  });
  sent_ = SentAndDrain(emu, kPolling);
  int error = kNoError;
  {
    std::lock_guard<std::mutex> lock(host.m);
    if (!host.errors.empty()) error = host.errors.front();
    EXPECT_LE(host.errors.size(), 1u);
  }
  client_->Internet_Polling(list);
  client_->Internet_Polling(list);
  client_->stopThread();

  std::lock_guard<std::mutex> lock(host.m);
  EXPECT_EQ(host.messages.size(), 1u) << "the message reached the host other than once";
  EXPECT_LE(host.errors.size(), 1u) << "a clean round reported an error";
  EXPECT_EQ(emu->RequestsTo(kAckPath).size(), 1u);
  return error;
}

TEST_P(FaultMatrix, GivesTheFamilysResult) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  ASSERT_TRUE(registry_.ok());
  const Cell& cell = GetParam();
  const Row& row = *cell.row;
  client_ = std::make_unique<TetherdocServer>("en-US", kApp, "12.1");
  ASSERT_EQ(client_->InitApi(Utf8ToUtf16(emu->base_url()).c_str()), TDC_HRESULT_OK);

  int got = 0;
  switch (cell.family) {
    case kWrappers:
      got = DownloadWrappers(emu, row);
      break;
    case kPolling:
      got = PollingRounds(emu, row);
      break;
    default:
      got = CallService(emu, row, cell.family);
      break;
  }
  int expected = row.expected[cell.family];
  // Wine's WinHTTP fails the blocking read of a chunked body without any data, where
  // the system's hands over an empty body and the download keeps an empty file.
  if (testkit::UnderWine() && cell.family == kWrappers && std::string(row.name) == "EmptyBodyChunked")
    expected = kAbsent;
  EXPECT_EQ(got, expected);
  // The faulted request went out once, or twice where the connection ended before any
  // reply: no call repeats a request otherwise.
  Json::Value rule;
  Json::Reader().parse(row.rule, rule);
  EXPECT_GE(sent_, 1u);
  EXPECT_LE(sent_, static_cast<size_t>(rule.get("times", 1).asInt()));
  EXPECT_EQ(client_->PendingRequests(), 0u);
  emu->Release();
}

INSTANTIATE_TEST_SUITE_P(EveryFaultEveryFamily, FaultMatrix, ::testing::ValuesIn(AllCells()), CellName);

}  // namespace
