// The UDPv4 WAN transport: the port rule, the binding-ping codec, peer table
// and warning limit, the listener registry and the constructor's refusal of
// unregistered listeners, and the ping engine over loopback.

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <unistd.h>

#include <cinttypes>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "support/NetNamespace.hpp"
#include "support/PropertyList.hpp"
#include "support/TestSupport.hpp"
#include "support/UdpTraffic.hpp"
#include "vesk_transport/platform/UdpWan.h"
#include "vesk_transport/platform/udp/Wan.hpp"
#include "vesk_transport/platform/udp/WanEngine.hpp"
#include "vesk_transport/platform/udp/WanHooks.hpp"

namespace {

using namespace vesk::udp;
using namespace vesk::test;
using Bytes = std::vector<std::uint8_t>;
using Mapping = VESK_Transport_UDP_WAN_CommPortsMappingInfo;
using Strings = std::vector<std::string>;
constexpr std::uint32_t kLoopback = 0x7F000001;

// A UDP socket bound to 127.0.0.1 (port 0: any); fd -1 when the port is taken.
struct UdpSocket {
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{AF_INET, 0, {htonl(kLoopback)}, {}};
    socklen_t length = sizeof address;
    explicit UdpSocket(std::uint16_t port = 0) {
        address.sin_port = htons(port);
        if (bind(fd, reinterpret_cast<sockaddr *>(&address), length) != 0) close(fd), fd = -1;
        getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length);
    }
    ~UdpSocket() { close(fd); }
    std::uint16_t port() const { return ntohs(address.sin_port); }
    void sendTo(const UdpSocket &to, const Bytes &bytes) const {
        sendto(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr *>(&to.address),
               to.length);
    }
};

TEST(WanPorts, RuleTable) {
    const std::vector<Mapping> json = {
        {0, 7400, 17400, 0}, {7410, 7410, 17410, 0}, {7411, 7500, 0, 0}};
    const std::vector<Mapping> single = {{7400, 7400, 7400, 0}};
    const std::vector<Mapping> no_default = {{0, 0, 0, 0}, {7410, 7411, 7412, 0}};
    const std::vector<Mapping> none;
    const struct Row {
        const std::vector<Mapping> &list;
        std::int32_t offset;
        VESK_Transport_Port_t rtps;
        int host, pub, index;  // host -1: not mapped
    } rows[] = {
        {json, 125, 7410, 7410, 17410, 1},  // the mapping of P
        {json, 125, 7411, 7500, 7500, 2},   // public 0: the host port
        {json, 125, 9999, 7400, 17400, 0},  // the default, element 0
        {single, 125, 7401, 7400, 7400, 0},
        {no_default, 125, 7410, 7411, 7412, 1},
        {no_default, 125, 7000, 7125, 7125, -1},  // default host 0: the offset
        {none, 0, 65535, 65535, 65535, -1},
        {none, 1, 65535, -1, 0, -1},  // beyond 65535
        {none, 125, 0, -1, 0, -1},    // no RTPS port 0
    };
    for (const Row &row : rows) {
        const auto choice = choosePorts(row.list.empty() ? nullptr : row.list.data(),
                                        static_cast<int>(row.list.size()), row.offset, row.rtps);
        EXPECT_EQ(std::tuple(row.host, row.pub, row.index),
                  choice ? std::tuple(int(choice->host_port), int(choice->public_port),
                                      choice->mapping_index)
                         : std::tuple(-1, 0, -1))
            << row.rtps;
    }
}

Bytes encode(const PingMessage &message) {
    Bytes out(kPingMessageSizeMax);
    out.resize(encodePing(message, out));
    return out;
}

