// The UDP setup: its thirty properties, keywords, validation, the WAN port
// table and the cleanup.

#include <gtest/gtest.h>

#include <cctype>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "support/SetupChecks.hpp"
#include "vesk_transport/Support.h"

namespace {

using namespace vesk::test;
using Flags = VESK_Transport_internalMemoryAllocations;
using Mapping = VESK_Transport_UDP_WAN_CommPortsMappingInfo;
using Lines = std::vector<std::string>;
using Outcome = std::pair<int, Lines>;  // a result and the log lines

template <typename... Line>
Outcome out(int result, const Line &...lines) {
    return {result, {std::string(lines)...}};
}

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
const UdpClass &WAN_CLASS = CLASSES[1];

Outcome setup(const UdpClass &udpClass, UdpRecord &run, const PropertyList &properties,
              const char *prefix = PREFIX) {
    LogCapture log;
    const int result =
        udpClass.wrapper != nullptr
            ? udpClass.wrapper(&run.record, &run.allocations, properties.get(), prefix)
            : VESK_Transport_setupUDPProperty(&run.record, &run.allocations, properties.get(),
                                              prefix, udpClass.classid);
    return {result, describeAll(log)};
}

VESK_Transport_UDP_WAN_Listener g_listener{};
const std::string LISTENER = renderPointer(&g_listener);

std::string parser(const std::string &suffix, const std::string &value) {
    return vesk::test::parser(UDP_SETUP, suffix, value);
}
std::string failedToParse(const std::string &suffix, const std::string &value) {
    return error(UDP_SETUP, "KEL_LOG_FAILED_TO_PARSE_TEMPLATE", {suffix + ": " + value}, "%s: %s");
}
std::string portRange(const std::string &value) {
    return error(UDP_SETUP, "KEL_LOG_FAILED_TO_PARSE_TEMPLATE",
                 {"comm_ports: " + value + " is out of valid port range (0-65535)"},
                 "%s: %s is out of valid port range (0-65535)");
}
std::string notJson(const std::string &value) {
    return error(PARSE_JSON, "KEL_LOG_ANY_FAILURE_ss", {"parse JSON string: ", value});
}

// The thirty properties in reading order: good value, its rendering, bad value.
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
    if (suffix == "binding_ping_mapping_expiration") {  // without the value
        return error(UDP_SETUP, "KEL_LOG_FAILED_TO_CONVERT_TEMPLATE",
                     {"'binding_ping_mapping_expiration' value"}, "'%s' value");
    }
    return parser(suffix, row.bad);
}

TEST(UdpSetup, EachGoodValueSetsItsFieldForEveryClass) {
    for (const UdpClass &udpClass : CLASSES) {
        SCOPED_TRACE(udpClass.classid);
        const Udp before = withDefaultThreadName(*udpClass.defaults);
        for (const Row &row : ROWS) {
            SCOPED_TRACE(row.suffix);
            UdpRecord run(*udpClass.defaults);
            EXPECT_EQ(Outcome(1, {}),
                      setup(udpClass, run,
                            PropertyList(std::string(row.suffix) + "=" + row.good, PREFIX)));
            EXPECT_EQ(with(render(before), goodChanges(row)), render(run.record));
            EXPECT_EQ(goodFlags(row), renderFlags(run.allocations));
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
            UdpRecord run(*udpClass.defaults);
            EXPECT_EQ(Outcome(-1, {badMessage(row)}), setup(udpClass, run, properties));
            const Udp before = withDefaultThreadName(*udpClass.defaults);
            Rendered expected = render(before);
            // A failed setup hands back no port list; its flag stays set.
            if (i > 0 && std::string(ROWS[i - 1].suffix) != "comm_ports") {
                expected = with(expected, goodChanges(ROWS[i - 1]));
            }
            // What a failed conversion leaves in its own field is open.
            const std::string own = goodChanges(row)[0].first;
            EXPECT_EQ(expected, with(render(run.record), {{own, field(before, own)}}));
            EXPECT_EQ(i > 0 ? goodFlags(ROWS[i - 1]) : "0,0,0,0,0,0", renderFlags(run.allocations));
        }
    }
}

