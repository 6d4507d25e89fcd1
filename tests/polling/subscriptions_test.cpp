// Subscriptions and the queue they fill: which entries a sequence of slot calls leaves,
// the results of the slots, and the update subscription's one look-up at the service.
#include <gtest/gtest.h>

#include <json/json.h>

#include <cstring>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "kit/emulator_client.h"
#include "polling/pull_msg_queue.h"
#include "polling/pull_msg_thread.h"
#include "support/utf.h"
#include "web_service/tetherdoc_server.h"

namespace {

using tpcsdk::TetherdocServer;
using Entries = std::vector<std::pair<int32_t, int32_t>>;  // type, priority

Entries QueueOf(TetherdocServer& server) {
  Entries out;
  for (const tpcsdk::PullMsgEntry& e : server.PollingWorker()->QueueManager()->Entries())
    out.emplace_back(e.nType, e.nPriority);
  return out;
}

const Entries kUserEntries = {{102, 2}, {110, 1}, {104, 3}, {105, 3}};

struct QueueCase {
  const char* name;
  std::function<void(TetherdocServer&)> calls;
  Entries expected;
  std::vector<std::string> users;
  std::string appID;
};

class QueueAfter : public ::testing::TestWithParam<QueueCase> {};

TEST_P(QueueAfter, Calls) {
  const QueueCase& c = GetParam();
  TetherdocServer server("en-US", "Polling Test", "1.0");
  c.calls(server);
  EXPECT_EQ(QueueOf(server), c.expected);
  EXPECT_EQ(server.SubscribedUsers(), c.users);
  EXPECT_EQ(server.SubscribedAppID(), c.appID);
}

Entries Plus(Entries a, const Entries& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

INSTANTIATE_TEST_SUITE_P(
    Sequences, QueueAfter,
    ::testing::Values(
        QueueCase{"SameUserTwice",
                  [](TetherdocServer& s) {
                    s.SubscribeUser("a");
                    s.SubscribeUser("a");
                  },
                  kUserEntries, {"a"}, ""},
        QueueCase{"TwoUsersFourEntries",
                  [](TetherdocServer& s) {
                    s.SubscribeUser("a");
                    s.SubscribeUser("b");
                  },
                  kUserEntries, {"a", "b"}, ""},
        QueueCase{"OneOfTwoLeaves",
                  [](TetherdocServer& s) {
                    s.SubscribeUser("a");
                    s.SubscribeUser("b");
                    s.UnSubscribeUser("a");
                  },
                  kUserEntries, {"b"}, ""},
        QueueCase{"AppWithoutUsers", [](TetherdocServer& s) { s.SubscribecAppID("app"); },
                  {{109, 1}}, {}, "app"},
        QueueCase{"LastUserTakesTheAppEntryButNotTheAppID",
                  [](TetherdocServer& s) {
                    s.SubscribeUser("a");
                    s.SubscribecAppID("app");
                    s.UnSubscribeUser("a");
                  },
                  {}, {}, "app"},
        QueueCase{"NewUserAfterThatDoesNotBringTheAppBack",
                  [](TetherdocServer& s) {
                    s.SubscribeUser("a");
                    s.SubscribecAppID("app");
                    s.UnSubscribeUser("a");
                    s.SubscribeUser("b");
                  },
                  kUserEntries, {"b"}, "app"},
        QueueCase{"EmptyAppIDClearsTheOldOneAndQueuesNothing",
                  [](TetherdocServer& s) {
                    s.SubscribecAppID("app");
                    s.UnSubscribecAppID();
                    s.SubscribecAppID("");
                  },
                  {}, {}, ""},
        QueueCase{"UpdatesStayWhenTheLastUserLeaves",
                  [](TetherdocServer& s) {
                    s.SubscribeUpdateNotification("a", "doc", "v1");
                    s.SubscribeUser("a");
                    s.UnSubscribeUser("a");
                  },
                  {{101, 3}}, {}, ""},
        QueueCase{"UserThenUpdate",
                  [](TetherdocServer& s) {
                    s.SubscribeUser("a");
                    s.SubscribeUpdateNotification("a", "doc", "v1");
                  },
                  Plus(kUserEntries, {{101, 3}}), {"a"}, ""},
        QueueCase{"LastUpdateLeavingTakesItsEntry",
                  [](TetherdocServer& s) {
                    s.SubscribeUpdateNotification("a", "doc", "v1");
                    s.SubscribeUpdateNotification("a", "doc2", "v1");
                    s.UnSubscribeUpdateNotification("a", "doc", "v1");
                    s.UnSubscribeUpdateNotification("a");
                  },
                  {}, {}, ""}),
    [](const ::testing::TestParamInfo<QueueCase>& info) { return std::string(info.param.name); });

TEST(SubscriptionSlots, Results) {
  TetherdocServer server("en-US", "Polling Test", "1.0");
  EXPECT_EQ(server.UnSubscribeUser("nobody"), -2);
  EXPECT_EQ(server.SubscribecAppID(""), -2);
  EXPECT_EQ(server.SubscribecAppID("app"), 0);
  EXPECT_EQ(server.UnSubscribecAppID(), 0);
  EXPECT_EQ(server.UnSubscribecAppID(), 0);
  EXPECT_EQ(server.UnSubscribeUpdateNotification("a", "doc", "v1"), -2);
  EXPECT_EQ(server.UnSubscribeUpdateNotification("a"), -2);
  EXPECT_EQ(server.SetSubscribtionCallback(nullptr, nullptr, nullptr), 0);
  // A null where a text belongs is refused, and nothing is stored.
  EXPECT_EQ(server.SubscribeUser(nullptr), -2);
  EXPECT_EQ(server.UnSubscribeUser(nullptr), -2);
  EXPECT_EQ(server.SubscribecAppID(nullptr), -2);
  EXPECT_EQ(server.SubscribeUpdateNotification("a", nullptr, "v"), -2);
  EXPECT_EQ(server.UnSubscribeUpdateNotification(nullptr, "d", "v"), -2);
  EXPECT_TRUE(QueueOf(server).empty());
}

TEST(UpdateSubscriptions, EmptyPartsAreNotStoredAndTheTokenOnlyFormTakesTheFirst) {
  TetherdocServer server("en-US", "Polling Test", "1.0");
  server.SubscribeUpdateNotification("", "doc", "v1");
  server.SubscribeUpdateNotification("a", "", "v1");
  server.SubscribeUpdateNotification("a", "doc", "");
  EXPECT_TRUE(server.SubscribedUpdates().empty());
  server.SubscribeUpdateNotification("a", "doc1", "v1");
  server.SubscribeUpdateNotification("a", "doc2", "v1");
  server.SubscribeUpdateNotification("a", "doc2", "v1");
  ASSERT_EQ(server.UnSubscribeUpdateNotification("a"), 0);
  const std::vector<tpcsdk::UpdateSubscription> left = server.SubscribedUpdates();
  ASSERT_EQ(left.size(), 1u);
  EXPECT_EQ(left[0].document, "doc2");
  // With no callbacks there is no look-up: the local version stands in as the latest.
  EXPECT_EQ(left[0].latestVersion, "v1");
}

// ---- the look-up of the latest version ---------------------------------------------

constexpr char kNotificationPath[] = "/tdocapi/v1/documents/version-notification";

struct Received {
  std::vector<std::pair<int32_t, std::string>> messages;  // code, text
  std::vector<std::pair<int32_t, std::string>> errors;    // code, text
  std::vector<bool> lengthsMatch;
  TetherdocServer* server = nullptr;
  bool reenter = false;
  int reentered = 99;
};

int OnMessage(int32_t code, PullMsgBuffer* message, const char*, void* userData) {
  auto* r = static_cast<Received*>(userData);
  r->messages.emplace_back(code, std::string(message->text));
  r->lengthsMatch.push_back(static_cast<size_t>(message->length) == std::strlen(message->text));
  // The subscribing thread holds the update lock here; it may re-enter.
  if (r->reenter) {
    r->reenter = false;
    r->reentered = r->server->UnSubscribeUpdateNotification("tok", "doc", "v1");
  }
  return 0;
}

int OnError(int32_t code, const char* text, const char*, void* userData) {
  static_cast<Received*>(userData)->errors.emplace_back(code, text);
  return 0;
}

class LatestVersion : public ::testing::Test {
 protected:
  void Bind(testkit::EmulatorClient* emu) {
    emu_ = emu;
    server.SetApiUrl(u"url@tdc_documents_version_notification",
                     tpcsdk::Utf8ToUtf16(emu->base_url() + kNotificationPath +
                                         "?access-token=${access-token}"));
    received.server = &server;
    server.SetSubscribtionCallback(&OnMessage, &OnError, &received);
  }
  std::string Latest() {
    const auto updates = server.SubscribedUpdates();
    return updates.empty() ? std::string() : updates.back().latestVersion;
  }

  testkit::EmulatorClient* emu_ = nullptr;
  TetherdocServer server{"en-US", "Polling Test", "1.0"};
  Received received;
};

TEST_F(LatestVersion, ReportsTheFirstObjectAsMessage1003AndPollsItsVersion) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  Bind(emu);
  Json::Value reply;
  reply["ret"] = 0;
  reply["data"] = Json::Value(Json::arrayValue);
  reply["data"].append(7);
  reply["data"].append(Json::Value());
  Json::Value first;
  first["cVersionID"] = "v9";
  first["name"] = "report";
  reply["data"].append(first);
  ASSERT_NE(emu->ScriptJson("GET", kNotificationPath, reply), 0u);
  received.reenter = true;
  ASSERT_EQ(server.SubscribeUpdateNotification("tok", "doc", "v1"), 0);

  const auto requests = emu->RequestsTo(kNotificationPath);
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].query, "access-token=tok&cDocID=doc&cVersionID=v1&latest=1");
  ASSERT_EQ(received.messages.size(), 1u);
  EXPECT_EQ(received.messages[0].first, 1003);
  EXPECT_EQ(received.messages[0].second,
            "{\"cDocID\":\"doc\",\"cVersionID\":\"v9\",\"cVersionIDLocal\":\"v1\","
            "\"name\":\"report\",\"token\":\"tok\"}\n");
  EXPECT_EQ(received.lengthsMatch, std::vector<bool>{true});
  EXPECT_TRUE(received.errors.empty());
  EXPECT_EQ(received.reentered, -2) << "not stored until the look-up is over";
  EXPECT_EQ(Latest(), "v9");

  // The same three values again: no second look-up.
  ASSERT_EQ(server.SubscribeUpdateNotification("tok", "doc", "v1"), 0);
  EXPECT_EQ(emu->RequestsTo(kNotificationPath).size(), 1u);
  EXPECT_EQ(server.SubscribedUpdates().size(), 1u);
}