// Decoding well-formed messages: the corpus test re-encodes every seed.
TEST(WanPing, LayoutAndMalformedTable) {
    const PingMessage ping{PingKind::Ping, 0x01020304, 7410, 0, 0};
    Bytes padded{'V', 'B', 'P', '!', 1, 1, 0, 0, 1, 2, 3, 4, 0, 0, 0x1c, 0xf2};
    padded.resize(kAnswerSize);  // zero padding: no larger answer
    EXPECT_EQ(padded, encode(ping));
    const Bytes answer = encode({PingKind::Answer, 9, 7400, 0xC6336401 /* 198.51.100.1 */, 40001});
    ASSERT_EQ(kAnswerSize, answer.size());
    EXPECT_EQ((Bytes{0, 0, 0, 0, 198, 51, 100, 1, 0x9c, 0x41, 0, 0}),
              Bytes(answer.begin() + 24, answer.end()));
    EXPECT_FALSE(isPingMessage(Bytes{'R', 'T', 'P', 'S', 2, 3, 1, 15}));
    Bytes small(kPingSize - 1);
    EXPECT_EQ(0u, encodePing(ping, small));
    // The message with bytes [from, to) set to value, cut to size (0: as is).
    auto edit = [](Bytes bytes, std::size_t from, std::size_t to, std::uint8_t value,
                   std::size_t size = 0) {
        std::fill(bytes.begin() + from, bytes.begin() + to, value);
        if (size != 0) bytes.resize(size);
        return bytes;
    };
    const struct Row {
        Bytes datagram;
        PingError error;
        const char *text;
    } rows[] = {
        {edit(padded, 0, 0, 0, 7), PingError::ShortHeader, "short header"},
        {edit(padded, 4, 5, 2), PingError::UnsupportedVersion, "unsupported version"},
        {edit(padded, 5, 6, 3), PingError::UnknownKind, "unknown kind"},
        {edit(padded, 7, 8, 1), PingError::ReservedBitsSet, "reserved bits set"},
        {edit(answer, 35, 36, 1), PingError::ReservedBitsSet, "reserved bits set"},
        {edit(padded, 0, 0, 0, 15), PingError::WrongLength, "wrong length"},
        {edit(padded, 35, 36, 1), PingError::ReservedBitsSet, "reserved bits set"},  // padding
        {edit(answer, 16, 17, 1), PingError::NotIpv4, "not an IPv4 address"},
        {edit(answer, 28, 32, 0), PingError::NotIpv4, "not an IPv4 address"},
        {edit(answer, 32, 34, 0), PingError::PortZero, "port 0"},
    };
    for (const Row &row : rows) {
        PingMessage untouched{PingKind::Answer, 77, 78, 79, 80};
        EXPECT_EQ(row.error, decodePing(row.datagram, untouched)) << row.text;
        EXPECT_STREQ(row.text, pingErrorText(row.error));
        EXPECT_EQ(77u, untouched.sequence);
    }
    EXPECT_STREQ("unknown error", pingErrorText(static_cast<PingError>(99)));
}

TEST(WanPeers, ExpireReplaceTheLeastRecentAndLimitWarnings) {
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
    PeerTable none(0);  // no room: every peer is news, and none is kept
    EXPECT_TRUE(none.touch(a, 0) && none.touch(a, 1) && none.size() == 0);
    EXPECT_EQ(3000u, effectiveExpiration(1000, 0));
    EXPECT_EQ(50u, effectiveExpiration(1000, 50));

    WarningLimiter limiter(1, 60000);  // the minute: in the engine test
    EXPECT_TRUE(limiter.allow(7, 0) && !limiter.allow(7, 1));
    EXPECT_TRUE(limiter.allow(8, 2));  // replaces 7
    EXPECT_TRUE(limiter.allow(7, 3));
}

int g_calls = 0;
void onResolved(void *data, const VESK_Transport_Address_t *, VESK_Transport_Port_t port) {
    ++g_calls;
    if (data != nullptr) *static_cast<VESK_Transport_Port_t *>(data) = port;
}
void unregisterSelf(void *data, const VESK_Transport_Address_t *, VESK_Transport_Port_t) {
    ++g_calls;
    VESK_Transport_UDP_WAN_unregister_listener(
        static_cast<const VESK_Transport_UDP_WAN_Listener *>(data));
}

TEST(WanListeners, RegisterCallAndUnregister) {
    VESK_Transport_Port_t seen = 0;
    const VESK_Transport_UDP_WAN_Listener listener{&seen, onResolved};
    EXPECT_EQ(0, VESK_Transport_UDP_WAN_register_listener(nullptr));
    EXPECT_FALSE(notifyPublicMapping(&listener, {}, 1));  // not registered
    EXPECT_EQ(1, VESK_Transport_UDP_WAN_register_listener(&listener));
    EXPECT_EQ(1, VESK_Transport_UDP_WAN_register_listener(&listener));  // once only
    EXPECT_TRUE(notifyPublicMapping(&listener, {}, 40001));
    EXPECT_EQ(40001u, seen);
    EXPECT_EQ(1, VESK_Transport_UDP_WAN_unregister_listener(&listener));
    EXPECT_EQ(0, VESK_Transport_UDP_WAN_unregister_listener(&listener));
    EXPECT_EQ(0, VESK_Transport_UDP_WAN_is_listener_registered(&listener));

    std::vector<VESK_Transport_UDP_WAN_Listener> many(VESK_TRANSPORT_UDP_WAN_LISTENER_CAPACITY + 1);
    int accepted = 0;
    for (const auto &entry : many) accepted += VESK_Transport_UDP_WAN_register_listener(&entry);
    EXPECT_EQ(VESK_TRANSPORT_UDP_WAN_LISTENER_CAPACITY, accepted);
    for (const auto &entry : many) VESK_Transport_UDP_WAN_unregister_listener(&entry);

    // A listener may unregister itself from its callback without waiting for itself.
    VESK_Transport_UDP_WAN_Listener self{nullptr, unregisterSelf};
    self.listener_data = &self;
    ASSERT_EQ(1, VESK_Transport_UDP_WAN_register_listener(&self));
    EXPECT_TRUE(notifyPublicMapping(&self, {}, 1));
    EXPECT_EQ(0, VESK_Transport_UDP_WAN_is_listener_registered(&self));
}

