// Property lists: building and releasing them, lookups, the validation
// action and the validation of property names.

#include <gtest/gtest.h>

#include <initializer_list>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "support/TestSupport.hpp"
#include "vesk_transport/platform/Heap.h"
#include "vesk_transport/platform/Log.h"
#include "vesk_transport/platform/Property.h"
#include "vesk_transport/platform/StringSeq.h"

namespace {

using vesk::test::liveHeapBlocks;
using vesk::test::LogCapture;

using NameValue = std::pair<std::string, std::string>;

// A list that releases itself.
struct List {
    DDS_PropertyQosPolicy policy = DDS_PropertyQosPolicy_INITIALIZER;
    List() = default;
    List(std::initializer_list<NameValue> properties) {
        for (const auto &[name, value] : properties) {
            EXPECT_EQ(DDS_RETCODE_OK, DDS_PropertyQosPolicyHelper_add_property(
                                          &policy, name.c_str(), value.c_str(), DDS_BOOLEAN_FALSE));
        }
    }
    ~List() { DDS_PropertyQosPolicy_finalize(&policy); }
    List(const List &) = delete;
    List &operator=(const List &) = delete;

    std::vector<NameValue> contents() const {
        std::vector<NameValue> out;
        for (DDS_Long i = 0; i < policy.value._length; ++i) {
            const DDS_Property_t &property = policy.value._contiguous_buffer[i];
            out.emplace_back(property.name, property.value);
        }
        return out;
    }
};

// An owning string sequence that releases itself.
struct Names {
    DDS_StringSeq seq = DDS_SEQUENCE_INITIALIZER;
    ~Names() { DDS_StringSeq_finalize(&seq); }
    std::vector<std::string> contents() const {
        std::vector<std::string> out;
        for (DDS_Long i = 0; i < DDS_StringSeq_get_length(&seq); ++i) {
            out.emplace_back(DDS_StringSeq_get(&seq, i));
        }
        return out;
    }
};

KEL_UINT64 totalAllocations() {
    KELOsapiHeapStatistics statistics{};
    KELOsapiHeap_getStatistics(&statistics);
    return statistics.total_allocations;
}

// ---------------------------------------------------------------------------
// add, assert, remove
// ---------------------------------------------------------------------------

enum class Op { Add, Assert, Remove };

struct EditRow {
    Op op;
    const char *name;
    const char *value;
    DDS_ReturnCode_t expected;
};

TEST(PropertyEdit, SequenceOfEditsGivesExpectedCodesAndContents) {
    const std::vector<EditRow> rows = {
        {Op::Add, "a", "1", DDS_RETCODE_OK},
        {Op::Add, "b", "2", DDS_RETCODE_OK},
        {Op::Add, "a", "9", DDS_RETCODE_PRECONDITION_NOT_MET},
        {Op::Add, "A", "3", DDS_RETCODE_OK},  // names are case-sensitive
        {Op::Assert, "b", "20", DDS_RETCODE_OK},
        {Op::Assert, "c", "4", DDS_RETCODE_OK},
        {Op::Remove, "x", nullptr, DDS_RETCODE_PRECONDITION_NOT_MET},
        {Op::Remove, "a", nullptr, DDS_RETCODE_OK},
        {Op::Remove, "a", nullptr, DDS_RETCODE_PRECONDITION_NOT_MET},
        {Op::Add, "a", "5", DDS_RETCODE_OK},
        {Op::Add, "", "", DDS_RETCODE_OK},  // an empty name is still a name
    };
    List list;
    for (size_t i = 0; i < rows.size(); ++i) {
        SCOPED_TRACE("row " + std::to_string(i));
        const EditRow &row = rows[i];
        DDS_ReturnCode_t rc = DDS_RETCODE_ERROR;
        switch (row.op) {
            case Op::Add:
                rc = DDS_PropertyQosPolicyHelper_add_property(&list.policy, row.name, row.value,
                                                              DDS_BOOLEAN_FALSE);
                break;
            case Op::Assert:
                rc = DDS_PropertyQosPolicyHelper_assert_property(&list.policy, row.name, row.value,
                                                                 DDS_BOOLEAN_TRUE);
                break;
            case Op::Remove:
                rc = DDS_PropertyQosPolicyHelper_remove_property(&list.policy, row.name);
                break;
        }
        EXPECT_EQ(row.expected, rc);
    }
    // Removal keeps the order of the others; assert replaces in place.
    const std::vector<NameValue> expected = {
        {"b", "20"}, {"A", "3"}, {"c", "4"}, {"a", "5"}, {"", ""}};
    EXPECT_EQ(expected, list.contents());
    EXPECT_EQ(5, DDS_PropertyQosPolicyHelper_get_number_of_properties(&list.policy));
    EXPECT_TRUE(DDS_PropertyQosPolicyHelper_lookup_property(&list.policy, "b")->propagate);
    EXPECT_FALSE(DDS_PropertyQosPolicyHelper_lookup_property(&list.policy, "A")->propagate);
}

TEST(PropertyEdit, NullArgumentsAreBadParameters) {
    List list{{"a", "1"}};
    DDS_PropertyQosPolicy *p = &list.policy;
    const std::vector<std::pair<const char *, DDS_ReturnCode_t>> rows = {
        {"add null policy",
         DDS_PropertyQosPolicyHelper_add_property(nullptr, "x", "1", DDS_BOOLEAN_FALSE)},
        {"add null name",
         DDS_PropertyQosPolicyHelper_add_property(p, nullptr, "1", DDS_BOOLEAN_FALSE)},
        {"add null value",
         DDS_PropertyQosPolicyHelper_add_property(p, "x", nullptr, DDS_BOOLEAN_FALSE)},
        {"assert null policy",
         DDS_PropertyQosPolicyHelper_assert_property(nullptr, "a", "1", DDS_BOOLEAN_FALSE)},
        {"assert null name",
         DDS_PropertyQosPolicyHelper_assert_property(p, nullptr, "1", DDS_BOOLEAN_FALSE)},
        {"assert null value on existing name",
         DDS_PropertyQosPolicyHelper_assert_property(p, "a", nullptr, DDS_BOOLEAN_FALSE)},
        {"remove null policy", DDS_PropertyQosPolicyHelper_remove_property(nullptr, "a")},
        {"remove null name", DDS_PropertyQosPolicyHelper_remove_property(p, nullptr)},
    };
    for (const auto &[label, rc] : rows) {
        SCOPED_TRACE(label);
        EXPECT_EQ(DDS_RETCODE_BAD_PARAMETER, rc);
    }
    EXPECT_EQ((std::vector<NameValue>{{"a", "1"}}), list.contents());
    EXPECT_EQ(0, DDS_PropertyQosPolicyHelper_get_number_of_properties(nullptr));
    DDS_PropertyQosPolicy_finalize(nullptr);
}

TEST(PropertyEdit, ListHoldsHeapCopiesInAHeapBuffer) {
    std::string name = "dds.transport.x";
    std::string value = "17";
    const KEL_UINT64 before = liveHeapBlocks();
    List list;
    ASSERT_EQ(DDS_RETCODE_OK, DDS_PropertyQosPolicyHelper_add_property(
                                  &list.policy, name.c_str(), value.c_str(), DDS_BOOLEAN_FALSE));
    const DDS_Property_t &stored = list.policy.value._contiguous_buffer[0];
    EXPECT_NE(name.c_str(), stored.name);
    EXPECT_NE(value.c_str(), stored.value);
    name[0] = 'X';
    value[0] = '9';
    EXPECT_STREQ("dds.transport.x", stored.name);
    EXPECT_STREQ("17", stored.value);
    EXPECT_STREQ("struct DDS_Property_t",
                 KELOsapiHeap_getBlockTypeName(list.policy.value._contiguous_buffer));
    EXPECT_EQ(VESK_TRANSPORT_HEAP_TAG,
              KELOsapiHeap_getBlockTag(list.policy.value._contiguous_buffer));
    EXPECT_EQ(before + 3, liveHeapBlocks());  // the buffer and two strings
}

TEST(PropertyEdit, FinalizeReleasesEverythingAndLeavesAnEmptyList) {
    const KEL_UINT64 before = liveHeapBlocks();
    DDS_PropertyQosPolicy policy = DDS_PropertyQosPolicy_INITIALIZER;
    for (int i = 0; i < 10; ++i) {
        const std::string name = "p" + std::to_string(i);
        ASSERT_EQ(DDS_RETCODE_OK, DDS_PropertyQosPolicyHelper_add_property(&policy, name.c_str(),
                                                                           "v", DDS_BOOLEAN_FALSE));
    }
    EXPECT_EQ(before + 21, liveHeapBlocks());  // 20 strings and the buffer
    DDS_PropertyQosPolicy_finalize(&policy);
    EXPECT_EQ(before, liveHeapBlocks());
    EXPECT_EQ(nullptr, policy.value._contiguous_buffer);
    EXPECT_EQ(0, policy.value._length);
    EXPECT_EQ(0, policy.value._maximum);
    // A finalized list can be used again.
    EXPECT_EQ(DDS_RETCODE_OK,
              DDS_PropertyQosPolicyHelper_add_property(&policy, "a", "b", DDS_BOOLEAN_FALSE));
    DDS_PropertyQosPolicy_finalize(&policy);
}

TEST(PropertyEdit, ManyPropertiesKeepTheirOrderAcrossGrowthAndRemoval) {
    List list;
    std::vector<NameValue> expected;
    for (int i = 0; i < 100; ++i) {
        const std::string name = "n" + std::to_string(i);
        const std::string value = "v" + std::to_string(i);
        ASSERT_EQ(DDS_RETCODE_OK,
                  DDS_PropertyQosPolicyHelper_add_property(&list.policy, name.c_str(),
                                                           value.c_str(), DDS_BOOLEAN_FALSE));
        expected.emplace_back(name, value);
    }
    for (int i = 0; i < 100; i += 3) {
        const std::string name = "n" + std::to_string(i);
        ASSERT_EQ(DDS_RETCODE_OK,
                  DDS_PropertyQosPolicyHelper_remove_property(&list.policy, name.c_str()));
    }
    std::vector<NameValue> kept;
    for (size_t i = 0; i < expected.size(); ++i) {
        if (i % 3 != 0) kept.push_back(expected[i]);
    }
    EXPECT_EQ(kept, list.contents());
    EXPECT_GE(list.policy.value._maximum, list.policy.value._length);
}

// ---------------------------------------------------------------------------
// Exhausted memory: every edit either completes or changes nothing.
// ---------------------------------------------------------------------------

struct Snapshot {
    DDS_Property_t *buffer;
    DDS_Long length;
    DDS_Long maximum;
    std::vector<NameValue> contents;
    std::vector<DDS_Boolean> propagate;
    bool operator==(const Snapshot &) const = default;
};

Snapshot snapshotOf(const List &list) {
    Snapshot s{list.policy.value._contiguous_buffer,
               list.policy.value._length,
               list.policy.value._maximum,
               list.contents(),
               {}};
    for (DDS_Long i = 0; i < list.policy.value._length; ++i) {
        s.propagate.push_back(list.policy.value._contiguous_buffer[i].propagate);
    }
    return s;
}

struct OomRow {
    const char *label;
    int initial_count;  // properties "p0".."p<n-1>" in the list before the edit
    Op op;
    const char *name;
};

TEST(PropertyEdit, AllocationFailuresLeaveTheListUnchanged) {
    // 4 properties fill the first buffer, so the add must grow it.
    const std::vector<OomRow> rows = {
        {"add to an empty list", 0, Op::Add, "new"},
        {"add without growth", 2, Op::Add, "new"},
        {"add with growth", 4, Op::Add, "new"},
        {"assert a new name", 4, Op::Assert, "new"},
        {"assert an existing name", 3, Op::Assert, "p1"},
    };
    for (const OomRow &row : rows) {
        SCOPED_TRACE(row.label);
        List list;
        for (int i = 0; i < row.initial_count; ++i) {
            const std::string name = "p" + std::to_string(i);
            ASSERT_EQ(DDS_RETCODE_OK, DDS_PropertyQosPolicyHelper_add_property(
                                          &list.policy, name.c_str(), "old", DDS_BOOLEAN_FALSE));
        }
        const Snapshot before = snapshotOf(list);
        const KEL_UINT64 blocks = liveHeapBlocks();
        int failures = 0;
        for (long n = 1;; ++n) {
            SCOPED_TRACE("failing allocation " + std::to_string(n));
            ASSERT_LT(n, 10) << "the edit never succeeded";
            KELOsapiHeap_failAllocationAfter(n);
            const DDS_ReturnCode_t rc =
                row.op == Op::Add ? DDS_PropertyQosPolicyHelper_add_property(
                                        &list.policy, row.name, "fresh", DDS_BOOLEAN_TRUE)
                                  : DDS_PropertyQosPolicyHelper_assert_property(
                                        &list.policy, row.name, "fresh", DDS_BOOLEAN_TRUE);
            const bool injected = KELOsapiHeap_isFailurePending() == 0;
            KELOsapiHeap_failAllocationAfter(0);
            if (rc == DDS_RETCODE_OK) {
                EXPECT_FALSE(injected) << "succeeded although an allocation failed";
                break;
            }
            ++failures;
            EXPECT_EQ(DDS_RETCODE_OUT_OF_RESOURCES, rc);
            EXPECT_TRUE(snapshotOf(list) == before);
            EXPECT_EQ(blocks, liveHeapBlocks());
        }
        EXPECT_GE(failures, 1);
        const DDS_Property_t *property =
            DDS_PropertyQosPolicyHelper_lookup_property(&list.policy, row.name);
        ASSERT_NE(nullptr, property);
        EXPECT_STREQ("fresh", property->value);
        EXPECT_TRUE(property->propagate);
    }
}

// ---------------------------------------------------------------------------
// Lookups
// ---------------------------------------------------------------------------

TEST(PropertyLookup, ExactNameFindsTheFirstMatch) {
    // A list built by hand may hold a name twice.
    char n1[] = "dup", v1[] = "first", n2[] = "dup", v2[] = "second", n3[] = "Dup", v3[] = "x";
    DDS_Property_t buffer[] = {{n1, v1, 0}, {nullptr, nullptr, 0}, {n2, v2, 0}, {n3, v3, 0}};
    const DDS_PropertyQosPolicy policy = {{buffer, 4, 4}};
    EXPECT_EQ(&buffer[0], DDS_PropertyQosPolicyHelper_lookup_property(&policy, "dup"));
    EXPECT_EQ(&buffer[3], DDS_PropertyQosPolicyHelper_lookup_property(&policy, "Dup"));
    EXPECT_EQ(nullptr, DDS_PropertyQosPolicyHelper_lookup_property(&policy, "DUP"));
    EXPECT_EQ(nullptr, DDS_PropertyQosPolicyHelper_lookup_property(&policy, "du"));
    EXPECT_EQ(nullptr, DDS_PropertyQosPolicyHelper_lookup_property(&policy, nullptr));
    EXPECT_EQ(nullptr, DDS_PropertyQosPolicyHelper_lookup_property(nullptr, "dup"));
    EXPECT_EQ(&buffer[0],
              DDS_PropertyQosPolicyHelper_lookup_property_with_prefix(&policy, nullptr, "dup"));
}

struct PrefixRow {
    const char *prefix;
    const char *suffix;
    const char *expected_name;  // nullptr: not found
};

TEST(PropertyLookup, PrefixAndSuffixJoinAsDocumented) {
    List list{{"dds.transport.udp.send_blocking", "1"},
              {"send_blocking", "2"},
              {"dds.transport.udpx.send_blocking", "3"},
              {"dds.transport.udp..odd", "4"},
              {"a.", "5"},
              {"dds.transport.udp", "6"}};
    const std::vector<PrefixRow> rows = {
        {"dds.transport.udp", "send_blocking", "dds.transport.udp.send_blocking"},
        {"dds.transport.udp.", "send_blocking", "dds.transport.udp.send_blocking"},
        {nullptr, "send_blocking", "send_blocking"},
        {"", "send_blocking", "send_blocking"},
        {"dds.transport", "udp.send_blocking", "dds.transport.udp.send_blocking"},
        {"dds.transport.udpx", "send_blocking", "dds.transport.udpx.send_blocking"},
        {"dds.transport.ud", "send_blocking", nullptr},
        {"dds.transport.udp", "send_blockin", nullptr},
        {"dds.transport.udp", "Send_Blocking", nullptr},
        {"DDS.transport.udp", "send_blocking", nullptr},
        {"dds.transport.udp.", ".odd", "dds.transport.udp..odd"},
        {"dds.transport.udp", ".odd", "dds.transport.udp..odd"},
        {"dds.transport.udp.", "odd", nullptr},
        {"a", "", "a."},
        {"a.", "", "a."},
        {"dds.transport", "udp", "dds.transport.udp"},
        {"dds.transport.udp", "", nullptr},
        {nullptr, "dds.transport.udp", "dds.transport.udp"},
        {"dds.transport.udp.send_blocking", "", nullptr},
    };
    const KEL_UINT64 allocations = totalAllocations();
    for (const PrefixRow &row : rows) {
        SCOPED_TRACE(std::string(row.prefix ? row.prefix : "(null)") + " + " + row.suffix);
        const DDS_Property_t *found = DDS_PropertyQosPolicyHelper_lookup_property_with_prefix(
            &list.policy, row.prefix, row.suffix);
        if (row.expected_name == nullptr) {
            EXPECT_EQ(nullptr, found);
        } else {
            ASSERT_NE(nullptr, found);
            EXPECT_STREQ(row.expected_name, found->name);
        }
    }
    EXPECT_EQ(allocations, totalAllocations()) << "a lookup allocated";
    EXPECT_EQ(nullptr,
              DDS_PropertyQosPolicyHelper_lookup_property_with_prefix(&list.policy, "a", nullptr));
    EXPECT_EQ(nullptr, DDS_PropertyQosPolicyHelper_lookup_property_with_prefix(nullptr, "a", ""));
}

// ---------------------------------------------------------------------------
// The validation action
// ---------------------------------------------------------------------------

struct ActionRow {
    const char *value;  // nullptr: no such property
    int expected_result;
    std::optional<DDS_PropertyQosPolicyValidationAction> expected_action;  // unset: unchanged
};

TEST(PropertyValidationAction, ParsesEveryAcceptedSpellingAndRejectsTheRest) {
    // Rows that set nothing are run from two different starting values.
    constexpr std::optional<DDS_PropertyQosPolicyValidationAction> kUnset;
    const std::vector<ActionRow> rows = {
        {nullptr, 1, kUnset},
        {"EXCEPTION", 1, DDS_PROPERTY_QOS_POLICY_VALIDATION_ACTION_EXCEPTION},
        {"exception", 1, DDS_PROPERTY_QOS_POLICY_VALIDATION_ACTION_EXCEPTION},
        {"Warning", 1, DDS_PROPERTY_QOS_POLICY_VALIDATION_ACTION_WARNING},
        {"sKiP", 1, DDS_PROPERTY_QOS_POLICY_VALIDATION_ACTION_SKIP},
        {"DDS_PROPERTY_QOS_POLICY_VALIDATION_ACTION_EXCEPTION", 1,
         DDS_PROPERTY_QOS_POLICY_VALIDATION_ACTION_EXCEPTION},
        {"dds_property_qos_policy_validation_action_warning", 1,
         DDS_PROPERTY_QOS_POLICY_VALIDATION_ACTION_WARNING},
        {"DDS_PROPERTY_QOS_POLICY_VALIDATION_ACTION_SKIP", 1,
         DDS_PROPERTY_QOS_POLICY_VALIDATION_ACTION_SKIP},
        {"", 0, kUnset},
        {"SKIPPED", 0, kUnset},
        {" SKIP", 0, kUnset},
        {"WARN", 0, kUnset},
        {"1", 0, kUnset},
        {"-1", 0, kUnset},
        {"PROPERTY_QOS_POLICY_VALIDATION_ACTION_SKIP", 0, kUnset},
    };
    for (const ActionRow &row : rows) {
        SCOPED_TRACE(row.value ? row.value : "(absent)");
        List list{{"other", "x"}};
        if (row.value != nullptr) {
            ASSERT_EQ(DDS_RETCODE_OK,
                      DDS_PropertyQosPolicyHelper_add_property(
                          &list.policy, DDS_PROPERTY_VALIDATION_ACTION_PROPERTY_NAME, row.value,
                          DDS_BOOLEAN_FALSE));
        }
        for (const auto start : {DDS_PROPERTY_QOS_POLICY_VALIDATION_ACTION_WARNING,
                                 DDS_PROPERTY_QOS_POLICY_VALIDATION_ACTION_SKIP}) {
            SCOPED_TRACE("starting from " + std::to_string(start));
            LogCapture log;
            DDS_PropertyQosPolicyValidationAction action = start;
            EXPECT_EQ(row.expected_result, DDS_PropertyQosPolicy_parse_property_validation_action(
                                               &action, &list.policy));
            EXPECT_EQ(row.expected_action.value_or(start), action);
            const auto entries = log.entries();
            if (row.expected_result == 1) {
                EXPECT_TRUE(entries.empty());
                continue;
            }
            ASSERT_EQ(1u, entries.size());
            EXPECT_EQ(
                vesk::test::summarize("KEL_LOG_PARSER_FAILURE_ss",
                                      {DDS_PROPERTY_VALIDATION_ACTION_PROPERTY_NAME, row.value}),
                log.summary()[0]);
            EXPECT_EQ(static_cast<KEL_UINT32>(KEL_LOG_BIT_ERROR), entries[0].level);
            EXPECT_EQ("DDS_PropertyQosPolicy_parse_property_validation_action",
                      entries[0].function);
            EXPECT_EQ(static_cast<KEL_UINT32>(VESK_TRANSPORT_LOG_MODULE_ID), entries[0].module_id);
        }
    }
}

TEST(PropertyValidationAction, NullArgumentsArePreconditionFailures) {
    List list;
    DDS_PropertyQosPolicyValidationAction action = DDS_PROPERTY_QOS_POLICY_VALIDATION_ACTION_SKIP;
    LogCapture log;
    const KEL_UINT64 breakpoints = KELLog_getAssertBreakpointCount();
    EXPECT_EQ(0, DDS_PropertyQosPolicy_parse_property_validation_action(nullptr, &list.policy));
    EXPECT_EQ(0, DDS_PropertyQosPolicy_parse_property_validation_action(&action, nullptr));
    EXPECT_EQ(DDS_PROPERTY_QOS_POLICY_VALIDATION_ACTION_SKIP, action);
    EXPECT_EQ(
        (std::vector<std::string>{"KEL_LOG_PRECONDITION_FAILURE_s(\"action_out == ((void *)0)\")",
                                  "KEL_LOG_PRECONDITION_FAILURE_s(\"policy == ((void *)0)\")"}),
        log.summary());
    EXPECT_EQ(breakpoints + 2, KELLog_getAssertBreakpointCount());
}

// ---------------------------------------------------------------------------
// Validation of property names
// ---------------------------------------------------------------------------

const char *const kPublic[] = {"a", "b.c", nullptr};
const char *const kPrivate[] = {"secret", nullptr};

struct ValidateRow {
    const char *label;
    std::vector<std::string> names;
    const char *prefix;
    DDS_PropertyQosPolicyValidationAction action;
    int expected_result;
    std::vector<std::string> expected_unknown;
};

TEST(PropertyValidation, TestsNamesUnderThePrefixAgainstBothLists) {
    constexpr auto kWarning = DDS_PROPERTY_QOS_POLICY_VALIDATION_ACTION_WARNING;
    constexpr auto kException = DDS_PROPERTY_QOS_POLICY_VALIDATION_ACTION_EXCEPTION;
    constexpr auto kSkip = DDS_PROPERTY_QOS_POLICY_VALIDATION_ACTION_SKIP;
    const std::vector<ValidateRow> rows = {
        {"all known, no prefix", {"a", "b.c", "secret"}, nullptr, kException, 1, {}},
        {"all known under prefix", {"p.a", "p.b.c", "p.secret"}, "p", kException, 1, {}},
        {"prefix with trailing dot", {"p.a", "p.x"}, "p.", kException, 0, {"p.x"}},
        {"names outside the prefix are not tested",
         {"q.x", "px.a", "p", "other"},
         "p",
         kException,
         1,
         {}},
        {"empty prefix tests every name", {"a", "p.a", "x"}, "", kException, 0, {"p.a", "x"}},
        {"null prefix tests every name", {"x", "a"}, nullptr, kWarning, 1, {"x"}},
        {"exact and case-sensitive",
         {"p.A", "p.b", "p.secrets", "p.a "},
         "p",
         kException,
         0,
         {"p.A", "p.b", "p.secrets", "p.a "}},
        {"empty suffix is unknown", {"p."}, "p", kException, 0, {"p."}},
        {"always accepted whole names",
         {"prefix", DDS_PROPERTY_VALIDATION_ACTION_PROPERTY_NAME},
         nullptr,
         kException,
         1,
         {}},
        {"always accepted whatever the prefix",
         {"prefix", DDS_PROPERTY_VALIDATION_ACTION_PROPERTY_NAME, "p.a"},
         "p",
         kException,
         1,
         {}},
        {"accepted names only as whole names",
         {"p.prefix", "prefix.a"},
         "p",
         kException,
         0,
         {"p.prefix"}},
        {"warning reports all and succeeds",
         {"p.x", "p.a", "p.y"},
         "p",
         kWarning,
         1,
         {"p.x", "p.y"}},
        {"exception reports all and fails",
         {"p.x", "p.a", "p.y"},
         "p",
         kException,
         0,
         {"p.x", "p.y"}},
        {"skip tests nothing", {"p.x", "y"}, "p", kSkip, 1, {}},
        {"empty list", {}, "p", kException, 1, {}},
    };
    for (const ValidateRow &row : rows) {
        SCOPED_TRACE(row.label);
        List list;
        for (const std::string &name : row.names) {
            ASSERT_EQ(DDS_RETCODE_OK, DDS_PropertyQosPolicyHelper_add_property(
                                          &list.policy, name.c_str(), "v", DDS_BOOLEAN_FALSE));
        }
        LogCapture log;
        Names unknown;
        EXPECT_EQ(row.expected_result,
                  DDS_PropertyQosPolicy_validate_plugin_property_suffixes(
                      &list.policy, row.prefix, kPublic, kPrivate, &unknown.seq, row.action));
        EXPECT_EQ(row.expected_unknown, unknown.contents());
        const auto entries = log.entries();
        ASSERT_EQ(row.expected_unknown.size(), entries.size());
        const KEL_UINT32 level = row.action == kWarning ? KEL_LOG_BIT_WARN : KEL_LOG_BIT_ERROR;
        for (size_t i = 0; i < entries.size(); ++i) {
            EXPECT_EQ("KEL_LOG_UNKNOWN_PROPERTY_s", entries[i].template_name);
            EXPECT_EQ(std::vector<std::string>{row.expected_unknown[i]}, entries[i].params);
            EXPECT_EQ(level, entries[i].level);
            EXPECT_EQ("DDS_PropertyQosPolicy_validate_plugin_property_suffixes",
                      entries[i].function);
        }
        // Without an output sequence the result and the messages are the same.
        LogCapture quiet;
        EXPECT_EQ(row.expected_result,
                  DDS_PropertyQosPolicy_validate_plugin_property_suffixes(
                      &list.policy, row.prefix, kPublic, kPrivate, nullptr, row.action));
        EXPECT_EQ(row.expected_unknown.size(), quiet.entries().size());
    }
}

TEST(PropertyValidation, NullSuffixListsAcceptNothingAndNullPolicyFails) {
    List list{{"a", "1"}, {"prefix", "p"}};
    LogCapture log;
    EXPECT_EQ(0, DDS_PropertyQosPolicy_validate_plugin_property_suffixes(
                     &list.policy, nullptr, nullptr, nullptr, nullptr,
                     DDS_PROPERTY_QOS_POLICY_VALIDATION_ACTION_EXCEPTION));
    EXPECT_EQ(std::vector<std::string>{"KEL_LOG_UNKNOWN_PROPERTY_s(a)"}, log.summary());
    log.clear();
    EXPECT_EQ(0, DDS_PropertyQosPolicy_validate_plugin_property_suffixes(
                     nullptr, nullptr, kPublic, kPrivate, nullptr,
                     DDS_PROPERTY_QOS_POLICY_VALIDATION_ACTION_WARNING));
    EXPECT_EQ(std::vector<std::string>{"KEL_LOG_PRECONDITION_FAILURE_s(\"policy == ((void *)0)\")"},
              log.summary());
    EXPECT_EQ(1, DDS_PropertyQosPolicy_validate_plugin_property_suffixes(
                     nullptr, nullptr, kPublic, kPrivate, nullptr,
                     DDS_PROPERTY_QOS_POLICY_VALIDATION_ACTION_SKIP));
}

TEST(PropertyValidation, AFailedAppendOfAnUnknownNameFailsEvenUnderWarning) {
    List list{{"x", "1"}, {"a", "2"}, {"y", "3"}};
    LogCapture log;
    int failures = 0;
    for (long n = 1;; ++n) {
        SCOPED_TRACE("failing allocation " + std::to_string(n));
        ASSERT_LT(n, 20) << "validation never succeeded";
        Names unknown;
        KELOsapiHeap_failAllocationAfter(n);
        const int result = DDS_PropertyQosPolicy_validate_plugin_property_suffixes(
            &list.policy, nullptr, kPublic, kPrivate, &unknown.seq,
            DDS_PROPERTY_QOS_POLICY_VALIDATION_ACTION_WARNING);
        const bool injected = KELOsapiHeap_isFailurePending() == 0;
        KELOsapiHeap_failAllocationAfter(0);
        if (!injected) {
            EXPECT_EQ(1, result);
            EXPECT_EQ((std::vector<std::string>{"x", "y"}), unknown.contents());
            break;
        }
        ++failures;
        EXPECT_EQ(0, result);
    }
    EXPECT_GE(failures, 1);
}

}  // namespace
