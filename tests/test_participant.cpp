// The participant: creation and deletion, enabling with builtin transports,
// the builtin property records and the alias conversions; every refusal
// with its message, every allocation failing in turn.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/PlatformChecks.hpp"
#include "vesk_transport/Support.h"

namespace {

using vesk::test::aliasList;
using vesk::test::FakePlugin;
using vesk::test::liveHeapBlocks;
using vesk::test::LogCapture;
using vesk::test::logLines;
using vesk::test::refusing;
using Strings = std::vector<std::string>;

const std::string kGet = "2 DDS_DomainParticipant_get_builtin_transport_property ";
const std::string kSet = "2 DDS_DomainParticipant_set_builtin_transport_property ";
const std::string kEnable = "2 DDS_DomainParticipant_enable ";

DDS_DomainParticipant *create(DDS_TransportBuiltinKindMask mask, int plugin_count_max = 0,
                              int without_configurator = 0, int without_worker = 0) {
    DDS_DomainParticipantOptions options = {mask, plugin_count_max, 0, without_configurator,
                                            without_worker};
    return DDS_DomainParticipant_create(&options);
}

KELNetioConfigurator *configuratorOf(DDS_DomainParticipant *participant) {
    return DDS_DomainParticipant_get_netio_configuratorI(participant);
}
int pluginCount(DDS_DomainParticipant *participant) {
    return KELNetioConfigurator_getPluginCount(configuratorOf(participant));
}

DDS_ReturnCode_t getRecord(DDS_DomainParticipant *participant, int kind,
                           VESK_Transport_Property_t *record) {
    return DDS_DomainParticipant_get_builtin_transport_property(
        participant, static_cast<DDS_TransportBuiltinKind>(kind), record);
}
DDS_ReturnCode_t setRecord(DDS_DomainParticipant *participant, int kind,
                           VESK_Transport_Property_t *record) {
    return DDS_DomainParticipant_set_builtin_transport_property(
        participant, static_cast<DDS_TransportBuiltinKind>(kind), record);
}

void installFake(DDS_DomainParticipant *participant, VESK_Transport_ClassId_t classid,
                 const char *alias) {
    KELNetioAliasList list = aliasList(alias);
    ASSERT_EQ(KELNetioConfigurator_installTransportPlugin(
                  configuratorOf(participant), nullptr, FakePlugin::make(classid), &list, nullptr,
                  DDS_DomainParticipant_get_workerI(participant)),
              1);
}

TEST(Participant, CreateGivesADisabledParticipantAndSurvivesEveryAllocationFailure) {
    const KEL_UINT64 before = liveHeapBlocks();
    DDS_DomainParticipant *participant = nullptr;
    long n = 1;
    for (; refusing(n, [&] { participant = DDS_DomainParticipant_create(nullptr); }); ++n) {
        ASSERT_EQ(participant, nullptr);
        EXPECT_EQ(liveHeapBlocks(), before) << n;
    }
    EXPECT_EQ(n, 5);  // the participant and the configurator's three blocks
    const auto *entity = reinterpret_cast<const DDS_Entity *>(participant);
    EXPECT_EQ(entity->_is_enabled(entity) + DDS_DomainParticipant_is_enabled(participant), 0);
    EXPECT_EQ(KELNetioConfigurator_getPluginCountMax(configuratorOf(participant)),
              KEL_NETIO_CONFIGURATOR_PLUGIN_COUNT_MAX_DEFAULT);
    REDAWorker *worker = DDS_DomainParticipant_get_workerI(participant);
    EXPECT_STREQ(worker->_name, "participant worker");
    EXPECT_EQ(worker->_activityContext, nullptr);
    // Deleting releases the installed plugins and the records with the participant.
    FakePlugin::deletions = 0;
    installFake(participant, 0x7001, "mine");
    VESK_Transport_UDP_Property_t record = VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT;
    record.parent.thread_name_prefix = const_cast<char *>("abc");
    ASSERT_EQ(setRecord(participant, DDS_TRANSPORTBUILTIN_UDPv4, &record.parent), DDS_RETCODE_OK);
    DDS_DomainParticipant_delete(participant);
    EXPECT_EQ(FakePlugin::deletions, 1);
    EXPECT_EQ(liveHeapBlocks(), before);
    DDS_DomainParticipant_delete(nullptr);

    DDS_DomainParticipant *bare = create(0, 3, 1, 1);
    EXPECT_EQ(configuratorOf(bare), nullptr);
    EXPECT_EQ(DDS_DomainParticipant_get_workerI(bare), nullptr);
    DDS_DomainParticipant_delete(bare);
    DDS_DomainParticipant *small = create(0, 3);
    EXPECT_EQ(KELNetioConfigurator_getPluginCountMax(configuratorOf(small)), 3);
    DDS_DomainParticipant_delete(small);
    EXPECT_EQ(configuratorOf(nullptr), nullptr);
    EXPECT_EQ(DDS_DomainParticipant_get_workerI(nullptr), nullptr);
    EXPECT_EQ(DDS_DomainParticipant_is_enabled(nullptr), 0);
}

TEST(Participant, EnableInstallsEveryBuiltinOfTheMaskUnderItsAlias) {
    const DDS_TransportBuiltinKindMask all =
        DDS_TRANSPORTBUILTIN_UDPv4 | DDS_TRANSPORTBUILTIN_SHMEM | DDS_TRANSPORTBUILTIN_INTRA |
        DDS_TRANSPORTBUILTIN_UDPv6 | DDS_TRANSPORTBUILTIN_UDPv4_WAN;
    const std::pair<const char *, VESK_Transport_ClassId_t> builtins[] = {
        {DDS_TRANSPORTBUILTIN_UDPv4_ALIAS, VESK_TRANSPORT_CLASSID_UDPv4},
        {DDS_TRANSPORTBUILTIN_SHMEM_ALIAS, VESK_TRANSPORT_CLASSID_SHMEM},
        {DDS_TRANSPORTBUILTIN_UDPv6_ALIAS, VESK_TRANSPORT_CLASSID_UDPv6},
        {DDS_TRANSPORTBUILTIN_UDPv4_WAN_ALIAS, VESK_TRANSPORT_CLASSID_UDPv4_WAN}};
    for (const DDS_TransportBuiltinKindMask mask : {0u, 1u, all}) {
        SCOPED_TRACE(mask);
        DDS_DomainParticipant *participant = create(mask);
        LogCapture log;
        ASSERT_EQ(DDS_DomainParticipant_enable(participant), DDS_RETCODE_OK);
        EXPECT_EQ(DDS_DomainParticipant_enable(participant), DDS_RETCODE_OK);  // changes nothing
        EXPECT_EQ(logLines(log), Strings{});
        const auto *entity = reinterpret_cast<const DDS_Entity *>(participant);
        EXPECT_NE(entity->_is_enabled(entity), 0);
        EXPECT_EQ(DDS_DomainParticipant_is_enabled(participant), 1);
        const int expected = mask == all ? 4 : static_cast<int>(mask);
        EXPECT_EQ(pluginCount(participant), expected);
        for (int i = 0; i < expected; ++i) {
            const auto &[alias, classid] = builtins[i];
            KELNetioAliasList list = aliasList(alias);
            VESK_Transport_Plugin *plugin = KELNetioConfigurator_getTransportPluginFromAlias(
                configuratorOf(participant), nullptr, &list, nullptr);
            ASSERT_NE(plugin, nullptr) << alias;
            EXPECT_EQ(plugin->property->classid, classid);
        }
        DDS_DomainParticipant_delete(participant);
    }
}

// A refused enable installs nothing, keeps nothing it made, and says why.
TEST(Participant, EnableRefusals) {
    VESK_Transport_UDP_Property_t badV6 = VESK_TRANSPORT_UDPV6_PROPERTY_DEFAULT;
    badV6.parent.deny_interfaces_list_length = -1;  // refused by the UDPv6 constructor
    const DDS_TransportBuiltinKindMask udp =
        DDS_TRANSPORTBUILTIN_UDPv4 | DDS_TRANSPORTBUILTIN_UDPv6;
    const struct {
        DDS_TransportBuiltinKindMask mask;
        int plugin_count_max, without_configurator;
        VESK_Transport_ClassId_t fake_classid;  // installed first unless 0
        const char *fake_alias;
        std::string message;  // of enable; a refused constructor logs first
    } rows[] = {
        {1, 0, 1, 0, "", "DDS_LOG_GET_FAILURE_s(netio configurator not valid)"},
        {udp, 0, 0, 0x7000, DDS_TRANSPORTBUILTIN_UDPv6_ALIAS,
         "DDS_LOG_INSTALL_TRANSPORT_PLUGINS_s(" DDS_TRANSPORTBUILTIN_UDPv6_ALIAS ")"},
        {udp, 2, 0, 0x7000, "mine", "KEL_LOG_INSUFFICIENT_SPACE_FAILURE_dd(3|2)"},
        {DDS_TRANSPORTBUILTIN_SHMEM, 0, 0, VESK_TRANSPORT_CLASSID_SHMEM, "my_shmem",
         "KEL_LOG_ANY_FAILURE_s(Only one shared memory transport is accepted)"},
        {udp, 0, 0, 0, "", "KEL_LOG_CREATION_FAILURE_s(" DDS_TRANSPORTBUILTIN_UDPv6_ALIAS ")"}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.message);
        DDS_DomainParticipant *participant =
            create(row.mask, row.plugin_count_max, row.without_configurator);
        if (row.fake_classid != 0) installFake(participant, row.fake_classid, row.fake_alias);
        ASSERT_EQ(setRecord(participant, DDS_TRANSPORTBUILTIN_UDPv6, &badV6.parent),
                  DDS_RETCODE_OK);
        const KEL_UINT64 blocks = liveHeapBlocks();
        LogCapture log;
        EXPECT_EQ(DDS_DomainParticipant_enable(participant), DDS_RETCODE_ERROR);
        EXPECT_EQ(DDS_DomainParticipant_is_enabled(participant), 0);
        EXPECT_EQ(pluginCount(participant), row.fake_classid != 0 ? 1 : 0);
        EXPECT_EQ(liveHeapBlocks(), blocks);
        Strings expected{kEnable + row.message};
        if (row.fake_classid == 0 && row.without_configurator == 0) {
            expected.insert(expected.begin(),
                            "2 VESK_Transport_UDPv6_newI KEL_LOG_CREATION_FAILURE_s(UDPv6 "
                            "transport: parent.deny_interfaces_list_length is negative)");
        }
        EXPECT_EQ(logLines(log), expected);
        DDS_DomainParticipant_delete(participant);
    }
}

