// The builtin factories: the default records, the plugin of a list in every
// form, each way a factory fails, and every allocation failing in turn.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "support/EveryProperty.hpp"
#include "support/SetupChecks.hpp"
#include "vesk_transport/PropertyTables.hpp"
#include "vesk_transport/Support.h"

namespace {

using namespace vesk::test;
using Address = VESK_Transport_Address_t;

constexpr const char *PREFIX = "dds.transport.UDPv4.builtin";
constexpr const char *SHMEM_CREATE = "VESK_Transport_Shmem_create";

// The prefixed factory (which every message names), the short form, the
// defaults, and a property that the constructor refuses.
struct Factory {
    std::string cls;  // "UDPv4": VESK_Transport_UDPv4_create_from_properties_with_prefix, ...
    VESK_Transport_Plugin *(*prefixed)(Address *, const DDS_PropertyQosPolicy *, const char *);
    VESK_Transport_Plugin *(*shortForm)(Address *, const DDS_PropertyQosPolicy *);
    const Udp *defaults;
    Class sweep;
    const char *refused;
    std::string name() const {
        return "VESK_Transport_" + cls + "_create_from_properties_with_prefix";
    }
    std::string constructor() const { return "VESK_Transport_" + cls + "_newI"; }
};

const Factory FACTORIES[] = {
    {"UDPv4", VESK_Transport_UDPv4_create_from_properties_with_prefix, VESK_Transport_UDPv4_create,
     &VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT, Class::udpv4, "parent.message_size_max=65508"},
    {"UDPv4_WAN", VESK_Transport_UDPv4_WAN_create_from_properties_with_prefix,
     VESK_Transport_UDPv4_WAN_create, &VESK_TRANSPORT_UDPV4_WAN_PROPERTY_DEFAULT, Class::udpv4Wan,
     "port_offset=-1"},
    {"UDPv6", VESK_Transport_UDPv6_create_from_properties_with_prefix, VESK_Transport_UDPv6_create,
     &VESK_TRANSPORT_UDPV6_PROPERTY_DEFAULT, Class::udpv6, "parent.message_size_max=65488"},
};

// A row: the factory called with the caller's address (a pattern no factory
// may touch), and the record of the plugin it gives, or none; then exactly
// these messages, or only messages of the constructor that refused.
struct Row {
    const char *name;
    std::function<VESK_Transport_Plugin *(Address *)> create;
    Rendered record;  // empty: null expected
    std::vector<std::string> messages = {};
    std::string constructor = {};
};

template <typename Record>
void expectRows(const std::vector<Row> &rows) {
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        Address address, pattern;
        std::memset(&address, 0xAB, sizeof address);
        std::memset(&pattern, 0xAB, sizeof pattern);
        const KEL_UINT64 blocks = liveHeapBlocks();
        {
            LogCapture log;
            const PluginPtr plugin(row.create(&address));
            EXPECT_EQ(row.record, plugin
                                      ? render(*reinterpret_cast<const Record *>(plugin->property))
                                      : Rendered{});
            if (row.constructor.empty()) {
                EXPECT_EQ(row.messages, describeAll(log));
            } else {
                ASSERT_FALSE(log.entries().empty());  // the constructor says why
                for (const LogEntry &entry : log.entries()) {
                    EXPECT_EQ(row.constructor, entry.function) << entry.text;
                }
            }
        }
        EXPECT_EQ(0, std::memcmp(&pattern, &address, sizeof address));
        EXPECT_EQ(blocks, liveHeapBlocks());  // the plugin's copies went with it
    }
}

// The generic part of the UDP records; the shared-memory record differs in
// the numbers given with it.
const char *const GENERIC_DEFAULTS =
    "classid=1;address_bit_count=32;properties_bitmap=0;gather_send_buffer_count_max=16;"
    "message_size_max=65507;allow_interfaces_list=null;allow_interfaces_list_length=0;"
    "deny_interfaces_list=null;deny_interfaces_list_length=0;"
    "allow_multicast_interfaces_list=null;allow_multicast_interfaces_list_length=0;"
    "deny_multicast_interfaces_list=null;deny_multicast_interfaces_list_length=0;"
    "transport_uuid=000000000000000000000000;domain_participant_ptr=null;"
    "domain_participant_forwarder=null;thread_name_prefix=null;max_interface_count=-1";

