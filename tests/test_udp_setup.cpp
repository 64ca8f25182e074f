// The UDP setup: its thirty properties in their order, keywords and case
// rules, the message of every bad value, counting, the validation of
// unprefixed lists per class, the WAN port table and public address, and
// the cleanup.

#include <gtest/gtest.h>

#include <cctype>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "support/AllocationSweep.hpp"
#include "support/SetupChecks.hpp"
#include "vesk_transport/Support.h"

namespace {

using namespace vesk::test;
using Flags = VESK_Transport_internalMemoryAllocations;
using Mapping = VESK_Transport_UDP_WAN_CommPortsMappingInfo;

constexpr const char *PREFIX = "dds.transport.UDPv4.builtin";
constexpr VESK_Transport_ClassId_t WAN = 0x01000001;
constexpr VESK_Transport_ClassId_t UNKNOWN_CLASS = 42;

// The classes a setup is run for: the wrappers where there is one, the
// general setup for the second UDPv6 class id and for an unknown class id.
struct UdpClass {
    VESK_Transport_ClassId_t classid;
    const Udp *defaults;
    int (*wrapper)(Udp *, Flags *, const DDS_PropertyQosPolicy *, const char *);
};
const UdpClass CLASSES[] = {
    {1, &VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT, VESK_Transport_setupUDPv4Property},
    {WAN, &VESK_TRANSPORT_UDPV4_WAN_PROPERTY_DEFAULT, VESK_Transport_setupUDPv4WanProperty},
    {2, &VESK_TRANSPORT_UDPV6_PROPERTY_DEFAULT, VESK_Transport_setupUDPv6Property},
    {5, &VESK_TRANSPORT_UDPV6_PROPERTY_DEFAULT, nullptr},
    {UNKNOWN_CLASS, &VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT, nullptr},
};

int runSetup(const UdpClass &udpClass, UdpRecord &run, const PropertyList &properties,
             const char *prefix) {
    if (udpClass.wrapper != nullptr) {
        return udpClass.wrapper(&run.record, &run.allocations, properties.get(), prefix);
    }
    return run.setup(properties, prefix, udpClass.classid);
}

int setupWan(UdpRecord &run, const PropertyList &properties) {
    return VESK_Transport_setupUDPv4WanProperty(&run.record, &run.allocations, properties.get(),
                                                PREFIX);
}

VESK_Transport_UDP_WAN_Listener g_listener{};
const std::string LISTENER = renderPointer(&g_listener);

std::string parser(const std::string &suffix, const std::string &value) {
    return error(UDP_SETUP, "KEL_LOG_PARSER_FAILURE_ss", {suffix, value});
}
std::string failedToParse(const std::string &suffix, const std::string &value) {
    return error(UDP_SETUP, "KEL_LOG_FAILED_TO_PARSE_TEMPLATE", {suffix + ": " + value}, "%s: %s");
}
std::string portRange(const std::string &value) {
    return error(UDP_SETUP, "KEL_LOG_FAILED_TO_PARSE_TEMPLATE",
                 {"comm_ports: " + value + " is out of valid port range (0-65535)"},
                 "%s: %s is out of valid port range (0-65535)");
}
std::string unknown(const char *name, KEL_UINT32 level = KEL_LOG_BIT_ERROR) {
    return message(level, VALIDATE, "KEL_LOG_UNKNOWN_PROPERTY_s", {name});
}
std::string inconsistent(const char *prefix) {
    return error(UDP_SETUP, "KEL_LOG_INCONSISTENT_PROPERTY_s", {prefix});
}

// The thirty properties in the order in which they are read: a good value
// and its field's rendering, and a bad value.
struct Row {
    const char *suffix, *good, *rendered, *bad;
};
const std::vector<Row> ROWS = {
    {"send_socket_buffer_size", "65536", "65536", "big"},
    {"recv_socket_buffer_size", "131072", "131072", "big"},
    {"unicast_enabled", "0", "0", "maybe"},
    {"multicast_enabled", "false", "0", "2"},
    {"multicast_ttl", "64", "64", "ttl"},
    {"multicast_loopback_disabled", "1", "1", ""},
    {"ignore_loopback_interface", "7", "7", "1.5"},  // any integer is stored
    {"ignore_nonup_interfaces", "0", "0", "yes please"},
    {"ignore_nonrunning_interfaces", "0", "0", "on?"},
    {"no_zero_copy", "1", "1", "nope"},
    {"send_blocking", "TRANSPORT_BLOCKING_NEVER", "0", "true"},
    {"enable_v4mapped", "true", "1", "-1"},
    {"use_checksum", "0", "0", "checksum"},
    {"transport_priority_mask", "4294967295", "4294967295", "mask"},
    {"transport_priority_mapping_low", "-5", "-5", "low"},
    {"transport_priority_mapping_high", "100", "100", "2147483648"},
    {"send_ping", "0", "0", "ping"},
    {"force_interface_poll_detection", "1", "1", "10"},
    {"interface_poll_period", "4294967295", "4294967295", "soon"},
    {"reuse_multicast_receive_resource", "0", "0", "x"},
    {"protocol_overhead_max", "100", "100", "28 bytes"},
    {"disable_interface_tracking", "1", "1", "off!"},
    {"public_address", "203.0.113.5", "\"203.0.113.5\"", nullptr},  // any text is an address
    {"comm_ports", "7400", "[{7400,7400,7400}]", "65536"},
    {"wan_listener_ptr", LISTENER.c_str(), LISTENER.c_str(), "listener"},
    {"join_multicast_group_timeout", "10000", "10000", "later"},
    {"port_offset", "-7", "-7", "offset"},
    {"binding_ping_period", "2000", "2000", "period"},
    {"binding_ping_mapping_expiration", "30000", "30000", "never"},
    {"gather_detailed_statistics", "1", "1", "all"},
};

// What the good value of a row changes, and the flags it sets.
Rendered goodChanges(const Row &row) {
    const std::string suffix = row.suffix;
    if (suffix == "comm_ports")
        return {{"comm_ports_list", row.rendered}, {"comm_ports_list_length", "1"}};
    return {{suffix == "wan_listener_ptr" ? "wan_listener" : suffix, row.rendered}};
}
std::string goodFlags(const Row &row) {
    const std::string suffix = row.suffix;
    return suffix == "public_address" ? "0,0,0,0,1,0"
           : suffix == "comm_ports"   ? "0,0,0,0,0,1"
                                      : "0,0,0,0,0,0";
}
std::string badMessage(const Row &row) {
    const std::string suffix = row.suffix;
    if (suffix.find("socket_buffer_size") != std::string::npos)
        return failedToParse(suffix, row.bad);
    if (suffix == "comm_ports") return portRange(row.bad);
    // The value is not part of this message.
    if (suffix == "binding_ping_mapping_expiration") {
        return error(UDP_SETUP, "KEL_LOG_FAILED_TO_CONVERT_TEMPLATE",
                     {"'binding_ping_mapping_expiration' value"}, "'%s' value");
    }
    return parser(suffix, row.bad);
}

TEST(UdpSetup, EachGoodValueSetsItsFieldForEveryClass) {
    for (const UdpClass &udpClass : CLASSES) {
        SCOPED_TRACE(udpClass.classid);
        const Udp before = withDefaultThreadName(*udpClass.defaults);
        {  // No UDP property: every default stays.
            PropertyList properties;
            properties.add(PREFIX, "misspelt_send_blocking", "0").add("send_blocking", "0");
            LogCapture log;
            UdpRecord run(*udpClass.defaults);
            EXPECT_EQ(0, runSetup(udpClass, run, properties, PREFIX));
            EXPECT_EQ(Rendered{}, changes(before, run.record));
            EXPECT_TRUE(log.entries().empty());
        }
        for (const Row &row : ROWS) {
            SCOPED_TRACE(row.suffix);
            PropertyList properties;
            properties.add(PREFIX, row.suffix, row.good);
            LogCapture log;
            UdpRecord run(*udpClass.defaults);
            EXPECT_EQ(1, runSetup(udpClass, run, properties, PREFIX));
            EXPECT_EQ(with(render(before), goodChanges(row)), render(run.record));
            EXPECT_EQ(goodFlags(row), renderFlags(run.allocations));
            EXPECT_TRUE(log.entries().empty());
        }
    }
}

// A bad value between two good ones: -1 and exactly its message; the
// property before it is applied, its own field and the one after are not.
TEST(UdpSetup, EachBadValueFailsWithItsMessageAndStopsTheSetup) {
    for (const UdpClass &udpClass : CLASSES) {
        SCOPED_TRACE(udpClass.classid);
        for (size_t i = 0; i < ROWS.size(); ++i) {
            const Row &row = ROWS[i];
            if (row.bad == nullptr) continue;
            SCOPED_TRACE(std::string(row.suffix) + " = '" + row.bad + "'");
            PropertyList properties;
            properties.add(PREFIX, row.suffix, row.bad);
            if (i > 0) properties.add(PREFIX, ROWS[i - 1].suffix, ROWS[i - 1].good);
            if (i + 1 < ROWS.size()) properties.add(PREFIX, ROWS[i + 1].suffix, ROWS[i + 1].good);
            LogCapture log;
            UdpRecord run(*udpClass.defaults);
            EXPECT_EQ(-1, runSetup(udpClass, run, properties, PREFIX));
            EXPECT_EQ(std::vector<std::string>{badMessage(row)}, describeAll(log));
            const Udp before = withDefaultThreadName(*udpClass.defaults);
            Rendered expected = render(before);
            // A failed setup hands back no port list; its flag stays set.
            if (i > 0 && std::string(ROWS[i - 1].suffix) != "comm_ports") {
                expected = with(expected, goodChanges(ROWS[i - 1]));
            }
            // What a failed conversion leaves in its own field is open.
            const std::string own = goodChanges(row)[0].first;
            Rendered actual = with(render(run.record), {{own, field(before, own)}});
            EXPECT_EQ(expected, actual);
            EXPECT_EQ(i > 0 ? goodFlags(ROWS[i - 1]) : "0,0,0,0,0,0", renderFlags(run.allocations));
        }
    }
}

TEST(UdpSetup, SocketBufferKeywordsIgnoreCaseAndTheIpVersion) {
    struct Keyword {
        const char *text;
        KEL_INT32 value;
        const char *accepted;  // "s": send, "r": receive
    };
    const std::vector<Keyword> keywords = {
        {"VESK_TRANSPORT_UDPV4_SEND_SOCKET_BUFFER_SIZE_DEFAULT", 2097152, "s"},
        {"VESK_TRANSPORT_UDPV6_SEND_SOCKET_BUFFER_SIZE_DEFAULT", 2097152, "s"},
        {"VESK_TRANSPORT_UDPV4_RECV_SOCKET_BUFFER_SIZE_DEFAULT", 2097152, "r"},
        {"VESK_TRANSPORT_UDPV6_RECV_SOCKET_BUFFER_SIZE_DEFAULT", 2097152, "r"},
        {"VESK_TRANSPORT_UDPV4_SOCKET_BUFFER_SIZE_OS_MAX", -2, "sr"},
        {"VESK_TRANSPORT_UDPV6_SOCKET_BUFFER_SIZE_OS_MAX", -2, "sr"},
        {"VESK_TRANSPORT_UDPV4_SOCKET_BUFFER_SIZE_OS_DEFAULT", -1, "sr"},
        {"VESK_TRANSPORT_UDPV6_SOCKET_BUFFER_SIZE_OS_DEFAULT", -1, "sr"},
        {"-100", -100, "sr"},  // numbers, without a range test
        {"0", 0, "sr"},
    };
    for (const UdpClass &udpClass : CLASSES) {
        for (const Keyword &keyword : keywords) {
            std::string lower = keyword.text, mixed = keyword.text;
            for (char &c : lower)
                c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
            for (size_t i = 0; i < mixed.size(); i += 2) mixed[i] = lower[i];
            for (const std::string &text : {std::string(keyword.text), lower, mixed}) {
                for (const char *suffix : {"send_socket_buffer_size", "recv_socket_buffer_size"}) {
                    SCOPED_TRACE(std::to_string(udpClass.classid) + " " + suffix + " = " + text);
                    PropertyList properties;
                    properties.add(PREFIX, suffix, text);
                    LogCapture log;
                    UdpRecord run(*udpClass.defaults);
                    const int result = runSetup(udpClass, run, properties, PREFIX);
                    const bool send = suffix[0] == 's';
                    if (std::strchr(keyword.accepted, send ? 's' : 'r') != nullptr) {
                        EXPECT_EQ(1, result);
                        EXPECT_EQ(keyword.value, send ? run.record.send_socket_buffer_size
                                                      : run.record.recv_socket_buffer_size);
                        EXPECT_TRUE(log.entries().empty());
                    } else {  // a keyword of the other direction is not one here
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
    const std::set<VESK_Transport_ClassId_t> none = {0};
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
        {"VESK_TRANSPORT_UDPV6_BLOCKING_NEVER", 0, {2}},  // not for class id 5
        {"transport_blocking_always", 0, none},
        {"vesk_transport_udpv6_blocking_never", 0, none},
        {"VESK_TRANSPORT_UDPV4_BLOCKING_NEVER_", 0, none},
        {"false", 0, none},
        {"2", 0, none},
        {" 1", 0, none},
    };
    for (const UdpClass &udpClass : CLASSES) {
        for (const Keyword &keyword : keywords) {
            SCOPED_TRACE(std::to_string(udpClass.classid) + " send_blocking = '" + keyword.text +
                         "'");
            const bool accepted =
                keyword.classes.empty() || keyword.classes.count(udpClass.classid);
            for (KEL_INT32 before : {0, 1}) {  // so that every accepted keyword shows
                PropertyList properties;
                properties.add(PREFIX, "send_blocking", keyword.text);
                LogCapture log;
                UdpRecord run(*udpClass.defaults);
                run.record.send_blocking = before;
                EXPECT_EQ(accepted ? 1 : -1, runSetup(udpClass, run, properties, PREFIX));
                EXPECT_EQ(accepted ? keyword.value : before, run.record.send_blocking);
                EXPECT_EQ(accepted
                              ? std::vector<std::string>{}
                              : std::vector<std::string>{parser("send_blocking", keyword.text)},
                          describeAll(log));
            }
        }
    }
}

// Lists with and without a prefix. Without one, "prefix" is counted, the
// validation action is read, and the names are validated against the
// class's lists (an unknown class id validates nothing).
TEST(UdpSetup, PrefixesAndTheValidationOfUnprefixedLists) {
    struct Case {
        std::set<VESK_Transport_ClassId_t> classids;
        const char *prefix;
        std::string properties;  // "name=value;..."
        int result;
        std::vector<std::string> messages;
        KEL_INT32 sendBlocking;  // after the setup (every default is 1)
    };
    const std::set<VESK_Transport_ClassId_t> V = {1, WAN, 2, 5};  // validated
    const std::set<VESK_Transport_ClassId_t> all = {1, WAN, 2, 5, UNKNOWN_CLASS};
    const auto U = [](const char *name) { return unknown(name); };
    const std::string I = inconsistent(""), action = "dds.property_validation_action=";
    const std::string P = std::string(PREFIX) + ".";
    const std::vector<Case> cases = {
        {all, nullptr, "send_blocking=0;parent.message_size_max=1400", 2, {}, 0},
        {V, nullptr, "send_blockin=0;send_blocking=0", -1, {U("send_blockin"), I}, 1},
        {V,
         nullptr,
         "send_blockin=0;send_blocking=0;" + action + "EXCEPTION",
         -1,
         {U("send_blockin"), I},
         1},
        {V,
         nullptr,
         "send_blockin=0;send_blocking=0;" + action + "WARNING",
         1,
         {unknown("send_blockin", KEL_LOG_BIT_WARN)},
         0},
        {all, nullptr, "send_blockin=0;send_blocking=0;" + action + "SKIP", 1, {}, 0},
        // Validation comes before the first UDP property is read.
        {V, nullptr, "bogus=1;send_socket_buffer_size=big", -1, {U("bogus"), I}, 1},
        // "prefix" sets the validation prefix only: names outside it are not
        // validated, names are still read bare; an empty one validates all.
        {V,
         nullptr,
         "prefix=my;my.bogus=1;send_blocking=0",
         -1,
         {U("my.bogus"), inconsistent("my")},
         1},
        {all, nullptr, "prefix=my;my.send_blocking=0;bogus=1", 1, {}, 1},
        {V, nullptr, "prefix=;send_blocking=0;bogus=1", -1, {U("bogus"), I}, 1},
        {{UNKNOWN_CLASS}, nullptr, "prefix=;bogus=1;send_blocking=0", 2, {}, 0},
        // Class id 5 is validated like UDPv6 but knows no UDPv6 keyword.
        {{5},
         nullptr,
         "send_blocking=VESK_TRANSPORT_UDPV6_BLOCKING_NEVER",
         -1,
         {parser("send_blocking", "VESK_TRANSPORT_UDPV6_BLOCKING_NEVER")},
         1},
        {all,
         nullptr,
         action + "MAYBE;send_blocking=0",
         -1,
         {error("DDS_PropertyQosPolicy_parse_property_validation_action",
                "KEL_LOG_PARSER_FAILURE_ss", {"dds.property_validation_action", "MAYBE"}),
          error(UDP_SETUP, "KEL_LOG_PARSER_FAILURE_s", {"property_validation_action"})},
         1},
        // With a prefix nothing is validated, neither "prefix" is read, and
        // the action is ignored.
        {all,
         PREFIX,
         "prefix=x;" + P + "prefix=y;" + P + "misspelt=1;" + P + "send_blocking=0;" + action +
             "garbage",
         1,
         {},
         0},
        // A failed generic part is reported as such, before any UDP property.
        {all,
         PREFIX,
         P + "parent.address_bit_count=200;" + P + "send_blocking=0",
         -1,
         {error(PARENT_SETUP, "KEL_LOG_PARSER_VALUE_OUT_OF_RANGE_ss",
                {"parent.address_bit_count", "[-128, 128]"}),
          error(UDP_SETUP, "KEL_LOG_PARSER_FAILURE_s", {"parent properties"})},
         1},
    };
    for (const UdpClass &udpClass : CLASSES) {
        for (const Case &c : cases) {
            if (!c.classids.count(udpClass.classid)) continue;
            SCOPED_TRACE(std::to_string(udpClass.classid) + ": " + c.properties);
            PropertyList properties(c.properties);
            LogCapture log;
            UdpRecord run(*udpClass.defaults);
            EXPECT_EQ(c.result, runSetup(udpClass, run, properties, c.prefix));
            EXPECT_EQ(c.messages, describeAll(log));
            EXPECT_EQ(c.sendBlocking, run.record.send_blocking);
        }
        // Only the WAN class's own list accepts the WAN names.
        for (const char *suffix :
             {"public_address", "comm_ports", "wan_listener_ptr", "port_offset",
              "binding_ping_period", "binding_ping_mapping_expiration"}) {
            if (udpClass.classid == UNKNOWN_CLASS) break;
            SCOPED_TRACE(suffix);
            PropertyList properties{{suffix, "0"}};
            LogCapture log;
            UdpRecord run(*udpClass.defaults);
            const bool wan = udpClass.classid == WAN;
            EXPECT_EQ(wan ? 1 : -1, runSetup(udpClass, run, properties, nullptr));
            EXPECT_EQ((wan ? std::vector<std::string>{}
                           : std::vector<std::string>{unknown(suffix), inconsistent("")}),
                      describeAll(log));
        }
    }
}

// Every property at once, with and without a prefix: each counts once (a
// list given under both names too), and a class's own list of every name
// it reads passes validation.
TEST(UdpSetup, TheResultCountsEveryPropertyApplied) {
    for (const UdpClass &udpClass : CLASSES) {
        for (const char *prefix : {PREFIX, static_cast<const char *>(nullptr)}) {
            SCOPED_TRACE(std::to_string(udpClass.classid) + (prefix ? " prefixed" : ""));
            const std::string p = prefix ? prefix : "";
            const bool wanRows =
                prefix || udpClass.classid == WAN || udpClass.classid == UNKNOWN_CLASS;
            PropertyList properties;
            properties.add(p, "parent.classid", "1")
                .add(p, "parent.address_bit_count", "32")
                .add(p, "parent.properties_bitmap", "0")
                .add(p, "parent.gather_send_buffer_count_max", "8")
                .add(p, "parent.message_size_max", "8192")
                .add(p, "parent.allow_interfaces", "eth0")
                .add(p, "parent.allow_interfaces_list", "lo")
                .add(p, "parent.deny_interfaces_list", "eth1")
                .add(p, "parent.allow_multicast_interfaces", "eth2")
                .add(p, "parent.deny_multicast_interfaces_list", "eth3")
                .add(p, "parent.thread_name_prefix", "abcd")
                .add(p, "thread_name_prefix", "abc")
                .add(p, "participant_guid_prefix", "1,2,3")
                .add(p, "parent.max_interface_count", "4");
            for (size_t i = 0; i < ROWS.size(); ++i) {
                if (wanRows || i < 22 || i == 25 || i == 29)
                    properties.add(p, ROWS[i].suffix, ROWS[i].good);
            }
            if (!prefix)
                properties.add("prefix", "")
                    .add(DDS_PROPERTY_VALIDATION_ACTION_PROPERTY_NAME, "EXCEPTION");
            LogCapture log;
            UdpRecord run(*udpClass.defaults);
            // The generic twelve, the UDP rows, and "prefix"; not the action.
            EXPECT_EQ(12 + (wanRows ? 30 : 24) + (prefix ? 0 : 1),
                      runSetup(udpClass, run, properties, prefix));
            EXPECT_EQ(wanRows ? "1,1,1,1,1,1" : "1,1,1,1,0,0", renderFlags(run.allocations));
            EXPECT_TRUE(log.entries().empty());
        }
    }
}

TEST(UdpSetup, CleanupReleasesOnlyFlaggedMembers) {
    VESK_Transport_cleanupUDPProperty(nullptr, nullptr);
    // Flags clear: neither member is released, even when set.
    Udp record = VESK_TRANSPORT_UDPV4_WAN_PROPERTY_DEFAULT;
    Flags flags{};
    record.public_address = DDS_String_dup("198.51.100.1");
    ASSERT_TRUE(KELOsapiHeap_allocateArray(&record.comm_ports_list, 2, Mapping));
    record.comm_ports_list_length = 2;
    record.wan_listener = &g_listener;
    VESK_Transport_cleanupUDPProperty(&record, &flags);
    ASSERT_NE(nullptr, record.public_address);
    ASSERT_NE(nullptr, record.comm_ports_list);
    EXPECT_EQ(2, record.comm_ports_list_length);
    // Flags set: both released and nulled, the length 0; the flags stay and
    // a second cleanup releases nothing twice. The listener is the
    // application's.
    flags._publicAddressAllocated = 1;
    flags._commPortsAllocated = 1;
    VESK_Transport_cleanupUDPProperty(&record, &flags);
    EXPECT_EQ(nullptr, record.public_address);
    EXPECT_EQ(nullptr, record.comm_ports_list);
    EXPECT_EQ(0, record.comm_ports_list_length);
    EXPECT_EQ(&g_listener, record.wan_listener);
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

// ---------------------------------------------------------------------------
// The WAN properties: "comm_ports" (a port or a JSON document),
// "public_address", "wan_listener_ptr"
// ---------------------------------------------------------------------------

const char *const EXAMPLE =
    R"({"default": {"host": 7400, "public": 17400},
        "mappings": [{"rtps": 7410, "host": 7410, "public": 17410},
                     {"rtps": 7411, "host": 7500}]})";
const char *const EXAMPLE_TABLE = "[{0,7400,17400},{7410,7410,17410},{7411,7500,7500}]";
Mapping g_sentinel[1] = {{1, 2, 3, 4}};

TEST(CommPortsJson, EachNullArgumentIsAPreconditionFailure) {
    const std::vector<std::pair<const char *, const char *>> cases = {
        // null: list, length, text
        {"100", "commPortsListOut == ((void *)0)"},
        {"010", "commPortsListLengthOut == ((void *)0)"},
        {"001", "jsonCommPorts == ((void *)0)"},
        {"111", "commPortsListOut == ((void *)0)"},
        {"011", "commPortsListLengthOut == ((void *)0)"},
    };
    PreconditionFlags restore;
    for (const auto &[nulls, condition] : cases) {
        SCOPED_TRACE(condition);
        KELLog_g_detectPrecondition = 1;
        KELLog_g_preconditionDetected = 0;
        const KEL_UINT64 breakpoints = KELLog_getAssertBreakpointCount();
        LogCapture log;
        Mapping *list = g_sentinel;
        KEL_INT32 length = 77;
        EXPECT_EQ(0, VESK_Transport_CommPortsHelper_parseJson(nulls[0] == '1' ? nullptr : &list,
                                                              nulls[1] == '1' ? nullptr : &length,
                                                              nulls[2] == '1' ? nullptr : EXAMPLE));
        EXPECT_EQ((std::vector<std::string>{message(KEL_LOG_BIT_EXCEPTION, PARSE_JSON,
                                                    "KEL_LOG_PRECONDITION_FAILURE_s",
                                                    {std::string("\"") + condition + "\""})}),
                  describeAll(log));
        EXPECT_EQ(g_sentinel, list);
        EXPECT_EQ(77, length);
        EXPECT_EQ(1, KELLog_g_preconditionDetected);
        EXPECT_EQ(breakpoints + 1, KELLog_getAssertBreakpointCount());
    }
}

TEST(CommPortsJson, DocumentsBecomeTables) {
    const std::vector<std::pair<const char *, const char *>> cases = {
        // entry 0 from default, then the mappings in order
        {EXAMPLE, EXAMPLE_TABLE},
        {R"({"default": {}})", "[{0,0,0}]"},
        {R"({"default": {"host": 7400}, "mappings": []})", "[{0,7400,7400}]"},
        {R"({"x": 1, "default": {"rtps": 5, "host": 6, "other": "z"}, "y": [1]})", "[{5,6,6}]"},
        {R"({"default": {"host": 5, "public": 0}})", "[{0,5,0}]"},  // public 0 is not absent
        {R"({"default": {"public": 9}})", "[{0,0,9}]"},
        // Low bits, no range test.
        {R"({"default": {"host": 65536, "public": -1}})", "[{0,0,65535}]"},
        {R"({"default": {"host": 70000}})", "[{0,4464,4464}]"},
        {R"({"default": {"rtps": -1}})", "[{4294967295,0,0}]"},
        {R"({"default": {"rtps": 4294967296}})", "[{0,0,0}]"},
        {R"({"default": {}, "mappings": [{"rtps": 1}, {"rtps": 1}, {"rtps": 1}]})",
         "[{0,0,0},{1,0,0},{1,0,0},{1,0,0}]"},  // duplicates are kept
    };
    for (const auto &[json, expected] : cases) {
        SCOPED_TRACE(json);
        LogCapture log;
        Mapping *list = nullptr;
        KEL_INT32 length = 77;
        EXPECT_EQ(1, VESK_Transport_CommPortsHelper_parseJson(&list, &length, json));
        ASSERT_NE(nullptr, list);
        EXPECT_EQ(expected, renderCommPorts(list, length));
        EXPECT_STREQ("struct VESK_Transport_UDP_WAN_CommPortsMappingInfo",
                     KELOsapiHeap_getBlockTypeName(list));
        EXPECT_EQ(VESK_TRANSPORT_HEAP_TAG, KELOsapiHeap_getBlockTag(list));
        EXPECT_TRUE(log.entries().empty());
        KELOsapiHeap_freeArray(list);
    }
}

TEST(CommPortsJson, BadDocumentsFailWithTheirMessagesAndLeaveNothing) {
    struct Case {
        std::string json;
        std::vector<std::string> messages;  // "": a message whose argument is ours to choose
        KEL_INT32 length;                   // the count of stored entries
    };
    const auto get = [](const char *what, bool node = true) {
        return error(node ? "VESK_Transport_CommPortsHelper_parseJsonMappingNode" : PARSE_JSON,
                     "KEL_LOG_GET_FAILURE_s", {what});
    };
    const std::string parseDefault =
        error(PARSE_JSON, "KEL_LOG_ANY_FAILURE_s", {"parse default node"});
    const std::vector<Case> cases = {
        {"{bad", {error(PARSE_JSON, "KEL_LOG_ANY_FAILURE_ss", {"parse JSON string: ", "{bad"})}, 0},
        {"", {error(PARSE_JSON, "KEL_LOG_ANY_FAILURE_ss", {"parse JSON string: ", ""})}, 0},
        {R"({"mappings": [{"rtps": 1, "host": 2}]})", {get("default comm_ports", false)}, 0},
        {R"({"default": {"rtps": "x"}})", {get("rtps node value"), parseDefault}, 0},
        {R"({"default": {"host": "7400"}})", {get("host node value"), parseDefault}, 0},
        {R"({"default": {"host": 1.5}})", {get("host node value"), parseDefault}, 0},
        {R"({"default": {"host": 1, "public": true}})",
         {get("public node value"), parseDefault},
         0},
        {R"({"default": {}, "mappings": [{"rtps": 1}, {"host": "x"}]})",
         {get("host node value"), ""},
         2},
        {R"({"default": {}, "mappings": [{"public": null}, {}]})",
         {get("public node value"), ""},
         1},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.json);
        LogCapture log;
        const KEL_UINT64 blocks = liveHeapBlocks();
        Mapping *list = g_sentinel;
        KEL_INT32 length = 77;
        EXPECT_EQ(0, VESK_Transport_CommPortsHelper_parseJson(&list, &length, c.json.c_str()));
        EXPECT_EQ(g_sentinel, list);
        EXPECT_EQ(c.length, length);
        EXPECT_EQ(blocks, liveHeapBlocks());
        const auto entries = log.entries();
        ASSERT_EQ(c.messages.size(), entries.size());
        for (size_t i = 0; i < entries.size(); ++i) {
            if (!c.messages[i].empty()) {
                EXPECT_EQ(c.messages[i], describe(entries[i]));
            } else {  // a failed "mappings" element: our wording, the same template
                LogEntry entry = entries[i];
                EXPECT_FALSE(entry.params.empty() || entry.params[0].empty());
                entry.params = {"x"};
                EXPECT_EQ(error(PARSE_JSON, "KEL_LOG_ANY_FAILURE_s", {"x"}), describe(entry));
            }
        }
    }
}

// Each refused allocation gives 0, leaves the caller's list alone and logs
// exactly one of its two messages.
TEST(CommPortsJson, EveryAllocationFailureLeavesNothing) {
    const std::string creation = error(PARSE_JSON, "KEL_LOG_CREATION_FAILURE_s", {"commPortsList"});
    const std::string parse =
        error(PARSE_JSON, "KEL_LOG_ANY_FAILURE_ss", {"parse JSON string: ", EXAMPLE});
    struct Outcome {
        int result = 0;
        Mapping *list = g_sentinel;
        KEL_INT32 length = 0;
        std::vector<std::string> lines;
    };
    std::set<std::string> seen;
    const auto summary = sweepAllocationFailures(
        [] {
            LogCapture log;
            Outcome outcome;
            outcome.result =
                VESK_Transport_CommPortsHelper_parseJson(&outcome.list, &outcome.length, EXAMPLE);
            outcome.lines = describeAll(log);
            return outcome;
        },
        [&](const SweepStep &step, Outcome &outcome) {
            if (!step.failed) {
                EXPECT_EQ(1, outcome.result);
                EXPECT_EQ(EXAMPLE_TABLE, renderCommPorts(outcome.list, outcome.length));
                return;
            }
            EXPECT_EQ(0, outcome.result);
            EXPECT_EQ(g_sentinel, outcome.list);
            ASSERT_EQ(1u, outcome.lines.size());
            EXPECT_TRUE(outcome.lines[0] == creation || outcome.lines[0] == parse)
                << outcome.lines[0];
            seen.insert(outcome.lines[0]);
        },
        [](Outcome &outcome) {
            if (outcome.result == 1) KELOsapiHeap_freeArray(outcome.list);
        });
    EXPECT_TRUE(summary.completed);
    EXPECT_TRUE(seen.count(creation));
}

TEST(WanProperties, ValuesBecomeTheRecordsMembers) {
    const std::vector<std::pair<PropertyList::NameValue, Rendered>> cases = {
        {{"comm_ports", "0"}, {{"comm_ports_list", "[{0,0,0}]"}, {"comm_ports_list_length", "1"}}},
        {{"comm_ports", "65535"},
         {{"comm_ports_list", "[{65535,65535,65535}]"}, {"comm_ports_list_length", "1"}}},
        {{"comm_ports", EXAMPLE},
         {{"comm_ports_list", EXAMPLE_TABLE}, {"comm_ports_list_length", "3"}}},
        {{"public_address", ""}, {{"public_address", "\"\""}}},
        {{"public_address", "not an address"}, {{"public_address", "\"not an address\""}}},
        {{"wan_listener_ptr", "0"}, {}},
    };
    for (const auto &[property, expected] : cases) {
        SCOPED_TRACE(property.second);
        PropertyList properties;
        properties.add(PREFIX, property.first, property.second);
        LogCapture log;
        UdpRecord run(VESK_TRANSPORT_UDPV4_WAN_PROPERTY_DEFAULT);
        EXPECT_EQ(1, setupWan(run, properties));
        EXPECT_EQ(
            expected,
            changes(withDefaultThreadName(VESK_TRANSPORT_UDPV4_WAN_PROPERTY_DEFAULT), run.record));
        if (run.record.comm_ports_list != nullptr) {
            EXPECT_STREQ("struct VESK_Transport_UDP_WAN_CommPortsMappingInfo",
                         KELOsapiHeap_getBlockTypeName(run.record.comm_ports_list));
            EXPECT_EQ(VESK_TRANSPORT_HEAP_TAG,
                      KELOsapiHeap_getBlockTag(run.record.comm_ports_list));
        }
        EXPECT_NE(properties.get()->value._contiguous_buffer[0].value, run.record.public_address);
        EXPECT_TRUE(log.entries().empty());
    }
}

TEST(WanProperties, BadPortTablesFailAndLeaveNoTable) {
    const auto parseFailed = [](const std::string &value) { return parser("comm_ports", value); };
    const auto notJson = [](const std::string &value) {
        return error(PARSE_JSON, "KEL_LOG_ANY_FAILURE_ss", {"parse JSON string: ", value});
    };
    const std::vector<std::pair<std::string, std::vector<std::string>>> cases = {
        {"-1", {portRange("-1")}},
        {"100000", {portRange("100000")}},
        {"{\"default\": ", {notJson("{\"default\": "), parseFailed("{\"default\": ")}},
        {"port 7400", {notJson("port 7400"), parseFailed("port 7400")}},
        {"{}",
         {error(PARSE_JSON, "KEL_LOG_GET_FAILURE_s", {"default comm_ports"}), parseFailed("{}")}},
    };
    for (const auto &[value, messages] : cases) {
        SCOPED_TRACE(value);
        PropertyList properties;
        properties.add(PREFIX, "comm_ports", value).add(PREFIX, "port_offset", "5");
        LogCapture log;
        UdpRecord run(VESK_TRANSPORT_UDPV4_WAN_PROPERTY_DEFAULT);
        EXPECT_EQ(-1, setupWan(run, properties));
        EXPECT_EQ(messages, describeAll(log));
        EXPECT_EQ(nullptr, run.record.comm_ports_list);
        EXPECT_EQ(0, run.record.comm_ports_list_length);
        EXPECT_EQ("0,0,0,0,0,0", renderFlags(run.allocations));
        EXPECT_EQ(125, run.record.port_offset);  // not read
    }
}

// Any failure after a good "comm_ports" releases the table at once (null,
// length 0, the flag still set); the public address stays for the cleanup.
TEST(WanProperties, ALaterFailureReleasesTheTableAndLeavesTheAddress) {
    for (const char *commPorts : {"7400", EXAMPLE}) {
        for (size_t i = 24; i < ROWS.size(); ++i) {
            SCOPED_TRACE(std::string(commPorts) + ", " + ROWS[i].suffix);
            PropertyList properties;
            properties.add(PREFIX, "public_address", "203.0.113.5")
                .add(PREFIX, "comm_ports", commPorts)
                .add(PREFIX, ROWS[i].suffix, ROWS[i].bad);
            LogCapture log;
            UdpRecord run(VESK_TRANSPORT_UDPV4_WAN_PROPERTY_DEFAULT);
            EXPECT_EQ(-1, setupWan(run, properties));
            EXPECT_EQ(std::vector<std::string>{badMessage(ROWS[i])}, describeAll(log));
            EXPECT_EQ(nullptr, run.record.comm_ports_list);
            EXPECT_EQ(0, run.record.comm_ports_list_length);
            EXPECT_STREQ("203.0.113.5", run.record.public_address);
            EXPECT_EQ("0,0,0,0,1,1", renderFlags(run.allocations));
        }
    }
}

// The copies fail in turn: the default thread-name prefix, the public
// address and the single-port table each have their own message, and nothing is flagged
// that is not held.
TEST(WanProperties, EveryAllocationFailureIsReportedAndReleased) {
    PropertyList properties;
    properties.add(PREFIX, "public_address", "203.0.113.5").add(PREFIX, "comm_ports", "7400");
    const std::string publicAddress =
        error(UDP_SETUP, "KEL_LOG_ANY_FAILURE_s", {"ERROR: Out of resources for public_address. "});
    const std::string commPorts = error(UDP_SETUP, "KEL_LOG_CREATION_FAILURE_s", {"commPortsList"});
    struct Outcome {
        std::unique_ptr<UdpRecord> run;
        int result = 0;
        std::vector<std::string> lines;
    };
    std::set<std::string> seen;
    const auto summary = sweepAllocationFailures(
        [&] {
            LogCapture log;
            Outcome outcome;
            outcome.run = std::make_unique<UdpRecord>(VESK_TRANSPORT_UDPV4_WAN_PROPERTY_DEFAULT);
            outcome.result = setupWan(*outcome.run, properties);
            outcome.lines = describeAll(log);
            return outcome;
        },
        [&](const SweepStep &step, Outcome &outcome) {
            const Udp &record = outcome.run->record;
            if (!step.failed) {
                EXPECT_EQ(2, outcome.result);
                return;
            }
            EXPECT_EQ(-1, outcome.result);
            EXPECT_EQ(record.public_address != nullptr,
                      outcome.run->allocations._publicAddressAllocated != 0);
            EXPECT_EQ(nullptr, record.comm_ports_list);
            EXPECT_EQ(0, outcome.run->allocations._commPortsAllocated);
            if (outcome.lines == std::vector<std::string>{publicAddress}) {
                EXPECT_EQ(nullptr, record.public_address);
            } else if (outcome.lines == std::vector<std::string>{commPorts}) {
                EXPECT_STREQ("203.0.113.5", record.public_address);
            }
            seen.insert(outcome.lines.empty() ? "" : outcome.lines[0]);
        },
        [](Outcome &outcome) { outcome.run.reset(); });
    EXPECT_TRUE(summary.completed);
    const std::string threadName =
        error(PARENT_SETUP, "DDS_LOG_OUT_OF_RESOURCES_s", {"parent.thread_name_prefix"});
    EXPECT_EQ((std::set<std::string>{threadName, publicAddress, commPorts}), seen);
}

}  // namespace
