// The UDPv4 WAN transport's pure parts: the port rule, the binding-ping
// codec, the peer table and warning limiter, and the listener registry with
// the constructor's refusal of unregistered listeners.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "support/PropertyList.hpp"
#include "support/TestSupport.hpp"
#include "vesk_transport/Support.h"
#include "vesk_transport/platform/UdpWan.h"
#include "vesk_transport/platform/udp/Wan.hpp"
#include "vesk_transport/platform/udp/WanEngine.hpp"
#include "vesk_transport/platform/udp/WanHooks.hpp"

namespace {

using namespace vesk::udp;
using Bytes = std::vector<std::uint8_t>;
using Mapping = VESK_Transport_UDP_WAN_CommPortsMappingInfo;

// --- ports -------------------------------------------------------------------

TEST(WanPorts, RuleTable) {
    // rtps, host, public, ref_count
    const std::vector<Mapping> json = {
        {0, 7400, 17400, 0}, {7410, 7410, 17410, 0}, {7411, 7500, 0, 0}};
    const std::vector<Mapping> single = {{7400, 7400, 7400, 0}};
    const std::vector<Mapping> no_default = {{0, 0, 0, 0}, {7410, 7411, 7412, 0}};
    struct Row {
        const std::vector<Mapping> *list;
        std::int32_t offset;
        VESK_Transport_Port_t rtps;
        bool mapped;
        std::uint16_t host, pub;
        int index;
    };
    const Row rows[] = {
        {&json, 125, 7410, true, 7410, 17410, 1},   // the mapping of P
        {&json, 125, 7411, true, 7500, 7500, 2},    // public 0: the host port
        {&json, 125, 9999, true, 7400, 17400, 0},   // the default, element 0
        {&single, 125, 7400, true, 7400, 7400, 0},  // the single port, exactly
        {&single, 125, 7401, true, 7400, 7400, 0},  // the single port for others
        {&no_default, 125, 7410, true, 7411, 7412, 1},
        {&no_default, 125, 7000, true, 7125, 7125, -1},  // default host 0: offset
        {nullptr, 125, 7400, true, 7525, 7525, -1},
        {nullptr, 0, 65535, true, 65535, 65535, -1},
        {nullptr, 1, 65535, false, 0, 0, -1},  // beyond 65535
        {nullptr, 125, 0, false, 0, 0, -1},    // no RTPS port 0
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.rtps);
        const auto choice =
            choosePorts(row.list ? row.list->data() : nullptr,
                        row.list ? static_cast<int>(row.list->size()) : 0, row.offset, row.rtps);
        ASSERT_EQ(row.mapped, choice.has_value());
        if (!choice) continue;
        EXPECT_EQ(row.host, choice->host_port);
        EXPECT_EQ(row.pub, choice->public_port);
        EXPECT_EQ(row.index, choice->mapping_index);
    }
}

// --- binding-ping messages ---------------------------------------------------

Bytes encode(const PingMessage &message) {
    Bytes out(kPingMessageSizeMax);
    out.resize(encodePing(message, out));
    return out;
}

TEST(WanPing, LayoutAndRoundTrip) {
    const PingMessage ping{PingKind::Ping, 0x01020304, 7410, 0, 0};
    EXPECT_EQ((Bytes{'V', 'B', 'P', '!', 1, 1, 0, 0, 1, 2, 3, 4, 0, 0, 0x1c, 0xf2}), encode(ping));
    const PingMessage answer{PingKind::Answer, 9, 7400, 0xC6336401 /* 198.51.100.1 */, 40001};
    const Bytes bytes = encode(answer);
    ASSERT_EQ(kAnswerSize, bytes.size());
    EXPECT_EQ((Bytes{0, 0, 0, 0, 198, 51, 100, 1, 0x9c, 0x41, 0, 0}),
              Bytes(bytes.begin() + 24, bytes.end()));
    for (const PingMessage &message : {ping, answer}) {
        PingMessage decoded;
        ASSERT_EQ(PingError::None, decodePing(encode(message), decoded));
        EXPECT_EQ(message.kind, decoded.kind);
        EXPECT_EQ(message.sequence, decoded.sequence);
        EXPECT_EQ(message.rtps_port, decoded.rtps_port);
        EXPECT_EQ(message.observed_ipv4, decoded.observed_ipv4);
        EXPECT_EQ(message.observed_port, decoded.observed_port);
    }
    EXPECT_FALSE(isPingMessage(Bytes{'R', 'T', 'P', 'S', 2, 3, 1, 15}));
    Bytes small(kPingSize - 1);
    EXPECT_EQ(0u, encodePing(ping, small));
}

