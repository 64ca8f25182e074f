// The binding-ping engine of one WAN plugin (docs/wan-transport.md): sends
// pings from the plugin's receive sockets to the peers it sends to, answers
// the pings that the receive path hands it, learns the public mapping of
// each socket from the answers and tells the registered listener.
//
// The engine owns no socket: the plugin adds the descriptors of its receive
// sockets and the destinations of its send resources, and its receive path
// offers each datagram to handleDatagram before treating it as user data.
#pragma once

#include <sys/socket.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <span>
#include <thread>
#include <vector>

#include "vesk_transport/platform/UdpWan.h"
#include "vesk_transport/platform/udp/Wan.hpp"

namespace vesk::udp {

struct WanSettings {
    std::uint32_t period_ms = 0;
    std::uint64_t expiration_ms = 0;  // 0: never
    const VESK_Transport_UDP_WAN_Listener *listener = nullptr;
    VESK_Transport_Plugin *plugin = nullptr;  // whose statistics count the pings (may be null)
    const char *function = "receive_rEA";  // reports its warnings
};

class WanEngine {
public:
    explicit WanEngine(const WanSettings &settings);
    ~WanEngine();
    WanEngine(const WanEngine &) = delete;
    WanEngine &operator=(const WanEngine &) = delete;

    // A receive socket (bound, IPv4) and the RTPS port it serves.
    void addSocket(int fd, std::uint32_t rtps_port);
    // False when fd was not added; otherwise its RTPS port.
    bool removeSocket(int fd, std::uint32_t &rtps_port_out);
    // A destination that the plugin sends to (IPv4 and port, host order);
    // counted, so that two send resources to one peer need two removals.
    void addPeer(std::uint32_t ipv4, std::uint16_t port);
    void removePeer(std::uint32_t ipv4, std::uint16_t port);

    // sendmsg on the first receive socket (held while sending, so it cannot
    // be closed meanwhile); false when there is none.
    bool sendFromFirstSocket(const msghdr &message, int flags, ssize_t &sent);

    // With a plugin, generation follows the plugin's switch
    // (VESK_Transport_UDP_change_binding_ping_generation); without one, this
    // engine's own flag, which setGeneration sets.
    void setGeneration(bool on);
    bool generation() const;

    // Starts the timer thread; false when it cannot be started. stop()
    // wakes and joins it (also from the destructor).
    bool start();
    void stop();

    // The receive path: a datagram that arrived on fd from the source. True
    // when it is a binding-ping message (handled here, never user data).
    bool handleDatagram(int fd, std::span<const std::uint8_t> datagram, std::uint32_t source_ipv4,
                        std::uint16_t source_port, std::uint64_t now_ms);

    // One timer round at now_ms: pings (while generation is on), then
    // expiration. The thread calls it every period; tests may call it.
    void tick(std::uint64_t now_ms);

    void info(VESK_Transport_UDP_WAN_PingInfo &out) const;
    // The public mapping resolved for the socket of rtps_port, if any.
    bool resolvedFor(std::uint32_t rtps_port, std::uint32_t &ipv4_out,
                     std::uint16_t &port_out) const;

    // Milliseconds of the monotonic clock.
    static std::uint64_t nowMs();

private:
    struct Pending {
        PeerKey peer;
        std::uint32_t sequence;
        std::uint64_t sent_ms;
    };
    struct Socket {
        int fd = -1;
        std::uint32_t rtps_port = 0;
        bool resolved = false;
        std::uint32_t public_ipv4 = 0;
        std::uint16_t public_port = 0;
        std::uint64_t answered_ms = 0;
        std::vector<Pending> pending;  // the last pings sent, oldest first
    };
    struct Peer {
        PeerKey key;
        int uses;
    };

    Socket *findSocket(int fd);
    bool sendMessage(int fd, const PingMessage &message, const PeerKey &to);
    void onAnswer(Socket &socket, const PingMessage &message, const PeerKey &from,
                  std::uint64_t now_ms);
    void warnMalformed(std::uint32_t source_ipv4, std::uint16_t source_port, PingError error,
                       std::uint64_t now_ms);
    void run();

    const WanSettings settings_;
    mutable std::mutex mutex_;
    std::vector<Socket> sockets_;
    std::vector<Peer> peers_;
    PeerTable heard_;
    WarningLimiter warnings_;
    std::uint32_t next_sequence_ = 1;
    VESK_Transport_UDP_WAN_PingInfo counts_{};
    std::atomic<bool> generation_{false};
    std::atomic<bool> stopping_{false};
    int wake_fd_ = -1;
    std::thread thread_;
};

}  // namespace vesk::udp
