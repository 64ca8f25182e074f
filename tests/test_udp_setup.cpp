// The UDP setup: its thirty properties in their order, keywords and case
// rules, the message of every bad value, counting, the validation of
// unprefixed lists per class, and the cleanup.

#include <gtest/gtest.h>

#include <cctype>
#include <cinttypes>
#include <cstdio>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "support/PropertyList.hpp"
#include "support/SetupChecks.hpp"
#include "support/TestSupport.hpp"
#include "vesk_transport/PropertyTables.hpp"
#include "vesk_transport/Support.h"

namespace {

using vesk::test::describeAll;
using vesk::test::differingFields;
using vesk::test::LogCapture;
using vesk::test::message;
using vesk::test::PARENT_SETUP;
using vesk::test::PropertyList;
using vesk::test::renderFlags;
using vesk::test::UDP_SETUP;
using vesk::test::UdpRecord;

using Udp = VESK_Transport_UDP_Property_t;
using Flags = VESK_Transport_internalMemoryAllocations;

constexpr const char *PREFIX = "dds.transport.UDPv4.builtin";
constexpr const char *VALIDATE = "DDS_PropertyQosPolicy_validate_plugin_property_suffixes";
constexpr KEL_UINT32 ERROR = KEL_LOG_BIT_ERROR;
constexpr VESK_Transport_ClassId_t WAN = 0x01000001;
constexpr VESK_Transport_ClassId_t UNKNOWN_CLASS = 42;

char DEFAULT_THREAD_NAME_PREFIX[] = "rTr#####";

// The classes a setup is run for: the wrappers where there is one, the
// general setup for the second UDPv6 class id and for an unknown class id.
struct UdpClass {
    const char *name;
    VESK_Transport_ClassId_t classid;
    const Udp *defaults;
    int (*wrapper)(Udp *, Flags *, const DDS_PropertyQosPolicy *, const char *);
};

const std::vector<UdpClass> &classes() {
    static const std::vector<UdpClass> all = {
        {"UDPv4", 1, &VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT, VESK_Transport_setupUDPv4Property},
        {"UDPv4 WAN", WAN, &VESK_TRANSPORT_UDPV4_WAN_PROPERTY_DEFAULT,
         VESK_Transport_setupUDPv4WanProperty},
        {"UDPv6", 2, &VESK_TRANSPORT_UDPV6_PROPERTY_DEFAULT, VESK_Transport_setupUDPv6Property},
        {"UDPv6 class id 5", 5, &VESK_TRANSPORT_UDPV6_PROPERTY_DEFAULT, nullptr},
        {"unknown class id", UNKNOWN_CLASS, &VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT, nullptr},
    };
    return all;
}

int runSetup(const UdpClass &udpClass, UdpRecord &run, const PropertyList &properties,
             const char *prefix) {
    if (udpClass.wrapper != nullptr) {
        return udpClass.wrapper(&run.record, &run.allocations, properties.get(), prefix);
    }
    return run.setup(properties, prefix, udpClass.classid);
}

VESK_Transport_UDP_WAN_Listener g_listener{};

std::string listenerText() {
    char text[32];
    std::snprintf(text, sizeof text, "0x%" PRIxPTR, reinterpret_cast<std::uintptr_t>(&g_listener));
    return text;
}

VESK_Transport_UDP_WAN_CommPortsMappingInfo g_port7400[] = {{7400, 7400, 7400, 0}};
char g_publicAddress[] = "203.0.113.5";

std::string parser(const std::string &suffix, const std::string &value) {
    return message(ERROR, UDP_SETUP, "KEL_LOG_PARSER_FAILURE_ss", {suffix, value});
}
std::string failedToParse(const std::string &suffix, const std::string &value) {
    return message(ERROR, UDP_SETUP, "KEL_LOG_FAILED_TO_PARSE_TEMPLATE", {suffix + ": " + value},
                   "%s: %s");
}

// The thirty properties in the order in which they are read, each with a
// good value (and what it sets) and a bad one (and its message).
struct Row {
    const char *suffix;
    std::string good;
    std::function<void(Udp &)> apply;
    const char *flags = "0,0,0,0,0,0";  // the allocation flags after the good value alone
    std::string bad = "";               // empty: no value of this property is refused
    std::string badMessage = "";
};

const std::vector<Row> &rows() {
    static const std::vector<Row> all = [] {
        std::vector<Row> r = {
            {"send_socket_buffer_size", "65536", [](Udp &u) { u.send_socket_buffer_size = 65536; }},
            {"recv_socket_buffer_size", "131072",
             [](Udp &u) { u.recv_socket_buffer_size = 131072; }},
            {"unicast_enabled", "0", [](Udp &u) { u.unicast_enabled = 0; }},
            {"multicast_enabled", "false", [](Udp &u) { u.multicast_enabled = 0; }},
            {"multicast_ttl", "64", [](Udp &u) { u.multicast_ttl = 64; }},
            {"multicast_loopback_disabled", "1", [](Udp &u) { u.multicast_loopback_disabled = 1; }},
            // Any integer is stored.
            {"ignore_loopback_interface", "7", [](Udp &u) { u.ignore_loopback_interface = 7; }},
            {"ignore_nonup_interfaces", "0", [](Udp &u) { u.ignore_nonup_interfaces = 0; }},
            {"ignore_nonrunning_interfaces", "0",
             [](Udp &u) { u.ignore_nonrunning_interfaces = 0; }},
            {"no_zero_copy", "1", [](Udp &u) { u.no_zero_copy = 1; }},
            {"send_blocking", "TRANSPORT_BLOCKING_NEVER", [](Udp &u) { u.send_blocking = 0; }},
            {"enable_v4mapped", "true", [](Udp &u) { u.enable_v4mapped = 1; }},
            {"use_checksum", "0", [](Udp &u) { u.use_checksum = 0; }},
            {"transport_priority_mask", "4294967295",
             [](Udp &u) { u.transport_priority_mask = 4294967295u; }},
            {"transport_priority_mapping_low", "-5",
             [](Udp &u) { u.transport_priority_mapping_low = -5; }},
            {"transport_priority_mapping_high", "100",
             [](Udp &u) { u.transport_priority_mapping_high = 100; }},
            {"send_ping", "0", [](Udp &u) { u.send_ping = 0; }},
            {"force_interface_poll_detection", "1",
             [](Udp &u) { u.force_interface_poll_detection = 1; }},
            {"interface_poll_period", "4294967295",
             [](Udp &u) { u.interface_poll_period = 4294967295u; }},
            {"reuse_multicast_receive_resource", "0",
             [](Udp &u) { u.reuse_multicast_receive_resource = 0; }},
            {"protocol_overhead_max", "100", [](Udp &u) { u.protocol_overhead_max = 100; }},
            {"disable_interface_tracking", "1", [](Udp &u) { u.disable_interface_tracking = 1; }},
            {"public_address", g_publicAddress, [](Udp &u) { u.public_address = g_publicAddress; }},
            {"comm_ports", "7400",
             [](Udp &u) {
                 u.comm_ports_list = g_port7400;
                 u.comm_ports_list_length = 1;
             }},
            {"wan_listener_ptr", listenerText(), [](Udp &u) { u.wan_listener = &g_listener; }},
            {"join_multicast_group_timeout", "10000",
             [](Udp &u) { u.join_multicast_group_timeout = 10000; }},
            {"port_offset", "-7", [](Udp &u) { u.port_offset = -7; }},
            {"binding_ping_period", "2000", [](Udp &u) { u.binding_ping_period = 2000; }},
            {"binding_ping_mapping_expiration", "30000",
             [](Udp &u) { u.binding_ping_mapping_expiration = 30000; }},
            {"gather_detailed_statistics", "1", [](Udp &u) { u.gather_detailed_statistics = 1; }},
        };
        const std::vector<std::string> bad = {
            "big",      "big",   "maybe",  "2",      "ttl",      "",     "1.5", "yes please",
            "on?",      "nope",  "true",   "-1",     "checksum", "mask", "low", "2147483648",
            "ping",     "10",    "soon",   "x",      "28 bytes", "off!", "",    "65536",
            "listener", "later", "offset", "period", "never",    "all"};
        for (size_t i = 0; i < r.size(); ++i) {
            Row &row = r[i];
            row.bad = bad[i];
            row.badMessage = parser(row.suffix, row.bad);
        }
        r[0].badMessage = failedToParse("send_socket_buffer_size", "big");
        r[1].badMessage = failedToParse("recv_socket_buffer_size", "big");
        r[22].flags = "0,0,0,0,1,0";
        r[22].badMessage.clear();  // any text is a public address
        r[23].flags = "0,0,0,0,0,1";
        r[23].badMessage = message(ERROR, UDP_SETUP, "KEL_LOG_FAILED_TO_PARSE_TEMPLATE",
                                   {"comm_ports: 65536 is out of valid port range (0-65535)"},
                                   "%s: %s is out of valid port range (0-65535)");
        // The value is not part of this message.
        r[28].badMessage = message(ERROR, UDP_SETUP, "KEL_LOG_FAILED_TO_CONVERT_TEMPLATE",
                                   {"'binding_ping_mapping_expiration' value"}, "'%s' value");
        return r;
    }();
    return all;
}

Udp withDefaultThreadName(const Udp &defaults) {
    Udp expected = defaults;
    expected.parent.thread_name_prefix = DEFAULT_THREAD_NAME_PREFIX;
    return expected;
}

TEST(UdpSetup, AListWithoutUdpPropertiesKeepsEveryDefault) {
    for (const UdpClass &udpClass : classes()) {
        SCOPED_TRACE(udpClass.name);
        PropertyList properties;
        properties.add(PREFIX, "misspelt_send_blocking", "0").add("send_blocking", "0");
        LogCapture log;
        UdpRecord run(*udpClass.defaults);
        EXPECT_EQ(0, runSetup(udpClass, run, properties, PREFIX));
        EXPECT_EQ(std::vector<std::string>{},
                  differingFields(withDefaultThreadName(*udpClass.defaults), run.record));
        EXPECT_EQ("0,0,0,0,0,0", renderFlags(run.allocations));
        EXPECT_TRUE(log.entries().empty());
    }
}

TEST(UdpSetup, EachGoodValueSetsItsFieldForEveryClass) {
    for (const UdpClass &udpClass : classes()) {
        SCOPED_TRACE(udpClass.name);
        for (const Row &row : rows()) {
            SCOPED_TRACE(row.suffix);
            PropertyList properties;
            properties.add(PREFIX, row.suffix, row.good);
            LogCapture log;
            UdpRecord run(*udpClass.defaults);
            EXPECT_EQ(1, runSetup(udpClass, run, properties, PREFIX));
            Udp expected = withDefaultThreadName(*udpClass.defaults);
            row.apply(expected);
            EXPECT_EQ(std::vector<std::string>{}, differingFields(expected, run.record));
            EXPECT_EQ(row.flags, renderFlags(run.allocations));
            EXPECT_TRUE(log.entries().empty());
        }
    }
}

// A bad value between two good ones: -1 and exactly its message; the
// property before it is applied, its own field and the one after are not.
TEST(UdpSetup, EachBadValueFailsWithItsMessageAndStopsTheSetup) {
    const std::vector<Row> &all = rows();
    for (const UdpClass &udpClass : classes()) {
        SCOPED_TRACE(udpClass.name);
        for (size_t i = 0; i < all.size(); ++i) {
            const Row &row = all[i];
            if (row.badMessage.empty()) continue;
            SCOPED_TRACE(std::string(row.suffix) + " = '" + row.bad + "'");
            PropertyList properties;
            properties.add(PREFIX, row.suffix, row.bad);
            if (i > 0) properties.add(PREFIX, all[i - 1].suffix, all[i - 1].good);
            if (i + 1 < all.size()) properties.add(PREFIX, all[i + 1].suffix, all[i + 1].good);
            LogCapture log;
            UdpRecord run(*udpClass.defaults);
            EXPECT_EQ(-1, runSetup(udpClass, run, properties, PREFIX));
            EXPECT_EQ(std::vector<std::string>{row.badMessage}, describeAll(log));
            Udp expected = withDefaultThreadName(*udpClass.defaults);
            std::string flags = "0,0,0,0,0,0";
            if (i > 0) {
                all[i - 1].apply(expected);
                flags = all[i - 1].flags;
            }
            // A failed setup hands back no port list; its flag stays set.
            expected.comm_ports_list = nullptr;
            expected.comm_ports_list_length = 0;
            // What a failed conversion leaves in its own field is open.
            const std::string ownField =
                std::string(row.suffix) == "wan_listener_ptr" ? "wan_listener" : row.suffix;
            std::vector<std::string> changed = differingFields(expected, run.record);
            std::erase(changed, ownField);
            EXPECT_EQ(std::vector<std::string>{}, changed);
            EXPECT_EQ(flags, renderFlags(run.allocations));
        }
    }
}

TEST(UdpSetup, SocketBufferKeywordsIgnoreCaseAndTheIpVersion) {
    struct Keyword {
        const char *text;
        KEL_INT32 value;
        bool send;
        bool recv;
    };
    const std::vector<Keyword> keywords = {
        {"VESK_TRANSPORT_UDPV4_SEND_SOCKET_BUFFER_SIZE_DEFAULT", 2097152, true, false},
        {"VESK_TRANSPORT_UDPV6_SEND_SOCKET_BUFFER_SIZE_DEFAULT", 2097152, true, false},
        {"VESK_TRANSPORT_UDPV4_RECV_SOCKET_BUFFER_SIZE_DEFAULT", 2097152, false, true},
        {"VESK_TRANSPORT_UDPV6_RECV_SOCKET_BUFFER_SIZE_DEFAULT", 2097152, false, true},
        {"VESK_TRANSPORT_UDPV4_SOCKET_BUFFER_SIZE_OS_MAX", -2, true, true},
        {"VESK_TRANSPORT_UDPV6_SOCKET_BUFFER_SIZE_OS_MAX", -2, true, true},
        {"VESK_TRANSPORT_UDPV4_SOCKET_BUFFER_SIZE_OS_DEFAULT", -1, true, true},
        {"VESK_TRANSPORT_UDPV6_SOCKET_BUFFER_SIZE_OS_DEFAULT", -1, true, true},
        // Numbers, without a range test.
        {"-2", -2, true, true},
        {"-1", -1, true, true},
        {"-100", -100, true, true},
        {"0", 0, true, true},
    };
    const auto lower = [](std::string text) {
        for (char &c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        return text;
    };
    const auto mixed = [](std::string text) {
        for (size_t i = 0; i < text.size(); i += 2) {
            text[i] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[i])));
        }
        return text;
    };
    for (const UdpClass &udpClass : classes()) {
        SCOPED_TRACE(udpClass.name);
        for (const Keyword &keyword : keywords) {
            for (const std::string &text :
                 {std::string(keyword.text), lower(keyword.text), mixed(keyword.text)}) {
                for (const char *suffix : {"send_socket_buffer_size", "recv_socket_buffer_size"}) {
                    SCOPED_TRACE(std::string(suffix) + " = " + text);
                    const bool send = std::string(suffix) == "send_socket_buffer_size";
                    const bool accepted = send ? keyword.send : keyword.recv;
                    PropertyList properties;
                    properties.add(PREFIX, suffix, text);
                    LogCapture log;
                    UdpRecord run(*udpClass.defaults);
                    const int result = runSetup(udpClass, run, properties, PREFIX);
                    if (accepted) {
                        EXPECT_EQ(1, result);
                        EXPECT_EQ(keyword.value, send ? run.record.send_socket_buffer_size
                                                      : run.record.recv_socket_buffer_size);
                        EXPECT_TRUE(log.entries().empty());
                    } else {
                        // A keyword of the other direction is not a keyword here.
                        EXPECT_EQ(-1, result);
                        EXPECT_EQ(std::vector<std::string>{failedToParse(suffix, text)},
                                  describeAll(log));
                    }
                }
            }
        }
    }
}

