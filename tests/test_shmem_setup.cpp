// The shared-memory property setup: the generic part and name validation,
// the settings read in their fixed order, the UDP debugging switch, the
// format version, the unit-test switch, the host id and shared-memory
// address in every branch, counting, failures and the cleanup.

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "support/PropertyList.hpp"
#include "support/SetupChecks.hpp"
#include "support/ShmemRecords.hpp"
#include "support/TestSupport.hpp"
#include "vesk_transport/PropertyTables.hpp"
#include "vesk_transport/Support.h"
#include "vesk_transport/platform/ConfiguratorUtil.h"
#include "vesk_transport/platform/Host.h"
#include "vesk_transport/platform/SocketUtil.h"

namespace {

using vesk::test::differences;
using vesk::test::field;
using vesk::test::ownFields;
using vesk::test::render;
using vesk::test::ShmemField;

using vesk::test::describeAll;
using vesk::test::liveHeapBlocks;
using vesk::test::LogCapture;
using vesk::test::message;
using vesk::test::PARENT_SETUP;
using vesk::test::PropertyList;
using vesk::test::renderBytes;
using vesk::test::renderFlags;

using Shmem = VESK_Transport_Shmem_Property_t;
using Flags = VESK_Transport_internalMemoryAllocations;
using Bytes = std::array<unsigned char, 16>;
using NameValues = std::vector<std::pair<std::string, std::string>>;

constexpr const char *SHMEM_SETUP = "VESK_Transport_setupShmemProperty";
constexpr const char *VALIDATE = "DDS_PropertyQosPolicy_validate_plugin_property_suffixes";
constexpr const char *PARSE_ACTION = "DDS_PropertyQosPolicy_parse_property_validation_action";
constexpr KEL_UINT32 ERROR = KEL_LOG_BIT_ERROR;
constexpr KEL_UINT32 WARN = KEL_LOG_BIT_WARN;
constexpr int NO_POLICY = -1;
constexpr KEL_UINT32 GENERATOR_HOST_ID = 0x0C0D0E0F;
constexpr KEL_UINT32 GENERATOR_MAC_HOST_ID = 0x22334455;

// ---------------------------------------------------------------------------
// Records
// ---------------------------------------------------------------------------

// A record as the factory hands it in, with its allocations record; the
// cleanup runs at the end.
struct ShmemRecord {
    Shmem record = VESK_TRANSPORT_SHMEM_PROPERTY_DEFAULT;
    Flags flags{};
    ~ShmemRecord() { VESK_Transport_cleanupShmemProperty(&record, &flags); }
    int setup(const PropertyList &properties, const DDS_WireProtocolQosPolicy *policy = nullptr,
              DDS_RtpsAppIdGenerator *generator = nullptr,
              const DDS_ProductVersion_t *minimum = nullptr) {
        return VESK_Transport_setupShmemProperty(&record, &flags, properties.get(), policy,
                                                 generator, minimum);
    }
};

void addAll(PropertyList &list, const NameValues &properties) {
    for (const auto &[name, value] : properties) list.add(name, value);
}

// ---------------------------------------------------------------------------
// Platform switches, restored when the test ends
// ---------------------------------------------------------------------------

class ForcedRobustMutex {
public:
    explicit ForcedRobustMutex(int mode) { KELOsapiSharedMemorySemMutex_forceRobustMutex(mode); }
    ~ForcedRobustMutex() { KELOsapiSharedMemorySemMutex_forceRobustMutex(-1); }
    ForcedRobustMutex(const ForcedRobustMutex &) = delete;
    ForcedRobustMutex &operator=(const ForcedRobustMutex &) = delete;
};

class UniqueIdOverride {
public:
    explicit UniqueIdOverride(const Bytes &bytes) {
        KELOsapiHostId id;
        std::memcpy(id.value, bytes.data(), bytes.size());
        KELOsapiHost_setUniqueIdOverride(&id);
    }
    ~UniqueIdOverride() { KELOsapiHost_setUniqueIdOverride(nullptr); }
    UniqueIdOverride(const UniqueIdOverride &) = delete;
    UniqueIdOverride &operator=(const UniqueIdOverride &) = delete;
};

// A generator that answers fixed host ids instead of reading the host.
class Generator {
public:
    Generator() : generator_(DDS_RtpsAppIdGenerator_new()) {
        EXPECT_NE(nullptr, generator_);
        DDS_RtpsAppIdGenerator_set_host_ids(generator_, GENERATOR_HOST_ID, GENERATOR_MAC_HOST_ID);
    }
    ~Generator() { DDS_RtpsAppIdGenerator_delete(generator_); }
    Generator(const Generator &) = delete;
    Generator &operator=(const Generator &) = delete;
    DDS_RtpsAppIdGenerator *get() const { return generator_; }

private:
    DDS_RtpsAppIdGenerator *generator_;
};

// ---------------------------------------------------------------------------
// Addresses
// ---------------------------------------------------------------------------

// The default address: class id, host id, app id 0, instance id 0, each in
// network order.
std::string generated(KEL_UINT32 classid, KEL_UINT32 hostId) {
    const unsigned char bytes[16] = {static_cast<unsigned char>(classid >> 24),
                                     static_cast<unsigned char>(classid >> 16),
                                     static_cast<unsigned char>(classid >> 8),
                                     static_cast<unsigned char>(classid),
                                     static_cast<unsigned char>(hostId >> 24),
                                     static_cast<unsigned char>(hostId >> 16),
                                     static_cast<unsigned char>(hostId >> 8),
                                     static_cast<unsigned char>(hostId),
                                     0,
                                     0,
                                     0,
                                     0,
                                     0,
                                     0,
                                     0,
                                     0};
    return renderBytes(bytes, sizeof bytes);
}

std::string shmemGenerated(KEL_UINT32 hostId) {
    return generated(VESK_TRANSPORT_CLASSID_SHMEM, hostId);
}

// The first n bytes of source, then fill.
std::string leading(const unsigned char *source, size_t n, unsigned char fill) {
    unsigned char bytes[16];
    std::memset(bytes, fill, sizeof bytes);
    std::memcpy(bytes, source, n);
    return renderBytes(bytes, sizeof bytes);
}

const Bytes HOST_UNIQUE_ID = {0xa0, 0xa1, 0xa2, 0xa3, 0xa4, 0xa5, 0xa6, 0xa7,
                              0xa8, 0xa9, 0xaa, 0xab, 0xac, 0xad, 0xae, 0xaf};
// A loopback address is no host identity; its other bytes must not be used.
const Bytes LOOPBACK_UNIQUE_ID = {127,  0,    0,    1,    0x51, 0x52, 0x53, 0x54,
                                  0x55, 0x56, 0x57, 0x58, 0x59, 0x5a, 0x5b, 0x5c};
const Bytes NEAR_LOOPBACK_UNIQUE_ID = {127,  0,    0,    2,    0x51, 0x52, 0x53, 0x54,
                                       0x55, 0x56, 0x57, 0x58, 0x59, 0x5a, 0x5b, 0x5c};

std::string uniqueLeading(size_t n, unsigned char fill) {
    return leading(HOST_UNIQUE_ID.data(), n, fill);
}

// The GUID prefix 1,2,3 as "participant_guid_prefix" stores it.
std::string guidLeading(size_t n, unsigned char fill) {
    const KELOsapiRtpsGuidPrefix prefix{1, 2, 3};
    return leading(reinterpret_cast<const unsigned char *>(&prefix), n, fill);
}

std::string shmemSetupMessage(const std::string &templateName,
                              const std::vector<std::string> &params) {
    return message(ERROR, SHMEM_SETUP, templateName, params);
}

// ---------------------------------------------------------------------------
// Empty list, version table
// ---------------------------------------------------------------------------

TEST(ShmemSetup, AnEmptyListGivesTheThreadNamePrefixVersionAndAGeneratedAddress) {
    for (int robust : {0, 1}) {
        SCOPED_TRACE(robust ? "robust mutexes" : "no robust mutexes");
        ForcedRobustMutex forced(robust);
        PropertyList properties;
        LogCapture log;
        ShmemRecord run;
        EXPECT_EQ(0, run.setup(properties));
        std::vector<std::string> changed = {"parent.thread_name_prefix", "shmemUUID"};
        if (robust) changed.push_back("majorVersion");
        EXPECT_EQ(changed, differences(VESK_TRANSPORT_SHMEM_PROPERTY_DEFAULT, run.record));
        EXPECT_STREQ("rTr#####", run.record.parent.thread_name_prefix);
        EXPECT_EQ(shmemGenerated(0), field(run.record, "shmemUUID"));
        EXPECT_EQ(robust ? 5 : 2, run.record.majorVersion);
        EXPECT_EQ("0,0,0,0,0,0", renderFlags(run.flags));
        EXPECT_EQ(std::vector<std::string>{}, describeAll(log));
    }
}

TEST(ShmemSetup, TheVersionConstantsAreTheDocumentedVersions) {
    const auto text = [](const DDS_ProductVersion_t &v) {
        return std::to_string(v.major) + "." + std::to_string(v.minor) + "." +
               std::to_string(v.release) + "." + std::to_string(v.revision);
    };
    EXPECT_EQ("7.2.0.0", text(ROBUST_MUTEX_PRODUCT_VERSION));
    EXPECT_EQ("6.1.0.0", text(SHMEM_MAJOR_VERSION_4_PRODUCT_VERSION));
    EXPECT_EQ("4.5.54.0", text(BUG_14240_FIXED_PRODUCT_VERSION));  // release is the character '6'
    EXPECT_EQ("6.0.0.0", text(LOCATOR_600_PRODUCT_VERSION));
}

TEST(ShmemSetup, TheFormatVersionFollowsTheMutexesAndTheMinimumVersion) {
    struct Case {
        int robust;
        std::optional<DDS_ProductVersion_t> minimum;  // nullopt: null minimum
        KEL_INT16 before;
        KEL_INT16 expected;
        int count;  // a given minimum counts once
    };
    const DDS_ProductVersion_t zero = {0, 0, 0, 0};
    const std::vector<Case> cases = {
        // Without robust mutexes the minimum picks the format.
        {0, DDS_ProductVersion_t{6, 1, 0, 0}, 2, 4, 1},
        {0, DDS_ProductVersion_t{6, 0, 0, 0}, 2, 2, 1},
        {0, DDS_ProductVersion_t{4, 5, '6', 0}, 2, 2, 1},
        {0, DDS_ProductVersion_t{4, 5, 0, 0}, 2, 1, 1},
        {0, DDS_ProductVersion_t{7, 2, 0, 0}, 2, 4, 1},
        {0, DDS_ProductVersion_t{6, 0, 127, 127}, 1, 2, 1},
        {0, DDS_ProductVersion_t{4, 5, '5', 127}, 4, 1, 1},
        {0, DDS_ProductVersion_t{0, 0, 0, 1}, 5, 1, 1},
        // ... replacing whatever the caller set.
        {0, DDS_ProductVersion_t{6, 1, 0, 0}, 5, 4, 1},
        // With robust mutexes every given minimum means format 5.
        {1, DDS_ProductVersion_t{7, 2, 0, 0}, 2, 5, 1},
        {1, DDS_ProductVersion_t{9, 0, 0, 0}, 2, 5, 1},
        {1, DDS_ProductVersion_t{6, 1, 0, 0}, 2, 5, 1},
        {1, DDS_ProductVersion_t{6, 0, 0, 0}, 2, 5, 1},
        {1, DDS_ProductVersion_t{4, 5, '6', 0}, 2, 5, 1},
        {1, DDS_ProductVersion_t{4, 5, 0, 0}, 2, 5, 1},
        {1, DDS_ProductVersion_t{0, 0, 0, 1}, 7, 5, 1},
        // No minimum (0.0.0.0 or null): robust mutexes raise a lower format
        // to 5; otherwise the caller's value stays. Not counted.
        {0, zero, 1, 1, 0},
        {0, zero, 4, 4, 0},
        {1, zero, 1, 5, 0},
        {1, zero, 4, 5, 0},
        {1, zero, 7, 7, 0},
        {0, std::nullopt, 1, 1, 0},
        {0, std::nullopt, 2, 2, 0},
        {1, std::nullopt, 2, 5, 0},
        {1, std::nullopt, 6, 6, 0},
    };
    for (const Case &c : cases) {
        std::string trace = std::string(c.robust ? "robust" : "not robust") + ", minimum ";
        trace += c.minimum
                     ? std::to_string(c.minimum->major) + "." + std::to_string(c.minimum->minor) +
                           "." + std::to_string(c.minimum->release) + "." +
                           std::to_string(c.minimum->revision)
                     : "null";
        trace += ", before " + std::to_string(c.before);
        SCOPED_TRACE(trace);
        ForcedRobustMutex forced(c.robust);
        PropertyList properties;
        LogCapture log;
        ShmemRecord run;
        run.record.majorVersion = c.before;
        const DDS_ProductVersion_t minimum = c.minimum.value_or(zero);
        EXPECT_EQ(c.count, run.setup(properties, nullptr, nullptr, c.minimum ? &minimum : nullptr));
        EXPECT_EQ(c.expected, run.record.majorVersion);
        EXPECT_EQ(std::vector<std::string>{}, describeAll(log));
    }
}

// ---------------------------------------------------------------------------
// The settings
// ---------------------------------------------------------------------------

TEST(ShmemSetup, EachSettingSetsItsFieldAndCountsOnce) {
    struct Case {
        NameValues properties;
        int count;
        std::vector<std::pair<std::string, std::string>> fields;  // field, new rendering
    };
    const std::vector<Case> cases = {
        {{{"received_message_count_max", "17"}}, 1, {{"received_message_count_max", "17"}}},
        {{{"received_message_count_max", "-3"}}, 1, {{"received_message_count_max", "-3"}}},
        {{{"receive_buffer_size", "0x20000"}}, 1, {{"receive_buffer_size", "131072"}}},
        {{{"segmentKeyOffset", "100"}}, 1, {{"segmentKeyOffset", "100"}}},
        {{{"segmentKeyFactor", "3"}}, 1, {{"segmentKeyFactor", "3"}}},
        {{{"semaphoreKeyOffset", "200"}}, 1, {{"semaphoreKeyOffset", "200"}}},
        {{{"semaphoreKeyFactor", "4"}}, 1, {{"semaphoreKeyFactor", "4"}}},
        {{{"mutexKeyOffset", "300"}}, 1, {{"mutexKeyOffset", "300"}}},
        {{{"mutexKeyFactor", "5"}}, 1, {{"mutexKeyFactor", "5"}}},
        {{{"maxAllowedWriterDurationMillisec", "4294967295"}},
         1,
         {{"maxAllowedWriterDurationMillisec", "4294967295"}}},
        {{{"enable_udp_debugging", "yes"}}, 1, {{"enable_udp_debugging", "1"}}},
        {{{"enable_udp_debugging", "FALSE"}}, 1, {}},
        {{{"enable_udp_debugging", "1"}, {"udp_debugging_address", "192.0.2.33"}},
         2,
         {{"enable_udp_debugging", "1"},
          {"udp_debugging_address", "000000000000000000000000c0000221"}}},
        {{{"enable_udp_debugging", "true"}, {"udp_debugging_address", "fd00::5"}},
         2,
         {{"enable_udp_debugging", "1"},
          {"udp_debugging_address", "fd000000000000000000000000000005"}}},
        {{{"enable_udp_debugging", "on"}, {"udp_debugging_port", "7500"}},
         2,
         {{"enable_udp_debugging", "1"}, {"udp_debugging_port", "7500"}}},
        // The generic names are read without a prefix.
        {{{"parent.message_size_max", "9000"}}, 1, {{"parent.message_size_max", "9000"}}},
        {{{"parent.gather_send_buffer_count_max", "8"}},
         1,
         {{"parent.gather_send_buffer_count_max", "8"}}},
        {{{"parent.thread_name_prefix", "shmT"}}, 1, {{"parent.thread_name_prefix", "\"shmT\""}}},
    };
    PropertyList empty;
    ShmemRecord baseline;
    ASSERT_EQ(0, baseline.setup(empty));
    for (const Case &c : cases) {
        SCOPED_TRACE(c.properties.front().first + " = " + c.properties.front().second);
        PropertyList properties;
        addAll(properties, c.properties);
        LogCapture log;
        ShmemRecord run;
        EXPECT_EQ(c.count, run.setup(properties));
        std::vector<std::string> changed;
        for (const auto &[name, value] : c.fields) {
            changed.push_back(name);
            EXPECT_EQ(value, field(run.record, name)) << name;
        }
        EXPECT_EQ(changed, differences(baseline.record, run.record));
        EXPECT_EQ(std::vector<std::string>{}, describeAll(log));
    }
}

// One entry per property of the fixed order that can fail, with the field
// that a good value changes.
struct Ordered {
    const char *name;
    const char *good;
    const char *bad;
    const char *field;
    const char *goodRendering;
    std::string failure;  // the message of the bad value
};

std::vector<Ordered> orderedProperties() {
    const auto parser = [](const char *name, const char *value) {
        return shmemSetupMessage("KEL_LOG_PARSER_FAILURE_ss", {name, value});
    };
    return {
        {"received_message_count_max", "11", "eleven", "received_message_count_max", "11",
         parser("received_message_count_max", "eleven")},
        {"receive_buffer_size", "2048", "2k", "receive_buffer_size", "2048",
         parser("receive_buffer_size", "2k")},
        {"segmentKeyOffset", "12", "0x", "segmentKeyOffset", "12",
         parser("segmentKeyOffset", "0x")},
        {"segmentKeyFactor", "13", "", "segmentKeyFactor", "13", parser("segmentKeyFactor", "")},
        {"semaphoreKeyOffset", "14", "1.5", "semaphoreKeyOffset", "14",
         parser("semaphoreKeyOffset", "1.5")},
        {"semaphoreKeyFactor", "15", "99999999999", "semaphoreKeyFactor", "15",
         parser("semaphoreKeyFactor", "99999999999")},
        {"mutexKeyOffset", "16", " 16", "mutexKeyOffset", "16", parser("mutexKeyOffset", " 16")},
        {"mutexKeyFactor", "17", "x17", "mutexKeyFactor", "17", parser("mutexKeyFactor", "x17")},
        {"enable_udp_debugging", "true", "maybe", "enable_udp_debugging", "1",
         parser("enable_udp_debugging", "maybe")},
        {"udp_debugging_address", "10.1.2.3", "bad..name", "udp_debugging_address",
         "0000000000000000000000000a010203",
         shmemSetupMessage("KEL_LOG_ANY_FAILURE_s", {"resolve UDP debugging IP address"})},
        {"udp_debugging_port", "7411", "-1", "udp_debugging_port", "7411",
         parser("udp_debugging_port", "-1")},
        {"maxAllowedWriterDurationMillisec", "18", "4294967296", "maxAllowedWriterDurationMillisec",
         "18", parser("maxAllowedWriterDurationMillisec", "4294967296")},
        {"host_id", "19", "host", "shmemUUID", "", parser("host_id", "host")},
    };
}

// The properties are read in their fixed order: a bad value stops the setup,
// so every property before it is applied and none after it. The format
// version and the unit-test switch come after the settings and before the
// host id.
TEST(ShmemSetup, ABadValueStopsTheSetupWithItsMessageInTheFixedOrder) {
    ForcedRobustMutex forced(1);
    const std::vector<Ordered> ordered = orderedProperties();
    const DDS_ProductVersion_t minimum = {6, 1, 0, 0};
    for (size_t bad = 0; bad < ordered.size(); ++bad) {
        SCOPED_TRACE(std::string(ordered[bad].name) + " = \"" + ordered[bad].bad + "\"");
        PropertyList properties;
        for (size_t i = 0; i < ordered.size(); ++i) {
            properties.add(ordered[i].name, i == bad ? ordered[i].bad : ordered[i].good);
        }
        properties.add("CORE_6518_unit_test_disable_shmem", "true");
        LogCapture log;
        ShmemRecord run;
        EXPECT_EQ(-1, run.setup(properties, nullptr, nullptr, &minimum));
        EXPECT_EQ(std::vector<std::string>{ordered[bad].failure}, describeAll(log));
        for (size_t i = 0; i < ordered.size(); ++i) {
            if (i == bad || std::string(ordered[i].name) == "host_id") continue;
            const std::string expected =
                i < bad ? ordered[i].goodRendering
                        : field(VESK_TRANSPORT_SHMEM_PROPERTY_DEFAULT, ordered[i].field);
            EXPECT_EQ(expected, field(run.record, ordered[i].field)) << ordered[i].name;
        }
        const bool pastSettings = std::string(ordered[bad].name) == "host_id";
        EXPECT_EQ(pastSettings ? 5 : 2, run.record.majorVersion);
        EXPECT_EQ(pastSettings ? 1 : 0, run.record.reserved);
        // A failed setup generates no address.
        EXPECT_EQ(field(VESK_TRANSPORT_SHMEM_PROPERTY_DEFAULT, "shmemUUID"),
                  field(run.record, "shmemUUID"));
    }
}

// Debugging destination and port are not even read while the switch is off.
TEST(ShmemSetup, TheUdpDebuggingDestinationIsReadOnlyWhileDebuggingIsOn) {
    struct Case {
        const char *name;
        int enabledBefore;
        NameValues properties;
        int result;
        std::vector<std::string> messages;
        std::vector<std::pair<std::string, std::string>> fields;
    };
    const std::string resolve =
        shmemSetupMessage("KEL_LOG_ANY_FAILURE_s", {"resolve UDP debugging IP address"});
    const std::vector<Case> cases = {
        {"off by default",
         0,
         {{"udp_debugging_address", "bad..name"}, {"udp_debugging_port", "not a port"}},
         0,
         {},
         {}},
        {"switched off",
         1,
         {{"enable_udp_debugging", "false"},
          {"udp_debugging_address", "bad..name"},
          {"udp_debugging_port", "not a port"}},
         1,
         {},
         {{"enable_udp_debugging", "0"}}},
        {"on by the caller",
         1,
         {{"udp_debugging_address", "192.0.2.40"}, {"udp_debugging_port", "7600"}},
         2,
         {},
         {{"udp_debugging_address", "000000000000000000000000c0000228"},
          {"udp_debugging_port", "7600"}}},
        {"on by the property, bad address",
         0,
         {{"enable_udp_debugging", "TRUE"},
          {"udp_debugging_address", "bad..name"},
          {"udp_debugging_port", "7600"},
          {"maxAllowedWriterDurationMillisec", "5"}},
         -1,
         {resolve},
         {{"enable_udp_debugging", "1"}}},
        {"on by the caller, bad address",
         1,
         {{"udp_debugging_address", "1.2.3"}},
         -1,
         {resolve},
         {}},
        {"on, no destination given",
         1,
         {{"maxAllowedWriterDurationMillisec", "5"}},
         1,
         {},
         {{"maxAllowedWriterDurationMillisec", "5"}}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        PropertyList properties;
        addAll(properties, c.properties);
        LogCapture log;
        ShmemRecord run;
        run.record.enable_udp_debugging = c.enabledBefore;
        const Shmem before = run.record;
        EXPECT_EQ(c.result, run.setup(properties));
        EXPECT_EQ(c.messages, describeAll(log));
        for (const ShmemField &f : ownFields()) {
            const std::string name = f.name;
            if (name == "shmemUUID" || name == "majorVersion") continue;
            std::string expected = f.render(before);
            for (const auto &[changed, value] : c.fields) {
                if (changed == name) expected = value;
            }
            EXPECT_EQ(expected, f.render(run.record)) << name;
        }
    }
}

TEST(ShmemSetup, TheUnitTestSwitchSetsReservedOnlyForTrueAndAlwaysCounts) {
    struct Case {
        const char *value;
        KEL_INT32 before;
        KEL_INT32 after;
    };
    const std::vector<Case> cases = {
        {"true", 0, 1},  {"TrUe", 0, 1},  {"TRUE", 2, 1},  {"tRUE", 7, 1}, {"false", 0, 0},
        {"false", 2, 2}, {"1", 0, 0},     {"yes", 0, 0},   {"on", 5, 5},   {"", 0, 0},
        {"true ", 0, 0}, {" true", 0, 0}, {"truex", 0, 0}, {"tru", 2, 2},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string("\"") + c.value + "\", reserved " + std::to_string(c.before));
        PropertyList properties{{"CORE_6518_unit_test_disable_shmem", c.value}};
        LogCapture log;
        ShmemRecord run;
        run.record.reserved = c.before;
        EXPECT_EQ(1, run.setup(properties));
        EXPECT_EQ(c.after, run.record.reserved);
        EXPECT_EQ(std::vector<std::string>{}, describeAll(log));
    }
}

// ---------------------------------------------------------------------------
// The host id and the shared-memory address
// ---------------------------------------------------------------------------

TEST(ShmemSetup, TheHostIdAndAddressFollowEveryBranch) {
    const DDS_ProductVersion_t v530 = {5, 3, 0, 0};
    const DDS_ProductVersion_t v600 = {6, 0, 0, 0};
    const DDS_ProductVersion_t zero = {0, 0, 0, 0};
    const KEL_UINT32 X = 0x01020304;  // an explicit host id in the policy
    const int uuid = DDS_RTPS_AUTO_ID_FROM_UUID;
    const int mac = DDS_RTPS_AUTO_ID_FROM_MAC;
    const int ip = DDS_RTPS_AUTO_ID_FROM_IP;
    const int none = NO_POLICY;
    // One row per branch: the policy kind (or none), the properties, the
    // count, every byte of shmemUUID before (0 is the invalid address) and
    // after; then, where they matter, the record's reserved value, the
    // minimum version, the policy's host id and the host's unique id.
    struct Case {
        const char *name;
        int policyKind;
        NameValues properties;
        int count;
        unsigned char before;
        std::string expected;
        KEL_INT32 reserved = 0;
        std::optional<DDS_ProductVersion_t> minimum = std::nullopt;
        KEL_UINT32 rtpsHostId = 0;
        Bytes uniqueId = HOST_UNIQUE_ID;
    };
    const unsigned char E = 0xee;
    const std::optional<DDS_ProductVersion_t> any;
    const std::string eeee(32, 'e');
    const auto G = shmemGenerated;
    const auto U = uniqueLeading;  // the unique id's leading bytes
    const auto P = guidLeading;    // the GUID prefix's leading bytes
    const auto L = [](const Bytes &id, size_t n) { return leading(id.data(), n, 0); };
    const auto hostId = [](const char *id) { return NameValues{{"host_id", id}}; };
    const auto flag = [](const char *v) { return NameValues{{"use_530_from_uuid_locator", v}}; };
    const auto bits = [](const char *n) { return NameValues{{"parent.address_bit_count", n}}; };
    const NameValues guid = {{"participant_guid_prefix", "1,2,3"}};
    const auto withGuid = [](const char *n) {
        return NameValues{{"participant_guid_prefix", "1,2,3"}, {"parent.address_bit_count", n}};
    };
    const Bytes &loop = LOOPBACK_UNIQUE_ID, &near = NEAR_LOOPBACK_UNIQUE_ID;
    const KEL_UINT32 GH = GENERATOR_HOST_ID, GM = GENERATOR_MAC_HOST_ID, AUTO = DDS_RTPS_AUTO_ID;
    const NameValues badFlag = {{"host_id", "7"}, {"use_530_from_uuid_locator", "bogus"}};
    const NameValues unitTest = {{"CORE_6518_unit_test_disable_shmem", "true"}};
    const NameValues classid = {{"parent.classid", "0x01000002"}};
    const std::vector<Case> cases = {
        {"no policy", none, {}, 0, 0, G(0)},
        {"no policy, 5.3.0 flag not read", none, flag("true"), 0, 0, G(0)},
        // "host_id" wins: no other source is consulted, and shmemUUID is
        // only generated from it.
        {"host_id, no policy", none, hostId("0x0A0B0C0D"), 1, 0, G(0x0A0B0C0D)},
        {"host_id over FROM_MAC", mac, hostId("7"), 1, 0, G(7)},
        {"host_id over FROM_IP with a host id", ip, hostId("4294967295"), 1, 0, G(~0u), 0, any, X},
        // The bad flag is not read, and the minimum below 6.0.0.0 counts
        // only for the format version.
        {"host_id over FROM_UUID", uuid, badFlag, 2, 0, G(7), 0, v530},
        {"host_id leaves a set shmemUUID", uuid, hostId("7"), 1, E, eeee},
        // Host ids from the policy and the generator.
        {"FROM_MAC", mac, {}, 0, 0, G(GM), 0, any, X},
        {"FROM_IP, explicit host id", ip, {}, 0, 0, G(X), 0, any, X},
        {"FROM_IP, automatic host id", ip, {}, 0, 0, G(GH), 0, any, AUTO},
        {"FROM_MAC, shmemUUID already set", mac, {}, 0, E, eeee},
        // FROM_UUID: as many bytes of the unique id as the bit count covers
        // (-96: 12); the others keep their value.
        {"FROM_UUID", uuid, {}, 0, 0, U(12, 0), 0, any, X},
        {"FROM_UUID, the rest kept", uuid, {}, 0, E, U(12, E)},
        {"FROM_UUID, 64 bits", uuid, bits("64"), 1, E, U(8, E)},
        {"FROM_UUID, -8 bits", uuid, bits("-8"), 1, E, U(1, E)},
        {"FROM_UUID, 128 bits", uuid, bits("128"), 1, E, U(16, E)},
        // Under 8 bits nothing is copied; the address, still invalid, is
        // generated with host id 0, not the policy's or the generator's.
        {"FROM_UUID, -7 bits", uuid, bits("-7"), 1, 0, G(0), 0, any, X},
        {"FROM_UUID, 127.0.0.2 is an identity", uuid, {}, 0, 0, L(near, 12), 0, any, 0, near},
        {"FROM_UUID, reserved 1 copies the unique id", uuid, unitTest, 1, 0, U(12, 0)},
        // The 5.3.0 locator form: all 16 bytes.
        {"5.3.0 flag from the property", uuid, flag("true"), 1, E, U(16, 0)},
        {"5.3.0 flag from a minimum below 6.0.0.0", uuid, {}, 2, E, U(16, 0), 0, v530},
        {"minimum 6.0.0.0 leaves the flag false but counts", uuid, {}, 2, E, U(12, E), 0, v600},
        {"minimum 0.0.0.0 is no minimum", uuid, {}, 0, E, U(12, E), 0, zero},
        {"the property wins over an old minimum", uuid, flag("false"), 2, E, U(12, E), 0, v530},
        {"the property wins over a new minimum", uuid, flag("1"), 2, E, U(16, E), 0, v600},
        {"the flag wins over reserved 2", uuid, flag("TRUE"), 1, E, U(16, E), 2},
        {"the flag wins over the loopback", uuid, flag("true"), 1, 0, L(loop, 16), 0, any, 0, loop},
        // reserved 2: the owner's GUID prefix, at most its 12 bytes.
        {"reserved 2, -96 bits", uuid, guid, 1, E, P(12, E), 2},
        {"reserved 2, 8 bits", uuid, withGuid("8"), 2, E, P(1, E), 2},
        {"reserved 2, 96 bits", uuid, withGuid("96"), 2, E, P(12, E), 2},
        {"reserved 2, 7 bits", uuid, withGuid("7"), 2, E, eeee, 2},
        {"reserved 2, -7 bits", uuid, withGuid("-7"), 2, E, eeee, 2},
        {"reserved 2, 104 bits", uuid, withGuid("104"), 2, E, P(12, E), 2},
        {"reserved 2, -128 bits", uuid, withGuid("-128"), 2, E, P(12, E), 2},
        // 12 zero bytes copied leave the address invalid: generated with
        // host id 0, even on a loopback host.
        {"reserved 2, zero GUID prefix", uuid, {}, 0, 0, G(0), 2, any, 0, loop},
        // The loopback id: the generator's host id, shmemUUID untouched and
        // then generated from it.
        {"loopback unique id", uuid, {}, 0, 0, G(GH), 0, any, X, loop},
        {"loopback unique id, shmemUUID set", uuid, {}, 0, E, eeee, 0, any, 0, loop},
        {"loopback unique id, minimum 6.0.0.0", uuid, {}, 2, 0, G(GH), 0, v600, 0, loop},
        // The generated address carries the record's class id.
        {"the record's class id", mac, classid, 1, 0, generated(0x01000002, GM)},
    };
    ForcedRobustMutex forced(0);
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        UniqueIdOverride uniqueId(c.uniqueId);
        Generator generator;
        PropertyList properties;
        addAll(properties, c.properties);
        DDS_WireProtocolQosPolicy policy = DDS_WireProtocolQosPolicy_INITIALIZER;
        policy.rtps_host_id = c.rtpsHostId;
        if (c.policyKind != NO_POLICY)
            policy.rtps_auto_id_kind = static_cast<DDS_RtpsAutoIdKind>(c.policyKind);
        LogCapture log;
        ShmemRecord run;
        run.record.reserved = c.reserved;
        std::memset(run.record.shmemUUID.network_ordered_value, c.before, 16);
        const DDS_ProductVersion_t minimum = c.minimum.value_or(zero);
        EXPECT_EQ(c.count, run.setup(properties, c.policyKind == NO_POLICY ? nullptr : &policy,
                                     generator.get(), c.minimum ? &minimum : nullptr));
        EXPECT_EQ(c.expected, field(run.record, "shmemUUID"));
        EXPECT_EQ(std::vector<std::string>{}, describeAll(log));
    }
}