std::string pointerText(const void *pointer) {
    char text[32];
    std::snprintf(text, sizeof text, "0x%" PRIxPTR, reinterpret_cast<std::uintptr_t>(pointer));
    return text;
}

VESK_Transport_Plugin *makeWan(std::initializer_list<PropertyList::NameValue> values) {
    PropertyList properties(values);
    return VESK_Transport_UDPv4_WAN_create_from_properties_with_prefix(nullptr, properties.get(),
                                                                       "");
}

void mustNotBeCalled() {
    ++g_calls;
}

TEST(WanListeners, UnregisteredPointersAreRefused) {
    unsigned char buffer[sizeof(VESK_Transport_UDP_WAN_Listener)];
    std::memset(buffer, 0xA5, sizeof buffer);
    const std::string listener_refusal =
        "wan_listener_ptr does not point at a registered listener: register it with "
        "VESK_Transport_UDP_WAN_register_listener before creating the transport";
    const struct Row {
        std::string name, value, reason;
    } rows[] = {
        {"wan_listener_ptr", pointerText(reinterpret_cast<const void *>(&mustNotBeCalled)),
         listener_refusal},
        {"wan_listener_ptr", pointerText(buffer), listener_refusal},
        {"public_address", "gateway.example",
         "public_address is not an IPv4 address (such as 203.0.113.5)"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.value);
        const KEL_UINT64 blocks = liveHeapBlocks();
        const int open_before = openDescriptorCount();
        LogCapture log;
        g_calls = 0;
        EXPECT_EQ(nullptr, makeWan({{row.name, row.value}, {"binding_ping_period", "10"}}));
        EXPECT_TRUE(g_calls == 0 && buffer[0] == 0xA5);
        EXPECT_EQ(blocks, liveHeapBlocks());
        EXPECT_EQ(open_before, openDescriptorCount());
        ASSERT_FALSE(log.entries().empty());
        EXPECT_EQ("VESK_Transport_UDPv4_WAN_newI", log.entries()[0].function);
        EXPECT_EQ(summarize("KEL_LOG_CREATION_FAILURE_s", {"UDPv4_WAN transport: " + row.reason}),
                  log.summary()[0]);
    }
}

