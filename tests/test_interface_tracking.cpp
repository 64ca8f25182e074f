// Interface tracking on real kernel interfaces in network namespaces the
// tests create (veth pairs, documentation addresses): the tracker thread
// with netlink and with polling, the plugins that follow it, and the
// tracker's lifetime (prompt stop, no descriptor left).

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
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/NetNamespace.hpp"
#include "support/TestSupport.hpp"
#include "support/UdpTraffic.hpp"
#include "vesk_transport/platform/Udp.h"
#include "vesk_transport/platform/udp/InterfaceTracker.hpp"

namespace {

using vesk::test::ip;
using vesk::test::receiveInterfaces;
using vesk::udp::InterfaceCandidate;
using vesk::udp::InterfaceTracker;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

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
    // The time it took, or -1 when the deadline passed first.
    long waitFor(const std::function<bool(const InterfaceTracker::Snapshot &)> &test,
                 milliseconds limit) {
        const auto start = Clock::now();
        std::unique_lock<std::mutex> lock(mutex);
        if (!changed.wait_for(lock, limit, [&] { return test(last); })) return -1;
        return std::chrono::duration_cast<milliseconds>(Clock::now() - start).count();
    }
};

// "name address" holds (with flag bits all set, or all clear when !set).
std::function<bool(const InterfaceTracker::Snapshot &)> has(std::string name, std::string address,
                                                            bool present = true,
                                                            unsigned int flags = 0,
                                                            bool set = true) {
    return [=](const InterfaceTracker::Snapshot &snapshot) {
        for (const InterfaceCandidate &c : snapshot) {
            if (c.name != name || vesk::udp::addressText(c) != address) continue;
            return present && (set ? (c.flags & flags) == flags : (c.flags & flags) == 0);
        }
        return !present;
    };
}

InterfaceTracker::Snapshot hostNow() {
    InterfaceTracker::Snapshot now;
    vesk::udp::enumerateHostInterfaces(now);
    return now;
}

void trackChanges(bool poll) {
    VESK_ENTER_NET_NAMESPACE(ns);
    const int descriptors = vesk::test::openDescriptorCount();
    {
        Seen seen;
        InterfaceTracker::Options options;
        options.force_poll = poll;
        options.poll_period_ms = 150;
        auto tracker = InterfaceTracker::start(options, hostNow(), seen.callback());
        ASSERT_NE(tracker, nullptr);
        EXPECT_EQ(tracker->usesNetlink(), !poll);
        const milliseconds limit(poll ? 2 * options.poll_period_ms : 500);
        struct Step {
            const char *command;
            std::function<bool(const InterfaceTracker::Snapshot &)> expect;
        };
        // clang-format off
        const std::vector<Step> steps = {
            {"link add vt0 type veth peer name vt1", nullptr},
            {"addr add 192.0.2.1/24 dev vt0", has("vt0", "192.0.2.1", true, IFF_UP, false)},
            {"link set vt0 up", has("vt0", "192.0.2.1", true, IFF_UP)},
            {"addr add 2001:db8::1/64 dev vt0 nodad", has("vt0", "2001:db8::1")},
            {"addr add 198.51.100.1/24 dev vt0", has("vt0", "198.51.100.1")},
            {"addr del 198.51.100.1/24 dev vt0", has("vt0", "198.51.100.1", false)},
            {"link set vt0 down", has("vt0", "192.0.2.1", true, IFF_UP, false)},
            {"link set vt0 up", has("vt0", "192.0.2.1", true, IFF_UP)},
            {"link del vt0", has("vt0", "192.0.2.1", false)},
        };
        // clang-format on
        for (const Step &step : steps) {
            SCOPED_TRACE(step.command);
            ASSERT_TRUE(ip(step.command));
            if (step.expect) {
                EXPECT_GE(seen.waitFor(step.expect, limit), 0) << "not seen in time";
            }
        }
    }
    EXPECT_EQ(vesk::test::openDescriptorCount(), descriptors);
}

// clang-format off
TEST(InterfaceTracking, NetlinkSeesEachChangeWithin500ms) { trackChanges(false); }
TEST(InterfaceTracking, PollingSeesEachChangeWithinTwoPeriods) { trackChanges(true); }
// clang-format on

// The thread stops at once, also in the middle of a long poll period or
// of a callback, and leaves no descriptor behind.
TEST(InterfaceTracking, StopsPromptlyAndClosesEverything) {
    const int descriptors = vesk::test::openDescriptorCount();
    for (const bool poll : {true, false}) {
        SCOPED_TRACE(poll ? "polling" : "netlink");
        std::atomic<int> looks{0};
        InterfaceTracker::Options options;
        options.force_poll = poll;
        options.poll_period_ms = 1;
        // Every look finds one more interface, so every look is a change.
        options.enumerate = [&looks](InterfaceTracker::Snapshot &out) {
            InterfaceCandidate c;
            c.name = "fake" + std::to_string(looks.fetch_add(1));
            c.family = AF_INET;
            out.push_back(c);
            return true;
        };
        Seen seen;
        auto tracker = InterfaceTracker::start(options, {}, seen.callback());
        ASSERT_NE(tracker, nullptr);
        EXPECT_GE(seen.waitFor([](const auto &s) { return !s.empty(); }, milliseconds(2000)), 0);
        const auto start = Clock::now();
        tracker.reset();
        EXPECT_LT(Clock::now() - start, milliseconds(200));
    }
    EXPECT_EQ(vesk::test::openDescriptorCount(), descriptors);
}

}  // namespace

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