// With "host_id" the policy is not read, so its generator is not needed.
TEST(ShmemSetup, AHostIdPropertyNeedsNoGenerator) {
    PropertyList properties{{"host_id", "9"}};
    DDS_WireProtocolQosPolicy policy = DDS_WireProtocolQosPolicy_INITIALIZER;
    LogCapture log;
    ShmemRecord run;
    EXPECT_EQ(1, run.setup(properties, &policy, nullptr, nullptr));
    EXPECT_EQ(shmemGenerated(9), field(run.record, "shmemUUID"));
    EXPECT_EQ(std::vector<std::string>{}, describeAll(log));
}

// This module's choice: a policy without the generator it requires is a
// failed precondition, whatever the policy's kind.
TEST(ShmemSetup, APolicyWithoutGeneratorIsAPreconditionFailure) {
    for (int kind :
         {DDS_RTPS_AUTO_ID_FROM_IP, DDS_RTPS_AUTO_ID_FROM_MAC, DDS_RTPS_AUTO_ID_FROM_UUID}) {
        SCOPED_TRACE(kind);
        PropertyList properties;
        DDS_WireProtocolQosPolicy policy = DDS_WireProtocolQosPolicy_INITIALIZER;
        policy.rtps_auto_id_kind = static_cast<DDS_RtpsAutoIdKind>(kind);
        policy.rtps_host_id = 5;
        LogCapture log;
        ShmemRecord run;
        EXPECT_EQ(-1, run.setup(properties, &policy, nullptr, nullptr));
        const auto entries = log.entries();
        ASSERT_EQ(1u, entries.size());
        EXPECT_EQ(static_cast<KEL_UINT32>(KEL_LOG_BIT_EXCEPTION), entries[0].level);
        EXPECT_EQ("KEL_LOG_PRECONDITION_FAILURE_s", entries[0].template_name);
        EXPECT_EQ(SHMEM_SETUP, entries[0].function);
    }
}

