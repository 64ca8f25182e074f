// Interface tracking on real kernel interfaces in network namespaces the
// tests create (veth pairs, documentation addresses): the tracker thread
// with netlink and with polling, its lifetime (prompt stop, no descriptor
// left, failed looks), and the UDP plugin that follows it.

#include <arpa/inet.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <net/if.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <fstream>
#include <functional>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/NetNamespace.hpp"
#include "support/TestSupport.hpp"
#include "support/UdpTraffic.hpp"
#include "vesk_transport/platform/udp/InterfaceTracker.hpp"

namespace {

using vesk::test::ip;
using vesk::test::openDescriptorCount;
using vesk::udp::InterfaceCandidate;
using vesk::udp::InterfaceTracker;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using Test = std::function<bool(const InterfaceTracker::Snapshot &)>;

// The snapshots a tracker hands on, and a wait for one that satisfies a test.
struct Seen {
    std::mutex mutex;
    std::condition_variable changed;
    InterfaceTracker::Snapshot last;
    int calls = 0;

    InterfaceTracker::Callback callback() {
        return [this](const InterfaceTracker::Snapshot &snapshot) {
            std::lock_guard<std::mutex> lock(mutex);
            last = snapshot;
            ++calls;
            changed.notify_all();
        };
    }
    bool waitFor(const Test &test, milliseconds limit) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, limit, [&] { return test(last); });
    }
};

bool waitUntil(const std::function<bool()> &test, milliseconds limit = milliseconds(1000)) {
    for (const auto end = Clock::now() + limit; Clock::now() < end;) {
        if (test()) return true;
        std::this_thread::sleep_for(milliseconds(5));
    }
    return test();
}

// "name address" is there with IFF_UP as given (or is absent: up < 0).
Test has(std::string name, std::string address, int up = 1) {
    return [=](const InterfaceTracker::Snapshot &snapshot) {
        for (const InterfaceCandidate &c : snapshot) {
            if (c.name == name && vesk::udp::addressText(c) == address) {
                return up == ((c.flags & IFF_UP) != 0 ? 1 : 0);
            }
        }
        return up < 0;
    };
}

void trackChanges(bool poll) {
    VESK_ENTER_NET_NAMESPACE(ns);
    const int descriptors = openDescriptorCount();
    {
        Seen seen;
        InterfaceTracker::Options options;
        options.force_poll = poll;
        options.poll_period_ms = 150;
        InterfaceTracker::Snapshot now;
        vesk::udp::enumerateHostInterfaces(now);
        auto tracker = InterfaceTracker::start(options, now, seen.callback());
        ASSERT_NE(tracker, nullptr);
        EXPECT_EQ(tracker->usesNetlink(), !poll);
        const std::pair<const char *, Test> steps[] = {
            {"link add vt0 type veth peer name vt1", nullptr},
            {"addr add 192.0.2.1/24 dev vt0", has("vt0", "192.0.2.1", 0)},
            {"link set vt0 up", has("vt0", "192.0.2.1")},
            {"addr add 2001:db8::1/64 dev vt0 nodad", has("vt0", "2001:db8::1")},
            {"addr add 198.51.100.1/24 dev vt0", has("vt0", "198.51.100.1")},
            {"addr del 198.51.100.1/24 dev vt0", has("vt0", "198.51.100.1", -1)},
            {"link set vt0 down", has("vt0", "192.0.2.1", 0)},
            {"link set vt0 up", has("vt0", "192.0.2.1")},
            {"link del vt0", has("vt0", "192.0.2.1", -1)},
        };
        for (const auto &[command, expect] : steps) {
            SCOPED_TRACE(command);
            ASSERT_TRUE(ip(command));
            EXPECT_TRUE(!expect || seen.waitFor(expect, milliseconds(poll ? 300 : 500)));
        }
        EXPECT_EQ(tracker->usesNetlink(), !poll);  // netlink kept working throughout
    }
    EXPECT_EQ(openDescriptorCount(), descriptors);
}

TEST(InterfaceTracking, NetlinkSeesEachChangeWithin500ms) {
    trackChanges(false);
}
TEST(InterfaceTracking, PollingSeesEachChangeWithinTwoPeriods) {
    trackChanges(true);
}