TEST(UdpSetup, SocketBufferKeywordsIgnoreCaseAndTheIpVersion) {
    struct Keyword {
        const char *text;
        KEL_INT32 value;
        const char *accepted;  // by "s": send, "r": receive
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
            for (char &c : lower) c = static_cast<char>(std::tolower(c));
            for (size_t i = 0; i < mixed.size(); i += 2) mixed[i] = lower[i];
            for (const std::string &text : {std::string(keyword.text), lower, mixed}) {
                for (const char *suffix : {"send_socket_buffer_size", "recv_socket_buffer_size"}) {
                    SCOPED_TRACE(std::to_string(udpClass.classid) + " " + suffix + " = " + text);
                    PropertyList properties;
                    properties.add(PREFIX, suffix, text);
                    UdpRecord run(*udpClass.defaults);
                    const bool send = suffix[0] == 's';
                    // A keyword of the other direction is not one here.
                    if (std::strchr(keyword.accepted, suffix[0]) == nullptr) {
                        EXPECT_EQ(Outcome(-1, {failedToParse(suffix, text)}),
                                  setup(udpClass, run, properties));
                        continue;
                    }
                    EXPECT_EQ(Outcome(1, {}), setup(udpClass, run, properties));
                    EXPECT_EQ(keyword.value, send ? run.record.send_socket_buffer_size
                                                  : run.record.recv_socket_buffer_size);
                }
            }
        }
    }
}

