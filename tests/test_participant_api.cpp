// The participant transport API: registration and lookup, routes, builtin
// transport properties and plugin lookup by alias.

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "support/Participants.hpp"
#include "support/SetupChecks.hpp"

namespace {

using namespace vesk::test;

bool sameHandle(const VESK_Transport_Handle_t &a, const VESK_Transport_Handle_t &b) {
    return a._participant == b._participant &&
           a._plugin_handle._manager == b._plugin_handle._manager &&
           a._plugin_handle._index == b._plugin_handle._index &&
           a._plugin_handle._referentEpochAtCreation == b._plugin_handle._referentEpochAtCreation;
}

constexpr const char *REGISTER = "VESK_Transport_Support_register_transport";
constexpr const char *LOOKUP = "VESK_Transport_Support_lookup_transport";

std::string bad(const char *function, const std::string &what) {
    return error(function, "DDS_LOG_BAD_PARAMETER_s", {what});
}
std::string enabledError(const char *function) {
    return error(function, "DDS_LOG_PARTICIPANT_ENABLED_ERROR", {});
}

int pluginCount(const ParticipantPtr &participant) {
    return KELNetioConfigurator_getPluginCount(
        DDS_DomainParticipant_get_netio_configuratorI(participant.get()));
}

// ---------------------------------------------------------------------------
// Registration and lookup
// ---------------------------------------------------------------------------

TEST(Register, RefusalsLeaveTheNilHandleAndNoInstallation) {
    EXPECT_EQ(nullptr, VESK_TRANSPORT_HANDLE_NIL._participant);
    EXPECT_EQ(nullptr, VESK_TRANSPORT_HANDLE_NIL._plugin_handle._manager);
    EXPECT_EQ(0xFFFFFFFFu, VESK_TRANSPORT_HANDLE_NIL._plugin_handle._index);
    EXPECT_EQ(0u, VESK_TRANSPORT_HANDLE_NIL._plugin_handle._referentEpochAtCreation);
    struct Row {
        const char *nulls;  // participant, transport, aliases, address; 'E': enabled first
        std::vector<std::string> aliases;
        std::string expected;
    };
    const std::string notConvertible = "aliases_in could not be converted to internal format";
    const std::vector<Row> rows = {
        {"1111", {"a"}, bad(REGISTER, "participant_in must be  non-NULL")},
        {"E111", {"a"}, enabledError(REGISTER)},  // enabled before the arguments
        {"0111", {"a"}, bad(REGISTER, "transport_in must be non-NULL")},
        {"0011", {"a"}, bad(REGISTER, "aliases_in must be non-NULL")},
        {"0001", {"a"}, bad(REGISTER, "network_address_in must be non-NULL")},
        {"0000", {"a,b"}, bad(REGISTER, notConvertible)},
        {"0000", {std::string(100, 'x'), std::string(40, 'y')}, bad(REGISTER, notConvertible)},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.expected);
        ParticipantPtr participant = makeParticipant();
        if (row.nulls[0] == 'E') {
            ASSERT_EQ(DDS_RETCODE_OK, DDS_DomainParticipant_enable(participant.get()));
        }
        TestPlugin transport(77);
        Aliases aliases{};
        for (const auto &name : row.aliases) DDS_StringSeq_append(&aliases.seq, name.c_str());
        VESK_Transport_Address_t networkAddress = address(1);
        LogCapture log;
        const auto on = [&](int i) { return row.nulls[i] == '1'; };
        EXPECT_TRUE(
            sameHandle(VESK_TRANSPORT_HANDLE_NIL,
                       VESK_Transport_Support_register_transport(
                           on(0) ? nullptr : participant.get(), on(1) ? nullptr : &transport.plugin,
                           on(2) ? nullptr : &aliases.seq, on(3) ? nullptr : &networkAddress)));
        EXPECT_EQ(std::vector<std::string>{row.expected}, describeAll(log));
        EXPECT_EQ(0, pluginCount(participant));
    }
}

