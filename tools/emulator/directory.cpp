// The API directory document the emulator serves at .../tdocApi.json.
//
// Every key points back at the listener the request came in on. The URL of
// each key carries the placeholders that the client's operations fill for that
// key: "${access-token}" where the token is substituted in place,
// "access-token=%s" where the stored token is filled in, bare "%s" where the
// URL is used as a format string, and nothing where the operation appends its
// own query.
#include <algorithm>
#include <set>

#include "state.h"

namespace tpcsdk::emulator {

const std::vector<std::pair<std::string, std::string>>& DirectoryEntries() {
  static const std::vector<std::pair<std::string, std::string>> entries = {
      // Format string of three values: second, encoded third, first.
      {"tdc_cas_ticket_by_email",
       "/tdocapi/v1/users/get-cas-ticket?service=%s&email=%s&appId=%s"},
      {"tdc_documents", "/tdocapi/v1/documents"},
      {"tdc_documents_tdoc", "/tdocapi/v1/documents/tdoc?access-token=%s"},
      {"tdc_documents_log", "/tdocapi/v1/documents/logs"},
      {"tdc_documents_version_notification",
       "/tdocapi/v1/documents/version-notification?access-token=${access-token}"},
      {"tdc_documents_versions", "/tdocapi/v1/documents/versions?access-token=${access-token}"},
      {"tdc_domain", ""},
      {"tdc_email_notification", "/tdocapi/v1/notifications/email?access-token=%s"},
      {"tdc_message_url", "/message/view?id="},
      {"tdc_messages", "/tdocapi/v1/messages?access-token=${access-token}"},
      // Two values filled in order by the open-message query.
      {"tdc_messages_open_message", "/tdocapi/v1/messages/open-message?cAppID=%s&msgId=%s"},
      {"tdc_messages_polling", "/tdocapi/v1/messages/polling"},
      {"tdc_messages_polling_config", "/tdocapi/v1/messages/polling-config"},
      {"tdc_messages_template", "/tdocapi/v1/messages/templates?access-token=${access-token}"},
      {"tdc_server_client_id", "/tdocapi/v1/server/client-id"},
      {"tdc_server_option_config", "/tdocapi/v1/server/option-config"},
      {"tdc_server_send_email", "/tdocapi/v1/server/send-email"},
      {"tdc_server_time", "/tdocapi/v1/server/time"},
      {"tdc_upload_sign", "/tdocapi/v1/users/sign-image"},
      {"tdc_users", "/tdocapi/v1/users"},
      {"tdc_users_online_state", "/tdocapi/v1/users/online-state?access-token=%s"},
      {"tdc_wrapper_set", "/tdocapi/v1/wrapper/settings?access-token=%s"},
      // A web page that takes the client identity query.
      {"tdc_web_home", "/web/home?al=%s&cv=%s&an=%s&av=%s"},
  };
  return entries;
}

Reply BuildDirectory(const std::string& base, const DirectoryOverride& o) {
  Reply reply;
  reply.status = o.active ? o.status : 200;
  reply.headers = o.active ? o.headers : HeaderList();
  bool has_type = std::any_of(reply.headers.begin(), reply.headers.end(),
                              [](const auto& h) { return EqualsNoCase(h.first, "Content-Type"); });
  if (!has_type) reply.headers.emplace_back("Content-Type", "application/json");
  if (o.active && o.whole) {
    reply.body = o.body;
    return reply;
  }

  // The `url` object as an ordered list of members, so that a member can be
  // written twice: a JSON library would fold duplicates.
  std::vector<std::pair<std::string, std::string>> url;
  for (const auto& e : DirectoryEntries()) {
    if (o.active && std::find(o.remove.begin(), o.remove.end(), e.first) != o.remove.end())
      continue;
    url.emplace_back(e.first, base + e.second);
  }
  if (o.active) {
    for (const auto& s : o.set) {
      std::string value = ReplaceAll(s.second, "{base}", base);
      auto it = std::find_if(url.begin(), url.end(), [&](const auto& m) { return m.first == s.first; });
      if (it != url.end()) {
        it->second = value;
      } else {
        url.emplace_back(s.first, value);
      }
    }
  }
  std::set<std::string> distinct;
  std::string url_text = "{";
  for (const auto& m : url) {
    distinct.insert(m.first);
    int times = 1;
    if (o.active && std::find(o.duplicate.begin(), o.duplicate.end(), m.first) != o.duplicate.end())
      times = 2;
    for (int i = 0; i < times; ++i) {
      if (url_text.size() > 1) url_text += ",";
      url_text += Json::valueToQuotedString(m.first.c_str()) + ":" +
                  Json::valueToQuotedString(m.second.c_str());
    }
  }
  url_text += "}";

  Json::Value tws(Json::objectValue);
  tws["service"] = "tdoc-emulator";
  tws["pollingEnabled"] = true;
  tws["regions"] = Json::Value(Json::arrayValue);
  tws["regions"].append("local");

  auto omitted = [&](const char* name) {
    return o.active && std::find(o.omit.begin(), o.omit.end(), name) != o.omit.end();
  };
  std::vector<std::string> members;
  if (!omitted("url")) {
    members.push_back("\"url\":" + (o.active && o.has_url ? CompactJson(o.url) : url_text));
  }
  if (!omitted("size")) {
    // By default `size` counts the members the client will see: distinct
    // names, or the members of a replaced `url` when that is an object.
    size_t count = distinct.size();
    if (o.active && o.has_url) count = o.url.isObject() ? o.url.size() : 0;
    std::string size = o.active && o.has_size ? CompactJson(o.size) : std::to_string(count);
    members.push_back("\"size\":" + size);
  }
  if (!omitted("twsConfig")) {
    members.push_back("\"twsConfig\":" + CompactJson(o.active && o.has_tws ? o.tws : tws));
  }
  reply.body = "{";
  for (size_t i = 0; i < members.size(); ++i) reply.body += (i ? "," : "") + members[i];
  reply.body += "}";
  return reply;
}

}  // namespace tpcsdk::emulator
