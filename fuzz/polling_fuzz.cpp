// Fuzz target for the reader of a polling round's elements: whatever the JSON parser
// makes of the input, taken as a whole reply (each element of its data array), as one
// element, and as the parameter list the worker sends.
#include <cstddef>
#include <cstdint>
#include <string>

#include <json/json.h>

#include "operations/op_support.h"
#include "polling/pull_msg_record.h"

namespace {

void Element(const Json::Value& element) {
  tpcsdk::PullMsgRecord record;
  const bool message = tpcsdk::ReadPollingElement(record, element);
  if (message && (record.token.empty() || record.control)) __builtin_trap();
  if (record.control && !record.parameterText.empty()) __builtin_trap();
  if (message && !record.data.isNull()) {
    // What the delivery reads of each message.
    for (const Json::Value& object : record.data)
      if (object.isObject())
        (void)(tpcsdk::ops::JsonText(tpcsdk::ops::Member(object, "_id")).size() +
               tpcsdk::ops::JsonText(tpcsdk::ops::Member(object, "messageTemplateId")).size());
    (void)tpcsdk::ops::CompactJson(record.data);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  Json::Value root;
  Json::Reader().parse(text, root);  // a failed parse still leaves a value to read
  Element(root);
  const Json::Value& elements = tpcsdk::ops::Member(root, "data");
  if (elements.isArray())
    for (const Json::Value& element : elements) Element(element);
  (void)tpcsdk::ops::JsonInt(tpcsdk::ops::Member(root, "returned"));
  return 0;
}
