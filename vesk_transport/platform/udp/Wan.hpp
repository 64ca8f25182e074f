// The pure parts of the UDPv4 WAN transport (docs/wan-transport.md): the
// port rule, the binding-ping message codec, the table of peers that ping
// us, and the once-a-minute limit on malformed-message warnings. Nothing
// here touches a socket or a clock: times are passed in as milliseconds of
// a monotonic clock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "vesk_transport/platform/Udp.h"

namespace vesk::udp {

// ---------------------------------------------------------------------------
// Ports
// ---------------------------------------------------------------------------

struct PortChoice {
    std::uint16_t host_port = 0;
    std::uint16_t public_port = 0;
    int mapping_index = -1;  // element of the list used; -1 for the offset rule
};

// The host and public port of an RTPS port under the record's mappings and
// port offset; nothing when the offset rule leaves 1..65535.
std::optional<PortChoice> choosePorts(const VESK_Transport_UDP_WAN_CommPortsMappingInfo *list,
                                      int length, std::int32_t port_offset,
                                      VESK_Transport_Port_t rtps_port) noexcept;

// ---------------------------------------------------------------------------
// Binding-ping messages
// ---------------------------------------------------------------------------

inline constexpr std::uint8_t kPingMagic[4] = {0x56, 0x42, 0x50, 0x21};  // "VBP!"
inline constexpr std::uint8_t kPingVersion = 1;
inline constexpr std::size_t kPingHeaderSize = 8;
// A ping is padded to the size of its answer, so that answering never
// sends more bytes than it received (no amplification of forged pings).
inline constexpr std::size_t kPingSize = 36;
inline constexpr std::size_t kAnswerSize = 36;
inline constexpr std::size_t kPingMessageSizeMax = kAnswerSize;

enum class PingKind : std::uint8_t { Ping = 1, Answer = 2 };

struct PingMessage {
    PingKind kind = PingKind::Ping;
    std::uint32_t sequence = 0;
    std::uint32_t rtps_port = 0;
    // Answers only: the source that the answering side observed.
    std::uint32_t observed_ipv4 = 0;  // host order
    std::uint16_t observed_port = 0;
};

// Why a datagram that starts with the magic is refused.
enum class PingError : std::uint8_t {
    None = 0,
    ShortHeader,
    UnsupportedVersion,
    UnknownKind,
    ReservedBitsSet,
    WrongLength,
    NotIpv4,
    PortZero,
};

// The text of each reason, as documented.
const char *pingErrorText(PingError error) noexcept;

// True when the datagram starts with the magic: a binding-ping message,
// well formed or not, and never user data.
bool isPingMessage(std::span<const std::uint8_t> datagram) noexcept;

// Writes message into out (at least kPingMessageSizeMax bytes); returns the
// bytes written (kPingSize or kAnswerSize).
std::size_t encodePing(const PingMessage &message, std::span<std::uint8_t> out) noexcept;

// Decodes a datagram that starts with the magic. Every read is inside the
// datagram; on an error message_out is left as it was.
PingError decodePing(std::span<const std::uint8_t> datagram, PingMessage &message_out) noexcept;

// ---------------------------------------------------------------------------
// Peers that ping us
// ---------------------------------------------------------------------------

struct PeerKey {
    std::uint32_t ipv4 = 0;  // host order
    std::uint16_t port = 0;
    bool operator==(const PeerKey &) const = default;
};

// The peers heard from, each with the time of its last ping. Bounded: a new
// peer beyond the capacity replaces the one heard from least recently.
class PeerTable {
public:
    explicit PeerTable(std::size_t capacity) : capacity_(capacity) {}

    // Records a ping from peer at now_ms; true when the peer was not held.
    bool touch(const PeerKey &peer, std::uint64_t now_ms);
    // Forgets the peers last heard from expiration_ms or longer before now.
    void expire(std::uint64_t now_ms, std::uint64_t expiration_ms);
    bool contains(const PeerKey &peer) const;
    std::size_t size() const { return entries_.size(); }

private:
    struct Entry {
        PeerKey peer;
        std::uint64_t last_ms;
    };
    std::size_t capacity_;
    std::vector<Entry> entries_;
};

// Allows one warning per source address per interval, remembering a bounded
// number of sources (the least recently warned one is forgotten first).
class WarningLimiter {
public:
    WarningLimiter(std::size_t capacity, std::uint64_t interval_ms)
        : capacity_(capacity), interval_ms_(interval_ms) {}

    // True when a warning about source may be written now (and records it).
    bool allow(std::uint32_t source_ipv4, std::uint64_t now_ms);

private:
    struct Entry {
        std::uint32_t source;
        std::uint64_t last_ms;
    };
    std::size_t capacity_;
    std::uint64_t interval_ms_;
    std::vector<Entry> entries_;
};

// The expiration in force: the record's, or three periods when it is 0
// (0, never, when the period is 0 too).
std::uint64_t effectiveExpiration(std::uint32_t period_ms, std::uint32_t expiration_ms) noexcept;

}  // namespace vesk::udp
