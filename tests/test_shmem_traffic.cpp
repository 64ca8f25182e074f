// Shared-memory traffic between factory-built plugins: exchange across
// processes, full ring, size and format refusals, killed peers, takeover,
// UDP debugging copies, and nothing left behind.

#include <arpa/inet.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <atomic>
#include <thread>

#include "support/ShmemPeers.hpp"
#include "support/TestSupport.hpp"
#include "vesk_transport/platform/Host.h"
#include "vesk_transport/platform/shmem/Ring.hpp"

namespace {

using namespace vesk::test;
using vesk::shmem::Header;
using Buffer = VESK_Transport_Buffer_t;

struct Receiver {
    VESK_Transport_Plugin *plugin;
    VESK_Transport_RecvResource_t resource = nullptr;
    VESK_Transport_Port_t port;
    bool open() { return plugin->create_recvresource_rrEA(plugin, &resource, &port, nullptr, 0); }
    ~Receiver() {
        if (resource != nullptr) plugin->destroy_recvresource_rrEA(plugin, &resource);
    }
    // One message (loaned or copied into into), as a string.
    std::string take(std::string *into = nullptr) {
        VESK_Transport_Message_t message{};
        Buffer buffer{into ? static_cast<KEL_INT32>(into->size()) : 0,
                      into ? into->data() : nullptr};
        if (!plugin->receive_rEA(plugin, &resource, into ? &buffer : nullptr, &message, nullptr)) {
            return "<none>";
        }
        std::string text(message.buffer.pointer, static_cast<std::size_t>(message.buffer.length));
        plugin->return_loaned_buffer_rEA(plugin, &resource, &message, nullptr);
        return text;
    }
};

struct Sender {
    VESK_Transport_Plugin *plugin;
    VESK_Transport_SendResource_t resource = nullptr;
    bool open(VESK_Transport_Port_t port) {
        const VESK_Transport_Address_t address =
            reinterpret_cast<const VESK_Transport_Shmem_Property_t *>(plugin->property)->shmemUUID;
        return plugin->create_sendresource_srEA(plugin, &resource, &address, port, 0);
    }
    ~Sender() {
        if (resource != nullptr) plugin->destroy_sendresource_srEA(plugin, &resource);
    }
    int send(const std::string &head, const std::string &tail = "") {
        const Buffer buffers[2] = {
            {static_cast<KEL_INT32>(head.size()), const_cast<char *>(head.data())},
            {static_cast<KEL_INT32>(tail.size()), const_cast<char *>(tail.data())}};
        return plugin->send(plugin, &resource, nullptr, 0, 0, buffers, tail.empty() ? 1 : 2,
                            nullptr);
    }
};

// The segment of a port, mapped for looking at its counters.
struct Peek {
    vesk::shmem::Mapping mapping;
    Peek(int key, VESK_Transport_Port_t port) {
        std::string reason;
        EXPECT_TRUE(vesk::shmem::attachSegment(key, port, mapping, reason)) << reason;
    }
    ~Peek() { vesk::shmem::unmap(mapping); }
    Header &header() { return *mapping.header; }
};

TEST_F(ShmemTraffic, TwoProcessesExchangeGatheredMessagesLoanedOrCopied) {
    struct Row {
        const char *what;
        std::size_t size;
        bool copied;
    };
    const Row rows[] = {{"empty", 0, false},
                        {"64 B loaned", 64, false},
                        {"8 KiB copied", 8192, true},
                        {"64 KiB loaned", 65536, false}};
    // Loaned when no buffer is given, else copied.
    PluginPtr receiving = plugin({{"parent.properties_bitmap", "0"}});
    Receiver receiver{receiving.get(), nullptr, 1};
    ASSERT_TRUE(receiver.open());
    const pid_t child = spawn([&] {
        PluginPtr sending = plugin();
        Sender sender{sending.get()};
        if (!sender.open(1)) return 1;
        for (const Row &row : rows) {
            const std::string message(row.size, static_cast<char>('a' + row.size % 26));
            if (!sender.send(message.substr(0, row.size / 2), message.substr(row.size / 2)))
                return 2;
        }
        return 0;
    });
    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        std::string buffer(row.size + 1, '\0');
        EXPECT_EQ(std::string(row.size, static_cast<char>('a' + row.size % 26)),
                  receiver.take(row.copied ? &buffer : nullptr));
    }
    EXPECT_EQ(0, reap(child));
}

