// The message model seen over plain HTTP: what a round answers for each kind
// of parameter, that a message is answered until it is acknowledged and never
// after, the control elements, templates, configuration and the latest-version
// look-up, and that faults and scripts still come first.
#include <gtest/gtest.h>
#include <json/json.h>

#include <string>
#include <vector>

#include "fixture.h"
#include "kit/emulator_client.h"

namespace {

using emulator_test::Compact;
using emulator_test::Parse;

const char kPoll[] = "/tdocapi/v1/messages/polling";
const char kAck[] = "/tdocapi/v1/messages?access-token=T1";

class MessagesTest : public emulator_test::EmulatorFixture {
 protected:
  void SetUp() override {
    EmulatorFixture::SetUp();
    if (HasFatalFailure()) return;
    ASSERT_TRUE(emu_->SeedUser("u1", "T1", "ann@x.test"));
    ASSERT_TRUE(emu_->SeedUser("u2", "T2", "bob@x.test"));
    ASSERT_TRUE(emu_->Seed("documents", Parse(R"({"cDocID":"D1"})")));
    ASSERT_TRUE(emu_->Seed("documents", Parse(R"({"cDocID":"D2"})")));
    ASSERT_TRUE(emu_->Seed("versions", Parse(R"({"versions":[{"cVersionID":"V1","cDocID":"D1"},
        {"cVersionID":"V2","cDocID":"D1"},{"cVersionID":"X","cDocID":"D2"},
        {"cVersionID":"V3","cDocID":"D1"}]})")));
  }
  // One round with these parameters (a JSON array text); its `data`.
  Json::Value Poll(const std::string& parameters) {
    Json::Value reply = Call("POST", kPoll, R"({"parameterList":)" + parameters + "}");
    EXPECT_EQ(reply["ret"], 0) << Compact(reply);
    EXPECT_EQ(reply["returned"].asUInt(), reply["data"].size()) << Compact(reply);
    return reply["data"];
  }
  int Ack(const std::string& id, int msg_type, const std::string& target = kAck) {
    Json::Value body(Json::objectValue);
    body["id"] = id;
    body["msgType"] = msg_type;
    body["isDelivery"] = 1;
    return Call("PUT", target, Compact(body))["ret"].asInt();
  }
  Json::Value Inbox() { return emu_->Inspect("inbox")["messages"]; }
};

// ---- what each path answers ------------------------------------------------

struct PathCase {
  const char* name;
  const char* method;
  const char* target;
  const char* body;
  int ret;
  const char* member;  // a member of `data` to look at, "" for `data` itself
  const char* value;   // its expected value as compact JSON; "" to skip
};

class MessagePath : public MessagesTest, public ::testing::WithParamInterface<PathCase> {};

TEST_P(MessagePath, Answers) {
  const PathCase& c = GetParam();
  int status = 0;
  Json::Value reply = Call(c.method, c.target, c.body, &status);
  EXPECT_EQ(status, 200);
  ASSERT_TRUE(reply.isObject() && reply.isMember("data")) << Compact(reply);
  EXPECT_EQ(reply["ret"], c.ret) << Compact(reply);
  EXPECT_TRUE(reply["message"].isString() && reply["returned"].isInt()) << Compact(reply);
  if (*c.value != '\0') {
    EXPECT_EQ(Compact(emulator_test::At(reply["data"], c.member)), c.value) << Compact(reply);
  }
}

std::string PollBody(const char* parameters) {
  return std::string(R"({"parameterList":[)") + parameters + "]}";
}

// Kept alive for the cases' pointers.
const std::string kBodies[] = {
    PollBody(R"("T1")"),
    PollBody(R"({"type":111,"token":"T1"})"),
    PollBody(R"({"type":109,"token":"T1"})"),
    PollBody(R"({"type":"102","token":"T1"})"),
    PollBody(R"({"type":106,"token":"T1","reviewSessionID":"r"})"),
    PollBody(R"({"type":101,"token":"T1","cDocID":"D1","cVersionID":"V1","cLocalVersionId":"V1"})"),
    PollBody(R"({"type":101,"token":"T1","cDocID":"D1","cVersionID":"V3","cLocalVersionId":"V1"})"),
    PollBody(R"({"type":101,"token":"T1","cDocID":"D1","cVersionID":"V9","cLocalVersionId":"V1"})"),
    PollBody(R"({"type":101,"token":"T1","cVersionID":"V1"})"),
    PollBody(R"({"type":110,"token":"T1"})"),
    PollBody(R"({"type":102,"token":"T1"},{"type":104,"token":"T2"})"),
};

INSTANTIATE_TEST_SUITE_P(
    Rounds, MessagePath,
    ::testing::Values(
        PathCase{"NotJson", "POST", kPoll, "{", 110001, "", "[]"},
        PathCase{"NoList", "POST", kPoll, R"({"parameterList":{}})", 110001, "", ""},
        PathCase{"EmptyList", "POST", kPoll, R"({"parameterList":[]})", 0, "", "[]"},
        PathCase{"ParameterNotObject", "POST", kPoll, kBodies[0].c_str(), 0, "0.messageCode",
                 "110001"},
        PathCase{"TypeOutOfRange", "POST", kPoll, kBodies[1].c_str(), 0, "0.messageCode",
                 "110001"},
        PathCase{"AppTypeWithoutApp", "POST", kPoll, kBodies[2].c_str(), 0, "0.messageCode",
                 "110001"},
        PathCase{"TypeAsText", "POST", kPoll, kBodies[3].c_str(), 0, "0.messageCode", "110001"},
        PathCase{"TypeNotPolled", "POST", kPoll, kBodies[4].c_str(), 0, "0.data", "[]"},
        PathCase{"LaterVersionsNewestFirst", "POST", kPoll, kBodies[5].c_str(), 0, "0.data",
                 R"([{"cDocID":"D1","cVersionID":"V3"},{"cDocID":"D1","cVersionID":"V2"}])"},
        PathCase{"LatestVersionKnown", "POST", kPoll, kBodies[6].c_str(), 0, "0.data", "[]"},
        PathCase{"VersionOfNoDocument", "POST", kPoll, kBodies[7].c_str(), 0, "0.data", "[]"},
        PathCase{"UpdateWithoutDocument", "POST", kPoll, kBodies[8].c_str(), 0,
                 "0.messageCode", "110001"},
        PathCase{"NothingUntreated", "POST", kPoll, kBodies[9].c_str(), 0, "0.data", "{}"},
        PathCase{"OneElementPerParameter", "POST", kPoll, kBodies[10].c_str(), 0,
                 "1.parameter.token", R"("T2")"},
        PathCase{"PollByGet", "GET", kPoll, "", 405, "", ""}),
    [](const auto& info) { return std::string(info.param.name); });

INSTANTIATE_TEST_SUITE_P(
    Lookups, MessagePath,
    ::testing::Values(
        PathCase{"Latest", "GET",
                 "/tdocapi/v1/documents/version-notification?access-token=T1&cDocID=D1&cVersionID=V1&latest=1",
                 "", 0, "", R"([{"cDocID":"D1","cVersionID":"V3"}])"},
        PathCase{"LatestIsGiven", "GET",
                 "/tdocapi/v1/documents/version-notification?access-token=T1&cDocID=D1&cVersionID=V3&latest=1",
                 "", 0, "", "[]"},
        PathCase{"AllLater", "GET",
                 "/tdocapi/v1/documents/version-notification?access-token=T1&cDocID=D1&cVersionID=V1",
                 "", 0, "1.cVersionID", R"("V2")"},
        PathCase{"LatestUnknownDocument", "GET",
                 "/tdocapi/v1/documents/version-notification?access-token=T1&cDocID=D9&cVersionID=V1&latest=1",
                 "", 110002, "", ""},
        PathCase{"LatestWithoutDocument", "GET",
                 "/tdocapi/v1/documents/version-notification?access-token=T1&cVersionID=V1", "",
                 110001, "", ""},
        PathCase{"LatestBadToken", "GET",
                 "/tdocapi/v1/documents/version-notification?access-token=${access-token}&cDocID=D1",
                 "", 210007, "", ""},
        PathCase{"AllTemplates", "GET", "/tdocapi/v1/messages/templates?access-token=T1", "", 0,
                 "3._id", R"("tpl-share-view")"},
        PathCase{"OneTemplate", "GET",
                 "/tdocapi/v1/messages/templates?access-token=T1&id=tpl-homepage", "", 0,
                 "0.title", R"("News")"},
        PathCase{"NoSuchTemplate", "GET", "/tdocapi/v1/messages/templates?access-token=T1&id=q",
                 "", 0, "", "[]"},
        PathCase{"TemplatesBadToken", "GET", "/tdocapi/v1/messages/templates?access-token=zz", "",
                 210007, "", ""},
        PathCase{"Config", "GET", "/tdocapi/v1/messages/polling-config?appType=0", "", 0, "",
                 R"([{"maxPollingNotResultCount":250,"minimumPollingTime":15}])"},
        PathCase{"ConfigBadToken", "GET",
                 "/tdocapi/v1/messages/polling-config?appType=0&access-token=zz", "", 210007, "",
                 ""}),
    [](const auto& info) { return std::string(info.param.name); });

INSTANTIATE_TEST_SUITE_P(
    Acknowledgements, MessagePath,
    ::testing::Values(
        PathCase{"BadToken", "PUT", "/tdocapi/v1/messages?access-token=${access-token}",
                 R"({"id":"m1","msgType":1,"isDelivery":1})", 210007, "", ""},
        PathCase{"NotJson", "PUT", kAck, "x", 110001, "", ""},
        PathCase{"NoId", "PUT", kAck, R"({"msgType":1,"isDelivery":1})", 110001, "", ""},
        PathCase{"TypeAsText", "PUT", kAck, R"({"id":"m1","msgType":"1"})", 110001, "", ""},
        PathCase{"UnknownMsgType", "PUT", kAck, R"({"id":"m1","msgType":6})", 110001, "", ""},
        PathCase{"UnknownId", "PUT", kAck, R"({"id":"m1","msgType":1,"isDelivery":1})", 130001,
                 "", ""},
        PathCase{"ByPost", "POST", kAck, R"({"id":"m1","msgType":1})", 405, "", ""}),
    [](const auto& info) { return std::string(info.param.name); });

// ---- the life of a message ---------------------------------------------------

// Type 103 stands for all: the client never polls it, so only this test sees it
// round-trip; the other types' acknowledgements run through the client against this
// model in EachTypeFromTheService.
TEST_F(MessagesTest, AnsweredUntilAcknowledgedThenNeverAgain) {
  const int msg_type = 2;
  Json::Value posted = emu_->QueueMessage("T1", 103, Parse(R"({"messageTemplateId":"tpl-share",
      "text":"Grüße"})"), Parse(R"({"cAppID":"A"})"));
  ASSERT_TRUE(posted.isObject()) << emu_->last_error();
  const std::string id = posted["message"]["_id"].asString();
  ASSERT_FALSE(id.empty());
  EXPECT_EQ(Compact(posted["message"]),
            R"({"_id":")" + id + R"(","messageTemplateId":"tpl-share","text":"Grüße"})");

  const std::string mine = R"({"type":103,"token":"T1","cAppID":"A"})";
  const std::string others = R"({"type":103,"token":"T2","cAppID":"A"})";
  for (int round = 0; round < 2; ++round) {
    Json::Value data = Poll("[" + others + "," + mine + "]");
    EXPECT_EQ(data[0]["data"].size(), 0u);  // another token's round
    ASSERT_EQ(data[1]["data"].size(), 1u) << Compact(data);
    EXPECT_EQ(data[1]["data"][0], posted["message"]);
    EXPECT_EQ(data[1]["messageCode"], 0);
  }
  EXPECT_FALSE(emu_->WaitForMessages(1, "acknowledged", "", 0));
  // The wrong type, or another token, acknowledges nothing.
  EXPECT_EQ(Ack(id, 1), 130001);
  EXPECT_EQ(Ack(id, msg_type, "/tdocapi/v1/messages?access-token=T2"), 130001);
  EXPECT_EQ(Ack(id, msg_type), 0);
  EXPECT_TRUE(emu_->WaitForMessages(1, "acknowledged", "T1", 1000));
  EXPECT_EQ(Poll("[" + mine + "]")[0]["data"].size(), 0u);
  EXPECT_EQ(Ack(id, msg_type), 0);  // again: accepted, and counted

  Json::Value inbox = emu_->Inspect("inbox");
  ASSERT_EQ(inbox["messages"].size(), 1u);
  Json::Value record = inbox["messages"][0];
  EXPECT_EQ(record["deliveries"], 2);
  EXPECT_EQ(record["acks"], 2);
  EXPECT_EQ(record["acknowledged"], true);
  EXPECT_EQ(record["pending"], false);
  EXPECT_LT(record["firstRound"].asUInt64(), record["firstAck"].asUInt64());
  ASSERT_EQ(inbox["acks"].size(), 4u);
  EXPECT_EQ(inbox["acks"][0]["ret"], 130001);
  EXPECT_EQ(Parse(inbox["acks"][2]["body"].asString())["isDelivery"], 1);
}

TEST_F(MessagesTest, AppMessagesGoOnlyToTheirApplication) {
  ASSERT_TRUE(emu_->QueueMessage("T1", 109, Parse(R"({"_id":"s1"})"), Parse(R"({"cAppID":"A"})"))
                  .isObject());
  ASSERT_TRUE(emu_->QueueMessage("T1", 109, Parse(R"({"_id":"s2"})")).isObject());  // any app
  Json::Value data = Poll(R"([{"type":109,"token":"T1","cAppID":"B"},
                              {"type":109,"token":"T1","cAppID":"A"}])");
  EXPECT_EQ(Compact(data[0]["data"]), R"([{"_id":"s2"}])");
  EXPECT_EQ(Compact(data[1]["data"]), R"([{"_id":"s1"},{"_id":"s2"}])");
  // 103 is a queue of its own.
  EXPECT_EQ(Poll(R"([{"type":103,"token":"T1","cAppID":"A"}])")[0]["data"].size(), 0u);
}

