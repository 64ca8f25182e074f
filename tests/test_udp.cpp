// The UDP transport module without traffic: record copy, constructors and
// their refusals, plugin operations, interfaces, statistics and run-time
// control (traffic is in test_udp_traffic).

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "support/AllocationSweep.hpp"
#include "support/TestSupport.hpp"
#include "support/UdpTraffic.hpp"
#include "vesk_transport/platform/Udp.h"
#include "vesk_transport/platform/UdpWan.h"

namespace {

using vesk::test::LogCapture;
using vesk::test::receiveInterfaces;
using PluginPtr = vesk::test::PluginHandle;
using Record = VESK_Transport_UDP_Property_t;
using R = Record;

enum Kind { V4, WAN, V6 };

// Each class's factory, name and default record.
struct ClassRow {
    VESK_Transport_Plugin *(*create)(const Record *, VESK_Transport_Address_t *, void *);
    const char *name;
    const Record *defaults;
};
const ClassRow kClasses[] = {
    {VESK_Transport_UDPv4_newI, "UDPv4", &VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT},
    {VESK_Transport_UDPv4_WAN_newI, "UDPv4_WAN", &VESK_TRANSPORT_UDPV4_WAN_PROPERTY_DEFAULT},
    {VESK_Transport_UDPv6_newI, "UDPv6", &VESK_TRANSPORT_UDPV6_PROPERTY_DEFAULT}};

PluginPtr make(Kind kind, const Record &record) {
    return PluginPtr(kClasses[kind].create(&record, nullptr, nullptr));
}
PluginPtr make(Kind kind) {
    return make(kind, *kClasses[kind].defaults);
}

VESK_Transport_Address_t ipv4(unsigned char a, unsigned char b, unsigned char c, unsigned char d) {
    VESK_Transport_Address_t out{};
    const unsigned char bytes[4] = {a, b, c, d};
    std::memcpy(out.network_ordered_value + 12, bytes, 4);
    return out;
}

// The 16 address bytes as IPv6 text ("::192.0.2.1" for an IPv4 address).
std::string text(const VESK_Transport_Address_t &address) {
    char out[INET6_ADDRSTRLEN] = {};
    inet_ntop(AF_INET6, address.network_ordered_value, out, sizeof out);
    return out;
}

// A WAN record whose owned members point at the test's own storage.
struct WanSource {
    char lo[3] = "lo", eth[6] = "eth0*", address[16] = "203.0.113.5", prefix[6] = "wan01";
    char *allow[2] = {lo, eth};
    VESK_Transport_UDP_WAN_CommPortsMappingInfo ports[2] = {{7400, 7400, 17400, 1},
                                                            {7410, 7411, 17411, 0}};
    VESK_Transport_UDP_WAN_Listener listener{};
    Record record = *kClasses[WAN].defaults;
    WanSource() {
        record.parent.allow_interfaces_list = allow;
        record.parent.allow_interfaces_list_length = 2;
        record.parent.thread_name_prefix = prefix;
        record.public_address = address;
        record.comm_ports_list = ports;
        record.comm_ports_list_length = 2;
        record.wan_listener = &listener;
        VESK_Transport_UDP_WAN_register_listener(&listener);  // WAN plugins call only these
    }
    ~WanSource() { VESK_Transport_UDP_WAN_unregister_listener(&listener); }
};

// The owned members of a record, "-" where a pointer is NULL.
std::string owned(const Record &r) {
    std::string out = r.public_address != nullptr ? r.public_address : "-";
    out += " ports " + std::to_string(r.comm_ports_list_length) + ":";
    for (int i = 0; r.comm_ports_list != nullptr && i < r.comm_ports_list_length; ++i) {
        const auto &m = r.comm_ports_list[i];
        out += " " + std::to_string(m.rtps_port) + "/" + std::to_string(m.host_port) + "/" +
               std::to_string(m.public_port) + "/" + std::to_string(m.ref_count);
    }
    out += r.parent.allow_interfaces_list == nullptr ? " allow -" : " allow";
    for (int i = 0; r.parent.allow_interfaces_list && i < r.parent.allow_interfaces_list_length;)
        out += std::string(" ") + r.parent.allow_interfaces_list[i++];
    return out + " " + (r.parent.thread_name_prefix ? r.parent.thread_name_prefix : "-");
}
const char *const kOwned =
    "203.0.113.5 ports 2: 7400/7400/17400/1 7410/7411/17411/0 allow lo eth0* wan01";
const char *const kOwnsNothing = "- ports 0: allow - -";

// Each allocation of a deep copy fails in turn; the copy that succeeds owns
// its members, borrows the listener, and its finalize leaves nothing.
TEST(UdpPropertyCopy, EveryAllocationFailureLeavesNothing) {
    WanSource source;
    struct Outcome {
        int result;
        Record copy;
    };
    const auto summary = vesk::test::sweepAllocationFailures(
        [&] {
            Outcome o{0, {}};
            o.result = VESK_Transport_UDP_Property_copy(&o.copy, &source.record);
            return o;
        },
        [&](const vesk::test::SweepStep &step, Outcome &o) {
            EXPECT_EQ(o.result, step.failed ? 0 : 1);
            EXPECT_EQ(owned(o.copy), step.failed ? kOwnsNothing : kOwned);
            if (step.failed) return;
            EXPECT_STREQ(KELOsapiHeap_getBlockTypeName(o.copy.comm_ports_list),
                         "struct VESK_Transport_UDP_WAN_CommPortsMappingInfo");
            EXPECT_NE(o.copy.public_address, source.address);
            EXPECT_EQ(o.copy.wan_listener, &source.listener);
            VESK_Transport_UDP_Property_finalize(&o.copy);
            EXPECT_EQ(owned(o.copy), kOwnsNothing);
        },
        [](Outcome &o) { VESK_Transport_UDP_Property_finalize(&o.copy); });
    EXPECT_EQ(summary.failurePoints, 6);  // allow list (array + 2), prefix, address, ports
    VESK_Transport_UDP_Property_finalize(nullptr);
    Record copy{};
    source.record.comm_ports_list = nullptr;  // with a positive length: refused
    EXPECT_EQ(VESK_Transport_UDP_Property_copy(&copy, &source.record), 0);
    EXPECT_EQ(owned(copy), kOwnsNothing);
    EXPECT_EQ(VESK_Transport_UDP_Property_copy(nullptr, &source.record), 0);
    EXPECT_EQ(VESK_Transport_UDP_Property_copy(&copy, nullptr), 0);
}

// ---------------------------------------------------------------------
// Constructors

TEST(UdpConstructor, EachClassBuildsFromItsDefaultsAndKeepsItsOwnRecord) {
    for (const Kind kind : {V4, WAN, V6}) {
        SCOPED_TRACE(kClasses[kind].name);
        VESK_Transport_Address_t address;
        std::memset(&address, 0xAB, sizeof address);
        PluginPtr plugin(kClasses[kind].create(kClasses[kind].defaults, &address, nullptr));
        ASSERT_NE(plugin, nullptr);
        EXPECT_EQ(text(address), "::");
        EXPECT_STREQ(plugin->get_class_name_cEA(plugin.get()), kClasses[kind].name);
        EXPECT_EQ(VESK_Transport_UDP_isUdpPlugin(plugin.get()), 1);
        EXPECT_EQ(plugin->multicastInterfaceEnabled, kind == WAN ? 0 : 1);
        EXPECT_EQ(plugin->property->classid, kClasses[kind].defaults->parent.classid);
    }
    WanSource source;
    PluginPtr plugin = make(WAN, source.record);
    ASSERT_NE(plugin, nullptr);
    std::strcpy(source.address, "garbage");  // the caller may release its record at once
    source.ports[0].rtps_port = 1;
    std::strcpy(source.lo, "xx");
    // The plugin counts the users of each port mapping itself, from 0.
    EXPECT_EQ(owned(*reinterpret_cast<const Record *>(plugin->property)),
              "203.0.113.5 ports 2: 7400/7400/17400/0 7410/7411/17411/0 allow lo eth0* wan01");
}

using P = VESK_Transport_Property_t;

// One field of a UDP record or of its generic part, set to a value.
struct Set {
    Set(KEL_INT32 Record::*f, KEL_INT32 v) : field(f), value(v) {}
    Set(KEL_INT32 P::*f, KEL_INT32 v) : parent(f), value(v) {}
    void apply(Record &r) const { (field != nullptr ? r.*field : r.parent.*parent) = value; }
    KEL_INT32 Record::*field = nullptr;
    KEL_INT32 P::*parent = nullptr;
    KEL_INT32 value;
};

// Each rule refuses past its limit (with one logged error, the address out
// untouched) and accepts at it (nothing logged).
TEST(UdpConstructor, RefusesRecordsItCannotRunWithAndAcceptsTheLimits) {
    struct Row {
        Kind kind;
        std::vector<Set> sets;
        const char *refusal;  // after "<class> transport: ", or nullptr: accepted
        const char *prefix = nullptr;
    };
    const Row rows[] = {
        {V4, {{&P::classid, VESK_TRANSPORT_CLASSID_UDPv6}}, "parent.classid is not 1 (UDPv4)"},
        {WAN, {{&P::classid, 1}}, "parent.classid is not 0x01000001 (UDPv4_WAN)"},
        {V6, {{&P::classid, 1}}, "parent.classid is not 2 or 5 (UDPv6)"},
        {V6, {{&P::classid, VESK_TRANSPORT_CLASSID_UDPv6_510}}, nullptr},
        {V4, {{&P::message_size_max, 0}}, "parent.message_size_max is below 1"},
        {V4,
         {{&P::gather_send_buffer_count_max, 0}},
         "parent.gather_send_buffer_count_max is below 1"},
        {V4, {{&P::message_size_max, 1}, {&P::gather_send_buffer_count_max, 1}}, nullptr},
        {V4,
         {{&P::allow_interfaces_list_length, -1}},
         "parent.allow_interfaces_list_length is negative"},
        {V4,
         {{&P::deny_interfaces_list_length, 1}},
         "parent.deny_interfaces_list is NULL with a positive length"},
        {V6,
         {{&P::allow_multicast_interfaces_list_length, -3}},
         "parent.allow_multicast_interfaces_list_length is negative"},
        {V4,
         {{&P::deny_multicast_interfaces_list_length, 2}},
         "parent.deny_multicast_interfaces_list is NULL with a positive length"},
        {V4, {}, "parent.thread_name_prefix is longer than 8 characters", "nine_char"},
        {V4, {}, nullptr, "12345678"},
        {V4, {{&R::protocol_overhead_max, -1}}, "protocol_overhead_max is negative"},
        {V4,
         {{&P::message_size_max, 65508}},
         "parent.message_size_max + protocol_overhead_max exceeds 65535"},
        {V6,
         {{&R::protocol_overhead_max, 49}},
         "parent.message_size_max + protocol_overhead_max exceeds 65535"},
        {V4, {{&P::message_size_max, 65507}}, nullptr},
        {V4, {{&P::message_size_max, 65535}, {&R::protocol_overhead_max, 0}}, nullptr},
        {V4, {{&P::address_bit_count, -96}}, "parent.address_bit_count is outside 0..128"},
        {V6, {{&P::address_bit_count, 129}}, "parent.address_bit_count is outside 0..128"},
        {V4, {{&P::address_bit_count, 0}}, nullptr},
        {V4, {{&R::send_socket_buffer_size, -3}}, "send_socket_buffer_size is below -2"},
        {WAN, {{&R::recv_socket_buffer_size, -3}}, "recv_socket_buffer_size is below -2"},
        {V4, {{&R::send_socket_buffer_size, -2}, {&R::recv_socket_buffer_size, -2}}, nullptr},
        {V4, {{&R::multicast_ttl, 256}}, "multicast_ttl is outside 0..255"},
        {V4, {{&R::multicast_ttl, -1}}, "multicast_ttl is outside 0..255"},
        {V4, {{&R::multicast_ttl, 0}}, nullptr},
        {V4, {{&R::multicast_ttl, 255}}, nullptr},
        {V4,
         {{&R::transport_priority_mapping_low, 10}, {&R::transport_priority_mapping_high, 9}},
         "transport_priority_mapping_low is above transport_priority_mapping_high"},
        {V4,
         {{&R::transport_priority_mapping_low, 7}, {&R::transport_priority_mapping_high, 7}},
         nullptr},
        {WAN, {{&R::comm_ports_list_length, -1}}, "comm_ports_list_length is negative"},
        {WAN, {{&R::comm_ports_list_length, 1}}, "comm_ports_list is NULL with a positive length"},
        {WAN, {{&R::port_offset, -1}}, "port_offset is negative"},
        {WAN, {{&R::port_offset, 0}}, nullptr},
        {V4, {{&R::port_offset, -1}}, nullptr},  // checked for WAN only
    };
    char *noList = nullptr;
    for (const Row &row : rows) {
        const ClassRow &c = kClasses[row.kind];
        const std::string message =
            std::string(c.name) + " transport: " + (row.refusal ? row.refusal : "");
        SCOPED_TRACE(message + (row.prefix ? row.prefix : ""));
        Record record = *c.defaults;
        for (const Set &set : row.sets) set.apply(record);
        record.parent.thread_name_prefix = const_cast<char *>(row.prefix);
        // A list is there: a negative length alone is the fault.
        if (record.parent.allow_multicast_interfaces_list_length < 0) {
            record.parent.allow_multicast_interfaces_list = &noList;
        }
        LogCapture log;
        VESK_Transport_Address_t address = ipv4(1, 2, 3, 4);
        PluginPtr plugin(c.create(&record, &address, nullptr));
        EXPECT_EQ(plugin == nullptr, row.refusal != nullptr);
        if (row.refusal == nullptr) {
            EXPECT_TRUE(log.entries().empty());
            continue;
        }
        EXPECT_EQ(text(address), "::1.2.3.4");  // untouched on refusal
        const auto entries = log.entries();
        ASSERT_EQ(entries.size(), 1u);
        EXPECT_EQ(entries[0].level, static_cast<KEL_UINT32>(KEL_LOG_BIT_ERROR));
        EXPECT_EQ(entries[0].function, std::string("VESK_Transport_") + c.name + "_newI");
        EXPECT_EQ(log.summary()[0], "KEL_LOG_CREATION_FAILURE_s(" + message + ")");
    }
    LogCapture log;
    int reserved = 0;
    EXPECT_EQ(VESK_Transport_UDPv4_newI(nullptr, nullptr, nullptr), nullptr);
    EXPECT_EQ(VESK_Transport_UDPv4_newI(kClasses[V4].defaults, nullptr, &reserved), nullptr);
    EXPECT_EQ(log.summary(),
              (std::vector<std::string>{
                  "KEL_LOG_CREATION_FAILURE_s(UDPv4 transport: property_in is NULL)",
                  "KEL_LOG_CREATION_FAILURE_s(UDPv4 transport: reserved is not NULL)"}));
    LogCapture silent(VESK_CONFIG_LOG_VERBOSITY_SILENT);  // refusals stay quiet when asked
    EXPECT_EQ(VESK_Transport_UDPv4_newI(nullptr, nullptr, nullptr), nullptr);
    EXPECT_TRUE(silent.entries().empty());
}

// ---------------------------------------------------------------------
// Plugin operations

TEST(UdpPlugin, StringToAddress) {
    struct Row {
        Kind kind;
        int v4mapped;
        const char *text, *address;  // the address as IPv6 text, or nullptr: refused
    };
    const Row rows[] = {
        {V4, 0, "192.0.2.1", "::192.0.2.1"},
        {WAN, 0, "192.0.2.1", "::192.0.2.1"},
        {V4, 0, "fd00::2", nullptr},
        {V4, 0, "192.0.2.256", nullptr},
        {V4, 0, "192.0.2", nullptr},
        {V4, 0, "", nullptr},
        {V6, 0, "fd00::2", "fd00::2"},
        {V6, 0, "192.0.2.1", nullptr},
        {V6, 1, "192.0.2.1", "::ffff:192.0.2.1"},
        {V6, 0, "fd00::g", nullptr},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.text);
        Record record = *kClasses[row.kind].defaults;
        record.enable_v4mapped = row.v4mapped;
        PluginPtr plugin = make(row.kind, record);
        ASSERT_NE(plugin, nullptr);
        VESK_Transport_Address_t address;
        std::memset(&address, 0x77, sizeof address);
        EXPECT_EQ(plugin->string_to_address_cEA(plugin.get(), &address, row.text),
                  row.address != nullptr ? 1 : 0);
        if (row.address != nullptr) {
            EXPECT_EQ(text(address), row.address);
        }
    }
}

