// The UDP factories: the three default records, plugins built from
// property lists, the short forms, the messages of a bad property, a
// constructor that refuses the record, and allocation failures anywhere
// on the way.

#include <gtest/gtest.h>

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "support/PropertyList.hpp"
#include "support/SetupChecks.hpp"
#include "support/TestSupport.hpp"
#include "vesk_transport/Support.h"

namespace {

using vesk::test::describeAll;
using vesk::test::differingFields;
using vesk::test::expectSameRecord;
using vesk::test::liveHeapBlocks;
using vesk::test::LogCapture;
using vesk::test::message;
using vesk::test::PARENT_SETUP;
using vesk::test::PropertyList;
using vesk::test::UDP_SETUP;
using vesk::test::udpFields;

using Udp = VESK_Transport_UDP_Property_t;
using Prefixed = VESK_Transport_Plugin *(*)(VESK_Transport_Address_t *,
                                            const DDS_PropertyQosPolicy *, const char *);
using Short = VESK_Transport_Plugin *(*)(VESK_Transport_Address_t *, const DDS_PropertyQosPolicy *);

constexpr const char *PREFIX = "dds.transport.UDPv4.builtin";
constexpr KEL_UINT32 ERROR = KEL_LOG_BIT_ERROR;

char DEFAULT_THREAD_NAME_PREFIX[] = "rTr#####";

struct Factory {
    const char *name;  // the prefixed factory, which every message names
    Prefixed prefixed;
    Short shortForm;
    const Udp *defaults;
    const char *creationFailure;
    VESK_Transport_ClassId_t classid;
};

const std::vector<Factory> &factories() {
    static const std::vector<Factory> all = {
        {"VESK_Transport_UDPv4_create_from_properties_with_prefix",
         VESK_Transport_UDPv4_create_from_properties_with_prefix, VESK_Transport_UDPv4_create,
         &VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT, "UDPv4 Transport: Properties not properly set", 1},
        {"VESK_Transport_UDPv4_WAN_create_from_properties_with_prefix",
         VESK_Transport_UDPv4_WAN_create_from_properties_with_prefix,
         VESK_Transport_UDPv4_WAN_create, &VESK_TRANSPORT_UDPV4_WAN_PROPERTY_DEFAULT,
         "UDPv4_WAN Transport: Properties not properly set", 0x01000001},
        {"VESK_Transport_UDPv6_create_from_properties_with_prefix",
         VESK_Transport_UDPv6_create_from_properties_with_prefix, VESK_Transport_UDPv6_create,
         &VESK_TRANSPORT_UDPV6_PROPERTY_DEFAULT, "UDPv6 Transport: Properties not properly set", 2},
    };
    return all;
}

std::string creationFailure(const Factory &factory) {
    return message(ERROR, factory.name, "KEL_LOG_CREATION_FAILURE_s", {factory.creationFailure});
}

// The plugin's own record: its property member heads a UDP record.
const Udp &recordOf(const VESK_Transport_Plugin *plugin) {
    return *reinterpret_cast<const Udp *>(plugin->property);
}

void deletePlugin(VESK_Transport_Plugin *plugin) {
    if (plugin != nullptr) plugin->delete_cEA(plugin, nullptr);
}

Udp withDefaultThreadName(const Udp &defaults) {
    Udp expected = defaults;
    expected.parent.thread_name_prefix = DEFAULT_THREAD_NAME_PREFIX;
    return expected;
}

// ---------------------------------------------------------------------------
// The default records
// ---------------------------------------------------------------------------

TEST(UdpDefaults, EveryFieldOfTheThreeRecords) {
    struct Row {
        const char *field;
        const char *udpv4;
        const char *wan;
        const char *udpv6;
    };
    const std::vector<Row> table = {
        {"parent.classid", "1", "16777217", "2"},
        {"parent.address_bit_count", "32", "128", "128"},
        {"parent.properties_bitmap", "0", "0", "0"},
        {"parent.gather_send_buffer_count_max", "16", "16", "16"},
        {"parent.message_size_max", "65507", "1400", "65487"},
        {"parent.allow_interfaces_list", "null", "null", "null"},
        {"parent.allow_interfaces_list_length", "0", "0", "0"},
        {"parent.deny_interfaces_list", "null", "null", "null"},
        {"parent.deny_interfaces_list_length", "0", "0", "0"},
        {"parent.allow_multicast_interfaces_list", "null", "null", "null"},
        {"parent.allow_multicast_interfaces_list_length", "0", "0", "0"},
        {"parent.deny_multicast_interfaces_list", "null", "null", "null"},
        {"parent.deny_multicast_interfaces_list_length", "0", "0", "0"},
        {"parent.transport_uuid", "000000000000000000000000", "000000000000000000000000",
         "000000000000000000000000"},
        {"parent.domain_participant_ptr", "null", "null", "null"},
        {"parent.domain_participant_forwarder", "null", "null", "null"},
        {"parent.thread_name_prefix", "null", "null", "null"},
        {"parent.max_interface_count", "-1", "-1", "-1"},
        {"send_socket_buffer_size", "2097152", "2097152", "2097152"},
        {"recv_socket_buffer_size", "2097152", "2097152", "2097152"},
        {"unicast_enabled", "1", "1", "1"},
        {"multicast_enabled", "1", "0", "1"},
        {"multicast_ttl", "1", "1", "1"},
        {"multicast_loopback_disabled", "0", "0", "0"},
        {"ignore_loopback_interface", "-1", "-1", "-1"},
        {"ignore_nonup_interfaces", "1", "1", "1"},
        {"ignore_nonrunning_interfaces", "1", "1", "1"},
        {"no_zero_copy", "0", "0", "0"},
        {"send_blocking", "1", "1", "1"},
        {"enable_v4mapped", "0", "0", "0"},
        {"use_checksum", "1", "1", "0"},
        {"transport_priority_mask", "0", "0", "0"},
        {"transport_priority_mapping_low", "0", "0", "0"},
        {"transport_priority_mapping_high", "255", "255", "255"},
        {"send_ping", "1", "1", "1"},
        {"force_interface_poll_detection", "0", "0", "0"},
        {"interface_poll_period", "500", "500", "500"},
        {"reuse_multicast_receive_resource", "1", "1", "1"},
        {"protocol_overhead_max", "28", "28", "48"},
        {"disable_interface_tracking", "0", "0", "0"},
        {"join_multicast_group_timeout", "5000", "5000", "5000"},
        {"public_address", "null", "null", "null"},
        {"comm_ports_list", "null", "null", "null"},
        {"comm_ports_list_length", "0", "0", "0"},
        {"wan_listener", "null", "null", "null"},
        {"port_offset", "0", "125", "0"},
        {"binding_ping_period", "0", "1000", "0"},
        {"binding_ping_mapping_expiration", "0", "0", "0"},
        {"gather_detailed_statistics", "0", "0", "0"},
        {"drop_samples_by_guid_prefix", "0", "0", "0"},
        {"guid_prefix_to_drop.hostId", "0", "0", "0"},
        {"guid_prefix_to_drop.appId", "0", "0", "0"},
        {"guid_prefix_to_drop.instanceId", "0", "0", "0"},
    };
    ASSERT_EQ(udpFields().size(), table.size());
    for (size_t i = 0; i < table.size(); ++i) {
        const Row &row = table[i];
        const auto &field = udpFields()[i];
        SCOPED_TRACE(row.field);
        ASSERT_STREQ(row.field, field.name);
        EXPECT_EQ(row.udpv4, field.render(VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT));
        EXPECT_EQ(row.wan, field.render(VESK_TRANSPORT_UDPV4_WAN_PROPERTY_DEFAULT));
        EXPECT_EQ(row.udpv6, field.render(VESK_TRANSPORT_UDPV6_PROPERTY_DEFAULT));
    }
}

TEST(UdpDefaults, TheClassesDifferInExactlyTheirOwnFields) {
    EXPECT_EQ((std::vector<std::string>{"parent.classid", "parent.address_bit_count",
                                        "parent.message_size_max", "multicast_enabled",
                                        "port_offset", "binding_ping_period"}),
              differingFields(VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT,
                              VESK_TRANSPORT_UDPV4_WAN_PROPERTY_DEFAULT));
    EXPECT_EQ((std::vector<std::string>{"parent.classid", "parent.address_bit_count",
                                        "parent.message_size_max", "use_checksum",
                                        "protocol_overhead_max"}),
              differingFields(VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT,
                              VESK_TRANSPORT_UDPV6_PROPERTY_DEFAULT));
    // A message and its overhead fill one datagram; the WAN class keeps
    // the UDPv4 overhead but sends smaller messages.
    for (const Udp *record :
         {&VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT, &VESK_TRANSPORT_UDPV6_PROPERTY_DEFAULT}) {
        EXPECT_EQ(65535, record->parent.message_size_max + record->protocol_overhead_max);
    }
    EXPECT_EQ(VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT.protocol_overhead_max,
              VESK_TRANSPORT_UDPV4_WAN_PROPERTY_DEFAULT.protocol_overhead_max);
}

// ---------------------------------------------------------------------------
// Building plugins
// ---------------------------------------------------------------------------

TEST(UdpFactory, AnEmptyListBuildsThePluginOfTheDefaults) {
    for (const Factory &factory : factories()) {
        SCOPED_TRACE(factory.name);
        PropertyList properties;
        struct Call {
            const char *name;
            std::function<VESK_Transport_Plugin *()> create;
        };
        VESK_Transport_Address_t address;
        std::memset(&address, 0xAB, sizeof address);
        const VESK_Transport_Address_t before = address;
        const std::vector<Call> calls = {
            {"with a prefix", [&] { return factory.prefixed(&address, properties.get(), PREFIX); }},
            {"with a null prefix",
             [&] { return factory.prefixed(&address, properties.get(), nullptr); }},
            {"short form", [&] { return factory.shortForm(&address, properties.get()); }},
            {"null address", [&] { return factory.prefixed(nullptr, properties.get(), PREFIX); }},
        };
        for (const Call &call : calls) {
            SCOPED_TRACE(call.name);
            LogCapture log;
            const KEL_UINT64 blocks = liveHeapBlocks();
            VESK_Transport_Plugin *plugin = call.create();
            ASSERT_NE(nullptr, plugin);
            ASSERT_NE(nullptr, plugin->property);
            EXPECT_EQ(factory.classid, plugin->property->classid);
            expectSameRecord(withDefaultThreadName(*factory.defaults), recordOf(plugin));
            EXPECT_TRUE(log.entries().empty());
            EXPECT_EQ(0, std::memcmp(&before, &address, sizeof address));
            deletePlugin(plugin);
            EXPECT_EQ(blocks, liveHeapBlocks());
        }
    }
}

TEST(UdpFactory, PropertiesUnderThePrefixReachThePlugin) {
    for (const Factory &factory : factories()) {
        SCOPED_TRACE(factory.name);
        PropertyList properties;
        properties.add(PREFIX, "parent.allow_interfaces_list", "eth0, 10.0.0.1")
            .add(PREFIX, "parent.deny_multicast_interfaces", "lo")
            .add(PREFIX, "parent.thread_name_prefix", "worker")
            .add(PREFIX, "participant_guid_prefix", "1,2,3")
            .add(PREFIX, "parent.message_size_max", "1200")
            .add(PREFIX, "send_blocking", "TRANSPORT_BLOCKING_NEVER")
            .add(PREFIX, "multicast_ttl", "8")
            .add(PREFIX, "public_address", "203.0.113.5")
            .add(PREFIX, "comm_ports", R"({"default": {"host": 7400}, "mappings": [{"rtps": 1}]})")
            .add(PREFIX, "port_offset", "10")
            .add(PREFIX, "gather_detailed_statistics", "1")
            // Another transport's property is not read.
            .add("dds.transport.UDPv6.builtin.multicast_ttl", "9");
        LogCapture log;
        VESK_Transport_Plugin *plugin = factory.prefixed(nullptr, properties.get(), PREFIX);
        ASSERT_NE(nullptr, plugin);
        const Udp &record = recordOf(plugin);
        EXPECT_EQ("[\"eth0\",\"10.0.0.1\"]",
                  vesk::test::renderList(record.parent.allow_interfaces_list,
                                         record.parent.allow_interfaces_list_length));
        EXPECT_EQ("[\"lo\"]",
                  vesk::test::renderList(record.parent.deny_multicast_interfaces_list,
                                         record.parent.deny_multicast_interfaces_list_length));
        EXPECT_STREQ("worker", record.parent.thread_name_prefix);
        EXPECT_EQ(1200, record.parent.message_size_max);
        EXPECT_EQ(0, record.send_blocking);
        EXPECT_EQ(8, record.multicast_ttl);
        EXPECT_STREQ("203.0.113.5", record.public_address);
        EXPECT_EQ(
            "[{0,7400,7400},{1,0,0}]",
            vesk::test::renderCommPorts(record.comm_ports_list, record.comm_ports_list_length));
        EXPECT_EQ(10, record.port_offset);
        EXPECT_EQ(1, record.gather_detailed_statistics);
        EXPECT_TRUE(log.entries().empty());
        deletePlugin(plugin);
    }
}

// The short form is the prefixed factory with a null prefix: the same
// record on success, the same messages (naming the prefixed factory) on
// failure.
TEST(UdpFactory, TheShortFormIsTheNullPrefix) {
    for (const Factory &factory : factories()) {
        SCOPED_TRACE(factory.name);
        {
            PropertyList properties{{"parent.allow_interfaces", "eth0"},
                                    {"multicast_ttl", "3"},
                                    {"prefix", ""},
                                    {"use_checksum", "0"}};
            LogCapture log;
            VESK_Transport_Plugin *viaShort = factory.shortForm(nullptr, properties.get());
            VESK_Transport_Plugin *viaPrefixed =
                factory.prefixed(nullptr, properties.get(), nullptr);
            ASSERT_NE(nullptr, viaShort);
            ASSERT_NE(nullptr, viaPrefixed);
            EXPECT_EQ(3, recordOf(viaShort).multicast_ttl);
            expectSameRecord(recordOf(viaPrefixed), recordOf(viaShort));
            EXPECT_TRUE(log.entries().empty());
            deletePlugin(viaShort);
            deletePlugin(viaPrefixed);
        }
        {
            PropertyList properties{{"multicast_tll", "3"}};
            const std::vector<std::string> expected = {
                message(ERROR, "DDS_PropertyQosPolicy_validate_plugin_property_suffixes",
                        "KEL_LOG_UNKNOWN_PROPERTY_s", {"multicast_tll"}),
                message(ERROR, UDP_SETUP, "KEL_LOG_INCONSISTENT_PROPERTY_s", {""}),
                creationFailure(factory)};
            for (bool shortForm : {true, false}) {
                SCOPED_TRACE(shortForm ? "short form" : "null prefix");
                LogCapture log;
                EXPECT_EQ(nullptr, shortForm
                                       ? factory.shortForm(nullptr, properties.get())
                                       : factory.prefixed(nullptr, properties.get(), nullptr));
                EXPECT_EQ(expected, describeAll(log));
            }
        }
    }
}

// A bad property: null, the setup's messages, then exactly one creation
// failure of the factory; the caller's address untouched and nothing
// leaked, also what the setup had allocated before the bad property.
TEST(UdpFactory, ABadPropertyGivesTheSetupMessagesThenOneCreationFailure) {
    struct Case {
        const char *name;
        std::vector<PropertyList::NameValue> properties;  // suffix, value
        std::vector<std::string> setupMessages;
    };
    const auto parser = [](const char *suffix, const char *value) {
        return message(ERROR, UDP_SETUP, "KEL_LOG_PARSER_FAILURE_ss", {suffix, value});
    };
    const std::vector<Case> cases = {
        {"a UDP property", {{"multicast_ttl", "x"}}, {parser("multicast_ttl", "x")}},
        {"a socket buffer",
         {{"recv_socket_buffer_size", "big"}},
         {message(ERROR, UDP_SETUP, "KEL_LOG_FAILED_TO_PARSE_TEMPLATE",
                  {"recv_socket_buffer_size: big"}, "%s: %s")}},
        {"the generic part",
         {{"parent.classid", "udp"}},
         {message(ERROR, PARENT_SETUP, "KEL_LOG_PARSER_FAILURE_ss", {"parent.classid", "udp"}),
          message(ERROR, UDP_SETUP, "KEL_LOG_PARSER_FAILURE_s", {"parent properties"})}},
        {"after lists, an address and a table",
         {{"parent.allow_interfaces", "eth0,eth1"},
          {"parent.deny_interfaces_list", "lo"},
          {"parent.thread_name_prefix", "abc"},
          {"public_address", "203.0.113.5"},
          {"comm_ports", "7400"},
          {"gather_detailed_statistics", "all"}},
         {parser("gather_detailed_statistics", "all")}},
        {"the binding-ping mapping expiration",
         {{"binding_ping_mapping_expiration", "never"}},
         {message(ERROR, UDP_SETUP, "KEL_LOG_FAILED_TO_CONVERT_TEMPLATE",
                  {"'binding_ping_mapping_expiration' value"}, "'%s' value")}},
        {"a send_blocking text that is no keyword",
         {{"send_blocking", "VESK_TRANSPORT_UDPV4_BLOCKING_NEVER_"}},
         {parser("send_blocking", "VESK_TRANSPORT_UDPV4_BLOCKING_NEVER_")}},
    };
    for (const Factory &factory : factories()) {
        SCOPED_TRACE(factory.name);
        for (const Case &c : cases) {
            SCOPED_TRACE(c.name);
            PropertyList properties;
            for (const auto &[suffix, value] : c.properties) properties.add(PREFIX, suffix, value);
            VESK_Transport_Address_t address;
            std::memset(&address, 0x5C, sizeof address);
            const VESK_Transport_Address_t before = address;
            LogCapture log;
            const KEL_UINT64 blocks = liveHeapBlocks();
            EXPECT_EQ(nullptr, factory.prefixed(&address, properties.get(), PREFIX));
            std::vector<std::string> expected = c.setupMessages;
            expected.push_back(creationFailure(factory));
            EXPECT_EQ(expected, describeAll(log));
            EXPECT_EQ(0, std::memcmp(&before, &address, sizeof address));
            EXPECT_EQ(blocks, liveHeapBlocks());
        }
    }
}

// Through the short form the UDPv4 and UDPv6 lists refuse the WAN
// properties; the WAN factory takes them.
TEST(UdpFactory, TheShortFormsValidateAgainstTheirClassLists) {
    for (const Factory &factory : factories()) {
        SCOPED_TRACE(factory.name);
        PropertyList properties{{"port_offset", "10"}};
        LogCapture log;
        VESK_Transport_Plugin *plugin = factory.shortForm(nullptr, properties.get());
        if (factory.classid == 0x01000001) {
            ASSERT_NE(nullptr, plugin);
            EXPECT_EQ(10, recordOf(plugin).port_offset);
            EXPECT_TRUE(log.entries().empty());
            deletePlugin(plugin);
        } else {
            EXPECT_EQ(nullptr, plugin);
            EXPECT_EQ((std::vector<std::string>{
                          message(ERROR, "DDS_PropertyQosPolicy_validate_plugin_property_suffixes",
                                  "KEL_LOG_UNKNOWN_PROPERTY_s", {"port_offset"}),
                          message(ERROR, UDP_SETUP, "KEL_LOG_INCONSISTENT_PROPERTY_s", {""}),
                          creationFailure(factory)}),
                      describeAll(log));
        }
    }
}

// A record the constructor refuses (a message that does not fit one
// datagram with its overhead; a negative WAN port offset): null, no
// creation failure of the factory, and what the setup allocated released.
TEST(UdpFactory, AConstructorFailureGivesNullWithoutAFactoryMessage) {
    struct Case {
        VESK_Transport_ClassId_t classid;
        const char *suffix;
        const char *value;
    };
    const std::vector<Case> cases = {
        {1, "parent.message_size_max", "65508"},
        {0x01000001, "port_offset", "-1"},
        {0x01000001, "parent.message_size_max", "65508"},
        {2, "parent.message_size_max", "65488"},
    };
    for (const Case &c : cases) {
        for (const Factory &factory : factories()) {
            if (factory.classid != c.classid) continue;
            SCOPED_TRACE(std::string(factory.name) + ": " + c.suffix + " = " + c.value);
            PropertyList properties;
            properties.add(PREFIX, c.suffix, c.value)
                .add(PREFIX, "parent.allow_interfaces", "eth0,eth1")
                .add(PREFIX, "public_address", "203.0.113.5")
                .add(PREFIX, "comm_ports", "7400");
            LogCapture log;
            const KEL_UINT64 blocks = liveHeapBlocks();
            EXPECT_EQ(nullptr, factory.prefixed(nullptr, properties.get(), PREFIX));
            EXPECT_EQ(blocks, liveHeapBlocks());
            const auto entries = log.entries();
            EXPECT_FALSE(entries.empty());  // the constructor says why
            for (const auto &entry : entries) {
                EXPECT_NE(factory.name, entry.function) << vesk::test::describe(entry);
                EXPECT_NE(UDP_SETUP, entry.function) << vesk::test::describe(entry);
            }
        }
    }
}

}  // namespace
