// The builtin factories: the default records, plugins built from property
// lists, the messages of a bad property, a constructor that refuses the
// record, the caller's address, and every allocation failing in turn.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "support/AllocationSweep.hpp"
#include "support/EveryProperty.hpp"
#include "support/SetupChecks.hpp"
#include "vesk_transport/PropertyTables.hpp"
#include "vesk_transport/Support.h"

namespace {

using namespace vesk::test;

constexpr const char *PREFIX = "dds.transport.UDPv4.builtin";
constexpr const char *SHMEM_CREATE = "VESK_Transport_Shmem_create";
using Prefixed = VESK_Transport_Plugin *(*)(VESK_Transport_Address_t *,
                                            const DDS_PropertyQosPolicy *, const char *);
using Short = VESK_Transport_Plugin *(*)(VESK_Transport_Address_t *, const DDS_PropertyQosPolicy *);

struct Factory {
    const char *name;  // the prefixed factory, which every message names
    Prefixed prefixed;
    Short shortForm;
    const Udp *defaults;
    const char *creationFailure;
    VESK_Transport_ClassId_t classid;
    Class cls;
    const char *constructor;
};

const Factory FACTORIES[] = {
    {"VESK_Transport_UDPv4_create_from_properties_with_prefix",
     VESK_Transport_UDPv4_create_from_properties_with_prefix, VESK_Transport_UDPv4_create,
     &VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT, "UDPv4 Transport: Properties not properly set", 1,
     Class::udpv4, "VESK_Transport_UDPv4_newI"},
    {"VESK_Transport_UDPv4_WAN_create_from_properties_with_prefix",
     VESK_Transport_UDPv4_WAN_create_from_properties_with_prefix, VESK_Transport_UDPv4_WAN_create,
     &VESK_TRANSPORT_UDPV4_WAN_PROPERTY_DEFAULT, "UDPv4_WAN Transport: Properties not properly set",
     0x01000001, Class::udpv4Wan, "VESK_Transport_UDPv4_WAN_newI"},
    {"VESK_Transport_UDPv6_create_from_properties_with_prefix",
     VESK_Transport_UDPv6_create_from_properties_with_prefix, VESK_Transport_UDPv6_create,
     &VESK_TRANSPORT_UDPV6_PROPERTY_DEFAULT, "UDPv6 Transport: Properties not properly set", 2,
     Class::udpv6, "VESK_Transport_UDPv6_newI"},
};

std::string creationFailure(const Factory &factory) {
    return error(factory.name, "KEL_LOG_CREATION_FAILURE_s", {factory.creationFailure});
}

const std::string SHMEM_CREATION_FAILURE =
    error(SHMEM_CREATE, "KEL_LOG_CREATION_FAILURE_s",
          {"Shared Memory Transport: Properties not properly set"});

// A caller's address with a pattern, to see that no factory touches it.
struct CallersAddress {
    VESK_Transport_Address_t address;
    CallersAddress() { std::memset(&address, 0xAB, sizeof address); }
    bool untouched() const {
        VESK_Transport_Address_t pattern;
        std::memset(&pattern, 0xAB, sizeof pattern);
        return std::memcmp(&pattern, &address, sizeof address) == 0;
    }
};

// ---------------------------------------------------------------------------
// The default records: the documented value of every field
// ---------------------------------------------------------------------------

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

// ---------------------------------------------------------------------------
// UDP factories
// ---------------------------------------------------------------------------

TEST(UdpFactory, AnEmptyListBuildsThePluginOfTheDefaultsWhicheverForm) {
    for (const Factory &factory : FACTORIES) {
        SCOPED_TRACE(factory.name);
        PropertyList properties;
        CallersAddress callers;
        for (int form = 0; form < 4; ++form) {
            SCOPED_TRACE(form);
            LogCapture log;
            const KEL_UINT64 blocks = liveHeapBlocks();
            {
                PluginPtr plugin(
                    form == 0   ? factory.prefixed(&callers.address, properties.get(), PREFIX)
                    : form == 1 ? factory.prefixed(&callers.address, properties.get(), nullptr)
                    : form == 2 ? factory.shortForm(&callers.address, properties.get())
                                : factory.prefixed(nullptr, properties.get(), PREFIX));
                ASSERT_NE(nullptr, plugin);
                EXPECT_EQ(render(withDefaultThreadName(*factory.defaults)),
                          render(recordOf<Udp>(plugin)));
            }
            EXPECT_TRUE(log.entries().empty());
            EXPECT_TRUE(callers.untouched());
            EXPECT_EQ(blocks, liveHeapBlocks());
        }
    }
}

TEST(UdpFactory, PropertiesUnderThePrefixReachThePlugin) {
    for (const Factory &factory : FACTORIES) {
        SCOPED_TRACE(factory.name);
        PropertyList properties;
        properties.add(PREFIX, "parent.allow_interfaces_list", "eth0, 10.0.0.1")
            .add(PREFIX, "parent.thread_name_prefix", "worker")
            .add(PREFIX, "parent.message_size_max", "1200")
            .add(PREFIX, "multicast_ttl", "8")
            .add(PREFIX, "public_address", "203.0.113.5")
            .add(PREFIX, "comm_ports", R"({"default": {"host": 7400}, "mappings": [{"rtps": 1}]})")
            .add("dds.transport.UDPv6.builtin.port_offset", "9");  // another transport's
        LogCapture log;
        PluginPtr plugin(factory.prefixed(nullptr, properties.get(), PREFIX));
        ASSERT_NE(nullptr, plugin);
        Udp expected = withDefaultThreadName(*factory.defaults);
        char *interfaces[] = {const_cast<char *>("eth0"), const_cast<char *>("10.0.0.1")};
        expected.parent.allow_interfaces_list = interfaces;
        expected.parent.allow_interfaces_list_length = 2;
        expected.parent.thread_name_prefix = const_cast<char *>("worker");
        expected.parent.message_size_max = 1200;
        expected.multicast_ttl = 8;
        expected.public_address = const_cast<char *>("203.0.113.5");
        VESK_Transport_UDP_WAN_CommPortsMappingInfo ports[] = {{0, 7400, 7400, 0}, {1, 0, 0, 0}};
        expected.comm_ports_list = ports;
        expected.comm_ports_list_length = 2;
        EXPECT_EQ(render(expected), render(recordOf<Udp>(plugin)));
        EXPECT_TRUE(log.entries().empty());
    }
}

// A bad property: null, the setup's messages, then exactly one creation
// failure of the factory; the caller's address untouched and nothing
// leaked, also what the setup had allocated before the bad property.
TEST(UdpFactory, ABadPropertyGivesTheSetupMessagesThenOneCreationFailure) {
    struct Case {
        std::vector<PropertyList::NameValue> properties;  // suffix, value
        std::vector<std::string> setupMessages;
    };
    const std::vector<Case> cases = {
        {{{"parent.classid", "udp"}},
         {error(PARENT_SETUP, "KEL_LOG_PARSER_FAILURE_ss", {"parent.classid", "udp"}),
          error(UDP_SETUP, "KEL_LOG_PARSER_FAILURE_s", {"parent properties"})}},
        {{{"parent.allow_interfaces", "eth0,eth1"},
          {"parent.thread_name_prefix", "abc"},
          {"public_address", "203.0.113.5"},
          {"comm_ports", "7400"},
          {"gather_detailed_statistics", "all"}},
         {error(UDP_SETUP, "KEL_LOG_PARSER_FAILURE_ss", {"gather_detailed_statistics", "all"})}},
    };
    for (const Factory &factory : FACTORIES) {
        for (const Case &c : cases) {
            SCOPED_TRACE(std::string(factory.name) + ": " + c.properties.back().first);
            PropertyList properties;
            for (const auto &[suffix, value] : c.properties) properties.add(PREFIX, suffix, value);
            CallersAddress callers;
            LogCapture log;
            const KEL_UINT64 blocks = liveHeapBlocks();
            EXPECT_EQ(nullptr, factory.prefixed(&callers.address, properties.get(), PREFIX));
            std::vector<std::string> expected = c.setupMessages;
            expected.push_back(creationFailure(factory));
            EXPECT_EQ(expected, describeAll(log));
            EXPECT_TRUE(callers.untouched());
            EXPECT_EQ(blocks, liveHeapBlocks());
        }
    }
}

// The short form is the null prefix: its list is validated against the
// class's own names, where only the WAN class knows the WAN properties.
TEST(UdpFactory, TheShortFormsValidateAgainstTheirClassLists) {
    for (const Factory &factory : FACTORIES) {
        SCOPED_TRACE(factory.name);
        PropertyList properties{{"port_offset", "10"}, {"prefix", ""}};
        LogCapture log;
        PluginPtr plugin(factory.shortForm(nullptr, properties.get()));
        if (factory.classid == 0x01000001) {
            ASSERT_NE(nullptr, plugin);
            EXPECT_EQ(10, recordOf<Udp>(plugin).port_offset);
            EXPECT_TRUE(log.entries().empty());
        } else {
            EXPECT_EQ(nullptr, plugin);
            EXPECT_EQ((std::vector<std::string>{
                          error(VALIDATE, "KEL_LOG_UNKNOWN_PROPERTY_s", {"port_offset"}),
                          error(UDP_SETUP, "KEL_LOG_INCONSISTENT_PROPERTY_s", {""}),
                          creationFailure(factory)}),
                      describeAll(log));
        }
    }
}

// A record the constructor refuses (a message that does not fit one
// datagram with its overhead; a negative WAN port offset): null, no
// creation failure of the factory, and what the setup allocated released.
TEST(UdpFactory, AConstructorFailureGivesNullWithoutAFactoryMessage) {
    const std::vector<std::pair<int, PropertyList::NameValue>> cases = {
        {0, {"parent.message_size_max", "65508"}},
        {1, {"port_offset", "-1"}},
        {1, {"parent.message_size_max", "65508"}},
        {2, {"parent.message_size_max", "65488"}},
    };
    for (const auto &[index, property] : cases) {
        const Factory &factory = FACTORIES[index];
        SCOPED_TRACE(std::string(factory.name) + ": " + property.first);
        PropertyList properties;
        properties.add(PREFIX, property.first, property.second)
            .add(PREFIX, "parent.allow_interfaces", "eth0,eth1")
            .add(PREFIX, "public_address", "203.0.113.5")
            .add(PREFIX, "comm_ports", "7400");
        LogCapture log;
        const KEL_UINT64 blocks = liveHeapBlocks();
        EXPECT_EQ(nullptr, factory.prefixed(nullptr, properties.get(), PREFIX));
        EXPECT_EQ(blocks, liveHeapBlocks());
        const auto entries = log.entries();
        ASSERT_FALSE(entries.empty());  // the constructor says why
        for (const auto &entry : entries) EXPECT_EQ(factory.constructor, entry.function);
    }
}

// ---------------------------------------------------------------------------
// The shared-memory factory
// ---------------------------------------------------------------------------

// The default shared-memory address: class id 0x01000000, the host id,
// then app and instance id 0, each in network order.
std::string generatedAddress(KEL_UINT32 hostId) {
    const unsigned char bytes[16] = {1,
                                     0,
                                     0,
                                     0,
                                     static_cast<unsigned char>(hostId >> 24),
                                     static_cast<unsigned char>(hostId >> 16),
                                     static_cast<unsigned char>(hostId >> 8),
                                     static_cast<unsigned char>(hostId)};
    return renderBytes(bytes, sizeof bytes);
}

// The plugin keeps its own copy of the record, with the format version for
// the minimum and the address from "host_id" only: without a wire-protocol
// policy the host's identity is never consulted.
TEST(ShmemFactory, ThePluginHoldsTheRecordOfTheList) {
    struct Case {
        std::vector<PropertyList::NameValue> properties;
        int robust;
        std::optional<DDS_ProductVersion_t> minimum;
        std::vector<std::pair<std::string, std::string>> changed;  // besides the prefix
    };
    const std::vector<Case> cases = {
        {{}, 0, std::nullopt, {{"shmemUUID", generatedAddress(0)}}},
        {{},
         0,
         DDS_ProductVersion_t{6, 1, 0, 0},
         {{"shmemUUID", generatedAddress(0)}, {"majorVersion", "4"}}},
        {{{"parent.allow_interfaces_list", "shm0, shm1"},
          {"received_message_count_max", "32"},
          {"enable_udp_debugging", "true"},
          {"udp_debugging_address", "127.0.0.5"},
          {"udp_debugging_port", "7500"}},
         0,
         std::nullopt,
         {{"allow_interfaces_list", "[\"shm0\",\"shm1\"]"},
          {"allow_interfaces_list_length", "2"},
          {"received_message_count_max", "32"},
          {"enable_udp_debugging", "1"},
          {"udp_debugging_address", "0000000000000000000000007f000005"},
          {"udp_debugging_port", "7500"},
          {"shmemUUID", generatedAddress(0)}}},
    };
    const UniqueIdOverride hostIdentity({0xa0, 0xa1, 0xa2, 0xa3, 0xa4, 0xa5, 0xa6, 0xa7, 0xa8, 0xa9,
                                         0xaa, 0xab, 0xac, 0xad, 0xae, 0xaf});
    for (const Case &c : cases) {
        SCOPED_TRACE(&c - cases.data());
        ForcedRobustMutex forced(c.robust);
        PropertyList properties(c.properties);
        const DDS_ProductVersion_t minimum = c.minimum.value_or(DDS_ProductVersion_t{});
        CallersAddress callers;
        LogCapture log;
        const KEL_UINT64 blocks = liveHeapBlocks();
        {
            PluginPtr plugin(VESK_Transport_Shmem_create(&callers.address, properties.get(),
                                                         c.minimum ? &minimum : nullptr));
            ASSERT_NE(nullptr, plugin);
            Rendered expected =
                render(withDefaultThreadName(VESK_TRANSPORT_SHMEM_PROPERTY_DEFAULT));
            for (auto &[name, value] : expected) {
                for (const auto &[changedName, changedValue] : c.changed) {
                    if (name == changedName) value = changedValue;
                }
            }
            EXPECT_EQ(expected, render(recordOf<Shmem>(plugin)));
        }
        EXPECT_TRUE(log.entries().empty());
        EXPECT_TRUE(callers.untouched());
        EXPECT_EQ(blocks, liveHeapBlocks());
    }
}

// A failed setup: its messages, then one creation failure. A record that
// the transport refuses: only the transport's message. Either way null,
// the caller's address untouched, the setup's allocations released.
TEST(ShmemFactory, FailuresReturnNullAndReleaseTheLists) {
    struct Case {
        PropertyList::NameValue property;
        std::vector<std::string> messages;
    };
    const auto refused = [](const std::string &reason) {
        return std::vector<std::string>{error("VESK_Transport_Shmem_newI",
                                              "KEL_LOG_CREATION_FAILURE_s",
                                              {"SHMEM transport: " + reason})};
    };
    const std::vector<Case> cases = {
        {{"received_message_count_max", "many"},
         {error(SHMEM_SETUP, "KEL_LOG_PARSER_FAILURE_ss", {"received_message_count_max", "many"}),
          SHMEM_CREATION_FAILURE}},
        {{"bogus", "1"},
         {error(VALIDATE, "KEL_LOG_UNKNOWN_PROPERTY_s", {"bogus"}),
          error(SHMEM_SETUP, "KEL_LOG_INCONSISTENT_PROPERTY_s", {""}), SHMEM_CREATION_FAILURE}},
        {{"parent.max_interface_count", "lots"},
         {error(PARENT_SETUP, "KEL_LOG_PARSER_FAILURE_ss", {"parent.max_interface_count", "lots"}),
          error(SHMEM_SETUP, "KEL_LOG_PARSER_FAILURE_s", {"parent properties"}),
          SHMEM_CREATION_FAILURE}},
        {{"received_message_count_max", "0"}, refused("received_message_count_max is below 1")},
        {{"receive_buffer_size", "100"},
         refused("receive_buffer_size is below parent.message_size_max")},
        {{"segmentKeyFactor", "0"}, refused("segmentKeyFactor is below 1")},
        {{"parent.classid", "1"}, refused("parent.classid is not 0x01000000 (SHMEM)")},
        {{"udp_debugging_port", "0"}, refused("udp_debugging_port is outside 1..65535")},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.property.first + " = " + c.property.second);
        PropertyList properties{{"parent.allow_interfaces_list", "shm0,shm1"},
                                {"parent.deny_multicast_interfaces_list", "shm2"},
                                {"parent.thread_name_prefix", "shm"},
                                {"enable_udp_debugging", "true"},
                                c.property};
        CallersAddress callers;
        const KEL_UINT64 blocks = liveHeapBlocks();
        {
            LogCapture log;
            EXPECT_EQ(nullptr,
                      VESK_Transport_Shmem_create(&callers.address, properties.get(), nullptr));
            EXPECT_EQ(c.messages, describeAll(log));
        }
        EXPECT_TRUE(callers.untouched());
        EXPECT_EQ(blocks, liveHeapBlocks());
    }
}