TEST(UdpSetup, SendBlockingKeywordsAreExactAndSomeBelongToOneFamily) {
    struct Keyword {
        const char *text;
        KEL_INT32 value;
        std::set<VESK_Transport_ClassId_t> classes;  // empty: every class
    };
    const std::vector<Keyword> keywords = {
        {"TRANSPORT_BLOCKING_ALWAYS", 1, {}},
        {"VESK_TRANSPORT_UDP_BLOCKING_ALWAYS", 1, {}},
        {"1", 1, {}},
        {"TRANSPORT_BLOCKING_NEVER", 0, {}},
        {"VESK_TRANSPORT_UDP_BLOCKING_NEVER", 0, {}},
        {"0", 0, {}},
        {"VESK_TRANSPORT_UDPV4_BLOCKING_ALWAYS", 1, {1, WAN}},
        {"VESK_TRANSPORT_UDPV4_BLOCKING_NEVER", 0, {1, WAN}},
        {"VESK_TRANSPORT_UDPV6_BLOCKING_ALWAYS", 1, {2}},
        {"VESK_TRANSPORT_UDPV6_BLOCKING_NEVER", 0, {2}},
        // Refused everywhere.
        {"transport_blocking_always", 0, {-99}},
        {"Transport_Blocking_Never", 0, {-99}},
        {"vesk_transport_udpv6_blocking_never", 0, {-99}},
        {"true", 0, {-99}},
        {"false", 0, {-99}},
        {"2", 0, {-99}},
        {"", 0, {-99}},
        {" 1", 0, {-99}},
    };
    for (const UdpClass &udpClass : classes()) {
        SCOPED_TRACE(udpClass.name);
        for (const Keyword &keyword : keywords) {
            SCOPED_TRACE(std::string("send_blocking = '") + keyword.text + "'");
            const bool accepted =
                keyword.classes.empty() || keyword.classes.count(udpClass.classid);
            // Start from either value, so that every accepted keyword shows.
            for (KEL_INT32 before : {0, 1}) {
                PropertyList properties;
                properties.add(PREFIX, "send_blocking", keyword.text);
                LogCapture log;
                UdpRecord run(*udpClass.defaults);
                run.record.send_blocking = before;
                const int result = runSetup(udpClass, run, properties, PREFIX);
                if (accepted) {
                    EXPECT_EQ(1, result);
                    EXPECT_EQ(keyword.value, run.record.send_blocking);
                    EXPECT_TRUE(log.entries().empty());
                } else {
                    EXPECT_EQ(-1, result);
                    EXPECT_EQ(std::vector<std::string>{parser("send_blocking", keyword.text)},
                              describeAll(log));
                }
            }
        }
    }
}

