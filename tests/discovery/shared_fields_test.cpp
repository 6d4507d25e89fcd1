// Slot 10 takes no look-up lock, yet reads the configuration file and asks DNS as
// slot 5 does under that lock: the fields both write (domain suffix, application
// type, the DNS host) are never touched by two threads at once.
#include <thread>

#include "discovery_fixture.h"

namespace discovery {
namespace {

TEST_F(DiscoveryTest, SlotTenBesideSlotFiveSharesTheConfigurationFields) {
  directory_.JoinDomain(u"ann@b.c");
  // Texts longer than any short-string buffer, so each assignment frees the old one.
  directory_.Publish(u"tws-b-c.configured-suffix.example.com", tpcsdk::os::kDnsTypeText,
                     {u"https://dns.example.com"});
  WriteConfig(R"({"env":"","tDocDomain":"configured-suffix.example.com",)"
              R"("appType":"an application type of some length"})");
  for (int round = 0; round < 10; ++round) {
    NewPlatform();
    std::thread service([&] {
      for (int i = 0; i < 20; ++i) EXPECT_EQ(Slot5().host, u"https://dns.example.com");
    });
    for (int i = 0; i < 20; ++i) EXPECT_EQ(Slot10(u"Tarvo Reader"), 1);
    service.join();
  }
}

}  // namespace
}  // namespace discovery
