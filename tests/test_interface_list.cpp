// Reading one interface list from its single-interface name or its list
// name: preconditions, splitting and trimming, counting and flagging, and
// the release of the list on every failure.

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "support/AllocationSweep.hpp"
#include "support/PropertyList.hpp"
#include "support/SetupChecks.hpp"
#include "support/TestSupport.hpp"
#include "vesk_transport/Support.h"

namespace {

using vesk::test::describeAll;
using vesk::test::liveHeapBlocks;
using vesk::test::LogCapture;
using vesk::test::message;
using vesk::test::PARSE_INTERFACE_LIST;
using vesk::test::PropertyList;
using vesk::test::sweepAllocationFailures;
using vesk::test::SweepStep;

constexpr const char *PREFIX = "dds.transport.UDPv4.builtin";
constexpr const char *SINGLE = "parent.allow_interfaces";
constexpr const char *LIST = "parent.allow_interfaces_list";

std::vector<std::string> contents(char **list, KEL_INT32 length) {
    std::vector<std::string> out;
    for (KEL_INT32 i = 0; i < length; ++i)
        out.emplace_back(list[i] == nullptr ? "(null)" : list[i]);
    return out;
}

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
    // Releases a list that the operation allocated.
    void release() {
        if (flag) VESK_Transport_Property_finalize_interface_list(&list, &length);
    }
};

// Restores the precondition flags of the logger.
struct PreconditionFlags {
    int detect = KELLog_g_detectPrecondition;
    int detected = KELLog_g_preconditionDetected;
    ~PreconditionFlags() {
        KELLog_g_detectPrecondition = detect;
        KELLog_g_preconditionDetected = detected;
    }
};

TEST(InterfaceList, EachPreconditionIsReportedInOrderAndChangesNothing) {
    PropertyList properties{{std::string(PREFIX) + "." + SINGLE, "eth0"}};
    char *foreign[] = {const_cast<char *>("lo")};
    struct Case {
        const char *name;
        bool nullLength, nullList, nullProperties, nullSuffix, nullListSuffix, allocatedList;
        const char *reported;  // the parameter the condition names
    };
    const std::vector<Case> cases = {
        {"length", true, false, false, false, false, false, "interfaces_list_length"},
        {"list", false, true, false, false, false, false, "interfaces_list"},
        {"properties", false, false, true, false, false, false, "transport_properties"},
        {"suffix", false, false, false, true, false, false, "interface_suffix_property_name"},
        {"list suffix", false, false, false, false, true, false,
         "interface_list_suffix_property_name"},
        {"list still allocated", false, false, false, false, false, true, "is_memory_allocated"},
        // Several at once: the first in parameter order is the one reported.
        {"length before suffix", true, false, false, true, false, false, "interfaces_list_length"},
        {"list before properties", false, true, true, false, true, false, "interfaces_list"},
        {"properties before allocated list", false, false, true, false, false, true,
         "transport_properties"},
        {"suffix before list suffix", false, false, false, true, true, true,
         "interface_suffix_property_name"},
    };
    PreconditionFlags restore;
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        for (int detect : {0, 1}) {
            SCOPED_TRACE(detect);
            KELLog_g_detectPrecondition = detect;
            KELLog_g_preconditionDetected = 0;
            const KEL_UINT64 breakpoints = KELLog_getAssertBreakpointCount();
            LogCapture log;
            KEL_INT32 length = 1;
            char **list = c.allocatedList ? foreign : nullptr;
            int counter = 3;
            KEL_INT32 flag = c.allocatedList ? 1 : 0;
            EXPECT_EQ(0, VESK_Transport_Support_parse_interface_list(
                             c.nullLength ? nullptr : &length, c.nullList ? nullptr : &list,
                             &counter, &flag, c.nullProperties ? nullptr : properties.get(), PREFIX,
                             c.nullSuffix ? nullptr : SINGLE, c.nullListSuffix ? nullptr : LIST));
            const auto entries = log.entries();
            ASSERT_EQ(1u, entries.size());
            EXPECT_EQ(KEL_LOG_BIT_EXCEPTION, entries[0].level);
            EXPECT_EQ(PARSE_INTERFACE_LIST, entries[0].function);
            EXPECT_EQ("KEL_LOG_PRECONDITION_FAILURE_s", entries[0].template_name);
            ASSERT_EQ(1u, entries[0].params.size());
            const std::string &condition = entries[0].params[0];
            ASSERT_GE(condition.size(), 2u);
            EXPECT_EQ('"', condition.front()) << condition;
            EXPECT_EQ('"', condition.back()) << condition;
            EXPECT_NE(std::string::npos, condition.find(c.reported)) << condition;
            EXPECT_EQ(detect, KELLog_g_preconditionDetected);
            EXPECT_EQ(breakpoints + 1, KELLog_getAssertBreakpointCount());
            // Nothing changed.
            EXPECT_EQ(1, length);
            EXPECT_EQ(c.allocatedList ? foreign : nullptr, list);
            EXPECT_STREQ("lo", foreign[0]);
            EXPECT_EQ(3, counter);
            EXPECT_EQ(c.allocatedList ? 1 : 0, flag);
        }
    }
}

