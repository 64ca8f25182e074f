// The UDP transport module's C entry points: record copy, the UDPv4, UDPv4
// WAN and UDPv6 constructors, their traffic statistics and their run-time
// controls. Sockets, resources and traffic are in udp/.
//
// A plugin is one block of the library heap holding a UdpPlugin whose first
// member is the VESK_Transport_Plugin handed out, so the plugin pointer
// converts back. It owns a deep copy of its property record, the array of
// the interfaces it uses and its I/O state (sockets and resources, in
// udp/Plugin.cpp); delete_cEA releases them all.
#include "vesk_transport/platform/Udp.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <thread>
#include <type_traits>
#include <vector>

#include "vesk_transport/platform/Heap.h"
#include "vesk_transport/platform/Log.h"
#include "vesk_transport/platform/TransportInternal.hpp"
#include "vesk_transport/platform/udp/InterfaceTracker.hpp"
#include "vesk_transport/platform/udp/Interfaces.hpp"
#include "vesk_transport/platform/udp/Plugin.hpp"

// delete_cEA of every UDP plugin; also how a UDP plugin is recognised.
extern "C" {
static void udpDelete(VESK_Transport_Plugin *self, void *reserved);
}

namespace {

using Statistics = VESK_Transport_UDP_Statistics;
using Field = KEL_UINT64 Statistics::*;

// Every 64-bit counter of the statistics record, in the record's order;
// the plugin keeps one atomic per row.
constexpr Field kFields[] = {
    &Statistics::user_bytes_sent,
    &Statistics::user_bytes_received,
    &Statistics::user_packets_sent,
    &Statistics::user_packets_received,
    &Statistics::discovery_bytes_sent,
    &Statistics::discovery_bytes_received,
    &Statistics::discovery_packets_sent,
    &Statistics::discovery_packets_received,
    &Statistics::participant_discovery_bytes_sent,
    &Statistics::participant_discovery_bytes_received,
    &Statistics::participant_discovery_packets_sent,
    &Statistics::participant_discovery_packets_received,
    &Statistics::participant_config_bytes_sent,
    &Statistics::participant_config_bytes_received,
    &Statistics::participant_config_packets_sent,
    &Statistics::participant_config_packets_received,
    &Statistics::automatic_liveliness_bytes_sent,
    &Statistics::automatic_liveliness_bytes_received,
    &Statistics::automatic_liveliness_packets_sent,
    &Statistics::automatic_liveliness_packets_received,
    &Statistics::manual_liveliness_bytes_sent,
    &Statistics::manual_liveliness_bytes_received,
    &Statistics::manual_liveliness_packets_sent,
    &Statistics::manual_liveliness_packets_received,
    &Statistics::endpoint_discovery_bytes_sent,
    &Statistics::endpoint_discovery_bytes_received,
    &Statistics::endpoint_discovery_packets_sent,
    &Statistics::endpoint_discovery_packets_received,
    &Statistics::overhead_bytes_sent,
    &Statistics::overhead_bytes_received,
    &Statistics::overhead_packets_sent,
    &Statistics::overhead_packets_received,
    &Statistics::binding_ping_event_count,
    &Statistics::binding_ping_packets_sent,
    &Statistics::binding_ping_bytes_sent,
    &Statistics::binding_ping_packets_received,
    &Statistics::binding_ping_bytes_received,
    &Statistics::_liveliness_bytes_sent,
    &Statistics::_liveliness_bytes_received,
    &Statistics::_liveliness_packets_sent,
    &Statistics::_liveliness_packets_received,
};
constexpr int kCounterCount = static_cast<int>(sizeof kFields / sizeof kFields[0]);
constexpr int kPriorityCount = 256;

constexpr int counterIndex(Field field) {
    for (int i = 0; i < kCounterCount; ++i) {
        if (kFields[i] == field) return i;
    }
    return -1;
}

// The four counters that one kind of traffic adds to.
struct TrafficGroup {
    int bytes_sent;
    int bytes_received;
    int packets_sent;
    int packets_received;
};

constexpr TrafficGroup group(Field bytes_sent, Field bytes_received, Field packets_sent,
                             Field packets_received) {
    return {counterIndex(bytes_sent), counterIndex(bytes_received), counterIndex(packets_sent),
            counterIndex(packets_received)};
}

constexpr TrafficGroup kUser =
    group(&Statistics::user_bytes_sent, &Statistics::user_bytes_received,
          &Statistics::user_packets_sent, &Statistics::user_packets_received);
constexpr TrafficGroup kDiscovery =
    group(&Statistics::discovery_bytes_sent, &Statistics::discovery_bytes_received,
          &Statistics::discovery_packets_sent, &Statistics::discovery_packets_received);
constexpr TrafficGroup kParticipantDiscovery =
    group(&Statistics::participant_discovery_bytes_sent,
          &Statistics::participant_discovery_bytes_received,
          &Statistics::participant_discovery_packets_sent,
          &Statistics::participant_discovery_packets_received);
constexpr TrafficGroup kParticipantConfig = group(
    &Statistics::participant_config_bytes_sent, &Statistics::participant_config_bytes_received,
    &Statistics::participant_config_packets_sent, &Statistics::participant_config_packets_received);
constexpr TrafficGroup kAutomaticLiveliness = group(
    &Statistics::automatic_liveliness_bytes_sent, &Statistics::automatic_liveliness_bytes_received,
    &Statistics::automatic_liveliness_packets_sent,
    &Statistics::automatic_liveliness_packets_received);
constexpr TrafficGroup kManualLiveliness = group(
    &Statistics::manual_liveliness_bytes_sent, &Statistics::manual_liveliness_bytes_received,
    &Statistics::manual_liveliness_packets_sent, &Statistics::manual_liveliness_packets_received);
constexpr TrafficGroup kEndpointDiscovery = group(
    &Statistics::endpoint_discovery_bytes_sent, &Statistics::endpoint_discovery_bytes_received,
    &Statistics::endpoint_discovery_packets_sent, &Statistics::endpoint_discovery_packets_received);
constexpr TrafficGroup kOverhead =
    group(&Statistics::overhead_bytes_sent, &Statistics::overhead_bytes_received,
          &Statistics::overhead_packets_sent, &Statistics::overhead_packets_received);
constexpr TrafficGroup kBindingPing =
    group(&Statistics::binding_ping_bytes_sent, &Statistics::binding_ping_bytes_received,
          &Statistics::binding_ping_packets_sent, &Statistics::binding_ping_packets_received);
// The liveliness counters read for secure and automatic liveliness.
constexpr TrafficGroup kLiveliness =
    group(&Statistics::_liveliness_bytes_sent, &Statistics::_liveliness_bytes_received,
          &Statistics::_liveliness_packets_sent, &Statistics::_liveliness_packets_received);
constexpr int kBindingPingEvents = counterIndex(&Statistics::binding_ping_event_count);

// The groups of each traffic kind, indexed by VESK_Transport_UDP_TrafficKind.
struct KindRow {
    const TrafficGroup *first;
    const TrafficGroup *second;  // or nullptr
};
constexpr KindRow kKinds[] = {
    {&kUser, nullptr},                      // USER_DATA
    {&kDiscovery, nullptr},                 // DISCOVERY
    {&kParticipantDiscovery, nullptr},      // PARTICIPANT_DISCOVERY
    {&kParticipantConfig, nullptr},         // PARTICIPANT_CONFIG
    {&kAutomaticLiveliness, &kLiveliness},  // AUTOMATIC_LIVELINESS
    {&kManualLiveliness, nullptr},          // MANUAL_LIVELINESS
    {&kLiveliness, nullptr},                // SECURE_LIVELINESS
    {&kEndpointDiscovery, nullptr},         // ENDPOINT_DISCOVERY
    {&kOverhead, nullptr},                  // OVERHEAD
    {&kBindingPing, nullptr},               // BINDING_PING
};
static_assert(sizeof kKinds / sizeof kKinds[0] == VESK_TRANSPORT_UDP_TRAFFIC_BINDING_PING + 1);
static_assert(sizeof(Statistics) == kCounterCount * sizeof(KEL_UINT64) + 256 * sizeof(KEL_UINT32),
              "every 64-bit counter of the record is in kFields");
static_assert(kLiveliness.packets_received >= 0 && kBindingPing.bytes_received >= 0 &&
              kBindingPingEvents >= 0);

// The counters of one plugin, written under a seqlock: writers take a small
// mutex among themselves and make the sequence odd while they update, so a
// reader that sees the same even sequence before and after its loads has
// every count operation whole or not at all, without blocking writers.
class TrafficCounters {
public:
    template <typename Update>
    void update(Update &&apply) {
        std::lock_guard<std::mutex> lock(writerMutex_);
        const KEL_UINT64 sequence = sequence_.load(std::memory_order_relaxed);
        sequence_.store(sequence + 1, std::memory_order_relaxed);
        std::atomic_thread_fence(std::memory_order_release);
        apply(*this);
        sequence_.store(sequence + 2, std::memory_order_release);
    }

