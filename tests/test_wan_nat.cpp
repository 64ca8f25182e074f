// Binding pings through a real NAT. Three network namespaces made by the
// test: "private" (a WAN side at 192.0.2.2 whose default route is the
// router), "router" (192.0.2.1 inside, 198.51.100.1 outside, nftables
// masquerading UDP to ports 40000-40999) and "public" (a WAN side at
// 198.51.100.2 with no route back to 192.0.2.0/24). Nothing is sent
// anywhere else; every wait has a deadline.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/WanNamespaces.hpp"
#include "vesk_transport/platform/UdpWan.h"
#include "vesk_transport/platform/udp/Wan.hpp"
#include "vesk_transport/platform/udp/WanEngine.hpp"

namespace {

using namespace std::chrono_literals;
using vesk::udp::WanEngine;

constexpr std::uint32_t kPrivate = 0xC0000202;  // 192.0.2.2
constexpr std::uint32_t kOutside = 0xC6336401;  // 198.51.100.1, the router's outside
constexpr std::uint32_t kPublic = 0xC6336402;   // 198.51.100.2
constexpr std::uint16_t kPort = 7525;           // RTPS port 7400 + offset 125
constexpr std::uint32_t kPeriodMs = 100;
constexpr std::uint32_t kExpirationMs = 300;

// Waits for a condition, polling, up to a deadline.
bool waitFor(const std::function<bool()> &condition, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

int boundSocket(std::uint32_t ipv4, std::uint16_t port) {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(ipv4);
    address.sin_port = htons(port);
    if (fd >= 0 && bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

void sendTo(int fd, std::uint32_t ipv4, std::uint16_t port, const std::string &text) {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(ipv4);
    to.sin_port = htons(port);
    sendto(fd, text.data(), text.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
}

// One WAN side: its receive socket, its engine and the receive path that
// offers every datagram to the engine first, as the plugin's does.
struct Side {
    Side(int socket_fd, const VESK_Transport_UDP_WAN_Listener *listener)
        : fd(socket_fd), engine(settings(listener)) {}
    ~Side() {
        stop.store(true);
        if (pump.joinable()) pump.join();
        engine.stop();
        if (fd >= 0) close(fd);
    }

    static vesk::udp::WanSettings settings(const VESK_Transport_UDP_WAN_Listener *listener) {
        vesk::udp::WanSettings s;
        s.period_ms = kPeriodMs;
        s.expiration_ms = kExpirationMs;
        s.listener = listener;
        return s;
    }

    void startPump() {
        pump = std::thread([this] {
            std::uint8_t buffer[2048];
            const auto deadline = std::chrono::steady_clock::now() + 10s;  // a bound, never reached
            while (!stop.load() && std::chrono::steady_clock::now() < deadline) {
                pollfd readable{fd, POLLIN, 0};
                if (poll(&readable, 1, 20) <= 0) continue;
                sockaddr_in from{};
                socklen_t length = sizeof from;
                const ssize_t size = recvfrom(fd, buffer, sizeof buffer, MSG_DONTWAIT,
                                              reinterpret_cast<sockaddr *>(&from), &length);
                if (size < 0) continue;
                const std::span<const std::uint8_t> datagram(buffer, static_cast<size_t>(size));
                const std::uint32_t source = ntohl(from.sin_addr.s_addr);
                const std::uint16_t source_port = ntohs(from.sin_port);
                std::lock_guard<std::mutex> lock(mutex);
                if (engine.handleDatagram(fd, datagram, source, source_port, WanEngine::nowMs())) {
                    vesk::udp::PingMessage message;
                    if (vesk::udp::decodePing(datagram, message) == vesk::udp::PingError::None &&
                        message.kind == vesk::udp::PingKind::Ping) {
                        ++pings;
                        ping_source = source;
                        ping_source_port = source_port;
                    }
                    continue;
                }
                user.emplace_back(reinterpret_cast<const char *>(buffer), size);
                user_source_port = source_port;
            }
        });
    }

    VESK_Transport_UDP_WAN_PingInfo info() const {
        VESK_Transport_UDP_WAN_PingInfo out{};
        engine.info(out);
        return out;
    }
    int pingCount() {
        std::lock_guard<std::mutex> lock(mutex);
        return pings;
    }

    int fd;
    WanEngine engine;
    std::thread pump;
    std::atomic<bool> stop{false};
    std::mutex mutex;
    int pings = 0;
    std::uint32_t ping_source = 0;
    std::uint16_t ping_source_port = 0;
    std::vector<std::string> user;
    std::uint16_t user_source_port = 0;
};

struct Resolved {
    std::mutex mutex;
    std::vector<std::pair<std::uint32_t, VESK_Transport_Port_t>> calls;
};

void onResolved(void *data, const VESK_Transport_Address_t *address, VESK_Transport_Port_t port) {
    auto *resolved = static_cast<Resolved *>(data);
    const unsigned char *bytes = address->network_ordered_value;
    std::lock_guard<std::mutex> lock(resolved->mutex);
    resolved->calls.emplace_back(
        static_cast<std::uint32_t>(bytes[12]) << 24 | bytes[13] << 16 | bytes[14] << 8 | bytes[15],
        port);
}

class WanNat : public ::testing::Test {
protected:
    void SetUp() override {
        const std::string why = namespaces_.unavailable();
        if (!why.empty()) GTEST_SKIP() << why;
        if (!namespaces_.create("private") || !namespaces_.create("router") ||
            !namespaces_.create("public")) {
            GTEST_SKIP() << "the system refuses to make network namespaces";
        }
        const bool built =
            namespaces_.run("router", "ip link add r-in type veth peer name p-eth netns " +
                                          namespaces_.path("private") +
                                          " && ip link add r-out type veth peer name q-eth netns " +
                                          namespaces_.path("public") +
                                          " && ip addr add 192.0.2.1/24 dev r-in"
                                          " && ip addr add 198.51.100.1/24 dev r-out"
                                          " && ip link set r-in up && ip link set r-out up"
                                          " && sysctl -qw net.ipv4.ip_forward=1") &&
            namespaces_.run("private",
                            "ip addr add 192.0.2.2/24 dev p-eth && ip link set p-eth up"
                            " && ip route add default via 192.0.2.1") &&
            namespaces_.run("public",
                            "ip addr add 198.51.100.2/24 dev q-eth && ip link set q-eth up");
        ASSERT_TRUE(built) << "cannot build the veth topology";
        if (!namespaces_.run("router",
                             "nft add table ip nat && nft add chain ip nat post '{ type nat hook "
                             "postrouting priority 100 ; }' && nft add rule ip nat post oifname "
                             "r-out meta l4proto udp masquerade to :40000-40999")) {
            GTEST_SKIP() << "nftables refuses the masquerade rule in the router namespace";
        }
        listener_ = {&resolved_, onResolved};
        ASSERT_EQ(1, VESK_Transport_UDP_WAN_register_listener(&listener_));
        {
            vesk::test::Namespaces::Inside inside(namespaces_, "private");
            private_ = std::make_unique<Side>(boundSocket(INADDR_ANY, kPort), &listener_);
        }
        {
            vesk::test::Namespaces::Inside inside(namespaces_, "public");
            public_ = std::make_unique<Side>(boundSocket(kPublic, kPort), nullptr);
        }
        ASSERT_GE(private_->fd, 0);
        ASSERT_GE(public_->fd, 0);
        private_->engine.addSocket(private_->fd, 7400);
        private_->engine.addPeer(kPublic, kPort);
        public_->engine.addSocket(public_->fd, 7400);
        private_->startPump();
        public_->startPump();
    }

    void TearDown() override {
        private_.reset();
        public_.reset();
        VESK_Transport_UDP_WAN_unregister_listener(&listener_);
    }

    vesk::test::Namespaces namespaces_;
    Resolved resolved_;
    VESK_Transport_UDP_WAN_Listener listener_{};
    std::unique_ptr<Side> private_;
    std::unique_ptr<Side> public_;
};

TEST_F(WanNat, PingsResolveTheMappingThatTheNatChose) {
    // Pings go out from the timer thread every period.
    const auto started = std::chrono::steady_clock::now();
    ASSERT_TRUE(public_->engine.start());  // its timer expires the peers it heard
    ASSERT_TRUE(private_->engine.start());
    ASSERT_TRUE(waitFor([&] { return public_->pingCount() >= 5; }, 2s));
    const auto elapsed = std::chrono::steady_clock::now() - started;
    EXPECT_GE(elapsed, 350ms) << "five pings came faster than one per period";
    EXPECT_LE(elapsed, 900ms) << "five pings came slower than one per period";

    // The listener learns what the public side saw: the router's outside
    // address and the port that the NAT chose.
    ASSERT_TRUE(waitFor(
        [&] {
            std::lock_guard<std::mutex> lock(resolved_.mutex);
            return !resolved_.calls.empty();
        },
        1s));
    std::uint16_t nat_port = 0;
    {
        std::lock_guard<std::mutex> lock(public_->mutex);
        EXPECT_EQ(kOutside, public_->ping_source);
        nat_port = public_->ping_source_port;
    }
    EXPECT_GE(nat_port, 40000);
    EXPECT_LE(nat_port, 40999);
    {
        std::lock_guard<std::mutex> lock(resolved_.mutex);
        ASSERT_EQ(1u, resolved_.calls.size()) << "an unchanged mapping was reported again";
        EXPECT_EQ(kOutside, resolved_.calls[0].first);
        EXPECT_EQ(nat_port, resolved_.calls[0].second);
    }
    EXPECT_EQ(1, public_->info().peer_count);

    // User datagrams both ways through the mapping; pings are not user data.
    sendTo(public_->fd, kOutside, nat_port, "to the private side");
    sendTo(private_->fd, kPublic, kPort, "to the public side");
    ASSERT_TRUE(waitFor(
        [&] {
            std::lock_guard<std::mutex> a(private_->mutex);
            std::lock_guard<std::mutex> b(public_->mutex);
            return private_->user.size() == 1 && public_->user.size() == 1;
        },
        1s));
    EXPECT_EQ("to the private side", private_->user[0]);
    EXPECT_EQ("to the public side", public_->user[0]);
    const auto sender = private_->info();
    const auto answerer = public_->info();
    EXPECT_GE(sender.pings_sent, 5u);
    EXPECT_EQ(sender.answers_received, answerer.answers_sent);
    EXPECT_EQ(0u, sender.malformed_received + answerer.malformed_received);

    // Generation off: the pings stop and the public side forgets the peer.
    private_->engine.setGeneration(false);
    const int pings_at_stop = public_->pingCount();
    ASSERT_TRUE(waitFor([&] { return public_->info().peer_count == 0; }, 2s));
    public_->engine.tick(WanEngine::nowMs());
    EXPECT_LE(public_->pingCount(), pings_at_stop + 1);  // one may have been in flight
}

}  // namespace