TEST(UdpPlugin, AddressAndPortOperations) {
    PluginPtr plugin = make(V4);
    ASSERT_NE(plugin, nullptr);
    VESK_Transport_Plugin *self = plugin.get();
    const VESK_Transport_Address_t a = ipv4(192, 0, 2, 1), b = ipv4(192, 0, 2, 2);
    VESK_Transport_Address_t peer{};
    EXPECT_EQ(self->are_addresses_equivalent(self, &a, &a), 1);
    EXPECT_EQ(self->are_addresses_equivalent(self, &a, &b), 0);
    EXPECT_EQ(self->are_addresses_equivalent(self, &a, nullptr), 0);
    EXPECT_EQ(self->get_equivalent_initial_peer_address(self, &peer, &b), 1);
    EXPECT_EQ(text(peer), "::192.0.2.2");
    const std::vector<VESK_Transport_Port_t> ports = {0, 1, 7400, 65535, 65536, 0xFFFFFFFFu};
    std::vector<int> valid;
    for (const VESK_Transport_Port_t port : ports)
        valid.push_back(self->is_valid_entry_port(self, port));
    EXPECT_EQ(valid, (std::vector<int>{0, 1, 1, 1, 0, 0}));
}

TEST(UdpPlugin, IsUdpPluginRecognisesOnlyItsOwn) {
    VESK_Transport_Property_t property{};
    property.classid = VESK_TRANSPORT_CLASSID_UDPv4;  // a foreign plugin of the UDPv4 class
    VESK_Transport_Plugin foreign{};
    foreign.property = &property;
    VESK_Transport_UDP_Statistics statistics{};
    const VESK_Transport_Address_t fake = ipv4(10, 0, 0, 1);
    const std::vector<int> results = {
        VESK_Transport_UDP_isUdpPlugin(&foreign),
        VESK_Transport_UDP_isUdpPlugin(nullptr),
        VESK_Transport_UDP_get_statistics(&foreign, &statistics),
        VESK_Transport_UDP_count_traffic(&foreign, VESK_TRANSPORT_UDP_TRAFFIC_USER_DATA,
                                         VESK_TRANSPORT_UDP_TRAFFIC_SENT, 1, 1),
        VESK_Transport_UDP_assert_fake_ip_address(&foreign, &fake),
        VESK_Transport_UDP_change_interface_status(&foreign, "lo", 0),
        VESK_Transport_UDP_get_interfaces(&foreign, nullptr, 0),
        VESK_Transport_UDP_change_binding_ping_generation(&foreign, 1),
    };
    EXPECT_EQ(results, std::vector<int>(results.size(), 0));
}

