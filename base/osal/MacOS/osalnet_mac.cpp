#include <ifaddrs.h>
#include <net/if_dl.h>
#include <string.h>
#include <sys/socket.h>

#include "osalnet.h"

// The built-in interface always has this name on a Mac.
std::string osal_primaryInterfaceName(const struct ifaddrs* /*list*/) { return "en0"; }

bool osal_linkLayerAddress(const struct sockaddr* sa, unsigned char* out6) {
  if (sa->sa_family != AF_LINK) return false;
  const auto* dl = reinterpret_cast<const struct sockaddr_dl*>(sa);
  if (dl->sdl_alen != 6) return false;
  memcpy(out6, LLADDR(dl), 6);
  return true;
}
