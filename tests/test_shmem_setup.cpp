// The shared-memory property setup: format version, settings and their
// order, the unit-test switch, host id and address, validation, cleanup.

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "support/EveryProperty.hpp"
#include "support/SetupChecks.hpp"
#include "vesk_transport/Support.h"

namespace {

using namespace vesk::test;
using Bytes = std::array<unsigned char, 16>;
using V = DDS_ProductVersion_t;
using Messages = std::vector<std::string>;
using Outcome = std::pair<int, Messages>;  // a result and the log lines

constexpr int NO_POLICY = -1;
constexpr KEL_UINT32 GENERATOR_HOST_ID = 0x0C0D0E0F;
constexpr KEL_UINT32 GENERATOR_MAC_HOST_ID = 0x22334455;
const std::string ACTION = DDS_PROPERTY_VALIDATION_ACTION_PROPERTY_NAME;

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
    return vesk::test::parser(SHMEM_SETUP, name, value);
}

// What the policy, the platform and the record hold before a setup.
struct Start {
    int policy = NO_POLICY;  // the wire-protocol policy's kind, or none
    KEL_UINT32 hostId = 0;   // the policy's
    unsigned char fill = 0;  // every byte of shmemUUID (0: the invalid address)
    KEL_INT32 reserved = 0;
    std::optional<V> minimum = std::nullopt;  // nullopt: a null minimum
    Bytes uniqueId = HOST_UNIQUE_ID;          // the host's
    bool generator = true;
    int robust = 0;  // the platform's mutexes
    KEL_INT16 majorVersion = 2;
    KEL_INT32 debugging = 0;  // enable_udp_debugging
};

// The setup of a list ("name=value;...") from start.
Outcome setup(ShmemRecord &run, const std::string &list, const Start &start) {
    ForcedRobustMutex forced(start.robust);
    UniqueIdOverride uniqueId(start.uniqueId);
    Generator generator;
    DDS_WireProtocolQosPolicy policy = DDS_WireProtocolQosPolicy_INITIALIZER;
    policy.rtps_auto_id_kind = static_cast<DDS_RtpsAutoIdKind>(start.policy);
    policy.rtps_host_id = start.hostId;
    std::memset(run.record.shmemUUID.network_ordered_value, start.fill, 16);
    run.record.reserved = start.reserved;
    run.record.majorVersion = start.majorVersion;
    run.record.enable_udp_debugging = start.debugging;
    const V minimum = start.minimum.value_or(V{});
    const PropertyList properties(list);
    LogCapture capture;
    const int result = run.setup(properties, start.policy == NO_POLICY ? nullptr : &policy,
                                 start.generator ? generator.generator : nullptr,
                                 start.minimum ? &minimum : nullptr);
    return {result, describeAll(capture)};
}

TEST(ShmemSetup, TheVersionConstantsAreTheDocumentedVersions) {
    std::string text;
    for (const V &v : {ROBUST_MUTEX_PRODUCT_VERSION, SHMEM_MAJOR_VERSION_4_PRODUCT_VERSION,
                       BUG_14240_FIXED_PRODUCT_VERSION, LOCATOR_600_PRODUCT_VERSION}) {
        for (int part : {v.major, v.minor, v.release, v.revision})
            text += std::to_string(part) + ".";
    }
    // The third release is the character '6'.
    EXPECT_EQ("7.2.0.0.6.1.0.0.4.5.54.0.6.0.0.0.", text);
}

TEST(ShmemSetup, TheFormatVersionFollowsTheMutexesAndTheMinimumVersion) {
    struct Case {
        int robust;
        std::optional<V> minimum;  // nullopt: null minimum
        KEL_INT16 before, expected;
    };
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
        {1, V{9, 0, 0, 0}, 2, 5},
        {1, V{6, 0, 0, 0}, 2, 5},
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
        SCOPED_TRACE(&c - cases.data());
        const bool given = c.minimum && std::memcmp(&*c.minimum, &zero, sizeof zero) != 0;
        ShmemRecord run;
        EXPECT_EQ(
            Outcome(given ? 1 : 0, {}),
            setup(run, "", {.minimum = c.minimum, .robust = c.robust, .majorVersion = c.before}));
        EXPECT_EQ(c.expected, run.record.majorVersion);
    }
}

