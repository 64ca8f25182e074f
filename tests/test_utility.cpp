// String and number utilities: strict conversions, trimming, bounded
// copies and comparisons.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "support/TestSupport.hpp"
#include "vesk_transport/platform/Utility.h"

namespace {

constexpr KEL_INT32 kUntouched = 0x5A5A5A5A;
constexpr KEL_UINT32 kUntouchedU = 0xA5A5A5A5u;

struct SignedRow {
    const char *text;
    bool ok;
    KEL_INT32 value;
};

const std::vector<SignedRow> kSignedRows = {
    {"0", true, 0},
    {"1", true, 1},
    {"-1", true, -1},
    {"+1", true, 1},
    {"-0", true, 0},
    {"+0", true, 0},
    {"007", true, 7},
    {"2147483647", true, INT32_MAX},
    {"-2147483648", true, INT32_MIN},
    {"2147483648", false, 0},
    {"-2147483649", false, 0},
    {"4294967295", false, 0},
    {"99999999999999999999999", false, 0},
    {"0x0", true, 0},
    {"0x10", true, 16},
    {"0XfF", true, 255},
    {"0x7fffffff", true, INT32_MAX},
    {"0x80000000", false, 0},
    {"-0x80000000", true, INT32_MIN},
    {"-0x80000001", false, 0},
    {"+0x1A", true, 26},
    {"0xffffffff", false, 0},
    {"", false, 0},
    {"+", false, 0},
    {"-", false, 0},
    {"0x", false, 0},
    {"-0x", false, 0},
    {"0xg", false, 0},
    {" 1", false, 0},
    {"1 ", false, 0},
    {"\t1", false, 0},
    {"1\n", false, 0},
    {"1 2", false, 0},
    {"+-1", false, 0},
    {"--1", false, 0},
    {"1e3", false, 0},
    {"1.0", false, 0},
    {"12abc", false, 0},
    {"abc", false, 0},
    {"ff", false, 0},
    {"0b101", false, 0},
    {"{\"a\":1}", false, 0},
    {"[1]", false, 0},
    {"\"1\"", false, 0},
    {"x10", false, 0},
};

TEST(Utility, StrtolAcceptsExactlyOneSignedNumber) {
    for (const auto &row : kSignedRows) {
        SCOPED_TRACE(testing::Message() << "\"" << row.text << "\"");
        KEL_INT32 value = kUntouched;
        EXPECT_EQ(KELOsapiUtility_strtol(row.text, &value), row.ok ? 1 : 0);
        EXPECT_EQ(value, row.ok ? row.value : kUntouched);
    }
}

TEST(Utility, StrtolWithBaseZeroAndNoEndIsStrtol) {
    for (const auto &row : kSignedRows) {
        SCOPED_TRACE(testing::Message() << "\"" << row.text << "\"");
        KEL_INT32 value = kUntouched;
        EXPECT_EQ(KELOsapiUtility_strtolWithBase(row.text, &value, 0, nullptr), row.ok ? 1 : 0);
        EXPECT_EQ(value, row.ok ? row.value : kUntouched);
    }
}

struct UnsignedRow {
    const char *text;
    bool ok;
    KEL_UINT32 value;
};

const std::vector<UnsignedRow> kUnsignedRows = {
    {"0", true, 0},
    {"+0", true, 0},
    {"1", true, 1},
    {"+17", true, 17},
    {"2147483648", true, 0x80000000u},
    {"4294967295", true, UINT32_MAX},
    {"4294967296", false, 0},
    {"18446744073709551616", false, 0},
    {"0xffffffff", true, UINT32_MAX},
    {"0x100000000", false, 0},
    {"0XABCDEF01", true, 0xABCDEF01u},
    {"-0", false, 0},
    {"-1", false, 0},
    {"-0x1", false, 0},
    {"", false, 0},
    {"+", false, 0},
    {"0x", false, 0},
    {" 1", false, 0},
    {"1 ", false, 0},
    {"1e3", false, 0},
    {"1,000", false, 0},
    {"{\"a\":1}", false, 0},
};

TEST(Utility, UnsignedConversionsAcceptOnlyPlusAndTheFullRange) {
    for (const auto &row : kUnsignedRows) {
        SCOPED_TRACE(testing::Message() << "\"" << row.text << "\"");
        KEL_UINT32 value = kUntouchedU;
        EXPECT_EQ(KELOsapiUtility_strtoul(row.text, &value), row.ok ? 1 : 0);
        EXPECT_EQ(value, row.ok ? row.value : kUntouchedU);
        value = kUntouchedU;
        EXPECT_EQ(REDAString_strToUnsignedLong(row.text, &value), row.ok ? 1 : 0);
        EXPECT_EQ(value, row.ok ? row.value : kUntouchedU);
    }
}

TEST(Utility, NullArgumentsFailEveryConversion) {
    KEL_INT32 value = kUntouched;
    KEL_UINT32 valueU = kUntouchedU;
    void *pointer = &value;
    int flag = 7;
    EXPECT_EQ(KELOsapiUtility_strtol(nullptr, &value), 0);
    EXPECT_EQ(KELOsapiUtility_strtol("1", nullptr), 0);
    EXPECT_EQ(KELOsapiUtility_strtoul(nullptr, &valueU), 0);
    EXPECT_EQ(KELOsapiUtility_strtoul("1", nullptr), 0);
    EXPECT_EQ(KELOsapiUtility_strtolWithBase(nullptr, &value, 0, nullptr), 0);
    EXPECT_EQ(KELOsapiUtility_strtolWithBase("1", nullptr, 0, nullptr), 0);
    EXPECT_EQ(KELOsapiUtility_strtoptr(nullptr, &pointer), 0);
    EXPECT_EQ(KELOsapiUtility_strtoptr("1", nullptr), 0);
    EXPECT_EQ(REDAString_strToUnsignedLong(nullptr, &valueU), 0);
    EXPECT_EQ(REDAString_strToBoolean(nullptr, &flag), 0);
    EXPECT_EQ(REDAString_strToBoolean("true", nullptr), 0);
    EXPECT_EQ(value, kUntouched);
    EXPECT_EQ(valueU, kUntouchedU);
    EXPECT_EQ(pointer, &value);
    EXPECT_EQ(flag, 7);
}

TEST(Utility, StrtolWithBaseReadsDigitsOfThatBaseOnly) {
    struct Row {
        const char *text;
        int base;
        bool ok;
        KEL_INT32 value;
    };
    const Row rows[] = {
        {"101", 2, true, 5},
        {"-101", 2, true, -5},
        {"102", 2, false, 0},
        {"777", 8, true, 511},
        {"8", 8, false, 0},
        {"ff", 16, true, 255},
        {"FF", 16, true, 255},
        {"0xff", 16, false, 0},  // no prefix outside base 0
        {"7fffffff", 16, true, INT32_MAX},
        {"80000000", 16, false, 0},
        {"-80000000", 16, true, INT32_MIN},
        {"z", 36, true, 35},
        {"Zz", 36, true, 35 * 36 + 35},
        {"zzzzzzz", 36, false, 0},
        {"+9", 10, true, 9},
        {"", 10, false, 0},
        {"-", 10, false, 0},
        {"1", 1, false, 0},
        {"1", 37, false, 0},
        {"1", -1, false, 0},
        {"0x10", 0, true, 16},
        {"010", 0, true, 10},  // base 0 reads a leading zero as decimal
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::Message() << "\"" << row.text << "\" base " << row.base);
        KEL_INT32 value = kUntouched;
        EXPECT_EQ(KELOsapiUtility_strtolWithBase(row.text, &value, row.base, nullptr),
                  row.ok ? 1 : 0);
        EXPECT_EQ(value, row.ok ? row.value : kUntouched);
    }
}

