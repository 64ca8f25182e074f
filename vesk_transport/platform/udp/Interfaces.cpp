// Interface enumeration and selection of the UDP transports (rules in
// docs/udp-transport.md).
#include "vesk_transport/platform/udp/Interfaces.hpp"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string_view>

namespace vesk::udp {

bool matchesInterfaceEntry(const char *entry, const std::string &name,
                           const std::string &address_text) {
    if (entry == nullptr) return false;
    const std::string_view text(entry);
    if (!text.empty() && text.back() == '*') {
        const std::string_view prefix = text.substr(0, text.size() - 1);
        return std::string_view(name).starts_with(prefix) ||
               std::string_view(address_text).starts_with(prefix);
    }
    return text == name || text == address_text;
}

std::string addressText(const InterfaceCandidate &candidate) {
    char text[INET6_ADDRSTRLEN] = {};
    if (candidate.family == AF_INET) {
        if (inet_ntop(AF_INET, candidate.address.network_ordered_value + 12, text, sizeof text) ==
            nullptr) {
            return {};
        }
    } else if (inet_ntop(AF_INET6, candidate.address.network_ordered_value, text, sizeof text) ==
               nullptr) {
        return {};
    }
    return text;
}

std::vector<InterfaceCandidate> selectInterfaces(const std::vector<InterfaceCandidate> &candidates,
                                                 const VESK_Transport_UDP_Property_t &property,
                                                 bool ipv6) {
    const VESK_Transport_Property_t &parent = property.parent;
    auto listed = [](char *const *list, KEL_INT32 length, const std::string &name,
                     const std::string &text) {
        for (KEL_INT32 i = 0; list != nullptr && i < length; ++i) {
            if (matchesInterfaceEntry(list[i], name, text)) return true;
        }
        return false;
    };
    std::vector<InterfaceCandidate> kept;
    for (const InterfaceCandidate &candidate : candidates) {
        if (candidate.family == AF_INET6) {
            if (!ipv6) continue;
        } else if (candidate.family == AF_INET) {
            if (ipv6 && property.enable_v4mapped == 0) continue;
        } else {
            continue;
        }
        if (property.ignore_nonup_interfaces != 0 && (candidate.flags & IFF_UP) == 0) continue;
        if (property.ignore_nonrunning_interfaces != 0 && (candidate.flags & IFF_RUNNING) == 0) {
            continue;
        }
        const bool loopback = (candidate.flags & IFF_LOOPBACK) != 0;
        if (property.ignore_loopback_interface > 0 && loopback) continue;
        const std::string text = addressText(candidate);
        if (parent.allow_interfaces_list_length > 0 &&
            !listed(parent.allow_interfaces_list, parent.allow_interfaces_list_length,
                    candidate.name, text)) {
            continue;
        }
        if (listed(parent.deny_interfaces_list, parent.deny_interfaces_list_length, candidate.name,
                   text)) {
            continue;
        }
        InterfaceCandidate chosen = candidate;
        if (ipv6 && candidate.family == AF_INET) {
            // ::ffff:a.b.c.d, the form a UDPv6 socket uses for IPv4 peers.
            chosen.address.network_ordered_value[10] = 0xff;
            chosen.address.network_ordered_value[11] = 0xff;
        }
        kept.push_back(std::move(chosen));
    }
    if (property.ignore_loopback_interface < 0) {
        // Automatic: the loopback interface only serves a host without others.
        const bool has_other = std::any_of(
            kept.begin(), kept.end(), [](const auto &c) { return (c.flags & IFF_LOOPBACK) == 0; });
        if (has_other) {
            std::erase_if(kept, [](const auto &c) { return (c.flags & IFF_LOOPBACK) != 0; });
        }
    }
    if (parent.max_interface_count >= 0 &&
        kept.size() > static_cast<size_t>(parent.max_interface_count)) {
        kept.resize(static_cast<size_t>(parent.max_interface_count));
    }
    return kept;
}

bool enumerateHostInterfaces(std::vector<InterfaceCandidate> &out) {
    ifaddrs *list = nullptr;
    if (getifaddrs(&list) != 0) return false;
    const std::unique_ptr<ifaddrs, void (*)(ifaddrs *)> owner(list, freeifaddrs);
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
        out.push_back(std::move(candidate));
    }
    return true;
}

}  // namespace vesk::udp