TEST(UdpSetup, AFailedGenericPartIsReportedAsParentProperties) {
    struct Case {
        const char *name;
        std::vector<PropertyList::NameValue> properties;  // suffix, value
        std::vector<std::string> generic;                 // the generic setup's messages
    };
    const std::vector<Case> cases = {
        {"class id",
         {{"parent.classid", "udp"}},
         {message(ERROR, PARENT_SETUP, "KEL_LOG_PARSER_FAILURE_ss", {"parent.classid", "udp"})}},
        {"address bit count out of range",
         {{"parent.address_bit_count", "200"}},
         {message(ERROR, PARENT_SETUP, "KEL_LOG_PARSER_VALUE_OUT_OF_RANGE_ss",
                  {"parent.address_bit_count", "[-128, 128]"})}},
        {"GUID prefix",
         {{"participant_guid_prefix", "1,2"}},
         {message(ERROR, PARENT_SETUP, "KEL_LOG_PARSER_FAILURE_ss",
                  {"participant_guid_prefix", "1,2"})}},
    };
    for (const UdpClass &udpClass : classes()) {
        SCOPED_TRACE(udpClass.name);
        for (const Case &c : cases) {
            SCOPED_TRACE(c.name);
            PropertyList properties;
            for (const auto &[suffix, value] : c.properties) properties.add(PREFIX, suffix, value);
            properties.add(PREFIX, "send_socket_buffer_size", "1000");
            LogCapture log;
            UdpRecord run(*udpClass.defaults);
            EXPECT_EQ(-1, runSetup(udpClass, run, properties, PREFIX));
            std::vector<std::string> expected = c.generic;
            expected.push_back(
                message(ERROR, UDP_SETUP, "KEL_LOG_PARSER_FAILURE_s", {"parent properties"}));
            EXPECT_EQ(expected, describeAll(log));
            EXPECT_EQ(2097152, run.record.send_socket_buffer_size);  // not read
        }
    }
}

