// The shared-memory factory: its default record field by field, the plugin
// it builds from an empty list, the host id and format version that reach
// the plugin, the messages of a failed setup, a refused construction, the
// caller's address and every failed allocation.

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "support/PropertyList.hpp"
#include "support/SetupChecks.hpp"
#include "support/ShmemRecords.hpp"
#include "support/TestSupport.hpp"
#include "vesk_transport/Support.h"
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
using vesk::test::PropertyList;
using vesk::test::renderBytes;

using Shmem = VESK_Transport_Shmem_Property_t;
using NameValues = std::vector<std::pair<std::string, std::string>>;

constexpr const char *SHMEM_SETUP = "VESK_Transport_setupShmemProperty";
constexpr const char *SHMEM_CREATE = "VESK_Transport_Shmem_create";
constexpr const char *SHMEM_NEW = "VESK_Transport_Shmem_newI";
constexpr KEL_UINT32 ERROR = KEL_LOG_BIT_ERROR;

struct PluginDeleter {
    void operator()(VESK_Transport_Plugin *plugin) const { plugin->delete_cEA(plugin, nullptr); }
};
using PluginPtr = std::unique_ptr<VESK_Transport_Plugin, PluginDeleter>;

// The plugin keeps its own copy of the whole shared-memory record.
const Shmem &recordOf(const VESK_Transport_Plugin *plugin) {
    return *reinterpret_cast<const Shmem *>(plugin->property);
}

class ForcedRobustMutex {
public:
    explicit ForcedRobustMutex(int mode) { KELOsapiSharedMemorySemMutex_forceRobustMutex(mode); }
    ~ForcedRobustMutex() { KELOsapiSharedMemorySemMutex_forceRobustMutex(-1); }
    ForcedRobustMutex(const ForcedRobustMutex &) = delete;
    ForcedRobustMutex &operator=(const ForcedRobustMutex &) = delete;
};

class UniqueIdOverride {
public:
    explicit UniqueIdOverride(const std::array<unsigned char, 16> &bytes) {
        KELOsapiHostId id;
        std::memcpy(id.value, bytes.data(), bytes.size());
        KELOsapiHost_setUniqueIdOverride(&id);
    }
    ~UniqueIdOverride() { KELOsapiHost_setUniqueIdOverride(nullptr); }
    UniqueIdOverride(const UniqueIdOverride &) = delete;
    UniqueIdOverride &operator=(const UniqueIdOverride &) = delete;
};

