// The generic part of every transport record and its interface lists.

#include <gtest/gtest.h>

#include <array>
#include <set>
#include <string>
#include <vector>

#include "support/SetupChecks.hpp"
#include "vesk_transport/Support.h"

namespace {

using namespace vesk::test;
using Flags = VESK_Transport_internalMemoryAllocations;
using Lines = std::vector<std::string>;

constexpr const char *PREFIX = "dds.transport.UDPv4.builtin";
constexpr const char *SINGLE = "parent.allow_interfaces";
constexpr const char *LIST = "parent.allow_interfaces_list";

// The UDPv4 defaults' generic part, cleaned up at the end.
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

// A good value changes only its field (the bitmap, message size and
// interface count start off their defaults) and counts once; a bad one
// gives -1, its message ("": the parser failure) and changes nothing. The
// thread-name prefix gets its default before the last two are read.
TEST(GenericSetup, EachValueSetsItsFieldOrFailsWithItsMessage) {
    const std::string guid123 = guid(1, 2, 3), PARSER = "";
    const std::string RANGE = error(PARENT_SETUP, "KEL_LOG_PARSER_VALUE_OUT_OF_RANGE_ss",
                                    {"parent.address_bit_count", "[-128, 128]"});
    const auto space = [](const char *needed) {
        return error(PARENT_SETUP, "KEL_LOG_INSUFFICIENT_SPACE_FAILURE_dd", {"33", needed});
    };
    const std::vector<std::array<std::string, 3>> cases = {
        // suffix, value, the field's rendering or the message
        {"parent.classid", "2", "2"},
        {"parent.classid", "0x01000001", "16777217"},
        {"parent.classid", "abc", PARSER},
        {"parent.classid", "", PARSER},
        {"parent.classid", "1.5", PARSER},
        {"parent.address_bit_count", "-128", "-128"},
        {"parent.address_bit_count", "128", "128"},
        {"parent.address_bit_count", "0", "0"},
        {"parent.address_bit_count", "x", PARSER},
        {"parent.address_bit_count", "12abc", PARSER},
        {"parent.address_bit_count", "", PARSER},
        {"parent.address_bit_count", "-129", RANGE},
        {"parent.address_bit_count", "129", RANGE},
        {"parent.address_bit_count", "-2147483648", RANGE},
        // The bitmap is replaced, not combined with its earlier bits. Names
        // compare exactly: another letter case, PROPERTY for PROPERTIES, or
        // a blank more is not a name, and then not a number either.
        {"parent.properties_bitmap", "TRANSPORT_PROPERTY_BIT_BUFFER_ALWAYS_LOANED", "2"},
        {"parent.properties_bitmap", "VESK_TRANSPORT_PROPERTY_BIT_BUFFER_ALWAYS_LOANED", "2"},
        {"parent.properties_bitmap", "TRANSPORT_PROPERTY_BITMAP_DEFAULT", "0"},
        {"parent.properties_bitmap", "VESK_TRANSPORT_PROPERTIES_BITMAP_DEFAULT", "0"},
        {"parent.properties_bitmap", "6", "6"},
        {"parent.properties_bitmap", "transport_property_bit_buffer_always_loaned", PARSER},
        {"parent.properties_bitmap", "Vesk_Transport_Properties_Bitmap_Default", PARSER},
        {"parent.properties_bitmap", "VESK_TRANSPORT_PROPERTY_BITMAP_DEFAULT", PARSER},
        {"parent.properties_bitmap", "TRANSPORT_PROPERTY_BIT_BUFFER_ALWAYS_LOANED ", PARSER},
        {"parent.gather_send_buffer_count_max", "-3", "-3"},
        {"parent.gather_send_buffer_count_max", "1.5", PARSER},
        {"parent.gather_send_buffer_count_max", "many", PARSER},
        // Every keyword means 65507, in any letter case, whatever the class;
        // only the whole keyword matches.
        {"parent.message_size_max", "UDPV4_MESSAGE_SIZE_MAX_DEFAULT", "65507"},
        {"parent.message_size_max", "VESK_TRANSPORT_UDPV4_MESSAGE_SIZE_MAX_DEFAULT", "65507"},
        {"parent.message_size_max", "udpv4_payload_size_max", "65507"},
        {"parent.message_size_max", "Vesk_Transport_Udpv4_Payload_Size_Max", "65507"},
        {"parent.message_size_max", "1400", "1400"},
        {"parent.message_size_max", "UDPV4_PAYLOAD_SIZE", PARSER},
        {"parent.message_size_max", "UDPV4_PAYLOAD_SIZE_MAXX", PARSER},
        {"parent.max_interface_count", "DDS_LENGTH_UNLIMITED", "-1"},
        {"parent.max_interface_count", "length_unlimited", "-1"},
        {"parent.max_interface_count", "4", "4"},
        {"parent.max_interface_count", "UNLIMITED", PARSER},
        {"parent.max_interface_count", "DDS_LENGTH_UNLIMITEDX", PARSER},
        {"participant_guid_prefix", "1,2,3", guid123},
        {"participant_guid_prefix", "0x10,20,4294967295", guid(16, 20, 4294967295u)},
        {"participant_guid_prefix", "0000000001,0000000002,0000000003", guid123},  // 32 long
        {"participant_guid_prefix", "00000000001,0000000002,0000000003", space("34")},
        {"participant_guid_prefix", std::string(40, '1'), space("41")},
        {"participant_guid_prefix", "1,2", PARSER},
        {"participant_guid_prefix", "1;2;3", PARSER},
        {"participant_guid_prefix", "1,x,3", PARSER},
        {"participant_guid_prefix", "a,2,3", PARSER},
        {"participant_guid_prefix", "1,2,", PARSER},
        {"participant_guid_prefix", "1,2,3,4", PARSER},
        {"participant_guid_prefix", "1,2,-3", PARSER},
        {"participant_guid_prefix", "", PARSER},
    };
    for (const auto &[suffix, value, expected] : cases) {
        SCOPED_TRACE(suffix + " = '" + value + "'");
        const bool bad = expected.empty() || expected.find(PARENT_SETUP) != std::string::npos;
        const bool late =
            suffix == "participant_guid_prefix" || suffix == "parent.max_interface_count";
        LogCapture log;
        GenericRecord run;
        run.record.properties_bitmap = 5;
        run.record.message_size_max = 1000;
        run.record.max_interface_count = 7;
        const Generic before = !bad || late ? withDefaultThreadName(run.record) : run.record;
        EXPECT_EQ(bad ? -1 : 1,
                  run.setup(PropertyList{{std::string(PREFIX) + "." + suffix, value}}));
        const std::string name =
            suffix.rfind("parent.", 0) == 0 ? suffix.substr(7) : "transport_uuid";
        if (!bad) {
            EXPECT_EQ((Rendered{{name, expected}}), changes(before, run.record));
        } else {
            // Whether an out-of-range number reaches the field first is open.
            if (expected == RANGE) run.record.address_bit_count = before.address_bit_count;
            EXPECT_EQ(Rendered{}, changes(before, run.record));
        }
        const std::string line = expected.empty() ? parser(PARENT_SETUP, suffix, value) : expected;
        EXPECT_EQ(bad ? Lines{line} : Lines{}, describeAll(log));
        EXPECT_EQ("0,0,0,0,0,0", renderFlags(run.flags));
    }
    for (const VESK_Transport_ClassName *entry = VESK_TRANSPORT_CLASS_NAMES; entry->name != nullptr;
         ++entry) {
        GenericRecord run;
        run.record.classid = -7;
        EXPECT_EQ(1,
                  run.setup(PropertyList{{std::string(PREFIX) + ".parent.classid", entry->name}}));
        EXPECT_EQ(entry->classid, run.record.classid) << entry->name;
    }
}

TEST(GenericSetup, TheFirstBadValueEndsTheSetupAndEarlierFieldsStay) {
    PropertyList properties(
        "parent.classid=2;parent.gather_send_buffer_count_max=lots;parent.message_size_max=1400;"
        "parent.allow_interfaces=eth0;parent.max_interface_count=3",
        PREFIX);
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
        const char *properties;
        int result;
        const char *prefix;     // expected thread_name_prefix
        const char *truncated;  // the value that the warning names, if any
    };
    const std::vector<Case> cases = {
        {"", 0, "rTr#####", nullptr},
        {"parent.thread_name_prefix=abcdefghij", 1, "abcdefgh", "abcdefghij"},
        {"parent.thread_name_prefix=worker-01", 1, "worker-0", "worker-01"},
        {"parent.thread_name_prefix=abcdefgh", 1, "abcdefgh", nullptr},
        {"parent.thread_name_prefix=", 1, "", nullptr},
        {"thread_name_prefix=worker01", 1, "worker01", nullptr},
        // Both: only the parent name is read.
        {"thread_name_prefix=other;parent.thread_name_prefix=short", 1, "short", nullptr},
        {"thread_name_prefix=123456789;parent.thread_name_prefix=abcdefghi", 1, "abcdefgh",
         "abcdefghi"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.properties);
        LogCapture log;
        GenericRecord run;
        EXPECT_EQ(c.result, run.setup(PropertyList(c.properties, PREFIX)));
        ASSERT_NE(nullptr, run.record.thread_name_prefix);
        EXPECT_STREQ(c.prefix, run.record.thread_name_prefix);
        EXPECT_EQ(c.truncated
                      ? Lines{message(KEL_LOG_BIT_WARN, PARENT_SETUP,
                                      "KEL_LOG_TRUNCATED_STRING_sds", {c.truncated, "8", c.prefix})}
                      : Lines{},
                  describeAll(log));
        VESK_Transport_cleanupParentTransportProperty(&run.record, &run.flags);
        EXPECT_EQ(nullptr, run.record.thread_name_prefix);
    }
}

