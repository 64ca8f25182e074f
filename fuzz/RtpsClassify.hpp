// Harness of the RTPS traffic classification of the UDP transport: the
// whole input as one datagram, and again with only its first half visible
// (as a sender classifies a gathered message). Each view is copied into a
// block of exactly its size, so that a read beyond it is caught. Returns the
// first violated invariant, or an empty text.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "vesk_transport/platform/udp/Classify.hpp"

namespace vesk::fuzz {

inline std::string runRtpsClassify(const std::uint8_t *data, std::size_t size) {
    for (const std::size_t available : {size, size / 2}) {
        const std::vector<std::uint8_t> view(data, data + available);
        const udp::Classification result = udp::classifyDatagram(view.data(), available, size);
        const bool header = available >= udp::kRtpsHeaderSize && std::memcmp(data, "RTPS", 4) == 0;
        if (result.rtps != header) return "rtps flag disagrees with the header";
        switch (result.kind) {
            case VESK_TRANSPORT_UDP_TRAFFIC_USER_DATA:
            case VESK_TRANSPORT_UDP_TRAFFIC_DISCOVERY:
            case VESK_TRANSPORT_UDP_TRAFFIC_PARTICIPANT_DISCOVERY:
            case VESK_TRANSPORT_UDP_TRAFFIC_AUTOMATIC_LIVELINESS:
            case VESK_TRANSPORT_UDP_TRAFFIC_MANUAL_LIVELINESS:
            case VESK_TRANSPORT_UDP_TRAFFIC_SECURE_LIVELINESS:
            case VESK_TRANSPORT_UDP_TRAFFIC_ENDPOINT_DISCOVERY:
                break;
            default:
                return "a kind that no datagram can have";
        }
        if (!header && result.kind != VESK_TRANSPORT_UDP_TRAFFIC_USER_DATA) {
            return "a datagram without an RTPS header is not user data";
        }
    }
    return {};
}

}  // namespace vesk::fuzz
