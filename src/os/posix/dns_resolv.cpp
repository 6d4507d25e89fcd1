// POSIX backend of the DNS seam: the resolver library (res_nquery, ns_parse). Each
// query has a resolver state of its own, so queries on several threads don't meet.
#include <arpa/inet.h>
#include <arpa/nameser.h>
#include <netdb.h>
#include <netinet/in.h>
#include <resolv.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

#include "os/dns.h"
#include "support/utf.h"

namespace tpcsdk::os {
namespace {

// The largest message DNS can carry (over TCP).
constexpr int kAnswerLimit = 65535;

struct TestServer {
  std::mutex lock;
  bool active = false;
  sockaddr_in address{};
};

TestServer& TestServerConfig() {
  static TestServer server;
  return server;
}

// Reads the character-strings of a TXT record's data: each is one length byte and
// that many bytes, and none may run past the record.
std::vector<std::u16string> TxtStrings(const unsigned char* data, size_t size) {
  std::vector<std::u16string> strings;
  size_t at = 0;
  while (at < size) {
    const size_t length = data[at++];
    if (length > size - at) break;
    strings.push_back(Utf8ToUtf16(std::string_view(reinterpret_cast<const char*>(data + at), length)));
    at += length;
  }
  return strings;
}

class SystemResolver final : public DnsResolver {
 public:
  long QueryTxt(const std::u16string& name, DnsTxtAnswer& answer) override {
    auto state = std::make_unique<struct __res_state>();
    std::memset(state.get(), 0, sizeof(struct __res_state));
    if (res_ninit(state.get()) != 0) return NO_RECOVERY;
    {
      TestServer& server = TestServerConfig();
      std::lock_guard<std::mutex> hold(server.lock);
      if (server.active) {
        state->nscount = 1;
        state->nsaddr_list[0] = server.address;
        state->retrans = 2;
        state->retry = 1;
      }
    }
    std::vector<unsigned char> message(kAnswerLimit);
    const std::string query_name = Utf16ToUtf8(name);
    const int length = res_nquery(state.get(), query_name.c_str(), ns_c_in, ns_t_txt, message.data(),
                                  static_cast<int>(message.size()));
    const int error = state->res_h_errno;
    res_nclose(state.get());
    if (length < 0) return error != 0 ? error : NO_RECOVERY;

    ns_msg parsed{};
    ns_rr record{};
    if (ns_initparse(message.data(), std::min(length, kAnswerLimit), &parsed) != 0) return NO_RECOVERY;
    if (ns_msg_count(parsed, ns_s_an) == 0) return NO_DATA;
    if (ns_parserr(&parsed, ns_s_an, 0, &record) != 0) return NO_RECOVERY;
    answer.first_type = ns_rr_type(record);
    if (answer.first_type == kDnsTypeText)
      answer.strings = TxtStrings(ns_rr_rdata(record), ns_rr_rdlen(record));
    return 0;
  }

  std::string DescribeError(long code) override {
    if (code <= 0 || code > NO_DATA) return std::string();
    const char* text = hstrerror(static_cast<int>(code));
    return text ? std::string(text) : std::string();
  }
};

std::atomic<DnsResolver*> g_test_resolver{nullptr};

}  // namespace

DnsResolver& Dns() {
  static SystemResolver system;
  DnsResolver* installed = g_test_resolver.load();
  return installed ? *installed : system;
}

void SetDnsResolverForTest(DnsResolver* resolver) { g_test_resolver.store(resolver); }

bool SetDnsServerForTest(const std::string& address, std::uint16_t port) {
  TestServer& server = TestServerConfig();
  std::lock_guard<std::mutex> hold(server.lock);
  if (address.empty()) {
    server.active = false;
    return true;
  }
  sockaddr_in parsed{};
  parsed.sin_family = AF_INET;
  parsed.sin_port = htons(port);
  if (inet_pton(AF_INET, address.c_str(), &parsed.sin_addr) != 1) return false;
  server.address = parsed;
  server.active = true;
  return true;
}

}  // namespace tpcsdk::os
