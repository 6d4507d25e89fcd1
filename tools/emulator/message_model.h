// The messages the service holds for its users and hands out when a client
// polls: queues per token and type, their acknowledgement, the message
// templates, the polling configuration, the control elements of the next
// rounds and the latest-version look-up behind update notifications. Users and
// document versions come from the service model beside it. Everything here is
// kept in memory only. README.md tables the paths and the control calls.
#pragma once
#include <json/json.h>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "service_model.h"
#include "wire.h"

namespace tpcsdk::emulator {

class MessageModel {
 public:
  explicit MessageModel(ServiceModel* service);

  // The reply to a service request; false when the path is not this model's.
  bool Answer(const Request& req, Reply* reply);

  // A control call under /_emulator/ (`what` is the part after it). False when
  // `what` is not one of this model's; throws std::invalid_argument on bad input.
  bool Control(const std::string& method, const std::string& what, const Json::Value& in,
               Json::Value* out);

  // Forgets every message, element and acknowledgement; templates and the
  // polling configuration go back to their defaults.
  void Reset();
  // Ends every control wait now and every later one at once.
  void Shutdown();

 private:
  // One posted message and what became of it.
  struct Posted {
    uint64_t id = 0;  // order of posting
    std::string token;
    int type = 0;
    std::string app;  // 103, 109: the cAppID it answers (empty: any)
    std::string doc;  // 101: the cDocID it answers
    Json::Value message;
    uint64_t deliveries = 0;     // rounds that carried it
    uint64_t first_round = 0;    // log number of the first of them
    uint64_t acks = 0;           // accepted acknowledgements
    uint64_t first_ack = 0;      // log number of the first of them

    bool Acknowledged() const { return acks > 0; }
    // Still answered: until acknowledged, or for the types that are never
    // acknowledged, until one round carried it.
    bool Pending() const;
    Json::Value ToJson() const;
  };

  Reply Poll(const Request& req);
  Json::Value PollElement(const Request& req, const Json::Value& parameter);
  Json::Value TakeUpdates(const Request& req, const Json::Value& parameter, int* code);
  Reply Acknowledge(const Request& req);
  Reply Templates(const Request& req);
  Reply PollingConfig(const Request& req);
  Reply LatestVersion(const Request& req);

  Json::Value AddMessage(const Json::Value& in);
  Json::Value List(const std::string& token, int type) const;
  size_t Count(const std::string& state, const std::string& token) const;

  ServiceModel* service_;
  mutable std::mutex mu_;
  std::condition_variable changed_;
  bool shutdown_ = false;
  std::deque<Posted> posted_;
  uint64_t next_id_ = 1;
  Json::Value acks_;       // every acknowledgement received, accepted or not
  Json::Value templates_;  // array of template objects, unique by `_id`
  Json::Value config_;     // element 0 of the polling configuration's data
  std::vector<Json::Value> first_, last_;  // elements of the next round
};

}  // namespace tpcsdk::emulator
