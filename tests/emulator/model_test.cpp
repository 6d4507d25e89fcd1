// The service model seen over plain HTTP: what each service path answers for
// a seeded model, what the uploads change, that scripted replies still win,
// and the state file that keeps the model across runs.
#include <gtest/gtest.h>
#include <json/json.h>

#include <filesystem>
#include <memory>

#include "emulator/emulator.h"
#include "fixture.h"
#include "kit/emulator_client.h"
#include "kit/testkit.h"

namespace {

using emulator_test::At;
using emulator_test::Compact;
using emulator_test::Parse;

class ModelTest : public emulator_test::EmulatorFixture {
 protected:
  void SetUp() override {
    EmulatorFixture::SetUp();
    if (HasFatalFailure()) return;
    // Ann has every member and is online; Bob has a last name only, no
    // mobile and no token; D1 is Ann's document with its version V1.
    Json::Value ann = Parse(R"({"cUserID":"u1","token":"T1","userEmail":"ann@x.test",
        "firstname":"Ann","lastname":"Lee","userMobile":"555","cState":1})");
    Json::Value bob = Parse(R"({"cUserID":"u2","userEmail":"bob+1@x.test","lastname":"Bo"})");
    Json::Value users(Json::objectValue);
    users["users"].append(ann);
    users["users"].append(bob);
    ASSERT_TRUE(emu_->Seed("users", users)) << emu_->last_error();
    ASSERT_TRUE(emu_->Seed("documents", Parse(R"({"cDocID":"D1","cAppID":"A","cUserID":"u1",
        "docName":"Plan","connectedNotification":"n1"})")))
        << emu_->last_error();
    ASSERT_TRUE(emu_->Seed("versions", Parse(R"({"cVersionID":"V1","cDocID":"D1",
        "docName":"Plan","docPageCount":3})")))
        << emu_->last_error();
    ASSERT_TRUE(emu_->Seed("messages", Parse(R"({"messages":[{"cAppID":"A","msgId":"m1",
        "title":"hi"},{"cAppID":"A","msgId":"m2"},{"cAppID":"B","msgId":"m3"}]})")))
        << emu_->last_error();
  }
};

// A document or version body with every member the client sends; `change`
// overrides members (a null member is removed).
std::string Body(const char* base, const char* change = "{}") {
  Json::Value b = Parse(base), c = Parse(change);
  for (const auto& name : c.getMemberNames()) {
    if (c[name].isNull())
      b.removeMember(name);
    else
      b[name] = c[name];
  }
  return Compact(b);
}

const char kDoc[] = R"({"cAppID":"A","cDocID":"D2","parentID":"","cUserID":"u1","createTime":"c",
    "docName":"New","modifiedTime":"m","originalAuthor":"","originalFilename":"",
    "connectedNotification":""})";
const char kTdoc[] = R"({"cAppID":"A","cDocID":"D3","parentID":"","cUserID":"","createTime":"c",
    "docName":"T","modifiedTime":"m","originalAuthor":"","originalFilename":"",
    "connectedNotification":"","cVersionID":"V3","parentVersionID":"","docPath":"",
    "docURI":"","docSize":10,"docPageCount":1})";
const char kVersion[] = R"({"cAppID":"A","cDocID":"D1","cVersionID":"V2","parentID":"V1",
    "cUserID":"u2","createTime":"c","docName":"Plan","docPath":"p","docURI":"","docSize":7,
    "docPageCount":2})";
const char kDevice[] = R"({"type":"1","mobileDeviceId":"m1","deviceName":"n","deviceModel":"",
    "mac":"","os":"","productName":"","productVendor":"","productVersion":"",
    "productLanguage":""})";
const char kThird[] = R"({"thirdToken":"X1","appSecret":"s","appName":"tarvoCN","type":1})";

struct ServiceCase {
  const char* name;
  const char* method;
  const char* target;
  std::string body;
  const char* result;  // "ret" or "code": which member tells the outcome
  int expected;
  const char* path;    // a member of the reply to look at ("" for none)
  const char* value;   // its expected value, as compact JSON
};