TEST(Utility, StrtolWithBaseAndEndStopsAfterTheNumber) {
    struct Row {
        const char *text;
        int base;
        bool ok;
        KEL_INT32 value;
        size_t consumed;  // characters read; 0 on failure (end is the text)
    };
    const Row rows[] = {
        {"12abc", 0, true, 12, 2},
        {"12", 0, true, 12, 2},
        {"-7 rest", 0, true, -7, 2},
        {"1e3", 0, true, 1, 1},
        {"0x1fz", 0, true, 31, 4},
        {"0xz", 0, true, 0, 1},  // "0x" without a hex digit: the number is "0"
        {"0x", 0, true, 0, 1},
        {"1010102", 2, true, 42, 6},
        {"0x1f", 16, true, 0, 1},
        {"2147483647:", 0, true, INT32_MAX, 10},
        {"2147483648:", 0, false, 0, 0},
        {" 1", 0, false, 0, 0},
        {"{\"a\":1}", 0, false, 0, 0},
        {"", 0, false, 0, 0},
        {"-x", 0, false, 0, 0},
        {"5", 99, false, 0, 0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::Message() << "\"" << row.text << "\" base " << row.base);
        KEL_INT32 value = kUntouched;
        const char *end = nullptr;
        EXPECT_EQ(KELOsapiUtility_strtolWithBase(row.text, &value, row.base, &end), row.ok ? 1 : 0);
        EXPECT_EQ(value, row.ok ? row.value : kUntouched);
        EXPECT_EQ(end, row.text + row.consumed);
    }
}

