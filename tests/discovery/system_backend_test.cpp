// The system's own backends of the identity and DNS seams. On Linux the resolver
// library is asked for real, of a small DNS server on loopback that the test runs,
// and the Kerberos backend reads a credential cache that the test writes.
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "discovery_fixture.h"
#include "platform/directory_lookup.h"
#include "support/utf.h"

#ifndef _WIN32
#include <arpa/inet.h>
#include <krb5.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <mutex>
#include <thread>
#endif

namespace fs = std::filesystem;
using namespace tpcsdk;

namespace discovery {
namespace {

// Both seams answer from the system, with no Kerberos credentials at hand.
class SystemDirectory : public DiscoveryTest {
 protected:
  void SetUp() override {
    DiscoveryTest::SetUp();
    os::SetIdentityProviderForTest(nullptr);
    os::SetDnsResolverForTest(nullptr);
  }
  testkit::TempDir krb5_;
  testkit::ScopedEnv no_cache_{"KRB5CCNAME", "FILE:" + (krb5_.path() / "no-cache").u8string()};
  testkit::ScopedEnv no_config_{"KRB5_CONFIG", (krb5_.path() / "no-config").u8string()};
};

TEST_F(SystemDirectory, MachineOutsideAnyDirectoryIsNotJoined) {
  std::u16string name;
  EXPECT_EQ(GetADUserName(nullptr, name), 0);
  EXPECT_FALSE(DirectoryUserName(nullptr, name));
  EXPECT_TRUE(name.empty());
}

#ifndef _WIN32

// A DNS server on 127.0.0.1 that answers from a small zone over UDP: TXT records,
// a CNAME in front of a TXT record, raw record data, and "no such name" for the rest.
class LoopbackDns {
 public:
  struct Record {
    int type;
    std::string data;  // record data as it goes on the wire
  };

  LoopbackDns() {
    socket_ = ::socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof addr;
    if (socket_ < 0 || ::bind(socket_, reinterpret_cast<sockaddr*>(&addr), size) != 0 ||
        ::getsockname(socket_, reinterpret_cast<sockaddr*>(&addr), &size) != 0 || ::pipe(stop_) != 0)
      return;
    port_ = ntohs(addr.sin_port);
    thread_ = std::thread([this] { Serve(); });
  }
  ~LoopbackDns() {
    if (thread_.joinable()) {
      (void)::write(stop_[1], "x", 1);
      thread_.join();
    }
    for (int fd : {socket_, stop_[0], stop_[1]})
      if (fd >= 0) ::close(fd);
  }

  std::uint16_t port() const { return port_; }
  // The zone is read by the serving thread while the test adds to it.
  void Add(const std::string& name, std::vector<Record> records) {
    std::lock_guard<std::mutex> lock(zone_mutex_);
    zone_.push_back({Lower(name), std::move(records)});
  }

  static std::string Txt(const std::vector<std::string>& strings) {
    std::string data;
    for (const auto& s : strings) data += static_cast<char>(s.size()) + s;
    return data;
  }
  static std::string Name(const std::string& dotted) {
    std::string wire;
    size_t start = 0;
    while (start < dotted.size()) {
      size_t dot = dotted.find('.', start);
      if (dot == std::string::npos) dot = dotted.size();
      wire += static_cast<char>(dot - start) + dotted.substr(start, dot - start);
      start = dot + 1;
    }
    return wire + '\0';
  }

 private:
  static std::string Lower(std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
  }
  static void Put16(std::string& out, unsigned v) {
    out += static_cast<char>(v >> 8);
    out += static_cast<char>(v & 0xFF);
  }

  void Serve() {
    for (;;) {
      pollfd fds[2] = {{socket_, POLLIN, 0}, {stop_[0], POLLIN, 0}};
      if (::poll(fds, 2, -1) < 0 || (fds[1].revents & POLLIN)) return;
      unsigned char query[512];
      sockaddr_in peer{};
      socklen_t peer_size = sizeof peer;
      const ssize_t n = ::recvfrom(socket_, query, sizeof query, 0, reinterpret_cast<sockaddr*>(&peer), &peer_size);
      if (n < 17) continue;
      // The question: labels up to the root, then type and class.
      std::string name;
      size_t at = 12;
      while (at < static_cast<size_t>(n) && query[at] != 0) {
        const size_t len = query[at];
        if (at + 1 + len > static_cast<size_t>(n)) break;
        if (!name.empty()) name += '.';
        name.append(reinterpret_cast<const char*>(query + at + 1), len);
        at += 1 + len;
      }
      const size_t question_end = at + 5;
      if (question_end > static_cast<size_t>(n)) continue;
      std::optional<std::vector<Record>> records;
      {
        std::lock_guard<std::mutex> lock(zone_mutex_);
        for (const auto& entry : zone_)
          if (entry.first == Lower(name)) records = entry.second;
      }

      std::string reply(reinterpret_cast<const char*>(query), 2);  // the query's id
      Put16(reply, records ? 0x8180 : 0x8183);                      // an answer, or no such name
      Put16(reply, 1);
      Put16(reply, records ? static_cast<unsigned>(records->size()) : 0);
      Put16(reply, 0);
      Put16(reply, 0);
      reply.append(reinterpret_cast<const char*>(query + 12), question_end - 12);
      for (const Record& r : records ? *records : std::vector<Record>{}) {
        Put16(reply, 0xC00C);  // the question's name
        Put16(reply, static_cast<unsigned>(r.type));
        Put16(reply, 1);
        Put16(reply, 0);
        Put16(reply, 60);
        Put16(reply, static_cast<unsigned>(r.data.size()));
        reply += r.data;
      }
      ::sendto(socket_, reply.data(), reply.size(), 0, reinterpret_cast<sockaddr*>(&peer), peer_size);
    }
  }

