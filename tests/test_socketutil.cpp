// Socket utilities: address texts, the invalid address, address equality.
//
// Name resolution is exercised with "localhost" only (answered by the
// host's own table); every other text here fails before any resolver.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "support/TestSupport.hpp"
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

const std::string kUntouched(32, 'e');  // 0xEE in every byte

VESK_Transport_Address_t untouchedAddress() {
    VESK_Transport_Address_t address;
    std::memset(&address, 0xEE, sizeof(address));
    return address;
}

struct TextRow {
    const char *text;
    int flag;
    const char *expected_hex;  // nullptr: must fail and leave the address untouched
};

TEST(SocketUtilTest, AddressTexts) {
    const char *kV4Prefix = "000000000000000000000000";
    const std::vector<TextRow> rows = {
        // IPv4: twelve zero bytes, then the address.
        {"192.0.2.1", 0, "000000000000000000000000c0000201"},
        {"239.255.1.2", 0, "000000000000000000000000efff0102"},
        {"127.0.0.1", 1, "0000000000000000000000007f000001"},
        {"255.255.255.255", 0, "000000000000000000000000ffffffff"},
        {"0.0.0.0", 0, "00000000000000000000000000000000"},
        // IPv6, with the mapped form kept as written.
        {"::1", 0, "00000000000000000000000000000001"},
        {"fd00::2", 1, "fd000000000000000000000000000002"},
        {"2001:db8:0:1:2:3:4:5", 0, "20010db8000000010002000300040005"},
        {"::ffff:1.2.3.4", 0, "00000000000000000000ffff01020304"},
        {"::", 0, "00000000000000000000000000000000"},
        {"FE80::ABCD", 0, "fe80000000000000000000000000abcd"},
        // Malformed numbers, with either flag.
        {"1.2.3", 0, nullptr},
        {"1.2.3", 1, nullptr},
        {"1.2.3.4.5", 1, nullptr},
        {"256.1.1.1", 1, nullptr},
        {"1.2.3.-4", 1, nullptr},
        {"0x7f000001", 1, nullptr},
        {"0x7f.1", 1, nullptr},
        {"017.0.0.1", 1, nullptr},
        {"-a.example", 1, nullptr},
        {"a-.example", 1, nullptr},
        {"example.a-", 1, nullptr},
        {" 1.2.3.4", 1, nullptr},
        {"1.2.3.4 ", 1, nullptr},
        {"1.2.3.4\n", 1, nullptr},
        {"::1::2", 1, nullptr},
        {"fe80::1%eth0", 1, nullptr},
        {"[::1]", 1, nullptr},
        {"12345::", 1, nullptr},
        // Names: refused without the flag, malformed ones refused with it.
        {"localhost", 0, nullptr},
        {"bad..name", 1, nullptr},
        {".leading", 1, nullptr},
        {"two..", 1, nullptr},
        {"with space", 1, nullptr},
        {"under/score", 1, nullptr},
        {"a,b", 1, nullptr},
        {"", 0, nullptr},
        {"", 1, nullptr},
    };
    for (const TextRow &row : rows) {
        SCOPED_TRACE(std::string("\"") + row.text + "\" flag " + std::to_string(row.flag));
        VESK_Transport_Address_t address = untouchedAddress();
        const int result = VESK_Transport_SocketUtil_StringAddress_to_transportAddress(
            &address, row.text, row.flag);
        if (row.expected_hex != nullptr) {
            EXPECT_NE(result, 0);
            EXPECT_EQ(hex(address), row.expected_hex);
            if (std::strchr(row.text, ':') == nullptr) {
                EXPECT_EQ(hex(address).substr(0, 24), kV4Prefix);
            }
        } else {
            EXPECT_EQ(result, 0);
            EXPECT_EQ(hex(address), kUntouched);
        }
    }
}

TEST(SocketUtilTest, OverlongNameIsRefusedWithoutResolving) {
    const std::vector<std::string> rows = {
        std::string(64, 'a') + ".example",  // a label over 63 characters
        std::string(250, 'a') + ".bcd",     // over 253 characters
    };
    for (const std::string &text : rows) {
        SCOPED_TRACE(text.size());
        VESK_Transport_Address_t address = untouchedAddress();
        EXPECT_EQ(
            VESK_Transport_SocketUtil_StringAddress_to_transportAddress(&address, text.c_str(), 1),
            0);
        EXPECT_EQ(hex(address), kUntouched);
    }
}

TEST(SocketUtilTest, LocalhostResolvesToItsIPv4Address) {
    VESK_Transport_Address_t address = untouchedAddress();
    ASSERT_NE(VESK_Transport_SocketUtil_StringAddress_to_transportAddress(&address, "localhost", 1),
              0);
    // IPv4 is preferred when a name has both kinds of address.
    EXPECT_EQ(hex(address), "0000000000000000000000007f000001");
}

TEST(SocketUtilTest, NullArgumentsAreRefused) {
    VESK_Transport_Address_t address = untouchedAddress();
    EXPECT_EQ(VESK_Transport_SocketUtil_StringAddress_to_transportAddress(&address, nullptr, 0), 0);
    EXPECT_EQ(VESK_Transport_SocketUtil_StringAddress_to_transportAddress(&address, nullptr, 1), 0);
    EXPECT_EQ(hex(address), kUntouched);
    EXPECT_EQ(VESK_Transport_SocketUtil_StringAddress_to_transportAddress(nullptr, "1.2.3.4", 0),
              0);
    EXPECT_EQ(VESK_Transport_SocketUtil_StringAddress_to_transportAddress(nullptr, "localhost", 1),
              0);
}

TEST(SocketUtilTest, InvalidAddressIsAllZero) {
    EXPECT_EQ(hex(VESK_TRANSPORT_ADDRESS_INVALID), std::string(32, '0'));
    VESK_Transport_Address_t zero;
    std::memset(&zero, 0, sizeof(zero));
    EXPECT_NE(VESK_Transport_Address_is_equal(&zero, &VESK_TRANSPORT_ADDRESS_INVALID), 0);
}

TEST(SocketUtilTest, Equality) {
    VESK_Transport_Address_t base;
    ASSERT_NE(VESK_Transport_SocketUtil_StringAddress_to_transportAddress(&base, "fd00::1:2", 0),
              0);
    struct Row {
        const char *name;
        int changed_byte;  // -1: identical copy
        bool equal;
    };
    const std::vector<Row> rows = {{"identical", -1, true},
                                   {"first byte", 0, false},
                                   {"middle byte", 7, false},
                                   {"last byte", 15, false}};
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        VESK_Transport_Address_t other = base;
        if (row.changed_byte >= 0) other.network_ordered_value[row.changed_byte] ^= 0x01;
        EXPECT_EQ(VESK_Transport_Address_is_equal(&base, &other) != 0, row.equal);
        EXPECT_EQ(VESK_Transport_Address_is_equal(&other, &base) != 0, row.equal);
    }
    EXPECT_NE(VESK_Transport_Address_is_equal(&base, &base), 0);
    EXPECT_NE(VESK_Transport_Address_is_equal(nullptr, nullptr), 0);
    EXPECT_EQ(VESK_Transport_Address_is_equal(&base, nullptr), 0);
    EXPECT_EQ(VESK_Transport_Address_is_equal(nullptr, &VESK_TRANSPORT_ADDRESS_INVALID), 0);
    EXPECT_EQ(VESK_Transport_Address_is_equal(&base, &VESK_TRANSPORT_ADDRESS_INVALID), 0);
}

}  // namespace
