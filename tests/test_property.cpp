// Property lists: editing them (also with every allocation failing),
// lookups with and without prefix, the validation action and the
// validation of property names.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "support/PlatformChecks.hpp"
#include "support/PropertyList.hpp"
#include "vesk_transport/platform/Property.h"

namespace {

using vesk::test::liveHeapBlocks;
using vesk::test::LogCapture;
using vesk::test::logLines;
using vesk::test::PropertyList;
using NameValues = std::vector<std::pair<std::string, std::string>>;
using Strings = std::vector<std::string>;

constexpr auto kWarning = DDS_PROPERTY_QOS_POLICY_VALIDATION_ACTION_WARNING;
constexpr auto kException = DDS_PROPERTY_QOS_POLICY_VALIDATION_ACTION_EXCEPTION;
constexpr auto kSkip = DDS_PROPERTY_QOS_POLICY_VALIDATION_ACTION_SKIP;

NameValues contents(const DDS_PropertyQosPolicy *policy) {
    NameValues out;
    for (DDS_Long i = 0; i < policy->value._length; ++i) {
        const DDS_Property_t &property = policy->value._contiguous_buffer[i];
        out.emplace_back(property.name, property.value);
    }
    return out;
}

enum class Op { Add, Assert, Remove };

DDS_ReturnCode_t edit(DDS_PropertyQosPolicy *policy, Op op, const char *name, const char *value) {
    switch (op) {
        case Op::Add:
            return DDS_PropertyQosPolicyHelper_add_property(policy, name, value, 0);
        case Op::Assert:
            return DDS_PropertyQosPolicyHelper_assert_property(policy, name, value, 1);
        default:
            return DDS_PropertyQosPolicyHelper_remove_property(policy, name);
    }
}

TEST(PropertyEdit, EditsGiveTheirCodesAndKeepTheOrder) {
    const DDS_ReturnCode_t ok = DDS_RETCODE_OK, unmet = DDS_RETCODE_PRECONDITION_NOT_MET,
                           bad = DDS_RETCODE_BAD_PARAMETER;
    const struct {
        Op op;
        const char *name, *value;
        DDS_ReturnCode_t expected;
    } rows[] = {{Op::Add, "a", "1", ok},
                {Op::Add, "b", "2", ok},
                {Op::Add, "a", "9", unmet},
                {Op::Add, "A", "3", ok},
                {Op::Assert, "b", "20", ok},
                {Op::Assert, "c", "4", ok},
                {Op::Remove, "x", nullptr, unmet},
                {Op::Remove, "a", nullptr, ok},
                {Op::Add, "a", "5", ok},
                {Op::Add, "", "", ok},
                {Op::Add, nullptr, "1", bad},
                {Op::Add, "x", nullptr, bad},
                {Op::Assert, nullptr, "1", bad},
                {Op::Assert, "a", nullptr, bad},
                {Op::Remove, nullptr, nullptr, bad}};
    const KEL_UINT64 before = liveHeapBlocks();
    PropertyList list;
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::Message() << &row - rows);
        EXPECT_EQ(edit(list.get(), row.op, row.name, row.value), row.expected);
        EXPECT_EQ(edit(nullptr, row.op, "a", "1"), bad);
    }
    EXPECT_EQ(contents(list.get()),
              (NameValues{{"b", "20"}, {"A", "3"}, {"c", "4"}, {"a", "5"}, {"", ""}}));
    EXPECT_EQ(DDS_PropertyQosPolicyHelper_get_number_of_properties(list.get()), 5);
    EXPECT_EQ(DDS_PropertyQosPolicyHelper_get_number_of_properties(nullptr), 0);
    EXPECT_TRUE(DDS_PropertyQosPolicyHelper_lookup_property(list.get(), "b")->propagate);
    EXPECT_FALSE(DDS_PropertyQosPolicyHelper_lookup_property(list.get(), "A")->propagate);
    // Heap copies (ten strings) in a heap buffer of the module.
    EXPECT_EQ(liveHeapBlocks(), before + 11);
    EXPECT_STREQ(KELOsapiHeap_getBlockTypeName(list.get()->value._contiguous_buffer),
                 "struct DDS_Property_t");
    EXPECT_EQ(KELOsapiHeap_getBlockTag(list.get()->value._contiguous_buffer),
              VESK_TRANSPORT_HEAP_TAG);
    // Growth and removals keep the order; finalize empties a reusable list.
    NameValues kept;
    for (int i = 0; i < 100; ++i) {
        const std::string name = "n" + std::to_string(i);
        ASSERT_EQ(edit(list.get(), Op::Add, name.c_str(), name.c_str()), ok);
        if (i % 3 != 0) kept.emplace_back(name, name);
    }
    for (int i = 0; i < 100; i += 3) {
        ASSERT_EQ(edit(list.get(), Op::Remove, ("n" + std::to_string(i)).c_str(), nullptr), ok);
    }
    for (const char *name : {"b", "A", "c", "a", ""}) edit(list.get(), Op::Remove, name, nullptr);
    EXPECT_EQ(contents(list.get()), kept);
    DDS_PropertyQosPolicy_finalize(list.get());
    EXPECT_EQ(liveHeapBlocks(), before);
    EXPECT_TRUE(list.get()->value._contiguous_buffer == nullptr && list.get()->value._length == 0 &&
                list.get()->value._maximum == 0);
    DDS_PropertyQosPolicy_finalize(nullptr);
    // A list whose length exceeds its room is not written to.
    DDS_Property_t slots[2] = {};
    DDS_PropertyQosPolicy corrupt = {{slots, 2, 1}};
    EXPECT_EQ(edit(&corrupt, Op::Add, "new", "v"), DDS_RETCODE_OUT_OF_RESOURCES);
    EXPECT_EQ(liveHeapBlocks(), before);
}