// Each setting sets its field and counts once (the key settings: see the
// fixed order below); the debugging destination is read only while
// debugging is on (by the caller or by the property). The generic names are
// read without a prefix.
TEST(ShmemSetup, EachSettingSetsItsFieldAndCountsOnce) {
    struct Case {
        const char *properties;
        int count;
        const char *fields;  // the fields changed
        int enabledBefore = 0;
    };
    const std::vector<Case> cases = {
        {"received_message_count_max=-3", 1, "received_message_count_max=-3"},
        {"receive_buffer_size=0x20000", 1, "receive_buffer_size=131072"},
        {"maxAllowedWriterDurationMillisec=4294967295", 1,
         "maxAllowedWriterDurationMillisec=4294967295"},
        {"enable_udp_debugging=yes", 1, "enable_udp_debugging=1"},
        {"enable_udp_debugging=FALSE", 1, ""},
        {"enable_udp_debugging=true;udp_debugging_address=fd00::5", 2,
         "enable_udp_debugging=1;udp_debugging_address=fd000000000000000000000000000005"},
        {"enable_udp_debugging=on;udp_debugging_port=7500", 2,
         "enable_udp_debugging=1;udp_debugging_port=7500"},
        {"udp_debugging_address=bad..name;udp_debugging_port=not a port", 0, ""},
        {"enable_udp_debugging=false;udp_debugging_address=bad..name", 1, "enable_udp_debugging=0",
         1},
        {"udp_debugging_address=192.0.2.40;udp_debugging_port=7600", 2,
         "udp_debugging_address=000000000000000000000000c0000228;udp_debugging_port=7600", 1},
        {"parent.message_size_max=9000", 1, "message_size_max=9000"},
    };
    ShmemRecord baseline;
    ASSERT_EQ(Outcome(0, {}), setup(baseline, "", {}));
    for (const Case &c : cases) {
        SCOPED_TRACE(c.properties);
        ShmemRecord run;
        Shmem before = baseline.record;
        before.enable_udp_debugging = c.enabledBefore;
        EXPECT_EQ(Outcome(c.count, {}), setup(run, c.properties, {.debugging = c.enabledBefore}));
        EXPECT_EQ(pairs(c.fields), changes(before, run.record));
    }
}

// The properties are read in their fixed order: a bad value stops the
// setup, so every property before it is applied and none after it. The
// format version and the unit-test switch come after the settings and
// before the host id; a failed setup generates no address.
TEST(ShmemSetup, ABadValueStopsTheSetupWithItsMessageInTheFixedOrder) {
    struct Ordered {
        const char *name, *good, *bad;
        const char *field = nullptr, *rendered = nullptr;  // null: the name, the good value
    };
    const std::vector<Ordered> ordered = {
        {"received_message_count_max", "11", "eleven"},
        {"receive_buffer_size", "2048", "2k"},
        {"segmentKeyOffset", "12", "0x"},
        {"segmentKeyFactor", "13", ""},
        {"semaphoreKeyOffset", "14", "1.5"},
        {"semaphoreKeyFactor", "15", "99999999999"},
        {"mutexKeyOffset", "16", " 16"},
        {"mutexKeyFactor", "17", "x17"},
        {"enable_udp_debugging", "true", "maybe", nullptr, "1"},
        {"udp_debugging_address", "10.1.2.3", "bad..name", nullptr,
         "0000000000000000000000000a010203"},
        {"udp_debugging_port", "7411", "-1"},
        {"maxAllowedWriterDurationMillisec", "18", "4294967296"},
        {"host_id", "19", "host", "shmemUUID", ""},
    };
    const Shmem defaults = withDefaultThreadName(VESK_TRANSPORT_SHMEM_PROPERTY_DEFAULT);
    for (size_t bad = 0; bad < ordered.size(); ++bad) {
        const Ordered &b = ordered[bad];
        SCOPED_TRACE(std::string(b.name) + " = \"" + b.bad + "\"");
        std::string list = "CORE_6518_unit_test_disable_shmem=true";
        Rendered expected;
        for (size_t i = 0; i < ordered.size(); ++i) {
            const Ordered &o = ordered[i];
            list += std::string(";") + o.name + "=" + (i == bad ? o.bad : o.good);
            if (i < bad) {
                expected.emplace_back(o.field ? o.field : o.name, o.rendered ? o.rendered : o.good);
            }
        }
        if (bad + 1 == ordered.size()) {
            expected.insert(expected.end(), {{"majorVersion", "5"}, {"reserved", "1"}});
        }
        ShmemRecord run;
        EXPECT_EQ(Outcome(-1, {b.name == std::string("udp_debugging_address")
                                   ? error(SHMEM_SETUP, "KEL_LOG_ANY_FAILURE_s",
                                           {"resolve UDP debugging IP address"})
                                   : parser(b.name, b.bad)}),
                  setup(run, list, {.minimum = V{6, 1, 0, 0}, .robust = 1}));
        // What a failed conversion leaves in its own field is open.
        const std::string own = b.field ? b.field : b.name;
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
        ShmemRecord run;
        EXPECT_EQ(Outcome(1, {}),
                  setup(run, std::string("CORE_6518_unit_test_disable_shmem=") + value,
                        {.reserved = before}));
        EXPECT_EQ(after, run.record.reserved);
    }
}

