// Shared by the setup and factory tests: log records as comparable lines,
// records rendered field by field, and the allocation sweep of a setup.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "support/AllocationSweep.hpp"
#include "support/PropertyList.hpp"
#include "support/TestSupport.hpp"
#include "vesk_transport/Support.h"

namespace vesk::test {

// "level function TEMPLATE[format](param|param)": a log record as one line;
// the format part only for _TEMPLATE messages.
inline std::string message(KEL_UINT32 level, const std::string &function,
                           const std::string &template_name, const std::vector<std::string> &params,
                           const std::string &format = "") {
    std::string out = std::to_string(level) + " " + function + " " + template_name;
    if (!format.empty()) out += "[" + format + "]";
    return out + "(" + summarize("", params).substr(1);
}
inline std::string describe(const LogEntry &entry) {
    return message(entry.level, entry.function, entry.template_name, entry.params, entry.format);
}
inline std::vector<std::string> describeAll(const LogCapture &capture) {
    std::vector<std::string> out;
    for (const LogEntry &entry : capture.entries()) out.push_back(describe(entry));
    return out;
}
inline std::string error(const std::string &function, const std::string &template_name,
                         const std::vector<std::string> &params, const std::string &format = "") {
    return message(KEL_LOG_BIT_ERROR, function, template_name, params, format);
}
inline std::string parser(const std::string &function, const std::string &name,
                          const std::string &value) {
    return error(function, "KEL_LOG_PARSER_FAILURE_ss", {name, value});
}
inline constexpr const char *VALIDATE = "DDS_PropertyQosPolicy_validate_plugin_property_suffixes";
inline std::string unknown(const std::string &name, KEL_UINT32 level = KEL_LOG_BIT_ERROR) {
    return message(level, VALIDATE, "KEL_LOG_UNKNOWN_PROPERTY_s", {name});
}
inline std::string inconsistent(const std::string &function, const std::string &prefix) {
    return error(function, "KEL_LOG_INCONSISTENT_PROPERTY_s", {prefix});
}

inline constexpr const char *PARENT_SETUP = "VESK_Transport_setupParentTransportProperty";
inline constexpr const char *UDP_SETUP = "VESK_Transport_setupUDPProperty";
inline constexpr const char *SHMEM_SETUP = "VESK_Transport_setupShmemProperty";
inline constexpr const char *PARSE_INTERFACE_LIST = "VESK_Transport_Support_parse_interface_list";
inline constexpr const char *PARSE_JSON = "VESK_Transport_CommPortsHelper_parseJson";
inline char DEFAULT_THREAD_NAME_PREFIX[] = "rTr#####";

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
    for (KEL_INT32 i = 0; i < length; ++i) out += (i != 0 ? "," : "") + renderString(list[i]);
    return out + "]";
}