TEST(WanPing, MalformedTable) {
    const Bytes ping = encode({PingKind::Ping, 1, 7400, 0, 0});
    const Bytes answer = encode({PingKind::Answer, 1, 7400, 0xC0000201, 7400});
    auto with = [](Bytes bytes, std::size_t at, std::uint8_t value) {
        bytes[at] = value;
        return bytes;
    };
    auto zero = [](Bytes bytes, std::size_t from, std::size_t to) {
        std::fill(bytes.begin() + from, bytes.begin() + to, 0);
        return bytes;
    };
    auto cut = [](Bytes bytes, std::size_t size) {
        bytes.resize(size);
        return bytes;
    };
    struct Row {
        Bytes datagram;
        PingError error;
        const char *text;
    };
    const Row rows[] = {
        {cut(ping, 7), PingError::ShortHeader, "short header"},
        {with(ping, 4, 2), PingError::UnsupportedVersion, "unsupported version"},
        {with(ping, 5, 3), PingError::UnknownKind, "unknown kind"},
        {with(ping, 7, 1), PingError::ReservedBitsSet, "reserved bits set"},
        {with(answer, 35, 1), PingError::ReservedBitsSet, "reserved bits set"},
        {cut(ping, 15), PingError::WrongLength, "wrong length"},
        {cut(answer, 16), PingError::WrongLength, "wrong length"},
        {with(ping, 5, 2), PingError::WrongLength, "wrong length"},  // an answer of 16
        {with(answer, 16, 1), PingError::NotIpv4, "not an IPv4 address"},
        {zero(answer, 28, 32), PingError::NotIpv4, "not an IPv4 address"},
        {zero(answer, 32, 34), PingError::PortZero, "port 0"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.text);
        PingMessage untouched{PingKind::Answer, 77, 78, 79, 80};
        EXPECT_EQ(row.error, decodePing(row.datagram, untouched));
        EXPECT_STREQ(row.text, pingErrorText(row.error));
        EXPECT_EQ(77u, untouched.sequence);
    }
}

// --- peers and warnings ------------------------------------------------------

TEST(WanPeers, ExpireAndReplaceTheLeastRecent) {
    PeerTable table(2);
    const PeerKey a{1, 10}, b{2, 20}, c{3, 30};
    EXPECT_TRUE(table.touch(a, 0));
    EXPECT_TRUE(table.touch(b, 100));
    EXPECT_FALSE(table.touch(a, 200));  // known: refreshed
    EXPECT_TRUE(table.touch(c, 300));   // full: b (heard at 100) goes
    EXPECT_TRUE(table.contains(a) && table.contains(c) && !table.contains(b));
    table.expire(1199, 1000);
    EXPECT_EQ(2u, table.size());
    table.expire(1200, 1000);  // a was last heard at 200
    EXPECT_TRUE(!table.contains(a) && table.contains(c));
    table.expire(1'000'000, 0);  // 0: never
    EXPECT_EQ(1u, table.size());
    EXPECT_EQ(3000u, effectiveExpiration(1000, 0));
    EXPECT_EQ(50u, effectiveExpiration(1000, 50));
}

