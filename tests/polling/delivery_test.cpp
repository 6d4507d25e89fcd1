// Polling rounds against tdoc-emulator, through the client's slots and its worker on a
// clock the test steps: each message type reaching the host's callback, once and after
// its acknowledgement, from scripted replies and from the emulator's message model;
// control and malformed elements; token errors; the round's error callback; the polling
// configuration and the interval's precedence; and a stop that ends a round the service
// holds.
#include <gtest/gtest.h>
#include <json/json.h>

#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "kit/emulator_client.h"
#include "kit/testkit.h"
#include "polling/pull_msg_queue.h"
#include "polling/pull_msg_thread.h"
#include "step_clock.h"
#include "support/utf.h"
#include "tpcsdk/ITetherdocServer.h"
#include "web_service/tetherdoc_server.h"

namespace {

using tpcsdk::TetherdocServer;
using tpcsdk::Utf8ToUtf16;

constexpr char kPollPath[] = "/tdocapi/v1/messages/polling";
constexpr char kAckPath[] = "/tdocapi/v1/messages";
constexpr char kTemplatePath[] = "/tdocapi/v1/messages/templates";
constexpr char kConfigPath[] = "/tdocapi/v1/messages/polling-config";
constexpr char kNotificationPath[] = "/tdocapi/v1/documents/version-notification";
constexpr char kClientQuery[] = "al=en-US&cv=2.0.0.0&an=Polling Test&av=1.0";

Json::Value J(const std::string& text) {
  Json::Value v;
  EXPECT_TRUE(Json::Reader().parse(text, v)) << text;
  return v;
}

std::string ReplaceAll(std::string s, const std::string& from, const std::string& to) {
  for (size_t at = s.find(from); at != std::string::npos; at = s.find(from, at + to.size()))
    s.replace(at, from.size(), to);
  return s;
}

// What the host's callbacks saw.
struct Host {
  struct Message {
    int32_t code;
    std::string text;
    int32_t length;
    std::string domain;
    size_t acksBefore;  // acknowledgements the service had seen at the callback
  };
  std::mutex m;
  std::vector<Message> messages;
  std::vector<std::tuple<int32_t, std::string, std::string>> errors;  // code, text, domain
  testkit::EmulatorClient* emu = nullptr;

  std::vector<std::string> Texts() {
    std::lock_guard<std::mutex> lock(m);
    std::vector<std::string> out;
    for (const Message& message : messages) out.push_back(message.text);
    return out;
  }
};

int OnMessage(int32_t code, PullMsgBuffer* buffer, const char* domain, void* userData) {
  auto* host = static_cast<Host*>(userData);
  const size_t acks = host->emu->RequestsTo(kAckPath).size();
  std::lock_guard<std::mutex> lock(host->m);
  host->messages.push_back({code, std::string(buffer->text), buffer->length, domain, acks});
  return 0;
}

int OnError(int32_t code, const char* text, const char* domain, void* userData) {
  auto* host = static_cast<Host*>(userData);
  std::lock_guard<std::mutex> lock(host->m);
  host->errors.emplace_back(code, text, domain);
  return 0;
}

class Rounds : public ::testing::Test {
 protected:
  void SetUp() override {
    appdata_ = std::make_unique<testkit::ScopedEnv>("TPCSDK_APPDATA_DIR", dir_.path().string());
  }
  void TearDown() override {
    if (server_) server_->stopThread();
  }
  // A ready client of emu, callbacks bound, "tok" subscribed, acknowledgements
  // accepted, the log cleared.
  void Start(testkit::EmulatorClient* emu) {
    Connect(emu);
    ASSERT_NE(emu->ScriptJson("PUT", kAckPath, J(R"({"ret":0,"message":"","returned":0,"data":[]})")),
              0u);
    ASSERT_TRUE(emu->ClearLog());
  }
  // A ready client of emu whose rounds, acknowledgements and templates the emulator's
  // message model answers, nothing scripted: "tok" is a user of the service, subscribed
  // with the application "app"; the template "t1" is known.
  void StartWithModel(testkit::EmulatorClient* emu) {
    ASSERT_TRUE(emu->SeedUser("u1", "tok", "u1@example.test")) << emu->last_error();
    ASSERT_TRUE(emu->Seed("templates", J(R"({"_id":"t1","title":"T"})"))) << emu->last_error();
    Connect(emu);
    ASSERT_EQ(static_cast<ITetherdocServer*>(server_.get())->SubscribecAppID("app"), 0);
    ASSERT_TRUE(emu->ClearLog());
  }
  void Connect(testkit::EmulatorClient* emu) {
    emu_ = emu;
    host_.emu = emu;
    base_ = emu->base_url();
    ASSERT_EQ(server_->InitApi(Utf8ToUtf16(base_).c_str()), TDC_HRESULT_OK);
    ITetherdocServer* api = server_.get();
    ASSERT_EQ(api->SetSubscribtionCallback(&OnMessage, &OnError, &host_), 0);
    ASSERT_EQ(api->SubscribeUser("tok"), 0);
  }
  // Lets the worker go through every level of its cycle `cycles` times.
  void Cycles(testkit::StepClock& clock, int cycles) {
    for (int i = 0; i < cycles * tpcsdk::CPullMsgThread::kLevels; ++i) Round(clock);
  }
  tpcsdk::CPullMsgThread& worker() { return *server_->PollingWorker(); }
  void StartPolling(testkit::StepClock& clock) {
    worker().SetClock(&clock);
    ASSERT_EQ(server_->StartPolling(), 0);
    ASSERT_TRUE(clock.WaitReady());
  }
  // Lets one interval pass, so that the worker makes its next round.
  void Round(testkit::StepClock& clock) {
    ASSERT_TRUE(clock.RunPasses(static_cast<uint64_t>(worker().m_nPollInterval) * 10));
  }
  // The next polling reply carries these elements.
  void Reply(const std::string& elements) {
    Json::Value reply = J(R"({"ret":0,"message":"","returned":1})");
    reply["data"] = J(elements);
    ASSERT_NE(emu_->ScriptJson("POST", kPollPath, reply, 200, 1), 0u);
  }
  // Every later round gets the bare envelope with no element, whatever the emulator's
  // own message model would answer.
  void ServiceHasNothingMore() {
    ReplyRaw("POST", kPollPath, 200, R"({"ret":0,"message":"","returned":0,"data":[]})", -1);
  }
  void ReplyRaw(const std::string& method, const std::string& path, int status,
                const std::string& body, int times = 1) {
    ASSERT_NE(emu_->Script(testkit::BodyRule(method, path, status, body, times)), 0u)
        << emu_->last_error();
  }
  std::string WithBase(const std::string& text) { return ReplaceAll(text, "{base}", base_); }

