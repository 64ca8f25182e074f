// Configurator utilities: the layout of generated default addresses.
#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "support/TestSupport.hpp"
#include "vesk_transport/platform/ConfiguratorUtil.h"
#include "vesk_transport/platform/SocketUtil.h"

namespace {

std::string hex(const VESK_Transport_Address_t &address) {
    std::string text;
    char digits[3];
    for (unsigned char byte : address.network_ordered_value) {
        std::snprintf(digits, sizeof(digits), "%02x", byte);
        text += digits;
    }
    return text;
}

struct Row {
    const char *name;
    VESK_Transport_ClassId_t classid;
    KEL_UINT32 host_id;
    KEL_UINT32 app_id;
    KEL_UINT32 instance_id;
    KEL_UINT32 reserved;
    const char *expected_hex;  // nullptr: must fail and leave the address untouched
};

TEST(ConfiguratorUtilTest, GeneratedAddressLayout) {
    const std::vector<Row> rows = {
        // What the shared-memory setup asks for: host id and 0, 0, 0.
        {"shmem, host 0", VESK_TRANSPORT_CLASSID_SHMEM, 0, 0, 0, 0,
         "01000000000000000000000000000000"},
        {"shmem, host id", VESK_TRANSPORT_CLASSID_SHMEM, 0xC0000202u, 0, 0, 0,
         "01000000c00002020000000000000000"},
        {"every field", VESK_TRANSPORT_CLASSID_UDPv4, 0x01020304u, 0xA0B0C0D0u, 0x00FF00FFu, 0,
         "0000000101020304a0b0c0d000ff00ff"},
        {"reserved ignored", VESK_TRANSPORT_CLASSID_UDPv4, 0x01020304u, 0xA0B0C0D0u, 0x00FF00FFu,
         0xFFFFFFFFu, "0000000101020304a0b0c0d000ff00ff"},
        {"wan, all ones", VESK_TRANSPORT_CLASSID_UDPv4_WAN, 0xFFFFFFFFu, 0xFFFFFFFFu, 0xFFFFFFFFu,
         0, "01000001ffffffffffffffffffffffff"},
        {"largest class", INT32_MAX, 0, 0, 1, 0, "7fffffff000000000000000000000001"},
        {"class 0", 0, 1, 2, 3, 0, nullptr},
        {"class -1", VESK_TRANSPORT_CLASSID_INVALID, 1, 2, 3, 0, nullptr},
        {"class INT32_MIN", INT32_MIN, 1, 2, 3, 0, nullptr},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        VESK_Transport_Address_t address;
        std::memset(&address, 0xEE, sizeof(address));
        const int result = KELNetioConfiguratorUtil_generateDefaultNetworkAddress96(
            &address, row.classid, row.host_id, row.app_id, row.instance_id, row.reserved);
        if (row.expected_hex != nullptr) {
            EXPECT_NE(result, 0);
            EXPECT_EQ(hex(address), row.expected_hex);
            // A generated address is never taken for "no address".
            EXPECT_EQ(VESK_Transport_Address_is_equal(&address, &VESK_TRANSPORT_ADDRESS_INVALID),
                      0);
        } else {
            EXPECT_EQ(result, 0);
            EXPECT_EQ(hex(address), std::string(32, 'e'));
        }
    }
}

TEST(ConfiguratorUtilTest, NullAddressIsRefused) {
    EXPECT_EQ(KELNetioConfiguratorUtil_generateDefaultNetworkAddress96(
                  nullptr, VESK_TRANSPORT_CLASSID_SHMEM, 1, 2, 3, 0),
              0);
}

TEST(ConfiguratorUtilTest, ClassesWithTheSameIdsGetDifferentAddresses) {
    const std::vector<VESK_Transport_ClassId_t> classes = {
        VESK_TRANSPORT_CLASSID_UDPv4, VESK_TRANSPORT_CLASSID_UDPv6,
        VESK_TRANSPORT_CLASSID_UDPv6_510, VESK_TRANSPORT_CLASSID_SHMEM,
        VESK_TRANSPORT_CLASSID_UDPv4_WAN};
    std::vector<VESK_Transport_Address_t> addresses;
    for (VESK_Transport_ClassId_t classid : classes) {
        VESK_Transport_Address_t address;
        ASSERT_NE(KELNetioConfiguratorUtil_generateDefaultNetworkAddress96(&address, classid,
                                                                           0x7F000001u, 0, 0, 0),
                  0);
        for (const VESK_Transport_Address_t &earlier : addresses) {
            EXPECT_EQ(VESK_Transport_Address_is_equal(&address, &earlier), 0) << classid;
        }
        addresses.push_back(address);
    }
}

}  // namespace
