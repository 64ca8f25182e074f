// Checks shared by the tests of the property setups and the UDP factories:
// log records as one comparable line each, UDP records rendered field by
// field, and a UDP record that releases what its setup allocated.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "support/PropertyList.hpp"
#include "support/TestSupport.hpp"
#include "vesk_transport/Support.h"

namespace vesk::test {

// "level function TEMPLATE[format](param|param)"; the format part only for
// _TEMPLATE messages.
inline std::string describe(const LogEntry &entry) {
    std::string out =
        std::to_string(entry.level) + " " + entry.function + " " + entry.template_name;
    if (!entry.format.empty()) out += "[" + entry.format + "]";
    out += "(";
    for (size_t i = 0; i < entry.params.size(); ++i) {
        if (i != 0) out += "|";
        out += entry.params[i];
    }
    return out + ")";
}

inline std::vector<std::string> describeAll(const LogCapture &capture) {
    std::vector<std::string> out;
    for (const LogEntry &entry : capture.entries()) out.push_back(describe(entry));
    return out;
}

// The line that describe() gives for the expected message.
inline std::string message(KEL_UINT32 level, const std::string &function,
                           const std::string &template_name, const std::vector<std::string> &params,
                           const std::string &format = "") {
    LogEntry entry;
    entry.level = level;
    entry.function = function;
    entry.template_name = template_name;
    entry.format = format;
    entry.params = params;
    return describe(entry);
}

inline constexpr const char *PARENT_SETUP = "VESK_Transport_setupParentTransportProperty";
inline constexpr const char *UDP_SETUP = "VESK_Transport_setupUDPProperty";
inline constexpr const char *PARSE_INTERFACE_LIST = "VESK_Transport_Support_parse_interface_list";
inline constexpr const char *PARSE_JSON = "VESK_Transport_CommPortsHelper_parseJson";
inline constexpr const char *PARSE_JSON_MAPPING_NODE =
    "VESK_Transport_CommPortsHelper_parseJsonMappingNode";

inline std::string renderString(const char *text) {
    return text == nullptr ? "null" : "\"" + std::string(text) + "\"";
}

inline std::string renderPointer(const void *pointer) {
    if (pointer == nullptr) return "null";
    char text[32];
    std::snprintf(text, sizeof text, "%p", pointer);
    return text;
}

inline std::string renderList(char *const *list, KEL_INT32 length) {
    if (list == nullptr) return "null";
    std::string out = "[";
    for (KEL_INT32 i = 0; i < length; ++i) {
        if (i != 0) out += ",";
        out += renderString(list[i]);
    }
    return out + "]";
}

// ref_count is left out: no setup writes it.
inline std::string renderCommPorts(const VESK_Transport_UDP_WAN_CommPortsMappingInfo *list,
                                   KEL_INT32 length) {
    if (list == nullptr) return "null";
    std::string out = "[";
    for (KEL_INT32 i = 0; i < length; ++i) {
        if (i != 0) out += ",";
        out += "{" + std::to_string(list[i].rtps_port) + "," + std::to_string(list[i].host_port) +
               "," + std::to_string(list[i].public_port) + "}";
    }
    return out + "]";
}

inline std::string renderBytes(const void *bytes, size_t count) {
    std::string out;
    for (size_t i = 0; i < count; ++i) {
        char text[4];
        std::snprintf(text, sizeof text, "%02x", static_cast<const unsigned char *>(bytes)[i]);
        out += text;
    }
    return out;
}

inline std::string renderFlags(const VESK_Transport_internalMemoryAllocations &flags) {
    return std::to_string(flags._allowInterfacesListAllocated) + "," +
           std::to_string(flags._denyInterfacesListAllocated) + "," +
           std::to_string(flags._allowMulticastInterfacesListAllocated) + "," +
           std::to_string(flags._denyMulticastInterfacesListAllocated) + "," +
           std::to_string(flags._publicAddressAllocated) + "," +
           std::to_string(flags._commPortsAllocated);
}

struct UdpField {
    const char *name;
    std::string (*render)(const VESK_Transport_UDP_Property_t &record);
};

// clang-format off
#define VESK_TEST_NUMBER_FIELD(path) \
    UdpField{#path, [](const VESK_Transport_UDP_Property_t &r) { return std::to_string(r.path); }}
// clang-format on

// Every field of the UDP record, in the record's order; lists and strings
// by content, so that a deep copy compares equal to its original.
inline const std::vector<UdpField> &udpFields() {
    using R = VESK_Transport_UDP_Property_t;
    static const std::vector<UdpField> fields = {
        VESK_TEST_NUMBER_FIELD(parent.classid),
        VESK_TEST_NUMBER_FIELD(parent.address_bit_count),
        VESK_TEST_NUMBER_FIELD(parent.properties_bitmap),
        VESK_TEST_NUMBER_FIELD(parent.gather_send_buffer_count_max),
        VESK_TEST_NUMBER_FIELD(parent.message_size_max),
        {"parent.allow_interfaces_list",
         [](const R &r) {
             return renderList(r.parent.allow_interfaces_list,
                               r.parent.allow_interfaces_list_length);
         }},
        VESK_TEST_NUMBER_FIELD(parent.allow_interfaces_list_length),
        {"parent.deny_interfaces_list",
         [](const R &r) {
             return renderList(r.parent.deny_interfaces_list, r.parent.deny_interfaces_list_length);
         }},
        VESK_TEST_NUMBER_FIELD(parent.deny_interfaces_list_length),
        {"parent.allow_multicast_interfaces_list",
         [](const R &r) {
             return renderList(r.parent.allow_multicast_interfaces_list,
                               r.parent.allow_multicast_interfaces_list_length);
         }},
        VESK_TEST_NUMBER_FIELD(parent.allow_multicast_interfaces_list_length),
        {"parent.deny_multicast_interfaces_list",
         [](const R &r) {
             return renderList(r.parent.deny_multicast_interfaces_list,
                               r.parent.deny_multicast_interfaces_list_length);
         }},
        VESK_TEST_NUMBER_FIELD(parent.deny_multicast_interfaces_list_length),
        {"parent.transport_uuid",
         [](const R &r) {
             return renderBytes(r.parent.transport_uuid.value,
                                sizeof r.parent.transport_uuid.value);
         }},
        {"parent.domain_participant_ptr",
         [](const R &r) { return renderPointer(r.parent.domain_participant_ptr); }},
        {"parent.domain_participant_forwarder",
         [](const R &r) {
             return renderPointer(static_cast<const void *>(r.parent.domain_participant_forwarder));
         }},
        {"parent.thread_name_prefix",
         [](const R &r) { return renderString(r.parent.thread_name_prefix); }},
        VESK_TEST_NUMBER_FIELD(parent.max_interface_count),
        VESK_TEST_NUMBER_FIELD(send_socket_buffer_size),
        VESK_TEST_NUMBER_FIELD(recv_socket_buffer_size),
        VESK_TEST_NUMBER_FIELD(unicast_enabled),
        VESK_TEST_NUMBER_FIELD(multicast_enabled),
        VESK_TEST_NUMBER_FIELD(multicast_ttl),
        VESK_TEST_NUMBER_FIELD(multicast_loopback_disabled),
        VESK_TEST_NUMBER_FIELD(ignore_loopback_interface),
        VESK_TEST_NUMBER_FIELD(ignore_nonup_interfaces),
        VESK_TEST_NUMBER_FIELD(ignore_nonrunning_interfaces),
        VESK_TEST_NUMBER_FIELD(no_zero_copy),
        VESK_TEST_NUMBER_FIELD(send_blocking),
        VESK_TEST_NUMBER_FIELD(enable_v4mapped),
        VESK_TEST_NUMBER_FIELD(use_checksum),
        VESK_TEST_NUMBER_FIELD(transport_priority_mask),
        VESK_TEST_NUMBER_FIELD(transport_priority_mapping_low),
        VESK_TEST_NUMBER_FIELD(transport_priority_mapping_high),
        VESK_TEST_NUMBER_FIELD(send_ping),
        VESK_TEST_NUMBER_FIELD(force_interface_poll_detection),
        VESK_TEST_NUMBER_FIELD(interface_poll_period),
        VESK_TEST_NUMBER_FIELD(reuse_multicast_receive_resource),
        VESK_TEST_NUMBER_FIELD(protocol_overhead_max),
        VESK_TEST_NUMBER_FIELD(disable_interface_tracking),
        VESK_TEST_NUMBER_FIELD(join_multicast_group_timeout),
        {"public_address", [](const R &r) { return renderString(r.public_address); }},
        {"comm_ports_list",
         [](const R &r) { return renderCommPorts(r.comm_ports_list, r.comm_ports_list_length); }},
        VESK_TEST_NUMBER_FIELD(comm_ports_list_length),
        {"wan_listener", [](const R &r) { return renderPointer(r.wan_listener); }},
        VESK_TEST_NUMBER_FIELD(port_offset),
        VESK_TEST_NUMBER_FIELD(binding_ping_period),
        VESK_TEST_NUMBER_FIELD(binding_ping_mapping_expiration),
        VESK_TEST_NUMBER_FIELD(gather_detailed_statistics),
        VESK_TEST_NUMBER_FIELD(drop_samples_by_guid_prefix),
        VESK_TEST_NUMBER_FIELD(guid_prefix_to_drop.hostId),
        VESK_TEST_NUMBER_FIELD(guid_prefix_to_drop.appId),
        VESK_TEST_NUMBER_FIELD(guid_prefix_to_drop.instanceId),
    };
    return fields;
}

#undef VESK_TEST_NUMBER_FIELD

// The names of the fields in which two records differ.
inline std::vector<std::string> differingFields(const VESK_Transport_UDP_Property_t &left,
                                                const VESK_Transport_UDP_Property_t &right) {
    std::vector<std::string> out;
    for (const UdpField &field : udpFields()) {
        if (field.render(left) != field.render(right)) out.push_back(field.name);
    }
    return out;
}

inline void expectSameRecord(const VESK_Transport_UDP_Property_t &expected,
                             const VESK_Transport_UDP_Property_t &actual) {
    for (const UdpField &field : udpFields()) {
        EXPECT_EQ(field.render(expected), field.render(actual)) << "field " << field.name;
    }
}

// A factory's working state: a copy of a default record and cleared flags;
// the UDP cleanup runs when it goes out of scope.
struct UdpRecord {
    VESK_Transport_UDP_Property_t record;
    VESK_Transport_internalMemoryAllocations allocations{};

    explicit UdpRecord(const VESK_Transport_UDP_Property_t &defaults) : record(defaults) {}
    ~UdpRecord() { VESK_Transport_cleanupUDPProperty(&record, &allocations); }
    UdpRecord(const UdpRecord &) = delete;
    UdpRecord &operator=(const UdpRecord &) = delete;

    int setup(const PropertyList &properties, const char *prefix,
              VESK_Transport_ClassId_t classid) {
        return VESK_Transport_setupUDPProperty(&record, &allocations, properties.get(), prefix,
                                               classid);
    }
};

}  // namespace vesk::test