TEST(Register, SucceedsAndLookupReturnsTheSameInstallation) {
    ParticipantPtr participant = makeParticipant();
    TestPlugin transport(77);
    Aliases aliases{"custom_a", "custom_b"};
    const VESK_Transport_Address_t networkAddress = address(9);
    LogCapture log;
    const VESK_Transport_Handle_t handle = VESK_Transport_Support_register_transport(
        participant.get(), &transport.plugin, &aliases.seq, &networkAddress);
    ASSERT_TRUE(isValid(handle));
    EXPECT_EQ(participant.get(), handle._participant);

    Aliases foundAliases{};
    VESK_Transport_Address_t foundAddress{};
    EXPECT_TRUE(sameHandle(
        handle, VESK_Transport_Support_lookup_transport(participant.get(), &foundAliases.seq,
                                                        &foundAddress, &transport.plugin)));
    EXPECT_EQ((std::vector<std::string>{"custom_a", "custom_b"}), foundAliases.strings());
    EXPECT_EQ(0, std::memcmp(&foundAddress, &networkAddress, sizeof foundAddress));

    // Lookup works after enabling, and without asking for the aliases.
    ASSERT_EQ(DDS_RETCODE_OK, DDS_DomainParticipant_enable(participant.get()));
    EXPECT_TRUE(
        sameHandle(handle, VESK_Transport_Support_lookup_transport(
                               participant.get(), nullptr, &foundAddress, &transport.plugin)));
    EXPECT_TRUE(log.entries().empty());

    // A participant without an enabled operation counts as not enabled.
    reinterpret_cast<DDS_Entity *>(participant.get())->_is_enabled = nullptr;
    TestPlugin late(78);
    install(participant.get(), &late.plugin, "late");
}

TEST(Register, OnlyOneSharedMemoryTransport) {
    // The first shared-memory plugin is a registered one or the builtin one
    // that the participant installs straight into its configurator.
    for (bool firstIsBuiltin : {false, true}) {
        SCOPED_TRACE(firstIsBuiltin ? "builtin first" : "registered first");
        ParticipantPtr participant = makeParticipant();
        TestPlugin first(VESK_TRANSPORT_CLASSID_SHMEM), second(VESK_TRANSPORT_CLASSID_SHMEM),
            other(VESK_TRANSPORT_CLASSID_UDPv4);
        if (firstIsBuiltin) {
            KELNetioAliasList list{};
            ASSERT_TRUE(KELNetioAliasList_appendFromString(&list, "builtin.shmem"));
            REDAWeakReference reference{};
            const VESK_Transport_Address_t networkAddress = address(1);
            ASSERT_TRUE(KELNetioConfigurator_installTransportPlugin(
                DDS_DomainParticipant_get_netio_configuratorI(participant.get()), &reference,
                &first.plugin, &list, &networkAddress,
                DDS_DomainParticipant_get_workerI(participant.get())));
        } else {
            install(participant.get(), &first.plugin, "shm1");
        }
        Aliases aliases{"shm2"};
        const VESK_Transport_Address_t networkAddress = address(1);
        LogCapture log;
        EXPECT_TRUE(sameHandle(VESK_TRANSPORT_HANDLE_NIL, VESK_Transport_Support_register_transport(
                                                              participant.get(), &second.plugin,
                                                              &aliases.seq, &networkAddress)));
        EXPECT_EQ(
            (std::vector<std::string>{error(REGISTER, "KEL_LOG_ANY_FAILURE_s",
                                            {"Only one shared memory transport is accepted"})}),
            describeAll(log));
        log.clear();
        install(participant.get(), &other.plugin, "udp");
        EXPECT_TRUE(log.entries().empty());
    }
}

