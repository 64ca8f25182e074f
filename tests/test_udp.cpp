// The UDP transport module: record copy, constructors and their refusals,
// plugin operations, interfaces, statistics and run-time control.
// Allocation failures of the constructors are swept in
// test_allocation_sweep, concurrent statistics in test_concurrency, real
// traffic in test_udp_traffic.

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "support/TestSupport.hpp"
#include "support/UdpTraffic.hpp"
#include "vesk_transport/Support.h"
#include "vesk_transport/platform/Heap.h"
#include "vesk_transport/platform/Udp.h"
#include "vesk_transport/platform/UdpWan.h"

namespace {

using vesk::test::liveHeapBlocks;
using vesk::test::LogCapture;
using vesk::test::receiveInterfaces;

enum class Kind { V4, WAN, V6 };

using Constructor = VESK_Transport_Plugin *(*)(const VESK_Transport_UDP_Property_t *,
                                               VESK_Transport_Address_t *, void *);

// Each class's factory, the reporting function of its messages, and the
// default record the factories start from.
struct ClassRow {
    Constructor create;
    const char *function;
    const VESK_Transport_UDP_Property_t *defaults;
};

const ClassRow &classOf(Kind kind) {
    static const ClassRow rows[] = {{VESK_Transport_UDPv4_newI, "VESK_Transport_UDPv4_newI",
                                     &VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT},
                                    {VESK_Transport_UDPv4_WAN_newI, "VESK_Transport_UDPv4_WAN_newI",
                                     &VESK_TRANSPORT_UDPV4_WAN_PROPERTY_DEFAULT},
                                    {VESK_Transport_UDPv6_newI, "VESK_Transport_UDPv6_newI",
                                     &VESK_TRANSPORT_UDPV6_PROPERTY_DEFAULT}};
    return rows[static_cast<int>(kind)];
}

VESK_Transport_UDP_Property_t defaults(Kind kind) {
    return *classOf(kind).defaults;
}

using PluginPtr = vesk::test::PluginHandle;

PluginPtr make(Kind kind, const VESK_Transport_UDP_Property_t &property) {
    return PluginPtr(classOf(kind).create(&property, nullptr, nullptr));
}

// The UDP record a plugin keeps (its property member heads it).
const VESK_Transport_UDP_Property_t &udpRecord(const VESK_Transport_Plugin *plugin) {
    return *reinterpret_cast<const VESK_Transport_UDP_Property_t *>(plugin->property);
}

VESK_Transport_Address_t ipv4(unsigned char a, unsigned char b, unsigned char c, unsigned char d) {
    VESK_Transport_Address_t out{};
    out.network_ordered_value[12] = a;
    out.network_ordered_value[13] = b;
    out.network_ordered_value[14] = c;
    out.network_ordered_value[15] = d;
    return out;
}

bool sameAddress(const VESK_Transport_Address_t &a, const VESK_Transport_Address_t &b) {
    return std::memcmp(a.network_ordered_value, b.network_ordered_value, 16) == 0;
}

// A UDP record that owns nothing but points at test-owned members.
struct WanSource {
    char lo[3] = "lo";
    char eth[6] = "eth0*";
    char address[16] = "203.0.113.5";
    char prefix[6] = "wan01";
    char *allow[2] = {lo, eth};
    VESK_Transport_UDP_WAN_CommPortsMappingInfo ports[2] = {{7400, 7400, 17400, 1},
                                                            {7410, 7411, 17411, 0}};
    VESK_Transport_UDP_WAN_Listener listener{};
    VESK_Transport_UDP_Property_t record = defaults(Kind::WAN);
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

// ---------------------------------------------------------------------
// Record copy

// A finalized or refused copy points at nothing.
bool ownsNothing(const VESK_Transport_UDP_Property_t &copy) {
    return copy.public_address == nullptr && copy.comm_ports_list == nullptr &&
           copy.comm_ports_list_length == 0 && copy.parent.allow_interfaces_list == nullptr &&
           copy.parent.thread_name_prefix == nullptr;
}

TEST(UdpPropertyCopy, DeepCopiesTheOwnedMembers) {
    WanSource source;
    const KEL_UINT64 before = liveHeapBlocks();
    VESK_Transport_UDP_Property_t copy{};
    ASSERT_EQ(VESK_Transport_UDP_Property_copy(&copy, &source.record), 1);
    // allow list (array + 2), prefix, public address, port list.
    EXPECT_EQ(liveHeapBlocks(), before + 6);
    EXPECT_STREQ(copy.public_address, "203.0.113.5");
    EXPECT_NE(copy.public_address, source.address);
    ASSERT_NE(copy.comm_ports_list, nullptr);
    EXPECT_NE(copy.comm_ports_list, source.ports);
    EXPECT_STREQ(KELOsapiHeap_getBlockTypeName(copy.comm_ports_list),
                 "struct VESK_Transport_UDP_WAN_CommPortsMappingInfo");
    EXPECT_EQ(copy.comm_ports_list_length, 2);
    EXPECT_EQ(copy.comm_ports_list[1].rtps_port, 7410u);
    EXPECT_EQ(copy.comm_ports_list[1].host_port, 7411);
    EXPECT_EQ(copy.comm_ports_list[1].public_port, 17411);
    EXPECT_EQ(copy.comm_ports_list[0].ref_count, 1);
    EXPECT_EQ(copy.wan_listener, &source.listener);  // borrowed, not copied
    EXPECT_STREQ(copy.parent.allow_interfaces_list[1], "eth0*");
    EXPECT_STREQ(copy.parent.thread_name_prefix, "wan01");

    VESK_Transport_UDP_Property_finalize(&copy);
    EXPECT_TRUE(ownsNothing(copy));
    EXPECT_EQ(liveHeapBlocks(), before);
    VESK_Transport_UDP_Property_finalize(nullptr);
}

TEST(UdpPropertyCopy, RefusesAPortListThatIsNotThere) {
    WanSource source;
    source.record.comm_ports_list = nullptr;
    const KEL_UINT64 before = liveHeapBlocks();
    VESK_Transport_UDP_Property_t copy{};
    EXPECT_EQ(VESK_Transport_UDP_Property_copy(&copy, &source.record), 0);
    EXPECT_EQ(liveHeapBlocks(), before);
    EXPECT_TRUE(ownsNothing(copy));
    EXPECT_EQ(VESK_Transport_UDP_Property_copy(nullptr, &source.record), 0);
    EXPECT_EQ(VESK_Transport_UDP_Property_copy(&copy, nullptr), 0);
}

TEST(UdpPropertyCopy, EveryAllocationFailureLeavesNothing) {
    WanSource source;
    int failures = 0;
    for (long n = 1; n < 100; ++n) {
        SCOPED_TRACE("failing allocation " + std::to_string(n));
        const KEL_UINT64 before = liveHeapBlocks();
        VESK_Transport_UDP_Property_t copy{};
        KELOsapiHeap_failAllocationAfter(n);
        const int result = VESK_Transport_UDP_Property_copy(&copy, &source.record);
        const bool pending = KELOsapiHeap_isFailurePending() != 0;
        KELOsapiHeap_failAllocationAfter(0);
        if (result == 1) {
            EXPECT_TRUE(pending);
            VESK_Transport_UDP_Property_finalize(&copy);
            break;
        }
        ++failures;
        EXPECT_EQ(liveHeapBlocks(), before);
        EXPECT_TRUE(ownsNothing(copy));
    }
    EXPECT_EQ(failures, 6);
}

// ---------------------------------------------------------------------
// Constructors

TEST(UdpConstructor, EachClassBuildsFromItsDefaults) {
    struct Row {
        Kind kind;
        const char *name;
        int multicast;
    };
    const std::vector<Row> rows = {
        {Kind::V4, "UDPv4", 1}, {Kind::WAN, "UDPv4_WAN", 0}, {Kind::V6, "UDPv6", 1}};
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        const VESK_Transport_UDP_Property_t property = defaults(row.kind);
        VESK_Transport_Address_t address;
        std::memset(&address, 0xAB, sizeof address);
        PluginPtr plugin(classOf(row.kind).create(&property, &address, nullptr));
        ASSERT_NE(plugin, nullptr);
        EXPECT_TRUE(sameAddress(address, VESK_Transport_Address_t{}));
        EXPECT_STREQ(plugin->get_class_name_cEA(plugin.get()), row.name);
        EXPECT_EQ(VESK_Transport_UDP_isUdpPlugin(plugin.get()), 1);
        EXPECT_EQ(plugin->multicastInterfaceEnabled, row.multicast);
        EXPECT_EQ(plugin->property->classid, property.parent.classid);
    }
}

TEST(UdpConstructor, KeepsItsOwnCopyOfTheRecord) {
    WanSource source;
    PluginPtr plugin = make(Kind::WAN, source.record);
    ASSERT_NE(plugin, nullptr);
    const VESK_Transport_UDP_Property_t &kept = udpRecord(plugin.get());
    // The caller may release its record right away.
    std::strcpy(source.address, "garbage");
    source.ports[0].rtps_port = 1;
    std::strcpy(source.lo, "xx");
    EXPECT_STREQ(kept.public_address, "203.0.113.5");
    EXPECT_EQ(kept.comm_ports_list[0].rtps_port, 7400u);
    EXPECT_STREQ(kept.parent.allow_interfaces_list[0], "lo");
    EXPECT_STREQ(kept.parent.thread_name_prefix, "wan01");
}

TEST(UdpConstructor, RefusesRecordsItCannotRunWith) {
    using Change = std::function<void(VESK_Transport_UDP_Property_t &)>;
    struct Row {
        Kind kind;
        Change change;
        const char *message;
    };
    char *noList = nullptr;
    char longPrefix[] = "nine_char";
    // clang-format off
    const std::vector<Row> rows = {
        {Kind::V4, [](auto &p) { p.parent.classid = VESK_TRANSPORT_CLASSID_UDPv6; }, "UDPv4 transport: parent.classid is not 1 (UDPv4)"},
        {Kind::WAN, [](auto &p) { p.parent.classid = VESK_TRANSPORT_CLASSID_UDPv4; }, "UDPv4_WAN transport: parent.classid is not 0x01000001 (UDPv4_WAN)"},
        {Kind::V6, [](auto &p) { p.parent.classid = VESK_TRANSPORT_CLASSID_UDPv4; }, "UDPv6 transport: parent.classid is not 2 or 5 (UDPv6)"},
        {Kind::V4, [](auto &p) { p.parent.message_size_max = 0; }, "UDPv4 transport: parent.message_size_max is below 1"},
        {Kind::V4, [](auto &p) { p.parent.gather_send_buffer_count_max = 0; }, "UDPv4 transport: parent.gather_send_buffer_count_max is below 1"},
        {Kind::V4, [](auto &p) { p.parent.allow_interfaces_list_length = -1; }, "UDPv4 transport: parent.allow_interfaces_list_length is negative"},
        {Kind::V4, [](auto &p) { p.parent.deny_interfaces_list_length = 1; }, "UDPv4 transport: parent.deny_interfaces_list is NULL with a positive length"},
        {Kind::V6, [&](auto &p) { p.parent.allow_multicast_interfaces_list = &noList; p.parent.allow_multicast_interfaces_list_length = -3; }, "UDPv6 transport: parent.allow_multicast_interfaces_list_length is negative"},
        {Kind::V4, [](auto &p) { p.parent.deny_multicast_interfaces_list_length = 2; }, "UDPv4 transport: parent.deny_multicast_interfaces_list is NULL with a positive length"},
        {Kind::V4, [&](auto &p) { p.parent.thread_name_prefix = longPrefix; }, "UDPv4 transport: parent.thread_name_prefix is longer than 8 characters"},
        {Kind::V4, [](auto &p) { p.protocol_overhead_max = -1; }, "UDPv4 transport: protocol_overhead_max is negative"},
        {Kind::V4, [](auto &p) { p.parent.message_size_max = 65508; }, "UDPv4 transport: parent.message_size_max + protocol_overhead_max exceeds 65535"},
        {Kind::V6, [](auto &p) { p.protocol_overhead_max = 49; }, "UDPv6 transport: parent.message_size_max + protocol_overhead_max exceeds 65535"},
        {Kind::V4, [](auto &p) { p.parent.address_bit_count = -96; }, "UDPv4 transport: parent.address_bit_count is outside 0..128"},
        {Kind::V6, [](auto &p) { p.parent.address_bit_count = 129; }, "UDPv6 transport: parent.address_bit_count is outside 0..128"},
        {Kind::V4, [](auto &p) { p.send_socket_buffer_size = -3; }, "UDPv4 transport: send_socket_buffer_size is below -2"},
        {Kind::WAN, [](auto &p) { p.recv_socket_buffer_size = -3; }, "UDPv4_WAN transport: recv_socket_buffer_size is below -2"},
        {Kind::V4, [](auto &p) { p.multicast_ttl = 256; }, "UDPv4 transport: multicast_ttl is outside 0..255"},
        {Kind::V4, [](auto &p) { p.multicast_ttl = -1; }, "UDPv4 transport: multicast_ttl is outside 0..255"},
        {Kind::V4, [](auto &p) { p.transport_priority_mapping_low = 10; p.transport_priority_mapping_high = 9; }, "UDPv4 transport: transport_priority_mapping_low is above transport_priority_mapping_high"},
        {Kind::WAN, [](auto &p) { p.comm_ports_list_length = -1; }, "UDPv4_WAN transport: comm_ports_list_length is negative"},
        {Kind::WAN, [](auto &p) { p.comm_ports_list_length = 1; }, "UDPv4_WAN transport: comm_ports_list is NULL with a positive length"},
        {Kind::WAN, [](auto &p) { p.port_offset = -1; }, "UDPv4_WAN transport: port_offset is negative"},
    };
    // clang-format on
    for (size_t i = 0; i < rows.size(); ++i) {
        const Row &row = rows[i];
        SCOPED_TRACE("row " + std::to_string(i) + ": " + row.message);
        VESK_Transport_UDP_Property_t property = defaults(row.kind);
        row.change(property);
        LogCapture log;
        const KEL_UINT64 before = liveHeapBlocks();
        VESK_Transport_Address_t address = ipv4(1, 2, 3, 4);
        EXPECT_EQ(classOf(row.kind).create(&property, &address, nullptr), nullptr);
        EXPECT_EQ(liveHeapBlocks(), before);
        EXPECT_TRUE(sameAddress(address, ipv4(1, 2, 3, 4)));  // untouched on refusal
        const auto entries = log.entries();
        ASSERT_EQ(entries.size(), 1u);
        EXPECT_EQ(entries[0].template_name, "KEL_LOG_CREATION_FAILURE_s");
        EXPECT_EQ(entries[0].level, static_cast<KEL_UINT32>(KEL_LOG_BIT_ERROR));
        EXPECT_EQ(entries[0].function, classOf(row.kind).function);
        ASSERT_EQ(entries[0].params.size(), 1u);
        EXPECT_EQ(entries[0].params[0], row.message);
    }
}

TEST(UdpConstructor, RefusesNullRecordAndReserved) {
    VESK_Transport_UDP_Property_t property = defaults(Kind::V4);
    int reserved = 0;
    {
        LogCapture log;
        EXPECT_EQ(VESK_Transport_UDPv4_newI(nullptr, nullptr, nullptr), nullptr);
        EXPECT_EQ(VESK_Transport_UDPv4_newI(&property, nullptr, &reserved), nullptr);
        EXPECT_EQ(log.summary(),
                  (std::vector<std::string>{
                      "KEL_LOG_CREATION_FAILURE_s(UDPv4 transport: property_in is NULL)",
                      "KEL_LOG_CREATION_FAILURE_s(UDPv4 transport: reserved is not NULL)"}));
    }
    LogCapture silent(VESK_CONFIG_LOG_VERBOSITY_SILENT);  // refusals stay quiet when asked
    property.multicast_ttl = 300;
    EXPECT_EQ(VESK_Transport_UDPv4_newI(&property, nullptr, nullptr), nullptr);
    EXPECT_TRUE(silent.entries().empty());
}

TEST(UdpConstructor, AcceptsTheLimitsOfEachRule) {
    using Change = std::function<void(VESK_Transport_UDP_Property_t &)>;
    struct Row {
        Kind kind;
        const char *what;
        Change change;
    };
    char eightChars[] = "12345678";
    // clang-format off
    const std::vector<Row> rows = {
        {Kind::V4, "largest UDPv4 message", [](auto &p) { p.parent.message_size_max = 65507; }},
        {Kind::V4, "no overhead", [](auto &p) { p.protocol_overhead_max = 0; p.parent.message_size_max = 65535; }},
        {Kind::V4, "one-byte messages, one buffer", [](auto &p) { p.parent.message_size_max = p.parent.gather_send_buffer_count_max = 1; }},
        {Kind::V4, "OS maximum buffers", [](auto &p) { p.send_socket_buffer_size = p.recv_socket_buffer_size = -2; }},
        {Kind::V4, "ttl 0", [](auto &p) { p.multicast_ttl = 0; }},
        {Kind::V4, "ttl 255", [](auto &p) { p.multicast_ttl = 255; }},
        {Kind::V4, "0 address bits", [](auto &p) { p.parent.address_bit_count = 0; }},
        {Kind::V4, "one priority", [](auto &p) { p.transport_priority_mapping_low = p.transport_priority_mapping_high = 7; }},
        {Kind::V4, "8-character prefix", [&](auto &p) { p.parent.thread_name_prefix = eightChars; }},
        {Kind::V6, "second UDPv6 class id", [](auto &p) { p.parent.classid = VESK_TRANSPORT_CLASSID_UDPv6_510; }},
        {Kind::WAN, "port offset 0", [](auto &p) { p.port_offset = 0; }},
        {Kind::V4, "negative port offset outside WAN", [](auto &p) { p.port_offset = -1; }},
    };
    // clang-format on
    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        VESK_Transport_UDP_Property_t property = defaults(row.kind);
        row.change(property);
        LogCapture log;
        PluginPtr plugin = make(row.kind, property);
        EXPECT_NE(plugin, nullptr);
        EXPECT_TRUE(log.entries().empty());
    }
}