TEST(Participant, EnableSurvivesEveryAllocationFailure) {
    // Two builtins: a failure while making the second releases the first.
    DDS_DomainParticipant *participant =
        create(DDS_TRANSPORTBUILTIN_UDPv4 | DDS_TRANSPORTBUILTIN_UDPv6);
    const KEL_UINT64 before = liveHeapBlocks();
    LogCapture log(VESK_CONFIG_LOG_VERBOSITY_SILENT);
    DDS_ReturnCode_t result = DDS_RETCODE_OK;
    long n = 1;
    for (; refusing(n, [&] { result = DDS_DomainParticipant_enable(participant); }); ++n) {
        ASSERT_LT(n, 500);
        EXPECT_EQ(result, DDS_RETCODE_ERROR);
        EXPECT_EQ(DDS_DomainParticipant_is_enabled(participant) + pluginCount(participant), 0);
        EXPECT_EQ(liveHeapBlocks(), before) << n;
    }
    EXPECT_EQ(result, DDS_RETCODE_OK);
    EXPECT_GT(n, 3);
    EXPECT_EQ(pluginCount(participant), 2);
    DDS_DomainParticipant_delete(participant);
}

// Room for the record of any kind, and the generic part of the right one.
struct AnyRecord {
    VESK_Transport_UDP_Property_t udp;
    VESK_Transport_Shmem_Property_t shmem;
    VESK_Transport_Property_t *of(int kind) {
        return kind == DDS_TRANSPORTBUILTIN_SHMEM ? &shmem.parent : &udp.parent;
    }
};

