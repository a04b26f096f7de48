#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <string.h>
#include <sys/socket.h>

#include "osalnet.h"

std::string osal_primaryInterfaceName(const struct ifaddrs* list) {
  for (const struct ifaddrs* it = list; it != nullptr; it = it->ifa_next) {
    if (it->ifa_name != nullptr && (it->ifa_flags & IFF_UP) != 0 && (it->ifa_flags & IFF_LOOPBACK) == 0) {
      return it->ifa_name;
    }
  }
  return std::string();
}

bool osal_linkLayerAddress(const struct sockaddr* sa, unsigned char* out6) {
  if (sa->sa_family != AF_PACKET) return false;
  const auto* ll = reinterpret_cast<const struct sockaddr_ll*>(sa);
  if (ll->sll_halen != 6) return false;
  memcpy(out6, ll->sll_addr, 6);
  return true;
}