TEST(WanPeers, OneWarningPerSourcePerInterval) {
    WarningLimiter limiter(1, 60000);
    EXPECT_TRUE(limiter.allow(7, 0));
    EXPECT_FALSE(limiter.allow(7, 59999));
    EXPECT_TRUE(limiter.allow(7, 60000));
    EXPECT_TRUE(limiter.allow(8, 60001));  // replaces 7
    EXPECT_TRUE(limiter.allow(7, 60002));
}

// --- listener registry -------------------------------------------------------

int g_calls = 0;
void onResolved(void *data, const VESK_Transport_Address_t *, VESK_Transport_Port_t port) {
    ++g_calls;
    *static_cast<VESK_Transport_Port_t *>(data) = port;
}

TEST(WanListeners, RegisterUnregisterAndCall) {
    VESK_Transport_Port_t seen = 0;
    const VESK_Transport_UDP_WAN_Listener listener{&seen, onResolved};
    const VESK_Transport_Address_t address{};
    EXPECT_EQ(0, VESK_Transport_UDP_WAN_register_listener(nullptr));
    EXPECT_FALSE(notifyPublicMapping(&listener, address, 1));  // not registered
    EXPECT_EQ(1, VESK_Transport_UDP_WAN_register_listener(&listener));
    EXPECT_EQ(1, VESK_Transport_UDP_WAN_register_listener(&listener));  // once only
    EXPECT_TRUE(notifyPublicMapping(&listener, address, 40001));
    EXPECT_EQ(40001u, seen);
    EXPECT_EQ(1, VESK_Transport_UDP_WAN_unregister_listener(&listener));
    EXPECT_EQ(0, VESK_Transport_UDP_WAN_unregister_listener(&listener));
    EXPECT_EQ(0, VESK_Transport_UDP_WAN_is_listener_registered(&listener));

    std::vector<VESK_Transport_UDP_WAN_Listener> many(VESK_TRANSPORT_UDP_WAN_LISTENER_CAPACITY + 1);
    int accepted = 0;
    for (const auto &entry : many) accepted += VESK_Transport_UDP_WAN_register_listener(&entry);
    EXPECT_EQ(VESK_TRANSPORT_UDP_WAN_LISTENER_CAPACITY, accepted);
    for (const auto &entry : many) VESK_Transport_UDP_WAN_unregister_listener(&entry);
}

// A listener may unregister itself from its own callback.
void unregisterSelf(void *data, const VESK_Transport_Address_t *, VESK_Transport_Port_t) {
    ++g_calls;
    VESK_Transport_UDP_WAN_unregister_listener(
        static_cast<const VESK_Transport_UDP_WAN_Listener *>(data));
}

TEST(WanListeners, SelfUnregisterDoesNotWaitForItself) {
    VESK_Transport_UDP_WAN_Listener listener{nullptr, unregisterSelf};
    listener.listener_data = &listener;
    ASSERT_EQ(1, VESK_Transport_UDP_WAN_register_listener(&listener));
    g_calls = 0;
    EXPECT_TRUE(notifyPublicMapping(&listener, VESK_Transport_Address_t{}, 1));
    EXPECT_EQ(1, g_calls);
    EXPECT_EQ(0, VESK_Transport_UDP_WAN_is_listener_registered(&listener));
}

std::string pointerText(const void *pointer) {
    char text[32];
    std::snprintf(text, sizeof text, "0x%" PRIxPTR, reinterpret_cast<std::uintptr_t>(pointer));
    return text;
}

int openDescriptors() {
    namespace fs = std::filesystem;
    return static_cast<int>(std::distance(fs::directory_iterator("/proc/self/fd"), {}));
}

void mustNotBeCalled() {
    ++g_calls;
}