TEST(ParticipantProperty, GetAndSetPerKindAndArgument) {
    DDS_DomainParticipant *participant = create(0);
    const std::string badKind =
        "DDS_LOG_BAD_PARAMETER_s(kind must be exactly one DDS_TransportBuiltinKind)";
    const std::string intra = "KEL_LOG_ANY_FAILURE_s(the INTRA transport has no property record)";
    const DDS_ReturnCode_t ok = DDS_RETCODE_OK, bad = DDS_RETCODE_BAD_PARAMETER;
    const struct {
        DDS_DomainParticipant *participant;
        int kind;  // any int, as a C caller may pass
        bool nullRecord;
        DDS_ReturnCode_t result;
        std::string message;               // "": none; set says "in" for "inout"
        VESK_Transport_ClassId_t classid;  // of the record read: the records start as defaults
    } rows[] = {
        {participant, 1, false, ok, "", 1},
        {participant, 8, false, ok, "", 2},
        {participant, 16, false, ok, "", 0x01000001},
        {participant, 2, false, ok, "", 0x01000000},
        {participant, 4, false, DDS_RETCODE_UNSUPPORTED, intra, 0},
        {participant, 3, false, bad, badKind, 0},
        {nullptr, 1, false, bad, "DDS_LOG_BAD_PARAMETER_s(self must be non-NULL)", 0},
        {participant, 1, true, bad, "DDS_LOG_BAD_PARAMETER_s(property_inout must be non-NULL)", 0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::Message() << "kind " << row.kind << (row.nullRecord ? " null" : ""));
        AnyRecord record;
        std::memset(&record, 0x5A, sizeof record);
        const AnyRecord untouched = record;
        VESK_Transport_Property_t *property = row.nullRecord ? nullptr : record.of(row.kind);
        std::string setMessage = row.message;
        if (row.nullRecord) setMessage.replace(setMessage.find("inout"), 5, "in");
        LogCapture log;
        EXPECT_EQ(getRecord(row.participant, row.kind, property), row.result);
        if (row.classid == 0) {
            EXPECT_EQ(std::memcmp(&record, &untouched, sizeof record), 0);
        } else {
            EXPECT_EQ(property->classid, row.classid);
        }
        // Writing back what was read is accepted for the kinds with a record.
        EXPECT_EQ(setRecord(row.participant, row.kind, property), row.result);
        const Strings expected = {kGet + row.message, kSet + setMessage};
        EXPECT_EQ(logLines(log), row.message.empty() ? Strings{} : expected);
    }
    ASSERT_EQ(DDS_DomainParticipant_enable(participant), DDS_RETCODE_OK);
    AnyRecord record{};
    LogCapture log;
    EXPECT_EQ(getRecord(participant, 1, &record.udp.parent), DDS_RETCODE_OK);
    EXPECT_EQ(setRecord(participant, 1, &record.udp.parent), DDS_RETCODE_PRECONDITION_NOT_MET);
    EXPECT_EQ(logLines(log), Strings{kSet + "DDS_LOG_PARTICIPANT_ENABLED_ERROR()"});
    DDS_DomainParticipant_delete(participant);
}

