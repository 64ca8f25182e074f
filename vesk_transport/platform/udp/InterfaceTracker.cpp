// The interface tracking thread of the UDP transports.
#include "vesk_transport/platform/udp/InterfaceTracker.hpp"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <linux/rtnetlink.h>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <tuple>

#include "vesk_transport/platform/Log.h"

namespace vesk::udp {

namespace {

void report(KEL_UINT32 level, const InterfaceTracker::Options &options, const char *what,
            int error) noexcept {
    if (!KELLog_isEnabled(level, DDS_SUBMODULE_MASK_TRANSPORT)) return;
    KELLogMessageParamString_printWithParams(
        -1, level, VESK_TRANSPORT_LOG_MODULE_ID, __FILE__, __LINE__, options.function,
        &KEL_LOG_TRANSPORT_STATUS_TEMPLATE, "%s interface tracking: %s (%s)", options.class_name,
        what, std::strerror(error));
}

auto key(const InterfaceCandidate &c) {
    return std::tie(c.index, c.family, c.name, c.flags, c.mtu);
}

bool same(const InterfaceCandidate &a, const InterfaceCandidate &b) {
    return key(a) == key(b) &&
           std::memcmp(a.address.network_ordered_value, b.address.network_ordered_value, 16) == 0;
}

}  // namespace

void InterfaceTracker::normalize(Snapshot &snapshot) {
    std::stable_sort(snapshot.begin(), snapshot.end(), [](const auto &a, const auto &b) {
        if (a.index != b.index) return a.index < b.index;
        if (a.family != b.family) return a.family < b.family;
        return std::memcmp(a.address.network_ordered_value, b.address.network_ordered_value, 16) <
               0;
    });
}

std::unique_ptr<InterfaceTracker> InterfaceTracker::start(Options options, Snapshot initial,
                                                          Callback callback) {
    std::unique_ptr<InterfaceTracker> tracker(new InterfaceTracker());
    if (!options.enumerate) options.enumerate = enumerateHostInterfaces;
    options.poll_period_ms = std::max(options.poll_period_ms, 1u);
    tracker->options_ = std::move(options);
    tracker->callback_ = std::move(callback);
    tracker->last_ = std::move(initial);
    normalize(tracker->last_);
    tracker->wake_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (tracker->wake_ < 0) {
        report(KEL_LOG_BIT_WARN, tracker->options_, "not started: eventfd failed", errno);
        return nullptr;
    }
    if (!tracker->options_.force_poll) {
        if (tracker->netlink_.open()) {
            tracker->netlink_active_.store(true);
        } else {
            report(KEL_LOG_BIT_WARN, tracker->options_, "netlink unavailable, polling instead",
                   errno);
        }
    }
    try {
        tracker->thread_ = std::thread([t = tracker.get()] { t->run(); });
    } catch (const std::system_error &error) {
        report(KEL_LOG_BIT_WARN, tracker->options_, "not started: no thread", error.code().value());
        return nullptr;  // the destructor closes the descriptors
    }
    return tracker;
}

InterfaceTracker::~InterfaceTracker() {
    stop_.store(true);
    if (thread_.joinable()) {
        const std::uint64_t one = 1;
        // A full counter (never here) still leaves the descriptor readable.
        [[maybe_unused]] const ssize_t written = write(wake_, &one, sizeof one);
        thread_.join();
    }
    netlink_.close();
    if (wake_ >= 0) close(wake_);
}

void InterfaceTracker::refresh() {
    Snapshot now;
    if (!options_.enumerate(now)) {
        report(KEL_LOG_BIT_WARN, options_, "cannot list the host's interfaces", errno);
        return;
    }
    normalize(now);
    if (std::equal(now.begin(), now.end(), last_.begin(), last_.end(), same)) return;
    last_ = std::move(now);
    if (callback_) callback_(last_);
    retrying_ = static_cast<bool>(options_.retry);
}

void InterfaceTracker::run() {
    // Subscribed before this first look: no change is missed in between.
    if (!stop_.load()) refresh();
    std::vector<std::uint64_t> buffer;
    using Clock = std::chrono::steady_clock;
    const auto period = std::chrono::milliseconds(options_.poll_period_ms);
    auto next_look = Clock::now() + period;
    while (!stop_.load()) {
        pollfd fds[2] = {{wake_, POLLIN, 0}, {netlink_.fd(), POLLIN, 0}};
        const bool netlink = fds[1].fd >= 0;
        int timeout = -1;
        if (!netlink) {
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(next_look - Clock::now());
            timeout = static_cast<int>(std::max<long long>(left.count(), 0));
        }
        if (retrying_) timeout = timeout < 0 ? kRetryPeriodMs : std::min(timeout, kRetryPeriodMs);
        const int ready = poll(fds, netlink ? 2 : 1, timeout);
        if (stop_.load()) break;
        if (ready < 0) {
            if (errno == EINTR) continue;
            report(KEL_LOG_BIT_ERROR, options_, "stopped: poll failed", errno);
            break;
        }
        if (retrying_ && ready == 0) retrying_ = options_.retry();
        if (!netlink) {
            if (Clock::now() >= next_look) {
                next_look = Clock::now() + period;
                refresh();
            }
            continue;
        }
        if ((fds[1].revents & (POLLIN | POLLERR)) == 0) continue;
        bool changed = false;
        for (;;) {
            const long got = netlink_.receive(buffer);
            if (got == 0) break;
            if (got < 0) {
                // ENOBUFS: events were lost; a fresh look replaces them.
                if (errno != ENOBUFS) {
                    report(KEL_LOG_BIT_WARN, options_, "netlink failed, polling instead", errno);
                    netlink_active_.store(false);
                    netlink_.close();
                }
                changed = true;
                break;
            }
            changed |= !netlink::parse(buffer.data(), static_cast<size_t>(got)).events.empty();
        }
        if (changed) refresh();
    }
}

}  // namespace vesk::udp