  testkit::TempDir dir_;
  std::unique_ptr<testkit::ScopedEnv> appdata_;
  testkit::StepClock clock_;  // outlives the client, whose last stop reaches it
  testkit::StepClock restartClock_;
  Host host_;
  std::unique_ptr<TetherdocServer> server_ =
      std::make_unique<TetherdocServer>("en-US", "Polling Test", "1.0");
  testkit::EmulatorClient* emu_ = nullptr;
  std::string base_;
};

// ---- one message of each type ------------------------------------------------------

struct TypeCase {
  const char* name;
  const char* parameter;
  const char* data;
  int32_t code;
  int32_t msgType;  // 0: not acknowledged
  bool usesTemplates;
  const char* delivered;  // {base} stands for the emulator
};

class EachType : public Rounds, public ::testing::WithParamInterface<TypeCase> {};

TEST_P(EachType, ReachesTheHostOnceAfterItsAcknowledgement) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  const TypeCase& c = GetParam();
  Start(emu);
  ASSERT_NE(emu->ScriptJson("GET", kTemplatePath,
                            J(R"({"ret":0,"data":[{"_id":"t1","title":"T"},{"_id":"t2"}]})")),
            0u);
  Reply(std::string(R"([{"parameter":)") + c.parameter + R"(,"messageCode":0,"data":)" + c.data +
        "}]");
  ServiceHasNothingMore();
  StartPolling(clock_);
  Round(clock_);
  Round(clock_);  // the service has nothing more: the message is not handed over again

  std::lock_guard<std::mutex> lock(host_.m);
  ASSERT_EQ(host_.messages.size(), 1u);
  const Host::Message& got = host_.messages[0];
  EXPECT_EQ(got.code, c.code);
  EXPECT_EQ(got.text, WithBase(c.delivered));
  EXPECT_EQ(static_cast<size_t>(got.length), got.text.size());
  EXPECT_EQ(got.domain, base_);
  EXPECT_EQ(got.acksBefore, c.msgType ? 1u : 0u) << "delivered before its acknowledgement";
  EXPECT_EQ(worker().m_nNoResultCount, 1) << "the delivery resets the count of the round";

