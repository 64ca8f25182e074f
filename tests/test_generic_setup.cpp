// The generic part of every transport record and the interface lists in
// it: values, keywords and their case rules, ranges, counting, the
// thread-name and GUID prefixes, what a failure leaves allocated, the
// cleanup, and every allocation failing in turn.

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "support/AllocationSweep.hpp"
#include "support/SetupChecks.hpp"
#include "vesk_transport/Support.h"

namespace {

using namespace vesk::test;
using Flags = VESK_Transport_internalMemoryAllocations;

constexpr const char *PREFIX = "dds.transport.UDPv4.builtin";
constexpr const char *SINGLE = "parent.allow_interfaces";
constexpr const char *LIST = "parent.allow_interfaces_list";

// A generic record as a factory hands it in (the UDPv4 defaults), with its
// allocations record; the generic cleanup runs at the end.
struct GenericRecord {
    Generic record = VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT.parent;
    Flags flags{};
    ~GenericRecord() { VESK_Transport_cleanupParentTransportProperty(&record, &flags); }
    int setup(const PropertyList &properties, const char *prefix = PREFIX) {
        return VESK_Transport_setupParentTransportProperty(&record, &flags, properties.get(),
                                                           prefix);
    }
};

std::string guid(KEL_UINT32 host, KEL_UINT32 app, KEL_UINT32 instance) {
    const KELOsapiRtpsGuidPrefix prefix{host, app, instance};
    return renderBytes(&prefix, sizeof prefix);
}

std::string parser(const char *suffix, const std::string &value) {
    return error(PARENT_SETUP, "KEL_LOG_PARSER_FAILURE_ss", {suffix, value});
}

// ---------------------------------------------------------------------------
// Values
// ---------------------------------------------------------------------------

// One good value: its field changes (from a record whose bitmap, message
// size and interface count are not the defaults), it counts once, nothing
// is logged; the thread-name prefix gets its default.
TEST(GenericSetup, EachGoodValueSetsItsFieldAndCountsOnce) {
    struct Case {
        const char *suffix, *value, *field, *expected;
    };
    const std::string guid123 = guid(1, 2, 3), guidBig = guid(16, 20, 4294967295u);
    const std::vector<Case> cases = {
        {"parent.classid", "2", "classid", "2"},
        {"parent.classid", "0x01000001", "classid", "16777217"},
        {"parent.address_bit_count", "-128", "address_bit_count", "-128"},
        {"parent.address_bit_count", "128", "address_bit_count", "128"},
        {"parent.address_bit_count", "0", "address_bit_count", "0"},
        // The bitmap is replaced, not combined with its earlier bits.
        {"parent.properties_bitmap", "TRANSPORT_PROPERTY_BIT_BUFFER_ALWAYS_LOANED",
         "properties_bitmap", "2"},
        {"parent.properties_bitmap", "VESK_TRANSPORT_PROPERTY_BIT_BUFFER_ALWAYS_LOANED",
         "properties_bitmap", "2"},
        {"parent.properties_bitmap", "TRANSPORT_PROPERTY_BITMAP_DEFAULT", "properties_bitmap", "0"},
        {"parent.properties_bitmap", "VESK_TRANSPORT_PROPERTIES_BITMAP_DEFAULT",
         "properties_bitmap", "0"},
        {"parent.properties_bitmap", "6", "properties_bitmap", "6"},
        {"parent.gather_send_buffer_count_max", "-3", "gather_send_buffer_count_max", "-3"},
        // Every keyword means 65507, in any letter case, whatever the class.
        {"parent.message_size_max", "UDPV4_MESSAGE_SIZE_MAX_DEFAULT", "message_size_max", "65507"},
        {"parent.message_size_max", "VESK_TRANSPORT_UDPV4_MESSAGE_SIZE_MAX_DEFAULT",
         "message_size_max", "65507"},
        {"parent.message_size_max", "udpv4_payload_size_max", "message_size_max", "65507"},
        {"parent.message_size_max", "Vesk_Transport_Udpv4_Payload_Size_Max", "message_size_max",
         "65507"},
        {"parent.message_size_max", "1400", "message_size_max", "1400"},
        {"parent.max_interface_count", "DDS_LENGTH_UNLIMITED", "max_interface_count", "-1"},
        {"parent.max_interface_count", "length_unlimited", "max_interface_count", "-1"},
        {"parent.max_interface_count", "4", "max_interface_count", "4"},
        {"participant_guid_prefix", "1,2,3", "transport_uuid", guid123.c_str()},
        {"participant_guid_prefix", "0x10,20,4294967295", "transport_uuid", guidBig.c_str()},
        // 32 characters: the longest value that fits.
        {"participant_guid_prefix", "0000000001,0000000002,0000000003", "transport_uuid",
         guid123.c_str()},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.suffix) + " = " + c.value);
        PropertyList properties;
        properties.add(PREFIX, c.suffix, c.value);
        LogCapture log;
        GenericRecord run;
        run.record.properties_bitmap = 5;
        run.record.message_size_max = 1000;
        run.record.max_interface_count = 7;
        const Generic before = withDefaultThreadName(run.record);
        EXPECT_EQ(1, run.setup(properties));
        EXPECT_EQ((Rendered{{c.field, c.expected}}), changes(before, run.record));
        EXPECT_EQ("0,0,0,0,0,0", renderFlags(run.flags));
        EXPECT_TRUE(log.entries().empty());
    }
    for (const VESK_Transport_ClassName *entry = VESK_TRANSPORT_CLASS_NAMES; entry->name != nullptr;
         ++entry) {
        SCOPED_TRACE(entry->name);
        PropertyList properties;
        properties.add(PREFIX, "parent.classid", entry->name);
        GenericRecord run;
        run.record.classid = -7;
        EXPECT_EQ(1, run.setup(properties));
        EXPECT_EQ(entry->classid, run.record.classid);
    }
}

