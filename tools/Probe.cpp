#include "tools/Probe.hpp"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>

namespace vesk::tool {

namespace {

// A socket closed on every way out.
class Socket {
public:
    Socket(int family, int type) : fd_(::socket(family, type | SOCK_CLOEXEC, 0)) {}
    ~Socket() {
        if (fd_ >= 0) ::close(fd_);
    }
    Socket(const Socket &) = delete;
    Socket &operator=(const Socket &) = delete;
    int fd() const { return fd_; }

private:
    int fd_;
};

std::string errnoText(const char *call) {
    return std::string(call) + ": " + std::strerror(errno);
}

template <typename T>
bool setOption(int fd, int level, int name, T value) {
    return ::setsockopt(fd, level, name, &value, sizeof value) == 0;
}

// Any address of the family on port.
sockaddr_storage anyAddress(bool ipv6, long port) {
    sockaddr_storage storage{};
    if (ipv6) {
        auto *address = reinterpret_cast<sockaddr_in6 *>(&storage);
        address->sin6_family = AF_INET6;
        address->sin6_addr = in6addr_any;
        address->sin6_port = htons(static_cast<uint16_t>(port));
    } else {
        auto *address = reinterpret_cast<sockaddr_in *>(&storage);
        address->sin_family = AF_INET;
        address->sin_addr.s_addr = htonl(INADDR_ANY);
        address->sin_port = htons(static_cast<uint16_t>(port));
    }
    return storage;
}

socklen_t addressLength(bool ipv6) {
    return ipv6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
}

// Joins group on interface index with a socket of the group's family.
std::string join(int fd, const std::string &group, unsigned index, bool ipv6) {
    if (ipv6) {
        ipv6_mreq request{};
        if (inet_pton(AF_INET6, group.c_str(), &request.ipv6mr_multiaddr) != 1)
            return "not an IPv6 group: " + group;
        request.ipv6mr_interface = index;
        if (!setOption(fd, IPPROTO_IPV6, IPV6_JOIN_GROUP, request))
            return errnoText("IPV6_JOIN_GROUP");
        return "";
    }
    ip_mreqn request{};
    if (inet_pton(AF_INET, group.c_str(), &request.imr_multiaddr) != 1)
        return "not an IPv4 group: " + group;
    request.imr_ifindex = static_cast<int>(index);
    if (!setOption(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, request))
        return errnoText("IP_ADD_MEMBERSHIP");
    return "";
}

}  // namespace

UdpRecord::UdpRecord(const TransportClass &transportClass, const DDS_PropertyQosPolicy *policy,
                     const char *prefix)
    : class_(transportClass), record_(*transportClass.udpDefaults) {
    applied_ = transportClass.udpSetup(&record_, &allocations_, policy, prefix);
}

UdpRecord::~UdpRecord() {
    class_.udpCleanup(&record_, &allocations_);
}

bool UdpRecord::ipv6() const {
    return record_.parent.classid == VESK_TRANSPORT_CLASSID_UDPv6;
}

VESK_Transport_Plugin *UdpRecord::newPlugin() const {
    return ok() ? class_.udpConstruct(&record_, nullptr, nullptr) : nullptr;
}

const char *socketBufferSysctl(bool send) {
    return send ? "net.core.wmem_max" : "net.core.rmem_max";
}

long socketBufferLimit(bool send) {
    std::ifstream file(send ? "/proc/sys/net/core/wmem_max" : "/proc/sys/net/core/rmem_max");
    long limit = 0;
    file >> limit;
    return file ? limit : 0;
}

BufferProbe probeSocketBuffer(bool send, KEL_INT32 recordSize, bool ipv6) {
    BufferProbe probe;
    probe.limit = socketBufferLimit(send);
    Socket socket(ipv6 ? AF_INET6 : AF_INET, SOCK_DGRAM);
    if (socket.fd() < 0) {
        probe.error = errnoText("socket");
        return probe;
    }
    const int option = send ? SO_SNDBUF : SO_RCVBUF;
    if (recordSize == VESK_TRANSPORT_UDP_SOCKET_BUFFER_SIZE_OS_MAX) {
        probe.requested = probe.limit;
    } else if (recordSize != VESK_TRANSPORT_UDP_SOCKET_BUFFER_SIZE_OS_DEFAULT) {
        probe.requested = recordSize;
    }
    // Linux reports twice what was set: the other half is its bookkeeping.
    auto granted = [&](long &out) {
        int reported = 0;
        socklen_t length = sizeof reported;
        if (::getsockopt(socket.fd(), SOL_SOCKET, option, &reported, &length) != 0) {
            probe.error = errnoText("getsockopt");
            return false;
        }
        out = reported / 2;
        return true;
    };
    if (probe.requested > 0 &&
        !setOption(socket.fd(), SOL_SOCKET, option, static_cast<int>(probe.requested))) {
        probe.error = errnoText(send ? "SO_SNDBUF" : "SO_RCVBUF");
        return probe;
    }
    if (!granted(probe.unprivileged)) return probe;
    probe.granted = probe.unprivileged;
    if (probe.requested > probe.unprivileged &&
        setOption(socket.fd(), SOL_SOCKET, send ? SO_SNDBUFFORCE : SO_RCVBUFFORCE,
                  static_cast<int>(probe.requested))) {
        granted(probe.granted);
    }
    return probe;
}

RtpsPorts rtpsPorts(long domain, long participant) {
    constexpr long PB = 7400, DG = 250, PG = 2, D0 = 0, D1 = 10, D2 = 1, D3 = 11;
    const long base = PB + DG * domain;
    return {base + D0, base + D1 + PG * participant, base + D2, base + D3 + PG * participant};
}

std::string tryBind(long port, bool ipv6, bool reuse) {
    Socket socket(ipv6 ? AF_INET6 : AF_INET, SOCK_DGRAM);
    if (socket.fd() < 0) return errnoText("socket");
    if (reuse && !setOption(socket.fd(), SOL_SOCKET, SO_REUSEADDR, 1))
        return errnoText("SO_REUSEADDR");
    const sockaddr_storage address = anyAddress(ipv6, port);
    if (::bind(socket.fd(), reinterpret_cast<const sockaddr *>(&address), addressLength(ipv6)) != 0)
        return errnoText("bind");
    return "";
}

std::string tryJoin(const std::string &group, const std::string &interfaceName, bool ipv6) {
    const unsigned index = if_nametoindex(interfaceName.c_str());
    if (index == 0) return errnoText("if_nametoindex");
    Socket socket(ipv6 ? AF_INET6 : AF_INET, SOCK_DGRAM);
    if (socket.fd() < 0) return errnoText("socket");
    return join(socket.fd(), group, index, ipv6);
}

std::string multicastLoopbackProbe(const std::string &group, bool ipv6, int timeoutMs) {
    const unsigned lo = if_nametoindex("lo");
    if (lo == 0) return "this host has no interface named lo";
    Socket receiver(ipv6 ? AF_INET6 : AF_INET, SOCK_DGRAM);
    Socket sender(ipv6 ? AF_INET6 : AF_INET, SOCK_DGRAM);
    if (receiver.fd() < 0 || sender.fd() < 0) return errnoText("socket");
    // An ephemeral port, so that no other receiver of the group sees the probe.
    sockaddr_storage bound = anyAddress(ipv6, 0);
    socklen_t length = addressLength(ipv6);
    if (::bind(receiver.fd(), reinterpret_cast<const sockaddr *>(&bound), length) != 0 ||
        ::getsockname(receiver.fd(), reinterpret_cast<sockaddr *>(&bound), &length) != 0) {
        return errnoText("bind");
    }
    if (std::string error = join(receiver.fd(), group, lo, ipv6); !error.empty()) return error;
    sockaddr_storage destination = bound;
    if (ipv6) {
        auto *address = reinterpret_cast<sockaddr_in6 *>(&destination);
        inet_pton(AF_INET6, group.c_str(), &address->sin6_addr);
        if (!setOption(sender.fd(), IPPROTO_IPV6, IPV6_MULTICAST_IF, lo) ||
            !setOption(sender.fd(), IPPROTO_IPV6, IPV6_MULTICAST_LOOP, 1u) ||
            !setOption(sender.fd(), IPPROTO_IPV6, IPV6_MULTICAST_HOPS, 0)) {
            return errnoText("IPV6_MULTICAST_IF/LOOP/HOPS");
        }
    } else {
        auto *address = reinterpret_cast<sockaddr_in *>(&destination);
        inet_pton(AF_INET, group.c_str(), &address->sin_addr);
        ip_mreqn outgoing{};
        outgoing.imr_ifindex = static_cast<int>(lo);
        if (!setOption(sender.fd(), IPPROTO_IP, IP_MULTICAST_IF, outgoing) ||
            !setOption(sender.fd(), IPPROTO_IP, IP_MULTICAST_LOOP, static_cast<unsigned char>(1)) ||
            !setOption(sender.fd(), IPPROTO_IP, IP_MULTICAST_TTL, static_cast<unsigned char>(0))) {
            return errnoText("IP_MULTICAST_IF/LOOP/TTL");
        }
    }
    static const char PROBE[] = "vesk-transport multicast probe";
    if (::sendto(sender.fd(), PROBE, sizeof PROBE, 0,
                 reinterpret_cast<const sockaddr *>(&destination), length) < 0) {
        return errnoText("sendto");
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) break;
        pollfd readable{receiver.fd(), POLLIN, 0};
        if (::poll(&readable, 1, static_cast<int>(left.count())) <= 0) break;
        char buffer[sizeof PROBE];
        const ssize_t received = ::recv(receiver.fd(), buffer, sizeof buffer, MSG_DONTWAIT);
        if (received == static_cast<ssize_t>(sizeof PROBE) &&
            std::memcmp(buffer, PROBE, sizeof PROBE) == 0) {
            return "";
        }
    }
    return "the datagram did not come back within " + std::to_string(timeoutMs) + " ms";
}

}  // namespace vesk::tool
