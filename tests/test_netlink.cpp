// The route netlink parser of the interface tracker: well-formed messages
// become events; truncated or malformed ones are skipped and logged.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <net/if.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "support/TestSupport.hpp"
#include "vesk_transport/platform/udp/Netlink.hpp"

namespace {

using vesk::udp::netlink::EventKind;

// One datagram of messages built with libmnl.
struct Datagram {
    alignas(nlmsghdr) char bytes[4096] = {};
    size_t used = 0;

    nlmsghdr *put(uint16_t type, uint16_t flags = 0) {
        nlmsghdr *m = mnl_nlmsg_put_header(bytes + used);
        m->nlmsg_type = type;
        m->nlmsg_flags = flags;
        return m;
    }
    void close(nlmsghdr *m) { used += m->nlmsg_len; }
    void link(uint16_t type, int index, const char *name, unsigned int flags, uint32_t mtu) {
        nlmsghdr *m = put(type);
        auto *h = static_cast<ifinfomsg *>(mnl_nlmsg_put_extra_header(m, sizeof(ifinfomsg)));
        h->ifi_index = index;
        h->ifi_flags = flags;
        if (name != nullptr) mnl_attr_put_strz(m, IFLA_IFNAME, name);
        if (mtu != 0) mnl_attr_put_u32(m, IFLA_MTU, mtu);
        close(m);
    }
    // local and peer as text; nullptr leaves the attribute out.
    void address(uint16_t type, int family, unsigned int index, const char *local, const char *peer,
                 uint32_t flags = 0) {
        nlmsghdr *m = put(type);
        auto *h = static_cast<ifaddrmsg *>(mnl_nlmsg_put_extra_header(m, sizeof(ifaddrmsg)));
        h->ifa_family = static_cast<unsigned char>(family);
        h->ifa_index = index;
        unsigned char raw[16];
        const size_t size = family == AF_INET ? 4 : 16;
        if (local != nullptr && inet_pton(family, local, raw) == 1) {
            mnl_attr_put(m, IFA_LOCAL, size, raw);
        }
        if (peer != nullptr && inet_pton(family, peer, raw) == 1) {
            mnl_attr_put(m, IFA_ADDRESS, size, raw);
        }
        if (flags != 0) mnl_attr_put_u32(m, IFA_FLAGS, flags);
        close(m);
    }
    vesk::udp::netlink::ParseResult parse() const { return vesk::udp::netlink::parse(bytes, used); }
};

std::string text(const vesk::udp::netlink::Event &e) {
    char address[INET6_ADDRSTRLEN] = {};
    const unsigned char *bytes = e.address.network_ordered_value;
    if (e.family == AF_INET) inet_ntop(AF_INET, bytes + 12, address, sizeof address);
    if (e.family == AF_INET6) inet_ntop(AF_INET6, bytes, address, sizeof address);
    static const char *const kinds[] = {"link+", "link-", "addr+", "addr-"};
    return std::string(kinds[static_cast<int>(e.kind)]) + " " + std::to_string(e.index) + " " +
           e.name + (e.family != 0 ? address : "") + " flags " + std::to_string(e.flags) + " mtu " +
           std::to_string(e.mtu);
}

TEST(NetlinkParser, MessagesBecomeEventsOrAreSkipped) {
    struct Row {
        const char *what;
        std::function<void(Datagram &)> build;
        std::vector<std::string> events;
        int skipped;
    };
    const unsigned int live = IFF_UP | IFF_RUNNING;
    // clang-format off
    const std::vector<Row> rows = {
        {"new link", [&](Datagram &d) { d.link(RTM_NEWLINK, 3, "veth0", live, 1500); },
         {"link+ 3 veth0 flags 65 mtu 1500"}, 0},
        {"deleted link, no MTU", [](Datagram &d) { d.link(RTM_DELLINK, 3, "veth0", 0, 0); },
         {"link- 3 veth0 flags 0 mtu 0"}, 0},
        {"IPv4: local wins over the peer", [](Datagram &d) {
             d.address(RTM_NEWADDR, AF_INET, 3, "192.0.2.1", "192.0.2.254"); },
         {"addr+ 3 192.0.2.1 flags 0 mtu 0"}, 0},
        {"IPv6 without local", [](Datagram &d) {
             d.address(RTM_DELADDR, AF_INET6, 4, nullptr, "2001:db8::1", IFA_F_NODAD); },
         {"addr- 4 2001:db8::1 flags 2 mtu 0"}, 0},
        {"tentative address left out", [](Datagram &d) {
             d.address(RTM_NEWADDR, AF_INET6, 4, nullptr, "2001:db8::1", IFA_F_TENTATIVE); }, {}, 0},
        {"other message types ignored", [](Datagram &d) { d.close(d.put(RTM_NEWROUTE)); }, {}, 0},
        {"link without name", [](Datagram &d) { d.link(RTM_NEWLINK, 3, nullptr, live, 0); }, {}, 1},
        {"link without index", [](Datagram &d) { d.link(RTM_NEWLINK, 0, "x", live, 0); }, {}, 1},
        {"address of an unknown family", [](Datagram &d) {
             d.address(RTM_NEWADDR, AF_PACKET, 3, nullptr, nullptr); }, {}, 1},
        {"address without address", [](Datagram &d) {
             d.address(RTM_NEWADDR, AF_INET, 3, nullptr, nullptr); }, {}, 1},
        {"address without index", [](Datagram &d) {
             d.address(RTM_NEWADDR, AF_INET, 0, "192.0.2.1", nullptr); }, {}, 1},
        {"IPv6 family with an IPv4-sized address", [](Datagram &d) {
             nlmsghdr *m = d.put(RTM_NEWADDR);
             auto *h = static_cast<ifaddrmsg *>(mnl_nlmsg_put_extra_header(m, sizeof(ifaddrmsg)));
             h->ifa_family = AF_INET6;
             h->ifa_index = 2;
             mnl_attr_put_u32(m, IFA_ADDRESS, 0x01020304);
             d.close(m); }, {}, 1},
        {"name not NUL-terminated", [](Datagram &d) {
             nlmsghdr *m = d.put(RTM_NEWLINK);
             auto *h = static_cast<ifinfomsg *>(mnl_nlmsg_put_extra_header(m, sizeof(ifinfomsg)));
             h->ifi_index = 2;
             mnl_attr_put(m, IFLA_IFNAME, 4, "eth0");
             d.close(m); }, {}, 1},
        {"MTU of two bytes", [](Datagram &d) {
             nlmsghdr *m = d.put(RTM_NEWLINK);
             auto *h = static_cast<ifinfomsg *>(mnl_nlmsg_put_extra_header(m, sizeof(ifinfomsg)));
             h->ifi_index = 2;
             mnl_attr_put_strz(m, IFLA_IFNAME, "eth0");
             mnl_attr_put_u16(m, IFLA_MTU, 1500);
             d.close(m); }, {}, 1},
        {"attribute longer than its message", [](Datagram &d) {
             d.link(RTM_NEWLINK, 2, "eth0", live, 1500);
             reinterpret_cast<nlmsghdr *>(d.bytes)->nlmsg_len -= 4; }, {}, 1},
        {"short header", [](Datagram &d) {
             nlmsghdr *m = d.put(RTM_NEWADDR);
             mnl_nlmsg_put_extra_header(m, 4);
             d.close(m); }, {}, 1},
        {"message longer than the datagram", [](Datagram &d) {
             d.link(RTM_NEWLINK, 2, "eth0", live, 1500);
             reinterpret_cast<nlmsghdr *>(d.bytes)->nlmsg_len += 64; }, {}, 1},
        {"good, bad, good", [&](Datagram &d) {
             d.link(RTM_NEWLINK, 2, "a", live, 0);
             d.link(RTM_NEWLINK, 3, nullptr, live, 0);
             d.address(RTM_NEWADDR, AF_INET, 2, "198.51.100.2", nullptr); },
         {"link+ 2 a flags 65 mtu 0", "addr+ 2 198.51.100.2 flags 0 mtu 0"}, 1},
    };
    // clang-format on
    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        vesk::test::LogCapture log(VESK_CONFIG_LOG_VERBOSITY_WARNING);
        Datagram d;
        row.build(d);
        const auto result = d.parse();
        std::vector<std::string> got;
        for (const auto &e : result.events) got.push_back(text(e));
        EXPECT_EQ(got, row.events);
        EXPECT_EQ(result.skipped, row.skipped);
        EXPECT_EQ(static_cast<int>(log.entries().size()), row.skipped);
    }
}

TEST(NetlinkParser, DumpEndInterruptionAndErrors) {
    Datagram d;
    d.link(RTM_NEWLINK, 1, "lo", IFF_UP, 65536);
    d.close(d.put(NLMSG_DONE, NLM_F_MULTI | NLM_F_DUMP_INTR));
    auto result = d.parse();
    EXPECT_TRUE(result.done);
    EXPECT_TRUE(result.interrupted);
    EXPECT_EQ(result.error, 0);

    Datagram e;
    nlmsghdr *m = e.put(NLMSG_ERROR);
    auto *error = static_cast<nlmsgerr *>(mnl_nlmsg_put_extra_header(m, sizeof(nlmsgerr)));
    error->error = -EBUSY;
    e.close(m);
    result = e.parse();
    EXPECT_EQ(result.error, EBUSY);
    EXPECT_FALSE(result.done);
    EXPECT_EQ(vesk::udp::netlink::parse(nullptr, 8).events.size(), 0u);
    EXPECT_EQ(vesk::udp::netlink::parse(e.bytes, 3).skipped, 0);  // too short to be a message
}

}  // namespace
