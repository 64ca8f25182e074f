// Run-time statistics and control of a participant's UDP transports.

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "support/TestSupport.hpp"
#include "vesk_transport/Support.h"

namespace {

using vesk::test::LogCapture;

struct ParticipantDeleter {
    void operator()(DDS_DomainParticipant *participant) const {
        DDS_DomainParticipant_delete(participant);
    }
};
using ParticipantPtr = std::unique_ptr<DDS_DomainParticipant, ParticipantDeleter>;

ParticipantPtr makeParticipant(int withoutConfigurator = 0, int withoutWorker = 0) {
    DDS_DomainParticipantOptions options = DDS_DOMAINPARTICIPANT_OPTIONS_DEFAULT;
    options.transport_builtin_mask = 0;
    options.without_netio_configurator = withoutConfigurator;
    options.without_worker = withoutWorker;
    return ParticipantPtr(DDS_DomainParticipant_create(&options));
}

// A UDP plugin that uses the loopback interface, whatever else the host has.
VESK_Transport_Plugin *newUdpPlugin(VESK_Transport_ClassId_t classid) {
    VESK_Transport_UDP_Property_t record =
        classid == VESK_TRANSPORT_CLASSID_UDPv4_WAN ? VESK_TRANSPORT_UDPV4_WAN_PROPERTY_DEFAULT
        : classid == VESK_TRANSPORT_CLASSID_UDPv4   ? VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT
                                                    : VESK_TRANSPORT_UDPV6_PROPERTY_DEFAULT;
    record.parent.classid = classid;
    record.ignore_loopback_interface = 0;
    switch (classid) {
        case VESK_TRANSPORT_CLASSID_UDPv4:
            return VESK_Transport_UDPv4_newI(&record, nullptr, nullptr);
        case VESK_TRANSPORT_CLASSID_UDPv4_WAN:
            return VESK_Transport_UDPv4_WAN_newI(&record, nullptr, nullptr);
        default:
            return VESK_Transport_UDPv6_newI(&record, nullptr, nullptr);
    }
}

// Installs a plugin under an alias of its own; the participant then owns it.
void install(DDS_DomainParticipant *participant, VESK_Transport_Plugin *plugin, const char *alias) {
    ASSERT_NE(plugin, nullptr);
    DDS_StringSeq aliases = DDS_SEQUENCE_INITIALIZER;
    DDS_StringSeq_append(&aliases, alias);
    VESK_Transport_Address_t address{};
    VESK_Transport_Handle_t handle =
        VESK_Transport_Support_register_transport(participant, plugin, &aliases, &address);
    DDS_StringSeq_finalize(&aliases);
    ASSERT_NE(handle._participant, nullptr);
}

// A plugin of a UDP class id that is not a UDP transport: the UDP module
// refuses every control operation on it.
struct ForeignPlugin {
    VESK_Transport_Property_t property{};
    VESK_Transport_Plugin plugin{};
    explicit ForeignPlugin(VESK_Transport_ClassId_t classid) {
        property.classid = classid;
        plugin.property = &property;
    }
};

// ---------------------------------------------------------------------------
// Statistics
// ---------------------------------------------------------------------------

TEST(Statistics, NoUdpTransportGivesNoDataAndLeavesTheRecord) {
    ParticipantPtr participant = makeParticipant();
    VESK_Transport_UDP_Statistics record;
    std::memset(&record, 0xAB, sizeof(record));
    VESK_Transport_UDP_Statistics untouched = record;
    LogCapture log;
    EXPECT_EQ(VESK_Transport_Support_get_udpv4_statistics(participant.get(), &record),
              DDS_RETCODE_NO_DATA);
    EXPECT_EQ(VESK_Transport_Support_get_udpv6_statistics(participant.get(), &record),
              DDS_RETCODE_NO_DATA);
    EXPECT_EQ(std::memcmp(&record, &untouched, sizeof(record)), 0);
    EXPECT_TRUE(log.entries().empty());
    EXPECT_EQ(VESK_Transport_Support_get_udpv4_statistics(nullptr, &record),
              DDS_RETCODE_BAD_PARAMETER);
    EXPECT_EQ(VESK_Transport_Support_get_udpv4_statistics(participant.get(), nullptr),
              DDS_RETCODE_BAD_PARAMETER);
}

TEST(Statistics, Udpv4FallsBackToTheWanTransport) {
    struct Row {
        const char *name;
        bool withUdpv4, withWan;
        KEL_UINT64 expectedUserBytes;  // UDPv4 counts 100, WAN counts 7
        DDS_ReturnCode_t result;
    };
    for (const Row &row : {Row{"WAN only", false, true, 7, DDS_RETCODE_OK},
                           Row{"both: UDPv4 wins", true, true, 100, DDS_RETCODE_OK},
                           Row{"UDPv4 only", true, false, 100, DDS_RETCODE_OK}}) {
        SCOPED_TRACE(row.name);
        ParticipantPtr participant = makeParticipant();
        if (row.withUdpv4) {
            VESK_Transport_Plugin *udpv4 = newUdpPlugin(VESK_TRANSPORT_CLASSID_UDPv4);
            install(participant.get(), udpv4, "udpv4");
            VESK_Transport_UDP_count_traffic(udpv4, VESK_TRANSPORT_UDP_TRAFFIC_USER_DATA,
                                             VESK_TRANSPORT_UDP_TRAFFIC_SENT, 1, 100);
        }
        if (row.withWan) {
            VESK_Transport_Plugin *wan = newUdpPlugin(VESK_TRANSPORT_CLASSID_UDPv4_WAN);
            install(participant.get(), wan, "wan");
            VESK_Transport_UDP_count_traffic(wan, VESK_TRANSPORT_UDP_TRAFFIC_USER_DATA,
                                             VESK_TRANSPORT_UDP_TRAFFIC_SENT, 1, 7);
        }
        VESK_Transport_UDP_Statistics record{};
        EXPECT_EQ(VESK_Transport_Support_get_udpv4_statistics(participant.get(), &record),
                  row.result);
        EXPECT_EQ(record.user_bytes_sent, row.expectedUserBytes);
        EXPECT_EQ(record.user_packets_sent, 1u);
        // No fallback for UDPv6.
        EXPECT_EQ(VESK_Transport_Support_get_udpv6_statistics(participant.get(), &record),
                  DDS_RETCODE_NO_DATA);
    }
}

TEST(Statistics, Udpv6ReadsClassTwoOnly) {
    ParticipantPtr participant = makeParticipant();
    VESK_Transport_Plugin *second = newUdpPlugin(VESK_TRANSPORT_CLASSID_UDPv6_510);
    install(participant.get(), second, "udpv6_510");
    VESK_Transport_UDP_Statistics record{};
    EXPECT_EQ(VESK_Transport_Support_get_udpv6_statistics(participant.get(), &record),
              DDS_RETCODE_NO_DATA);

    VESK_Transport_Plugin *udpv6 = newUdpPlugin(VESK_TRANSPORT_CLASSID_UDPv6);
    install(participant.get(), udpv6, "udpv6");
    VESK_Transport_UDP_count_traffic(udpv6, VESK_TRANSPORT_UDP_TRAFFIC_DISCOVERY,
                                     VESK_TRANSPORT_UDP_TRAFFIC_RECEIVED, 2, 300);
    VESK_Transport_UDP_count_received_priority(udpv6, 9);
    EXPECT_EQ(VESK_Transport_Support_get_udpv6_statistics(participant.get(), &record),
              DDS_RETCODE_OK);
    EXPECT_EQ(record.discovery_packets_received, 2u);
    EXPECT_EQ(record.discovery_bytes_received, 300u);
    EXPECT_EQ(record.received_priority_count[9], 1u);
}

// Manual liveliness counts 3/30 sent and 5/50 received; secure liveliness
// 7/70 and 11/110, which land in the _liveliness_ counters only.
struct LivelinessParticipant {
    ParticipantPtr participant = makeParticipant();
    VESK_Transport_Plugin *udpv4 = newUdpPlugin(VESK_TRANSPORT_CLASSID_UDPv4);
    LivelinessParticipant() {
        install(participant.get(), udpv4, "udpv4");
        const struct {
            VESK_Transport_UDP_TrafficKind kind;
            VESK_Transport_UDP_TrafficDirection direction;
            KEL_UINT64 packets, bytes;
        } counts[] = {
            {VESK_TRANSPORT_UDP_TRAFFIC_MANUAL_LIVELINESS, VESK_TRANSPORT_UDP_TRAFFIC_SENT, 3, 30},
            {VESK_TRANSPORT_UDP_TRAFFIC_MANUAL_LIVELINESS, VESK_TRANSPORT_UDP_TRAFFIC_RECEIVED, 5,
             50},
            {VESK_TRANSPORT_UDP_TRAFFIC_SECURE_LIVELINESS, VESK_TRANSPORT_UDP_TRAFFIC_SENT, 7, 70},
            {VESK_TRANSPORT_UDP_TRAFFIC_SECURE_LIVELINESS, VESK_TRANSPORT_UDP_TRAFFIC_RECEIVED, 11,
             110},
        };
        for (const auto &count : counts) {
            EXPECT_TRUE(VESK_Transport_UDP_count_traffic(udpv4, count.kind, count.direction,
                                                         count.packets, count.bytes));
        }
    }
};

TEST(Liveliness, SecureOrAutomaticSelectTheSharedCounters) {
    LivelinessParticipant fixture;
    struct Row {
        int isSecure, isAutomatic;
        KEL_UINT64 packetsSent, bytesSent, packetsReceived, bytesReceived;
    };
    const Row rows[] = {
        {0, 0, 3, 30, 5, 50},   {1, 0, 7, 70, 11, 110}, {1, 1, 7, 70, 11, 110},
        {0, 1, 7, 70, 11, 110}, {2, 0, 7, 70, 11, 110}, {0, -1, 7, 70, 11, 110},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(::testing::Message()
                     << "secure " << row.isSecure << " automatic " << row.isAutomatic);
        KEL_UINT64 packetsSent = 0, bytesSent = 0, packetsReceived = 0, bytesReceived = 0;
        EXPECT_EQ(VESK_Transport_Support_get_udp_liveliness_statistics(
                      fixture.participant.get(), &packetsSent, &bytesSent, &packetsReceived,
                      &bytesReceived, VESK_TRANSPORT_CLASSID_UDPv4, row.isSecure, row.isAutomatic),
                  DDS_RETCODE_OK);
        EXPECT_EQ(packetsSent, row.packetsSent);
        EXPECT_EQ(bytesSent, row.bytesSent);
        EXPECT_EQ(packetsReceived, row.packetsReceived);
        EXPECT_EQ(bytesReceived, row.bytesReceived);
    }
    // Null outputs are skipped; the call still succeeds.
    EXPECT_EQ(VESK_Transport_Support_get_udp_liveliness_statistics(
                  fixture.participant.get(), nullptr, nullptr, nullptr, nullptr,
                  VESK_TRANSPORT_CLASSID_UDPv4, 0, 0),
              DDS_RETCODE_OK);
    KEL_UINT64 bytesReceived = 0;
    EXPECT_EQ(VESK_Transport_Support_get_udp_liveliness_statistics(
                  fixture.participant.get(), nullptr, nullptr, nullptr, &bytesReceived,
                  VESK_TRANSPORT_CLASSID_UDPv4, 0, 0),
              DDS_RETCODE_OK);
    EXPECT_EQ(bytesReceived, 50u);
}

TEST(Liveliness, RefusalsLeaveTheOutputs) {
    constexpr const char *FN = "VESK_Transport_Support_get_udp_liveliness_statistics";
    LivelinessParticipant fixture;
    ParticipantPtr noConfigurator = makeParticipant(1, 0);
    ParticipantPtr noWorker = makeParticipant(0, 1);
    struct Row {
        const char *name;
        DDS_DomainParticipant *participant;
        VESK_Transport_ClassId_t classid;
        std::vector<std::string> messages;
    };
    const std::vector<Row> rows = {
        {"null participant", nullptr, 1, {}},
        {"class 0", fixture.participant.get(), 0, {}},
        {"class 3", fixture.participant.get(), 3, {}},
        {"class -1", fixture.participant.get(), -1, {}},
        {"no configurator", noConfigurator.get(), 1, {"DDS_LOG_GET_FAILURE_s(configurator)"}},
        {"no worker", noWorker.get(), 1, {"DDS_LOG_GET_FAILURE_s(worker)"}},
        {"class 5 not installed, no fallback",
         fixture.participant.get(),
         5,
         {"DDS_LOG_GET_FAILURE_s(transportPlugin)"}},
        {"WAN not installed",
         fixture.participant.get(),
         VESK_TRANSPORT_CLASSID_UDPv4_WAN,
         {"DDS_LOG_GET_FAILURE_s(transportPlugin)"}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        KEL_UINT64 outputs[4] = {42, 42, 42, 42};
        LogCapture log;
        EXPECT_EQ(VESK_Transport_Support_get_udp_liveliness_statistics(
                      row.participant, &outputs[0], &outputs[1], &outputs[2], &outputs[3],
                      row.classid, 1, 0),
                  DDS_RETCODE_BAD_PARAMETER);
        EXPECT_EQ(log.summary(), row.messages);
        for (const auto &entry : log.entries()) {
            EXPECT_EQ(entry.function, FN);
            EXPECT_EQ(entry.level, static_cast<KEL_UINT32>(KEL_LOG_BIT_ERROR));
        }
        for (KEL_UINT64 output : outputs) EXPECT_EQ(output, 42u);
    }
}

// ---------------------------------------------------------------------------
// Fake addresses
// ---------------------------------------------------------------------------

TEST(FakeAddress, AssertedRemovedAndRefused) {
    ParticipantPtr participant = makeParticipant();
    VESK_Transport_Address_t fake{};
    fake.network_ordered_value[12] = 192;
    fake.network_ordered_value[15] = 7;
    LogCapture log;

    EXPECT_EQ(VESK_Transport_Support_assert_fake_address(participant.get(), &fake, 2),
              DDS_RETCODE_BAD_PARAMETER);
    EXPECT_EQ(VESK_Transport_Support_assert_fake_address(participant.get(), &fake, 5),
              DDS_RETCODE_BAD_PARAMETER);
    EXPECT_EQ(VESK_Transport_Support_assert_fake_ipv4_address(participant.get(), &fake),
              DDS_RETCODE_PRECONDITION_NOT_MET);
    EXPECT_EQ(VESK_Transport_Support_assert_fake_address(participant.get(), &fake,
                                                         VESK_TRANSPORT_CLASSID_UDPv4_WAN),
              DDS_RETCODE_PRECONDITION_NOT_MET);
    EXPECT_EQ(VESK_Transport_Support_remove_fake_ipv4_address(participant.get()), DDS_RETCODE_OK);
    EXPECT_EQ(VESK_Transport_Support_assert_fake_ipv4_address(nullptr, &fake),
              DDS_RETCODE_BAD_PARAMETER);

    VESK_Transport_Plugin *udpv4 = newUdpPlugin(VESK_TRANSPORT_CLASSID_UDPv4);
    VESK_Transport_Plugin *wan = newUdpPlugin(VESK_TRANSPORT_CLASSID_UDPv4_WAN);
    install(participant.get(), udpv4, "udpv4");
    install(participant.get(), wan, "wan");

    VESK_Transport_Address_t reported{};
    EXPECT_EQ(VESK_Transport_Support_assert_fake_ipv4_address(participant.get(), &fake),
              DDS_RETCODE_OK);
    ASSERT_TRUE(VESK_Transport_UDP_get_fake_ip_address(udpv4, &reported));
    EXPECT_EQ(std::memcmp(&reported, &fake, sizeof(fake)), 0);
    EXPECT_FALSE(VESK_Transport_UDP_get_fake_ip_address(wan, &reported));

    EXPECT_EQ(VESK_Transport_Support_assert_fake_address(participant.get(), &fake,
                                                         VESK_TRANSPORT_CLASSID_UDPv4_WAN),
              DDS_RETCODE_OK);
    EXPECT_EQ(VESK_Transport_Support_remove_fake_ipv4_address(participant.get()), DDS_RETCODE_OK);
    EXPECT_FALSE(VESK_Transport_UDP_get_fake_ip_address(udpv4, &reported));
    // The WAN transport's fake address is not the UDPv4 one.
    EXPECT_TRUE(VESK_Transport_UDP_get_fake_ip_address(wan, &reported));
    EXPECT_TRUE(log.entries().empty());
}

// ---------------------------------------------------------------------------
// Interface status and binding pings
// ---------------------------------------------------------------------------

constexpr const char *INTERFACE_STATUS = "VESK_Transport_Support_change_interface_status";
constexpr const char *BINDING_PING = "VESK_Transport_Support_change_binding_ping_generation";

struct Expected {
    KEL_UINT32 level;
    std::string summary;
    std::string format;
};

void expectMessages(const LogCapture &log, const char *function,
                    const std::vector<Expected> &expected) {
    auto entries = log.entries();
    ASSERT_EQ(entries.size(), expected.size()) << ::testing::PrintToString(log.summary());
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(entries[i].function, function);
        EXPECT_EQ(entries[i].level, expected[i].level);
        EXPECT_EQ(log.summary()[i], expected[i].summary);
        EXPECT_EQ(entries[i].format, expected[i].format);
    }
}

TEST(InterfaceStatus, RefusalsInTestOrder) {
    ParticipantPtr participant = makeParticipant();
    ParticipantPtr noConfigurator = makeParticipant(1, 0);
    ParticipantPtr noWorker = makeParticipant(0, 1);
    ParticipantPtr neither = makeParticipant(1, 1);
    ParticipantPtr foreign = makeParticipant();
    ForeignPlugin foreignUdpv6(VESK_TRANSPORT_CLASSID_UDPv6);
    install(foreign.get(), &foreignUdpv6.plugin, "foreign");
    install(participant.get(), newUdpPlugin(VESK_TRANSPORT_CLASSID_UDPv4), "udpv4");

    const KEL_UINT32 error = KEL_LOG_BIT_ERROR, precondition = KEL_LOG_BIT_EXCEPTION;
    struct Row {
        const char *name;
        DDS_DomainParticipant *participant;
        VESK_Transport_ClassId_t classid;
        const char *interfaceName;
        DDS_Boolean isUp;
        DDS_ReturnCode_t result;
        std::vector<Expected> messages;
    };
    const std::vector<Row> rows = {
        {"null participant and name",
         nullptr,
         1,
         nullptr,
         1,
         DDS_RETCODE_BAD_PARAMETER,
         {{error, "KEL_LOG_BAD_PARAMETER_FAILURE_TEMPLATE(participant)", "participant"}}},
        {"null name",
         participant.get(),
         1,
         nullptr,
         1,
         DDS_RETCODE_BAD_PARAMETER,
         {{error, "KEL_LOG_BAD_PARAMETER_FAILURE_TEMPLATE(interface_name)", "interface_name"}}},
        {"configurator before worker",
         neither.get(),
         1,
         "lo",
         1,
         DDS_RETCODE_PRECONDITION_NOT_MET,
         {{precondition, "KEL_LOG_PRECONDITION_FAILURE_s(\"configurator == ((void *)0)\")", ""}}},
        {"no worker",
         noWorker.get(),
         1,
         "lo",
         1,
         DDS_RETCODE_PRECONDITION_NOT_MET,
         {{precondition, "KEL_LOG_PRECONDITION_FAILURE_s(\"worker == ((void *)0)\")", ""}}},
        {"class 5 is not accepted here",
         participant.get(),
         5,
         "lo",
         1,
         DDS_RETCODE_BAD_PARAMETER,
         {{error, "KEL_LOG_BAD_PARAMETER_FAILURE_TEMPLATE(transport_class_id)",
           "transport_class_id"}}},
        {"no plugin of the class",
         participant.get(),
         2,
         "lo",
         1,
         DDS_RETCODE_PRECONDITION_NOT_MET,
         {{error, "KEL_LOG_FAILED_TO_FIND_TEMPLATE(transport plugin for class 2)",
           "transport plugin for class %d"}}},
        {"unknown interface, is_up 2 reported as UP",
         participant.get(),
         1,
         "nosuchif0",
         2,
         DDS_RETCODE_ERROR,
         {{error, "KEL_LOG_FAILED_TO_MODIFY_TEMPLATE(status of interface nosuchif0 to UP)",
           "status of interface %s to %s"}}},
        {"down",
         participant.get(),
         1,
         "nosuchif0",
         0,
         DDS_RETCODE_ERROR,
         {{error, "KEL_LOG_FAILED_TO_MODIFY_TEMPLATE(status of interface nosuchif0 to DOWN)",
           "status of interface %s to %s"}}},
        {"plugin refuses",
         foreign.get(),
         2,
         "lo",
         1,
         DDS_RETCODE_ERROR,
         {{error, "KEL_LOG_FAILED_TO_MODIFY_TEMPLATE(status of interface lo to UP)",
           "status of interface %s to %s"}}},
    };
    (void)noConfigurator;
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        LogCapture log;
        EXPECT_EQ(VESK_Transport_Support_change_interface_status(row.participant, row.classid,
                                                                 row.interfaceName, row.isUp),
                  row.result);
        expectMessages(log, INTERFACE_STATUS, row.messages);
    }
}

