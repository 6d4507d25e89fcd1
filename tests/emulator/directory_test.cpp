// The API directory as the emulator serves it: every key the client asks
// for, pointing back at the emulator with the placeholders the operations
// fill, and the changes tests make to it.
#include <gtest/gtest.h>
#include <json/json.h>

#include <functional>

#include "fixture.h"

namespace {

using emulator_test::Parse;

class DirectoryTest : public emulator_test::EmulatorFixture {
 protected:
  // Fetches the directory; the status and the document text.
  testkit::HttpResult Fetch(const std::string& target = "/2.0.0.0/My App/1.0/en-US/tdocApi.json") {
    return testkit::HttpExchange(emu_->base_url(), "GET", target);
  }
};

int Count(const std::string& s, const std::string& what) {
  int n = 0;
  for (size_t p = s.find(what); p != std::string::npos; p = s.find(what, p + 1)) ++n;
  return n;
}

TEST_F(DirectoryTest, EveryKeyPointsHereWithThePlaceholdersItsOperationFills) {
  // The same document whether the blanks of the application name come raw or escaped.
  for (const char* target : {"/2.0.0.0/My App Name/1.0/en-US/tdocApi.json",
                             "/2.0.0.0/My%20App%20Name/1.0/en-US/tdocApi.json"}) {
    testkit::HttpResult r = Fetch(target);
    ASSERT_EQ(r.status, 200) << r.error;
    Json::Value doc = Parse(r.body);
    const Json::Value& url = doc["url"];
    ASSERT_TRUE(url.isObject());
    EXPECT_EQ(doc["size"].asUInt(), url.size());
    EXPECT_TRUE(doc["twsConfig"].isObject() && !doc["twsConfig"].empty());
    for (const char* key :
         {"tdc_cas_ticket_by_email", "tdc_documents", "tdc_documents_tdoc", "tdc_documents_log",
          "tdc_documents_version_notification", "tdc_documents_versions", "tdc_domain",
          "tdc_email_notification", "tdc_message_url", "tdc_messages",
          "tdc_messages_open_message", "tdc_messages_polling", "tdc_messages_polling_config",
          "tdc_messages_template", "tdc_server_client_id", "tdc_server_option_config",
          "tdc_server_send_email", "tdc_server_time", "tdc_upload_sign", "tdc_users",
          "tdc_users_online_state", "tdc_wrapper_set"}) {
      ASSERT_TRUE(url[key].isString()) << key;
      EXPECT_EQ(url[key].asString().compare(0, emu_->base_url().size(), emu_->base_url()), 0)
          << key;
    }
    // Token filled in place, or by the stored token, or by a format string.
    for (const char* key : {"tdc_documents_versions", "tdc_documents_version_notification",
                            "tdc_messages", "tdc_messages_template"})
      EXPECT_EQ(Count(url[key].asString(), "${access-token}"), 1) << key;
    for (const char* key : {"tdc_documents_tdoc", "tdc_users_online_state", "tdc_wrapper_set"})
      EXPECT_EQ(Count(url[key].asString(), "access-token=%s"), 1) << key;
    EXPECT_EQ(Count(url["tdc_cas_ticket_by_email"].asString(), "%s"), 3);
    EXPECT_EQ(Count(url["tdc_messages_open_message"].asString(), "%s"), 2);
    EXPECT_EQ(Count(url["tdc_email_notification"].asString(), "%s"), 1);
    // Keys to which the operation appends "?..." carry no query of their own.
    for (const char* key : {"tdc_documents", "tdc_users", "tdc_server_send_email",
                            "tdc_upload_sign", "tdc_messages_polling_config"})
      EXPECT_EQ(url[key].asString().find('?'), std::string::npos) << key;
    EXPECT_NE(r.body.find("al=%s&cv=%s&an=%s&av=%s"), std::string::npos);
  }
  auto log = emu_->Requests();
  ASSERT_EQ(log.size(), 2u);
  EXPECT_EQ(log[0].target, "/2.0.0.0/My App Name/1.0/en-US/tdocApi.json");
  EXPECT_EQ(log[1].path, log[0].path);
}

// Changes whose effect only the document shows; the others are driven through the
// client by the wire and operation tests, which fail when a change does not arrive.
struct ChangeCase {
  const char* name;
  const char* change;  // JSON sent to /_emulator/directory
  std::function<void(const std::string& text)> check;
};

class DirectoryChange : public DirectoryTest, public ::testing::WithParamInterface<ChangeCase> {};

TEST_P(DirectoryChange, ServesTheChangedDocumentUntilCleared) {
  ASSERT_TRUE(emu_->SetDirectory(Parse(GetParam().change))) << emu_->last_error();
  testkit::HttpResult r = Fetch();
  EXPECT_EQ(r.status, 200);
  GetParam().check(r.body);
  ASSERT_TRUE(emu_->ClearDirectory());
  EXPECT_EQ(Parse(Fetch().body)["size"].asInt(), Parse(Fetch().body)["url"].size());
}

INSTANTIATE_TEST_SUITE_P(
    Changes, DirectoryChange,
    ::testing::Values(
        ChangeCase{"DuplicateMemberCountedOnce", R"({"duplicate":["tdc_users"]})",
                   [](const std::string& t) {
                     EXPECT_EQ(Count(t, "\"tdc_users\":"), 2);
                     Json::Value d = Parse(t);
                     EXPECT_EQ(d["size"].asUInt(), d["url"].size());
                   }},
        ChangeCase{"UrlNotAnObject", R"({"url":["x"]})",
                   [](const std::string& t) {
                     Json::Value d = Parse(t);
                     EXPECT_TRUE(d["url"].isArray());
                     EXPECT_EQ(d["size"].asInt(), 0);
                   }}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(DirectoryTest, ControlApiRejectsBadInputWithAClearError) {
  Json::Value bad(Json::objectValue);
  bad["kind"] = "no_such_fault";
  EXPECT_EQ(emu_->Fault(bad), 0u);
  EXPECT_NE(emu_->last_error().find("unknown fault kind"), std::string::npos);
  testkit::HttpResult r =
      testkit::HttpExchange(emu_->base_url(), "POST", "/_emulator/script", "{not json");
  EXPECT_EQ(r.status, 400);
  r = testkit::HttpExchange(emu_->base_url(), "POST", "/_emulator/nothing", "{}");
  EXPECT_EQ(r.status, 404);
  EXPECT_TRUE(emu_->Requests().empty());  // control calls stay out of the log
}

}  // namespace
