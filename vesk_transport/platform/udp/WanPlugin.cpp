// The WAN side of a UDP plugin: the port rule applied to the plugin's own
// mapping copy, and the binding-ping engine attached to each WAN plugin
// (docs/wan-transport.md). The UDP transport reaches it through the hooks
// of WanHooks.hpp.
#include <arpa/inet.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

#include "vesk_transport/platform/TransportInternal.hpp"
#include "vesk_transport/platform/UdpWan.h"
#include "vesk_transport/platform/udp/Wan.hpp"
#include "vesk_transport/platform/udp/WanEngine.hpp"
#include "vesk_transport/platform/udp/WanHooks.hpp"

namespace vesk::udp {
namespace {

// The engines of the live WAN plugins. A lookup shares the engine, so a
// plugin being deleted on another thread cannot free it under a caller.
struct Attached {
    const VESK_Transport_Plugin *plugin;
    std::shared_ptr<WanEngine> engine;
};

std::mutex &attachedMutex() {
    static std::mutex mutex;
    return mutex;
}

std::vector<Attached> &attached() {
    static std::vector<Attached> table;
    return table;
}

}  // namespace

void resetMappingCounts(VESK_Transport_UDP_Property_t &plugin_copy) noexcept {
    if (plugin_copy.comm_ports_list == nullptr) return;
    for (int i = 0; i < plugin_copy.comm_ports_list_length; ++i) {
        plugin_copy.comm_ports_list[i].ref_count = 0;
    }
}

VESK_Transport_UDP_Property_t *wanRecord(VESK_Transport_Plugin *plugin) noexcept {
    // The plugin's property is the head of its own UDP record copy.
    if (VESK_Transport_UDP_isUdpPlugin(plugin) == 0 || plugin->property == nullptr ||
        plugin->property->classid != VESK_TRANSPORT_CLASSID_UDPv4_WAN) {
        return nullptr;
    }
    return reinterpret_cast<VESK_Transport_UDP_Property_t *>(plugin->property);
}

std::shared_ptr<WanEngine> wanEngine(VESK_Transport_Plugin *plugin, bool create) noexcept {
    VESK_Transport_UDP_Property_t *record = wanRecord(plugin);
    if (record == nullptr) return nullptr;
    try {
        std::lock_guard<std::mutex> lock(attachedMutex());
        for (const Attached &entry : attached()) {
            if (entry.plugin == plugin) return entry.engine;
        }
        // A deleted plugin's last resources find none and make none: its
        // address may be the next plugin's.
        if (!create) return nullptr;
        WanSettings settings;
        settings.period_ms = record->binding_ping_period;
        settings.expiration_ms = effectiveExpiration(record->binding_ping_period,
                                                     record->binding_ping_mapping_expiration);
        settings.listener = record->wan_listener;
        settings.plugin = plugin;
        auto engine = std::make_shared<WanEngine>(settings);
        attached().push_back({plugin, engine});
        return engine;
    } catch (...) {
        return nullptr;
    }
}

void wanDetach(VESK_Transport_Plugin *plugin) noexcept {
    std::shared_ptr<WanEngine> engine;
    {
        std::lock_guard<std::mutex> lock(attachedMutex());
        auto &table = attached();
        for (auto it = table.begin(); it != table.end(); ++it) {
            if (it->plugin != plugin) continue;
            engine = std::move(it->engine);
            table.erase(it);
            break;
        }
    }
    if (engine) engine->stop();  // outside the table's lock: joins the timer
}

bool wanHostPort(VESK_Transport_Plugin *plugin, VESK_Transport_Port_t rtps_port,
                 unsigned &bind_port) noexcept {
    const VESK_Transport_UDP_Property_t *record = wanRecord(plugin);
    if (record == nullptr) return true;
    const auto choice = choosePorts(record->comm_ports_list, record->comm_ports_list_length,
                                    record->port_offset, rtps_port);
    if (!choice) {
        char reason[160];
        std::snprintf(reason, sizeof reason,
                      "RTPS port %u has no host port: no comm_ports mapping, and %u + port_offset "
                      "%d is outside 1..65535",
                      static_cast<unsigned>(rtps_port), static_cast<unsigned>(rtps_port),
                      static_cast<int>(record->port_offset));
        vesk::transport::logError(KEL_LOG_ANY_FAILURE_s, "create_recvresource_rrEA", __FILE__,
                                  __LINE__, "UDPv4_WAN", reason);
        return false;
    }
    bind_port = choice->host_port;
    return true;
}

namespace {

// Adds delta to the ref_count of the mapping that rtps_port uses, if any.
void countMapping(VESK_Transport_Plugin *plugin, VESK_Transport_Port_t rtps_port, int delta) {
    VESK_Transport_UDP_Property_t *record = wanRecord(plugin);
    const auto choice = choosePorts(record->comm_ports_list, record->comm_ports_list_length,
                                    record->port_offset, rtps_port);
    if (!choice || choice->mapping_index < 0) return;
    std::lock_guard<std::mutex> lock(attachedMutex());  // resources come and go on any thread
    record->comm_ports_list[choice->mapping_index].ref_count += delta;
}

}  // namespace

bool wanReceiveSocketOpened(VESK_Transport_Plugin *plugin, int fd,
                            VESK_Transport_Port_t rtps_port) noexcept {
    if (wanRecord(plugin) == nullptr) return false;
    const auto engine = wanEngine(plugin, true);
    if (!engine) return false;
    try {
        engine->addSocket(fd, rtps_port);
        countMapping(plugin, rtps_port, 1);
        if (!engine->start()) {
            vesk::transport::logError(KEL_LOG_ANY_FAILURE_s, "create_recvresource_rrEA", __FILE__,
                                      __LINE__, "UDPv4_WAN",
                                      "cannot start the binding-ping thread: no pings are sent");
        }
    } catch (...) {
        // Out of memory: this socket sends no pings but still receives.
    }
    return true;
}

void wanReceiveSocketClosing(VESK_Transport_Plugin *plugin, int fd) noexcept {
    const auto engine = wanEngine(plugin);
    if (!engine) return;
    try {
        std::uint32_t rtps_port = 0;
        if (engine->removeSocket(fd, rtps_port)) countMapping(plugin, rtps_port, -1);
    } catch (...) {
    }
}

void wanSendDestination(VESK_Transport_Plugin *plugin, const sockaddr_storage &destination,
                        bool added) noexcept {
    if (destination.ss_family != AF_INET) return;
    const auto engine = wanEngine(plugin, added);
    if (!engine) return;
    const auto &ipv4 = reinterpret_cast<const sockaddr_in &>(destination);
    try {
        if (added) {
            engine->addPeer(ntohl(ipv4.sin_addr.s_addr), ntohs(ipv4.sin_port));
        } else {
            engine->removePeer(ntohl(ipv4.sin_addr.s_addr), ntohs(ipv4.sin_port));
        }
    } catch (...) {
        // Without this peer the mapping is kept alive by the others only.
    }
}

bool wanSendMessage(VESK_Transport_Plugin *plugin, const msghdr &message, int flags,
                    ssize_t &sent) noexcept {
    const auto engine = wanEngine(plugin);
    if (!engine) return false;
    try {
        return engine->sendFromFirstSocket(message, flags, sent);
    } catch (...) {
        return false;
    }
}

bool wanOfferDatagram(VESK_Transport_Plugin *plugin, int fd, const std::uint8_t *data,
                      std::size_t size, const sockaddr_storage &source) noexcept {
    if (data == nullptr || source.ss_family != AF_INET || !isPingMessage({data, size})) {
        return false;
    }
    const auto engine = wanEngine(plugin);
    if (!engine) return false;
    const auto &from = reinterpret_cast<const sockaddr_in &>(source);
    try {
        engine->handleDatagram(fd, {data, size}, ntohl(from.sin_addr.s_addr), ntohs(from.sin_port),
                               WanEngine::nowMs());
    } catch (...) {
        // Dropped all the same: a binding-ping message is never user data.
    }
    return true;
}

}  // namespace vesk::udp

