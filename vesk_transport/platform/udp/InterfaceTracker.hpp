// Follows the host's interfaces on a thread of its own and hands every new
// snapshot to a callback (docs/udp-transport.md, "Interface tracking").
//
// With netlink the thread subscribes to link and address changes first and
// then takes its first snapshot, so no change falls between the two; each
// batch of events (or a lost batch: ENOBUFS) leads to a new snapshot. When
// netlink cannot be used, or polling is forced, it takes a snapshot every
// poll period. A snapshot that equals the previous one is not handed on.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "vesk_transport/platform/udp/Interfaces.hpp"
#include "vesk_transport/platform/udp/Netlink.hpp"

namespace vesk::udp {

class InterfaceTracker {
public:
    using Snapshot = std::vector<InterfaceCandidate>;
    using Callback = std::function<void(const Snapshot &)>;
    using Enumerate = std::function<bool(Snapshot &)>;

    struct Options {
        bool force_poll = false;
        unsigned int poll_period_ms = 500;  // 0 is taken as 1
        Enumerate enumerate;                // default: enumerateHostInterfaces
        const char *function = "";          // reporting function of its messages
        const char *class_name = "";
        // After each change, called on the thread every kRetryPeriodMs until
        // it returns false (work the kernel was not ready for yet).
        std::function<bool()> retry;
    };
    static constexpr int kRetryPeriodMs = 50;

    // Starts the thread. The callback runs on it; it must not destroy the
    // tracker. nullptr (after a logged warning) when no thread or
    // descriptor could be had.
    static std::unique_ptr<InterfaceTracker> start(Options options, Snapshot initial,
                                                   Callback callback);
    // Stops the thread (waiting for a callback under way) and closes every
    // descriptor.
    ~InterfaceTracker();
    InterfaceTracker(const InterfaceTracker &) = delete;
    InterfaceTracker &operator=(const InterfaceTracker &) = delete;

    bool usesNetlink() const { return netlink_active_.load(); }

    // Sorted the way the selection orders interfaces, for comparisons.
    static void normalize(Snapshot &snapshot);

private:
    InterfaceTracker() = default;
    void run();
    void refresh();

    Options options_;
    Callback callback_;
    Snapshot last_;
    netlink::Socket netlink_;
    int wake_ = -1;  // eventfd: stop request
    std::atomic<bool> stop_{false};
    std::atomic<bool> netlink_active_{false};
    bool retrying_ = false;  // the thread's own
    std::thread thread_;
};

}  // namespace vesk::udp
