// The WAN properties: the "comm_ports" table in its single-port and JSON
// forms, the public address, and what a later failure releases.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <set>
#include <string>
#include <vector>

#include "support/AllocationSweep.hpp"
#include "support/PropertyList.hpp"
#include "support/SetupChecks.hpp"
#include "support/TestSupport.hpp"
#include "vesk_transport/Support.h"

namespace {

using vesk::test::describe;
using vesk::test::describeAll;
using vesk::test::liveHeapBlocks;
using vesk::test::LogCapture;
using vesk::test::message;
using vesk::test::PARSE_JSON;
using vesk::test::PARSE_JSON_MAPPING_NODE;
using vesk::test::PropertyList;
using vesk::test::renderCommPorts;
using vesk::test::renderFlags;
using vesk::test::sweepAllocationFailures;
using vesk::test::SweepStep;
using vesk::test::UDP_SETUP;
using vesk::test::UdpRecord;

using Mapping = VESK_Transport_UDP_WAN_CommPortsMappingInfo;

constexpr const char *PREFIX = "dds.transport.wan_plugin.wan";
constexpr KEL_UINT32 ERROR = KEL_LOG_BIT_ERROR;
constexpr VESK_Transport_ClassId_t WAN = 0x01000001;
constexpr const char *MAPPING_TYPE = "struct VESK_Transport_UDP_WAN_CommPortsMappingInfo";

const char *const EXAMPLE =
    R"({"default": {"host": 7400, "public": 17400},
        "mappings": [{"rtps": 7410, "host": 7410, "public": 17410},
                     {"rtps": 7411, "host": 7500}]})";

Mapping g_sentinel[1] = {{1, 2, 3, 4}};

// ---------------------------------------------------------------------------
// The JSON document
// ---------------------------------------------------------------------------

TEST(CommPortsJson, EachNullArgumentIsAPreconditionFailure) {
    struct Case {
        bool nullList, nullLength, nullText;
        const char *condition;
    };
    const std::vector<Case> cases = {
        {true, false, false, "\"commPortsListOut == ((void *)0)\""},
        {false, true, false, "\"commPortsListLengthOut == ((void *)0)\""},
        {false, false, true, "\"jsonCommPorts == ((void *)0)\""},
        {true, true, true, "\"commPortsListOut == ((void *)0)\""},
        {false, true, true, "\"commPortsListLengthOut == ((void *)0)\""},
    };
    const int detect = KELLog_g_detectPrecondition;
    const int detected = KELLog_g_preconditionDetected;
    for (const Case &c : cases) {
        SCOPED_TRACE(c.condition);
        KELLog_g_detectPrecondition = 1;
        KELLog_g_preconditionDetected = 0;
        const KEL_UINT64 breakpoints = KELLog_getAssertBreakpointCount();
        LogCapture log;
        Mapping *list = g_sentinel;
        KEL_INT32 length = 77;
        EXPECT_EQ(0, VESK_Transport_CommPortsHelper_parseJson(c.nullList ? nullptr : &list,
                                                              c.nullLength ? nullptr : &length,
                                                              c.nullText ? nullptr : EXAMPLE));
        EXPECT_EQ(
            (std::vector<std::string>{message(KEL_LOG_BIT_EXCEPTION, PARSE_JSON,
                                              "KEL_LOG_PRECONDITION_FAILURE_s", {c.condition})}),
            describeAll(log));
        EXPECT_EQ(g_sentinel, list);
        EXPECT_EQ(77, length);
        EXPECT_EQ(1, KELLog_g_preconditionDetected);
        EXPECT_EQ(breakpoints + 1, KELLog_getAssertBreakpointCount());
    }
    KELLog_g_detectPrecondition = detect;
    KELLog_g_preconditionDetected = detected;
}

