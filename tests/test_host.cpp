// Host and shared-memory services: the host identity and host ids read from
// interfaces and files that a namespace of the test's own provides, robust
// mutexes, product versions and the application-id generator.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "support/Isolated.hpp"
#include "support/PlatformChecks.hpp"
#include "vesk_transport/platform/Host.h"

namespace {

using vesk::test::hex;

// Every hook is process-wide: leave none set for the next test.
class HostTest : public ::testing::Test {
protected:
    void TearDown() override {
        KELOsapiHost_setUniqueIdOverride(nullptr);
        KELOsapiSharedMemorySemMutex_forceRobustMutex(-1);
    }
};

TEST_F(HostTest, MachineIdTexts) {
    // First in this executable: no override is set before the first one.
    KELOsapiHostIdSource source;
    KELOsapiHostId id;
    ASSERT_NE(KELOsapiHost_getUniqueIdWithSource(&id, &source), 0);
    EXPECT_NE(source, KEL_OSAPI_HOST_ID_SOURCE_OVERRIDE);
    // Second: nullptr for a refusal that leaves the id untouched.
    const std::pair<const char *, const char *> rows[] = {
        {"3d1219c7c4c5404aaa1f6d2a48adfda4\n", "3d1219c7c4c5404aaa1f6d2a48adfda4"},
        {"0123456789ABCDEFabcdef0000000001", "0123456789abcdefabcdef0000000001"},
        {"00000000000000000000000000000000\n", nullptr},
        {"3d1219c7c4c5404aaa1f6d2a48adfda", nullptr},
        {"3d1219c7c4c5404aaa1f6d2a48adfda4a", nullptr},
        {"3d1219c7c4c5404aaa1f6d2a48adfda4\n\n", nullptr},
        {"3d1219c7c4c5404aaa1f6d2a48adfda4\r\n", nullptr},
        {"3d1219c7c4c5404aaa1f6d2a48adfdg4", nullptr},
        {"", nullptr},
        {nullptr, nullptr}};
    const std::string kUntouched = hex(std::string(16, '\xab').data(), 16);
    for (const auto &[text, expected] : rows) {
        SCOPED_TRACE(text != nullptr ? text : "(null)");
        std::memset(&id, 0xAB, sizeof id);
        EXPECT_EQ(KELOsapiHost_parseMachineId(text, &id) != 0, expected != nullptr);
        EXPECT_EQ(hex(id.value, 16), expected != nullptr ? expected : kUntouched);
    }
    EXPECT_EQ(KELOsapiHost_parseMachineId("3d1219c7c4c5404aaa1f6d2a48adfda4", nullptr), 0);
}

// "source hex-id host-id host-id-from-mac", read inside the namespace.
std::string identity() {
    KELOsapiHostId id;
    KELOsapiHostIdSource source;
    if (KELOsapiHost_getUniqueIdWithSource(&id, &source) == 0) return "refused";
    KELOsapiHostId plain;
    KELOsapiHost_getUniqueId(&plain);
    char ids[64];
    std::snprintf(ids, sizeof ids, " %08x %08x", DDS_RtpsAppIdGenerator_get_rtps_host_id(nullptr),
                  DDS_RtpsAppIdGenerator_get_rtps_host_id_from_mac(nullptr));
    return std::to_string(source) + " " + hex(id.value, 16) +
           (std::memcmp(&id, &plain, sizeof id) == 0 ? "" : " (differs)") + ids;
}

TEST_F(HostTest, IdentityComesFromTheFirstSourceThatHasOne) {
    // v1 (down, made first) and v0 (up) have MAC addresses of our choice;
    // v0 holds the only IPv4 address outside the loopback range.
    const std::string link =
        "ip link add v0 type veth peer name v1 && ip link set v1 address 02:00:00:11:22:33 && "
        "ip link set v0 address 02:00:00:aa:bb:cc up && ip link set lo up";
    // A loopback-range address listed first on v0 does not count either.
    const std::string address =
        " && ip addr add 127.0.0.2/8 dev v0 && ip addr add 198.51.100.7/24 dev v0";
    const struct {
        std::string commands, machineId, dbusId;  // "": no such file
        const char *expected;
    } rows[] = {
        {link + address, "3d1219c7c4c5404aaa1f6d2a48adfda4\n", "0123456789abcdef0123456789abcdef\n",
         "1 3d1219c7c4c5404aaa1f6d2a48adfda4 c6336407 00aabbcc"},
        {link + address, "uninitialized\n", "0123456789abcdef0123456789abcdef\n",
         "2 0123456789abcdef0123456789abcdef c6336407 00aabbcc"},
        {link + address, "", "", "3 c6336407000000000000000000000000 c6336407 00aabbcc"},
        // An address on a down interface does not count; then only the loopback.
        {link + " && ip link set v0 down" + address, "", "",
         "4 7f000001000000000000000000000000 7f000001 00112233"},
        {"ip link set lo up", "", "", "4 7f000001000000000000000000000000 7f000001 7f000001"}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.expected);
        const vesk::test::Isolation isolation{
            row.commands,
            {"/etc", "/var/lib"},
            {{row.machineId.empty() ? "" : "/etc/machine-id", row.machineId},
             {row.dbusId.empty() ? "" : "/var/lib/dbus/machine-id", row.dbusId}}};
        const std::string got = vesk::test::runIsolated(isolation, identity);
        if (got.rfind("SKIP", 0) == 0) GTEST_SKIP() << got;
        EXPECT_EQ(got, row.expected);
    }
}