// The thread stops at once, also in the middle of a long poll period or
// of a callback, and leaves no descriptor behind; a failed look is
// reported and changes nothing; looks are ordered before they are compared.
TEST(InterfaceTracking, StopsPromptlyAndReportsFailedLooks) {
    enum Looks { changing, failing, steady };
    const int descriptors = openDescriptorCount();
    for (const auto &[poll, looking] :
         {std::pair{true, changing}, {false, changing}, {true, failing}, {true, steady}}) {
        const Looks kind = looking;  // a plain variable: lambdas capture it
        SCOPED_TRACE(std::string(poll ? "polling, " : "netlink, ") + std::to_string(kind));
        vesk::test::LogCapture log(VESK_CONFIG_LOG_VERBOSITY_WARNING);
        std::atomic<int> looks{0};
        InterfaceTracker::Options options;
        options.force_poll = poll;
        options.poll_period_ms = kind == failing ? 60000 : 1;
        options.class_name = "UDPv4";
        // Two interfaces out of order; when changing, every look differs.
        const auto host = [](int look) {
            InterfaceTracker::Snapshot out(2);
            out[0].index = 2;
            out[0].name = "b";
            out[1].index = 1;
            out[1].name = "a" + (look < 0 ? std::string() : std::to_string(look));
            return out;
        };
        options.enumerate = [&looks, host, kind](InterfaceTracker::Snapshot &out) {
            const int look = looks.fetch_add(1);
            out = host(kind == changing ? look : -1);
            errno = EMFILE;
            return kind != failing;
        };
        Seen seen;
        auto tracker = InterfaceTracker::start(options, host(-1), seen.callback());
        ASSERT_NE(tracker, nullptr);
        if (kind == changing) {
            EXPECT_TRUE(seen.waitFor([](const auto &s) { return !s.empty(); }, milliseconds(2000)));
        } else {
            EXPECT_TRUE(
                waitUntil([&] { return kind == failing ? !log.entries().empty() : looks > 5; }));
        }
        const auto start = Clock::now();
        tracker.reset();
        EXPECT_LT(Clock::now() - start, milliseconds(200));
        EXPECT_EQ(seen.calls > 0, kind == changing);
        EXPECT_EQ(log.summary(), kind == failing
                                     ? std::vector<std::string>{"KEL_LOG_TRANSPORT_STATUS_TEMPLATE("
                                                                "UDPv4 interface tracking: cannot "
                                                                "list the host's interfaces (Too "
                                                                "many open files))"}
                                     : std::vector<std::string>{});
    }
    EXPECT_EQ(openDescriptorCount(), descriptors);
}

// ---------------------------------------------------------------------
// The UDP plugin follows its interfaces

struct Listener : VESK_Transport_Listener {
    std::atomic<int> calls{0};
    Listener() : VESK_Transport_Listener{} {
        on_interfaces_changed = [](VESK_Transport_Listener *self, VESK_Transport_Plugin *) {
            static_cast<Listener *>(self)->calls.fetch_add(1);
        };
    }
};

// The devices on which this thread's namespace has joined 239.255.0.1,
// from /proc/thread-self/net/igmp.
std::string joined() {
    std::ifstream in("/proc/thread-self/net/igmp");
    std::string line, device, out;
    while (std::getline(in, line)) {
        if (!line.empty() && line[0] != '\t' && line.find(':') != std::string::npos) {
            std::istringstream words(line);
            words >> device >> device;
        } else if (line.find("0100FFEF") != std::string::npos) {
            out += device + " ";
        }
    }
    return out;
}