// ---------------------------------------------------------------------
// Plugin operations

TEST(UdpPlugin, StringToAddress) {
    struct Row {
        Kind kind;
        int v4mapped;
        const char *text;
        int ok;
        std::vector<unsigned char> bytes;  // the 16 bytes when ok
    };
    const std::vector<unsigned char> v4 = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 192, 0, 2, 1};
    const std::vector<unsigned char> mapped = {0, 0, 0,    0,    0,   0, 0, 0,
                                               0, 0, 0xff, 0xff, 192, 0, 2, 1};
    const std::vector<unsigned char> v6 = {0xfd, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2};
    const std::vector<Row> rows = {
        {Kind::V4, 0, "192.0.2.1", 1, v4},     {Kind::WAN, 0, "192.0.2.1", 1, v4},
        {Kind::V4, 0, "fd00::2", 0, {}},       {Kind::V4, 0, "192.0.2.256", 0, {}},
        {Kind::V4, 0, "192.0.2", 0, {}},       {Kind::V4, 0, "", 0, {}},
        {Kind::V6, 0, "fd00::2", 1, v6},       {Kind::V6, 0, "192.0.2.1", 0, {}},
        {Kind::V6, 1, "192.0.2.1", 1, mapped}, {Kind::V6, 0, "fd00::g", 0, {}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.text);
        VESK_Transport_UDP_Property_t property = defaults(row.kind);
        property.enable_v4mapped = row.v4mapped;
        PluginPtr plugin = make(row.kind, property);
        ASSERT_NE(plugin, nullptr);
        VESK_Transport_Address_t address;
        std::memset(&address, 0x77, sizeof address);
        EXPECT_EQ(plugin->string_to_address_cEA(plugin.get(), &address, row.text), row.ok);
        if (row.ok) {
            EXPECT_EQ(std::vector<unsigned char>(address.network_ordered_value,
                                                 address.network_ordered_value + 16),
                      row.bytes);
        }
    }
}