TEST(Defaults, EveryFieldOfTheRecords) {
    const Rendered udpv4 = pairs(
        std::string(GENERIC_DEFAULTS) +
        ";send_socket_buffer_size=2097152;recv_socket_buffer_size=2097152;unicast_enabled=1;"
        "multicast_enabled=1;multicast_ttl=1;multicast_loopback_disabled=0;"
        "ignore_loopback_interface=-1;ignore_nonup_interfaces=1;ignore_nonrunning_interfaces=1;"
        "no_zero_copy=0;send_blocking=1;enable_v4mapped=0;use_checksum=1;"
        "transport_priority_mask=0;transport_priority_mapping_low=0;"
        "transport_priority_mapping_high=255;send_ping=1;force_interface_poll_detection=0;"
        "interface_poll_period=500;reuse_multicast_receive_resource=1;protocol_overhead_max=28;"
        "disable_interface_tracking=0;join_multicast_group_timeout=5000;public_address=null;"
        "comm_ports_list=null;comm_ports_list_length=0;wan_listener=null;port_offset=0;"
        "binding_ping_period=0;binding_ping_mapping_expiration=0;gather_detailed_statistics=0;"
        "drop_samples_by_guid_prefix=0;guid_prefix_to_drop.hostId=0;"
        "guid_prefix_to_drop.appId=0;guid_prefix_to_drop.instanceId=0");
    EXPECT_EQ(udpv4, render(VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT));
    EXPECT_EQ(with(udpv4, pairs("classid=16777217;address_bit_count=128;message_size_max=1400;"
                                "multicast_enabled=0;port_offset=125;binding_ping_period=1000")),
              render(VESK_TRANSPORT_UDPV4_WAN_PROPERTY_DEFAULT));
    EXPECT_EQ(with(udpv4, pairs("classid=2;address_bit_count=128;message_size_max=65487;"
                                "use_checksum=0;protocol_overhead_max=48")),
              render(VESK_TRANSPORT_UDPV6_PROPERTY_DEFAULT));
    // The empty shmemUUID is the invalid address: the setup generates it.
    const Rendered shmem = with(
        pairs(std::string(GENERIC_DEFAULTS) +
              ";received_message_count_max=64;receive_buffer_size=1048576;enable_udp_debugging=0;"
              "udp_debugging_address=000000000000000000000000efff0102;udp_debugging_port=7399;"
              "segmentKeyOffset=4194304;segmentKeyFactor=1;semaphoreKeyOffset=8388608;"
              "semaphoreKeyFactor=1;mutexKeyOffset=11534336;mutexKeyFactor=1;"
              "maxAllowedWriterDurationMillisec=1000;reserved=0;"
              "shmemUUID=00000000000000000000000000000000;majorVersion=2"),
        pairs("classid=16777216;address_bit_count=-96;properties_bitmap=2;"
              "gather_send_buffer_count_max=1024;message_size_max=65536"));
    EXPECT_EQ(shmem, render(VESK_TRANSPORT_SHMEM_PROPERTY_DEFAULT));
}

