#pragma once

#include <string>

struct ifaddrs;
struct sockaddr;

// Network identity of the machine. The "primary" interface is "en0" on
// macOS; Linux has no such fixed name, so there it is the first interface
// that is up and is not a loopback. None of these functions throws.

// The primary interface's hardware address as "%02X:%02X:%02X:%02X:%02X:%02X",
// or an empty string.
std::string osal_getMACAddress();
// The primary interface's first IPv4 / IPv6 address in text form, or "".
std::string osal_getIPv4Address();
std::string osal_getIPv6Address();

// Six bytes of a real hardware address (neither all zero nor all 0xFF):
// the primary interface's when it has one, else the first interface's that
// has one. False when no interface has any.
bool getMACAddress(unsigned char* out6);

// True for "127.*", "::1", "localhost" in any case, this machine's host name,
// and any name whose part before the first '.' equals the host name's, in
// any case.
bool isHostLocal(const char* host);

// --- the same answers over a given interface list, so they can be checked
// without the machine's own interfaces ---------------------------------------

enum class OSAL_AddrKind { Link, IPv4, IPv6 };

// The first address of kind on the interface called name, formatted as the
// functions above do; "" when there is none.
std::string osal_interfaceAddressText(const struct ifaddrs* list, const char* name, OSAL_AddrKind kind);
bool osal_pickMACAddress(const struct ifaddrs* list, const char* primary, unsigned char* out6);

// --- one definition per platform -------------------------------------------

// The primary interface's name within list ("" when there is none).
std::string osal_primaryInterfaceName(const struct ifaddrs* list);
// True, with the six bytes, when sa is a link-layer address of six bytes.
bool osal_linkLayerAddress(const struct sockaddr* sa, unsigned char* out6);
