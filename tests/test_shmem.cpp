// The shared-memory transport's constructor: its own copy of the record,
// its refusals, allocation failures, and the operations that need no
// segment. Traffic is in test_shmem_traffic.cpp.

#include <gtest/gtest.h>

#include <cstring>
#include <functional>

#include "support/ShmemPeers.hpp"
#include "support/TestSupport.hpp"
#include "vesk_transport/platform/Heap.h"
#include "vesk_transport/platform/Udp.h"

namespace {

using namespace vesk::test;
using Strings = std::vector<std::string>;

// A record pointing at test-owned lists and prefix.
struct Source {
    char name[5] = "shm0";
    char prefix[5] = "shm#";
    char *deny[1] = {name};
    Record record = VESK_TRANSPORT_SHMEM_PROPERTY_DEFAULT;
    Source() {
        record.parent.deny_interfaces_list = deny;
        record.parent.deny_interfaces_list_length = 1;
        record.parent.thread_name_prefix = prefix;
        for (unsigned char i = 0; i < 16; ++i) record.shmemUUID.network_ordered_value[i] = i;
    }
};

TEST(ShmemConstructor, KeepsItsOwnCopyAndReportsItsSegmentAsTheOneInterface) {
    Source source;
    PluginPtr plugin(VESK_Transport_Shmem_newI(&source.record));
    ASSERT_NE(plugin, nullptr);
    VESK_Transport_Plugin *self = plugin.get();
    EXPECT_STREQ(self->get_class_name_cEA(self), "SHMEM");
    EXPECT_EQ(self->property->classid, VESK_TRANSPORT_CLASSID_SHMEM);
    EXPECT_EQ(self->multicastInterfaceEnabled, 0);
    EXPECT_EQ(VESK_Transport_UDP_isUdpPlugin(self), 0);
    VESK_Transport_UDP_Statistics statistics{};  // UDP operations refuse it
    EXPECT_EQ(VESK_Transport_UDP_get_statistics(self, &statistics), 0);
    std::strcpy(source.name, "xxxx");
    EXPECT_STREQ(recordOf(self).parent.deny_interfaces_list[0], "shm0");
    EXPECT_NE(recordOf(self).parent.thread_name_prefix, source.prefix);
    VESK_Transport_Interface_t array[2]{};
    int more = -1, reported = -1;
    ASSERT_EQ(self->get_receive_interfaces_cEA(self, &more, &reported, array, 2), 1);
    EXPECT_TRUE(reported == 1 && more == 0 && array[0].status == 1u);
    EXPECT_EQ(array[0].transport_classid, VESK_TRANSPORT_CLASSID_SHMEM);
    EXPECT_EQ(std::memcmp(&array[0].address, &source.record.shmemUUID, 16), 0);
    ASSERT_EQ(self->get_receive_interfaces_cEA(self, &more, &reported, nullptr, 0), 1);
    EXPECT_TRUE(reported == 0 && more == 1);
    EXPECT_EQ(self->get_receive_interfaces_cEA(self, &more, nullptr, array, 2), 0);
}

// Each rule refused with its message (nullptr: a limit it still accepts).
TEST(ShmemConstructor, RefusesRecordsItCannotRunWithAndAcceptsTheLimits) {
    char longPrefix[] = "123456789";
    const char *badVersion = "majorVersion is not 1, 2, 4 or 5";
    const char *badPort = "udp_debugging_port is outside 1..65535";
    const char *badAddress = "udp_debugging_address must be an IPv4 multicast or loopback address";
    auto version = [](int v) { return [=](Record &p) { p.majorVersion = KEL_INT16(v); }; };
    auto debugging = [](int port, int first) {
        return [=](Record &p) {
            p.enable_udp_debugging = 1;
            p.udp_debugging_port = port;
            p.udp_debugging_address.network_ordered_value[12] = static_cast<unsigned char>(first);
        };
    };
    const struct Row {
        std::function<void(Record &)> change;
        const char *message;
    } rows[] = {
        {[](Record &p) { p.parent.classid = VESK_TRANSPORT_CLASSID_UDPv4; },
         "parent.classid is not 0x01000000 (SHMEM)"},
        {[](Record &p) { p.parent.message_size_max = 0; }, "parent.message_size_max is below 1"},
        {[](Record &p) { p.parent.gather_send_buffer_count_max = -1; },
         "parent.gather_send_buffer_count_max is below 1"},
        {[](Record &p) { p.parent.allow_interfaces_list_length = 1; },
         "parent.allow_interfaces_list is NULL with a positive length"},
        {[&](Record &p) { p.parent.thread_name_prefix = longPrefix; },
         "parent.thread_name_prefix is longer than 8 characters"},
        {[](Record &p) { p.received_message_count_max = 0; },
         "received_message_count_max is below 1"},
        {[](Record &p) { p.received_message_count_max = 1; }, nullptr},
        {[](Record &p) { p.receive_buffer_size = 65535; },
         "receive_buffer_size is below parent.message_size_max"},
        {[](Record &p) { p.receive_buffer_size = 65536; }, nullptr},
        {[](Record &p) { p.segmentKeyFactor = 0; }, "segmentKeyFactor is below 1"},
        {[](Record &p) { p.semaphoreKeyFactor = -1; }, "semaphoreKeyFactor is below 1"},
        {[](Record &p) { p.mutexKeyFactor = 0; }, "mutexKeyFactor is below 1"},
        {version(0), badVersion},
        {version(1), nullptr},
        {version(3), badVersion},
        {version(4), nullptr},
        {version(5), nullptr},
        {version(6), badVersion},
        {debugging(65536, 239), badPort},
        {debugging(0, 239), badPort},
        {debugging(65535, 239), nullptr},
        {debugging(7399, 192), badAddress},
        {debugging(7399, 223), badAddress},
        {debugging(7399, 240), badAddress},
        {debugging(7399, 224), nullptr},
        {debugging(7399, 127), nullptr},
        {[](Record &p) { p.udp_debugging_port = 70000; }, nullptr},  // debugging off
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.message ? row.message : "accepted");
        Record property = VESK_TRANSPORT_SHMEM_PROPERTY_DEFAULT;
        row.change(property);
        LogCapture log;
        const KEL_UINT64 before = liveHeapBlocks();
        PluginPtr plugin(VESK_Transport_Shmem_newI(&property));
        EXPECT_EQ(row.message == nullptr, plugin != nullptr);
        if (row.message == nullptr) {
            EXPECT_TRUE(log.entries().empty());
            continue;
        }
        EXPECT_EQ(liveHeapBlocks(), before);
        const auto entries = log.entries();
        ASSERT_EQ(entries.size(), 1u);
        EXPECT_EQ(entries[0].function, "VESK_Transport_Shmem_newI");
        EXPECT_EQ(entries[0].level, static_cast<KEL_UINT32>(KEL_LOG_BIT_ERROR));
        EXPECT_EQ(log.summary()[0], summarize("KEL_LOG_CREATION_FAILURE_s",
                                              {"SHMEM transport: " + std::string(row.message)}));
    }
    LogCapture log;
    EXPECT_EQ(VESK_Transport_Shmem_newI(nullptr), nullptr);
    EXPECT_EQ(log.summary(),
              Strings{"KEL_LOG_CREATION_FAILURE_s(SHMEM transport: property_in is NULL)"});
}