struct FailureCase {
  const char* name;
  int status;
  Json::Value body;
  int32_t errorCode;  // -1: no error callback
};

class LatestVersionFails : public LatestVersion,
                           public ::testing::WithParamInterface<FailureCase> {};

TEST_P(LatestVersionFails, SubscribesWithTheLocalVersion) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  Bind(emu);
  const FailureCase& c = GetParam();
  ASSERT_NE(emu->ScriptJson("GET", kNotificationPath, c.body, c.status), 0u);
  ASSERT_EQ(server.SubscribeUpdateNotification("tok", "doc", "v1"), 0);
  EXPECT_TRUE(received.messages.empty());
  if (c.errorCode < 0) {
    EXPECT_TRUE(received.errors.empty());
  } else {
    ASSERT_EQ(received.errors.size(), 1u);
    EXPECT_EQ(received.errors[0], std::make_pair(c.errorCode, std::string("tok")));
  }
  EXPECT_EQ(Latest(), "v1");
  EXPECT_EQ(QueueOf(server), (Entries{{101, 3}}));
}

Json::Value Envelope(int ret, Json::Value data) {
  Json::Value v;
  v["ret"] = ret;
  v["data"] = std::move(data);
  return v;
}

INSTANTIATE_TEST_SUITE_P(
    Replies, LatestVersionFails,
    ::testing::Values(
        FailureCase{"HttpError", 500, Envelope(0, Json::arrayValue), 3},
        // A 403 reaches the host as 3: the frame's result is 4, never 403.
        FailureCase{"Forbidden", 403, Envelope(0, Json::arrayValue), 3},
        FailureCase{"ServiceRet", 200, Envelope(123, Json::arrayValue), 123},
        FailureCase{"DataNotArray", 200, Envelope(0, Json::objectValue), -1},
        FailureCase{"NoObjectInData", 200, Envelope(0, Json::Value(Json::arrayValue)), -1}),
    [](const ::testing::TestParamInfo<FailureCase>& info) { return std::string(info.param.name); });

}  // namespace
