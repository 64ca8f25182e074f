// Run-time statistics and control of a participant's UDP transports: which
// transport each operation reaches, its refusals and their messages.

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "support/Participants.hpp"
#include "support/SetupChecks.hpp"

namespace {

using namespace vesk::test;

// A UDP plugin that uses the loopback interface, whatever else the host
// has; the participant it is installed on owns it.
VESK_Transport_Plugin *newUdpPlugin(VESK_Transport_ClassId_t classid) {
    VESK_Transport_UDP_Property_t record =
        classid == VESK_TRANSPORT_CLASSID_UDPv4_WAN ? VESK_TRANSPORT_UDPV4_WAN_PROPERTY_DEFAULT
        : classid == VESK_TRANSPORT_CLASSID_UDPv4   ? VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT
                                                    : VESK_TRANSPORT_UDPV6_PROPERTY_DEFAULT;
    record.parent.classid = classid;
    record.ignore_loopback_interface = 0;
    VESK_Transport_Plugin *plugin = classid == VESK_TRANSPORT_CLASSID_UDPv4
                                        ? VESK_Transport_UDPv4_newI(&record, nullptr, nullptr)
                                    : classid == VESK_TRANSPORT_CLASSID_UDPv4_WAN
                                        ? VESK_Transport_UDPv4_WAN_newI(&record, nullptr, nullptr)
                                        : VESK_Transport_UDPv6_newI(&record, nullptr, nullptr);
    EXPECT_NE(nullptr, plugin);
    return plugin;
}

VESK_Transport_Plugin *installUdp(const ParticipantPtr &participant,
                                  VESK_Transport_ClassId_t classid) {
    VESK_Transport_Plugin *plugin = newUdpPlugin(classid);
    install(participant.get(), plugin, std::to_string(classid).c_str());
    return plugin;
}

// ---------------------------------------------------------------------------
// Statistics
// ---------------------------------------------------------------------------

// UDPv4 reads the WAN transport when there is no plain one; UDPv6 reads
// class 2 only. A missing transport gives NO_DATA and leaves the record.
TEST(Statistics, EachReadReachesItsTransport) {
    struct Row {
        std::vector<VESK_Transport_ClassId_t> installed;  // each counts classid bytes sent
        DDS_ReturnCode_t v4, v6;
        KEL_UINT64 v4Bytes, v6Bytes;
    };
    const VESK_Transport_ClassId_t WAN = VESK_TRANSPORT_CLASSID_UDPv4_WAN;
    const std::vector<Row> rows = {
        {{}, DDS_RETCODE_NO_DATA, DDS_RETCODE_NO_DATA, 0, 0},
        {{WAN}, DDS_RETCODE_OK, DDS_RETCODE_NO_DATA, WAN, 0},
        {{1, WAN}, DDS_RETCODE_OK, DDS_RETCODE_NO_DATA, 1, 0},
        {{WAN, 1}, DDS_RETCODE_OK, DDS_RETCODE_NO_DATA, 1, 0},
        {{VESK_TRANSPORT_CLASSID_UDPv6_510}, DDS_RETCODE_NO_DATA, DDS_RETCODE_NO_DATA, 0, 0},
        {{2, VESK_TRANSPORT_CLASSID_UDPv6_510}, DDS_RETCODE_NO_DATA, DDS_RETCODE_OK, 0, 2},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(&row - rows.data());
        ParticipantPtr participant = makeParticipant();
        for (VESK_Transport_ClassId_t classid : row.installed) {
            EXPECT_TRUE(VESK_Transport_UDP_count_traffic(
                installUdp(participant, classid), VESK_TRANSPORT_UDP_TRAFFIC_USER_DATA,
                VESK_TRANSPORT_UDP_TRAFFIC_SENT, 1, static_cast<KEL_UINT64>(classid)));
        }
        LogCapture log;
        for (const auto &[read, result, bytes] :
             {std::tuple{&VESK_Transport_Support_get_udpv4_statistics, row.v4, row.v4Bytes},
              std::tuple{&VESK_Transport_Support_get_udpv6_statistics, row.v6, row.v6Bytes}}) {
            VESK_Transport_UDP_Statistics record;
            std::memset(&record, 0xAB, sizeof record);
            EXPECT_EQ(result, read(participant.get(), &record));
            EXPECT_EQ(result == DDS_RETCODE_OK ? bytes : 0xABABABABABABABABu,
                      record.user_bytes_sent);
            EXPECT_EQ(DDS_RETCODE_BAD_PARAMETER, read(nullptr, &record));
            EXPECT_EQ(DDS_RETCODE_BAD_PARAMETER, read(participant.get(), nullptr));
        }
        EXPECT_TRUE(log.entries().empty());
    }
}

// Manual liveliness counts 3/30 sent and 5/50 received; secure liveliness
// 7/70 and 11/110, which land in the _liveliness_ counters only.
TEST(Liveliness, SecureOrAutomaticSelectTheSharedCountersAndRefusalsLeaveTheOutputs) {
    ParticipantPtr participant = makeParticipant();
    VESK_Transport_Plugin *udpv4 = installUdp(participant, VESK_TRANSPORT_CLASSID_UDPv4);
    for (const auto &[kind, direction, packets, bytes] :
         {std::tuple{VESK_TRANSPORT_UDP_TRAFFIC_MANUAL_LIVELINESS, VESK_TRANSPORT_UDP_TRAFFIC_SENT,
                     3, 30},
          {VESK_TRANSPORT_UDP_TRAFFIC_MANUAL_LIVELINESS, VESK_TRANSPORT_UDP_TRAFFIC_RECEIVED, 5,
           50},
          {VESK_TRANSPORT_UDP_TRAFFIC_SECURE_LIVELINESS, VESK_TRANSPORT_UDP_TRAFFIC_SENT, 7, 70},
          {VESK_TRANSPORT_UDP_TRAFFIC_SECURE_LIVELINESS, VESK_TRANSPORT_UDP_TRAFFIC_RECEIVED, 11,
           110}}) {
        EXPECT_TRUE(VESK_Transport_UDP_count_traffic(udpv4, kind, direction, packets, bytes));
    }
    ParticipantPtr noConfigurator = makeParticipant(1, 0);
    ParticipantPtr noWorker = makeParticipant(0, 1);
    const auto failure = [](const char *what) {
        return error("VESK_Transport_Support_get_udp_liveliness_statistics",
                     "DDS_LOG_GET_FAILURE_s", {what});
    };
    struct Row {
        DDS_DomainParticipant *participant;
        VESK_Transport_ClassId_t classid;
        int isSecure, isAutomatic;
        DDS_ReturnCode_t result;
        std::vector<KEL_UINT64> outputs;  // packets and bytes sent, received
        std::vector<std::string> messages;
    };
    const std::vector<KEL_UINT64> untouched = {42, 42, 42, 42};
    const std::vector<KEL_UINT64> shared = {7, 70, 11, 110};
    const std::vector<Row> rows = {
        {participant.get(), 1, 0, 0, DDS_RETCODE_OK, {3, 30, 5, 50}, {}},
        {participant.get(), 1, 1, 0, DDS_RETCODE_OK, shared, {}},
        {participant.get(), 1, 1, 1, DDS_RETCODE_OK, shared, {}},
        {participant.get(), 1, 0, 1, DDS_RETCODE_OK, shared, {}},
        {participant.get(), 1, 2, 0, DDS_RETCODE_OK, shared, {}},
        {participant.get(), 1, 0, -1, DDS_RETCODE_OK, shared, {}},
        {nullptr, 1, 1, 0, DDS_RETCODE_BAD_PARAMETER, untouched, {}},
        {participant.get(), 0, 1, 0, DDS_RETCODE_BAD_PARAMETER, untouched, {}},
        {participant.get(), 3, 1, 0, DDS_RETCODE_BAD_PARAMETER, untouched, {}},
        {participant.get(), -1, 1, 0, DDS_RETCODE_BAD_PARAMETER, untouched, {}},
        {noConfigurator.get(),
         1,
         1,
         0,
         DDS_RETCODE_BAD_PARAMETER,
         untouched,
         {failure("configurator")}},
        {noWorker.get(), 1, 1, 0, DDS_RETCODE_BAD_PARAMETER, untouched, {failure("worker")}},
        // Exactly the class asked for: no fallback.
        {participant.get(),
         5,
         1,
         0,
         DDS_RETCODE_BAD_PARAMETER,
         untouched,
         {failure("transportPlugin")}},
        {participant.get(),
         VESK_TRANSPORT_CLASSID_UDPv4_WAN,
         1,
         0,
         DDS_RETCODE_BAD_PARAMETER,
         untouched,
         {failure("transportPlugin")}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(&row - rows.data());
        std::vector<KEL_UINT64> outputs = untouched;
        LogCapture log;
        EXPECT_EQ(row.result, VESK_Transport_Support_get_udp_liveliness_statistics(
                                  row.participant, &outputs[0], &outputs[1], &outputs[2],
                                  &outputs[3], row.classid, row.isSecure, row.isAutomatic));
        EXPECT_EQ(row.outputs, outputs);
        EXPECT_EQ(row.messages, describeAll(log));
    }
    // Null outputs are skipped.
    KEL_UINT64 bytesReceived = 0;
    EXPECT_EQ(DDS_RETCODE_OK, VESK_Transport_Support_get_udp_liveliness_statistics(
                                  participant.get(), nullptr, nullptr, nullptr, &bytesReceived,
                                  VESK_TRANSPORT_CLASSID_UDPv4, 0, 0));
    EXPECT_EQ(50u, bytesReceived);
}

// ---------------------------------------------------------------------------
// Fake addresses
// ---------------------------------------------------------------------------

TEST(FakeAddress, AssertedRemovedAndRefused) {
    ParticipantPtr participant = makeParticipant();
    VESK_Transport_Address_t fake = address(7);
    LogCapture log;
    const VESK_Transport_ClassId_t WAN = VESK_TRANSPORT_CLASSID_UDPv4_WAN;
    EXPECT_EQ(DDS_RETCODE_BAD_PARAMETER,
              VESK_Transport_Support_assert_fake_address(participant.get(), &fake, 2));
    EXPECT_EQ(DDS_RETCODE_BAD_PARAMETER,
              VESK_Transport_Support_assert_fake_address(participant.get(), &fake, 5));
    EXPECT_EQ(DDS_RETCODE_PRECONDITION_NOT_MET,
              VESK_Transport_Support_assert_fake_ipv4_address(participant.get(), &fake));
    EXPECT_EQ(DDS_RETCODE_PRECONDITION_NOT_MET,
              VESK_Transport_Support_assert_fake_address(participant.get(), &fake, WAN));
    EXPECT_EQ(DDS_RETCODE_OK, VESK_Transport_Support_remove_fake_ipv4_address(participant.get()));
    EXPECT_EQ(DDS_RETCODE_BAD_PARAMETER,
              VESK_Transport_Support_assert_fake_ipv4_address(nullptr, &fake));
    EXPECT_EQ(DDS_RETCODE_BAD_PARAMETER, VESK_Transport_Support_remove_fake_ipv4_address(nullptr));

    VESK_Transport_Plugin *udpv4 = installUdp(participant, VESK_TRANSPORT_CLASSID_UDPv4);
    VESK_Transport_Plugin *wan = installUdp(participant, WAN);
    VESK_Transport_Address_t reported{};
    EXPECT_EQ(DDS_RETCODE_OK,
              VESK_Transport_Support_assert_fake_ipv4_address(participant.get(), &fake));
    ASSERT_TRUE(VESK_Transport_UDP_get_fake_ip_address(udpv4, &reported));
    EXPECT_EQ(0, std::memcmp(&reported, &fake, sizeof fake));
    EXPECT_FALSE(VESK_Transport_UDP_get_fake_ip_address(wan, &reported));
    EXPECT_EQ(DDS_RETCODE_OK,
              VESK_Transport_Support_assert_fake_address(participant.get(), &fake, WAN));
    EXPECT_EQ(DDS_RETCODE_OK, VESK_Transport_Support_remove_fake_ipv4_address(participant.get()));
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

std::string badParameter(const char *function, const char *what) {
    return error(function, "KEL_LOG_BAD_PARAMETER_FAILURE_TEMPLATE", {what}, what);
}
std::string precondition(const char *function, const char *condition) {
    return message(KEL_LOG_BIT_EXCEPTION, function, "KEL_LOG_PRECONDITION_FAILURE_s",
                   {std::string("\"") + condition + " == ((void *)0)\""});
}
std::string notFound(const char *function, VESK_Transport_ClassId_t classid) {
    return error(function, "KEL_LOG_FAILED_TO_FIND_TEMPLATE",
                 {"transport plugin for class " + std::to_string(classid)},
                 "transport plugin for class %d");
}
std::string interfaceRefused(const char *name, const char *status) {
    return error(INTERFACE_STATUS, "KEL_LOG_FAILED_TO_MODIFY_TEMPLATE",
                 {std::string("status of interface ") + name + " to " + status},
                 "status of interface %s to %s");
}
std::string pingRefused(const char *status) {
    return error(BINDING_PING, "KEL_LOG_FAILED_TO_MODIFY_TEMPLATE",
                 {std::string("binding ping generation status to ") + status},
                 "binding ping generation status to %s");
}

TEST(InterfaceStatus, RefusalsInTestOrder) {
    ParticipantPtr participant = makeParticipant();
    ParticipantPtr noWorker = makeParticipant(0, 1);
    ParticipantPtr neither = makeParticipant(1, 1);
    ParticipantPtr foreign = makeParticipant();
    // A plugin of a UDP class id that is not a UDP transport refuses.
    TestPlugin foreignUdpv6(VESK_TRANSPORT_CLASSID_UDPv6);
    install(foreign.get(), &foreignUdpv6.plugin, "foreign");
    installUdp(participant, VESK_TRANSPORT_CLASSID_UDPv4);
    struct Row {
        DDS_DomainParticipant *participant;
        VESK_Transport_ClassId_t classid;
        const char *interfaceName;
        DDS_Boolean isUp;
        DDS_ReturnCode_t result;
        std::string message;
    };
    const std::vector<Row> rows = {
        {nullptr, 1, nullptr, 1, DDS_RETCODE_BAD_PARAMETER,
         badParameter(INTERFACE_STATUS, "participant")},
        {participant.get(), 1, nullptr, 1, DDS_RETCODE_BAD_PARAMETER,
         badParameter(INTERFACE_STATUS, "interface_name")},
        {neither.get(), 1, "lo", 1, DDS_RETCODE_PRECONDITION_NOT_MET,
         precondition(INTERFACE_STATUS, "configurator")},
        {noWorker.get(), 1, "lo", 1, DDS_RETCODE_PRECONDITION_NOT_MET,
         precondition(INTERFACE_STATUS, "worker")},
        {participant.get(), 5, "lo", 1, DDS_RETCODE_BAD_PARAMETER,
         badParameter(INTERFACE_STATUS, "transport_class_id")},
        {participant.get(), 2, "lo", 1, DDS_RETCODE_PRECONDITION_NOT_MET,
         notFound(INTERFACE_STATUS, 2)},
        {participant.get(), 1, "nosuchif0", 2, DDS_RETCODE_ERROR,
         interfaceRefused("nosuchif0", "UP")},
        {participant.get(), 1, "nosuchif0", 0, DDS_RETCODE_ERROR,
         interfaceRefused("nosuchif0", "DOWN")},
        {foreign.get(), 2, "lo", 1, DDS_RETCODE_ERROR, interfaceRefused("lo", "UP")},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.message);
        LogCapture log;
        EXPECT_EQ(row.result, VESK_Transport_Support_change_interface_status(
                                  row.participant, row.classid, row.interfaceName, row.isUp));
        EXPECT_EQ(std::vector<std::string>{row.message}, describeAll(log));
    }
}

TEST(InterfaceStatus, ForcesTheLoopbackInterface) {
    ParticipantPtr participant = makeParticipant();
    VESK_Transport_Plugin *udpv4 = installUdp(participant, VESK_TRANSPORT_CLASSID_UDPv4);
    for (DDS_Boolean isUp : {DDS_Boolean{0}, DDS_Boolean{2}}) {
        SCOPED_TRACE(static_cast<int>(isUp));
        LogCapture log;
        ASSERT_EQ(DDS_RETCODE_OK, VESK_Transport_Support_change_interface_status(
                                      participant.get(), VESK_TRANSPORT_CLASSID_UDPv4, "lo", isUp));
        EXPECT_TRUE(log.entries().empty());
        VESK_Transport_UDP_InterfaceInfo interfaces[16];
        const int count = VESK_Transport_UDP_get_interfaces(udpv4, interfaces, 16);
        int found = 0;
        for (int i = 0; i < count && i < 16; ++i) {
            if (std::string(interfaces[i].name) != "lo") continue;
            ++found;
            EXPECT_EQ(1, interfaces[i].is_forced);
            EXPECT_EQ(isUp ? 1 : 0, interfaces[i].is_up);
        }
        EXPECT_EQ(1, found);
    }
}

TEST(BindingPings, RefusalsAndSwitching) {
    ParticipantPtr withoutWan = makeParticipant();
    ParticipantPtr noConfigurator = makeParticipant(1, 0);
    ParticipantPtr noWorker = makeParticipant(0, 1);
    ParticipantPtr foreign = makeParticipant();
    TestPlugin foreignWan(VESK_TRANSPORT_CLASSID_UDPv4_WAN);
    install(foreign.get(), &foreignWan.plugin, "foreign");
    struct Row {
        DDS_DomainParticipant *participant;
        DDS_Boolean enable;
        DDS_ReturnCode_t result;
        std::string message;
    };
    const std::vector<Row> rows = {
        {nullptr, 1, DDS_RETCODE_BAD_PARAMETER, badParameter(BINDING_PING, "participant")},
        {noConfigurator.get(), 1, DDS_RETCODE_PRECONDITION_NOT_MET,
         precondition(BINDING_PING, "configurator")},
        {noWorker.get(), 1, DDS_RETCODE_PRECONDITION_NOT_MET, precondition(BINDING_PING, "worker")},
        {withoutWan.get(), 1, DDS_RETCODE_PRECONDITION_NOT_MET,
         notFound(BINDING_PING, VESK_TRANSPORT_CLASSID_UDPv4_WAN)},
        {foreign.get(), 3, DDS_RETCODE_ERROR, pingRefused("ENABLED")},
        {foreign.get(), 0, DDS_RETCODE_ERROR, pingRefused("DISABLED")},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.message);
        LogCapture log;
        EXPECT_EQ(row.result, VESK_Transport_Support_change_binding_ping_generation(row.participant,
                                                                                    row.enable));
        EXPECT_EQ(std::vector<std::string>{row.message}, describeAll(log));
    }
    ParticipantPtr participant = makeParticipant();
    VESK_Transport_Plugin *wan = installUdp(participant, VESK_TRANSPORT_CLASSID_UDPv4_WAN);
    for (DDS_Boolean enable : {DDS_Boolean{0}, DDS_Boolean{1}}) {
        EXPECT_EQ(DDS_RETCODE_OK,
                  VESK_Transport_Support_change_binding_ping_generation(participant.get(), enable));
        EXPECT_EQ(enable != 0, VESK_Transport_UDP_is_binding_ping_generation_enabled(wan) != 0);
    }
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
        KEL_UINT32 contextCategory;  // 0: no context at all
        KEL_UINT32 categoryMask2;
        bool written;
    };
    for (const Row &row :
         {Row{0x10, 0x30, true}, Row{0x10, 0x20, false}, Row{0, 0xFFFFFFFF, false}}) {
        SCOPED_TRACE(row.categoryMask2);
        context.category = row.contextCategory;
        worker->_activityContext = row.contextCategory != 0 ? &context : nullptr;
        KELLog_g_categoryMask[2] = row.categoryMask2;
        LogCapture log(VESK_CONFIG_LOG_VERBOSITY_SILENT, 0);
        EXPECT_EQ(DDS_RETCODE_BAD_PARAMETER,
                  VESK_Transport_Support_change_interface_status(participant.get(), 5, "lo", 1));
        EXPECT_EQ(DDS_RETCODE_PRECONDITION_NOT_MET,
                  VESK_Transport_Support_change_interface_status(participant.get(), 1, "lo", 1));
        EXPECT_EQ(DDS_RETCODE_PRECONDITION_NOT_MET,
                  VESK_Transport_Support_change_binding_ping_generation(participant.get(), 1));
        EXPECT_EQ(DDS_RETCODE_BAD_PARAMETER,
                  VESK_Transport_Support_change_interface_status(nullptr, 1, "lo", 1));
        EXPECT_EQ(DDS_RETCODE_BAD_PARAMETER,
                  VESK_Transport_Support_change_interface_status(participant.get(), 1, nullptr, 1));
        std::vector<std::string> expected;
        if (row.written) {
            expected = {badParameter(INTERFACE_STATUS, "transport_class_id"),
                        notFound(INTERFACE_STATUS, 1),
                        notFound(BINDING_PING, VESK_TRANSPORT_CLASSID_UDPv4_WAN)};
        }
        EXPECT_EQ(expected, describeAll(log));
    }
    worker->_activityContext = nullptr;
    KELLog_g_categoryMask[2] = savedMask;
}

}  // namespace