TEST(UdpPlugin, AddressAndPortOperations) {
    PluginPtr plugin = make(Kind::V4, defaults(Kind::V4));
    ASSERT_NE(plugin, nullptr);
    VESK_Transport_Plugin *self = plugin.get();
    const VESK_Transport_Address_t a = ipv4(192, 0, 2, 1);
    const VESK_Transport_Address_t b = ipv4(192, 0, 2, 2);
    EXPECT_EQ(self->are_addresses_equivalent(self, &a, &a), 1);
    EXPECT_EQ(self->are_addresses_equivalent(self, &a, &b), 0);
    EXPECT_EQ(self->are_addresses_equivalent(self, &a, nullptr), 0);
    VESK_Transport_Address_t peer{};
    EXPECT_EQ(self->get_equivalent_initial_peer_address(self, &peer, &b), 1);
    EXPECT_TRUE(sameAddress(peer, b));

    struct PortRow {
        VESK_Transport_Port_t port;
        int valid;
    };
    for (const PortRow &row : std::vector<PortRow>{
             {0, 0}, {1, 1}, {7400, 1}, {65535, 1}, {65536, 0}, {0xFFFFFFFFu, 0}}) {
        SCOPED_TRACE(row.port);
        EXPECT_EQ(self->is_valid_entry_port(self, row.port), row.valid);
    }
}

