// The binding-ping engine of a WAN plugin (docs/wan-transport.md).
#include "vesk_transport/platform/udp/WanEngine.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <optional>

#include "vesk_transport/platform/Log.h"
#include "vesk_transport/platform/udp/WanHooks.hpp"

namespace vesk::udp {
namespace {

constexpr std::size_t kPeerCapacity = 256;
constexpr std::size_t kWarnedSources = 64;
constexpr std::uint64_t kWarningIntervalMs = 60000;
constexpr std::size_t kPendingPerSocket = 16;
// Without a period the thread still wakes to expire peers.
constexpr std::uint64_t kIdleIntervalMs = 1000;

VESK_Transport_Address_t ipv4Address(std::uint32_t ipv4) {
    VESK_Transport_Address_t address{};
    address.network_ordered_value[12] = static_cast<unsigned char>(ipv4 >> 24);
    address.network_ordered_value[13] = static_cast<unsigned char>(ipv4 >> 16);
    address.network_ordered_value[14] = static_cast<unsigned char>(ipv4 >> 8);
    address.network_ordered_value[15] = static_cast<unsigned char>(ipv4);
    return address;
}

void count(VESK_Transport_Plugin *plugin, VESK_Transport_UDP_TrafficDirection direction,
           std::size_t bytes) {
    if (plugin != nullptr) {
        VESK_Transport_UDP_count_traffic(plugin, VESK_TRANSPORT_UDP_TRAFFIC_BINDING_PING, direction,
                                         1, bytes);
    }
}

}  // namespace

WanEngine::WanEngine(const WanSettings &settings)
    : settings_(settings), heard_(kPeerCapacity), warnings_(kWarnedSources, kWarningIntervalMs) {
    generation_.store(settings.period_ms > 0);
}

WanEngine::~WanEngine() {
    stop();
}

std::uint64_t WanEngine::nowMs() {
    return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                          std::chrono::steady_clock::now().time_since_epoch())
                                          .count());
}

void WanEngine::addSocket(int fd, std::uint32_t rtps_port) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (findSocket(fd) != nullptr) return;
    Socket socket;
    socket.fd = fd;
    socket.rtps_port = rtps_port;
    sockets_.push_back(std::move(socket));
}

bool WanEngine::removeSocket(int fd, std::uint32_t &rtps_port_out) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = std::find_if(sockets_.begin(), sockets_.end(),
                                    [fd](const Socket &socket) { return socket.fd == fd; });
    if (found == sockets_.end()) return false;
    rtps_port_out = found->rtps_port;
    sockets_.erase(found);
    return true;
}

void WanEngine::addPeer(std::uint32_t ipv4, std::uint16_t port) {
    std::lock_guard<std::mutex> lock(mutex_);
    const PeerKey key{ipv4, port};
    for (Peer &peer : peers_) {
        if (peer.key == key) {
            ++peer.uses;
            return;
        }
    }
    peers_.push_back({key, 1});
}

void WanEngine::removePeer(std::uint32_t ipv4, std::uint16_t port) {
    std::lock_guard<std::mutex> lock(mutex_);
    const PeerKey key{ipv4, port};
    std::erase_if(peers_, [&key](Peer &peer) { return peer.key == key && --peer.uses == 0; });
}

void WanEngine::setGeneration(bool on) {
    generation_.store(on);
    if (wake_fd_ >= 0) {
        const std::uint64_t one = 1;
        [[maybe_unused]] const ssize_t written = write(wake_fd_, &one, sizeof one);
    }
}

bool WanEngine::sendFromFirstSocket(const msghdr &message, int flags, ssize_t &sent) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (sockets_.empty()) return false;
    sent = ::sendmsg(sockets_.front().fd, &message, flags | MSG_NOSIGNAL);
    return true;
}

bool WanEngine::generation() const {
    if (settings_.plugin != nullptr) {
        return VESK_Transport_UDP_is_binding_ping_generation_enabled(settings_.plugin) != 0;
    }
    return generation_.load();
}

