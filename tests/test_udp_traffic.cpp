// Real UDP traffic through factory-built plugins: loopback exchange per
// class, refusals, statistics by kind from RTPS bytes, receive wake-up and
// deletion, loaned buffers, socket buffers, priorities, multicast and
// non-blocking drops inside a network namespace of the test's own, two
// processes, and descriptors and heap blocks after every allocation failure.
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
using Stats = VESK_Transport_UDP_Statistics;
using Counter = KEL_UINT64 Stats::*;

class Classes : public ::testing::TestWithParam<Ip> {};
INSTANTIATE_TEST_SUITE_P(Udp, Classes, ::testing::Values(Ip::V4, Ip::V6),
                         [](const auto &row) { return std::string(ipName(row.param)); });

TEST_P(Classes, GatheredBuffersArriveAsOneDatagram) {
    PluginHandle plugin = makeUdp(GetParam());
    ASSERT_NE(plugin, nullptr);
    Link link(plugin.get(), GetParam());
    char a[] = "he", b[] = "llo ", c[] = "world";
    const VESK_Transport_Buffer_t gather[] = {{2, a}, {4, b}, {5, c}};
    ASSERT_EQ(plugin->send(plugin.get(), &link.sender, nullptr, 0, 0, gather, 3, nullptr), 1);
    const Bytes got = link.receive();
    EXPECT_EQ(std::string(got.begin(), got.end()), "hello world");
    EXPECT_EQ(statisticsOf(plugin.get()).user_bytes_sent, 11u);  // counted once, not per buffer
}

// Each refusal: result 0 and one logged message naming the fix.
struct Refusal {
    const char *name;
    std::initializer_list<PropertyList::NameValue> properties;
    std::function<int(VESK_Transport_Plugin *)> act;
    const char *message;
};

int sendBuffers(VESK_Transport_Plugin *plugin, int count, KEL_INT32 length) {
    Link link(plugin, Ip::V4);
    static char data[2048];
    std::vector<VESK_Transport_Buffer_t> buffers(count, {length, data});
    return plugin->send(plugin, &link.sender, nullptr, 0, 0, buffers.data(), count, nullptr);
}

int receiveOn(VESK_Transport_Plugin *plugin, const char *group_text, VESK_Transport_Port_t port) {
    VESK_Transport_Address_t group{};
    plugin->string_to_address_cEA(plugin, &group, group_text);
    VESK_Transport_RecvResource_t resource = nullptr;
    const int made = plugin->create_recvresource_rrEA(plugin, &resource, &port, &group, 0);
    if (made != 0) plugin->destroy_recvresource_rrEA(plugin, &resource);
    return made;
}

TEST(UdpRefusals, EachIsLoggedAndLeavesNothing) {
    // clang-format off
    const Refusal rows[] = {
        {"gather", {{"parent.gather_send_buffer_count_max", "2"}}, [](auto *p) { return sendBuffers(p, 3, 1); },
         "UDPv4 transport: 3 buffers exceed parent.gather_send_buffer_count_max (2): gather fewer or raise the limit"},
        {"size", {{"parent.message_size_max", "100"}}, [](auto *p) { return sendBuffers(p, 2, 51); },
         "UDPv4 transport: message of 102 bytes exceeds parent.message_size_max (100): not sent"},
        {"unicast off", {{"unicast_enabled", "0"}}, [](auto *p) { return receiveOn(p, "0.0.0.0", 0); },
         "UDPv4 transport: unicast is off: set unicast_enabled to 1"},
        {"multicast off", {{"multicast_enabled", "0"}}, [](auto *p) { return receiveOn(p, "239.255.0.1", 0); },
         "UDPv4 transport: multicast is off: set multicast_enabled to 1"},
        {"send port", {}, [](auto *p) {
             VESK_Transport_SendResource_t sender = nullptr;
             const VESK_Transport_Address_t address = loopbackAddress(Ip::V4);
             return p->create_sendresource_srEA(p, &sender, &address, 70000, 0); },
         "UDPv4 transport: sendresource_out and dest_address_in are required and the port at most 65535"},
        {"no multicast interface", {{"parent.allow_multicast_interfaces_list", "none0"}},
         [](auto *p) { return receiveOn(p, "239.255.0.1", 0); },
         "UDPv4 transport: group 239.255.0.1 joined on no interface (0 selected by the multicast interface lists)"},
        {"not a group", {}, [](auto *p) { return receiveOn(p, "127.0.0.1", 0); },
         "UDPv4 transport: multicast_address_in is not a multicast address"},
        {"port in use", {}, [](auto *p) { Link link(p, Ip::V4); return receiveOn(p, "0.0.0.0", link.port); },
         "Address already in use"},
    };
    // clang-format on
    for (const Refusal &row : rows) {
        SCOPED_TRACE(row.name);
        const int descriptors = openDescriptorCount();
        PluginHandle plugin = makeUdp(Ip::V4, row.properties);
        ASSERT_NE(plugin, nullptr);
        LogCapture log;
        EXPECT_EQ(row.act(plugin.get()), 0);
        plugin.reset();
        const auto entries = log.entries();
        ASSERT_EQ(entries.size(), 1u);
        EXPECT_EQ(entries[0].template_name, "KEL_LOG_ANY_FAILURE_s");
        EXPECT_EQ(entries[0].level, KEL_LOG_BIT_ERROR);
        EXPECT_NE(entries[0].params.at(0).find(row.message), std::string::npos)
            << entries[0].params[0];
        EXPECT_EQ(openDescriptorCount(), descriptors);
    }
}