TEST(Utility, StrtoptrReadsHexOrDecimalAddresses) {
    struct Row {
        const char *text;
        bool ok;
        uintptr_t value;
    };
    std::string maxHex = "0x" + std::string(sizeof(void *) * 2, 'f');
    std::string tooLong = "0x1" + std::string(sizeof(void *) * 2, '0');
    const std::vector<Row> rows = {
        {"0", true, 0},
        {"0x0", true, 0},
        {"0x7ffd1234abcd", true, 0x7ffd1234abcdu},
        {"0X10", true, 16},
        {"4096", true, 4096},
        {maxHex.c_str(), true, UINTPTR_MAX},
        {tooLong.c_str(), false, 0},
        {"", false, 0},
        {"0x", false, 0},
        {"-1", false, 0},
        {"+1", false, 0},
        {" 0x10", false, 0},
        {"0x10 ", false, 0},
        {"0x10g", false, 0},
        {"(nil)", false, 0},
    };
    int sentinel = 0;
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::Message() << "\"" << row.text << "\"");
        void *pointer = &sentinel;
        EXPECT_EQ(KELOsapiUtility_strtoptr(row.text, &pointer), row.ok ? 1 : 0);
        EXPECT_EQ(pointer, row.ok ? reinterpret_cast<void *>(row.value) : &sentinel);
    }
}

TEST(Utility, StrtoptrRoundTripsARealAddress) {
    int object = 0;
    char text[64];
    std::snprintf(text, sizeof text, "0x%llx",
                  static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(&object)));
    void *pointer = nullptr;
    ASSERT_EQ(KELOsapiUtility_strtoptr(text, &pointer), 1);
    EXPECT_EQ(pointer, &object);
}

TEST(Utility, StrToBooleanIgnoresCaseAndNothingElse) {
    struct Row {
        const char *text;
        bool ok;
        int value;
    };
    const Row rows[] = {
        {"1", true, 1},      {"true", true, 1},   {"TRUE", true, 1},     {"True", true, 1},
        {"yes", true, 1},    {"YeS", true, 1},    {"on", true, 1},       {"ON", true, 1},
        {"0", true, 0},      {"false", true, 0},  {"FALSE", true, 0},    {"no", true, 0},
        {"NO", true, 0},     {"off", true, 0},    {"Off", true, 0},      {"", false, 0},
        {" true", false, 0}, {"true ", false, 0}, {"2", false, 0},       {"-1", false, 0},
        {"01", false, 0},    {"t", false, 0},     {"y", false, 0},       {"truely", false, 0},
        {"tru", false, 0},   {"of", false, 0},    {"enabled", false, 0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::Message() << "\"" << row.text << "\"");
        int value = 42;
        EXPECT_EQ(REDAString_strToBoolean(row.text, &value), row.ok ? 1 : 0);
        EXPECT_EQ(value, row.ok ? row.value : 42);
    }
}

TEST(Utility, StrTrimRemovesSurroundingWhiteSpaceInPlace) {
    struct Row {
        const char *text;
        const char *expected;
    };
    const Row rows[] = {
        {"", ""},
        {"a", "a"},
        {"  a", "a"},
        {"a  ", "a"},
        {" \t\n\v\f\r a b \r\f\v\n\t ", "a b"},
        {"   ", ""},
        {"eth0", "eth0"},
        {" 10.0.0.1 ", "10.0.0.1"},
        {"a\0b", "a"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::Message() << "\"" << row.text << "\"");
        std::vector<char> buffer(row.text, row.text + std::strlen(row.text) + 1);
        char *trimmed = KELOsapiUtility_strTrim(buffer.data());
        ASSERT_NE(trimmed, nullptr);
        EXPECT_STREQ(trimmed, row.expected);
        EXPECT_GE(trimmed, buffer.data());
        EXPECT_LT(trimmed, buffer.data() + buffer.size());
    }
    EXPECT_EQ(KELOsapiUtility_strTrim(nullptr), nullptr);
}