  const auto acks = emu->RequestsTo(kAckPath);
  if (c.msgType) {
    ASSERT_EQ(acks.size(), 1u);
    EXPECT_EQ(acks[0].method, "PUT");
    EXPECT_EQ(acks[0].query, "access-token=tok");
    EXPECT_EQ(acks[0].body,
              "{\"id\":\"m1\",\"isDelivery\":1,\"msgType\":" + std::to_string(c.msgType) + "}\n");
  } else {
    EXPECT_TRUE(acks.empty());
  }
  const auto templates = emu->RequestsTo(kTemplatePath);
  ASSERT_EQ(templates.size(), c.usesTemplates ? 1u : 0u);
  if (c.usesTemplates) {
    EXPECT_EQ(templates[0].query, "access-token=tok");
  }
  // The second round's empty reply is a round failure.
  ASSERT_EQ(host_.errors.size(), 1u);
  EXPECT_EQ(host_.errors[0], std::make_tuple(3, std::string(), base_));
}

#define MSG R"({"_id":"m1","body":"hi","messageTemplateId":"t1")"
#define TEMPLATE R"("templateInfo":{"_id":"t1","title":"T"})"

const TypeCase kTypeCases[] = {
        TypeCase{"User", R"({"type":102,"token":"tok"})",
                 R"([{"_id":"m1","messageTemplateId":"t1","body":"hi"}])", 1001, 1, true,
                 MSG "," TEMPLATE R"(,"url":"{base}/message/view?id=m1&access-token=tok&al=en-US&cv=2.0.0.0&an=Polling Test&av=1.0"})"
                     "\n"},
        TypeCase{"App", R"({"type":103,"token":"tok","cAppID":"app"})",
                 R"([{"_id":"m1","messageTemplateId":"t1","body":"hi"}])", 1001, 2, false,
                 MSG "}\n"},
        TypeCase{"RequestFile", R"({"type":104,"token":"tok"})",
                 R"([{"_id":"m1","messageTemplateId":"t1","body":"hi"}])", 1002, 3, true,
                 MSG "," TEMPLATE R"(,"url":"{base}/message/view?id=m1&access-token=tok&mType=requestfile&al=en-US&cv=2.0.0.0&an=Polling Test&av=1.0"})"
                     "\n"},
        TypeCase{"Homepage", R"({"type":105,"token":"tok"})",
                 R"([{"_id":"m1","messageTemplateId":"t1","body":"hi"}])", 1005, 4, true,
                 MSG "," TEMPLATE R"(,"url":"{base}/message/view?id=m1&access-token=tok&mType=homepage"})"
                     "\n"},
        TypeCase{"ShareView", R"({"type":109,"token":"tok","cAppID":"app"})",
                 R"([{"_id":"m1","messageTemplateId":"t1","body":"hi"}])", 1006, 5, true,
                 MSG "," TEMPLATE R"(,"url":"{base}/message/view?id=m1&access-token=tok&mType=shareview"})"
                     "\n"},
        TypeCase{"UntreatedCountGainsItsMember", R"({"type":110,"token":"tok"})",
                 R"({"count":2})", 1007, 0, false, "{\"count\":2,\"untreatedNotify\":null}\n"},
        TypeCase{"UntreatedCountAsSent", R"({"type":110,"token":"tok"})",
                 R"({"untreatedNotify":4})", 1007, 0, false, "{\"untreatedNotify\":4}\n"}};

std::string TypeCaseName(const ::testing::TestParamInfo<TypeCase>& info) { return info.param.name; }

INSTANTIATE_TEST_SUITE_P(Types, EachType, ::testing::ValuesIn(kTypeCases), TypeCaseName);

#undef MSG
#undef TEMPLATE

// The same messages posted to the emulator's message model, which answers the rounds,
// the acknowledgements and the templates itself. The client never polls for type 103,
// so that one cannot arrive this way.
class EachTypeFromTheService : public Rounds, public ::testing::WithParamInterface<TypeCase> {};

TEST_P(EachTypeFromTheService, ArrivesOnceAfterItsAcknowledgement) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  const TypeCase& c = GetParam();
  StartWithModel(emu);
  const Json::Value parameter = J(c.parameter), data = J(c.data);
  Json::Value extra(Json::objectValue);
  if (parameter.isMember("cAppID")) extra["cAppID"] = parameter["cAppID"];
  ASSERT_TRUE(emu->QueueMessage("tok", parameter["type"].asInt(), data.isArray() ? data[0] : data, extra)
                  .isObject())
      << emu->last_error();
  StartPolling(clock_);
  Cycles(clock_, 2);  // a whole cycle carries every type; the second must bring nothing again

  std::lock_guard<std::mutex> lock(host_.m);
  ASSERT_EQ(host_.messages.size(), 1u);
  const Host::Message& got = host_.messages[0];
  EXPECT_EQ(got.code, c.code);
  EXPECT_EQ(got.text, WithBase(c.delivered));
  EXPECT_EQ(got.acksBefore, c.msgType ? 1u : 0u) << "delivered before its acknowledgement";
  EXPECT_TRUE(host_.errors.empty());
  EXPECT_EQ(emu->RequestsTo(kTemplatePath).size(), c.usesTemplates ? 1u : 0u);

  // The service's own account: carried by one round, acknowledged once when the type
  // is acknowledged, and no longer waiting.
  const Json::Value inbox = emu->Inspect("inbox");
  ASSERT_EQ(inbox["messages"].size(), 1u) << inbox;
  const Json::Value& record = inbox["messages"][0];
  EXPECT_EQ(record["deliveries"].asInt(), 1) << record;
  EXPECT_EQ(record["acks"].asInt(), c.msgType ? 1 : 0) << record;
  EXPECT_FALSE(record["pending"].asBool()) << record;
  for (const Json::Value& ack : inbox["acks"]) EXPECT_EQ(ack["ret"].asInt(), 0) << ack;
}