TEST_F(ShmemTraffic, AFullRingMakesTheWriterWaitItsLimitThenDrop) {
    PluginPtr p =
        plugin({{"received_message_count_max", "2"}, {"maxAllowedWriterDurationMillisec", "100"}});
    Receiver receiver{p.get(), nullptr, 2};
    Sender sender{p.get()};
    ASSERT_TRUE(receiver.open() && sender.open(2));
    EXPECT_TRUE(sender.send("one") && sender.send("two"));
    LogCapture log;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(0, sender.send("three"));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));
    EXPECT_EQ(log.summary(), std::vector<std::string>{
                                 "KEL_LOG_ANY_FAILURE_s(SHMEM transport: dropped a message of 5 "
                                 "bytes to port 2: its receive ring stayed full for 100 ms)"});
    // A waiting writer goes on as soon as the reader gives a place back.
    std::thread writer([&] { EXPECT_EQ(1, sender.send("four")); });
    EXPECT_EQ("one", receiver.take());
    writer.join();
    EXPECT_EQ("two", receiver.take());
    EXPECT_EQ("four", receiver.take());
}

// Two threads sending through one resource while a third receives: each
// sender's messages arrive whole and in its order.
TEST_F(ShmemTraffic, ConcurrentSendersKeepTheirOrder) {
    PluginPtr p = plugin({{"received_message_count_max", "4"}});
    Receiver receiver{p.get(), nullptr, 16};
    Sender sender{p.get()};
    ASSERT_TRUE(receiver.open() && sender.open(16));
    constexpr int kEach = 200;
    auto run = [&](char who) {
        for (int i = 0; i < kEach; ++i)
            EXPECT_EQ(1, sender.send(std::string(1, who), std::to_string(i)));
    };
    std::thread a(run, 'a'), b(run, 'b');
    int next[2] = {0, 0};
    for (int i = 0; i < 2 * kEach; ++i) {
        const std::string message = receiver.take();
        ASSERT_TRUE(message[0] == 'a' || message[0] == 'b') << message;
        EXPECT_EQ(std::to_string(next[message[0] - 'a']++), message.substr(1));
    }
    a.join();
    b.join();
}

// A blocked receive returns 0 when unblocked, and when its resource is
// destroyed (destroy waits until it has left).
TEST_F(ShmemTraffic, UnblockOrDestroyWakesABlockedReceive) {
    for (const bool destroy : {false, true}) {
        SCOPED_TRACE(destroy ? "destroy" : "unblock");
        PluginPtr p = plugin();
        Receiver receiver{p.get(), nullptr, 3};
        ASSERT_TRUE(receiver.open());
        VESK_Transport_RecvResource_t resource = receiver.resource;
        std::atomic<bool> returned{false};
        std::thread reader([&] {
            VESK_Transport_Message_t message{};
            EXPECT_EQ(0, p->receive_rEA(p.get(), &resource, nullptr, &message, nullptr));
            returned = true;
        });
        // Wait until the reader sleeps in the segment.
        Peek peek(base + 3, 3);
        ASSERT_TRUE(
            eventually([&] { return std::atomic_ref(peek.header().readers_waiting).load() > 0; }));
        EXPECT_FALSE(returned);
        if (destroy) {
            p->destroy_recvresource_rrEA(p.get(), &resource);
            receiver.resource = nullptr;
        } else {
            EXPECT_EQ(1, p->unblock_receive_rrEA(p.get(), &resource, nullptr));
        }
        reader.join();
    }
}

// A copied message longer than the caller's buffer is dropped with a
// warning and the next one is delivered.
TEST_F(ShmemTraffic, CopyingDropsWhatDoesNotFitAndTakesTheNext) {
    PluginPtr p = plugin({{"parent.properties_bitmap", "0"},
                          {"received_message_count_max", "2"},
                          {"maxAllowedWriterDurationMillisec", "50"}});
    Receiver receiver{p.get(), nullptr, 3};
    Sender sender{p.get()};
    ASSERT_TRUE(receiver.open() && sender.open(3));
    EXPECT_TRUE(sender.send("too long") && sender.send("fits"));
    LogCapture log;
    std::string buffer(4, '\0');
    EXPECT_EQ("fits", receiver.take(&buffer));
    EXPECT_EQ(log.summary(),
              std::vector<std::string>{
                  "KEL_LOG_ANY_FAILURE_s(SHMEM transport: dropped a message of 8 bytes "
                  "on port 3: the receive buffer holds 4)"});
    // Both places were given back.
    EXPECT_TRUE(sender.send("a") && sender.send("b"));
}

