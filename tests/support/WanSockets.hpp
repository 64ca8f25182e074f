// Plain IPv4 UDP sockets for the WAN tests: bind, send, receive one
// datagram with a deadline. Addresses and ports in host order.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

namespace vesk::test {

struct UdpSocket {
    int fd = -1;
    std::uint16_t port = 0;  // as bound

    UdpSocket(std::uint32_t ipv4, std::uint16_t wanted_port)
        : fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address = endpoint(ipv4, wanted_port);
        socklen_t length = sizeof address;
        if (bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
            getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length) != 0) {
            close(fd);
            fd = -1;
        }
        port = ntohs(address.sin_port);
    }
    ~UdpSocket() {
        if (fd >= 0) close(fd);
    }
    UdpSocket(const UdpSocket &) = delete;
    UdpSocket &operator=(const UdpSocket &) = delete;

    static sockaddr_in endpoint(std::uint32_t ipv4, std::uint16_t port) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(ipv4);
        address.sin_port = htons(port);
        return address;
    }

    void sendTo(std::uint32_t ipv4, std::uint16_t to_port,
                const std::vector<std::uint8_t> &bytes) const {
        const sockaddr_in to = endpoint(ipv4, to_port);
        sendto(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr *>(&to),
               sizeof to);
    }

    // The next datagram within timeout_ms, and its source; false for none.
    bool receive(std::vector<std::uint8_t> &bytes, sockaddr_in &from, int timeout_ms) const {
        pollfd readable{fd, POLLIN, 0};
        if (poll(&readable, 1, timeout_ms) != 1) return false;
        bytes.resize(2048);
        socklen_t length = sizeof from;
        const ssize_t size = recvfrom(fd, bytes.data(), bytes.size(), MSG_DONTWAIT,
                                      reinterpret_cast<sockaddr *>(&from), &length);
        bytes.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
        return size >= 0;
    }
};

inline std::vector<std::uint8_t> bytesOf(const std::string &text) {
    return {text.begin(), text.end()};
}

}  // namespace vesk::test