class ServicePath : public ModelTest, public ::testing::WithParamInterface<ServiceCase> {};

TEST_P(ServicePath, AnswersFromTheModel) {
  const ServiceCase& c = GetParam();
  ASSERT_TRUE(emu_->Seed("third-users", Parse(R"({"thirdToken":"X1","cUserID":"u1",
      "info":{"region":"eu"}})")));
  int status = 0;
  Json::Value reply = Call(c.method, c.target, c.body, &status);
  EXPECT_EQ(status, 200);
  ASSERT_TRUE(reply.isObject());
  EXPECT_EQ(At(reply, c.result), Json::Value(c.expected)) << Compact(reply);
  if (std::string(c.result) == "ret") {
    EXPECT_TRUE(reply["message"].isString() && reply.isMember("data") &&
                reply["returned"].isInt())
        << Compact(reply);
  } else {
    EXPECT_FALSE(reply.isMember("ret"));
  }
  if (*c.path != '\0') {
    EXPECT_EQ(Compact(At(reply, c.path)), c.value) << Compact(reply);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Identity, ServicePath,
    ::testing::Values(
        ServiceCase{"UserById", "GET", "/tdocapi/v1/users?cUserID=u1", "", "ret", 0, "data.0",
                    R"({"cUserID":"u1","firstname":"Ann","lastname":"Lee","token":"T1","userEmail":"ann@x.test","userMobile":"555"})"},
        ServiceCase{"UserWithAbsentMembers", "GET", "/tdocapi/v1/users?cUserID=u2", "", "ret", 0,
                    "data.0", R"({"cUserID":"u2","lastname":"Bo","userEmail":"bob+1@x.test"})"},
        ServiceCase{"IdBeforeToken", "GET", "/tdocapi/v1/users?cUserID=u2&access-token=T1", "",
                    "ret", 0, "data.0.cUserID", R"("u2")"},
        ServiceCase{"UserByEmail", "GET", "/tdocapi/v1/users?userEmail=bob+1@x.test", "", "ret",
                    0, "data.0.cUserID", R"("u2")"},
        ServiceCase{"UnknownId", "GET", "/tdocapi/v1/users?cUserID=nobody", "", "ret", 120001,
                    "data", "[]"},
        ServiceCase{"UnknownToken", "GET", "/tdocapi/v1/users?access-token=zz", "", "ret", 210007,
                    "", ""},
        ServiceCase{"Online", "GET", "/tdocapi/v1/users/online-state?access-token=T1&userEmail=ann@x.test",
                    "", "ret", 0, "data.0.cState", "1"},
        ServiceCase{"Offline", "GET", "/tdocapi/v1/users/online-state?access-token=T1&userEmail=bob+1@x.test",
                    "", "ret", 0, "data.0.cState", "0"},
        ServiceCase{"OnlineUnknownEmail", "GET", "/tdocapi/v1/users/online-state?access-token=T1&userEmail=q",
                    "", "ret", 120001, "", ""},
        ServiceCase{"OnlineBadToken", "GET", "/tdocapi/v1/users/online-state?access-token=%s&userEmail=ann@x.test",
                    "", "ret", 210007, "", ""},
        ServiceCase{"Device", "POST", "/tdocapi/v1/server/client-id", kDevice, "ret", 0,
                    "data.0.deviceName", R"("n")"},
        ServiceCase{"DeviceMemberMissing", "POST", "/tdocapi/v1/server/client-id",
                    Body(kDevice, R"({"mac":null})"), "ret", 110001, "", ""},
        ServiceCase{"TicketDecodesEmail", "GET",
                    "/tdocapi/v1/users/get-cas-ticket?service=S&email=ann%40x.test&appId=A", "",
                    "ret", 0, "data.ticket", R"("ST-1-tdoc-emulator")"},
        ServiceCase{"TicketWithoutEmail", "GET", "/tdocapi/v1/users/get-cas-ticket?service=S",
                    "", "ret", 110001, "", ""},
        ServiceCase{"ThirdUser", "POST", "/tdocapi/v2/users/third-user", kThird, "code", 100000,
                    "data.userEmail", R"("ann@x.test")"},
        ServiceCase{"ThirdUserInfo", "POST", "/tdocapi/v2/users/third-user-info", kThird, "code",
                    100000, "data", R"({"region":"eu","thirdToken":"X1"})"},
        ServiceCase{"ThirdTokenUnknown", "POST", "/tdocapi/v2/users/third-user",
                    Body(kThird, R"({"thirdToken":"nope"})"), "code", 100002, "", ""},
        ServiceCase{"ThirdOtherApp", "POST", "/tdocapi/v2/users/third-user",
                    Body(kThird, R"({"appName":"other"})"), "code", 100003, "", ""},
        ServiceCase{"ThirdTypeAsText", "POST", "/tdocapi/v2/users/third-user",
                    Body(kThird, R"({"type":"1"})"), "code", 100001, "", ""},
        ServiceCase{"Agreement", "GET", "/tdocapi/v2/server/agreement?type=1", "", "code",
                    100000, "data.type", "1"},
        ServiceCase{"AgreementUnknownType", "GET", "/tdocapi/v2/server/agreement?type=7", "",
                    "code", 100002, "", ""},
        ServiceCase{"AgreementTypeNotNumber", "GET", "/tdocapi/v2/server/agreement?type=x", "",
                    "code", 100001, "", ""}),
    [](const auto& info) { return std::string(info.param.name); });

INSTANTIATE_TEST_SUITE_P(
    Documents, ServicePath,
    ::testing::Values(
        ServiceCase{"Register", "POST", "/tdocapi/v1/documents", kDoc, "ret", 0,
                    "data.0.isNotificationDoc", "false"},
        ServiceCase{"RegisterNotification", "POST", "/tdocapi/v1/documents",
                    Body(kDoc, R"({"connectedNotification":"n2"})"), "ret", 0,
                    "data.0.isNotificationDoc", "true"},
        ServiceCase{"RegisterEmptyName", "POST", "/tdocapi/v1/documents",
                    Body(kDoc, R"({"docName":""})"), "ret", 110001, "", ""},
        ServiceCase{"RegisterNumberForText", "POST", "/tdocapi/v1/documents",
                    Body(kDoc, R"({"originalAuthor":5})"), "ret", 110001, "", ""},
        ServiceCase{"RegisterNotJson", "POST", "/tdocapi/v1/documents", "[1]", "ret", 110001,
                    "", ""},
        ServiceCase{"RegisterNestedTooDeep", "POST", "/tdocapi/v1/documents",
                    std::string(5000, '[') + std::string(5000, ']'), "ret", 110001, "", ""},
        ServiceCase{"RegisterUnknownUser", "POST", "/tdocapi/v1/documents",
                    Body(kDoc, R"({"cUserID":"u9"})"), "ret", 110003, "", ""},
        ServiceCase{"RegisterTwice", "POST", "/tdocapi/v1/documents",
                    Body(kDoc, R"({"cDocID":"D1"})"), "ret", 110004, "", ""},
        ServiceCase{"RegisterUnknownParent", "POST", "/tdocapi/v1/documents",
                    Body(kDoc, R"({"parentID":"D9"})"), "ret", 110005, "", ""},
        ServiceCase{"Fetch", "GET", "/tdocapi/v1/documents?cDocID=D1", "", "ret", 0, "data.0",
                    R"({"cAppID":"A","cDocID":"D1","cUserID":"u1","connectedNotification":"n1","docName":"Plan","isNotificationDoc":true})"},
        ServiceCase{"FetchWithoutId", "GET", "/tdocapi/v1/documents", "", "ret", 110001, "", ""},
        ServiceCase{"Tdoc", "POST", "/tdocapi/v1/documents/tdoc?access-token=T1", kTdoc, "ret", 0,
                    "data.0.document.cUserID", R"("u1")"},
        ServiceCase{"TdocBadToken", "POST", "/tdocapi/v1/documents/tdoc?access-token=zz", kTdoc,
                    "ret", 210007, "", ""},
        ServiceCase{"TdocNoPages", "POST", "/tdocapi/v1/documents/tdoc?access-token=T1",
                    Body(kTdoc, R"({"docPageCount":0})"), "ret", 110001, "", ""},
        ServiceCase{"TdocVersionTaken", "POST", "/tdocapi/v1/documents/tdoc?access-token=T1",
                    Body(kTdoc, R"({"cVersionID":"V1"})"), "ret", 110004, "", ""},
        ServiceCase{"TdocUnknownParent", "POST", "/tdocapi/v1/documents/tdoc?access-token=T1",
                    Body(kTdoc, R"({"parentID":"D9"})"), "ret", 110005, "", ""},
        ServiceCase{"Version", "POST", "/tdocapi/v1/documents/versions?access-token=${access-token}",
                    kVersion, "ret", 0, "data.0.docSize", "7"},
        ServiceCase{"VersionMissingId", "POST", "/tdocapi/v1/documents/versions",
                    Body(kVersion, R"({"cVersionID":null})"), "ret", 110001, "", ""},
        ServiceCase{"VersionUnknownDocument", "POST", "/tdocapi/v1/documents/versions",
                    Body(kVersion, R"({"cDocID":"D9"})"), "ret", 110002, "", ""},
        ServiceCase{"VersionUnknownUser", "POST", "/tdocapi/v1/documents/versions",
                    Body(kVersion, R"({"cUserID":"u9"})"), "ret", 110003, "", ""},
        ServiceCase{"VersionTwice", "POST", "/tdocapi/v1/documents/versions",
                    Body(kVersion, R"({"cVersionID":"V1"})"), "ret", 110013, "", ""},
        ServiceCase{"Modify", "PUT", "/tdocapi/v1/documents/versions?access-token=T1",
                    R"({"cVersionID":"V1","docName":"Plan 2","extra":[1]})", "ret", 0, "data.0",
                    R"({"cDocID":"D1","cVersionID":"V1","docName":"Plan 2","docPageCount":3,"extra":[1]})"},
        ServiceCase{"ModifyUnknown", "PUT", "/tdocapi/v1/documents/versions?access-token=T1",
                    R"({"cVersionID":"V9"})", "ret", 110008, "", ""},
        ServiceCase{"ModifyBadToken", "PUT", "/tdocapi/v1/documents/versions?access-token=${access-token}",
                    R"({"cVersionID":"V1"})", "ret", 210007, "", ""},
        ServiceCase{"DeleteUnknown", "DELETE", "/tdocapi/v1/documents/versions?access-token=T1",
                    R"({"cVersionID":"V9"})", "ret", 110008, "", ""},
        ServiceCase{"WrongMethod", "GET", "/tdocapi/v1/documents/versions", "", "ret", 405, "",
                    ""}),
    [](const auto& info) { return std::string(info.param.name); });

const char kUsage[] = R"({"cAppID":"A","cDocID":"D1","cVersionID":"V1","cUserID":"u2",
    "startTime":"s","operatorType":"view","operator":"open","operands":{"page":2},"docName":"Plan",
    "docPath":"","docURI":"","reviewSessionID":"","isCreview":2})";

