// The generic transport record: interface-list release, deep copy and its
// failure paths, and class-id parsing.

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/TestSupport.hpp"
#include "vesk_transport/platform/Heap.h"
#include "vesk_transport/platform/Transport.h"

namespace {

using vesk::test::liveHeapBlocks;

// A heap interface list made the way the setups make one.
char **makeList(const std::vector<const char *> &names) {
    char **list = nullptr;
    EXPECT_TRUE(KELOsapiHeap_allocateArray(&list, names.size(), char *));
    for (size_t i = 0; i < names.size(); ++i) list[i] = DDS_String_dup(names[i]);
    return list;
}

// A record whose members belong to the test (static storage), never freed.
struct SourceRecord {
    char allow0[8] = "eth0";
    char allow1[8] = "10.0.*";
    char deny0[8] = "lo";
    char mcast0[8] = "eth1";
    char prefix[9] = "rTr#####";
    char *allow[2] = {allow0, allow1};
    char *deny[2] = {deny0, nullptr};  // a null element copies as null
    char *allowMulticast[1] = {mcast0};
    char *denyMulticast[1] = {deny0};
    VESK_Transport_Plugin_DomainParticipantForwarder forwarder{};
    int participant = 0;
    VESK_Transport_Property_t record{};

    SourceRecord() {
        record.classid = VESK_TRANSPORT_CLASSID_UDPv4;
        record.address_bit_count = 32;
        record.properties_bitmap = VESK_TRANSPORT_PROPERTY_BIT_BUFFER_ALWAYS_LOANED;
        record.gather_send_buffer_count_max = 16;
        record.message_size_max = 65507;
        record.allow_interfaces_list = allow;
        record.allow_interfaces_list_length = 2;
        record.deny_interfaces_list = deny;
        record.deny_interfaces_list_length = 2;
        record.allow_multicast_interfaces_list = allowMulticast;
        record.allow_multicast_interfaces_list_length = 1;
        // Length 0: copies as NULL although the array is there.
        record.deny_multicast_interfaces_list = denyMulticast;
        record.deny_multicast_interfaces_list_length = 0;
        for (unsigned char i = 0; i < 12; ++i) record.transport_uuid.value[i] = i + 1;
        record.domain_participant_ptr = &participant;
        record.domain_participant_forwarder = &forwarder;
        record.thread_name_prefix = prefix;
        record.max_interface_count = 3;
    }
};

// Every owned member NULL and every list length 0.
void expectNoOwnedMembers(const VESK_Transport_Property_t &record) {
    EXPECT_EQ(record.allow_interfaces_list, nullptr);
    EXPECT_EQ(record.allow_interfaces_list_length, 0);
    EXPECT_EQ(record.deny_interfaces_list, nullptr);
    EXPECT_EQ(record.deny_interfaces_list_length, 0);
    EXPECT_EQ(record.allow_multicast_interfaces_list, nullptr);
    EXPECT_EQ(record.allow_multicast_interfaces_list_length, 0);
    EXPECT_EQ(record.deny_multicast_interfaces_list, nullptr);
    EXPECT_EQ(record.deny_multicast_interfaces_list_length, 0);
    EXPECT_EQ(record.thread_name_prefix, nullptr);
}

TEST(InterfaceList, FinalizeReleasesElementsAndArray) {
    const KEL_UINT64 before = liveHeapBlocks();
    char **list = makeList({"eth0", "lo", "10.0.0.1"});
    DDS_String_free(list[1]);
    list[1] = nullptr;  // a null element is skipped
    KEL_INT32 length = 3;
    EXPECT_EQ(liveHeapBlocks(), before + 3);
    VESK_Transport_Property_finalize_interface_list(&list, &length);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(length, 0);
    EXPECT_EQ(liveHeapBlocks(), before);
    // A second release and a null list are harmless.
    VESK_Transport_Property_finalize_interface_list(&list, &length);
    VESK_Transport_Property_finalize_interface_list(nullptr, &length);
    length = 5;
    VESK_Transport_Property_finalize_interface_list(&list, &length);
    EXPECT_EQ(length, 0);
}

TEST(PropertyCopy, DeepCopiesListsAndPrefix) {
    SourceRecord source;
    const KEL_UINT64 before = liveHeapBlocks();
    VESK_Transport_Property_t copy;
    std::memset(&copy, 0xA5, sizeof copy);  // garbage is overwritten, not freed
    ASSERT_EQ(VESK_Transport_Property_copy(&copy, &source.record), 1);
    // 3 strings + 2 arrays for allow and deny, 1 + 1 for allow multicast, the prefix.
    EXPECT_EQ(liveHeapBlocks(), before + 8);

    EXPECT_EQ(copy.classid, source.record.classid);
    EXPECT_EQ(copy.address_bit_count, 32);
    EXPECT_EQ(copy.properties_bitmap, VESK_TRANSPORT_PROPERTY_BIT_BUFFER_ALWAYS_LOANED);
    EXPECT_EQ(copy.gather_send_buffer_count_max, 16);
    EXPECT_EQ(copy.message_size_max, 65507);
    EXPECT_EQ(copy.max_interface_count, 3);
    EXPECT_EQ(std::memcmp(copy.transport_uuid.value, source.record.transport_uuid.value, 12), 0);
    EXPECT_EQ(copy.domain_participant_ptr, &source.participant);
    EXPECT_EQ(copy.domain_participant_forwarder, &source.forwarder);

    ASSERT_NE(copy.allow_interfaces_list, nullptr);
    EXPECT_NE(copy.allow_interfaces_list, source.record.allow_interfaces_list);
    EXPECT_EQ(copy.allow_interfaces_list_length, 2);
    EXPECT_STREQ(copy.allow_interfaces_list[0], "eth0");
    EXPECT_STREQ(copy.allow_interfaces_list[1], "10.0.*");
    EXPECT_NE(copy.allow_interfaces_list[0], source.allow0);
    EXPECT_STREQ(KELOsapiHeap_getBlockTypeName(copy.allow_interfaces_list), "char *");
    EXPECT_EQ(KELOsapiHeap_getBlockTag(copy.allow_interfaces_list), VESK_TRANSPORT_HEAP_TAG);
    ASSERT_NE(copy.deny_interfaces_list, nullptr);
    EXPECT_EQ(copy.deny_interfaces_list_length, 2);
    EXPECT_STREQ(copy.deny_interfaces_list[0], "lo");
    EXPECT_EQ(copy.deny_interfaces_list[1], nullptr);
    ASSERT_NE(copy.allow_multicast_interfaces_list, nullptr);
    EXPECT_STREQ(copy.allow_multicast_interfaces_list[0], "eth1");
    EXPECT_EQ(copy.deny_multicast_interfaces_list, nullptr);
    EXPECT_EQ(copy.deny_multicast_interfaces_list_length, 0);
    ASSERT_NE(copy.thread_name_prefix, nullptr);
    EXPECT_NE(copy.thread_name_prefix, source.prefix);
    EXPECT_STREQ(copy.thread_name_prefix, "rTr#####");

    VESK_Transport_Property_finalize(&copy);
    expectNoOwnedMembers(copy);
    EXPECT_EQ(liveHeapBlocks(), before);
    VESK_Transport_Property_finalize(&copy);  // twice: nothing left to release
    VESK_Transport_Property_finalize(nullptr);
}

TEST(PropertyCopy, NullPrefixAndEmptyListsAllocateNothing) {
    VESK_Transport_Property_t source{};
    source.classid = VESK_TRANSPORT_CLASSID_SHMEM;
    const KEL_UINT64 before = liveHeapBlocks();
    VESK_Transport_Property_t copy{};
    ASSERT_EQ(VESK_Transport_Property_copy(&copy, &source), 1);
    EXPECT_EQ(liveHeapBlocks(), before);
    EXPECT_EQ(copy.classid, VESK_TRANSPORT_CLASSID_SHMEM);
    expectNoOwnedMembers(copy);
}

TEST(PropertyCopy, RefusesWhatCannotBeCopied) {
    SourceRecord source;
    VESK_Transport_Property_t copy{};
    EXPECT_EQ(VESK_Transport_Property_copy(nullptr, &source.record), 0);
    EXPECT_EQ(VESK_Transport_Property_copy(&copy, nullptr), 0);
    EXPECT_EQ(VESK_Transport_Property_copy(&source.record, &source.record), 0);
    EXPECT_EQ(source.record.allow_interfaces_list, source.allow);  // untouched

    // A list that claims elements it does not hold.
    source.record.deny_interfaces_list = nullptr;
    const KEL_UINT64 before = liveHeapBlocks();
    EXPECT_EQ(VESK_Transport_Property_copy(&copy, &source.record), 0);
    EXPECT_EQ(liveHeapBlocks(), before);
    expectNoOwnedMembers(copy);
    EXPECT_EQ(copy.classid, VESK_TRANSPORT_CLASSID_UDPv4);  // scalars are still there
}

// Every allocation of the copy fails once in turn: each failure leaves
// nothing allocated and dst without owned members; the copy needs exactly
// the 8 allocations counted above.
TEST(PropertyCopy, EveryAllocationFailureLeavesNothing) {
    SourceRecord source;
    int failures = 0;
    for (long n = 1; n < 100; ++n) {
        SCOPED_TRACE("failing allocation " + std::to_string(n));
        const KEL_UINT64 before = liveHeapBlocks();
        VESK_Transport_Property_t copy{};
        KELOsapiHeap_failAllocationAfter(n);
        const int result = VESK_Transport_Property_copy(&copy, &source.record);
        const bool pending = KELOsapiHeap_isFailurePending() != 0;
        KELOsapiHeap_failAllocationAfter(0);
        if (result == 1) {
            EXPECT_TRUE(pending) << "succeeded although an allocation failed";
            VESK_Transport_Property_finalize(&copy);
            break;
        }
        ++failures;
        EXPECT_EQ(liveHeapBlocks(), before);
        expectNoOwnedMembers(copy);
        EXPECT_EQ(copy.message_size_max, 65507);
    }
    EXPECT_EQ(failures, 8);
}

TEST(ClassId, ParsesNumbersAndNames) {
    struct Row {
        const char *text;
        VESK_Transport_ClassId_t expected;
    };
    const std::vector<Row> rows = {
        {"1", VESK_TRANSPORT_CLASSID_UDPv4},
        {"16777216", VESK_TRANSPORT_CLASSID_SHMEM},
        {"0x01000001", VESK_TRANSPORT_CLASSID_UDPv4_WAN},
        {"-1", VESK_TRANSPORT_CLASSID_INVALID},
        {"UDPv4", VESK_TRANSPORT_CLASSID_UDPv4},
        {"udpv4", VESK_TRANSPORT_CLASSID_UDPv4},
        {"VESK_TRANSPORT_CLASSID_UDPv6", VESK_TRANSPORT_CLASSID_UDPv6},
        {"intra", VESK_TRANSPORT_CLASSID_INTRA},
        {"UDPV6_510", VESK_TRANSPORT_CLASSID_UDPv6_510},
        {"shmem", VESK_TRANSPORT_CLASSID_SHMEM},
        {"vesk_transport_classid_shmem", VESK_TRANSPORT_CLASSID_SHMEM},
        {"UDPv4_WAN", VESK_TRANSPORT_CLASSID_UDPv4_WAN},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.text);
        VESK_Transport_ClassId_t classid = 12345;
        EXPECT_EQ(VESK_Transport_parse_transport_class_id(row.text, &classid), 1);
        EXPECT_EQ(classid, row.expected);
    }
}

