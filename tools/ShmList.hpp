// vesk-transport shm-list: the shared-memory segments of this host.
#pragma once

#include <ostream>

namespace vesk::tool {

// One line per segment: name, port, format, creator and whether it lives,
// ring geometry and counters. Returns 0.
int listShmemSegments(std::ostream &out);

}  // namespace vesk::tool