// What the generic part allocated before it failed stays flagged; the UDP
// cleanup (run by UdpRecord) releases it.
TEST(UdpSetup, AGenericFailureLeavesItsListsForTheCleanup) {
    PropertyList properties;
    properties.add(PREFIX, "parent.allow_interfaces", "eth0")
        .add(PREFIX, "parent.max_interface_count", "many");
    LogCapture log;
    UdpRecord run(VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT);
    EXPECT_EQ(-1, run.setup(properties, PREFIX, 1));
    EXPECT_EQ("1,0,0,0,0,0", renderFlags(run.allocations));
    ASSERT_NE(nullptr, run.record.parent.allow_interfaces_list);
    EXPECT_STREQ("eth0", run.record.parent.allow_interfaces_list[0]);
    EXPECT_STREQ("rTr#####", run.record.parent.thread_name_prefix);
    VESK_Transport_cleanupUDPv4Property(&run.record, &run.allocations);
    EXPECT_EQ(nullptr, run.record.parent.allow_interfaces_list);
    EXPECT_EQ(nullptr, run.record.parent.thread_name_prefix);
}

PropertyList &addEverything(PropertyList &properties, const std::string &prefix, bool wanRows) {
    properties.add(prefix, "parent.classid", "1")
        .add(prefix, "parent.address_bit_count", "32")
        .add(prefix, "parent.properties_bitmap", "0")
        .add(prefix, "parent.gather_send_buffer_count_max", "8")
        .add(prefix, "parent.message_size_max", "8192")
        .add(prefix, "parent.allow_interfaces", "eth0")
        .add(prefix, "parent.deny_interfaces_list", "eth1")
        .add(prefix, "parent.allow_multicast_interfaces", "eth2")
        .add(prefix, "parent.deny_multicast_interfaces_list", "eth3")
        .add(prefix, "thread_name_prefix", "abc")
        .add(prefix, "participant_guid_prefix", "1,2,3")
        .add(prefix, "parent.max_interface_count", "4");
    const std::set<std::string> wanOnly = {
        "public_address", "comm_ports",          "wan_listener_ptr",
        "port_offset",    "binding_ping_period", "binding_ping_mapping_expiration"};
    for (const Row &row : rows()) {
        if (wanRows || !wanOnly.count(row.suffix)) properties.add(prefix, row.suffix, row.good);
    }
    return properties;
}

