// Route netlink parsing and socket of the interface tracker (see
// docs/udp-transport.md, "Interface tracking").
#include "vesk_transport/platform/udp/Netlink.hpp"

#include <libmnl/libmnl.h>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "vesk_transport/platform/Log.h"

namespace vesk::udp::netlink {

namespace {

// bookworm's libmnl has no dump-size constant; 32 KiB holds any datagram
// the kernel sends to a socket with a default receive buffer.
constexpr size_t kDatagramMax = 32 * 1024;

void logSkipped(const char *what, unsigned int type) noexcept {
    if (!KELLog_isEnabled(KEL_LOG_BIT_WARN, DDS_SUBMODULE_MASK_TRANSPORT)) return;
    KELLogMessageParamString_printWithParams(
        -1, KEL_LOG_BIT_WARN, VESK_TRANSPORT_LOG_MODULE_ID, __FILE__, __LINE__,
        "vesk::udp::netlink::parse", &KEL_LOG_TRANSPORT_STATUS_TEMPLATE,
        "netlink: skipped a malformed message of type %u: %s", type, what);
}

// The attributes of one message, by type; nullptr when absent.
template <int Max>
struct Attributes {
    const nlattr *at[Max + 1] = {};
    const char *end = nullptr;  // just past the last attribute read
};

template <int Max>
int collect(const nlattr *attribute, void *data) {
    auto &out = *static_cast<Attributes<Max> *>(data);
    out.end = reinterpret_cast<const char *>(attribute) + attribute->nla_len;
    const uint16_t type = mnl_attr_get_type(attribute);
    if (type > Max) return MNL_CB_OK;  // unknown: skipped
    out.at[type] = attribute;
    return MNL_CB_OK;
}

// libmnl stops quietly at an attribute that does not fit; more than
// padding left after the last one read means the message was cut.
template <int Max>
bool parseAttributes(const nlmsghdr *message, size_t header, Attributes<Max> &out) {
    out.end = static_cast<const char *>(mnl_nlmsg_get_payload_offset(message, header));
    if (mnl_attr_parse(message, static_cast<unsigned int>(header), collect<Max>, &out) !=
        MNL_CB_OK) {
        return false;
    }
    const char *tail = static_cast<const char *>(mnl_nlmsg_get_payload_tail(message));
    return tail - out.end < static_cast<long>(NLA_ALIGNTO);
}

const char *parseLink(const nlmsghdr *message, Event &event) {
    if (mnl_nlmsg_get_payload_len(message) < sizeof(ifinfomsg)) return "short link header";
    ifinfomsg header;
    std::memcpy(&header, mnl_nlmsg_get_payload(message), sizeof header);
    Attributes<IFLA_MAX> attributes;
    if (!parseAttributes(message, sizeof header, attributes)) return "bad attributes";
    if (header.ifi_index <= 0) return "no interface index";
    event.index = static_cast<unsigned int>(header.ifi_index);
    event.flags = header.ifi_flags;
    const nlattr *name = attributes.at[IFLA_IFNAME];
    if (name == nullptr || mnl_attr_validate(name, MNL_TYPE_NUL_STRING) < 0 ||
        mnl_attr_get_payload_len(name) > IFNAMSIZ) {
        return "interface name missing or not NUL-terminated";
    }
    event.name = mnl_attr_get_str(name);
    if (const nlattr *mtu = attributes.at[IFLA_MTU]) {
        if (mnl_attr_validate(mtu, MNL_TYPE_U32) < 0) return "bad MTU";
        event.mtu = mnl_attr_get_u32(mtu);
    }
    return nullptr;
}

const char *parseAddress(const nlmsghdr *message, Event &event, bool &tentative) {
    if (mnl_nlmsg_get_payload_len(message) < sizeof(ifaddrmsg)) return "short address header";
    ifaddrmsg header;
    std::memcpy(&header, mnl_nlmsg_get_payload(message), sizeof header);
    Attributes<IFA_MAX> attributes;
    if (!parseAttributes(message, sizeof header, attributes)) return "bad attributes";
    if (header.ifa_family != AF_INET && header.ifa_family != AF_INET6) return "unknown family";
    if (header.ifa_index == 0) return "no interface index";
    event.index = header.ifa_index;
    event.family = header.ifa_family;
    event.flags = header.ifa_flags;
    if (const nlattr *flags = attributes.at[IFA_FLAGS]) {
        if (mnl_attr_validate(flags, MNL_TYPE_U32) < 0) return "bad flags";
        event.flags = mnl_attr_get_u32(flags);
    }
    // IFA_LOCAL first: on point-to-point links IFA_ADDRESS is the peer.
    const nlattr *address =
        attributes.at[IFA_LOCAL] != nullptr ? attributes.at[IFA_LOCAL] : attributes.at[IFA_ADDRESS];
    const size_t size = header.ifa_family == AF_INET ? 4 : 16;
    if (address == nullptr || mnl_attr_get_payload_len(address) != size) {
        return "address missing or of the wrong size";
    }
    std::memcpy(event.address.network_ordered_value + (16 - size), mnl_attr_get_payload(address),
                size);
    tentative = (event.flags & IFA_F_TENTATIVE) != 0;
    return nullptr;
}

}  // namespace

ParseResult parse(const void *buffer, size_t length) {
    ParseResult result;
    if (buffer == nullptr || length == 0) return result;
    // Aligned copy: the headers are read in place.
    std::vector<std::uint64_t> aligned((std::min(length, kDatagramMax) + 7) / 8);
    length = std::min(length, kDatagramMax);
    std::memcpy(aligned.data(), buffer, length);
    const auto *message = reinterpret_cast<const nlmsghdr *>(aligned.data());
    int remaining = static_cast<int>(length);
    // mnl_nlmsg_ok compares the length as a signed int: a length above
    // INT_MAX would pass it, so the unsigned comparison comes first.
    auto fits = [&] {
        return remaining >= static_cast<int>(sizeof(nlmsghdr)) &&
               message->nlmsg_len <= static_cast<unsigned int>(remaining) &&
               mnl_nlmsg_ok(message, remaining);
    };
    for (; fits(); message = mnl_nlmsg_next(message, &remaining)) {
        if ((message->nlmsg_flags & NLM_F_DUMP_INTR) != 0) result.interrupted = true;
        const unsigned int type = message->nlmsg_type;
        if (type == NLMSG_DONE) {
            result.done = true;
            continue;
        }
        if (type == NLMSG_ERROR) {
            if (mnl_nlmsg_get_payload_len(message) < sizeof(nlmsgerr)) {
                ++result.skipped;
                logSkipped("short error message", type);
                continue;
            }
            nlmsgerr error;
            std::memcpy(&error, mnl_nlmsg_get_payload(message), sizeof error);
            // 0 acknowledges; the kernel sends -errno, never below -4095.
            if (error.error > 0 || error.error < -4095) {
                ++result.skipped;
                logSkipped("error code out of range", type);
            } else if (error.error != 0) {
                result.error = -error.error;
            }
            continue;
        }
        Event event;
        const char *malformed = nullptr;
        bool tentative = false;
        switch (type) {
            case RTM_NEWLINK:
            case RTM_DELLINK:
                event.kind = type == RTM_NEWLINK ? EventKind::linkNew : EventKind::linkDel;
                malformed = parseLink(message, event);
                break;
            case RTM_NEWADDR:
            case RTM_DELADDR:
                event.kind = type == RTM_NEWADDR ? EventKind::addressNew : EventKind::addressDel;
                malformed = parseAddress(message, event, tentative);
                break;
            default:
                continue;  // NLMSG_NOOP, routes, ...: not ours
        }
        if (malformed != nullptr) {
            ++result.skipped;
            logSkipped(malformed, type);
            continue;
        }
        // A tentative address cannot be bound yet; its later update brings it.
        if (tentative && event.kind == EventKind::addressNew) continue;
        result.events.push_back(std::move(event));
    }
    if (remaining >= static_cast<int>(sizeof(nlmsghdr))) {
        ++result.skipped;
        logSkipped("message longer than the datagram", 0);
    }
    return result;
}

Socket::~Socket() {
    close();
}

bool Socket::open() {
    close();
    socket_ = mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC);
    if (socket_ == nullptr) return false;
    const unsigned int groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR;
    if (mnl_socket_bind(socket_, groups, MNL_SOCKET_AUTOPID) < 0) {
        const int saved = errno;
        close();
        errno = saved;
        return false;
    }
    return true;
}

