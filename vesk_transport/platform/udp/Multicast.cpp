// Multicast membership; see Multicast.hpp.
#include "vesk_transport/platform/udp/Multicast.hpp"

#include <net/if.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace vesk::udp {

std::vector<InterfaceCandidate> selectMulticastInterfaces(
    const VESK_Transport_UDP_Property_t &property, bool ipv6) {
    std::vector<InterfaceCandidate> host;
    if (!enumerateHostInterfaces(host)) return {};
    return selectMulticastInterfaces(host, property, ipv6).selected;
}

std::vector<int> interfaceIndexes(const std::vector<InterfaceCandidate> &interfaces) {
    std::vector<int> indexes;
    for (const InterfaceCandidate &candidate : interfaces) {
        const int index = static_cast<int>(if_nametoindex(candidate.name.c_str()));
        // Join per interface: a second address of one interface would fail
        // with "address in use".
        if (index > 0 && std::find(indexes.begin(), indexes.end(), index) == indexes.end()) {
            indexes.push_back(index);
        }
    }
    return indexes;
}

namespace {

int membership(int fd, bool ipv6, const VESK_Transport_Address_t &group, int index, bool join) {
    if (ipv6) {
        ipv6_mreq request{};
        std::memcpy(&request.ipv6mr_multiaddr, group.network_ordered_value, 16);
        request.ipv6mr_interface = static_cast<unsigned>(index);
        return setsockopt(fd, IPPROTO_IPV6, join ? IPV6_JOIN_GROUP : IPV6_LEAVE_GROUP, &request,
                          sizeof request);
    }
    ip_mreqn request{};
    std::memcpy(&request.imr_multiaddr, group.network_ordered_value + 12, 4);
    request.imr_ifindex = index;
    return setsockopt(fd, IPPROTO_IP, join ? IP_ADD_MEMBERSHIP : IP_DROP_MEMBERSHIP, &request,
                      sizeof request);
}

void logMembership(KEL_UINT32 level, const LogContext &context, const char *operation, bool ipv6,
                   const VESK_Transport_Address_t &group, int index, int error) {
    Endpoint where;
    toEndpoint(ipv6, group, 0, where);
    char group_text[64];
    hostText(where, group_text);
    char name[IF_NAMESIZE] = "?";
    if_indextoname(static_cast<unsigned>(index), name);
    char reason[128];
    const char *text = strerror_r(error, reason, sizeof reason);
    logText(level, context, "%s of group %s on interface %s failed: %s", operation, group_text,
            name, text);
}

}  // namespace

bool joinGroupOnInterfaces(int fd, bool ipv6, const VESK_Transport_Address_t &group,
                           const std::vector<int> &interfaces, std::vector<int> &joined_out,
                           const LogContext &context) noexcept {
    try {
        joined_out.clear();
        joined_out.reserve(interfaces.size());
    } catch (...) {
        logText(KEL_LOG_BIT_ERROR, context, "out of memory joining a multicast group");
        return false;
    }
    int last_error = ENODEV;
    for (const int index : interfaces) {
        if (membership(fd, ipv6, group, index, true) == 0) {
            joined_out.push_back(index);
            continue;
        }
        last_error = errno;
        logMembership(KEL_LOG_BIT_WARN, context, ipv6 ? "IPV6_JOIN_GROUP" : "IP_ADD_MEMBERSHIP",
                      ipv6, group, index, last_error);
    }
    if (!joined_out.empty()) return true;
    Endpoint where;
    toEndpoint(ipv6, group, 0, where);
    char group_text[64];
    hostText(where, group_text);
    char reason[128];
    logText(KEL_LOG_BIT_ERROR, context,
            "group %s joined on no interface (%zu selected by the multicast interface lists): %s",
            group_text, interfaces.size(), strerror_r(last_error, reason, sizeof reason));
    return false;
}

void leaveGroupOnInterfaces(int fd, bool ipv6, const VESK_Transport_Address_t &group,
                            const std::vector<int> &joined, const LogContext &context) noexcept {
    for (const int index : joined) {
        if (membership(fd, ipv6, group, index, false) != 0) {
            logMembership(KEL_LOG_BIT_WARN, context,
                          ipv6 ? "IPV6_LEAVE_GROUP" : "IP_DROP_MEMBERSHIP", ipv6, group, index,
                          errno);
        }
    }
}

}  // namespace vesk::udp
