// Interface tracking on real kernel interfaces in network namespaces the
// tests create (veth pairs, documentation addresses): the tracker thread
// with netlink and with polling, selection on real interfaces, and the
// tracker's lifetime (prompt stop, no descriptor left).

#include <dirent.h>
#include <gtest/gtest.h>
#include <net/if.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "support/NetNamespace.hpp"
#include "vesk_transport/platform/udp/InterfaceTracker.hpp"

namespace {

using vesk::test::ip;
using vesk::udp::InterfaceCandidate;
using vesk::udp::InterfaceTracker;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

int openDescriptors() {
    int count = 0;
    if (DIR *dir = opendir("/proc/self/fd")) {
        while (readdir(dir) != nullptr) ++count;
        closedir(dir);
    }
    return count;
}

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

#define ENTER_NAMESPACE(guard)            \
    vesk::test::ScopedNetNamespace guard; \
    if (!guard.ok()) GTEST_SKIP() << guard.reason()

InterfaceTracker::Snapshot hostNow() {
    InterfaceTracker::Snapshot now;
    vesk::udp::enumerateHostInterfaces(now);
    return now;
}

void trackChanges(bool poll) {
    ENTER_NAMESPACE(ns);
    const int descriptors = openDescriptors();
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
    EXPECT_EQ(openDescriptors(), descriptors);
}

TEST(InterfaceTracking, NetlinkSeesEachChangeWithin500ms) {
    trackChanges(false);
}
TEST(InterfaceTracking, PollingSeesEachChangeWithinTwoPeriods) {
    trackChanges(true);
}

TEST(InterfaceTracking, SelectionOnRealInterfaces) {
    ENTER_NAMESPACE(ns);
    // clang-format off
    for (const char *command : {
             "link add veth0 type veth peer name veth1", "link add dock0 type veth peer name dock1",
             "addr add 192.0.2.1/24 dev veth0", "addr add 2001:db8::1/64 dev veth0 nodad",
             "addr add 198.51.100.1/24 dev veth1", "addr add 203.0.113.1/24 dev dock0",
             "link set veth0 up", "link set veth1 up", "link set dock0 up", "link set dock1 up",
             "link set dev veth1 multicast off"}) {
        ASSERT_TRUE(ip(command)) << command;
    }
    // clang-format on
    struct Row {
        std::vector<std::string> allow, deny;
        bool ipv6;
        int max;
        const char *unicast;
        const char *multicast;
    };
    // clang-format off
    const std::vector<Row> rows = {
        {{}, {}, false, -1, "veth1 veth0 dock0 ", "veth0 dock0 "},  // a peer comes first
        {{"veth*"}, {"veth1"}, false, -1, "veth0 ", "veth0 "},
        {{"198.51.100.0/24", "dock0"}, {}, false, -1, "veth1 dock0 ", "dock0 "},
        {{"192.0.2.1"}, {}, false, -1, "veth0 ", "veth0 "},
        {{}, {}, false, 1, "veth1 ", ""},
        {{"2001:db8::/32"}, {}, true, -1, "veth0 ", "veth0 "},
    };
    // clang-format on
    for (const Row &row : rows) {
        VESK_Transport_UDP_Property_t p{};
        p.parent.max_interface_count = row.max;
        p.ignore_loopback_interface = -1;
        p.ignore_nonup_interfaces = 1;
        p.ignore_nonrunning_interfaces = 1;
        std::vector<std::string> allow = row.allow, deny = row.deny;
        std::vector<char *> a, d;
        for (auto &s : allow) a.push_back(s.data());
        for (auto &s : deny) d.push_back(s.data());
        p.parent.allow_interfaces_list = a.data();
        p.parent.allow_interfaces_list_length = static_cast<KEL_INT32>(a.size());
        p.parent.deny_interfaces_list = d.data();
        p.parent.deny_interfaces_list_length = static_cast<KEL_INT32>(d.size());
        vesk::udp::Selection unicast, multicast;
        ASSERT_TRUE(vesk::udp::describeHostSelection(p, row.ipv6, unicast, multicast));
        std::string got, gotMulticast;
        for (const auto &c : unicast.selected) {
            if (c.family == (row.ipv6 ? AF_INET6 : AF_INET)) got += c.name + " ";
        }
        for (const auto &c : multicast.selected) {
            if (c.family == (row.ipv6 ? AF_INET6 : AF_INET)) gotMulticast += c.name + " ";
        }
        EXPECT_EQ(got, row.unicast) << row.max;
        EXPECT_EQ(gotMulticast, row.multicast) << row.max;
    }
}

// The thread stops at once, also in the middle of a long poll period or
// of a callback, and leaves no descriptor behind.
TEST(InterfaceTracking, StopsPromptlyAndClosesEverything) {
    const int descriptors = openDescriptors();
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
    {
        InterfaceTracker::Options options;
        options.force_poll = true;
        options.poll_period_ms = 60000;
        auto tracker = InterfaceTracker::start(options, hostNow(), nullptr);
        ASSERT_NE(tracker, nullptr);
        const auto start = Clock::now();
        tracker.reset();
        EXPECT_LT(Clock::now() - start, milliseconds(200));
    }
    EXPECT_EQ(openDescriptors(), descriptors);
}

}  // namespace