VESK_Transport_UDP_Property_t udpRecord(int disable_tracking = 0) {
    VESK_Transport_UDP_Property_t p = VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT;
    p.ignore_loopback_interface = -1;
    p.ignore_nonrunning_interfaces = 0;  // the veth peers stay down: no carrier
    p.disable_interface_tracking = disable_tracking;
    return p;
}

bool waitUntil(const std::function<bool()> &test, milliseconds limit = milliseconds(1000)) {
    for (const auto end = Clock::now() + limit; Clock::now() < end;) {
        if (test()) return true;
        std::this_thread::sleep_for(milliseconds(5));
    }
    return test();
}

// The plugin's side of tracking is the same whichever way the tracker
// looks (both ways are tested above): netlink here.
TEST(UdpPluginTracking, FollowsChanges) {
    VESK_ENTER_NET_NAMESPACE(ns);
    ASSERT_TRUE(ip("link add vp0 type veth peer name vp1"));
    ASSERT_TRUE(ip("addr add 192.0.2.1/24 dev vp0"));
    ASSERT_TRUE(ip("link set vp0 up"));
    const int descriptors = vesk::test::openDescriptorCount();
    {
        const VESK_Transport_UDP_Property_t record = udpRecord();
        vesk::test::PluginHandle plugin(VESK_Transport_UDPv4_newI(&record, nullptr, nullptr));
        ASSERT_NE(plugin, nullptr);
        VESK_Transport_Plugin *self = plugin.get();
        Listener listener;
        ASSERT_EQ(self->register_listener_cEA(self, &listener), 1);
        EXPECT_EQ(receiveInterfaces(self), "192.0.2.1 up; ");
        struct Step {
            const char *command;  // or nullptr: a control call
            std::function<void()> control;
            const char *expected;
        };
        const VESK_Transport_Address_t fake = [] {
            VESK_Transport_Address_t a{};
            a.network_ordered_value[12] = 203;
            a.network_ordered_value[15] = 7;
            return a;
        }();
        // clang-format off
        const std::vector<Step> steps = {
            {"addr add 198.51.100.1/24 dev vp0", nullptr, "192.0.2.1 up; 198.51.100.1 up; "},
            {nullptr, [&] { VESK_Transport_UDP_change_interface_status(self, "vp0", 0); },
             "192.0.2.1 down; 198.51.100.1 down; "},
            {"addr del 198.51.100.1/24 dev vp0", nullptr, "192.0.2.1 down; "},  // still forced
            {nullptr, [&] { VESK_Transport_UDP_change_interface_status(self, "vp0", 1); },
             "192.0.2.1 up; "},
            {nullptr, [&] { VESK_Transport_UDP_assert_fake_ip_address(self, &fake); }, "203.0.0.7 up; "},
            {"addr add 203.0.113.1/24 dev vp0", nullptr, "203.0.0.7 up; "},  // the fake stays
            {nullptr, [&] { VESK_Transport_UDP_remove_fake_ip_address(self); },
             "192.0.2.1 up; 203.0.113.1 up; "},
            {"link set vp0 down", nullptr, "127.0.0.1 up; "},  // only lo left: lo serves
        };
        // clang-format on
        for (const Step &step : steps) {
            SCOPED_TRACE(step.command != nullptr ? step.command : step.expected);
            const int before = listener.calls.load();
            if (step.command != nullptr) {
                ASSERT_TRUE(ip(step.command));
                EXPECT_TRUE(waitUntil([&] { return listener.calls.load() > before; }))
                    << "the listener was not told";
            } else {
                step.control();
            }
            EXPECT_TRUE(waitUntil([&] { return receiveInterfaces(self) == step.expected; }))
                << receiveInterfaces(self);
        }
    }
    EXPECT_EQ(vesk::test::openDescriptorCount(), descriptors);
}