TEST(WanListeners, UnregisteredPointersAreRefused) {
    unsigned char buffer[sizeof(VESK_Transport_UDP_WAN_Listener)];
    std::memset(buffer, 0xA5, sizeof buffer);
    const char *kReason =
        "UDPv4_WAN transport: wan_listener_ptr does not point at a registered listener: register "
        "it with VESK_Transport_UDP_WAN_register_listener before creating the transport";
    struct Row {
        const char *what;
        const void *pointer;
    };
    const Row rows[] = {{"a function", reinterpret_cast<const void *>(&mustNotBeCalled)},
                        {"a buffer", buffer}};
    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        vesk::test::PropertyList properties{{"wan.wan_listener_ptr", pointerText(row.pointer)},
                                            {"wan.binding_ping_period", "10"}};
        const KEL_UINT64 blocks = vesk::test::liveHeapBlocks();
        const int descriptors = openDescriptors();
        vesk::test::LogCapture log;
        g_calls = 0;
        VESK_Transport_Plugin *plugin = VESK_Transport_UDPv4_WAN_create_from_properties_with_prefix(
            nullptr, properties.get(), "wan");
        EXPECT_EQ(nullptr, plugin);
        EXPECT_EQ(0, g_calls);
        EXPECT_EQ(0xA5, buffer[0]);
        EXPECT_EQ(blocks, vesk::test::liveHeapBlocks());
        EXPECT_EQ(descriptors, openDescriptors());
        const auto entries = log.entries();
        ASSERT_FALSE(entries.empty());
        EXPECT_EQ("VESK_Transport_UDPv4_WAN_newI", entries[0].function);
        EXPECT_EQ(vesk::test::summarize("KEL_LOG_CREATION_FAILURE_s", {kReason}), log.summary()[0]);
    }
}

TEST(WanListeners, RegisteredListenerIsAcceptedAndMappingsCountFromZero) {
    const VESK_Transport_UDP_WAN_Listener listener{nullptr, onResolved};
    ASSERT_EQ(1, VESK_Transport_UDP_WAN_register_listener(&listener));
    vesk::test::PropertyList properties{
        {"wan.wan_listener_ptr", pointerText(&listener)},
        {"wan.public_address", "203.0.113.5"},
        {"wan.comm_ports", R"({"default": {"host": 7400, "public": 17400},
                              "mappings": [{"rtps": 7410, "host": 7410}]})"}};
    VESK_Transport_Plugin *plugin = VESK_Transport_UDPv4_WAN_create_from_properties_with_prefix(
        nullptr, properties.get(), "wan");
    ASSERT_NE(nullptr, plugin);
    VESK_Transport_UDP_WAN_PortMapping mapping{};
    ASSERT_EQ(1, VESK_Transport_UDP_WAN_get_mapping(plugin, 7410, &mapping));
    EXPECT_EQ(7410, mapping.host_port);
    EXPECT_EQ(1, mapping.mapping_index);
    EXPECT_EQ(0, mapping.ref_count);
    ASSERT_EQ(1, VESK_Transport_UDP_WAN_get_mapping(plugin, 7777, &mapping));
    EXPECT_EQ(17400, mapping.public_port);
    VESK_Transport_Address_t address{};
    VESK_Transport_Port_t port = 0;
    ASSERT_EQ(1, VESK_Transport_UDP_WAN_get_locator(plugin, 7777, &address, &port));
    EXPECT_EQ(17400u, port);
    EXPECT_EQ(0, std::memcmp(address.network_ordered_value + 12, "\xCB\x00\x71\x05", 4));
    plugin->delete_cEA(plugin, nullptr);
    EXPECT_EQ(1, VESK_Transport_UDP_WAN_unregister_listener(&listener));

    vesk::test::LogCapture log;
    vesk::test::PropertyList bad_address{{"wan.public_address", "gateway.example"}};
    EXPECT_EQ(nullptr, VESK_Transport_UDPv4_WAN_create_from_properties_with_prefix(
                           nullptr, bad_address.get(), "wan"));
    EXPECT_EQ(vesk::test::summarize(
                  "KEL_LOG_CREATION_FAILURE_s",
                  {"UDPv4_WAN transport: public_address is not an IPv4 address (such as "
                   "203.0.113.5)"}),
              log.summary()[0]);
}