TEST(UdpSetup, SendBlockingKeywordsAreExactAndSomeBelongToOneFamily) {
    const std::set<VESK_Transport_ClassId_t> ALL = {1, WAN, 2, 5, UNKNOWN_CLASS}, NONE = {};
    const std::vector<std::tuple<const char *, KEL_INT32, std::set<VESK_Transport_ClassId_t>>>
        keywords = {
            // text, stored value, the classes that accept it
            {"TRANSPORT_BLOCKING_ALWAYS", 1, ALL},
            {"VESK_TRANSPORT_UDP_BLOCKING_ALWAYS", 1, ALL},
            {"1", 1, ALL},
            {"TRANSPORT_BLOCKING_NEVER", 0, ALL},
            {"VESK_TRANSPORT_UDP_BLOCKING_NEVER", 0, ALL},
            {"0", 0, ALL},
            {"VESK_TRANSPORT_UDPV4_BLOCKING_ALWAYS", 1, {1, WAN}},
            {"VESK_TRANSPORT_UDPV4_BLOCKING_NEVER", 0, {1, WAN}},
            {"VESK_TRANSPORT_UDPV6_BLOCKING_ALWAYS", 1, {2}},
            {"VESK_TRANSPORT_UDPV6_BLOCKING_NEVER", 0, {2}},  // not for class id 5
            {"transport_blocking_always", 0, NONE},
            {"vesk_transport_udpv6_blocking_never", 0, NONE},
            {"VESK_TRANSPORT_UDPV4_BLOCKING_NEVER_", 0, NONE},
            {"false", 0, NONE},
            {"2", 0, NONE},
            {" 1", 0, NONE},
        };
    for (const UdpClass &udpClass : CLASSES) {
        for (const auto &[text, value, classes] : keywords) {
            SCOPED_TRACE(std::to_string(udpClass.classid) + " send_blocking = '" + text + "'");
            const bool accepted = classes.count(udpClass.classid) != 0;
            for (KEL_INT32 before : {0, 1}) {  // so that every accepted keyword shows
                UdpRecord run(*udpClass.defaults);
                run.record.send_blocking = before;
                EXPECT_EQ(accepted ? Outcome(1, {}) : Outcome(-1, {parser("send_blocking", text)}),
                          setup(udpClass, run,
                                PropertyList{{std::string(PREFIX) + ".send_blocking", text}}));
                EXPECT_EQ(accepted ? value : before, run.record.send_blocking);
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
        Outcome outcome;
        KEL_INT32 sendBlocking;  // after the setup (every default is 1)
    };
    const std::set<VESK_Transport_ClassId_t> V = {1, WAN, 2, 5};  // validated
    const std::set<VESK_Transport_ClassId_t> ALL = {1, WAN, 2, 5, UNKNOWN_CLASS};
    const std::set<VESK_Transport_ClassId_t> FIVE = {5}, UNKNOWN = {UNKNOWN_CLASS};
    const std::string I = inconsistent(UDP_SETUP, ""), A = "dds.property_validation_action=";
    const std::string P = std::string(PREFIX) + ".", BAD = "send_blockin=0;send_blocking=0";
    const std::string MAYBE =
        error("DDS_PropertyQosPolicy_parse_property_validation_action", "KEL_LOG_PARSER_FAILURE_ss",
              {"dds.property_validation_action", "MAYBE"});
    const std::string RANGE = error(PARENT_SETUP, "KEL_LOG_PARSER_VALUE_OUT_OF_RANGE_ss",
                                    {"parent.address_bit_count", "[-128, 128]"});
    const std::vector<Case> cases = {
        {ALL, nullptr, "send_blocking=0;parent.message_size_max=1400", out(2), 0},
        {V, nullptr, BAD, out(-1, unknown("send_blockin"), I), 1},
        {V, nullptr, BAD + ";" + A + "EXCEPTION", out(-1, unknown("send_blockin"), I), 1},
        {V, nullptr, BAD + ";" + A + "WARNING", out(1, unknown("send_blockin", KEL_LOG_BIT_WARN)),
         0},
        {ALL, nullptr, BAD + ";" + A + "SKIP", out(1), 0},
        // Validation comes before the first UDP property is read.
        {V, nullptr, "bogus=1;send_socket_buffer_size=big", out(-1, unknown("bogus"), I), 1},
        // "prefix" sets the validation prefix only: names outside it are not
        // validated, names are still read bare; an empty one validates all.
        {V, nullptr, "prefix=my;my.bogus=1;send_blocking=0",
         out(-1, unknown("my.bogus"), inconsistent(UDP_SETUP, "my")), 1},
        {ALL, nullptr, "prefix=my;my.send_blocking=0;bogus=1", out(1), 1},
        {V, nullptr, "prefix=;send_blocking=0;bogus=1", out(-1, unknown("bogus"), I), 1},
        {UNKNOWN, nullptr, "prefix=;bogus=1;send_blocking=0", out(2), 0},
        // Class id 5 is validated like UDPv6 but knows no UDPv6 keyword.
        {FIVE, nullptr, "send_blocking=VESK_TRANSPORT_UDPV6_BLOCKING_NEVER",
         out(-1, parser("send_blocking", "VESK_TRANSPORT_UDPV6_BLOCKING_NEVER")), 1},
        {ALL, nullptr, A + "MAYBE;send_blocking=0",
         out(-1, MAYBE,
             error(UDP_SETUP, "KEL_LOG_PARSER_FAILURE_s", {"property_validation_action"})),
         1},
        // With a prefix nothing is validated, neither "prefix" is read, and
        // the action is ignored.
        {ALL, PREFIX,
         "prefix=x;" + P + "prefix=y;" + P + "misspelt=1;" + P + "send_blocking=0;" + A + "garbage",
         out(1), 0},
        // A failed generic part is reported as such, before any UDP property.
        {ALL, PREFIX, P + "parent.address_bit_count=200;" + P + "send_blocking=0",
         out(-1, RANGE, error(UDP_SETUP, "KEL_LOG_PARSER_FAILURE_s", {"parent properties"})), 1},
    };
    for (const UdpClass &udpClass : CLASSES) {
        for (const Case &c : cases) {
            if (!c.classids.count(udpClass.classid)) continue;
            SCOPED_TRACE(std::to_string(udpClass.classid) + ": " + c.properties);
            UdpRecord run(*udpClass.defaults);
            EXPECT_EQ(c.outcome, setup(udpClass, run, PropertyList(c.properties), c.prefix));
            EXPECT_EQ(c.sendBlocking, run.record.send_blocking);
        }
        // Only the WAN class's own list accepts the WAN names.
        if (udpClass.classid == UNKNOWN_CLASS) continue;
        for (const char *suffix :
             {"public_address", "comm_ports", "wan_listener_ptr", "port_offset",
              "binding_ping_period", "binding_ping_mapping_expiration"}) {
            SCOPED_TRACE(suffix);
            UdpRecord run(*udpClass.defaults);
            EXPECT_EQ(udpClass.classid == WAN
                          ? Outcome(1, {})
                          : Outcome(-1, {unknown(suffix), inconsistent(UDP_SETUP, "")}),
                      setup(udpClass, run, PropertyList{{suffix, "0"}}, nullptr));
        }
    }
}

// A member is released only when flagged, then nulled, and any thread-name
// prefix; the flags stay, so a second cleanup must not release twice. The
// listener is the application's. (The factories run the class wrappers.)
TEST(UdpSetup, CleanupReleasesOnlyFlaggedMembers) {
    VESK_Transport_cleanupUDPProperty(nullptr, nullptr);
    VESK_Transport_cleanupParentTransportProperty(nullptr, nullptr);
    char *foreign[] = {const_cast<char *>("lo")};
    Udp record = VESK_TRANSPORT_UDPV4_WAN_PROPERTY_DEFAULT;
    Flags flags{};
    record.parent.allow_interfaces_list = foreign;
    record.parent.allow_interfaces_list_length = 1;
    record.parent.deny_multicast_interfaces_list = foreign;
    record.parent.thread_name_prefix = DDS_String_dup("mine");
    record.public_address = DDS_String_dup("198.51.100.1");
    ASSERT_TRUE(KELOsapiHeap_allocateArray(&record.comm_ports_list, 2, Mapping));
    record.comm_ports_list_length = 2;
    record.wan_listener = &g_listener;
    const Rendered before = with(render(record), {{"thread_name_prefix", "null"}});
    VESK_Transport_cleanupUDPProperty(&record, &flags);
    EXPECT_EQ(before, render(record));
    flags._publicAddressAllocated = 1;
    flags._commPortsAllocated = 1;
    VESK_Transport_cleanupUDPProperty(&record, &flags);
    EXPECT_EQ(with(before, {{"public_address", "null"},
                            {"comm_ports_list", "null"},
                            {"comm_ports_list_length", "0"}}),
              render(record));
    EXPECT_EQ("0,0,0,0,1,1", renderFlags(flags));
    VESK_Transport_cleanupUDPProperty(&record, &flags);
}

// The WAN properties: "comm_ports" (a port or a JSON document) and the rest.

const char *const EXAMPLE =
    R"({"default": {"host": 7400, "public": 17400},
        "mappings": [{"rtps": 7410, "host": 7410, "public": 17410},
                     {"rtps": 7411, "host": 7500}]})";