// The default shared-memory address: class id 0x01000000, the host id,
// then app and instance id 0, each in network order.
std::string generatedAddress(KEL_UINT32 hostId) {
    const unsigned char bytes[16] = {1,
                                     0,
                                     0,
                                     0,
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

VESK_Transport_Plugin *create(const PropertyList &properties,
                              const DDS_ProductVersion_t *minimum = nullptr,
                              VESK_Transport_Address_t *address = nullptr) {
    return VESK_Transport_Shmem_create(address, properties.get(), minimum);
}

const std::string CREATION_FAILURE =
    message(ERROR, SHMEM_CREATE, "KEL_LOG_CREATION_FAILURE_s",
            {"Shared Memory Transport: Properties not properly set"});

// ---------------------------------------------------------------------------
// The default record
// ---------------------------------------------------------------------------

TEST(ShmemDefaults, EveryFieldHoldsItsDefault) {
    const std::vector<std::pair<std::string, std::string>> expected = {
        {"parent.classid", "16777216"},
        {"parent.address_bit_count", "-96"},
        {"parent.properties_bitmap", "2"},
        {"parent.gather_send_buffer_count_max", "1024"},
        {"parent.message_size_max", "65536"},
        {"parent.allow_interfaces_list", "null"},
        {"parent.allow_interfaces_list_length", "0"},
        {"parent.deny_interfaces_list", "null"},
        {"parent.deny_interfaces_list_length", "0"},
        {"parent.allow_multicast_interfaces_list", "null"},
        {"parent.allow_multicast_interfaces_list_length", "0"},
        {"parent.deny_multicast_interfaces_list", "null"},
        {"parent.deny_multicast_interfaces_list_length", "0"},
        {"parent.transport_uuid", "000000000000000000000000"},
        {"parent.domain_participant_ptr", "null"},
        {"parent.domain_participant_forwarder", "null"},
        {"parent.thread_name_prefix", "null"},
        {"parent.max_interface_count", "-1"},
        {"received_message_count_max", "64"},
        {"receive_buffer_size", "1048576"},
        {"enable_udp_debugging", "0"},
        {"udp_debugging_address", "000000000000000000000000efff0102"},
        {"udp_debugging_port", "7399"},
        {"segmentKeyOffset", "4194304"},
        {"segmentKeyFactor", "1"},
        {"semaphoreKeyOffset", "8388608"},
        {"semaphoreKeyFactor", "1"},
        {"mutexKeyOffset", "11534336"},
        {"mutexKeyFactor", "1"},
        {"maxAllowedWriterDurationMillisec", "1000"},
        {"reserved", "0"},
        {"shmemUUID", "00000000000000000000000000000000"},
        {"majorVersion", "2"},
    };
    EXPECT_EQ(expected, render(VESK_TRANSPORT_SHMEM_PROPERTY_DEFAULT));
    // The empty address is the invalid one, so that the setup generates it.
    EXPECT_EQ(0,
              std::memcmp(&VESK_TRANSPORT_SHMEM_PROPERTY_DEFAULT.shmemUUID,
                          &VESK_TRANSPORT_ADDRESS_INVALID, sizeof VESK_TRANSPORT_ADDRESS_INVALID));
}

// ---------------------------------------------------------------------------
// Plugins
// ---------------------------------------------------------------------------

TEST(ShmemFactory, AnEmptyListBuildsThePluginFromTheDefaults) {
    for (int robust : {0, 1}) {
        SCOPED_TRACE(robust ? "robust mutexes" : "no robust mutexes");
        ForcedRobustMutex forced(robust);
        PropertyList properties;
        LogCapture log;
        PluginPtr plugin(create(properties));
        ASSERT_NE(nullptr, plugin);
        EXPECT_EQ(VESK_TRANSPORT_CLASSID_SHMEM, plugin->property->classid);
        const Shmem &record = recordOf(plugin.get());
        std::vector<std::string> changed = {"parent.thread_name_prefix", "shmemUUID"};
        if (robust) changed.push_back("majorVersion");
        EXPECT_EQ(changed, differences(VESK_TRANSPORT_SHMEM_PROPERTY_DEFAULT, record));
        EXPECT_STREQ("rTr#####", record.parent.thread_name_prefix);
        EXPECT_EQ(generatedAddress(0), field(record, "shmemUUID"));
        EXPECT_EQ(robust ? 5 : 2, record.majorVersion);
        EXPECT_EQ(std::vector<std::string>{}, describeAll(log));
    }
}

// Without a wire-protocol policy the host's identity is never consulted:
// "host_id" is the only way to put a host id into the address.
TEST(ShmemFactory, OnlyTheHostIdPropertyPutsAHostIdIntoTheAddress) {
    struct Case {
        const char *name;
        NameValues properties;
        std::optional<std::array<unsigned char, 16>> uniqueId;
        KEL_UINT32 hostId;
    };
    const std::array<unsigned char, 16> hostIdentity = {0xa0, 0xa1, 0xa2, 0xa3, 0xa4, 0xa5,
                                                        0xa6, 0xa7, 0xa8, 0xa9, 0xaa, 0xab,
                                                        0xac, 0xad, 0xae, 0xaf};
    const std::array<unsigned char, 16> loopback = {127, 0, 0, 1};
    const std::vector<Case> cases = {
        {"host_id", {{"host_id", "0x0A0B0C0D"}}, std::nullopt, 0x0A0B0C0D},
        {"host_id, decimal", {{"host_id", "4294967295"}}, std::nullopt, 0xFFFFFFFF},
        {"host_id 0", {{"host_id", "0"}}, hostIdentity, 0},
        {"the host's identity is not used", {}, hostIdentity, 0},
        {"nor is the generator on a loopback host", {}, loopback, 0},
        {"the 5.3.0 flag changes nothing",
         {{"use_530_from_uuid_locator", "true"}},
         hostIdentity,
         0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        std::optional<UniqueIdOverride> uniqueId;
        if (c.uniqueId) uniqueId.emplace(*c.uniqueId);
        PropertyList properties;
        for (const auto &[name, value] : c.properties) properties.add(name, value);
        LogCapture log;
        PluginPtr plugin(create(properties));
        ASSERT_NE(nullptr, plugin);
        EXPECT_EQ(generatedAddress(c.hostId), field(recordOf(plugin.get()), "shmemUUID"));
        EXPECT_EQ(std::vector<std::string>{}, describeAll(log));
    }
}

TEST(ShmemFactory, TheMinimumVersionReachesTheFormatVersion) {
    struct Case {
        int robust;
        std::optional<DDS_ProductVersion_t> minimum;
        KEL_INT16 expected;
    };
    const std::vector<Case> cases = {
        {0, std::nullopt, 2},
        {0, DDS_ProductVersion_t{0, 0, 0, 0}, 2},
        {0, DDS_ProductVersion_t{7, 2, 0, 0}, 4},
        {0, DDS_ProductVersion_t{6, 1, 0, 0}, 4},
        {0, DDS_ProductVersion_t{6, 0, 0, 0}, 2},
        {0, DDS_ProductVersion_t{4, 5, '6', 0}, 2},
        {0, DDS_ProductVersion_t{4, 5, 0, 0}, 1},
        {1, std::nullopt, 5},
        {1, DDS_ProductVersion_t{0, 0, 0, 0}, 5},
        {1, DDS_ProductVersion_t{4, 5, 0, 0}, 5},
        {1, DDS_ProductVersion_t{7, 2, 0, 0}, 5},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::to_string(c.robust) + " " +
                     (c.minimum ? std::to_string(c.minimum->major) + "." +
                                      std::to_string(c.minimum->minor) + "." +
                                      std::to_string(c.minimum->release)
                                : std::string("null")));
        ForcedRobustMutex forced(c.robust);
        PropertyList properties;
        const DDS_ProductVersion_t minimum = c.minimum.value_or(DDS_ProductVersion_t{0, 0, 0, 0});
        const DDS_ProductVersion_t copy = minimum;
        PluginPtr plugin(create(properties, c.minimum ? &minimum : nullptr));
        ASSERT_NE(nullptr, plugin);
        EXPECT_EQ(c.expected, recordOf(plugin.get()).majorVersion);
        EXPECT_EQ(0, std::memcmp(&copy, &minimum, sizeof minimum));
    }
}

// The plugin keeps its own copies; the factory's lists and prefix are
// released before it returns.
TEST(ShmemFactory, ThePluginKeepsCopiesOfWhatTheSetupAllocated) {
    const KEL_UINT64 before = liveHeapBlocks();
    {
        PropertyList properties{{"parent.allow_interfaces_list", "shm0, shm1"},
                                {"parent.deny_multicast_interfaces", "shm2"},
                                {"parent.thread_name_prefix", "shmThread1"},
                                {"received_message_count_max", "32"},
                                {"enable_udp_debugging", "true"},
                                {"udp_debugging_address", "127.0.0.5"},
                                {"udp_debugging_port", "7500"}};
        LogCapture log;
        PluginPtr plugin(create(properties));
        ASSERT_NE(nullptr, plugin);
        const Shmem &record = recordOf(plugin.get());
        EXPECT_EQ("[\"shm0\",\"shm1\"]", field(record, "parent.allow_interfaces_list"));
        EXPECT_EQ("[\"shm2\"]", field(record, "parent.deny_multicast_interfaces_list"));
        EXPECT_STREQ("shmThrea", record.parent.thread_name_prefix);
        EXPECT_EQ(32, record.received_message_count_max);
        EXPECT_EQ(1, record.enable_udp_debugging);
        EXPECT_EQ("0000000000000000000000007f000005", field(record, "udp_debugging_address"));
        EXPECT_EQ(7500u, record.udp_debugging_port);
        // Only the truncation warning of the generic part.
        const auto entries = log.entries();
        ASSERT_EQ(1u, entries.size());
        EXPECT_EQ("KEL_LOG_TRUNCATED_STRING_sds", entries[0].template_name);
    }
    EXPECT_EQ(before, liveHeapBlocks());
}

// ---------------------------------------------------------------------------
// Failures
// ---------------------------------------------------------------------------

TEST(ShmemFactory, AFailedSetupIsFollowedByOneCreationFailure) {
    struct Case {
        const char *name;
        NameValues properties;
        std::vector<std::string> setupMessages;
    };
    const auto setupMessage = [](const std::string &templateName,
                                 const std::vector<std::string> &params) {
        return message(ERROR, SHMEM_SETUP, templateName, params);
    };
    const std::vector<Case> cases = {
        {"bad setting",
         {{"received_message_count_max", "many"}},
         {setupMessage("KEL_LOG_PARSER_FAILURE_ss", {"received_message_count_max", "many"})}},
        {"bad host id",
         {{"host_id", "-"}},
         {setupMessage("KEL_LOG_PARSER_FAILURE_ss", {"host_id", "-"})}},
        {"bad debugging address",
         {{"enable_udp_debugging", "1"}, {"udp_debugging_address", "bad..name"}},
         {setupMessage("KEL_LOG_ANY_FAILURE_s", {"resolve UDP debugging IP address"})}},
        {"unknown name",
         {{"bogus", "1"}},
         {message(ERROR, "DDS_PropertyQosPolicy_validate_plugin_property_suffixes",
                  "KEL_LOG_UNKNOWN_PROPERTY_s", {"bogus"}),
          setupMessage("KEL_LOG_INCONSISTENT_PROPERTY_s", {""})}},
        // Lists and the prefix allocated before the failure are released.
        {"bad generic value after lists",
         {{"parent.allow_interfaces_list", "shm0,shm1"},
          {"parent.deny_interfaces", "shm2"},
          {"parent.thread_name_prefix", "shm"},
          {"parent.max_interface_count", "lots"}},
         {message(ERROR, "VESK_Transport_setupParentTransportProperty", "KEL_LOG_PARSER_FAILURE_ss",
                  {"parent.max_interface_count", "lots"}),
          setupMessage("KEL_LOG_PARSER_FAILURE_s", {"parent properties"})}},
        {"bad setting after lists",
         {{"parent.allow_multicast_interfaces_list", "shm0,shm1"},
          {"parent.thread_name_prefix", "shm"},
          {"mutexKeyFactor", "x"}},
         {setupMessage("KEL_LOG_PARSER_FAILURE_ss", {"mutexKeyFactor", "x"})}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        PropertyList properties;
        for (const auto &[name, value] : c.properties) properties.add(name, value);
        const KEL_UINT64 before = liveHeapBlocks();
        {
            LogCapture log;
            EXPECT_EQ(nullptr, create(properties));
            std::vector<std::string> expected = c.setupMessages;
            expected.push_back(CREATION_FAILURE);
            EXPECT_EQ(expected, describeAll(log));
        }
        EXPECT_EQ(before, liveHeapBlocks());
        // The creation failure is an error: written only with bit 0x2 and
        // the module's submodule bit 0x400.
        for (const auto &[instrumentation, submodule] :
             std::vector<std::pair<KEL_UINT32, KEL_UINT32>>{
                 {KEL_LOG_BIT_EXCEPTION, 0xFFFFFFFFu},
                 {VESK_CONFIG_LOG_VERBOSITY_ERROR, 0xFFFFFFFFu & ~0x400u},
                 {KEL_LOG_BIT_ERROR, 0x400u}}) {
            LogCapture log(instrumentation, submodule);
            EXPECT_EQ(nullptr, create(properties));
            const std::vector<std::string> lines = describeAll(log);
            const bool written = (instrumentation & KEL_LOG_BIT_ERROR) && (submodule & 0x400u);
            EXPECT_EQ(written, !lines.empty() && lines.back() == CREATION_FAILURE)
                << instrumentation << " " << submodule;
            if (!written) {
                EXPECT_EQ(std::vector<std::string>{}, lines);
            }
        }
    }
}

// A record that the transport refuses: null, no message of the factory's
// own, the setup's allocations released.
TEST(ShmemFactory, ARefusedConstructionReturnsNullAndReleasesTheLists) {
    struct Case {
        NameValues properties;
        const char *reason;
    };
    const std::vector<Case> cases = {
        {{{"received_message_count_max", "0"}}, "received_message_count_max is below 1"},
        {{{"receive_buffer_size", "100"}}, "receive_buffer_size is below parent.message_size_max"},
        {{{"segmentKeyFactor", "0"}}, "segmentKeyFactor is below 1"},
        {{{"parent.classid", "1"}}, "parent.classid is not 0x01000000 (SHMEM)"},
        {{{"enable_udp_debugging", "true"}, {"udp_debugging_port", "0"}},
         "udp_debugging_port is outside 1..65535"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.reason);
        PropertyList properties{{"parent.allow_interfaces_list", "shm0,shm1"},
                                {"parent.deny_multicast_interfaces_list", "shm2"},
                                {"parent.thread_name_prefix", "shm"}};
        for (const auto &[name, value] : c.properties) properties.add(name, value);
        const KEL_UINT64 before = liveHeapBlocks();
        {
            LogCapture log;
            EXPECT_EQ(nullptr, create(properties));
            EXPECT_EQ(
                std::vector<std::string>{message(ERROR, SHMEM_NEW, "KEL_LOG_CREATION_FAILURE_s",
                                                 {std::string("SHMEM transport: ") + c.reason})},
                describeAll(log));
        }
        EXPECT_EQ(before, liveHeapBlocks());
    }
}

// The caller's address is neither read nor written, whatever happens; a
// null one is accepted.
TEST(ShmemFactory, TheCallersAddressIsNeverTouched) {
    struct Case {
        const char *name;
        NameValues properties;
        bool built;
    };
    const std::vector<Case> cases = {
        {"success", {}, true},
        {"success with a host id", {{"host_id", "5"}}, true},
        {"failed setup", {{"host_id", "five"}}, false},
        {"refused construction", {{"received_message_count_max", "0"}}, false},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        PropertyList properties;
        for (const auto &[name, value] : c.properties) properties.add(name, value);
        LogCapture log;
        VESK_Transport_Address_t address;
        for (unsigned char i = 0; i < 16; ++i) address.network_ordered_value[i] = 0xC0 + i;
        const VESK_Transport_Address_t original = address;
        PluginPtr plugin(create(properties, nullptr, &address));
        EXPECT_EQ(c.built, plugin != nullptr);
        EXPECT_EQ(0, std::memcmp(&original, &address, sizeof address));
        PluginPtr again(create(properties, nullptr, nullptr));
        EXPECT_EQ(c.built, again != nullptr);
    }
}

}  // namespace
