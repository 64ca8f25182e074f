// Interface selection of the UDP transports: every rule and entry form on a
// fixed host, the reasons for what is left out, multicast selection and the
// status log.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>

#include <string>
#include <vector>

#include "support/TestSupport.hpp"
#include "vesk_transport/platform/udp/Interfaces.hpp"

namespace {

using vesk::udp::Exclusion;
using vesk::udp::InterfaceCandidate;

InterfaceCandidate address(const char *name, unsigned int index, const char *text,
                           unsigned int flags) {
    InterfaceCandidate c;
    c.name = name;
    c.index = index;
    c.mtu = 1500;
    c.flags = flags;
    c.family = std::string(text).find(':') != std::string::npos ? AF_INET6 : AF_INET;
    inet_pton(c.family, text, c.address.network_ordered_value + (c.family == AF_INET ? 12 : 0));
    return c;
}

constexpr unsigned int kLive = IFF_UP | IFF_RUNNING | IFF_MULTICAST;

// Listed out of index order on purpose: the selection orders them.
const std::vector<InterfaceCandidate> kHost = {
    address("veth1", 3, "198.51.100.1", kLive),
    address("veth0", 2, "2001:db8::1", kLive),
    address("veth0", 2, "192.0.2.1", kLive),
    address("lo", 1, "127.0.0.1", IFF_UP | IFF_RUNNING | IFF_LOOPBACK),
    address("veth0", 2, "192.0.2.9", kLive),
    address("dock0", 4, "10.1.0.1", IFF_UP | IFF_MULTICAST),  // not running
    address("wlan0", 5, "203.0.113.1", IFF_MULTICAST),        // down
    address("tun0", 6, "10.200.0.1", IFF_UP | IFF_RUNNING),   // no multicast
    address("veth1", 3, "fe80::1", kLive),
};

VESK_Transport_UDP_Property_t record() {
    VESK_Transport_UDP_Property_t p{};
    p.parent.max_interface_count = -1;
    p.ignore_loopback_interface = -1;
    p.ignore_nonup_interfaces = 1;
    p.ignore_nonrunning_interfaces = 1;
    return p;
}

std::string describe(const vesk::udp::Selection &s) {
    std::string out;
    for (const auto &c : s.selected) out += c.name + " " + vesk::udp::addressText(c) + "; ";
    for (const auto &e : s.excluded) {
        out += "-" + e.candidate.name + " " + vesk::udp::addressText(e.candidate) + " (" +
               vesk::udp::exclusionText(e.reason) + "); ";
    }
    return out;
}

struct ListHolder {
    std::vector<std::string> texts;
    std::vector<char *> pointers;
    void set(char **&list, KEL_INT32 &length, std::vector<std::string> entries) {
        texts = std::move(entries);
        pointers.clear();
        for (auto &t : texts) pointers.push_back(t.data());
        list = pointers.data();
        length = static_cast<KEL_INT32>(pointers.size());
    }
};

TEST(InterfaceSelection, EveryRuleWithItsReason) {
    struct Row {
        const char *what;
        std::vector<std::string> allow, deny;
        int loopback, max, nonup, nonrunning;
        bool ipv6;
        const char *expected;
    };
    // clang-format off
    const std::vector<Row> rows = {
        {"defaults, in index order", {}, {}, -1, -1, 1, 1, false,
         "veth0 192.0.2.1; veth0 192.0.2.9; veth1 198.51.100.1; tun0 10.200.0.1; "
         "-lo 127.0.0.1 (loopback ignored); -dock0 10.1.0.1 (not running); -wlan0 203.0.113.1 (not up); "},
        {"allow by name and pattern, deny wins", {"veth?", "tun0"}, {"veth1"}, 0, -1, 1, 1, false,
         "veth0 192.0.2.1; veth0 192.0.2.9; tun0 10.200.0.1; -lo 127.0.0.1 (not in the allow list); "
         "-veth1 198.51.100.1 (in the deny list); -dock0 10.1.0.1 (not in the allow list); "
         "-wlan0 203.0.113.1 (not in the allow list); "},
        {"allow by CIDR, deny by address, non-up kept", {"192.0.2.0/24", "10.0.0.0/8", "wlan0"}, {"192.0.2.9"}, 1, -1, 0, 0, false,
         "veth0 192.0.2.1; dock0 10.1.0.1; wlan0 203.0.113.1; tun0 10.200.0.1; -lo 127.0.0.1 (not in the allow list); "
         "-veth0 192.0.2.9 (in the deny list); -veth1 198.51.100.1 (not in the allow list); "},
        {"max counts interfaces", {}, {"tun*"}, 1, 1, 1, 1, false,
         "veth0 192.0.2.1; veth0 192.0.2.9; -lo 127.0.0.1 (loopback ignored); "
         "-veth1 198.51.100.1 (over max_interface_count); -dock0 10.1.0.1 (not running); "
         "-wlan0 203.0.113.1 (not up); -tun0 10.200.0.1 (in the deny list); "},
        {"IPv6 range by CIDR", {"fe80::/10"}, {}, -1, -1, 1, 1, true,
         "veth1 fe80::1; -veth0 2001:db8::1 (not in the allow list); "},
        {"IPv6 address deny", {}, {"2001:db8::1"}, -1, -1, 1, 1, true,
         "veth1 fe80::1; -veth0 2001:db8::1 (in the deny list); "},
    };
    // clang-format on
    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        VESK_Transport_UDP_Property_t p = record();
        ListHolder allow, deny;
        allow.set(p.parent.allow_interfaces_list, p.parent.allow_interfaces_list_length, row.allow);
        deny.set(p.parent.deny_interfaces_list, p.parent.deny_interfaces_list_length, row.deny);
        p.ignore_loopback_interface = row.loopback;
        p.parent.max_interface_count = row.max;
        p.ignore_nonup_interfaces = row.nonup;
        p.ignore_nonrunning_interfaces = row.nonrunning;
        EXPECT_EQ(describe(vesk::udp::selectInterfacesWithReasons(kHost, p, row.ipv6)),
                  row.expected);
    }
}