TEST(UdpSetup, TheResultCountsEveryPropertyApplied) {
    for (const UdpClass &udpClass : classes()) {
        SCOPED_TRACE(udpClass.name);
        PropertyList properties;
        addEverything(properties, PREFIX, true);
        // Given under both names, a list counts once.
        properties.add(PREFIX, "parent.allow_interfaces_list", "lo");
        LogCapture log;
        UdpRecord run(*udpClass.defaults);
        EXPECT_EQ(12 + 30, runSetup(udpClass, run, properties, PREFIX));
        EXPECT_EQ("1,1,1,1,1,1", renderFlags(run.allocations));
        EXPECT_TRUE(log.entries().empty());
    }
}

// Unprefixed lists: "prefix" is counted, the validation action is read,
// and the names are validated against the class's lists.
TEST(UdpSetup, UnprefixedListsAreValidatedPerClass) {
    struct Case {
        const char *name;
        std::set<VESK_Transport_ClassId_t> classids;
        std::vector<PropertyList::NameValue> properties;
        int result;
        std::vector<std::string> messages;
        KEL_INT32 sendBlocking;  // after the setup (every default is 1)
    };
    const auto unknown = [](const char *name, KEL_UINT32 level) {
        return message(level, VALIDATE, "KEL_LOG_UNKNOWN_PROPERTY_s", {name});
    };
    const auto inconsistent = [](const char *prefix) {
        return message(ERROR, UDP_SETUP, "KEL_LOG_INCONSISTENT_PROPERTY_s", {prefix});
    };
    const std::set<VESK_Transport_ClassId_t> validated = {1, WAN, 2, 5};
    const std::set<VESK_Transport_ClassId_t> every = {1, WAN, 2, 5, UNKNOWN_CLASS};
    const std::vector<Case> cases = {
        {"known names",
         every,
         {{"send_blocking", "0"}, {"parent.message_size_max", "1400"}},
         2,
         {},
         0},
        {"an unknown name, default action",
         validated,
         {{"send_blockin", "0"}, {"send_blocking", "0"}},
         -1,
         {unknown("send_blockin", ERROR), inconsistent("")},
         1},
        {"an unknown name, EXCEPTION",
         validated,
         {{"send_blockin", "0"},
          {"send_blocking", "0"},
          {DDS_PROPERTY_VALIDATION_ACTION_PROPERTY_NAME, "EXCEPTION"}},
         -1,
         {unknown("send_blockin", ERROR), inconsistent("")},
         1},
        {"an unknown name, WARNING",
         validated,
         {{"send_blockin", "0"},
          {"send_blocking", "0"},
          {DDS_PROPERTY_VALIDATION_ACTION_PROPERTY_NAME, "WARNING"}},
         1,
         {unknown("send_blockin", KEL_LOG_BIT_WARN)},
         0},
        {"an unknown name, SKIP",
         every,
         {{"send_blockin", "0"},
          {"send_blocking", "0"},
          {DDS_PROPERTY_VALIDATION_ACTION_PROPERTY_NAME, "SKIP"}},
         1,
         {},
         0},
        // Validation comes before the first UDP property is read.
        {"an unknown name before a bad value",
         validated,
         {{"bogus", "1"}, {"send_socket_buffer_size", "big"}},
         -1,
         {unknown("bogus", ERROR), inconsistent("")},
         1},
        // The "prefix" property sets the validation prefix only: names
        // outside it are not validated, names are still read bare.
        {"unknown name under the validation prefix",
         validated,
         {{"prefix", "myprefix"}, {"myprefix.bogus", "1"}, {"send_blocking", "0"}},
         -1,
         {unknown("myprefix.bogus", ERROR), inconsistent("myprefix")},
         1},
        {"names outside the validation prefix",
         every,
         {{"prefix", "myprefix"}, {"myprefix.send_blocking", "0"}, {"bogus", "1"}},
         1,
         {},
         1},
        {"the prefix property alone counts", every, {{"prefix", "p"}}, 1, {}, 1},
        {"an empty prefix validates every name",
         validated,
         {{"prefix", ""}, {"send_blocking", "0"}, {"bogus", "1"}},
         -1,
         {unknown("bogus", ERROR), inconsistent("")},
         1},
        // Class id 5 is validated like UDPv6 but knows no UDPv6 keyword.
        {"class id 5 takes no UDPv6 keyword",
         {5},
         {{"send_blocking", "VESK_TRANSPORT_UDPV6_BLOCKING_NEVER"}},
         -1,
         {parser("send_blocking", "VESK_TRANSPORT_UDPV6_BLOCKING_NEVER")},
         1},
        // An unknown class id reads "prefix" and the action but validates
        // nothing.
        {"unknown class: no validation",
         {UNKNOWN_CLASS},
         {{"prefix", ""}, {"bogus", "1"}, {"send_blocking", "0"}},
         2,
         {},
         0},
    };
    for (const UdpClass &udpClass : classes()) {
        SCOPED_TRACE(udpClass.name);
        for (const Case &c : cases) {
            if (!c.classids.count(udpClass.classid)) continue;
            SCOPED_TRACE(c.name);
            PropertyList properties;
            for (const auto &[name, value] : c.properties) properties.add(name, value);
            LogCapture log;
            UdpRecord run(*udpClass.defaults);
            EXPECT_EQ(c.result, runSetup(udpClass, run, properties, nullptr));
            EXPECT_EQ(c.messages, describeAll(log));
            EXPECT_EQ(c.sendBlocking, run.record.send_blocking);
        }
    }
}

