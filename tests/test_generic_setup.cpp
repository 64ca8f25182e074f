// The generic part of every transport record: the order of reads, the
// keywords and their case rules, ranges, counting, the thread-name prefix,
// the GUID prefix, the four interface lists, what a failure leaves
// allocated, and the cleanup.

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
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
using vesk::test::differingFields;
using vesk::test::liveHeapBlocks;
using vesk::test::LogCapture;
using vesk::test::message;
using vesk::test::PARENT_SETUP;
using vesk::test::PARSE_INTERFACE_LIST;
using vesk::test::PropertyList;
using vesk::test::renderFlags;
using vesk::test::sweepAllocationFailures;
using vesk::test::SweepStep;

using Generic = VESK_Transport_Property_t;
using Flags = VESK_Transport_internalMemoryAllocations;

constexpr const char *PREFIX = "dds.transport.UDPv4.builtin";
constexpr KEL_UINT32 ERROR = KEL_LOG_BIT_ERROR;

// A generic record as a factory hands it in (the UDPv4 defaults), with
// its allocations record; the generic cleanup runs at the end.
struct GenericRecord {
    Generic record = VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT.parent;
    Flags flags{};
    ~GenericRecord() { VESK_Transport_cleanupParentTransportProperty(&record, &flags); }
    int setup(const PropertyList &properties, const char *prefix = PREFIX) {
        return VESK_Transport_setupParentTransportProperty(&record, &flags, properties.get(),
                                                           prefix);
    }
};

// The generic record compared through the UDP record's field list.
std::vector<std::string> differences(const Generic &expected, const Generic &actual) {
    VESK_Transport_UDP_Property_t left = VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT;
    VESK_Transport_UDP_Property_t right = VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT;
    left.parent = expected;
    right.parent = actual;
    return differingFields(left, right);
}

char DEFAULT_THREAD_NAME_PREFIX[] = "rTr#####";

std::string uuidOf(KEL_UINT32 host, KEL_UINT32 app, KEL_UINT32 instance) {
    const KELOsapiRtpsGuidPrefix prefix{host, app, instance};
    return std::string(reinterpret_cast<const char *>(&prefix), sizeof prefix);
}

std::string uuidOf(const Generic &record) {
    return std::string(reinterpret_cast<const char *>(record.transport_uuid.value),
                       sizeof record.transport_uuid.value);
}

std::vector<std::string> contents(char **list, KEL_INT32 length) {
    std::vector<std::string> out;
    if (list == nullptr) return out;
    for (KEL_INT32 i = 0; i < length; ++i)
        out.emplace_back(list[i] == nullptr ? "(null)" : list[i]);
    return out;
}

TEST(GenericSetup, AnEmptyListKeepsEveryDefaultAndGivesTheDefaultThreadNamePrefix) {
    for (const char *prefix : {PREFIX, static_cast<const char *>(nullptr)}) {
        SCOPED_TRACE(prefix == nullptr ? "null prefix" : prefix);
        PropertyList properties;
        LogCapture log;
        GenericRecord run;
        EXPECT_EQ(0, run.setup(properties, prefix));
        Generic expected = VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT.parent;
        expected.thread_name_prefix = DEFAULT_THREAD_NAME_PREFIX;
        EXPECT_EQ(std::vector<std::string>{}, differences(expected, run.record));
        EXPECT_EQ("0,0,0,0,0,0", renderFlags(run.flags));
        EXPECT_TRUE(log.entries().empty());
        VESK_Transport_cleanupParentTransportProperty(&run.record, &run.flags);
        EXPECT_EQ(nullptr, run.record.thread_name_prefix);
    }
}