// One row per branch of the host id and the address. With "host_id" neither the policy nor the
// generator is read; without it, a missing generator is a failed
// precondition, and the locator flag is read (and can fail) only for
// FROM_UUID. An address that cannot be generated is logged, and the setup
// succeeds.
TEST(ShmemSetup, TheHostIdAndAddressFollowEveryBranch) {
    const V v530 = {5, 3, 0, 0}, v600 = {6, 0, 0, 0}, zero = {0, 0, 0, 0};
    const KEL_UINT32 X = 0x01020304;  // an explicit host id in the policy
    const int uuid = DDS_RTPS_AUTO_ID_FROM_UUID, mac = DDS_RTPS_AUTO_ID_FROM_MAC;
    const int ip = DDS_RTPS_AUTO_ID_FROM_IP, none = NO_POLICY;
    struct Case {
        const char *name;
        int policy;  // the policy's kind, or none
        std::string properties;
        int result;
        unsigned char fill;   // every byte of shmemUUID before (0: the invalid address)
        std::string address;  // shmemUUID after
        KEL_INT32 reserved = 0;
        std::optional<V> minimum = std::nullopt;
        KEL_UINT32 hostId = 0;            // the policy's
        Bytes uniqueId = HOST_UNIQUE_ID;  // the host's
        Messages messages = {};
        bool generator = true;
    };
    const unsigned char E = 0xee;
    const std::optional<V> any;
    const std::string eeee(32, 'e'), invalid(32, '0');
    const auto G = [](KEL_UINT32 hostId) { return generated(hostId); };
    const auto U = [](size_t n, unsigned char fill) {  // the unique id's leading bytes
        return leading(HOST_UNIQUE_ID.data(), n, fill);
    };
    const auto P = [](size_t n, unsigned char fill) {  // the GUID prefix's leading bytes
        const KELOsapiRtpsGuidPrefix prefix{1, 2, 3};
        return leading(reinterpret_cast<const unsigned char *>(&prefix), n, fill);
    };
    const auto L = [](const Bytes &id, size_t n) { return leading(id.data(), n, 0); };
    const std::string flag = "use_530_from_uuid_locator=", bits = "parent.address_bit_count=";
    const std::string guid = "participant_guid_prefix=1,2,3;" + bits;
    const Bytes &host = HOST_UNIQUE_ID, &loop = LOOPBACK_UNIQUE_ID, &near = NEAR_LOOPBACK_UNIQUE_ID;
    const KEL_UINT32 GH = GENERATOR_HOST_ID, GM = GENERATOR_MAC_HOST_ID, AUTO = DDS_RTPS_AUTO_ID;
    const Messages precondition = {message(KEL_LOG_BIT_EXCEPTION, SHMEM_SETUP,
                                           "KEL_LOG_PRECONDITION_FAILURE_s",
                                           {"\"rtps_app_id_generator_in == ((void *)0)\""})};
    const Messages badFlag = {parser("use_530_from_uuid_locator", "maybe")};
    const Messages noAddress = {
        error(SHMEM_SETUP, "KEL_LOG_ANY_FAILURE_s", {"generate default network address"})};
    const std::vector<Case> cases = {
        {"no policy", none, "", 0, 0, G(0)},
        {"no policy, 5.3.0 flag not read", none, flag + "true", 0, 0, G(0)},
        // "host_id" wins: no other source is consulted, and shmemUUID is
        // only generated from it.
        {"host_id, no policy", none, "host_id=0x0A0B0C0D", 1, 0, G(0x0A0B0C0D)},
        {"host_id over FROM_MAC", mac, "host_id=7", 1, 0, G(7)},
        {"host_id over FROM_IP with a host id", ip, "host_id=4294967295", 1, 0, G(~0u), 0, any, X},
        {"host_id, no generator", uuid, "host_id=9", 1, 0, G(9), 0, any, 0, host, {}, false},
        // The bad flag is not read, and the minimum below 6.0.0.0 counts
        // only for the format version.
        {"host_id over FROM_UUID", uuid, "host_id=7;" + flag + "bogus", 2, 0, G(7), 0, v530},
        {"host_id leaves a set shmemUUID", uuid, "host_id=7", 1, E, eeee},
        // Host ids from the policy and the generator.
        {"FROM_MAC", mac, "", 0, 0, G(GM), 0, any, X},
        {"FROM_IP, explicit host id", ip, "", 0, 0, G(X), 0, any, X},
        {"FROM_IP, automatic host id", ip, "", 0, 0, G(GH), 0, any, AUTO},
        {"FROM_MAC, shmemUUID already set", mac, "", 0, E, eeee},
        {"FROM_MAC, bad flag not read", mac, flag + "maybe", 0, 0, G(GM)},
        // FROM_UUID: as many bytes of the unique id as the bit count covers
        // (-96: 12); the others keep their value.
        {"FROM_UUID", uuid, "", 0, 0, U(12, 0), 0, any, X},
        {"FROM_UUID, the rest kept", uuid, "", 0, E, U(12, E)},
        {"FROM_UUID, 64 bits", uuid, bits + "64", 1, E, U(8, E)},
        {"FROM_UUID, -8 bits", uuid, bits + "-8", 1, E, U(1, E)},
        {"FROM_UUID, 128 bits", uuid, bits + "128", 1, E, U(16, E)},
        // Under 8 bits nothing is copied; the address, still invalid, is
        // generated with host id 0, not the policy's or the generator's.
        {"FROM_UUID, -7 bits", uuid, bits + "-7", 1, 0, G(0), 0, any, X},
        {"FROM_UUID, 127.0.0.2 is an identity", uuid, "", 0, 0, L(near, 12), 0, any, 0, near},
        {"FROM_UUID, reserved 1", uuid, "CORE_6518_unit_test_disable_shmem=true", 1, 0, U(12, 0)},
        {"FROM_UUID, a bad flag", uuid, flag + "maybe", -1, 0, invalid, 0, any, 0, host, badFlag},
        // The 5.3.0 locator form: all 16 bytes.
        {"5.3.0 flag from the property", uuid, flag + "true", 1, E, U(16, 0)},
        {"5.3.0 flag from a minimum below 6.0.0.0", uuid, "", 2, E, U(16, 0), 0, v530},
        {"minimum 6.0.0.0 leaves the flag false but counts", uuid, "", 2, E, U(12, E), 0, v600},
        {"minimum 0.0.0.0 is no minimum", uuid, "", 0, E, U(12, E), 0, zero},
        {"the property wins over an old minimum", uuid, flag + "false", 2, E, U(12, E), 0, v530},
        {"the property wins over a new minimum", uuid, flag + "1", 2, E, U(16, E), 0, v600},
        {"the flag wins over reserved 2", uuid, flag + "TRUE", 1, E, U(16, E), 2},
        {"the flag wins over the loopback", uuid, flag + "true", 1, 0, L(loop, 16), 0, any, 0,
         loop},
        // reserved 2: the owner's GUID prefix, at most its 12 bytes.
        {"reserved 2, -96 bits", uuid, "participant_guid_prefix=1,2,3", 1, E, P(12, E), 2},
        {"reserved 2, 8 bits", uuid, guid + "8", 2, E, P(1, E), 2},
        {"reserved 2, 96 bits", uuid, guid + "96", 2, E, P(12, E), 2},
        {"reserved 2, 7 bits", uuid, guid + "7", 2, E, eeee, 2},
        {"reserved 2, -7 bits", uuid, guid + "-7", 2, E, eeee, 2},
        {"reserved 2, 104 bits", uuid, guid + "104", 2, E, P(12, E), 2},
        {"reserved 2, -128 bits", uuid, guid + "-128", 2, E, P(12, E), 2},
        // 12 zero bytes copied leave the address invalid: generated with
        // host id 0, even on a loopback host.
        {"reserved 2, zero GUID prefix", uuid, "", 0, 0, G(0), 2, any, 0, loop},
        // The loopback id: the generator's host id, shmemUUID untouched and
        // then generated from it.
        {"loopback unique id", uuid, "", 0, 0, G(GH), 0, any, X, loop},
        {"loopback unique id, shmemUUID set", uuid, "", 0, E, eeee, 0, any, 0, loop},
        {"loopback unique id, minimum 6.0.0.0", uuid, "", 2, 0, G(GH), 0, v600, 0, loop},
        // The generated address carries the record's class id; none for 0
        // or a negative one (logged, and the setup succeeds).
        {"the record's class id", mac, "parent.classid=0x01000002", 1, 0,
         generated(GM, 0x01000002)},
        {"class id 0", none, "parent.classid=0;host_id=3", 2, 0, invalid, 0, any, 0, host,
         noAddress},
        {"class id -5", none, "parent.classid=-5;host_id=3", 2, 0, invalid, 0, any, 0, host,
         noAddress},
        // Without "host_id" the policy needs a generator.
        {"FROM_IP, no generator", ip, "", -1, 0, invalid, 0, any, 0, host, precondition, false},
        {"FROM_MAC, no generator", mac, "", -1, 0, invalid, 0, any, 0, host, precondition, false},
        {"FROM_UUID, no generator", uuid, "", -1, 0, invalid, 0, any, 0, host, precondition, false},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        ShmemRecord run;
        const Start start = {.policy = c.policy,
                             .hostId = c.hostId,
                             .fill = c.fill,
                             .reserved = c.reserved,
                             .minimum = c.minimum,
                             .uniqueId = c.uniqueId,
                             .generator = c.generator};
        EXPECT_EQ(Outcome(c.result, c.messages), setup(run, c.properties, start));
        EXPECT_EQ(c.address, field(run.record, "shmemUUID"));
    }
}