    // Only inside update().
    void add(int counter, KEL_UINT64 amount) {
        counters_[counter].fetch_add(amount, std::memory_order_relaxed);
    }
    void addPriority(unsigned char priority) {
        priorities_[priority].fetch_add(1, std::memory_order_relaxed);
    }

    void snapshot(Statistics &out) const {
        // A reader that keeps losing to writers falls back to their mutex,
        // so it always finishes.
        constexpr int kOptimisticAttempts = 64;
        for (int attempt = 0; attempt < kOptimisticAttempts; ++attempt) {
            const KEL_UINT64 before = sequence_.load(std::memory_order_acquire);
            if ((before & 1) != 0) {
                std::this_thread::yield();
                continue;
            }
            Statistics copy;
            load(copy);
            std::atomic_thread_fence(std::memory_order_acquire);
            if (sequence_.load(std::memory_order_relaxed) == before) {
                out = copy;
                return;
            }
        }
        std::lock_guard<std::mutex> lock(writerMutex_);
        load(out);
    }

private:
    void load(Statistics &out) const {
        for (int i = 0; i < kCounterCount; ++i) {
            out.*kFields[i] = counters_[i].load(std::memory_order_acquire);
        }
        for (int i = 0; i < kPriorityCount; ++i) {
            out.received_priority_count[i] = priorities_[i].load(std::memory_order_acquire);
        }
    }

