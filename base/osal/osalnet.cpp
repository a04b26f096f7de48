#include "osalnet.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <stdio.h>
#include <string.h>
#include <strings.h>
#include <unistd.h>

namespace {
constexpr size_t kHostNameSize = 128;

bool isRealHardwareAddress(const unsigned char* mac) {
  bool allZero = true;
  bool allOnes = true;
  for (int i = 0; i < 6; ++i) {
    allZero = allZero && mac[i] == 0x00;
    allOnes = allOnes && mac[i] == 0xFF;
  }
  return !allZero && !allOnes;
}

std::string formatMac(const unsigned char* m) {
  char text[18];
  snprintf(text, sizeof text, "%02X:%02X:%02X:%02X:%02X:%02X", m[0], m[1], m[2], m[3], m[4], m[5]);
  return text;
}

// Formats the entry's address when it is of kind; "" otherwise.
std::string addressText(const struct sockaddr* sa, OSAL_AddrKind kind) {
  if (sa == nullptr) return std::string();
  switch (kind) {
    case OSAL_AddrKind::Link: {
      unsigned char mac[6];
      return osal_linkLayerAddress(sa, mac) ? formatMac(mac) : std::string();
    }
    case OSAL_AddrKind::IPv4: {
      if (sa->sa_family != AF_INET) return std::string();
      char text[INET_ADDRSTRLEN];
      const auto* in = reinterpret_cast<const struct sockaddr_in*>(sa);
      return inet_ntop(AF_INET, &in->sin_addr, text, sizeof text) != nullptr ? text : std::string();
    }
    case OSAL_AddrKind::IPv6: {
      if (sa->sa_family != AF_INET6) return std::string();
      char text[INET6_ADDRSTRLEN];
      const auto* in6 = reinterpret_cast<const struct sockaddr_in6*>(sa);
      return inet_ntop(AF_INET6, &in6->sin6_addr, text, sizeof text) != nullptr ? text : std::string();
    }
  }
  return std::string();
}

std::string primaryAddressText(OSAL_AddrKind kind) {
  struct ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return std::string();
  std::string text = osal_interfaceAddressText(list, osal_primaryInterfaceName(list).c_str(), kind);
  freeifaddrs(list);
  return text;
}

std::string shortName(const char* name) {
  const char* dot = strchr(name, '.');
  return dot != nullptr ? std::string(name, static_cast<size_t>(dot - name)) : std::string(name);
}
}  // namespace

std::string osal_interfaceAddressText(const struct ifaddrs* list, const char* name, OSAL_AddrKind kind) {
  if (name == nullptr || *name == '\0') return std::string();
  for (const struct ifaddrs* it = list; it != nullptr; it = it->ifa_next) {
    if (it->ifa_name == nullptr || strcmp(it->ifa_name, name) != 0) continue;
    std::string text = addressText(it->ifa_addr, kind);
    if (!text.empty()) return text;
  }
  return std::string();
}

bool osal_pickMACAddress(const struct ifaddrs* list, const char* primary, unsigned char* out6) {
  bool found = false;
  for (const struct ifaddrs* it = list; it != nullptr; it = it->ifa_next) {
    unsigned char mac[6];
    if (it->ifa_addr == nullptr || !osal_linkLayerAddress(it->ifa_addr, mac) || !isRealHardwareAddress(mac)) continue;
    const bool isPrimary = it->ifa_name != nullptr && primary != nullptr && strcmp(it->ifa_name, primary) == 0;
    if (!found || isPrimary) memcpy(out6, mac, 6);
    found = true;
    if (isPrimary) break;
  }
  return found;
}

std::string osal_getMACAddress() { return primaryAddressText(OSAL_AddrKind::Link); }
std::string osal_getIPv4Address() { return primaryAddressText(OSAL_AddrKind::IPv4); }
std::string osal_getIPv6Address() { return primaryAddressText(OSAL_AddrKind::IPv6); }

bool getMACAddress(unsigned char* out6) {
  struct ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return false;
  const bool found = osal_pickMACAddress(list, osal_primaryInterfaceName(list).c_str(), out6);
  freeifaddrs(list);
  return found;
}

bool isHostLocal(const char* host) {
  if (host == nullptr) return false;
  if (strncmp(host, "127.", 4) == 0 || strcmp(host, "::1") == 0 || strcasecmp(host, "localhost") == 0) return true;
  char self[kHostNameSize] = {};
  if (gethostname(self, sizeof self - 1) != 0) return false;
  if (strcmp(host, self) == 0) return true;
  return strcasecmp(shortName(host).c_str(), shortName(self).c_str()) == 0;
}
