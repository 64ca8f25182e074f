// RTPS traffic classification; see Classify.hpp.
#include "vesk_transport/platform/udp/Classify.hpp"

#include <cstring>

namespace vesk::udp {
namespace {

enum class Writer { Kind, ParticipantMessage };

constexpr std::uint8_t kParticipantMessageWriter[4] = {0x00, 0x02, 0x00, 0xc2};

struct WriterRow {
    std::uint8_t entity_id[4];
    Writer role;
    VESK_Transport_UDP_TrafficKind kind;  // for role Kind
};

// The builtin writers, by entity id in wire order. The participant-message
// writer's liveliness kind comes from its data.
constexpr WriterRow kWriters[] = {
    {{0x00, 0x01, 0x00, 0xc2}, Writer::Kind, VESK_TRANSPORT_UDP_TRAFFIC_PARTICIPANT_DISCOVERY},
    {{0xff, 0x01, 0x01, 0xc2}, Writer::Kind, VESK_TRANSPORT_UDP_TRAFFIC_PARTICIPANT_DISCOVERY},
    {{0x00, 0x00, 0x02, 0xc2}, Writer::Kind, VESK_TRANSPORT_UDP_TRAFFIC_ENDPOINT_DISCOVERY},
    {{0x00, 0x00, 0x03, 0xc2}, Writer::Kind, VESK_TRANSPORT_UDP_TRAFFIC_ENDPOINT_DISCOVERY},
    {{0x00, 0x00, 0x04, 0xc2}, Writer::Kind, VESK_TRANSPORT_UDP_TRAFFIC_ENDPOINT_DISCOVERY},
    {{0xff, 0x00, 0x03, 0xc2}, Writer::Kind, VESK_TRANSPORT_UDP_TRAFFIC_ENDPOINT_DISCOVERY},
    {{0xff, 0x00, 0x04, 0xc2}, Writer::Kind, VESK_TRANSPORT_UDP_TRAFFIC_ENDPOINT_DISCOVERY},
    {{kParticipantMessageWriter[0], kParticipantMessageWriter[1], kParticipantMessageWriter[2],
      kParticipantMessageWriter[3]},
     Writer::ParticipantMessage,
     VESK_TRANSPORT_UDP_TRAFFIC_USER_DATA},
    {{0xff, 0x02, 0x00, 0xc2}, Writer::Kind, VESK_TRANSPORT_UDP_TRAFFIC_SECURE_LIVELINESS},
};

// Submessages that name a writer, and where its entity id sits in the body.
struct SubmessageRow {
    std::uint8_t id;
    std::uint8_t writer_offset;
};
constexpr std::uint8_t kData = 0x15;
constexpr SubmessageRow kSubmessages[] = {
    {0x06, 4},   // ACKNACK
    {0x07, 4},   // HEARTBEAT
    {0x08, 4},   // GAP
    {0x12, 4},   // NACK_FRAG
    {0x13, 4},   // HEARTBEAT_FRAG
    {kData, 8},  // DATA: extra flags and octets-to-inline-QoS come first
    {0x16, 8},   // DATA_FRAG
};

// The participant-message data's kind, after the encapsulation (4 bytes)
// and the participant's GUID prefix (12).
struct LivelinessRow {
    std::uint8_t kind[4];
    VESK_Transport_UDP_TrafficKind traffic;
};
constexpr LivelinessRow kLiveliness[] = {
    {{0, 0, 0, 1}, VESK_TRANSPORT_UDP_TRAFFIC_AUTOMATIC_LIVELINESS},
    {{0, 0, 0, 2}, VESK_TRANSPORT_UDP_TRAFFIC_MANUAL_LIVELINESS},
};
// A participant-message submessage that carries no readable kind (a
// heartbeat, an acknack, unknown kinds) still is builtin traffic.
constexpr VESK_Transport_UDP_TrafficKind kOtherBuiltin = VESK_TRANSPORT_UDP_TRAFFIC_DISCOVERY;

constexpr std::uint8_t kInlineQosFlag = 0x02;
constexpr std::uint16_t kPidSentinel = 0x0001;

std::uint16_t read16(const std::uint8_t *at, bool little_endian) {
    return little_endian ? static_cast<std::uint16_t>(at[0] | (at[1] << 8))
                         : static_cast<std::uint16_t>((at[0] << 8) | at[1]);
}

// The participant-message kind of a DATA submessage's body, or kOtherBuiltin.
VESK_Transport_UDP_TrafficKind livelinessOf(const std::uint8_t *body, std::size_t length,
                                            std::uint8_t flags) {
    const bool little = (flags & 1) != 0;
    if (length < 4) return kOtherBuiltin;
    // octets-to-inline-QoS counts from the end of its own field.
    std::size_t at = 4 + read16(body + 2, little);
    if ((flags & kInlineQosFlag) != 0) {
        // Skip the parameter list up to and including its sentinel.
        for (;;) {
            if (at + 4 > length) return kOtherBuiltin;
            const std::uint16_t pid = read16(body + at, little);
            const std::uint16_t plen = read16(body + at + 2, little);
            at += 4 + plen;
            if (pid == kPidSentinel) break;
        }
    }
    constexpr std::size_t kKindOffset = 4 + 12;  // encapsulation, GUID prefix
    if (at + kKindOffset + 4 > length) return kOtherBuiltin;
    for (const LivelinessRow &row : kLiveliness) {
        if (std::memcmp(body + at + kKindOffset, row.kind, 4) == 0) return row.traffic;
    }
    return kOtherBuiltin;
}

}  // namespace

VESK_Transport_UDP_TrafficKind kindOfWriter(const std::uint8_t *entity_id) noexcept {
    for (const WriterRow &row : kWriters) {
        if (std::memcmp(row.entity_id, entity_id, 4) != 0) continue;
        return row.role == Writer::Kind ? row.kind : kOtherBuiltin;
    }
    return VESK_TRANSPORT_UDP_TRAFFIC_USER_DATA;
}

Classification classifyDatagram(const std::uint8_t *data, std::size_t available,
                                std::size_t total_size) noexcept {
    Classification result;
    if (available > total_size) available = total_size;
    if (data == nullptr || available < kRtpsHeaderSize || std::memcmp(data, "RTPS", 4) != 0) {
        return result;
    }
    result.rtps = true;
    std::memcpy(result.guid_prefix, data + 8, sizeof result.guid_prefix);
    std::size_t at = kRtpsHeaderSize;
    while (at + 4 <= available) {
        const std::uint8_t id = data[at];
        const std::uint8_t flags = data[at + 1];
        const std::size_t body = at + 4;
        std::size_t length = read16(data + at + 2, (flags & 1) != 0);
        // A length of 0 on any but the last submessage is malformed; on the
        // last one it means "up to the end of the message".
        if (length == 0) length = total_size - body;
        if (body + length > total_size) break;
        for (const SubmessageRow &row : kSubmessages) {
            if (row.id != id) continue;
            if (row.writer_offset + 4u > length || body + row.writer_offset + 4 > available) {
                return result;
            }
            const std::uint8_t *writer = data + body + row.writer_offset;
            result.kind = kindOfWriter(writer);
            const bool participant_message = std::memcmp(writer, kParticipantMessageWriter, 4) == 0;
            if (participant_message && id == kData) {
                const std::size_t readable = available - body < length ? available - body : length;
                result.kind = livelinessOf(data + body, readable, flags);
            }
            return result;
        }
        at = body + length;
    }
    return result;
}

}  // namespace vesk::udp