std::vector<TypeCase> PolledTypeCases() {
  std::vector<TypeCase> polled;
  for (const TypeCase& c : kTypeCases)
    if (J(c.parameter)["type"].asInt() != 103) polled.push_back(c);
  return polled;
}

INSTANTIATE_TEST_SUITE_P(Types, EachTypeFromTheService, ::testing::ValuesIn(PolledTypeCases()),
                         TypeCaseName);

TEST_F(Rounds, UpdatesFromTheServiceArriveOncePerNewVersion) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  StartWithModel(emu);
  ASSERT_TRUE(emu->Seed("documents", J(R"({"cDocID":"doc"})"))) << emu->last_error();
  ASSERT_TRUE(emu->Seed("versions", J(R"({"cDocID":"doc","cVersionID":"v1"})"))) << emu->last_error();
  ASSERT_EQ(server_->SubscribeUpdateNotification("tok", "doc", "v1"), 0);
  ASSERT_TRUE(emu->Seed("versions", J(R"({"cDocID":"doc","cVersionID":"v2"})"))) << emu->last_error();
  StartPolling(clock_);
  Cycles(clock_, 2);

  const std::vector<std::string> texts = host_.Texts();
  ASSERT_EQ(texts.size(), 1u);
  const Json::Value update = J(texts[0]);
  EXPECT_EQ(update["cDocID"], "doc");
  EXPECT_EQ(update["cVersionID"], "v2");
  EXPECT_EQ(update["cVersionIDLocal"], "v1");
  EXPECT_EQ(update["token"], "tok");
  EXPECT_EQ(host_.messages[0].code, 1003);
  ASSERT_EQ(server_->SubscribedUpdates().size(), 1u);
  EXPECT_EQ(server_->SubscribedUpdates()[0].latestVersion, "v2");
}

TEST_F(Rounds, ATokenTheServiceDoesNotKnowIsReportedOnceAndLeaves) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  StartWithModel(emu);
  ASSERT_EQ(server_->SubscribeUser("ghost"), 0);
  ASSERT_TRUE(emu->QueueMessage("tok", 102, J(R"({"_id":"m1"})")).isObject()) << emu->last_error();
  StartPolling(clock_);
  Cycles(clock_, 2);

  EXPECT_EQ(server_->SubscribedUsers(), std::vector<std::string>{"tok"});
  // The first round carries two parameters of the refused token, each answered with
  // the code; none of the later rounds carries it.
  const auto polls = emu->RequestsTo(kPollPath);
  ASSERT_GE(polls.size(), 2u);
  EXPECT_NE(polls[0].body.find("ghost"), std::string::npos) << polls[0].body;
  for (size_t i = 1; i < polls.size(); ++i) EXPECT_EQ(polls[i].body.find("ghost"), std::string::npos) << polls[i].body;
  std::lock_guard<std::mutex> lock(host_.m);
  EXPECT_EQ(host_.errors, (std::vector<std::tuple<int32_t, std::string, std::string>>{
                              {210007, "ghost", base_}, {210007, "ghost", base_}}));
  ASSERT_EQ(host_.messages.size(), 1u) << "the known token's message still arrives";
  EXPECT_EQ(J(host_.messages[0].text)["_id"], "m1");
}

TEST_F(Rounds, TheServicesConfigurationAndControlElementsSetTheInterval) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  StartWithModel(emu);
  ASSERT_TRUE(emu->Call("POST", "polling/config",
                        J(R"({"minimumPollingTime":2,"maxPollingNotResultCount":30})")))
      << emu->last_error();
  StartPolling(clock_);
  ASSERT_EQ(server_->Internet_SetPollingConfig("tok", 4), 0);
  EXPECT_EQ(worker().m_nPollInterval, 2);
  EXPECT_EQ(worker().m_nMaxNoResult, 30);
  ASSERT_EQ(emu->RequestsTo(kConfigPath).size(), 1u);
  EXPECT_EQ(emu->RequestsTo(kConfigPath)[0].query, "appType=4&access-token=tok");

  ASSERT_TRUE(emu->QueueNextPollingTime(60)) << emu->last_error();
  Round(clock_);
  EXPECT_EQ(worker().m_nPollInterval, 60);
  EXPECT_EQ(worker().m_bServerInterval, 1);
  ASSERT_TRUE(emu->QueueNextPollingTime(0)) << emu->last_error();
  Round(clock_);
  EXPECT_EQ(worker().m_nPollInterval, 2) << "0 gives the interval back to the configuration";
  EXPECT_EQ(worker().m_bServerInterval, 0);
  EXPECT_EQ(emu->RequestsTo(kPollPath).size(), 2u);
  EXPECT_TRUE(host_.errors.empty());
}