// A registered listener is accepted; receive resources bind the mapped port
// (or the offset one) and count their mapping. In a namespace of its own, so
// that the ports are surely free.
TEST(WanPlugin, ReceiveResourcesBindTheMappedPortAndCountTheirMapping) {
    const PlainNetNamespace inside;
    if (!inside.ok) GTEST_SKIP() << "cannot make a network namespace here (not root?)";
    auto threads = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
    };
    // A first thread makes the sanitizer runtimes start their own helper
    // threads now, so that the count below is the plugin's alone.
    std::thread([] {}).join();
    const auto threads_before = threads();
    const VESK_Transport_UDP_WAN_Listener listener{nullptr, onResolved};
    ASSERT_EQ(1, VESK_Transport_UDP_WAN_register_listener(&listener));
    VESK_Transport_Plugin *plugin = makeWan(
        {{"wan_listener_ptr", pointerText(&listener)},
         {"public_address", "203.0.113.5"},
         {"port_offset", "40000"},
         {"comm_ports",
          R"({"default": {}, "mappings": [{"rtps": 7410, "host": 47000, "public": 17410}]})"}});
    ASSERT_NE(nullptr, plugin);
    // The mapping's ref count, after checking its ports (counted from 0).
    auto refCount = [&] {
        VESK_Transport_UDP_WAN_PortMapping mapping{};
        EXPECT_EQ(1, VESK_Transport_UDP_WAN_get_mapping(plugin, 7410, &mapping));
        EXPECT_TRUE(mapping.host_port == 47000 && mapping.mapping_index == 1);
        return mapping.ref_count;
    };
    EXPECT_EQ(0, refCount());
    VESK_Transport_Address_t address{};
    VESK_Transport_Port_t port = 0;
    ASSERT_EQ(1, VESK_Transport_UDP_WAN_get_locator(plugin, 7410, &address, &port));
    EXPECT_EQ(17410u, port);
    EXPECT_EQ(0, std::memcmp(address.network_ordered_value + 12, "\xCB\x00\x71\x05", 4));
    VESK_Transport_RecvResource_t mapped = nullptr, offset = nullptr, none = nullptr;
    port = 7410;
    ASSERT_EQ(1, plugin->create_recvresource_rrEA(plugin, &mapped, &port, nullptr, 0));
    EXPECT_EQ(7410u, port);  // the caller keeps the RTPS port
    port = 7411;
    ASSERT_EQ(1, plugin->create_recvresource_rrEA(plugin, &offset, &port, nullptr, 0));
    EXPECT_EQ(-1, UdpSocket(47000).fd);  // bound: in use
    EXPECT_EQ(-1, UdpSocket(47411).fd);
    EXPECT_EQ(1, refCount());
    LogCapture log;
    port = 30000;  // 70000: beyond the ports
    EXPECT_EQ(0, plugin->create_recvresource_rrEA(plugin, &none, &port, nullptr, 0));
    EXPECT_EQ(log.summary(),
              Strings{summarize("KEL_LOG_ANY_FAILURE_s",
                                {"UDPv4_WAN transport: RTPS port 30000 has no host port: no "
                                 "comm_ports mapping, and 30000 + port_offset 40000 is outside "
                                 "1..65535"})});
    plugin->destroy_recvresource_rrEA(plugin, &mapped);
    EXPECT_EQ(0, refCount());
    EXPECT_NE(-1, UdpSocket(47000).fd);   // released
    plugin->delete_cEA(plugin, nullptr);  // closes the other resource
    // A default element with a host port is element 0, and counted too.
    plugin = makeWan({{"comm_ports", R"({"default": {"host": 47400}, "mappings": []})"}});
    port = 9999;
    ASSERT_EQ(1, plugin->create_recvresource_rrEA(plugin, &mapped, &port, nullptr, 0));
    VESK_Transport_UDP_WAN_PortMapping mapping{};
    ASSERT_EQ(1, VESK_Transport_UDP_WAN_get_mapping(plugin, 9999, &mapping));
    EXPECT_TRUE(mapping.host_port == 47400 && mapping.mapping_index == 0 && mapping.ref_count == 1);
    plugin->delete_cEA(plugin, nullptr);
    EXPECT_EQ(threads_before, threads());  // the ping timers are joined
    EXPECT_EQ(1, VESK_Transport_UDP_WAN_unregister_listener(&listener));
}

// Hands the next datagram on socket (within a second) to engine; returns
// whether the engine took it as a binding-ping message.
bool deliver(const UdpSocket &socket, WanEngine &engine, std::uint64_t now_ms) {
    pollfd readable{socket.fd, POLLIN, 0};
    EXPECT_EQ(1, poll(&readable, 1, 1000));
    Bytes bytes(64);
    sockaddr_in from{};
    socklen_t length = sizeof from;
    const ssize_t size = recvfrom(socket.fd, bytes.data(), bytes.size(), MSG_DONTWAIT,
                                  reinterpret_cast<sockaddr *>(&from), &length);
    bytes.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
    return engine.handleDatagram(socket.fd, bytes, ntohl(from.sin_addr.s_addr),
                                 ntohs(from.sin_port), now_ms);
}

VESK_Transport_UDP_WAN_PingInfo infoOf(const WanEngine &engine) {
    VESK_Transport_UDP_WAN_PingInfo info{};
    engine.info(info);
    return info;
}