TEST(GenericSetup, AShortThreadNamePrefixOfNineCharactersIsAPreconditionFailure) {
    PreconditionWatch watch;
    GenericRecord run;
    EXPECT_EQ(-1, run.setup(PropertyList(
                      "thread_name_prefix=123456789;participant_guid_prefix=1,2,3", PREFIX)));
    EXPECT_EQ(nullptr, run.record.thread_name_prefix);
    EXPECT_EQ(guid(0, 0, 0), field(run.record, "transport_uuid"));  // not read
    watch.expectOne(PARENT_SETUP, "thread_name_prefix");
}

// The four interface lists: the names, the field and the flag of each.
const std::array<std::string, 3> LISTS[] = {
    {"parent.allow_interfaces", "allow_interfaces_list", "1,0,0,0,0,0"},
    {"parent.deny_interfaces", "deny_interfaces_list", "0,1,0,0,0,0"},
    {"parent.allow_multicast_interfaces", "allow_multicast_interfaces_list", "0,0,1,0,0,0"},
    {"parent.deny_multicast_interfaces", "deny_multicast_interfaces_list", "0,0,0,1,0,0"},
};

// Both names count once; the cleanup releases the list, not the flag.
TEST(GenericSetup, EachInterfaceListIsReadIntoItsFieldAndFlag) {
    for (const auto &[single, list, flags] : LISTS) {
        SCOPED_TRACE(single);
        LogCapture log;
        GenericRecord run;
        const Generic before = withDefaultThreadName(run.record);
        EXPECT_EQ(1, run.setup(PropertyList(single + "_list=lo,eth1;" + single + "=eth0, 10.0.0.1",
                                            PREFIX)));
        EXPECT_EQ((Rendered{{list, "[\"eth0\",\"10.0.0.1\"]"}, {list + "_length", "2"}}),
                  changes(before, run.record));
        EXPECT_EQ(flags, renderFlags(run.flags));
        EXPECT_TRUE(log.entries().empty());
        VESK_Transport_cleanupParentTransportProperty(&run.record, &run.flags);
        EXPECT_EQ("null", field(run.record, list));
        EXPECT_EQ("0", field(run.record, list + "_length"));
        EXPECT_EQ(flags, renderFlags(run.flags));
    }
}

