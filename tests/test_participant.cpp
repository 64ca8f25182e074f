// The participant: creation and deletion, enabling with builtin transports,
// the builtin property records and the alias conversions.

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/TestSupport.hpp"
#include "vesk_transport/Support.h"
#include "vesk_transport/platform/Heap.h"

namespace {

using vesk::test::liveHeapBlocks;
using vesk::test::LogCapture;
using vesk::test::summarize;

constexpr const char *GET_NAME = "DDS_DomainParticipant_get_builtin_transport_property";
constexpr const char *SET_NAME = "DDS_DomainParticipant_set_builtin_transport_property";
constexpr const char *ENABLE_NAME = "DDS_DomainParticipant_enable";

DDS_DomainParticipant *create(DDS_TransportBuiltinKindMask mask, int plugin_count_max = 0) {
    DDS_DomainParticipantOptions options = DDS_DOMAINPARTICIPANT_OPTIONS_DEFAULT;
    options.transport_builtin_mask = mask;
    options.plugin_count_max = plugin_count_max;
    return DDS_DomainParticipant_create(&options);
}

// An interface list owned by the caller, on the library heap.
char **newList(std::initializer_list<const char *> names) {
    char **list = nullptr;
    EXPECT_TRUE(KELOsapiHeap_allocateArray(&list, names.size(), char *));
    int i = 0;
    for (const char *name : names) list[i++] = DDS_String_dup(name);
    return list;
}

// Asserts one logged message: template, function and parameters.
void expectSingleLog(const LogCapture &log, const char *function, const std::string &expected) {
    const auto entries = log.entries();
    ASSERT_EQ(entries.size(), 1u) << (entries.empty() ? "" : entries[0].text);
    EXPECT_EQ(entries[0].function, function);
    EXPECT_EQ(entries[0].level, static_cast<KEL_UINT32>(KEL_LOG_BIT_ERROR));
    EXPECT_EQ(summarize(entries[0].template_name, entries[0].params), expected);
}

int g_fakeDeleteCount = 0;

struct FakePlugin {
    VESK_Transport_Plugin plugin;
    VESK_Transport_Property_t property;
};

void fakeDelete(VESK_Transport_Plugin *self, void *) {
    ++g_fakeDeleteCount;
    KELOsapiHeap_freeMemoryInternal(self);
}

VESK_Transport_Plugin *newFakePlugin(VESK_Transport_ClassId_t classid) {
    auto *fake = static_cast<FakePlugin *>(KELOsapiHeap_reallocateMemoryInternal(
        nullptr, 1, sizeof(FakePlugin), "FakePlugin", VESK_TRANSPORT_HEAP_TAG));
    fake->property.classid = classid;
    fake->plugin.property = &fake->property;
    fake->plugin.delete_cEA = &fakeDelete;
    return &fake->plugin;
}

void installFake(DDS_DomainParticipant *participant, VESK_Transport_ClassId_t classid,
                 const char *alias) {
    KELNetioAliasList list{};
    ASSERT_EQ(KELNetioAliasList_appendFromString(&list, alias), 1);
    const VESK_Transport_Address_t zero{};
    ASSERT_EQ(
        KELNetioConfigurator_installTransportPlugin(
            DDS_DomainParticipant_get_netio_configuratorI(participant), nullptr,
            newFakePlugin(classid), &list, &zero, DDS_DomainParticipant_get_workerI(participant)),
        1);
}

// ---------------------------------------------------------------------------
// Creation and deletion
// ---------------------------------------------------------------------------

TEST(ParticipantTest, CreateGivesADisabledParticipantWithConfiguratorAndWorker) {
    DDS_DomainParticipant *participant = DDS_DomainParticipant_create(nullptr);
    ASSERT_NE(participant, nullptr);
    // The entity part heads the participant and reports its state.
    const auto *entity = reinterpret_cast<const DDS_Entity *>(participant);
    ASSERT_NE(entity->_is_enabled, nullptr);
    EXPECT_EQ(entity->_is_enabled(entity), 0);
    EXPECT_EQ(DDS_DomainParticipant_is_enabled(participant), 0);

    KELNetioConfigurator *configurator = DDS_DomainParticipant_get_netio_configuratorI(participant);
    ASSERT_NE(configurator, nullptr);
    EXPECT_EQ(KELNetioConfigurator_getPluginCount(configurator), 0);
    EXPECT_EQ(KELNetioConfigurator_getPluginCountMax(configurator),
              KEL_NETIO_CONFIGURATOR_PLUGIN_COUNT_MAX_DEFAULT);
    REDAWorker *worker = DDS_DomainParticipant_get_workerI(participant);
    ASSERT_NE(worker, nullptr);
    EXPECT_STREQ(worker->_name, "participant worker");
    EXPECT_EQ(worker->_activityContext, nullptr);
    EXPECT_EQ(DDS_DomainParticipant_get_workerI(participant), worker);  // one per participant
    DDS_DomainParticipant_delete(participant);
    DDS_DomainParticipant_delete(nullptr);
}

TEST(ParticipantTest, OptionsLeaveOutConfiguratorOrWorker) {
    DDS_DomainParticipantOptions options = DDS_DOMAINPARTICIPANT_OPTIONS_DEFAULT;
    options.without_netio_configurator = 1;
    DDS_DomainParticipant *bare = DDS_DomainParticipant_create(&options);
    ASSERT_NE(bare, nullptr);
    EXPECT_EQ(DDS_DomainParticipant_get_netio_configuratorI(bare), nullptr);
    EXPECT_NE(DDS_DomainParticipant_get_workerI(bare), nullptr);

    options = DDS_DOMAINPARTICIPANT_OPTIONS_DEFAULT;
    options.without_worker = 1;
    options.plugin_count_max = 3;
    DDS_DomainParticipant *workerless = DDS_DomainParticipant_create(&options);
    ASSERT_NE(workerless, nullptr);
    EXPECT_EQ(DDS_DomainParticipant_get_workerI(workerless), nullptr);
    EXPECT_EQ(KELNetioConfigurator_getPluginCountMax(
                  DDS_DomainParticipant_get_netio_configuratorI(workerless)),
              3);
    EXPECT_EQ(DDS_DomainParticipant_get_netio_configuratorI(nullptr), nullptr);
    EXPECT_EQ(DDS_DomainParticipant_get_workerI(nullptr), nullptr);
    EXPECT_EQ(DDS_DomainParticipant_is_enabled(nullptr), 0);
    DDS_DomainParticipant_delete(workerless);
    DDS_DomainParticipant_delete(bare);
}

TEST(ParticipantTest, CreateSurvivesEveryAllocationFailure) {
    const KEL_UINT64 before = liveHeapBlocks();
    DDS_DomainParticipant *participant = nullptr;
    long n = 1;
    for (; n < 200 && participant == nullptr; ++n) {
        SCOPED_TRACE("failing allocation " + std::to_string(n));
        KELOsapiHeap_failAllocationAfter(n);
        participant = DDS_DomainParticipant_create(nullptr);
        if (participant == nullptr) {
            EXPECT_EQ(liveHeapBlocks(), before);
        }
    }
    KELOsapiHeap_failAllocationAfter(0);
    ASSERT_NE(participant, nullptr);
    EXPECT_GT(n, 2);
    DDS_DomainParticipant_delete(participant);
    EXPECT_EQ(liveHeapBlocks(), before);
}

TEST(ParticipantTest, DeleteReleasesInstalledPluginsAndRecords) {
    DDS_DomainParticipant *participant = create(0);
    ASSERT_NE(participant, nullptr);
    g_fakeDeleteCount = 0;
    installFake(participant, 0x7001, "mine");
    installFake(participant, 0x7002, "yours");
    // A record with owned members, released with the participant.
    VESK_Transport_UDP_Property_t record = VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT;
    record.parent.thread_name_prefix = const_cast<char *>("abc");
    ASSERT_EQ(DDS_DomainParticipant_set_builtin_transport_property(
                  participant, DDS_TRANSPORTBUILTIN_UDPv4, &record.parent),
              DDS_RETCODE_OK);
    DDS_DomainParticipant_delete(participant);
    EXPECT_EQ(g_fakeDeleteCount, 2);
}

// ---------------------------------------------------------------------------
// Enabling
// ---------------------------------------------------------------------------

TEST(ParticipantTest, EnableInstallsTheUdpv4Builtin) {
    DDS_DomainParticipant *participant = DDS_DomainParticipant_create(nullptr);
    ASSERT_NE(participant, nullptr);
    KELNetioConfigurator *configurator = DDS_DomainParticipant_get_netio_configuratorI(participant);
    REDAWorker *worker = DDS_DomainParticipant_get_workerI(participant);

    ASSERT_EQ(DDS_DomainParticipant_enable(participant), DDS_RETCODE_OK);
    EXPECT_EQ(DDS_DomainParticipant_is_enabled(participant), 1);
    const auto *entity = reinterpret_cast<const DDS_Entity *>(participant);
    EXPECT_NE(entity->_is_enabled(entity), 0);

    VESK_Transport_Plugin *plugin = KELNetioConfigurator_getTransportPluginByClass(
        configurator, VESK_TRANSPORT_CLASSID_UDPv4, worker);
    ASSERT_NE(plugin, nullptr);
    ASSERT_NE(plugin->property, nullptr);
    EXPECT_EQ(plugin->property->classid, VESK_TRANSPORT_CLASSID_UDPv4);
    EXPECT_EQ(KELNetioConfigurator_getPluginCount(configurator), 1);

    KELNetioAliasList aliases;
    VESK_Transport_Address_t networkAddress;
    std::memset(&networkAddress, 0xAB, sizeof(networkAddress));
    ASSERT_EQ(KELNetioConfigurator_queryTransportPlugin(configurator, &aliases, &networkAddress,
                                                        nullptr, plugin, worker),
              1);
    EXPECT_STREQ(aliases.element, DDS_TRANSPORTBUILTIN_UDPv4_ALIAS);
    const VESK_Transport_Address_t zero{};
    EXPECT_EQ(std::memcmp(&networkAddress, &zero, sizeof(zero)), 0);
    EXPECT_EQ(
        KELNetioConfigurator_getTransportPluginFromAlias(configurator, nullptr, &aliases, worker),
        plugin);

    // Enabling again changes nothing.
    EXPECT_EQ(DDS_DomainParticipant_enable(participant), DDS_RETCODE_OK);
    EXPECT_EQ(KELNetioConfigurator_getPluginCount(configurator), 1);
    DDS_DomainParticipant_delete(participant);
}

TEST(ParticipantTest, EnableInstallsEveryBuiltinOfTheMask) {
    struct Row {
        DDS_TransportBuiltinKind kind;
        VESK_Transport_ClassId_t classid;
        const char *alias;
    };
    const std::vector<Row> rows = {
        {DDS_TRANSPORTBUILTIN_UDPv4, VESK_TRANSPORT_CLASSID_UDPv4,
         DDS_TRANSPORTBUILTIN_UDPv4_ALIAS},
        {DDS_TRANSPORTBUILTIN_SHMEM, VESK_TRANSPORT_CLASSID_SHMEM,
         DDS_TRANSPORTBUILTIN_SHMEM_ALIAS},
        {DDS_TRANSPORTBUILTIN_UDPv6, VESK_TRANSPORT_CLASSID_UDPv6,
         DDS_TRANSPORTBUILTIN_UDPv6_ALIAS},
        {DDS_TRANSPORTBUILTIN_UDPv4_WAN, VESK_TRANSPORT_CLASSID_UDPv4_WAN,
         DDS_TRANSPORTBUILTIN_UDPv4_WAN_ALIAS},
    };
    // INTRA has no plugin and is ignored.
    DDS_DomainParticipant *participant = create(
        DDS_TRANSPORTBUILTIN_UDPv4 | DDS_TRANSPORTBUILTIN_SHMEM | DDS_TRANSPORTBUILTIN_INTRA |
        DDS_TRANSPORTBUILTIN_UDPv6 | DDS_TRANSPORTBUILTIN_UDPv4_WAN);
    ASSERT_NE(participant, nullptr);
    ASSERT_EQ(DDS_DomainParticipant_enable(participant), DDS_RETCODE_OK);
    KELNetioConfigurator *configurator = DDS_DomainParticipant_get_netio_configuratorI(participant);
    EXPECT_EQ(KELNetioConfigurator_getPluginCount(configurator), 4);
    for (const Row &row : rows) {
        SCOPED_TRACE(row.alias);
        KELNetioAliasList list{};
        ASSERT_EQ(KELNetioAliasList_appendFromString(&list, row.alias), 1);
        VESK_Transport_Plugin *plugin =
            KELNetioConfigurator_getTransportPluginFromAlias(configurator, nullptr, &list, nullptr);
        ASSERT_NE(plugin, nullptr);
        EXPECT_EQ(plugin->property->classid, row.classid);
    }
    DDS_DomainParticipant_delete(participant);
}

TEST(ParticipantTest, EnableWithoutBuiltinsOrConfigurator) {
    DDS_DomainParticipant *none = create(0);
    ASSERT_NE(none, nullptr);
    EXPECT_EQ(DDS_DomainParticipant_enable(none), DDS_RETCODE_OK);
    EXPECT_EQ(DDS_DomainParticipant_is_enabled(none), 1);
    DDS_DomainParticipant_delete(none);

    DDS_DomainParticipantOptions options = DDS_DOMAINPARTICIPANT_OPTIONS_DEFAULT;
    options.without_netio_configurator = 1;
    DDS_DomainParticipant *bare = DDS_DomainParticipant_create(&options);
    ASSERT_NE(bare, nullptr);
    LogCapture log;
    EXPECT_EQ(DDS_DomainParticipant_enable(bare), DDS_RETCODE_ERROR);
    EXPECT_EQ(DDS_DomainParticipant_is_enabled(bare), 0);
    expectSingleLog(log, ENABLE_NAME, "DDS_LOG_GET_FAILURE_s(netio configurator not valid)");
    DDS_DomainParticipant_delete(bare);
}

TEST(ParticipantTest, EnableRefusalsInstallNothing) {
    struct Row {
        const char *name;
        DDS_TransportBuiltinKindMask mask;
        int plugin_count_max;
        VESK_Transport_ClassId_t fake_classid;  // installed first
        const char *fake_alias;
        std::string expected_log;
    };
    const std::vector<Row> rows = {
        {"builtin alias taken", DDS_TRANSPORTBUILTIN_UDPv4 | DDS_TRANSPORTBUILTIN_UDPv6, 0, 0x7000,
         DDS_TRANSPORTBUILTIN_UDPv6_ALIAS,
         "DDS_LOG_INSTALL_TRANSPORT_PLUGINS_s(" DDS_TRANSPORTBUILTIN_UDPv6_ALIAS ")"},
        {"no room", DDS_TRANSPORTBUILTIN_UDPv4 | DDS_TRANSPORTBUILTIN_UDPv6, 2, 0x7000, "mine",
         "KEL_LOG_INSUFFICIENT_SPACE_FAILURE_dd(3|2)"},
        {"a shared-memory plugin is registered", DDS_TRANSPORTBUILTIN_SHMEM, 0,
         VESK_TRANSPORT_CLASSID_SHMEM, "my_shmem",
         "KEL_LOG_ANY_FAILURE_s(Only one shared memory transport is accepted)"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        DDS_DomainParticipant *participant = create(row.mask, row.plugin_count_max);
        ASSERT_NE(participant, nullptr);
        installFake(participant, row.fake_classid, row.fake_alias);
        const KEL_UINT64 blocks = liveHeapBlocks();
        LogCapture log;
        EXPECT_EQ(DDS_DomainParticipant_enable(participant), DDS_RETCODE_ERROR);
        EXPECT_EQ(DDS_DomainParticipant_is_enabled(participant), 0);
        EXPECT_EQ(KELNetioConfigurator_getPluginCount(
                      DDS_DomainParticipant_get_netio_configuratorI(participant)),
                  1);
        EXPECT_EQ(liveHeapBlocks(), blocks);
        expectSingleLog(log, ENABLE_NAME, row.expected_log);
        DDS_DomainParticipant_delete(participant);
    }
}

TEST(ParticipantTest, EnableReleasesWhatItMadeWhenAConstructorRefuses) {
    DDS_DomainParticipant *participant =
        create(DDS_TRANSPORTBUILTIN_UDPv4 | DDS_TRANSPORTBUILTIN_UDPv6);
    ASSERT_NE(participant, nullptr);
    // The records are taken as they are; the UDPv6 constructor refuses this
    // one after the UDPv4 plugin has been made.
    VESK_Transport_UDP_Property_t v6 = VESK_TRANSPORT_UDPV6_PROPERTY_DEFAULT;
    v6.multicast_ttl = 300;
    ASSERT_EQ(DDS_DomainParticipant_set_builtin_transport_property(
                  participant, DDS_TRANSPORTBUILTIN_UDPv6, &v6.parent),
              DDS_RETCODE_OK);
    const KEL_UINT64 before = liveHeapBlocks();
    LogCapture log;
    EXPECT_EQ(DDS_DomainParticipant_enable(participant), DDS_RETCODE_ERROR);
    EXPECT_EQ(DDS_DomainParticipant_is_enabled(participant), 0);
    EXPECT_EQ(KELNetioConfigurator_getPluginCount(
                  DDS_DomainParticipant_get_netio_configuratorI(participant)),
              0);
    EXPECT_EQ(liveHeapBlocks(), before);
    const auto entries = log.entries();
    ASSERT_FALSE(entries.empty());
    EXPECT_EQ(entries.back().function, ENABLE_NAME);
    EXPECT_EQ(summarize(entries.back().template_name, entries.back().params),
              "KEL_LOG_CREATION_FAILURE_s(" DDS_TRANSPORTBUILTIN_UDPv6_ALIAS ")");
    DDS_DomainParticipant_delete(participant);
}

TEST(ParticipantTest, EnableSurvivesEveryAllocationFailure) {
    // Two builtins: a failure while making the second releases the first.
    DDS_DomainParticipant *participant =
        create(DDS_TRANSPORTBUILTIN_UDPv4 | DDS_TRANSPORTBUILTIN_UDPv6);
    ASSERT_NE(participant, nullptr);
    KELNetioConfigurator *configurator = DDS_DomainParticipant_get_netio_configuratorI(participant);
    const KEL_UINT64 before = liveHeapBlocks();
    DDS_ReturnCode_t result = DDS_RETCODE_ERROR;
    long n = 1;
    {
        LogCapture log(VESK_CONFIG_LOG_VERBOSITY_SILENT);
        for (; n < 500 && result != DDS_RETCODE_OK; ++n) {
            SCOPED_TRACE("failing allocation " + std::to_string(n));
            KELOsapiHeap_failAllocationAfter(n);
            result = DDS_DomainParticipant_enable(participant);
            if (result != DDS_RETCODE_OK) {
                EXPECT_EQ(result, DDS_RETCODE_ERROR);
                EXPECT_EQ(DDS_DomainParticipant_is_enabled(participant), 0);
                EXPECT_EQ(KELNetioConfigurator_getPluginCount(configurator), 0);
                EXPECT_EQ(liveHeapBlocks(), before);
            }
        }
    }
    KELOsapiHeap_failAllocationAfter(0);
    ASSERT_EQ(result, DDS_RETCODE_OK);
    EXPECT_GT(n, 3);  // failures in both constructors were exercised
    EXPECT_EQ(KELNetioConfigurator_getPluginCount(configurator), 2);
    DDS_DomainParticipant_delete(participant);
}

// ---------------------------------------------------------------------------
// Builtin property records
// ---------------------------------------------------------------------------

// Any int as a kind, without storing it in a variable of the enumeration
// (which cannot hold values such as 32 in C++).
DDS_TransportBuiltinKind asKind(int value) {
    return static_cast<DDS_TransportBuiltinKind>(value);
}

// Room for the record of any kind, and the generic part of the right one.
struct AnyRecord {
    VESK_Transport_UDP_Property_t udp;
    VESK_Transport_Shmem_Property_t shmem;
    VESK_Transport_Property_t *of(int kind) {
        return kind == DDS_TRANSPORTBUILTIN_SHMEM ? &shmem.parent : &udp.parent;
    }
};

TEST(ParticipantPropertyTest, GetAndSetPerKind) {
    struct Row {
        int kind;  // any int, as a C caller may pass
        DDS_ReturnCode_t expected;
        std::string expected_log;  // empty: no message
        const VESK_Transport_Property_t *default_record;
    };
    const std::string badKind =
        "DDS_LOG_BAD_PARAMETER_s(kind must be exactly one DDS_TransportBuiltinKind)";
    const std::vector<Row> rows = {
        {DDS_TRANSPORTBUILTIN_UDPv4, DDS_RETCODE_OK, "",
         &VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT.parent},
        {DDS_TRANSPORTBUILTIN_UDPv6, DDS_RETCODE_OK, "",
         &VESK_TRANSPORT_UDPV6_PROPERTY_DEFAULT.parent},
        {DDS_TRANSPORTBUILTIN_UDPv4_WAN, DDS_RETCODE_OK, "",
         &VESK_TRANSPORT_UDPV4_WAN_PROPERTY_DEFAULT.parent},
        {DDS_TRANSPORTBUILTIN_SHMEM, DDS_RETCODE_OK, "",
         &VESK_TRANSPORT_SHMEM_PROPERTY_DEFAULT.parent},
        {DDS_TRANSPORTBUILTIN_INTRA, DDS_RETCODE_UNSUPPORTED,
         "KEL_LOG_ANY_FAILURE_s(the INTRA transport has no property record)", nullptr},
        {3, DDS_RETCODE_BAD_PARAMETER, badKind, nullptr},
        {0, DDS_RETCODE_BAD_PARAMETER, badKind, nullptr},
        {32, DDS_RETCODE_BAD_PARAMETER, badKind, nullptr},
        {-1, DDS_RETCODE_BAD_PARAMETER, badKind, nullptr},
    };
    DDS_DomainParticipant *participant = create(0);
    ASSERT_NE(participant, nullptr);
    for (const Row &row : rows) {
        SCOPED_TRACE("kind " + std::to_string(row.kind));
        AnyRecord record;
        std::memset(&record, 0x5A, sizeof(record));
        AnyRecord untouched = record;
        {
            LogCapture log;
            EXPECT_EQ(DDS_DomainParticipant_get_builtin_transport_property(
                          participant, asKind(row.kind), record.of(row.kind)),
                      row.expected);
            if (row.expected_log.empty()) {
                EXPECT_TRUE(log.entries().empty());
            } else {
                expectSingleLog(log, GET_NAME, row.expected_log);
            }
        }
        if (row.expected != DDS_RETCODE_OK) {
            EXPECT_EQ(std::memcmp(&record, &untouched, sizeof(record)), 0);
        } else {
            const VESK_Transport_Property_t *got = record.of(row.kind);
            EXPECT_EQ(got->classid, row.default_record->classid);
            EXPECT_EQ(got->message_size_max, row.default_record->message_size_max);
            EXPECT_EQ(got->address_bit_count, row.default_record->address_bit_count);
            EXPECT_EQ(got->max_interface_count, row.default_record->max_interface_count);
        }

        // Writing back what was read is accepted for the kinds with a record.
        LogCapture log;
        EXPECT_EQ(DDS_DomainParticipant_set_builtin_transport_property(
                      participant, asKind(row.kind), record.of(row.kind)),
                  row.expected);
        if (row.expected_log.empty()) {
            EXPECT_TRUE(log.entries().empty());
        } else {
            expectSingleLog(log, SET_NAME, row.expected_log);
        }
    }
    DDS_DomainParticipant_delete(participant);
}

TEST(ParticipantPropertyTest, RecordsStartAsTheClassDefaults) {
    DDS_DomainParticipant *participant = create(0);
    ASSERT_NE(participant, nullptr);
    VESK_Transport_UDP_Property_t wan{};
    ASSERT_EQ(DDS_DomainParticipant_get_builtin_transport_property(
                  participant, DDS_TRANSPORTBUILTIN_UDPv4_WAN, &wan.parent),
              DDS_RETCODE_OK);
    const VESK_Transport_UDP_Property_t &wanDefault = VESK_TRANSPORT_UDPV4_WAN_PROPERTY_DEFAULT;
    EXPECT_EQ(wan.port_offset, wanDefault.port_offset);
    EXPECT_EQ(wan.binding_ping_period, wanDefault.binding_ping_period);
    EXPECT_EQ(wan.protocol_overhead_max, wanDefault.protocol_overhead_max);
    EXPECT_EQ(wan.send_socket_buffer_size, wanDefault.send_socket_buffer_size);
    EXPECT_EQ(wan.multicast_enabled, wanDefault.multicast_enabled);

    VESK_Transport_Shmem_Property_t shmem{};
    ASSERT_EQ(DDS_DomainParticipant_get_builtin_transport_property(
                  participant, DDS_TRANSPORTBUILTIN_SHMEM, &shmem.parent),
              DDS_RETCODE_OK);
    const VESK_Transport_Shmem_Property_t &shmemDefault = VESK_TRANSPORT_SHMEM_PROPERTY_DEFAULT;
    EXPECT_EQ(shmem.received_message_count_max, shmemDefault.received_message_count_max);
    EXPECT_EQ(shmem.receive_buffer_size, shmemDefault.receive_buffer_size);
    EXPECT_EQ(shmem.udp_debugging_port, shmemDefault.udp_debugging_port);
    EXPECT_EQ(shmem.majorVersion, shmemDefault.majorVersion);
    EXPECT_EQ(std::memcmp(&shmem.udp_debugging_address, &shmemDefault.udp_debugging_address,
                          sizeof(shmem.udp_debugging_address)),
              0);
    DDS_DomainParticipant_delete(participant);
}

TEST(ParticipantPropertyTest, NullArgumentsAreBadParameters) {
    DDS_DomainParticipant *participant = create(0);
    ASSERT_NE(participant, nullptr);
    VESK_Transport_UDP_Property_t record = VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT;
    struct Row {
        const char *name;
        bool set;
        DDS_DomainParticipant *participant;
        VESK_Transport_Property_t *record;
        std::string expected_log;
    };
    const std::vector<Row> rows = {
        {"get, null participant", false, nullptr, &record.parent,
         "DDS_LOG_BAD_PARAMETER_s(self must be non-NULL)"},
        {"get, null record", false, participant, nullptr,
         "DDS_LOG_BAD_PARAMETER_s(property_inout must be non-NULL)"},
        {"set, null participant", true, nullptr, &record.parent,
         "DDS_LOG_BAD_PARAMETER_s(self must be non-NULL)"},
        {"set, null record", true, participant, nullptr,
         "DDS_LOG_BAD_PARAMETER_s(property_in must be non-NULL)"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        LogCapture log;
        const DDS_ReturnCode_t result =
            row.set ? DDS_DomainParticipant_set_builtin_transport_property(
                          row.participant, DDS_TRANSPORTBUILTIN_UDPv4, row.record)
                    : DDS_DomainParticipant_get_builtin_transport_property(
                          row.participant, DDS_TRANSPORTBUILTIN_UDPv4, row.record);
        EXPECT_EQ(result, DDS_RETCODE_BAD_PARAMETER);
        expectSingleLog(log, row.set ? SET_NAME : GET_NAME, row.expected_log);
    }
    DDS_DomainParticipant_delete(participant);
}

TEST(ParticipantPropertyTest, SetOnAnEnabledParticipantIsRefused) {
    DDS_DomainParticipant *participant = create(0);
    ASSERT_NE(participant, nullptr);
    ASSERT_EQ(DDS_DomainParticipant_enable(participant), DDS_RETCODE_OK);
    VESK_Transport_UDP_Property_t record = VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT;
    record.parent.message_size_max = 1234;
    {
        LogCapture log;
        EXPECT_EQ(DDS_DomainParticipant_set_builtin_transport_property(
                      participant, DDS_TRANSPORTBUILTIN_UDPv4, &record.parent),
                  DDS_RETCODE_PRECONDITION_NOT_MET);
        expectSingleLog(log, SET_NAME, "DDS_LOG_PARTICIPANT_ENABLED_ERROR()");
    }
    // Reading still works and shows the old record.
    VESK_Transport_UDP_Property_t read{};
    EXPECT_EQ(DDS_DomainParticipant_get_builtin_transport_property(
                  participant, DDS_TRANSPORTBUILTIN_UDPv4, &read.parent),
              DDS_RETCODE_OK);
    EXPECT_EQ(read.parent.message_size_max,
              VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT.parent.message_size_max);
    DDS_DomainParticipant_delete(participant);
}

// A UDP record whose every owned member is set, owned by the test.
VESK_Transport_UDP_Property_t ownedUdpRecord(const VESK_Transport_UDP_Property_t &base) {
    VESK_Transport_UDP_Property_t record = base;
    record.parent.message_size_max = 9000;
    record.parent.allow_interfaces_list = newList({"eth0", "eth1"});
    record.parent.allow_interfaces_list_length = 2;
    record.parent.deny_multicast_interfaces_list = newList({"lo"});
    record.parent.deny_multicast_interfaces_list_length = 1;
    record.parent.thread_name_prefix = DDS_String_dup("myTr");
    record.send_socket_buffer_size = 4096;
    record.public_address = DDS_String_dup("203.0.113.7");
    EXPECT_TRUE(KELOsapiHeap_allocateArray(&record.comm_ports_list, 2,
                                           VESK_Transport_UDP_WAN_CommPortsMappingInfo));
    record.comm_ports_list[0] = {7400, 7400, 17400, 0};
    record.comm_ports_list[1] = {7401, 7401, 17401, 0};
    record.comm_ports_list_length = 2;
    return record;
}

TEST(ParticipantPropertyTest, SetDeepCopiesAndGetReturnsTheNewValues) {
    struct Row {
        DDS_TransportBuiltinKind kind;
        const VESK_Transport_UDP_Property_t *base;
    };
    const std::vector<Row> rows = {
        {DDS_TRANSPORTBUILTIN_UDPv4, &VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT},
        {DDS_TRANSPORTBUILTIN_UDPv6, &VESK_TRANSPORT_UDPV6_PROPERTY_DEFAULT},
        {DDS_TRANSPORTBUILTIN_UDPv4_WAN, &VESK_TRANSPORT_UDPV4_WAN_PROPERTY_DEFAULT},
    };
    DDS_DomainParticipant *participant = create(0);
    ASSERT_NE(participant, nullptr);
    for (const Row &row : rows) {
        SCOPED_TRACE("kind " + std::to_string(static_cast<int>(row.kind)));
        VESK_Transport_UDP_Property_t mine = ownedUdpRecord(*row.base);
        ASSERT_EQ(DDS_DomainParticipant_set_builtin_transport_property(participant, row.kind,
                                                                       &mine.parent),
                  DDS_RETCODE_OK);
        // The caller's storage can go at once.
        VESK_Transport_UDP_Property_finalize(&mine);

        VESK_Transport_UDP_Property_t got{};
        ASSERT_EQ(DDS_DomainParticipant_get_builtin_transport_property(participant, row.kind,
                                                                       &got.parent),
                  DDS_RETCODE_OK);
        EXPECT_EQ(got.parent.classid, row.base->parent.classid);
        EXPECT_EQ(got.parent.message_size_max, 9000);
        EXPECT_EQ(got.send_socket_buffer_size, 4096);
        ASSERT_EQ(got.parent.allow_interfaces_list_length, 2);
        EXPECT_STREQ(got.parent.allow_interfaces_list[0], "eth0");
        EXPECT_STREQ(got.parent.allow_interfaces_list[1], "eth1");
        ASSERT_EQ(got.parent.deny_multicast_interfaces_list_length, 1);
        EXPECT_STREQ(got.parent.deny_multicast_interfaces_list[0], "lo");
        EXPECT_STREQ(got.parent.thread_name_prefix, "myTr");
        EXPECT_STREQ(got.public_address, "203.0.113.7");
        ASSERT_EQ(got.comm_ports_list_length, 2);
        EXPECT_EQ(got.comm_ports_list[1].public_port, 17401);

        // A record read with get can be written back as it is; the other
        // kinds keep their records.
        got.parent.message_size_max = 8000;
        ASSERT_EQ(DDS_DomainParticipant_set_builtin_transport_property(participant, row.kind,
                                                                       &got.parent),
                  DDS_RETCODE_OK);
        VESK_Transport_UDP_Property_t again{};
        ASSERT_EQ(DDS_DomainParticipant_get_builtin_transport_property(participant, row.kind,
                                                                       &again.parent),
                  DDS_RETCODE_OK);
        EXPECT_EQ(again.parent.message_size_max, 8000);
        EXPECT_STREQ(again.parent.allow_interfaces_list[1], "eth1");
        EXPECT_STREQ(again.public_address, "203.0.113.7");
    }
    VESK_Transport_UDP_Property_t v4{};
    ASSERT_EQ(DDS_DomainParticipant_get_builtin_transport_property(
                  participant, DDS_TRANSPORTBUILTIN_UDPv4, &v4.parent),
              DDS_RETCODE_OK);
    EXPECT_EQ(v4.parent.classid, VESK_TRANSPORT_CLASSID_UDPv4);

    // Shared memory.
    VESK_Transport_Shmem_Property_t shmem = VESK_TRANSPORT_SHMEM_PROPERTY_DEFAULT;
    shmem.received_message_count_max = 77;
    shmem.parent.thread_name_prefix = DDS_String_dup("shm");
    shmem.parent.allow_interfaces_list = newList({"shm0"});
    shmem.parent.allow_interfaces_list_length = 1;
    ASSERT_EQ(DDS_DomainParticipant_set_builtin_transport_property(
                  participant, DDS_TRANSPORTBUILTIN_SHMEM, &shmem.parent),
              DDS_RETCODE_OK);
    VESK_Transport_Shmem_Property_finalize(&shmem);
    VESK_Transport_Shmem_Property_t gotShmem{};
    ASSERT_EQ(DDS_DomainParticipant_get_builtin_transport_property(
                  participant, DDS_TRANSPORTBUILTIN_SHMEM, &gotShmem.parent),
              DDS_RETCODE_OK);
    EXPECT_EQ(gotShmem.received_message_count_max, 77);
    EXPECT_STREQ(gotShmem.parent.thread_name_prefix, "shm");
    ASSERT_EQ(gotShmem.parent.allow_interfaces_list_length, 1);
    EXPECT_STREQ(gotShmem.parent.allow_interfaces_list[0], "shm0");
    DDS_DomainParticipant_delete(participant);
}

TEST(ParticipantPropertyTest, SetOutOfMemoryKeepsTheOldRecord) {
    DDS_DomainParticipant *participant = create(0);
    ASSERT_NE(participant, nullptr);
    VESK_Transport_UDP_Property_t old = ownedUdpRecord(VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT);
    ASSERT_EQ(DDS_DomainParticipant_set_builtin_transport_property(
                  participant, DDS_TRANSPORTBUILTIN_UDPv4, &old.parent),
              DDS_RETCODE_OK);
    VESK_Transport_UDP_Property_finalize(&old);

    VESK_Transport_UDP_Property_t mine = ownedUdpRecord(VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT);
    mine.parent.message_size_max = 1111;
    const KEL_UINT64 before = liveHeapBlocks();
    DDS_ReturnCode_t result = DDS_RETCODE_ERROR;
    long n = 1;
    for (; n < 100 && result != DDS_RETCODE_OK; ++n) {
        SCOPED_TRACE("failing allocation " + std::to_string(n));
        LogCapture log;
        KELOsapiHeap_failAllocationAfter(n);
        result = DDS_DomainParticipant_set_builtin_transport_property(
            participant, DDS_TRANSPORTBUILTIN_UDPv4, &mine.parent);
        KELOsapiHeap_failAllocationAfter(0);
        if (result == DDS_RETCODE_OK) break;
        EXPECT_EQ(result, DDS_RETCODE_OUT_OF_RESOURCES);
        EXPECT_EQ(liveHeapBlocks(), before);
        expectSingleLog(log, SET_NAME, "DDS_LOG_OUT_OF_RESOURCES_s(builtin transport property)");
        VESK_Transport_UDP_Property_t got{};
        ASSERT_EQ(DDS_DomainParticipant_get_builtin_transport_property(
                      participant, DDS_TRANSPORTBUILTIN_UDPv4, &got.parent),
                  DDS_RETCODE_OK);
        EXPECT_EQ(got.parent.message_size_max, 9000);
        EXPECT_STREQ(got.parent.thread_name_prefix, "myTr");
    }
    ASSERT_EQ(result, DDS_RETCODE_OK);
    EXPECT_GT(n, 5);  // lists, strings and port mappings were all exercised
    VESK_Transport_UDP_Property_finalize(&mine);
    VESK_Transport_UDP_Property_t got{};
    ASSERT_EQ(DDS_DomainParticipant_get_builtin_transport_property(
                  participant, DDS_TRANSPORTBUILTIN_UDPv4, &got.parent),
              DDS_RETCODE_OK);
    EXPECT_EQ(got.parent.message_size_max, 1111);
    DDS_DomainParticipant_delete(participant);
}

// ---------------------------------------------------------------------------
// Alias conversions
// ---------------------------------------------------------------------------

TEST(AliasConversionTest, FromStringSeq) {
    const std::string a64(64, 'a');
    const std::string b63(63, 'b');
    const std::string b64(64, 'b');
    const std::string c128(128, 'c');
    const std::string c129(129, 'c');
    struct Row {
        const char *name;
        std::vector<const char *> aliases;
        DDS_ReturnCode_t expected;
        std::string text;  // on success
    };
    const std::vector<Row> rows = {
        {"empty sequence", {}, DDS_RETCODE_OK, ""},
        {"one alias", {"udp"}, DDS_RETCODE_OK, "udp"},
        {"three aliases", {"udp", "shmem", "x"}, DDS_RETCODE_OK, "udp,shmem,x"},
        {"one alias of 128", {c128.c_str()}, DDS_RETCODE_OK, c128},
        {"two aliases of 128 in all", {a64.c_str(), b63.c_str()}, DDS_RETCODE_OK, a64 + "," + b63},
        {"one alias of 129", {c129.c_str()}, DDS_RETCODE_BAD_PARAMETER, ""},
        {"two aliases of 129 in all", {a64.c_str(), b64.c_str()}, DDS_RETCODE_BAD_PARAMETER, ""},
        {"empty alias", {"udp", ""}, DDS_RETCODE_BAD_PARAMETER, ""},
        {"null alias", {nullptr}, DDS_RETCODE_BAD_PARAMETER, ""},
        {"alias with a comma", {"a,b"}, DDS_RETCODE_BAD_PARAMETER, ""},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        DDS_StringSeq seq = DDS_SEQUENCE_INITIALIZER;
        for (const char *alias : row.aliases) ASSERT_TRUE(DDS_StringSeq_append(&seq, alias));
        KELNetioAliasList list;
        std::memset(&list, 0, sizeof(list));
        std::strcpy(list.element, "previous");
        EXPECT_EQ(DDS_TransportSelectionQosPolicy_AliasList_from_StringSeq(&list, &seq),
                  row.expected);
        // Refused lists are left alone, never truncated.
        EXPECT_EQ(std::string(list.element),
                  row.expected == DDS_RETCODE_OK ? row.text : std::string("previous"));
        DDS_StringSeq_finalize(&seq);
    }
    DDS_StringSeq seq = DDS_SEQUENCE_INITIALIZER;
    KELNetioAliasList list{};
    EXPECT_EQ(DDS_TransportSelectionQosPolicy_AliasList_from_StringSeq(nullptr, &seq),
              DDS_RETCODE_BAD_PARAMETER);
    EXPECT_EQ(DDS_TransportSelectionQosPolicy_AliasList_from_StringSeq(&list, nullptr),
              DDS_RETCODE_BAD_PARAMETER);
}

TEST(AliasConversionTest, ToStringSeq) {
    struct Row {
        std::string text;
        std::vector<std::string> aliases;
    };
    const std::vector<Row> rows = {
        {"", {}},
        {"udp", {"udp"}},
        {"udp,shmem,x", {"udp", "shmem", "x"}},
        {std::string(128, 'c'), {std::string(128, 'c')}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.text);
        KELNetioAliasList list{};
        std::memcpy(list.element, row.text.data(), row.text.size());
        DDS_StringSeq seq = DDS_SEQUENCE_INITIALIZER;
        ASSERT_EQ(DDS_TransportSelectionQosPolicy_StringSeq_from_AliasList(&seq, &list),
                  DDS_RETCODE_OK);
        ASSERT_EQ(DDS_StringSeq_get_length(&seq), static_cast<DDS_Long>(row.aliases.size()));
        for (size_t i = 0; i < row.aliases.size(); ++i) {
            EXPECT_EQ(std::string(DDS_StringSeq_get(&seq, static_cast<DDS_Long>(i))),
                      row.aliases[i]);
        }
        DDS_StringSeq_finalize(&seq);
    }

    KELNetioAliasList list{};
    std::strcpy(list.element, "a,b");
    DDS_StringSeq full = DDS_SEQUENCE_INITIALIZER;
    ASSERT_TRUE(DDS_StringSeq_append(&full, "x"));
    EXPECT_EQ(DDS_TransportSelectionQosPolicy_StringSeq_from_AliasList(&full, &list),
              DDS_RETCODE_BAD_PARAMETER);
    EXPECT_EQ(DDS_StringSeq_get_length(&full), 1);
    DDS_StringSeq_finalize(&full);
    DDS_StringSeq borrowed = {nullptr, 0, 0, DDS_BOOLEAN_FALSE};
    EXPECT_EQ(DDS_TransportSelectionQosPolicy_StringSeq_from_AliasList(&borrowed, &list),
              DDS_RETCODE_BAD_PARAMETER);
    DDS_StringSeq seq = DDS_SEQUENCE_INITIALIZER;
    EXPECT_EQ(DDS_TransportSelectionQosPolicy_StringSeq_from_AliasList(nullptr, &list),
              DDS_RETCODE_BAD_PARAMETER);
    EXPECT_EQ(DDS_TransportSelectionQosPolicy_StringSeq_from_AliasList(&seq, nullptr),
              DDS_RETCODE_BAD_PARAMETER);
    // A list that is not terminated within its storage is not read past it.
    KELNetioAliasList unterminated;
    std::memset(&unterminated, 'x', sizeof(unterminated));
    EXPECT_EQ(DDS_TransportSelectionQosPolicy_StringSeq_from_AliasList(&seq, &unterminated),
              DDS_RETCODE_BAD_PARAMETER);
    EXPECT_EQ(DDS_StringSeq_get_length(&seq), 0);
}

TEST(AliasConversionTest, ToStringSeqOutOfMemoryLeavesTheSequenceEmpty) {
    KELNetioAliasList list{};
    std::strcpy(list.element, "udp,shmem,x");
    const KEL_UINT64 before = liveHeapBlocks();
    DDS_ReturnCode_t result = DDS_RETCODE_ERROR;
    long n = 1;
    for (; n < 50 && result != DDS_RETCODE_OK; ++n) {
        SCOPED_TRACE("failing allocation " + std::to_string(n));
        DDS_StringSeq seq = DDS_SEQUENCE_INITIALIZER;
        KELOsapiHeap_failAllocationAfter(n);
        result = DDS_TransportSelectionQosPolicy_StringSeq_from_AliasList(&seq, &list);
        KELOsapiHeap_failAllocationAfter(0);
        if (result == DDS_RETCODE_OK) {
            EXPECT_EQ(DDS_StringSeq_get_length(&seq), 3);
            DDS_StringSeq_finalize(&seq);
        } else {
            EXPECT_EQ(result, DDS_RETCODE_OUT_OF_RESOURCES);
            EXPECT_EQ(DDS_StringSeq_get_length(&seq), 0);
            EXPECT_EQ(liveHeapBlocks(), before);
        }
    }
    EXPECT_EQ(result, DDS_RETCODE_OK);
    EXPECT_GT(n, 2);
    EXPECT_EQ(liveHeapBlocks(), before);
}

}  // namespace