    mutable std::mutex writerMutex_;
    std::atomic<KEL_UINT64> sequence_{0};
    std::atomic<KEL_UINT64> counters_[kCounterCount]{};
    std::atomic<KEL_UINT32> priorities_[kPriorityCount]{};
};

enum class UdpClass { V4, V4_WAN, V6 };

struct ClassInfo {
    const char *name;      // get_class_name_cEA, and the head of messages
    const char *function;  // the constructor, as the reporting function
};

const ClassInfo &classInfo(UdpClass udp_class) {
    static const ClassInfo kV4{"UDPv4", "VESK_Transport_UDPv4_newI"};
    static const ClassInfo kWan{"UDPv4_WAN", "VESK_Transport_UDPv4_WAN_newI"};
    static const ClassInfo kV6{"UDPv6", "VESK_Transport_UDPv6_newI"};
    switch (udp_class) {
        case UdpClass::V4:
            return kV4;
        case UdpClass::V4_WAN:
            return kWan;
        case UdpClass::V6:
            break;
    }
    return kV6;
}

constexpr const char *kPluginTypeName = "VESK_Transport_UDP_Plugin";
constexpr int kForcedMax = 16;  // interfaces whose status can be forced at once

struct UdpPlugin {
    VESK_Transport_Plugin base;  // first: the pointer handed out
    UdpClass udp_class;
    VESK_Transport_UDP_Property_t property;        // deep copy; base.property points into it
    VESK_Transport_UDP_InterfaceInfo *interfaces;  // heap array, or NULL
    int interface_count;
    std::mutex control_mutex;  // guards the interfaces and the fake address
    int fake_address_asserted;
    VESK_Transport_Address_t fake_address;
    std::atomic<VESK_Transport_Listener *> listener;
    std::atomic<int> binding_ping_generation;
    TrafficCounters counters;
    vesk::udp::Io *io;  // sockets and resources (udp/Plugin.cpp)
    // --- interface tracking (docs/udp-transport.md, "Interface tracking") ---
    vesk::udp::InterfaceTracker *tracker;  // NULL when tracking is off
    // Statuses forced by change_interface_status, by interface name; they
    // outlive tracking updates. Guarded by control_mutex.
    struct Forced {
        char name[64];
        int up;
    } forced[kForcedMax];
    int forced_count;
    std::atomic<bool> multicast_warned;  // the "no multicast interface" warning was given
};
static_assert(std::is_standard_layout_v<UdpPlugin>, "the plugin pointer must convert back");
static_assert(offsetof(UdpPlugin, base) == 0);
static_assert(alignof(UdpPlugin) <= alignof(std::max_align_t));

UdpPlugin *udpPlugin(const VESK_Transport_Plugin *plugin) {
    if (!VESK_Transport_UDP_isUdpPlugin(plugin)) return nullptr;
    return reinterpret_cast<UdpPlugin *>(const_cast<VESK_Transport_Plugin *>(plugin));
}

void releasePlugin(UdpPlugin *plugin) {
    delete plugin->tracker;  // first: its thread reads the rest
    vesk::udp::destroyIo(plugin->io);
    VESK_Transport_UDP_Property_finalize(&plugin->property);
    KELOsapiHeap_freeArray(plugin->interfaces);
    plugin->~UdpPlugin();
    KELOsapiHeap_freeMemoryInternal(plugin);
}

// The first reason why a plugin of this class cannot run with the record,
// or nullptr.
const char *refusal(UdpClass udp_class, const VESK_Transport_UDP_Property_t &property) {
    const VESK_Transport_ClassId_t classid = property.parent.classid;
    switch (udp_class) {
        case UdpClass::V4:
            if (classid != VESK_TRANSPORT_CLASSID_UDPv4) return "parent.classid is not 1 (UDPv4)";
            break;
        case UdpClass::V4_WAN:
            if (classid != VESK_TRANSPORT_CLASSID_UDPv4_WAN) {
                return "parent.classid is not 0x01000001 (UDPv4_WAN)";
            }
            break;
        case UdpClass::V6:
            if (classid != VESK_TRANSPORT_CLASSID_UDPv6 &&
                classid != VESK_TRANSPORT_CLASSID_UDPv6_510) {
                return "parent.classid is not 2 or 5 (UDPv6)";
            }
            break;
    }
    if (const char *generic = vesk::transport::checkGenericRecord(property.parent)) return generic;
    if (property.protocol_overhead_max < 0) return "protocol_overhead_max is negative";
    // A message and its headers travel in one datagram.
    if (static_cast<KEL_INT64>(property.parent.message_size_max) + property.protocol_overhead_max >
        VESK_TRANSPORT_UDP_DATAGRAM_SIZE_MAX) {
        return "parent.message_size_max + protocol_overhead_max exceeds 65535";
    }
    if (property.parent.address_bit_count < 0 || property.parent.address_bit_count > 128) {
        return "parent.address_bit_count is outside 0..128";
    }
    if (property.send_socket_buffer_size < VESK_TRANSPORT_UDP_SOCKET_BUFFER_SIZE_OS_MAX) {
        return "send_socket_buffer_size is below -2";
    }
    if (property.recv_socket_buffer_size < VESK_TRANSPORT_UDP_SOCKET_BUFFER_SIZE_OS_MAX) {
        return "recv_socket_buffer_size is below -2";
    }
    if (property.multicast_ttl < 0 || property.multicast_ttl > 255) {
        return "multicast_ttl is outside 0..255";
    }
    if (property.transport_priority_mapping_low > property.transport_priority_mapping_high) {
        return "transport_priority_mapping_low is above transport_priority_mapping_high";
    }
    if (property.comm_ports_list_length < 0) return "comm_ports_list_length is negative";
    if (property.comm_ports_list_length > 0 && property.comm_ports_list == nullptr) {
        return "comm_ports_list is NULL with a positive length";
    }
    if (udp_class == UdpClass::V4_WAN && property.port_offset < 0) {
        return "port_offset is negative";
    }
    return nullptr;
}

void copyName(char (&out)[64], const std::string &name) {
    const size_t length = std::min(name.size(), sizeof out - 1);
    std::memcpy(out, name.data(), length);
    out[length] = '\0';
}

// --- interface tracking (docs/udp-transport.md, "Interface tracking") -----

void applyForced(const UdpPlugin &udp, VESK_Transport_UDP_InterfaceInfo &entry) {
    for (int i = 0; i < udp.forced_count; ++i) {
        if (std::strcmp(udp.forced[i].name, entry.name) != 0) continue;
        entry.is_up = udp.forced[i].up;
        entry.is_forced = 1;
    }
}

// The selected interfaces as a new table (a heap array, NULL when empty)
// with the forced statuses applied. False when out of memory. The caller
// holds control_mutex or is the plugin's only user.
bool buildTable(const UdpPlugin &udp, const std::vector<vesk::udp::InterfaceCandidate> &used,
                VESK_Transport_UDP_InterfaceInfo *&table_out) {
    table_out = nullptr;
    if (used.empty()) return true;
    if (!KELOsapiHeap_allocateArray(&table_out, used.size(),
                                    struct VESK_Transport_UDP_InterfaceInfo)) {
        return false;
    }
    for (size_t i = 0; i < used.size(); ++i) {
        VESK_Transport_UDP_InterfaceInfo &entry = table_out[i];
        entry = {};
        copyName(entry.name, used[i].name);
        entry.address = used[i].address;
        entry.is_up = (used[i].flags & IFF_UP) != 0 ? 1 : 0;
        applyForced(udp, entry);
    }
    return true;
}

// The interfaces multicast uses now: the multicast selection on the host,
// without the interfaces forced down. Groups follow them (udp/Plugin.cpp);
// one warning when there is none, given again only after multicast worked.
void followMulticast(UdpPlugin &udp, const std::vector<vesk::udp::InterfaceCandidate> &host) {
    if (udp.property.multicast_enabled == 0) return;
    std::vector<vesk::udp::InterfaceCandidate> usable =
        vesk::udp::selectMulticastInterfaces(host, udp.property, udp.udp_class == UdpClass::V6)
            .selected;
    {
        std::lock_guard<std::mutex> lock(udp.control_mutex);
        std::erase_if(usable, [&udp](const vesk::udp::InterfaceCandidate &candidate) {
            for (int i = 0; i < udp.forced_count; ++i) {
                if (udp.forced[i].up == 0 && candidate.name == udp.forced[i].name) return true;
            }
            return false;
        });
    }
    vesk::udp::updateMulticastInterfaces(udp.io, usable);
    const bool none = usable.empty();
    const bool warn = none && !udp.multicast_warned.exchange(none);
    if (!none) udp.multicast_warned.store(false);
    if (!warn || !KELLog_isEnabled(KEL_LOG_BIT_WARN, DDS_SUBMODULE_MASK_TRANSPORT)) return;
    const ClassInfo &info = classInfo(udp.udp_class);
    KELLogMessageParamString_printWithParams(
        -1, KEL_LOG_BIT_WARN, VESK_TRANSPORT_LOG_MODULE_ID, __FILE__, __LINE__, info.function,
        &KEL_LOG_TRANSPORT_STATUS_TEMPLATE,
        "%s multicast is on but no interface can carry it (IFF_MULTICAST, "
        "parent.allow_multicast_interfaces_list, parent.deny_multicast_interfaces_list, "
        "forced status)",
        info.name);
}

void notifyListener(UdpPlugin &udp) {
    VESK_Transport_Listener *listener = udp.listener.load();
    if (listener != nullptr && listener->on_interfaces_changed != nullptr) {
        listener->on_interfaces_changed(listener, &udp.base);
    }
}

bool sameTable(const VESK_Transport_UDP_InterfaceInfo *a, int a_count,
               const VESK_Transport_UDP_InterfaceInfo *b, int b_count) {
    return a_count == b_count &&
           (a_count == 0 || std::memcmp(a, b, sizeof *a * static_cast<size_t>(a_count)) == 0);
}

// The tracker's callback: the host changed; select again, swap the table,
// say so. Runs on the tracker's thread.
void onHostChange(UdpPlugin &udp, const std::vector<vesk::udp::InterfaceCandidate> &host) {
    const ClassInfo &info = classInfo(udp.udp_class);
    try {
        const vesk::udp::Selection selection = vesk::udp::selectInterfacesWithReasons(
            host, udp.property, udp.udp_class == UdpClass::V6);
        VESK_Transport_UDP_InterfaceInfo *table = nullptr;
        const int count = static_cast<int>(selection.selected.size());
        bool changed = false;
        {
            std::lock_guard<std::mutex> lock(udp.control_mutex);
            if (!buildTable(udp, selection.selected, table)) {
                vesk::transport::logError(KEL_LOG_ANY_FAILURE_s, info.function, __FILE__, __LINE__,
                                          info.name, "out of memory: interface change not applied");
                return;
            }
            changed = !sameTable(udp.interfaces, udp.interface_count, table, count);
            if (changed) {
                std::swap(udp.interfaces, table);
                udp.interface_count = count;
            }
        }
        KELOsapiHeap_freeArray(table);  // the old one, or the new one not needed
        followMulticast(udp, host);     // also when only multicast changed
        if (!changed) return;
        vesk::udp::logSelection(selection, "after an interface change", info.function, info.name);
        notifyListener(udp);
    } catch (...) {
        vesk::transport::logError(KEL_LOG_ANY_FAILURE_s, info.function, __FILE__, __LINE__,
                                  info.name, "out of memory: interface change not applied");
    }
}

// Unless disable_interface_tracking: a tracker that starts from the
// candidates the plugin was made from. Without one the plugin still works
// with the interfaces it found.
void startTracking(UdpPlugin &udp, std::vector<vesk::udp::InterfaceCandidate> host) noexcept {
    if (udp.property.disable_interface_tracking != 0) return;
    const ClassInfo &info = classInfo(udp.udp_class);
    try {
        vesk::udp::InterfaceTracker::Options options;
        options.force_poll = udp.property.force_interface_poll_detection != 0;
        options.poll_period_ms = udp.property.interface_poll_period;
        options.function = info.function;
        options.class_name = info.name;
        options.retry = [io = udp.io] { return vesk::udp::retryMulticastJoins(io); };
        udp.tracker = vesk::udp::InterfaceTracker::start(
                          std::move(options), std::move(host),
                          [plugin = &udp](const auto &now) { onHostChange(*plugin, now); })
                          .release();
    } catch (...) {
        vesk::transport::logError(KEL_LOG_ANY_FAILURE_s, info.function, __FILE__, __LINE__,
                                  info.name, "out of memory: interface tracking not started");
    }
}
// --- end of interface tracking --------------------------------------------

VESK_Transport_Plugin *createPlugin(UdpClass udp_class,
                                    const VESK_Transport_UDP_Property_t *property_in,
                                    VESK_Transport_Address_t *default_network_address_out,
                                    void *reserved) noexcept {
    const ClassInfo &info = classInfo(udp_class);
    auto fail = [&info](const KELLogMessageTemplate &message_template, const char *reason) {
        vesk::transport::logError(message_template, info.function, __FILE__, __LINE__, info.name,
                                  reason);
        return nullptr;
    };
    try {
        if (property_in == nullptr) return fail(KEL_LOG_CREATION_FAILURE_s, "property_in is NULL");
        if (reserved != nullptr) return fail(KEL_LOG_CREATION_FAILURE_s, "reserved is not NULL");
        if (const char *reason = refusal(udp_class, *property_in)) {
            return fail(KEL_LOG_CREATION_FAILURE_s, reason);
        }
        // Everything that can throw runs before the first heap block.
        std::vector<vesk::udp::InterfaceCandidate> candidates;
        if (!vesk::udp::enumerateHostInterfaces(candidates)) {
            return fail(KEL_LOG_ANY_FAILURE_s, "cannot list the host's network interfaces");
        }
        const vesk::udp::Selection selection = vesk::udp::selectInterfacesWithReasons(
            candidates, *property_in, udp_class == UdpClass::V6);
        const std::vector<vesk::udp::InterfaceCandidate> &used = selection.selected;

        void *memory = KELOsapiHeap_reallocateMemoryInternal(
            nullptr, 1, sizeof(UdpPlugin), kPluginTypeName, VESK_TRANSPORT_HEAP_TAG);
        if (memory == nullptr) return fail(KEL_LOG_ANY_FAILURE_s, "out of memory");
        auto *plugin = new (memory) UdpPlugin{};
        if (!VESK_Transport_UDP_Property_copy(&plugin->property, property_in)) {
            releasePlugin(plugin);
            return fail(KEL_LOG_ANY_FAILURE_s, "out of memory");
        }
        if (!buildTable(*plugin, used, plugin->interfaces)) {
            releasePlugin(plugin);
            return fail(KEL_LOG_ANY_FAILURE_s, "out of memory");
        }
        plugin->interface_count = static_cast<int>(used.size());
        plugin->udp_class = udp_class;
        plugin->io = vesk::udp::createIo(&plugin->base, plugin->property, udp_class == UdpClass::V6,
                                         info.name);
        if (plugin->io == nullptr) {
            releasePlugin(plugin);
            return fail(KEL_LOG_ANY_FAILURE_s, "out of memory");
        }
        plugin->binding_ping_generation.store(
            udp_class == UdpClass::V4_WAN && property_in->binding_ping_period > 0 ? 1 : 0);

        VESK_Transport_Plugin &base = plugin->base;
        vesk::transport::fillCommonOperations(base);
        vesk::udp::fillIoOperations(base);
        base.property = &plugin->property.parent;
        base.get_class_name_cEA = [](VESK_Transport_Plugin *self) -> const char * {
            const UdpPlugin *udp = udpPlugin(self);
            return udp != nullptr ? classInfo(udp->udp_class).name : nullptr;
        };
        base.string_to_address_cEA = [](VESK_Transport_Plugin *self,
                                        VESK_Transport_Address_t *address_out,
                                        const char *address_in) -> int {
            const UdpPlugin *udp = udpPlugin(self);
            if (udp == nullptr || address_out == nullptr || address_in == nullptr) return 0;
            if (udp->udp_class != UdpClass::V6) {
                return vesk::transport::parseIpv4Text(address_in, false, *address_out) ? 1 : 0;
            }
            if (vesk::transport::parseIpv6Text(address_in, *address_out)) return 1;
            // A UDPv6 plugin reaches IPv4 peers only through mapped addresses.
            return udp->property.enable_v4mapped != 0 &&
                           vesk::transport::parseIpv4Text(address_in, true, *address_out)
                       ? 1
                       : 0;
        };
        base.get_receive_interfaces_cEA = [](VESK_Transport_Plugin *self, int *found_more_out,
                                             int *reported_count_out,
                                             struct VESK_Transport_Interface_t interfaces_inout[],
                                             int interface_array_size_in) -> int {
            UdpPlugin *udp = udpPlugin(self);
            if (udp == nullptr || found_more_out == nullptr || reported_count_out == nullptr ||
                interface_array_size_in < 0 ||
                (interfaces_inout == nullptr && interface_array_size_in > 0)) {
                return 0;
            }
            std::lock_guard<std::mutex> lock(udp->control_mutex);
            const VESK_Transport_ClassId_t classid = udp->property.parent.classid;
            if (udp->fake_address_asserted != 0) {
                // The fake address stands in for every real one.
                *found_more_out = interface_array_size_in < 1 ? 1 : 0;
                *reported_count_out = interface_array_size_in < 1 ? 0 : 1;
                if (interface_array_size_in >= 1) {
                    interfaces_inout[0] = {classid, udp->fake_address, 1};
                }
                return 1;
            }
            const int reported = std::min(udp->interface_count, interface_array_size_in);
            for (int i = 0; i < reported; ++i) {
                const VESK_Transport_UDP_InterfaceInfo &entry = udp->interfaces[i];
                interfaces_inout[i] = {classid, entry.address, entry.is_up != 0 ? 1u : 0u};
            }
            *reported_count_out = reported;
            *found_more_out = udp->interface_count > reported ? 1 : 0;
            return 1;
        };
        base.is_valid_entry_port = [](VESK_Transport_Plugin *self,
                                      VESK_Transport_Port_t port_in) -> int {
            return udpPlugin(self) != nullptr && port_in >= 1 && port_in <= 65535 ? 1 : 0;
        };
        base.register_listener_cEA = [](VESK_Transport_Plugin *self,
                                        VESK_Transport_Listener *listener_in) -> int {
            UdpPlugin *udp = udpPlugin(self);
            if (udp == nullptr) return 0;
            udp->listener.store(listener_in);
            return 1;
        };
        base.delete_cEA = udpDelete;
        base.multicastInterfaceEnabled = property_in->multicast_enabled != 0 ? 1 : 0;

        vesk::udp::logSelection(selection, "unicast", info.function, info.name);
        followMulticast(*plugin, candidates);
        startTracking(*plugin, std::move(candidates));

        if (default_network_address_out != nullptr) *default_network_address_out = {};
        return &base;
    } catch (...) {
        // Only the steps before the first heap block can throw.
        vesk::transport::logError(KEL_LOG_ANY_FAILURE_s, info.function, __FILE__, __LINE__,
                                  info.name, "out of memory");
        return nullptr;
    }
}

// Runs an update of the plugin's counters; 0 for a plugin not made here.
template <typename Update>
int updateCounters(VESK_Transport_Plugin *plugin, Update &&apply) noexcept {
    UdpPlugin *udp = udpPlugin(plugin);
    if (udp == nullptr) return 0;
    try {
        udp->counters.update(apply);
        return 1;
    } catch (...) {
        return 0;  // the writer mutex could not be taken
    }
}

}  // namespace