// ---- document updates -----------------------------------------------------------------

TEST_F(Rounds, UpdatesMoveTheSubscriptionOnAndReportEachObject) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  Start(emu);
  ASSERT_NE(emu->ScriptJson("GET", kNotificationPath, J(R"({"ret":0,"data":[]})")), 0u);
  ASSERT_EQ(server_->SubscribeUpdateNotification("tok", "doc", "v1"), 0);
  Reply(R"([
    {"parameter":{"type":101,"token":"tok","cDocID":"doc","cVersionID":"v1","cLocalVersionId":"v1"},
     "data":[{"cVersionID":"v2","n":1},{"cVersionID":"v3"}]},
    {"parameter":{"type":101,"token":"tok","cDocID":"gone","cVersionID":"x0","cLocalVersionId":"v1"},
     "data":[{"cVersionID":"x1"},{"cVersionID":"x2"}]}])");
  ServiceHasNothingMore();
  StartPolling(clock_);
  for (int i = 0; i < 3; ++i) Round(clock_);  // updates take part from the third level on

  // The first object of an unknown subscription is dropped, the ones after it are not.
  EXPECT_EQ(host_.Texts(),
            (std::vector<std::string>{
                "{\"cDocID\":\"doc\",\"cVersionID\":\"v2\",\"cVersionIDLocal\":\"v1\",\"n\":1,\"token\":\"tok\"}\n",
                "{\"cDocID\":\"doc\",\"cVersionID\":\"v3\",\"cVersionIDLocal\":\"v1\",\"token\":\"tok\"}\n",
                "{\"cDocID\":\"gone\",\"cVersionID\":\"x2\",\"cVersionIDLocal\":\"v1\",\"token\":\"tok\"}\n"}));
  for (const Host::Message& m : host_.messages) EXPECT_EQ(m.code, 1003);
  EXPECT_TRUE(emu->RequestsTo(kAckPath).empty());
  ASSERT_EQ(server_->SubscribedUpdates().size(), 1u);
  EXPECT_EQ(server_->SubscribedUpdates()[0].latestVersion, "v2");
  const auto polls = emu->RequestsTo(kPollPath);
  ASSERT_EQ(polls.size(), 3u);
  EXPECT_NE(polls[2].body.find(
                R"({"cDocID":"doc","cLocalVersionId":"v1","cVersionID":"v2","token":"tok","type":101})"),
            std::string::npos)
      << polls[2].body;
}

// ---- malformed and control elements ----------------------------------------------

TEST_F(Rounds, ElementsThatDoNotDecodeAreSkippedAndTheRestHandled) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  Start(emu);
  Reply(R"([
    5,
    {"nextPollingTime":45,"parameter":{"type":110,"token":"tok"},"data":{"count":1}},
    {"nextPollingTime":[],"parameter":{"type":110,"token":"tok"},"data":{"count":2}},
    {"parameter":{"type":111,"token":"tok"},"data":[{"_id":"a"}]},
    {"parameter":{"type":-1,"token":"tok"},"data":[{"_id":"a"}]},
    {"parameter":{"type":107,"token":"tok"},"data":[{"_id":"a"}]},
    {"parameter":{"type":106,"token":"tok","reviewSessionID":"r"},"data":[{"_id":"a"}]},
    {"parameter":"text","data":[{"_id":"a"}]},
    {"parameter":{"type":102},"data":[{"_id":"a"}]},
    {"parameter":{"type":102,"token":"tok"},"data":{"_id":"a"}},
    {"parameter":{"type":102,"token":"tok"},"data":[]},
    {"parameter":{"type":110,"token":"tok"},"data":[1]},
    {"parameter":{"type":103,"token":"tok","cAppID":"app"},
     "data":[7,{"_id":""},{"body":"no id"},{"_id":"m2"}]},
    {"parameter":{"type":110,"token":"tok"},"data":{"count":3}}])");
  StartPolling(clock_);
  Round(clock_);

  EXPECT_EQ(host_.Texts(),
            (std::vector<std::string>{"{\"count\":2,\"untreatedNotify\":null}\n", "{\"_id\":\"m2\"}\n",
                                      "{\"count\":3,\"untreatedNotify\":null}\n"}));
  EXPECT_TRUE(host_.errors.empty());
  const auto acks = emu->RequestsTo(kAckPath);
  ASSERT_EQ(acks.size(), 1u) << "a message without an id is not acknowledged";
  EXPECT_EQ(acks[0].body, "{\"id\":\"m2\",\"isDelivery\":1,\"msgType\":2}\n");
  // The control element set the interval; its parameter was not read.
  EXPECT_EQ(worker().m_nPollInterval, 45);
  EXPECT_EQ(worker().m_bServerInterval, 1);
}