TEST(UdpPlugin, IsUdpPluginRecognisesOnlyItsOwn) {
    VESK_Transport_Property_t property{};
    property.classid = VESK_TRANSPORT_CLASSID_UDPv4;  // a foreign plugin of the UDPv4 class
    VESK_Transport_Plugin foreign{};
    foreign.property = &property;
    EXPECT_EQ(VESK_Transport_UDP_isUdpPlugin(&foreign), 0);
    EXPECT_EQ(VESK_Transport_UDP_isUdpPlugin(nullptr), 0);
    VESK_Transport_UDP_Statistics statistics{};
    EXPECT_EQ(VESK_Transport_UDP_get_statistics(&foreign, &statistics), 0);
    EXPECT_EQ(VESK_Transport_UDP_count_traffic(&foreign, VESK_TRANSPORT_UDP_TRAFFIC_USER_DATA,
                                               VESK_TRANSPORT_UDP_TRAFFIC_SENT, 1, 1),
              0);
    const VESK_Transport_Address_t fake = ipv4(10, 0, 0, 1);
    EXPECT_EQ(VESK_Transport_UDP_assert_fake_ip_address(&foreign, &fake), 0);
    EXPECT_EQ(VESK_Transport_UDP_change_interface_status(&foreign, "lo", 0), 0);
    EXPECT_EQ(VESK_Transport_UDP_get_interfaces(&foreign, nullptr, 0), 0);
    EXPECT_EQ(VESK_Transport_UDP_change_binding_ping_generation(&foreign, 1), 0);
}