// One bad value: -1, exactly its message, no field changed.
TEST(GenericSetup, EachBadValueFailsWithItsMessage) {
    struct Case {
        const char *suffix;
        std::vector<std::string> values;
    };
    const std::vector<Case> cases = {
        {"parent.classid", {"abc", "", "1.5"}},
        {"parent.address_bit_count", {"x", "12abc", ""}},
        // Exact comparison: another letter case, PROPERTY for PROPERTIES,
        // or a blank more is not a name, and then not a number either.
        {"parent.properties_bitmap",
         {"transport_property_bit_buffer_always_loaned", "Vesk_Transport_Properties_Bitmap_Default",
          "VESK_TRANSPORT_PROPERTY_BITMAP_DEFAULT",
          "TRANSPORT_PROPERTY_BIT_BUFFER_ALWAYS_LOANED "}},
        {"parent.gather_send_buffer_count_max", {"1.5", "many"}},
        // Only the whole keyword matches.
        {"parent.message_size_max", {"UDPV4_PAYLOAD_SIZE", "UDPV4_PAYLOAD_SIZE_MAXX"}},
        {"parent.max_interface_count", {"UNLIMITED", "DDS_LENGTH_UNLIMITEDX"}},
        {"participant_guid_prefix",
         {"1,2", "1;2;3", "1,x,3", "a,2,3", "1,2,", "1,2,3,4", "1,2,-3", ""}},
        {"parent.address_bit_count", {"-129", "129", "-2147483648"}},
        {"participant_guid_prefix", {"00000000001,0000000002,0000000003", std::string(40, '1')}},
    };
    for (const Case &c : cases) {
        for (const std::string &value : c.values) {
            SCOPED_TRACE(std::string(c.suffix) + " = '" + value + "'");
            PropertyList properties;
            properties.add(PREFIX, c.suffix, value);
            LogCapture log;
            GenericRecord run;
            Generic before = run.record;
            // The thread-name step comes before the GUID prefix and the
            // interface count.
            if (std::strstr("participant_guid_prefix parent.max_interface_count", c.suffix)) {
                before = withDefaultThreadName(before);
            }
            EXPECT_EQ(-1, run.setup(properties));
            std::string expected = parser(c.suffix, value);
            if (value.size() > 32 && c.suffix == std::string("participant_guid_prefix")) {
                expected = error(PARENT_SETUP, "KEL_LOG_INSUFFICIENT_SPACE_FAILURE_dd",
                                 {"33", std::to_string(value.size() + 1)});
            } else if (&c == &cases[7]) {
                expected = error(PARENT_SETUP, "KEL_LOG_PARSER_VALUE_OUT_OF_RANGE_ss",
                                 {c.suffix, "[-128, 128]"});
                // Whether the number reaches the field before the range test
                // refuses it is open.
                run.record.address_bit_count = before.address_bit_count;
            }
            EXPECT_EQ(std::vector<std::string>{expected}, describeAll(log));
            EXPECT_EQ(Rendered{}, changes(before, run.record));
        }
    }
}

