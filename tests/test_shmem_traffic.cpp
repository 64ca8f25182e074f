// Shared-memory traffic between factory-built plugins: exchange across
// processes, full ring, size and format refusals, killed peers, takeover,
// UDP debugging copies, and nothing left behind.

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <thread>

#include "support/NetNamespace.hpp"
#include "support/ShmemPeers.hpp"
#include "support/TestSupport.hpp"
#include "vesk_transport/platform/Host.h"
#include "vesk_transport/platform/shmem/Ring.hpp"

namespace {

using namespace vesk::test;
using namespace vesk::shmem;
using Strings = std::vector<std::string>;

std::string failure(const std::string &reason) {
    return "KEL_LOG_ANY_FAILURE_s(SHMEM transport: " + reason + ")";
}

// The segment of a port, mapped for looking at its counters.
struct Peek {
    Mapping mapping;
    Peek(int key, VESK_Transport_Port_t port) {
        std::string reason;
        EXPECT_TRUE(attachSegment(key, port, mapping, reason)) << reason;
    }
    ~Peek() { unmap(mapping); }
    Header &header() { return *mapping.header; }
};

TEST_F(ShmemTraffic, TwoProcessesExchangeGatheredMessagesLoanedOrCopied) {
    const struct Row {
        std::size_t size;
        bool copied;
    } rows[] = {{0, false}, {64, false}, {8192, true}, {65536, false}};
    auto text = [](std::size_t size) { return std::string(size, char('a' + size % 26)); };
    // Loaned when no buffer is given, else copied.
    PluginPtr receiving = plugin({{"parent.properties_bitmap", "0"}});
    Receiver receiver{receiving.get(), 1};
    ASSERT_TRUE(receiver.open());
    const pid_t child = spawn([&] {
        PluginPtr sending = plugin();
        Sender sender{sending.get()};
        if (!sender.open(1)) return 1;
        for (const Row &row : rows) {
            const std::string message = text(row.size);
            if (!sender.send(message.substr(0, row.size / 2), message.substr(row.size / 2)))
                return 2;
        }
        return 0;
    });
    for (const Row &row : rows) {
        std::string buffer(row.size + 1, '\0');
        EXPECT_EQ(text(row.size), receiver.take(row.copied ? &buffer : nullptr)) << row.size;
    }
    EXPECT_EQ(0, reap(child));
}

TEST_F(ShmemTraffic, AFullRingOrAShortBufferDropsWithAReason) {
    PluginPtr p = plugin({{"parent.properties_bitmap", "0"},
                          {"received_message_count_max", "2"},
                          {"maxAllowedWriterDurationMillisec", "100"}});
    Receiver receiver{p.get(), 2};
    Sender sender{p.get()};
    ASSERT_TRUE(receiver.open() && sender.open(2));
    EXPECT_TRUE(sender.send("one") && sender.send("two"));
    LogCapture log;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(0, sender.send("three"));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));
    // A waiting writer goes on as soon as the reader gives a place back.
    std::thread writer([&] { EXPECT_EQ(1, sender.send("four")); });
    EXPECT_EQ("one", receiver.take());
    writer.join();
    EXPECT_EQ("two", receiver.take());
    EXPECT_EQ("four", receiver.take());
    // A copied message longer than the caller's buffer is dropped, the next
    // one is delivered, and both places are given back.
    EXPECT_TRUE(sender.send("too long") && sender.send("fits"));
    std::string buffer(4, '\0');
    EXPECT_EQ("fits", receiver.take(&buffer));
    EXPECT_TRUE(sender.send("a") && sender.send("b"));
    EXPECT_EQ(log.summary(),
              (Strings{failure("dropped a message of 5 bytes to port 2: its receive ring stayed "
                               "full for 100 ms"),
                       failure("dropped a message of 8 bytes on port 2: the receive buffer "
                               "holds 4")}));
}

// Two threads sending through one resource while a third receives: each
// sender's messages arrive whole and in its order.
TEST_F(ShmemTraffic, ConcurrentSendersKeepTheirOrder) {
    PluginPtr p = plugin({{"received_message_count_max", "4"}});
    Receiver receiver{p.get(), 16};
    Sender sender{p.get()};
    ASSERT_TRUE(receiver.open() && sender.open(16));
    constexpr int kEach = 200;
    auto run = [&](char who) {
        for (int i = 0; i < kEach; ++i) EXPECT_EQ(1, sender.send({who}, std::to_string(i)));
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
        Receiver receiver{p.get(), 3};
        ASSERT_TRUE(receiver.open());
        VESK_Transport_RecvResource_t resource = receiver.resource;
        std::atomic<bool> returned{false};
        std::thread reader([&] {
            VESK_Transport_Message_t message{};
            EXPECT_EQ(0, p->receive_rEA(p.get(), &resource, nullptr, &message, nullptr));
            returned = true;
        });
        Peek peek(base + 3, 3);  // until the reader sleeps in the segment
        ASSERT_TRUE(
            eventually([&] { return std::atomic_ref(peek.header().readers_waiting).load() > 0; }));
        EXPECT_FALSE(returned);
        if (destroy) {
            p->destroy_recvresource_rrEA(p.get(), &receiver.resource);
        } else {
            EXPECT_EQ(1, p->unblock_receive_rrEA(p.get(), &resource, nullptr));
        }
        reader.join();
    }
}

