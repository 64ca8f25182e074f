// Classification of UDP traffic from the bytes of a datagram: an RTPS
// message is counted by the writer its first writer-naming submessage
// names; anything else is user data. A pure function, so that tests and the
// fuzz target can feed it any bytes.
#pragma once

#include <cstddef>
#include <cstdint>

#include "vesk_transport/platform/Udp.h"

namespace vesk::udp {

// Length of the RTPS message header: "RTPS", version, vendor id, GUID prefix.
inline constexpr std::size_t kRtpsHeaderSize = 20;

struct Classification {
    VESK_Transport_UDP_TrafficKind kind = VESK_TRANSPORT_UDP_TRAFFIC_USER_DATA;
    bool rtps = false;                  // the header is counted as overhead
    std::uint8_t guid_prefix[12] = {};  // the header's, when rtps
};

// Classifies a datagram of total_size bytes of which the first available
// bytes are at data (available <= total_size: a sender may classify only
// the start of a gathered message). Never reads beyond data + available.
Classification classifyDatagram(const std::uint8_t *data, std::size_t available,
                                std::size_t total_size) noexcept;

// The traffic kind of a writer entity id (4 bytes in wire order) that is
// not the participant-message writer; USER_DATA for application writers.
VESK_Transport_UDP_TrafficKind kindOfWriter(const std::uint8_t *entity_id) noexcept;

}  // namespace vesk::udp
