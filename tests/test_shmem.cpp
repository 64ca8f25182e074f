// The shared-memory transport's constructor: its own copy of the record,
// its refusals, allocation failures, and the operations that need no
// segment. Traffic is in test_shmem_traffic.cpp.

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "support/TestSupport.hpp"
#include "vesk_transport/platform/Heap.h"
#include "vesk_transport/platform/Shmem.h"
#include "vesk_transport/platform/Udp.h"

namespace {

using vesk::test::liveHeapBlocks;
using vesk::test::LogCapture;

// The factory's default record.
VESK_Transport_Shmem_Property_t defaults() {
    VESK_Transport_Shmem_Property_t p{};
    p.parent.classid = VESK_TRANSPORT_CLASSID_SHMEM;
    p.parent.address_bit_count = -96;
    p.parent.properties_bitmap = VESK_TRANSPORT_PROPERTY_BIT_BUFFER_ALWAYS_LOANED;
    p.parent.gather_send_buffer_count_max = 1024;
    p.parent.message_size_max = 65536;
    p.parent.max_interface_count = -1;
    p.received_message_count_max = 64;
    p.receive_buffer_size = 1048576;
    p.udp_debugging_address.network_ordered_value[12] = 239;
    p.udp_debugging_address.network_ordered_value[13] = 255;
    p.udp_debugging_address.network_ordered_value[14] = 1;
    p.udp_debugging_address.network_ordered_value[15] = 2;
    p.udp_debugging_port = 7399;
    p.segmentKeyOffset = 0x400000;
    p.segmentKeyFactor = 1;
    p.semaphoreKeyOffset = 0x800000;
    p.semaphoreKeyFactor = 1;
    p.mutexKeyOffset = 0xB00000;
    p.mutexKeyFactor = 1;
    p.maxAllowedWriterDurationMillisec = 1000;
    p.majorVersion = 2;
    return p;
}

struct PluginDeleter {
    void operator()(VESK_Transport_Plugin *plugin) const { plugin->delete_cEA(plugin, nullptr); }
};
using PluginPtr = std::unique_ptr<VESK_Transport_Plugin, PluginDeleter>;

const VESK_Transport_Shmem_Property_t &shmemRecord(const VESK_Transport_Plugin *plugin) {
    return *reinterpret_cast<const VESK_Transport_Shmem_Property_t *>(plugin->property);
}

// A record pointing at test-owned lists and prefix.
struct Source {
    char name[5] = "shm0";
    char prefix[5] = "shm#";
    char *deny[1] = {name};
    VESK_Transport_Shmem_Property_t record = defaults();
    Source() {
        record.parent.deny_interfaces_list = deny;
        record.parent.deny_interfaces_list_length = 1;
        record.parent.thread_name_prefix = prefix;
        for (unsigned char i = 0; i < 16; ++i) record.shmemUUID.network_ordered_value[i] = i;
    }
};

TEST(ShmemConstructor, BuildsFromTheDefaultsAndKeepsItsOwnCopy) {
    Source source;
    PluginPtr plugin(VESK_Transport_Shmem_newI(&source.record));
    ASSERT_NE(plugin, nullptr);
    EXPECT_STREQ(plugin->get_class_name_cEA(plugin.get()), "SHMEM");
    EXPECT_EQ(plugin->property->classid, VESK_TRANSPORT_CLASSID_SHMEM);
    EXPECT_EQ(plugin->multicastInterfaceEnabled, 0);
    EXPECT_EQ(VESK_Transport_UDP_isUdpPlugin(plugin.get()), 0);
    std::strcpy(source.name, "xxxx");
    const VESK_Transport_Shmem_Property_t &kept = shmemRecord(plugin.get());
    EXPECT_STREQ(kept.parent.deny_interfaces_list[0], "shm0");
    EXPECT_NE(kept.parent.thread_name_prefix, source.prefix);
    EXPECT_EQ(kept.mutexKeyOffset, 0xB00000);
    // UDP operations refuse a shared-memory plugin.
    VESK_Transport_UDP_Statistics statistics{};
    EXPECT_EQ(VESK_Transport_UDP_get_statistics(plugin.get(), &statistics), 0);
}

TEST(ShmemConstructor, RefusesRecordsItCannotRunWith) {
    using Change = std::function<void(VESK_Transport_Shmem_Property_t &)>;
    struct Row {
        Change change;
        const char *message;
    };
    char longPrefix[] = "123456789";
    const std::vector<Row> rows = {
        {[](auto &p) { p.parent.classid = VESK_TRANSPORT_CLASSID_UDPv4; },
         "SHMEM transport: parent.classid is not 0x01000000 (SHMEM)"},
        {[](auto &p) { p.parent.message_size_max = 0; },
         "SHMEM transport: parent.message_size_max is below 1"},
        {[](auto &p) { p.parent.gather_send_buffer_count_max = -1; },
         "SHMEM transport: parent.gather_send_buffer_count_max is below 1"},
        {[](auto &p) { p.parent.allow_interfaces_list_length = 1; },
         "SHMEM transport: parent.allow_interfaces_list is NULL with a positive length"},
        {[&](auto &p) { p.parent.thread_name_prefix = longPrefix; },
         "SHMEM transport: parent.thread_name_prefix is longer than 8 characters"},
        {[](auto &p) { p.received_message_count_max = 0; },
         "SHMEM transport: received_message_count_max is below 1"},
        {[](auto &p) { p.receive_buffer_size = 65535; },
         "SHMEM transport: receive_buffer_size is below parent.message_size_max"},
        {[](auto &p) { p.segmentKeyFactor = 0; }, "SHMEM transport: segmentKeyFactor is below 1"},
        {[](auto &p) { p.semaphoreKeyFactor = -1; },
         "SHMEM transport: semaphoreKeyFactor is below 1"},
        {[](auto &p) { p.mutexKeyFactor = 0; }, "SHMEM transport: mutexKeyFactor is below 1"},
        {[](auto &p) { p.majorVersion = 3; }, "SHMEM transport: majorVersion is not 1, 2, 4 or 5"},
        {[](auto &p) { p.majorVersion = 0; }, "SHMEM transport: majorVersion is not 1, 2, 4 or 5"},
        {[](auto &p) { p.majorVersion = 6; }, "SHMEM transport: majorVersion is not 1, 2, 4 or 5"},
        {[](auto &p) {
             p.enable_udp_debugging = 1;
             p.udp_debugging_port = 65536;
         },
         "SHMEM transport: udp_debugging_port is outside 1..65535"},
        {[](auto &p) {
             p.enable_udp_debugging = 1;
             p.udp_debugging_port = 0;
         },
         "SHMEM transport: udp_debugging_port is outside 1..65535"},
        {[](auto &p) {
             p.enable_udp_debugging = 1;
             p.udp_debugging_address.network_ordered_value[12] = 192;
         },
         "SHMEM transport: udp_debugging_address must be an IPv4 multicast or loopback address"},
        {[](auto &p) {
             p.enable_udp_debugging = 1;
             p.udp_debugging_address.network_ordered_value[12] = 223;
         },
         "SHMEM transport: udp_debugging_address must be an IPv4 multicast or loopback address"},
        {[](auto &p) {
             p.enable_udp_debugging = 1;
             p.udp_debugging_address.network_ordered_value[12] = 240;
         },
         "SHMEM transport: udp_debugging_address must be an IPv4 multicast or loopback address"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.message);
        VESK_Transport_Shmem_Property_t property = defaults();
        row.change(property);
        LogCapture log;
        const KEL_UINT64 before = liveHeapBlocks();
        EXPECT_EQ(VESK_Transport_Shmem_newI(&property), nullptr);
        EXPECT_EQ(liveHeapBlocks(), before);
        const auto entries = log.entries();
        ASSERT_EQ(entries.size(), 1u);
        EXPECT_EQ(entries[0].template_name, "KEL_LOG_CREATION_FAILURE_s");
        EXPECT_EQ(entries[0].function, "VESK_Transport_Shmem_newI");
        EXPECT_EQ(entries[0].level, static_cast<KEL_UINT32>(KEL_LOG_BIT_ERROR));
        EXPECT_EQ(entries[0].params, std::vector<std::string>{row.message});
    }
    LogCapture log;
    EXPECT_EQ(VESK_Transport_Shmem_newI(nullptr), nullptr);
    EXPECT_EQ(log.summary(),
              std::vector<std::string>{
                  "KEL_LOG_CREATION_FAILURE_s(SHMEM transport: property_in is NULL)"});
}

TEST(ShmemConstructor, AcceptsTheLimitsOfEachRule) {
    using Change = std::function<void(VESK_Transport_Shmem_Property_t &)>;
    struct Row {
        const char *what;
        Change change;
    };
    const std::vector<Row> rows = {
        {"buffer of one message", [](auto &p) { p.receive_buffer_size = 65536; }},
        {"one message", [](auto &p) { p.received_message_count_max = 1; }},
        {"format 1", [](auto &p) { p.majorVersion = 1; }},
        {"format 4", [](auto &p) { p.majorVersion = 4; }},
        {"format 5", [](auto &p) { p.majorVersion = 5; }},
        {"debugging port 65535",
         [](auto &p) {
             p.enable_udp_debugging = 1;
             p.udp_debugging_port = 65535;
         }},
        {"debugging to 224.x",
         [](auto &p) {
             p.enable_udp_debugging = 1;
             p.udp_debugging_address.network_ordered_value[12] = 224;
         }},
        {"debugging to 127.x",
         [](auto &p) {
             p.enable_udp_debugging = 1;
             p.udp_debugging_address.network_ordered_value[12] = 127;
         }},
        {"debugging off ignores the port",
         [](auto &p) {
             p.enable_udp_debugging = 0;
             p.udp_debugging_port = 70000;
         }},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        VESK_Transport_Shmem_Property_t property = defaults();
        row.change(property);
        LogCapture log;
        PluginPtr plugin(VESK_Transport_Shmem_newI(&property));
        EXPECT_NE(plugin, nullptr);
        EXPECT_TRUE(log.entries().empty());
    }
}

TEST(ShmemConstructor, EveryAllocationFailureLeavesNothing) {
    Source source;
    int failures = 0;
    for (long n = 1; n < 50; ++n) {
        SCOPED_TRACE("failing allocation " + std::to_string(n));
        LogCapture log;
        const KEL_UINT64 before = liveHeapBlocks();
        KELOsapiHeap_failAllocationAfter(n);
        VESK_Transport_Plugin *plugin = VESK_Transport_Shmem_newI(&source.record);
        KELOsapiHeap_failAllocationAfter(0);
        if (plugin != nullptr) {
            plugin->delete_cEA(plugin, nullptr);
            break;
        }
        ++failures;
        EXPECT_EQ(liveHeapBlocks(), before);
        EXPECT_EQ(log.summary(), std::vector<std::string>{
                                     "KEL_LOG_ANY_FAILURE_s(SHMEM transport: out of memory)"});
    }
    EXPECT_EQ(failures, 4);  // the plugin, the list array, its string, the prefix
}

TEST(ShmemPlugin, ReportsItsSegmentAsTheOneInterface) {
    Source source;
    PluginPtr plugin(VESK_Transport_Shmem_newI(&source.record));
    ASSERT_NE(plugin, nullptr);
    VESK_Transport_Plugin *self = plugin.get();
    VESK_Transport_Interface_t array[2]{};
    int more = -1;
    int reported = -1;
    ASSERT_EQ(self->get_receive_interfaces_cEA(self, &more, &reported, array, 2), 1);
    EXPECT_EQ(reported, 1);
    EXPECT_EQ(more, 0);
    EXPECT_EQ(array[0].transport_classid, VESK_TRANSPORT_CLASSID_SHMEM);
    EXPECT_EQ(std::memcmp(&array[0].address, &source.record.shmemUUID, 16), 0);
    EXPECT_EQ(array[0].status, 1u);
    ASSERT_EQ(self->get_receive_interfaces_cEA(self, &more, &reported, nullptr, 0), 1);
    EXPECT_EQ(reported, 0);
    EXPECT_EQ(more, 1);
    EXPECT_EQ(self->get_receive_interfaces_cEA(self, &more, nullptr, array, 2), 0);
}

TEST(ShmemPlugin, EntryPortsMustGiveUsableKeys) {
    struct Row {
        const char *what;
        KEL_INT32 offset;
        KEL_INT32 factor;
        VESK_Transport_Port_t port;
        int valid;
    };
    const std::vector<Row> rows = {
        {"default keys", 0x400000, 1, 7410, 1},
        {"port 0 with an offset", 0x400000, 1, 0, 1},
        {"key 0 would be private", 0, 1, 0, 0},
        {"largest key", 0x7FFFFFFE, 1, 1, 1},
        {"key overflows", 0x7FFFFFFF, 1, 1, 0},
        {"factor overflows", 1, 0x10000, 0x8000, 0},
        {"negative offset, positive key", -10, 1, 11, 1},
        {"negative offset, key 0", -10, 1, 10, 0},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        VESK_Transport_Shmem_Property_t property = defaults();
        property.semaphoreKeyOffset = row.offset;
        property.semaphoreKeyFactor = row.factor;
        PluginPtr plugin(VESK_Transport_Shmem_newI(&property));
        ASSERT_NE(plugin, nullptr);
        EXPECT_EQ(plugin->is_valid_entry_port(plugin.get(), row.port), row.valid);
    }
}

}  // namespace