// Which writer format writes which segment format, and the refusal naming both.
TEST_F(ShmemTraffic, FormatPairsInteroperateOrRefuseNamingBoth) {
    const std::string writable = " 1/1 2/1 2/2 4/4 5/4 5/5 ";
    const bool robust = KELOsapiSharedMemorySemMutex_useRobustMutex() != 0;
    VESK_Transport_Port_t port = 5;
    for (int segment : {1, 2, 4, 5}) {
        if (segment == 5 && !robust) continue;
        PluginPtr receiving = plugin();
        recordOf(receiving.get()).majorVersion = KEL_INT16(segment);
        Receiver receiver{receiving.get(), port};
        ASSERT_TRUE(receiver.open());
        for (int writer : {1, 2, 4, 5}) {
            const std::string pair = std::to_string(writer) + "/" + std::to_string(segment);
            SCOPED_TRACE(pair);
            PluginPtr writing = plugin();
            recordOf(writing.get()).majorVersion = KEL_INT16(writer);
            const bool expected = writable.find(" " + pair + " ") != std::string::npos;
            LogCapture log;
            Sender sender{writing.get()};
            ASSERT_EQ(expected, sender.open(port));
            if (expected) {
                EXPECT_TRUE(sender.send("v", std::to_string(writer)));
                EXPECT_EQ("v" + std::to_string(writer), receiver.take());
            } else {
                EXPECT_EQ(
                    log.summary(),
                    Strings{failure("segment of port " + std::to_string(port) + " has format " +
                                    std::to_string(segment) + ", which a format " +
                                    std::to_string(writer) + " writer cannot write")});
            }
        }
        ++port;
    }
}

// A writer killed while it holds the lock in the middle of a message (with
// the robust mutex and with the semaphore) delivers nothing torn; and a
// descriptor in the delivered range whose sequence is not its own (left from
// an earlier lap) is discarded from format 2 on; format 1 cannot tell.
TEST_F(ShmemTraffic, NeitherATornMessageNorAStaleDescriptorIsDelivered) {
    const struct Row {
        int format;
        bool killed;
        const char *first;
        unsigned torn;  // counted as torn or stale
    } rows[] = {{5, true, "real", 1},
                {4, true, "real", 1},
                {5, false, "real", 1},
                {2, false, "real", 1},
                {1, false, "stale", 0}};
    VESK_Transport_Port_t port = 5;
    for (const Row &row : rows) {
        SCOPED_TRACE("format " + std::to_string(row.format) + (row.killed ? " killed" : ""));
        if (row.format == 5 && KELOsapiSharedMemorySemMutex_useRobustMutex() == 0) continue;
        PluginPtr p = plugin();
        recordOf(p.get()).majorVersion = KEL_INT16(row.format);
        Receiver receiver{p.get(), port};
        Sender sender{p.get()};
        ASSERT_TRUE(receiver.open() && sender.open(port));
        const int key = base + static_cast<int>(port);
        if (row.killed) {
            const pid_t child = spawn([&] {
                Peek peek(key, port);
                Header &header = peek.header();
                if (!lockRing(header)) return 1;
                Descriptor &slot = descriptors(&header)[header.write_seq % header.slot_count];
                slot.state = kWriting;
                slot.length = 100;
                std::memset(dataArea(&header), 't', 50);
                raise(SIGKILL);
                return 2;
            });
            EXPECT_EQ(-SIGKILL, reap(child));
        } else {
            Peek peek(key, port);
            Header &header = peek.header();
            ASSERT_TRUE(lockRing(header));
            descriptors(&header)[0] = {kReady, 5, header.write_seq + 64, 0};
            std::memcpy(dataArea(&header), "stale", 5);
            header.write_seq = 1;
            header.data_head = 8;
            unlockRing(header);
        }
        EXPECT_TRUE(sender.send("real"));
        EXPECT_EQ(row.first, receiver.take());
        EXPECT_EQ(row.torn, Peek(key, port).header().torn);
        ++port;
    }
}