// ---------------------------------------------------------------------
// Interfaces (the selection rules are in test_interfaces)

// A UDPv4 plugin on the loopback interface alone ("lo", on every Linux host).
PluginPtr loopbackPlugin(int ignore_loopback = 0) {
    char lo[] = "lo";
    char *allow[] = {lo};
    Record record = *kClasses[V4].defaults;
    record.parent.allow_interfaces_list = allow;
    record.parent.allow_interfaces_list_length = 1;
    record.ignore_loopback_interface = ignore_loopback;
    return make(V4, record);
}

// "name address up forced | receive interfaces | fake address".
std::string interfaceState(VESK_Transport_Plugin *self) {
    VESK_Transport_UDP_InterfaceInfo info{};
    std::string out;
    if (VESK_Transport_UDP_get_interfaces(self, &info, 1) == 1) {
        out = std::string(info.name) + " " + text(info.address) + " " + std::to_string(info.is_up) +
              std::to_string(info.is_forced);
    }
    VESK_Transport_Address_t fake = ipv4(9, 9, 9, 9);
    const int faked = VESK_Transport_UDP_get_fake_ip_address(self, &fake);
    return out + " | " + receiveInterfaces(self) + "| " + std::to_string(faked) + " " + text(fake);
}

TEST(UdpInterfaces, LoopbackForcedStatusAndFakeAddress) {
    PluginPtr none = loopbackPlugin(1);  // ignoring loopback leaves nothing
    ASSERT_NE(none, nullptr);
    EXPECT_EQ(interfaceState(none.get()), " | | 0 ::9.9.9.9");
    PluginPtr plugin = loopbackPlugin();
    ASSERT_NE(plugin, nullptr);
    VESK_Transport_Plugin *self = plugin.get();
    int more = 0, reported = 0;
    VESK_Transport_Interface_t array[1]{};
    const std::vector<int> refused = {
        VESK_Transport_UDP_change_interface_status(self, "eth-none", 0),
        VESK_Transport_UDP_change_interface_status(self, nullptr, 0),
        VESK_Transport_UDP_assert_fake_ip_address(self, nullptr),
        self->get_receive_interfaces_cEA(self, nullptr, &reported, array, 1),
        self->get_receive_interfaces_cEA(self, &more, &reported, nullptr, 1),
    };
    EXPECT_EQ(refused, std::vector<int>(5, 0));
    EXPECT_EQ(receiveInterfaces(self, 0), "more");  // no room
    const VESK_Transport_Address_t fake = ipv4(198, 51, 100, 7);
    const std::pair<std::function<int()>, const char *> steps[] = {
        {[] { return 1; }, "lo ::127.0.0.1 10 | 127.0.0.1 up; | 0 ::9.9.9.9"},
        {[&] { return VESK_Transport_UDP_change_interface_status(self, "lo", 0); },
         "lo ::127.0.0.1 01 | 127.0.0.1 down; | 0 ::9.9.9.9"},
        {[&] { return VESK_Transport_UDP_change_interface_status(self, "lo", 2); },
         "lo ::127.0.0.1 11 | 127.0.0.1 up; | 0 ::9.9.9.9"},  // non-zero is up
        {[&] { return VESK_Transport_UDP_assert_fake_ip_address(self, &fake); },
         "lo ::127.0.0.1 11 | 198.51.100.7 up; | 1 ::198.51.100.7"},
        {[&] { return VESK_Transport_UDP_remove_fake_ip_address(self); },
         "lo ::127.0.0.1 11 | 127.0.0.1 up; | 0 ::9.9.9.9"},
        {[&] { return VESK_Transport_UDP_remove_fake_ip_address(self); },
         "lo ::127.0.0.1 11 | 127.0.0.1 up; | 0 ::9.9.9.9"},  // nothing left: still fine
    };
    for (const auto &[act, state] : steps) {
        EXPECT_EQ(act(), 1);
        EXPECT_EQ(interfaceState(self), state);
    }
}