// Shares are counted; the creator's share is never undone.
TEST_F(ShmemTraffic, SharesCountAndMustMatch) {
    PluginPtr p = plugin();
    Receiver receiver{p.get(), nullptr, 3};
    Sender sender{p.get()};
    ASSERT_TRUE(receiver.open() && sender.open(3));
    VESK_Transport_Address_t own = addressOf(p.get());
    LogCapture log;
    EXPECT_EQ(1, p->share_recvresource_rrEA(p.get(), &receiver.resource, nullptr, 3, 0));
    EXPECT_EQ(0, p->share_recvresource_rrEA(p.get(), &receiver.resource, nullptr, 4, 0));
    EXPECT_EQ(1, p->unshare_recvresource_rrEA(p.get(), &receiver.resource, nullptr, 3));
    EXPECT_EQ(0, p->unshare_recvresource_rrEA(p.get(), &receiver.resource, nullptr, 3));
    EXPECT_EQ(1, p->share_sendresource_srEA(p.get(), &sender.resource, &own, 3, 0));
    EXPECT_EQ(1, p->unshare_sendresource_srEA(p.get(), &sender.resource, &own, 3, 0));
    EXPECT_EQ(0, p->unshare_sendresource_srEA(p.get(), &sender.resource, &own, 3, 0));
    EXPECT_EQ(log.summary(),
              (std::vector<std::string>{
                  "KEL_LOG_ANY_FAILURE_s(SHMEM transport: the resource's port (3) or address "
                  "differs: not shared)",
                  "KEL_LOG_ANY_FAILURE_s(SHMEM transport: no share of the resource to undo (the "
                  "creator's stays until destroy))",
                  "KEL_LOG_ANY_FAILURE_s(SHMEM transport: no share of the resource to undo (the "
                  "creator's stays until destroy))"}));
    // A new destination: the resource now writes to port 4's segment.
    Receiver other{p.get(), nullptr, 4};
    ASSERT_TRUE(other.open());
    EXPECT_EQ(1, p->update_destination(p.get(), &sender.resource, &own, 4));
    EXPECT_TRUE(sender.send("moved"));
    EXPECT_EQ("moved", other.take());
    // Destroyed twice: the second call finds nothing of its own to release.
    for (int i = 0; i < 2; ++i) {
        p->destroy_sendresource_srEA(p.get(), &sender.resource);
        p->destroy_recvresource_rrEA(p.get(), &other.resource);
    }
    sender.resource = other.resource = nullptr;
}

TEST_F(ShmemTraffic, SizesAboveALimitAreRefusedWithBothSizes) {
    PluginPtr small =
        plugin({{"parent.message_size_max", "1024"}, {"receive_buffer_size", "4096"}});
    PluginPtr big = plugin({{"parent.gather_send_buffer_count_max", "1"}});
    Receiver receiver{small.get(), nullptr, 4};
    Sender fromSmall{small.get()}, fromBig{big.get()};
    ASSERT_TRUE(receiver.open() && fromSmall.open(4) && fromBig.open(4));
    struct Row {
        Sender *sender;
        std::size_t size;
        const char *tail;
        const char *message;
    };
    const Row rows[] = {
        {&fromSmall, 1025, "", "message of 1025 bytes is above message_size_max 1024"},
        {&fromBig, 2000, "",
         "message of 2000 bytes does not fit the receiver on port 4 "
         "(message_size_max 1024, ring of 4096 bytes)"},
        {&fromBig, 10, "x", "2 buffers to gather, outside 1..gather_send_buffer_count_max 1"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.message);
        LogCapture log;
        EXPECT_EQ(0, row.sender->send(std::string(row.size, 'm'), row.tail));
        EXPECT_EQ(log.summary(),
                  std::vector<std::string>{std::string("KEL_LOG_ANY_FAILURE_s(SHMEM transport: ") +
                                           row.message + ")"});
    }
}