TEST(GenericSetup, TheFirstBadValueEndsTheSetupAndEarlierFieldsStay) {
    PropertyList properties;
    properties.add(PREFIX, "parent.classid", "2")
        .add(PREFIX, "parent.gather_send_buffer_count_max", "lots")
        .add(PREFIX, "parent.message_size_max", "1400")
        .add(PREFIX, "parent.allow_interfaces", "eth0")
        .add(PREFIX, "parent.max_interface_count", "3");
    LogCapture log;
    GenericRecord run;
    const Generic before = run.record;
    EXPECT_EQ(-1, run.setup(properties));
    EXPECT_EQ((Rendered{{"classid", "2"}}), changes(before, run.record));
    EXPECT_EQ("0,0,0,0,0,0", renderFlags(run.flags));
    EXPECT_EQ(1u, log.entries().size());
}

TEST(GenericSetup, ThreadNamePrefix) {
    struct Case {
        std::vector<PropertyList::NameValue> properties;  // suffix, value
        int result;
        const char *prefix;  // expected thread_name_prefix
        std::vector<std::string> truncated;
    };
    const std::vector<Case> cases = {
        {{}, 0, "rTr#####", {}},
        {{{"parent.thread_name_prefix", "abcdefghij"}},
         1,
         "abcdefgh",
         {"abcdefghij", "8", "abcdefgh"}},
        {{{"parent.thread_name_prefix", "worker-01"}},
         1,
         "worker-0",
         {"worker-01", "8", "worker-0"}},
        {{{"parent.thread_name_prefix", "abcdefgh"}}, 1, "abcdefgh", {}},
        {{{"parent.thread_name_prefix", ""}}, 1, "", {}},
        {{{"thread_name_prefix", "worker01"}}, 1, "worker01", {}},
        // Both: only the parent name is read.
        {{{"thread_name_prefix", "other"}, {"parent.thread_name_prefix", "short"}}, 1, "short", {}},
        {{{"thread_name_prefix", "123456789"}, {"parent.thread_name_prefix", "abcdefghi"}},
         1,
         "abcdefgh",
         {"abcdefghi", "8", "abcdefgh"}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.prefix);
        PropertyList properties;
        for (const auto &[suffix, value] : c.properties) properties.add(PREFIX, suffix, value);
        LogCapture log;
        GenericRecord run;
        EXPECT_EQ(c.result, run.setup(properties));
        ASSERT_NE(nullptr, run.record.thread_name_prefix);
        EXPECT_STREQ(c.prefix, run.record.thread_name_prefix);
        std::vector<std::string> expected;
        if (!c.truncated.empty()) {
            expected.push_back(message(KEL_LOG_BIT_WARN, PARENT_SETUP,
                                       "KEL_LOG_TRUNCATED_STRING_sds", c.truncated));
        }
        EXPECT_EQ(expected, describeAll(log));
        VESK_Transport_cleanupParentTransportProperty(&run.record, &run.flags);
        EXPECT_EQ(nullptr, run.record.thread_name_prefix);
    }
}

TEST(GenericSetup, AShortThreadNamePrefixOfNineCharactersIsAPreconditionFailure) {
    PropertyList properties;
    properties.add(PREFIX, "thread_name_prefix", "123456789")
        .add(PREFIX, "participant_guid_prefix", "1,2,3");
    PreconditionFlags restore;
    KELLog_g_detectPrecondition = 1;
    KELLog_g_preconditionDetected = 0;
    const KEL_UINT64 breakpoints = KELLog_getAssertBreakpointCount();
    LogCapture log;
    GenericRecord run;
    EXPECT_EQ(-1, run.setup(properties));
    EXPECT_EQ(nullptr, run.record.thread_name_prefix);
    EXPECT_EQ(guid(0, 0, 0), field(run.record, "transport_uuid"));  // not read
    expectPrecondition(log, PARENT_SETUP, "thread_name_prefix");
    EXPECT_EQ(1, KELLog_g_preconditionDetected);
    EXPECT_EQ(breakpoints + 1, KELLog_getAssertBreakpointCount());
}

// ---------------------------------------------------------------------------
// The four interface lists in the record
// ---------------------------------------------------------------------------