TEST(ShmemSetup, ABadLocatorFlagFailsOnlyWhenItIsRead) {
    UniqueIdOverride uniqueId(HOST_UNIQUE_ID);
    Generator generator;
    DDS_WireProtocolQosPolicy policy = DDS_WireProtocolQosPolicy_INITIALIZER;
    for (int kind : {DDS_RTPS_AUTO_ID_FROM_UUID, DDS_RTPS_AUTO_ID_FROM_MAC}) {
        SCOPED_TRACE(kind);
        policy.rtps_auto_id_kind = static_cast<DDS_RtpsAutoIdKind>(kind);
        PropertyList properties{{"use_530_from_uuid_locator", "maybe"}};
        LogCapture log;
        ShmemRecord run;
        const bool read = kind == DDS_RTPS_AUTO_ID_FROM_UUID;
        EXPECT_EQ(read ? -1 : 0, run.setup(properties, &policy, generator.get(), nullptr));
        EXPECT_EQ(read ? std::vector<std::string>{shmemSetupMessage(
                             "KEL_LOG_PARSER_FAILURE_ss", {"use_530_from_uuid_locator", "maybe"})}
                       : std::vector<std::string>{},
                  describeAll(log));
    }
}

TEST(ShmemSetup, AnAddressThatCannotBeGeneratedIsLoggedAndTheSetupSucceeds) {
    for (const char *classid : {"0", "-5"}) {
        SCOPED_TRACE(classid);
        PropertyList properties{{"parent.classid", classid}, {"host_id", "3"}};
        LogCapture log;
        ShmemRecord run;
        EXPECT_EQ(2, run.setup(properties));
        EXPECT_EQ(std::vector<std::string>{shmemSetupMessage("KEL_LOG_ANY_FAILURE_s",
                                                             {"generate default network address"})},
                  describeAll(log));
        EXPECT_EQ(0, std::memcmp(&run.record.shmemUUID, &VESK_TRANSPORT_ADDRESS_INVALID,
                                 sizeof VESK_TRANSPORT_ADDRESS_INVALID));
    }
}

