// The shared-memory property setup: validation, the settings read in their
// fixed order, the UDP debugging switch, the format version, the unit-test
// switch, the host id and shared-memory address in every branch, counting,
// failures and the cleanup.

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "support/AllocationSweep.hpp"
#include "support/EveryProperty.hpp"
#include "support/SetupChecks.hpp"
#include "vesk_transport/Support.h"

namespace {

using namespace vesk::test;
using Bytes = std::array<unsigned char, 16>;
using NameValues = std::vector<PropertyList::NameValue>;

constexpr int NO_POLICY = -1;
constexpr KEL_UINT32 GENERATOR_HOST_ID = 0x0C0D0E0F;
constexpr KEL_UINT32 GENERATOR_MAC_HOST_ID = 0x22334455;

// A generator that answers fixed host ids instead of reading the host.
struct Generator {
    DDS_RtpsAppIdGenerator *generator = DDS_RtpsAppIdGenerator_new();
    Generator() {
        EXPECT_NE(nullptr, generator);
        DDS_RtpsAppIdGenerator_set_host_ids(generator, GENERATOR_HOST_ID, GENERATOR_MAC_HOST_ID);
    }
    ~Generator() { DDS_RtpsAppIdGenerator_delete(generator); }
};

// The default address: class id, host id, app id 0, instance id 0, each in
// network order.
std::string generated(KEL_UINT32 hostId, KEL_UINT32 classid = VESK_TRANSPORT_CLASSID_SHMEM) {
    unsigned char bytes[16] = {};
    for (int i = 0; i < 4; ++i) {
        bytes[i] = static_cast<unsigned char>(classid >> (24 - 8 * i));
        bytes[4 + i] = static_cast<unsigned char>(hostId >> (24 - 8 * i));
    }
    return renderBytes(bytes, sizeof bytes);
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

std::string parser(const char *name, const std::string &value) {
    return error(SHMEM_SETUP, "KEL_LOG_PARSER_FAILURE_ss", {name, value});
}
const std::string RESOLVE =
    error(SHMEM_SETUP, "KEL_LOG_ANY_FAILURE_s", {"resolve UDP debugging IP address"});

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
        KEL_INT16 before, expected;
    };
    using V = DDS_ProductVersion_t;
    const V zero = {0, 0, 0, 0};
    const std::vector<Case> cases = {
        // Without robust mutexes a given minimum picks the format, replacing
        // whatever the caller set; a given minimum counts once.
        {0, V{6, 1, 0, 0}, 2, 4},
        {0, V{6, 0, 0, 0}, 2, 2},
        {0, V{4, 5, '6', 0}, 2, 2},
        {0, V{4, 5, 0, 0}, 2, 1},
        {0, V{7, 2, 0, 0}, 2, 4},
        {0, V{6, 0, 127, 127}, 1, 2},
        {0, V{4, 5, '5', 127}, 4, 1},
        {0, V{0, 0, 0, 1}, 5, 1},
        {0, V{6, 1, 0, 0}, 5, 4},
        // With robust mutexes every given minimum means format 5.
        {1, V{7, 2, 0, 0}, 2, 5},
        {1, V{9, 0, 0, 0}, 2, 5},
        {1, V{6, 1, 0, 0}, 2, 5},
        {1, V{6, 0, 0, 0}, 2, 5},
        {1, V{4, 5, '6', 0}, 2, 5},
        {1, V{4, 5, 0, 0}, 2, 5},
        {1, V{0, 0, 0, 1}, 7, 5},
        // No minimum (0.0.0.0 or null): robust mutexes raise a lower format
        // to 5; otherwise the caller's value stays. Not counted.
        {0, zero, 1, 1},
        {0, zero, 4, 4},
        {1, zero, 1, 5},
        {1, zero, 4, 5},
        {1, zero, 7, 7},
        {0, std::nullopt, 2, 2},
        {1, std::nullopt, 2, 5},
        {1, std::nullopt, 6, 6},
    };
    for (const Case &c : cases) {
        const bool given = c.minimum && std::memcmp(&*c.minimum, &zero, sizeof zero) != 0;
        SCOPED_TRACE(&c - cases.data());
        ForcedRobustMutex forced(c.robust);
        PropertyList properties;
        LogCapture log;
        ShmemRecord run;
        run.record.majorVersion = c.before;
        const DDS_ProductVersion_t minimum = c.minimum.value_or(zero);
        EXPECT_EQ(given ? 1 : 0,
                  run.setup(properties, nullptr, nullptr, c.minimum ? &minimum : nullptr));
        EXPECT_EQ(c.expected, run.record.majorVersion);
        EXPECT_EQ(std::vector<std::string>{}, describeAll(log));
    }
}

