// UDP sockets; see Socket.hpp.
#include "vesk_transport/platform/udp/Socket.hpp"

#include <arpa/inet.h>
#include <net/if.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace vesk::udp {

void logText(KEL_UINT32 level, const LogContext &context, const char *format, ...) noexcept {
    if (!KELLog_isEnabled(level, DDS_SUBMODULE_MASK_TRANSPORT)) return;
    char body[384];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(body, sizeof body, format, arguments);
    va_end(arguments);
    char text[448];
    std::snprintf(text, sizeof text, "%s transport: %s", context.class_name, body);
    KELLogMessage_printWithParams(-1, level, VESK_TRANSPORT_LOG_MODULE_ID, __FILE__, __LINE__,
                                  context.function, &KEL_LOG_ANY_FAILURE_s, text);
}

bool toEndpoint(bool ipv6, const VESK_Transport_Address_t &address, unsigned port,
                Endpoint &out) noexcept {
    if (port > 65535) return false;
    out = Endpoint{};
    if (ipv6) {
        auto *in6 = reinterpret_cast<sockaddr_in6 *>(&out.address);
        in6->sin6_family = AF_INET6;
        in6->sin6_port = htons(static_cast<uint16_t>(port));
        std::memcpy(&in6->sin6_addr, address.network_ordered_value, 16);
        out.length = sizeof *in6;
    } else {
        auto *in4 = reinterpret_cast<sockaddr_in *>(&out.address);
        in4->sin_family = AF_INET;
        in4->sin_port = htons(static_cast<uint16_t>(port));
        std::memcpy(&in4->sin_addr, address.network_ordered_value + 12, 4);
        out.length = sizeof *in4;
    }
    return true;
}

VESK_Transport_Address_t toAddress(const Endpoint &endpoint) noexcept {
    VESK_Transport_Address_t address{};
    if (endpoint.address.ss_family == AF_INET6) {
        const auto *in6 = reinterpret_cast<const sockaddr_in6 *>(&endpoint.address);
        std::memcpy(address.network_ordered_value, &in6->sin6_addr, 16);
    } else if (endpoint.address.ss_family == AF_INET) {
        const auto *in4 = reinterpret_cast<const sockaddr_in *>(&endpoint.address);
        std::memcpy(address.network_ordered_value + 12, &in4->sin_addr, 4);
    }
    return address;
}

unsigned portOf(const Endpoint &endpoint) noexcept {
    if (endpoint.address.ss_family == AF_INET6) {
        return ntohs(reinterpret_cast<const sockaddr_in6 *>(&endpoint.address)->sin6_port);
    }
    return ntohs(reinterpret_cast<const sockaddr_in *>(&endpoint.address)->sin_port);
}

void hostText(const Endpoint &endpoint, char (&out)[64]) noexcept {
    std::strcpy(out, "?");
    const bool v6 = endpoint.address.ss_family == AF_INET6;
    const void *address =
        v6 ? static_cast<const void *>(
                 &reinterpret_cast<const sockaddr_in6 *>(&endpoint.address)->sin6_addr)
           : static_cast<const void *>(
                 &reinterpret_cast<const sockaddr_in *>(&endpoint.address)->sin_addr);
    inet_ntop(v6 ? AF_INET6 : AF_INET, address, out, sizeof out);
}

void endpointText(const Endpoint &endpoint, char (&out)[64]) noexcept {
    char host[64];
    hostText(endpoint, host);
    const bool v6 = endpoint.address.ss_family == AF_INET6;
    std::snprintf(out, sizeof out, v6 ? "[%s]:%u" : "%s:%u", host, portOf(endpoint));
}

bool isMulticast(bool ipv6, const VESK_Transport_Address_t &address) noexcept {
    const unsigned char *bytes = address.network_ordered_value;
    const bool mapped = std::memcmp(bytes, "\0\0\0\0\0\0\0\0\0\0\xff\xff", 12) == 0;
    if (!ipv6 || mapped) return (bytes[12] & 0xF0) == 0xE0;
    return bytes[0] == 0xFF;
}

