// One file fetched over HTTP to a path on disk, in one blocking call. A path of its
// own: it shares neither the session, the classes nor the user agent of the service
// calls, and adds no header and no token, so the URL must work as it stands.
#pragma once
#include <string_view>

namespace tpcsdk {

// GETs url and stores the body at destination. Redirects are followed, HTTP/2 is
// allowed, the user's proxy is used and server certificates are checked as the
// platform does by default. Only the path of the URL is requested: its query and
// fragment are not sent. Statuses 200 and 201 are accepted. The line
// "File size: <Content-Length>\n" goes to standard output (0 without the header).
//
// The body is written to destination + ".part" and moved to destination when whole;
// an existing destination is never replaced (the result is then false). True when the
// file has arrived under its final name. On false nothing of this download is left:
// no file under the final name and no ".part" file, unless another download of the
// same destination holds that ".part" file, which is then left to it.
bool DownloadFile(std::u16string_view url, std::u16string_view destination);

}  // namespace tpcsdk