TEST(InterfaceSelection, EntryForms) {
    const InterfaceCandidate v4 = address("eth0", 1, "10.1.2.3", kLive);
    const InterfaceCandidate v6 = address("eth0", 1, "fe80::1", kLive);
    struct Row {
        const char *entry;
        bool v4, v6;
    };
    // clang-format off
    const std::vector<Row> rows = {
        {"eth0", true, true}, {"eth?", true, true}, {"e*0", true, true}, {"eth", false, false},
        {"ETH0", false, false}, {"10.1.2.3", true, false}, {"10.1.*", true, false},
        {"10.0.0.0/8", true, false}, {"10.1.2.3/32", true, false}, {"10.1.2.4/32", false, false},
        {"0.0.0.0/0", true, false}, {"fe80::/10", false, true}, {"fe80::1/128", false, true},
        {"*", true, true}, {"10.1.2.3*", true, false}, {"eth0 ", false, false}, {"fec0::/10", false, false}, {"10.0.0.0/33", false, false}, {"fe80::/129", false, false}, {"10.0.0.0/", false, false},
        {"10.0.0.0/x", false, false}, {"nothing/8", false, false}, {"", false, false},
    };
    // clang-format on
    for (const Row &row : rows) {
        SCOPED_TRACE(row.entry);
        EXPECT_EQ(vesk::udp::matchesInterfaceEntry(row.entry, v4), row.v4);
        EXPECT_EQ(vesk::udp::matchesInterfaceEntry(row.entry, v6), row.v6);
    }
    EXPECT_FALSE(vesk::udp::matchesInterfaceEntry(nullptr, v4));
}

