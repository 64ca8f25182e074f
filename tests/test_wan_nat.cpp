// Two WAN transports through a real NAT, in three network namespaces made
// by the test: "private" (192.0.2.2, default route via the router),
// "router" (192.0.2.1 inside, 198.51.100.1 outside, nftables masquerading
// UDP to ports 40000-40999) and "public" (198.51.100.2, no route back to
// 192.0.2.0/24). Nothing is sent anywhere else; every wait has a deadline.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cinttypes>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/NetNamespace.hpp"
#include "support/PropertyList.hpp"
#include "vesk_transport/Support.h"
#include "vesk_transport/platform/UdpWan.h"

namespace {

using namespace std::chrono_literals;
using Address = VESK_Transport_Address_t;

// Network namespaces held by descriptors only (nothing named or mounted
// outlives the test), each made by unshare() on this thread, which goes
// straight back home.
struct Hosts {
    int home = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    std::map<std::string, int> held;
    ~Hosts() {
        for (const auto &entry : held) close(entry.second);
        close(home);
    }
    bool make(const std::string &name) {
        if (geteuid() != 0 || home < 0 || unshare(CLONE_NEWNET) != 0) return false;
        held[name] = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
        setns(home, CLONE_NEWNET);
        return run(name, {"ip link set lo up"});
    }
    // The calling thread is in the namespace while the returned guard lives.
    std::shared_ptr<void> enter(const std::string &name) {
        setns(held.at(name), CLONE_NEWNET);
        return {nullptr, [this](void *) { setns(home, CLONE_NEWNET); }};
    }
    // Runs each program (words split at spaces) in the namespace, up to a failure.
    bool run(const std::string &name, std::initializer_list<std::string> programs) {
        const auto inside = enter(name);
        for (const std::string &words : programs) {
            if (!vesk::test::run(words)) return false;
        }
        return true;
    }
    // What ip(8) takes for "netns": the held descriptor through /proc.
    std::string path(const std::string &name) const {
        return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(held.at(name));
    }
};

template <class Condition>
bool waitFor(Condition condition, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

// One WAN transport in a namespace, with one receive resource for RTPS port
// 7400 and a thread that receives on it, as a participant's does.
struct Side {
    Side(Hosts &all, const char *where, const std::string &listener) : hosts(all), name(where) {
        const auto inside = hosts.enter(name);  // sockets and threads there
        vesk::test::PropertyList properties{{"binding_ping_period", "100"},
                                            {"binding_ping_mapping_expiration", "300"}};
        if (!listener.empty()) properties.add("wan_listener_ptr", listener);
        plugin = VESK_Transport_UDPv4_WAN_create_from_properties_with_prefix(nullptr,
                                                                             properties.get(), "");
        VESK_Transport_Port_t port = 7400;
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
                user.emplace_back(message.buffer.pointer, size_t(message.buffer.length));
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
    bool sendTo(const Address &to, VESK_Transport_Port_t port, std::string text) {
        const auto inside = hosts.enter(name);
        if (send == nullptr && !plugin->create_sendresource_srEA(plugin, &send, &to, port, 0))
            return false;
        VESK_Transport_Buffer_t buffer{KEL_INT32(text.size()), text.data()};
        return plugin->send(plugin, &send, &to, port, 0, &buffer, 1, nullptr) != 0;
    }
    VESK_Transport_UDP_WAN_PingInfo info() const {
        VESK_Transport_UDP_WAN_PingInfo out{};
        VESK_Transport_UDP_WAN_get_ping_info(plugin, &out);
        return out;
    }
    std::vector<std::string> received() {
        std::lock_guard<std::mutex> lock(mutex);
        return user;
    }

    Hosts &hosts;
    const char *name;
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
    Hosts hosts;
    if (!hosts.make("private") || !hosts.make("router") || !hosts.make("public")) {
        GTEST_SKIP() << "cannot make network namespaces here (not root, or no ip)";
    }
    ASSERT_TRUE(hosts.run(
        "router", {"ip link add r-in type veth peer name p-eth netns " + hosts.path("private"),
                   "ip link add r-out type veth peer name q-eth netns " + hosts.path("public"),
                   "ip addr add 192.0.2.1/24 dev r-in", "ip link set r-in up",
                   "ip addr add 198.51.100.1/24 dev r-out", "ip link set r-out up",
                   "sysctl -qw net.ipv4.ip_forward=1"}));
    ASSERT_TRUE(hosts.run("private", {"ip addr add 192.0.2.2/24 dev p-eth", "ip link set p-eth up",
                                      "ip route add default via 192.0.2.1"}));
    ASSERT_TRUE(
        hosts.run("public", {"ip addr add 198.51.100.2/24 dev q-eth", "ip link set q-eth up"}));
    if (!hosts.run("router",
                   {"nft add table ip nat",
                    "nft add chain ip nat post { type nat hook postrouting priority 100 ; }",
                    "nft add rule ip nat post oifname r-out meta l4proto udp masquerade to "
                    ":40000-40999"})) {
        GTEST_SKIP() << "nftables refuses the masquerade rule in the router namespace";
    }
    Resolved resolved;
    const VESK_Transport_UDP_WAN_Listener listener{&resolved, onResolved};
    ASSERT_EQ(1, VESK_Transport_UDP_WAN_register_listener(&listener));
    char listener_text[32];
    std::snprintf(listener_text, sizeof listener_text, "0x%" PRIxPTR,
                  reinterpret_cast<std::uintptr_t>(&listener));
    {
        Side inside_nat(hosts, "private", listener_text), outside(hosts, "public", "");
        ASSERT_TRUE(inside_nat.receiver.joinable() && outside.receiver.joinable());
        ASSERT_EQ(1, VESK_Transport_UDP_change_binding_ping_generation(outside.plugin, 0));

        // The private side sends to the public one (at its host port 7400 +
        // port_offset 125): from then on it pings it every 100 ms from its
        // receive socket.
        const auto started = std::chrono::steady_clock::now();
        const Address public_side{{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 198, 51, 100, 2}};
        ASSERT_TRUE(inside_nat.sendTo(public_side, 7525, "to the public side"));
        ASSERT_TRUE(waitFor([&] { return outside.info().pings_received >= 5; }, 2s));
        const auto elapsed = std::chrono::steady_clock::now() - started;
        EXPECT_TRUE(elapsed >= 350ms && elapsed <= 1200ms) << "five pings are not one per period";

        // The listener and the locator learn what the public side observed:
        // the router's outside address and the port the NAT chose.
        ASSERT_TRUE(waitFor([&] { return inside_nat.info().resolved == 1; }, 1s));
        const VESK_Transport_UDP_WAN_PingInfo seen = outside.info();
        const Address router{{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 198, 51, 100, 1}};
        EXPECT_EQ(0, std::memcmp(&seen.last_pinged_by, &router, 16));
        EXPECT_TRUE(seen.last_pinged_by_port >= 40000 && seen.last_pinged_by_port <= 40999);
        {
            std::lock_guard<std::mutex> lock(resolved.mutex);
            ASSERT_EQ(1u, resolved.calls.size()) << "an unchanged mapping was reported again";
            EXPECT_EQ(0, std::memcmp(&resolved.calls[0].first, &router, 16));
            EXPECT_EQ(seen.last_pinged_by_port, resolved.calls[0].second);
        }
        Address locator{};
        VESK_Transport_Port_t port = 0;
        ASSERT_EQ(1, VESK_Transport_UDP_WAN_get_locator(inside_nat.plugin, 7400, &locator, &port));
        EXPECT_EQ(0, std::memcmp(&locator, &router, 16));
        EXPECT_EQ(seen.last_pinged_by_port, port);

        // User data back through the mapping, to the locator.
        ASSERT_TRUE(outside.sendTo(locator, port, "to the private side"));
        ASSERT_TRUE(waitFor([&] { return inside_nat.received().size() == 1; }, 1s));
        EXPECT_EQ("to the private side", inside_nat.received()[0]);
        EXPECT_EQ(std::vector<std::string>{"to the public side"}, outside.received());

        // Generation off (its effect on the pings: in test_wan): the public
        // side forgets the peer after its 300 ms expiration.
        ASSERT_EQ(1, VESK_Transport_UDP_change_binding_ping_generation(inside_nat.plugin, 0));
        ASSERT_TRUE(waitFor([&] { return outside.info().peer_count == 0; }, 2s));

        // Statistics, now settled: pings and answers apart from the user datagrams.
        VESK_Transport_UDP_Statistics sender{};
        ASSERT_EQ(1, VESK_Transport_UDP_get_statistics(inside_nat.plugin, &sender));
        const VESK_Transport_UDP_WAN_PingInfo pinger = inside_nat.info();
        EXPECT_TRUE(sender.user_packets_sent == 1 && sender.user_packets_received == 1);
        EXPECT_EQ(pinger.pings_sent, sender.binding_ping_packets_sent);
        EXPECT_EQ(pinger.answers_received, sender.binding_ping_packets_received);
        EXPECT_GE(sender.binding_ping_event_count, 5u);
    }
    EXPECT_EQ(1, VESK_Transport_UDP_WAN_unregister_listener(&listener));
}

}  // namespace
