// vesk-transport shm-list: the shared-memory segments of this host.
#include "tools/ShmList.hpp"

#include <cinttypes>
#include <cstdio>

#include "vesk_transport/platform/shmem/Segment.hpp"

namespace vesk::tool {

int listShmemSegments(std::ostream &out) {
    const auto segments = vesk::shmem::listSegments();
    if (segments.empty()) {
        out << "no shared-memory segments of this transport in /dev/shm\n";
        return 0;
    }
    char line[256];
    std::snprintf(line, sizeof line, "%-20s %6s %6s %8s %-6s %6s %9s %10s %8s %6s\n", "segment",
                  "port", "format", "pid", "owner", "slots", "bytes", "sent", "dropped", "torn");
    out << line;
    for (const auto &segment : segments) {
        const vesk::shmem::Header &h = segment.header;
        if (h.magic != vesk::shmem::kMagic) {
            out << segment.name << "  (not readable, or not a segment of this transport)\n";
            continue;
        }
        std::snprintf(line, sizeof line,
                      "%-20s %6u %6u %8d %-6s %6u %9u %10" PRIu64 " %8" PRIu64 " %6" PRIu64 "\n",
                      segment.name.c_str(), h.port, h.format, h.creator_pid,
                      segment.alive ? "alive" : "dead", h.slot_count, h.data_size, h.sent,
                      h.dropped, h.torn);
        out << line;
    }
    return 0;
}

}  // namespace vesk::tool