// One good value per property: the field takes it, nothing else changes,
// it counts once, nothing is logged.
TEST(GenericSetup, EachGoodValueSetsItsFieldAndCountsOnce) {
    struct Case {
        const char *suffix;
        const char *value;
        std::function<void(Generic &)> start;   // the record before the setup
        std::function<void(Generic &)> expect;  // what the value changes
    };
    const auto none = [](Generic &) {};
    const auto bitmap5 = [](Generic &r) { r.properties_bitmap = 5; };
    const auto size1000 = [](Generic &r) { r.message_size_max = 1000; };
    const auto count7 = [](Generic &r) { r.max_interface_count = 7; };
    const std::vector<Case> cases = {
        {"parent.classid", "2", none, [](Generic &r) { r.classid = 2; }},
        {"parent.classid", "0x01000001", none, [](Generic &r) { r.classid = 0x01000001; }},
        {"parent.classid", "16777216", none, [](Generic &r) { r.classid = 0x01000000; }},
        {"parent.address_bit_count", "-128", none, [](Generic &r) { r.address_bit_count = -128; }},
        {"parent.address_bit_count", "128", none, [](Generic &r) { r.address_bit_count = 128; }},
        {"parent.address_bit_count", "0", none, [](Generic &r) { r.address_bit_count = 0; }},
        {"parent.address_bit_count", "96", none, [](Generic &r) { r.address_bit_count = 96; }},
        // The bitmap is replaced, not combined with its earlier bits.
        {"parent.properties_bitmap", "TRANSPORT_PROPERTY_BIT_BUFFER_ALWAYS_LOANED", bitmap5,
         [](Generic &r) { r.properties_bitmap = 2; }},
        {"parent.properties_bitmap", "VESK_TRANSPORT_PROPERTY_BIT_BUFFER_ALWAYS_LOANED", bitmap5,
         [](Generic &r) { r.properties_bitmap = 2; }},
        {"parent.properties_bitmap", "TRANSPORT_PROPERTY_BITMAP_DEFAULT", bitmap5,
         [](Generic &r) { r.properties_bitmap = 0; }},
        {"parent.properties_bitmap", "VESK_TRANSPORT_PROPERTIES_BITMAP_DEFAULT", bitmap5,
         [](Generic &r) { r.properties_bitmap = 0; }},
        {"parent.properties_bitmap", "6", bitmap5, [](Generic &r) { r.properties_bitmap = 6; }},
        {"parent.gather_send_buffer_count_max", "-3", none,
         [](Generic &r) { r.gather_send_buffer_count_max = -3; }},
        {"parent.gather_send_buffer_count_max", "1024", none,
         [](Generic &r) { r.gather_send_buffer_count_max = 1024; }},
        // Every keyword means 65507, in any letter case, whatever the class.
        {"parent.message_size_max", "UDPV4_MESSAGE_SIZE_MAX_DEFAULT", size1000,
         [](Generic &r) { r.message_size_max = 65507; }},
        {"parent.message_size_max", "VESK_TRANSPORT_UDPV4_MESSAGE_SIZE_MAX_DEFAULT", size1000,
         [](Generic &r) { r.message_size_max = 65507; }},
        {"parent.message_size_max", "UDPV4_PAYLOAD_SIZE_MAX", size1000,
         [](Generic &r) { r.message_size_max = 65507; }},
        {"parent.message_size_max", "VESK_TRANSPORT_UDPV4_PAYLOAD_SIZE_MAX", size1000,
         [](Generic &r) { r.message_size_max = 65507; }},
        {"parent.message_size_max", "udpv4_payload_size_max", size1000,
         [](Generic &r) { r.message_size_max = 65507; }},
        {"parent.message_size_max", "Vesk_Transport_Udpv4_Message_Size_Max_Default", size1000,
         [](Generic &r) { r.message_size_max = 65507; }},
        {"parent.message_size_max", "udpv4_message_size_max_default",
         [](Generic &r) { r.message_size_max = 65487; },
         [](Generic &r) { r.message_size_max = 65507; }},
        {"parent.message_size_max", "1400", none, [](Generic &r) { r.message_size_max = 1400; }},
        {"parent.max_interface_count", "DDS_LENGTH_UNLIMITED", count7,
         [](Generic &r) { r.max_interface_count = DDS_LENGTH_UNLIMITED; }},
        {"parent.max_interface_count", "LENGTH_UNLIMITED", count7,
         [](Generic &r) { r.max_interface_count = DDS_LENGTH_UNLIMITED; }},
        {"parent.max_interface_count", "length_unlimited", count7,
         [](Generic &r) { r.max_interface_count = DDS_LENGTH_UNLIMITED; }},
        {"parent.max_interface_count", "Dds_Length_Unlimited", count7,
         [](Generic &r) { r.max_interface_count = DDS_LENGTH_UNLIMITED; }},
        {"parent.max_interface_count", "4", count7, [](Generic &r) { r.max_interface_count = 4; }},
        {"participant_guid_prefix", "1,2,3", none,
         [](Generic &r) {
             const std::string uuid = uuidOf(1, 2, 3);
             std::memcpy(r.transport_uuid.value, uuid.data(), uuid.size());
         }},
        {"participant_guid_prefix", "0x10,20,4294967295", none,
         [](Generic &r) {
             const std::string uuid = uuidOf(16, 20, 4294967295u);
             std::memcpy(r.transport_uuid.value, uuid.data(), uuid.size());
         }},
        // 32 characters: the longest value that fits.
        {"participant_guid_prefix", "0000000001,0000000002,0000000003", none,
         [](Generic &r) {
             const std::string uuid = uuidOf(1, 2, 3);
             std::memcpy(r.transport_uuid.value, uuid.data(), uuid.size());
         }},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.suffix) + " = " + c.value);
        PropertyList properties;
        properties.add(PREFIX, c.suffix, c.value);
        LogCapture log;
        GenericRecord run;
        c.start(run.record);
        Generic expected = run.record;
        c.expect(expected);
        expected.thread_name_prefix = DEFAULT_THREAD_NAME_PREFIX;
        EXPECT_EQ(1, run.setup(properties));
        EXPECT_EQ(std::vector<std::string>{}, differences(expected, run.record));
        EXPECT_EQ("0,0,0,0,0,0", renderFlags(run.flags));
        EXPECT_TRUE(log.entries().empty());
    }
}