// A record whose every owned member of each kind is set, owned by the test.
VESK_Transport_UDP_Property_t ownedUdpRecord(const VESK_Transport_UDP_Property_t &base,
                                             KEL_INT32 size) {
    VESK_Transport_UDP_Property_t record = base;
    record.parent.message_size_max = size;
    EXPECT_TRUE(KELOsapiHeap_allocateArray(&record.parent.allow_interfaces_list, 2, char *));
    record.parent.allow_interfaces_list[0] = DDS_String_dup("eth0");
    record.parent.allow_interfaces_list[1] = DDS_String_dup("eth1");
    record.parent.allow_interfaces_list_length = 2;
    record.parent.thread_name_prefix = DDS_String_dup("myTr");
    record.public_address = DDS_String_dup("203.0.113.7");
    EXPECT_TRUE(KELOsapiHeap_allocateArray(&record.comm_ports_list, 2,
                                           VESK_Transport_UDP_WAN_CommPortsMappingInfo));
    record.comm_ports_list[1] = {7401, 7401, 17401, 0};
    record.comm_ports_list_length = 2;
    return record;
}

// "size allow prefix public port" of the stored record.
std::string stored(DDS_DomainParticipant *participant, int kind) {
    VESK_Transport_UDP_Property_t got{};
    getRecord(participant, kind, &got.parent);
    const VESK_Transport_Property_t &p = got.parent;
    if (p.allow_interfaces_list_length != 2 || got.comm_ports_list_length != 2) return "no lists";
    return std::to_string(p.message_size_max) + " " + p.allow_interfaces_list[0] + "," +
           p.allow_interfaces_list[1] + " " + p.thread_name_prefix + " " + got.public_address +
           " " + std::to_string(got.comm_ports_list[1].public_port);
}