// ref_count is left out: no setup writes it.
inline std::string renderList(const VESK_Transport_UDP_WAN_CommPortsMappingInfo *list,
                              KEL_INT32 length) {
    if (list == nullptr) return "null";
    std::string out = "[";
    for (KEL_INT32 i = 0; i < length; ++i) {
        out += std::string(i != 0 ? "," : "") + "{" + std::to_string(list[i].rtps_port) + "," +
               std::to_string(list[i].host_port) + "," + std::to_string(list[i].public_port) + "}";
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
template <typename Value>
std::string renderBytesOf(const Value &value) {
    return renderBytes(&value, sizeof value);
}

inline std::string renderFlags(const VESK_Transport_internalMemoryAllocations &f) {
    std::string out;
    for (KEL_INT32 flag :
         {f._allowInterfacesListAllocated, f._denyInterfacesListAllocated,
          f._allowMulticastInterfacesListAllocated, f._denyMulticastInterfacesListAllocated,
          f._publicAddressAllocated, f._commPortsAllocated}) {
        out += (out.empty() ? "" : ",") + std::to_string(flag);
    }
    return out;
}

template <typename Record>
struct Field {
    const char *name;
    std::string (*render)(const Record &record);
};
using Udp = VESK_Transport_UDP_Property_t;
using Shmem = VESK_Transport_Shmem_Property_t;
using Generic = VESK_Transport_Property_t;

// A field by its path in the record and the function that renders it; a
// number; a list (its elements) and its length.
#define VESK_FIELD(R, path, how) (Field<R>{#path, [](const R &r) { return how(r.path); }})
#define VESK_NUMBER(R, path) VESK_FIELD(R, path, std::to_string)
#define VESK_LIST(R, path)                                                           \
    Field<R>{#path, [](const R &r) { return renderList(r.path, r.path##_length); }}, \
        VESK_NUMBER(R, path##_length)

// Every field of each record part, in the record's order.
inline const std::vector<Field<Generic>> GENERIC_FIELDS = {
    VESK_NUMBER(Generic, classid),
    VESK_NUMBER(Generic, address_bit_count),
    VESK_NUMBER(Generic, properties_bitmap),
    VESK_NUMBER(Generic, gather_send_buffer_count_max),
    VESK_NUMBER(Generic, message_size_max),
    VESK_LIST(Generic, allow_interfaces_list),
    VESK_LIST(Generic, deny_interfaces_list),
    VESK_LIST(Generic, allow_multicast_interfaces_list),
    VESK_LIST(Generic, deny_multicast_interfaces_list),
    VESK_FIELD(Generic, transport_uuid, renderBytesOf),
    VESK_FIELD(Generic, domain_participant_ptr, renderPointer),
    VESK_FIELD(Generic, domain_participant_forwarder, renderPointer),
    VESK_FIELD(Generic, thread_name_prefix, renderString),
    VESK_NUMBER(Generic, max_interface_count)};

inline const std::vector<Field<Udp>> UDP_OWN_FIELDS = {
    VESK_NUMBER(Udp, send_socket_buffer_size),
    VESK_NUMBER(Udp, recv_socket_buffer_size),
    VESK_NUMBER(Udp, unicast_enabled),
    VESK_NUMBER(Udp, multicast_enabled),
    VESK_NUMBER(Udp, multicast_ttl),
    VESK_NUMBER(Udp, multicast_loopback_disabled),
    VESK_NUMBER(Udp, ignore_loopback_interface),
    VESK_NUMBER(Udp, ignore_nonup_interfaces),
    VESK_NUMBER(Udp, ignore_nonrunning_interfaces),
    VESK_NUMBER(Udp, no_zero_copy),
    VESK_NUMBER(Udp, send_blocking),
    VESK_NUMBER(Udp, enable_v4mapped),
    VESK_NUMBER(Udp, use_checksum),
    VESK_NUMBER(Udp, transport_priority_mask),
    VESK_NUMBER(Udp, transport_priority_mapping_low),
    VESK_NUMBER(Udp, transport_priority_mapping_high),
    VESK_NUMBER(Udp, send_ping),
    VESK_NUMBER(Udp, force_interface_poll_detection),
    VESK_NUMBER(Udp, interface_poll_period),
    VESK_NUMBER(Udp, reuse_multicast_receive_resource),
    VESK_NUMBER(Udp, protocol_overhead_max),
    VESK_NUMBER(Udp, disable_interface_tracking),
    VESK_NUMBER(Udp, join_multicast_group_timeout),
    VESK_FIELD(Udp, public_address, renderString),
    VESK_LIST(Udp, comm_ports_list),
    VESK_FIELD(Udp, wan_listener, renderPointer),
    VESK_NUMBER(Udp, port_offset),
    VESK_NUMBER(Udp, binding_ping_period),
    VESK_NUMBER(Udp, binding_ping_mapping_expiration),
    VESK_NUMBER(Udp, gather_detailed_statistics),
    VESK_NUMBER(Udp, drop_samples_by_guid_prefix),
    VESK_NUMBER(Udp, guid_prefix_to_drop.hostId),
    VESK_NUMBER(Udp, guid_prefix_to_drop.appId),
    VESK_NUMBER(Udp, guid_prefix_to_drop.instanceId)};

inline const std::vector<Field<Shmem>> SHMEM_OWN_FIELDS = {
    VESK_NUMBER(Shmem, received_message_count_max),
    VESK_NUMBER(Shmem, receive_buffer_size),
    VESK_NUMBER(Shmem, enable_udp_debugging),
    VESK_FIELD(Shmem, udp_debugging_address, renderBytesOf),
    VESK_NUMBER(Shmem, udp_debugging_port),
    VESK_NUMBER(Shmem, segmentKeyOffset),
    VESK_NUMBER(Shmem, segmentKeyFactor),
    VESK_NUMBER(Shmem, semaphoreKeyOffset),
    VESK_NUMBER(Shmem, semaphoreKeyFactor),
    VESK_NUMBER(Shmem, mutexKeyOffset),
    VESK_NUMBER(Shmem, mutexKeyFactor),
    VESK_NUMBER(Shmem, maxAllowedWriterDurationMillisec),
    VESK_NUMBER(Shmem, reserved),
    VESK_FIELD(Shmem, shmemUUID, renderBytesOf),
    VESK_NUMBER(Shmem, majorVersion)};

#undef VESK_FIELD
#undef VESK_NUMBER
#undef VESK_LIST
using Rendered = std::vector<std::pair<std::string, std::string>>;

// Every field (generic part first, its names without "parent.") by content.
template <typename Record>
Rendered render(const Record &record) {
    Rendered out;
    const Generic &parent = reinterpret_cast<const Generic &>(record);
    for (const auto &field : GENERIC_FIELDS) out.emplace_back(field.name, field.render(parent));
    if constexpr (std::is_same_v<Record, Udp>) {
        for (const auto &field : UDP_OWN_FIELDS) out.emplace_back(field.name, field.render(record));
    } else if constexpr (std::is_same_v<Record, Shmem>) {
        for (const auto &field : SHMEM_OWN_FIELDS) {
            out.emplace_back(field.name, field.render(record));
        }
    }
    return out;
}

// The fields in which after differs from before, with their values after.
template <typename Record>
Rendered changes(const Record &before, const Record &after) {
    const Rendered a = render(before), b = render(after);
    Rendered out;
    for (size_t i = 0; i < a.size(); ++i) {
        if (a[i].second != b[i].second) out.push_back(b[i]);
    }
    return out;
}

// base with the given fields replaced.
inline Rendered with(Rendered base, const Rendered &replaced) {
    for (auto &[name, value] : base) {
        for (const auto &[replacedName, replacedValue] : replaced) {
            if (name == replacedName) value = replacedValue;
        }
    }
    return base;
}

template <typename Record>
std::string field(const Record &record, const std::string &name) {
    for (const auto &[fieldName, value] : render(record)) {
        if (fieldName == name) return value;
    }
    ADD_FAILURE() << "no field " << name;
    return {};
}

// A record with the default thread-name prefix that a setup gives.
template <typename Record>
Record withDefaultThreadName(Record record) {
    reinterpret_cast<Generic &>(record).thread_name_prefix = DEFAULT_THREAD_NAME_PREFIX;
    return record;
}

// A record with cleared flags, cleaned up at the end.
struct UdpRecord {
    Udp record;
    VESK_Transport_internalMemoryAllocations allocations{};

    explicit UdpRecord(const Udp &defaults = VESK_TRANSPORT_UDPV4_WAN_PROPERTY_DEFAULT)
        : record(defaults) {}
    ~UdpRecord() { VESK_Transport_cleanupUDPProperty(&record, &allocations); }
    UdpRecord(const UdpRecord &) = delete;
    UdpRecord &operator=(const UdpRecord &) = delete;
};

struct ShmemRecord {
    Shmem record = VESK_TRANSPORT_SHMEM_PROPERTY_DEFAULT;
    VESK_Transport_internalMemoryAllocations flags{};
    ~ShmemRecord() { VESK_Transport_cleanupShmemProperty(&record, &flags); }
    int setup(const PropertyList &properties, const DDS_WireProtocolQosPolicy *policy = nullptr,
              DDS_RtpsAppIdGenerator *generator = nullptr,
              const DDS_ProductVersion_t *minimum = nullptr) {
        return VESK_Transport_setupShmemProperty(&record, &flags, properties.get(), policy,
                                                 generator, minimum);
    }
};

struct PluginDeleter {
    void operator()(VESK_Transport_Plugin *plugin) const { plugin->delete_cEA(plugin, nullptr); }
};
using PluginPtr = std::unique_ptr<VESK_Transport_Plugin, PluginDeleter>;

// The platform's mutexes taken as robust (1) or not (0) while in scope.
struct ForcedRobustMutex {
    explicit ForcedRobustMutex(int mode) { KELOsapiSharedMemorySemMutex_forceRobustMutex(mode); }
    ~ForcedRobustMutex() { KELOsapiSharedMemorySemMutex_forceRobustMutex(-1); }
};

// The host's unique id replaced while in scope.
struct UniqueIdOverride {
    explicit UniqueIdOverride(const std::array<unsigned char, 16> &bytes) {
        KELOsapiHostId id;
        std::memcpy(id.value, bytes.data(), bytes.size());
        KELOsapiHost_setUniqueIdOverride(&id);
    }
    ~UniqueIdOverride() { KELOsapiHost_setUniqueIdOverride(nullptr); }
};

// While in scope: the logger's precondition detection armed (or not), and
// the log captured. expectOne(): exactly one precondition of function
// failed, naming what inside quotes.
struct PreconditionWatch {
    int detect = KELLog_g_detectPrecondition;
    int detected = KELLog_g_preconditionDetected;
    int armed;
    KEL_UINT64 breakpoints = KELLog_getAssertBreakpointCount();
    LogCapture log;
    explicit PreconditionWatch(int arm = 1) : armed(arm) {
        KELLog_g_detectPrecondition = arm;
        KELLog_g_preconditionDetected = 0;
    }
    ~PreconditionWatch() {
        KELLog_g_detectPrecondition = detect;
        KELLog_g_preconditionDetected = detected;
    }
    void expectOne(const char *function, const std::string &what) const {
        EXPECT_EQ(armed, KELLog_g_preconditionDetected);
        EXPECT_EQ(breakpoints + 1, KELLog_getAssertBreakpointCount());
        const auto entries = log.entries();
        ASSERT_EQ(1u, entries.size());
        ASSERT_EQ(1u, entries[0].params.size());
        const std::string &condition = entries[0].params[0];
        EXPECT_EQ(
            message(KEL_LOG_BIT_EXCEPTION, function, "KEL_LOG_PRECONDITION_FAILURE_s", {condition}),
            describe(entries[0]));
        EXPECT_TRUE(condition.size() > what.size() + 1 && condition.front() == '"' &&
                    condition.back() == '"' && condition.find(what) != std::string::npos)
            << condition;
    }
};

// A setup's allocation sweep: call(state) with each allocation failing in
// turn, then none; check(failed, state, result, log lines) after each run;
// the state's destructor releases what the run left before the leak check.
// Gives the last log line of every failed run and the count of failed runs.
struct SweepLines {
    std::set<std::string> lastLines;
    long failurePoints = 0;
};
template <typename State, typename Call, typename Check>
SweepLines sweepSetup(Call call, Check check) {
    struct Outcome {
        std::unique_ptr<State> state = std::make_unique<State>();
        int result = 0;
        std::vector<std::string> lines;
    };
    SweepLines out;
    const auto summary = sweepAllocationFailures(
        [&] {
            LogCapture log;
            Outcome outcome;
            outcome.result = call(*outcome.state);
            outcome.lines = describeAll(log);
            return outcome;
        },
        [&](const SweepStep &step, Outcome &o) {
            check(step.failed, *o.state, o.result, o.lines);
            if (step.failed) out.lastLines.insert(o.lines.empty() ? "" : o.lines.back());
        },
        [](Outcome &o) { o.state.reset(); });
    EXPECT_TRUE(summary.completed);
    out.failurePoints = summary.failurePoints;
    return out;
}

}  // namespace vesk::test