// A receiving process that is killed while blocked, or that exits without
// cleaning up, leaves a segment that the next receiver on the port takes
// over; a writer attached to the old one follows to the new one.
TEST_F(ShmemTraffic, ADeadReceiverDoesNotBlockTheNextRun) {
    VESK_Transport_Port_t port = 11;
    for (const bool killed : {true, false}) {
        SCOPED_TRACE(killed ? "killed while receiving" : "exited without clean-up");
        PluginPtr p = plugin();
        const pid_t child = spawn([&] {
            Receiver receiver{p.get(), port};
            if (!receiver.open()) return 1;
            if (killed) receiver.take();
            _exit(0);  // no destructor: the segment stays
        });
        Sender sender{p.get()};
        ASSERT_TRUE(eventually([&] {
            LogCapture quiet;
            return sender.open(port);
        }));
        if (killed) kill(child, SIGKILL);
        reap(child);
        int listed = 0;
        for (const auto &segment : listSegments()) {
            if (segment.name != segmentName(base + static_cast<int>(port))) continue;
            ++listed;
            EXPECT_FALSE(segment.alive);
            EXPECT_EQ(child, segment.header.creator_pid);
        }
        EXPECT_EQ(1, listed);
        Receiver receiver{p.get(), port};
        ASSERT_TRUE(receiver.open());
        EXPECT_TRUE(sender.send("after"));
        EXPECT_EQ("after", receiver.take());
        ++port;
    }
}