// Each allocation of an edit refused in turn: the list stays exactly as it
// was and nothing is left live; then the edit completes.
TEST(PropertyEdit, EveryAllocationFailureLeavesTheListUnchanged) {
    const struct {
        int held;  // properties "p0".."p<n-1>" before the edit; 4 fill the first buffer
        Op op;
        const char *name;
        long allocations;
    } rows[] = {{0, Op::Add, "new", 3},
                {2, Op::Add, "new", 2},
                {4, Op::Add, "new", 3},
                {3, Op::Assert, "p1", 1}};
    for (const auto &row : rows) {
        for (long n = 1;; ++n) {
            SCOPED_TRACE(testing::Message() << row.held << " " << row.name << " allocation " << n);
            ASSERT_LE(n, row.allocations + 1);
            PropertyList list;
            for (int i = 0; i < row.held; ++i) list.add("p" + std::to_string(i), "old");
            const DDS_PropertySeq before = list.get()->value;
            const NameValues beforeContents = contents(list.get());
            const KEL_UINT64 blocks = liveHeapBlocks();
            DDS_ReturnCode_t rc = DDS_RETCODE_ERROR;
            if (!vesk::test::refusing(n,
                                      [&] { rc = edit(list.get(), row.op, row.name, "fresh"); })) {
                EXPECT_EQ(rc, DDS_RETCODE_OK);
                EXPECT_EQ(n, row.allocations + 1);
                EXPECT_STREQ(
                    DDS_PropertyQosPolicyHelper_lookup_property(list.get(), row.name)->value,
                    "fresh");
                break;
            }
            EXPECT_EQ(rc, DDS_RETCODE_OUT_OF_RESOURCES);
            EXPECT_EQ(liveHeapBlocks(), blocks);
            EXPECT_EQ(contents(list.get()), beforeContents);
            EXPECT_TRUE(list.get()->value._contiguous_buffer == before._contiguous_buffer &&
                        list.get()->value._maximum == before._maximum);
        }
    }
}

