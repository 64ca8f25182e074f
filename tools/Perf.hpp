// vesk-transport perf: traffic through the transport that property files
// configure, measured. In one process over loopback (two plugins from the
// same files), or between two processes (a subscriber, and a publisher
// given the subscriber's address). Each UDP plugin is installed on a
// participant of its own, so that the statistics at the end are those the
// module reads (VESK_Transport_Support_get_udpv4_statistics, ...). Shared
// memory runs in one process only and has no statistics.
#pragma once

#include <ostream>
#include <string>

#include "tools/Inspection.hpp"

namespace vesk::tool {

struct PerfOptions {
    enum class Role { loopback, pub, sub };
    Role role = Role::loopback;
    std::string peer;       // pub: the subscriber's address
    long port = 7411;       // two processes: the subscriber's port
    long size = 1024;       // bytes per datagram, RTPS header included
    double duration = 2.0;  // seconds of sending
    double rate = 0;        // messages per second; 0: as fast as the transport sends
    bool pingPong = false;  // loopback: round trips, one message in flight
    bool json = false;
};

// The smallest message perf sends: the RTPS header, a DATA submessage and
// the sequence number, kind and time stamp it carries.
constexpr long PERF_MESSAGE_MIN = 72;

// Exit code: 0 when traffic flowed, 1 when the transport could not be built
// or nothing arrived; the usage errors are the caller's.
int runPerf(const TransportClass &transportClass, const PropertyList &list,
            const InspectOptions &with, const PerfOptions &options, const std::string &files,
            std::ostream &out);

}  // namespace vesk::tool
