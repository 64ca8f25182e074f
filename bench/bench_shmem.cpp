// Shared memory against UDP over loopback, in one run (Google Benchmark).
//
// Names:
//   Throughput/Shmem/<bytes>   messages from one shared-memory plugin to
//                              another (receiver on its own thread)
//   Throughput/UdpPlugin/<bytes>  the same through two factory-built UDPv4
//                              plugins over 127.0.0.1
//   Throughput/Udp/<bytes>     the same as plain sendmsg/recvmsg on two
//                              sockets: what any UDP transport pays at least
//   PingPong/Shmem, PingPong/UdpPlugin, PingPong/Udp   one 64-byte round trip
// Every link keeps at most kWindow messages in flight, so no sender can run
// ahead of its receiver.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "vesk_transport/Support.h"
#include "vesk_transport/platform/Log.h"
#include "vesk_transport/platform/Property.h"
#include "vesk_transport/platform/Shmem.h"

namespace {

constexpr int kWindow = 32;
constexpr VESK_Transport_Port_t kPortA = 1, kPortB = 2;

// ------------------------------------------------------------ shared memory

struct Shmem {
    VESK_Transport_Plugin *a = nullptr, *b = nullptr;
    VESK_Transport_RecvResource_t inA = nullptr, inB = nullptr;
    VESK_Transport_SendResource_t toA = nullptr, toB = nullptr;

    static VESK_Transport_Plugin *make() {
        DDS_PropertyQosPolicy policy = DDS_PropertyQosPolicy_INITIALIZER;
        const std::string offset = std::to_string(0x30000000 + (getpid() & 0xFFFF) * 0x10);
        const char *pairs[][2] = {{"segmentKeyOffset", offset.c_str()},
                                  {"receive_buffer_size", "4194304"},
                                  {"received_message_count_max", "64"}};
        for (auto &pair : pairs) {
            DDS_PropertyQosPolicyHelper_add_property(&policy, pair[0], pair[1], DDS_BOOLEAN_FALSE);
        }
        VESK_Transport_Plugin *plugin = VESK_Transport_Shmem_create(nullptr, &policy, nullptr);
        DDS_PropertyQosPolicy_finalize(&policy);
        return plugin;
    }
    Shmem() : a(make()), b(make()) {
        VESK_Transport_Port_t portA = kPortA, portB = kPortB;
        const VESK_Transport_Address_t address =
            reinterpret_cast<const VESK_Transport_Shmem_Property_t *>(a->property)->shmemUUID;
        a->create_recvresource_rrEA(a, &inA, &portA, nullptr, 0);
        b->create_recvresource_rrEA(b, &inB, &portB, nullptr, 0);
        a->create_sendresource_srEA(a, &toB, &address, kPortB, 0);
        b->create_sendresource_srEA(b, &toA, &address, kPortA, 0);
    }
    ~Shmem() {
        a->delete_cEA(a, nullptr);
        b->delete_cEA(b, nullptr);
    }
    bool ok() const { return inA && inB && toA && toB; }
    static void send(VESK_Transport_Plugin *from, VESK_Transport_SendResource_t &to, char *data,
                     int length) {
        const VESK_Transport_Buffer_t buffer{length, data};
        from->send(from, &to, nullptr, 0, 0, &buffer, 1, nullptr);
    }
    // Returns false when unblocked.
    static bool receive(VESK_Transport_Plugin *at, VESK_Transport_RecvResource_t &in) {
        VESK_Transport_Message_t message{};
        if (!at->receive_rEA(at, &in, nullptr, &message, nullptr)) return false;
        benchmark::DoNotOptimize(message.buffer.pointer[0]);
        at->return_loaned_buffer_rEA(at, &in, &message, nullptr);
        return true;
    }
    void sendToB(char *data, int length) { send(a, toB, data, length); }
    void sendToA(char *data, int length) { send(b, toA, data, length); }
    bool receiveAtB() { return receive(b, inB); }
    bool receiveAtA() { return receive(a, inA); }
    void stopB() { b->unblock_receive_rrEA(b, &inB, nullptr); }
};

// ------------------------------------------------------------ UDPv4 plugins

struct UdpPlugins {
    VESK_Transport_Plugin *a = nullptr, *b = nullptr;
    VESK_Transport_RecvResource_t inA = nullptr, inB = nullptr;
    VESK_Transport_SendResource_t toA = nullptr, toB = nullptr;

    static VESK_Transport_Plugin *make() {
        DDS_PropertyQosPolicy policy = DDS_PropertyQosPolicy_INITIALIZER;
        VESK_Transport_Plugin *plugin = VESK_Transport_UDPv4_create(nullptr, &policy);
        DDS_PropertyQosPolicy_finalize(&policy);
        return plugin;
    }
    UdpPlugins() : a(make()), b(make()) {
        if (a == nullptr || b == nullptr) return;
        VESK_Transport_Address_t loopback{};
        loopback.network_ordered_value[12] = 127;
        loopback.network_ordered_value[15] = 1;
        VESK_Transport_Port_t portA = 0, portB = 0;
        if (a->create_recvresource_rrEA(a, &inA, &portA, nullptr, 0) &&
            b->create_recvresource_rrEA(b, &inB, &portB, nullptr, 0)) {
            a->create_sendresource_srEA(a, &toB, &loopback, portB, 0);
            b->create_sendresource_srEA(b, &toA, &loopback, portA, 0);
        }
    }
    ~UdpPlugins() {
        if (a != nullptr) a->delete_cEA(a, nullptr);
        if (b != nullptr) b->delete_cEA(b, nullptr);
    }
    bool ok() const { return inA && inB && toA && toB; }
    static bool receive(VESK_Transport_Plugin *at, VESK_Transport_RecvResource_t &in) {
        static thread_local std::vector<char> storage(65536);
        VESK_Transport_Buffer_t buffer{static_cast<KEL_INT32>(storage.size()), storage.data()};
        VESK_Transport_Message_t message{};
        if (!at->receive_rEA(at, &in, &buffer, &message, nullptr)) return false;
        benchmark::DoNotOptimize(message.buffer.pointer[0]);
        if (message.loaned_buffer_param != nullptr) {
            at->return_loaned_buffer_rEA(at, &in, &message, nullptr);
        }
        return true;
    }
    void sendToB(char *data, int length) { Shmem::send(a, toB, data, length); }
    void sendToA(char *data, int length) { Shmem::send(b, toA, data, length); }
    bool receiveAtB() { return receive(b, inB); }
    bool receiveAtA() { return receive(a, inA); }
    void stopB() { b->unblock_receive_rrEA(b, &inB, nullptr); }
};

// ------------------------------------------------------------ UDP baseline

struct Udp {
    sockaddr_in atA{}, atB{};  // before a and b: their initialisers fill these
    int a = -1, b = -1;
    std::atomic<bool> stopping{false};