INSTANTIATE_TEST_SUITE_P(
    Services, ServicePath,
    ::testing::Values(
        ServiceCase{"Usage", "POST", "/tdocapi/v1/documents/logs", kUsage, "ret", 0,
                    "data.0.logId", R"("log-1")"},
        ServiceCase{"UsageOperandsEmptyText", "POST", "/tdocapi/v1/documents/logs",
                    Body(kUsage, R"({"operands":""})"), "ret", 0, "", ""},
        ServiceCase{"UsageOperandsArray", "POST", "/tdocapi/v1/documents/logs",
                    Body(kUsage, R"({"operands":[1]})"), "ret", 110001, "", ""},
        ServiceCase{"UsageReviewFlagAsBool", "POST", "/tdocapi/v1/documents/logs",
                    Body(kUsage, R"({"isCreview":true})"), "ret", 110001, "", ""},
        ServiceCase{"UsageUnknownDocument", "POST", "/tdocapi/v1/documents/logs",
                    Body(kUsage, R"({"cDocID":"D9"})"), "ret", 110002, "", ""},
        ServiceCase{"UsageUnknownUser", "POST", "/tdocapi/v1/documents/logs",
                    Body(kUsage, R"({"cUserID":"u9"})"), "ret", 110003, "", ""},
        ServiceCase{"UsageUnknownVersion", "POST", "/tdocapi/v1/documents/logs",
                    Body(kUsage, R"({"cVersionID":"V9"})"), "ret", 110008, "", ""},
        ServiceCase{"OwnerMail", "POST", "/tdocapi/v1/server/send-email?access-token=T1",
                    R"({"cVersionID":"V1","cOwnerEmail":"ann@x.test"})", "ret", 0, "data", "[]"},
        ServiceCase{"OwnerMailBadToken", "POST", "/tdocapi/v1/server/send-email",
                    R"({"cVersionID":"V1","cOwnerEmail":"a"})", "ret", 210007, "", ""},
        ServiceCase{"Notification", "POST", "/tdocapi/v1/notifications/email?access-token=T1",
                    R"({"subject":"s","content":"c","fromEmail":"f","toEmail":"t"})", "ret", 0,
                    "", ""},
        ServiceCase{"ImageBadToken", "POST", "/tdocapi/v1/users/sign-image?access-token=T2",
                    R"({"imageType":"png","content":"x"})", "ret", 210007, "", ""},
        ServiceCase{"OpenMessage", "GET", "/tdocapi/v1/messages/open-message?cAppID=A&msgId=m1",
                    "", "ret", 0, "data", R"([{"cAppID":"A","msgId":"m1","title":"hi"}])"},
        ServiceCase{"OpenMessagesOfApp", "GET", "/tdocapi/v1/messages/open-message?cAppID=A&msgId=",
                    "", "ret", 0, "returned", "2"},
        ServiceCase{"OpenMessageOfOtherApp", "GET", "/tdocapi/v1/messages/open-message?cAppID=A&msgId=m3",
                    "", "ret", 130001, "", ""},
        ServiceCase{"OpenMessageNoApp", "GET", "/tdocapi/v1/messages/open-message?msgId=m1", "",
                    "ret", 110001, "", ""},
        ServiceCase{"OptionConfig", "GET", "/tdocapi/v1/server/option-config", "", "ret", 0,
                    "data", "{}"},
        ServiceCase{"TimeByPost", "POST", "/tdocapi/v1/server/time", "{}", "ret", 405, "", ""}),
    [](const auto& info) { return std::string(info.param.name); });

