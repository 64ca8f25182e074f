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
    unsigned int index = 0;              // kernel interface index; 0 unknown
    unsigned int mtu = 0;                // bytes; 0 unknown
};

// Why an address is left out. One row per code in kExclusions.
enum class Exclusion {
    denied,
    notAllowed,
    loopback,
    notUp,
    notRunning,
    overMaxCount,
    noMulticast,
    multicastDenied,
    multicastNotAllowed,
};

struct ExclusionRow {
    Exclusion code;
    const char *text;
};

inline constexpr ExclusionRow kExclusions[] = {
    {Exclusion::denied, "in the deny list"},
    {Exclusion::notAllowed, "not in the allow list"},
    {Exclusion::loopback, "loopback ignored"},
    {Exclusion::notUp, "not up"},
    {Exclusion::notRunning, "not running"},
    {Exclusion::overMaxCount, "over max_interface_count"},
    {Exclusion::noMulticast, "no multicast (IFF_MULTICAST not set)"},
    {Exclusion::multicastDenied, "in the multicast deny list"},
    {Exclusion::multicastNotAllowed, "not in the multicast allow list"},
};

const char *exclusionText(Exclusion code);

struct ExcludedInterface {
    InterfaceCandidate candidate;
    Exclusion reason;
};

// The outcome of one selection: what is used, in the documented order, and
// every address of the transport's families that was left out, with why.
struct Selection {
    std::vector<InterfaceCandidate> selected;
    std::vector<ExcludedInterface> excluded;
};

// True when a list entry names this interface. Forms: a name or address
// text compared exactly; a pattern with '*' or '?' (fnmatch) over the name
// or the address text; an address range "a.b.c.d/n" or "x::/n" that holds
// the address (a range never matches an address of the other family).
bool matchesInterfaceEntry(const char *entry, const InterfaceCandidate &candidate);
bool matchesInterfaceEntry(const char *entry, const std::string &name,
                           const std::string &address_text);

// The address as text ("192.0.2.1", "fd00::2"), per the candidate's family.
std::string addressText(const InterfaceCandidate &candidate);

// The candidates that a plugin with this record uses, ordered by interface
// index, then IPv4 before IPv6, then address bytes. ipv6 selects the UDPv6
// rules (IPv6 addresses, plus IPv4 ones as ::ffff:a.b.c.d when
// enable_v4mapped is set); otherwise IPv4 only.
Selection selectInterfacesWithReasons(const std::vector<InterfaceCandidate> &candidates,
                                      const VESK_Transport_UDP_Property_t &property, bool ipv6);
std::vector<InterfaceCandidate> selectInterfaces(const std::vector<InterfaceCandidate> &candidates,
                                                 const VESK_Transport_UDP_Property_t &property,
                                                 bool ipv6);

// The interfaces multicast groups are joined on: the same rules with the
// multicast allow and deny lists in place of the unicast ones, then
// IFF_MULTICAST required.
Selection selectMulticastInterfaces(const std::vector<InterfaceCandidate> &candidates,
                                    const VESK_Transport_UDP_Property_t &property, bool ipv6);

// Writes the selection at the status level (KEL_LOG_BIT_LOCAL): one message
// per selected and per excluded address, "<class> <what> uses ..." and
// "<class> <what> leaves out ...: <reason>".
void logSelection(const Selection &selection, const char *what, const char *function,
                  const char *class_name) noexcept;

// This host's interface addresses (getifaddrs), with index and MTU. False
// when the host cannot be asked.
bool enumerateHostInterfaces(std::vector<InterfaceCandidate> &out);

// What a transport with this record would use on this host, for the tool:
// the unicast selection and the multicast one. False when the host cannot
// be asked.
bool describeHostSelection(const VESK_Transport_UDP_Property_t &property, bool ipv6,
                           Selection &unicast_out, Selection &multicast_out);

}  // namespace vesk::udp
