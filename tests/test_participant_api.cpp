// The participant transport API: registration and lookup, routes, builtin
// transport properties and plugin lookup by alias.

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/TestSupport.hpp"
#include "vesk_transport/Support.h"

namespace {

using vesk::test::LogCapture;

// A plugin of any class that the tests own; the configurator leaves it
// alone on deletion because it has no delete_cEA.
struct TestPlugin {
    VESK_Transport_Property_t property{};
    VESK_Transport_Plugin plugin{};
    explicit TestPlugin(VESK_Transport_ClassId_t classid) {
        property.classid = classid;
        plugin.property = &property;
    }
};

struct ParticipantDeleter {
    void operator()(DDS_DomainParticipant *participant) const {
        DDS_DomainParticipant_delete(participant);
    }
};
using ParticipantPtr = std::unique_ptr<DDS_DomainParticipant, ParticipantDeleter>;

ParticipantPtr makeParticipant(int withoutConfigurator = 0, int withoutWorker = 0) {
    DDS_DomainParticipantOptions options = DDS_DOMAINPARTICIPANT_OPTIONS_DEFAULT;
    options.transport_builtin_mask = 0;  // no builtin transport to build on enable
    options.without_netio_configurator = withoutConfigurator;
    options.without_worker = withoutWorker;
    return ParticipantPtr(DDS_DomainParticipant_create(&options));
}

// An owning string sequence that releases itself.
struct Aliases {
    DDS_StringSeq seq = DDS_SEQUENCE_INITIALIZER;
    Aliases(std::initializer_list<const char *> names) {
        for (const char *name : names) EXPECT_TRUE(DDS_StringSeq_append(&seq, name));
    }
    ~Aliases() { DDS_StringSeq_finalize(&seq); }
    std::vector<std::string> strings() const {
        std::vector<std::string> out;
        for (DDS_Long i = 0; i < DDS_StringSeq_get_length(&seq); ++i) {
            out.emplace_back(DDS_StringSeq_get(&seq, i));
        }
        return out;
    }
};

VESK_Transport_Address_t address(unsigned char last) {
    VESK_Transport_Address_t out{};
    out.network_ordered_value[15] = last;
    return out;
}

bool sameHandle(const VESK_Transport_Handle_t &a, const VESK_Transport_Handle_t &b) {
    return a._participant == b._participant &&
           a._plugin_handle._manager == b._plugin_handle._manager &&
           a._plugin_handle._index == b._plugin_handle._index &&
           a._plugin_handle._referentEpochAtCreation == b._plugin_handle._referentEpochAtCreation;
}

bool isValid(const VESK_Transport_Handle_t &h) {
    return h._participant != nullptr && h._plugin_handle._manager != nullptr &&
           h._plugin_handle._index != 0xFFFFFFFFu;
}

// Every message of these operations is an error of the module.
void expectOneError(const LogCapture &log, const char *function, const std::string &summary) {
    auto entries = log.entries();
    ASSERT_EQ(entries.size(), 1u) << ::testing::PrintToString(log.summary());
    EXPECT_EQ(entries[0].level, static_cast<KEL_UINT32>(KEL_LOG_BIT_ERROR));
    EXPECT_EQ(entries[0].module_id, static_cast<KEL_UINT32>(VESK_TRANSPORT_LOG_MODULE_ID));
    EXPECT_EQ(entries[0].function, function);
    EXPECT_EQ(log.summary()[0], summary);
}

constexpr const char *REGISTER = "VESK_Transport_Support_register_transport";
constexpr const char *LOOKUP = "VESK_Transport_Support_lookup_transport";

// ---------------------------------------------------------------------------
// Registration
// ---------------------------------------------------------------------------

TEST(HandleNil, FailsEveryValidityTest) {
    EXPECT_EQ(VESK_TRANSPORT_HANDLE_NIL._participant, nullptr);
    EXPECT_EQ(VESK_TRANSPORT_HANDLE_NIL._plugin_handle._manager, nullptr);
    EXPECT_EQ(VESK_TRANSPORT_HANDLE_NIL._plugin_handle._index, 0xFFFFFFFFu);
    EXPECT_EQ(VESK_TRANSPORT_HANDLE_NIL._plugin_handle._referentEpochAtCreation, 0u);
}

TEST(Register, RefusalsBeforeTheConfiguratorLeaveTheNilHandle) {
    struct Row {
        const char *name;
        bool nullParticipant, enabled, nullTransport, nullAliases, nullAddress;
        std::vector<std::string> aliases;
        std::string expected;
    };
    const std::vector<Row> rows = {
        {"null participant first",
         true,
         false,
         true,
         true,
         true,
         {"a"},
         "DDS_LOG_BAD_PARAMETER_s(participant_in must be  non-NULL)"},
        {"enabled before arguments",
         false,
         true,
         true,
         true,
         true,
         {"a"},
         "DDS_LOG_PARTICIPANT_ENABLED_ERROR()"},
        {"transport first of three",
         false,
         false,
         true,
         true,
         true,
         {"a"},
         "DDS_LOG_BAD_PARAMETER_s(transport_in must be non-NULL)"},
        {"aliases before address",
         false,
         false,
         false,
         true,
         true,
         {"a"},
         "DDS_LOG_BAD_PARAMETER_s(aliases_in must be non-NULL)"},
        {"address",
         false,
         false,
         false,
         false,
         true,
         {"a"},
         "DDS_LOG_BAD_PARAMETER_s(network_address_in must be non-NULL)"},
        {"alias with a comma",
         false,
         false,
         false,
         false,
         false,
         {"a,b"},
         "DDS_LOG_BAD_PARAMETER_s(aliases_in could not be converted to internal format)"},
        {"aliases longer than the list",
         false,
         false,
         false,
         false,
         false,
         {std::string(100, 'x'), std::string(40, 'y')},
         "DDS_LOG_BAD_PARAMETER_s(aliases_in could not be converted to internal format)"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        ParticipantPtr participant = makeParticipant();
        if (row.enabled) {
            ASSERT_EQ(DDS_DomainParticipant_enable(participant.get()), DDS_RETCODE_OK);
        }
        TestPlugin transport(77);
        Aliases aliases{};
        for (const auto &name : row.aliases) DDS_StringSeq_append(&aliases.seq, name.c_str());
        VESK_Transport_Address_t networkAddress = address(1);

        LogCapture log;
        VESK_Transport_Handle_t handle = VESK_Transport_Support_register_transport(
            row.nullParticipant ? nullptr : participant.get(),
            row.nullTransport ? nullptr : &transport.plugin,
            row.nullAliases ? nullptr : &aliases.seq, row.nullAddress ? nullptr : &networkAddress);
        EXPECT_TRUE(sameHandle(handle, VESK_TRANSPORT_HANDLE_NIL));
        expectOneError(log, REGISTER, row.expected);
        EXPECT_EQ(KELNetioConfigurator_getPluginCount(
                      DDS_DomainParticipant_get_netio_configuratorI(participant.get())),
                  0);
    }
}

TEST(Register, SucceedsAndLookupReturnsTheSameInstallation) {
    ParticipantPtr participant = makeParticipant();
    TestPlugin transport(77);
    Aliases aliases{"custom_a", "custom_b"};
    VESK_Transport_Address_t networkAddress = address(9);

    LogCapture log;
    VESK_Transport_Handle_t handle = VESK_Transport_Support_register_transport(
        participant.get(), &transport.plugin, &aliases.seq, &networkAddress);
    ASSERT_TRUE(isValid(handle));
    EXPECT_EQ(handle._participant, participant.get());

    Aliases foundAliases{};
    VESK_Transport_Address_t foundAddress{};
    VESK_Transport_Handle_t found = VESK_Transport_Support_lookup_transport(
        participant.get(), &foundAliases.seq, &foundAddress, &transport.plugin);
    EXPECT_TRUE(sameHandle(found, handle));
    EXPECT_EQ(foundAliases.strings(), (std::vector<std::string>{"custom_a", "custom_b"}));
    EXPECT_EQ(std::memcmp(&foundAddress, &networkAddress, sizeof(foundAddress)), 0);

    // Lookup works after enabling, and without asking for the aliases.
    ASSERT_EQ(DDS_DomainParticipant_enable(participant.get()), DDS_RETCODE_OK);
    found = VESK_Transport_Support_lookup_transport(participant.get(), nullptr, &foundAddress,
                                                    &transport.plugin);
    EXPECT_TRUE(sameHandle(found, handle));
    EXPECT_TRUE(log.entries().empty());
}

TEST(Register, ParticipantWithoutEnabledOperationCountsAsDisabled) {
    ParticipantPtr participant = makeParticipant();
    ASSERT_EQ(DDS_DomainParticipant_enable(participant.get()), DDS_RETCODE_OK);
    reinterpret_cast<DDS_Entity *>(participant.get())->_is_enabled = nullptr;
    TestPlugin transport(77);
    Aliases aliases{"late"};
    VESK_Transport_Address_t networkAddress = address(1);
    VESK_Transport_Handle_t handle = VESK_Transport_Support_register_transport(
        participant.get(), &transport.plugin, &aliases.seq, &networkAddress);
    EXPECT_TRUE(isValid(handle));
}

TEST(Register, OnlyOneSharedMemoryTransport) {
    // The first shared-memory plugin is a registered one or the builtin one
    // that the participant installs straight into its configurator.
    for (bool firstIsBuiltin : {false, true}) {
        SCOPED_TRACE(firstIsBuiltin ? "builtin first" : "registered first");
        ParticipantPtr participant = makeParticipant();
        KELNetioConfigurator *configurator =
            DDS_DomainParticipant_get_netio_configuratorI(participant.get());
        REDAWorker *worker = DDS_DomainParticipant_get_workerI(participant.get());
        TestPlugin first(VESK_TRANSPORT_CLASSID_SHMEM), second(VESK_TRANSPORT_CLASSID_SHMEM),
            other(VESK_TRANSPORT_CLASSID_UDPv4);
        Aliases firstAliases{"shm1"}, secondAliases{"shm2"}, otherAliases{"udp"};
        VESK_Transport_Address_t networkAddress = address(1);
        if (firstIsBuiltin) {
            KELNetioAliasList list{};
            ASSERT_TRUE(KELNetioAliasList_appendFromString(&list, "builtin.shmem"));
            REDAWeakReference reference{};
            ASSERT_TRUE(KELNetioConfigurator_installTransportPlugin(
                configurator, &reference, &first.plugin, &list, &networkAddress, worker));
        } else {
            ASSERT_TRUE(isValid(VESK_Transport_Support_register_transport(
                participant.get(), &first.plugin, &firstAliases.seq, &networkAddress)));
        }

        LogCapture log;
        VESK_Transport_Handle_t refused = VESK_Transport_Support_register_transport(
            participant.get(), &second.plugin, &secondAliases.seq, &networkAddress);
        EXPECT_TRUE(sameHandle(refused, VESK_TRANSPORT_HANDLE_NIL));
        expectOneError(log, REGISTER,
                       "KEL_LOG_ANY_FAILURE_s(Only one shared memory transport is accepted)");

        log.clear();
        EXPECT_TRUE(isValid(VESK_Transport_Support_register_transport(
            participant.get(), &other.plugin, &otherAliases.seq, &networkAddress)));
        EXPECT_TRUE(log.entries().empty());
    }
}

TEST(Register, InstallationRefusedNamesTheAliasList) {
    ParticipantPtr participant = makeParticipant();
    TestPlugin first(77), second(78);
    Aliases aliases{"dup", "other"};
    VESK_Transport_Address_t networkAddress = address(1);
    ASSERT_TRUE(isValid(VESK_Transport_Support_register_transport(participant.get(), &first.plugin,
                                                                  &aliases.seq, &networkAddress)));
    struct Row {
        const char *name;
        VESK_Transport_Plugin *plugin;
    };
    for (const Row &row :
         {Row{"same plugin twice", &first.plugin}, Row{"alias in use", &second.plugin}}) {
        SCOPED_TRACE(row.name);
        LogCapture log;
        VESK_Transport_Handle_t handle = VESK_Transport_Support_register_transport(
            participant.get(), row.plugin, &aliases.seq, &networkAddress);
        EXPECT_EQ(handle._participant, nullptr);
        EXPECT_FALSE(isValid(handle));
        // The configurator's reason (test_configurator.cpp), then the module's message.
        const auto entries = log.entries();
        ASSERT_EQ(entries.size(), 2u);
        EXPECT_EQ(entries[0].function, "KELNetioConfigurator_installTransportPlugin");
        EXPECT_EQ(entries[1].level, static_cast<KEL_UINT32>(KEL_LOG_BIT_ERROR));
        EXPECT_EQ(entries[1].function, REGISTER);
        EXPECT_EQ(log.summary()[1], "DDS_LOG_INSTALL_TRANSPORT_PLUGINS_s(dup,other)");
    }
}

// ---------------------------------------------------------------------------
// Lookup
// ---------------------------------------------------------------------------

TEST(Lookup, Refusals) {
    ParticipantPtr participant = makeParticipant();
    TestPlugin installed(77), stranger(78);
    Aliases aliases{"inst"};
    VESK_Transport_Address_t networkAddress = address(3);
    VESK_Transport_Handle_t registered = VESK_Transport_Support_register_transport(
        participant.get(), &installed.plugin, &aliases.seq, &networkAddress);
    ASSERT_TRUE(isValid(registered));

    struct Row {
        const char *name;
        DDS_DomainParticipant *participant;
        const VESK_Transport_Plugin *plugin;
        bool nonEmptyAliasesOut;
        std::string expected;
        bool keepsReference;
    };
    const std::vector<Row> rows = {
        {"null participant", nullptr, nullptr, false,
         "DDS_LOG_BAD_PARAMETER_s(participant_in must be  non-NULL)", false},
        {"null transport", participant.get(), nullptr, false,
         "DDS_LOG_BAD_PARAMETER_s(transport_in must be non-NULL)", false},
        {"never installed: empty alias text", participant.get(), &stranger.plugin, false,
         "DDS_LOG_INSTALL_TRANSPORT_PLUGINS_s()", false},
        {"aliases output not convertible", participant.get(), &installed.plugin, true,
         "DDS_LOG_BAD_PARAMETER_s(aliases_in could not be converted from internal format)", true},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        // A sequence that already holds an alias cannot receive the list.
        Aliases aliasesOut{};
        if (row.nonEmptyAliasesOut) DDS_StringSeq_append(&aliasesOut.seq, "stale");
        VESK_Transport_Address_t foundAddress{};
        LogCapture log;
        VESK_Transport_Handle_t handle = VESK_Transport_Support_lookup_transport(
            row.participant, &aliasesOut.seq, &foundAddress, row.plugin);
        EXPECT_EQ(handle._participant, nullptr);
        if (row.keepsReference) {
            EXPECT_EQ(handle._plugin_handle._manager, registered._plugin_handle._manager);
            EXPECT_EQ(handle._plugin_handle._index, registered._plugin_handle._index);
        } else {
            EXPECT_TRUE(sameHandle(handle, VESK_TRANSPORT_HANDLE_NIL));
        }
        expectOneError(log, LOOKUP, row.expected);
    }
}

// ---------------------------------------------------------------------------
// Routes
// ---------------------------------------------------------------------------

using RouteFn = DDS_ReturnCode_t (*)(const VESK_Transport_Handle_t *,
                                     const VESK_Transport_Address_t *, DDS_Long);
struct RouteOperation {
    const char *function;
    RouteFn fn;
    KELNetioRouteKind kind;
};
const RouteOperation routeOperations[] = {
    {"VESK_Transport_Support_add_send_route", VESK_Transport_Support_add_send_route,
     KEL_NETIO_ROUTE_DESTINATION},
    {"VESK_Transport_Support_add_receive_route", VESK_Transport_Support_add_receive_route,
     KEL_NETIO_ROUTE_ENTRYPORT},
};

struct RegisteredTransport {
    ParticipantPtr participant = makeParticipant();
    TestPlugin transport{77};
    VESK_Transport_Handle_t handle{};
    RegisteredTransport() {
        Aliases aliases{"routed"};
        VESK_Transport_Address_t networkAddress = address(1);
        handle = VESK_Transport_Support_register_transport(participant.get(), &transport.plugin,
                                                           &aliases.seq, &networkAddress);
        EXPECT_TRUE(isValid(handle));
    }
    KELNetioConfigurator *configurator() {
        return DDS_DomainParticipant_get_netio_configuratorI(participant.get());
    }
};

TEST(Routes, RefusalsInTestOrder) {
    for (const RouteOperation &operation : routeOperations) {
        SCOPED_TRACE(operation.function);
        RegisteredTransport registered;
        VESK_Transport_Address_t range = address(0);

        VESK_Transport_Handle_t noManager = registered.handle;
        noManager._plugin_handle._manager = nullptr;
        VESK_Transport_Handle_t noIndex = registered.handle;
        noIndex._plugin_handle._index = 0xFFFFFFFFu;
        VESK_Transport_Handle_t noParticipant = registered.handle;
        noParticipant._participant = nullptr;

        struct Row {
            const char *name;
            const VESK_Transport_Handle_t *handle;
            const VESK_Transport_Address_t *range;
            DDS_Long bits;
            DDS_ReturnCode_t result;
            std::string expected;
        };
        const std::string invalid = "DDS_LOG_BAD_PARAMETER_s(transport_handle_in must be valid)";
        const std::vector<Row> rows = {
            {"nil handle", &VESK_TRANSPORT_HANDLE_NIL, &range, 0, DDS_RETCODE_BAD_PARAMETER,
             invalid},
            {"null handle pointer", nullptr, &range, 0, DDS_RETCODE_BAD_PARAMETER, invalid},
            {"null manager", &noManager, &range, 0, DDS_RETCODE_BAD_PARAMETER, invalid},
            {"index all ones", &noIndex, &range, 0, DDS_RETCODE_BAD_PARAMETER, invalid},
            {"null participant, bad everything", &noParticipant, nullptr, 500,
             DDS_RETCODE_BAD_PARAMETER, invalid},
            {"null address before bit count", &registered.handle, nullptr, -1,
             DDS_RETCODE_BAD_PARAMETER,
             "DDS_LOG_BAD_PARAMETER_s(address_range_in must be non-NULL)"},
            {"bit count -1", &registered.handle, &range, -1, DDS_RETCODE_BAD_PARAMETER,
             "DDS_LOG_BAD_PARAMETER_s(0 <= address_range_bit_count_in <= 128)"},
            {"bit count 129", &registered.handle, &range, 129, DDS_RETCODE_BAD_PARAMETER,
             "DDS_LOG_BAD_PARAMETER_s(0 <= address_range_bit_count_in <= 128)"},
        };
        for (const Row &row : rows) {
            SCOPED_TRACE(row.name);
            LogCapture log;
            EXPECT_EQ(operation.fn(row.handle, row.range, row.bits), row.result);
            expectOneError(log, operation.function, row.expected);
        }
        EXPECT_EQ(KELNetioConfigurator_getRouteCount(registered.configurator()), 0);

        // Enabled is tested after the handle and before address and count.
        ASSERT_EQ(DDS_DomainParticipant_enable(registered.participant.get()), DDS_RETCODE_OK);
        LogCapture log;
        EXPECT_EQ(operation.fn(&registered.handle, nullptr, 500), DDS_RETCODE_PRECONDITION_NOT_MET);
        expectOneError(log, operation.function, "DDS_LOG_PARTICIPANT_ENABLED_ERROR()");
        log.clear();
        EXPECT_EQ(operation.fn(&VESK_TRANSPORT_HANDLE_NIL, nullptr, 500),
                  DDS_RETCODE_BAD_PARAMETER);
        expectOneError(log, operation.function, invalid);
    }
}

TEST(Routes, FilterReceivesTheNumberOfFreeBits) {
    for (const RouteOperation &operation : routeOperations) {
        SCOPED_TRACE(operation.function);
        RegisteredTransport registered;
        VESK_Transport_Address_t range{};
        std::memset(range.network_ordered_value, 0xFF, sizeof(range.network_ordered_value));

        // bit count -> number of leading mask bits set
        for (DDS_Long bits : {0, 128, 96, 1, 127}) {
            SCOPED_TRACE(bits);
            int before = KELNetioConfigurator_getRouteCount(registered.configurator());
            LogCapture log;
            ASSERT_EQ(operation.fn(&registered.handle, &range, bits), DDS_RETCODE_OK);
            EXPECT_TRUE(log.entries().empty());
            KELNetioRoute route{};
            ASSERT_TRUE(KELNetioConfigurator_getRoute(registered.configurator(), before, &route));
            EXPECT_EQ(route.kind, operation.kind);
            if (operation.kind == KEL_NETIO_ROUTE_DESTINATION) {
                EXPECT_EQ(route.service_class, 0);
            }
            EXPECT_EQ(route.plugin_reference._index, registered.handle._plugin_handle._index);
            int maskBits = 0;
            for (unsigned char byte : route.filter.mask.network_ordered_value) {
                maskBits += __builtin_popcount(byte);
            }
            EXPECT_EQ(maskBits, bits);
            // The filter keeps the leading bits of the address only.
            EXPECT_EQ(std::memcmp(&route.filter.address, &route.filter.mask, 16), 0);
        }
    }
}

TEST(Routes, ConfiguratorRefusalIsReportedWithTheSendRouteTemplate) {
    for (const RouteOperation &operation : routeOperations) {
        SCOPED_TRACE(operation.function);
        RegisteredTransport registered;
        VESK_Transport_Address_t range = address(5);
        ASSERT_EQ(operation.fn(&registered.handle, &range, 64), DDS_RETCODE_OK);
        LogCapture log;
        // The configurator refuses the same route twice.
        EXPECT_EQ(operation.fn(&registered.handle, &range, 64), DDS_RETCODE_ERROR);
        // The configurator's reason (test_configurator.cpp), then the module's message.
        const auto entries = log.entries();
        ASSERT_EQ(entries.size(), 2u);
        EXPECT_EQ(log.summary()[0], "KEL_LOG_ANY_FAILURE_s(the same route exists already)");
        EXPECT_EQ(entries[1].function, operation.function);
        EXPECT_EQ(log.summary()[1], "DDS_LOG_TRANSPORT_SEND_ROUTE()");
    }
}

// ---------------------------------------------------------------------------
// Builtin transport properties
// ---------------------------------------------------------------------------

TEST(BuiltinProperties, ArgumentChecksInOrder) {
    ParticipantPtr participant = makeParticipant();
    ParticipantPtr enabled = makeParticipant();
    ASSERT_EQ(DDS_DomainParticipant_enable(enabled.get()), DDS_RETCODE_OK);
    VESK_Transport_UDP_Property_t record = VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT;

    constexpr const char *GET = "VESK_Transport_Support_get_builtin_transport_property";
    constexpr const char *SET = "VESK_Transport_Support_set_builtin_transport_property";
    struct Row {
        const char *name;
        bool set;
        DDS_DomainParticipant *participant;
        bool nullRecord;
        DDS_ReturnCode_t result;
        const char *function;
        std::string expected;
    };
    const std::vector<Row> rows = {
        {"get: null participant", false, nullptr, true, DDS_RETCODE_BAD_PARAMETER, GET,
         "DDS_LOG_BAD_PARAMETER_s(participant_in must be  non-NULL)"},
        {"get: null record", false, participant.get(), true, DDS_RETCODE_BAD_PARAMETER, GET,
         "DDS_LOG_BAD_PARAMETER_s(builtin_transport_property_inout must be  non-NULL)"},
        {"set: null participant", true, nullptr, true, DDS_RETCODE_BAD_PARAMETER, SET,
         "DDS_LOG_BAD_PARAMETER_s(participant_in must be  non-NULL)"},
        {"set: null record before enabled", true, enabled.get(), true, DDS_RETCODE_BAD_PARAMETER,
         SET, "DDS_LOG_BAD_PARAMETER_s(builtin_transport_property_in must be  non-NULL)"},
        {"set: enabled", true, enabled.get(), false, DDS_RETCODE_PRECONDITION_NOT_MET, SET,
         "DDS_LOG_PARTICIPANT_ENABLED_ERROR()"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        VESK_Transport_Property_t *target = row.nullRecord ? nullptr : &record.parent;
        LogCapture log;
        DDS_ReturnCode_t result = row.set
                                      ? VESK_Transport_Support_set_builtin_transport_property(
                                            row.participant, DDS_TRANSPORTBUILTIN_UDPv4, target)
                                      : VESK_Transport_Support_get_builtin_transport_property(
                                            row.participant, DDS_TRANSPORTBUILTIN_UDPv4, target);
        EXPECT_EQ(result, row.result);
        expectOneError(log, row.function, row.expected);
    }

    // Reading is allowed on the enabled participant.
    EXPECT_EQ(VESK_Transport_Support_get_builtin_transport_property(
                  enabled.get(), DDS_TRANSPORTBUILTIN_UDPv4, &record.parent),
              DDS_RETCODE_OK);
}

TEST(BuiltinProperties, KindAndResultPassThroughUnchanged) {
    ParticipantPtr participant = makeParticipant();
    VESK_Transport_UDP_Property_t record = VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT;
    // Whatever the participant answers comes back; this layer adds nothing.
    for (int kind : {1, 2, 4, 8, 16, 3, 0, 1024}) {
        SCOPED_TRACE(kind);
        auto builtinKind = static_cast<DDS_TransportBuiltinKind>(kind);
        DDS_ReturnCode_t direct = DDS_DomainParticipant_get_builtin_transport_property(
            participant.get(), builtinKind, &record.parent);
        EXPECT_EQ(VESK_Transport_Support_get_builtin_transport_property(
                      participant.get(), builtinKind, &record.parent),
                  direct);
    }
}

TEST(BuiltinProperties, WrittenRecordIsReadBack) {
    ParticipantPtr participant = makeParticipant();
    VESK_Transport_UDP_Property_t record = VESK_TRANSPORT_UDPV6_PROPERTY_DEFAULT;
    record.parent.message_size_max = 9000;
    record.multicast_ttl = 7;
    ASSERT_EQ(VESK_Transport_Support_set_builtin_transport_property(
                  participant.get(), DDS_TRANSPORTBUILTIN_UDPv6, &record.parent),
              DDS_RETCODE_OK);
    VESK_Transport_UDP_Property_t readBack{};
    ASSERT_EQ(VESK_Transport_Support_get_builtin_transport_property(
                  participant.get(), DDS_TRANSPORTBUILTIN_UDPv6, &readBack.parent),
              DDS_RETCODE_OK);
    EXPECT_EQ(readBack.parent.classid, VESK_TRANSPORT_CLASSID_UDPv6);
    EXPECT_EQ(readBack.parent.message_size_max, 9000);
    EXPECT_EQ(readBack.multicast_ttl, 7);
}

// ---------------------------------------------------------------------------
// Plugin lookup by alias
// ---------------------------------------------------------------------------

TEST(PluginByAlias, Refusals) {
    constexpr const char *FN = "VESK_Transport_Support_get_transport_plugin";
    ParticipantPtr participant = makeParticipant();
    ParticipantPtr noConfigurator = makeParticipant(1, 0);
    ParticipantPtr noWorker = makeParticipant(0, 1);
    ParticipantPtr neither = makeParticipant(1, 1);
    const std::string tooLong(129, 'a');
    struct Row {
        const char *name;
        DDS_DomainParticipant *participant;
        const char *alias;
        std::string expected;
    };
    const std::vector<Row> rows = {
        {"null participant", nullptr, nullptr,
         "DDS_LOG_BAD_PARAMETER_s(participant_in must be  non-NULL)"},
        {"null alias", participant.get(), nullptr,
         "DDS_LOG_BAD_PARAMETER_s(alias_in must be  non-NULL)"},
        {"configurator before worker", neither.get(), "a",
         "DDS_LOG_GET_FAILURE_s(netio configurator not valid)"},
        {"no configurator", noConfigurator.get(), "a",
         "DDS_LOG_GET_FAILURE_s(netio configurator not valid)"},
        {"no worker", noWorker.get(), "a", "DDS_LOG_GET_FAILURE_s(worker not valid)"},
        {"alias too long for the list", participant.get(), tooLong.c_str(),
         "DDS_LOG_SET_FAILURE_s(pluginAliasIn)"},
        {"alias with a comma", participant.get(), "a,b", "DDS_LOG_SET_FAILURE_s(pluginAliasIn)"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        LogCapture log;
        EXPECT_EQ(VESK_Transport_Support_get_transport_plugin(row.participant, row.alias), nullptr);
        expectOneError(log, FN, row.expected);
    }
}

TEST(PluginByAlias, FindsInstalledPluginAndIsSilentForUnknownAliases) {
    RegisteredTransport registered;
    LogCapture log;
    EXPECT_EQ(VESK_Transport_Support_get_transport_plugin(registered.participant.get(), "routed"),
              &registered.transport.plugin);
    EXPECT_EQ(VESK_Transport_Support_get_transport_plugin(registered.participant.get(), "unknown"),
              nullptr);
    ASSERT_EQ(DDS_DomainParticipant_enable(registered.participant.get()), DDS_RETCODE_OK);
    EXPECT_EQ(VESK_Transport_Support_get_transport_plugin(registered.participant.get(), "routed"),
              &registered.transport.plugin);
    EXPECT_TRUE(log.entries().empty());
}

// ---------------------------------------------------------------------------
// Masks
// ---------------------------------------------------------------------------

TEST(Masks, MessagesNeedTheErrorBitAndTheSubmoduleBit) {
    struct Row {
        KEL_UINT32 instrumentation, submodule;
        size_t written;
    };
    for (const Row &row :
         {Row{VESK_CONFIG_LOG_VERBOSITY_ERROR, DDS_SUBMODULE_MASK_TRANSPORT, 1},
          Row{KEL_LOG_BIT_EXCEPTION, DDS_SUBMODULE_MASK_TRANSPORT, 0},
          Row{VESK_CONFIG_LOG_VERBOSITY_ERROR, ~KEL_UINT32{DDS_SUBMODULE_MASK_TRANSPORT}, 0},
          Row{VESK_CONFIG_LOG_VERBOSITY_SILENT, 0xFFFFFFFFu, 0}}) {
        LogCapture log(row.instrumentation, row.submodule);
        VESK_Transport_Handle_t handle =
            VESK_Transport_Support_register_transport(nullptr, nullptr, nullptr, nullptr);
        EXPECT_TRUE(sameHandle(handle, VESK_TRANSPORT_HANDLE_NIL));
        EXPECT_EQ(log.entries().size(), row.written);
    }
}

}  // namespace