TEST(RegisterAndLookup, InstallationAndLookupRefusals) {
    ParticipantPtr participant = makeParticipant();
    TestPlugin first(77), second(78), stranger(79);
    Aliases aliases{"dup", "other"};
    const VESK_Transport_Address_t networkAddress = address(1);
    const VESK_Transport_Handle_t registered = VESK_Transport_Support_register_transport(
        participant.get(), &first.plugin, &aliases.seq, &networkAddress);
    ASSERT_TRUE(isValid(registered));
    // The configurator refuses the same plugin twice and an alias in use.
    for (TestPlugin *plugin : {&first, &second}) {
        LogCapture log;
        const VESK_Transport_Handle_t handle = VESK_Transport_Support_register_transport(
            participant.get(), &plugin->plugin, &aliases.seq, &networkAddress);
        EXPECT_EQ(nullptr, handle._participant);
        EXPECT_FALSE(isValid(handle));
        // The configurator's reason (test_configurator.cpp), then the module's message.
        const auto described = describeAll(log);
        ASSERT_EQ(2u, described.size());
        EXPECT_EQ("KELNetioConfigurator_installTransportPlugin", log.entries()[0].function);
        EXPECT_EQ(error(REGISTER, "DDS_LOG_INSTALL_TRANSPORT_PLUGINS_s", {"dup,other"}),
                  described[1]);
    }
    struct Row {
        DDS_DomainParticipant *participant;
        const VESK_Transport_Plugin *plugin;
        bool nonEmptyAliasesOut;
        std::string expected;
    };
    const std::vector<Row> rows = {
        {nullptr, nullptr, false, bad(LOOKUP, "participant_in must be  non-NULL")},
        {participant.get(), nullptr, false, bad(LOOKUP, "transport_in must be non-NULL")},
        {participant.get(), &stranger.plugin, false,
         error(LOOKUP, "DDS_LOG_INSTALL_TRANSPORT_PLUGINS_s", {""})},
        // A sequence that already holds an alias cannot receive the list;
        // the handle keeps the installation's reference.
        {participant.get(), &first.plugin, true,
         bad(LOOKUP, "aliases_in could not be converted from internal format")},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.expected);
        Aliases aliasesOut{};
        if (row.nonEmptyAliasesOut) DDS_StringSeq_append(&aliasesOut.seq, "stale");
        VESK_Transport_Address_t foundAddress{};
        LogCapture log;
        VESK_Transport_Handle_t handle = VESK_Transport_Support_lookup_transport(
            row.participant, &aliasesOut.seq, &foundAddress, row.plugin);
        EXPECT_EQ(nullptr, handle._participant);
        if (row.nonEmptyAliasesOut) handle._participant = participant.get();
        EXPECT_TRUE(
            sameHandle(row.nonEmptyAliasesOut ? registered : VESK_TRANSPORT_HANDLE_NIL, handle));
        EXPECT_EQ(std::vector<std::string>{row.expected}, describeAll(log));
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
const RouteOperation ROUTE_OPERATIONS[] = {
    {"VESK_Transport_Support_add_send_route", VESK_Transport_Support_add_send_route,
     KEL_NETIO_ROUTE_DESTINATION},
    {"VESK_Transport_Support_add_receive_route", VESK_Transport_Support_add_receive_route,
     KEL_NETIO_ROUTE_ENTRYPORT},
};

struct RegisteredTransport {
    ParticipantPtr participant = makeParticipant();
    TestPlugin transport{77};
    VESK_Transport_Handle_t handle = install(participant.get(), &transport.plugin, "routed");
    KELNetioConfigurator *configurator() {
        return DDS_DomainParticipant_get_netio_configuratorI(participant.get());
    }
};

TEST(Routes, RefusalsInTestOrder) {
    for (const RouteOperation &operation : ROUTE_OPERATIONS) {
        SCOPED_TRACE(operation.function);
        RegisteredTransport registered;
        const VESK_Transport_Address_t range = address(0);
        VESK_Transport_Handle_t noManager = registered.handle, noIndex = registered.handle,
                                noParticipant = registered.handle;
        noManager._plugin_handle._manager = nullptr;
        noIndex._plugin_handle._index = 0xFFFFFFFFu;
        noParticipant._participant = nullptr;
        struct Row {
            const VESK_Transport_Handle_t *handle;
            const VESK_Transport_Address_t *range;
            DDS_Long bits;
            DDS_ReturnCode_t result;
            std::string expected;
        };
        const std::string invalid = bad(operation.function, "transport_handle_in must be valid");
        const std::string count = bad(operation.function, "0 <= address_range_bit_count_in <= 128");
        const DDS_ReturnCode_t BAD = DDS_RETCODE_BAD_PARAMETER;
        const std::vector<Row> rows = {
            {&VESK_TRANSPORT_HANDLE_NIL, &range, 0, BAD, invalid},
            {nullptr, &range, 0, BAD, invalid},
            {&noManager, &range, 0, BAD, invalid},
            {&noIndex, &range, 0, BAD, invalid},
            {&noParticipant, nullptr, 500, BAD, invalid},
            {&registered.handle, nullptr, -1, BAD,
             bad(operation.function, "address_range_in must be non-NULL")},
            {&registered.handle, &range, -1, BAD, count},
            {&registered.handle, &range, 129, BAD, count},
            // Enabled is tested after the handle, before address and count.
            {&registered.handle, nullptr, 500, DDS_RETCODE_PRECONDITION_NOT_MET,
             enabledError(operation.function)},
            {&VESK_TRANSPORT_HANDLE_NIL, nullptr, 500, BAD, invalid},
        };
        for (const Row &row : rows) {
            SCOPED_TRACE(&row - rows.data());
            if (&row == &rows[rows.size() - 2]) {
                EXPECT_EQ(0, KELNetioConfigurator_getRouteCount(registered.configurator()));
                ASSERT_EQ(DDS_RETCODE_OK,
                          DDS_DomainParticipant_enable(registered.participant.get()));
            }
            LogCapture log;
            EXPECT_EQ(row.result, operation.fn(row.handle, row.range, row.bits));
            EXPECT_EQ(std::vector<std::string>{row.expected}, describeAll(log));
        }
    }
}

TEST(Routes, FilterKeepsTheLeadingBitsAndTheConfiguratorMayRefuse) {
    for (const RouteOperation &operation : ROUTE_OPERATIONS) {
        SCOPED_TRACE(operation.function);
        RegisteredTransport registered;
        VESK_Transport_Address_t range{};
        std::memset(range.network_ordered_value, 0xFF, sizeof range.network_ordered_value);
        for (DDS_Long bits : {0, 128, 96, 1, 127}) {
            SCOPED_TRACE(bits);
            const int before = KELNetioConfigurator_getRouteCount(registered.configurator());
            LogCapture log;
            ASSERT_EQ(DDS_RETCODE_OK, operation.fn(&registered.handle, &range, bits));
            EXPECT_TRUE(log.entries().empty());
            KELNetioRoute route{};
            ASSERT_TRUE(KELNetioConfigurator_getRoute(registered.configurator(), before, &route));
            EXPECT_EQ(operation.kind, route.kind);
            EXPECT_TRUE(operation.kind != KEL_NETIO_ROUTE_DESTINATION || route.service_class == 0);
            EXPECT_EQ(registered.handle._plugin_handle._index, route.plugin_reference._index);
            int maskBits = 0;
            for (unsigned char byte : route.filter.mask.network_ordered_value) {
                maskBits += __builtin_popcount(byte);
            }
            EXPECT_EQ(bits, maskBits);
            EXPECT_EQ(0, std::memcmp(&route.filter.address, &route.filter.mask, 16));
        }
        // The configurator refuses the same route twice.
        ASSERT_EQ(DDS_RETCODE_OK, operation.fn(&registered.handle, &range, 64));
        LogCapture log;
        EXPECT_EQ(DDS_RETCODE_ERROR, operation.fn(&registered.handle, &range, 64));
        const auto described = describeAll(log);
        ASSERT_EQ(2u, described.size());
        EXPECT_EQ("KEL_LOG_ANY_FAILURE_s(the same route exists already)", log.summary()[0]);
        EXPECT_EQ(error(operation.function, "DDS_LOG_TRANSPORT_SEND_ROUTE", {}), described[1]);
    }
}

// ---------------------------------------------------------------------------
// Builtin transport properties and plugin lookup by alias
// ---------------------------------------------------------------------------

TEST(BuiltinProperties, ArgumentChecksInOrderThenThePassThrough) {
    ParticipantPtr participant = makeParticipant();
    ParticipantPtr enabled = makeParticipant();
    ASSERT_EQ(DDS_RETCODE_OK, DDS_DomainParticipant_enable(enabled.get()));
    VESK_Transport_UDP_Property_t record = VESK_TRANSPORT_UDPV6_PROPERTY_DEFAULT;
    constexpr const char *GET = "VESK_Transport_Support_get_builtin_transport_property";
    constexpr const char *SET = "VESK_Transport_Support_set_builtin_transport_property";
    struct Row {
        bool set;
        DDS_DomainParticipant *participant;
        VESK_Transport_Property_t *record;
        DDS_ReturnCode_t result;
        std::string expected;
    };
    const std::vector<Row> rows = {
        {false, nullptr, nullptr, DDS_RETCODE_BAD_PARAMETER,
         bad(GET, "participant_in must be  non-NULL")},
        {false, participant.get(), nullptr, DDS_RETCODE_BAD_PARAMETER,
         bad(GET, "builtin_transport_property_inout must be  non-NULL")},
        {true, nullptr, nullptr, DDS_RETCODE_BAD_PARAMETER,
         bad(SET, "participant_in must be  non-NULL")},
        {true, enabled.get(), nullptr, DDS_RETCODE_BAD_PARAMETER,
         bad(SET, "builtin_transport_property_in must be  non-NULL")},
        {true, enabled.get(), &record.parent, DDS_RETCODE_PRECONDITION_NOT_MET, enabledError(SET)},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.expected);
        LogCapture log;
        EXPECT_EQ(row.result, row.set
                                  ? VESK_Transport_Support_set_builtin_transport_property(
                                        row.participant, DDS_TRANSPORTBUILTIN_UDPv6, row.record)
                                  : VESK_Transport_Support_get_builtin_transport_property(
                                        row.participant, DDS_TRANSPORTBUILTIN_UDPv6, row.record));
        EXPECT_EQ(std::vector<std::string>{row.expected}, describeAll(log));
    }
    // Reading is allowed when enabled; a written record is read back.
    EXPECT_EQ(DDS_RETCODE_OK, VESK_Transport_Support_get_builtin_transport_property(
                                  enabled.get(), DDS_TRANSPORTBUILTIN_UDPv6, &record.parent));
    record.parent.message_size_max = 9000;
    record.multicast_ttl = 7;
    ASSERT_EQ(DDS_RETCODE_OK, VESK_Transport_Support_set_builtin_transport_property(
                                  participant.get(), DDS_TRANSPORTBUILTIN_UDPv6, &record.parent));
    VESK_Transport_UDP_Property_t readBack{};
    ASSERT_EQ(DDS_RETCODE_OK, VESK_Transport_Support_get_builtin_transport_property(
                                  participant.get(), DDS_TRANSPORTBUILTIN_UDPv6, &readBack.parent));
    EXPECT_EQ(VESK_TRANSPORT_CLASSID_UDPv6, readBack.parent.classid);
    EXPECT_EQ(9000, readBack.parent.message_size_max);
    EXPECT_EQ(7, readBack.multicast_ttl);
    // Whatever the participant answers comes back.
    LogCapture quiet;
    for (int kind : {1, 2, 4, 8, 16, 3, 0, 1024}) {
        const auto builtinKind = static_cast<DDS_TransportBuiltinKind>(kind);
        EXPECT_EQ(DDS_DomainParticipant_get_builtin_transport_property(
                      participant.get(), builtinKind, &readBack.parent),
                  VESK_Transport_Support_get_builtin_transport_property(
                      participant.get(), builtinKind, &readBack.parent))
            << kind;
    }
}