bool WanEngine::start() {
    if (thread_.joinable()) return true;
    wake_fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wake_fd_ < 0) return false;
    stopping_.store(false);
    try {
        thread_ = std::thread([this] { run(); });
        return true;
    } catch (...) {
        close(wake_fd_);
        wake_fd_ = -1;
        return false;
    }
}

void WanEngine::stop() {
    if (!thread_.joinable()) return;
    stopping_.store(true);  // the flag first, then the wake
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(wake_fd_, &one, sizeof one);
    thread_.join();
    close(wake_fd_);
    wake_fd_ = -1;
}

void WanEngine::run() {
    const std::uint64_t interval = settings_.period_ms > 0 ? settings_.period_ms : kIdleIntervalMs;
    std::uint64_t next = nowMs();  // the first round goes out at once
    bool was_on = generation();
    while (!stopping_.load()) {
        const std::uint64_t now = nowMs();
        const bool on = generation();
        if (on && !was_on) next = now;  // switched on: ping now
        was_on = on;
        if (now >= next) {
            tick(now);
            next = std::max(next + interval, now + 1);
            continue;
        }
        pollfd wake{wake_fd_, POLLIN, 0};
        if (poll(&wake, 1, static_cast<int>(next - now)) > 0) {
            std::uint64_t drained = 0;
            [[maybe_unused]] const ssize_t got = read(wake_fd_, &drained, sizeof drained);
        }
    }
}

WanEngine::Socket *WanEngine::findSocket(int fd) {
    for (Socket &socket : sockets_) {
        if (socket.fd == fd) return &socket;
    }
    return nullptr;
}

bool WanEngine::sendMessage(int fd, const PingMessage &message, const PeerKey &to) {
    std::uint8_t bytes[kPingMessageSizeMax];
    const std::size_t size = encodePing(message, bytes);
    sockaddr_in destination{};
    destination.sin_family = AF_INET;
    destination.sin_addr.s_addr = htonl(to.ipv4);
    destination.sin_port = htons(to.port);
    const ssize_t sent =
        sendto(fd, bytes, size, MSG_DONTWAIT | MSG_NOSIGNAL,
               reinterpret_cast<const sockaddr *>(&destination), sizeof destination);
    if (sent != static_cast<ssize_t>(size)) return false;
    count(settings_.plugin, VESK_TRANSPORT_UDP_TRAFFIC_SENT, size);
    return true;
}

void WanEngine::tick(std::uint64_t now_ms) {
    bool sent_any = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (generation() && settings_.period_ms > 0) {
            for (Socket &socket : sockets_) {
                for (const Peer &peer : peers_) {
                    const PingMessage ping{PingKind::Ping, next_sequence_++, socket.rtps_port, 0,
                                           0};
                    if (!sendMessage(socket.fd, ping, peer.key)) continue;
                    sent_any = true;
                    ++counts_.pings_sent;
                    if (socket.pending.size() >= kPendingPerSocket) {
                        socket.pending.erase(socket.pending.begin());
                    }
                    socket.pending.push_back({peer.key, ping.sequence, now_ms});
                }
            }
        }
        // Counted with the pings, so that a reader sees both or neither.
        if (sent_any && settings_.plugin != nullptr) {
            VESK_Transport_UDP_count_binding_ping_event(settings_.plugin);
        }
        const std::uint64_t expiration = settings_.expiration_ms;
        heard_.expire(now_ms, expiration);
        for (Socket &socket : sockets_) {
            if (expiration != 0 && socket.resolved && now_ms - socket.answered_ms >= expiration) {
                socket.resolved = false;  // the next answer tells the listener again
            }
        }
    }
}