TEST_F(Rounds, TokenErrorsReachTheErrorCallbackAndTheRefusedTokenLeaves) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  Start(emu);
  ASSERT_NE(emu->ScriptJson("GET", kNotificationPath, J(R"({"ret":0,"data":[]})")), 0u);
  ASSERT_EQ(server_->SubscribeUpdateNotification("tok", "doc", "v1"), 0);
  ASSERT_EQ(server_->SubscribeUpdateNotification("tok", "doc2", "v1"), 0);
  Reply(R"([
    {"parameter":{"type":0,"token":"tok"},"messageCode":5},
    {"parameter":{"type":102,"token":"tok"},"messageCode":210007,"data":[{"_id":"z"}]}])");
  StartPolling(clock_);
  Round(clock_);

  EXPECT_TRUE(host_.messages.empty());
  EXPECT_TRUE(emu->RequestsTo(kAckPath).empty());
  EXPECT_EQ(host_.errors, (std::vector<std::tuple<int32_t, std::string, std::string>>{
                              {5, "tok", base_}, {210007, "tok", base_}}));
  EXPECT_TRUE(server_->SubscribedUsers().empty());
  const auto updates = server_->SubscribedUpdates();
  ASSERT_EQ(updates.size(), 1u) << "only the first update subscription of the token leaves";
  EXPECT_EQ(updates[0].document, "doc2");
  // Only the update entry is left, which the second level does not poll.
  Round(clock_);
  EXPECT_EQ(emu->RequestsTo(kPollPath).size(), 1u);
}

// ---- the round's own failures ------------------------------------------------------

struct FailureCase {
  const char* name;
  int status;
  const char* body;
  int32_t error;  // -1: no error callback
};

class RoundFails : public Rounds, public ::testing::WithParamInterface<FailureCase> {};

TEST_P(RoundFails, ReportsToTheErrorCallbackWithAnEmptyText) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  const FailureCase& c = GetParam();
  Start(emu);
  ReplyRaw("POST", kPollPath, c.status, c.body);
  StartPolling(clock_);
  Round(clock_);
  EXPECT_TRUE(host_.messages.empty());
  if (c.error < 0) {
    EXPECT_TRUE(host_.errors.empty());
  } else {
    EXPECT_EQ(host_.errors, (std::vector<std::tuple<int32_t, std::string, std::string>>{
                                {c.error, "", base_}}));
  }
  const auto polls = emu->RequestsTo(kPollPath);
  ASSERT_EQ(polls.size(), 1u);
  EXPECT_EQ(polls[0].body, R"({"parameterList":[{"token":"tok","type":110}]})" "\n");
}

#define ELEMENT R"([{"parameter":{"type":110,"token":"tok"},"data":{"count":1}}])"

INSTANTIATE_TEST_SUITE_P(
    Replies, RoundFails,
    ::testing::Values(
        FailureCase{"HttpError", 500, R"({"ret":0,"returned":1,"data":)" ELEMENT "}", 3},
        // The frame's result is compared with 403, which it never is: an HTTP 403 (4)
        // and a service ret of 403 (6) both reach the host as 3.
        FailureCase{"HttpForbidden", 403, R"({"ret":0,"returned":1,"data":)" ELEMENT "}", 3},
        FailureCase{"ServiceRet403", 200, R"({"ret":403,"returned":1,"data":)" ELEMENT "}", 3},
        FailureCase{"NotJson", 200, R"({"ret":0,"returned":1,"data":[)", 3},
        FailureCase{"ReturnedZero", 200, R"({"ret":0,"returned":0,"data":)" ELEMENT "}", 3},
        FailureCase{"DataNotArray", 200, R"({"ret":0,"returned":1,"data":{"a":1}})", 3},
        FailureCase{"NothingForUs", 200, R"({"ret":0,"returned":1,"data":[]})", -1}),
    [](const ::testing::TestParamInfo<FailureCase>& info) { return std::string(info.param.name); });

#undef ELEMENT