TEST_F(ShmemTraffic, FormatPairsInteroperateOrRefuseNamingBoth) {
    const int formats[] = {1, 2, 4, 5};
    const bool robust = KELOsapiSharedMemorySemMutex_useRobustMutex() != 0;
    VESK_Transport_Port_t port = 5;
    for (int segment : formats) {
        if (segment == 5 && !robust) continue;
        PluginPtr receiving = plugin();
        auto *record = const_cast<VESK_Transport_Shmem_Property_t *>(
            reinterpret_cast<const VESK_Transport_Shmem_Property_t *>(receiving->property));
        record->majorVersion = static_cast<KEL_INT16>(segment);
        Receiver receiver{receiving.get(), nullptr, port};
        ASSERT_TRUE(receiver.open());
        for (int writer : formats) {
            SCOPED_TRACE("writer " + std::to_string(writer) + ", segment " +
                         std::to_string(segment));
            PluginPtr writing = plugin();
            const_cast<VESK_Transport_Shmem_Property_t *>(
                reinterpret_cast<const VESK_Transport_Shmem_Property_t *>(writing->property))
                ->majorVersion = static_cast<KEL_INT16>(writer);
            bool expected = false;
            for (auto pair : vesk::shmem::kWritableFormats) {
                expected = expected || (pair.writer == writer && pair.segment == segment);
            }
            LogCapture log;
            Sender sender{writing.get()};
            ASSERT_EQ(expected, sender.open(port));
            if (expected) {
                EXPECT_TRUE(sender.send("v", std::to_string(writer)));
                EXPECT_EQ("v" + std::to_string(writer), receiver.take());
            } else {
                EXPECT_EQ(
                    log.summary(),
                    std::vector<std::string>{
                        "KEL_LOG_ANY_FAILURE_s(SHMEM transport: segment of port " +
                        std::to_string(port) + " has format " + std::to_string(segment) +
                        ", which a format " + std::to_string(writer) + " writer cannot write)"});
            }
        }
        ++port;
    }
}

// A writer killed while it holds the lock in the middle of a message: the
// torn message is never delivered, the next writer goes on, for the robust
// mutex and for the semaphore.
TEST_F(ShmemTraffic, AWriterKilledMidMessageDeliversNothingTorn) {
    const int formats[] = {5, 4};
    VESK_Transport_Port_t port = 9;
    for (int format : formats) {
        SCOPED_TRACE("format " + std::to_string(format));
        if (format == 5 && KELOsapiSharedMemorySemMutex_useRobustMutex() == 0) continue;
        PluginPtr p = plugin();
        const_cast<VESK_Transport_Shmem_Property_t *>(
            reinterpret_cast<const VESK_Transport_Shmem_Property_t *>(p->property))
            ->majorVersion = static_cast<KEL_INT16>(format);
        Receiver receiver{p.get(), nullptr, port};
        ASSERT_TRUE(receiver.open());
        const pid_t child = spawn([&] {
            Peek peek(base + static_cast<int>(port), port);
            Header &header = peek.header();
            if (!vesk::shmem::lockRing(header)) return 1;
            vesk::shmem::Descriptor &slot =
                vesk::shmem::descriptors(&header)[header.write_seq % header.slot_count];
            slot.state = vesk::shmem::kWriting;
            slot.length = 100;
            std::memset(vesk::shmem::dataArea(&header), 't', 50);
            raise(SIGKILL);
            return 2;
        });
        EXPECT_EQ(-SIGKILL, reap(child));
        Sender sender{p.get()};
        ASSERT_TRUE(sender.open(port));
        EXPECT_TRUE(sender.send("whole"));
        EXPECT_EQ("whole", receiver.take());
        Peek peek(base + static_cast<int>(port), port);
        EXPECT_EQ(1u, peek.header().torn);
        ++port;
    }
}

