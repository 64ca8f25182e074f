// Host and shared-memory services: host identity, robust mutexes, product
// versions, the wire-protocol policy and the application-id generator.
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/TestSupport.hpp"
#include "vesk_transport/platform/Host.h"

namespace {

std::string hex(const unsigned char *bytes, size_t count) {
    std::string text;
    char digits[3];
    for (size_t i = 0; i < count; ++i) {
        std::snprintf(digits, sizeof(digits), "%02x", bytes[i]);
        text += digits;
    }
    return text;
}

std::string hex(const KELOsapiHostId &id) {
    return hex(id.value, sizeof(id.value));
}

KELOsapiHostId idFrom(std::initializer_list<unsigned char> bytes) {
    KELOsapiHostId id{};
    size_t i = 0;
    for (unsigned char byte : bytes) id.value[i++] = byte;
    return id;
}

bool readFile(const std::string &path, std::string *text_out) {
    std::ifstream in(path);
    if (!in) return false;
    std::stringstream buffer;
    buffer << in.rdbuf();
    *text_out = buffer.str();
    return true;
}

// Every hook is process-wide: leave none set for the next test.
class HostTest : public ::testing::Test {
protected:
    void TearDown() override {
        KELOsapiHost_setUniqueIdOverride(nullptr);
        KELOsapiSharedMemorySemMutex_forceRobustMutex(-1);
    }
};

// ---------------------------------------------------------------------
// Unique id

TEST_F(HostTest, UniqueIdIsStableAndNotEmpty) {
    KELOsapiHostId first;
    KELOsapiHostId second;
    std::memset(&first, 0xAB, sizeof(first));
    std::memset(&second, 0xCD, sizeof(second));
    KELOsapiHostIdSource source = KEL_OSAPI_HOST_ID_SOURCE_OVERRIDE;
    ASSERT_NE(KELOsapiHost_getUniqueIdWithSource(&first, &source), 0);
    ASSERT_NE(KELOsapiHost_getUniqueId(&second), 0);
    EXPECT_EQ(hex(first), hex(second));
    EXPECT_NE(hex(first), std::string(32, '0'));
    EXPECT_NE(source, KEL_OSAPI_HOST_ID_SOURCE_OVERRIDE);
}

TEST_F(HostTest, UniqueIdMatchesItsSource) {
    KELOsapiHostId id;
    KELOsapiHostIdSource source;
    ASSERT_NE(KELOsapiHost_getUniqueIdWithSource(&id, &source), 0);
    std::string text;
    KELOsapiHostId expected{};
    switch (source) {
        case KEL_OSAPI_HOST_ID_SOURCE_MACHINE_ID:
            ASSERT_TRUE(readFile("/etc/machine-id", &text));
            ASSERT_NE(KELOsapiHost_parseMachineId(text.c_str(), &expected), 0);
            EXPECT_EQ(hex(id), hex(expected));
            EXPECT_EQ(hex(id), text.substr(0, 32));
            break;
        case KEL_OSAPI_HOST_ID_SOURCE_DBUS_MACHINE_ID:
            ASSERT_TRUE(readFile("/var/lib/dbus/machine-id", &text));
            ASSERT_NE(KELOsapiHost_parseMachineId(text.c_str(), &expected), 0);
            EXPECT_EQ(hex(id), hex(expected));
            break;
        case KEL_OSAPI_HOST_ID_SOURCE_IPV4_ADDRESS: {
            const KEL_UINT32 host = DDS_RtpsAppIdGenerator_get_rtps_host_id(nullptr);
            const KELOsapiHostId v4 = idFrom(
                {static_cast<unsigned char>(host >> 24), static_cast<unsigned char>(host >> 16),
                 static_cast<unsigned char>(host >> 8), static_cast<unsigned char>(host)});
            EXPECT_EQ(hex(id), hex(v4));
            EXPECT_NE(id.value[0], 127);
            break;
        }
        case KEL_OSAPI_HOST_ID_SOURCE_LOOPBACK:
            EXPECT_EQ(hex(id), hex(idFrom({127, 0, 0, 1})));
            break;
        default:
            ADD_FAILURE() << "unexpected source " << source;
    }
}

TEST_F(HostTest, NullOutputIsRefused) {
    EXPECT_EQ(KELOsapiHost_getUniqueId(nullptr), 0);
    EXPECT_EQ(KELOsapiHost_getUniqueIdWithSource(nullptr, nullptr), 0);
    KELOsapiHostId id;
    EXPECT_NE(KELOsapiHost_getUniqueIdWithSource(&id, nullptr), 0);
}

TEST_F(HostTest, OverrideReplacesAndNullRestores) {
    KELOsapiHostId real;
    ASSERT_NE(KELOsapiHost_getUniqueId(&real), 0);

    const std::vector<KELOsapiHostId> rows = {
        idFrom({127, 0, 0, 1}),  // the "no identity" value callers test for
        idFrom({127, 0, 0, 1, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9}),
        idFrom({}),  // all zero: the hook passes it through as given
        idFrom({0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
                0xFF, 0xFF}),
        idFrom({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16}),
    };
    for (const KELOsapiHostId &row : rows) {
        SCOPED_TRACE(hex(row));
        KELOsapiHostId given = row;
        KELOsapiHost_setUniqueIdOverride(&given);
        std::memset(&given, 0x5A, sizeof(given));  // the hook keeps its own copy
        KELOsapiHostId id;
        KELOsapiHostIdSource source;
        ASSERT_NE(KELOsapiHost_getUniqueIdWithSource(&id, &source), 0);
        EXPECT_EQ(hex(id), hex(row));
        EXPECT_EQ(source, KEL_OSAPI_HOST_ID_SOURCE_OVERRIDE);
    }

    KELOsapiHost_setUniqueIdOverride(nullptr);
    KELOsapiHostId restored;
    KELOsapiHostIdSource source;
    ASSERT_NE(KELOsapiHost_getUniqueIdWithSource(&restored, &source), 0);
    EXPECT_EQ(hex(restored), hex(real));
    EXPECT_NE(source, KEL_OSAPI_HOST_ID_SOURCE_OVERRIDE);
}

struct MachineIdRow {
    const char *name;
    const char *text;
    bool ok;
    const char *expected_hex;
};

TEST_F(HostTest, MachineIdTexts) {
    const std::vector<MachineIdRow> rows = {
        {"lower", "3d1219c7c4c5404aaa1f6d2a48adfda4", true, "3d1219c7c4c5404aaa1f6d2a48adfda4"},
        {"newline", "3d1219c7c4c5404aaa1f6d2a48adfda4\n", true, "3d1219c7c4c5404aaa1f6d2a48adfda4"},
        {"upper", "0123456789ABCDEFabcdef0000000001", true, "0123456789abcdefabcdef0000000001"},
        {"last byte only", "00000000000000000000000000000001\n", true,
         "00000000000000000000000000000001"},
        {"all zero", "00000000000000000000000000000000\n", false, nullptr},
        {"31 digits", "3d1219c7c4c5404aaa1f6d2a48adfda", false, nullptr},
        {"33 digits", "3d1219c7c4c5404aaa1f6d2a48adfda4a", false, nullptr},
        {"two newlines", "3d1219c7c4c5404aaa1f6d2a48adfda4\n\n", false, nullptr},
        {"crlf", "3d1219c7c4c5404aaa1f6d2a48adfda4\r\n", false, nullptr},
        {"leading space", " 3d1219c7c4c5404aaa1f6d2a48adfda4", false, nullptr},
        {"non-hex", "3d1219c7c4c5404aaa1f6d2a48adfdg4", false, nullptr},
        {"dashed uuid", "3d1219c7-c4c5-404a-aa1f-6d2a48adfda4", false, nullptr},
        {"uninitialized", "uninitialized\n", false, nullptr},
        {"empty", "", false, nullptr},
        {"null", nullptr, false, nullptr},
    };
    for (const MachineIdRow &row : rows) {
        SCOPED_TRACE(row.name);
        KELOsapiHostId id;
        std::memset(&id, 0xAB, sizeof(id));
        const int result = KELOsapiHost_parseMachineId(row.text, &id);
        EXPECT_EQ(result != 0, row.ok);
        if (row.ok) {
            EXPECT_EQ(hex(id), row.expected_hex);
        } else {
            EXPECT_EQ(hex(id), "abababababababababababababababab");  // untouched
        }
    }
    EXPECT_EQ(KELOsapiHost_parseMachineId("3d1219c7c4c5404aaa1f6d2a48adfda4", nullptr), 0);
}

// ---------------------------------------------------------------------
// Robust mutexes

TEST_F(HostTest, RobustMutexAnswerIsStable) {
    const int answer = KELOsapiSharedMemorySemMutex_useRobustMutex();
    EXPECT_TRUE(answer == 0 || answer == 1);
#if defined(__linux__) && defined(__GLIBC__)
    EXPECT_EQ(answer, 1);
#endif
    for (int i = 0; i < 10; ++i) EXPECT_EQ(KELOsapiSharedMemorySemMutex_useRobustMutex(), answer);
}

TEST_F(HostTest, RobustMutexCanBeForced) {
    const int real = KELOsapiSharedMemorySemMutex_useRobustMutex();
    struct Row {
        int mode;
        int expected;
    };
    const std::vector<Row> rows = {{0, 0},    {1, 1}, {-1, real}, {1, 1},
                                   {7, real}, {0, 0}, {-5, real}};
    for (const Row &row : rows) {
        SCOPED_TRACE(row.mode);
        KELOsapiSharedMemorySemMutex_forceRobustMutex(row.mode);
        EXPECT_EQ(KELOsapiSharedMemorySemMutex_useRobustMutex(), row.expected);
        EXPECT_EQ(KELOsapiSharedMemorySemMutex_useRobustMutex(), row.expected);
    }
}

// ---------------------------------------------------------------------
// Product versions

DDS_ProductVersion_t version(int major, int minor, int release, int revision) {
    return {static_cast<DDS_Char>(major), static_cast<DDS_Char>(minor),
            static_cast<DDS_Char>(release), static_cast<DDS_Char>(revision)};
}

int sign(int value) {
    return (value > 0) - (value < 0);
}

TEST_F(HostTest, ProductVersionOrder) {
    struct Row {
        const char *name;
        DDS_ProductVersion_t a;
        DDS_ProductVersion_t b;
        int expected;
    };
    const std::vector<Row> rows = {
        {"equal", version(6, 1, 0, 0), version(6, 1, 0, 0), 0},
        {"zero", version(0, 0, 0, 0), version(0, 0, 0, 0), 0},
        {"major", version(7, 0, 0, 0), version(6, 9, 9, 9), 1},
        {"minor", version(6, 0, 0, 0), version(6, 1, 0, 0), -1},
        {"release", version(4, 5, 1, 0), version(4, 5, 0, 9), 1},
        {"revision", version(7, 2, 0, 1), version(7, 2, 0, 0), 1},
        {"release '6' above 0", version(4, 5, '6', 0), version(4, 5, 0, 0), 1},
        {"release '6' equal", version(4, 5, '6', 0), version(4, 5, 54, 0), 0},
        {"release '6' below 6.0", version(4, 5, '6', 0), version(6, 0, 0, 0), -1},
        {"unsigned major", version(200, 0, 0, 0), version(5, 0, 0, 0), 1},
        {"unsigned minor", version(1, 128, 0, 0), version(1, 127, 0, 0), 1},
        {"unsigned revision", version(1, 1, 1, 255), version(1, 1, 1, 0), 1},
        {"minimum below robust", version(7, 1, 9, 9), version(7, 2, 0, 0), -1},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(sign(DDS_ProductVersion_compare(&row.a, &row.b)), row.expected);
        EXPECT_EQ(sign(DDS_ProductVersion_compare(&row.b, &row.a)), -row.expected);
    }
}

TEST_F(HostTest, NullProductVersionIsZero) {
    const DDS_ProductVersion_t zero = version(0, 0, 0, 0);
    const DDS_ProductVersion_t one = version(0, 0, 0, 1);
    EXPECT_EQ(DDS_ProductVersion_compare(nullptr, nullptr), 0);
    EXPECT_EQ(DDS_ProductVersion_compare(nullptr, &zero), 0);
    EXPECT_LT(DDS_ProductVersion_compare(nullptr, &one), 0);
    EXPECT_GT(DDS_ProductVersion_compare(&one, nullptr), 0);
}

// ---------------------------------------------------------------------
// Wire-protocol policy

TEST_F(HostTest, WireProtocolDefaults) {
    const DDS_WireProtocolQosPolicy policy = DDS_WireProtocolQosPolicy_INITIALIZER;
    EXPECT_EQ(policy.rtps_host_id, DDS_RTPS_AUTO_ID);
    EXPECT_EQ(policy.rtps_app_id, DDS_RTPS_AUTO_ID);
    EXPECT_EQ(policy.rtps_instance_id, DDS_RTPS_AUTO_ID);
    EXPECT_EQ(policy.rtps_auto_id_kind, DDS_RTPS_AUTO_ID_FROM_UUID);
    EXPECT_EQ(DDS_RTPS_AUTO_ID, 0u);
    EXPECT_EQ(static_cast<int>(DDS_RTPS_AUTO_ID_FROM_IP), 0);
    EXPECT_EQ(static_cast<int>(DDS_RTPS_AUTO_ID_FROM_MAC), 1);
    EXPECT_EQ(static_cast<int>(DDS_RTPS_AUTO_ID_FROM_UUID), 2);
}

// ---------------------------------------------------------------------
// Application-id generator

TEST_F(HostTest, GeneratorLivesOnTheLibraryHeap) {
    const KEL_UINT64 before = vesk::test::liveHeapBlocks();
    DDS_RtpsAppIdGenerator *generator = DDS_RtpsAppIdGenerator_new();
    ASSERT_NE(generator, nullptr);
    EXPECT_EQ(vesk::test::liveHeapBlocks(), before + 1);
    EXPECT_STREQ(KELOsapiHeap_getBlockTypeName(generator), "DDS_RtpsAppIdGenerator");
    EXPECT_EQ(KELOsapiHeap_getBlockTag(generator), VESK_TRANSPORT_HEAP_TAG);
    DDS_RtpsAppIdGenerator_delete(generator);
    EXPECT_EQ(vesk::test::liveHeapBlocks(), before);
    DDS_RtpsAppIdGenerator_delete(nullptr);
}

TEST_F(HostTest, GeneratorAllocationFailure) {
    for (long n = 1;; ++n) {
        SCOPED_TRACE(n);
        ASSERT_LT(n, 10);
        const KEL_UINT64 before = vesk::test::liveHeapBlocks();
        KELOsapiHeap_failAllocationAfter(n);
        DDS_RtpsAppIdGenerator *generator = DDS_RtpsAppIdGenerator_new();
        const bool pending = KELOsapiHeap_isFailurePending() != 0;
        KELOsapiHeap_failAllocationAfter(0);
        if (generator != nullptr) {
            EXPECT_TRUE(pending);  // succeeded before reaching the injected failure
            DDS_RtpsAppIdGenerator_delete(generator);
            break;
        }
        EXPECT_EQ(vesk::test::liveHeapBlocks(), before);
    }
}

// Every IPv4 address of an interface that is up and not a loopback.
std::set<KEL_UINT32> upIPv4Addresses() {
    std::set<KEL_UINT32> addresses;
    struct ifaddrs *list = nullptr;
    if (getifaddrs(&list) != 0) return addresses;
    for (struct ifaddrs *entry = list; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET) continue;
        if ((entry->ifa_flags & IFF_UP) == 0 || (entry->ifa_flags & IFF_LOOPBACK) != 0) continue;
        struct sockaddr_in address;
        std::memcpy(&address, entry->ifa_addr, sizeof(address));
        addresses.insert(ntohl(address.sin_addr.s_addr));
    }
    freeifaddrs(list);
    return addresses;
}