// The same list reaches the plugin under the prefix, under no prefix and
// through the short form. A failed setup: its messages, then the factory's
// one creation failure, and what the setup allocated before it failed is
// released. A refusing constructor: its messages only. The short form is the
// null prefix, validated against the class's own names: only the WAN class
// knows "port_offset" there.
TEST(UdpFactory, EachFormAndEachFailureOfEveryClass) {
    const std::string list =
        "parent.allow_interfaces_list=eth0, 10.0.0.1;parent.thread_name_prefix=worker;"
        "parent.message_size_max=1200;multicast_ttl=8";
    const Rendered changed =
        pairs(R"(allow_interfaces_list=["eth0","10.0.0.1"];allow_interfaces_list_length=2;)"
              R"(thread_name_prefix="worker";message_size_max=1200;multicast_ttl=8)");
    const std::string held =
        "parent.allow_interfaces=eth0,eth1;parent.thread_name_prefix=abc;"
        "public_address=203.0.113.5;comm_ports=7400;";
    const PropertyList prefixed(list, PREFIX), plain(list), empty,
        wanName("port_offset=10;prefix="), bad(held + "gather_detailed_statistics=all", PREFIX);
    const std::string parser =
        error(UDP_SETUP, "KEL_LOG_PARSER_FAILURE_ss", {"gather_detailed_statistics", "all"});
    const std::string unknown = error(VALIDATE, "KEL_LOG_UNKNOWN_PROPERTY_s", {"port_offset"});
    const std::string inconsistent = error(UDP_SETUP, "KEL_LOG_INCONSISTENT_PROPERTY_s", {""});
    for (const Factory &f : FACTORIES) {
        SCOPED_TRACE(f.cls);
        const PropertyList refused(held + f.refused, PREFIX);
        const Rendered defaults = render(withDefaultThreadName(*f.defaults));
        const std::string failed = error(f.name(), "KEL_LOG_CREATION_FAILURE_s",
                                         {f.cls + " Transport: Properties not properly set"});
        const bool wan = f.sweep == Class::udpv4Wan;
        expectRows<Udp>({
            {"prefix", [&](Address *a) { return f.prefixed(a, prefixed.get(), PREFIX); },
             with(defaults, changed)},
            {"null prefix", [&](Address *a) { return f.prefixed(a, plain.get(), nullptr); },
             with(defaults, changed)},
            {"short form", [&](Address *a) { return f.shortForm(a, plain.get()); },
             with(defaults, changed)},
            {"empty, no address",
             [&](Address *) { return f.prefixed(nullptr, empty.get(), PREFIX); }, defaults},
            {"bad value",
             [&](Address *a) { return f.prefixed(a, bad.get(), PREFIX); },
             {},
             {parser, failed}},
            {"refused",
             [&](Address *a) { return f.prefixed(a, refused.get(), PREFIX); },
             {},
             {},
             f.constructor()},
            {"WAN name, short form", [&](Address *a) { return f.shortForm(a, wanName.get()); },
             wan ? with(defaults, {{"port_offset", "10"}}) : Rendered{},
             wan ? std::vector<std::string>{} : std::vector{unknown, inconsistent, failed}},
        });
    }
}

// The plugin keeps its own copy of the record, with the format version for
// the minimum and the address from "host_id" only: without a wire-protocol
// policy the host's identity is never consulted. Failures as for UDP.
TEST(ShmemFactory, EachListAndEachFailure) {
    const PropertyList empty, hostId("host_id=0x0A0B0C0D"),
        listed(
            "parent.allow_interfaces_list=shm0, shm1;received_message_count_max=32;"
            "enable_udp_debugging=true;udp_debugging_address=127.0.0.5;udp_debugging_port=7500");
    const std::string held =
        "parent.allow_interfaces_list=shm0,shm1;parent.deny_multicast_interfaces_list=shm2;"
        "parent.thread_name_prefix=shm;enable_udp_debugging=true;";
    const PropertyList bad(held + "received_message_count_max=many"),
        refused(held + "segmentKeyFactor=0");
    const DDS_ProductVersion_t minimum = {6, 1, 0, 0};
    const auto create = [](const PropertyList &list,
                           const DDS_ProductVersion_t *version = nullptr) {
        return [&list, version](Address *a) {
            return VESK_Transport_Shmem_create(a, list.get(), version);
        };
    };
    const Rendered defaults =
        with(render(withDefaultThreadName(VESK_TRANSPORT_SHMEM_PROPERTY_DEFAULT)),
             {{"shmemUUID", "01000000000000000000000000000000"}});
    const UniqueIdOverride hostIdentity({0xa0, 0xa1, 0xa2, 0xa3, 0xa4, 0xa5, 0xa6, 0xa7, 0xa8, 0xa9,
                                         0xaa, 0xab, 0xac, 0xad, 0xae, 0xaf});
    ForcedRobustMutex forced(0);
    expectRows<Shmem>({
        {"empty", create(empty), defaults},
        {"minimum", create(empty, &minimum), with(defaults, {{"majorVersion", "4"}})},
        {"host_id", create(hostId),
         with(defaults, {{"shmemUUID", "010000000a0b0c0d0000000000000000"}})},
        {"settings", create(listed),
         with(defaults,
              pairs(R"(allow_interfaces_list=["shm0","shm1"];allow_interfaces_list_length=2;)"
                    "received_message_count_max=32;enable_udp_debugging=1;udp_debugging_port=7500;"
                    "udp_debugging_address=0000000000000000000000007f000005"))},
        {"bad value",
         create(bad),
         {},
         {error(SHMEM_SETUP, "KEL_LOG_PARSER_FAILURE_ss", {"received_message_count_max", "many"}),
          error(SHMEM_CREATE, "KEL_LOG_CREATION_FAILURE_s",
                {"Shared Memory Transport: Properties not properly set"})}},
        {"refused", create(refused), {}, {}, "VESK_Transport_Shmem_newI"},
    });
}