const char *const EXAMPLE_TABLE = "[{0,7400,17400},{7410,7410,17410},{7411,7500,7500}]";
Mapping g_sentinel[1] = {{1, 2, 3, 4}};

// The caller's list and length; a parsed table is released at the end.
struct Table {
    Mapping *list = g_sentinel;
    KEL_INT32 length = 77;
    ~Table() {
        if (list != g_sentinel && list != nullptr) KELOsapiHeap_freeArray(list);
    }
};

TEST(CommPortsJson, EachNullArgumentIsAPreconditionFailure) {
    const std::vector<std::pair<const char *, const char *>> cases = {
        // null: list, length, text
        {"100", "commPortsListOut == ((void *)0)"},
        {"010", "commPortsListLengthOut == ((void *)0)"},
        {"001", "jsonCommPorts == ((void *)0)"},
        {"111", "commPortsListOut == ((void *)0)"},
        {"011", "commPortsListLengthOut == ((void *)0)"},
    };
    for (const auto &[nulls, condition] : cases) {
        SCOPED_TRACE(condition);
        PreconditionWatch watch;
        Table table;
        EXPECT_EQ(
            0, VESK_Transport_CommPortsHelper_parseJson(nulls[0] == '1' ? nullptr : &table.list,
                                                        nulls[1] == '1' ? nullptr : &table.length,
                                                        nulls[2] == '1' ? nullptr : EXAMPLE));
        watch.expectOne(PARSE_JSON, condition);
        EXPECT_EQ(g_sentinel, table.list);
        EXPECT_EQ(77, table.length);
    }
}

