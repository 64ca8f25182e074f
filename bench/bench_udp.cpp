// Loopback traffic through factory-built UDPv4 plugins against raw sockets
// doing the same in the same run (Google Benchmark).
//
// Names (bench/udp_ratios.py pairs them):
//   UdpThroughput/<plugin|raw>/<size>   one datagram per iteration, sent on
//       this thread and received on another; the sender keeps at most a
//       window of datagrams in flight, so nothing is lost to a full
//       receive buffer.
//   UdpPingPong/<plugin|raw>            one 64-byte round trip per iteration
//       to an echo thread.
// plugin: send / receive_rEA (batched recvmmsg into the resource's ring);
// raw: sendmsg / recvmsg on plain sockets with the same buffer sizes.
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "tests/support/UdpTraffic.hpp"

namespace {

using vesk::test::Ip;

constexpr int kSocketBuffer = 8 << 20;

// One direction of traffic: send() on any thread, receive() on one other,
// wake() makes a blocked receive() return false.
class PluginChannel {
public:
    explicit PluginChannel(VESK_Transport_Plugin *plugin) : link_(plugin, Ip::V4) {}
    bool send(char *data, int size) {
        VESK_Transport_Buffer_t buffer{size, data};
        return link_.plugin->send(link_.plugin, &link_.sender, nullptr, 0, 0, &buffer, 1,
                                  nullptr) == 1;
    }
    bool receive(char *into, int capacity) {
        VESK_Transport_Buffer_t buffer{capacity, into};
        VESK_Transport_Message_t message{};
        return link_.plugin->receive_rEA(link_.plugin, &link_.receiver, &buffer, &message,
                                         nullptr) == 1;
    }
    void wake() { link_.plugin->unblock_receive_rrEA(link_.plugin, &link_.receiver, nullptr); }

private:
    vesk::test::Link link_;
};

class RawChannel {
public:
    RawChannel() {
        receiver_ = openSocket();
        sender_ = openSocket();
        sockaddr_in any{};
        any.sin_family = AF_INET;
        any.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(receiver_, reinterpret_cast<sockaddr *>(&any), sizeof any);
        socklen_t length = sizeof destination_;
        getsockname(receiver_, reinterpret_cast<sockaddr *>(&destination_), &length);
    }
    ~RawChannel() {
        close(receiver_);
        close(sender_);
    }
    bool send(char *data, int size) {
        iovec vector{data, static_cast<size_t>(size)};
        msghdr message{};
        message.msg_name = &destination_;
        message.msg_namelen = sizeof destination_;
        message.msg_iov = &vector;
        message.msg_iovlen = 1;
        return sendmsg(sender_, &message, 0) == size;
    }
    bool receive(char *into, int capacity) {
        if (woken_.load()) return false;
        iovec vector{into, static_cast<size_t>(capacity)};
        sockaddr_in from{};
        msghdr message{};
        message.msg_name = &from;
        message.msg_namelen = sizeof from;
        message.msg_iov = &vector;
        message.msg_iovlen = 1;
        return recvmsg(receiver_, &message, 0) >= 0 && !woken_.load();
    }
    void wake() {
        woken_ = true;
        shutdown(receiver_, SHUT_RD);  // wakes a blocked recvmsg
    }

private:
    static int openSocket() {
        const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &kSocketBuffer, sizeof kSocketBuffer);
        setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &kSocketBuffer, sizeof kSocketBuffer);
        return fd;
    }
    int receiver_ = -1;
    int sender_ = -1;
    sockaddr_in destination_{};
    std::atomic<bool> woken_{false};
};

vesk::test::PluginHandle benchPlugin() {
    const std::string size = std::to_string(kSocketBuffer);
    return vesk::test::makeUdp(
        Ip::V4, {{"recv_socket_buffer_size", size}, {"send_socket_buffer_size", size}});
}

template <typename Channel>
void throughput(benchmark::State &state, Channel &channel) {
    const int size = static_cast<int>(state.range(0));
    const std::uint64_t window = size > 8192 ? 16 : 128;
    std::vector<char> out(size, 'x');
    std::atomic<std::uint64_t> received{0};
    std::atomic<bool> stop{false};
    std::thread receiver([&] {
        std::vector<char> in(65536);
        while (!stop.load(std::memory_order_relaxed)) {
            if (channel.receive(in.data(), static_cast<int>(in.size()))) {
                received.fetch_add(1, std::memory_order_release);
            }
        }
    });
    std::uint64_t sent = 0, lost = 0;
    auto waitBelow = [&](std::uint64_t limit) {
        const auto start = std::chrono::steady_clock::now();
        while (sent - lost - received.load(std::memory_order_acquire) > limit) {
            if (std::chrono::steady_clock::now() - start > std::chrono::milliseconds(200)) {
                lost = sent - received.load();  // dropped despite the window
                return;
            }
            std::this_thread::yield();
        }
    };
    for (auto _ : state) {
        waitBelow(window - 1);
        if (channel.send(out.data(), size)) ++sent;
    }
    waitBelow(0);
    stop = true;
    channel.wake();
    receiver.join();
    state.SetItemsProcessed(static_cast<std::int64_t>(received.load()));
    state.SetBytesProcessed(static_cast<std::int64_t>(received.load()) * size);
    state.counters["lost"] = static_cast<double>(lost);
}

void pluginThroughput(benchmark::State &state) {
    auto plugin = benchPlugin();
    PluginChannel channel(plugin.get());
    throughput(state, channel);
}

void rawThroughput(benchmark::State &state) {
    RawChannel channel;
    throughput(state, channel);
}

template <typename Channel>
void pingPong(benchmark::State &state, Channel &there, Channel &back) {
    char out[64] = {}, in[64];
    std::atomic<bool> stop{false};
    std::thread echo([&] {
        char buffer[64];
        while (!stop.load() && there.receive(buffer, sizeof buffer)) back.send(buffer, 64);
    });
    for (auto _ : state) {
        there.send(out, 64);
        if (!back.receive(in, sizeof in)) break;
    }
    stop = true;
    there.wake();
    echo.join();
}

void pluginPingPong(benchmark::State &state) {
    auto plugin = benchPlugin();
    PluginChannel there(plugin.get()), back(plugin.get());
    pingPong(state, there, back);
}

void rawPingPong(benchmark::State &state) {
    RawChannel there, back;
    pingPong(state, there, back);
}

void sizes(benchmark::internal::Benchmark *benchmark) {
    for (const int size : {64, 1024, 8192, 64000}) benchmark->Arg(size);
    benchmark->UseRealTime();
}

BENCHMARK(pluginThroughput)->Name("UdpThroughput/plugin")->Apply(sizes);
BENCHMARK(rawThroughput)->Name("UdpThroughput/raw")->Apply(sizes);
BENCHMARK(pluginPingPong)->Name("UdpPingPong/plugin")->UseRealTime();
BENCHMARK(rawPingPong)->Name("UdpPingPong/raw")->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