// A descriptor in the delivered range whose sequence is not its own (left
// from an earlier lap) is discarded from format 2 on; format 1 cannot tell.
TEST_F(ShmemTraffic, AStaleDescriptorIsNeverDeliveredFromFormat2On) {
    const struct {
        int format;
        const char *first;
    } rows[] = {{5, "real"}, {2, "real"}, {1, "stale"}};
    VESK_Transport_Port_t port = 5;
    for (const auto &row : rows) {
        SCOPED_TRACE("format " + std::to_string(row.format));
        PluginPtr p = plugin();
        const_cast<VESK_Transport_Shmem_Property_t *>(
            reinterpret_cast<const VESK_Transport_Shmem_Property_t *>(p->property))
            ->majorVersion = static_cast<KEL_INT16>(row.format);
        Receiver receiver{p.get(), nullptr, port};
        Sender sender{p.get()};
        ASSERT_TRUE(receiver.open() && sender.open(port));
        {
            Peek peek(base + static_cast<int>(port), port);
            Header &header = peek.header();
            ASSERT_TRUE(vesk::shmem::lockRing(header));
            vesk::shmem::Descriptor &slot = vesk::shmem::descriptors(&header)[0];
            slot = {vesk::shmem::kReady, 5, header.write_seq + 64, 0};
            std::memcpy(vesk::shmem::dataArea(&header), "stale", 5);
            header.write_seq = 1;
            header.data_head = 8;
            vesk::shmem::unlockRing(header);
        }
        EXPECT_TRUE(sender.send("real"));
        EXPECT_EQ(row.first, receiver.take());
        ++port;
    }
}

// A receiving process that is killed while blocked, or that exits without
// cleaning up, leaves a segment that the next receiver on the port takes
// over; a writer attached to the old one follows to the new one.
TEST_F(ShmemTraffic, ADeadReceiverDoesNotBlockTheNextRun) {
    struct Row {
        const char *what;
        bool killed;
    };
    const Row rows[] = {{"killed while receiving", true}, {"exited without clean-up", false}};
    VESK_Transport_Port_t port = 11;
    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        PluginPtr p = plugin();
        const pid_t child = spawn([&] {
            Receiver receiver{p.get(), nullptr, port};
            if (!receiver.open()) return 1;
            if (row.killed) receiver.take();
            _exit(0);  // no destructor: the segment stays
        });
        Sender sender{p.get()};
        ASSERT_TRUE(eventually([&] {
            LogCapture quiet;
            return sender.open(port);
        }));
        if (row.killed) kill(child, SIGKILL);
        reap(child);
        const std::string name = vesk::shmem::segmentName(base + static_cast<int>(port));
        int listed = 0;
        for (const auto &segment : vesk::shmem::listSegments()) {
            if (segment.name != name) continue;
            ++listed;
            EXPECT_FALSE(segment.alive);
            EXPECT_EQ(child, segment.header.creator_pid);
        }
        EXPECT_EQ(1, listed);
        Receiver receiver{p.get(), nullptr, port};
        ASSERT_TRUE(receiver.open());
        EXPECT_TRUE(sender.send("after"));
        EXPECT_EQ("after", receiver.take());
        ++port;
    }
}