// ---------------------------------------------------------------------------
// Every allocation of a factory refused in turn, with every property set
// (values from support/EveryProperty.hpp)
// ---------------------------------------------------------------------------

TEST(ValueTable, CoversEveryAcceptedSuffix) {
    for (Class cls : {Class::udpv4, Class::udpv4Wan, Class::udpv6, Class::shmem}) {
        for (const std::string &suffix : acceptedSuffixes(cls)) {
            EXPECT_FALSE(valueFor(suffix, cls).empty()) << "no sweep value for " << suffix;
        }
    }
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
        std::vector<std::string> publicOnes, privateOnes;
        const auto add = [&](const auto &row) {
            if ((row.classes & bit) == 0) return;
            auto &list = row.isPublic ? publicOnes : privateOnes;
            list.emplace_back(row.suffix);
            if constexpr (requires { row.alternativeSuffix; }) {
                if (row.alternativeSuffix != nullptr) list.emplace_back(row.alternativeSuffix);
            }
        };
        for (const auto &row : GENERIC_ROWS) add(row);
        for (const auto &row : UDP_ROWS) add(row);
        for (const auto &row : SHMEM_SETTING_ROWS) add(row);
        for (const auto &row : SHMEM_IDENTITY_ROWS) add(row);
        std::vector<std::string> both = publicOnes;
        both.insert(both.end(), privateOnes.begin(), privateOnes.end());
        EXPECT_EQ(both, acceptedSuffixes(cls)) << static_cast<int>(cls);
    }
}