TEST(GenericSetup, ClassNamesAreClassIds) {
    ASSERT_NE(nullptr, VESK_TRANSPORT_CLASS_NAMES[0].name);
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

// One bad value per property: -1, the exact message, the field as it was,
// and nothing read after it.
TEST(GenericSetup, EachBadValueFailsWithItsMessage) {
    struct Case {
        const char *suffix;
        std::string value;
        std::vector<std::string> expected;  // messages
    };
    const auto parser = [](const char *suffix, const std::string &value) {
        return std::vector<std::string>{
            message(ERROR, PARENT_SETUP, "KEL_LOG_PARSER_FAILURE_ss", {suffix, value})};
    };
    const auto range = std::vector<std::string>{
        message(ERROR, PARENT_SETUP, "KEL_LOG_PARSER_VALUE_OUT_OF_RANGE_ss",
                {"parent.address_bit_count", "[-128, 128]"})};
    std::vector<Case> cases;
    for (const char *value : {"abc", "", "1.5"}) {
        cases.push_back({"parent.classid", value, parser("parent.classid", value)});
    }
    for (const char *value : {"x", "12abc", ""}) {
        cases.push_back(
            {"parent.address_bit_count", value, parser("parent.address_bit_count", value)});
    }
    for (const char *value : {"-129", "129", "1000", "-2147483648"}) {
        cases.push_back({"parent.address_bit_count", value, range});
    }
    // Exact comparison: another letter case, PROPERTY for PROPERTIES, or a
    // blank more is not a name, and then not a number either.
    for (const char *value :
         {"transport_property_bit_buffer_always_loaned", "Vesk_Transport_Properties_Bitmap_Default",
          "VESK_TRANSPORT_PROPERTY_BITMAP_DEFAULT", "TRANSPORT_PROPERTY_BIT_BUFFER_ALWAYS_LOANED ",
          "two"}) {
        cases.push_back(
            {"parent.properties_bitmap", value, parser("parent.properties_bitmap", value)});
    }
    for (const char *value : {"1.5", "", "many"}) {
        cases.push_back({"parent.gather_send_buffer_count_max", value,
                         parser("parent.gather_send_buffer_count_max", value)});
    }
    // Only the whole keyword matches.
    for (const char *value : {"UDPV4_PAYLOAD_SIZE", "UDPV4_PAYLOAD_SIZE_MAXX", "big"}) {
        cases.push_back(
            {"parent.message_size_max", value, parser("parent.message_size_max", value)});
    }
    for (const char *value : {"UNLIMITED", "DDS_LENGTH_UNLIMITEDX", "none"}) {
        cases.push_back(
            {"parent.max_interface_count", value, parser("parent.max_interface_count", value)});
    }
    for (const char *value : {"1,2", "1;2;3", "1,x,3", "a,2,3", "1,2,", "1,2,3,4", "1,2,-3", ""}) {
        cases.push_back(
            {"participant_guid_prefix", value, parser("participant_guid_prefix", value)});
    }
    cases.push_back(
        {"participant_guid_prefix",
         "00000000001,0000000002,0000000003",
         {message(ERROR, PARENT_SETUP, "KEL_LOG_INSUFFICIENT_SPACE_FAILURE_dd", {"33", "34"})}});
    cases.push_back(
        {"participant_guid_prefix",
         std::string(40, '1'),
         {message(ERROR, PARENT_SETUP, "KEL_LOG_INSUFFICIENT_SPACE_FAILURE_dd", {"33", "41"})}});

    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.suffix) + " = '" + c.value + "'");
        PropertyList properties;
        properties.add(PREFIX, c.suffix, c.value);
        LogCapture log;
        GenericRecord run;
        Generic expected = run.record;
        // The thread-name step comes before the GUID prefix and the
        // interface count.
        const bool afterThreadName = std::strcmp(c.suffix, "participant_guid_prefix") == 0 ||
                                     std::strcmp(c.suffix, "parent.max_interface_count") == 0;
        if (afterThreadName) expected.thread_name_prefix = DEFAULT_THREAD_NAME_PREFIX;
        EXPECT_EQ(-1, run.setup(properties));
        EXPECT_EQ(c.expected, describeAll(log));
        std::vector<std::string> changed = differences(expected, run.record);
        // Whether an out-of-range number reaches the field before the range
        // test refuses it is open.
        if (c.expected[0].find("OUT_OF_RANGE") != std::string::npos) {
            std::erase(changed, "parent.address_bit_count");
        }
        EXPECT_EQ(std::vector<std::string>{}, changed);
    }
}

