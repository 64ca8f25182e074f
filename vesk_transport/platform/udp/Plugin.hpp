// The I/O side of a UDP plugin: its sockets, resources and the operations
// that send and receive (Plugin.cpp). The plugin block itself, its record,
// its counters and its run-time controls stay in Udp.cpp, which calls these.
#pragma once

#include <cstddef>
#include <vector>

#include "vesk_transport/platform/Udp.h"
#include "vesk_transport/platform/udp/Classify.hpp"
#include "vesk_transport/platform/udp/Interfaces.hpp"
#include "vesk_transport/platform/udp/Socket.hpp"

namespace vesk::udp {

struct Io;

// Udp.cpp: the I/O state of a plugin made by the UDP module, or nullptr.
Io *ioOf(VESK_Transport_Plugin *plugin) noexcept;
// Udp.cpp: counts one datagram of bytes bytes as classified, in one update
// of the plugin's counters: the RTPS header as overhead, the rest by kind;
// priority (0..255) into received_priority_count unless negative.
void countDatagram(VESK_Transport_Plugin *plugin, const Classification &classification,
                   std::size_t bytes, VESK_Transport_UDP_TrafficDirection direction,
                   int priority) noexcept;

// Builds the I/O state of a new plugin (no socket is opened yet). nullptr
// after logging when memory runs out.
Io *createIo(VESK_Transport_Plugin *plugin, const VESK_Transport_UDP_Property_t &property,
             bool ipv6, const char *class_name) noexcept;
// Destroys every resource left (waking their receivers first), the send
// socket and the state.
void destroyIo(Io *io) noexcept;
// Installs send, receive and the resource operations.
void fillIoOperations(VESK_Transport_Plugin &plugin) noexcept;

// Interface tracking: the interfaces multicast now uses. Every group of
// every receive resource is left on the interfaces that went and joined on
// those that came; multicast is sent out of the first one.
// A join the kernel refuses is retried by retryMulticastJoins until
// join_multicast_group_timeout, then reported with the interface and errno.
void updateMulticastInterfaces(Io *io, const std::vector<InterfaceCandidate> &interfaces) noexcept;
// True while joins wait for another try.
bool retryMulticastJoins(Io *io) noexcept;

}  // namespace vesk::udp
