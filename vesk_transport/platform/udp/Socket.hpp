// UDP sockets of the UDP transport: addresses as socket endpoints, socket
// creation with the record's options in one fixed order, socket buffers,
// and the messages every failed system call writes.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include "vesk_transport/platform/Log.h"
#include "vesk_transport/platform/Udp.h"

namespace vesk::udp {

// Who reports: the class ("UDPv4") heads the text, the function is the
// reporting function of the message.
struct LogContext {
    const char *class_name;
    const char *function;
};

// Writes "<class> transport: <text>" with KEL_LOG_ANY_FAILURE_s at the given
// level (KEL_LOG_BIT_ERROR or KEL_LOG_BIT_WARN) when the masks allow it.
void logText(KEL_UINT32 level, const LogContext &context, const char *format, ...) noexcept
    __attribute__((format(printf, 3, 4)));

struct Endpoint {
    sockaddr_storage address{};
    socklen_t length = 0;
};

// The endpoint of a transport address and port: IPv4 from the last four
// bytes, IPv6 from all sixteen. False for a port above 65535.
bool toEndpoint(bool ipv6, const VESK_Transport_Address_t &address, unsigned port,
                Endpoint &out) noexcept;
// The transport address of an endpoint (IPv4 into the last four bytes).
VESK_Transport_Address_t toAddress(const Endpoint &endpoint) noexcept;
unsigned portOf(const Endpoint &endpoint) noexcept;
// "192.0.2.1:7400" or "[fd00::2]:7400".
void endpointText(const Endpoint &endpoint, char (&out)[64]) noexcept;
// The address alone: "192.0.2.1" or "fd00::2".
void hostText(const Endpoint &endpoint, char (&out)[64]) noexcept;
// 224.0.0.0/4 for IPv4 (also mapped into IPv6), ff00::/8 for IPv6.
bool isMulticast(bool ipv6, const VESK_Transport_Address_t &address) noexcept;

// "<operation> on <endpoint> failed: <strerror>" as an error.
void logSystemError(const LogContext &context, const char *operation, const Endpoint &endpoint,
                    int error) noexcept;

// Owns one descriptor.
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() { reset(); }
    Descriptor(Descriptor &&other) noexcept : fd_(other.release()) {}
    Descriptor &operator=(Descriptor &&other) noexcept {
        if (this != &other) {
            reset();
            fd_ = other.release();
        }
        return *this;
    }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    int release() {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }
    void reset() noexcept;

private:
    int fd_ = -1;
};

enum class SocketRole { Receive, Send };

struct SocketRequest {
    SocketRole role;
    bool ipv6;
    Endpoint bind_at;           // the wildcard address and the port (0: any)
    bool reuse_port = false;    // a multicast receive socket others may share
    bool receive_tos = false;   // deliver each datagram's TOS / traffic class
    int multicast_ifindex = 0;  // Send: outgoing multicast interface (0: the system's)
};

// Opens a UDP socket as the record says, in this order: socket (CLOEXEC),
// IPV6_V6ONLY unless enable_v4mapped, SO_REUSEADDR/SO_REUSEPORT when asked,
// the buffer of its role, SO_NO_CHECK without use_checksum (IPv4), bind,
// getsockname, then for Send the multicast TTL/hops, loopback and outgoing
// interface. Every failure is logged with the option and the endpoint; the
// socket is closed and an invalid descriptor returned. On success
// *bound_port_out holds the bound port and *granted_buffer_out the buffer
// size the system granted (the size it reports halved: Linux doubles it for
// its own bookkeeping).
Descriptor openUdpSocket(const VESK_Transport_UDP_Property_t &property,
                         const SocketRequest &request, const LogContext &context,
                         unsigned *bound_port_out, int *granted_buffer_out) noexcept;

// The size asked of the system for a record value: -1 keeps the default
// (returns -1), -2 reads /proc/sys/net/core/{r,w}mem_max, others as they are.
int requestedBufferSize(int record_value, SocketRole role) noexcept;

// Sets IP_TOS / IPV6_TCLASS. False after logging on failure.
bool setTrafficClass(int fd, bool ipv6, int traffic_class, const LogContext &context,
                     const Endpoint &endpoint) noexcept;

}  // namespace vesk::udp