TEST_F(HostTest, OverrideReplacesTheSourcesAndNullRestoresThem) {
    KELOsapiHostId real, id;
    KELOsapiHostIdSource source;
    ASSERT_NE(KELOsapiHost_getUniqueIdWithSource(&real, &source), 0);
    EXPECT_NE(source, KEL_OSAPI_HOST_ID_SOURCE_OVERRIDE);
    KELOsapiHostId given = {{127, 0, 0, 1, 9}};
    KELOsapiHost_setUniqueIdOverride(&given);
    given.value[4] = 8;  // the hook keeps its own copy
    ASSERT_NE(KELOsapiHost_getUniqueIdWithSource(&id, &source), 0);
    EXPECT_EQ(hex(id.value, 16), "7f00000109" + std::string(22, '0'));
    EXPECT_EQ(source, KEL_OSAPI_HOST_ID_SOURCE_OVERRIDE);
    KELOsapiHost_setUniqueIdOverride(nullptr);
    ASSERT_NE(KELOsapiHost_getUniqueIdWithSource(&id, nullptr), 0);
    EXPECT_EQ(hex(id.value, 16), hex(real.value, 16));
    EXPECT_FALSE(KELOsapiHost_getUniqueId(nullptr) ||
                 KELOsapiHost_getUniqueIdWithSource(nullptr, &source));
}

TEST_F(HostTest, RobustMutexAnswerIsStableUnlessForced) {
    const int real = KELOsapiSharedMemorySemMutex_useRobustMutex();
#if defined(__linux__) && defined(__GLIBC__)
    EXPECT_EQ(real, 1);
#endif
    const int rows[][2] = {{1, 1}, {-1, real}, {0, 0}, {7, real}, {1, 1}, {-5, real}};
    for (const auto &[mode, expected] : rows) {
        SCOPED_TRACE(mode);
        KELOsapiSharedMemorySemMutex_forceRobustMutex(mode);
        EXPECT_EQ(KELOsapiSharedMemorySemMutex_useRobustMutex(), expected);
        EXPECT_EQ(KELOsapiSharedMemorySemMutex_useRobustMutex(), expected);
    }
}