TEST(GenericSetup, TheFirstBadValueEndsTheSetupAndEarlierFieldsStay) {
    PropertyList properties;
    properties.add(PREFIX, "parent.classid", "2")
        .add(PREFIX, "parent.address_bit_count", "64")
        .add(PREFIX, "parent.gather_send_buffer_count_max", "lots")
        .add(PREFIX, "parent.message_size_max", "1400")
        .add(PREFIX, "parent.allow_interfaces", "eth0")
        .add(PREFIX, "parent.thread_name_prefix", "abc")
        .add(PREFIX, "parent.max_interface_count", "3");
    LogCapture log;
    GenericRecord run;
    Generic expected = run.record;
    expected.classid = 2;
    expected.address_bit_count = 64;
    EXPECT_EQ(-1, run.setup(properties));
    EXPECT_EQ(std::vector<std::string>{}, differences(expected, run.record));
    EXPECT_EQ("0,0,0,0,0,0", renderFlags(run.flags));
    EXPECT_EQ(1u, log.entries().size());
}

TEST(GenericSetup, ThreadNamePrefix) {
    struct Case {
        const char *name;
        std::vector<PropertyList::NameValue> properties;  // suffix, value
        int result;
        const char *prefix;  // expected thread_name_prefix
        std::vector<std::string> expected;
    };
    const std::vector<Case> cases = {
        {"absent: the default, not counted", {}, 0, "rTr#####", {}},
        {"parent name of 10 characters is truncated",
         {{"parent.thread_name_prefix", "abcdefghij"}},
         1,
         "abcdefgh",
         {message(KEL_LOG_BIT_WARN, PARENT_SETUP, "KEL_LOG_TRUNCATED_STRING_sds",
                  {"abcdefghij", "8", "abcdefgh"})}},
        {"parent name of 9 characters is truncated",
         {{"parent.thread_name_prefix", "worker-01"}},
         1,
         "worker-0",
         {message(KEL_LOG_BIT_WARN, PARENT_SETUP, "KEL_LOG_TRUNCATED_STRING_sds",
                  {"worker-01", "8", "worker-0"})}},
        {"parent name of exactly 8 characters",
         {{"parent.thread_name_prefix", "abcdefgh"}},
         1,
         "abcdefgh",
         {}},
        {"parent name empty", {{"parent.thread_name_prefix", ""}}, 1, "", {}},
        {"short name of 8 characters", {{"thread_name_prefix", "worker01"}}, 1, "worker01", {}},
        {"short name empty", {{"thread_name_prefix", ""}}, 1, "", {}},
        {"both: only the parent name is read",
         {{"thread_name_prefix", "other"}, {"parent.thread_name_prefix", "short"}},
         1,
         "short",
         {}},
        {"both too long: the short one is not read",
         {{"thread_name_prefix", "123456789"}, {"parent.thread_name_prefix", "abcdefghi"}},
         1,
         "abcdefgh",
         {message(KEL_LOG_BIT_WARN, PARENT_SETUP, "KEL_LOG_TRUNCATED_STRING_sds",
                  {"abcdefghi", "8", "abcdefgh"})}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        PropertyList properties;
        for (const auto &[suffix, value] : c.properties) properties.add(PREFIX, suffix, value);
        LogCapture log;
        GenericRecord run;
        EXPECT_EQ(c.result, run.setup(properties));
        ASSERT_NE(nullptr, run.record.thread_name_prefix);
        EXPECT_STREQ(c.prefix, run.record.thread_name_prefix);
        EXPECT_EQ(c.expected, describeAll(log));
        VESK_Transport_cleanupParentTransportProperty(&run.record, &run.flags);
        EXPECT_EQ(nullptr, run.record.thread_name_prefix);
    }
}

TEST(GenericSetup, AShortThreadNamePrefixOfNineCharactersIsAPreconditionFailure) {
    PropertyList properties;
    properties.add(PREFIX, "thread_name_prefix", "123456789")
        .add(PREFIX, "participant_guid_prefix", "1,2,3");
    const int detect = KELLog_g_detectPrecondition;
    const int detected = KELLog_g_preconditionDetected;
    KELLog_g_detectPrecondition = 1;
    KELLog_g_preconditionDetected = 0;
    const KEL_UINT64 breakpoints = KELLog_getAssertBreakpointCount();
    LogCapture log;
    GenericRecord run;
    EXPECT_EQ(-1, run.setup(properties));
    EXPECT_EQ(nullptr, run.record.thread_name_prefix);
    EXPECT_EQ(uuidOf(0, 0, 0), uuidOf(run.record));  // not read
    const auto entries = log.entries();
    ASSERT_EQ(1u, entries.size());
    EXPECT_EQ(KEL_LOG_BIT_EXCEPTION, entries[0].level);
    EXPECT_EQ(PARENT_SETUP, entries[0].function);
    EXPECT_EQ("KEL_LOG_PRECONDITION_FAILURE_s", entries[0].template_name);
    ASSERT_EQ(1u, entries[0].params.size());
    const std::string &condition = entries[0].params[0];
    ASSERT_GE(condition.size(), 2u);
    EXPECT_EQ('"', condition.front());
    EXPECT_EQ('"', condition.back());
    EXPECT_NE(std::string::npos, condition.find("thread_name_prefix")) << condition;
    EXPECT_EQ(1, KELLog_g_preconditionDetected);
    EXPECT_EQ(breakpoints + 1, KELLog_getAssertBreakpointCount());
    KELLog_g_detectPrecondition = detect;
    KELLog_g_preconditionDetected = detected;
}

struct ListNames {
    const char *single;
    const char *list;
    char **Generic::*field;
    KEL_INT32 Generic::*length;
    const char *flags;  // the flags after reading only this list
};

const std::vector<ListNames> &interfaceLists() {
    static const std::vector<ListNames> lists = {
        {"parent.allow_interfaces", "parent.allow_interfaces_list", &Generic::allow_interfaces_list,
         &Generic::allow_interfaces_list_length, "1,0,0,0,0,0"},
        {"parent.deny_interfaces", "parent.deny_interfaces_list", &Generic::deny_interfaces_list,
         &Generic::deny_interfaces_list_length, "0,1,0,0,0,0"},
        {"parent.allow_multicast_interfaces", "parent.allow_multicast_interfaces_list",
         &Generic::allow_multicast_interfaces_list,
         &Generic::allow_multicast_interfaces_list_length, "0,0,1,0,0,0"},
        {"parent.deny_multicast_interfaces", "parent.deny_multicast_interfaces_list",
         &Generic::deny_multicast_interfaces_list, &Generic::deny_multicast_interfaces_list_length,
         "0,0,0,1,0,0"},
    };
    return lists;
}

TEST(GenericSetup, EachInterfaceListIsReadIntoItsFieldAndFlag) {
    for (const ListNames &names : interfaceLists()) {
        SCOPED_TRACE(names.single);
        struct Case {
            const char *name;
            std::vector<PropertyList::NameValue> properties;
            std::vector<std::string> expected;
        };
        const std::vector<Case> cases = {
            {"single name", {{names.single, "eth0, 10.0.0.1"}}, {"eth0", "10.0.0.1"}},
            {"list name", {{names.list, " lo "}}, {"lo"}},
            {"both names count once", {{names.list, "lo,eth1"}, {names.single, "eth0"}}, {"eth0"}},
        };
        for (const Case &c : cases) {
            SCOPED_TRACE(c.name);
            PropertyList properties;
            for (const auto &[suffix, value] : c.properties) properties.add(PREFIX, suffix, value);
            LogCapture log;
            GenericRecord run;
            EXPECT_EQ(1, run.setup(properties));
            EXPECT_EQ(c.expected, contents(run.record.*names.field, run.record.*names.length));
            EXPECT_EQ(names.flags, renderFlags(run.flags));
            EXPECT_TRUE(log.entries().empty());
            Generic expected = VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT.parent;
            expected.*names.field = run.record.*names.field;
            expected.*names.length = static_cast<KEL_INT32>(c.expected.size());
            expected.thread_name_prefix = DEFAULT_THREAD_NAME_PREFIX;
            EXPECT_EQ(std::vector<std::string>{}, differences(expected, run.record));
            VESK_Transport_cleanupParentTransportProperty(&run.record, &run.flags);
            EXPECT_EQ(nullptr, run.record.*names.field);
            EXPECT_EQ(0, run.record.*names.length);
            EXPECT_EQ(names.flags, renderFlags(run.flags));  // the cleanup clears no flag
        }
    }
}

TEST(GenericSetup, TheResultCountsEveryPropertyPresentAndAppliedOnce) {
    struct Case {
        const char *name;
        bool bothListNames;
        const char *prefix;
    };
    for (const Case &c :
         {Case{"one name per list", false, PREFIX}, Case{"both names per list", true, PREFIX},
          Case{"null prefix", true, nullptr}}) {
        SCOPED_TRACE(c.name);
        const std::string prefix = c.prefix == nullptr ? "" : c.prefix;
        PropertyList properties;
        properties.add(prefix, "parent.classid", "1")
            .add(prefix, "parent.address_bit_count", "32")
            .add(prefix, "parent.properties_bitmap", "TRANSPORT_PROPERTY_BITMAP_DEFAULT")
            .add(prefix, "parent.gather_send_buffer_count_max", "8")
            .add(prefix, "parent.message_size_max", "8192")
            .add(prefix, "parent.thread_name_prefix", "abc")
            .add(prefix, "participant_guid_prefix", "1,2,3")
            .add(prefix, "parent.max_interface_count", "LENGTH_UNLIMITED")
            // Names that the generic setup does not know are ignored.
            .add(prefix, "send_blocking", "0")
            .add(prefix, "parent.unknown", "1");
        for (const ListNames &names : interfaceLists()) {
            properties.add(prefix, names.single, "eth0,eth1");
            if (c.bothListNames) properties.add(prefix, names.list, "lo");
        }
        LogCapture log;
        GenericRecord run;
        EXPECT_EQ(12, run.setup(properties, c.prefix));
        EXPECT_EQ("1,1,1,1,0,0", renderFlags(run.flags));
        for (const ListNames &names : interfaceLists()) {
            EXPECT_EQ((std::vector<std::string>{"eth0", "eth1"}),
                      contents(run.record.*names.field, run.record.*names.length));
        }
        EXPECT_EQ(8192, run.record.message_size_max);
        EXPECT_STREQ("abc", run.record.thread_name_prefix);
        EXPECT_EQ(uuidOf(1, 2, 3), uuidOf(run.record));
        EXPECT_TRUE(log.entries().empty());
    }
}

// The deny list fails (its record still holds a flagged list): the allow
// list read before stays allocated and flagged, the thread-name prefix is
// as the caller set it, and the cleanup releases both lists.
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
    const auto entries = log.entries();
    ASSERT_EQ(2u, entries.size());
    EXPECT_EQ(KEL_LOG_BIT_EXCEPTION, entries[0].level);
    EXPECT_EQ(PARSE_INTERFACE_LIST, entries[0].function);
    EXPECT_EQ("KEL_LOG_PRECONDITION_FAILURE_s", entries[0].template_name);
    EXPECT_EQ(
        message(ERROR, PARENT_SETUP, "KEL_LOG_PARSER_FAILURE_s", {"parent.deny_interfaces_list"}),
        vesk::test::describe(entries[1]));
    EXPECT_EQ("1,1,0,0,0,0", renderFlags(run.flags));
    EXPECT_EQ((std::vector<std::string>{"eth0", "eth1"}),
              contents(run.record.allow_interfaces_list, run.record.allow_interfaces_list_length));
    EXPECT_EQ(std::vector<std::string>{"eth9"},
              contents(run.record.deny_interfaces_list, run.record.deny_interfaces_list_length));
    EXPECT_EQ(nullptr, run.record.thread_name_prefix);
    VESK_Transport_cleanupParentTransportProperty(&run.record, &run.flags);
    EXPECT_EQ(nullptr, run.record.allow_interfaces_list);
    EXPECT_EQ(nullptr, run.record.deny_interfaces_list);
}