namespace vesk::udp {

Io *ioOf(VESK_Transport_Plugin *plugin) noexcept {
    UdpPlugin *udp = udpPlugin(plugin);
    return udp != nullptr ? udp->io : nullptr;
}

void countDatagram(VESK_Transport_Plugin *plugin, const Classification &classification,
                   std::size_t bytes, VESK_Transport_UDP_TrafficDirection direction,
                   int priority) noexcept {
    const bool sent = direction == VESK_TRANSPORT_UDP_TRAFFIC_SENT;
    const KindRow &row = kKinds[classification.kind];
    const KEL_UINT64 header = classification.rtps ? kRtpsHeaderSize : 0;
    updateCounters(plugin, [&](TrafficCounters &counters) {
        if (classification.rtps) {
            counters.add(sent ? kOverhead.bytes_sent : kOverhead.bytes_received, header);
            counters.add(sent ? kOverhead.packets_sent : kOverhead.packets_received, 1);
        }
        for (const TrafficGroup *target : {row.first, row.second}) {
            if (target == nullptr) continue;
            counters.add(sent ? target->bytes_sent : target->bytes_received, bytes - header);
            counters.add(sent ? target->packets_sent : target->packets_received, 1);
        }
        if (priority >= 0 && priority < kPriorityCount) {
            counters.addPriority(static_cast<unsigned char>(priority));
        }
    });
}

}  // namespace vesk::udp