TEST(PluginByAlias, RefusalsAndLookups) {
    constexpr const char *FN = "VESK_Transport_Support_get_transport_plugin";
    RegisteredTransport registered;
    DDS_DomainParticipant *participant = registered.participant.get();
    ParticipantPtr noConfigurator = makeParticipant(1, 0);
    ParticipantPtr noWorker = makeParticipant(0, 1);
    ParticipantPtr neither = makeParticipant(1, 1);
    const std::string tooLong(129, 'a');
    const std::string configurator =
        error(FN, "DDS_LOG_GET_FAILURE_s", {"netio configurator not valid"});
    const std::string alias = error(FN, "DDS_LOG_SET_FAILURE_s", {"pluginAliasIn"});
    const std::vector<std::tuple<DDS_DomainParticipant *, const char *, std::string>> rows = {
        {nullptr, nullptr, bad(FN, "participant_in must be  non-NULL")},
        {participant, nullptr, bad(FN, "alias_in must be  non-NULL")},
        {neither.get(), "a", configurator},  // the configurator before the worker
        {noConfigurator.get(), "a", configurator},
        {noWorker.get(), "a", error(FN, "DDS_LOG_GET_FAILURE_s", {"worker not valid"})},
        {participant, tooLong.c_str(), alias},
        {participant, "a,b", alias},
    };
    for (const auto &[target, name, expected] : rows) {
        SCOPED_TRACE(expected);
        LogCapture log;
        EXPECT_EQ(nullptr, VESK_Transport_Support_get_transport_plugin(target, name));
        EXPECT_EQ(std::vector<std::string>{expected}, describeAll(log));
    }
    LogCapture log;
    EXPECT_EQ(&registered.transport.plugin,
              VESK_Transport_Support_get_transport_plugin(participant, "routed"));
    EXPECT_EQ(nullptr, VESK_Transport_Support_get_transport_plugin(participant, "unknown"));
    ASSERT_EQ(DDS_RETCODE_OK, DDS_DomainParticipant_enable(participant));
    EXPECT_EQ(&registered.transport.plugin,
              VESK_Transport_Support_get_transport_plugin(participant, "routed"));
    EXPECT_TRUE(log.entries().empty());
}

// Every message of these operations is an error of the module: written only
// with the error bit and the module's submodule bit.
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
        EXPECT_TRUE(sameHandle(VESK_TRANSPORT_HANDLE_NIL, VESK_Transport_Support_register_transport(
                                                              nullptr, nullptr, nullptr, nullptr)));
        const auto entries = log.entries();
        ASSERT_EQ(row.written, entries.size());
        if (row.written) {
            EXPECT_EQ(static_cast<KEL_UINT32>(VESK_TRANSPORT_LOG_MODULE_ID), entries[0].module_id);
        }
    }
}

}  // namespace
