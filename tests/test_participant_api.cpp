// The participant transport API: registration and lookup, routes, builtin
// transport properties and plugin lookup by alias.

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "support/Participants.hpp"

namespace {

using namespace vesk::test;
using Messages = std::vector<std::string>;

bool sameHandle(const VESK_Transport_Handle_t &a, const VESK_Transport_Handle_t &b) {
    return a._participant == b._participant &&
           a._plugin_handle._manager == b._plugin_handle._manager &&
           a._plugin_handle._index == b._plugin_handle._index &&
           a._plugin_handle._referentEpochAtCreation == b._plugin_handle._referentEpochAtCreation;
}
bool isNil(const VESK_Transport_Handle_t &h) {
    return sameHandle(h, VESK_Transport_Handle_t{nullptr, {nullptr, 0xFFFFFFFFu, 0}});
}

constexpr const char *REGISTER = "VESK_Transport_Support_register_transport";
constexpr const char *LOOKUP = "VESK_Transport_Support_lookup_transport";
const std::string NOT_CONVERTIBLE = "aliases_in could not be converted to internal format";

std::string bad(const char *function, const std::string &what) {
    return error(function, "DDS_LOG_BAD_PARAMETER_s", {what});
}
std::string enabledError(const char *function) {
    return error(function, "DDS_LOG_PARTICIPANT_ENABLED_ERROR", {});
}
KELNetioConfigurator *configuratorOf(const ParticipantPtr &participant) {
    return DDS_DomainParticipant_get_netio_configuratorI(participant.get());
}

TEST(Register, RefusalsLeaveTheNilHandleAndNoInstallation) {
    EXPECT_TRUE(isNil(VESK_TRANSPORT_HANDLE_NIL));
    struct Row {
        const char *nulls;  // participant, transport, aliases, address; 'E': enabled first
        std::vector<std::string> aliases;
        std::string expected;
    };
    const std::vector<Row> rows = {
        {"1111", {"a"}, bad(REGISTER, "participant_in must be  non-NULL")},
        {"E111", {"a"}, enabledError(REGISTER)},  // enabled before the arguments
        {"0111", {"a"}, bad(REGISTER, "transport_in must be non-NULL")},
        {"0011", {"a"}, bad(REGISTER, "aliases_in must be non-NULL")},
        {"0001", {"a"}, bad(REGISTER, "network_address_in must be non-NULL")},
        {"0000", {"a,b"}, bad(REGISTER, NOT_CONVERTIBLE)},
        {"0000", {std::string(100, 'x'), std::string(40, 'y')}, bad(REGISTER, NOT_CONVERTIBLE)},
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
        EXPECT_TRUE(isNil(VESK_Transport_Support_register_transport(
            on(0) ? nullptr : participant.get(), on(1) ? nullptr : &transport.plugin,
            on(2) ? nullptr : &aliases.seq, on(3) ? nullptr : &networkAddress)));
        EXPECT_EQ(Messages{row.expected}, describeAll(log));
        EXPECT_EQ(0, KELNetioConfigurator_getPluginCount(configuratorOf(participant)));
    }
}

TEST(Register, OnlyOneSharedMemoryTransport) {
    // The first shared-memory plugin is a registered one or the builtin one
    // that the participant installs straight into its configurator.
    for (bool firstIsBuiltin : {false, true}) {
        SCOPED_TRACE(firstIsBuiltin ? "builtin first" : "registered first");
        ParticipantPtr participant = makeParticipant();
        TestPlugin first(VESK_TRANSPORT_CLASSID_SHMEM), second(VESK_TRANSPORT_CLASSID_SHMEM),
            other(VESK_TRANSPORT_CLASSID_UDPv4);
        const VESK_Transport_Address_t networkAddress = address(1);
        if (firstIsBuiltin) {
            KELNetioAliasList list{};
            ASSERT_TRUE(KELNetioAliasList_appendFromString(&list, "builtin.shmem"));
            REDAWeakReference reference{};
            ASSERT_TRUE(KELNetioConfigurator_installTransportPlugin(
                configuratorOf(participant), &reference, &first.plugin, &list, &networkAddress,
                DDS_DomainParticipant_get_workerI(participant.get())));
        } else {
            install(participant.get(), &first.plugin, "shm1");
        }
        Aliases aliases{"shm2"};
        LogCapture log;
        EXPECT_TRUE(isNil(VESK_Transport_Support_register_transport(
            participant.get(), &second.plugin, &aliases.seq, &networkAddress)));
        EXPECT_EQ(Messages{error(REGISTER, "KEL_LOG_ANY_FAILURE_s",
                                 {"Only one shared memory transport is accepted"})},
                  describeAll(log));
        log.clear();
        install(participant.get(), &other.plugin, "udp");
        EXPECT_TRUE(log.entries().empty());
    }
}

TEST(RegisterAndLookup, InstallationLookupAndRefusals) {
    ParticipantPtr participant = makeParticipant();
    TestPlugin first(77), second(78), stranger(79);
    Aliases aliases{"dup", "other"};
    const VESK_Transport_Address_t networkAddress = address(9);
    LogCapture log;
    const VESK_Transport_Handle_t registered = VESK_Transport_Support_register_transport(
        participant.get(), &first.plugin, &aliases.seq, &networkAddress);
    ASSERT_TRUE(isValid(registered));
    EXPECT_EQ(participant.get(), registered._participant);
    Aliases found{};
    VESK_Transport_Address_t foundAddress{};
    EXPECT_TRUE(
        sameHandle(registered, VESK_Transport_Support_lookup_transport(
                                   participant.get(), &found.seq, &foundAddress, &first.plugin)));
    ASSERT_EQ(2, DDS_StringSeq_get_length(&found.seq));
    EXPECT_STREQ("dup", DDS_StringSeq_get(&found.seq, 0));
    EXPECT_STREQ("other", DDS_StringSeq_get(&found.seq, 1));
    EXPECT_EQ(0, std::memcmp(&foundAddress, &networkAddress, sizeof foundAddress));
    EXPECT_TRUE(log.entries().empty());
    // The configurator refuses the same plugin twice and an alias in use:
    // its reason (test_configurator.cpp), then the module's message.
    for (TestPlugin *plugin : {&first, &second}) {
        log.clear();
        EXPECT_TRUE(isNil(VESK_Transport_Support_register_transport(
            participant.get(), &plugin->plugin, &aliases.seq, &networkAddress)));
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
        log.clear();
        VESK_Transport_Handle_t handle = VESK_Transport_Support_lookup_transport(
            row.participant, &aliasesOut.seq, &foundAddress, row.plugin);
        EXPECT_EQ(nullptr, handle._participant);
        if (row.nonEmptyAliasesOut) handle._participant = participant.get();
        EXPECT_TRUE(row.nonEmptyAliasesOut ? sameHandle(registered, handle) : isNil(handle));
        EXPECT_EQ(Messages{row.expected}, describeAll(log));
    }
    // Lookup works after enabling, and without asking for the aliases.
    log.clear();
    ASSERT_EQ(DDS_RETCODE_OK, DDS_DomainParticipant_enable(participant.get()));
    EXPECT_TRUE(
        sameHandle(registered, VESK_Transport_Support_lookup_transport(
                                   participant.get(), nullptr, &foundAddress, &first.plugin)));
    EXPECT_TRUE(log.entries().empty());
    // A participant without an enabled operation counts as not enabled.
    reinterpret_cast<DDS_Entity *>(participant.get())->_is_enabled = nullptr;
    install(participant.get(), &stranger.plugin, "late");
}

struct RegisteredTransport {
    ParticipantPtr participant = makeParticipant();
    TestPlugin transport{77};
    VESK_Transport_Handle_t handle = install(participant.get(), &transport.plugin, "routed");
};

// Routes keep the leading bits of the range; the configurator refuses the
// same route twice; the checks come in order: the handle, enabled, the
// range, the bit count.
TEST(Routes, FilterRefusalsAndTheirOrder) {
    using RouteFn = DDS_ReturnCode_t (*)(const VESK_Transport_Handle_t *,
                                         const VESK_Transport_Address_t *, DDS_Long);
    for (const auto &[function, route, kind] :
         {std::tuple{"VESK_Transport_Support_add_send_route",
                     RouteFn{VESK_Transport_Support_add_send_route}, KEL_NETIO_ROUTE_DESTINATION},
          {"VESK_Transport_Support_add_receive_route",
           RouteFn{VESK_Transport_Support_add_receive_route}, KEL_NETIO_ROUTE_ENTRYPORT}}) {
        SCOPED_TRACE(function);
        const RouteFn addRoute = route;  // a lambda may not capture a structured binding
        RegisteredTransport registered;
        KELNetioConfigurator *configurator = configuratorOf(registered.participant);
        const VESK_Transport_Handle_t *handle = &registered.handle;
        VESK_Transport_Address_t range{};
        std::memset(range.network_ordered_value, 0xFF, sizeof range.network_ordered_value);
        for (DDS_Long bits : {0, 128, 96, 1, 127}) {
            SCOPED_TRACE(bits);
            const int before = KELNetioConfigurator_getRouteCount(configurator);
            LogCapture log;
            ASSERT_EQ(DDS_RETCODE_OK, route(handle, &range, bits));
            EXPECT_TRUE(log.entries().empty());
            KELNetioRoute added{};
            ASSERT_TRUE(KELNetioConfigurator_getRoute(configurator, before, &added));
            EXPECT_EQ(kind, added.kind);
            EXPECT_TRUE(kind != KEL_NETIO_ROUTE_DESTINATION || added.service_class == 0);
            EXPECT_EQ(handle->_plugin_handle._index, added.plugin_reference._index);
            int maskBits = 0;
            for (unsigned char byte : added.filter.mask.network_ordered_value) {
                maskBits += __builtin_popcount(byte);
            }
            EXPECT_EQ(bits, maskBits);
            EXPECT_EQ(0, std::memcmp(&added.filter.address, &added.filter.mask, 16));
        }
        ASSERT_EQ(DDS_RETCODE_OK, route(handle, &range, 64));
        LogCapture log;
        EXPECT_EQ(DDS_RETCODE_ERROR, route(handle, &range, 64));
        ASSERT_EQ(2u, log.entries().size());
        EXPECT_EQ("KEL_LOG_ANY_FAILURE_s(the same route exists already)", log.summary()[0]);
        EXPECT_EQ(error(function, "DDS_LOG_TRANSPORT_SEND_ROUTE", {}), describeAll(log)[1]);
        const int routes = KELNetioConfigurator_getRouteCount(configurator);
        VESK_Transport_Handle_t noManager = *handle, noIndex = *handle, noParticipant = *handle;
        noManager._plugin_handle._manager = nullptr;
        noIndex._plugin_handle._index = 0xFFFFFFFFu;
        noParticipant._participant = nullptr;
        const std::string invalid = bad(function, "transport_handle_in must be valid");
        const std::string count = bad(function, "0 <= address_range_bit_count_in <= 128");
        const auto add = [&](const VESK_Transport_Handle_t *h, const VESK_Transport_Address_t *r,
                             DDS_Long bits) -> long { return addRoute(h, r, bits); };
        const long BAD = DDS_RETCODE_BAD_PARAMETER;
        expectAnswers({
            {[&] { return add(&VESK_TRANSPORT_HANDLE_NIL, &range, 0); }, BAD, invalid},
            {[&] { return add(nullptr, &range, 0); }, BAD, invalid},
            {[&] { return add(&noManager, &range, 0); }, BAD, invalid},
            {[&] { return add(&noIndex, &range, 0); }, BAD, invalid},
            {[&] { return add(&noParticipant, nullptr, 500); }, BAD, invalid},
            {[&] { return add(handle, nullptr, -1); }, BAD,
             bad(function, "address_range_in must be non-NULL")},
            {[&] { return add(handle, &range, -1); }, BAD, count},
            {[&] { return add(handle, &range, 129); }, BAD, count},
            {[&] { return KELNetioConfigurator_getRouteCount(configurator); }, routes, ""},
            {[&] { return DDS_DomainParticipant_enable(registered.participant.get()); }, 0, ""},
            // Enabled is tested after the handle, before range and count.
            {[&] { return add(handle, nullptr, 500); }, DDS_RETCODE_PRECONDITION_NOT_MET,
             enabledError(function)},
            {[&] { return add(&VESK_TRANSPORT_HANDLE_NIL, nullptr, 500); }, BAD, invalid},
        });
    }
}

TEST(BuiltinProperties, ArgumentChecksInOrderThenThePassThrough) {
    ParticipantPtr participant = makeParticipant();
    ParticipantPtr enabled = makeParticipant();
    ASSERT_EQ(DDS_RETCODE_OK, DDS_DomainParticipant_enable(enabled.get()));
    VESK_Transport_UDP_Property_t record = VESK_TRANSPORT_UDPV6_PROPERTY_DEFAULT;
    constexpr const char *GET = "VESK_Transport_Support_get_builtin_transport_property";
    constexpr const char *SET = "VESK_Transport_Support_set_builtin_transport_property";
    const auto get = [](DDS_DomainParticipant *p, VESK_Transport_Property_t *r, int kind = 8) {
        return VESK_Transport_Support_get_builtin_transport_property(
            p, static_cast<DDS_TransportBuiltinKind>(kind), r);
    };
    const auto set = [](DDS_DomainParticipant *p, VESK_Transport_Property_t *r) {
        return VESK_Transport_Support_set_builtin_transport_property(p, DDS_TRANSPORTBUILTIN_UDPv6,
                                                                     r);
    };
    const long BAD = DDS_RETCODE_BAD_PARAMETER;
    expectAnswers({
        {[&] { return get(nullptr, nullptr); }, BAD, bad(GET, "participant_in must be  non-NULL")},
        {[&] { return get(participant.get(), nullptr); }, BAD,
         bad(GET, "builtin_transport_property_inout must be  non-NULL")},
        {[&] { return set(nullptr, nullptr); }, BAD, bad(SET, "participant_in must be  non-NULL")},
        {[&] { return set(enabled.get(), nullptr); }, BAD,
         bad(SET, "builtin_transport_property_in must be  non-NULL")},
        {[&] { return set(enabled.get(), &record.parent); }, DDS_RETCODE_PRECONDITION_NOT_MET,
         enabledError(SET)},
        // Reading is allowed when enabled; a written record is read back.
        {[&] { return get(enabled.get(), &record.parent); }, DDS_RETCODE_OK, ""},
    });
    record.parent.message_size_max = 9000;
    record.multicast_ttl = 7;
    ASSERT_EQ(DDS_RETCODE_OK, set(participant.get(), &record.parent));
    VESK_Transport_UDP_Property_t readBack{};
    ASSERT_EQ(DDS_RETCODE_OK, get(participant.get(), &readBack.parent));
    EXPECT_EQ(VESK_TRANSPORT_CLASSID_UDPv6, readBack.parent.classid);
    EXPECT_EQ(9000, readBack.parent.message_size_max);
    EXPECT_EQ(7, readBack.multicast_ttl);
    // Whatever the participant answers comes back.
    LogCapture quiet;
    for (int kind : {1, 2, 4, 8, 16, 3, 0, 1024}) {
        EXPECT_EQ(
            DDS_DomainParticipant_get_builtin_transport_property(
                participant.get(), static_cast<DDS_TransportBuiltinKind>(kind), &readBack.parent),
            get(participant.get(), &readBack.parent, kind))
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
    // 1: the registered plugin, 0: none.
    const auto find = [&](DDS_DomainParticipant *p, const char *name) -> long {
        VESK_Transport_Plugin *plugin = VESK_Transport_Support_get_transport_plugin(p, name);
        return plugin == nullptr ? 0 : plugin == &registered.transport.plugin ? 1 : 2;
    };
    expectAnswers({
        {[&] { return find(nullptr, nullptr); }, 0, bad(FN, "participant_in must be  non-NULL")},
        {[&] { return find(participant, nullptr); }, 0, bad(FN, "alias_in must be  non-NULL")},
        // The configurator before the worker.
        {[&] { return find(neither.get(), "a"); }, 0, configurator},
        {[&] { return find(noConfigurator.get(), "a"); }, 0, configurator},
        {[&] { return find(noWorker.get(), "a"); }, 0,
         error(FN, "DDS_LOG_GET_FAILURE_s", {"worker not valid"})},
        {[&] { return find(participant, tooLong.c_str()); }, 0, alias},
        {[&] { return find(participant, "a,b"); }, 0, alias},
        {[&] { return find(participant, "routed"); }, 1, ""},
        {[&] { return find(participant, "unknown"); }, 0, ""},
        {[&] { return DDS_DomainParticipant_enable(participant); }, DDS_RETCODE_OK, ""},
        {[&] { return find(participant, "routed"); }, 1, ""},
    });
}

// Every message of these operations is an error of the module: written only
// with the error bit and the module's submodule bit.
TEST(Masks, MessagesNeedTheErrorBitAndTheSubmoduleBit) {
    const KEL_UINT32 transport = DDS_SUBMODULE_MASK_TRANSPORT;
    for (const auto &[instrumentation, submodule, written] :
         {std::tuple{KEL_UINT32{VESK_CONFIG_LOG_VERBOSITY_ERROR}, transport, size_t{1}},
          {KEL_UINT32{KEL_LOG_BIT_EXCEPTION}, transport, size_t{0}},
          {KEL_UINT32{VESK_CONFIG_LOG_VERBOSITY_ERROR}, ~transport, size_t{0}},
          {KEL_UINT32{VESK_CONFIG_LOG_VERBOSITY_SILENT}, 0xFFFFFFFFu, size_t{0}}}) {
        LogCapture log(instrumentation, submodule);
        EXPECT_TRUE(
            isNil(VESK_Transport_Support_register_transport(nullptr, nullptr, nullptr, nullptr)));
        const auto entries = log.entries();
        ASSERT_EQ(written, entries.size());
        for (const LogEntry &entry : entries)
            EXPECT_EQ(KEL_UINT32{VESK_TRANSPORT_LOG_MODULE_ID}, entry.module_id);
    }
}

}  // namespace