// Each setting sets its field and counts once (the key settings: see the
// fixed order below); the debugging destination is read only while
// debugging is on (by the caller or by the property).
TEST(ShmemSetup, EachSettingSetsItsFieldAndCountsOnce) {
    struct Case {
        NameValues properties;
        int count;
        Rendered fields;  // the fields changed
        int enabledBefore = 0;
    };
    const std::vector<Case> cases = {
        {{{"received_message_count_max", "-3"}}, 1, {{"received_message_count_max", "-3"}}},
        {{{"receive_buffer_size", "0x20000"}}, 1, {{"receive_buffer_size", "131072"}}},
        {{{"maxAllowedWriterDurationMillisec", "4294967295"}},
         1,
         {{"maxAllowedWriterDurationMillisec", "4294967295"}}},
        {{{"enable_udp_debugging", "yes"}}, 1, {{"enable_udp_debugging", "1"}}},
        {{{"enable_udp_debugging", "FALSE"}}, 1, {}},
        {{{"enable_udp_debugging", "true"}, {"udp_debugging_address", "fd00::5"}},
         2,
         {{"enable_udp_debugging", "1"},
          {"udp_debugging_address", "fd000000000000000000000000000005"}}},
        {{{"enable_udp_debugging", "on"}, {"udp_debugging_port", "7500"}},
         2,
         {{"enable_udp_debugging", "1"}, {"udp_debugging_port", "7500"}}},
        {{{"udp_debugging_address", "bad..name"}, {"udp_debugging_port", "not a port"}}, 0, {}},
        {{{"enable_udp_debugging", "false"}, {"udp_debugging_address", "bad..name"}},
         1,
         {{"enable_udp_debugging", "0"}},
         1},
        {{{"udp_debugging_address", "192.0.2.40"}, {"udp_debugging_port", "7600"}},
         2,
         {{"udp_debugging_address", "000000000000000000000000c0000228"},
          {"udp_debugging_port", "7600"}},
         1},
        // The generic names are read without a prefix.
        {{{"parent.message_size_max", "9000"}}, 1, {{"message_size_max", "9000"}}},
    };
    PropertyList empty;
    ShmemRecord baseline;
    ASSERT_EQ(0, baseline.setup(empty));
    for (const Case &c : cases) {
        SCOPED_TRACE(c.properties.front().first + " = " + c.properties.front().second);
        PropertyList properties(c.properties);
        LogCapture log;
        ShmemRecord run;
        run.record.enable_udp_debugging = c.enabledBefore;
        Shmem before = baseline.record;
        before.enable_udp_debugging = c.enabledBefore;
        EXPECT_EQ(c.count, run.setup(properties));
        EXPECT_EQ(c.fields, changes(before, run.record));
        EXPECT_EQ(std::vector<std::string>{}, describeAll(log));
    }
}