TEST(UdpSetup, ABadValidationActionFailsForEveryClass) {
    for (const UdpClass &udpClass : classes()) {
        SCOPED_TRACE(udpClass.name);
        PropertyList properties{{DDS_PROPERTY_VALIDATION_ACTION_PROPERTY_NAME, "MAYBE"},
                                {"send_blocking", "0"}};
        LogCapture log;
        UdpRecord run(*udpClass.defaults);
        EXPECT_EQ(-1, runSetup(udpClass, run, properties, nullptr));
        const auto lines = describeAll(log);
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ(
            message(ERROR, UDP_SETUP, "KEL_LOG_PARSER_FAILURE_s", {"property_validation_action"}),
            lines.back());
        for (size_t i = 0; i + 1 < lines.size(); ++i) {
            EXPECT_EQ(std::string::npos, lines[i].find(UDP_SETUP)) << lines[i];
        }
        EXPECT_EQ(1, run.record.send_blocking);
    }
}

TEST(UdpSetup, APrefixSwitchesValidationOff) {
    for (const UdpClass &udpClass : classes()) {
        SCOPED_TRACE(udpClass.name);
        PropertyList properties;
        properties.add("prefix", "x")
            .add(PREFIX, "prefix", "y")
            .add(PREFIX, "misspelt", "1")
            .add(PREFIX, "port_offset", "3")
            .add(DDS_PROPERTY_VALIDATION_ACTION_PROPERTY_NAME, "garbage");
        LogCapture log;
        UdpRecord run(*udpClass.defaults);
        // Neither "prefix" is read or counted; a WAN property is stored
        // whatever the class.
        EXPECT_EQ(1, runSetup(udpClass, run, properties, PREFIX));
        EXPECT_EQ(3, run.record.port_offset);
        EXPECT_TRUE(log.entries().empty());
    }
}