// ---------------------------------------------------------------------
// Statistics

using S = VESK_Transport_UDP_Statistics;
using Field = KEL_UINT64 S::*;

// Counted twice (1 and 2 packets of as many bytes): the fields of each
// kind and direction hold 3, every other field 0.
TEST(UdpStatistics, EachKindCountsIntoItsFields) {
    const auto sent = VESK_TRANSPORT_UDP_TRAFFIC_SENT;
    const auto received = VESK_TRANSPORT_UDP_TRAFFIC_RECEIVED;
    const std::tuple<VESK_Transport_UDP_TrafficKind, VESK_Transport_UDP_TrafficDirection,
                     std::vector<Field>>
        rows[] = {
            {VESK_TRANSPORT_UDP_TRAFFIC_USER_DATA,
             sent,
             {&S::user_bytes_sent, &S::user_packets_sent}},
            {VESK_TRANSPORT_UDP_TRAFFIC_USER_DATA,
             received,
             {&S::user_bytes_received, &S::user_packets_received}},
            {VESK_TRANSPORT_UDP_TRAFFIC_DISCOVERY,
             sent,
             {&S::discovery_bytes_sent, &S::discovery_packets_sent}},
            {VESK_TRANSPORT_UDP_TRAFFIC_PARTICIPANT_DISCOVERY,
             received,
             {&S::participant_discovery_bytes_received,
              &S::participant_discovery_packets_received}},
            {VESK_TRANSPORT_UDP_TRAFFIC_PARTICIPANT_CONFIG,
             sent,
             {&S::participant_config_bytes_sent, &S::participant_config_packets_sent}},
            {VESK_TRANSPORT_UDP_TRAFFIC_AUTOMATIC_LIVELINESS,
             sent,
             {&S::automatic_liveliness_bytes_sent, &S::_liveliness_bytes_sent,
              &S::automatic_liveliness_packets_sent, &S::_liveliness_packets_sent}},
            {VESK_TRANSPORT_UDP_TRAFFIC_AUTOMATIC_LIVELINESS,
             received,
             {&S::automatic_liveliness_bytes_received, &S::_liveliness_bytes_received,
              &S::automatic_liveliness_packets_received, &S::_liveliness_packets_received}},
            {VESK_TRANSPORT_UDP_TRAFFIC_MANUAL_LIVELINESS,
             received,
             {&S::manual_liveliness_bytes_received, &S::manual_liveliness_packets_received}},
            {VESK_TRANSPORT_UDP_TRAFFIC_SECURE_LIVELINESS,
             sent,
             {&S::_liveliness_bytes_sent, &S::_liveliness_packets_sent}},
            {VESK_TRANSPORT_UDP_TRAFFIC_ENDPOINT_DISCOVERY,
             sent,
             {&S::endpoint_discovery_bytes_sent, &S::endpoint_discovery_packets_sent}},
            {VESK_TRANSPORT_UDP_TRAFFIC_OVERHEAD,
             received,
             {&S::overhead_bytes_received, &S::overhead_packets_received}},
            {VESK_TRANSPORT_UDP_TRAFFIC_BINDING_PING,
             sent,
             {&S::binding_ping_bytes_sent, &S::binding_ping_packets_sent}},
            {VESK_TRANSPORT_UDP_TRAFFIC_BINDING_PING,
             received,
             {&S::binding_ping_bytes_received, &S::binding_ping_packets_received}},
        };
    for (const auto &[kind, direction, fields] : rows) {
        SCOPED_TRACE(std::to_string(kind) + (direction == sent ? " sent" : " received"));
        PluginPtr plugin = make(WAN);
        ASSERT_NE(plugin, nullptr);
        for (const KEL_UINT64 count : {1, 2}) {
            EXPECT_EQ(VESK_Transport_UDP_count_traffic(plugin.get(), kind, direction, count, count),
                      1);
        }
        S expected{}, got;
        for (Field field : fields) expected.*field = 3;
        std::memset(&got, 0xEE, sizeof got);
        ASSERT_EQ(VESK_Transport_UDP_get_statistics(plugin.get(), &got), 1);
        EXPECT_EQ(std::memcmp(&got, &expected, sizeof got), 0);
    }
}