// ---------------------------------------------------------------------------
// The generic part and name validation
// ---------------------------------------------------------------------------

TEST(ShmemSetup, FailuresBeforeTheSettingsAreLoggedAndStopTheSetup) {
    struct Case {
        const char *name;
        NameValues properties;
        std::vector<std::string> messages;
    };
    const auto parent = shmemSetupMessage("KEL_LOG_PARSER_FAILURE_s", {"parent properties"});
    const std::vector<Case> cases = {
        {"bad class id",
         {{"parent.classid", "nope"}},
         {message(ERROR, PARENT_SETUP, "KEL_LOG_PARSER_FAILURE_ss", {"parent.classid", "nope"}),
          parent}},
        {"bit count out of range",
         {{"parent.address_bit_count", "129"}},
         {message(ERROR, PARENT_SETUP, "KEL_LOG_PARSER_VALUE_OUT_OF_RANGE_ss",
                  {"parent.address_bit_count", "[-128, 128]"}),
          parent}},
        // The generic part comes before validation: an unknown name is not
        // reported then.
        {"generic failure before validation",
         {{"bogus", "1"}, {"parent.max_interface_count", "many"}},
         {message(ERROR, PARENT_SETUP, "KEL_LOG_PARSER_FAILURE_ss",
                  {"parent.max_interface_count", "many"}),
          parent}},
        {"unreadable validation action",
         {{DDS_PROPERTY_VALIDATION_ACTION_PROPERTY_NAME, "sometimes"}},
         {message(ERROR, PARSE_ACTION, "KEL_LOG_PARSER_FAILURE_ss",
                  {DDS_PROPERTY_VALIDATION_ACTION_PROPERTY_NAME, "sometimes"}),
          shmemSetupMessage("KEL_LOG_PARSER_FAILURE_s", {"property_validation_action"})}},
        {"unknown name, default action",
         {{"bogus", "1"}},
         {message(ERROR, VALIDATE, "KEL_LOG_UNKNOWN_PROPERTY_s", {"bogus"}),
          shmemSetupMessage("KEL_LOG_INCONSISTENT_PROPERTY_s", {""})}},
        {"unknown name, EXCEPTION",
         {{"bogus", "1"}, {DDS_PROPERTY_VALIDATION_ACTION_PROPERTY_NAME, "EXCEPTION"}},
         {message(ERROR, VALIDATE, "KEL_LOG_UNKNOWN_PROPERTY_s", {"bogus"}),
          shmemSetupMessage("KEL_LOG_INCONSISTENT_PROPERTY_s", {""})}},
        // Names of the UDP classes are not the shared-memory transport's.
        {"UDP name",
         {{"send_socket_buffer_size", "1"}},
         {message(ERROR, VALIDATE, "KEL_LOG_UNKNOWN_PROPERTY_s", {"send_socket_buffer_size"}),
          shmemSetupMessage("KEL_LOG_INCONSISTENT_PROPERTY_s", {""})}},
        {"WAN name",
         {{"public_address", "1.2.3.4"}},
         {message(ERROR, VALIDATE, "KEL_LOG_UNKNOWN_PROPERTY_s", {"public_address"}),
          shmemSetupMessage("KEL_LOG_INCONSISTENT_PROPERTY_s", {""})}},
        {"unknown name under the prefix",
         {{"prefix", "dds.transport.shmem.builtin"}, {"dds.transport.shmem.builtin.bogus", "1"}},
         {message(ERROR, VALIDATE, "KEL_LOG_UNKNOWN_PROPERTY_s",
                  {"dds.transport.shmem.builtin.bogus"}),
          shmemSetupMessage("KEL_LOG_INCONSISTENT_PROPERTY_s", {"dds.transport.shmem.builtin"})}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        PropertyList properties;
        addAll(properties, c.properties);
        // A setting after the failure stays unread.
        properties.add("received_message_count_max", "5");
        LogCapture log;
        ShmemRecord run;
        EXPECT_EQ(-1, run.setup(properties));
        EXPECT_EQ(c.messages, describeAll(log));
        EXPECT_EQ(64, run.record.received_message_count_max);
    }
}

TEST(ShmemSetup, ValidationFollowsTheActionAndThePrefix) {
    struct Case {
        const char *name;
        NameValues properties;
        int result;
        std::vector<std::string> messages;
    };
    // Each list also holds "received_message_count_max", which counts once.
    const std::vector<Case> cases = {
        {"WARNING reports and goes on",
         {{"bogus", "1"}, {DDS_PROPERTY_VALIDATION_ACTION_PROPERTY_NAME, "WARNING"}},
         1,
         {message(WARN, VALIDATE, "KEL_LOG_UNKNOWN_PROPERTY_s", {"bogus"})}},
        {"SKIP tests nothing",
         {{"bogus", "1"}, {DDS_PROPERTY_VALIDATION_ACTION_PROPERTY_NAME, "skip"}},
         1,
         {}},
        {"full action name",
         {{"bogus", "1"},
          {DDS_PROPERTY_VALIDATION_ACTION_PROPERTY_NAME,
           "DDS_PROPERTY_QOS_POLICY_VALIDATION_ACTION_SKIP"}},
         1,
         {}},
        // "prefix" counts once; names outside it are not tested.
        {"names outside the prefix",
         {{"prefix", "dds.transport.shmem.builtin"}, {"bogus", "1"}},
         2,
         {}},
        {"known suffix under the prefix",
         {{"prefix", "dds.transport.shmem.builtin"},
          {"dds.transport.shmem.builtin.received_message_count_max", "9"}},
         2,
         {}},
        // "p.host_id" passes validation but is not read.
        {"prefix with a trailing dot",
         {{"prefix", "p."}, {"p.host_id", "9"}, {"bogus", "1"}},
         2,
         {}},
        {"empty prefix", {{"prefix", ""}, {"host_id", "9"}}, 3, {}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        PropertyList properties;
        addAll(properties, c.properties);
        properties.add("received_message_count_max", "5");
        LogCapture log;
        ShmemRecord run;
        EXPECT_EQ(c.result, run.setup(properties));
        EXPECT_EQ(c.messages, describeAll(log));
        // The settings are read by their whole names, never under the prefix.
        EXPECT_EQ(5, run.record.received_message_count_max);
    }
}

// Every name that the setup and the generic part read, in the order in
// which they are read, each with a good value.
const NameValues &everyProperty() {
    static const NameValues properties = {
        {"parent.classid", "16777216"},
        {"parent.address_bit_count", "-96"},
        {"parent.properties_bitmap", "TRANSPORT_PROPERTY_BIT_BUFFER_ALWAYS_LOANED"},
        {"parent.gather_send_buffer_count_max", "512"},
        {"parent.message_size_max", "32768"},
        {"parent.allow_interfaces", "shm0"},
        {"parent.allow_interfaces_list", "shm1,shm2"},
        {"parent.deny_interfaces", "shm3"},
        {"parent.deny_interfaces_list", "shm4"},
        {"parent.allow_multicast_interfaces", "shm5"},
        {"parent.allow_multicast_interfaces_list", "shm6"},
        {"parent.deny_multicast_interfaces", "shm7"},
        {"parent.deny_multicast_interfaces_list", "shm8"},
        {"parent.thread_name_prefix", "shmA"},
        {"thread_name_prefix", "shmB"},
        {"participant_guid_prefix", "1,2,3"},
        {"parent.max_interface_count", "LENGTH_UNLIMITED"},
        {"received_message_count_max", "32"},
        {"receive_buffer_size", "65536"},
        {"segmentKeyOffset", "1"},
        {"segmentKeyFactor", "2"},
        {"semaphoreKeyOffset", "3"},
        {"semaphoreKeyFactor", "4"},
        {"mutexKeyOffset", "5"},
        {"mutexKeyFactor", "6"},
        {"enable_udp_debugging", "true"},
        {"udp_debugging_address", "239.255.1.3"},
        {"udp_debugging_port", "7401"},
        {"maxAllowedWriterDurationMillisec", "250"},
        {"CORE_6518_unit_test_disable_shmem", "false"},
        {"host_id", "0x10"},
        {"use_530_from_uuid_locator", "true"},
    };
    return properties;
}

bool acceptedForShmem(const std::string &name) {
    PropertyList properties{{name, "1"}};
    return DDS_PropertyQosPolicy_validate_plugin_property_suffixes(
               properties.get(), nullptr, PROPERTY_PLUGIN_VALID_PUBLIC_PROPERTIES_SHMEM,
               PROPERTY_PLUGIN_VALID_PRIVATE_PROPERTIES_SHMEM, nullptr,
               DDS_PROPERTY_QOS_POLICY_VALIDATION_ACTION_EXCEPTION) == 1;
}

TEST(ShmemSetup, EveryNameReadIsAcceptedByTheShmemLists) {
    LogCapture log;
    for (const auto &[name, value] : everyProperty()) EXPECT_TRUE(acceptedForShmem(name)) << name;
    // And every suffix of the rows that the setup loops over.
    using namespace vesk::transport;
    for (const GenericRow &row : GENERIC_ROWS) {
        EXPECT_TRUE(acceptedForShmem(row.suffix)) << row.suffix;
        if (row.alternativeSuffix != nullptr) {
            EXPECT_TRUE(acceptedForShmem(row.alternativeSuffix)) << row.alternativeSuffix;
        }
    }
    for (const ShmemRow &row : SHMEM_SETTING_ROWS)
        EXPECT_TRUE(acceptedForShmem(row.suffix)) << row.suffix;
    for (const ShmemRow &row : SHMEM_IDENTITY_ROWS)
        EXPECT_TRUE(acceptedForShmem(row.suffix)) << row.suffix;
    // The lists accept nothing else that the setups read.
    for (const UdpRow &row : UDP_ROWS) EXPECT_FALSE(acceptedForShmem(row.suffix)) << row.suffix;
}

TEST(ShmemSetup, TheRowsReadEveryShmemNameInOrder) {
    using namespace vesk::transport;
    std::vector<std::string> fromRows;
    for (const ShmemRow &row : SHMEM_SETTING_ROWS) fromRows.emplace_back(row.suffix);
    for (const ShmemRow &row : SHMEM_IDENTITY_ROWS) fromRows.emplace_back(row.suffix);
    std::vector<std::string> documented;  // after the 17 generic names
    for (size_t i = 17; i < everyProperty().size(); ++i)
        documented.push_back(everyProperty()[i].first);
    EXPECT_EQ(documented, fromRows);
}

// Every name at once, with the action EXCEPTION: validation passes and the
// result counts each property applied once (a list under both its names,
// and the two thread-name prefixes, count once; the locator flag is not
// read when "host_id" is given).
TEST(ShmemSetup, EveryNameAtOncePassesValidationAndCountsOnceEach) {
    PropertyList properties;
    addAll(properties, everyProperty());
    properties.add("prefix", "");
    properties.add(DDS_PROPERTY_VALIDATION_ACTION_PROPERTY_NAME, "EXCEPTION");
    const DDS_ProductVersion_t minimum = {6, 1, 0, 0};
    Generator generator;
    DDS_WireProtocolQosPolicy policy = DDS_WireProtocolQosPolicy_INITIALIZER;
    ForcedRobustMutex forced(0);
    LogCapture log;
    ShmemRecord run;
    // 12 generic, "prefix", 12 settings, the minimum, the switch, "host_id".
    EXPECT_EQ(12 + 1 + 12 + 1 + 1 + 1, run.setup(properties, &policy, generator.get(), &minimum));
    EXPECT_EQ(std::vector<std::string>{}, describeAll(log));
    EXPECT_EQ("1,1,1,1,0,0", renderFlags(run.flags));
    EXPECT_STREQ("shmA", run.record.parent.thread_name_prefix);
    EXPECT_EQ(4, run.record.majorVersion);
    EXPECT_EQ(0, run.record.reserved);
    EXPECT_EQ(shmemGenerated(0x10), field(run.record, "shmemUUID"));
}

// ---------------------------------------------------------------------------
// Ownership
// ---------------------------------------------------------------------------

// A failure in the generic part leaves its lists flagged; the cleanup
// releases them.
TEST(ShmemSetup, AGenericFailureLeavesItsListsForTheCleanup) {
    const KEL_UINT64 before = liveHeapBlocks();
    {
        PropertyList properties{{"parent.allow_interfaces_list", "shm0,shm1"},
                                {"parent.deny_interfaces", "shm2"},
                                {"thread_name_prefix", "ninechars"}};
        LogCapture log;
        ShmemRecord run;
        EXPECT_EQ(-1, run.setup(properties));
        EXPECT_EQ("1,1,0,0,0,0", renderFlags(run.flags));
        EXPECT_EQ(2, run.record.parent.allow_interfaces_list_length);
        EXPECT_EQ(1, run.record.parent.deny_interfaces_list_length);
        EXPECT_EQ(nullptr, run.record.parent.thread_name_prefix);
        const auto entries = log.entries();
        ASSERT_EQ(2u, entries.size());
        EXPECT_EQ("KEL_LOG_PRECONDITION_FAILURE_s", entries[0].template_name);
        EXPECT_EQ(PARENT_SETUP, entries[0].function);
        EXPECT_EQ(shmemSetupMessage("KEL_LOG_PARSER_FAILURE_s", {"parent properties"}),
                  vesk::test::describe(entries[1]));
        VESK_Transport_cleanupShmemProperty(&run.record, &run.flags);
        EXPECT_EQ(nullptr, run.record.parent.allow_interfaces_list);
        EXPECT_EQ(nullptr, run.record.parent.deny_interfaces_list);
    }
    EXPECT_EQ(before, liveHeapBlocks());
}

TEST(ShmemSetup, TheCleanupReleasesOnlyWhatIsFlaggedAndAcceptsNull) {
    VESK_Transport_cleanupShmemProperty(nullptr, nullptr);
    char name[] = "shm9";
    char *theirs[] = {name};
    PropertyList properties{{"parent.allow_interfaces_list", "shm0"},
                            {"parent.thread_name_prefix", "shmC"}};
    ShmemRecord run;
    run.record.parent.deny_interfaces_list = theirs;
    run.record.parent.deny_interfaces_list_length = 1;
    ASSERT_EQ(2, run.setup(properties));
    VESK_Transport_cleanupShmemProperty(&run.record, &run.flags);
    EXPECT_EQ(nullptr, run.record.parent.allow_interfaces_list);
    EXPECT_EQ(nullptr, run.record.parent.thread_name_prefix);
    EXPECT_EQ(theirs, run.record.parent.deny_interfaces_list);
    EXPECT_EQ(1, run.record.parent.deny_interfaces_list_length);
    run.record.parent.deny_interfaces_list = nullptr;
    run.record.parent.deny_interfaces_list_length = 0;
}

}  // namespace
