// Fuzz target for the readers of service replies: the envelope, the user record and
// the document record, the members every operation family reads (identity, documents,
// services, wrappers and the polling configuration) and the update time's date text,
// on whatever the JSON parser makes of the input, and the text the compact writer
// gives back for it (what a host would receive).
#include <cstddef>
#include <cstdint>
#include <string>

#include <json/json.h>

#include "operations/op_support.h"
#include "operations/records.h"
#include "os/date_text.h"
#include "support/utf.h"

namespace {

// The reads of each operation family on a reply, in the order the operations make them.
size_t OperationReads(const Json::Value& reply) {
  using namespace tpcsdk::ops;
  const Json::Value& data = Member(reply, "data");
  size_t n = 0;
  // identity: the online state, the device record, the ticket, the third-party answer
  if (const Json::Value* state = FirstRecord(data)) n += JsonInt(Member(*state, "cState"));
  if (data.isArray()) n += CompactJson(data[0u]).size();
  const Json::Value& ticket = Member(data, "ticket");
  const Json::Value& st = Member(ticket, "st");
  if (ticket.isString()) n += ticket.asString().size();
  else if (st.isString()) n += st.asString().size();
  n += JsonInt(Member(reply, "code"));
  // documents: the reply's own ret
  const Json::Value& ret = Member(reply, "ret");
  if (!ret.isNull() && ret.isConvertibleTo(Json::intValue)) n += ret.asInt();
  // services: the server time, the option configuration, an uploaded image's text
  if (const Json::Value* fact = FirstRecord(data)) n += JsonText(Member(*fact, "time")).size();
  n += JsonText(data).size() + JsonBool(data) + IsEmptyJson(data);
  // wrappers: the three links and the update time as a date
  for (const char* link : {"protectWrapperFilelink", "requestPermissionFilelink",
                           "requestPermissionLicenseFilelink"})
    n += JsonText(Member(data, link)).size();
  std::u16string time = tpcsdk::Utf8ToUtf16(JsonText(Member(data, "updateTime")));
  time = time.substr(0, time.find(u'\0'));
  double date = 0;
  if (tpcsdk::os::DateFromText(time, &date) == tpcsdk::os::DateTextStatus::kOk && date != date)
    __builtin_trap();  // a date that parses is a number
  // polling configuration: the interval and the limit, each a 32-bit number or refused
  if (data.isArray() && !data.empty()) {
    const Json::Value& minimum = Member(data[0u], "minimumPollingTime");
    const Json::Value& limit = Member(data[0u], "maxPollingNotResultCount");
    if (minimum.isConvertibleTo(Json::intValue) && limit.isConvertibleTo(Json::intValue))
      n += static_cast<size_t>(minimum.asInt()) + static_cast<size_t>(limit.asInt());
  }
  // message templates: each object's id
  if (data.isArray())
    for (const Json::Value& element : data)
      if (element.isObject()) n += JsonText(Member(element, "_id")).size();
  return n;
}

}  // namespace


extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  Json::Value root;
  Json::Reader reader;
  reader.parse(text, root);  // a failed parse still leaves a value to read

  tpcsdk::ReplyRecord envelope;
  Json::Value payload;
  tpcsdk::ParseReplyEnvelope(envelope, payload, root);
  tpcsdk::UserRecord user;
  if (tpcsdk::ParseUserRecord(user, root)) {
    volatile size_t n = user.userEmail.size() + user.firstname.size() + user.lastname.size();
    (void)n;
  }
  tpcsdk::DocumentRecord doc;
  tpcsdk::ParseDocumentRecord(doc, root);
  const std::string out = tpcsdk::ops::CompactJson(payload);
  if (out.empty() || out.back() != '\n') __builtin_trap();
  if (const Json::Value* first = tpcsdk::ops::FirstRecord(payload)) {
    volatile int32_t n = tpcsdk::ops::JsonInt((*first)["cState"]);
    (void)n;
  }
  volatile size_t reads = OperationReads(root);
  (void)reads;
  // The input as an update time, as a wrapper setting's text would carry it.
  double date = 0;
  (void)tpcsdk::os::DateFromText(tpcsdk::Utf8ToUtf16(text), &date);
  return 0;
}