// A document: entry 0 from "default", then the mappings in order; low
// bits, no range test; duplicates kept. A bad one: 0 and its messages, no
// list handed out, nothing left allocated, the length counting the entries
// stored.
TEST(CommPortsJson, DocumentsBecomeTablesOrFailWithTheirMessages) {
    struct Case {
        std::string json, table;  // for a failure: the count of entries stored
        Outcome outcome;
    };
    const auto get = [](const char *what) {
        return error("VESK_Transport_CommPortsHelper_parseJsonMappingNode", "KEL_LOG_GET_FAILURE_s",
                     {what});
    };
    const std::string noDefault =
        error(PARSE_JSON, "KEL_LOG_GET_FAILURE_s", {"default comm_ports"});
    const std::string badDefault =
        error(PARSE_JSON, "KEL_LOG_ANY_FAILURE_s", {"parse default node"});
    const std::string ELEMENT = "";  // a failed "mappings" element: the wording is ours
    const std::vector<Case> cases = {
        {EXAMPLE, EXAMPLE_TABLE, out(1)},
        {R"({"default": {}})", "[{0,0,0}]", out(1)},
        {R"({"default": {"host": 7400}, "mappings": []})", "[{0,7400,7400}]", out(1)},
        {R"({"x": 1, "default": {"rtps": 5, "host": 6, "other": "z"}, "y": [1]})", "[{5,6,6}]",
         out(1)},
        {R"({"default": {"host": 5, "public": 0}})", "[{0,5,0}]", out(1)},  // 0 is not absent
        {R"({"default": {"public": 9}})", "[{0,0,9}]", out(1)},
        {R"({"default": {"host": 65536, "public": -1}})", "[{0,0,65535}]", out(1)},
        {R"({"default": {"host": 70000}})", "[{0,4464,4464}]", out(1)},
        {R"({"default": {"rtps": -1}})", "[{4294967295,0,0}]", out(1)},
        {R"({"default": {"rtps": 4294967296}})", "[{0,0,0}]", out(1)},
        {R"({"default": {}, "mappings": [{"rtps": 1}, {"rtps": 1}, {"rtps": 1}]})",
         "[{0,0,0},{1,0,0},{1,0,0},{1,0,0}]", out(1)},
        {"{bad", "0", out(0, notJson("{bad"))},
        {"", "0", out(0, notJson(""))},
        {R"({"mappings": [{"rtps": 1, "host": 2}]})", "0", out(0, noDefault)},
        {R"({"default": {"rtps": "x"}})", "0", out(0, get("rtps node value"), badDefault)},
        {R"({"default": {"host": "7400"}})", "0", out(0, get("host node value"), badDefault)},
        {R"({"default": {"host": 1.5}})", "0", out(0, get("host node value"), badDefault)},
        {R"({"default": {"host": 1, "public": true}})", "0",
         out(0, get("public node value"), badDefault)},
        {R"({"default": {}, "mappings": [{"rtps": 1}, {"host": "x"}]})", "2",
         out(0, get("host node value"), ELEMENT)},
        {R"({"default": {}, "mappings": [{"public": null}, {}]})", "1",
         out(0, get("public node value"), ELEMENT)},
    };
    const std::string element = error(PARSE_JSON, "KEL_LOG_ANY_FAILURE_s", {""});
    for (const Case &c : cases) {
        SCOPED_TRACE(c.json);
        const KEL_UINT64 blocks = liveHeapBlocks();
        Table table;
        LogCapture log;
        const int result =
            VESK_Transport_CommPortsHelper_parseJson(&table.list, &table.length, c.json.c_str());
        Outcome outcome(result, describeAll(log));
        Lines &lines = outcome.second;
        if (lines.size() == 2 && c.outcome.second[1].empty() && lines[1].size() > element.size() &&
            lines[1].rfind(element.substr(0, element.size() - 1), 0) == 0) {
            lines[1] = "";
        }
        EXPECT_EQ(c.outcome, outcome);
        if (c.outcome.first == 1) {
            EXPECT_EQ(c.table, renderList(table.list, table.length));
            EXPECT_STREQ("struct VESK_Transport_UDP_WAN_CommPortsMappingInfo",
                         KELOsapiHeap_getBlockTypeName(table.list));
            EXPECT_EQ(VESK_TRANSPORT_HEAP_TAG, KELOsapiHeap_getBlockTag(table.list));
        } else {
            EXPECT_EQ(g_sentinel, table.list);
            EXPECT_EQ(c.table, std::to_string(table.length));
            EXPECT_EQ(blocks, liveHeapBlocks());
        }
    }
}