TEST(ParticipantProperty, SetDeepCopiesAndKeepsTheOldRecordWhenMemoryRunsOut) {
    DDS_DomainParticipant *participant = create(0);
    const std::string lists = " eth0,eth1 myTr 203.0.113.7 17401";
    const std::pair<int, const VESK_Transport_UDP_Property_t *> kinds[] = {
        {DDS_TRANSPORTBUILTIN_UDPv4, &VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT},
        {DDS_TRANSPORTBUILTIN_UDPv6, &VESK_TRANSPORT_UDPV6_PROPERTY_DEFAULT},
        {DDS_TRANSPORTBUILTIN_UDPv4_WAN, &VESK_TRANSPORT_UDPV4_WAN_PROPERTY_DEFAULT}};
    for (const auto &[kind, defaults] : kinds) {
        SCOPED_TRACE(kind);
        VESK_Transport_UDP_Property_t mine = ownedUdpRecord(*defaults, 9000 + kind);
        ASSERT_EQ(setRecord(participant, kind, &mine.parent), DDS_RETCODE_OK);
        VESK_Transport_UDP_Property_finalize(&mine);  // the caller's storage can go at once
        EXPECT_EQ(stored(participant, kind), std::to_string(9000 + kind) + lists);
    }
    EXPECT_EQ(stored(participant, DDS_TRANSPORTBUILTIN_UDPv4), "9001" + lists);  // each its own

    VESK_Transport_UDP_Property_t mine =
        ownedUdpRecord(VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT, 1111);
    const KEL_UINT64 before = liveHeapBlocks();
    DDS_ReturnCode_t result = DDS_RETCODE_OK;
    long n = 1;
    LogCapture log;
    for (; refusing(n, [&] { result = setRecord(participant, 1, &mine.parent); }); ++n) {
        ASSERT_LT(n, 100);
        EXPECT_EQ(result, DDS_RETCODE_OUT_OF_RESOURCES);
        EXPECT_EQ(liveHeapBlocks(), before) << n;
        EXPECT_EQ(logLines(log),
                  Strings{kSet + "DDS_LOG_OUT_OF_RESOURCES_s(builtin transport property)"});
        EXPECT_EQ(stored(participant, DDS_TRANSPORTBUILTIN_UDPv4), "9001" + lists);
        log.clear();
    }
    EXPECT_EQ(n, 7);  // the list (3 blocks), the prefix, the address, the port mappings
    VESK_Transport_UDP_Property_finalize(&mine);
    EXPECT_EQ(stored(participant, DDS_TRANSPORTBUILTIN_UDPv4), "1111" + lists);

    VESK_Transport_Shmem_Property_t shmem = VESK_TRANSPORT_SHMEM_PROPERTY_DEFAULT, got{};
    shmem.received_message_count_max = 77;
    shmem.parent.thread_name_prefix = DDS_String_dup("shm");
    DDSLog_g_instrumentationMask = VESK_CONFIG_LOG_VERBOSITY_SILENT;
    const auto kind = DDS_TRANSPORTBUILTIN_SHMEM;
    EXPECT_TRUE(refusing(1, [&] {
        EXPECT_EQ(setRecord(participant, kind, &shmem.parent), DDS_RETCODE_OUT_OF_RESOURCES);
    }));
    ASSERT_EQ(setRecord(participant, kind, &shmem.parent), DDS_RETCODE_OK);
    VESK_Transport_Shmem_Property_finalize(&shmem);
    ASSERT_EQ(getRecord(participant, kind, &got.parent), DDS_RETCODE_OK);
    EXPECT_EQ(got.received_message_count_max, 77);
    EXPECT_STREQ(got.parent.thread_name_prefix, "shm");
    DDS_DomainParticipant_delete(participant);
}