// The plugin's side of tracking is the same whichever way the tracker
// looks (both ways are tested above): netlink here. The receive interfaces
// and the group's interfaces follow links, addresses, forced status and a
// fake address; a plugin without tracking keeps its first selection and
// holds no socket for it.
TEST(UdpPluginTracking, FollowsChanges) {
    VESK_ENTER_NET_NAMESPACE(ns);
    for (const char *command : {"link add vp0 type veth peer name vp1",
                                "addr add 192.0.2.1/24 dev vp0", "link set vp0 up"}) {
        ASSERT_TRUE(ip(command));
    }
    const int descriptors = openDescriptorCount();
    {
        VESK_Transport_UDP_Property_t record = VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT;
        record.ignore_loopback_interface = -1;
        record.ignore_nonrunning_interfaces = 0;  // the veth peers stay down: no carrier
        record.disable_interface_tracking = 1;
        vesk::test::PluginHandle frozen(VESK_Transport_UDPv4_newI(&record, nullptr, nullptr));
        ASSERT_NE(frozen, nullptr);
        EXPECT_EQ(openDescriptorCount(), descriptors);  // no tracker, no socket
        std::string pattern = "vp*";
        char *allow[] = {pattern.data()};
        record.parent.allow_multicast_interfaces_list = allow;
        record.parent.allow_multicast_interfaces_list_length = 1;
        record.disable_interface_tracking = 0;
        vesk::test::PluginHandle plugin(VESK_Transport_UDPv4_newI(&record, nullptr, nullptr));
        ASSERT_NE(plugin, nullptr);
        VESK_Transport_Plugin *p = plugin.get();
        Listener listener;
        ASSERT_EQ(p->register_listener_cEA(p, &listener), 1);
        VESK_Transport_Address_t group{}, fake{};
        ASSERT_EQ(p->string_to_address_cEA(p, &group, "239.255.0.1"), 1);
        ASSERT_EQ(p->string_to_address_cEA(p, &fake, "203.0.0.7"), 1);
        VESK_Transport_RecvResource_t resource = nullptr;
        VESK_Transport_Port_t port = 0;
        ASSERT_EQ(p->create_recvresource_rrEA(p, &resource, &port, &group, 0), 1);
        const auto state = [&] { return vesk::test::receiveInterfaces(p) + "| " + joined(); };
        EXPECT_EQ(state(), "192.0.2.1 up; | vp0 ");
        struct Step {
            std::vector<const char *> commands;  // or none: a control call
            std::function<void()> control;
            const char *expected;
        };
        const Step steps[] = {
            {{"addr add 198.51.100.1/24 dev vp0"},
             nullptr,
             "192.0.2.1 up; 198.51.100.1 up; | vp0 "},
            {{},
             [&] { VESK_Transport_UDP_change_interface_status(p, "vp0", 0); },
             "192.0.2.1 down; 198.51.100.1 down; | "},
            {{"addr del 198.51.100.1/24 dev vp0"}, nullptr, "192.0.2.1 down; | "},  // still forced
            {{},
             [&] { VESK_Transport_UDP_change_interface_status(p, "vp0", 1); },
             "192.0.2.1 up; | vp0 "},
            {{},
             [&] { VESK_Transport_UDP_assert_fake_ip_address(p, &fake); },
             "203.0.0.7 up; | vp0 "},
            {{"link add vp2 type veth peer name vp3", "addr add 198.51.100.1/24 dev vp2",
              "link set vp2 up"},
             nullptr,
             "203.0.0.7 up; | vp0 vp2 "},  // the fake stays
            {{},
             [&] { VESK_Transport_UDP_remove_fake_ip_address(p); },
             "192.0.2.1 up; 198.51.100.1 up; | vp0 vp2 "},
            {{"link del vp2"}, nullptr, "192.0.2.1 up; | vp0 "},
            {{"link set vp0 down"}, nullptr, "127.0.0.1 up; | "},  // only lo left: lo serves
        };
        for (const Step &step : steps) {
            SCOPED_TRACE(step.expected);
            const int before = listener.calls.load();
            for (const char *command : step.commands) ASSERT_TRUE(ip(command));
            if (step.control) step.control();
            if (!step.commands.empty()) {
                EXPECT_TRUE(waitUntil([&] { return listener.calls.load() > before; }))
                    << "the listener was not told";
            }
            EXPECT_TRUE(waitUntil([&] { return state() == step.expected; })) << state();
        }
        EXPECT_EQ(vesk::test::receiveInterfaces(frozen.get()), "192.0.2.1 up; ");
        p->destroy_recvresource_rrEA(p, &resource);
    }
    EXPECT_EQ(joined(), "");
    EXPECT_EQ(openDescriptorCount(), descriptors);
}

}  // namespace