    static int open(sockaddr_in &at) {
        const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        const int size = 8 << 20;
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
        const timeval wait{0, 100000};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
        at.sin_family = AF_INET;
        at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(fd, reinterpret_cast<sockaddr *>(&at), sizeof at);
        socklen_t length = sizeof at;
        getsockname(fd, reinterpret_cast<sockaddr *>(&at), &length);
        return fd;
    }
    Udp() : a(open(atA)), b(open(atB)) {}
    ~Udp() {
        close(a);
        close(b);
    }
    bool ok() const { return a >= 0 && b >= 0; }
    static void send(int fd, const sockaddr_in &to, char *data, int length) {
        iovec piece{data, static_cast<std::size_t>(length)};
        msghdr message{};
        message.msg_name = const_cast<sockaddr_in *>(&to);
        message.msg_namelen = sizeof to;
        message.msg_iov = &piece;
        message.msg_iovlen = 1;
        sendmsg(fd, &message, 0);
    }
    bool receive(int fd) {
        static thread_local std::vector<char> buffer(65536);
        iovec piece{buffer.data(), buffer.size()};
        msghdr message{};
        message.msg_iov = &piece;
        message.msg_iovlen = 1;
        while (recvmsg(fd, &message, 0) < 0) {
            if (stopping) return false;
        }
        benchmark::DoNotOptimize(buffer[0]);
        return true;
    }
    void sendToB(char *data, int length) { send(a, atB, data, length); }
    void sendToA(char *data, int length) { send(b, atA, data, length); }
    bool receiveAtB() { return receive(b); }
    bool receiveAtA() { return receive(a); }
    void stopB() { stopping = true; }
};

template <class Link>
void Throughput(benchmark::State &state) {
    Link link;
    if (!link.ok()) {
        state.SkipWithError("cannot open the link");
        return;
    }
    const int size = static_cast<int>(state.range(0));
    std::vector<char> data(static_cast<std::size_t>(size), 'x');
    // The sender sleeps (never spins: the machine may be shared) while the
    // window is full; the receiver wakes it only when it sleeps.
    std::atomic<long> received{0};
    std::atomic<bool> senderWaits{false};
    std::mutex lock;
    std::condition_variable moved;
    std::thread receiver([&] {
        while (link.receiveAtB()) {
            received.fetch_add(1);
            if (senderWaits.load()) {
                std::lock_guard guard(lock);
                moved.notify_one();
            }
        }
    });
    long sent = 0;
    long lost = 0;
    for (auto _ : state) {
        if (sent - lost - received.load() >= kWindow) {
            std::unique_lock guard(lock);
            senderWaits = true;
            // A datagram that does not come within 200 ms counts as lost.
            if (!moved.wait_for(guard, std::chrono::milliseconds(200),
                                [&] { return sent - lost - received.load() < kWindow; })) {
                ++lost;
            }
            senderWaits = false;
        }
        link.sendToB(data.data(), size);
        ++sent;
    }
    for (int i = 0; i < 1000 && received.load() + lost < sent; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    link.stopB();
    receiver.join();
    state.counters["lost"] = static_cast<double>(lost);
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(state.iterations() * size);
}

template <class Link>
void PingPong(benchmark::State &state) {
    Link link;
    if (!link.ok()) {
        state.SkipWithError("cannot open the link");
        return;
    }
    char data[64] = {};
    std::thread echo([&] {
        while (link.receiveAtB()) link.sendToA(data, sizeof data);
    });
    for (auto _ : state) {
        link.sendToB(data, sizeof data);
        link.receiveAtA();
    }
    link.stopB();
    echo.join();
}

void sizes(benchmark::internal::Benchmark *benchmark) {
    for (int size : {64, 1024, 8192, 64000}) benchmark->Arg(size);
    benchmark->UseRealTime();
}

BENCHMARK(Throughput<Shmem>)->Name("Throughput/Shmem")->Apply(sizes);
BENCHMARK(Throughput<UdpPlugins>)->Name("Throughput/UdpPlugin")->Apply(sizes);
BENCHMARK(Throughput<Udp>)->Name("Throughput/Udp")->Apply(sizes);
BENCHMARK(PingPong<Shmem>)->Name("PingPong/Shmem")->UseRealTime();
BENCHMARK(PingPong<UdpPlugins>)->Name("PingPong/UdpPlugin")->UseRealTime();
BENCHMARK(PingPong<Udp>)->Name("PingPong/Udp")->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