TEST(CommPortsJson, DocumentsBecomeTables) {
    struct Case {
        const char *name;
        const char *json;
        const char *expected;  // {rtps,host,public} per entry
    };
    const std::vector<Case> cases = {
        {"entry 0 from default, then mappings in order", EXAMPLE,
         "[{0,7400,17400},{7410,7410,17410},{7411,7500,7500}]"},
        {"empty default", R"({"default": {}})", "[{0,0,0}]"},
        {"empty mappings", R"({"default": {"host": 7400}, "mappings": []})", "[{0,7400,7400}]"},
        {"other members are ignored",
         R"({"x": 1, "default": {"rtps": 5, "host": 6, "other": "z"}, "y": [1]})", "[{5,6,6}]"},
        {"public 0 is not absent", R"({"default": {"host": 5, "public": 0}})", "[{0,5,0}]"},
        {"public without host", R"({"default": {"public": 9}})", "[{0,0,9}]"},
        // Low bits, no range test.
        {"host 65536 and public -1", R"({"default": {"host": 65536, "public": -1}})",
         "[{0,0,65535}]"},
        {"host 70000", R"({"default": {"host": 70000}})", "[{0,4464,4464}]"},
        {"rtps -1", R"({"default": {"rtps": -1}})", "[{4294967295,0,0}]"},
        {"rtps 2^32", R"({"default": {"rtps": 4294967296}})", "[{0,0,0}]"},
        {"duplicates are kept",
         R"({"default": {}, "mappings": [{"rtps": 1}, {"rtps": 1}, {"rtps": 1}]})",
         "[{0,0,0},{1,0,0},{1,0,0},{1,0,0}]"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        LogCapture log;
        Mapping *list = nullptr;
        KEL_INT32 length = 77;
        EXPECT_EQ(1, VESK_Transport_CommPortsHelper_parseJson(&list, &length, c.json));
        ASSERT_NE(nullptr, list);
        EXPECT_EQ(c.expected, renderCommPorts(list, length));
        EXPECT_STREQ(MAPPING_TYPE, KELOsapiHeap_getBlockTypeName(list));
        EXPECT_EQ(VESK_TRANSPORT_HEAP_TAG, KELOsapiHeap_getBlockTag(list));
        EXPECT_TRUE(log.entries().empty());
        KELOsapiHeap_freeArray(list);
    }
}

TEST(CommPortsJson, BadDocumentsFailWithTheirMessagesAndLeaveNothing) {
    struct Case {
        const char *name;
        std::string json;
        std::vector<std::string> messages;  // "" for an entry whose argument is ours to choose
        KEL_INT32 length;                   // the count of stored entries
    };
    const auto get = [](const char *function, const char *what) {
        return message(ERROR, function, "KEL_LOG_GET_FAILURE_s", {what});
    };
    const std::string parseDefault =
        message(ERROR, PARSE_JSON, "KEL_LOG_ANY_FAILURE_s", {"parse default node"});
    const std::vector<Case> cases = {
        {"not JSON",
         "{bad",
         {message(ERROR, PARSE_JSON, "KEL_LOG_ANY_FAILURE_ss", {"parse JSON string: ", "{bad"})},
         0},
        {"empty text",
         "",
         {message(ERROR, PARSE_JSON, "KEL_LOG_ANY_FAILURE_ss", {"parse JSON string: ", ""})},
         0},
        {"no default",
         R"({"mappings": [{"rtps": 1, "host": 2}]})",
         {get(PARSE_JSON, "default comm_ports")},
         0},
        {"default rtps not an integer",
         R"({"default": {"rtps": "x"}})",
         {get(PARSE_JSON_MAPPING_NODE, "rtps node value"), parseDefault},
         0},
        {"default host a string",
         R"({"default": {"host": "7400"}})",
         {get(PARSE_JSON_MAPPING_NODE, "host node value"), parseDefault},
         0},
        {"default host a fraction",
         R"({"default": {"host": 1.5}})",
         {get(PARSE_JSON_MAPPING_NODE, "host node value"), parseDefault},
         0},
        {"default public a boolean",
         R"({"default": {"host": 1, "public": true}})",
         {get(PARSE_JSON_MAPPING_NODE, "public node value"), parseDefault},
         0},
        {"the last mapping fails",
         R"({"default": {}, "mappings": [{"rtps": 1}, {"host": "x"}]})",
         {get(PARSE_JSON_MAPPING_NODE, "host node value"), ""},
         2},
        {"the first mapping fails",
         R"({"default": {}, "mappings": [{"public": null}, {}]})",
         {get(PARSE_JSON_MAPPING_NODE, "public node value"), ""},
         1},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
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
                continue;
            }
            // A failed "mappings" element: our wording, the same template.
            EXPECT_EQ(ERROR, entries[i].level);
            EXPECT_EQ(PARSE_JSON, entries[i].function);
            EXPECT_EQ("KEL_LOG_ANY_FAILURE_s", entries[i].template_name);
            ASSERT_EQ(1u, entries[i].params.size());
            EXPECT_FALSE(entries[i].params[0].empty());
        }
    }
}