// A second setup without the cleanup fails at the first list still
// flagged; what it read before stays flagged; the prefix is not replaced.
TEST(GenericSetup, ASecondSetupWithoutCleanupFailsAtTheFirstFlaggedList) {
    GenericRecord run;
    ASSERT_EQ(2, run.setup(PropertyList(
                     "parent.deny_interfaces=eth9;parent.deny_multicast_interfaces=eth8", PREFIX)));
    char *const threadNamePrefix = run.record.thread_name_prefix;
    LogCapture log;
    EXPECT_EQ(-1,
              run.setup(PropertyList("parent.allow_interfaces=eth0,eth1;"
                                     "parent.deny_interfaces_list=lo;parent.thread_name_prefix=a",
                                     PREFIX)));
    const auto lines = describeAll(log);
    ASSERT_EQ(2u, lines.size());
    EXPECT_NE(std::string::npos, lines[0].find("KEL_LOG_PRECONDITION_FAILURE_s"));
    EXPECT_EQ(error(PARENT_SETUP, "KEL_LOG_PARSER_FAILURE_s", {"parent.deny_interfaces_list"}),
              lines[1]);
    EXPECT_EQ("1,1,0,1,0,0", renderFlags(run.flags));
    EXPECT_EQ("[\"eth0\",\"eth1\"]", field(run.record, "allow_interfaces_list"));
    EXPECT_EQ("[\"eth9\"]", field(run.record, "deny_interfaces_list"));
    EXPECT_EQ(threadNamePrefix, run.record.thread_name_prefix);
}

