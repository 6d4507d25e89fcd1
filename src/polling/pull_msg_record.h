// PullMsgRecord: one element of a polling reply, decoded. It lives for that element.
#pragma once
#include <cstdint>
#include <string>

#include <json/json.h>

namespace tpcsdk {

struct PullMsgRecord {
  int32_t nType = 0;             // the echoed parameter's type
  std::string cVersionID;        // type 101: the latest version polled
  std::string cDocID;            // type 101
  Json::Value data;              // the messages: an array, for type 110 an object
  std::string token;             // the echoed parameter's token
  std::string reviewSessionID;   // type 106
  int32_t messageCode = 0;       // 0 for messages, otherwise an error for the token
  std::string cAppID;            // types 103 and 109
  std::string cLocalVersionId;   // type 101: the version the subscriber holds
  std::string parameterText;     // the echoed parameter, compact JSON
  int32_t nextPollingTime = 0;   // a control element's, or a type 0 parameter's
  bool control = false;          // a control element: it sets the interval, nothing else
};

// Reads one element of a round's data. True for a message element of a known type
// with a token; a control element (a non-empty nextPollingTime) sets `control` and
// nextPollingTime and gives false, its parameter unread. Never throws.
bool ReadPollingElement(PullMsgRecord& record, const Json::Value& element);

}  // namespace tpcsdk
