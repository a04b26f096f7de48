// The interface selection over hand-made lists with Linux's link-layer
// addresses, and the os-release reading.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <net/if.h>

#include <cstring>
#include <deque>
#include <string>

#include "TempDir.h"
#include "osal_sysinfo_linux.h"
#include "osalnet.h"

namespace {

// An ifaddrs chain that owns its entries and addresses (deques keep them in
// place while growing).
class FakeInterfaces {
 public:
  FakeInterfaces& link(const char* name, unsigned flags, std::initializer_list<unsigned char> mac) {
    sockaddr_ll& ll = _ll.emplace_back();
    ll.sll_family = AF_PACKET;
    ll.sll_halen = static_cast<unsigned char>(mac.size());
    std::copy(mac.begin(), mac.end(), ll.sll_addr);
    return add(name, flags, reinterpret_cast<sockaddr*>(&ll));
  }
  FakeInterfaces& ip(const char* name, unsigned flags, const char* text) {
    sockaddr_storage& ss = _ip.emplace_back();
    auto* in = reinterpret_cast<sockaddr_in*>(&ss);
    auto* in6 = reinterpret_cast<sockaddr_in6*>(&ss);
    if (inet_pton(AF_INET, text, &in->sin_addr) == 1) {
      in->sin_family = AF_INET;
    } else {
      in6->sin6_family = AF_INET6;
      inet_pton(AF_INET6, text, &in6->sin6_addr);
    }
    return add(name, flags, reinterpret_cast<sockaddr*>(&ss));
  }
  FakeInterfaces& add(const char* name, unsigned flags, sockaddr* addr) {
    ifaddrs& e = _entries.emplace_back();
    e.ifa_name = const_cast<char*>(name);
    e.ifa_flags = flags;
    e.ifa_addr = addr;
    if (_entries.size() > 1) _entries[_entries.size() - 2].ifa_next = &e;
    return *this;
  }
  const ifaddrs* list() const { return &_entries.front(); }

 private:
  std::deque<ifaddrs> _entries;
  std::deque<sockaddr_ll> _ll;
  std::deque<sockaddr_storage> _ip;
};

constexpr unsigned kUp = IFF_UP;
constexpr unsigned kLoop = IFF_UP | IFF_LOOPBACK;

std::string picked(const FakeInterfaces& f, const char* primary) {
  unsigned char m[6];
  if (!osal_pickMACAddress(f.list(), primary, m)) return "none";
  char t[18];
  snprintf(t, sizeof t, "%02X:%02X:%02X:%02X:%02X:%02X", m[0], m[1], m[2], m[3], m[4], m[5]);
  return t;
}

class InterfaceSelection : public ::testing::Test {
 protected:
  void SetUp() override {
    host.link("lo", kLoop, {0, 0, 0, 0, 0, 0})
        .link("wlan0", 0, {0x02, 0x11, 0x22, 0x33, 0x44, 0x55})  // down
        .link("tun0", kUp, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF})
        .link("eth0", kUp, {0x0a, 0xbc, 0xde, 0xf0, 0x12, 0x34})
        .ip("lo", kLoop, "127.0.0.1")
        .add("eth0", kUp, nullptr)
        .ip("eth0", kUp, "192.168.1.20")
        .ip("eth0", kUp, "192.168.1.21")
        .ip("eth0", kUp, "fe80::abc:def0:1234");
  }
  FakeInterfaces host;
};

TEST_F(InterfaceSelection, PrimaryIsTheFirstUpNonLoopbackInterface) {
  EXPECT_EQ(osal_primaryInterfaceName(host.list()), "tun0");
  FakeInterfaces onlyLoopback;
  onlyLoopback.link("lo", kLoop, {0, 0, 0, 0, 0, 0});
  EXPECT_EQ(osal_primaryInterfaceName(onlyLoopback.list()), "");
}

TEST_F(InterfaceSelection, NamedInterfaceGivesTheFirstAddressOfEachFamily) {
  EXPECT_EQ(osal_interfaceAddressText(host.list(), "eth0", OSAL_AddrKind::Link), "0A:BC:DE:F0:12:34");
  EXPECT_EQ(osal_interfaceAddressText(host.list(), "eth0", OSAL_AddrKind::IPv4), "192.168.1.20");
  EXPECT_EQ(osal_interfaceAddressText(host.list(), "eth0", OSAL_AddrKind::IPv6), "fe80::abc:def0:1234");
  for (auto kind : {OSAL_AddrKind::Link, OSAL_AddrKind::IPv4, OSAL_AddrKind::IPv6}) {
    EXPECT_EQ(osal_interfaceAddressText(host.list(), "en0", kind), "");  // no such interface
    EXPECT_EQ(osal_interfaceAddressText(host.list(), "", kind), "");     // no primary at all
  }
}

TEST_F(InterfaceSelection, HardwareAddressPrefersThePrimaryOverTheFirstRealOne) {
  EXPECT_EQ(picked(host, "eth0"), "0A:BC:DE:F0:12:34");
  EXPECT_EQ(picked(host, "en0"), "02:11:22:33:44:55");  // zero and broadcast addresses skipped
  FakeInterfaces none;
  none.link("lo", kLoop, {0, 0, 0, 0, 0, 0}).ip("eth0", kUp, "10.0.0.1");
  EXPECT_EQ(picked(none, "eth0"), "none");
}

TEST(OsRelease, PrettyNameFirstThenNameAndVersion) {
  TempDir dir;
  const std::string path = dir.file("os-release");
  char out[64] = "untouched";
  const struct {
    const char* content;
    const char* name;
  } cases[] = {
      {"NAME=\"Debian GNU/Linux\"\nVERSION_ID=\"12\"\nPRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\n",
       "Debian GNU/Linux 12 (bookworm)"},
      {"# comment\nNAME='Alpine Linux'\nVERSION_ID=3.20.1\n", "Alpine Linux 3.20.1"},
      {"PRETTY_NAME=\"Say \\\"hi\\\"\"\n", "Say \"hi\""},
  };
  for (const auto& c : cases) {
    writeFile(path, c.content);
    ASSERT_TRUE(osal_releaseNameFromOsRelease(path.c_str(), out, sizeof out)) << c.content;
    EXPECT_STREQ(out, c.name);
  }
  strcpy(out, "untouched");
  writeFile(path, "ID=debian\n");
  EXPECT_FALSE(osal_releaseNameFromOsRelease(path.c_str(), out, sizeof out));
  EXPECT_FALSE(osal_releaseNameFromOsRelease(dir.file("missing").c_str(), out, sizeof out));
  EXPECT_STREQ(out, "untouched");
}

}  // namespace
