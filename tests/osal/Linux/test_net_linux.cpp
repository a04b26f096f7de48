// The interface selection over hand-made lists with Linux's link-layer
// addresses, and the os-release reading.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <net/if.h>

#include <cstring>
#include <tuple>

#include "TestSupport.h"
#include "osal_sysinfo_linux.h"
#include "osalnet.h"

using namespace std::string_literals;
constexpr unsigned kUp = IFF_UP, kLoop = IFF_UP | IFF_LOOPBACK;

// An ifaddrs chain; each address is IPv4 or IPv6 text, link-layer bytes
// after "ll", or empty for none.
struct Interfaces {
  std::vector<ifaddrs> list;
  std::vector<sockaddr_storage> addrs;
  Interfaces(std::initializer_list<std::tuple<const char*, unsigned, std::string>> rows)
      : list(rows.size()), addrs(rows.size()) {
    for (size_t i = 0; i < rows.size(); ++i) {
      const auto& [name, flags, addr] = rows.begin()[i];
      auto* ll = reinterpret_cast<sockaddr_ll*>(&addrs[i]);  // every family's field lies where sll_family does
      list[i].ifa_next = i + 1 < rows.size() ? &list[i + 1] : nullptr;
      list[i].ifa_name = const_cast<char*>(name), list[i].ifa_flags = flags;
      list[i].ifa_addr = addr.empty() ? nullptr : reinterpret_cast<sockaddr*>(ll);
      if (inet_pton(AF_INET, addr.c_str(), &reinterpret_cast<sockaddr_in*>(ll)->sin_addr) == 1) {
        ll->sll_family = AF_INET;
      } else if (inet_pton(AF_INET6, addr.c_str(), &reinterpret_cast<sockaddr_in6*>(ll)->sin6_addr) == 1) {
        ll->sll_family = AF_INET6;
      } else if (addr.size() > 2) {
        ll->sll_family = AF_PACKET;
        ll->sll_halen = static_cast<unsigned char>(addr.size() - 2);
        memcpy(ll->sll_addr, addr.data() + 2, addr.size() - 2);
      }
    }
  }
  std::string picked(const char* primary) const {
    unsigned char m[6];
    return osal_pickMACAddress(list.data(), primary, m) ? "ll"s.append(reinterpret_cast<char*>(m), 6) : "none";
  }
};

// The primary interface is the first that is up and not a loopback; a named
// interface gives its first address of each kind; the hardware address is
// the primary's, else the first real one (zero and broadcast ones do
// not count).
TEST(InterfaceSelection, PrimaryAddressesAndHardwareAddress) {
  const std::string eth0 = "ll\x0a\xbc\xde\xf0\x12\x34", wlan0 = "ll\x02\x11\x22\x33\x44\x55";
  const Interfaces host{{"lo", kLoop, "ll\0\0\0\0\0\0"s},
                        {"tun0", kUp, "ll\xff\xff\xff\xff\xff\xff"},
                        {"wlan0", 0, wlan0},
                        {"eth0", kUp, eth0},
                        {"lo", kLoop, "127.0.0.1"},
                        {"eth0", kUp, ""},
                        {"eth0", kUp, "192.168.1.20"},
                        {"eth0", kUp, "192.168.1.21"},
                        {"eth0", kUp, "fe80::abc:def0:1234"}};
  std::string got = osal_primaryInterfaceName(host.list.data()) + "|";
  for (const char* name : {"eth0", "en0", ""}) {
    for (auto kind : {OSAL_AddrKind::Link, OSAL_AddrKind::IPv4, OSAL_AddrKind::IPv6}) {
      got += osal_interfaceAddressText(host.list.data(), name, kind) + "|";
    }
  }
  EXPECT_EQ(got, "tun0|0A:BC:DE:F0:12:34|192.168.1.20|fe80::abc:def0:1234|||||||");
  EXPECT_EQ(osal_primaryInterfaceName(Interfaces{{"lo", kLoop, ""}, {"eth0", 0, ""}}.list.data()), "");
  EXPECT_EQ(host.picked("eth0") + host.picked("en0") + host.picked("tun0"), eth0 + wlan0 + wlan0);
  EXPECT_EQ(Interfaces({{"lo", kLoop, "ll\0\0\0\0\0\0"s}, {"eth0", kUp, "10.0.0.1"}}).picked("eth0") +
                Interfaces({{"x", kUp, "ll\x01\0\0\0\0\0"s}}).picked("x"),
            "nonell\x01\0\0\0\0\0"s);  // a first byte alone makes an address real
}

// PRETTY_NAME first, else NAME and VERSION_ID, with shell quoting undone.
TEST(OsRelease, PrettyNameFirstThenNameAndVersion) {
  TempDir dir;
  std::string got;
  for (const char* content : {"NAME=\"Debian\"\nVERSION_ID=\"12\"\nPRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\n",
                              "# comment\nNAME='Alpine Linux'\nVERSION_ID=3.20.1\n", "NAME=Arch\n",
                              "PRETTY_NAME=\"Say \\\"hi\\\"\\\\\"\nNAME=x\n", "PRETTY_NAME=\"\nNAME='\n",
                              "PRETTY_NAME=\"\"\nNAME=Arch\n", "ID=debian\nVERSION_ID=12\n"}) {
    char out[64] = "untouched";
    writeFile(dir.file("os-release"), content);
    got += std::to_string(osal_releaseNameFromOsRelease(dir.file("os-release").c_str(), out, sizeof out)) + out + "|";
  }
  char out[64] = "untouched";
  got += std::to_string(osal_releaseNameFromOsRelease(dir.file("missing").c_str(), out, sizeof out)) + out;
  EXPECT_EQ(got,
            "1Debian GNU/Linux 12 (bookworm)|1Alpine Linux 3.20.1|1Arch|1Say \"hi\"\\|1\"|1Arch|0untouched|0untouched");
}