// --- the engine over loopback -------------------------------------------------

constexpr std::uint32_t kLoopback = 0x7F000001;

struct LoopbackSocket {
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    std::uint16_t port = 0;
    LoopbackSocket() {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(kLoopback);
        socklen_t length = sizeof address;
        EXPECT_EQ(0, bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address));
        getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length);
        port = ntohs(address.sin_port);
    }
    ~LoopbackSocket() { close(fd); }
    // Hands the next datagram (within a second) to engine; false for none.
    bool deliver(WanEngine &engine, std::uint64_t now_ms, bool *was_ping_message = nullptr) {
        pollfd readable{fd, POLLIN, 0};
        if (poll(&readable, 1, 1000) != 1) return false;
        std::uint8_t buffer[128];
        sockaddr_in from{};
        socklen_t length = sizeof from;
        const ssize_t size =
            recvfrom(fd, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr *>(&from), &length);
        const bool handled = engine.handleDatagram(
            fd, std::span<const std::uint8_t>(buffer, static_cast<std::size_t>(size)),
            ntohl(from.sin_addr.s_addr), ntohs(from.sin_port), now_ms);
        if (was_ping_message != nullptr) *was_ping_message = handled;
        return true;
    }
    void sendTo(std::uint16_t to_port, const Bytes &bytes) const {
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_addr.s_addr = htonl(kLoopback);
        to.sin_port = htons(to_port);
        sendto(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
    }
};

VESK_Transport_UDP_WAN_PingInfo infoOf(const WanEngine &engine) {
    VESK_Transport_UDP_WAN_PingInfo info{};
    engine.info(info);
    return info;
}

