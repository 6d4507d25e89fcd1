// The platform-free half of tdoc's loopback HTTP client: the URL split, the
// request's text and the reading of the reply. The sockets are in sys_*.cpp.
#pragma once
#include <string>

#include "sys.h"

namespace tdoc::sys {

// "http://host:port[/...]" into host and port; false for anything else.
bool SplitBaseUrl(const std::string& base, std::string* host, std::string* port);
// One HTTP/1.1 request with a JSON body, closing the connection after the reply.
std::string RequestText(const std::string& method, const std::string& target, const std::string& host,
                        const std::string& port, const std::string& body);
// The status and body of what came back, or an error when it is not a reply.
HttpReply ReadReply(const std::string& received, bool sent_all, const std::string& base_url);

}  // namespace tdoc::sys