TEST_F(ShmemTraffic, ResourcesAreRefusedWithAReasonTheCallerCanActOn) {
    PluginPtr p = plugin();
    PluginPtr off = plugin({{"CORE_6518_unit_test_disable_shmem", "TRUE"}});
    Receiver holder{p.get(), nullptr, 13};
    ASSERT_TRUE(holder.open());
    const std::string pid = std::to_string(getpid());
    const VESK_Transport_Address_t multicast{{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 239, 255, 0, 1}};
    struct Row {
        const char *what;
        std::function<int()> call;
        std::string reason;
    };
    VESK_Transport_RecvResource_t r = nullptr;
    VESK_Transport_SendResource_t s = nullptr;
    VESK_Transport_Port_t port13 = 13, port14 = 14, port0 = 0;
    VESK_Transport_Address_t own = addressOf(p.get()), other = multicast;
    const std::string name = vesk::shmem::segmentName(base + 14);
    Sender moving{p.get()};
    ASSERT_TRUE(moving.open(13));
    const VESK_Transport_Buffer_t nothing{0, nullptr}, negative{-1, nullptr};
    const Row rows[] = {
        {"moved to another host",
         [&] { return p->update_destination(p.get(), &moving.resource, &other, 13); },
         "destination is not this host's shared-memory address: use UDP"},
        {"moved to a port without keys",
         [&] { return p->update_destination(p.get(), &moving.resource, &own, 0x70000000); },
         "port 1879048192 gives a key outside 1..2147483647"},
        {"moved to a port without receiver",
         [&] { return p->update_destination(p.get(), &moving.resource, &own, 14); },
         "no segment " + name +
             " for port 14 in this IPC namespace (no receiver, or the receiver is in another "
             "container): use UDP"},
        {"negative length",
         [&] { return p->send(p.get(), &moving.resource, nullptr, 0, 0, &negative, 1, nullptr); },
         "buffer 0 has a negative length or no data"},
        {"switched off",
         [&] { return off->create_recvresource_rrEA(off.get(), &r, &port14, nullptr, 0); },
         "shared memory is switched off (reserved = 1): use UDP"},
        {"multicast",
         [&] { return p->create_recvresource_rrEA(p.get(), &r, &port14, &multicast, 0); },
         "shared memory has no multicast: use UDP for multicast receive"},
        {"port 0", [&] { return p->create_recvresource_rrEA(p.get(), &r, &port0, nullptr, 0); },
         "port 0: give the port to receive on"},
        {"port in use",
         [&] { return p->create_recvresource_rrEA(p.get(), &r, &port13, nullptr, 0); },
         "port 13 is in use by process " + pid},
        {"another host", [&] { return p->create_sendresource_srEA(p.get(), &s, &other, 13, 0); },
         "destination is not this host's shared-memory address: use UDP"},
        {"no receiver", [&] { return p->create_sendresource_srEA(p.get(), &s, &own, 14, 0); },
         "no segment " + name +
             " for port 14 in this IPC namespace (no receiver, or the receiver is "
             "in another container): use UDP"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        LogCapture log;
        EXPECT_EQ(0, row.call());
        EXPECT_EQ(log.summary(), std::vector<std::string>{
                                     "KEL_LOG_ANY_FAILURE_s(SHMEM transport: " + row.reason + ")"});
    }
    EXPECT_EQ(0, p->update_destination(p.get(), nullptr, &own, 13));
    // An empty buffer needs no data.
    EXPECT_EQ(1, p->send(p.get(), &moving.resource, nullptr, 0, 0, &nothing, 1, nullptr));
    if (getuid() != 0) return;
    // Another user cannot open the segment (mode 0600).
    const pid_t child = spawn([&] {
        if (setresuid(65534, 65534, 65534) != 0) return 3;
        LogCapture log;
        if (p->create_sendresource_srEA(p.get(), &s, &own, 13, 0) != 0) return 1;
        const auto summary = log.summary();
        return summary.size() == 1 && summary[0].find("no permission to open") != std::string::npos
                   ? 0
                   : 2;
    });
    EXPECT_EQ(0, reap(child));
}

// The debugging copy of a message, observed on the loopback of a network
// namespace of the test's own.
TEST_F(ShmemTraffic, UdpDebuggingCopiesEachMessageToLoopback) {
    const pid_t child = spawn([&] {
        if (unshare(CLONE_NEWNET) != 0) return 77;
        const int control = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        ifreq request{};
        std::strcpy(request.ifr_name, "lo");
        request.ifr_flags = IFF_UP;
        if (ioctl(control, SIOCSIFFLAGS, &request) != 0) return 3;
        close(control);
        const int listener = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in at{};
        at.sin_family = AF_INET;
        at.sin_port = htons(7399);
        at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (bind(listener, reinterpret_cast<sockaddr *>(&at), sizeof at) != 0) return 4;
        PluginPtr p =
            plugin({{"enable_udp_debugging", "1"}, {"udp_debugging_address", "127.0.0.1"}});
        Receiver receiver{p.get(), nullptr, 15};
        Sender sender{p.get()};
        if (!p || !receiver.open() || !sender.open(15) || !sender.send("seen ", "twice")) return 5;
        pollfd ready{listener, POLLIN, 0};
        char copy[64] = {};
        if (poll(&ready, 1, 1000) != 1 || recv(listener, copy, sizeof copy, 0) != 10) return 6;
        close(listener);
        return std::string(copy) == "seen twice" && receiver.take() == "seen twice" ? 0 : 7;
    });
    const int status = reap(child);
    if (status == 77) GTEST_SKIP() << "cannot make a network namespace here";
    EXPECT_EQ(0, status);
}

}  // namespace