// Each refused allocation: 0, the caller's list untouched, one message.
TEST(CommPortsJson, EveryAllocationFailureLeavesNothing) {
    const std::string creation = error(PARSE_JSON, "KEL_LOG_CREATION_FAILURE_s", {"commPortsList"});
    const auto sweep = sweepSetup<Table>(
        [](Table &table) {
            return VESK_Transport_CommPortsHelper_parseJson(&table.list, &table.length, EXAMPLE);
        },
        [](bool failed, const Table &table, int result, const Lines &lines) {
            EXPECT_EQ(failed ? 0 : 1, result);
            EXPECT_EQ(failed ? "null" : EXAMPLE_TABLE,
                      renderList(table.list == g_sentinel ? nullptr : table.list, table.length));
            EXPECT_EQ(failed ? 1u : 0u, lines.size());
        });
    EXPECT_TRUE(sweep.lastLines.count(creation));
    for (const std::string &line : sweep.lastLines) {
        EXPECT_TRUE(line == creation || line == notJson(EXAMPLE)) << line;
    }
}

// A good value sets its members (copies on the module's heap); a bad port
// table fails before "port_offset" is read and leaves no table.
TEST(WanProperties, ValuesBecomeTheRecordsMembersOrFail) {
    const auto parseFailed = [](const std::string &value) { return parser("comm_ports", value); };
    const std::vector<std::tuple<const char *, std::string, Outcome, std::string>> cases = {
        // suffix, value, outcome, the fields that change
        {"comm_ports", "0", out(2), "comm_ports_list=[{0,0,0}];comm_ports_list_length=1"},
        {"comm_ports", "65535", out(2),
         "comm_ports_list=[{65535,65535,65535}];comm_ports_list_length=1"},
        {"comm_ports", EXAMPLE, out(2),
         std::string("comm_ports_list=") + EXAMPLE_TABLE + ";comm_ports_list_length=3"},
        {"public_address", "", out(2), "public_address=\"\""},
        {"public_address", "not an address", out(2), "public_address=\"not an address\""},
        {"wan_listener_ptr", "0", out(2), ""},
        {"comm_ports", "-1", out(-1, portRange("-1")), ""},
        {"comm_ports",
         "{\"default\": ", out(-1, notJson("{\"default\": "), parseFailed("{\"default\": ")), ""},
        {"comm_ports", "port 7400", out(-1, notJson("port 7400"), parseFailed("port 7400")), ""},
    };
    for (const auto &[suffix, value, outcome, changed] : cases) {
        SCOPED_TRACE(value);
        PropertyList properties;
        properties.add(PREFIX, suffix, value).add(PREFIX, "port_offset", "5");
        UdpRecord run;
        EXPECT_EQ(outcome, setup(WAN_CLASS, run, properties));
        Rendered expected = pairs(changed);
        if (outcome.first > 0) expected.emplace_back("port_offset", "5");
        EXPECT_EQ(expected, changes(withDefaultThreadName(*WAN_CLASS.defaults), run.record));
        if (run.record.comm_ports_list != nullptr) {
            EXPECT_STREQ("struct VESK_Transport_UDP_WAN_CommPortsMappingInfo",
                         KELOsapiHeap_getBlockTypeName(run.record.comm_ports_list));
            EXPECT_EQ(VESK_TRANSPORT_HEAP_TAG,
                      KELOsapiHeap_getBlockTag(run.record.comm_ports_list));
        }
        EXPECT_NE(properties.get()->value._contiguous_buffer[0].value, run.record.public_address);
        EXPECT_EQ(outcome.first > 0 && suffix[0] == 'p'   ? "0,0,0,0,1,0"
                  : outcome.first > 0 && suffix[0] == 'c' ? "0,0,0,0,0,1"
                                                          : "0,0,0,0,0,0",
                  renderFlags(run.allocations));
    }
}