void logSystemError(const LogContext &context, const char *operation, const Endpoint &endpoint,
                    int error) noexcept {
    char where[64];
    endpointText(endpoint, where);
    char reason[128];
    // The GNU strerror_r returns the text, which may not be in reason.
    const char *text = strerror_r(error, reason, sizeof reason);
    logText(KEL_LOG_BIT_ERROR, context, "%s on %s failed: %s", operation, where, text);
}

void Descriptor::reset() noexcept {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

namespace {

int readLimit(const char *path) noexcept {
    FILE *file = std::fopen(path, "re");
    if (file == nullptr) return -1;
    long value = -1;
    if (std::fscanf(file, "%ld", &value) != 1) value = -1;
    std::fclose(file);
    return value > 0 && value <= 0x7FFFFFFF ? static_cast<int>(value) : -1;
}

struct BufferRow {
    int option;
    int force_option;
    const char *option_name;
    const char *limit_path;
    const char *sysctl_name;
};
constexpr BufferRow kReceiveBuffer{SO_RCVBUF, SO_RCVBUFFORCE, "SO_RCVBUF",
                                   "/proc/sys/net/core/rmem_max", "net.core.rmem_max"};
constexpr BufferRow kSendBuffer{SO_SNDBUF, SO_SNDBUFFORCE, "SO_SNDBUF",
                                "/proc/sys/net/core/wmem_max", "net.core.wmem_max"};

const BufferRow &bufferRow(SocketRole role) {
    return role == SocketRole::Receive ? kReceiveBuffer : kSendBuffer;
}

// Asks for the buffer and reads back what was granted (-1 after a logged
// failure).
int applyBuffer(int fd, int record_value, SocketRole role, const LogContext &context,
                const Endpoint &endpoint) noexcept {
    const BufferRow &row = bufferRow(role);
    const int asked = requestedBufferSize(record_value, role);
    if (asked >= 0) {
        // The forcing option goes beyond the system's limit when the process
        // may (CAP_NET_ADMIN); otherwise the plain option, capped.
        if (setsockopt(fd, SOL_SOCKET, row.force_option, &asked, sizeof asked) != 0 &&
            setsockopt(fd, SOL_SOCKET, row.option, &asked, sizeof asked) != 0) {
            logSystemError(context, row.option_name, endpoint, errno);
            return -1;
        }
    }
    int reported = 0;
    socklen_t length = sizeof reported;
    if (getsockopt(fd, SOL_SOCKET, row.option, &reported, &length) != 0) {
        logSystemError(context, row.option_name, endpoint, errno);
        return -1;
    }
    const int granted = reported / 2;
    if (asked >= 0 && granted < asked) {
        char where[64];
        endpointText(endpoint, where);
        logText(KEL_LOG_BIT_WARN, context,
                "%s on %s: %d bytes requested, %d granted; lift the limit with: sysctl -w %s=%d",
                row.option_name, where, asked, granted, row.sysctl_name, asked);
    }
    return granted;
}

bool setOption(int fd, int level, int option, int value, const char *name,
               const LogContext &context, const Endpoint &endpoint) noexcept {
    if (setsockopt(fd, level, option, &value, sizeof value) == 0) return true;
    logSystemError(context, name, endpoint, errno);
    return false;
}

bool setMulticastSendOptions(int fd, const VESK_Transport_UDP_Property_t &property,
                             const SocketRequest &request, const LogContext &context,
                             const Endpoint &endpoint) noexcept {
    const int loop = property.multicast_loopback_disabled != 0 ? 0 : 1;
    if (request.ipv6) {
        return setOption(fd, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, property.multicast_ttl,
                         "IPV6_MULTICAST_HOPS", context, endpoint) &&
               setOption(fd, IPPROTO_IPV6, IPV6_MULTICAST_LOOP, loop, "IPV6_MULTICAST_LOOP",
                         context, endpoint) &&
               (request.multicast_ifindex == 0 ||
                setOption(fd, IPPROTO_IPV6, IPV6_MULTICAST_IF, request.multicast_ifindex,
                          "IPV6_MULTICAST_IF", context, endpoint));
    }
    // IPv4 takes the TTL and the loop flag as one byte.
    const unsigned char ttl = static_cast<unsigned char>(property.multicast_ttl);
    const unsigned char loop_byte = static_cast<unsigned char>(loop);
    if (setsockopt(fd, IPPROTO_IP, IP_MULTICAST_TTL, &ttl, sizeof ttl) != 0) {
        logSystemError(context, "IP_MULTICAST_TTL", endpoint, errno);
        return false;
    }
    if (setsockopt(fd, IPPROTO_IP, IP_MULTICAST_LOOP, &loop_byte, sizeof loop_byte) != 0) {
        logSystemError(context, "IP_MULTICAST_LOOP", endpoint, errno);
        return false;
    }
    if (request.multicast_ifindex != 0) {
        ip_mreqn interface_request{};
        interface_request.imr_ifindex = request.multicast_ifindex;
        if (setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &interface_request,
                       sizeof interface_request) != 0) {
            logSystemError(context, "IP_MULTICAST_IF", endpoint, errno);
            return false;
        }
    }
    return true;
}

}  // namespace

