// Interface enumeration and selection of the UDP transports (rules in
// docs/udp-transport.md).
#include "vesk_transport/platform/udp/Interfaces.hpp"

#include <arpa/inet.h>
#include <fnmatch.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>
#include <string_view>

#include "vesk_transport/platform/Log.h"

namespace vesk::udp {

const char *exclusionText(Exclusion code) {
    for (const ExclusionRow &row : kExclusions) {
        if (row.code == code) return row.text;
    }
    return "unknown";
}

namespace {

// "a.b.c.d/n" or "x::/n": the network bytes (16, IPv4 in the last four as
// in VESK_Transport_Address_t), the family and the prefix length.
struct Range {
    int family = 0;
    unsigned char bytes[16] = {};
    int bits = 0;
};

bool parseRange(std::string_view text, Range &out) {
    const size_t slash = text.find('/');
    if (slash == std::string_view::npos || slash + 1 >= text.size()) return false;
    const std::string address(text.substr(0, slash));
    const std::string bits(text.substr(slash + 1));
    char *end = nullptr;
    const long value = std::strtol(bits.c_str(), &end, 10);
    if (end == bits.c_str() || *end != '\0' || value < 0) return false;
    if (inet_pton(AF_INET, address.c_str(), out.bytes + 12) == 1) {
        out.family = AF_INET;
        out.bits = static_cast<int>(value);
        return value <= 32;
    }
    if (inet_pton(AF_INET6, address.c_str(), out.bytes) == 1) {
        out.family = AF_INET6;
        out.bits = static_cast<int>(value);
        return value <= 128;
    }
    return false;
}

bool inRange(const Range &range, const InterfaceCandidate &candidate) {
    if (range.family != candidate.family) return false;
    const int first = range.family == AF_INET ? 12 : 0;
    const unsigned char *address = candidate.address.network_ordered_value;
    for (int bit = 0; bit < range.bits; ++bit) {
        const int byte = first + bit / 8;
        const unsigned char mask = static_cast<unsigned char>(0x80u >> (bit % 8));
        if ((address[byte] & mask) != (range.bytes[byte] & mask)) return false;
    }
    return true;
}

bool isPattern(std::string_view text) {
    return text.find_first_of("*?[") != std::string_view::npos;
}

bool listed(char *const *list, KEL_INT32 length, const InterfaceCandidate &candidate) {
    for (KEL_INT32 i = 0; list != nullptr && i < length; ++i) {
        if (matchesInterfaceEntry(list[i], candidate)) return true;
    }
    return false;
}

// The documented order: interface index, IPv4 before IPv6, address bytes.
bool before(const InterfaceCandidate &a, const InterfaceCandidate &b) {
    if (a.index != b.index) return a.index < b.index;
    if (a.family != b.family) return a.family == AF_INET;
    return std::memcmp(a.address.network_ordered_value, b.address.network_ordered_value, 16) < 0;
}

// The per-address rules, in the order in which they are reported; the deny
// list comes first, so it wins over the allow list.
struct Rule {
    Exclusion reason;
    bool (*excludes)(const InterfaceCandidate &, const VESK_Transport_UDP_Property_t &);
};

constexpr Rule kRules[] = {
    {Exclusion::denied,
     [](const InterfaceCandidate &c, const VESK_Transport_UDP_Property_t &p) {
         return listed(p.parent.deny_interfaces_list, p.parent.deny_interfaces_list_length, c);
     }},
    {Exclusion::notAllowed,
     [](const InterfaceCandidate &c, const VESK_Transport_UDP_Property_t &p) {
         return p.parent.allow_interfaces_list_length > 0 &&
                !listed(p.parent.allow_interfaces_list, p.parent.allow_interfaces_list_length, c);
     }},
    {Exclusion::loopback,
     [](const InterfaceCandidate &c, const VESK_Transport_UDP_Property_t &p) {
         return p.ignore_loopback_interface > 0 && (c.flags & IFF_LOOPBACK) != 0;
     }},
    {Exclusion::notUp,
     [](const InterfaceCandidate &c, const VESK_Transport_UDP_Property_t &p) {
         return p.ignore_nonup_interfaces != 0 && (c.flags & IFF_UP) == 0;
     }},
    {Exclusion::notRunning,
     [](const InterfaceCandidate &c, const VESK_Transport_UDP_Property_t &p) {
         return p.ignore_nonrunning_interfaces != 0 && (c.flags & IFF_RUNNING) == 0;
     }},
};

template <size_t N>
void applyRules(const Rule (&rules)[N], const InterfaceCandidate &candidate,
                const VESK_Transport_UDP_Property_t &property, Selection &out) {
    for (const Rule &rule : rules) {
        if (rule.excludes(candidate, property)) {
            out.excluded.push_back({candidate, rule.reason});
            return;
        }
    }
    out.selected.push_back(candidate);
}

void statusLine(const char *function, const char *text) noexcept {
    KELLogMessageParamString_printWithParams(-1, KEL_LOG_BIT_LOCAL, VESK_TRANSPORT_LOG_MODULE_ID,
                                             __FILE__, __LINE__, function,
                                             &KEL_LOG_TRANSPORT_STATUS_TEMPLATE, "%s", text);
}

}  // namespace

bool matchesInterfaceEntry(const char *entry, const InterfaceCandidate &candidate) {
    if (entry == nullptr) return false;
    const std::string_view text(entry);
    if (text.find('/') != std::string_view::npos) {
        Range range;
        return parseRange(text, range) && inRange(range, candidate);
    }
    return matchesInterfaceEntry(entry, candidate.name, addressText(candidate));
}

bool matchesInterfaceEntry(const char *entry, const std::string &name,
                           const std::string &address_text) {
    if (entry == nullptr) return false;
    const std::string_view text(entry);
    if (isPattern(text)) {
        return fnmatch(entry, name.c_str(), 0) == 0 || fnmatch(entry, address_text.c_str(), 0) == 0;
    }
    return text == name || text == address_text;
}

std::string addressText(const InterfaceCandidate &candidate) {
    char text[INET6_ADDRSTRLEN] = {};
    const unsigned char *bytes = candidate.address.network_ordered_value;
    const bool v4 = candidate.family == AF_INET;
    if (inet_ntop(v4 ? AF_INET : AF_INET6, v4 ? bytes + 12 : bytes, text, sizeof text) == nullptr) {
        return {};
    }
    return text;
}

Selection selectInterfacesWithReasons(const std::vector<InterfaceCandidate> &candidates,
                                      const VESK_Transport_UDP_Property_t &property, bool ipv6) {
    std::vector<InterfaceCandidate> ordered;
    for (const InterfaceCandidate &candidate : candidates) {
        const bool family =
            candidate.family == AF_INET6
                ? ipv6
                : candidate.family == AF_INET && (!ipv6 || property.enable_v4mapped != 0);
        if (family) ordered.push_back(candidate);
    }
    std::stable_sort(ordered.begin(), ordered.end(), before);

    Selection out;
    for (const InterfaceCandidate &candidate : ordered)
        applyRules(kRules, candidate, property, out);

    auto isLoopback = [](const InterfaceCandidate &c) { return (c.flags & IFF_LOOPBACK) != 0; };
    if (property.ignore_loopback_interface < 0 &&
        !std::all_of(out.selected.begin(), out.selected.end(), isLoopback)) {
        // Automatic: the loopback interface only serves a host without others.
        for (const InterfaceCandidate &c : out.selected) {
            if (isLoopback(c)) out.excluded.push_back({c, Exclusion::loopback});
        }
        std::erase_if(out.selected, isLoopback);
    }
    if (property.parent.max_interface_count >= 0) {
        // The limit counts interfaces, not addresses.
        std::set<std::string> kept;
        std::vector<InterfaceCandidate> within;
        for (const InterfaceCandidate &c : out.selected) {
            if (kept.count(c.name) == 0 &&
                kept.size() >= static_cast<size_t>(property.parent.max_interface_count)) {
                out.excluded.push_back({c, Exclusion::overMaxCount});
                continue;
            }
            kept.insert(c.name);
            within.push_back(c);
        }
        out.selected = std::move(within);
    }
    std::stable_sort(out.excluded.begin(), out.excluded.end(),
                     [](const auto &a, const auto &b) { return before(a.candidate, b.candidate); });
    if (ipv6) {
        for (InterfaceCandidate &chosen : out.selected) {
            if (chosen.family != AF_INET) continue;
            // ::ffff:a.b.c.d, the form a UDPv6 socket uses for IPv4 peers.
            chosen.address.network_ordered_value[10] = 0xff;
            chosen.address.network_ordered_value[11] = 0xff;
        }
    }
    return out;
}

std::vector<InterfaceCandidate> selectInterfaces(const std::vector<InterfaceCandidate> &candidates,
                                                 const VESK_Transport_UDP_Property_t &property,
                                                 bool ipv6) {
    return selectInterfacesWithReasons(candidates, property, ipv6).selected;
}

Selection selectMulticastInterfaces(const std::vector<InterfaceCandidate> &candidates,
                                    const VESK_Transport_UDP_Property_t &property, bool ipv6) {
    // A shallow view of the record: the selection only reads the lists.
    VESK_Transport_UDP_Property_t view = property;
    view.parent.allow_interfaces_list = property.parent.allow_multicast_interfaces_list;
    view.parent.allow_interfaces_list_length =
        property.parent.allow_multicast_interfaces_list_length;
    view.parent.deny_interfaces_list = property.parent.deny_multicast_interfaces_list;
    view.parent.deny_interfaces_list_length = property.parent.deny_multicast_interfaces_list_length;
    Selection out = selectInterfacesWithReasons(candidates, view, ipv6);
    for (ExcludedInterface &excluded : out.excluded) {
        if (excluded.reason == Exclusion::denied) excluded.reason = Exclusion::multicastDenied;
        if (excluded.reason == Exclusion::notAllowed) {
            excluded.reason = Exclusion::multicastNotAllowed;
        }
    }
    std::vector<InterfaceCandidate> kept;
    for (InterfaceCandidate &c : out.selected) {
        if ((c.flags & IFF_MULTICAST) != 0) {
            kept.push_back(std::move(c));
        } else {
            out.excluded.push_back({std::move(c), Exclusion::noMulticast});
        }
    }
    out.selected = std::move(kept);
    std::stable_sort(out.excluded.begin(), out.excluded.end(),
                     [](const auto &a, const auto &b) { return before(a.candidate, b.candidate); });
    return out;
}

void logSelection(const Selection &selection, const char *what, const char *function,
                  const char *class_name) noexcept {
    if (!KELLog_isEnabled(KEL_LOG_BIT_LOCAL, DDS_SUBMODULE_MASK_TRANSPORT)) return;
    char line[256];
    for (const InterfaceCandidate &c : selection.selected) {
        std::snprintf(line, sizeof line, "%s %s uses %s %s (index %u, MTU %u)", class_name, what,
                      c.name.c_str(), addressText(c).c_str(), c.index, c.mtu);
        statusLine(function, line);
    }
    for (const ExcludedInterface &e : selection.excluded) {
        std::snprintf(line, sizeof line, "%s %s leaves out %s %s: %s", class_name, what,
                      e.candidate.name.c_str(), addressText(e.candidate).c_str(),
                      exclusionText(e.reason));
        statusLine(function, line);
    }
}

bool enumerateHostInterfaces(std::vector<InterfaceCandidate> &out) {
    ifaddrs *list = nullptr;
    if (getifaddrs(&list) != 0) return false;
    const std::unique_ptr<ifaddrs, void (*)(ifaddrs *)> owner(list, freeifaddrs);
    // Only to ask for MTUs; without it they stay 0.
    struct Probe {
        int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        ~Probe() {
            if (fd >= 0) close(fd);
        }
    } probe_socket;
    const int probe = probe_socket.fd;
    for (const ifaddrs *entry = list; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr || entry->ifa_name == nullptr) continue;
        InterfaceCandidate candidate;
        candidate.family = entry->ifa_addr->sa_family;
        if (candidate.family == AF_INET) {
            sockaddr_in address;
            std::memcpy(&address, entry->ifa_addr, sizeof address);
            std::memcpy(candidate.address.network_ordered_value + 12, &address.sin_addr, 4);
        } else if (candidate.family == AF_INET6) {
            sockaddr_in6 address;
            std::memcpy(&address, entry->ifa_addr, sizeof address);
            std::memcpy(candidate.address.network_ordered_value, &address.sin6_addr, 16);
        } else {
            continue;
        }
        candidate.name = entry->ifa_name;
        candidate.flags = entry->ifa_flags;
        candidate.index = if_nametoindex(entry->ifa_name);
        ifreq request{};
        std::snprintf(request.ifr_name, sizeof request.ifr_name, "%s", entry->ifa_name);
        if (probe >= 0 && ioctl(probe, SIOCGIFMTU, &request) == 0 && request.ifr_mtu > 0) {
            candidate.mtu = static_cast<unsigned int>(request.ifr_mtu);
        }
        out.push_back(std::move(candidate));
    }
    return true;
}

bool describeHostSelection(const VESK_Transport_UDP_Property_t &property, bool ipv6,
                           Selection &unicast_out, Selection &multicast_out) {
    std::vector<InterfaceCandidate> candidates;
    if (!enumerateHostInterfaces(candidates)) return false;
    unicast_out = selectInterfacesWithReasons(candidates, property, ipv6);
    multicast_out = selectMulticastInterfaces(candidates, property, ipv6);
    return true;
}

}  // namespace vesk::udp