// The copies fail in turn: the default thread-name prefix, the public
// address and the single-port table each have their own message, and
// nothing is flagged that is not held.
TEST(WanProperties, EveryAllocationFailureIsReportedAndReleased) {
    PropertyList properties("public_address=203.0.113.5;comm_ports=7400", PREFIX);
    const std::string publicAddress =
        error(UDP_SETUP, "KEL_LOG_ANY_FAILURE_s", {"ERROR: Out of resources for public_address. "});
    const std::string commPorts = error(UDP_SETUP, "KEL_LOG_CREATION_FAILURE_s", {"commPortsList"});
    const std::string threadName =
        error(PARENT_SETUP, "DDS_LOG_OUT_OF_RESOURCES_s", {"parent.thread_name_prefix"});
    const std::string parent = error(UDP_SETUP, "KEL_LOG_PARSER_FAILURE_s", {"parent properties"});
    const auto sweep = sweepSetup<UdpRecord>(
        [&](UdpRecord &run) {
            return VESK_Transport_setupUDPv4WanProperty(&run.record, &run.allocations,
                                                        properties.get(), PREFIX);
        },
        [&](bool failed, const UdpRecord &run, int result, const Lines &lines) {
            EXPECT_EQ(failed ? -1 : 2, result);
            EXPECT_EQ(failed, !lines.empty());
            if (lines.size() > 1) {
                EXPECT_EQ((Lines{threadName, parent}), lines);
            }
            EXPECT_EQ(run.record.public_address != nullptr,
                      run.allocations._publicAddressAllocated != 0);
            EXPECT_EQ(failed ? "null" : "[{7400,7400,7400}]", field(run.record, "comm_ports_list"));
            EXPECT_EQ(!failed, run.allocations._commPortsAllocated != 0);
            if (lines == Lines{commPorts}) {
                EXPECT_STREQ("203.0.113.5", run.record.public_address);
            }
        });
    EXPECT_EQ((std::set<std::string>{parent, publicAddress, commPorts}), sweep.lastLines);
}

}  // namespace
