// Two WAN transports through a real NAT, in three network namespaces made
// by the test: "private" (192.0.2.2, default route via the router),
// "router" (192.0.2.1 inside, 198.51.100.1 outside, nftables masquerading
// UDP to ports 40000-40999) and "public" (198.51.100.2, no route back to
// 192.0.2.0/24). Nothing is sent anywhere else; every wait has a deadline.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cinttypes>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/PropertyList.hpp"
#include "support/WanNamespaces.hpp"
#include "vesk_transport/Support.h"
#include "vesk_transport/platform/UdpWan.h"

namespace {

using namespace std::chrono_literals;
using Address = VESK_Transport_Address_t;

constexpr std::uint32_t kOutside = 0xC6336401;  // 198.51.100.1, the router's outside
constexpr std::uint32_t kPublic = 0xC6336402;   // 198.51.100.2
constexpr VESK_Transport_Port_t kRtpsPort = 7400;
constexpr VESK_Transport_Port_t kHostPort = 7525;  // 7400 + port_offset 125

Address ipv4(std::uint32_t value) {
    Address address{};
    for (int i = 0; i < 4; ++i) {
        address.network_ordered_value[12 + i] = static_cast<unsigned char>(value >> (24 - 8 * i));
    }
    return address;
}

bool waitFor(const std::function<bool()> &condition, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

// One WAN transport with one receive resource for RTPS port 7400 and a
// thread that receives on it, as a participant's receive thread does.
struct Side {
    Side(vesk::test::Namespaces &namespaces, const char *name, const std::string &listener) {
        vesk::test::Namespaces::Inside inside(namespaces, name);  // sockets and threads there
        vesk::test::PropertyList properties{{"binding_ping_period", "100"},
                                            {"binding_ping_mapping_expiration", "300"}};
        if (!listener.empty()) properties.add("wan_listener_ptr", listener);
        plugin = VESK_Transport_UDPv4_WAN_create_from_properties_with_prefix(nullptr,
                                                                             properties.get(), "");
        VESK_Transport_Port_t port = kRtpsPort;
        if (plugin == nullptr ||
            !plugin->create_recvresource_rrEA(plugin, &receive, &port, nullptr, 0))
            return;
        receiver = std::thread([this] {
            char buffer[1500];
            while (!stop.load()) {
                VESK_Transport_Buffer_t in{sizeof buffer, buffer};
                VESK_Transport_Message_t message{};
                if (plugin->receive_rEA(plugin, &receive, &in, &message, nullptr) == 0) continue;
                std::lock_guard<std::mutex> lock(mutex);
                user.emplace_back(message.buffer.pointer,
                                  static_cast<size_t>(message.buffer.length));
            }
        });
    }
    ~Side() {
        stop.store(true);  // the flag, then the wake (it stays until taken)
        if (receiver.joinable()) {
            plugin->unblock_receive_rrEA(plugin, &receive, nullptr);
            receiver.join();
        }
        if (send != nullptr) plugin->destroy_sendresource_srEA(plugin, &send);
        if (receive != nullptr) plugin->destroy_recvresource_rrEA(plugin, &receive);
        if (plugin != nullptr) plugin->delete_cEA(plugin, nullptr);
    }
    bool sendTo(vesk::test::Namespaces &namespaces, const char *name, const Address &to,
                VESK_Transport_Port_t port, const std::string &text) {
        vesk::test::Namespaces::Inside inside(namespaces, name);
        if (send == nullptr && !plugin->create_sendresource_srEA(plugin, &send, &to, port, 0))
            return false;
        VESK_Transport_Buffer_t buffer{static_cast<KEL_INT32>(text.size()),
                                       const_cast<char *>(text.data())};
        return plugin->send(plugin, &send, &to, port, 0, &buffer, 1, nullptr) != 0;
    }
    VESK_Transport_UDP_WAN_PingInfo info() const {
        VESK_Transport_UDP_WAN_PingInfo out{};
        VESK_Transport_UDP_WAN_get_ping_info(plugin, &out);
        return out;
    }
    VESK_Transport_UDP_Statistics statistics() const {
        VESK_Transport_UDP_Statistics out{};
        VESK_Transport_UDP_get_statistics(plugin, &out);
        return out;
    }
    std::vector<std::string> received() {
        std::lock_guard<std::mutex> lock(mutex);
        return user;
    }

    VESK_Transport_Plugin *plugin = nullptr;
    VESK_Transport_RecvResource_t receive = nullptr;
    VESK_Transport_SendResource_t send = nullptr;
    std::thread receiver;
    std::atomic<bool> stop{false};
    std::mutex mutex;
    std::vector<std::string> user;
};

struct Resolved {
    std::mutex mutex;
    std::vector<std::pair<Address, VESK_Transport_Port_t>> calls;
};

void onResolved(void *data, const Address *address, VESK_Transport_Port_t port) {
    auto *resolved = static_cast<Resolved *>(data);
    std::lock_guard<std::mutex> lock(resolved->mutex);
    resolved->calls.emplace_back(*address, port);
}

TEST(WanNat, PingsThroughTheNatResolveItsMappingAndCarryUserData) {
    vesk::test::Namespaces namespaces;
    const std::string why = namespaces.unavailable();
    if (!why.empty()) GTEST_SKIP() << why;
    if (!namespaces.create("private") || !namespaces.create("router") ||
        !namespaces.create("public")) {
        GTEST_SKIP() << "the system refuses to make network namespaces";
    }
    ASSERT_TRUE(
        namespaces.run("router",
                       "ip link add r-in type veth peer name p-eth netns " +
                           namespaces.path("private") +
                           " && ip link add r-out type veth peer name q-eth netns " +
                           namespaces.path("public") +
                           " && ip addr add 192.0.2.1/24 dev r-in && ip link set r-in up"
                           " && ip addr add 198.51.100.1/24 dev r-out && ip link set r-out up"
                           " && sysctl -qw net.ipv4.ip_forward=1") &&
        namespaces.run("private",
                       "ip addr add 192.0.2.2/24 dev p-eth && ip link set p-eth up"
                       " && ip route add default via 192.0.2.1") &&
        namespaces.run("public", "ip addr add 198.51.100.2/24 dev q-eth && ip link set q-eth up"));
    if (!namespaces.run("router",
                        "nft add table ip nat && nft add chain ip nat post '{ type nat hook "
                        "postrouting priority 100 ; }' && nft add rule ip nat post oifname "
                        "r-out meta l4proto udp masquerade to :40000-40999")) {
        GTEST_SKIP() << "nftables refuses the masquerade rule in the router namespace";
    }
    Resolved resolved;
    const VESK_Transport_UDP_WAN_Listener listener{&resolved, onResolved};
    ASSERT_EQ(1, VESK_Transport_UDP_WAN_register_listener(&listener));
    char listener_text[32];
    std::snprintf(listener_text, sizeof listener_text, "0x%" PRIxPTR,
                  reinterpret_cast<std::uintptr_t>(&listener));
    {
        Side inside_nat(namespaces, "private", listener_text);
        Side outside(namespaces, "public", "");
        ASSERT_TRUE(inside_nat.receiver.joinable() && outside.receiver.joinable());
        ASSERT_EQ(1, VESK_Transport_UDP_change_binding_ping_generation(outside.plugin, 0));

        // The private side sends to the public one: from then on it pings it
        // every 100 ms from its receive socket.
        const auto started = std::chrono::steady_clock::now();
        ASSERT_TRUE(inside_nat.sendTo(namespaces, "private", ipv4(kPublic), kHostPort,
                                      "to the public side"));
        ASSERT_TRUE(waitFor([&] { return outside.info().pings_received >= 5; }, 2s));
        const auto elapsed = std::chrono::steady_clock::now() - started;
        EXPECT_TRUE(elapsed >= 350ms && elapsed <= 1200ms) << "five pings are not one per period";

        // The listener learns what the public side observed: the router's
        // outside address and the port the NAT chose.
        ASSERT_TRUE(waitFor([&] { return inside_nat.info().resolved == 1; }, 1s));
        const VESK_Transport_UDP_WAN_PingInfo seen = outside.info();
        EXPECT_EQ(0, std::memcmp(&seen.last_pinged_by, ipv4(kOutside).network_ordered_value, 16));
        EXPECT_TRUE(seen.last_pinged_by_port >= 40000 && seen.last_pinged_by_port <= 40999);
        {
            std::lock_guard<std::mutex> lock(resolved.mutex);
            ASSERT_EQ(1u, resolved.calls.size()) << "an unchanged mapping was reported again";
            EXPECT_EQ(0, std::memcmp(&resolved.calls[0].first, &seen.last_pinged_by, 16));
            EXPECT_EQ(seen.last_pinged_by_port, resolved.calls[0].second);
        }
        Address locator{};
        VESK_Transport_Port_t locator_port = 0;
        ASSERT_EQ(1, VESK_Transport_UDP_WAN_get_locator(inside_nat.plugin, kRtpsPort, &locator,
                                                        &locator_port));
        EXPECT_EQ(0, std::memcmp(&locator, &seen.last_pinged_by, 16));
        EXPECT_EQ(seen.last_pinged_by_port, locator_port);

        // User data back through the mapping, to the locator.
        ASSERT_TRUE(
            outside.sendTo(namespaces, "public", locator, locator_port, "to the private side"));
        ASSERT_TRUE(waitFor([&] { return inside_nat.received().size() == 1; }, 1s));
        EXPECT_EQ("to the private side", inside_nat.received()[0]);
        EXPECT_EQ(std::vector<std::string>{"to the public side"}, outside.received());

        // Generation off: the pings stop and the public side forgets the peer.
        ASSERT_EQ(1, VESK_Transport_UDP_change_binding_ping_generation(inside_nat.plugin, 0));
        ASSERT_TRUE(waitFor([&] { return outside.info().peer_count == 0; }, 2s));
        const KEL_UINT64 pings = outside.info().pings_received;
        std::this_thread::sleep_for(250ms);
        EXPECT_EQ(pings, outside.info().pings_received);

        // Statistics, now settled: pings and answers apart from the user datagrams.
        const VESK_Transport_UDP_Statistics sender = inside_nat.statistics();
        const VESK_Transport_UDP_WAN_PingInfo pinger = inside_nat.info();
        EXPECT_EQ(1u, sender.user_packets_sent);
        EXPECT_EQ(1u, sender.user_packets_received);
        EXPECT_EQ(pinger.pings_sent, sender.binding_ping_packets_sent);
        EXPECT_EQ(pinger.answers_received, sender.binding_ping_packets_received);
        EXPECT_GE(sender.binding_ping_event_count, 5u);
    }
    EXPECT_EQ(1, VESK_Transport_UDP_WAN_unregister_listener(&listener));
}

}  // namespace