// ---------------------------------------------------------------------
// Interfaces (the selection rules are in test_interfaces)

// A UDPv4 plugin that uses only the loopback interface ("lo", 127.0.0.1,
// present on every Linux host).
PluginPtr loopbackPlugin(int ignore_loopback = 0) {
    char lo[] = "lo";
    char *allow[] = {lo};
    VESK_Transport_UDP_Property_t property = defaults(Kind::V4);
    property.parent.allow_interfaces_list = allow;
    property.parent.allow_interfaces_list_length = 1;
    property.ignore_loopback_interface = ignore_loopback;
    return make(Kind::V4, property);
}

TEST(UdpInterfaces, LoopbackForcedStatusAndFakeAddress) {
    PluginPtr none = loopbackPlugin(1);  // ignoring loopback leaves nothing
    ASSERT_NE(none, nullptr);
    VESK_Transport_UDP_InterfaceInfo info{};
    EXPECT_EQ(VESK_Transport_UDP_get_interfaces(none.get(), &info, 1), 0);
    EXPECT_EQ(receiveInterfaces(none.get()), "");

    PluginPtr plugin = loopbackPlugin();
    ASSERT_NE(plugin, nullptr);
    VESK_Transport_Plugin *self = plugin.get();
    ASSERT_EQ(VESK_Transport_UDP_get_interfaces(self, &info, 1), 1);
    EXPECT_STREQ(info.name, "lo");
    EXPECT_TRUE(sameAddress(info.address, ipv4(127, 0, 0, 1)));
    EXPECT_EQ(info.is_up * 10 + info.is_forced, 10);

    EXPECT_EQ(VESK_Transport_UDP_change_interface_status(self, "eth-none", 0), 0);
    EXPECT_EQ(VESK_Transport_UDP_change_interface_status(self, nullptr, 0), 0);
    EXPECT_EQ(VESK_Transport_UDP_change_interface_status(self, "lo", 0), 1);
    ASSERT_EQ(VESK_Transport_UDP_get_interfaces(self, &info, 1), 1);
    EXPECT_EQ(info.is_up * 10 + info.is_forced, 1);
    EXPECT_EQ(receiveInterfaces(self), "127.0.0.1 down; ");
    EXPECT_EQ(VESK_Transport_UDP_change_interface_status(self, "lo", 2), 1);  // non-zero is up
    EXPECT_EQ(receiveInterfaces(self), "127.0.0.1 up; ");
    EXPECT_EQ(receiveInterfaces(self, 0), "more");  // no room
    int more = 0, reported = 0;
    VESK_Transport_Interface_t array[1]{};
    EXPECT_EQ(self->get_receive_interfaces_cEA(self, nullptr, &reported, array, 1), 0);
    EXPECT_EQ(self->get_receive_interfaces_cEA(self, &more, &reported, nullptr, 1), 0);

    VESK_Transport_Address_t got = ipv4(9, 9, 9, 9);
    EXPECT_EQ(VESK_Transport_UDP_get_fake_ip_address(self, &got), 0);
    EXPECT_TRUE(sameAddress(got, ipv4(9, 9, 9, 9)));
    const VESK_Transport_Address_t fake = ipv4(198, 51, 100, 7);
    EXPECT_EQ(VESK_Transport_UDP_assert_fake_ip_address(self, nullptr), 0);
    ASSERT_EQ(VESK_Transport_UDP_assert_fake_ip_address(self, &fake), 1);
    ASSERT_EQ(VESK_Transport_UDP_get_fake_ip_address(self, &got), 1);
    EXPECT_TRUE(sameAddress(got, fake));
    EXPECT_EQ(receiveInterfaces(self), "198.51.100.7 up; ");
    EXPECT_EQ(VESK_Transport_UDP_remove_fake_ip_address(self), 1);
    EXPECT_EQ(VESK_Transport_UDP_remove_fake_ip_address(self), 1);  // nothing left: still fine
    EXPECT_EQ(VESK_Transport_UDP_get_fake_ip_address(self, &got), 0);
    EXPECT_EQ(receiveInterfaces(self), "127.0.0.1 up; ");
}