TEST_F(HostTest, ProductVersionsCompareFieldByFieldAsUnsigned) {
    const struct {
        int a[4], b[4], expected;
    } rows[] = {{{6, 1, 0, 0}, {6, 1, 0, 0}, 0},  {{7, 0, 0, 0}, {6, 9, 9, 9}, 1},
                {{6, 0, 0, 0}, {6, 1, 0, 0}, -1}, {{4, 5, 1, 0}, {4, 5, 0, 9}, 1},
                {{7, 2, 0, 1}, {7, 2, 0, 0}, 1},  {{200, 0, 0, 0}, {5, 0, 0, 0}, 1},
                {{1, 1, 1, 255}, {1, 1, 1, 0}, 1}};
    auto version = [](const int(&v)[4]) {
        return DDS_ProductVersion_t{static_cast<DDS_Char>(v[0]), static_cast<DDS_Char>(v[1]),
                                    static_cast<DDS_Char>(v[2]), static_cast<DDS_Char>(v[3])};
    };
    for (const auto &row : rows) {
        const DDS_ProductVersion_t a = version(row.a), b = version(row.b);
        SCOPED_TRACE(testing::Message() << &row - rows);
        EXPECT_EQ(vesk::test::sign(DDS_ProductVersion_compare(&a, &b)), row.expected);
        EXPECT_EQ(vesk::test::sign(DDS_ProductVersion_compare(&b, &a)), -row.expected);
    }
    const DDS_ProductVersion_t zero = {0, 0, 0, 0}, one = {0, 0, 0, 1};
    EXPECT_EQ(DDS_ProductVersion_compare(nullptr, &zero), 0);  // null is 0.0.0.0
    EXPECT_LT(DDS_ProductVersion_compare(nullptr, &one), 0);
    EXPECT_GT(DDS_ProductVersion_compare(&one, nullptr), 0);
}

TEST_F(HostTest, GeneratorLivesOnTheHeapAndAnswersItsOwnHostIds) {
    EXPECT_TRUE(vesk::test::refusing(1, [] { EXPECT_EQ(DDS_RtpsAppIdGenerator_new(), nullptr); }));
    DDS_RtpsAppIdGenerator *generator = DDS_RtpsAppIdGenerator_new();
    DDS_RtpsAppIdGenerator *untouched = DDS_RtpsAppIdGenerator_new();
    ASSERT_TRUE(generator != nullptr && untouched != nullptr);
    EXPECT_STREQ(KELOsapiHeap_getBlockTypeName(generator), "DDS_RtpsAppIdGenerator");
    const KEL_UINT32 host = DDS_RtpsAppIdGenerator_get_rtps_host_id(nullptr);
    const KEL_UINT32 mac = DDS_RtpsAppIdGenerator_get_rtps_host_id_from_mac(nullptr);
    EXPECT_EQ(DDS_RtpsAppIdGenerator_get_rtps_host_id(untouched), host);
    EXPECT_EQ(DDS_RtpsAppIdGenerator_get_rtps_host_id_from_mac(untouched), mac);
    for (const KEL_UINT32 set : {0u, 0x7F000001u, 0xDEADBEEFu}) {
        DDS_RtpsAppIdGenerator_set_host_ids(generator, set, ~set);
        EXPECT_EQ(DDS_RtpsAppIdGenerator_get_rtps_host_id(generator), set);
        EXPECT_EQ(DDS_RtpsAppIdGenerator_get_rtps_host_id_from_mac(generator), ~set);
        EXPECT_EQ(DDS_RtpsAppIdGenerator_get_rtps_host_id_from_mac(untouched), mac);
    }
    DDS_RtpsAppIdGenerator_set_host_ids(nullptr, 1, 2);  // ignored
    EXPECT_EQ(DDS_RtpsAppIdGenerator_get_rtps_host_id(nullptr), host);

    // Application ids: the pid above 256 consecutive different counts.
    std::set<KEL_UINT32> ids;
    for (int i = 0; i < 256; ++i) {
        const KEL_UINT32 id = DDS_RtpsAppIdGenerator_get_rtps_app_id(i % 2 ? generator : nullptr);
        EXPECT_EQ(id >> 8, static_cast<KEL_UINT32>(getpid()) & 0xFFFFFFu);
        ids.insert(id);
    }
    EXPECT_EQ(ids.size(), 256u);
    DDS_RtpsAppIdGenerator_delete(generator);
    DDS_RtpsAppIdGenerator_delete(untouched);
    DDS_RtpsAppIdGenerator_delete(nullptr);
}

}  // namespace