TEST(InterfaceSelection, MulticastHasItsOwnLists) {
    VESK_Transport_UDP_Property_t p = record();
    ListHolder unicastDeny, allow, deny;
    unicastDeny.set(p.parent.deny_interfaces_list, p.parent.deny_interfaces_list_length, {"veth0"});
    EXPECT_EQ(
        describe(vesk::udp::selectMulticastInterfaces(kHost, p, false)),
        "veth0 192.0.2.1; veth0 192.0.2.9; veth1 198.51.100.1; "
        "-lo 127.0.0.1 (loopback ignored); -dock0 10.1.0.1 (not running); "
        "-wlan0 203.0.113.1 (not up); -tun0 10.200.0.1 (no multicast (IFF_MULTICAST not set)); ");
    allow.set(p.parent.allow_multicast_interfaces_list,
              p.parent.allow_multicast_interfaces_list_length, {"veth*", "tun0"});
    deny.set(p.parent.deny_multicast_interfaces_list,
             p.parent.deny_multicast_interfaces_list_length, {"198.51.100.0/24"});
    EXPECT_EQ(describe(vesk::udp::selectMulticastInterfaces(kHost, p, false)),
              "veth0 192.0.2.1; veth0 192.0.2.9; "
              "-lo 127.0.0.1 (not in the multicast allow list); "
              "-veth1 198.51.100.1 (in the multicast deny list); "
              "-dock0 10.1.0.1 (not in the multicast allow list); "
              "-wlan0 203.0.113.1 (not in the multicast allow list); "
              "-tun0 10.200.0.1 (no multicast (IFF_MULTICAST not set)); ");
}

TEST(InterfaceSelection, MappedAddressesAndLog) {
    VESK_Transport_UDP_Property_t p = record();
    p.enable_v4mapped = 1;
    ListHolder allow;
    allow.set(p.parent.allow_interfaces_list, p.parent.allow_interfaces_list_length, {"veth0"});
    const auto selection = vesk::udp::selectInterfacesWithReasons(kHost, p, true);
    ASSERT_EQ(selection.selected.size(), 3u);
    EXPECT_EQ(vesk::udp::addressText(selection.selected[0]), "192.0.2.1");
    EXPECT_EQ(selection.selected[0].address.network_ordered_value[10], 0xff);
    EXPECT_EQ(selection.selected[2].family, AF_INET6);

    vesk::test::LogCapture log(VESK_CONFIG_LOG_VERBOSITY_STATUS_LOCAL);
    vesk::udp::Selection small;
    small.selected = {kHost[0]};
    small.excluded = {{kHost[3], Exclusion::loopback}};
    vesk::udp::logSelection(small, "unicast", "fn", "UDPv4");
    const auto entries = log.entries();
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0].level, static_cast<KEL_UINT32>(KEL_LOG_BIT_LOCAL));
    EXPECT_EQ(entries[0].function, "fn");
    EXPECT_EQ(log.summary(),
              (std::vector<std::string>{
                  "KEL_LOG_TRANSPORT_STATUS_TEMPLATE(UDPv4 unicast uses veth1 198.51.100.1 "
                  "(index 3, MTU 1500))",
                  "KEL_LOG_TRANSPORT_STATUS_TEMPLATE(UDPv4 unicast leaves out lo 127.0.0.1: "
                  "loopback ignored)"}));
    vesk::test::LogCapture quiet(VESK_CONFIG_LOG_VERBOSITY_WARNING);
    vesk::udp::logSelection(small, "unicast", "fn", "UDPv4");
    EXPECT_TRUE(quiet.entries().empty());
}

TEST(InterfaceSelection, HostDescriptionHasLoopbackWithIndexAndMtu) {
    VESK_Transport_UDP_Property_t p = record();
    p.ignore_loopback_interface = 0;
    ListHolder allow;
    allow.set(p.parent.allow_interfaces_list, p.parent.allow_interfaces_list_length, {"lo"});
    vesk::udp::Selection unicast, multicast;
    ASSERT_TRUE(vesk::udp::describeHostSelection(p, false, unicast, multicast));
    ASSERT_EQ(unicast.selected.size(), 1u);
    EXPECT_EQ(unicast.selected[0].index, if_nametoindex("lo"));
    EXPECT_GT(unicast.selected[0].mtu, 0u);
    for (const InterfaceCandidate &c : multicast.selected) EXPECT_NE(c.flags & IFF_MULTICAST, 0u);
}

}  // namespace
