// The service behind the API directory: users, devices, tickets, the
// third-user exchange, documents and their versions, usage records, mails,
// images, open messages, server facts and the wrapper documents, all kept in
// memory (and in a state file when one is named). It answers the service paths
// in the service's envelope; the control API seeds and inspects what it keeps.
// README.md tables every path, its reply and its error codes.
#pragma once
#include <json/json.h>

#include <mutex>
#include <string>

#include "wire.h"

namespace tpcsdk::emulator {

// `v` as compact JSON text, UTF-8 kept as it is, without a line feed.
std::string CompactJson(const Json::Value& v);
// Parses `text`; false with the reason in `errors` when it is not JSON or
// nests deeper than the reader allows (the reader throws then; this does not).
bool ParseJson(const std::string& text, Json::Value* out, std::string* errors);
// The service's reply envelope: `ret`, `message`, `returned` (the size of an
// array `data`, 1 for another non-null value) and `data`.
Reply Envelope(int ret, const std::string& message, const Json::Value& data);
// A failure: `ret` with an empty `data` array.
Reply Failure(int ret, const std::string& message);

class ServiceModel {
 public:
  ServiceModel();

  // Loads `path` when it exists (a missing file is an empty model) and writes
  // every later change to it, atomically. False with `error` set when the file
  // cannot be read, is not a model, or cannot be written.
  bool UseStateFile(const std::string& path, std::string* error);

  // The reply to a service request; false when the path is not the model's.
  bool Answer(const Request& req, Reply* reply);

  // A control call under /_emulator/ (`what` is the part after it). False when
  // `what` is not one of the model's; throws std::invalid_argument on bad input.
  bool Control(const std::string& method, const std::string& what, const Json::Value& in,
               Json::Value* out);

  // Forgets everything (and writes the empty model to the state file).
  void Reset();

  // Look-ups for the message model.
  // True when a user holds `token` (never for an empty one).
  bool KnowsToken(const std::string& token);
  // The versions of `doc` in the order they were registered; false when no
  // document and no version has that id.
  bool VersionsOf(const std::string& doc, Json::Value* versions);

 private:
  Reply Dispatch(const Request& req, const std::string& path, bool* handled);
  Reply Users(const Request& req, bool* handled);
  Reply OnlineState(const Request& req);
  Reply RegisterDevice(const Request& req);
  Reply CasTicket(const Request& req);
  Reply ThirdUser(const Request& req, bool info);
  Reply Agreement(const Request& req);
  Reply RegisterDocument(const Request& req);
  Reply GetDocument(const Request& req);
  Reply RegisterTdoc(const Request& req);
  Reply Versions(const Request& req);
  Reply UsageRecord(const Request& req);
  Reply Mail(const Request& req);
  Reply SignImage(const Request& req);
  Reply OpenMessage(const Request& req);
  Reply ServerTime(const Request& req);
  Reply OptionConfig(const Request& req);
  Reply WrapperSettings(const Request& req);
  // GET and HEAD under /files/: `rest` is the path after "/files/".
  Reply File(const Request& req, const std::string& rest, int depth);

  // Look-ups in data_; null when absent.
  Json::Value* FindIn(const char* list, const char* key, const std::string& value);
  Json::Value* UserByToken(const std::string& token);
  std::string NextId(const char* prefix);
  // An invalid-token reply when the request's access token names no user.
  bool TokenRefused(const Request& req, Reply* reply);
  Json::Value ControlLocked(const std::string& method, const std::string& what,
                            const Json::Value& in, bool* handled, bool* changed);
  void Save();

  std::mutex mu_;
  Json::Value data_;  // the whole model, as the state file holds it
  std::string state_file_;
};

}  // namespace tpcsdk::emulator
