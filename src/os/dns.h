// DNS TXT queries: the one question the library asks of DNS, where a directory
// domain publishes its service host. The system's resolver answers by default; tests
// install their own resolver, or point the system's at a local name server.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

namespace tpcsdk::os {

// Record types as DNS numbers them.
inline constexpr int kDnsTypeCname = 5;
inline constexpr int kDnsTypeText = 16;

// What a successful query gave: the type of the first record of the answer and,
// when that record is a TXT record, its strings in order. Later records are not
// kept: only the first one counts.
struct DnsTxtAnswer {
  int first_type = 0;
  std::vector<std::u16string> strings;
};

class DnsResolver {
 public:
  virtual ~DnsResolver() = default;
  // Asks for the TXT records of `name`. 0 with the answer filled in on success;
  // otherwise the system's error code, and the answer stays empty. An answer without
  // records is an error, as the system reports it.
  virtual long QueryTxt(const std::u16string& name, DnsTxtAnswer& answer) = 0;
  // The system's wording of an error code from QueryTxt, on one line; empty when the
  // system has no words for it.
  virtual std::string DescribeError(long code) = 0;
};

// The resolver in use: the system's, unless a test installed another.
DnsResolver& Dns();

// Test use only: installs a resolver in place of the system's; null restores the
// system's. Not to be called while a query runs.
void SetDnsResolverForTest(DnsResolver* resolver);

// Test use only: makes the system's resolver ask only the IPv4 name server at
// `address`:`port`, once, with a short wait; an empty address restores the system's
// configuration. False where the system's resolver cannot be pointed at a port.
bool SetDnsServerForTest(const std::string& address, std::uint16_t port);

}  // namespace tpcsdk::os