// The properties are read in their fixed order: a bad value stops the
// setup, so every property before it is applied and none after it. The
// format version and the unit-test switch come after the settings and
// before the host id; a failed setup generates no address.
TEST(ShmemSetup, ABadValueStopsTheSetupWithItsMessageInTheFixedOrder) {
    struct Ordered {
        const char *name, *good, *bad, *field, *rendered;
    };
    const std::vector<Ordered> ordered = {
        {"received_message_count_max", "11", "eleven", "received_message_count_max", "11"},
        {"receive_buffer_size", "2048", "2k", "receive_buffer_size", "2048"},
        {"segmentKeyOffset", "12", "0x", "segmentKeyOffset", "12"},
        {"segmentKeyFactor", "13", "", "segmentKeyFactor", "13"},
        {"semaphoreKeyOffset", "14", "1.5", "semaphoreKeyOffset", "14"},
        {"semaphoreKeyFactor", "15", "99999999999", "semaphoreKeyFactor", "15"},
        {"mutexKeyOffset", "16", " 16", "mutexKeyOffset", "16"},
        {"mutexKeyFactor", "17", "x17", "mutexKeyFactor", "17"},
        {"enable_udp_debugging", "true", "maybe", "enable_udp_debugging", "1"},
        {"udp_debugging_address", "10.1.2.3", "bad..name", "udp_debugging_address",
         "0000000000000000000000000a010203"},
        {"udp_debugging_port", "7411", "-1", "udp_debugging_port", "7411"},
        {"maxAllowedWriterDurationMillisec", "18", "4294967296", "maxAllowedWriterDurationMillisec",
         "18"},
        {"host_id", "19", "host", "shmemUUID", ""},
    };
    ForcedRobustMutex forced(1);
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
        const bool pastSettings = bad + 1 == ordered.size();
        EXPECT_EQ(std::vector<std::string>{ordered[bad].name == std::string("udp_debugging_address")
                                               ? RESOLVE
                                               : parser(ordered[bad].name, ordered[bad].bad)},
                  describeAll(log));
        const Shmem defaults = withDefaultThreadName(VESK_TRANSPORT_SHMEM_PROPERTY_DEFAULT);
        Rendered expected;
        for (size_t i = 0; i < bad; ++i)
            expected.emplace_back(ordered[i].field, ordered[i].rendered);
        if (pastSettings)
            expected.insert(expected.end(), {{"majorVersion", "5"}, {"reserved", "1"}});
        // What a failed conversion leaves in its own field is open.
        const std::string own = ordered[bad].field;
        EXPECT_EQ(with(render(defaults), expected),
                  with(render(run.record), {{own, field(defaults, own)}}));
    }
}

TEST(ShmemSetup, TheUnitTestSwitchSetsReservedOnlyForTrueAndAlwaysCounts) {
    const std::vector<std::tuple<const char *, KEL_INT32, KEL_INT32>> cases = {
        {"true", 0, 1},  {"TrUe", 0, 1},  {"TRUE", 2, 1},  {"tRUE", 7, 1}, {"false", 0, 0},
        {"false", 2, 2}, {"1", 0, 0},     {"yes", 0, 0},   {"on", 5, 5},   {"", 0, 0},
        {"true ", 0, 0}, {" true", 0, 0}, {"truex", 0, 0}, {"tru", 2, 2},
    };
    for (const auto &[value, before, after] : cases) {
        SCOPED_TRACE(std::string("\"") + value + "\", reserved " + std::to_string(before));
        PropertyList properties{{"CORE_6518_unit_test_disable_shmem", value}};
        LogCapture log;
        ShmemRecord run;
        run.record.reserved = before;
        EXPECT_EQ(1, run.setup(properties));
        EXPECT_EQ(after, run.record.reserved);
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
    const auto G = [](KEL_UINT32 hostId) { return generated(hostId); };
    const auto U = [](size_t n, unsigned char fill) {  // the unique id's leading bytes
        return leading(HOST_UNIQUE_ID.data(), n, fill);
    };
    const auto P = [](size_t n, unsigned char fill) {  // the GUID prefix's leading bytes
        const KELOsapiRtpsGuidPrefix prefix{1, 2, 3};
        return leading(reinterpret_cast<const unsigned char *>(&prefix), n, fill);
    };
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
        {"the record's class id", mac, classid, 1, 0, generated(GM, 0x01000002)},
    };
    ForcedRobustMutex forced(0);
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        UniqueIdOverride uniqueId(c.uniqueId);
        Generator generator;
        PropertyList properties(c.properties);
        DDS_WireProtocolQosPolicy policy = DDS_WireProtocolQosPolicy_INITIALIZER;
        policy.rtps_host_id = c.rtpsHostId;
        if (c.policyKind != NO_POLICY) {
            policy.rtps_auto_id_kind = static_cast<DDS_RtpsAutoIdKind>(c.policyKind);
        }
        LogCapture log;
        ShmemRecord run;
        run.record.reserved = c.reserved;
        std::memset(run.record.shmemUUID.network_ordered_value, c.before, 16);
        const DDS_ProductVersion_t minimum = c.minimum.value_or(zero);
        EXPECT_EQ(c.count, run.setup(properties, c.policyKind == NO_POLICY ? nullptr : &policy,
                                     generator.generator, c.minimum ? &minimum : nullptr));
        EXPECT_EQ(c.expected, field(run.record, "shmemUUID"));
        EXPECT_EQ(std::vector<std::string>{}, describeAll(log));
    }
}