// ---- templates ------------------------------------------------------------------------

struct TemplateCase {
  const char* name;
  int status;
  const char* body;
  const char* templateInfo;  // as delivered
  size_t fetches;            // for two messages of one template
};

class Templates : public Rounds, public ::testing::WithParamInterface<TemplateCase> {};

TEST_P(Templates, AcknowledgedMessagesGoOutWithWhatTheCacheHas) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  const TemplateCase& c = GetParam();
  Start(emu);
  ReplyRaw("GET", kTemplatePath, c.status, c.body, -1);
  Reply(R"([{"parameter":{"type":105,"token":"tok"},
             "data":[{"_id":"m1","messageTemplateId":"t1"},{"_id":"m2","messageTemplateId":"t1"}]}])");
  StartPolling(clock_);
  Round(clock_);
  std::vector<std::string> expected;
  for (const char* id : {"m1", "m2"})
    expected.push_back(WithBase(std::string("{\"_id\":\"") + id +
                                "\",\"messageTemplateId\":\"t1\",\"templateInfo\":" + c.templateInfo +
                                ",\"url\":\"{base}/message/view?id=" + id +
                                "&access-token=tok&mType=homepage\"}\n"));
  EXPECT_EQ(host_.Texts(), expected);
  EXPECT_EQ(emu->RequestsTo(kTemplatePath).size(), c.fetches);
  EXPECT_EQ(emu->RequestsTo(kAckPath).size(), 2u);
}

INSTANTIATE_TEST_SUITE_P(
    Replies, Templates,
    ::testing::Values(
        TemplateCase{"FetchedOnceThenCached", 200,
                     R"({"ret":0,"data":[3,"x",{"_id":"t1","v":1}]})", R"({"_id":"t1","v":1})", 1},
        TemplateCase{"StillMissingAfterTheFetch", 200, R"({"ret":0,"data":[{"_id":"t9"}]})",
                     "null", 2},
        TemplateCase{"DataNotAnArray", 200, R"({"ret":0,"data":{"_id":"t1"}})", "null", 2},
        // The messages are acknowledged by then: they go out without their template.
        TemplateCase{"FetchFails", 500, R"({"ret":0,"data":[{"_id":"t1"}]})", "null", 2},
        TemplateCase{"ReplyNotJson", 200, R"({"ret":0,"data":[{"_id":)", "null", 2}),
    [](const ::testing::TestParamInfo<TemplateCase>& info) { return std::string(info.param.name); });

// ---- configuration and interval ---------------------------------------------------

struct ConfigCase {
  const char* name;
  int status;
  const char* body;
  int result;
  int32_t interval, limit;  // the worker's after the call (0: never set)
};

class PollingConfig : public Rounds, public ::testing::WithParamInterface<ConfigCase> {};

TEST_P(PollingConfig, SetsTheWorkerFromTheServiceConfiguration) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  const ConfigCase& c = GetParam();
  Start(emu);
  ReplyRaw("GET", kConfigPath, c.status, c.body);
  EXPECT_EQ(server_->Internet_SetPollingConfig("tok", 7), c.result);
  EXPECT_EQ(worker().m_nPollInterval, c.interval);
  EXPECT_EQ(worker().m_nMaxNoResult, c.limit);
  const auto asked = emu->RequestsTo(kConfigPath);
  ASSERT_EQ(asked.size(), 1u);
  EXPECT_EQ(asked[0].query, "appType=7&access-token=tok");
}

INSTANTIATE_TEST_SUITE_P(
    Replies, PollingConfig,
    ::testing::Values(
        ConfigCase{"Taken", 200,
                   R"({"ret":0,"data":[{"minimumPollingTime":20,"maxPollingNotResultCount":10}]})",
                   0, 20, 10},
        ConfigCase{"MinimumNotAboveZeroKeepsTheDefault", 200,
                   R"({"ret":0,"data":[{"minimumPollingTime":0,"maxPollingNotResultCount":-3}]})",
                   0, 15, -3},
        ConfigCase{"MemberMissingChangesNothing", 200, R"({"ret":0,"data":[{"minimumPollingTime":20}]})",
                   0, 15, 250},
        ConfigCase{"NoConfiguration", 200, R"({"ret":0,"data":[]})", -2, 0, 0},
        ConfigCase{"NotANumber", 200,
                   R"({"ret":0,"data":[{"minimumPollingTime":"x","maxPollingNotResultCount":1}]})",
                   -2, 0, 0},
        ConfigCase{"ServiceFails", 500, "{}", -2, 0, 0}),
    [](const ::testing::TestParamInfo<ConfigCase>& info) { return std::string(info.param.name); });