// The lead's choice: only the WAN class's lists accept the WAN suffixes.
TEST(UdpSetup, UnprefixedWanPropertiesAreAcceptedOnlyForTheWanClass) {
    const std::set<std::string> wanOnly = {
        "public_address", "comm_ports",          "wan_listener_ptr",
        "port_offset",    "binding_ping_period", "binding_ping_mapping_expiration"};
    for (const UdpClass &udpClass : classes()) {
        if (udpClass.classid == UNKNOWN_CLASS) continue;
        SCOPED_TRACE(udpClass.name);
        for (const Row &row : rows()) {
            if (!wanOnly.count(row.suffix)) continue;
            SCOPED_TRACE(row.suffix);
            PropertyList properties{{row.suffix, row.good}};
            LogCapture log;
            UdpRecord run(*udpClass.defaults);
            const int result = runSetup(udpClass, run, properties, nullptr);
            if (udpClass.classid == WAN) {
                EXPECT_EQ(1, result);
                EXPECT_TRUE(log.entries().empty());
            } else {
                EXPECT_EQ(-1, result);
                EXPECT_EQ((std::vector<std::string>{
                              message(ERROR, VALIDATE, "KEL_LOG_UNKNOWN_PROPERTY_s", {row.suffix}),
                              message(ERROR, UDP_SETUP, "KEL_LOG_INCONSISTENT_PROPERTY_s", {""})}),
                          describeAll(log));
            }
        }
    }
}

// A class's own list naming every property that the setup reads for it
// passes validation, and every property counts.
TEST(UdpSetup, AnUnprefixedListOfEveryPropertyPassesValidation) {
    for (const UdpClass &udpClass : classes()) {
        SCOPED_TRACE(udpClass.name);
        const bool wanRows = udpClass.classid == WAN || udpClass.classid == UNKNOWN_CLASS;
        PropertyList properties;
        addEverything(properties, "", wanRows);
        properties.add("parent.allow_interfaces_list", "lo")
            .add("parent.thread_name_prefix", "abcd")
            .add("prefix", "")
            .add(DDS_PROPERTY_VALIDATION_ACTION_PROPERTY_NAME, "EXCEPTION");
        LogCapture log;
        UdpRecord run(*udpClass.defaults);
        // The generic twelve, the UDP rows, and "prefix"; not the action.
        EXPECT_EQ(12 + (wanRows ? 30 : 24) + 1, runSetup(udpClass, run, properties, nullptr));
        EXPECT_TRUE(log.entries().empty());
    }
}

