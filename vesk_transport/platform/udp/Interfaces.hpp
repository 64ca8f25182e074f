// Selection of the network interfaces that a UDP plugin uses (internal to
// the UDP transport module; the rules are in docs/udp-transport.md). Kept
// apart from the host enumeration so that the rules can be exercised on
// any list of interfaces.
#pragma once

#include <string>
#include <vector>

#include "vesk_transport/platform/Udp.h"

namespace vesk::udp {

// One address of one interface, as the host reports it.
struct InterfaceCandidate {
    std::string name;
    int family = 0;                      // AF_INET or AF_INET6
    VESK_Transport_Address_t address{};  // IPv4: last four bytes, rest zero
    unsigned int flags = 0;              // IFF_UP, IFF_RUNNING, IFF_LOOPBACK, ...
};

// True when a list entry names this interface: the entry equals the name or
// the address text, or ends with '*' and the rest is a prefix of either.
bool matchesInterfaceEntry(const char *entry, const std::string &name,
                           const std::string &address_text);

// The address as text ("192.0.2.1", "fd00::2"), per the candidate's family.
std::string addressText(const InterfaceCandidate &candidate);

// The candidates that a plugin with this record uses, in the given order.
// ipv6 selects the UDPv6 rules (IPv6 addresses, plus IPv4 ones as
// ::ffff:a.b.c.d when enable_v4mapped is set); otherwise IPv4 only.
std::vector<InterfaceCandidate> selectInterfaces(const std::vector<InterfaceCandidate> &candidates,
                                                 const VESK_Transport_UDP_Property_t &property,
                                                 bool ipv6);

// This host's interface addresses (getifaddrs). False when the host cannot
// be asked.
bool enumerateHostInterfaces(std::vector<InterfaceCandidate> &out);

}  // namespace vesk::udp