// A failed setup names the failed step last; a list is flagged exactly when
// held, and whole; no failure leaves a prefix.
TEST(GenericSetup, EveryAllocationFailureLeavesOnlyFlaggedMembersBehind) {
    PropertyList properties("parent.thread_name_prefix=abcdefghij", PREFIX);
    std::set<std::string> expected = {
        error(PARENT_SETUP, "KEL_LOG_ANY_FAILURE_s", {"truncate parent.thread_name_prefix"})};
    for (const auto &[single, list, flags] : LISTS) {
        properties.add(PREFIX, single + "_list", "a, b");
        expected.insert(error(PARENT_SETUP, "KEL_LOG_PARSER_FAILURE_s", {single + "_list"}));
    }
    const auto sweep = sweepSetup<GenericRecord>(
        [&](GenericRecord &run) { return run.setup(properties); },
        [](bool failed, const GenericRecord &run, int result, const auto &) {
            EXPECT_EQ(failed ? -1 : 5, result);
            const std::string flags = renderFlags(run.flags);
            if (!failed) {
                EXPECT_EQ("1,1,1,1,0,0", flags);
                return;
            }
            EXPECT_EQ(nullptr, run.record.thread_name_prefix);
            for (size_t i = 0; i < 4; ++i) {
                const std::string held = field(run.record, LISTS[i][1]);
                EXPECT_TRUE(held == "null" || held == "[\"a\",\"b\"]") << held;
                EXPECT_EQ(held != "null", flags[2 * i] == '1') << LISTS[i][1];
            }
        });
    EXPECT_EQ(expected, sweep.lastLines);
}

// The caller's side of one list; a flagged list is released at the end.
struct ListState {
    KEL_INT32 length = 0;
    char **list = nullptr;
    int counter = 5;
    KEL_INT32 flag = 0;
    ~ListState() {
        if (flag) VESK_Transport_Property_finalize_interface_list(&list, &length);
    }
    int parse(const PropertyList &properties, const char *prefix = PREFIX) {
        return VESK_Transport_Support_parse_interface_list(&length, &list, &counter, &flag,
                                                           properties.get(), prefix, SINGLE, LIST);
    }
};

