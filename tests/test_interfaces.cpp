// Interface selection of the UDP transports: every rule and entry form on a
// fixed host, the reasons for what is left out, multicast selection and the
// status log.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>

#include <sstream>
#include <string>
#include <vector>

#include "support/TestSupport.hpp"
#include "vesk_transport/platform/udp/Interfaces.hpp"

namespace {

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

// A record from words: "allow=a,b deny=c mallow=d mdeny=e loopback=0 max=1
// nonup=0 nonrunning=0 mapped"; the lists stay in the record's storage.
struct Settings {
    VESK_Transport_UDP_Property_t record{};
    std::vector<std::string> texts[4];
    std::vector<char *> pointers[4];

    explicit Settings(const std::string &words) {
        record.parent.max_interface_count = -1;
        record.ignore_loopback_interface = -1;
        record.ignore_nonup_interfaces = record.ignore_nonrunning_interfaces = 1;
        std::istringstream in(words);
        const char *const lists[] = {"allow", "deny", "mallow", "mdeny"};
        for (std::string word; in >> word;) {
            const size_t equals = word.find('=');
            const std::string key = word.substr(0, equals);
            const std::string value = equals == std::string::npos ? "" : word.substr(equals + 1);
            for (int i = 0; i < 4; ++i) {
                if (key != lists[i]) continue;
                std::istringstream entries(value);
                for (std::string entry; std::getline(entries, entry, ',');)
                    texts[i].push_back(entry);
                for (std::string &text : texts[i]) pointers[i].push_back(text.data());
            }
            if (key == "loopback") record.ignore_loopback_interface = std::stoi(value);
            if (key == "max") record.parent.max_interface_count = std::stoi(value);
            if (key == "nonup") record.ignore_nonup_interfaces = std::stoi(value);
            if (key == "nonrunning") record.ignore_nonrunning_interfaces = std::stoi(value);
            if (key == "mapped") record.enable_v4mapped = 1;
        }
        VESK_Transport_Property_t &p = record.parent;
        p.allow_interfaces_list = pointers[0].data();
        p.allow_interfaces_list_length = static_cast<KEL_INT32>(pointers[0].size());
        p.deny_interfaces_list = pointers[1].data();
        p.deny_interfaces_list_length = static_cast<KEL_INT32>(pointers[1].size());
        p.allow_multicast_interfaces_list = pointers[2].data();
        p.allow_multicast_interfaces_list_length = static_cast<KEL_INT32>(pointers[2].size());
        p.deny_multicast_interfaces_list = pointers[3].data();
        p.deny_multicast_interfaces_list_length = static_cast<KEL_INT32>(pointers[3].size());
    }
};

// "name address; " per selected address ("mapped" for an IPv4 address
// mapped into IPv6), then "-name address (reason); " per one left out.
std::string describe(const vesk::udp::Selection &s) {
    std::string out;
    for (const auto &c : s.selected) {
        const bool mapped = c.family == AF_INET && c.address.network_ordered_value[10] == 0xff;
        out += c.name + " " + vesk::udp::addressText(c) + (mapped ? " mapped; " : "; ");
    }
    for (const auto &e : s.excluded) {
        out += "-" + e.candidate.name + " " + vesk::udp::addressText(e.candidate) + " (" +
               vesk::udp::exclusionText(e.reason) + "); ";
    }
    return out;
}

TEST(InterfaceSelection, EveryRuleWithItsReason) {
    enum Kind { unicast, ipv6, multicast };
    struct Row {
        Kind kind;
        const char *settings, *expected;
    };
    const Row rows[] = {
        {unicast, "",  // defaults, in index order
         "veth0 192.0.2.1; veth0 192.0.2.9; veth1 198.51.100.1; tun0 10.200.0.1; -lo 127.0.0.1 "
         "(loopback ignored); -dock0 10.1.0.1 (not running); -wlan0 203.0.113.1 (not up); "},
        {unicast, "allow=veth?,tun0 deny=veth1 loopback=0",  // deny wins
         "veth0 192.0.2.1; veth0 192.0.2.9; tun0 10.200.0.1; -lo 127.0.0.1 (not in the allow "
         "list); -veth1 198.51.100.1 (in the deny list); -dock0 10.1.0.1 (not in the allow list); "
         "-wlan0 203.0.113.1 (not in the allow list); "},
        {unicast,
         "allow=192.0.2.0/24,10.0.0.0/8,wlan0 deny=192.0.2.9 loopback=1 nonup=0 nonrunning=0",
         "veth0 192.0.2.1; dock0 10.1.0.1; wlan0 203.0.113.1; tun0 10.200.0.1; -lo 127.0.0.1 (not "
         "in the allow list); -veth0 192.0.2.9 (in the deny list); -veth1 198.51.100.1 (not in "
         "the allow list); "},
        {unicast, "deny=tun* loopback=1 max=1",  // max counts interfaces
         "veth0 192.0.2.1; veth0 192.0.2.9; -lo 127.0.0.1 (loopback ignored); -veth1 198.51.100.1 "
         "(over max_interface_count); -dock0 10.1.0.1 (not running); -wlan0 203.0.113.1 (not up); "
         "-tun0 10.200.0.1 (in the deny list); "},
        {ipv6, "allow=fe80::/10", "veth1 fe80::1; -veth0 2001:db8::1 (not in the allow list); "},
        {ipv6, "deny=2001:db8::1", "veth1 fe80::1; -veth0 2001:db8::1 (in the deny list); "},
        {ipv6, "allow=veth0 mapped",
         "veth0 192.0.2.1 mapped; veth0 192.0.2.9 mapped; veth0 2001:db8::1; -lo 127.0.0.1 (not in "
         "the allow list); -veth1 198.51.100.1 (not in the allow list); -veth1 fe80::1 (not in the "
         "allow list); -dock0 10.1.0.1 (not in the allow list); -wlan0 203.0.113.1 (not in the "
         "allow list); -tun0 10.200.0.1 (not in the allow list); "},
        {multicast, "deny=veth0",  // the unicast lists do not apply
         "veth0 192.0.2.1; veth0 192.0.2.9; veth1 198.51.100.1; -lo 127.0.0.1 (loopback ignored); "
         "-dock0 10.1.0.1 (not running); -wlan0 203.0.113.1 (not up); -tun0 10.200.0.1 (no "
         "multicast (IFF_MULTICAST not set)); "},
        {multicast, "mallow=veth*,tun0 mdeny=198.51.100.0/24",
         "veth0 192.0.2.1; veth0 192.0.2.9; -lo 127.0.0.1 (not in the multicast allow list); "
         "-veth1 198.51.100.1 (in the multicast deny list); -dock0 10.1.0.1 (not in the multicast "
         "allow list); -wlan0 203.0.113.1 (not in the multicast allow list); -tun0 10.200.0.1 (no "
         "multicast (IFF_MULTICAST not set)); "},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.settings);
        const Settings s(row.settings);
        EXPECT_EQ(describe(row.kind == multicast
                               ? vesk::udp::selectMulticastInterfaces(kHost, s.record, false)
                               : vesk::udp::selectInterfacesWithReasons(kHost, s.record,
                                                                        row.kind == ipv6)),
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
    const Row rows[] = {
        {"eth0", true, true},          {"eth?", true, true},        {"e*0", true, true},
        {"eth", false, false},         {"ETH0", false, false},      {"10.1.2.3", true, false},
        {"10.1.*", true, false},       {"10.0.0.0/8", true, false}, {"10.1.2.3/32", true, false},
        {"10.1.2.4/32", false, false}, {"0.0.0.0/0", true, false},  {"fe80::/10", false, true},
        {"fe80::1/128", false, true},  {"*", true, true},           {"10.1.2.3*", true, false},
        {"eth0 ", false, false},       {"fec0::/10", false, false}, {"10.0.0.0/33", false, false},
        {"fe80::/129", false, false},  {"10.0.0.0/", false, false}, {"10.0.0.0/x", false, false},
        {"nothing/8", false, false},   {"", false, false},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.entry);
        EXPECT_EQ(vesk::udp::matchesInterfaceEntry(row.entry, v4), row.v4);
        EXPECT_EQ(vesk::udp::matchesInterfaceEntry(row.entry, v6), row.v6);
    }
    EXPECT_FALSE(vesk::udp::matchesInterfaceEntry(nullptr, v4));
    EXPECT_FALSE(vesk::udp::matchesInterfaceEntry(nullptr, "eth0", "10.1.2.3"));
}

TEST(InterfaceSelection, StatusLog) {
    vesk::test::LogCapture log(VESK_CONFIG_LOG_VERBOSITY_STATUS_LOCAL);
    vesk::udp::Selection small;
    small.selected = {kHost[0]};
    small.excluded = {{kHost[3], vesk::udp::Exclusion::loopback}};
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
    const Settings s("allow=lo loopback=0");
    vesk::udp::Selection unicast, multicast;
    ASSERT_TRUE(vesk::udp::describeHostSelection(s.record, false, unicast, multicast));
    ASSERT_EQ(unicast.selected.size(), 1u);
    EXPECT_EQ(unicast.selected[0].index, if_nametoindex("lo"));
    EXPECT_GT(unicast.selected[0].mtu, 0u);
    for (const InterfaceCandidate &c : multicast.selected) EXPECT_NE(c.flags & IFF_MULTICAST, 0u);
}

}  // namespace