// Multicast by family: 224.0.0.0/4 (also IPv4-mapped into IPv6), ff00::/8.
TEST(UdpResources, MulticastAddressesByFamily) {
    const struct {
        bool ipv6;
        const char *text;
        bool multicast;
    } rows[] = {{false, "239.255.0.1", true},     {false, "127.0.0.1", false},
                {true, "ff02::1", true},          {true, "::1", false},
                {true, "::ffff:239.1.1.1", true}, {true, "::ffff:127.0.0.1", false},
                {true, "::e000:1", false}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.text);
        VESK_Transport_Address_t address{};
        ASSERT_EQ(
            VESK_Transport_SocketUtil_StringAddress_to_transportAddress(&address, row.text, 0), 1);
        EXPECT_EQ(vesk::udp::isMulticast(row.ipv6, address), row.multicast);
    }
}

// Shares are counted per port (receive) or destination (send); the
// creator's share stays until destroy; what does not match is refused.
TEST(UdpResources, SharesAreCountedAndMismatchesRefused) {
    PluginHandle plugin = makeUdp(Ip::V4);
    ASSERT_NE(plugin, nullptr);
    VESK_Transport_Plugin *p = plugin.get();
    Link link(p, Ip::V4);
    const VESK_Transport_Address_t here = loopbackAddress(Ip::V4), group = [p] {
        VESK_Transport_Address_t a{};
        p->string_to_address_cEA(p, &a, "239.255.0.1");
        return a;
    }();
    LogCapture log;
    const int results[] = {
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
    EXPECT_EQ(std::vector<int>(std::begin(results), std::end(results)),
              (std::vector<int>{1, 0, 0, 1, 0, 1, 0, 1, 0}));
    EXPECT_EQ(log.entries().size(), 5u);  // one warning per refusal
}

// Statistics by kind, from RTPS bytes sent and received over loopback.
struct Counters {
    Counter packets_sent, packets_received, bytes_received;
};
using S = Stats;
// clang-format off
const Counters kUser{&S::user_packets_sent, &S::user_packets_received, &S::user_bytes_received},
    kParticipants{&S::participant_discovery_packets_sent, &S::participant_discovery_packets_received, &S::participant_discovery_bytes_received},
    kEndpoints{&S::endpoint_discovery_packets_sent, &S::endpoint_discovery_packets_received, &S::endpoint_discovery_bytes_received},
    kAutomatic{&S::automatic_liveliness_packets_sent, &S::automatic_liveliness_packets_received, &S::automatic_liveliness_bytes_received},
    kManual{&S::manual_liveliness_packets_sent, &S::manual_liveliness_packets_received, &S::manual_liveliness_bytes_received},
    kLiveliness{&S::_liveliness_packets_sent, &S::_liveliness_packets_received, &S::_liveliness_bytes_received},
    kDiscovery{&S::discovery_packets_sent, &S::discovery_packets_received, &S::discovery_bytes_received};
// clang-format on

struct KindRow {
    const char *name;
    Bytes bytes;
    const Counters &counters;
};

const Bytes kSpdp = {0x00, 0x01, 0x00, 0xc2}, kSecureSpdp = {0xff, 0x01, 0x01, 0xc2},
            kTopics = {0x00, 0x00, 0x02, 0xc2}, kPublications = {0x00, 0x00, 0x03, 0xc2},
            kSubscriptions = {0x00, 0x00, 0x04, 0xc2},
            kParticipantMessage = {0x00, 0x02, 0x00, 0xc2},
            kSecureParticipantMessage = {0xff, 0x02, 0x00, 0xc2}, kUserWriter = {0, 0, 1, 2};

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

TEST(UdpStatistics, RealRtpsTrafficCountsByKind) {
    const KindRow rows[] = {
        {"SPDP data", Rtps().data(kSpdp, {1, 2}).bytes, kParticipants},
        {"secure SPDP heartbeat", Rtps().named(0x07, kSecureSpdp).bytes, kParticipants},
        {"topics acknack", Rtps().named(0x06, kTopics).bytes, kEndpoints},
        {"INFO_TS, publications data", Rtps().submessage(0x09, Bytes(8)).data(kPublications).bytes,
         kEndpoints},
        {"big-endian subscriptions heartbeat", bigEndianHeartbeat(kSubscriptions), kEndpoints},
        {"automatic liveliness", Rtps().liveliness(kParticipantMessage, 1).bytes, kAutomatic},
        {"manual liveliness", Rtps().liveliness(kParticipantMessage, 2).bytes, kManual},
        {"secure liveliness", Rtps().liveliness(kSecureParticipantMessage, 1).bytes, kLiveliness},
        {"participant-message heartbeat", Rtps().named(0x07, kParticipantMessage).bytes,
         kDiscovery},
        {"user data", Rtps().data(kUserWriter, {9}).bytes, kUser},
        {"length past the end", lengthPastTheEnd(), kUser},
        {"not RTPS", {'h', 'e', 'l', 'l', 'o'}, kUser},
    };
    PluginHandle plugin = makeUdp(Ip::V4);
    ASSERT_NE(plugin, nullptr);
    Link link(plugin.get(), Ip::V4);
    for (const KindRow &row : rows) {
        SCOPED_TRACE(row.name);
        const Stats before = statisticsOf(plugin.get());
        ASSERT_EQ(link.send(row.bytes), 1);
        ASSERT_EQ(link.receive(), row.bytes);
        const Stats after = statisticsOf(plugin.get());
        const Counters &c = row.counters;
        const size_t header = row.bytes[0] == 'R' ? 20 : 0;
        EXPECT_EQ(after.*c.packets_sent - before.*c.packets_sent, 1u);
        EXPECT_EQ(after.*c.packets_received - before.*c.packets_received, 1u);
        EXPECT_EQ(after.*c.bytes_received - before.*c.bytes_received, row.bytes.size() - header);
        EXPECT_EQ(after.overhead_bytes_received - before.overhead_bytes_received, header);
    }
}

// Transport priority -> traffic class, counted per received value.
TEST(UdpStatistics, ReceivedPriorityFollowsTheMapping) {
    struct Row {
        const char *mask, *low, *high;
        KEL_INT32 priority;
        int counted;
    } rows[] = {
        {"0", "0", "255", 40, 0}, {"0xfc", "0", "255", 43, 40}, {"0xff", "0", "32", 200, 32}};
    for (const Row &row : rows) {
        SCOPED_TRACE(row.priority);
        PluginHandle plugin = makeUdp(Ip::V4, {{"transport_priority_mask", row.mask},
                                               {"transport_priority_mapping_low", row.low},
                                               {"transport_priority_mapping_high", row.high},
                                               {"gather_detailed_statistics", "1"}});
        ASSERT_NE(plugin, nullptr);
        Link link(plugin.get(), Ip::V4, row.priority);
        ASSERT_EQ(link.send({1, 2, 3}), 1);
        link.receive();
        EXPECT_EQ(statisticsOf(plugin.get()).received_priority_count[row.counted], 1u);
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
    VESK_Transport_UDP_DropCounts drops{};
    ASSERT_EQ(VESK_Transport_UDP_get_drop_counts(plugin.get(), &drops), 1);
    EXPECT_EQ(drops.receive_guid_prefix, 1u);
    EXPECT_EQ(statisticsOf(plugin.get()).user_packets_received, 1u);
}

// Waits until the thread sleeps in the kernel (state S), for at most 5 s.
bool waitUntilSleeping(pid_t tid) {
    const std::string path = "/proc/self/task/" + std::to_string(tid) + "/stat";
    for (int i = 0; i < 500; ++i) {
        std::ifstream stat(path);
        std::string line;
        std::getline(stat, line);
        const size_t paren = line.rfind(')');
        if (paren != std::string::npos && line.size() > paren + 2 && line[paren + 2] == 'S') {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
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
        if (by_delete) {
            plugin->delete_cEA(plugin, nullptr);
        } else {
            EXPECT_EQ(plugin->unblock_receive_rrEA(plugin, &resource, nullptr), 1);
        }
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
    Link link(plugin.get(), Ip::V4);
    constexpr int kRing = 16;
    for (int i = 0; i <= kRing; ++i) ASSERT_EQ(link.send({static_cast<std::uint8_t>(i)}), 1);
    std::vector<VESK_Transport_Message_t> loans(kRing);
    for (int i = 0; i < kRing; ++i) {
        ASSERT_EQ(plugin->receive_rEA(plugin.get(), &link.receiver, nullptr, &loans[i], nullptr),
                  1);
        ASSERT_NE(loans[i].loaned_buffer_param, nullptr);
        EXPECT_EQ(loans[i].buffer.pointer[0], i);
    }
    VESK_Transport_Message_t extra{};
    {
        LogCapture log;
        EXPECT_EQ(plugin->receive_rEA(plugin.get(), &link.receiver, nullptr, &extra, nullptr), 0);
        ASSERT_EQ(log.entries().size(), 1u);
        EXPECT_NE(log.entries()[0].params[0].find("all 16 receive buffers are loaned"),
                  std::string::npos);
    }
    for (auto &loan : loans) {
        plugin->return_loaned_buffer_rEA(plugin.get(), &link.receiver, &loan, nullptr);
        EXPECT_EQ(loan.loaned_buffer_param, nullptr);
    }
    ASSERT_EQ(plugin->receive_rEA(plugin.get(), &link.receiver, nullptr, &extra, nullptr), 1);
    EXPECT_EQ(extra.buffer.pointer[0], kRing);
    plugin->return_loaned_buffer_rEA(plugin.get(), &link.receiver, &extra, nullptr);
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
    ASSERT_EQ(log.entries().size(), 1u);
    EXPECT_EQ(log.entries()[0].level, KEL_LOG_BIT_WARN);
    EXPECT_NE(log.entries()[0].params[0].find("datagram of 20 bytes from [::1]:"),
              std::string::npos);
    VESK_Transport_UDP_DropCounts drops{};
    VESK_Transport_UDP_get_drop_counts(plugin.get(), &drops);
    EXPECT_EQ(drops.receive_truncated, 1u);
}

int procLimit(const char *name) {
    std::ifstream file(std::string("/proc/sys/net/core/") + name);
    int value = -1;
    file >> value;
    return value;
}

// Granted sizes are read back; a request above what is granted warns once
// with both sizes and the sysctl line (as root the forcing option lifts
// every limit but the kernel's own cap of INT_MAX / 2).
TEST(UdpSockets, BufferSizesAreGrantedAndReported) {
    struct Row {
        const char *value;
        int expected;
        const char *warning;
    } rows[] = {
        {"-1", procLimit("rmem_default") / 2, nullptr},
        {"-2", procLimit("rmem_max"), nullptr},
        {"65536", 65536, nullptr},
        {"2147483647", 1073741823,
         "2147483647 bytes requested, 1073741823 granted; lift the limit with: sysctl -w "
         "net.core.rmem_max=2147483647"},
    };
    if (geteuid() != 0) GTEST_SKIP() << "the forcing socket options need CAP_NET_ADMIN";
    for (const Row &row : rows) {
        SCOPED_TRACE(row.value);
        PluginHandle plugin = makeUdp(
            Ip::V4, {{"recv_socket_buffer_size", row.value}, {"send_socket_buffer_size", "65536"}});
        ASSERT_NE(plugin, nullptr);
        LogCapture log;
        Link link(plugin.get(), Ip::V4);
        int send = 0, receive = 0;
        ASSERT_EQ(VESK_Transport_UDP_get_socket_buffer_sizes(plugin.get(), &send, &receive), 1);
        EXPECT_EQ(receive, row.expected);
        EXPECT_EQ(send, 65536);
        ASSERT_EQ(log.entries().size(), row.warning != nullptr ? 1u : 0u);
        if (row.warning != nullptr) {
            EXPECT_NE(log.entries()[0].params[0].find(row.warning), std::string::npos);
        }
    }
}

// Multicast over lo, with lo's multicast flag set in a namespace of our own:
// a group joined at creation, a second one by sharing, each received.
TEST(UdpMulticast, GroupsJoinedOnLoopbackReceive) {
    VESK_ENTER_NET_NAMESPACE(ns);
    ASSERT_TRUE(ip("link set lo multicast on"));
    PluginHandle plugin = makeUdp(Ip::V4, {{"parent.allow_multicast_interfaces_list", "lo"}});
    ASSERT_NE(plugin, nullptr);
    VESK_Transport_Plugin *p = plugin.get();
    VESK_Transport_Address_t first{}, second{};
    p->string_to_address_cEA(p, &first, "239.255.0.1");
    p->string_to_address_cEA(p, &second, "239.255.0.2");
    Link link(p, Ip::V4);  // its receiver is replaced by one on the groups
    p->destroy_recvresource_rrEA(p, &link.receiver);
    link.receiver = nullptr;
    VESK_Transport_Port_t port = 0;
    ASSERT_EQ(p->create_recvresource_rrEA(p, &link.receiver, &port, &first, 0), 1);
    ASSERT_EQ(p->share_recvresource_rrEA(p, &link.receiver, &second, port, 0), 1);
    for (const VESK_Transport_Address_t &group : {first, second}) {
        p->destroy_sendresource_srEA(p, &link.sender);
        link.sender = nullptr;
        ASSERT_EQ(p->create_sendresource_srEA(p, &link.sender, &group, port, 0), 1);
        ASSERT_EQ(link.send({group.network_ordered_value[15]}), 1);
        EXPECT_EQ(link.receive(), Bytes{group.network_ordered_value[15]});
    }
    EXPECT_EQ(p->unshare_recvresource_rrEA(p, &link.receiver, &second, port), 1);
    EXPECT_EQ(p->unshare_recvresource_rrEA(p, &link.receiver, &second, port), 0);
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
    VESK_Transport_UDP_DropCounts drops{};
    VESK_Transport_UDP_get_drop_counts(plugin.get(), &drops);
    EXPECT_GT(refused, 0u);
    EXPECT_EQ(drops.send_would_block, refused);
}

// Another process sends three datagrams; this one receives them.
TEST_P(Classes, TwoProcessesExchange) {
    PluginHandle plugin = makeUdp(GetParam());
    ASSERT_NE(plugin, nullptr);
    Link link(plugin.get(), GetParam());
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        PluginHandle own = makeUdp(GetParam());
        const VESK_Transport_Address_t address = loopbackAddress(GetParam());
        VESK_Transport_SendResource_t sender = nullptr;
        char byte = 1;
        VESK_Transport_Buffer_t buffer{1, &byte};
        int sent = 0;
        if (own && own->create_sendresource_srEA(own.get(), &sender, &address, link.port, 0)) {
            for (int i = 0; i < 3; ++i) {
                sent += own->send(own.get(), &sender, nullptr, 0, 0, &buffer, 1, nullptr);
            }
        }
        _exit(sent == 3 ? 0 : 1);
    }
    // A watchdog wakes the receiver should the child never send.
    std::atomic<bool> done{false};
    std::thread watchdog([&] {
        for (int i = 0; i < 500 && !done; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        if (!done) plugin->unblock_receive_rrEA(plugin.get(), &link.receiver, nullptr);
    });
    int received = 0;
    for (int i = 0; i < 3; ++i) received += link.receive() == Bytes{1} ? 1 : 0;
    done = true;
    watchdog.join();
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(received, 3);
}

// Each allocation of a whole exchange (factory, resources, send, receive,
// delete) fails in turn: nothing stays open or allocated.
TEST_P(Classes, NoDescriptorOrBlockOutlivesAnAllocationFailure) {
    const Ip ip = GetParam();
    LogCapture quiet(0);
    struct Outcome {
        bool exchanged = false;
        int descriptors_left = 0;
    };
    const int descriptors = openDescriptorCount();
    const SweepSummary summary = sweepAllocationFailures(
        [&] {
            Outcome outcome;
            if (PluginHandle plugin = makeUdp(ip)) {
                VESK_Transport_Plugin *p = plugin.get();
                VESK_Transport_RecvResource_t receiver = nullptr;
                VESK_Transport_SendResource_t sender = nullptr;
                VESK_Transport_Port_t port = 0;
                const VESK_Transport_Address_t address = loopbackAddress(ip);
                char byte = 1;
                VESK_Transport_Buffer_t buffer{1, &byte};
                VESK_Transport_Message_t message{};
                outcome.exchanged = p->create_recvresource_rrEA(p, &receiver, &port, nullptr, 0) &&
                                    p->create_sendresource_srEA(p, &sender, &address, port, 0) &&
                                    p->send(p, &sender, nullptr, 0, 0, &buffer, 1, nullptr) &&
                                    p->receive_rEA(p, &receiver, &buffer, &message, nullptr);
                // Resources left to delete_cEA on purpose: it must release them.
            }
            outcome.descriptors_left = openDescriptorCount() - descriptors;
            return outcome;
        },
        [](const SweepStep &step, Outcome &outcome) {
            EXPECT_EQ(outcome.descriptors_left, 0);
            if (!step.failed) {
                EXPECT_TRUE(outcome.exchanged);
            }
        },
        [](Outcome &) {});
    EXPECT_TRUE(summary.completed);
    EXPECT_GE(summary.failurePoints, 4);
}

}  // namespace
