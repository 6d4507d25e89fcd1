#include "operations/records.h"

#include "operations/op_support.h"
#include "support/utf.h"

namespace tpcsdk {

void ParseReplyEnvelope(ReplyRecord& record, Json::Value& dataOut, const Json::Value& root) {
  dataOut = Json::Value();
  if (!root.isObject()) {
    record.ret = 0;
    record.message.clear();
    record.returned = 0;
    return;
  }
  const Json::Value& ret = root["ret"];
  const Json::Value& message = root["message"];
  const Json::Value& returned = root["returned"];
  record.ret = ret.isConvertibleTo(Json::intValue) ? ret.asInt() : 0;
  record.message = message.isConvertibleTo(Json::stringValue) ? message.asString() : "";
  record.returned = returned.isConvertibleTo(Json::intValue) ? returned.asInt() : 0;
  dataOut = root["data"];
}

bool ParseUserRecord(UserRecord& record, const Json::Value& reply) {
  Json::Value data;
  ParseReplyEnvelope(record, data, reply);
  const Json::Value* user = ops::FirstRecord(data);
  if (!user) return false;
  record.token = ops::JsonText(ops::Member(*user, "token"));
  record.userEmail = ops::JsonText(ops::Member(*user, "userEmail"));
  record.cUserID = ops::JsonText(ops::Member(*user, "cUserID"));
  record.firstname = Utf8ToUtf16(ops::JsonText(ops::Member(*user, "firstname")));
  record.lastname = Utf8ToUtf16(ops::JsonText(ops::Member(*user, "lastname")));
  record.userMobile = ops::JsonText(ops::Member(*user, "userMobile"));
  return true;
}

bool ParseDocumentRecord(DocumentRecord& record, const Json::Value& reply) {
  Json::Value data;
  ParseReplyEnvelope(record, data, reply);
  const Json::Value* doc = ops::FirstRecord(data);
  if (!doc) return false;
  record.isNotificationDoc = ops::JsonBool(ops::Member(*doc, "isNotificationDoc")) ? 1 : 0;
  record.cUserID = ops::JsonText(ops::Member(*doc, "cUserID"));
  record.docName = Utf8ToUtf16(ops::JsonText(ops::Member(*doc, "docName")));
  record.connectedNotification = Utf8ToUtf16(ops::JsonText(ops::Member(*doc, "connectedNotification")));
  return true;
}

}  // namespace tpcsdk