TEST_F(MessagesTest, UnacknowledgedTypesAreAnsweredOnce) {
  ASSERT_TRUE(emu_->QueueMessage("T1", 110, Parse(R"({"untreatedNotify":2})")).isObject());
  ASSERT_TRUE(emu_->QueueMessage("T1", 110, Parse(R"({"untreatedNotify":3})")).isObject());
  ASSERT_TRUE(emu_->QueueMessage("T1", 101, Parse(R"({"cVersionID":"P1"})"),
                                Parse(R"({"cDocID":"D2"})"))
                  .isObject());
  const char kRound[] = R"([{"type":110,"token":"T1"},
      {"type":101,"token":"T1","cDocID":"D1","cVersionID":"V3","cLocalVersionId":"V3"},
      {"type":101,"token":"T1","cDocID":"D2","cVersionID":"X","cLocalVersionId":"X"}])";
  Json::Value data = Poll(kRound);
  EXPECT_EQ(Compact(data[0]["data"]), R"({"untreatedNotify":3})");  // the latest count
  EXPECT_EQ(data[1]["data"].size(), 0u);  // another document's update
  EXPECT_EQ(Compact(data[2]["data"]), R"([{"cVersionID":"P1"}])");
  EXPECT_TRUE(emu_->WaitForMessages(3, "delivered", "T1", 1000));
  data = Poll(kRound);
  EXPECT_EQ(Compact(data[0]["data"]), "{}");
  EXPECT_EQ(data[2]["data"].size(), 0u);
  // Nothing to acknowledge them with.
  EXPECT_EQ(Inbox()[0]["acknowledged"], false);
}