// What the uploads leave in the model, as the control API shows it.
TEST_F(ModelTest, UploadsChangeWhatTheControlApiShows) {
  ASSERT_EQ(Call("POST", "/tdocapi/v1/documents/tdoc?access-token=T1", kTdoc)["ret"], 0);
  ASSERT_EQ(Call("POST", "/tdocapi/v1/documents/versions", kVersion)["ret"], 0);
  ASSERT_EQ(Call("DELETE", "/tdocapi/v1/documents/versions?access-token=T1",
                 R"({"cVersionID":"V1"})")["ret"],
            0);
  Json::Value versions = emu_->Inspect("versions")["versions"];
  std::vector<std::string> ids;
  for (const auto& v : versions) ids.push_back(v["cVersionID"].asString());
  EXPECT_EQ(ids, (std::vector<std::string>{"V3", "V2"}));
  EXPECT_EQ(versions[0]["parentID"], "");  // a tdoc's version takes parentVersionID
  EXPECT_EQ(emu_->Inspect("documents")["documents"].size(), 2u);
  // The registered document answers its query.
  EXPECT_EQ(Call("GET", "/tdocapi/v1/documents?cDocID=D3")["data"][0]["docName"], "T");

  // A device that registers again keeps its client id; another gets a new one.
  Json::Value first = Call("POST", "/tdocapi/v1/server/client-id", kDevice)["data"][0];
  Json::Value again = Call("POST", "/tdocapi/v1/server/client-id",
                           Body(kDevice, R"({"deviceName":"renamed"})"))["data"][0];
  Json::Value other = Call("POST", "/tdocapi/v1/server/client-id",
                           Body(kDevice, R"({"mobileDeviceId":"m2"})"))["data"][0];
  EXPECT_EQ(again["clientId"], first["clientId"]);
  EXPECT_NE(other["clientId"], first["clientId"]);
  Json::Value devices = emu_->Inspect("devices")["devices"];
  ASSERT_EQ(devices.size(), 2u);
  EXPECT_EQ(devices[0]["deviceName"], "renamed");
}