// The one sweep of the parser: each refused allocation gives 0, leaves the
// caller's list alone and logs exactly one of its two messages.
TEST(CommPortsJson, EveryAllocationFailureLeavesNothing) {
    const std::string creation =
        message(ERROR, PARSE_JSON, "KEL_LOG_CREATION_FAILURE_s", {"commPortsList"});
    const std::string parse =
        message(ERROR, PARSE_JSON, "KEL_LOG_ANY_FAILURE_ss", {"parse JSON string: ", EXAMPLE});
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
                EXPECT_EQ("[{0,7400,17400},{7410,7410,17410},{7411,7500,7500}]",
                          renderCommPorts(outcome.list, outcome.length));
                EXPECT_TRUE(outcome.lines.empty());
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

// ---------------------------------------------------------------------------
// "comm_ports" and "public_address" in the UDP setup
// ---------------------------------------------------------------------------

int setupWan(UdpRecord &run, const PropertyList &properties) {
    return VESK_Transport_setupUDPv4WanProperty(&run.record, &run.allocations, properties.get(),
                                                PREFIX);
}

TEST(CommPortsProperty, ASinglePortMapsAllThreePorts) {
    for (const char *value : {"7400", "0", "65535"}) {
        SCOPED_TRACE(value);
        PropertyList properties;
        properties.add(PREFIX, "comm_ports", value);
        LogCapture log;
        UdpRecord run(VESK_TRANSPORT_UDPV4_WAN_PROPERTY_DEFAULT);
        EXPECT_EQ(1, setupWan(run, properties));
        const std::string port = value;
        EXPECT_EQ("[{" + port + "," + port + "," + port + "}]",
                  renderCommPorts(run.record.comm_ports_list, run.record.comm_ports_list_length));
        EXPECT_EQ(1, run.record.comm_ports_list_length);
        EXPECT_STREQ(MAPPING_TYPE, KELOsapiHeap_getBlockTypeName(run.record.comm_ports_list));
        EXPECT_EQ(VESK_TRANSPORT_HEAP_TAG, KELOsapiHeap_getBlockTag(run.record.comm_ports_list));
        EXPECT_EQ("0,0,0,0,0,1", renderFlags(run.allocations));
        EXPECT_TRUE(log.entries().empty());
    }
}

TEST(CommPortsProperty, ADocumentBecomesTheTable) {
    PropertyList properties;
    properties.add(PREFIX, "comm_ports", EXAMPLE);
    UdpRecord run(VESK_TRANSPORT_UDPV4_WAN_PROPERTY_DEFAULT);
    EXPECT_EQ(1, setupWan(run, properties));
    EXPECT_EQ("[{0,7400,17400},{7410,7410,17410},{7411,7500,7500}]",
              renderCommPorts(run.record.comm_ports_list, run.record.comm_ports_list_length));
    EXPECT_EQ("0,0,0,0,0,1", renderFlags(run.allocations));
}

TEST(CommPortsProperty, BadValuesFailAndLeaveNoTable) {
    struct Case {
        std::string value;
        std::vector<std::string> messages;
    };
    const auto range = [](const std::string &value) {
        return message(ERROR, UDP_SETUP, "KEL_LOG_FAILED_TO_PARSE_TEMPLATE",
                       {"comm_ports: " + value + " is out of valid port range (0-65535)"},
                       "%s: %s is out of valid port range (0-65535)");
    };
    const auto parser = [](const std::string &value) {
        return message(ERROR, UDP_SETUP, "KEL_LOG_PARSER_FAILURE_ss", {"comm_ports", value});
    };
    const auto notJson = [](const std::string &value) {
        return message(ERROR, PARSE_JSON, "KEL_LOG_ANY_FAILURE_ss", {"parse JSON string: ", value});
    };
    const std::vector<Case> cases = {
        {"65536", {range("65536")}},
        {"-1", {range("-1")}},
        {"100000", {range("100000")}},
        {"{\"default\": ", {notJson("{\"default\": "), parser("{\"default\": ")}},
        {"port 7400", {notJson("port 7400"), parser("port 7400")}},
        {"{}",
         {message(ERROR, PARSE_JSON, "KEL_LOG_GET_FAILURE_s", {"default comm_ports"}),
          parser("{}")}},
        {R"({"default": {"host": "x"}})",
         {message(ERROR, PARSE_JSON_MAPPING_NODE, "KEL_LOG_GET_FAILURE_s", {"host node value"}),
          message(ERROR, PARSE_JSON, "KEL_LOG_ANY_FAILURE_s", {"parse default node"}),
          parser(R"({"default": {"host": "x"}})")}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.value);
        PropertyList properties;
        properties.add(PREFIX, "comm_ports", c.value).add(PREFIX, "port_offset", "5");
        LogCapture log;
        UdpRecord run(VESK_TRANSPORT_UDPV4_WAN_PROPERTY_DEFAULT);
        EXPECT_EQ(-1, setupWan(run, properties));
        EXPECT_EQ(c.messages, describeAll(log));
        EXPECT_EQ(nullptr, run.record.comm_ports_list);
        EXPECT_EQ(0, run.record.comm_ports_list_length);
        EXPECT_EQ("0,0,0,0,0,0", renderFlags(run.allocations));
        EXPECT_EQ(125, run.record.port_offset);  // not read
    }
}

// Any failure after a good "comm_ports" releases the table at once: null,
// length 0, the flag still set.
TEST(CommPortsProperty, ALaterFailureReleasesTheTableButKeepsTheFlag) {
    struct Later {
        const char *suffix;
        const char *value;
        std::string message;
    };
    const auto parser = [](const char *suffix, const char *value) {
        return message(ERROR, UDP_SETUP, "KEL_LOG_PARSER_FAILURE_ss", {suffix, value});
    };
    const std::vector<Later> later = {
        {"wan_listener_ptr", "me", parser("wan_listener_ptr", "me")},
        {"join_multicast_group_timeout", "soon", parser("join_multicast_group_timeout", "soon")},
        {"port_offset", "x", parser("port_offset", "x")},
        {"binding_ping_period", "often", parser("binding_ping_period", "often")},
        {"binding_ping_mapping_expiration", "never",
         message(ERROR, UDP_SETUP, "KEL_LOG_FAILED_TO_CONVERT_TEMPLATE",
                 {"'binding_ping_mapping_expiration' value"}, "'%s' value")},
        {"gather_detailed_statistics", "all", parser("gather_detailed_statistics", "all")},
    };
    for (const char *commPorts : {"7400", EXAMPLE}) {
        SCOPED_TRACE(commPorts);
        for (const Later &bad : later) {
            SCOPED_TRACE(bad.suffix);
            PropertyList properties;
            properties.add(PREFIX, "comm_ports", commPorts).add(PREFIX, bad.suffix, bad.value);
            LogCapture log;
            UdpRecord run(VESK_TRANSPORT_UDPV4_WAN_PROPERTY_DEFAULT);
            EXPECT_EQ(-1, setupWan(run, properties));
            EXPECT_EQ(std::vector<std::string>{bad.message}, describeAll(log));
            EXPECT_EQ(nullptr, run.record.comm_ports_list);
            EXPECT_EQ(0, run.record.comm_ports_list_length);
            EXPECT_EQ(1, run.allocations._commPortsAllocated);
        }
    }
}

TEST(PublicAddressProperty, AnyTextIsCopiedCountedAndFlagged) {
    for (const char *value : {"203.0.113.5", "", "not an address", "2001:db8::1"}) {
        SCOPED_TRACE(value);
        PropertyList properties;
        properties.add(PREFIX, "public_address", value);
        UdpRecord run(VESK_TRANSPORT_UDPV4_WAN_PROPERTY_DEFAULT);
        EXPECT_EQ(1, setupWan(run, properties));
        ASSERT_NE(nullptr, run.record.public_address);
        EXPECT_STREQ(value, run.record.public_address);
        EXPECT_NE(properties.get()->value._contiguous_buffer[0].value, run.record.public_address);
        EXPECT_EQ("0,0,0,0,1,0", renderFlags(run.allocations));
    }
}

TEST(PublicAddressProperty, ALaterFailureLeavesTheAddressForTheCleanup) {
    PropertyList properties;
    properties.add(PREFIX, "public_address", "203.0.113.5").add(PREFIX, "port_offset", "far");
    LogCapture log;
    UdpRecord run(VESK_TRANSPORT_UDPV4_WAN_PROPERTY_DEFAULT);
    EXPECT_EQ(-1, setupWan(run, properties));
    EXPECT_EQ((std::vector<std::string>{
                  message(ERROR, UDP_SETUP, "KEL_LOG_PARSER_FAILURE_ss", {"port_offset", "far"})}),
              describeAll(log));
    EXPECT_STREQ("203.0.113.5", run.record.public_address);
    EXPECT_EQ("0,0,0,0,1,0", renderFlags(run.allocations));
    VESK_Transport_cleanupUDPv4WanProperty(&run.record, &run.allocations);
    EXPECT_EQ(nullptr, run.record.public_address);
}

TEST(WanListenerProperty, ThePointerIsStoredAndNeverReleased) {
    static VESK_Transport_UDP_WAN_Listener listener{};
    char text[32];
    std::snprintf(text, sizeof text, "0x%llx",
                  static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(&listener)));
    for (const std::string &value : {std::string(text), std::string("0")}) {
        SCOPED_TRACE(value);
        PropertyList properties;
        properties.add(PREFIX, "wan_listener_ptr", value);
        UdpRecord run(VESK_TRANSPORT_UDPV4_WAN_PROPERTY_DEFAULT);
        EXPECT_EQ(1, setupWan(run, properties));
        EXPECT_EQ(value == "0" ? nullptr : &listener, run.record.wan_listener);
        VESK_Transport_cleanupUDPv4WanProperty(&run.record, &run.allocations);
        EXPECT_EQ(value == "0" ? nullptr : &listener, run.record.wan_listener);
    }
}