TEST_F(HostTest, HostIdIsAnAddressOfThisHost) {
    DDS_RtpsAppIdGenerator *generator = DDS_RtpsAppIdGenerator_new();
    ASSERT_NE(generator, nullptr);
    const KEL_UINT32 hostId = DDS_RtpsAppIdGenerator_get_rtps_host_id(generator);
    EXPECT_EQ(DDS_RtpsAppIdGenerator_get_rtps_host_id(generator), hostId);
    EXPECT_EQ(DDS_RtpsAppIdGenerator_get_rtps_host_id(nullptr), hostId);
    const std::set<KEL_UINT32> addresses = upIPv4Addresses();
    if (hostId == 0x7F000001u) {
        for (KEL_UINT32 address : addresses) EXPECT_EQ(address >> 24, 127u) << std::hex << address;
    } else {
        EXPECT_NE(hostId >> 24, 127u);
        EXPECT_EQ(addresses.count(hostId), 1u) << std::hex << hostId;
    }
    DDS_RtpsAppIdGenerator_delete(generator);
}

// The MAC rule worked out independently from /sys/class/net.
bool expectedMacHostId(KEL_UINT32 *value_out) {
    struct Candidate {
        unsigned index;
        bool up;
        KEL_UINT32 value;
    };
    std::vector<Candidate> candidates;
    struct if_nameindex *names = if_nameindex();
    if (names == nullptr) return false;
    for (struct if_nameindex *name = names; name->if_index != 0; ++name) {
        const std::string directory = std::string("/sys/class/net/") + name->if_name + "/";
        std::string flagsText;
        std::string address;
        if (!readFile(directory + "flags", &flagsText) ||
            !readFile(directory + "address", &address))
            continue;
        const unsigned long flags = std::stoul(flagsText, nullptr, 0);
        unsigned bytes[6];
        if ((flags & IFF_LOOPBACK) != 0 ||
            std::sscanf(address.c_str(), "%x:%x:%x:%x:%x:%x", &bytes[0], &bytes[1], &bytes[2],
                        &bytes[3], &bytes[4], &bytes[5]) != 6)
            continue;
        if ((bytes[0] | bytes[1] | bytes[2] | bytes[3] | bytes[4] | bytes[5]) == 0) continue;
        candidates.push_back({name->if_index, (flags & IFF_UP) != 0,
                              (bytes[2] << 24) | (bytes[3] << 16) | (bytes[4] << 8) | bytes[5]});
    }
    if_freenameindex(names);
    const Candidate *best = nullptr;
    for (const Candidate &candidate : candidates) {
        if (best == nullptr || (candidate.up && !best->up) ||
            (candidate.up == best->up && candidate.index < best->index))
            best = &candidate;
    }
    if (best == nullptr) return false;
    *value_out = best->value;
    return true;
}