TEST(PropertyLookup, ExactNamesAndPrefixesJoinedAsDocumented) {
    // A list built by hand may hold a name twice, and a null name.
    char n1[] = "dup", v1[] = "first", n2[] = "dup", v2[] = "second";
    DDS_Property_t buffer[] = {{nullptr, nullptr, 0}, {n1, v1, 0}, {n2, v2, 0}};
    const DDS_PropertyQosPolicy byHand = {{buffer, 3, 3}};
    EXPECT_EQ(DDS_PropertyQosPolicyHelper_lookup_property(&byHand, "dup"), &buffer[1]);
    EXPECT_EQ(DDS_PropertyQosPolicyHelper_lookup_property_with_prefix(&byHand, nullptr, "dup"),
              &buffer[1]);
    EXPECT_FALSE(DDS_PropertyQosPolicyHelper_lookup_property(&byHand, "DUP") ||
                 DDS_PropertyQosPolicyHelper_lookup_property(&byHand, nullptr) ||
                 DDS_PropertyQosPolicyHelper_lookup_property(nullptr, "dup") ||
                 DDS_PropertyQosPolicyHelper_lookup_property_with_prefix(nullptr, "a", ""));
    PropertyList list{{"dds.transport.udp.send_blocking", "1"},
                      {"send_blocking", "2"},
                      {"dds.transport.udpx.send_blocking", "3"},
                      {"dds.transport.udp..odd", "4"},
                      {"a.", "5"},
                      {"dds.transport.udp", "6"}};
    const struct {
        const char *prefix, *suffix, *expected;  // expected name; nullptr: none
    } rows[] = {{"dds.transport.udp", "send_blocking", "dds.transport.udp.send_blocking"},
                {"dds.transport.udp.", "send_blocking", "dds.transport.udp.send_blocking"},
                {nullptr, "send_blocking", "send_blocking"},
                {"", "send_blocking", "send_blocking"},
                {"dds.transport.udp", "send_blockin", nullptr},
                {"DDS.transport.udp", "send_blocking", nullptr},
                {"dds.transport.udp", ".odd", "dds.transport.udp..odd"},
                {"dds.transport.udp.", "odd", nullptr},
                {"a", "", "a."},
                {"dds.transport.udp", "", nullptr},
                {"a", nullptr, nullptr}};
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::Message() << &row - rows);
        const DDS_Property_t *found = DDS_PropertyQosPolicyHelper_lookup_property_with_prefix(
            list.get(), row.prefix, row.suffix);
        EXPECT_STREQ(found != nullptr ? found->name : nullptr, row.expected);
    }
}

TEST(PropertyValidationAction, EveryAcceptedSpellingAndNothingElse) {
    // -2: none of the three, yet within the enumeration's range.
    constexpr auto kUnchanged = static_cast<DDS_PropertyQosPolicyValidationAction>(-2);
    const std::pair<const char *, DDS_PropertyQosPolicyValidationAction> rows[] = {
        {nullptr, kUnchanged},  // no such property
        {"exception", kException},
        {"Warning", kWarning},
        {"sKiP", kSkip},
        {"DDS_PROPERTY_QOS_POLICY_VALIDATION_ACTION_EXCEPTION", kException},
        {"dds_property_qos_policy_validation_action_warning", kWarning},
        {"DDS_PROPERTY_QOS_POLICY_VALIDATION_ACTION_SKIP", kSkip},
        {"", kUnchanged},
        {"SKIPPED", kUnchanged},
        {"WARN", kUnchanged},
        {"PROPERTY_QOS_POLICY_VALIDATION_ACTION_SKIP", kUnchanged}};
    const std::string function = "DDS_PropertyQosPolicy_parse_property_validation_action ";
    for (const auto &[value, expected] : rows) {
        SCOPED_TRACE(value ? value : "(absent)");
        PropertyList list{{"other", "x"}};
        if (value != nullptr) list.add(DDS_PROPERTY_VALIDATION_ACTION_PROPERTY_NAME, value);
        LogCapture log;
        DDS_PropertyQosPolicyValidationAction action = kUnchanged;
        const bool accepted = value == nullptr || expected != kUnchanged;
        EXPECT_EQ(DDS_PropertyQosPolicy_parse_property_validation_action(&action, list.get()),
                  accepted);
        EXPECT_EQ(action, expected);
        EXPECT_EQ(logLines(log), accepted ? Strings{}
                                          : Strings{"2 " + function + "KEL_LOG_PARSER_FAILURE_ss(" +
                                                    DDS_PROPERTY_VALIDATION_ACTION_PROPERTY_NAME +
                                                    "|" + value + ")"});
    }
    PropertyList list;
    DDS_PropertyQosPolicyValidationAction action = kSkip;
    LogCapture log;
    const KEL_UINT64 breakpoints = KELLog_getAssertBreakpointCount();
    EXPECT_EQ(DDS_PropertyQosPolicy_parse_property_validation_action(nullptr, list.get()) +
                  DDS_PropertyQosPolicy_parse_property_validation_action(&action, nullptr),
              0);
    EXPECT_EQ(action, kSkip);
    const std::string precondition = "1 " + function + "KEL_LOG_PRECONDITION_FAILURE_s";
    EXPECT_EQ(logLines(log), (Strings{precondition + "(\"action_out == ((void *)0)\")",
                                      precondition + "(\"policy == ((void *)0)\")"}));
    EXPECT_EQ(KELLog_getAssertBreakpointCount(), breakpoints + 2);
}