// ---------------------------------------------------------------------
// Statistics

using Field = KEL_UINT64 VESK_Transport_UDP_Statistics::*;
using S = VESK_Transport_UDP_Statistics;

TEST(UdpStatistics, EachKindCountsIntoItsFields) {
    struct Row {
        VESK_Transport_UDP_TrafficKind kind;
        VESK_Transport_UDP_TrafficDirection direction;
        std::vector<Field> bytes;    // receive 300
        std::vector<Field> packets;  // receive 3
    };
    const auto sent = VESK_TRANSPORT_UDP_TRAFFIC_SENT;
    const auto received = VESK_TRANSPORT_UDP_TRAFFIC_RECEIVED;
    // clang-format off
    const std::vector<Row> rows = {
        {VESK_TRANSPORT_UDP_TRAFFIC_USER_DATA, sent, {&S::user_bytes_sent}, {&S::user_packets_sent}},
        {VESK_TRANSPORT_UDP_TRAFFIC_USER_DATA, received, {&S::user_bytes_received}, {&S::user_packets_received}},
        {VESK_TRANSPORT_UDP_TRAFFIC_DISCOVERY, sent, {&S::discovery_bytes_sent}, {&S::discovery_packets_sent}},
        {VESK_TRANSPORT_UDP_TRAFFIC_PARTICIPANT_DISCOVERY, received, {&S::participant_discovery_bytes_received}, {&S::participant_discovery_packets_received}},
        {VESK_TRANSPORT_UDP_TRAFFIC_PARTICIPANT_CONFIG, sent, {&S::participant_config_bytes_sent}, {&S::participant_config_packets_sent}},
        {VESK_TRANSPORT_UDP_TRAFFIC_AUTOMATIC_LIVELINESS, sent,
         {&S::automatic_liveliness_bytes_sent, &S::_liveliness_bytes_sent}, {&S::automatic_liveliness_packets_sent, &S::_liveliness_packets_sent}},
        {VESK_TRANSPORT_UDP_TRAFFIC_AUTOMATIC_LIVELINESS, received,
         {&S::automatic_liveliness_bytes_received, &S::_liveliness_bytes_received}, {&S::automatic_liveliness_packets_received, &S::_liveliness_packets_received}},
        {VESK_TRANSPORT_UDP_TRAFFIC_MANUAL_LIVELINESS, received, {&S::manual_liveliness_bytes_received}, {&S::manual_liveliness_packets_received}},
        {VESK_TRANSPORT_UDP_TRAFFIC_SECURE_LIVELINESS, sent, {&S::_liveliness_bytes_sent}, {&S::_liveliness_packets_sent}},
        {VESK_TRANSPORT_UDP_TRAFFIC_ENDPOINT_DISCOVERY, sent, {&S::endpoint_discovery_bytes_sent}, {&S::endpoint_discovery_packets_sent}},
        {VESK_TRANSPORT_UDP_TRAFFIC_OVERHEAD, received, {&S::overhead_bytes_received}, {&S::overhead_packets_received}},
        {VESK_TRANSPORT_UDP_TRAFFIC_BINDING_PING, sent, {&S::binding_ping_bytes_sent}, {&S::binding_ping_packets_sent}},
        {VESK_TRANSPORT_UDP_TRAFFIC_BINDING_PING, received, {&S::binding_ping_bytes_received}, {&S::binding_ping_packets_received}},
    };
    // clang-format on
    for (size_t i = 0; i < rows.size(); ++i) {
        SCOPED_TRACE("row " + std::to_string(i));
        const Row &row = rows[i];
        PluginPtr plugin = make(Kind::WAN, defaults(Kind::WAN));
        ASSERT_NE(plugin, nullptr);
        ASSERT_EQ(VESK_Transport_UDP_count_traffic(plugin.get(), row.kind, row.direction, 1, 100),
                  1);
        ASSERT_EQ(VESK_Transport_UDP_count_traffic(plugin.get(), row.kind, row.direction, 2, 200),
                  1);
        S expected{};
        for (Field field : row.bytes) expected.*field = 300;
        for (Field field : row.packets) expected.*field = 3;
        S got;
        std::memset(&got, 0xEE, sizeof got);
        ASSERT_EQ(VESK_Transport_UDP_get_statistics(plugin.get(), &got), 1);
        EXPECT_EQ(std::memcmp(&got, &expected, sizeof got), 0);
    }
}

