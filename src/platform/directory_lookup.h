// Who the user is in the directory, and the service host that the user's directory
// domain publishes as a DNS TXT record. The domain is the part of the user's
// principal name after the first "@"; for a user of a.b.c the records are
//   tws-a-b-c.a.b.c              the service host (the end may be replaced by the
//                                domain suffix of the configuration file)
//   tws-internal-update.a.b.c    the update host
// A text from DNS is believed only when it looks like a host. Nothing here reports
// an error: each failure ends in an empty host or 0, and its words go to the log.
#pragma once
#include <string>
#include <string_view>

namespace tpcsdk {

class DiagnosticLog;

// 1 when the machine is joined to a domain, else 0; `name` gets the user's principal
// name when it can be had, so a 1 may come with an empty name.
int GetADUserName(DiagnosticLog* log, std::u16string& name);

// 1 when the device is joined to the cloud directory, with the joining user's e-mail
// in `name` when the record names one; else 0.
int GetAADUserName(DiagnosticLog* log, std::u16string& name);

// The domain user first, then the cloud directory's. True with the name when either
// gave one; false (and a log line) when the user is in neither.
bool DirectoryUserName(DiagnosticLog* log, std::u16string& name);

// The names of the two TXT records for a user name (see above). A name without "@"
// stands whole for the domain.
std::u16string ServiceRecordName(const std::u16string& user_name, const std::u16string& domain_suffix);
std::u16string UpdateRecordName(const std::u16string& user_name);

// A DNS look-up's remembered result: it runs once, and an empty result is kept too.
struct DnsHostRecord {
  std::u16string& host;
  bool& done;
};

// The service host from the user's directory domain; the domain suffix, when not
// empty, takes the place of the domain at the end of the record's name.
std::u16string LookupHostFromDns(DiagnosticLog* log, const std::u16string& domain_suffix,
                                 DnsHostRecord memo);

// The update host. Unlike the service host, the record's name never takes the
// domain suffix, and a first record that isn't TXT is reported as invalid.
std::u16string LookupUpdateHostFromDns(DiagnosticLog* log, DnsHostRecord memo);

// 1 when the current user's DisableFindHost switch reads "True" in any case, else 0.
// It stands under SOFTWARE, Tarvo Software, "<product> <major>.0", Tetherdoc; the
// product is the Editor only when `application` holds "BrindlePDF".
int IsFindHostDisabled(const std::u16string& application, const std::u16string& version);

}  // namespace tpcsdk