extern "C" {
static void udpDelete(VESK_Transport_Plugin *self, void *) {
    UdpPlugin *udp = udpPlugin(self);
    if (udp != nullptr) releasePlugin(udp);
}
}

extern "C" {

int VESK_Transport_UDP_Property_copy(struct VESK_Transport_UDP_Property_t *dst,
                                     const struct VESK_Transport_UDP_Property_t *src) {
    if (dst == nullptr || src == nullptr || dst == src) return 0;
    VESK_Transport_UDP_Property_t copy = *src;
    copy.parent = vesk::transport::withoutOwnedMembers(src->parent);
    copy.public_address = nullptr;
    copy.comm_ports_list = nullptr;
    copy.comm_ports_list_length = 0;
    const VESK_Transport_UDP_Property_t empty = copy;  // what dst holds on failure
    bool ok = VESK_Transport_Property_copy(&copy.parent, &src->parent) != 0;
    if (ok && src->public_address != nullptr) {
        copy.public_address = DDS_String_dup(src->public_address);
        ok = copy.public_address != nullptr;
    }
    if (ok && src->comm_ports_list_length > 0) {
        ok = src->comm_ports_list != nullptr &&
             KELOsapiHeap_allocateArray(&copy.comm_ports_list, src->comm_ports_list_length,
                                        struct VESK_Transport_UDP_WAN_CommPortsMappingInfo);
        if (ok) {
            std::memcpy(
                copy.comm_ports_list, src->comm_ports_list,
                sizeof *src->comm_ports_list * static_cast<size_t>(src->comm_ports_list_length));
            copy.comm_ports_list_length = src->comm_ports_list_length;
        }
    }
    if (!ok) {
        VESK_Transport_UDP_Property_finalize(&copy);
        *dst = empty;
        return 0;
    }
    *dst = copy;
    return 1;
}

void VESK_Transport_UDP_Property_finalize(struct VESK_Transport_UDP_Property_t *record) {
    if (record == nullptr) return;
    VESK_Transport_Property_finalize(&record->parent);
    DDS_String_free(record->public_address);
    record->public_address = nullptr;
    KELOsapiHeap_freeArray(record->comm_ports_list);
    record->comm_ports_list = nullptr;
    record->comm_ports_list_length = 0;
}

VESK_Transport_Plugin *VESK_Transport_UDPv4_newI(
    const struct VESK_Transport_UDP_Property_t *property_in,
    VESK_Transport_Address_t *default_network_address_out, void *reserved) {
    return createPlugin(UdpClass::V4, property_in, default_network_address_out, reserved);
}

VESK_Transport_Plugin *VESK_Transport_UDPv4_WAN_newI(
    const struct VESK_Transport_UDP_Property_t *property_in,
    VESK_Transport_Address_t *default_network_address_out, void *reserved) {
    return createPlugin(UdpClass::V4_WAN, property_in, default_network_address_out, reserved);
}

VESK_Transport_Plugin *VESK_Transport_UDPv6_newI(
    const struct VESK_Transport_UDP_Property_t *property_in,
    VESK_Transport_Address_t *default_network_address_out, void *reserved) {
    return createPlugin(UdpClass::V6, property_in, default_network_address_out, reserved);
}

int VESK_Transport_UDP_isUdpPlugin(const VESK_Transport_Plugin *plugin) {
    // Only plugins made here carry this delete operation; reading it stays
    // within the public part of any plugin.
    return plugin != nullptr && plugin->delete_cEA == udpDelete ? 1 : 0;
}

void VESK_Transport_UDP_Statistics_initialize(struct VESK_Transport_UDP_Statistics *statistics) {
    if (statistics == nullptr) return;
    *statistics = VESK_Transport_UDP_Statistics{};
}

int VESK_Transport_UDP_get_statistics(VESK_Transport_Plugin *plugin,
                                      struct VESK_Transport_UDP_Statistics *statistics) {
    const UdpPlugin *udp = udpPlugin(plugin);
    if (udp == nullptr || statistics == nullptr) return 0;
    try {
        udp->counters.snapshot(*statistics);
        return 1;
    } catch (...) {
        return 0;
    }
}

int VESK_Transport_UDP_count_traffic(VESK_Transport_Plugin *plugin,
                                     VESK_Transport_UDP_TrafficKind kind,
                                     VESK_Transport_UDP_TrafficDirection direction,
                                     KEL_UINT64 packet_count, KEL_UINT64 bytes) {
    const int kind_index = static_cast<int>(kind);
    if (kind_index < 0 || kind_index > VESK_TRANSPORT_UDP_TRAFFIC_BINDING_PING) return 0;
    if (direction != VESK_TRANSPORT_UDP_TRAFFIC_SENT &&
        direction != VESK_TRANSPORT_UDP_TRAFFIC_RECEIVED) {
        return 0;
    }
    const bool sent = direction == VESK_TRANSPORT_UDP_TRAFFIC_SENT;
    const KindRow &row = kKinds[kind_index];
    return updateCounters(plugin, [&](TrafficCounters &counters) {
        for (const TrafficGroup *target : {row.first, row.second}) {
            if (target == nullptr) continue;
            counters.add(sent ? target->bytes_sent : target->bytes_received, bytes);
            counters.add(sent ? target->packets_sent : target->packets_received, packet_count);
        }
    });
}

int VESK_Transport_UDP_count_received_priority(VESK_Transport_Plugin *plugin,
                                               unsigned char priority) {
    return updateCounters(
        plugin, [priority](TrafficCounters &counters) { counters.addPriority(priority); });
}

int VESK_Transport_UDP_count_binding_ping_event(VESK_Transport_Plugin *plugin) {
    return updateCounters(plugin,
                          [](TrafficCounters &counters) { counters.add(kBindingPingEvents, 1); });
}

int VESK_Transport_UDP_assert_fake_ip_address(VESK_Transport_Plugin *plugin,
                                              const VESK_Transport_Address_t *address) {
    UdpPlugin *udp = udpPlugin(plugin);
    if (udp == nullptr || address == nullptr) return 0;
    try {
        std::lock_guard<std::mutex> lock(udp->control_mutex);
        udp->fake_address = *address;
        udp->fake_address_asserted = 1;
        return 1;
    } catch (...) {
        return 0;
    }
}

int VESK_Transport_UDP_remove_fake_ip_address(VESK_Transport_Plugin *plugin) {
    UdpPlugin *udp = udpPlugin(plugin);
    if (udp == nullptr) return 0;
    try {
        std::lock_guard<std::mutex> lock(udp->control_mutex);
        udp->fake_address_asserted = 0;
        udp->fake_address = {};
        return 1;
    } catch (...) {
        return 0;
    }
}

int VESK_Transport_UDP_get_fake_ip_address(VESK_Transport_Plugin *plugin,
                                           VESK_Transport_Address_t *address_out) {
    UdpPlugin *udp = udpPlugin(plugin);
    if (udp == nullptr || address_out == nullptr) return 0;
    try {
        std::lock_guard<std::mutex> lock(udp->control_mutex);
        if (udp->fake_address_asserted == 0) return 0;
        *address_out = udp->fake_address;
        return 1;
    } catch (...) {
        return 0;
    }
}

int VESK_Transport_UDP_change_interface_status(VESK_Transport_Plugin *plugin,
                                               const char *interface_name, int up) {
    UdpPlugin *udp = udpPlugin(plugin);
    if (udp == nullptr || interface_name == nullptr) return 0;
    try {
        {
            std::lock_guard<std::mutex> lock(udp->control_mutex);
            const VESK_Transport_UDP_InterfaceInfo *begin = udp->interfaces;
            if (std::none_of(begin, begin + udp->interface_count,
                             [interface_name](const auto &entry) {
                                 return std::strcmp(entry.name, interface_name) == 0;
                             })) {
                return 0;  // not in use
            }
            // The forced status is kept by name: it outlives tracking updates.
            int slot = 0;
            while (slot < udp->forced_count &&
                   std::strcmp(udp->forced[slot].name, interface_name) != 0) {
                ++slot;
            }
            if (slot == kForcedMax) return 0;
            if (slot == udp->forced_count) ++udp->forced_count;
            copyName(udp->forced[slot].name, interface_name);
            udp->forced[slot].up = up != 0 ? 1 : 0;
            // An interface with several addresses has one entry per address.
            for (int i = 0; i < udp->interface_count; ++i) applyForced(*udp, udp->interfaces[i]);
        }
        // Groups leave a forced-down interface and come back when it is up.
        std::vector<vesk::udp::InterfaceCandidate> host;
        if (vesk::udp::enumerateHostInterfaces(host)) followMulticast(*udp, host);
        notifyListener(*udp);
        return 1;
    } catch (...) {
        return 0;
    }
}

int VESK_Transport_UDP_get_interfaces(VESK_Transport_Plugin *plugin,
                                      struct VESK_Transport_UDP_InterfaceInfo *interfaces_out,
                                      int capacity) {
    UdpPlugin *udp = udpPlugin(plugin);
    if (udp == nullptr) return 0;
    try {
        std::lock_guard<std::mutex> lock(udp->control_mutex);
        if (interfaces_out != nullptr) {
            const int filled = std::min(udp->interface_count, std::max(capacity, 0));
            std::copy_n(udp->interfaces, filled, interfaces_out);
        }
        return udp->interface_count;
    } catch (...) {
        return 0;
    }
}

int VESK_Transport_UDP_change_binding_ping_generation(VESK_Transport_Plugin *plugin,
                                                      DDS_Boolean enable) {
    UdpPlugin *udp = udpPlugin(plugin);
    // Binding pings keep WAN port mappings alive; the other classes have none.
    if (udp == nullptr || udp->udp_class != UdpClass::V4_WAN) return 0;
    udp->binding_ping_generation.store(enable != 0 ? 1 : 0);
    return 1;
}

int VESK_Transport_UDP_is_binding_ping_generation_enabled(VESK_Transport_Plugin *plugin) {
    const UdpPlugin *udp = udpPlugin(plugin);
    if (udp == nullptr || udp->udp_class != UdpClass::V4_WAN) return 0;
    return udp->binding_ping_generation.load() != 0 ? 1 : 0;
}

}  // extern "C"