// Every accepted suffix of the class, named plainly, or under a prefix,
// where a UDP class reads the WAN names too.
void fillEveryProperty(PropertyList &properties, Class cls, const char *prefix) {
    std::vector<std::string> suffixes = acceptedSuffixes(cls);
    if (prefix != nullptr && cls != Class::shmem) {
        for (const std::string &suffix : acceptedSuffixes(Class::udpv4Wan)) {
            if (std::find(suffixes.begin(), suffixes.end(), suffix) == suffixes.end()) {
                suffixes.push_back(suffix);
            }
        }
    }
    for (const std::string &suffix : suffixes) {
        properties.add(prefix == nullptr ? suffix : std::string(prefix) + "." + suffix,
                       valueFor(suffix, cls));
    }
}

// A refused allocation ends in a null plugin and errors, never a
// precondition failure; the last message is the factory's one creation
// failure, or the constructor's with none of the factory.
template <typename Create>
void sweepFactory(Create create, const char *factoryFunction, const char *constructor,
                  long minimumPoints) {
    struct Outcome {
        PluginPtr plugin;
        std::vector<LogEntry> log;
    };
    const SweepSummary summary = sweepAllocationFailures(
        [&] {
            LogCapture capture;
            Outcome outcome{PluginPtr(create()), {}};
            outcome.log = capture.entries();
            return outcome;
        },
        [&](const SweepStep &step, Outcome &outcome) {
            if (!step.failed) {
                EXPECT_NE(outcome.plugin, nullptr);
                // At most the warning that lo (the one interface allowed) has no multicast.
                for (const LogEntry &entry : outcome.log) {
                    EXPECT_EQ(static_cast<KEL_UINT32>(KEL_LOG_BIT_WARN), entry.level) << entry.text;
                }
                return;
            }
            EXPECT_EQ(outcome.plugin, nullptr);
            ASSERT_FALSE(outcome.log.empty()) << "a refused allocation was not reported";
            int factoryMessages = 0;
            for (const LogEntry &entry : outcome.log) {
                EXPECT_EQ(static_cast<KEL_UINT32>(KEL_LOG_BIT_ERROR), entry.level) << entry.text;
                factoryMessages += entry.function == factoryFunction;
            }
            const LogEntry &last = outcome.log.back();
            if (last.function == factoryFunction) {
                EXPECT_EQ("KEL_LOG_CREATION_FAILURE_s", last.template_name);
                EXPECT_EQ(1, factoryMessages);
            } else {
                EXPECT_EQ(constructor, last.function) << last.text;
                EXPECT_EQ(0, factoryMessages);
            }
        },
        [](Outcome &outcome) { outcome.plugin.reset(); });
    EXPECT_TRUE(summary.completed);
    EXPECT_GE(summary.failurePoints, minimumPoints);
}

TEST(FactorySweep, UdpFactories) {
    for (const Factory &factory : FACTORIES) {
        for (const char *prefix : {static_cast<const char *>(nullptr), PREFIX}) {
            SCOPED_TRACE(std::string(factory.name) + (prefix ? " with prefix" : ""));
            PropertyList properties;
            fillEveryProperty(properties, factory.cls, prefix);
            sweepFactory([&] { return factory.prefixed(nullptr, properties.get(), prefix); },
                         factory.name, factory.constructor, 20);
        }
        const PropertyList empty;
        sweepFactory([&] { return factory.shortForm(nullptr, empty.get()); }, factory.name,
                     factory.constructor, 2);
    }
}

TEST(FactorySweep, ShmemFactory) {
    PropertyList properties;
    fillEveryProperty(properties, Class::shmem, nullptr);
    const DDS_ProductVersion_t minimum = {6, 1, 0, 0};
    sweepFactory([&] { return VESK_Transport_Shmem_create(nullptr, properties.get(), &minimum); },
                 SHMEM_CREATE, "VESK_Transport_Shmem_newI", 20);
}

}  // namespace