TEST(UdpStatistics, PrioritiesEventsAndBadArguments) {
    PluginPtr plugin = make(Kind::V4, defaults(Kind::V4));
    ASSERT_NE(plugin, nullptr);
    VESK_Transport_Plugin *self = plugin.get();
    EXPECT_EQ(VESK_Transport_UDP_count_received_priority(self, 0), 1);
    EXPECT_EQ(VESK_Transport_UDP_count_received_priority(self, 255), 1);
    EXPECT_EQ(VESK_Transport_UDP_count_received_priority(self, 255), 1);
    EXPECT_EQ(VESK_Transport_UDP_count_binding_ping_event(self), 1);
    EXPECT_EQ(
        VESK_Transport_UDP_count_traffic(self, static_cast<VESK_Transport_UDP_TrafficKind>(10),
                                         VESK_TRANSPORT_UDP_TRAFFIC_SENT, 1, 1),
        0);
    EXPECT_EQ(
        VESK_Transport_UDP_count_traffic(self, static_cast<VESK_Transport_UDP_TrafficKind>(-1),
                                         VESK_TRANSPORT_UDP_TRAFFIC_SENT, 1, 1),
        0);
    EXPECT_EQ(
        VESK_Transport_UDP_count_traffic(self, VESK_TRANSPORT_UDP_TRAFFIC_USER_DATA,
                                         static_cast<VESK_Transport_UDP_TrafficDirection>(2), 1, 1),
        0);
    EXPECT_EQ(VESK_Transport_UDP_count_traffic(nullptr, VESK_TRANSPORT_UDP_TRAFFIC_USER_DATA,
                                               VESK_TRANSPORT_UDP_TRAFFIC_SENT, 1, 1),
              0);
    EXPECT_EQ(VESK_Transport_UDP_count_received_priority(nullptr, 1), 0);
    EXPECT_EQ(VESK_Transport_UDP_count_binding_ping_event(nullptr), 0);
    EXPECT_EQ(VESK_Transport_UDP_get_statistics(self, nullptr), 0);
    S zeroed;
    std::memset(&zeroed, 0xFF, sizeof zeroed);
    VESK_Transport_UDP_Statistics_initialize(&zeroed);
    const S zero{};
    EXPECT_EQ(std::memcmp(&zeroed, &zero, sizeof zeroed), 0);
    VESK_Transport_UDP_Statistics_initialize(nullptr);

    S expected{};
    expected.received_priority_count[0] = 1;
    expected.received_priority_count[255] = 2;
    expected.binding_ping_event_count = 1;
    S got;
    ASSERT_EQ(VESK_Transport_UDP_get_statistics(self, &got), 1);
    EXPECT_EQ(std::memcmp(&got, &expected, sizeof got), 0);
}