TEST(ShmemConstructor, EveryAllocationFailureLeavesNothing) {
    Source source;
    int failures = 0;
    for (long n = 1; n < 50; ++n) {
        SCOPED_TRACE("failing allocation " + std::to_string(n));
        LogCapture log;
        const KEL_UINT64 before = liveHeapBlocks();
        KELOsapiHeap_failAllocationAfter(n);
        PluginPtr plugin(VESK_Transport_Shmem_newI(&source.record));
        KELOsapiHeap_failAllocationAfter(0);
        if (plugin != nullptr) break;
        ++failures;
        EXPECT_EQ(liveHeapBlocks(), before);
        EXPECT_EQ(log.summary(), Strings{"KEL_LOG_ANY_FAILURE_s(SHMEM transport: out of memory)"});
    }
    EXPECT_EQ(failures, 4);  // the plugin, the list array, its string, the prefix
}

TEST(ShmemPlugin, EntryPortsMustGiveUsableKeys) {
    const struct Row {
        const char *what;
        KEL_INT32 offset, factor;
        VESK_Transport_Port_t port;
        int valid;
    } rows[] = {
        {"default keys", 0x400000, 1, 7410, 1},
        {"port 0 with an offset", 0x400000, 1, 0, 1},
        {"key 0 would be private", 0, 1, 0, 0},
        {"largest key", 0x7FFFFFFE, 1, 1, 1},
        {"key overflows", 0x7FFFFFFF, 1, 1, 0},
        {"factor overflows", 1, 0x10000, 0x8000, 0},
        {"negative offset, positive key", -10, 1, 11, 1},
        {"negative offset, key 0", -10, 1, 10, 0},
    };
    PluginPtr plugin(VESK_Transport_Shmem_newI(&VESK_TRANSPORT_SHMEM_PROPERTY_DEFAULT));
    for (const Row &row : rows) {
        recordOf(plugin.get()).semaphoreKeyOffset = row.offset;
        recordOf(plugin.get()).semaphoreKeyFactor = row.factor;
        EXPECT_EQ(plugin->is_valid_entry_port(plugin.get(), row.port), row.valid) << row.what;
    }
}

}  // namespace