TEST(UdpPluginTracking, DisabledTrackingKeepsTheFirstSelection) {
    VESK_ENTER_NET_NAMESPACE(ns);
    ASSERT_TRUE(ip("link add vp0 type veth peer name vp1"));
    ASSERT_TRUE(ip("link set vp0 up"));
    const int descriptors = vesk::test::openDescriptorCount();
    const VESK_Transport_UDP_Property_t record = udpRecord(1);
    vesk::test::PluginHandle plugin(VESK_Transport_UDPv4_newI(&record, nullptr, nullptr));
    ASSERT_NE(plugin, nullptr);
    EXPECT_EQ(vesk::test::openDescriptorCount(), descriptors);  // no tracker, no socket
    ASSERT_TRUE(ip("addr add 192.0.2.1/24 dev vp0"));
    std::this_thread::sleep_for(milliseconds(200));
    EXPECT_EQ(receiveInterfaces(plugin.get()), "127.0.0.1 up; ");  // lo, alone at creation
}

// The devices on which this thread's namespace has joined the IPv4 group
// ("239.255.0.1"), from /proc/thread-self/net/igmp.
std::string joinedOn(const char *group) {
    in_addr address{};
    inet_pton(AF_INET, group, &address);
    char hex[9];
    std::snprintf(hex, sizeof hex, "%08X", address.s_addr);
    std::ifstream in("/proc/thread-self/net/igmp");
    std::string line, device, out;
    while (std::getline(in, line)) {
        if (!line.empty() && line[0] != '\t' && line.find(':') != std::string::npos) {
            std::istringstream words(line);
            std::string index;
            words >> index >> device;
        } else if (line.find(hex) != std::string::npos) {
            out += device + " ";
        }
    }
    return out;
}

TEST(UdpPluginTracking, MulticastGroupsFollowTheInterfaces) {
    VESK_ENTER_NET_NAMESPACE(ns);
    for (const char *command : {"link add vm0 type veth peer name vm1",
                                "addr add 192.0.2.1/24 dev vm0", "link set vm0 up"}) {
        ASSERT_TRUE(ip(command));
    }
    VESK_Transport_UDP_Property_t record = udpRecord();
    std::string pattern = "vm*";
    char *allow[] = {pattern.data()};
    record.parent.allow_multicast_interfaces_list = allow;
    record.parent.allow_multicast_interfaces_list_length = 1;
    VESK_Transport_Plugin *p = VESK_Transport_UDPv4_newI(&record, nullptr, nullptr);
    ASSERT_NE(p, nullptr);
    VESK_Transport_Address_t group{};
    ASSERT_EQ(p->string_to_address_cEA(p, &group, "239.255.0.1"), 1);
    VESK_Transport_RecvResource_t resource = nullptr;
    VESK_Transport_Port_t port = 0;
    ASSERT_EQ(p->create_recvresource_rrEA(p, &resource, &port, &group, 0), 1);
    EXPECT_EQ(joinedOn("239.255.0.1"), "vm0 ");
    struct Step {
        std::function<bool()> action;
        const char *joined;
    };
    // clang-format off
    const std::vector<Step> steps = {
        {[] { return ip("link add vm2 type veth peer name vm3") && ip("addr add 198.51.100.1/24 dev vm2") &&
                     ip("link set vm2 up"); }, "vm0 vm2 "},
        {[p] { return VESK_Transport_UDP_change_interface_status(p, "vm0", 0) == 1; }, "vm2 "},
        {[p] { return VESK_Transport_UDP_change_interface_status(p, "vm0", 1) == 1; }, "vm0 vm2 "},
        {[] { return ip("link del vm2"); }, "vm0 "},
    };
    // clang-format on
    for (const Step &step : steps) {
        SCOPED_TRACE(step.joined);
        ASSERT_TRUE(step.action());
        EXPECT_TRUE(
            waitUntil([&] { return joinedOn("239.255.0.1") == step.joined; }, milliseconds(500)))
            << joinedOn("239.255.0.1");
    }
    p->destroy_recvresource_rrEA(p, &resource);
    p->delete_cEA(p, nullptr);
    EXPECT_EQ(joinedOn("239.255.0.1"), "");
}

TEST(InterfaceTracking, AFailedLookIsReportedAndChangesNothing) {
    vesk::test::LogCapture log(VESK_CONFIG_LOG_VERBOSITY_WARNING);
    InterfaceTracker::Options options;
    options.force_poll = true;
    options.poll_period_ms = 60000;
    options.class_name = "UDPv4";
    options.enumerate = [](InterfaceTracker::Snapshot &) {
        errno = EMFILE;
        return false;
    };
    Seen seen;
    auto tracker = InterfaceTracker::start(options, {}, seen.callback());
    ASSERT_NE(tracker, nullptr);
    EXPECT_TRUE(waitUntil([&] { return !log.entries().empty(); }));
    const auto start = Clock::now();
    tracker.reset();  // in the middle of a minute-long poll period
    EXPECT_LT(Clock::now() - start, milliseconds(200));
    EXPECT_EQ(log.summary(),
              std::vector<std::string>{
                  "KEL_LOG_TRANSPORT_STATUS_TEMPLATE(UDPv4 interface tracking: cannot "
                  "list the host's interfaces (Too many open files))"});
    EXPECT_EQ(seen.calls, 0);
}