TEST_F(MessagesTest, ControlElementsGoIntoOneRound) {
  ASSERT_TRUE(emu_->QueueMessage("T1", 102, Parse(R"({"_id":"m1"})")).isObject());
  ASSERT_TRUE(emu_->QueueNextPollingTime(60));
  ASSERT_TRUE(emu_->Seed("polling/elements", Parse(R"({"nextPollingTime":0,
      "elements":[{"parameter":{"type":0,"token":"T1","nextPollingTime":5},"messageCode":7}],
      "first":true})")));
  EXPECT_EQ(emu_->Inspect("polling/elements")["first"].size(), 2u);
  Json::Value data = Poll(R"([{"type":102,"token":"T1"}])");
  ASSERT_EQ(data.size(), 4u) << Compact(data);
  EXPECT_EQ(Compact(data[0]), R"({"nextPollingTime":0})");
  EXPECT_EQ(data[1]["messageCode"], 7);
  EXPECT_EQ(data[2]["data"][0]["_id"], "m1");
  EXPECT_EQ(Compact(data[3]), R"({"nextPollingTime":60})");
  EXPECT_EQ(Poll(R"([{"type":102,"token":"T1"}])").size(), 1u);
}

TEST_F(MessagesTest, BadControlCallsAreRefusedAndChangeNothing) {
  for (const char* bad : {
           R"({"type":102})",                                        // no token
           R"({"token":"T1","type":106})",                           // not a posted type
           R"({"token":"T1","type":"102"})",
           R"({"token":"T1","type":102,"message":[1]})",
           R"({"token":"T1","type":102,"message":{"_id":5}})",
           R"({"token":"T1","type":101,"message":{}})",              // no cDocID
           R"({"token":"T1","type":103,"cAppID":7})",
           R"({"messages":[{"token":"T1","type":102},{"token":"T1"}]})",  // all or nothing
           R"({"messages":[{"token":"T1","type":102,"message":{"_id":"d"}},
                           {"token":"T1","type":104,"message":{"_id":"d"}}]})",
       }) {
    EXPECT_FALSE(emu_->Seed("inbox", Parse(bad))) << bad;
  }
  EXPECT_EQ(Inbox().size(), 0u);
  EXPECT_FALSE(emu_->Seed("polling/elements", Parse(R"({"first":true})")));
  EXPECT_FALSE(emu_->Seed("polling/elements", Parse(R"({"elements":{}})")));
  EXPECT_FALSE(emu_->Seed("templates", Parse(R"({"templates":[{"title":"no id"}]})")));
  EXPECT_FALSE(emu_->Seed("inbox/wait", Parse(R"({"state":"seen"})")));
  EXPECT_EQ(emu_->Inspect("templates")["templates"].size(), 4u);
  // Nesting past the reader's limit is refused, not fatal.
  testkit::HttpResult deep = testkit::HttpExchange(
      emu_->base_url(), "POST", "/_emulator/inbox", std::string(5000, '[') + std::string(5000, ']'));
  EXPECT_EQ(deep.status, 400) << deep.error;
  Json::Value reply = Call("POST", kPoll, std::string(5000, '[') + std::string(5000, ']'));
  EXPECT_EQ(reply["ret"], 110001);
}