// Each null (and a list still flagged) is reported, the first in parameter
// order, and changes nothing.
TEST(InterfaceList, EachPreconditionIsReportedInOrderAndChangesNothing) {
    PropertyList properties{{std::string(PREFIX) + "." + SINGLE, "eth0"}};
    char *foreign[] = {const_cast<char *>("lo")};
    const std::vector<std::pair<const char *, const char *>> cases = {
        // null: length, list, properties, suffix, list suffix; allocated list
        {"100000", "interfaces_list_length"},
        {"010000", "interfaces_list"},
        {"001000", "transport_properties"},
        {"000100", "interface_suffix_property_name"},
        {"000010", "interface_list_suffix_property_name"},
        {"000001", "is_memory_allocated"},
        {"100110", "interfaces_list_length"},
        {"011010", "interfaces_list"},
        {"001001", "transport_properties"},
        {"000111", "interface_suffix_property_name"},
    };
    for (const auto &[nulls, reported] : cases) {
        for (int detect : {0, 1}) {
            SCOPED_TRACE(std::string(nulls) + " " + std::to_string(detect));
            const auto on = [&](int i) { return nulls[i] == '1'; };
            PreconditionWatch watch(detect);
            KEL_INT32 length = 1, flag = on(5) ? 1 : 0;
            char **list = on(5) ? foreign : nullptr;
            int counter = 3;
            EXPECT_EQ(0, VESK_Transport_Support_parse_interface_list(
                             on(0) ? nullptr : &length, on(1) ? nullptr : &list, &counter, &flag,
                             on(2) ? nullptr : properties.get(), PREFIX, on(3) ? nullptr : SINGLE,
                             on(4) ? nullptr : LIST));
            watch.expectOne(PARSE_INTERFACE_LIST, reported);
            EXPECT_EQ(1, length);
            EXPECT_EQ(on(5) ? foreign : nullptr, list);
            EXPECT_EQ(3, counter);
            EXPECT_EQ(on(5) ? 1 : 0, flag);
        }
    }
}

// Found: split at commas, pieces trimmed, a new flagged list, counted once.
TEST(InterfaceList, ValuesAreSplitAtCommasAndTrimmed) {
    const std::string single = std::string(PREFIX) + "." + SINGLE;
    const std::string list = std::string(PREFIX) + "." + LIST;
    const std::vector<std::pair<std::vector<PropertyList::NameValue>, std::string>> cases = {
        // the properties (full names), the list after ("": none found)
        {{{single, "eth0"}}, R"(["eth0"])"},
        {{{list, "eth0, 10.0.0.1 ,lo"}}, R"(["eth0","10.0.0.1","lo"])"},
        {{{single, "eth0,eth1"}}, R"(["eth0","eth1"])"},
        {{{list, "lo,eth1"}, {single, "eth0"}}, R"(["eth0"])"},  // the single name wins
        {{{single, " \teth0 \r\n"}}, R"(["eth0"])"},
        {{{single, " my if "}}, R"(["my if"])"},
        {{{list, "a,,b"}}, R"(["a","","b"])"},
        {{{list, "a,"}}, R"(["a",""])"},
        {{{list, " , "}}, R"(["",""])"},
        {{{list, "lo,lo"}}, R"(["lo","lo"])"},
        {{{list, ""}}, "[]"},
        {{{single, ""}, {list, "eth0"}}, "[]"},  // even empty, the single name wins
        // Names are looked up under the prefix only.
        {{{std::string(PREFIX) + ".." + SINGLE, "eth9"}}, ""},
        {{{SINGLE, "eth9"}}, ""},
        {{{"dds.transport.UDPv6.builtin.parent.allow_interfaces", "eth9"}}, ""},
        {{{std::string(PREFIX) + ".parent.deny_interfaces", "eth9"}}, ""},
    };
    char *foreign[] = {const_cast<char *>("lo")};
    for (const auto &[properties, expected] : cases) {
        SCOPED_TRACE(properties[0].first + " = '" + properties[0].second + "'");
        LogCapture log;
        const KEL_UINT64 blocks = liveHeapBlocks();
        ListState state;
        state.list = foreign;  // not ours: replaced, never released
        state.length = 4;
        EXPECT_EQ(1, state.parse(PropertyList(properties)));
        const bool made = expected.size() > 2;
        if (made) {
            EXPECT_EQ(expected, renderList(state.list, state.length));
            EXPECT_STREQ("char *", KELOsapiHeap_getBlockTypeName(state.list));
            EXPECT_EQ(VESK_TRANSPORT_HEAP_TAG, KELOsapiHeap_getBlockTag(state.list));
        } else {  // an empty value counts but allocates nothing
            EXPECT_EQ(foreign, state.list);
            EXPECT_EQ(expected.empty() ? 4 : 0, state.length);
            EXPECT_EQ(blocks, liveHeapBlocks());
        }
        EXPECT_EQ(made ? 1 : 0, state.flag);
        EXPECT_EQ(expected.empty() ? 5 : 6, state.counter);
        EXPECT_STREQ("lo", foreign[0]);
        EXPECT_TRUE(log.entries().empty());
    }
    // A prefix ending in a dot, and the bare suffix under a null prefix.
    for (const auto &[name, prefix] :
         {std::pair<std::string, const char *>{single, "dds.transport.UDPv4.builtin."},
          {SINGLE, nullptr}}) {
        ListState state;
        EXPECT_EQ(1, state.parse(PropertyList{{name, "eth9"}}, prefix));
        EXPECT_EQ(R"(["eth9"])", renderList(state.list, state.length));
    }
}