TEST(UdpStatistics, PrioritiesEventsAndBadArguments) {
    PluginPtr plugin = make(V4);
    ASSERT_NE(plugin, nullptr);
    VESK_Transport_Plugin *self = plugin.get();
    const auto user = VESK_TRANSPORT_UDP_TRAFFIC_USER_DATA;
    const auto sent = VESK_TRANSPORT_UDP_TRAFFIC_SENT;
    const std::vector<int> results = {
        VESK_Transport_UDP_count_traffic(self, user, sent, 1, 100),  // bytes and packets apart
        VESK_Transport_UDP_count_received_priority(self, 0),
        VESK_Transport_UDP_count_received_priority(self, 255),
        VESK_Transport_UDP_count_received_priority(self, 255),
        VESK_Transport_UDP_count_binding_ping_event(self),
        VESK_Transport_UDP_count_traffic(self, VESK_Transport_UDP_TrafficKind(10), sent, 1, 1),
        VESK_Transport_UDP_count_traffic(self, VESK_Transport_UDP_TrafficKind(-1), sent, 1, 1),
        VESK_Transport_UDP_count_traffic(self, user, VESK_Transport_UDP_TrafficDirection(2), 1, 1),
        VESK_Transport_UDP_count_traffic(nullptr, user, sent, 1, 1),
        VESK_Transport_UDP_count_received_priority(nullptr, 1),
        VESK_Transport_UDP_count_binding_ping_event(nullptr),
        VESK_Transport_UDP_get_statistics(self, nullptr),
    };
    EXPECT_EQ(results, (std::vector<int>{1, 1, 1, 1, 1, 0, 0, 0, 0, 0, 0, 0}));
    S expected{}, got;
    expected.user_bytes_sent = 100;
    expected.user_packets_sent = 1;
    expected.received_priority_count[0] = 1;
    expected.received_priority_count[255] = 2;
    expected.binding_ping_event_count = 1;
    ASSERT_EQ(VESK_Transport_UDP_get_statistics(self, &got), 1);
    EXPECT_EQ(std::memcmp(&got, &expected, sizeof got), 0);
    const S zero{};
    std::memset(&got, 0xFF, sizeof got);
    VESK_Transport_UDP_Statistics_initialize(&got);
    EXPECT_EQ(std::memcmp(&got, &zero, sizeof got), 0);
    VESK_Transport_UDP_Statistics_initialize(nullptr);
}