int requestedBufferSize(int record_value, SocketRole role) noexcept {
    if (record_value == VESK_TRANSPORT_UDP_SOCKET_BUFFER_SIZE_OS_DEFAULT) return -1;
    if (record_value == VESK_TRANSPORT_UDP_SOCKET_BUFFER_SIZE_OS_MAX) {
        return readLimit(bufferRow(role).limit_path);
    }
    return record_value;
}

bool setTrafficClass(int fd, bool ipv6, int traffic_class, const LogContext &context,
                     const Endpoint &endpoint) noexcept {
    return ipv6 ? setOption(fd, IPPROTO_IPV6, IPV6_TCLASS, traffic_class, "IPV6_TCLASS", context,
                            endpoint)
                : setOption(fd, IPPROTO_IP, IP_TOS, traffic_class, "IP_TOS", context, endpoint);
}

Descriptor openUdpSocket(const VESK_Transport_UDP_Property_t &property,
                         const SocketRequest &request, const LogContext &context,
                         unsigned *bound_port_out, int *granted_buffer_out) noexcept {
    const Endpoint &at = request.bind_at;
    Descriptor socket_fd(::socket(request.ipv6 ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!socket_fd.valid()) {
        logSystemError(context, "socket", at, errno);
        return {};
    }
    const int fd = socket_fd.get();
    const bool receive = request.role == SocketRole::Receive;
    if (request.ipv6 &&
        !setOption(fd, IPPROTO_IPV6, IPV6_V6ONLY, property.enable_v4mapped != 0 ? 0 : 1,
                   "IPV6_V6ONLY", context, at)) {
        return {};
    }
    if (request.reuse_port &&
        !(setOption(fd, SOL_SOCKET, SO_REUSEADDR, 1, "SO_REUSEADDR", context, at) &&
          setOption(fd, SOL_SOCKET, SO_REUSEPORT, 1, "SO_REUSEPORT", context, at))) {
        return {};
    }
    const int granted = applyBuffer(
        fd, receive ? property.recv_socket_buffer_size : property.send_socket_buffer_size,
        request.role, context, at);
    if (granted < 0) return {};
    if (!request.ipv6 && property.use_checksum == 0 &&
        !setOption(fd, SOL_SOCKET, SO_NO_CHECK, 1, "SO_NO_CHECK", context, at)) {
        return {};
    }
    if (request.receive_tos &&
        !(request.ipv6
              ? setOption(fd, IPPROTO_IPV6, IPV6_RECVTCLASS, 1, "IPV6_RECVTCLASS", context, at)
              : setOption(fd, IPPROTO_IP, IP_RECVTOS, 1, "IP_RECVTOS", context, at))) {
        return {};
    }
    if (::bind(fd, reinterpret_cast<const sockaddr *>(&at.address), at.length) != 0) {
        logSystemError(context, "bind", at, errno);
        return {};
    }
    Endpoint bound;
    bound.length = sizeof bound.address;
    if (getsockname(fd, reinterpret_cast<sockaddr *>(&bound.address), &bound.length) != 0) {
        logSystemError(context, "getsockname", at, errno);
        return {};
    }
    if (!receive && !setMulticastSendOptions(fd, property, request, context, at)) return {};
    if (bound_port_out != nullptr) *bound_port_out = portOf(bound);
    if (granted_buffer_out != nullptr) *granted_buffer_out = granted;
    return socket_fd;
}

}  // namespace vesk::udp
