// Windows backend of the DNS seam: DnsQuery_W with the standard options and the
// system's own name servers, the answer freed with DnsFree.
#include <windows.h>
#include <windns.h>

#include <atomic>

#include "os/dns.h"
#include "os/win32/format_message.h"

namespace tpcsdk::os {
namespace {

std::u16string FromW(const wchar_t* s) {
  return s ? std::u16string(reinterpret_cast<const char16_t*>(s)) : std::u16string();
}

class SystemResolver final : public DnsResolver {
 public:
  long QueryTxt(const std::u16string& name, DnsTxtAnswer& answer) override {
    PDNS_RECORD records = nullptr;
    const DNS_STATUS status = DnsQuery_W(reinterpret_cast<PCWSTR>(name.c_str()), DNS_TYPE_TEXT,
                                         DNS_QUERY_STANDARD, nullptr, &records, nullptr);
    if (status != 0) {
      if (records) DnsFree(records, DnsFreeRecordList);
      return static_cast<long>(status);
    }
    if (!records) return DNS_INFO_NO_RECORDS;
    answer.first_type = records->wType;
    if (records->wType == DNS_TYPE_TEXT) {
      const DWORD count = records->Data.TXT.dwStringCount;
      PWSTR* strings = records->Data.TXT.pStringArray;
      for (DWORD i = 0; i < count; ++i) answer.strings.push_back(FromW(strings[i]));
    }
    DnsFree(records, DnsFreeRecordList);
    return 0;
  }

  std::string DescribeError(long code) override {
    return win32::FormatSystemMessage(static_cast<unsigned long>(code));
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

// DnsQuery_W takes name servers only on the standard port, so a test server on a
// port of its own can't be reached through it.
bool SetDnsServerForTest(const std::string& address, std::uint16_t) { return address.empty(); }

}  // namespace tpcsdk::os