struct ListNames {
    const char *single, *list, *field;
    const char *flags;  // the flags after reading only this list
};
const ListNames LISTS[] = {
    {"parent.allow_interfaces", "parent.allow_interfaces_list", "allow_interfaces_list",
     "1,0,0,0,0,0"},
    {"parent.deny_interfaces", "parent.deny_interfaces_list", "deny_interfaces_list",
     "0,1,0,0,0,0"},
    {"parent.allow_multicast_interfaces", "parent.allow_multicast_interfaces_list",
     "allow_multicast_interfaces_list", "0,0,1,0,0,0"},
    {"parent.deny_multicast_interfaces", "parent.deny_multicast_interfaces_list",
     "deny_multicast_interfaces_list", "0,0,0,1,0,0"},
};

TEST(GenericSetup, EachInterfaceListIsReadIntoItsFieldAndFlag) {
    for (const ListNames &names : LISTS) {
        SCOPED_TRACE(names.single);
        PropertyList properties;
        properties.add(PREFIX, names.list, "lo,eth1").add(PREFIX, names.single, "eth0, 10.0.0.1");
        LogCapture log;
        GenericRecord run;
        const Generic before = withDefaultThreadName(run.record);
        EXPECT_EQ(1, run.setup(properties));  // both names count once
        EXPECT_EQ((Rendered{{names.field, "[\"eth0\",\"10.0.0.1\"]"},
                            {std::string(names.field) + "_length", "2"}}),
                  changes(before, run.record));
        EXPECT_EQ(names.flags, renderFlags(run.flags));
        EXPECT_TRUE(log.entries().empty());
        VESK_Transport_cleanupParentTransportProperty(&run.record, &run.flags);
        EXPECT_EQ("null", field(run.record, names.field));
        EXPECT_EQ("0", field(run.record, std::string(names.field) + "_length"));
        EXPECT_EQ(names.flags, renderFlags(run.flags));  // the cleanup clears no flag
    }
}

TEST(GenericSetup, TheResultCountsEveryPropertyPresentAndAppliedOnce) {
    for (const char *prefix : {PREFIX, static_cast<const char *>(nullptr)}) {
        SCOPED_TRACE(prefix == nullptr ? "null prefix" : prefix);
        const std::string p = prefix == nullptr ? "" : prefix;
        PropertyList properties;
        properties.add(p, "parent.classid", "1")
            .add(p, "parent.address_bit_count", "32")
            .add(p, "parent.properties_bitmap", "TRANSPORT_PROPERTY_BITMAP_DEFAULT")
            .add(p, "parent.gather_send_buffer_count_max", "8")
            .add(p, "parent.message_size_max", "8192")
            .add(p, "parent.thread_name_prefix", "abc")
            .add(p, "participant_guid_prefix", "1,2,3")
            .add(p, "parent.max_interface_count", "LENGTH_UNLIMITED")
            // Names that the generic setup does not know are ignored.
            .add(p, "send_blocking", "0")
            .add(p, "parent.unknown", "1");
        if (prefix != nullptr) properties.add("parent.message_size_max", "9000");  // bare: not read
        for (const ListNames &names : LISTS) properties.add(p, names.single, "eth0");
        LogCapture log;
        GenericRecord run;
        EXPECT_EQ(12, run.setup(properties, prefix));
        EXPECT_EQ("1,1,1,1,0,0", renderFlags(run.flags));
        EXPECT_EQ(8192, run.record.message_size_max);
        EXPECT_TRUE(log.entries().empty());
    }
}

// The deny list fails (its record still holds a flagged list): the allow
// list read before stays allocated and flagged, no thread-name prefix, and
// the cleanup releases both lists.
TEST(GenericSetup, AFailureInTheDenyListLeavesTheAllowListForTheCleanup) {
    PropertyList properties;
    properties.add(PREFIX, "parent.allow_interfaces", "eth0,eth1")
        .add(PREFIX, "parent.deny_interfaces_list", "lo")
        .add(PREFIX, "parent.thread_name_prefix", "abc");
    GenericRecord run;
    PropertyList denyOnly;
    denyOnly.add(PREFIX, "parent.deny_interfaces", "eth9");
    ASSERT_EQ(1, VESK_Transport_Support_parse_interface_list(
                     &run.record.deny_interfaces_list_length, &run.record.deny_interfaces_list,
                     nullptr, &run.flags._denyInterfacesListAllocated, denyOnly.get(), PREFIX,
                     "parent.deny_interfaces", "parent.deny_interfaces_list"));
    LogCapture log;
    EXPECT_EQ(-1, run.setup(properties));
    const auto lines = describeAll(log);
    ASSERT_EQ(2u, lines.size());
    EXPECT_NE(std::string::npos, lines[0].find("KEL_LOG_PRECONDITION_FAILURE_s"));
    EXPECT_EQ(error(PARENT_SETUP, "KEL_LOG_PARSER_FAILURE_s", {"parent.deny_interfaces_list"}),
              lines[1]);
    EXPECT_EQ("1,1,0,0,0,0", renderFlags(run.flags));
    EXPECT_EQ("[\"eth0\",\"eth1\"]", field(run.record, "allow_interfaces_list"));
    EXPECT_EQ("[\"eth9\"]", field(run.record, "deny_interfaces_list"));
    EXPECT_EQ(nullptr, run.record.thread_name_prefix);
    VESK_Transport_cleanupParentTransportProperty(&run.record, &run.flags);
    EXPECT_EQ(nullptr, run.record.allow_interfaces_list);
    EXPECT_EQ(nullptr, run.record.deny_interfaces_list);
}