// The policy and its generator: with "host_id" neither is read; without
// it, a missing generator is a failed precondition, and the locator flag
// is read (and can fail) only for FROM_UUID. An address that cannot be
// generated is logged, and the setup succeeds.
TEST(ShmemSetup, ThePolicyItsGeneratorAndTheGeneratedAddress) {
    struct Case {
        NameValues properties;
        int kind;  // NO_POLICY: none
        bool withGenerator;
        int result;
        std::vector<std::string> messages;  // "precondition": one precondition failure
        std::string address;
    };
    const std::string invalid(32, '0');
    const std::vector<std::string> precondition = {"precondition"};
    const std::string notGenerated =
        error(SHMEM_SETUP, "KEL_LOG_ANY_FAILURE_s", {"generate default network address"});
    const std::vector<Case> cases = {
        {{{"host_id", "9"}}, DDS_RTPS_AUTO_ID_FROM_UUID, false, 1, {}, generated(9)},
        {{}, DDS_RTPS_AUTO_ID_FROM_IP, false, -1, precondition, invalid},
        {{}, DDS_RTPS_AUTO_ID_FROM_MAC, false, -1, precondition, invalid},
        {{}, DDS_RTPS_AUTO_ID_FROM_UUID, false, -1, precondition, invalid},
        {{{"use_530_from_uuid_locator", "maybe"}},
         DDS_RTPS_AUTO_ID_FROM_UUID,
         true,
         -1,
         {parser("use_530_from_uuid_locator", "maybe")},
         invalid},
        {{{"use_530_from_uuid_locator", "maybe"}},
         DDS_RTPS_AUTO_ID_FROM_MAC,
         true,
         0,
         {},
         generated(GENERATOR_MAC_HOST_ID)},
        {{{"parent.classid", "0"}, {"host_id", "3"}}, NO_POLICY, false, 2, {notGenerated}, invalid},
        {{{"parent.classid", "-5"}, {"host_id", "3"}},
         NO_POLICY,
         false,
         2,
         {notGenerated},
         invalid},
    };
    UniqueIdOverride uniqueId(HOST_UNIQUE_ID);
    for (const Case &c : cases) {
        SCOPED_TRACE(&c - cases.data());
        Generator generator;
        PropertyList properties(c.properties);
        DDS_WireProtocolQosPolicy policy = DDS_WireProtocolQosPolicy_INITIALIZER;
        policy.rtps_auto_id_kind = static_cast<DDS_RtpsAutoIdKind>(c.kind);
        policy.rtps_host_id = 5;
        LogCapture log;
        ShmemRecord run;
        EXPECT_EQ(c.result, run.setup(properties, c.kind == NO_POLICY ? nullptr : &policy,
                                      c.withGenerator ? generator.generator : nullptr, nullptr));
        if (c.messages == precondition) {
            expectPrecondition(log, SHMEM_SETUP, "");
        } else {
            EXPECT_EQ(c.messages, describeAll(log));
        }
        EXPECT_EQ(c.address, field(run.record, "shmemUUID"));
    }
}

// ---------------------------------------------------------------------------
// The generic part and name validation
// ---------------------------------------------------------------------------