// Each refusal with the reason the caller can act on; shares are counted and
// the creator's share is never undone.
TEST_F(ShmemTraffic, ResourcesAreRefusedWithAReasonTheCallerCanActOn) {
    PluginPtr p = plugin(), off = plugin({{"CORE_6518_unit_test_disable_shmem", "TRUE"}});
    PluginPtr small =
        plugin({{"parent.message_size_max", "1024"}, {"receive_buffer_size", "4096"}});
    PluginPtr big = plugin({{"parent.gather_send_buffer_count_max", "1"}});
    Receiver holder{small.get(), 13};
    Sender moving{p.get()}, fromSmall{small.get()}, fromBig{big.get()};
    ASSERT_TRUE(holder.open() && moving.open(13) && fromSmall.open(13) && fromBig.open(13));
    VESK_Transport_RecvResource_t r = nullptr;
    VESK_Transport_SendResource_t s = nullptr;
    VESK_Transport_Port_t port13 = 13, port14 = 14, port0 = 0;
    const VESK_Transport_Address_t multicast{{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 239, 255, 0, 1}};
    VESK_Transport_Address_t own = recordOf(p.get()).shmemUUID, other = multicast, none{};
    const std::string noReceiver = "no segment " + segmentName(base + 14) +
                                   " for port 14 in this IPC namespace (no receiver, or the "
                                   "receiver is in another container): use UDP";
    const std::string otherHost = "destination is not this host's shared-memory address: use UDP";
    const std::string noShare =
        "no share of the resource to undo (the creator's stays until destroy)";
    const VESK_Transport_Buffer_t nothing{0, nullptr}, negative{-1, nullptr};
    auto &mr = moving.resource;
    auto &hr = holder.resource;
    VESK_Transport_Plugin *sm = small.get();
    const struct Row {
        std::function<int()> call;
        std::string reason;
    } rows[] = {
        {[&] { return p->update_destination(p.get(), &mr, &other, 13); }, otherHost},
        {[&] { return p->update_destination(p.get(), &mr, &own, 0x70000000); },
         "port 1879048192 gives a key outside 1..2147483647"},
        {[&] { return p->update_destination(p.get(), &mr, &own, 14); }, noReceiver},
        {[&] { return p->send(p.get(), &mr, nullptr, 0, 0, &negative, 1, nullptr); },
         "buffer 0 has a negative length or no data"},
        {[&] { return fromSmall.send(std::string(1025, 'm')); },
         "message of 1025 bytes is above message_size_max 1024"},
        {[&] { return fromBig.send(std::string(2000, 'm')); },
         "message of 2000 bytes does not fit the receiver on port 13 (message_size_max 1024, "
         "ring of 4096 bytes)"},
        {[&] { return fromBig.send("m", "x"); },
         "2 buffers to gather, outside 1..gather_send_buffer_count_max 1"},
        {[&] { return off->create_recvresource_rrEA(off.get(), &r, &port14, nullptr, 0); },
         "shared memory is switched off (reserved = 1): use UDP"},
        {[&] { return p->create_recvresource_rrEA(p.get(), &r, &port14, &multicast, 0); },
         "shared memory has no multicast: use UDP for multicast receive"},
        {[&] { return p->create_recvresource_rrEA(p.get(), &r, &port0, nullptr, 0); },
         "port 0: give the port to receive on"},
        {[&] { return p->create_recvresource_rrEA(p.get(), &r, &port13, nullptr, 0); },
         "port 13 is in use by process " + std::to_string(getpid())},
        {[&] { return p->create_sendresource_srEA(p.get(), &s, &other, 13, 0); }, otherHost},
        {[&] { return p->create_sendresource_srEA(p.get(), &s, &own, 14, 0); }, noReceiver},
        {[&] { return p->create_sendresource_srEA(p.get(), &s, &own, 0x70000000, 0); },
         "port 1879048192 gives a key outside 1..2147483647"},
        {[&] { return sm->share_recvresource_rrEA(sm, &hr, nullptr, 14, 0); },
         "the resource's port (13) or address differs: not shared"},
        {[&] { return sm->unshare_recvresource_rrEA(sm, &hr, nullptr, 13); }, noShare},
        {[&] { return p->unshare_sendresource_srEA(p.get(), &mr, &own, 13, 0); }, noShare},
    };
    {  // shares are counted: each one is undone once, then no more
        LogCapture quiet;
        EXPECT_EQ(1, sm->share_recvresource_rrEA(sm, &hr, &none, 13, 0));  // no address: unicast
        EXPECT_EQ(1, sm->unshare_recvresource_rrEA(sm, &hr, nullptr, 13));
        EXPECT_EQ(1, p->share_sendresource_srEA(p.get(), &mr, &own, 13, 0));
        EXPECT_EQ(1, p->unshare_sendresource_srEA(p.get(), &mr, &own, 13, 0));
        EXPECT_TRUE(quiet.entries().empty());
    }
    for (const Row &row : rows) {
        SCOPED_TRACE(row.reason);
        LogCapture log;
        EXPECT_EQ(0, row.call());
        EXPECT_EQ(log.summary(), Strings{failure(row.reason)});
    }
    EXPECT_EQ(0, p->update_destination(p.get(), nullptr, &own, 13));
    // An empty buffer needs no data.
    EXPECT_EQ(1, p->send(p.get(), &mr, nullptr, 0, 0, &nothing, 1, nullptr));
    // A new destination: the resource now writes to port 14's segment.
    Receiver other14{p.get(), 14};
    ASSERT_TRUE(other14.open());
    EXPECT_EQ(1, p->update_destination(p.get(), &mr, &own, 14));
    EXPECT_TRUE(moving.send("moved"));
    EXPECT_EQ("moved", other14.take());
    // Destroyed twice: the second call finds nothing of its own to release.
    for (int i = 0; i < 2; ++i) {
        p->destroy_sendresource_srEA(p.get(), &mr);
        p->destroy_recvresource_rrEA(p.get(), &other14.resource);
    }
    mr = other14.resource = nullptr;
    if (getuid() != 0) return;
    // Another user cannot open the segment (mode 0600).
    const pid_t child = spawn([&] {
        if (setresuid(65534, 65534, 65534) != 0) return 3;
        LogCapture log;
        if (p->create_sendresource_srEA(p.get(), &s, &own, 13, 0) != 0) return 1;
        return log.summary().size() == 1 &&
                       log.summary()[0].find("no permission to open") != std::string::npos
                   ? 0
                   : 2;
    });
    EXPECT_EQ(0, reap(child));
}

// The debugging copy of a message, observed on the loopback of a network
// namespace of the test's own.
TEST_F(ShmemTraffic, UdpDebuggingCopiesEachMessageToLoopback) {
    const PlainNetNamespace inside;
    if (!inside.ok) GTEST_SKIP() << "cannot make a network namespace here (not root?)";
    const int listener = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in at{};
    at.sin_family = AF_INET;
    at.sin_port = htons(7399);
    at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(0, bind(listener, reinterpret_cast<sockaddr *>(&at), sizeof at));
    PluginPtr p = plugin({{"enable_udp_debugging", "1"}, {"udp_debugging_address", "127.0.0.1"}});
    Receiver receiver{p.get(), 15};
    Sender sender{p.get()};
    ASSERT_TRUE(p && receiver.open() && sender.open(15) && sender.send("seen ", "twice"));
    pollfd ready{listener, POLLIN, 0};
    char copy[64] = {};
    EXPECT_EQ(1, poll(&ready, 1, 1000));
    EXPECT_EQ(10, recv(listener, copy, sizeof copy, MSG_DONTWAIT));
    close(listener);
    EXPECT_STREQ("seen twice", copy);
    EXPECT_EQ("seen twice", receiver.take());
}

}  // namespace
