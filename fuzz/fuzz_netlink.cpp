// libFuzzer target: the route netlink parser of the UDP interface tracker.
// Any bytes must parse without a crash, and what comes out must hold.
#include <net/if.h>
#include <sys/socket.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "vesk_transport/platform/udp/Netlink.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    using vesk::udp::netlink::EventKind;
    const auto result = vesk::udp::netlink::parse(data, size);
    for (const auto &event : result.events) {
        const bool address =
            event.kind == EventKind::addressNew || event.kind == EventKind::addressDel;
        const bool ok =
            event.index > 0 && (address ? event.family == AF_INET || event.family == AF_INET6
                                        : event.family == 0 && event.name.size() < IFNAMSIZ);
        if (!ok) {
            std::fprintf(stderr, "netlink event breaks an invariant (index %u, family %d)\n",
                         event.index, event.family);
            std::abort();
        }
    }
    return 0;
}