TEST(GenericSetup, ASecondSetupWithoutCleanupFailsAtTheFirstFlaggedList) {
    PropertyList properties;
    properties.add(PREFIX, "parent.allow_multicast_interfaces", "eth0")
        .add(PREFIX, "parent.deny_multicast_interfaces", "eth1");
    GenericRecord run;
    ASSERT_EQ(2, run.setup(properties));
    char *const threadNamePrefix = run.record.thread_name_prefix;
    LogCapture log;
    EXPECT_EQ(-1, run.setup(properties));
    const auto lines = describeAll(log);
    ASSERT_EQ(2u, lines.size());
    EXPECT_EQ(
        error(PARENT_SETUP, "KEL_LOG_PARSER_FAILURE_s", {"parent.allow_multicast_interfaces_list"}),
        lines[1]);
    EXPECT_EQ("0,0,1,1,0,0", renderFlags(run.flags));
    EXPECT_EQ("[\"eth0\"]", field(run.record, "allow_multicast_interfaces_list"));
    EXPECT_EQ(threadNamePrefix, run.record.thread_name_prefix);
}

// A failed setup logs the reason, then names the list or thread-name step;
// every list is flagged exactly when it is held, and whole; no failure
// leaves a prefix; the cleanup releases everything.
TEST(GenericSetup, EveryAllocationFailureLeavesOnlyFlaggedMembersBehind) {
    PropertyList properties;
    for (const ListNames &names : LISTS) properties.add(PREFIX, names.list, "a, b");
    properties.add(PREFIX, "parent.thread_name_prefix", "abcdefghij");
    std::set<std::string> expected = {
        error(PARENT_SETUP, "KEL_LOG_ANY_FAILURE_s", {"truncate parent.thread_name_prefix"})};
    for (const ListNames &names : LISTS) {
        expected.insert(error(PARENT_SETUP, "KEL_LOG_PARSER_FAILURE_s", {names.list}));
    }
    struct Outcome {
        GenericRecord run;
        int result = 0;
        std::vector<std::string> lines;
    };
    std::set<std::string> seen;
    const auto summary = sweepAllocationFailures(
        [&] {
            LogCapture log;
            Outcome outcome;
            outcome.result = outcome.run.setup(properties);
            outcome.lines = describeAll(log);
            return outcome;
        },
        [&](const SweepStep &step, Outcome &outcome) {
            const Generic &record = outcome.run.record;
            const Flags &flags = outcome.run.flags;
            if (!step.failed) {
                EXPECT_EQ(5, outcome.result);
                EXPECT_EQ("1,1,1,1,0,0", renderFlags(flags));
                return;
            }
            EXPECT_EQ(-1, outcome.result);
            EXPECT_EQ(nullptr, record.thread_name_prefix);
            const std::string flagText = renderFlags(flags);
            for (size_t i = 0; i < 4; ++i) {
                const std::string held = field(record, LISTS[i].field);
                EXPECT_TRUE(held == "null" || held == "[\"a\",\"b\"]") << held;
                EXPECT_EQ(held != "null", flagText[2 * i] == '1') << LISTS[i].field;
            }
            ASSERT_FALSE(outcome.lines.empty());
            EXPECT_TRUE(expected.count(outcome.lines.back())) << outcome.lines.back();
            seen.insert(outcome.lines.back());
        },
        [](Outcome &outcome) {
            VESK_Transport_cleanupParentTransportProperty(&outcome.run.record, &outcome.run.flags);
        });
    EXPECT_TRUE(summary.completed);
    EXPECT_EQ(expected, seen);
}

