// Real UDP traffic through factory-built plugins over loopback: refusals,
// shares, statistics by kind from RTPS bytes, receive wake-up, loans,
// socket buffers, multicast and non-blocking drops inside a namespace of
// the test's own, two processes, and every allocation failing in turn.
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <future>
#include <string>
#include <thread>

#include "support/AllocationSweep.hpp"
#include "support/NetNamespace.hpp"
#include "support/TestSupport.hpp"
#include "support/UdpTraffic.hpp"
#include "vesk_transport/platform/SocketUtil.h"
#include "vesk_transport/platform/udp/Socket.hpp"

namespace {

using namespace vesk::test;
using Bytes = std::vector<std::uint8_t>;
using S = VESK_Transport_UDP_Statistics;

VESK_Transport_Address_t addressOf(const char *text) {
    VESK_Transport_Address_t address{};
    EXPECT_EQ(VESK_Transport_SocketUtil_StringAddress_to_transportAddress(&address, text, 0), 1);
    return address;
}

VESK_Transport_UDP_DropCounts dropsOf(VESK_Transport_Plugin *plugin) {
    VESK_Transport_UDP_DropCounts drops{};
    EXPECT_EQ(VESK_Transport_UDP_get_drop_counts(plugin, &drops), 1);
    return drops;
}

// The one message logged, or why there is not exactly one.
std::string onlyMessage(const LogCapture &log, KEL_UINT32 level = KEL_LOG_BIT_ERROR) {
    const auto entries = log.entries();
    if (entries.size() != 1) return std::to_string(entries.size()) + " messages";
    if (entries[0].level != level) return "level " + std::to_string(entries[0].level);
    return entries[0].params.empty() ? "" : entries[0].params[0];
}

class Classes : public ::testing::TestWithParam<Ip> {};
INSTANTIATE_TEST_SUITE_P(Udp, Classes, ::testing::Values(Ip::V4, Ip::V6),
                         [](const auto &row) { return std::string(ipName(row.param)); });

int sendBuffers(VESK_Transport_Plugin *plugin, int count, KEL_INT32 length) {
    Link link(plugin, Ip::V4);
    static char data[2048];
    std::vector<VESK_Transport_Buffer_t> buffers(count, {length, data});
    return plugin->send(plugin, &link.sender, nullptr, 0, 0, buffers.data(), count, nullptr);
}

int receiveOn(VESK_Transport_Plugin *plugin, const char *group_text, VESK_Transport_Port_t port) {
    const VESK_Transport_Address_t group = addressOf(group_text);
    VESK_Transport_RecvResource_t resource = nullptr;
    const int made = plugin->create_recvresource_rrEA(plugin, &resource, &port, &group, 0);
    if (made != 0) plugin->destroy_recvresource_rrEA(plugin, &resource);
    return made;
}

// Each refusal: result 0, one error naming the fix, no descriptor left.
TEST(UdpRefusals, EachIsLoggedAndLeavesNothing) {
    struct Row {
        std::initializer_list<PropertyList::NameValue> properties;
        std::function<int(VESK_Transport_Plugin *)> act;
        const char *message;  // after "UDPv4 transport: "
    };
    const Row rows[] = {
        {{{"parent.gather_send_buffer_count_max", "2"}},
         [](auto *p) { return sendBuffers(p, 3, 1); },
         "3 buffers exceed parent.gather_send_buffer_count_max (2): gather fewer or raise the "
         "limit"},
        {{{"parent.message_size_max", "100"}},
         [](auto *p) { return sendBuffers(p, 2, 51); },
         "message of 102 bytes exceeds parent.message_size_max (100): not sent"},
        {{{"unicast_enabled", "0"}},
         [](auto *p) { return receiveOn(p, "0.0.0.0", 0); },
         "unicast is off: set unicast_enabled to 1"},
        {{{"multicast_enabled", "0"}},
         [](auto *p) { return receiveOn(p, "239.255.0.1", 0); },
         "multicast is off: set multicast_enabled to 1"},
        {{},
         [](auto *p) {
             VESK_Transport_SendResource_t sender = nullptr;
             const VESK_Transport_Address_t address = loopbackAddress(Ip::V4);
             return p->create_sendresource_srEA(p, &sender, &address, 65536, 0);
         },
         "sendresource_out and dest_address_in are required and the port at most 65535"},
        {{{"parent.allow_multicast_interfaces_list", "none0"}},
         [](auto *p) { return receiveOn(p, "239.255.0.1", 0); },
         "group 239.255.0.1 joined on no interface (0 selected by the multicast interface lists)"},
        {{},
         [](auto *p) { return receiveOn(p, "0.0.0.0", 65536); },
         "receive port 65536 is above 65535"},
        {{},
         [](auto *p) { return receiveOn(p, "127.0.0.1", 0); },
         "multicast_address_in is not a multicast address"},
        {{},
         [](auto *p) {
             Link link(p, Ip::V4);
             return receiveOn(p, "0.0.0.0", link.port);
         },
         "Address already in use"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.message);
        const int descriptors = openDescriptorCount();
        PluginHandle plugin = makeUdp(Ip::V4, row.properties);
        ASSERT_NE(plugin, nullptr);
        LogCapture log;
        EXPECT_EQ(row.act(plugin.get()), 0);
        plugin.reset();
        EXPECT_EQ(log.entries().at(0).template_name, "KEL_LOG_ANY_FAILURE_s");
        EXPECT_EQ(onlyMessage(log).rfind("UDPv4 transport: ", 0), 0u) << onlyMessage(log);
        EXPECT_NE(onlyMessage(log).find(row.message), std::string::npos) << onlyMessage(log);
        EXPECT_EQ(openDescriptorCount(), descriptors);
    }
}

// Multicast by family: 224.0.0.0/4 (also IPv4-mapped into IPv6), ff00::/8.
TEST(UdpResources, MulticastAddressesByFamily) {
    const std::pair<const char *, bool> v4[] = {{"239.255.0.1", true}, {"127.0.0.1", false}};
    const std::pair<const char *, bool> v6[] = {{"ff02::1", true},
                                                {"::1", false},
                                                {"::ffff:239.1.1.1", true},
                                                {"::ffff:127.0.0.1", false},
                                                {"::e000:1", false}};
    for (const auto &[text, multicast] : v4)
        EXPECT_EQ(vesk::udp::isMulticast(false, addressOf(text)), multicast) << text;
    for (const auto &[text, multicast] : v6)
        EXPECT_EQ(vesk::udp::isMulticast(true, addressOf(text)), multicast) << text;
}

// Shares are counted per port (receive) or destination (send); the
// creator's share stays until destroy; what does not match is refused.
TEST(UdpResources, SharesAreCountedAndMismatchesRefused) {
    PluginHandle plugin = makeUdp(Ip::V4);
    ASSERT_NE(plugin, nullptr);
    VESK_Transport_Plugin *p = plugin.get();
    Link link(p, Ip::V4);
    const VESK_Transport_Address_t here = loopbackAddress(Ip::V4), group = addressOf("239.255.0.1");
    LogCapture log;
    const std::vector<int> results = {
        p->share_recvresource_rrEA(p, &link.receiver, nullptr, link.port, 0),
        p->share_recvresource_rrEA(p, &link.receiver, nullptr, link.port + 1, 0),
        p->share_recvresource_rrEA(p, &link.receiver, &group, link.port, 0),
        p->unshare_recvresource_rrEA(p, &link.receiver, nullptr, link.port),
        p->unshare_recvresource_rrEA(p, &link.receiver, nullptr, link.port),
        p->share_sendresource_srEA(p, &link.sender, &here, link.port, 0),
        p->share_sendresource_srEA(p, &link.sender, &here, link.port + 1, 0),
        p->unshare_sendresource_srEA(p, &link.sender, &here, link.port, 0),
        p->unshare_sendresource_srEA(p, &link.sender, &here, link.port, 0),
    };
    EXPECT_EQ(results, (std::vector<int>{1, 0, 0, 1, 0, 1, 0, 1, 0}));
    EXPECT_STREQ(KELOsapiHeap_getBlockTypeName(link.receiver), "VESK_Transport_UDP_RecvResource");
    EXPECT_STREQ(KELOsapiHeap_getBlockTypeName(link.sender), "VESK_Transport_UDP_SendResource");
    EXPECT_EQ(log.entries().size(), 5u);  // one warning per refusal
}

// Writer entity ids.
const Bytes kSpdp = {0x00, 0x01, 0x00, 0xc2}, kSecureSpdp = {0xff, 0x01, 0x01, 0xc2},
            kTopics = {0x00, 0x00, 0x02, 0xc2}, kPublications = {0x00, 0x00, 0x03, 0xc2},
            kSubscriptions = {0x00, 0x00, 0x04, 0xc2}, kMessage = {0x00, 0x02, 0x00, 0xc2},
            kSecureMessage = {0xff, 0x02, 0x00, 0xc2}, kUserWriter = {0, 0, 1, 2};

Bytes bigEndianHeartbeat(const Bytes &writer) {
    Bytes body = {0, 0, 0, 0};
    body.insert(body.end(), writer.begin(), writer.end());
    body.insert(body.end(), 20, 0);
    return Rtps().submessage(0x07, body, true).bytes;
}

// An SPDP DATA whose submessage length runs past the datagram: the walk
// ends before it, so the message counts as user data.
Bytes lengthPastTheEnd() {
    Bytes bytes = Rtps().data(kSpdp).bytes;
    bytes[22] = 0xff;
    return bytes;
}

// Statistics by kind, from RTPS bytes sent and received over loopback: the
// same as counting one message of the kind each way (and 20 header bytes
// each way as overhead when it is RTPS) on a plugin that sent nothing.
TEST(UdpStatistics, RealRtpsTrafficCountsByKind) {
    const auto discovery = VESK_TRANSPORT_UDP_TRAFFIC_DISCOVERY,
               participants = VESK_TRANSPORT_UDP_TRAFFIC_PARTICIPANT_DISCOVERY,
               endpoints = VESK_TRANSPORT_UDP_TRAFFIC_ENDPOINT_DISCOVERY,
               user = VESK_TRANSPORT_UDP_TRAFFIC_USER_DATA;
    const std::tuple<const char *, Bytes, VESK_Transport_UDP_TrafficKind> rows[] = {
        {"SPDP data", Rtps().data(kSpdp, {1, 2}).bytes, participants},
        {"secure SPDP heartbeat", Rtps().named(0x07, kSecureSpdp).bytes, participants},
        {"topics acknack", Rtps().named(0x06, kTopics).bytes, endpoints},
        {"INFO_TS, publications", Rtps().submessage(0x09, Bytes(8)).data(kPublications).bytes,
         endpoints},
        {"big-endian subscriptions", bigEndianHeartbeat(kSubscriptions), endpoints},
        {"automatic liveliness", Rtps().liveliness(kMessage, 1).bytes,
         VESK_TRANSPORT_UDP_TRAFFIC_AUTOMATIC_LIVELINESS},
        {"manual liveliness", Rtps().liveliness(kMessage, 2).bytes,
         VESK_TRANSPORT_UDP_TRAFFIC_MANUAL_LIVELINESS},
        {"secure liveliness", Rtps().liveliness(kSecureMessage, 1).bytes,
         VESK_TRANSPORT_UDP_TRAFFIC_SECURE_LIVELINESS},
        {"participant-message heartbeat", Rtps().named(0x07, kMessage).bytes, discovery},
        {"user data", Rtps().data(kUserWriter, {9}).bytes, user},
        {"length past the end", lengthPastTheEnd(), user},
        {"not RTPS", {'h', 'e', 'l', 'l', 'o'}, user},
    };
    for (const auto &[name, bytes, kind] : rows) {
        SCOPED_TRACE(name);
        PluginHandle plugin = makeUdp(Ip::V4), counted = makeUdp(Ip::V4);
        ASSERT_TRUE(plugin && counted);
        Link link(plugin.get(), Ip::V4);
        ASSERT_EQ(link.send(bytes), 1);
        ASSERT_EQ(link.receive(), bytes);
        const KEL_UINT64 header = bytes[0] == 'R' ? 20 : 0;
        for (const auto direction :
             {VESK_TRANSPORT_UDP_TRAFFIC_SENT, VESK_TRANSPORT_UDP_TRAFFIC_RECEIVED}) {
            VESK_Transport_UDP_count_traffic(counted.get(), kind, direction, 1,
                                             bytes.size() - header);
            if (header != 0) {
                VESK_Transport_UDP_count_traffic(counted.get(), VESK_TRANSPORT_UDP_TRAFFIC_OVERHEAD,
                                                 direction, 1, header);
            }
        }
        const S got = statisticsOf(plugin.get()), expected = statisticsOf(counted.get());
        EXPECT_EQ(std::memcmp(&got, &expected, sizeof got), 0);
    }
}

// Transport priority -> traffic class, counted per received value.
TEST(UdpStatistics, ReceivedPriorityFollowsTheMapping) {
    const std::tuple<const char *, const char *, KEL_INT32, int> rows[] = {
        {"0", "255", 40, 0}, {"0xfc", "255", 43, 40}, {"0xff", "32", 200, 32}};
    for (const auto &[mask, high, priority, counted] : rows) {
        SCOPED_TRACE(priority);
        PluginHandle plugin = makeUdp(Ip::V4, {{"transport_priority_mask", mask},
                                               {"transport_priority_mapping_low", "0"},
                                               {"transport_priority_mapping_high", high},
                                               {"gather_detailed_statistics", "1"}});
        ASSERT_NE(plugin, nullptr);
        Link link(plugin.get(), Ip::V4, priority);
        ASSERT_EQ(link.send({1, 2, 3}), 1);
        link.receive();
        EXPECT_EQ(statisticsOf(plugin.get()).received_priority_count[counted], 1u);
    }
}

TEST(UdpStatistics, MessagesOfTheDroppedGuidPrefixAreCounted) {
    VESK_Transport_UDP_Property_t record = VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT;
    record.drop_samples_by_guid_prefix = 1;
    record.guid_prefix_to_drop = {0x01020304, 0x05060708, 0x090a0b0c};  // Rtps::kPrefix
    PluginHandle plugin(VESK_Transport_UDPv4_newI(&record, nullptr, nullptr));
    ASSERT_NE(plugin, nullptr);
    Link link(plugin.get(), Ip::V4);
    const std::uint8_t other[12] = {9};
    ASSERT_EQ(link.send(Rtps().data(kUserWriter).bytes), 1);
    ASSERT_EQ(link.send(Rtps(other).data(kUserWriter).bytes), 1);
    EXPECT_EQ(link.receive(), Rtps(other).data(kUserWriter).bytes);
    EXPECT_EQ(dropsOf(plugin.get()).receive_guid_prefix, 1u);
    EXPECT_EQ(statisticsOf(plugin.get()).user_packets_received, 1u);
}

// Waits until the thread sleeps in the kernel (state S), for at most 5 s.
bool waitUntilSleeping(pid_t tid) {
    const std::string path = "/proc/self/task/" + std::to_string(tid) + "/stat";
    for (int i = 0; i < 500; ++i, std::this_thread::sleep_for(std::chrono::milliseconds(10))) {
        std::string line;
        std::getline(std::ifstream(path) >> std::ws, line);
        const size_t paren = line.rfind(')');
        if (paren != std::string::npos && line.size() > paren + 2 && line[paren + 2] == 'S') {
            return true;
        }
    }
    return false;
}

// A receiver blocked in receive_rEA returns 0 promptly when woken by
// unblock_receive_rrEA or by deleting the plugin under it.
TEST(UdpReceive, BlockedReceiverWakesOnUnblockAndOnDelete) {
    for (const bool by_delete : {false, true}) {
        SCOPED_TRACE(by_delete ? "delete" : "unblock");
        VESK_Transport_Plugin *plugin = makeUdp(Ip::V4).release();
        ASSERT_NE(plugin, nullptr);
        VESK_Transport_RecvResource_t resource = nullptr;
        VESK_Transport_Port_t port = 0;
        ASSERT_EQ(plugin->create_recvresource_rrEA(plugin, &resource, &port, nullptr, 0), 1);
        std::atomic<pid_t> tid{0};
        auto receiver = std::async(std::launch::async, [&] {
            tid = static_cast<pid_t>(syscall(SYS_gettid));
            char storage[64];
            VESK_Transport_Buffer_t buffer{64, storage};
            VESK_Transport_Message_t message{};
            return plugin->receive_rEA(plugin, &resource, &buffer, &message, nullptr);
        });
        while (tid == 0) std::this_thread::yield();
        ASSERT_TRUE(waitUntilSleeping(tid));
        EXPECT_EQ(by_delete ? (plugin->delete_cEA(plugin, nullptr), 1)
                            : plugin->unblock_receive_rrEA(plugin, &resource, nullptr),
                  1);
        ASSERT_EQ(receiver.wait_for(std::chrono::seconds(5)), std::future_status::ready);
        EXPECT_EQ(receiver.get(), 0);
        if (!by_delete) {
            plugin->destroy_recvresource_rrEA(plugin, &resource);
            plugin->delete_cEA(plugin, nullptr);
        }
    }
}

TEST(UdpReceive, LoanedBuffersStayOutUntilReturned) {
    PluginHandle plugin = makeUdp(Ip::V4, {{"parent.properties_bitmap", "2"}});
    ASSERT_NE(plugin, nullptr);
    VESK_Transport_Plugin *p = plugin.get();
    Link link(p, Ip::V4);
    constexpr int kRing = 16;
    for (int i = 0; i <= kRing; ++i) ASSERT_EQ(link.send({static_cast<std::uint8_t>(i)}), 1);
    std::vector<VESK_Transport_Message_t> loans(kRing + 1);
    for (int i = 0; i < kRing; ++i) {
        ASSERT_EQ(p->receive_rEA(p, &link.receiver, nullptr, &loans[i], nullptr), 1);
        ASSERT_NE(loans[i].loaned_buffer_param, nullptr);
        EXPECT_EQ(loans[i].buffer.pointer[0], i);
    }
    {
        LogCapture log;
        EXPECT_EQ(p->receive_rEA(p, &link.receiver, nullptr, &loans[kRing], nullptr), 0);
        EXPECT_NE(onlyMessage(log).find("all 16 receive buffers are loaned"), std::string::npos);
    }
    for (int i = 0; i < kRing; ++i) {
        p->return_loaned_buffer_rEA(p, &link.receiver, &loans[i], nullptr);
        EXPECT_EQ(loans[i].loaned_buffer_param, nullptr);
    }
    ASSERT_EQ(p->receive_rEA(p, &link.receiver, nullptr, &loans[kRing], nullptr), 1);
    EXPECT_EQ(loans[kRing].buffer.pointer[0], kRing);
    p->return_loaned_buffer_rEA(p, &link.receiver, &loans[kRing], nullptr);
}

// no_zero_copy copies even when loans are asked for; a datagram larger
// than the caller's buffer is dropped, logged and counted, never cut.
TEST(UdpReceive, CopiesIntoTheCallersBufferAndDropsWhatDoesNotFit) {
    PluginHandle plugin =
        makeUdp(Ip::V6, {{"parent.properties_bitmap", "2"}, {"no_zero_copy", "1"}});
    ASSERT_NE(plugin, nullptr);
    Link link(plugin.get(), Ip::V6);
    ASSERT_EQ(link.send(Bytes(20, 1)), 1);
    ASSERT_EQ(link.send(Bytes(5, 2)), 1);
    char storage[10];
    VESK_Transport_Buffer_t buffer{10, storage};
    VESK_Transport_Message_t message{};
    LogCapture log;
    ASSERT_EQ(plugin->receive_rEA(plugin.get(), &link.receiver, &buffer, &message, nullptr), 1);
    EXPECT_EQ(message.buffer.pointer, storage);
    EXPECT_EQ(message.buffer.length, 5);
    EXPECT_NE(onlyMessage(log, KEL_LOG_BIT_WARN).find("datagram of 20 bytes from [::1]:"),
              std::string::npos);
    EXPECT_EQ(dropsOf(plugin.get()).receive_truncated, 1u);
}

int procLimit(const char *name) {
    int value = -1;
    std::ifstream(std::string("/proc/sys/net/core/") + name) >> value;
    return value;
}

// Granted sizes are read back; a request above what is granted warns once
// with both sizes and the sysctl line (as root the forcing option lifts
// every limit but the kernel's own cap of INT_MAX / 2).
TEST(UdpSockets, BufferSizesAreGrantedAndReported) {
    if (geteuid() != 0) GTEST_SKIP() << "the forcing socket options need CAP_NET_ADMIN";
    const std::tuple<const char *, int, const char *> rows[] = {
        {"-1", procLimit("rmem_default") / 2, "0 messages"},
        {"-2", procLimit("rmem_max"), "0 messages"},
        {"65536", 65536, "0 messages"},
        {"2147483647", 1073741823,
         "2147483647 bytes requested, 1073741823 granted; lift the limit with: sysctl -w "
         "net.core.rmem_max=2147483647"},
    };
    for (const auto &[value, expected, warning] : rows) {
        SCOPED_TRACE(value);
        PluginHandle plugin = makeUdp(
            Ip::V4, {{"recv_socket_buffer_size", value}, {"send_socket_buffer_size", "65536"}});
        ASSERT_NE(plugin, nullptr);
        LogCapture log;
        Link link(plugin.get(), Ip::V4);
        int send = 0, receive = 0;
        ASSERT_EQ(VESK_Transport_UDP_get_socket_buffer_sizes(plugin.get(), &send, &receive), 1);
        EXPECT_EQ(receive, expected);
        EXPECT_EQ(send, 65536);
        EXPECT_NE(onlyMessage(log, KEL_LOG_BIT_WARN).find(warning), std::string::npos);
    }
}

// Multicast over lo, with lo's multicast flag set in a namespace of our own:
// a group joined at creation, a second one by sharing, each received. lo
// has two addresses: each group is joined once per interface, silently.
TEST(UdpMulticast, GroupsJoinedOnLoopbackReceive) {
    VESK_ENTER_NET_NAMESPACE(ns);
    ASSERT_TRUE(ip("link set lo multicast on") && ip("addr add 192.0.2.1/32 dev lo"));
    PluginHandle plugin = makeUdp(Ip::V4, {{"parent.allow_multicast_interfaces_list", "lo"}});
    ASSERT_NE(plugin, nullptr);
    VESK_Transport_Plugin *p = plugin.get();
    const VESK_Transport_Address_t first = addressOf("239.255.0.1"),
                                   second = addressOf("239.255.0.2");
    Link link(p, Ip::V4);  // its resources are replaced by ones on the groups
    p->destroy_recvresource_rrEA(p, &link.receiver);
    link.receiver = nullptr;
    link.port = 0;
    LogCapture quiet;
    ASSERT_EQ(p->create_recvresource_rrEA(p, &link.receiver, &link.port, &first, 0), 1);
    ASSERT_EQ(p->share_recvresource_rrEA(p, &link.receiver, &second, link.port, 0), 1);
    EXPECT_EQ(quiet.summary(), std::vector<std::string>{});
    for (const VESK_Transport_Address_t &group : {first, second}) {
        p->destroy_sendresource_srEA(p, &link.sender);
        link.sender = nullptr;
        ASSERT_EQ(p->create_sendresource_srEA(p, &link.sender, &group, link.port, 0), 1);
        ASSERT_EQ(link.send({group.network_ordered_value[15]}), 1);
        EXPECT_EQ(link.receive(), Bytes{group.network_ordered_value[15]});
    }
    EXPECT_EQ(p->unshare_recvresource_rrEA(p, &link.receiver, &second, link.port), 1);
    EXPECT_EQ(p->unshare_recvresource_rrEA(p, &link.receiver, &second, link.port), 0);
    // Without reuse_multicast_receive_resource a port holds one group.
    PluginHandle single = makeUdp(Ip::V4, {{"parent.allow_multicast_interfaces_list", "lo"},
                                           {"reuse_multicast_receive_resource", "0"}});
    ASSERT_NE(single, nullptr);
    VESK_Transport_RecvResource_t resource = nullptr;
    VESK_Transport_Port_t port = 0;
    ASSERT_EQ(single->create_recvresource_rrEA(single.get(), &resource, &port, &first, 0), 1);
    LogCapture log;
    EXPECT_EQ(single->share_recvresource_rrEA(single.get(), &resource, &second, port, 0), 0);
    EXPECT_NE(onlyMessage(log, KEL_LOG_BIT_WARN)
                  .find("not shared: another group on this port needs "
                        "reuse_multicast_receive_resource"),
              std::string::npos);
    single->destroy_recvresource_rrEA(single.get(), &resource);
}

// send_blocking NEVER: with the send buffer held by a slow queue (a token
// bucket on the namespace's lo), sends are dropped and counted instead of
// blocking.
TEST(UdpSend, NeverBlockingDropsAndCountsWhenTheBufferIsFull) {
    VESK_ENTER_NET_NAMESPACE(ns);
    if (!run("tc qdisc add dev lo root tbf rate 8kbit burst 10kb latency 60s")) {
        GTEST_SKIP() << "tc could not shape lo";
    }
    PluginHandle plugin = makeUdp(Ip::V4, {{"send_blocking", "TRANSPORT_BLOCKING_NEVER"},
                                           {"send_socket_buffer_size", "16384"}});
    ASSERT_NE(plugin, nullptr);
    Link link(plugin.get(), Ip::V4);
    KEL_UINT64 refused = 0;
    for (int i = 0; i < 64; ++i) refused += link.send(Bytes(4000)) == 0 ? 1 : 0;
    EXPECT_GT(refused, 0u);
    EXPECT_EQ(dropsOf(plugin.get()).send_would_block, refused);
}

// Another process sends three messages gathered from three buffers each:
// one datagram each, counted once, not per buffer, where it was sent.
TEST_P(Classes, TwoProcessesExchangeGatheredMessages) {
    PluginHandle plugin = makeUdp(GetParam());
    ASSERT_NE(plugin, nullptr);
    Link link(plugin.get(), GetParam());
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        PluginHandle own = makeUdp(GetParam());
        const VESK_Transport_Address_t to = loopbackAddress(GetParam());
        VESK_Transport_SendResource_t sender = nullptr;
        char a[] = "he", b[] = "llo ", c[] = "world";
        const VESK_Transport_Buffer_t gather[] = {{2, a}, {4, b}, {5, c}};
        int sent = own && own->create_sendresource_srEA(own.get(), &sender, &to, link.port, 0);
        for (int i = 0; i < 3 && sent > 0; ++i) {
            sent += own->send(own.get(), &sender, nullptr, 0, 0, gather, 3, nullptr);
        }
        _exit(sent == 4 && statisticsOf(own.get()).user_bytes_sent == 33 ? 0 : 1);
    }
    // A watchdog wakes the receiver should the child never send.
    std::atomic<bool> done{false};
    std::thread watchdog([&] {
        for (int i = 0; i < 500 && !done; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        if (!done) plugin->unblock_receive_rrEA(plugin.get(), &link.receiver, nullptr);
    });
    std::string received;
    for (int i = 0; i < 3; ++i) {
        const Bytes got = link.receive();
        received += std::string(got.begin(), got.end()) + ";";
    }
    done = true;
    watchdog.join();
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(received, "hello world;hello world;hello world;");
}

// Each allocation of a whole exchange (factory, resources, send, receive,
// delete) fails in turn: nothing stays open or allocated.
TEST_P(Classes, NoDescriptorOrBlockOutlivesAnAllocationFailure) {
    LogCapture quiet(0);
    const int descriptors = openDescriptorCount();
    const SweepSummary summary = sweepAllocationFailures(
        [&] {
            bool exchanged = false;
            if (PluginHandle plugin = makeUdp(GetParam())) {
                VESK_Transport_Plugin *p = plugin.get();
                VESK_Transport_RecvResource_t receiver = nullptr;
                VESK_Transport_SendResource_t sender = nullptr;
                VESK_Transport_Port_t port = 0;
                const VESK_Transport_Address_t address = loopbackAddress(GetParam());
                char byte = 1;
                VESK_Transport_Buffer_t buffer{1, &byte};
                VESK_Transport_Message_t message{};
                exchanged = p->create_recvresource_rrEA(p, &receiver, &port, nullptr, 0) &&
                            p->create_sendresource_srEA(p, &sender, &address, port, 0) &&
                            p->send(p, &sender, nullptr, 0, 0, &buffer, 1, nullptr) &&
                            p->receive_rEA(p, &receiver, &buffer, &message, nullptr);
                // Resources left to delete_cEA on purpose: it must release them.
            }
            return std::pair{exchanged, openDescriptorCount() - descriptors};
        },
        [](const SweepStep &step, std::pair<bool, int> &outcome) {
            EXPECT_EQ(outcome.second, 0);  // descriptors left
            EXPECT_TRUE(step.failed || outcome.first);
        },
        [](auto &) {});
    EXPECT_TRUE(summary.completed);
    EXPECT_GE(summary.failurePoints, 4);
}

}  // namespace