TEST(PropertyValidation, NamesUnderThePrefixAreTestedAgainstBothLists) {
    const char *const publicSuffixes[] = {"a", "b.c", nullptr};
    const char *const privateSuffixes[] = {"secret", nullptr};
    const struct {
        Strings names;
        const char *prefix;
        DDS_PropertyQosPolicyValidationAction action;
        Strings unknown;  // in order; the result is 0 when any under EXCEPTION
    } rows[] = {
        {{"a", "b.c", "secret"}, nullptr, kException, {}},
        {{"p.a", "p.b.c", "p.secret", "q.x", "px.a", "p", "other"}, "p", kException, {}},
        {{"p.a", "p.x"}, "p.", kException, {"p.x"}},
        {{"a", "p.a", "x"}, "", kException, {"p.a", "x"}},
        {{"p.A", "p.secrets", "p.a ", "p."}, "p", kException, {"p.A", "p.secrets", "p.a ", "p."}},
        {{"prefix", DDS_PROPERTY_VALIDATION_ACTION_PROPERTY_NAME, "p.a"}, "p", kException, {}},
        {{"p.prefix", "prefix.a"}, "p", kException, {"p.prefix"}},
        {{"p.x", "p.a", "p.y"}, "p", kWarning, {"p.x", "p.y"}},
        {{"p.x", "y"}, "p", kSkip, {}}};
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.names));
        PropertyList list;
        for (const std::string &name : row.names) list.add(name, "v");
        const int expected = row.action == kException && !row.unknown.empty() ? 0 : 1;
        Strings expectedLog;
        for (const std::string &name : row.unknown) {
            expectedLog.push_back(std::to_string(row.action == kWarning ? 4 : 2) +
                                  " DDS_PropertyQosPolicy_validate_plugin_property_suffixes "
                                  "KEL_LOG_UNKNOWN_PROPERTY_s(" +
                                  name + ")");
        }
        for (const bool withOutput : {true, false}) {
            LogCapture log;
            DDS_StringSeq unknown = DDS_SEQUENCE_INITIALIZER;
            EXPECT_EQ(DDS_PropertyQosPolicy_validate_plugin_property_suffixes(
                          list.get(), row.prefix, publicSuffixes, privateSuffixes,
                          withOutput ? &unknown : nullptr, row.action),
                      expected);
            EXPECT_EQ(logLines(log), expectedLog);
            Strings unknownNames;
            for (DDS_Long i = 0; i < unknown._length; ++i) {
                unknownNames.emplace_back(DDS_StringSeq_get(&unknown, i));
            }
            EXPECT_EQ(unknownNames, withOutput ? row.unknown : Strings{});
            DDS_StringSeq_finalize(&unknown);
        }
    }
    // Null suffix lists accept nothing; a null list is a precondition failure.
    PropertyList list{{"a", "1"}, {"prefix", "p"}};
    LogCapture log;
    EXPECT_EQ(DDS_PropertyQosPolicy_validate_plugin_property_suffixes(list.get(), nullptr, nullptr,
                                                                      nullptr, nullptr, kException),
              0);
    EXPECT_EQ(DDS_PropertyQosPolicy_validate_plugin_property_suffixes(
                  nullptr, nullptr, publicSuffixes, privateSuffixes, nullptr, kWarning),
              0);
    EXPECT_EQ(DDS_PropertyQosPolicy_validate_plugin_property_suffixes(
                  nullptr, nullptr, publicSuffixes, privateSuffixes, nullptr, kSkip),
              1);
    EXPECT_EQ(log.summary(),
              (Strings{"KEL_LOG_UNKNOWN_PROPERTY_s(a)",
                       "KEL_LOG_PRECONDITION_FAILURE_s(\"policy == ((void *)0)\")"}));
    // An unknown name that cannot be handed back fails even under WARNING.
    LogCapture quiet(VESK_CONFIG_LOG_VERBOSITY_SILENT);
    PropertyList oneUnknown{{"x", "1"}, {"a", "2"}};
    for (long n = 1; n <= 4; ++n) {
        DDS_StringSeq unknown = DDS_SEQUENCE_INITIALIZER;
        int result = -1;
        const bool refused = vesk::test::refusing(n, [&] {
            result = DDS_PropertyQosPolicy_validate_plugin_property_suffixes(
                oneUnknown.get(), "", publicSuffixes, privateSuffixes, &unknown, kWarning);
        });
        EXPECT_EQ(result, refused ? 0 : 1) << n;
        EXPECT_EQ(unknown._length, refused ? 0 : 1) << n;
        DDS_StringSeq_finalize(&unknown);
    }
}

}  // namespace