// Each suffix a class reads is in the list its row names (public or
// private), and in no other: the split that docs/properties.md shows.
TEST(ValueTable, EachSuffixIsInTheListItsRowNames) {
    using namespace vesk::transport;
    const std::pair<unsigned, Class> classes[] = {{udpv4Class, Class::udpv4},
                                                  {udpv4WanClass, Class::udpv4Wan},
                                                  {udpv6Class, Class::udpv6},
                                                  {shmemClass, Class::shmem}};
    for (const auto &[bit, cls] : classes) {
        std::vector<std::string> lists[2];  // public, private
        const auto add = [&](const auto &row) {
            if ((row.classes & bit) == 0) return;
            lists[row.isPublic ? 0 : 1].emplace_back(row.suffix);
            if constexpr (requires { row.alternativeSuffix; }) {
                if (row.alternativeSuffix)
                    lists[row.isPublic ? 0 : 1].emplace_back(row.alternativeSuffix);
            }
        };
        for (const auto &row : GENERIC_ROWS) add(row);
        for (const auto &row : UDP_ROWS) add(row);
        for (const auto &row : SHMEM_SETTING_ROWS) add(row);
        for (const auto &row : SHMEM_IDENTITY_ROWS) add(row);
        lists[0].insert(lists[0].end(), lists[1].begin(), lists[1].end());
        EXPECT_EQ(lists[0], acceptedSuffixes(cls)) << static_cast<int>(cls);
    }
}

// A refused allocation ends in a null plugin and errors, never a
// precondition failure; the last message is the factory's one creation
// failure, or the constructor's with none of the factory.
template <typename Create>
void sweepFactory(Create create, const std::string &factory, const std::string &constructor,
                  long minimumPoints) {
    const auto sweep = sweepSetup<PluginPtr>(
        [&](PluginPtr &plugin) {
            plugin.reset(create());
            return 0;
        },
        [&](bool failed, const PluginPtr &plugin, int, const std::vector<std::string> &lines) {
            // At most the warning that lo (the one interface allowed) has no multicast.
            const auto level = std::to_string(failed ? KEL_LOG_BIT_ERROR : KEL_LOG_BIT_WARN) + " ";
            const auto from = [&](const std::string &line, const std::string &function) {
                return line.rfind(level + function + " ", 0) == 0;
            };
            for (const std::string &line : lines) EXPECT_EQ(0u, line.rfind(level, 0)) << line;
            EXPECT_EQ(failed, plugin == nullptr);
            if (!failed) return;
            ASSERT_FALSE(lines.empty()) << "a refused allocation was not reported";
            const auto fromFactory = std::count_if(
                lines.begin(), lines.end(), [&](const auto &line) { return from(line, factory); });
            if (from(lines.back(), factory)) {
                EXPECT_NE(std::string::npos, lines.back().find(" KEL_LOG_CREATION_FAILURE_s("));
                EXPECT_EQ(1, fromFactory);
            } else {
                EXPECT_TRUE(from(lines.back(), constructor)) << lines.back();
                EXPECT_EQ(0, fromFactory);
            }
        });
    EXPECT_GE(sweep.failurePoints, minimumPoints);
}

TEST(FactorySweep, EveryFactoryWithEveryProperty) {
    for (const Factory &factory : FACTORIES) {
        for (const char *prefix : {static_cast<const char *>(nullptr), PREFIX}) {
            SCOPED_TRACE(factory.cls + (prefix ? " with prefix" : ""));
            PropertyList properties;
            properties.addEvery(factory.sweep, prefix);
            sweepFactory([&] { return factory.prefixed(nullptr, properties.get(), prefix); },
                         factory.name(), factory.constructor(), 20);
        }
        const PropertyList empty;
        sweepFactory([&] { return factory.shortForm(nullptr, empty.get()); }, factory.name(),
                     factory.constructor(), 2);
    }
    PropertyList properties;
    properties.addEvery(Class::shmem);
    const DDS_ProductVersion_t minimum = {6, 1, 0, 0};
    sweepFactory([&] { return VESK_Transport_Shmem_create(nullptr, properties.get(), &minimum); },
                 SHMEM_CREATE, "VESK_Transport_Shmem_newI", 20);
}

}  // namespace