TEST(AliasConversion, FromStringSeqTakesWholeAliasesOrNothing) {
    const std::string c129(129, 'c');  // the list is built aside: a refusal leaves it alone
    const struct {
        std::vector<const char *> aliases;
        std::string text;  // "previous": refused, list untouched
    } rows[] = {{{}, ""},
                {{"udp", "shmem", "x"}, "udp,shmem,x"},
                {{c129.c_str()}, "previous"},
                {{nullptr}, "previous"},
                {{"a,b"}, "previous"}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.text);
        DDS_StringSeq seq = DDS_SEQUENCE_INITIALIZER;
        for (const char *alias : row.aliases) ASSERT_TRUE(DDS_StringSeq_append(&seq, alias));
        KELNetioAliasList list = aliasList("previous");
        EXPECT_EQ(DDS_TransportSelectionQosPolicy_AliasList_from_StringSeq(&list, &seq),
                  row.text == "previous" ? DDS_RETCODE_BAD_PARAMETER : DDS_RETCODE_OK);
        EXPECT_EQ(std::string(list.element), row.text);
        DDS_StringSeq_finalize(&seq);
    }
    KELNetioAliasList list;
    DDS_StringSeq seq = DDS_SEQUENCE_INITIALIZER;
    EXPECT_EQ(DDS_TransportSelectionQosPolicy_AliasList_from_StringSeq(nullptr, &seq),
              DDS_RETCODE_BAD_PARAMETER);
    EXPECT_EQ(DDS_TransportSelectionQosPolicy_AliasList_from_StringSeq(&list, nullptr),
              DDS_RETCODE_BAD_PARAMETER);
}

TEST(AliasConversion, ToStringSeqSplitsIntoAnEmptyOwningSequence) {
    KELNetioAliasList unterminated;  // never read past its storage
    std::memset(&unterminated, 'x', sizeof unterminated);
    const KELNetioAliasList three = aliasList("udp,shmem,x"), empty = aliasList("");
    const KELNetioAliasList longest = aliasList(std::string(128, 'c').c_str());
    DDS_StringSeq full = DDS_SEQUENCE_INITIALIZER;
    ASSERT_TRUE(DDS_StringSeq_append(&full, "x"));
    DDS_StringSeq borrowed = {nullptr, 0, 0, DDS_BOOLEAN_FALSE};
    const DDS_ReturnCode_t ok = DDS_RETCODE_OK, bad = DDS_RETCODE_BAD_PARAMETER;
    const struct {
        DDS_StringSeq *seq;  // nullptr: a fresh empty one
        const KELNetioAliasList *list;
        DDS_ReturnCode_t expected;
        Strings aliases;
    } rows[] = {{nullptr, &three, ok, {"udp", "shmem", "x"}},
                {nullptr, &empty, ok, {}},
                {nullptr, &longest, ok, {std::string(128, 'c')}},
                {nullptr, &unterminated, bad, {}},
                {nullptr, nullptr, bad, {}},
                {&full, &three, bad, {"x"}},
                {&borrowed, &three, bad, {}}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.list ? std::string(row.list->element, 10) : "(null)");
        DDS_StringSeq fresh = DDS_SEQUENCE_INITIALIZER;
        DDS_StringSeq *seq = row.seq ? row.seq : &fresh;
        EXPECT_EQ(DDS_TransportSelectionQosPolicy_StringSeq_from_AliasList(seq, row.list),
                  row.expected);
        Strings got;
        for (DDS_Long i = 0; i < seq->_length; ++i) got.emplace_back(DDS_StringSeq_get(seq, i));
        EXPECT_EQ(got, row.aliases);
        DDS_StringSeq_finalize(&fresh);
    }
    EXPECT_EQ(DDS_TransportSelectionQosPolicy_StringSeq_from_AliasList(nullptr, &three), bad);
    DDS_StringSeq_finalize(&full);
}

}  // namespace