// Without counter and flag a second read replaces the first list.
TEST(InterfaceList, CounterAndFlagMayBeNullAndThenNothingIsProtected) {
    PropertyList properties{{std::string(PREFIX) + "." + LIST, "eth0,eth1"}};
    ListState first, second;
    for (ListState *state : {&first, &second}) {
        state->list = first.list;
        state->length = first.length;
        EXPECT_EQ(1, VESK_Transport_Support_parse_interface_list(&state->length, &state->list,
                                                                 nullptr, nullptr, properties.get(),
                                                                 PREFIX, SINGLE, LIST));
        state->flag = 1;  // for the release at the end
    }
    EXPECT_EQ(R"(["eth0","eth1"])", renderList(second.list, second.length));
    EXPECT_NE(first.list, second.list);
}

TEST(InterfaceList, EveryAllocationFailureReleasesTheList) {
    const std::string value = "eth0, eth1 ,eth2";
    PropertyList properties{{std::string(PREFIX) + "." + SINGLE, value}};
    const std::set<std::string> allowed = {
        // Found under the single-interface name, reported with the list suffix.
        error(PARSE_INTERFACE_LIST, "KEL_LOG_PARSER_FAILURE_ss", {LIST, value}),
        error(PARSE_INTERFACE_LIST, "DDS_LOG_OUT_OF_RESOURCES_s", {"interfaces list"}),
        error(PARSE_INTERFACE_LIST, "DDS_LOG_OUT_OF_RESOURCES_s", {"interfaces_list element"}),
    };
    const auto sweep = sweepSetup<ListState>(
        [&](ListState &state) {
            state.length = 9;
            return state.parse(properties);
        },
        [](bool failed, const ListState &state, int result, const auto &lines) {
            EXPECT_EQ(failed ? 0 : 1, result);
            EXPECT_EQ(failed ? "null" : R"(["eth0","eth1","eth2"])",
                      renderList(state.list, state.length));
            EXPECT_EQ(failed ? 0 : 3, state.length);
            EXPECT_EQ(failed ? 0 : 1, state.flag);
            EXPECT_EQ(failed ? 5 : 6, state.counter);
            EXPECT_EQ(failed ? 1u : 0u, lines.size());
        });
    EXPECT_EQ(allowed, sweep.lastLines);
    // The split (array and three pieces), the list and its three copies.
    EXPECT_EQ(8, sweep.failurePoints);
}

// A failure before the new array replaces the caller's releases the
// caller's list with the caller's own length.
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
            VESK_Transport_Property_finalize_interface_list(&callers, &callersLength);
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