TEST_F(MessagesTest, TemplatesAndConfigurationFollowTheControlApiUntilReset) {
  ASSERT_TRUE(emu_->Seed("templates", Parse(R"({"templates":[{"_id":"tpl-homepage","title":"N2"},
      {"_id":"t9","content":"c"}]})")));
  Json::Value data = Call("GET", "/tdocapi/v1/messages/templates?access-token=T1")["data"];
  ASSERT_EQ(data.size(), 5u);
  EXPECT_EQ(Compact(data[2]), R"({"_id":"tpl-homepage","title":"N2"})");
  EXPECT_EQ(data[4]["_id"], "t9");
  ASSERT_TRUE(emu_->Seed("polling/config", Parse(R"({"minimumPollingTime":0,"extra":[]})")));
  EXPECT_EQ(Compact(Call("GET", "/tdocapi/v1/messages/polling-config?appType=3")["data"]),
            R"([{"extra":[],"minimumPollingTime":0}])");
  ASSERT_TRUE(emu_->QueueMessage("T1", 104, Json::Value(Json::objectValue)).isObject());

  ASSERT_TRUE(emu_->Reset());
  EXPECT_EQ(Inbox().size(), 0u);
  EXPECT_EQ(emu_->Inspect("templates")["templates"].size(), 4u);
  EXPECT_EQ(emu_->Inspect("polling/config")["minimumPollingTime"], 15);
}

