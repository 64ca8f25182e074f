// What the UDP transport calls of the WAN parts: the constructor's WAN
// checks, the reset of the plugin's mapping counts, and the only way the
// transport calls a listener.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

#include "vesk_transport/platform/Udp.h"
#include "vesk_transport/platform/udp/Wan.hpp"

namespace vesk::udp {

// The first reason why a WAN plugin cannot run with the record's WAN
// fields (the listener is registered, the public address is IPv4), or
// nullptr. Reads nothing through wan_listener.
const char *wanRefusal(const VESK_Transport_UDP_Property_t &property) noexcept;

// Sets every ref_count of the plugin's own copy of the mappings to 0.
void resetMappingCounts(VESK_Transport_UDP_Property_t &plugin_copy) noexcept;

// The UDP record copy of a WAN plugin, or nullptr for any other plugin.
VESK_Transport_UDP_Property_t *wanRecord(VESK_Transport_Plugin *plugin) noexcept;

class WanEngine;

// The binding-ping engine of a WAN plugin, made when create is true and
// there is none; nullptr for any other plugin (or when memory runs out).
std::shared_ptr<WanEngine> wanEngine(VESK_Transport_Plugin *plugin, bool create = false) noexcept;
// Stops and forgets the engine of a plugin being deleted.
void wanDetach(VESK_Transport_Plugin *plugin) noexcept;

// The receive path and the resources of a WAN plugin. For other plugins
// they change nothing and return false (wanHostPort: true).
// The port to bind for rtps_port: the host port of the port rule; false
// after logging when the rule maps nothing.
bool wanHostPort(VESK_Transport_Plugin *plugin, VESK_Transport_Port_t rtps_port,
                 unsigned &bind_port) noexcept;
// A receive socket bound for rtps_port joins the binding pings (the timer
// starts with the first one) and counts in its mapping's ref_count; it
// leaves them before it is closed.
bool wanReceiveSocketOpened(VESK_Transport_Plugin *plugin, int fd,
                            VESK_Transport_Port_t rtps_port) noexcept;
void wanReceiveSocketClosing(VESK_Transport_Plugin *plugin, int fd) noexcept;
// A send resource's destination becomes (or stops being) a peer to ping.
void wanSendDestination(VESK_Transport_Plugin *plugin, const sockaddr_storage &destination,
                        bool added) noexcept;
// Sends message from the plugin's first receive socket (user data and pings
// then share one NAT mapping); false, sending nothing, when there is none.
bool wanSendMessage(VESK_Transport_Plugin *plugin, const msghdr &message, int flags,
                    ssize_t &sent) noexcept;
// Offers a received datagram: true when it is a binding-ping message, which
// the WAN side has handled and which is not user data.
bool wanOfferDatagram(VESK_Transport_Plugin *plugin, int fd, const std::uint8_t *data,
                      std::size_t size, const sockaddr_storage &source) noexcept;

// Calls listener->on_public_mapping_resolved when the listener is
// registered (at the time of the call) and has one; false otherwise.
// Unregistering waits for calls made here on other threads.
bool notifyPublicMapping(const VESK_Transport_UDP_WAN_Listener *listener,
                         const VESK_Transport_Address_t &address,
                         VESK_Transport_Port_t port) noexcept;

}  // namespace vesk::udp