TEST(GenericSetup, ASecondSetupWithoutCleanupFailsAtTheFirstFlaggedList) {
    PropertyList properties;
    properties.add(PREFIX, "parent.classid", "2")
        .add(PREFIX, "parent.allow_multicast_interfaces", "eth0")
        .add(PREFIX, "parent.deny_multicast_interfaces", "eth1");
    GenericRecord run;
    ASSERT_EQ(3, run.setup(properties));
    char *const threadNamePrefix = run.record.thread_name_prefix;
    LogCapture log;
    EXPECT_EQ(-1, run.setup(properties));
    const auto lines = describeAll(log);
    ASSERT_EQ(2u, lines.size());
    EXPECT_EQ(message(ERROR, PARENT_SETUP, "KEL_LOG_PARSER_FAILURE_s",
                      {"parent.allow_multicast_interfaces_list"}),
              lines[1]);
    EXPECT_EQ("0,0,1,1,0,0", renderFlags(run.flags));
    EXPECT_EQ(std::vector<std::string>{"eth0"},
              contents(run.record.allow_multicast_interfaces_list,
                       run.record.allow_multicast_interfaces_list_length));
    EXPECT_EQ(threadNamePrefix, run.record.thread_name_prefix);
}

// The one sweep of the generic setup, with all four lists and a prefix to
// truncate. A failed setup logs the reason, then names the list or
// thread-name step; every list is flagged exactly when it is held; a failure
// in the deny list leaves the allow list whole; no failure leaves a prefix;
// the cleanup releases everything.
TEST(GenericSetup, EveryAllocationFailureLeavesOnlyFlaggedMembersBehind) {
    PropertyList properties;
    for (const ListNames &names : interfaceLists()) properties.add(PREFIX, names.list, "a, b");
    properties.add(PREFIX, "parent.thread_name_prefix", "abcdefghij");
    auto listFailure = [](const char *list) {
        return message(ERROR, PARENT_SETUP, "KEL_LOG_PARSER_FAILURE_s", {list});
    };
    const std::set<std::string> listFailures = {
        listFailure("parent.allow_interfaces_list"),
        listFailure("parent.deny_interfaces_list"),
        listFailure("parent.allow_multicast_interfaces_list"),
        listFailure("parent.deny_multicast_interfaces_list"),
    };
    const std::string truncationFailure = message(ERROR, PARENT_SETUP, "KEL_LOG_ANY_FAILURE_s",
                                                  {"truncate parent.thread_name_prefix"});
    struct Outcome {
        Generic record = VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT.parent;
        Flags flags{};
        int result = 0;
        std::vector<std::string> lines;
    };
    std::set<std::string> seen;
    const auto summary = sweepAllocationFailures(
        [&] {
            LogCapture log;
            Outcome outcome;
            outcome.result = VESK_Transport_setupParentTransportProperty(
                &outcome.record, &outcome.flags, properties.get(), PREFIX);
            outcome.lines = describeAll(log);
            return outcome;
        },
        [&](const SweepStep &step, Outcome &run) {
            if (!step.failed) {
                EXPECT_EQ(5, run.result);
                EXPECT_EQ("1,1,1,1,0,0", renderFlags(run.flags));
                return;
            }
            EXPECT_EQ(-1, run.result);
            // The prefix is the last step: no failure leaves one.
            EXPECT_EQ(nullptr, run.record.thread_name_prefix);
            for (const ListNames &names : interfaceLists()) {
                SCOPED_TRACE(names.list);
                // A list that is held is whole, and flagged.
                if (run.record.*names.field != nullptr) {
                    EXPECT_EQ((std::vector<std::string>{"a", "b"}),
                              contents(run.record.*names.field, run.record.*names.length));
                }
            }
            EXPECT_EQ(run.record.allow_interfaces_list != nullptr,
                      run.flags._allowInterfacesListAllocated != 0);
            EXPECT_EQ(run.record.deny_interfaces_list != nullptr,
                      run.flags._denyInterfacesListAllocated != 0);
            EXPECT_EQ(run.record.allow_multicast_interfaces_list != nullptr,
                      run.flags._allowMulticastInterfacesListAllocated != 0);
            EXPECT_EQ(run.record.deny_multicast_interfaces_list != nullptr,
                      run.flags._denyMulticastInterfacesListAllocated != 0);
            ASSERT_GE(run.lines.size(), 1u);
            const std::string &last = run.lines.back();
            EXPECT_NE(std::string::npos, last.find(PARENT_SETUP)) << last;
            if (listFailures.count(last)) {
                ASSERT_EQ(2u, run.lines.size());
                EXPECT_NE(std::string::npos, run.lines[0].find(PARSE_INTERFACE_LIST))
                    << run.lines[0];
            }
            if (last == listFailure("parent.deny_interfaces_list")) {
                EXPECT_EQ("1,0,0,0,0,0", renderFlags(run.flags));
                EXPECT_EQ(2, run.record.allow_interfaces_list_length);
            }
            seen.insert(last);
        },
        [](Outcome &run) {
            VESK_Transport_cleanupParentTransportProperty(&run.record, &run.flags);
        });
    EXPECT_TRUE(summary.completed);
    for (const std::string &expected : listFailures) EXPECT_TRUE(seen.count(expected)) << expected;
    EXPECT_TRUE(seen.count(truncationFailure));
}