TEST_F(HostTest, HostIdFromMacMatchesTheInterfaces) {
    DDS_RtpsAppIdGenerator *generator = DDS_RtpsAppIdGenerator_new();
    ASSERT_NE(generator, nullptr);
    const KEL_UINT32 fromMac = DDS_RtpsAppIdGenerator_get_rtps_host_id_from_mac(generator);
    EXPECT_EQ(DDS_RtpsAppIdGenerator_get_rtps_host_id_from_mac(nullptr), fromMac);
    KEL_UINT32 expected = 0;
    if (expectedMacHostId(&expected)) {
        EXPECT_EQ(fromMac, expected) << std::hex << fromMac << " " << expected;
    } else {
        // No MAC address at all: the IPv4 host id stands in.
        EXPECT_EQ(fromMac, DDS_RtpsAppIdGenerator_get_rtps_host_id(generator));
    }
    DDS_RtpsAppIdGenerator_delete(generator);
}

TEST_F(HostTest, HostIdsCanBeSetPerGenerator) {
    DDS_RtpsAppIdGenerator *generator = DDS_RtpsAppIdGenerator_new();
    DDS_RtpsAppIdGenerator *untouched = DDS_RtpsAppIdGenerator_new();
    ASSERT_NE(generator, nullptr);
    ASSERT_NE(untouched, nullptr);
    const KEL_UINT32 realHost = DDS_RtpsAppIdGenerator_get_rtps_host_id(untouched);
    const KEL_UINT32 realMac = DDS_RtpsAppIdGenerator_get_rtps_host_id_from_mac(untouched);
    struct Row {
        KEL_UINT32 host;
        KEL_UINT32 mac;
    };
    const std::vector<Row> rows = {{0x7F000001u, 0x00000001u},
                                   {0u, 0u},
                                   {0xC0A80001u, 0xDEADBEEFu},
                                   {0xFFFFFFFFu, 0x7F000001u}};
    for (const Row &row : rows) {
        SCOPED_TRACE(row.host);
        DDS_RtpsAppIdGenerator_set_host_ids(generator, row.host, row.mac);
        EXPECT_EQ(DDS_RtpsAppIdGenerator_get_rtps_host_id(generator), row.host);
        EXPECT_EQ(DDS_RtpsAppIdGenerator_get_rtps_host_id_from_mac(generator), row.mac);
        EXPECT_EQ(DDS_RtpsAppIdGenerator_get_rtps_host_id(untouched), realHost);
        EXPECT_EQ(DDS_RtpsAppIdGenerator_get_rtps_host_id_from_mac(untouched), realMac);
    }
    DDS_RtpsAppIdGenerator_set_host_ids(nullptr, 1, 2);  // ignored
    EXPECT_EQ(DDS_RtpsAppIdGenerator_get_rtps_host_id(nullptr), realHost);
    DDS_RtpsAppIdGenerator_delete(generator);
    DDS_RtpsAppIdGenerator_delete(untouched);
}

TEST_F(HostTest, AppIdsCarryThePidAndDiffer) {
    DDS_RtpsAppIdGenerator *generator = DDS_RtpsAppIdGenerator_new();
    ASSERT_NE(generator, nullptr);
    const KEL_UINT32 pid = static_cast<KEL_UINT32>(getpid());
    std::set<KEL_UINT32> ids;
    for (int i = 0; i < 256; ++i) {
        const KEL_UINT32 id = DDS_RtpsAppIdGenerator_get_rtps_app_id(i % 2 ? generator : nullptr);
        EXPECT_EQ(id >> 8, pid & 0xFFFFFFu);
        EXPECT_NE(id, 0u);
        ids.insert(id);
    }
    EXPECT_EQ(ids.size(), 256u);
    DDS_RtpsAppIdGenerator_delete(generator);
}

}  // namespace