TEST(InterfaceList, NeitherNamePresentLeavesEverythingAsItWas) {
    PropertyList properties{{std::string(PREFIX) + ".parent.deny_interfaces", "eth0"},
                            {"other.parent.allow_interfaces", "eth1"},
                            {SINGLE, "eth2"}};
    char *foreign[] = {const_cast<char *>("lo")};
    LogCapture log;
    const KEL_UINT64 blocks = liveHeapBlocks();
    ListState state;
    state.list = foreign;
    state.length = 1;
    EXPECT_EQ(1, state.parse(properties));
    EXPECT_EQ(foreign, state.list);
    EXPECT_EQ(1, state.length);
    EXPECT_EQ(5, state.counter);
    EXPECT_EQ(0, state.flag);
    EXPECT_EQ(blocks, liveHeapBlocks());
    EXPECT_TRUE(log.entries().empty());
}

TEST(InterfaceList, ValuesAreSplitAtCommasAndTrimmed) {
    struct Case {
        const char *name;
        std::vector<PropertyList::NameValue> properties;  // suffix, value
        std::vector<std::string> expected;
    };
    const std::vector<Case> cases = {
        {"single name, one entry", {{SINGLE, "eth0"}}, {"eth0"}},
        {"list name, one entry", {{LIST, "eth0"}}, {"eth0"}},
        {"list name, blanks around entries",
         {{LIST, "eth0, 10.0.0.1 ,lo"}},
         {"eth0", "10.0.0.1", "lo"}},
        {"single name, several entries", {{SINGLE, "eth0,eth1"}}, {"eth0", "eth1"}},
        {"single name wins over list name", {{LIST, "lo,eth1"}, {SINGLE, "eth0"}}, {"eth0"}},
        {"white space of every kind", {{SINGLE, " \teth0 \r\n"}}, {"eth0"}},
        {"inner blanks are kept", {{SINGLE, " my if "}}, {"my if"}},
        {"empty piece in the middle", {{LIST, "a,,b"}}, {"a", "", "b"}},
        {"trailing comma", {{LIST, "a,"}}, {"a", ""}},
        {"only a comma", {{LIST, ","}}, {"", ""}},
        {"only blanks between commas", {{LIST, " , "}}, {"", ""}},
        {"duplicates are kept", {{LIST, "lo,lo"}}, {"lo", "lo"}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        PropertyList properties;
        for (const auto &[suffix, value] : c.properties) properties.add(PREFIX, suffix, value);
        LogCapture log;
        ListState state;
        EXPECT_EQ(1, state.parse(properties));
        EXPECT_EQ(static_cast<KEL_INT32>(c.expected.size()), state.length);
        ASSERT_NE(nullptr, state.list);
        EXPECT_EQ(c.expected, contents(state.list, state.length));
        EXPECT_STREQ("char *", KELOsapiHeap_getBlockTypeName(state.list));
        EXPECT_EQ(VESK_TRANSPORT_HEAP_TAG, KELOsapiHeap_getBlockTag(state.list));
        EXPECT_EQ(6, state.counter);  // one property, whichever names were present
        EXPECT_EQ(1, state.flag);
        EXPECT_TRUE(log.entries().empty());
        state.release();
    }
}

TEST(InterfaceList, AValueWithoutPiecesCountsButAllocatesNothing) {
    char *foreign[] = {const_cast<char *>("lo")};
    struct Case {
        const char *name;
        std::vector<PropertyList::NameValue> properties;
        char **listBefore;
    };
    const std::vector<Case> cases = {
        {"list name, empty, null list", {{LIST, ""}}, nullptr},
        {"single name, empty, foreign list", {{SINGLE, ""}}, foreign},
        // The single-interface name wins even when empty: the list name is
        // not read.
        {"empty single name beside a list name", {{SINGLE, ""}, {LIST, "eth0"}}, nullptr},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        PropertyList properties;
        for (const auto &[suffix, value] : c.properties) properties.add(PREFIX, suffix, value);
        LogCapture log;
        const KEL_UINT64 blocks = liveHeapBlocks();
        ListState state;
        state.list = c.listBefore;
        state.length = 4;
        EXPECT_EQ(1, state.parse(properties));
        EXPECT_EQ(0, state.length);
        EXPECT_EQ(c.listBefore, state.list);
        EXPECT_EQ(6, state.counter);
        EXPECT_EQ(0, state.flag);
        EXPECT_EQ(blocks, liveHeapBlocks());
        EXPECT_TRUE(log.entries().empty());
    }
}

TEST(InterfaceList, NamesAreLookedUpUnderThePrefix) {
    struct Case {
        const char *name;
        const char *propertyName;
        const char *prefix;
        bool found;
    };
    const std::vector<Case> cases = {
        {"prefix joined with a dot", "dds.transport.UDPv4.builtin.parent.allow_interfaces",
         "dds.transport.UDPv4.builtin", true},
        {"prefix ending in a dot", "dds.transport.UDPv4.builtin.parent.allow_interfaces",
         "dds.transport.UDPv4.builtin.", true},
        {"null prefix: the suffix alone", "parent.allow_interfaces", nullptr, true},
        {"null prefix: a prefixed name is not the suffix",
         "dds.transport.UDPv4.builtin.parent.allow_interfaces", nullptr, false},
        {"prefix given: the bare suffix is not read", "parent.allow_interfaces",
         "dds.transport.UDPv4.builtin", false},
        {"another prefix", "dds.transport.UDPv6.builtin.parent.allow_interfaces",
         "dds.transport.UDPv4.builtin", false},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        PropertyList properties{{c.propertyName, "eth9"}};
        ListState state;
        EXPECT_EQ(1, state.parse(properties, c.prefix));
        if (c.found) {
            EXPECT_EQ(std::vector<std::string>{"eth9"}, contents(state.list, state.length));
            EXPECT_EQ(6, state.counter);
            EXPECT_EQ(1, state.flag);
        } else {
            EXPECT_EQ(nullptr, state.list);
            EXPECT_EQ(5, state.counter);
            EXPECT_EQ(0, state.flag);
        }
        state.release();
    }
}

TEST(InterfaceList, CounterAndFlagMayBeNull) {
    PropertyList properties{{std::string(PREFIX) + "." + LIST, "eth0,eth1"}};
    KEL_INT32 length = 0;
    char **list = nullptr;
    EXPECT_EQ(1, VESK_Transport_Support_parse_interface_list(
                     &length, &list, nullptr, nullptr, properties.get(), PREFIX, SINGLE, LIST));
    EXPECT_EQ((std::vector<std::string>{"eth0", "eth1"}), contents(list, length));
    VESK_Transport_Property_finalize_interface_list(&list, &length);

    // Without a flag there is no allocated list to protect: a second read
    // simply replaces the list.
    EXPECT_EQ(1, VESK_Transport_Support_parse_interface_list(
                     &length, &list, nullptr, nullptr, properties.get(), PREFIX, SINGLE, LIST));
    char **first = list;
    KEL_INT32 firstLength = length;
    EXPECT_EQ(1, VESK_Transport_Support_parse_interface_list(
                     &length, &list, nullptr, nullptr, properties.get(), PREFIX, SINGLE, LIST));
    VESK_Transport_Property_finalize_interface_list(&first, &firstLength);
    VESK_Transport_Property_finalize_interface_list(&list, &length);
}

TEST(InterfaceList, AListThatIsNotOursIsReplacedNotReleased) {
    char *foreign[] = {const_cast<char *>("lo"), const_cast<char *>("eth7")};
    PropertyList properties{{std::string(PREFIX) + "." + SINGLE, "eth0"}};
    ListState state;
    state.list = foreign;
    state.length = 2;
    EXPECT_EQ(1, state.parse(properties));
    EXPECT_NE(foreign, state.list);
    EXPECT_EQ(std::vector<std::string>{"eth0"}, contents(state.list, state.length));
    EXPECT_STREQ("lo", foreign[0]);
    EXPECT_STREQ("eth7", foreign[1]);
    EXPECT_EQ(1, state.flag);
    state.release();
}

// A failure releases the list in its current state. Before our array
// replaces the caller's, that is the caller's array with the caller's own
// length, never the new one (which would read past the caller's array).
TEST(InterfaceList, AFailureBeforeTheReplacementReleasesTheCallersListWhole) {
    PropertyList properties{{std::string(PREFIX) + "." + LIST, "a,b,c"}};
    bool releasedCallersList = false, keptCallersList = false;
    for (long n = 1;; ++n) {
        SCOPED_TRACE(n);
        const KEL_UINT64 before = liveHeapBlocks();
        char **callers = nullptr;
        ASSERT_TRUE(KELOsapiHeap_allocateArray(&callers, 1, char *));
        callers[0] = DDS_String_dup("eth9");
        ListState state;
        state.list = callers;
        state.length = 1;
        state.flag = 0;
        LogCapture log;
        KELOsapiHeap_failAllocationAfter(n);
        const int result = state.parse(properties);
        const bool fired = !KELOsapiHeap_isFailurePending();
        KELOsapiHeap_failAllocationAfter(0);
        if (!fired) {
            EXPECT_EQ(1, result);
            state.release();
            KEL_INT32 callersLength = 1;
            VESK_Transport_Property_finalize_interface_list(&callers, &callersLength);
            EXPECT_EQ(before, liveHeapBlocks());
            break;
        }
        EXPECT_EQ(0, result);
        EXPECT_EQ(nullptr, state.list);
        EXPECT_EQ(0, state.length);
        EXPECT_EQ(0, state.flag);
        if (liveHeapBlocks() == before) {
            releasedCallersList = true;  // the finalizer took the caller's list
        } else {
            keptCallersList = true;  // our array had replaced it: still the caller's
            KEL_INT32 callersLength = 1;
            VESK_Transport_Property_finalize_interface_list(&callers, &callersLength);
            EXPECT_EQ(before, liveHeapBlocks());
        }
    }
    EXPECT_TRUE(releasedCallersList);
    EXPECT_TRUE(keptCallersList);
}

TEST(InterfaceList, ASecondReadOfAFlaggedListIsRefusedAndKeepsTheList) {
    PropertyList properties{{std::string(PREFIX) + "." + SINGLE, "eth0,eth1"}};
    ListState state;
    ASSERT_EQ(1, state.parse(properties));
    char **first = state.list;
    LogCapture log;
    EXPECT_EQ(0, state.parse(properties));
    ASSERT_EQ(1u, log.entries().size());
    EXPECT_EQ("KEL_LOG_PRECONDITION_FAILURE_s", log.entries()[0].template_name);
    EXPECT_EQ(KEL_LOG_BIT_EXCEPTION, log.entries()[0].level);
    EXPECT_EQ(first, state.list);
    EXPECT_EQ((std::vector<std::string>{"eth0", "eth1"}), contents(state.list, state.length));
    EXPECT_EQ(6, state.counter);
    EXPECT_EQ(1, state.flag);
    state.release();
}

// The one sweep of a read: each refused allocation logs one message, leaves
// the list empty and unflagged, counts nothing and leaks nothing.
TEST(InterfaceList, EveryAllocationFailureReleasesTheList) {
    const std::string value = "eth0, eth1 ,eth2";
    PropertyList properties{{std::string(PREFIX) + "." + SINGLE, value}};
    const std::set<std::string> allowed = {
        // Found under the single-interface name, reported with the list suffix.
        message(KEL_LOG_BIT_ERROR, PARSE_INTERFACE_LIST, "KEL_LOG_PARSER_FAILURE_ss",
                {LIST, value}),
        message(KEL_LOG_BIT_ERROR, PARSE_INTERFACE_LIST, "DDS_LOG_OUT_OF_RESOURCES_s",
                {"interfaces list"}),
        message(KEL_LOG_BIT_ERROR, PARSE_INTERFACE_LIST, "DDS_LOG_OUT_OF_RESOURCES_s",
                {"interfaces_list element"}),
    };
    struct Outcome {
        ListState state;
        int result = 0;
        std::vector<std::string> lines;
    };
    std::set<std::string> seen;
    const auto summary = sweepAllocationFailures(
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
                EXPECT_EQ(6, state.counter);
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
    EXPECT_TRUE(summary.completed);
    EXPECT_EQ(allowed, seen);
    // The split (array and three pieces), the list and its three copies.
    EXPECT_EQ(8, summary.failurePoints);
}

}  // namespace