TEST(GenericSetup, CleanupReleasesOnlyFlaggedListsAndAnyThreadNamePrefix) {
    VESK_Transport_cleanupParentTransportProperty(nullptr, nullptr);
    char *foreign[] = {const_cast<char *>("lo")};
    Generic record = VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT.parent;
    Flags flags{};
    record.allow_interfaces_list = foreign;
    record.allow_interfaces_list_length = 1;
    record.deny_multicast_interfaces_list = foreign;
    record.thread_name_prefix = DDS_String_dup("mine");
    VESK_Transport_cleanupParentTransportProperty(&record, &flags);
    EXPECT_EQ(foreign, record.allow_interfaces_list);
    EXPECT_EQ(1, record.allow_interfaces_list_length);
    EXPECT_EQ(foreign, record.deny_multicast_interfaces_list);
    EXPECT_EQ(nullptr, record.thread_name_prefix);
}

// ---------------------------------------------------------------------------
// Reading one interface list
// ---------------------------------------------------------------------------

// The caller's side of one list: its fields, the counter and the flag.
struct ListState {
    KEL_INT32 length = 0;
    char **list = nullptr;
    int counter = 5;
    KEL_INT32 flag = 0;
    int parse(const PropertyList &properties, const char *prefix = PREFIX) {
        return VESK_Transport_Support_parse_interface_list(&length, &list, &counter, &flag,
                                                           properties.get(), prefix, SINGLE, LIST);
    }
    void release() {
        if (flag) VESK_Transport_Property_finalize_interface_list(&list, &length);
    }
};

TEST(InterfaceList, EachPreconditionIsReportedInOrderAndChangesNothing) {
    PropertyList properties{{std::string(PREFIX) + "." + SINGLE, "eth0"}};
    char *foreign[] = {const_cast<char *>("lo")};
    struct Case {
        const char *nulls;  // length, list, properties, suffix, list suffix, allocated list
        const char *reported;
    };
    const std::vector<Case> cases = {
        {"100000", "interfaces_list_length"},
        {"010000", "interfaces_list"},
        {"001000", "transport_properties"},
        {"000100", "interface_suffix_property_name"},
        {"000010", "interface_list_suffix_property_name"},
        {"000001", "is_memory_allocated"},
        // Several at once: the first in parameter order is reported.
        {"100110", "interfaces_list_length"},
        {"011010", "interfaces_list"},
        {"001001", "transport_properties"},
        {"000111", "interface_suffix_property_name"},
    };
    PreconditionFlags restore;
    for (const Case &c : cases) {
        for (int detect : {0, 1}) {
            SCOPED_TRACE(std::string(c.nulls) + " " + std::to_string(detect));
            const auto on = [&](int i) { return c.nulls[i] == '1'; };
            KELLog_g_detectPrecondition = detect;
            KELLog_g_preconditionDetected = 0;
            const KEL_UINT64 breakpoints = KELLog_getAssertBreakpointCount();
            LogCapture log;
            KEL_INT32 length = 1;
            char **list = on(5) ? foreign : nullptr;
            int counter = 3;
            KEL_INT32 flag = on(5) ? 1 : 0;
            EXPECT_EQ(0, VESK_Transport_Support_parse_interface_list(
                             on(0) ? nullptr : &length, on(1) ? nullptr : &list, &counter, &flag,
                             on(2) ? nullptr : properties.get(), PREFIX, on(3) ? nullptr : SINGLE,
                             on(4) ? nullptr : LIST));
            expectPrecondition(log, PARSE_INTERFACE_LIST, c.reported);
            EXPECT_EQ(detect, KELLog_g_preconditionDetected);
            EXPECT_EQ(breakpoints + 1, KELLog_getAssertBreakpointCount());
            EXPECT_EQ(1, length);
            EXPECT_EQ(on(5) ? foreign : nullptr, list);
            EXPECT_EQ(3, counter);
            EXPECT_EQ(on(5) ? 1 : 0, flag);
        }
    }
}