TEST_F(MessagesTest, FaultsAndScriptsComeBeforeTheModel) {
  ASSERT_TRUE(emu_->QueueMessage("T1", 102, Parse(R"({"_id":"m1"})")).isObject());
  const std::string round = PollBody(R"({"type":102,"token":"T1"})");
  // A script answers instead of the model: nothing is handed out.
  ASSERT_NE(emu_->ScriptJson("POST", kPoll, Parse(R"({"ret":0,"returned":0,"data":[]})"), 200, 1),
            0u);
  EXPECT_EQ(Call("POST", kPoll, round)["returned"], 0);
  EXPECT_EQ(Inbox()[0]["deliveries"], 0);
  // A fault breaks the model's reply on the way out; the message stays
  // pending, so the next round carries it again.
  ASSERT_NE(emu_->FaultOnce("POST", kPoll, "malformed_json"), 0u);
  testkit::HttpResult faulted = testkit::HttpExchange(emu_->base_url(), "POST", kPoll, round);
  EXPECT_EQ(faulted.body.find("m1"), std::string::npos) << faulted.body;
  EXPECT_EQ(Call("POST", kPoll, round)["data"][0]["data"][0]["_id"], "m1");
  EXPECT_EQ(Inbox()[0]["pending"], true);
}

}  // namespace
