// Run-time statistics and control of a participant's UDP transports: which
// transport each operation reaches, its refusals and their messages.

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "support/Participants.hpp"

namespace {

using namespace vesk::test;
using Messages = std::vector<std::string>;
constexpr VESK_Transport_ClassId_t WAN = VESK_TRANSPORT_CLASSID_UDPv4_WAN;

// A UDP plugin that uses the loopback interface, whatever else the host
// has, installed on the participant, which owns it.
VESK_Transport_Plugin *installUdp(const ParticipantPtr &participant,
                                  VESK_Transport_ClassId_t classid) {
    VESK_Transport_UDP_Property_t record = classid == WAN
                                               ? VESK_TRANSPORT_UDPV4_WAN_PROPERTY_DEFAULT
                                           : classid == 1 ? VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT
                                                          : VESK_TRANSPORT_UDPV6_PROPERTY_DEFAULT;
    record.parent.classid = classid;
    record.ignore_loopback_interface = 0;
    const auto newI = classid == WAN ? VESK_Transport_UDPv4_WAN_newI
                      : classid == 1 ? VESK_Transport_UDPv4_newI
                                     : VESK_Transport_UDPv6_newI;
    VESK_Transport_Plugin *plugin = newI(&record, nullptr, nullptr);
    EXPECT_NE(nullptr, plugin);
    install(participant.get(), plugin, std::to_string(classid).c_str());
    return plugin;
}

// UDPv4 reads the WAN transport when there is no plain one; UDPv6 reads
// class 2 only. A missing transport gives NO_DATA and leaves the record.
TEST(Statistics, EachReadReachesItsTransport) {
    struct Row {
        std::vector<VESK_Transport_ClassId_t> installed;  // each counts classid bytes sent
        DDS_ReturnCode_t v4, v6;
        KEL_UINT64 v4Bytes, v6Bytes;
    };
    const DDS_ReturnCode_t OK = DDS_RETCODE_OK, NO_DATA = DDS_RETCODE_NO_DATA;
    const std::vector<Row> rows = {
        {{}, NO_DATA, NO_DATA, 0, 0},
        {{WAN}, OK, NO_DATA, WAN, 0},
        {{1, WAN}, OK, NO_DATA, 1, 0},
        {{WAN, 1}, OK, NO_DATA, 1, 0},
        {{VESK_TRANSPORT_CLASSID_UDPv6_510}, NO_DATA, NO_DATA, 0, 0},
        {{2, VESK_TRANSPORT_CLASSID_UDPv6_510}, NO_DATA, OK, 0, 2},
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
            EXPECT_EQ(result == OK ? bytes : 0xABABABABABABABABu, record.user_bytes_sent);
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
    for (const auto &[kind, packets] : {std::pair{VESK_TRANSPORT_UDP_TRAFFIC_MANUAL_LIVELINESS, 3},
                                        {VESK_TRANSPORT_UDP_TRAFFIC_SECURE_LIVELINESS, 7}}) {
        const int received = packets == 3 ? 5 : 11;
        EXPECT_TRUE(VESK_Transport_UDP_count_traffic(udpv4, kind, VESK_TRANSPORT_UDP_TRAFFIC_SENT,
                                                     packets, packets * 10));
        EXPECT_TRUE(VESK_Transport_UDP_count_traffic(
            udpv4, kind, VESK_TRANSPORT_UDP_TRAFFIC_RECEIVED, received, received * 10));
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
        std::string message;              // empty: none
    };
    const std::vector<KEL_UINT64> untouched = {42, 42, 42, 42}, shared = {7, 70, 11, 110};
    DDS_DomainParticipant *p = participant.get();
    const DDS_ReturnCode_t OK = DDS_RETCODE_OK, BAD = DDS_RETCODE_BAD_PARAMETER;
    const std::vector<Row> rows = {
        {p, 1, 0, 0, OK, {3, 30, 5, 50}, ""},
        {p, 1, 1, 0, OK, shared, ""},
        {p, 1, 1, 1, OK, shared, ""},
        {p, 1, 0, 1, OK, shared, ""},
        {p, 1, 2, 0, OK, shared, ""},
        {p, 1, 0, -1, OK, shared, ""},
        {nullptr, 1, 1, 0, BAD, untouched, ""},
        {p, 0, 1, 0, BAD, untouched, ""},
        {p, 3, 1, 0, BAD, untouched, ""},
        {p, -1, 1, 0, BAD, untouched, ""},
        {noConfigurator.get(), 1, 1, 0, BAD, untouched, failure("configurator")},
        {noWorker.get(), 1, 1, 0, BAD, untouched, failure("worker")},
        // Exactly the class asked for: no fallback.
        {p, 5, 1, 0, BAD, untouched, failure("transportPlugin")},
        {p, WAN, 1, 0, BAD, untouched, failure("transportPlugin")},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(&row - rows.data());
        std::vector<KEL_UINT64> outputs = untouched;
        LogCapture log;
        EXPECT_EQ(row.result, VESK_Transport_Support_get_udp_liveliness_statistics(
                                  row.participant, &outputs[0], &outputs[1], &outputs[2],
                                  &outputs[3], row.classid, row.isSecure, row.isAutomatic));
        EXPECT_EQ(row.outputs, outputs);
        EXPECT_EQ(row.message.empty() ? Messages{} : Messages{row.message}, describeAll(log));
    }
    // Null outputs are skipped.
    KEL_UINT64 bytesReceived = 0;
    EXPECT_EQ(OK, VESK_Transport_Support_get_udp_liveliness_statistics(p, nullptr, nullptr, nullptr,
                                                                       &bytesReceived, 1, 0, 0));
    EXPECT_EQ(50u, bytesReceived);
}

TEST(FakeAddress, AssertedRemovedAndRefused) {
    ParticipantPtr participant = makeParticipant();
    DDS_DomainParticipant *p = participant.get();
    VESK_Transport_Address_t fake = address(7), reported{};
    LogCapture log;
    EXPECT_EQ(DDS_RETCODE_BAD_PARAMETER, VESK_Transport_Support_assert_fake_address(p, &fake, 2));
    EXPECT_EQ(DDS_RETCODE_BAD_PARAMETER, VESK_Transport_Support_assert_fake_address(p, &fake, 5));
    EXPECT_EQ(DDS_RETCODE_PRECONDITION_NOT_MET,
              VESK_Transport_Support_assert_fake_ipv4_address(p, &fake));
    EXPECT_EQ(DDS_RETCODE_PRECONDITION_NOT_MET,
              VESK_Transport_Support_assert_fake_address(p, &fake, WAN));
    EXPECT_EQ(DDS_RETCODE_OK, VESK_Transport_Support_remove_fake_ipv4_address(p));
    EXPECT_EQ(DDS_RETCODE_BAD_PARAMETER,
              VESK_Transport_Support_assert_fake_ipv4_address(nullptr, &fake));
    EXPECT_EQ(DDS_RETCODE_BAD_PARAMETER, VESK_Transport_Support_remove_fake_ipv4_address(nullptr));

    VESK_Transport_Plugin *udpv4 = installUdp(participant, VESK_TRANSPORT_CLASSID_UDPv4);
    VESK_Transport_Plugin *wan = installUdp(participant, WAN);
    EXPECT_EQ(DDS_RETCODE_OK, VESK_Transport_Support_assert_fake_ipv4_address(p, &fake));
    ASSERT_TRUE(VESK_Transport_UDP_get_fake_ip_address(udpv4, &reported));
    EXPECT_EQ(0, std::memcmp(&reported, &fake, sizeof fake));
    EXPECT_FALSE(VESK_Transport_UDP_get_fake_ip_address(wan, &reported));
    EXPECT_EQ(DDS_RETCODE_OK, VESK_Transport_Support_assert_fake_address(p, &fake, WAN));
    EXPECT_EQ(DDS_RETCODE_OK, VESK_Transport_Support_remove_fake_ipv4_address(p));
    EXPECT_FALSE(VESK_Transport_UDP_get_fake_ip_address(udpv4, &reported));
    // The WAN transport's fake address is not the UDPv4 one.
    EXPECT_TRUE(VESK_Transport_UDP_get_fake_ip_address(wan, &reported));
    EXPECT_TRUE(log.entries().empty());
}

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

TEST(InterfaceStatus, RefusalsInTestOrderAndForcingTheLoopbackInterface) {
    ParticipantPtr participant = makeParticipant();
    ParticipantPtr noWorker = makeParticipant(0, 1);
    ParticipantPtr neither = makeParticipant(1, 1);
    ParticipantPtr foreign = makeParticipant();
    // A plugin of a UDP class id that is not a UDP transport refuses.
    TestPlugin foreignUdpv6(VESK_TRANSPORT_CLASSID_UDPv6);
    install(foreign.get(), &foreignUdpv6.plugin, "foreign");
    VESK_Transport_Plugin *udpv4 = installUdp(participant, VESK_TRANSPORT_CLASSID_UDPv4);
    DDS_DomainParticipant *p = participant.get();
    const auto status = [](DDS_DomainParticipant *target, VESK_Transport_ClassId_t classid,
                           const char *name, DDS_Boolean isUp) -> long {
        return VESK_Transport_Support_change_interface_status(target, classid, name, isUp);
    };
    // The result, then 10 when lo is forced down, 11 when forced up.
    const auto forceLo = [&](DDS_Boolean isUp) {
        long out = status(p, 1, "lo", isUp);
        VESK_Transport_UDP_InterfaceInfo interfaces[16];
        const int count = VESK_Transport_UDP_get_interfaces(udpv4, interfaces, 16);
        for (int i = 0; i < count && i < 16; ++i) {
            if (std::string(interfaces[i].name) == "lo" && interfaces[i].is_forced)
                out = out * 100 + 10 + interfaces[i].is_up;
        }
        return out;
    };
    const long BAD = DDS_RETCODE_BAD_PARAMETER, ERROR = DDS_RETCODE_ERROR,
               NOT_MET = DDS_RETCODE_PRECONDITION_NOT_MET;
    expectAnswers({
        {[&] { return status(nullptr, 1, nullptr, 1); }, BAD,
         badParameter(INTERFACE_STATUS, "participant")},
        {[&] { return status(p, 1, nullptr, 1); }, BAD,
         badParameter(INTERFACE_STATUS, "interface_name")},
        {[&] { return status(neither.get(), 1, "lo", 1); }, NOT_MET,
         precondition(INTERFACE_STATUS, "configurator")},
        {[&] { return status(noWorker.get(), 1, "lo", 1); }, NOT_MET,
         precondition(INTERFACE_STATUS, "worker")},
        {[&] { return status(p, 5, "lo", 1); }, BAD,
         badParameter(INTERFACE_STATUS, "transport_class_id")},
        {[&] { return status(p, 2, "lo", 1); }, NOT_MET, notFound(INTERFACE_STATUS, 2)},
        {[&] { return status(p, 1, "nosuchif0", 2); }, ERROR, interfaceRefused("nosuchif0", "UP")},
        {[&] { return status(p, 1, "nosuchif0", 0); }, ERROR,
         interfaceRefused("nosuchif0", "DOWN")},
        {[&] { return status(foreign.get(), 2, "lo", 1); }, ERROR, interfaceRefused("lo", "UP")},
        {[&] { return forceLo(0); }, 10, ""},
        {[&] { return forceLo(2); }, 11, ""},
    });
}

TEST(BindingPings, RefusalsAndSwitching) {
    ParticipantPtr withoutWan = makeParticipant();
    ParticipantPtr noConfigurator = makeParticipant(1, 0);
    ParticipantPtr noWorker = makeParticipant(0, 1);
    ParticipantPtr foreign = makeParticipant();
    TestPlugin foreignWan(WAN);
    install(foreign.get(), &foreignWan.plugin, "foreign");
    ParticipantPtr participant = makeParticipant();
    VESK_Transport_Plugin *wan = installUdp(participant, WAN);
    const auto ping = [](const ParticipantPtr &target, DDS_Boolean enable) -> long {
        return VESK_Transport_Support_change_binding_ping_generation(target.get(), enable);
    };
    // The result, then 10 when disabled, 11 when enabled.
    const auto switchPings = [&](DDS_Boolean enable) {
        return ping(participant, enable) * 100 + 10 +
               (VESK_Transport_UDP_is_binding_ping_generation_enabled(wan) != 0);
    };
    const long NOT_MET = DDS_RETCODE_PRECONDITION_NOT_MET, ERROR = DDS_RETCODE_ERROR;
    expectAnswers({
        {[&] { return ping(nullptr, 1); }, DDS_RETCODE_BAD_PARAMETER,
         badParameter(BINDING_PING, "participant")},
        {[&] { return ping(noConfigurator, 1); }, NOT_MET,
         precondition(BINDING_PING, "configurator")},
        {[&] { return ping(noWorker, 1); }, NOT_MET, precondition(BINDING_PING, "worker")},
        {[&] { return ping(withoutWan, 1); }, NOT_MET, notFound(BINDING_PING, WAN)},
        {[&] { return ping(foreign, 3); }, ERROR, pingRefused("ENABLED")},
        {[&] { return ping(foreign, 0); }, ERROR, pingRefused("DISABLED")},
        {[&] { return switchPings(0); }, 10, ""},
        {[&] { return switchPings(1); }, 11, ""},
    });
}

// With the module's masks off, the later messages are still written for a
// worker whose activity shares a category with entry 2 of the category
// masks; the null-argument messages are not.
TEST(ControlMessages, WorkerActivityContextGating) {
    ParticipantPtr participant = makeParticipant();
    DDS_DomainParticipant *p = participant.get();
    REDAWorker *worker = DDS_DomainParticipant_get_workerI(p);
    KELOsapiContext context{0x10};
    const KEL_UINT32 savedMask = KELLog_g_categoryMask[2];
    for (const auto &[category, mask2, written] :
         {std::tuple{0x10u, 0x30u, true}, {0x10u, 0x20u, false}, {0u, 0xFFFFFFFFu, false}}) {
        SCOPED_TRACE(mask2);
        context.category = category;
        worker->_activityContext = category != 0 ? &context : nullptr;  // 0: no context
        KELLog_g_categoryMask[2] = mask2;
        LogCapture log(VESK_CONFIG_LOG_VERBOSITY_SILENT, 0);
        EXPECT_EQ(DDS_RETCODE_BAD_PARAMETER,
                  VESK_Transport_Support_change_interface_status(p, 5, "lo", 1));
        EXPECT_EQ(DDS_RETCODE_PRECONDITION_NOT_MET,
                  VESK_Transport_Support_change_interface_status(p, 1, "lo", 1));
        EXPECT_EQ(DDS_RETCODE_PRECONDITION_NOT_MET,
                  VESK_Transport_Support_change_binding_ping_generation(p, 1));
        EXPECT_EQ(DDS_RETCODE_BAD_PARAMETER,
                  VESK_Transport_Support_change_interface_status(nullptr, 1, "lo", 1));
        EXPECT_EQ(DDS_RETCODE_BAD_PARAMETER,
                  VESK_Transport_Support_change_interface_status(p, 1, nullptr, 1));
        const Messages expected = {badParameter(INTERFACE_STATUS, "transport_class_id"),
                                   notFound(INTERFACE_STATUS, 1), notFound(BINDING_PING, WAN)};
        EXPECT_EQ(written ? expected : Messages{}, describeAll(log));
    }
    worker->_activityContext = nullptr;
    KELLog_g_categoryMask[2] = savedMask;
}

}  // namespace
