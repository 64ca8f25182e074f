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

// An attribute: its type and raw payload.
struct Attr {
    uint16_t type;
    std::string payload;
};
Attr name(const char *text) {
    return {IFLA_IFNAME, std::string(text, std::strlen(text) + 1)};
}
Attr u32(uint16_t type, uint32_t value) {
    return {type, std::string(reinterpret_cast<const char *>(&value), 4)};
}
// An address attribute from its text (IPv4 when it has no ':').
Attr ip(uint16_t type, const char *text) {
    const int family = std::strchr(text, ':') != nullptr ? AF_INET6 : AF_INET;
    unsigned char raw[16];
    inet_pton(family, text, raw);
    return {type, std::string(reinterpret_cast<const char *>(raw), family == AF_INET ? 4 : 16)};
}

// One datagram of messages built with libmnl.
struct D {
    alignas(nlmsghdr) char bytes[4096] = {};
    size_t used = 0;

    nlmsghdr *put(uint16_t type, const void *header, size_t size, std::vector<Attr> attrs = {},
                  uint16_t flags = 0) {
        nlmsghdr *m = mnl_nlmsg_put_header(bytes + used);
        m->nlmsg_type = type;
        m->nlmsg_flags = flags;
        std::memcpy(mnl_nlmsg_put_extra_header(m, size), header, size);
        for (const Attr &a : attrs) mnl_attr_put(m, a.type, a.payload.size(), a.payload.data());
        used += m->nlmsg_len;
        return m;
    }
    nlmsghdr *link(uint16_t type, int index, unsigned int flags, std::vector<Attr> attrs) {
        ifinfomsg h{};
        h.ifi_index = index;
        h.ifi_flags = flags;
        return put(type, &h, sizeof h, attrs);
    }
    void address(uint16_t type, int family, unsigned int index, std::vector<Attr> attrs) {
        ifaddrmsg h{};
        h.ifa_family = static_cast<unsigned char>(family);
        h.ifa_index = index;
        put(type, &h, sizeof h, attrs);
    }
    void error(int code) {
        nlmsgerr e{};
        e.error = code;
        put(NLMSG_ERROR, &e, sizeof e);
    }
};

// The events and the end, error and skip marks of a parse.
std::string describe(const vesk::udp::netlink::ParseResult &result) {
    std::vector<std::string> out;
    for (const auto &e : result.events) {
        char address[INET6_ADDRSTRLEN] = {};
        const unsigned char *bytes = e.address.network_ordered_value;
        if (e.family != 0) {
            inet_ntop(e.family, e.family == AF_INET ? bytes + 12 : bytes, address, sizeof address);
        }
        static const char *const kinds[] = {"link+", "link-", "addr+", "addr-"};
        out.push_back(std::string(kinds[static_cast<int>(e.kind)]) + " " + std::to_string(e.index) +
                      " " + e.name + address + " flags " + std::to_string(e.flags) + " mtu " +
                      std::to_string(e.mtu));
    }
    if (result.done) out.push_back("done");
    if (result.interrupted) out.push_back("interrupted");
    if (result.error != 0) out.push_back("error " + std::to_string(result.error));
    if (result.skipped != 0) out.push_back("skipped " + std::to_string(result.skipped));
    std::string text;
    for (const std::string &part : out) text += (text.empty() ? "" : "; ") + part;
    return text;
}