// A ping round trip resolves the mapping once; a forged answer, malformed
// messages and user data change nothing; silence expires the mapping.
TEST(WanEngine, ResolvesOnceRefusesForgeriesAndExpires) {
    VESK_Transport_Port_t seen = 0;
    const VESK_Transport_UDP_WAN_Listener listener{&seen, onResolved};
    ASSERT_EQ(1, VESK_Transport_UDP_WAN_register_listener(&listener));
    VESK_Transport_Plugin *plugin = makeWan({});
    ASSERT_NE(nullptr, plugin);
    VESK_Transport_Address_t address{};
    VESK_Transport_Port_t port = 0;  // before any answer: the host port
    ASSERT_EQ(1, VESK_Transport_UDP_WAN_get_locator(plugin, 7400, &address, &port));
    EXPECT_EQ(7525u, port);
    const UdpSocket a, b;
    WanEngine pinger({100, 1000, &listener, plugin, "pinger"});
    WanEngine answerer({0, 1000, nullptr, nullptr, "answerer"});
    pinger.addSocket(a.fd, 7400);
    pinger.addPeer(kLoopback, b.port());
    answerer.addSocket(b.fd, 7400);
    std::uint32_t removed_port = 0;
    EXPECT_FALSE(answerer.removeSocket(a.fd, removed_port));  // never added
    g_calls = 0;
    for (std::uint64_t now : {0, 100}) {  // two rounds, one notification
        pinger.tick(now);
        EXPECT_TRUE(deliver(b, answerer, now));
        EXPECT_TRUE(deliver(a, pinger, now));
    }
    EXPECT_TRUE(g_calls == 1 && seen == a.port());
    VESK_Transport_UDP_WAN_PingInfo info = infoOf(pinger);
    EXPECT_TRUE(info.pings_sent == 2 && info.answers_received == 2 && info.mappings_resolved == 1);
    EXPECT_TRUE(info.resolved == 1 && info.public_port == a.port());
    EXPECT_EQ(1, infoOf(answerer).peer_count);

    LogCapture log;
    b.sendTo(a, encode({PingKind::Answer, 999, 7400, 0x01020304, 9}));  // never asked
    const Bytes bad_version{'V', 'B', 'P', '!', 9, 1, 0, 0};
    b.sendTo(a, bad_version);
    b.sendTo(a, bad_version);  // warned once only
    b.sendTo(a, Bytes{'R', 'T', 'P', 'S', 2, 3});
    for (bool ping_message : {true, true, true, false})
        EXPECT_EQ(ping_message, deliver(a, pinger, 200));
    info = infoOf(pinger);
    EXPECT_TRUE(info.unsolicited_answers == 1 && info.malformed_received == 2 && g_calls == 1);
    EXPECT_EQ(
        log.summary(),
        Strings{summarize("KEL_LOG_ANY_FAILURE_ss",
                          {"malformed binding ping from 127.0.0.1:" + std::to_string(b.port()),
                           "unsupported version"})});

    // Pings and answers count as binding pings, never as user data.
    VESK_Transport_UDP_Statistics statistics = statisticsOf(plugin);
    EXPECT_EQ(2u, statistics.binding_ping_packets_sent);
    EXPECT_EQ(2 * kPingSize, statistics.binding_ping_bytes_sent);
    EXPECT_EQ(5u, statistics.binding_ping_packets_received);  // two answers, three refused
    EXPECT_EQ(2u, statistics.binding_ping_event_count);
    EXPECT_EQ(0u, statistics.user_packets_sent + statistics.user_packets_received);
    for (std::uint64_t now : {60199, 60200}) {  // the next warning a minute later
        b.sendTo(a, bad_version);
        deliver(a, pinger, now);
    }
    EXPECT_EQ(2u, log.summary().size());

    // Silence for the expiration time: forgotten on both sides, and the
    // next answer is news again.
    answerer.tick(1100);
    EXPECT_EQ(0, infoOf(answerer).peer_count);
    pinger.tick(1100);  // the last answer came at 100
    EXPECT_TRUE(deliver(b, answerer, 1100));
    EXPECT_TRUE(deliver(a, pinger, 1100));
    EXPECT_EQ(2, g_calls);

    // Generation off (the plugin's switch): no more pings.
    ASSERT_EQ(1, VESK_Transport_UDP_change_binding_ping_generation(plugin, 0));
    pinger.tick(1200);
    EXPECT_EQ(3u, infoOf(pinger).pings_sent);
    EXPECT_EQ(3u, statisticsOf(plugin).binding_ping_event_count);  // rounds that sent a ping
    EXPECT_TRUE(pinger.removeSocket(a.fd, removed_port) && removed_port == 7400);
    EXPECT_FALSE(pinger.removeSocket(a.fd, removed_port));  // removed once only
    plugin->delete_cEA(plugin, nullptr);
    EXPECT_EQ(1, VESK_Transport_UDP_WAN_unregister_listener(&listener));
}

}  // namespace
