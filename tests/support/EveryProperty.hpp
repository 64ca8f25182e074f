// A valid value for every property name that a builtin class accepts, so
// that tests and benchmarks can build lists that set every property; and
// property lists written as "name=value;name=value". Walks
// the accepted-suffix lists (generated from vesk_transport/PropertyTables.hpp).
#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "vesk_transport/Support.h"

namespace vesk::test {

enum class Class { udpv4, udpv4Wan, udpv6, shmem };

// "name=value;name=value" as pairs (a value ends at the next ';').
inline std::vector<std::pair<std::string, std::string>> pairs(const std::string &text) {
    std::vector<std::pair<std::string, std::string>> out;
    for (size_t start = 0; start < text.size();) {
        size_t end = text.find(';', start);
        if (end == std::string::npos) end = text.size();
        const std::string item = text.substr(start, end - start);
        const size_t equals = item.find('=');
        out.emplace_back(item.substr(0, equals),
                         equals == std::string::npos ? "" : item.substr(equals + 1));
        start = end + 1;
    }
    return out;
}

inline const char *const COMM_PORTS_JSON =
    R"({"default":{"rtps":7400,"host":7400,"public":17400},)"
    R"("mappings":[{"rtps":7410,"host":7410,"public":17410},{"rtps":7411,"host":7500}]})";

// A valid value for every suffix any class accepts (empty for an unknown
// one: PropertyList::addEvery then fails, so new rows get a value here).
inline std::string valueFor(const std::string &suffix, Class cls) {
    static const std::map<std::string, std::string> common = [] {
        std::map<std::string, std::string> out;
        for (const auto &[name, value] :
             pairs("parent.properties_bitmap=TRANSPORT_PROPERTY_BITMAP_DEFAULT;"
                   "parent.gather_send_buffer_count_max=16;parent.allow_interfaces=lo;"
                   "parent.allow_interfaces_list=lo, 127.0.0.1;parent.deny_interfaces=eth99, eth98;"
                   "parent.deny_interfaces_list=eth97;parent.allow_multicast_interfaces=lo;"
                   "parent.allow_multicast_interfaces_list=lo,eth0;"
                   "parent.deny_multicast_interfaces=eth96,eth95, eth94;"
                   "parent.deny_multicast_interfaces_list=eth93;parent.thread_name_prefix=sweep;"
                   "thread_name_prefix=swp;participant_guid_prefix=1,2,3;"
                   "parent.max_interface_count=LENGTH_UNLIMITED;"
                   "send_socket_buffer_size=VESK_TRANSPORT_UDPV4_SOCKET_BUFFER_SIZE_OS_MAX;"
                   "recv_socket_buffer_size=65536;unicast_enabled=true;multicast_enabled=1;"
                   "multicast_ttl=2;multicast_loopback_disabled=0;ignore_loopback_interface=0;"
                   "ignore_nonup_interfaces=1;ignore_nonrunning_interfaces=1;no_zero_copy=0;"
                   "send_blocking=TRANSPORT_BLOCKING_NEVER;enable_v4mapped=0;use_checksum=1;"
                   "transport_priority_mask=0xff;transport_priority_mapping_low=0;"
                   "transport_priority_mapping_high=255;send_ping=1;"
                   "force_interface_poll_detection=0;interface_poll_period=500;"
                   "reuse_multicast_receive_resource=1;protocol_overhead_max=48;"
                   "disable_interface_tracking=0;public_address=192.0.2.1;wan_listener_ptr=0;"
                   "join_multicast_group_timeout=5000;port_offset=125;binding_ping_period=1000;"
                   "binding_ping_mapping_expiration=2000;gather_detailed_statistics=1;"
                   "received_message_count_max=32;receive_buffer_size=1048576;"
                   "segmentKeyOffset=4194304;segmentKeyFactor=1;semaphoreKeyOffset=8388608;"
                   "semaphoreKeyFactor=1;mutexKeyOffset=11534336;mutexKeyFactor=1;"
                   "enable_udp_debugging=1;udp_debugging_address=127.0.0.1;"
                   "udp_debugging_port=7399;maxAllowedWriterDurationMillisec=500;"
                   "CORE_6518_unit_test_disable_shmem=false;host_id=7;"
                   "use_530_from_uuid_locator=0")) {
            out[name] = value;
        }
        out["comm_ports"] = COMM_PORTS_JSON;
        return out;
    }();
    static const char *const classNames[] = {"UDPv4", "UDPv4_WAN", "UDPv6", "SHMEM"};
    if (suffix == "parent.classid") return classNames[static_cast<int>(cls)];
    if (suffix == "parent.address_bit_count") return cls == Class::udpv4 ? "32" : "96";
    if (suffix == "parent.message_size_max") return cls == Class::shmem ? "65536" : "9000";
    const auto found = common.find(suffix);
    return found == common.end() ? std::string() : found->second;
}

inline std::vector<std::string> acceptedSuffixes(Class cls) {
    const char *const *const lists[4][2] = {
        {PROPERTY_PLUGIN_VALID_PUBLIC_PROPERTIES_UDPV4,
         PROPERTY_PLUGIN_VALID_PRIVATE_PROPERTIES_UDPV4},
        {PROPERTY_PLUGIN_VALID_PUBLIC_PROPERTIES_UDPV4_WAN,
         PROPERTY_PLUGIN_VALID_PRIVATE_PROPERTIES_UDPV4_WAN},
        {PROPERTY_PLUGIN_VALID_PUBLIC_PROPERTIES_UDPV6,
         PROPERTY_PLUGIN_VALID_PRIVATE_PROPERTIES_UDPV6},
        {PROPERTY_PLUGIN_VALID_PUBLIC_PROPERTIES_SHMEM,
         PROPERTY_PLUGIN_VALID_PRIVATE_PROPERTIES_SHMEM},
    };
    std::vector<std::string> out;
    for (const char *const *list : lists[static_cast<int>(cls)]) {
        for (; list != nullptr && *list != nullptr; ++list) out.emplace_back(*list);
    }
    return out;
}

}  // namespace vesk::test
