// The pure parts of the UDPv4 WAN transport: port rule, binding-ping codec,
// peer table, warning limiter (docs/wan-transport.md).
#include "vesk_transport/platform/udp/Wan.hpp"

#include <algorithm>
#include <cstring>

namespace vesk::udp {

std::optional<PortChoice> choosePorts(const VESK_Transport_UDP_WAN_CommPortsMappingInfo *list,
                                      int length, std::int32_t port_offset,
                                      VESK_Transport_Port_t rtps_port) noexcept {
    auto chosen = [](const VESK_Transport_UDP_WAN_CommPortsMappingInfo &entry, int index) {
        // A public port of 0 stands for the host port.
        return PortChoice{entry.host_port,
                          entry.public_port != 0 ? entry.public_port : entry.host_port, index};
    };
    const int count = list != nullptr ? std::max(length, 0) : 0;
    for (int i = 0; i < count; ++i) {
        if (list[i].rtps_port == rtps_port) return chosen(list[i], i);
    }
    // Element 0 is the document's default, or the one port of the number form.
    if (count > 0 && list[0].host_port != 0) return chosen(list[0], 0);
    const std::int64_t host = static_cast<std::int64_t>(rtps_port) + port_offset;
    if (rtps_port == 0 || host < 1 || host > 65535) return std::nullopt;
    const auto port = static_cast<std::uint16_t>(host);
    return PortChoice{port, port, -1};
}

namespace {

struct ErrorRow {
    PingError error;
    const char *text;
};
constexpr ErrorRow kErrorTexts[] = {
    {PingError::None, "well formed"},
    {PingError::ShortHeader, "short header"},
    {PingError::UnsupportedVersion, "unsupported version"},
    {PingError::UnknownKind, "unknown kind"},
    {PingError::ReservedBitsSet, "reserved bits set"},
    {PingError::WrongLength, "wrong length"},
    {PingError::NotIpv4, "not an IPv4 address"},
    {PingError::PortZero, "port 0"},
};

void put32(std::uint8_t *out, std::uint32_t value) {
    out[0] = static_cast<std::uint8_t>(value >> 24);
    out[1] = static_cast<std::uint8_t>(value >> 16);
    out[2] = static_cast<std::uint8_t>(value >> 8);
    out[3] = static_cast<std::uint8_t>(value);
}

void put16(std::uint8_t *out, std::uint16_t value) {
    out[0] = static_cast<std::uint8_t>(value >> 8);
    out[1] = static_cast<std::uint8_t>(value);
}

std::uint32_t get32(const std::uint8_t *in) {
    return static_cast<std::uint32_t>(in[0]) << 24 | static_cast<std::uint32_t>(in[1]) << 16 |
           static_cast<std::uint32_t>(in[2]) << 8 | in[3];
}

std::uint16_t get16(const std::uint8_t *in) {
    return static_cast<std::uint16_t>(in[0] << 8 | in[1]);
}

// Offsets of the fields (docs/wan-transport.md).
constexpr std::size_t kVersionAt = 4;
constexpr std::size_t kKindAt = 5;
constexpr std::size_t kReservedAt = 6;
constexpr std::size_t kSequenceAt = 8;
constexpr std::size_t kRtpsPortAt = 12;
constexpr std::size_t kAddressAt = 16;
constexpr std::size_t kObservedPortAt = 32;
constexpr std::size_t kAnswerReservedAt = 34;

}  // namespace

const char *pingErrorText(PingError error) noexcept {
    for (const ErrorRow &row : kErrorTexts) {
        if (row.error == error) return row.text;
    }
    return "unknown error";
}

bool isPingMessage(std::span<const std::uint8_t> datagram) noexcept {
    return datagram.size() >= sizeof kPingMagic &&
           std::memcmp(datagram.data(), kPingMagic, sizeof kPingMagic) == 0;
}

std::size_t encodePing(const PingMessage &message, std::span<std::uint8_t> out) noexcept {
    const bool answer = message.kind == PingKind::Answer;
    const std::size_t size = answer ? kAnswerSize : kPingSize;
    if (out.size() < size) return 0;
    std::uint8_t *bytes = out.data();
    std::memset(bytes, 0, size);
    std::memcpy(bytes, kPingMagic, sizeof kPingMagic);
    bytes[kVersionAt] = kPingVersion;
    bytes[kKindAt] = static_cast<std::uint8_t>(message.kind);
    put32(bytes + kSequenceAt, message.sequence);
    put32(bytes + kRtpsPortAt, message.rtps_port);
    if (answer) {
        put32(bytes + kAddressAt + 12, message.observed_ipv4);
        put16(bytes + kObservedPortAt, message.observed_port);
    }
    return size;
}

PingError decodePing(std::span<const std::uint8_t> datagram, PingMessage &message_out) noexcept {
    if (datagram.size() < kPingHeaderSize || !isPingMessage(datagram)) {
        return PingError::ShortHeader;
    }
    const std::uint8_t *bytes = datagram.data();
    if (bytes[kVersionAt] != kPingVersion) return PingError::UnsupportedVersion;
    const std::uint8_t kind = bytes[kKindAt];
    if (kind != static_cast<std::uint8_t>(PingKind::Ping) &&
        kind != static_cast<std::uint8_t>(PingKind::Answer)) {
        return PingError::UnknownKind;
    }
    if (get16(bytes + kReservedAt) != 0) return PingError::ReservedBitsSet;
    const bool answer = kind == static_cast<std::uint8_t>(PingKind::Answer);
    if (datagram.size() != (answer ? kAnswerSize : kPingSize)) return PingError::WrongLength;
    // A ping's padding is zero: it makes a ping as long as its answer.
    if (!answer &&
        std::any_of(bytes + kAddressAt, bytes + kPingSize, [](std::uint8_t b) { return b != 0; })) {
        return PingError::ReservedBitsSet;
    }
    PingMessage message;
    message.kind = static_cast<PingKind>(kind);
    message.sequence = get32(bytes + kSequenceAt);
    message.rtps_port = get32(bytes + kRtpsPortAt);
    if (answer) {
        if (get16(bytes + kAnswerReservedAt) != 0) return PingError::ReservedBitsSet;
        // The IPv4 form: twelve zero bytes, then a non-zero address.
        const bool prefix_zero = std::all_of(bytes + kAddressAt, bytes + kAddressAt + 12,
                                             [](std::uint8_t b) { return b == 0; });
        message.observed_ipv4 = get32(bytes + kAddressAt + 12);
        if (!prefix_zero || message.observed_ipv4 == 0) return PingError::NotIpv4;
        message.observed_port = get16(bytes + kObservedPortAt);
        if (message.observed_port == 0) return PingError::PortZero;
    }
    message_out = message;
    return PingError::None;
}

namespace {

// Adds entry to a table of at most capacity entries; a full table gives up
// the entry seen least recently.
template <typename Entry>
void insertReplacingOldest(std::vector<Entry> &entries, std::size_t capacity, Entry entry) {
    if (entries.size() < capacity) {
        entries.push_back(entry);
        return;
    }
    *std::min_element(entries.begin(), entries.end(),
                      [](const Entry &a, const Entry &b) { return a.last_ms < b.last_ms; }) = entry;
}

}  // namespace

bool PeerTable::touch(const PeerKey &peer, std::uint64_t now_ms) {
    for (Entry &entry : entries_) {
        if (entry.peer == peer) {
            entry.last_ms = now_ms;
            return false;
        }
    }
    if (capacity_ == 0) return true;
    insertReplacingOldest(entries_, capacity_, Entry{peer, now_ms});
    return true;
}

void PeerTable::expire(std::uint64_t now_ms, std::uint64_t expiration_ms) {
    if (expiration_ms == 0) return;  // never
    std::erase_if(entries_, [&](const Entry &entry) {
        return now_ms >= entry.last_ms && now_ms - entry.last_ms >= expiration_ms;
    });
}

bool PeerTable::contains(const PeerKey &peer) const {
    return std::any_of(entries_.begin(), entries_.end(),
                       [&](const Entry &entry) { return entry.peer == peer; });
}

bool WarningLimiter::allow(std::uint32_t source_ipv4, std::uint64_t now_ms) {
    for (Entry &entry : entries_) {
        if (entry.source != source_ipv4) continue;
        if (now_ms - entry.last_ms < interval_ms_) return false;
        entry.last_ms = now_ms;
        return true;
    }
    if (capacity_ == 0) return true;
    insertReplacingOldest(entries_, capacity_, Entry{source_ipv4, now_ms});
    return true;
}

std::uint64_t effectiveExpiration(std::uint32_t period_ms, std::uint32_t expiration_ms) noexcept {
    if (expiration_ms != 0) return expiration_ms;
    return 3ull * period_ms;
}

}  // namespace vesk::udp