int Socket::fd() const {
    return socket_ != nullptr ? mnl_socket_get_fd(socket_) : -1;
}

bool Socket::requestDump(std::uint16_t type) {
    if (socket_ == nullptr) return false;
    alignas(nlmsghdr) char request[MNL_NLMSG_HDRLEN + MNL_ALIGN(sizeof(rtgenmsg))] = {};
    nlmsghdr *message = mnl_nlmsg_put_header(request);
    message->nlmsg_type = type;
    message->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    message->nlmsg_seq = ++sequence_;
    auto *family = static_cast<rtgenmsg *>(mnl_nlmsg_put_extra_header(message, sizeof(rtgenmsg)));
    family->rtgen_family = AF_UNSPEC;
    return mnl_socket_sendto(socket_, message, message->nlmsg_len) >= 0;
}

long Socket::receive(std::vector<std::uint64_t> &buffer) {
    if (socket_ == nullptr) {
        errno = EBADF;
        return -1;
    }
    buffer.resize(kDatagramMax / 8);
    const ssize_t got = recv(fd(), buffer.data(), kDatagramMax, MSG_DONTWAIT | MSG_TRUNC);
    if (got < 0) return errno == EAGAIN || errno == EWOULDBLOCK ? 0 : -1;
    if (static_cast<size_t>(got) > kDatagramMax) {
        errno = ENOBUFS;  // cut: treat as lost events
        return -1;
    }
    return static_cast<long>(got);
}

void Socket::close() {
    if (socket_ != nullptr) mnl_socket_close(socket_);
    socket_ = nullptr;
}

}  // namespace vesk::udp::netlink