TEST(ClassId, RejectsOtherTextAndLeavesTheOutputAlone) {
    const std::vector<const char *> rows = {"",       "UDPv5", " 1",        "1 ", "0x",
                                            "UDPv4 ", "UDP",   "SHMEM_WAN", "1.0"};
    for (const char *text : rows) {
        SCOPED_TRACE(text);
        VESK_Transport_ClassId_t classid = 12345;
        EXPECT_EQ(VESK_Transport_parse_transport_class_id(text, &classid), 0);
        EXPECT_EQ(classid, 12345);
    }
    VESK_Transport_ClassId_t classid = 0;
    EXPECT_EQ(VESK_Transport_parse_transport_class_id(nullptr, &classid), 0);
    EXPECT_EQ(VESK_Transport_parse_transport_class_id("UDPv4", nullptr), 0);
}

TEST(ClassId, EveryTableNameParsesToItsId) {
    int rows = 0;
    for (const VESK_Transport_ClassName *row = VESK_TRANSPORT_CLASS_NAMES; row->name != nullptr;
         ++row, ++rows) {
        SCOPED_TRACE(row->name);
        VESK_Transport_ClassId_t classid = 0;
        EXPECT_EQ(VESK_Transport_parse_transport_class_id(row->name, &classid), 1);
        EXPECT_EQ(classid, row->classid);
    }
    EXPECT_EQ(rows, 12);
}

}  // namespace