// Found: split at commas, each piece trimmed, a new flagged list of the
// module's heap, counted once. An empty value counts but allocates nothing.
// Not found: everything stays as it was.
TEST(InterfaceList, ValuesAreSplitAtCommasAndTrimmed) {
    struct Case {
        std::vector<PropertyList::NameValue> properties;  // full names
        std::vector<std::string> expected;                // null: not found
        bool found = true;
    };
    const std::string single = std::string(PREFIX) + "." + SINGLE;
    const std::string list = std::string(PREFIX) + "." + LIST;
    const std::vector<Case> cases = {
        {{{single, "eth0"}}, {"eth0"}},
        {{{list, "eth0, 10.0.0.1 ,lo"}}, {"eth0", "10.0.0.1", "lo"}},
        {{{single, "eth0,eth1"}}, {"eth0", "eth1"}},
        {{{list, "lo,eth1"}, {single, "eth0"}}, {"eth0"}},  // the single name wins
        {{{single, " \teth0 \r\n"}}, {"eth0"}},
        {{{single, " my if "}}, {"my if"}},
        {{{list, "a,,b"}}, {"a", "", "b"}},
        {{{list, "a,"}}, {"a", ""}},
        {{{list, " , "}}, {"", ""}},
        {{{list, "lo,lo"}}, {"lo", "lo"}},
        {{{list, ""}}, {}},
        {{{single, ""}, {list, "eth0"}}, {}},  // even empty, the single name wins
        // Names are looked up under the prefix only.
        {{{std::string(PREFIX) + ".." + SINGLE, "eth9"}}, {}, false},
        {{{SINGLE, "eth9"}}, {}, false},
        {{{"dds.transport.UDPv6.builtin.parent.allow_interfaces", "eth9"}}, {}, false},
        {{{std::string(PREFIX) + ".parent.deny_interfaces", "eth9"}}, {}, false},
    };
    char *foreign[] = {const_cast<char *>("lo")};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.properties[0].first + " = '" + c.properties[0].second + "'");
        PropertyList properties(c.properties);
        LogCapture log;
        const KEL_UINT64 blocks = liveHeapBlocks();
        ListState state;
        state.list = foreign;  // not ours: replaced, never released
        state.length = 4;
        EXPECT_EQ(1, state.parse(properties));
        if (!c.expected.empty()) {
            EXPECT_EQ(c.expected, contents(state.list, state.length));
            EXPECT_STREQ("char *", KELOsapiHeap_getBlockTypeName(state.list));
            EXPECT_EQ(VESK_TRANSPORT_HEAP_TAG, KELOsapiHeap_getBlockTag(state.list));
            EXPECT_EQ(1, state.flag);
        } else {
            EXPECT_EQ(foreign, state.list);
            EXPECT_EQ(c.found ? 0 : 4, state.length);
            EXPECT_EQ(0, state.flag);
            EXPECT_EQ(blocks, liveHeapBlocks());
        }
        EXPECT_EQ(c.found ? 6 : 5, state.counter);
        EXPECT_STREQ("lo", foreign[0]);
        EXPECT_TRUE(log.entries().empty());
        state.release();
    }
    // A prefix ending in a dot, and the bare suffix under a null prefix.
    for (const auto &[name, prefix] :
         {std::pair<std::string, const char *>{single, "dds.transport.UDPv4.builtin."},
          {SINGLE, nullptr}}) {
        PropertyList properties{{name, "eth9"}};
        ListState state;
        EXPECT_EQ(1, state.parse(properties, prefix));
        EXPECT_EQ(std::vector<std::string>{"eth9"}, contents(state.list, state.length));
        state.release();
    }
}

TEST(InterfaceList, CounterAndFlagMayBeNullAndThenNothingIsProtected) {
    PropertyList properties{{std::string(PREFIX) + "." + LIST, "eth0,eth1"}};
    KEL_INT32 length = 0;
    char **list = nullptr;
    EXPECT_EQ(1, VESK_Transport_Support_parse_interface_list(
                     &length, &list, nullptr, nullptr, properties.get(), PREFIX, SINGLE, LIST));
    char **first = list;
    KEL_INT32 firstLength = length;
    EXPECT_EQ(1, VESK_Transport_Support_parse_interface_list(
                     &length, &list, nullptr, nullptr, properties.get(), PREFIX, SINGLE, LIST));
    EXPECT_EQ((std::vector<std::string>{"eth0", "eth1"}), contents(list, length));
    VESK_Transport_Property_finalize_interface_list(&first, &firstLength);
    VESK_Transport_Property_finalize_interface_list(&list, &length);
}

TEST(InterfaceList, ASecondReadOfAFlaggedListIsRefusedAndKeepsTheList) {
    PropertyList properties{{std::string(PREFIX) + "." + SINGLE, "eth0,eth1"}};
    ListState state;
    ASSERT_EQ(1, state.parse(properties));
    char **first = state.list;
    LogCapture log;
    EXPECT_EQ(0, state.parse(properties));
    expectPrecondition(log, PARSE_INTERFACE_LIST, "is_memory_allocated");
    EXPECT_EQ(first, state.list);
    EXPECT_EQ((std::vector<std::string>{"eth0", "eth1"}), contents(state.list, state.length));
    EXPECT_EQ(6, state.counter);
    EXPECT_EQ(1, state.flag);
    state.release();
}