// Each datagram: its events, end and error marks, skips, and the reasons logged.
TEST(NetlinkParser, MessagesBecomeEventsOrAreSkipped) {
    const unsigned int live = IFF_UP | IFF_RUNNING;
    const std::vector<std::pair<std::function<void(D &)>, std::string>> rows = {
        {[&](D &d) {
             d.link(RTM_NEWLINK, 3, live, {name("veth0"), u32(IFLA_MTU, 1500)});
         },
         "link+ 3 veth0 flags 65 mtu 1500"},
        {[](D &d) { d.link(RTM_DELLINK, 3, 0, {name("veth0")}); }, "link- 3 veth0 flags 0 mtu 0"},
        // IPv4: the local address wins over the peer.
        {[](D &d) {
             d.address(RTM_NEWADDR, AF_INET, 3,
                       {ip(IFA_LOCAL, "192.0.2.1"), ip(IFA_ADDRESS, "192.0.2.254")});
         },
         "addr+ 3 192.0.2.1 flags 0 mtu 0"},
        {[](D &d) {
             d.address(RTM_DELADDR, AF_INET6, 4,
                       {ip(IFA_ADDRESS, "2001:db8::1"), u32(IFA_FLAGS, IFA_F_NODAD)});
         },
         "addr- 4 2001:db8::1 flags 2 mtu 0"},
        // Tentative addresses and other message types are left out.
        {[](D &d) {
             d.address(RTM_NEWADDR, AF_INET6, 4,
                       {ip(IFA_ADDRESS, "2001:db8::1"), u32(IFA_FLAGS, IFA_F_TENTATIVE)});
         },
         ""},
        {[](D &d) { d.put(RTM_NEWROUTE, "", 0); }, ""},
        {[](D &d) { d.link(RTM_NEWLINK, 3, live, {}); },
         "skipped 1 | interface name missing or not NUL-terminated"},
        {[](D &d) {
             d.link(RTM_NEWLINK, 2, 0, {{IFLA_IFNAME, "eth0"}});
         },
         "skipped 1 | interface name missing or not NUL-terminated"},
        {[](D &d) { d.link(RTM_NEWLINK, 0, live, {name("x")}); }, "skipped 1 | no interface index"},
        {[](D &d) {
             d.link(RTM_NEWLINK, 2, 0, {name("eth0"), {IFLA_MTU, "ab"}});
         },
         "skipped 1 | bad MTU"},
        {[](D &d) { d.address(RTM_NEWADDR, AF_PACKET, 3, {}); }, "skipped 1 | unknown family"},
        {[](D &d) { d.address(RTM_NEWADDR, AF_INET, 3, {}); },
         "skipped 1 | address missing or of the wrong size"},
        {[](D &d) { d.address(RTM_NEWADDR, AF_INET6, 2, {ip(IFA_ADDRESS, "192.0.2.1")}); },
         "skipped 1 | address missing or of the wrong size"},
        {[](D &d) { d.address(RTM_NEWADDR, AF_INET, 0, {ip(IFA_LOCAL, "192.0.2.1")}); },
         "skipped 1 | no interface index"},
        {[](D &d) {
             d.link(RTM_NEWLINK, 2, live, {name("eth0"), u32(IFLA_MTU, 1500)})->nlmsg_len -= 4;
         },
         "skipped 1 | bad attributes"},
        {[](D &d) { d.put(RTM_NEWADDR, "abc", 4); }, "skipped 1 | short address header"},
        {[](D &d) {
             d.address(RTM_NEWADDR, AF_INET, 2, {ip(IFA_LOCAL, "192.0.2.1"), {IFA_FLAGS, "ab"}});
         },
         "skipped 1 | bad flags"},
        {[](D &d) { d.put(NLMSG_ERROR, "abc", 4); }, "skipped 1 | short error message"},
        {[](D &d) { d.link(RTM_NEWLINK, 2, live, {name("eth0")})->nlmsg_len += 64; },
         "skipped 1 | message longer than the datagram"},
        {[&](D &d) {
             d.link(RTM_NEWLINK, 2, live, {name("a")});
             d.link(RTM_NEWLINK, 3, live, {});
             d.address(RTM_NEWADDR, AF_INET, 2, {ip(IFA_LOCAL, "198.51.100.2")});
         },
         "link+ 2 a flags 65 mtu 0; addr+ 2 198.51.100.2 flags 0 mtu 0; skipped 1 | interface name "
         "missing or not NUL-terminated"},
        {[&](D &d) {
             d.link(RTM_NEWLINK, 1, IFF_UP, {name("lo")});
             d.put(NLMSG_DONE, "", 0, {}, NLM_F_MULTI | NLM_F_DUMP_INTR);
         },
         "link+ 1 lo flags 1 mtu 0; done; interrupted"},
        // An error: the kernel sends 0 or -errno.
        {[](D &d) { d.error(-EBUSY); }, "error 16"},
        {[](D &d) { d.error(5); }, "skipped 1 | error code out of range"},
        {[](D &d) { d.error(-5000); }, "skipped 1 | error code out of range"},
    };
    for (const auto &[build, expected] : rows) {
        SCOPED_TRACE(expected);
        vesk::test::LogCapture log(VESK_CONFIG_LOG_VERBOSITY_WARNING);
        D d;
        build(d);
        std::string got = describe(vesk::udp::netlink::parse(d.bytes, d.used));
        for (const auto &entry : log.entries())
            got += " | " + entry.text.substr(entry.text.rfind(": ") + 2);
        EXPECT_EQ(got, expected);
    }
    EXPECT_TRUE(vesk::udp::netlink::parse(nullptr, 8).events.empty());
    EXPECT_EQ(describe(vesk::udp::netlink::parse("abc", 3)), "");  // too short for a message
}

}  // namespace