TEST_F(Rounds, TheServersIntervalWinsUntilItSendsZero) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  Start(emu);
  auto config = [&](int minimum) {
    ReplyRaw("GET", kConfigPath, 200,
             R"({"ret":0,"data":[{"minimumPollingTime":)" + std::to_string(minimum) +
                 R"(,"maxPollingNotResultCount":250}]})");
    return server_->Internet_SetPollingConfig("tok", 0);
  };
  StartPolling(clock_);
  ASSERT_EQ(config(20), 0);
  EXPECT_EQ(worker().m_nPollInterval, 20);

  Reply(R"([{"nextPollingTime":60}])");
  Round(clock_);
  EXPECT_EQ(worker().m_nPollInterval, 60);
  ASSERT_EQ(config(25), 0);
  EXPECT_EQ(worker().m_nPollInterval, 60) << "the configuration does not override the server";
  // The next round comes after the server's interval, not before.
  ASSERT_TRUE(clock_.RunPasses(599));
  EXPECT_EQ(emu->RequestsTo(kPollPath).size(), 1u);
  Reply(R"([{"nextPollingTime":-5},{"nextPollingTime":0}])");
  ASSERT_TRUE(clock_.RunPasses(1));
  EXPECT_EQ(emu->RequestsTo(kPollPath).size(), 2u);
  EXPECT_EQ(worker().m_nPollInterval, 25) << "0 restores the configured minimum";
  EXPECT_EQ(worker().m_bServerInterval, 0);

  // A restart takes the minimum but keeps the server's claim, until it sends 0 again.
  Reply(R"([{"nextPollingTime":30}])");
  Round(clock_);
  ASSERT_EQ(server_->StopPolling(), 0);
  worker().SetClock(&restartClock_);
  ASSERT_EQ(server_->StartPolling(), 0);
  EXPECT_EQ(worker().m_nPollInterval, 25);
  ASSERT_EQ(config(40), 0);
  EXPECT_EQ(worker().m_nPollInterval, 25);
  EXPECT_EQ(worker().m_bServerInterval, 1);
  EXPECT_TRUE(host_.messages.empty());
}

// ---- a stop while the service holds the round ---------------------------------------

enum class StopBy { kStopPolling, kStopThread, kDestroy };

class StopHeldRound : public Rounds, public ::testing::WithParamInterface<StopBy> {};

TEST_P(StopHeldRound, EndsItPromptlyWithoutACallback) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  Start(emu);
  ASSERT_NE(emu->FaultOnce("POST", kPollPath, "stall_before_headers"), 0u);
  StartPolling(clock_);
  clock_.Grant(150);
  ASSERT_TRUE(emu->WaitForStalls(1));

  tpcsdk::CPullMsgThread* const polling = &worker();  // alive until the stop is over
  testkit::Signal stopped;
  std::thread stopper([&] {
    switch (GetParam()) {
      case StopBy::kStopPolling:
        EXPECT_EQ(server_->StopPolling(), 0);
        break;
      case StopBy::kStopThread:
        EXPECT_EQ(server_->stopThread(), 0);
        break;
      case StopBy::kDestroy:
        server_.reset();
        break;
    }
    stopped.Set();
  });
#ifdef _WIN32
  // The platform's HTTP client here ends a closed request that waits for its reply
  // only when the reply comes: the service lets go once the stop has begun.
  EXPECT_TRUE(testkit::WaitUntil([&] { return polling->IsRunning() == 0; }, testkit::kBound));
  emu->Release();
#else
  (void)polling;
#endif
  const bool prompt = stopped.WaitFor(testkit::kBound);
  if (!prompt) emu->Release();  // let the stop finish so the test can end
  stopper.join();
  EXPECT_TRUE(prompt) << "the stop waited for the service";
  emu->Release();
  EXPECT_TRUE(host_.messages.empty());
  EXPECT_TRUE(host_.errors.empty()) << "a round that a stop ended is not reported";
  if (!server_) return;

  // Started again, the worker's rounds go ahead.
  Reply(R"([{"parameter":{"type":110,"token":"tok"},"data":{"count":1}}])");
  StartPolling(restartClock_);
  Round(restartClock_);
  EXPECT_EQ(host_.Texts(), std::vector<std::string>{"{\"count\":1,\"untreatedNotify\":null}\n"});
}

INSTANTIATE_TEST_SUITE_P(Ways, StopHeldRound,
                         ::testing::Values(StopBy::kStopPolling, StopBy::kStopThread,
                                           StopBy::kDestroy),
                         [](const ::testing::TestParamInfo<StopBy>& info) {
                           return std::string(info.param == StopBy::kStopPolling ? "StopPolling"
                                              : info.param == StopBy::kStopThread ? "stopThread"
                                                                                  : "Destroy");
                         });

}  // namespace