TEST_F(ModelTest, UsageMailsAndImagesAreKeptAndListed) {
  ASSERT_EQ(Call("POST", "/tdocapi/v1/documents/logs", kUsage)["ret"], 0);
  ASSERT_EQ(Call("POST", "/tdocapi/v1/documents/logs", Body(kUsage, R"({"cUserID":""})"))["ret"], 0);
  Json::Value usage = emu_->Inspect("usage")["usage"];
  ASSERT_EQ(usage.size(), 2u);
  EXPECT_EQ(Compact(usage[0]["operands"]), R"({"page":2})");
  EXPECT_EQ(usage[0]["isCreview"], 2);
  EXPECT_EQ(usage[1]["cUserID"], "");

  ASSERT_EQ(Call("POST", "/tdocapi/v1/server/send-email?access-token=T1",
                 R"({"cVersionID":"V1","cOwnerEmail":"ann@x.test"})")["ret"],
            0);
  ASSERT_EQ(Call("POST", "/tdocapi/v1/notifications/email?access-token=T1",
                 R"({"subject":"Grüße","content":"c","fromEmail":"f","toEmail":"t"})")["ret"],
            0);
  Json::Value mails = emu_->Inspect("mails")["mails"];
  ASSERT_EQ(mails.size(), 2u);
  EXPECT_EQ(mails[0]["kind"], "version");
  EXPECT_EQ(mails[0]["cOwnerEmail"], "ann@x.test");
  EXPECT_EQ(mails[1]["kind"], "notification");
  EXPECT_EQ(mails[1]["subject"], "Grüße");
  EXPECT_EQ(mails[1]["token"], "T1");

  // The image's text comes back at the address the upload answers with.
  Json::Value r = Call("POST", "/tdocapi/v1/users/sign-image?access-token=T1",
                       R"({"imageType":"png","content":"iVBORw0KGgo="})");
  ASSERT_TRUE(r["data"].isString()) << Compact(r);
  const std::string url = r["data"].asString();
  ASSERT_EQ(url.compare(0, emu_->base_url().size(), emu_->base_url()), 0) << url;
  testkit::HttpResult image =
      testkit::HttpExchange(emu_->base_url(), "GET", url.substr(emu_->base_url().size()));
  EXPECT_EQ(image.body, "iVBORw0KGgo=");
  EXPECT_EQ(emu_->Inspect("images")["images"][0]["imageType"], "png");
}