TEST(InterfaceStatus, ForcesTheLoopbackInterface) {
    ParticipantPtr participant = makeParticipant();
    VESK_Transport_Plugin *udpv4 = newUdpPlugin(VESK_TRANSPORT_CLASSID_UDPv4);
    install(participant.get(), udpv4, "udpv4");
    for (DDS_Boolean isUp : {DDS_Boolean{0}, DDS_Boolean{2}}) {
        SCOPED_TRACE(static_cast<int>(isUp));
        LogCapture log;
        ASSERT_EQ(VESK_Transport_Support_change_interface_status(
                      participant.get(), VESK_TRANSPORT_CLASSID_UDPv4, "lo", isUp),
                  DDS_RETCODE_OK);
        EXPECT_TRUE(log.entries().empty());
        VESK_Transport_UDP_InterfaceInfo interfaces[16];
        int count = VESK_Transport_UDP_get_interfaces(udpv4, interfaces, 16);
        bool found = false;
        for (int i = 0; i < count && i < 16; ++i) {
            if (std::string(interfaces[i].name) != "lo") continue;
            found = true;
            EXPECT_EQ(interfaces[i].is_forced, 1);
            EXPECT_EQ(interfaces[i].is_up, isUp ? 1 : 0);
        }
        EXPECT_TRUE(found);
    }
}