TEST(Utility, StrncpyAndStrcpyRespectTheCapacity) {
    struct Row {
        const char *label;
        size_t capacity;
        const char *src;
        size_t count;          // SIZE_MAX: use strcpy
        const char *expected;  // nullptr: refused
    };
    const Row rows[] = {
        {"prefix fits", 8, "long_thread_name", 8, "long_thr"},
        {"count exceeds capacity", 8, "long_thread_name", 9, nullptr},
        {"short source under a large count", 8, "abc", 100, "abc"},
        {"whole source fits exactly", 3, "abc", 3, "abc"},
        {"count zero", 0, "abc", 0, ""},
        {"capacity zero, empty source", 0, "", 5, ""},
        {"capacity zero, non-empty", 0, "a", 1, nullptr},
        {"strcpy fits", 5, "hello", SIZE_MAX, "hello"},
        {"strcpy one too many", 4, "hello", SIZE_MAX, nullptr},
        {"strcpy empty", 0, "", SIZE_MAX, ""},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.label);
        char dest[32];
        std::memset(dest, '#', sizeof dest);
        char *result = row.count == SIZE_MAX
                           ? KELOsapiUtility_strcpy(dest, row.capacity, row.src)
                           : KELOsapiUtility_strncpy(dest, row.capacity, row.src, row.count);
        if (row.expected == nullptr) {
            EXPECT_EQ(result, nullptr);
            EXPECT_EQ(dest[0], '#') << "dest must stay untouched";
        } else {
            EXPECT_EQ(result, dest);
            EXPECT_STREQ(dest, row.expected);
            EXPECT_EQ(dest[row.capacity + 1], '#') << "nothing written past capacity + 1";
        }
    }
    char dest[4] = "xy";
    EXPECT_EQ(KELOsapiUtility_strncpy(nullptr, 3, "a", 1), nullptr);
    EXPECT_EQ(KELOsapiUtility_strncpy(dest, 3, nullptr, 1), nullptr);
    EXPECT_EQ(KELOsapiUtility_strcpy(nullptr, 3, "a"), nullptr);
    EXPECT_EQ(KELOsapiUtility_strcpy(dest, 3, nullptr), nullptr);
    EXPECT_STREQ(dest, "xy");
}

int sign(int value) {
    return (value > 0) - (value < 0);
}

TEST(Utility, ComparisonsOrderNullFirstAndFoldCaseWhenAsked) {
    struct Row {
        const char *left;
        const char *right;
        size_t n;
        int exact;       // sign of REDAString_compare
        int ignoreCase;  // sign of REDAString_iCompare
        int prefix;      // sign of REDAString_inCompare over n
    };
    const Row rows[] = {
        {nullptr, nullptr, 5, 0, 0, 0},
        {nullptr, "", 5, -1, -1, -1},
        {"", nullptr, 5, 1, 1, 1},
        {nullptr, "a", 0, -1, -1, -1},
        {"", "", 5, 0, 0, 0},
        {"abc", "abc", 3, 0, 0, 0},
        {"abc", "ABC", 3, 1, 0, 0},
        {"ABC", "abd", 3, -1, -1, -1},
        {"abc", "abd", 2, -1, -1, 0},
        {"ab", "abc", 5, -1, -1, -1},
        {"ab", "abc", 2, -1, -1, 0},
        {"abc", "ab", 3, 1, 1, 1},
        {"UDPV4_PAYLOAD_SIZE_MAX", "udpv4_payload_size_max", 23, -1, 0, 0},
        {"UDPV4_PAYLOAD_SIZE_MAX_X", "udpv4_payload_size_max", 23, -1, 1, 1},
        {"anything", "different", 0, -1, -1, 0},
        {"[", "{", 1, -1, -1, -1},  // punctuation is not folded
        {"\xff", "a", 1, 1, 1, 1},  // bytes compare unsigned
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::Message() << (row.left ? row.left : "NULL") << " vs "
                                        << (row.right ? row.right : "NULL") << " n=" << row.n);
        EXPECT_EQ(sign(REDAString_compare(row.left, row.right)), row.exact);
        EXPECT_EQ(sign(REDAString_iCompare(row.left, row.right)), row.ignoreCase);
        EXPECT_EQ(sign(REDAString_inCompare(row.left, row.right, row.n)), row.prefix);
    }
}

}  // namespace