// Each list also holds "received_message_count_max": read (by its whole
// name, never under the prefix) and counted once unless the setup failed
// before it.
TEST(ShmemSetup, TheGenericPartAndValidationComeBeforeTheSettings) {
    const auto parentFails = [](const char *name, const char *value) {
        return Messages{error(PARENT_SETUP, "KEL_LOG_PARSER_FAILURE_ss", {name, value}),
                        error(SHMEM_SETUP, "KEL_LOG_PARSER_FAILURE_s", {"parent properties"})};
    };
    const auto unknown = [](const std::string &name, const std::string &prefix = "") {
        return Messages{error(VALIDATE, "KEL_LOG_UNKNOWN_PROPERTY_s", {name}),
                        error(SHMEM_SETUP, "KEL_LOG_INCONSISTENT_PROPERTY_s", {prefix})};
    };
    const std::string shm = "dds.transport.shmem.builtin", builtin = "prefix=" + shm + ";";
    const std::vector<std::tuple<std::string, int, Messages>> cases = {
        {"parent.classid=nope", -1, parentFails("parent.classid", "nope")},
        // The generic part comes before validation: an unknown name is not
        // reported then.
        {"bogus=1;parent.max_interface_count=many", -1,
         parentFails("parent.max_interface_count", "many")},
        {ACTION + "=sometimes",
         -1,
         {error("DDS_PropertyQosPolicy_parse_property_validation_action",
                "KEL_LOG_PARSER_FAILURE_ss", {ACTION, "sometimes"}),
          error(SHMEM_SETUP, "KEL_LOG_PARSER_FAILURE_s", {"property_validation_action"})}},
        {"bogus=1", -1, unknown("bogus")},
        {"bogus=1;" + ACTION + "=EXCEPTION", -1, unknown("bogus")},
        // Names of the UDP classes are not the shared-memory transport's.
        {"send_socket_buffer_size=1", -1, unknown("send_socket_buffer_size")},
        {"public_address=1.2.3.4", -1, unknown("public_address")},
        {builtin + shm + ".bogus=1", -1, unknown(shm + ".bogus", shm)},
        {"bogus=1;" + ACTION + "=WARNING",
         1,
         {message(KEL_LOG_BIT_WARN, VALIDATE, "KEL_LOG_UNKNOWN_PROPERTY_s", {"bogus"})}},
        {"bogus=1;" + ACTION + "=skip", 1, {}},
        {"bogus=1;" + ACTION + "=DDS_PROPERTY_QOS_POLICY_VALIDATION_ACTION_SKIP", 1, {}},
        // "prefix" counts once; names outside it are not tested.
        {builtin + "bogus=1", 2, {}},
        {builtin + shm + ".received_message_count_max=9", 2, {}},
        // "p.host_id" passes validation but is not read.
        {"prefix=p.;p.host_id=9;bogus=1", 2, {}},
        {"prefix=;host_id=9", 3, {}},
    };
    for (const auto &[list, result, messages] : cases) {
        SCOPED_TRACE(list);
        ShmemRecord run;
        EXPECT_EQ(Outcome(result, messages),
                  setup(run, list + ";received_message_count_max=5", {}));
        EXPECT_EQ(result < 0 ? 64 : 5, run.record.received_message_count_max);
    }
}

