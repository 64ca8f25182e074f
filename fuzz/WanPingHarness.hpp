// The binding-ping harness: arbitrary datagrams through the WAN parser.
// Invariants: nothing is read outside the datagram (the sanitizers see it);
// a datagram without the magic is never taken for a binding ping; one that
// decodes re-encodes to exactly its own bytes (a single form per message);
// a refused one leaves the output alone and has a documented reason.
//
// Header-only, without libFuzzer: the corpus test replays the seeds too.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <vector>

#include "vesk_transport/platform/udp/Wan.hpp"

namespace vesk::fuzz {

inline std::string runWanPing(const std::uint8_t *data, std::size_t size) {
    using namespace vesk::udp;
    // A copy of exactly the datagram's size, so that an over-read is seen.
    const std::vector<std::uint8_t> datagram(data, data + size);
    const std::span<const std::uint8_t> bytes(datagram);
    if (!isPingMessage(bytes)) {
        if (size >= 4 && std::memcmp(data, kPingMagic, 4) == 0) return "magic not recognised";
        return "";
    }
    const PingMessage sentinel{PingKind::Answer, 0xDEAD, 0xBEEF, 1, 1};
    PingMessage message = sentinel;
    const PingError error = decodePing(bytes, message);
    if (error != PingError::None) {
        if (message.sequence != sentinel.sequence || message.rtps_port != sentinel.rtps_port) {
            return "a refused datagram wrote the message";
        }
        if (std::string(pingErrorText(error)) == "unknown error") return "undocumented reason";
        return "";
    }
    std::uint8_t out[kPingMessageSizeMax];
    const std::size_t written = encodePing(message, out);
    if (written != size || std::memcmp(out, data, size) != 0) {
        return "a decoded message does not re-encode to its datagram";
    }
    return "";
}

}  // namespace vesk::fuzz