bool WanEngine::handleDatagram(int fd, std::span<const std::uint8_t> datagram,
                               std::uint32_t source_ipv4, std::uint16_t source_port,
                               std::uint64_t now_ms) {
    if (!isPingMessage(datagram)) return false;
    count(settings_.plugin, VESK_TRANSPORT_UDP_TRAFFIC_RECEIVED, datagram.size());
    PingMessage message;
    const PingError error = decodePing(datagram, message);
    const PeerKey from{source_ipv4, source_port};
    std::optional<PingMessage> notify;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (error != PingError::None) {
            ++counts_.malformed_received;
            warnMalformed(source_ipv4, source_port, error, now_ms);
            return true;
        }
        Socket *socket = findSocket(fd);
        if (message.kind == PingKind::Ping) {
            ++counts_.pings_received;
            heard_.touch(from, now_ms);
            const PingMessage answer{PingKind::Answer, message.sequence, message.rtps_port,
                                     source_ipv4, source_port};
            if (socket != nullptr && sendMessage(fd, answer, from)) ++counts_.answers_sent;
            counts_.last_pinged_by = ipv4Address(source_ipv4);
            counts_.last_pinged_by_port = source_port;
            return true;
        }
        ++counts_.answers_received;
        if (socket == nullptr) {
            ++counts_.unsolicited_answers;
            return true;
        }
        const auto match = std::find_if(
            socket->pending.begin(), socket->pending.end(), [&](const Pending &pending) {
                return pending.peer == from && pending.sequence == message.sequence &&
                       message.rtps_port == socket->rtps_port &&
                       (settings_.expiration_ms == 0 ||
                        now_ms - pending.sent_ms < settings_.expiration_ms);
            });
        if (match == socket->pending.end()) {
            ++counts_.unsolicited_answers;
            return true;
        }
        socket->answered_ms = now_ms;
        if (!socket->resolved || socket->public_ipv4 != message.observed_ipv4 ||
            socket->public_port != message.observed_port) {
            socket->resolved = true;
            socket->public_ipv4 = message.observed_ipv4;
            socket->public_port = message.observed_port;
            notify = message;
        }
    }
    // The listener runs without the engine's lock: it may ask for the state.
    if (notify && notifyPublicMapping(settings_.listener, ipv4Address(notify->observed_ipv4),
                                      notify->observed_port)) {
        std::lock_guard<std::mutex> lock(mutex_);
        ++counts_.mappings_resolved;
    }
    return true;
}

void WanEngine::warnMalformed(std::uint32_t source_ipv4, std::uint16_t source_port, PingError error,
                              std::uint64_t now_ms) {
    if (!KELLog_isEnabled(KEL_LOG_BIT_WARN, DDS_SUBMODULE_MASK_TRANSPORT)) return;
    if (!warnings_.allow(source_ipv4, now_ms)) return;
    char text[80];
    std::snprintf(text, sizeof text, "malformed binding ping from %u.%u.%u.%u:%u",
                  source_ipv4 >> 24, (source_ipv4 >> 16) & 0xFF, (source_ipv4 >> 8) & 0xFF,
                  source_ipv4 & 0xFF, static_cast<unsigned>(source_port));
    KELLogMessage_printWithParams(-1, KEL_LOG_BIT_WARN, VESK_TRANSPORT_LOG_MODULE_ID, __FILE__,
                                  __LINE__, settings_.function, &KEL_LOG_ANY_FAILURE_ss, text,
                                  pingErrorText(error));
}

void WanEngine::info(VESK_Transport_UDP_WAN_PingInfo &out) const {
    std::lock_guard<std::mutex> lock(mutex_);
    out = counts_;
    out.peer_count = static_cast<int>(heard_.size());
    out.resolved = 0;
    for (const Socket &socket : sockets_) {
        if (!socket.resolved) continue;
        out.resolved = 1;
        out.public_address = ipv4Address(socket.public_ipv4);
        out.public_port = socket.public_port;
        break;
    }
}

bool WanEngine::resolvedFor(std::uint32_t rtps_port, std::uint32_t &ipv4_out,
                            std::uint16_t &port_out) const {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const Socket &socket : sockets_) {
        if (socket.rtps_port != rtps_port || !socket.resolved) continue;
        ipv4_out = socket.public_ipv4;
        port_out = socket.public_port;
        return true;
    }
    return false;
}

}  // namespace vesk::udp