extern "C" int VESK_Transport_UDP_WAN_get_mapping(
    VESK_Transport_Plugin *plugin, VESK_Transport_Port_t rtps_port,
    struct VESK_Transport_UDP_WAN_PortMapping *mapping_out) {
    const VESK_Transport_UDP_Property_t *record = vesk::udp::wanRecord(plugin);
    if (record == nullptr || mapping_out == nullptr) return 0;
    const auto choice = vesk::udp::choosePorts(
        record->comm_ports_list, record->comm_ports_list_length, record->port_offset, rtps_port);
    if (!choice) return 0;
    mapping_out->host_port = choice->host_port;
    mapping_out->public_port = choice->public_port;
    mapping_out->mapping_index = choice->mapping_index;
    mapping_out->ref_count =
        choice->mapping_index >= 0 ? record->comm_ports_list[choice->mapping_index].ref_count : 0;
    return 1;
}

extern "C" int VESK_Transport_UDP_WAN_get_ping_info(
    VESK_Transport_Plugin *plugin, struct VESK_Transport_UDP_WAN_PingInfo *info_out) {
    if (info_out == nullptr) return 0;
    if (vesk::udp::wanRecord(plugin) == nullptr) return 0;
    const auto engine = vesk::udp::wanEngine(plugin);
    try {
        *info_out = VESK_Transport_UDP_WAN_PingInfo{};  // before any resource: nothing yet
        if (engine) engine->info(*info_out);
        return 1;
    } catch (...) {
        return 0;
    }
}

extern "C" int VESK_Transport_UDP_WAN_get_locator(VESK_Transport_Plugin *plugin,
                                                  VESK_Transport_Port_t rtps_port,
                                                  VESK_Transport_Address_t *address_out,
                                                  VESK_Transport_Port_t *port_out) {
    const VESK_Transport_UDP_Property_t *record = vesk::udp::wanRecord(plugin);
    if (record == nullptr || address_out == nullptr || port_out == nullptr) return 0;
    const auto choice = vesk::udp::choosePorts(
        record->comm_ports_list, record->comm_ports_list_length, record->port_offset, rtps_port);
    if (!choice) return 0;
    VESK_Transport_Address_t address{};
    in_addr configured{};
    if (record->public_address != nullptr && record->public_address[0] != '\0' &&
        inet_pton(AF_INET, record->public_address, &configured) == 1) {
        std::memcpy(address.network_ordered_value + 12, &configured, 4);
        *address_out = address;
        *port_out = choice->public_port;
        return 1;
    }
    std::uint32_t ipv4 = 0;
    std::uint16_t port = 0;
    const auto engine = vesk::udp::wanEngine(plugin);
    if (engine && engine->resolvedFor(rtps_port, ipv4, port)) {
        const std::uint32_t network = htonl(ipv4);
        std::memcpy(address.network_ordered_value + 12, &network, 4);
        *address_out = address;
        *port_out = port;
        return 1;
    }
    VESK_Transport_UDP_InterfaceInfo first{};
    if (VESK_Transport_UDP_get_interfaces(plugin, &first, 1) > 0) address = first.address;
    *address_out = address;
    *port_out = choice->host_port;
    return 1;
}