TEST_F(ModelTest, ServerFactsAndWrapperSettingsFollowTheControlApi) {
  // The clock by default, in the service's date form.
  std::string now = Call("GET", "/tdocapi/v1/server/time")["data"][0]["time"].asString();
  ASSERT_EQ(now.size(), 19u) << now;
  EXPECT_TRUE(now[4] == '-' && now[10] == ' ' && now[13] == ':') << now;
  ASSERT_TRUE(emu_->Seed("server", Parse(R"({"time":"2030-02-03 04:05:06",
      "optionConfig":{"watermark":true}})")));
  EXPECT_EQ(Call("GET", "/tdocapi/v1/server/time")["data"][0]["time"], "2030-02-03 04:05:06");
  EXPECT_EQ(Compact(Call("GET", "/tdocapi/v1/server/option-config")["data"]),
            R"({"watermark":true})");
  EXPECT_FALSE(emu_->Seed("server", Parse(R"({"time":5})")));

  Json::Value w = Call("GET", "/tdocapi/v1/wrapper/settings?access-token=T1")["data"];
  EXPECT_EQ(w["protectWrapperFilelink"],
            emu_->base_url() + "/files/wrappers/ProtectWrapper.pdf");
  EXPECT_EQ(w["updateTime"], "2026-01-01 00:00:00");
  ASSERT_TRUE(emu_->Seed("wrappers", Parse(R"({"updateTime":"2026-05-06 07:08:09",
      "protectWrapperFilelink":"","requestPermissionFilelink":"{base}/files/redirect/a/b.pdf"})")));
  w = Call("GET", "/tdocapi/v1/wrapper/settings?access-token=T1")["data"];
  EXPECT_EQ(w["protectWrapperFilelink"], "");
  EXPECT_EQ(w["requestPermissionFilelink"], emu_->base_url() + "/files/redirect/a/b.pdf");
  EXPECT_EQ(w["requestPermissionLicenseFilelink"],
            emu_->base_url() + "/files/wrappers/ReqPermWrapper_LicenseCode.pdf");
  EXPECT_EQ(w["updateTime"], "2026-05-06 07:08:09");
  EXPECT_FALSE(emu_->Seed("wrappers", Parse(R"({"updateTime":null})")));
}

TEST_F(ModelTest, TicketsAreSeededAsTextOrObjectAndEveryIssueIsRecorded) {
  Json::Value seed = Parse(R"({"email":"a+b@x.test","ticket":{"st":"ST-seeded"}})");
  ASSERT_TRUE(emu_->Seed("tickets", seed)) << emu_->last_error();
  Json::Value r = Call("GET", "/tdocapi/v1/users/get-cas-ticket?service=http%3A%2F%2Fs%2F"
                              "&email=a%2Bb%40x.test&appId=app");
  EXPECT_EQ(Compact(r["data"]), R"({"ticket":{"st":"ST-seeded"}})");
  Json::Value issued = emu_->Inspect("tickets")["issuedTickets"];
  ASSERT_EQ(issued.size(), 1u);
  EXPECT_EQ(issued[0]["email"], "a+b@x.test");
  EXPECT_EQ(issued[0]["service"], "http://s/");
  EXPECT_EQ(issued[0]["appId"], "app");
}

TEST_F(ModelTest, ScriptsWinOverTheModelAndUnknownQueriesGetTheDefaultEnvelope) {
  Json::Value scripted = Parse(R"({"ret":5,"data":"scripted"})");
  ASSERT_NE(emu_->ScriptJson("GET", "/tdocapi/v1/users", scripted, 200, 1), 0u);
  EXPECT_EQ(Call("GET", "/tdocapi/v1/users?cUserID=u1"), scripted);
  EXPECT_EQ(Call("GET", "/tdocapi/v1/users?cUserID=u1")["data"][0]["cUserID"], "u1");
  EXPECT_EQ(Compact(Call("GET", "/tdocapi/v1/users?email=a")),
            R"({"data":[],"message":"","ret":0,"returned":0})");
}

TEST_F(ModelTest, SecretAndSeedsAreChecked) {
  ASSERT_TRUE(emu_->Seed("third-users", Parse(R"({"appSecret":"8chars!!","thirdToken":"X1",
      "data":{"id":"given"}})")));
  EXPECT_EQ(Call("POST", "/tdocapi/v2/users/third-user", kThird)["code"], 100003);
  Json::Value ok = Call("POST", "/tdocapi/v2/users/third-user",
                        Body(kThird, R"({"appSecret":"8chars!!"})"));
  EXPECT_EQ(Compact(ok), R"({"code":100000,"data":{"id":"given"},"message":"success"})");

  // Bad seeds are refused with a reason, and change nothing.
  for (const char* bad : {R"({"cUserID":5})", R"({"users":{}})",
                          R"({"users":[{"cUserID":"u3"},{"cState":"1"}]})"})
    EXPECT_FALSE(emu_->Seed("users", Parse(bad))) << bad;
  EXPECT_NE(emu_->last_error().find("cState"), std::string::npos) << emu_->last_error();
  EXPECT_FALSE(emu_->Seed("versions", Parse(R"({"cVersionID":"V7","cDocID":"D9"})")));
  EXPECT_FALSE(emu_->Seed("documents", Parse(R"({"cDocID":"D7","isNotificationDoc":"yes"})")));
  EXPECT_EQ(emu_->Inspect("users")["users"].size(), 2u);
  EXPECT_TRUE(emu_->Reset());
  EXPECT_EQ(emu_->Inspect("users")["users"].size(), 0u);
}

// ---- the state file --------------------------------------------------------

class StateFile : public ::testing::Test {
 protected:
  std::unique_ptr<tpcsdk::emulator::Emulator> Start(std::string* error = nullptr) {
    auto e = std::make_unique<tpcsdk::emulator::Emulator>();
    tpcsdk::emulator::Options o;
    o.state_file = file_.string();
    std::string ignored;
    if (!e->Start(o, error != nullptr ? error : &ignored)) return nullptr;
    return e;
  }
  testkit::TempDir dir_;
  std::filesystem::path file_ = dir_ / "model.json";
};

TEST_F(StateFile, KeepsTheModelAcrossRuns) {
  Json::Value before;
  {
    auto e = Start();
    ASSERT_NE(e, nullptr);
    testkit::EmulatorClient c(e->BaseUrl());
    ASSERT_TRUE(c.SeedUser("u1", "T1", "ann@x.test", true));
    ASSERT_TRUE(c.Seed("documents", Parse(R"({"cDocID":"D1"})")));
    ASSERT_EQ(Parse(testkit::HttpExchange(c.base_url(), "POST", "/tdocapi/v1/documents/versions",
                                          Body(kVersion, R"({"cUserID":"u1"})"))
                        .body)["ret"],
              0);
    before = c.Inspect("model");
    ASSERT_EQ(before["versions"].size(), 1u);
  }
  auto e = Start();
  ASSERT_NE(e, nullptr);
  testkit::EmulatorClient c(e->BaseUrl());
  EXPECT_EQ(c.Inspect("model"), before);
  EXPECT_EQ(Parse(testkit::HttpExchange(c.base_url(), "GET", "/tdocapi/v1/users?access-token=T1")
                      .body)["data"][0]["cUserID"],
            "u1");
  EXPECT_FALSE(std::filesystem::exists(file_.string() + ".tmp"));
  // A reset empties the file too.
  ASSERT_TRUE(c.Reset());
  e.reset();
  EXPECT_EQ(Parse(testkit::ReadFile(file_))["users"].size(), 0u);
}

TEST_F(StateFile, ABrokenFileStopsTheStartWithItsReason) {
  struct Case {
    const char* text;
    const char* reason;
  };
  for (const Case& c : {Case{"{\"users\":", "not JSON"}, Case{"[1]", "JSON object"},
                        Case{R"({"users":[{"token":7}]})", "'token' must be a string"},
                        Case{R"({"versions":[{"cVersionID":"V"}]})", "'cDocID'"}}) {
    testkit::WriteFile(file_, c.text);
    std::string error;
    EXPECT_EQ(Start(&error), nullptr) << c.text;
    EXPECT_NE(error.find(c.reason), std::string::npos) << error;
    EXPECT_EQ(testkit::ReadFile(file_), c.text);  // left as it was
  }
}

}  // namespace
