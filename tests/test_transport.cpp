// The generic transport record: interface-list release, deep copy with
// every allocation failing in turn, and class-id parsing.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/PlatformChecks.hpp"
#include "vesk_transport/platform/Transport.h"
#include "vesk_transport/platform/TransportInternal.hpp"

namespace {

using vesk::test::liveHeapBlocks;

// A record whose members belong to the test: two allow and two deny
// interfaces (one null), one allow-multicast interface, a deny-multicast
// list of length 0 (copied as NULL) and a thread-name prefix.
struct SourceRecord {
    char allow0[8] = "eth0", allow1[8] = "10.0.*", deny0[8] = "lo", mcast0[8] = "eth1";
    char prefix[9] = "rTr#####";
    char *allow[2] = {allow0, allow1}, *deny[2] = {deny0, nullptr};
    char *allowMulticast[1] = {mcast0}, *denyMulticast[1] = {deny0};
    VESK_Transport_Plugin_DomainParticipantForwarder forwarder{};
    VESK_Transport_Property_t record{};
    SourceRecord() {
        record.classid = VESK_TRANSPORT_CLASSID_UDPv4;
        record.message_size_max = 65507;
        record.allow_interfaces_list = allow;
        record.allow_interfaces_list_length = record.deny_interfaces_list_length = 2;
        record.deny_interfaces_list = deny;
        record.allow_multicast_interfaces_list = allowMulticast;
        record.allow_multicast_interfaces_list_length = 1;
        record.deny_multicast_interfaces_list = denyMulticast;
        record.transport_uuid = {{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}};
        record.domain_participant_ptr = &forwarder;
        record.domain_participant_forwarder = &forwarder;
        record.thread_name_prefix = prefix;
        record.max_interface_count = 3;
    }
};

// Every owned member NULL and every list length 0.
bool ownsNothing(const VESK_Transport_Property_t &r) {
    return r.allow_interfaces_list == nullptr && r.allow_interfaces_list_length == 0 &&
           r.deny_interfaces_list == nullptr && r.deny_interfaces_list_length == 0 &&
           r.allow_multicast_interfaces_list == nullptr &&
           r.allow_multicast_interfaces_list_length == 0 &&
           r.deny_multicast_interfaces_list == nullptr &&
           r.deny_multicast_interfaces_list_length == 0 && r.thread_name_prefix == nullptr;
}

std::vector<std::string> names(char **list, KEL_INT32 length) {
    std::vector<std::string> out;
    for (KEL_INT32 i = 0; i < length; ++i) out.emplace_back(list[i] ? list[i] : "<null>");
    return out;
}

// Releasing a list is checked with the copy below; here the odd arguments.
TEST(InterfaceList, FinalizeEmptiesANullListAndIgnoresNullArguments) {
    char **list = nullptr;
    KEL_INT32 length = 5;
    VESK_Transport_Property_finalize_interface_list(&list, &length);
    EXPECT_EQ(length, 0);
    VESK_Transport_Property_finalize_interface_list(nullptr, &length);
    VESK_Transport_Property_finalize_interface_list(&list, nullptr);
}

// A refused copy leaves nothing live and a destination with the scalars but
// no owned member; the complete one is deep.
TEST(PropertyCopy, DeepCopyWithEveryAllocationFailingInTurn) {
    SourceRecord source;
    for (long n = 1;; ++n) {
        SCOPED_TRACE("refusing allocation " + std::to_string(n));
        ASSERT_LE(n, 9);
        const KEL_UINT64 before = liveHeapBlocks();
        VESK_Transport_Property_t copy;
        std::memset(&copy, 0xA5, sizeof copy);  // garbage is overwritten, not released
        int result = -1;
        const bool refused = vesk::test::refusing(
            n, [&] { result = VESK_Transport_Property_copy(&copy, &source.record); });
        EXPECT_EQ(result, refused ? 0 : 1);
        EXPECT_EQ(copy.message_size_max, 65507);
        EXPECT_EQ(copy.max_interface_count, 3);
        EXPECT_EQ(copy.domain_participant_forwarder, &source.forwarder);
        EXPECT_EQ(std::memcmp(&copy.transport_uuid, &source.record.transport_uuid, 12), 0);
        if (refused) {
            EXPECT_TRUE(ownsNothing(copy));
            EXPECT_EQ(liveHeapBlocks(), before);
            continue;
        }
        EXPECT_EQ(n, 9);
        EXPECT_EQ(liveHeapBlocks(), before + 8);
        EXPECT_EQ(names(copy.allow_interfaces_list, copy.allow_interfaces_list_length),
                  (std::vector<std::string>{"eth0", "10.0.*"}));
        EXPECT_EQ(names(copy.deny_interfaces_list, copy.deny_interfaces_list_length),
                  (std::vector<std::string>{"lo", "<null>"}));
        EXPECT_EQ(names(copy.allow_multicast_interfaces_list,
                        copy.allow_multicast_interfaces_list_length),
                  std::vector<std::string>{"eth1"});
        EXPECT_TRUE(copy.deny_multicast_interfaces_list == nullptr &&
                    copy.deny_multicast_interfaces_list_length == 0);
        EXPECT_STREQ(copy.thread_name_prefix, "rTr#####");
        EXPECT_NE(copy.thread_name_prefix, source.prefix);
        EXPECT_NE(copy.allow_interfaces_list[0], source.allow0);
        EXPECT_STREQ(KELOsapiHeap_getBlockTypeName(copy.allow_interfaces_list), "char *");
        VESK_Transport_Property_finalize(&copy);
        EXPECT_TRUE(ownsNothing(copy));
        EXPECT_EQ(liveHeapBlocks(), before);
        VESK_Transport_Property_finalize(&copy);  // nothing left to release
        VESK_Transport_Property_finalize(nullptr);
        break;
    }
}

TEST(PropertyCopy, RefusesWhatCannotBeCopied) {
    SourceRecord source;
    VESK_Transport_Property_t copy{};
    EXPECT_EQ(VESK_Transport_Property_copy(nullptr, &source.record), 0);
    EXPECT_EQ(VESK_Transport_Property_copy(&copy, nullptr), 0);
    EXPECT_EQ(VESK_Transport_Property_copy(&source.record, &source.record), 0);
    EXPECT_EQ(source.record.allow_interfaces_list, source.allow);
    // A list that claims elements it does not hold.
    source.record.deny_interfaces_list = nullptr;
    const KEL_UINT64 before = liveHeapBlocks();
    EXPECT_EQ(VESK_Transport_Property_copy(&copy, &source.record), 0);
    EXPECT_EQ(liveHeapBlocks(), before);
    EXPECT_TRUE(ownsNothing(copy));
    EXPECT_EQ(copy.classid, VESK_TRANSPORT_CLASSID_UDPv4);
    // Nothing owned: nothing allocated.
    VESK_Transport_Property_t bare{};
    bare.classid = VESK_TRANSPORT_CLASSID_SHMEM;
    ASSERT_EQ(VESK_Transport_Property_copy(&copy, &bare), 1);
    EXPECT_EQ(liveHeapBlocks(), before);
    EXPECT_TRUE(ownsNothing(copy));
    EXPECT_EQ(copy.classid, VESK_TRANSPORT_CLASSID_SHMEM);
}

TEST(ClassId, NumbersAndEveryTableNameIgnoringCase) {
    const struct {
        const char *text;
        VESK_Transport_ClassId_t expected;  // 12345: refused, output untouched
    } rows[] = {{"1", 1},
                {"0x01000001", 0x01000001},
                {"-1", -1},
                {"Udpv6_510", 5},
                {"UDPv4 ", 12345},
                {"", 12345},
                {" 1", 12345},
                {"UDP", 12345},
                {"SHMEM_WAN", 12345},
                {"1.0", 12345}};
    for (const auto &row : rows) {
        VESK_Transport_ClassId_t classid = 12345;
        EXPECT_EQ(VESK_Transport_parse_transport_class_id(row.text, &classid),
                  row.expected != 12345)
            << row.text;
        EXPECT_EQ(classid, row.expected) << row.text;
    }
    const std::vector<std::pair<std::string, VESK_Transport_ClassId_t>> table = {
        {"UDPv4", 1},     {"UDPv6", 2},          {"INTRA", 3},
        {"UDPv6_510", 5}, {"SHMEM", 0x01000000}, {"UDPv4_WAN", 0x01000001}};
    std::vector<std::pair<std::string, VESK_Transport_ClassId_t>> expected, found;
    for (const auto &[name, classid] : table) {
        expected.emplace_back(name, classid);
        expected.emplace_back("VESK_TRANSPORT_CLASSID_" + name, classid);
    }
    for (const VESK_Transport_ClassName *row = VESK_TRANSPORT_CLASS_NAMES; row->name; ++row) {
        VESK_Transport_ClassId_t classid = 0;
        EXPECT_EQ(VESK_Transport_parse_transport_class_id(row->name, &classid), 1) << row->name;
        found.emplace_back(row->name, classid);
    }
    EXPECT_EQ(found, expected);
    VESK_Transport_ClassId_t classid = 0;
    EXPECT_FALSE(VESK_Transport_parse_transport_class_id(nullptr, &classid) ||
                 VESK_Transport_parse_transport_class_id("UDPv4", nullptr));
}

// What every transport of the library fills alike: the operations that
// need a socket or a segment report failure and touch nothing, the address
// helpers compare and copy all sixteen bytes.
TEST(CommonOperations, ResourcesFailAndAddressesAreTheirSixteenBytes) {
    VESK_Transport_Plugin plugin{};
    vesk::transport::fillCommonOperations(plugin);
    void *resource = &plugin;
    VESK_Transport_Port_t port = 7400;
    VESK_Transport_Address_t a{}, b{};
    VESK_Transport_Message_t message{};
    VESK_Transport_Buffer_t buffer{};
    const int results[] = {plugin.send(&plugin, &resource, &a, 7400, 0, &buffer, 1, nullptr),
                           plugin.receive_rEA(&plugin, &resource, &buffer, &message, nullptr),
                           plugin.unblock_receive_rrEA(&plugin, &resource, nullptr),
                           plugin.create_recvresource_rrEA(&plugin, &resource, &port, &a, 0),
                           plugin.share_recvresource_rrEA(&plugin, &resource, &a, 7400, 0),
                           plugin.unshare_recvresource_rrEA(&plugin, &resource, &a, 7400),
                           plugin.create_sendresource_srEA(&plugin, &resource, &a, 7400, 0),
                           plugin.share_sendresource_srEA(&plugin, &resource, &a, 7400, 0),
                           plugin.unshare_sendresource_srEA(&plugin, &resource, &a, 7400, 0),
                           plugin.update_destination(&plugin, &resource, &a, 7400),
                           plugin.get_transport_receive_context(&plugin, &resource) != nullptr,
                           plugin.get_transport_send_context(&plugin, &resource) != nullptr};
    EXPECT_EQ(std::vector<int>(std::begin(results), std::end(results)), std::vector<int>(12, 0));
    EXPECT_TRUE(resource == &plugin && port == 7400);
    plugin.return_loaned_buffer_rEA(&plugin, &resource, &message, nullptr);
    plugin.destroy_recvresource_rrEA(&plugin, &resource);
    plugin.destroy_sendresource_srEA(&plugin, &resource);
    for (int changed : {-1, 0, 15}) {
        b = a;
        if (changed >= 0) b.network_ordered_value[changed] = 1;
        EXPECT_EQ(plugin.are_addresses_equivalent(&plugin, &a, &b), changed < 0) << changed;
    }
    EXPECT_FALSE(plugin.are_addresses_equivalent(&plugin, &a, nullptr) ||
                 plugin.are_addresses_equivalent(&plugin, nullptr, &a) ||
                 plugin.get_equivalent_initial_peer_address(&plugin, nullptr, &b) ||
                 plugin.get_equivalent_initial_peer_address(&plugin, &a, nullptr));
    EXPECT_EQ(plugin.get_equivalent_initial_peer_address(&plugin, &a, &b), 1);
    EXPECT_EQ(a.network_ordered_value[15], 1);
}

}  // namespace