// Each list also holds "received_message_count_max": read (by its whole
// name, never under the prefix) and counted once unless the setup failed
// before it.
TEST(ShmemSetup, TheGenericPartAndValidationComeBeforeTheSettings) {
    struct Case {
        NameValues properties;
        int result;
        std::vector<std::string> messages;
    };
    const char *ACTION = DDS_PROPERTY_VALIDATION_ACTION_PROPERTY_NAME;
    const std::string parent =
        error(SHMEM_SETUP, "KEL_LOG_PARSER_FAILURE_s", {"parent properties"});
    const auto unknown = [](const char *name, KEL_UINT32 level = KEL_LOG_BIT_ERROR) {
        return message(level, VALIDATE, "KEL_LOG_UNKNOWN_PROPERTY_s", {name});
    };
    const auto inconsistent = [](const char *prefix) {
        return error(SHMEM_SETUP, "KEL_LOG_INCONSISTENT_PROPERTY_s", {prefix});
    };
    const std::vector<Case> cases = {
        {{{"parent.classid", "nope"}},
         -1,
         {error(PARENT_SETUP, "KEL_LOG_PARSER_FAILURE_ss", {"parent.classid", "nope"}), parent}},
        // The generic part comes before validation: an unknown name is not
        // reported then.
        {{{"bogus", "1"}, {"parent.max_interface_count", "many"}},
         -1,
         {error(PARENT_SETUP, "KEL_LOG_PARSER_FAILURE_ss", {"parent.max_interface_count", "many"}),
          parent}},
        {{{ACTION, "sometimes"}},
         -1,
         {error("DDS_PropertyQosPolicy_parse_property_validation_action",
                "KEL_LOG_PARSER_FAILURE_ss", {ACTION, "sometimes"}),
          error(SHMEM_SETUP, "KEL_LOG_PARSER_FAILURE_s", {"property_validation_action"})}},
        {{{"bogus", "1"}}, -1, {unknown("bogus"), inconsistent("")}},
        {{{"bogus", "1"}, {ACTION, "EXCEPTION"}}, -1, {unknown("bogus"), inconsistent("")}},
        // Names of the UDP classes are not the shared-memory transport's.
        {{{"send_socket_buffer_size", "1"}},
         -1,
         {unknown("send_socket_buffer_size"), inconsistent("")}},
        {{{"public_address", "1.2.3.4"}}, -1, {unknown("public_address"), inconsistent("")}},
        {{{"prefix", "dds.transport.shmem.builtin"}, {"dds.transport.shmem.builtin.bogus", "1"}},
         -1,
         {unknown("dds.transport.shmem.builtin.bogus"),
          inconsistent("dds.transport.shmem.builtin")}},
        {{{"bogus", "1"}, {ACTION, "WARNING"}}, 1, {unknown("bogus", KEL_LOG_BIT_WARN)}},
        {{{"bogus", "1"}, {ACTION, "skip"}}, 1, {}},
        {{{"bogus", "1"}, {ACTION, "DDS_PROPERTY_QOS_POLICY_VALIDATION_ACTION_SKIP"}}, 1, {}},
        // "prefix" counts once; names outside it are not tested.
        {{{"prefix", "dds.transport.shmem.builtin"}, {"bogus", "1"}}, 2, {}},
        {{{"prefix", "dds.transport.shmem.builtin"},
          {"dds.transport.shmem.builtin.received_message_count_max", "9"}},
         2,
         {}},
        // "p.host_id" passes validation but is not read.
        {{{"prefix", "p."}, {"p.host_id", "9"}, {"bogus", "1"}}, 2, {}},
        {{{"prefix", ""}, {"host_id", "9"}}, 3, {}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.properties.front().first + " = " + c.properties.front().second);
        PropertyList properties(c.properties);
        properties.add("received_message_count_max", "5");
        LogCapture log;
        ShmemRecord run;
        EXPECT_EQ(c.result, run.setup(properties));
        EXPECT_EQ(c.messages, describeAll(log));
        EXPECT_EQ(c.result < 0 ? 64 : 5, run.record.received_message_count_max);
    }
}

