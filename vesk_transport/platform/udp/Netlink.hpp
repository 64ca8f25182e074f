// Route netlink for the interface tracker: a parser of raw RTM_NEWLINK,
// RTM_DELLINK, RTM_NEWADDR and RTM_DELADDR messages into events (it trusts
// nothing: every length is checked, a malformed message is skipped and
// logged), and a small socket that subscribes to the link and address
// groups and asks for dumps. Built on libmnl.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "vesk_transport/platform/Transport.h"

struct mnl_socket;

namespace vesk::udp::netlink {

enum class EventKind { linkNew, linkDel, addressNew, addressDel };

struct Event {
    EventKind kind = EventKind::linkNew;
    unsigned int index = 0;              // interface index
    std::string name;                    // links only (IFLA_IFNAME)
    unsigned int flags = 0;              // links: IFF_*; addresses: IFA_F_*
    unsigned int mtu = 0;                // links only; 0 when absent
    int family = 0;                      // addresses only: AF_INET or AF_INET6
    VESK_Transport_Address_t address{};  // addresses only; IPv4 in the last four bytes
};

struct ParseResult {
    std::vector<Event> events;
    int skipped = 0;           // malformed messages skipped (each logged)
    bool done = false;         // NLMSG_DONE seen: the end of a dump
    bool interrupted = false;  // NLM_F_DUMP_INTR: the dump must be asked again
    int error = 0;             // errno of an NLMSG_ERROR that is not an acknowledgement
};

// Parses one datagram read from a route netlink socket (any bytes: a
// fuzz target feeds it). Tentative addresses are left out of addressNew.
ParseResult parse(const void *buffer, size_t length);

// A route netlink socket subscribed to links and IPv4/IPv6 addresses.
class Socket {
public:
    Socket() = default;
    ~Socket();
    Socket(const Socket &) = delete;
    Socket &operator=(const Socket &) = delete;

    // False (errno set) when route netlink cannot be used here.
    bool open();
    int fd() const;
    // Asks for every link (RTM_GETLINK) or every address (RTM_GETADDR).
    bool requestDump(std::uint16_t type);
    // Reads one datagram without waiting. Returns its length, 0 when there
    // is nothing to read, -1 on error (errno; ENOBUFS means events were lost).
    long receive(std::vector<std::uint64_t> &buffer);
    void close();

private:
    ::mnl_socket *socket_ = nullptr;
    unsigned int sequence_ = 0;
};

}  // namespace vesk::udp::netlink