TEST(BindingPings, RefusalsAndSwitching) {
    ParticipantPtr withoutWan = makeParticipant();
    ParticipantPtr noConfigurator = makeParticipant(1, 0);
    ParticipantPtr noWorker = makeParticipant(0, 1);
    ParticipantPtr foreign = makeParticipant();
    ForeignPlugin foreignWan(VESK_TRANSPORT_CLASSID_UDPv4_WAN);
    install(foreign.get(), &foreignWan.plugin, "foreign");
    const KEL_UINT32 error = KEL_LOG_BIT_ERROR, precondition = KEL_LOG_BIT_EXCEPTION;
    struct Row {
        const char *name;
        DDS_DomainParticipant *participant;
        DDS_Boolean enable;
        DDS_ReturnCode_t result;
        std::vector<Expected> messages;
    };
    const std::vector<Row> rows = {
        {"null participant",
         nullptr,
         1,
         DDS_RETCODE_BAD_PARAMETER,
         {{error, "KEL_LOG_BAD_PARAMETER_FAILURE_TEMPLATE(participant)", "participant"}}},
        {"no configurator",
         noConfigurator.get(),
         1,
         DDS_RETCODE_PRECONDITION_NOT_MET,
         {{precondition, "KEL_LOG_PRECONDITION_FAILURE_s(\"configurator == ((void *)0)\")", ""}}},
        {"no worker",
         noWorker.get(),
         1,
         DDS_RETCODE_PRECONDITION_NOT_MET,
         {{precondition, "KEL_LOG_PRECONDITION_FAILURE_s(\"worker == ((void *)0)\")", ""}}},
        {"no WAN transport",
         withoutWan.get(),
         1,
         DDS_RETCODE_PRECONDITION_NOT_MET,
         {{error, "KEL_LOG_FAILED_TO_FIND_TEMPLATE(transport plugin for class 16777217)",
           "transport plugin for class %d"}}},
        {"refused: enable",
         foreign.get(),
         3,
         DDS_RETCODE_ERROR,
         {{error, "KEL_LOG_FAILED_TO_MODIFY_TEMPLATE(binding ping generation status to ENABLED)",
           "binding ping generation status to %s"}}},
        {"refused: disable",
         foreign.get(),
         0,
         DDS_RETCODE_ERROR,
         {{error, "KEL_LOG_FAILED_TO_MODIFY_TEMPLATE(binding ping generation status to DISABLED)",
           "binding ping generation status to %s"}}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        LogCapture log;
        EXPECT_EQ(
            VESK_Transport_Support_change_binding_ping_generation(row.participant, row.enable),
            row.result);
        expectMessages(log, BINDING_PING, row.messages);
    }

    ParticipantPtr participant = makeParticipant();
    VESK_Transport_Plugin *wan = newUdpPlugin(VESK_TRANSPORT_CLASSID_UDPv4_WAN);
    install(participant.get(), wan, "wan");
    EXPECT_EQ(VESK_Transport_Support_change_binding_ping_generation(participant.get(), 0),
              DDS_RETCODE_OK);
    EXPECT_FALSE(VESK_Transport_UDP_is_binding_ping_generation_enabled(wan));
    EXPECT_EQ(VESK_Transport_Support_change_binding_ping_generation(participant.get(), 1),
              DDS_RETCODE_OK);
    EXPECT_TRUE(VESK_Transport_UDP_is_binding_ping_generation_enabled(wan));
}

// With the module's masks off, the later messages are still written for a
// worker whose activity shares a category with entry 2 of the category
// masks; the null-argument messages are not.
TEST(ControlMessages, WorkerActivityContextGating) {
    ParticipantPtr participant = makeParticipant();
    REDAWorker *worker = DDS_DomainParticipant_get_workerI(participant.get());
    KELOsapiContext context{0x10};
    const KEL_UINT32 savedMask = KELLog_g_categoryMask[2];
    struct Row {
        const char *name;
        KEL_UINT32 contextCategory;  // 0: no context at all
        KEL_UINT32 categoryMask2;
        bool written;
    };
    for (const Row &row :
         {Row{"shared bit", 0x10, 0x30, true}, Row{"no shared bit", 0x10, 0x20, false},
          Row{"no context", 0, 0xFFFFFFFF, false}}) {
        SCOPED_TRACE(row.name);
        context.category = row.contextCategory;
        worker->_activityContext = row.contextCategory != 0 ? &context : nullptr;
        KELLog_g_categoryMask[2] = row.categoryMask2;
        LogCapture log(VESK_CONFIG_LOG_VERBOSITY_SILENT, 0);
        EXPECT_EQ(VESK_Transport_Support_change_interface_status(participant.get(), 5, "lo", 1),
                  DDS_RETCODE_BAD_PARAMETER);
        EXPECT_EQ(VESK_Transport_Support_change_interface_status(participant.get(), 1, "lo", 1),
                  DDS_RETCODE_PRECONDITION_NOT_MET);
        EXPECT_EQ(VESK_Transport_Support_change_binding_ping_generation(participant.get(), 1),
                  DDS_RETCODE_PRECONDITION_NOT_MET);
        EXPECT_EQ(VESK_Transport_Support_change_interface_status(nullptr, 1, "lo", 1),
                  DDS_RETCODE_BAD_PARAMETER);
        EXPECT_EQ(VESK_Transport_Support_change_interface_status(participant.get(), 1, nullptr, 1),
                  DDS_RETCODE_BAD_PARAMETER);
        std::vector<std::string> expected;
        if (row.written) {
            expected = {"KEL_LOG_BAD_PARAMETER_FAILURE_TEMPLATE(transport_class_id)",
                        "KEL_LOG_FAILED_TO_FIND_TEMPLATE(transport plugin for class 1)",
                        "KEL_LOG_FAILED_TO_FIND_TEMPLATE(transport plugin for class 16777217)"};
        }
        EXPECT_EQ(log.summary(), expected);
    }
    worker->_activityContext = nullptr;
    KELLog_g_categoryMask[2] = savedMask;
}

}  // namespace