  int socket_ = -1;
  int stop_[2] = {-1, -1};
  std::uint16_t port_ = 0;
  std::mutex zone_mutex_;
  std::vector<std::pair<std::string, std::vector<Record>>> zone_;
  std::thread thread_;
};

class SystemResolver : public SystemDirectory {
 protected:
  void SetUp() override {
    SystemDirectory::SetUp();
    ASSERT_NE(server_.port(), 0);
    ASSERT_TRUE(os::SetDnsServerForTest("127.0.0.1", server_.port()));
  }
  void TearDown() override {
    os::SetDnsServerForTest("", 0);
    SystemDirectory::TearDown();
  }
  LoopbackDns server_;
};

TEST_F(SystemResolver, AnswersWithTheFirstRecordOnly) {
  server_.Add("tws-b-c.b.c", {{16, LoopbackDns::Txt({"tdoc.b.com", "caf\xC3\xA9"})}, {16, LoopbackDns::Txt({"x"})}});
  server_.Add("cname.b.c", {{5, LoopbackDns::Name("tws-b-c.b.c")}, {16, LoopbackDns::Txt({"tdoc.b.com"})}});
  // A string whose length runs past its record is not read.
  server_.Add("broken.b.c", {{16, std::string("\x03one\x09two", 8)}});
  server_.Add("empty.b.c", {});

  struct Case {
    const char* name;
    long rc;
    int type;
    std::vector<std::u16string> strings;
  };
  const Case cases[] = {{"TWS-B-C.b.c", 0, 16, {u"tdoc.b.com", u"caf\u00e9"}},
                        {"cname.b.c", 0, 5, {}},
                        {"broken.b.c", 0, 16, {u"one"}},
                        {"empty.b.c", 4, 0, {}},
                        {"missing.b.c", 1, 0, {}}};
  for (const Case& c : cases) {
    os::DnsTxtAnswer answer;
    EXPECT_EQ(os::Dns().QueryTxt(Utf8ToUtf16(c.name), answer), c.rc) << c.name;
    EXPECT_EQ(answer.first_type, c.type) << c.name;
    EXPECT_EQ(answer.strings, c.strings) << c.name;
  }
  EXPECT_FALSE(os::Dns().DescribeError(1).empty());
}

TEST_F(SystemResolver, KerberosUserFindsTheHostHisRealmPublishes) {
  // The user's default credential cache names the principal ann@EXAMPLE.TEST.
  const std::string cache = "FILE:" + (krb5_.path() / "cache").u8string();
  testkit::ScopedEnv use_cache("KRB5CCNAME", cache);
  testkit::WriteFile(krb5_.path() / "no-config", "");
  krb5_context context = nullptr;
  ASSERT_EQ(krb5_init_context(&context), 0);
  krb5_ccache ccache = nullptr;
  krb5_principal principal = nullptr;
  ASSERT_EQ(krb5_cc_resolve(context, cache.c_str(), &ccache), 0);
  ASSERT_EQ(krb5_parse_name(context, "ann@EXAMPLE.TEST", &principal), 0);
  ASSERT_EQ(krb5_cc_initialize(context, ccache, principal), 0);
  krb5_free_principal(context, principal);
  krb5_cc_close(context, ccache);
  krb5_free_context(context);

  server_.Add("tws-example-test.example.test", {{16, LoopbackDns::Txt({"https://tdoc.example.test"})}});
  NewLoggingPlatform();
  EXPECT_EQ(Slot5(), (Found{TDC_HRESULT_OK, u"https://tdoc.example.test"}));
  EXPECT_EQ(Slot6(), (Found{TDC_HRESULT_OK, std::nullopt}));
  EXPECT_TRUE(Logged("The domain user name is = ann@EXAMPLE.TEST."));
  EXPECT_TRUE(Logged("The DNS TXT new name is = tws-EXAMPLE-TEST.EXAMPLE.TEST."));
  EXPECT_TRUE(Logged("The DNS TXT name is = tws-internal-update.EXAMPLE.TEST."));
  EXPECT_TRUE(Logged("DnsQuery_W failed. Error code = 1."));
}

#endif

}  // namespace
}  // namespace discovery
