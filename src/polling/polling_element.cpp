// The reader of one element of a polling round's reply: a control element that sets
// the interval, or a message element with the parameter the service echoes back.
#include <json/json.h>

#include "operations/op_support.h"
#include "polling/pull_msg_queue.h"
#include "polling/pull_msg_record.h"

namespace tpcsdk {

bool ReadPollingElement(PullMsgRecord& record, const Json::Value& element) {
  using ops::JsonInt;
  using ops::JsonText;
  using ops::Member;
  if (!element.isObject()) return false;
  const Json::Value& next = Member(element, "nextPollingTime");
  if (!ops::IsEmptyJson(next)) {
    record.control = true;
    record.nextPollingTime = JsonInt(next);
    return false;
  }
  const Json::Value& parameter = Member(element, "parameter");
  record.parameterText = ops::CompactJson(parameter);
  if (!parameter.isObject()) return false;
  record.nType = JsonInt(Member(parameter, "type"));
  switch (record.nType) {
    case 0:
      record.nextPollingTime = JsonInt(Member(parameter, "nextPollingTime"));
      break;
    case kPullUpdate:
      record.cVersionID = JsonText(Member(parameter, "cVersionID"));
      record.cDocID = JsonText(Member(parameter, "cDocID"));
      record.cLocalVersionId = JsonText(Member(parameter, "cLocalVersionId"));
      break;
    case kPullUserMessage:
    case kPullRequestFile:
    case kPullHomepage:
    case kPullUntreatedNotify:
      break;
    case kPullAppMessage:
    case kPullShareView:
      record.cAppID = JsonText(Member(parameter, "cAppID"));
      break;
    case 106:
      record.reviewSessionID = JsonText(Member(parameter, "reviewSessionID"));
      break;
    default:
      return false;
  }
  record.messageCode = JsonInt(Member(element, "messageCode"));
  record.data = Member(element, "data");
  record.token = JsonText(Member(parameter, "token"));
  return !record.token.empty();
}

}  // namespace tpcsdk
