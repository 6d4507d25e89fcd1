// Fuzz target for the readers of service replies: the envelope, the user record and
// the document record, on whatever the JSON parser makes of the input, and the text
// the compact writer gives back for it (what a host would receive).
#include <cstddef>
#include <cstdint>
#include <string>

#include <json/json.h>

#include "operations/op_support.h"
#include "operations/records.h"

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
  return 0;
}