// The copies of the WAN properties fail in turn: the public address and
// the single-port table each have their own message, and nothing is
// flagged that is not held.
TEST(WanProperties, EveryAllocationFailureIsReportedAndReleased) {
    PropertyList properties;
    properties.add(PREFIX, "public_address", "203.0.113.5").add(PREFIX, "comm_ports", "7400");
    const std::string publicAddress = message(ERROR, UDP_SETUP, "KEL_LOG_ANY_FAILURE_s",
                                              {"ERROR: Out of resources for public_address. "});
    const std::string commPorts =
        message(ERROR, UDP_SETUP, "KEL_LOG_CREATION_FAILURE_s", {"commPortsList"});
    std::set<std::string> seen;
    bool succeeded = false;
    const KEL_UINT64 blocks = liveHeapBlocks();
    for (long n = 1; n < 50 && !succeeded; ++n) {
        SCOPED_TRACE(n);
        LogCapture log;
        {
            UdpRecord run(VESK_TRANSPORT_UDPV4_WAN_PROPERTY_DEFAULT);
            KELOsapiHeap_failAllocationAfter(n);
            const int result = setupWan(run, properties);
            succeeded = KELOsapiHeap_isFailurePending() != 0;
            KELOsapiHeap_failAllocationAfter(0);
            if (succeeded) {
                EXPECT_EQ(2, result);
                continue;
            }
            EXPECT_EQ(-1, result);
            EXPECT_EQ(run.record.public_address != nullptr,
                      run.allocations._publicAddressAllocated != 0);
            EXPECT_EQ(nullptr, run.record.comm_ports_list);
            EXPECT_EQ(0, run.allocations._commPortsAllocated);
            const auto lines = describeAll(log);
            ASSERT_FALSE(lines.empty());
            if (lines == std::vector<std::string>{publicAddress}) {
                EXPECT_EQ(nullptr, run.record.public_address);
                seen.insert(publicAddress);
            }
            if (lines == std::vector<std::string>{commPorts}) {
                EXPECT_STREQ("203.0.113.5", run.record.public_address);
                seen.insert(commPorts);
            }
        }
        EXPECT_EQ(blocks, liveHeapBlocks());
    }
    EXPECT_TRUE(succeeded);
    EXPECT_EQ((std::set<std::string>{publicAddress, commPorts}), seen);
}

}  // namespace