// ---------------------------------------------------------------------
// Binding pings

TEST(UdpBindingPing, OnlyWanPluginsGenerateThem) {
    PluginPtr wan = make(Kind::WAN, defaults(Kind::WAN));
    ASSERT_NE(wan, nullptr);
    EXPECT_EQ(VESK_Transport_UDP_is_binding_ping_generation_enabled(wan.get()), 1);
    EXPECT_EQ(VESK_Transport_UDP_change_binding_ping_generation(wan.get(), DDS_BOOLEAN_FALSE), 1);
    EXPECT_EQ(VESK_Transport_UDP_is_binding_ping_generation_enabled(wan.get()), 0);
    EXPECT_EQ(VESK_Transport_UDP_change_binding_ping_generation(wan.get(), 7), 1);
    EXPECT_EQ(VESK_Transport_UDP_is_binding_ping_generation_enabled(wan.get()), 1);

    VESK_Transport_UDP_Property_t silent = defaults(Kind::WAN);
    silent.binding_ping_period = 0;
    PluginPtr quiet = make(Kind::WAN, silent);
    ASSERT_NE(quiet, nullptr);
    EXPECT_EQ(VESK_Transport_UDP_is_binding_ping_generation_enabled(quiet.get()), 0);

    for (Kind kind : {Kind::V4, Kind::V6}) {
        VESK_Transport_UDP_Property_t property = defaults(kind);
        property.binding_ping_period = 1000;
        PluginPtr plugin = make(kind, property);
        ASSERT_NE(plugin, nullptr);
        EXPECT_EQ(VESK_Transport_UDP_change_binding_ping_generation(plugin.get(), 1), 0);
        EXPECT_EQ(VESK_Transport_UDP_is_binding_ping_generation_enabled(plugin.get()), 0);
    }
    EXPECT_EQ(VESK_Transport_UDP_is_binding_ping_generation_enabled(nullptr), 0);
}

}  // namespace