// ---------------------------------------------------------------------
// Binding pings

TEST(UdpBindingPing, OnlyWanPluginsGenerateThem) {
    PluginPtr wan = make(WAN);
    ASSERT_NE(wan, nullptr);
    std::vector<int> enabled = {VESK_Transport_UDP_is_binding_ping_generation_enabled(wan.get())};
    for (const DDS_Boolean value : {DDS_BOOLEAN_FALSE, DDS_Boolean(7)}) {
        EXPECT_EQ(VESK_Transport_UDP_change_binding_ping_generation(wan.get(), value), 1);
        enabled.push_back(VESK_Transport_UDP_is_binding_ping_generation_enabled(wan.get()));
    }
    EXPECT_EQ(enabled, (std::vector<int>{1, 0, 1}));
    for (const Kind kind : {WAN, V4, V6}) {
        Record record = *kClasses[kind].defaults;
        record.binding_ping_period = kind == WAN ? 0 : 1000;
        PluginPtr plugin = make(kind, record);
        ASSERT_NE(plugin, nullptr);
        EXPECT_EQ(VESK_Transport_UDP_is_binding_ping_generation_enabled(plugin.get()), 0);
        if (kind == WAN) continue;  // silent WAN; the others refuse to start
        EXPECT_EQ(VESK_Transport_UDP_change_binding_ping_generation(plugin.get(), 1), 0);
        EXPECT_EQ(VESK_Transport_UDP_is_binding_ping_generation_enabled(plugin.get()), 0);
    }
    EXPECT_EQ(VESK_Transport_UDP_is_binding_ping_generation_enabled(nullptr), 0);
}

}  // namespace