// Every name at once, with the action EXCEPTION: validation passes and the
// result counts each property applied once (a list under both its names,
// and the two thread-name prefixes, count once; the locator flag is not
// read when "host_id" is given).
TEST(ShmemSetup, EveryNameAtOncePassesValidationAndCountsOnceEach) {
    PropertyList properties{
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
        {"prefix", ""},
        {DDS_PROPERTY_VALIDATION_ACTION_PROPERTY_NAME, "EXCEPTION"},
    };
    const DDS_ProductVersion_t minimum = {6, 1, 0, 0};
    Generator generator;
    DDS_WireProtocolQosPolicy policy = DDS_WireProtocolQosPolicy_INITIALIZER;
    ForcedRobustMutex forced(0);
    LogCapture log;
    ShmemRecord run;
    // 12 generic, "prefix", 12 settings, the minimum, the switch, "host_id".
    EXPECT_EQ(12 + 1 + 12 + 1 + 1 + 1,
              run.setup(properties, &policy, generator.generator, &minimum));
    EXPECT_EQ(std::vector<std::string>{}, describeAll(log));
    EXPECT_EQ("1,1,1,1,0,0", renderFlags(run.flags));
    EXPECT_STREQ("shmA", run.record.parent.thread_name_prefix);
    EXPECT_EQ(4, run.record.majorVersion);
    EXPECT_EQ(0, run.record.reserved);
    EXPECT_EQ(generated(0x10), field(run.record, "shmemUUID"));
}

// Every allocation refused in turn, with every property, a wire-protocol
// policy and a generator (a path no factory takes): -1 and errors only,
// every list held is flagged and whole, and the cleanup leaves nothing.
TEST(ShmemSetup, EveryAllocationFailureLeavesOnlyFlaggedListsBehind) {
    PropertyList properties;
    for (const std::string &suffix : acceptedSuffixes(Class::shmem)) {
        properties.add(suffix, valueFor(suffix, Class::shmem));
    }
    const DDS_ProductVersion_t minimum = {5, 0, 0, 0};
    const DDS_WireProtocolQosPolicy policy = DDS_WireProtocolQosPolicy_INITIALIZER;
    Generator generator;
    struct Outcome {
        ShmemRecord run;
        int result = 0;
        std::vector<LogEntry> log;
    };
    const auto summary = sweepAllocationFailures(
        [&] {
            LogCapture capture;
            Outcome outcome;
            outcome.result = outcome.run.setup(properties, &policy, generator.generator, &minimum);
            outcome.log = capture.entries();
            return outcome;
        },
        [&](const SweepStep &step, Outcome &outcome) {
            const std::string flags = renderFlags(outcome.run.flags);
            const char *lists[] = {"allow_interfaces_list", "deny_interfaces_list",
                                   "allow_multicast_interfaces_list",
                                   "deny_multicast_interfaces_list"};
            for (int i = 0; i < 4; ++i) {
                const std::string held = field(outcome.run.record, lists[i]);
                EXPECT_EQ(held != "null", flags[2 * i] == '1') << lists[i];
                EXPECT_EQ(std::string::npos, held.find("null]")) << held;
            }
            if (!step.failed) {
                EXPECT_EQ(13 + 14, outcome.result);
                EXPECT_TRUE(outcome.log.empty());
                return;
            }
            EXPECT_EQ(-1, outcome.result);
            ASSERT_FALSE(outcome.log.empty());
            for (const LogEntry &entry : outcome.log) {
                EXPECT_EQ(static_cast<KEL_UINT32>(KEL_LOG_BIT_ERROR), entry.level) << entry.text;
            }
        },
        [](Outcome &outcome) {
            VESK_Transport_cleanupShmemProperty(&outcome.run.record, &outcome.run.flags);
            EXPECT_EQ(nullptr, outcome.run.record.parent.thread_name_prefix);
        });
    EXPECT_TRUE(summary.completed);
    EXPECT_GT(summary.failurePoints, 10);
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