// Each refused allocation logs one message, leaves the list empty and
// unflagged, counts nothing and leaks nothing.
TEST(InterfaceList, EveryAllocationFailureReleasesTheList) {
    const std::string value = "eth0, eth1 ,eth2";
    PropertyList properties{{std::string(PREFIX) + "." + SINGLE, value}};
    const std::set<std::string> allowed = {
        // Found under the single-interface name, reported with the list suffix.
        error(PARSE_INTERFACE_LIST, "KEL_LOG_PARSER_FAILURE_ss", {LIST, value}),
        error(PARSE_INTERFACE_LIST, "DDS_LOG_OUT_OF_RESOURCES_s", {"interfaces list"}),
        error(PARSE_INTERFACE_LIST, "DDS_LOG_OUT_OF_RESOURCES_s", {"interfaces_list element"}),
    };
    struct Outcome {
        ListState state;
        int result = 0;
        std::vector<std::string> lines;
    };
    std::set<std::string> seen;
    const auto sweep = sweepAllocationFailures(
        [&] {
            LogCapture log;
            Outcome outcome;
            outcome.state.length = 9;
            outcome.result = outcome.state.parse(properties);
            outcome.lines = describeAll(log);
            return outcome;
        },
        [&](const SweepStep &step, Outcome &outcome) {
            const ListState &state = outcome.state;
            if (!step.failed) {
                EXPECT_EQ(1, outcome.result);
                EXPECT_EQ((std::vector<std::string>{"eth0", "eth1", "eth2"}),
                          contents(state.list, state.length));
                return;
            }
            EXPECT_EQ(0, outcome.result);
            EXPECT_EQ(nullptr, state.list);
            EXPECT_EQ(0, state.length);
            EXPECT_EQ(0, state.flag);
            EXPECT_EQ(5, state.counter);
            ASSERT_EQ(1u, outcome.lines.size());
            EXPECT_TRUE(allowed.count(outcome.lines[0])) << outcome.lines[0];
            seen.insert(outcome.lines[0]);
        },
        [](Outcome &outcome) { outcome.state.release(); });
    EXPECT_TRUE(sweep.completed);
    EXPECT_EQ(allowed, seen);
    // The split (array and three pieces), the list and its three copies.
    EXPECT_EQ(8, sweep.failurePoints);
}

// A failure releases the list in its current state: before our array
// replaces the caller's, that is the caller's array with the caller's own
// length, never the new one.
TEST(InterfaceList, AFailureBeforeTheReplacementReleasesTheCallersListWhole) {
    PropertyList properties{{std::string(PREFIX) + "." + LIST, "a,b,c"}};
    bool releasedCallersList = false, keptCallersList = false;
    for (long n = 1;; ++n) {
        SCOPED_TRACE(n);
        const KEL_UINT64 before = liveHeapBlocks();
        char **callers = nullptr;
        ASSERT_TRUE(KELOsapiHeap_allocateArray(&callers, 1, char *));
        callers[0] = DDS_String_dup("eth9");
        KEL_INT32 callersLength = 1;
        ListState state;
        state.list = callers;
        state.length = 1;
        LogCapture log;
        KELOsapiHeap_failAllocationAfter(n);
        const int result = state.parse(properties);
        const bool fired = !KELOsapiHeap_isFailurePending();
        KELOsapiHeap_failAllocationAfter(0);
        if (!fired) {
            EXPECT_EQ(1, result);
            state.release();
            VESK_Transport_Property_finalize_interface_list(&callers, &callersLength);
            EXPECT_EQ(before, liveHeapBlocks());
            break;
        }
        EXPECT_EQ(0, result);
        EXPECT_EQ(nullptr, state.list);
        if (liveHeapBlocks() == before) {
            releasedCallersList = true;  // the finalizer took the caller's list
        } else {
            keptCallersList = true;  // our array had replaced it: still the caller's
            VESK_Transport_Property_finalize_interface_list(&callers, &callersLength);
            EXPECT_EQ(before, liveHeapBlocks());
        }
    }
    EXPECT_TRUE(releasedCallersList);
    EXPECT_TRUE(keptCallersList);
}

}  // namespace
