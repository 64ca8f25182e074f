// What this host delivers to a UDP transport, asked with short-lived probe
// sockets of the tool's own: socket buffer sizes, interface MTUs and flags,
// ports that can be bound, and whether multicast comes back on loopback.
// Nothing is sent beyond the loopback interface.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/RecordFields.hpp"

namespace vesk::tool {

// A UDP class's record made by its setup from a list, released (the
// setup's cleanup) when it goes out of scope.
class UdpRecord {
public:
    UdpRecord(const TransportClass &transportClass, const DDS_PropertyQosPolicy *policy,
              const char *prefix);
    ~UdpRecord();
    UdpRecord(const UdpRecord &) = delete;
    UdpRecord &operator=(const UdpRecord &) = delete;

    bool ok() const { return applied_ >= 0; }
    const VESK_Transport_UDP_Property_t &record() const { return record_; }
    bool ipv6() const;
    // A plugin made by the class's constructor, as the factory makes it;
    // null when the constructor refuses the record. The caller owns it.
    VESK_Transport_Plugin *newPlugin() const;

private:
    const TransportClass &class_;
    VESK_Transport_UDP_Property_t record_;
    VESK_Transport_internalMemoryAllocations allocations_{};
    int applied_ = -1;
};

// The OS limit that caps a requested socket buffer: /proc/sys/net/core/
// {w,r}mem_max. 0 when it cannot be read.
long socketBufferLimit(bool send);
const char *socketBufferSysctl(bool send);  // "net.core.wmem_max"

// A socket buffer as the kernel grants it for a requested size (the record's
// value: -1 OS default, -2 OS maximum, else bytes), asked for as the
// transport asks: beyond the limit where the process may (SO_*BUFFORCE).
struct BufferProbe {
    long requested = 0;     // bytes asked for (the OS maximum for -2, 0 for -1)
    long granted = 0;       // what a datagram can use (half of what Linux reports)
    long unprivileged = 0;  // what the plain option gave, capped by the limit
    long limit = 0;         // the sysctl limit
    std::string error;      // a failed system call
};
BufferProbe probeSocketBuffer(bool send, KEL_INT32 recordSize, bool ipv6);

// RTPS well-known ports for a domain and participant index: PB 7400,
// DG 250, PG 2, d0 0, d1 10, d2 1, d3 11.
struct RtpsPorts {
    long metatrafficMulticast;
    long metatrafficUnicast;
    long userMulticast;
    long userUnicast;
};
RtpsPorts rtpsPorts(long domain, long participant);

// "" when a UDP socket can be bound to port on every address (reuse asked
// for, as a multicast receiver does), else the errno text.
std::string tryBind(long port, bool ipv6, bool reuse);

// Sends one datagram to group on the loopback interface with multicast
// loopback on and a time-to-live of 0, and waits up to timeoutMs for it to
// come back. "" when it came back, else what failed.
std::string multicastLoopbackProbe(const std::string &group, bool ipv6, int timeoutMs);

// Joins group on the named interface with a probe socket; "" or the errno.
std::string tryJoin(const std::string &group, const std::string &interfaceName, bool ipv6);

}  // namespace vesk::tool