// Every suffix that the setups read for a class is in that class's lists.
TEST(UdpSetup, EverySuffixReadForAClassIsInItsValidationLists) {
    using namespace vesk::transport;
    struct ClassLists {
        const char *name;
        unsigned bit;
        const char *const *publicSuffixes;
        const char *const *privateSuffixes;
    };
    const std::vector<ClassLists> lists = {
        {"UDPv4", udpv4Class, PROPERTY_PLUGIN_VALID_PUBLIC_PROPERTIES_UDPV4,
         PROPERTY_PLUGIN_VALID_PRIVATE_PROPERTIES_UDPV4},
        {"UDPv4 WAN", udpv4WanClass, PROPERTY_PLUGIN_VALID_PUBLIC_PROPERTIES_UDPV4_WAN,
         PROPERTY_PLUGIN_VALID_PRIVATE_PROPERTIES_UDPV4_WAN},
        {"UDPv6", udpv6Class, PROPERTY_PLUGIN_VALID_PUBLIC_PROPERTIES_UDPV6,
         PROPERTY_PLUGIN_VALID_PRIVATE_PROPERTIES_UDPV6},
    };
    for (const ClassLists &classLists : lists) {
        SCOPED_TRACE(classLists.name);
        std::set<std::string> accepted;
        for (const char *const *list : {classLists.publicSuffixes, classLists.privateSuffixes}) {
            ASSERT_NE(nullptr, list);
            for (; *list != nullptr; ++list) accepted.insert(*list);
        }
        std::vector<std::string> read;
        for (const GenericRow &row : GENERIC_ROWS) {
            if ((row.classes & classLists.bit) == 0) continue;
            read.push_back(row.suffix);
            if (row.alternativeSuffix != nullptr) read.push_back(row.alternativeSuffix);
        }
        for (const UdpRow &row : UDP_ROWS) {
            if ((row.classes & classLists.bit) != 0) read.push_back(row.suffix);
        }
        // Independently of the rows: the generic names and the UDP names.
        for (const char *suffix :
             {"parent.classid", "parent.address_bit_count", "parent.properties_bitmap",
              "parent.gather_send_buffer_count_max", "parent.message_size_max",
              "parent.allow_interfaces", "parent.allow_interfaces_list", "parent.deny_interfaces",
              "parent.deny_interfaces_list", "parent.allow_multicast_interfaces",
              "parent.allow_multicast_interfaces_list", "parent.deny_multicast_interfaces",
              "parent.deny_multicast_interfaces_list", "parent.thread_name_prefix",
              "thread_name_prefix", "participant_guid_prefix", "parent.max_interface_count"}) {
            read.push_back(suffix);
        }
        for (const Row &row : rows()) {
            const std::string suffix = row.suffix;
            const bool wanOnly = suffix == "public_address" || suffix == "comm_ports" ||
                                 suffix == "wan_listener_ptr" || suffix == "port_offset" ||
                                 suffix == "binding_ping_period" ||
                                 suffix == "binding_ping_mapping_expiration";
            if (!wanOnly || classLists.bit == udpv4WanClass) read.push_back(suffix);
        }
        for (const std::string &suffix : read) {
            EXPECT_TRUE(accepted.count(suffix)) << suffix;
        }
    }
}

TEST(UdpSetup, CleanupReleasesOnlyFlaggedMembers) {
    VESK_Transport_cleanupUDPProperty(nullptr, nullptr);

    // Flags clear: neither member is released, even when set.
    Udp record = VESK_TRANSPORT_UDPV4_WAN_PROPERTY_DEFAULT;
    Flags flags{};
    record.public_address = DDS_String_dup("198.51.100.1");
    ASSERT_TRUE(KELOsapiHeap_allocateArray(&record.comm_ports_list, 2,
                                           struct VESK_Transport_UDP_WAN_CommPortsMappingInfo));
    record.comm_ports_list_length = 2;
    record.wan_listener = &g_listener;
    VESK_Transport_cleanupUDPProperty(&record, &flags);
    ASSERT_NE(nullptr, record.public_address);
    ASSERT_NE(nullptr, record.comm_ports_list);
    EXPECT_EQ(2, record.comm_ports_list_length);
    EXPECT_EQ(&g_listener, record.wan_listener);

    // Flags set: both released and nulled, the length 0; the flags stay
    // and a second cleanup releases nothing twice.
    flags._publicAddressAllocated = 1;
    flags._commPortsAllocated = 1;
    VESK_Transport_cleanupUDPProperty(&record, &flags);
    EXPECT_EQ(nullptr, record.public_address);
    EXPECT_EQ(nullptr, record.comm_ports_list);
    EXPECT_EQ(0, record.comm_ports_list_length);
    EXPECT_EQ(&g_listener, record.wan_listener);  // the application's
    EXPECT_EQ("0,0,0,0,1,1", renderFlags(flags));
    VESK_Transport_cleanupUDPProperty(&record, &flags);
}

TEST(UdpSetup, EachCleanupWrapperReleasesWhatItsSetupAllocated) {
    using Cleanup = void (*)(Udp *, const Flags *);
    for (Cleanup cleanup :
         {VESK_Transport_cleanupUDPv4Property, VESK_Transport_cleanupUDPv4WanProperty,
          VESK_Transport_cleanupUDPv6Property}) {
        PropertyList properties;
        properties.add(PREFIX, "parent.allow_interfaces", "eth0")
            .add(PREFIX, "parent.deny_multicast_interfaces", "eth1,eth2")
            .add(PREFIX, "public_address", "")
            .add(PREFIX, "comm_ports", "{\"default\": {\"host\": 7400}}");
        Udp record = VESK_TRANSPORT_UDPV4_WAN_PROPERTY_DEFAULT;
        Flags flags{};
        ASSERT_EQ(4,
                  VESK_Transport_setupUDPv4WanProperty(&record, &flags, properties.get(), PREFIX));
        EXPECT_STREQ("", record.public_address);  // an empty address is copied too
        cleanup(&record, &flags);
        EXPECT_EQ(nullptr, record.public_address);
        EXPECT_EQ(nullptr, record.comm_ports_list);
        EXPECT_EQ(nullptr, record.parent.allow_interfaces_list);
        EXPECT_EQ(nullptr, record.parent.deny_multicast_interfaces_list);
        EXPECT_EQ(nullptr, record.parent.thread_name_prefix);
    }
}

}  // namespace
