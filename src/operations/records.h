// The records that the user and document look-ups fill from a service reply, and
// their readers. The readers take any JSON value and never throw.
#pragma once
#include <cstdint>
#include <string>

#include <json/json.h>

#include "web_service/tetherdoc_server.h"

namespace tpcsdk {

struct UserRecord : ReplyRecord {
  std::string queryToken;  // the token to look the user up by, when cUserID is empty
  std::string cUserID;     // the id to look the user up by; also read from the reply
  std::string token;
  std::string userEmail;
  std::u16string firstname;
  std::u16string lastname;
  std::string userMobile;
};

struct DocumentRecord : ReplyRecord {
  std::string cDocID;  // the document to look up
  int32_t isNotificationDoc = 0;
  std::string cUserID;
  std::u16string docName;
  std::u16string connectedNotification;
};

// Read the envelope, then the first element of `data`, which must be an object in an
// array; false when the reply has another shape.
bool ParseUserRecord(UserRecord& record, const Json::Value& reply);
bool ParseDocumentRecord(DocumentRecord& record, const Json::Value& reply);

}  // namespace tpcsdk