// Every name at once with the action EXCEPTION, a wire-protocol policy and
// a generator (a path no factory takes): each property counts once (a list
// under both names, the two thread-name prefixes too; the locator flag is
// not read with "host_id"). A refused allocation: -1 and errors only, every
// list held flagged and whole. The cleanup leaves nothing either way.
TEST(ShmemSetup, EveryNameAtOnceAndEveryAllocationFailure) {
    VESK_Transport_cleanupShmemProperty(nullptr, nullptr);
    PropertyList properties;
    properties.addEvery(Class::shmem).add("prefix", "").add(ACTION, "EXCEPTION");
    const V minimum = {6, 1, 0, 0};
    const DDS_WireProtocolQosPolicy policy = DDS_WireProtocolQosPolicy_INITIALIZER;
    Generator generator;
    ForcedRobustMutex forced(0);
    const auto sweep = sweepSetup<ShmemRecord>(
        [&](ShmemRecord &run) {
            return run.setup(properties, &policy, generator.generator, &minimum);
        },
        [](bool failed, const ShmemRecord &run, int result, const Messages &lines) {
            const std::string flags = renderFlags(run.flags);
            const char *lists[] = {"allow_interfaces_list", "deny_interfaces_list",
                                   "allow_multicast_interfaces_list",
                                   "deny_multicast_interfaces_list"};
            for (int i = 0; i < 4; ++i) {
                const std::string held = field(run.record, lists[i]);
                EXPECT_EQ(held != "null", flags[2 * i] == '1') << lists[i];
                EXPECT_EQ(std::string::npos, held.find("null]")) << held;
            }
            for (const std::string &line : lines) {
                EXPECT_EQ(0u, line.rfind(std::to_string(KEL_LOG_BIT_ERROR) + " ", 0)) << line;
            }
            EXPECT_EQ(failed, !lines.empty());
            // 12 generic, "prefix", 12 settings, the minimum, the switch, "host_id".
            EXPECT_EQ(failed ? -1 : 12 + 1 + 12 + 1 + 1 + 1, result);
            if (failed) return;
            EXPECT_EQ("1,1,1,1,0,0", flags);
            EXPECT_STREQ("sweep", run.record.parent.thread_name_prefix);
            EXPECT_EQ(4, run.record.majorVersion);
            EXPECT_EQ(0, run.record.reserved);
            EXPECT_EQ(generated(7), field(run.record, "shmemUUID"));
        });
    EXPECT_GT(sweep.failurePoints, 10);
}

}  // namespace
