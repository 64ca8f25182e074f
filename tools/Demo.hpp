// `vesk-transport demo`: the whole module in one process, narrated.
#pragma once

#include <ostream>

namespace vesk::tool {

// Runs the demo on the host's loopback interface. 0 when every step did
// what the narration says, 1 otherwise.
int runDemo(std::ostream &out);

}  // namespace vesk::tool