// A ping round trip resolves the mapping once; a forged answer, a malformed
// message and user data change nothing; silence expires the mapping.
TEST(WanEngine, ResolvesOnceRefusesForgeriesAndExpires) {
    VESK_Transport_Port_t seen = 0;
    const VESK_Transport_UDP_WAN_Listener listener{&seen, onResolved};
    ASSERT_EQ(1, VESK_Transport_UDP_WAN_register_listener(&listener));
    vesk::test::PropertyList properties{};
    VESK_Transport_Plugin *plugin =
        VESK_Transport_UDPv4_WAN_create_from_properties_with_prefix(nullptr, properties.get(), "");
    ASSERT_NE(nullptr, plugin);
    VESK_Transport_Address_t address{};
    VESK_Transport_Port_t port = 0;  // before any answer: the host port
    ASSERT_EQ(1, VESK_Transport_UDP_WAN_get_locator(plugin, 7400, &address, &port));
    EXPECT_EQ(7525u, port);
    LoopbackSocket a, b;
    WanEngine pinger({100, 1000, &listener, plugin, "pinger"});
    WanEngine answerer({0, 1000, nullptr, nullptr, "answerer"});
    pinger.addSocket(a.fd, 7400);
    pinger.addPeer(kLoopback, b.port);
    answerer.addSocket(b.fd, 7400);
    g_calls = 0;
    for (std::uint64_t now : {0, 100}) {  // two rounds, one notification
        pinger.tick(now);
        ASSERT_TRUE(b.deliver(answerer, now));
        ASSERT_TRUE(a.deliver(pinger, now));
    }
    EXPECT_EQ(1, g_calls);
    EXPECT_EQ(a.port, seen);
    VESK_Transport_UDP_WAN_PingInfo info = infoOf(pinger);
    EXPECT_EQ(2u, info.pings_sent);
    EXPECT_EQ(2u, info.answers_received);
    EXPECT_EQ(1u, info.mappings_resolved);
    EXPECT_EQ(1, info.resolved);
    EXPECT_EQ(a.port, info.public_port);
    EXPECT_EQ(1, infoOf(answerer).peer_count);

    vesk::test::LogCapture log;
    const Bytes forged = [] {
        Bytes out(kPingMessageSizeMax);
        out.resize(encodePing({PingKind::Answer, 999, 7400, 0x01020304, 9}, out));
        return out;
    }();
    b.sendTo(a.port, forged);  // a sequence never sent
    b.sendTo(a.port, Bytes{'V', 'B', 'P', '!', 9, 1, 0, 0});
    b.sendTo(a.port, Bytes{'V', 'B', 'P', '!', 9, 1, 0, 0});  // warned once only
    b.sendTo(a.port, Bytes{'R', 'T', 'P', 'S', 2, 3});
    bool ping_message = false;
    for (bool expected : {true, true, true, false}) {
        ASSERT_TRUE(a.deliver(pinger, 200, &ping_message));
        EXPECT_EQ(expected, ping_message);
    }
    info = infoOf(pinger);
    EXPECT_EQ(1u, info.unsolicited_answers);
    EXPECT_EQ(2u, info.malformed_received);
    EXPECT_EQ(1, g_calls);
    const std::string warning =
        "KEL_LOG_ANY_FAILURE_ss(malformed binding ping from 127.0.0.1:" + std::to_string(b.port) +
        "|unsupported version)";
    EXPECT_EQ(std::vector<std::string>{warning}, log.summary());

    // Pings and answers count as binding pings, never as user data.
    VESK_Transport_UDP_Statistics statistics;
    ASSERT_EQ(1, VESK_Transport_UDP_get_statistics(plugin, &statistics));
    EXPECT_EQ(2u, statistics.binding_ping_packets_sent);
    EXPECT_EQ(2 * kPingSize, statistics.binding_ping_bytes_sent);
    EXPECT_EQ(5u, statistics.binding_ping_packets_received);  // two answers, three refused
    EXPECT_EQ(2u, statistics.binding_ping_event_count);
    EXPECT_EQ(0u, statistics.user_packets_sent + statistics.user_packets_received);

    // Silence for the expiration time: forgotten on both sides, and the
    // next answer is news again.
    answerer.tick(1100);
    EXPECT_EQ(0, infoOf(answerer).peer_count);
    pinger.tick(1100);  // the last answer came at 100
    EXPECT_TRUE(b.deliver(answerer, 1100));
    EXPECT_TRUE(a.deliver(pinger, 1100));
    EXPECT_EQ(2, g_calls);

    // Generation off (the plugin's switch): no more pings.
    ASSERT_EQ(1, VESK_Transport_UDP_change_binding_ping_generation(plugin, 0));
    pinger.tick(1200);
    EXPECT_EQ(3u, infoOf(pinger).pings_sent);
    plugin->delete_cEA(plugin, nullptr);
    EXPECT_EQ(1, VESK_Transport_UDP_WAN_unregister_listener(&listener));
}

// The timer thread pings on schedule and stops promptly.
TEST(WanEngine, TimerPingsEveryPeriodAndStopsPromptly) {
    LoopbackSocket a, b;
    WanEngine pinger({20, 0, nullptr, nullptr, "pinger"});
    pinger.addSocket(a.fd, 7400);
    pinger.addPeer(kLoopback, b.port);
    WanEngine sink({0, 0, nullptr, nullptr, "sink"});
    const auto started = std::chrono::steady_clock::now();
    ASSERT_TRUE(pinger.start());
    int received = 0;
    while (received < 5 && b.deliver(sink, 0)) ++received;
    const auto elapsed = std::chrono::steady_clock::now() - started;
    EXPECT_EQ(5, received);
    EXPECT_GE(elapsed, std::chrono::milliseconds(75));  // the first goes at once
    const auto stopping = std::chrono::steady_clock::now();
    pinger.stop();
    EXPECT_LT(std::chrono::steady_clock::now() - stopping, std::chrono::milliseconds(500));
}

}  // namespace
