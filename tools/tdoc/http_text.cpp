#include "http_text.h"

#include <cstdlib>

namespace tdoc::sys {

bool SplitBaseUrl(const std::string& base, std::string* host, std::string* port) {
  const std::string scheme = "http://";
  if (base.compare(0, scheme.size(), scheme) != 0) return false;
  std::string rest = base.substr(scheme.size());
  rest = rest.substr(0, rest.find('/'));
  const size_t colon = rest.rfind(':');
  if (colon == std::string::npos) return false;
  *host = rest.substr(0, colon);
  *port = rest.substr(colon + 1);
  return !host->empty() && !port->empty();
}

std::string RequestText(const std::string& method, const std::string& target, const std::string& host,
                        const std::string& port, const std::string& body) {
  return method + " " + target + " HTTP/1.1\r\nHost: " + host + ":" + port +
         "\r\nContent-Type: application/json\r\nContent-Length: " + std::to_string(body.size()) +
         "\r\nConnection: close\r\n\r\n" + body;
}

HttpReply ReadReply(const std::string& received, bool sent_all, const std::string& base_url) {
  HttpReply reply;
  const size_t head_end = received.find("\r\n\r\n");
  if (!sent_all || head_end == std::string::npos || received.compare(0, 5, "HTTP/") != 0) {
    reply.error = "no reply from " + base_url;
    return reply;
  }
  reply.status = std::atoi(received.c_str() + received.find(' ') + 1);
  reply.body = received.substr(head_end + 4);
  return reply;
}

}  // namespace tdoc::sys