TEST(GenericSetup, CleanupReleasesOnlyFlaggedListsAndAnyThreadNamePrefix) {
    VESK_Transport_cleanupParentTransportProperty(nullptr, nullptr);

    char *foreign[] = {const_cast<char *>("lo")};
    Generic record = VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT.parent;
    Flags flags{};
    record.allow_interfaces_list = foreign;
    record.allow_interfaces_list_length = 1;
    record.deny_multicast_interfaces_list = foreign;
    record.deny_multicast_interfaces_list_length = 1;
    record.thread_name_prefix = DDS_String_dup("mine");
    VESK_Transport_cleanupParentTransportProperty(&record, &flags);
    EXPECT_EQ(foreign, record.allow_interfaces_list);
    EXPECT_EQ(1, record.allow_interfaces_list_length);
    EXPECT_EQ(foreign, record.deny_multicast_interfaces_list);
    EXPECT_EQ(nullptr, record.thread_name_prefix);
    // A second cleanup finds nothing more to release.
    VESK_Transport_cleanupParentTransportProperty(&record, &flags);
    EXPECT_EQ(foreign, record.allow_interfaces_list);
}

TEST(GenericSetup, WithANullPrefixTheBareNamesAreReadAndNothingIsValidated) {
    PropertyList properties{{"parent.message_size_max", "9000"},
                            {"dds.transport.UDPv4.builtin.parent.classid", "2"},
                            {"completely.unknown", "1"},
                            {"prefix", "dds.transport.UDPv4.builtin"}};
    LogCapture log;
    GenericRecord run;
    EXPECT_EQ(1, run.setup(properties, nullptr));
    EXPECT_EQ(9000, run.record.message_size_max);
    EXPECT_EQ(1, run.record.classid);
    EXPECT_TRUE(log.entries().empty());
}

}  // namespace
