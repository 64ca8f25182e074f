// Multicast membership of receive sockets: every join and leave of the UDP
// transport goes through these functions.
//
// Hook for live interface tracking: a plugin keeps the interfaces it joins
// on in one list (Io::multicast_interfaces in Plugin.cpp, chosen by
// selectMulticastInterfaces) and each receive resource the interface
// indexes it joined per group. A tracker that sees an interface come or go
// updates that list and calls joinGroupOnInterfaces / leaveGroupOnInterfaces
// for each group of each resource with just that interface.
#pragma once

#include <vector>

#include "vesk_transport/platform/Udp.h"
#include "vesk_transport/platform/udp/Interfaces.hpp"
#include "vesk_transport/platform/udp/Socket.hpp"

namespace vesk::udp {

// The interfaces a plugin joins multicast groups on: the interface rules
// with the multicast allow and deny lists in place of the unicast ones, and
// IFF_MULTICAST set (Interfaces.hpp).
// May throw std::bad_alloc.
std::vector<InterfaceCandidate> selectMulticastInterfaces(
    const VESK_Transport_UDP_Property_t &property, bool ipv6);

// The index of each named interface, once per interface, in order.
std::vector<int> interfaceIndexes(const std::vector<InterfaceCandidate> &interfaces);

// Joins group on the socket on each interface of interfaces (by index).
// A join that fails on one interface is a warning naming group, interface
// and error; the call fails (after an error) only when none joined, or
// when interfaces is empty. joined_out receives the indexes joined.
bool joinGroupOnInterfaces(int fd, bool ipv6, const VESK_Transport_Address_t &group,
                           const std::vector<int> &interfaces, std::vector<int> &joined_out,
                           const LogContext &context) noexcept;

// Leaves group on each of the interfaces joined; failures are warnings.
void leaveGroupOnInterfaces(int fd, bool ipv6, const VESK_Transport_Address_t &group,
                            const std::vector<int> &joined, const LogContext &context) noexcept;

}  // namespace vesk::udp
