// Texts to values: strict number conversions, booleans, trimming, bounded
// copies and comparisons; address texts and host names (resolved only from
// a hosts file inside a namespace of the test's own); the JSON reader.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "support/Isolated.hpp"
#include "support/PlatformChecks.hpp"
#include "vesk_transport/platform/Json.h"
#include "vesk_transport/platform/SocketUtil.h"
#include "vesk_transport/platform/Utility.h"

namespace {

using vesk::test::hex;

constexpr KEL_INT32 kUntouched = 0x5A5A5A5A;

// What strtolWithBase reads with an end pointer; from that, the whole-text results.
struct SignedRow {
    const char *text;
    int base;
    KEL_INT64 value;
    size_t consumed;  // characters read; 0: refused
};

TEST(Utility, SignedNumbersAreReadStrictly) {
    const SignedRow rows[] = {
        {"0", 0, 0, 1},
        {"-1", 0, -1, 2},
        {"+1", 0, 1, 2},
        {"010", 0, 10, 3},
        {"2147483647", 0, 2147483647, 10},
        {"-2147483648", 0, -2147483648, 11},
        {"2147483648", 0, 0, 0},
        {"-2147483649", 0, 0, 0},
        {"99999999999999999999", 0, 0, 0},
        {"0XfF", 0, 255, 4},
        {"0xaz", 0, 10, 3},
        {"0x80000000", 0, 0, 0},
        {"-0x80000000", 0, -2147483648, 11},
        {"0x", 0, 0, 1},
        {"", 0, 0, 0},
        {"+", 0, 0, 0},
        {"+-1", 0, 0, 0},
        {" 1", 0, 0, 0},
        {"12abc", 0, 12, 2},
        {"ff", 0, 0, 0},
        {"1010102", 2, 42, 6},
        {"8", 8, 0, 0},
        {"Ff", 16, 255, 2},
        {"0xff", 16, 0, 1},
        {"-80000000", 16, -2147483648, 9},
        {"Zz", 36, 35 * 36 + 35, 2},
        {"1", 1, 0, 0},
        {"1", 37, 0, 0},
    };
    KEL_INT32 value = kUntouched;  // strtol is the whole-text conversion in base 0
    EXPECT_TRUE(KELOsapiUtility_strtol("-0x10", &value) && value == -16);
    EXPECT_FALSE(KELOsapiUtility_strtol("1 ", &value) || value != -16);
    for (const auto &row : rows) {
        const bool ok = row.consumed != 0;
        SCOPED_TRACE(testing::Message() << "\"" << row.text << "\" base " << row.base);
        value = kUntouched;
        const char *end = nullptr;
        EXPECT_EQ(KELOsapiUtility_strtolWithBase(row.text, &value, row.base, &end), ok);
        EXPECT_EQ(value, ok ? row.value : kUntouched);
        EXPECT_EQ(end, row.text + row.consumed);
        const bool whole = ok && row.text[row.consumed] == '\0';
        value = kUntouched;
        EXPECT_EQ(KELOsapiUtility_strtolWithBase(row.text, &value, row.base, nullptr), whole);
        EXPECT_EQ(value, whole ? row.value : kUntouched);
    }
}

TEST(Utility, UnsignedNumbersAndPointersTakeNoMinusSign) {
    struct Row {
        const char *text;
        bool ok;
        KEL_UINT64 value;
        bool pointerOk;  // as a pointer, whose value is the number read
    };
    const std::string maxPointer = "0x" + std::string(sizeof(void *) * 2, 'f');
    const std::string overPointer = "0x1" + std::string(sizeof(void *) * 2, '0');
    const Row rows[] = {{"0", true, 0, true},
                        {"+17", true, 17, false},
                        {"4294967295", true, UINT32_MAX, true},
                        {"4294967296", false, 0x100000000u, true},
                        {"0xABCDEF01", true, 0xABCDEF01u, true},
                        {"0x100000000", false, 0x100000000u, true},
                        {"-0", false, 0, false},
                        {"", false, 0, false},
                        {"0x", false, 0, false},
                        {maxPointer.c_str(), false, UINTPTR_MAX, true},
                        {overPointer.c_str(), false, 0, false}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.text);
        KEL_UINT32 value = 0xA5A5A5A5u, other = 0xA5A5A5A5u;
        EXPECT_EQ(KELOsapiUtility_strtoul(row.text, &value), row.ok);
        EXPECT_EQ(REDAString_strToUnsignedLong(row.text, &other), row.ok);
        EXPECT_EQ(value, row.ok ? row.value : 0xA5A5A5A5u);
        EXPECT_EQ(other, value);
        void *pointer = &value;
        EXPECT_EQ(KELOsapiUtility_strtoptr(row.text, &pointer), row.pointerOk);
        EXPECT_EQ(pointer, row.pointerOk ? reinterpret_cast<void *>(row.value) : &value);
    }
}

TEST(Utility, NullArgumentsFailEveryConversion) {
    KEL_INT32 value = kUntouched;
    KEL_UINT32 unsignedValue = 7;
    void *pointer = &value;
    int flag = 7;
    EXPECT_EQ(KELOsapiUtility_strtol(nullptr, &value) + KELOsapiUtility_strtol("1", nullptr) +
                  KELOsapiUtility_strtoul(nullptr, &unsignedValue) +
                  KELOsapiUtility_strtoul("1", nullptr) +
                  KELOsapiUtility_strtolWithBase(nullptr, &value, 0, nullptr) +
                  KELOsapiUtility_strtolWithBase("1", nullptr, 0, nullptr) +
                  KELOsapiUtility_strtoptr(nullptr, &pointer) +
                  KELOsapiUtility_strtoptr("1", nullptr) +
                  REDAString_strToUnsignedLong(nullptr, &unsignedValue) +
                  REDAString_strToBoolean(nullptr, &flag) + REDAString_strToBoolean("1", nullptr),
              0);
    EXPECT_TRUE(value == kUntouched && unsignedValue == 7 && pointer == &value && flag == 7);
}

TEST(Utility, BooleansIgnoreCaseAndNothingElse) {
    const struct {
        const char *text;
        int expected;  // -1: refused
    } rows[] = {{"1", 1},   {"TRUE", 1}, {"YeS", 1},     {"on", 1},     {"0", 0},      {"False", 0},
                {"NO", 0},  {"off", 0},  {"", -1},       {" true", -1}, {"true ", -1}, {"2", -1},
                {"01", -1}, {"tru", -1}, {"truely", -1}, {"of", -1}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.text);
        int value = 42;
        EXPECT_EQ(REDAString_strToBoolean(row.text, &value), row.expected >= 0);
        EXPECT_EQ(value, row.expected >= 0 ? row.expected : 42);
    }
}

TEST(Utility, TrimCopyAndCompare) {
    const std::pair<const char *, const char *> trims[] = {
        {"", ""}, {"  a", "a"}, {"a  ", "a"}, {" \t\n\v\f\r a b \r\f\v\n\t ", "a b"}, {"   ", ""}};
    for (const auto &[text, expected] : trims) {
        std::string buffer = text;
        EXPECT_STREQ(KELOsapiUtility_strTrim(buffer.data()), expected) << "\"" << text << "\"";
    }
    EXPECT_EQ(KELOsapiUtility_strTrim(nullptr), nullptr);

    const struct {
        size_t capacity;
        const char *src;
        size_t count;          // SIZE_MAX: strcpy
        const char *expected;  // nullptr: refused, dest untouched
    } copies[] = {{8, "long_thread_name", 8, "long_thr"},
                  {8, "long_thread_name", 9, nullptr},
                  {8, "abc", 100, "abc"},
                  {3, "abc", 3, "abc"},
                  {0, "", 5, ""},
                  {0, "a", 1, nullptr},
                  {5, "hello", SIZE_MAX, "hello"},
                  {4, "hello", SIZE_MAX, nullptr}};
    for (const auto &row : copies) {
        SCOPED_TRACE(testing::Message() << row.src << " " << row.capacity << " " << row.count);
        char dest[32];
        std::memset(dest, '#', sizeof dest);
        char *result = row.count == SIZE_MAX
                           ? KELOsapiUtility_strcpy(dest, row.capacity, row.src)
                           : KELOsapiUtility_strncpy(dest, row.capacity, row.src, row.count);
        EXPECT_EQ(result, row.expected != nullptr ? dest : nullptr);
        EXPECT_STREQ(row.expected != nullptr ? dest : nullptr, row.expected);
        EXPECT_EQ(dest[row.expected == nullptr ? 0 : row.capacity + 1], '#');
    }
    char dest[4] = "xy";
    EXPECT_FALSE(KELOsapiUtility_strncpy(nullptr, 3, "a", 1) ||
                 KELOsapiUtility_strncpy(dest, 3, nullptr, 1) ||
                 KELOsapiUtility_strcpy(nullptr, 3, "a") ||
                 KELOsapiUtility_strcpy(dest, 3, nullptr));
    EXPECT_STREQ(dest, "xy");

    const struct {
        const char *left, *right;
        size_t n;
        int exact, ignoreCase, prefix;  // signs of compare, iCompare, inCompare over n
    } compares[] = {{nullptr, nullptr, 5, 0, 0, 0},      {nullptr, "", 5, -1, -1, -1},
                    {"", nullptr, 5, 1, 1, 1},           {"abc", "abc", 3, 0, 0, 0},
                    {"abc", "ABC", 3, 1, 0, 0},          {"ABC", "abd", 3, -1, -1, -1},
                    {"abc", "abd", 2, -1, -1, 0},        {"ab", "abc", 5, -1, -1, -1},
                    {"Zebra_Z", "zebra_z", 7, -1, 0, 0}, {"anything", "other", 0, -1, -1, 0},
                    {"[", "{", 1, -1, -1, -1},           {"\xff", "a", 1, 1, 1, 1}};
    for (const auto &row : compares) {
        SCOPED_TRACE(testing::Message() << (row.left ? row.left : "NULL") << " vs "
                                        << (row.right ? row.right : "NULL") << " n=" << row.n);
        EXPECT_EQ(vesk::test::sign(REDAString_compare(row.left, row.right)), row.exact);
        EXPECT_EQ(vesk::test::sign(REDAString_iCompare(row.left, row.right)), row.ignoreCase);
        EXPECT_EQ(vesk::test::sign(REDAString_inCompare(row.left, row.right, row.n)), row.prefix);
    }
}

// ---------------------------------------------------------------------------
// Address texts

struct AddressRow {
    std::string text;
    int flag;
    const char *expected;  // hex; nullptr: refused, address untouched
};

// Per row: the address in hex, "-" for an untouched refusal, "?" for a refusal
// that changed it; with expected set, what the row expects.
std::string addressesOf(const std::vector<AddressRow> &rows, bool expected = false) {
    std::string out;
    for (const AddressRow &row : rows) {
        VESK_Transport_Address_t address;
        std::memset(&address, 0xEE, sizeof address);
        if (expected) {
            out += std::string(row.expected != nullptr ? row.expected : "-") + "\n";
        } else if (VESK_Transport_SocketUtil_StringAddress_to_transportAddress(
                       &address, row.text.c_str(), row.flag)) {
            out += hex(address) + "\n";
        } else {
            out += hex(address) == std::string(32, 'e') ? "-\n" : "?\n";
        }
    }
    return out;
}

TEST(SocketUtil, NumericAddressTexts) {
    const std::vector<AddressRow> rows = {
        {"192.0.2.1", 0, "000000000000000000000000c0000201"},
        {"255.255.255.255", 1, "000000000000000000000000ffffffff"},
        {"::1", 0, "00000000000000000000000000000001"},
        {"FE80::ABCD", 0, "fe80000000000000000000000000abcd"},
        {"1.2.3", 0, nullptr},
        {"1.2.3.4.5", 1, nullptr},
        {"256.1.1.1", 1, nullptr},
        {"0x7f000001", 1, nullptr},
        {"017.0.0.1", 1, nullptr},
        {" 1.2.3.4", 1, nullptr},
        {"fe80::1%eth0", 1, nullptr},
        {"", 1, nullptr}};
    EXPECT_EQ(addressesOf(rows), addressesOf(rows, true));
    VESK_Transport_Address_t address = VESK_TRANSPORT_ADDRESS_INVALID;
    EXPECT_EQ(VESK_Transport_SocketUtil_StringAddress_to_transportAddress(&address, nullptr, 1), 0);
    EXPECT_EQ(VESK_Transport_SocketUtil_StringAddress_to_transportAddress(nullptr, "::1", 0), 0);
    EXPECT_EQ(hex(VESK_TRANSPORT_ADDRESS_INVALID), std::string(32, '0'));
}

// Resolved in a namespace whose /etc holds only a hosts file listing also the
// names to refuse: a lax check would resolve them, and no query leaves.
TEST(SocketUtil, HostNamesAreCheckedBeforeTheResolverSeesThem) {
    const std::string label63(63, 'a'), label64(64, 'a');
    const std::string name253 =
        label63 + "." + label63 + "." + label63 + "." + std::string(61, 'b');
    const std::string name254 = name253 + "b";
    const std::vector<AddressRow> rows = {
        {"localhost", 1, "0000000000000000000000007f000001"},
        {"localhost", 0, nullptr},
        {"v6only", 1, "fd000000000000000000000000000005"},
        {"under_score.example", 1, "0000000000000000000000000a000003"},
        {label63 + ".example", 1, "0000000000000000000000000a000004"},
        {name253, 1, "0000000000000000000000000a000005"},
        {"trailing.dot.", 1, "0000000000000000000000000a000006"},
        {"nowhere", 1, nullptr},
        {label64 + ".example", 1, nullptr},
        {name254, 1, nullptr},
        {"a.123", 1, nullptr},
        {"4294967296", 1, nullptr},
        {"-a.example", 1, nullptr},
        {"a-.example", 1, nullptr},
        {"bad..name", 1, nullptr},
        {".leading", 1, nullptr},
        {"with space", 1, nullptr}};
    std::string hosts =
        "127.0.0.1 localhost\n::1 localhost\nfd00::5 v6only\n"
        "10.0.0.3 under_score.example\n10.0.0.4 " +
        label63 + ".example\n" + "10.0.0.5 " + name253 + "\n10.0.0.6 trailing.dot.\n";
    // What a lax check would let through, so that it resolves.
    hosts += "10.9.9.1 " + label64 + ".example\n10.9.9.2 " + name254 +
             "\n10.9.9.3 a.123\n10.9.9.6 4294967296\n10.9.9.4 -a.example\n10.9.9.5 a-.example\n";
    const vesk::test::Isolation isolation{
        "", {"/etc", ""}, {{"/etc/hosts", hosts}, {"/etc/nsswitch.conf", "hosts: files\n"}}};
    const std::string got = vesk::test::runIsolated(isolation, [&] { return addressesOf(rows); });
    if (got.rfind("SKIP", 0) == 0) GTEST_SKIP() << got;
    EXPECT_EQ(got, addressesOf(rows, true));
}

TEST(SocketUtil, EqualityComparesAllSixteenBytes) {
    VESK_Transport_Address_t base;
    ASSERT_NE(VESK_Transport_SocketUtil_StringAddress_to_transportAddress(&base, "fd00::1:2", 0),
              0);
    for (int changed : {-1, 0, 7, 15}) {
        VESK_Transport_Address_t other = base;
        if (changed >= 0) other.network_ordered_value[changed] ^= 0x01;
        EXPECT_EQ(VESK_Transport_Address_is_equal(&base, &other), changed < 0) << changed;
        EXPECT_EQ(VESK_Transport_Address_is_equal(&other, &base), changed < 0) << changed;
    }
    EXPECT_EQ(VESK_Transport_Address_is_equal(nullptr, nullptr), 1);
    EXPECT_FALSE(VESK_Transport_Address_is_equal(&base, nullptr) ||
                 VESK_Transport_Address_is_equal(nullptr, &base));
}

// ---------------------------------------------------------------------------
// JSON

struct TreeDeleter {
    void operator()(KELJSONObject *root) const { KELJSONObject_delete(root); }
};
using Tree = std::unique_ptr<KELJSONObject, TreeDeleter>;

Tree parse(const std::string &text) {
    return Tree(KELJSONParser_parse_ex(text.data(), text.size()));
}

const KELJSONObject *child(const KELJSONObject *node, const char *name) {
    const KELJSONObject *out = nullptr;
    return KELJSONObject_getChildByName(node, &out, name) ? out : nullptr;
}
const KELJSONObject *childAt(const KELJSONObject *node, size_t index) {
    const KELJSONObject *out = nullptr;
    return KELJSONObject_getChildAt(node, &out, index) ? out : nullptr;
}

TEST(Json, OneDocumentWithinTheGivenLengthInOneHeapBlock) {
    const struct {
        std::string text;
        size_t length;  // SIZE_MAX: the whole text
        bool valid;
    } rows[] = {{" {\"a\": [1, {\"b\": null}]} \n", SIZE_MAX, true},
                {"{} x", SIZE_MAX, false},
                {"", SIZE_MAX, false},
                {std::string("[1]\0", 4), SIZE_MAX, false},
                {std::string("[\"a\0b\"]", 7), SIZE_MAX, false},
                {"{\"a\":1}", 6, false},
                {"[1,2]garbage", 5, true}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.text);
        const size_t length = row.length == SIZE_MAX ? row.text.size() : row.length;
        // An exact-size copy: AddressSanitizer sees any read past the length.
        auto exact = std::make_unique<char[]>(length);
        std::memcpy(exact.get(), row.text.data(), length);
        Tree tree(KELJSONParser_parse_ex(exact.get(), length));
        EXPECT_EQ(tree != nullptr, row.valid);
    }
    EXPECT_EQ(KELJSONParser_parse_ex(nullptr, 5), nullptr);
    // A document is one heap block; a malformed or refused one costs nothing.
    const std::string text = R"({"default": {"host": 7400}, "mappings": [{"rtps": 1}]})";
    KELOsapiHeapStatistics before{}, after{};
    KELOsapiHeap_getStatistics(&before);
    EXPECT_EQ(parse("{\"a\": [1, 2, 3}"), nullptr);
    EXPECT_TRUE(vesk::test::refusing(1, [&] { EXPECT_EQ(parse(text), nullptr); }));
    KELOsapiHeap_getStatistics(&after);
    EXPECT_EQ(after.total_allocations, before.total_allocations);
    EXPECT_EQ(after.live_blocks, before.live_blocks);
    Tree tree = parse(text);
    EXPECT_STREQ(KELOsapiHeap_getBlockTypeName(tree.get()), "KELJSONDocument");
    EXPECT_EQ(KELOsapiHeap_getBlockTag(tree.get()), VESK_TRANSPORT_HEAP_TAG);
    EXPECT_EQ(vesk::test::liveHeapBlocks(), before.live_blocks + 1);
    KELJSONObject_delete(nullptr);
}

TEST(Json, IntegersAreSigned64BitOnly) {
    const struct {
        const char *element;
        bool isInt;
        KEL_INT64 value;
    } rows[] = {{"-0", true, 0},
                {"-1", true, -1},
                {"9223372036854775807", true, INT64_MAX},
                {"-9223372036854775808", true, INT64_MIN},
                {"9223372036854775808", false, 0},
                {"1.0", false, 0},
                {"\"5\"", false, 0},
                {"[5]", false, 0}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.element);
        Tree tree = parse(std::string("[") + row.element + "]");
        ASSERT_NE(tree, nullptr);
        KEL_INT64 value = 0x5A5A;
        EXPECT_EQ(KELJSONObject_getIntValue(childAt(tree.get(), 0), &value) != 0, row.isInt);
        EXPECT_EQ(value, row.isInt ? row.value : 0x5A5A);
    }
    Tree scalar = parse("42");
    KEL_INT64 value = 0;
    EXPECT_FALSE(KELJSONObject_getIntValue(scalar.get(), nullptr) ||
                 KELJSONObject_getIntValue(nullptr, &value));
}

TEST(Json, ChildrenFollowTheNodeKindInDocumentOrder) {
    Tree tree = parse(R"({"z": 1, "a": [10, 20, 30], "m": {}, "s": "str", "A": 2, "z": 3})");
    ASSERT_NE(tree, nullptr);
    const KELJSONObject *root = tree.get();
    // A repeated member keeps its first place and its last value.
    const char *order[] = {"z", "a", "m", "s", "A"};
    ASSERT_EQ(KELJSONObject_getChildCount(root), 5u);
    for (size_t i = 0; i < 5; ++i) EXPECT_EQ(child(root, order[i]), childAt(root, i)) << i;
    KEL_INT64 value = 0;
    ASSERT_TRUE(KELJSONObject_getIntValue(child(root, "z"), &value));
    EXPECT_EQ(value, 3);
    const std::pair<const char *, size_t> counts[] = {{"z", 0}, {"a", 3}, {"m", 0}, {"s", 0}};
    for (const auto &[member, children] : counts) {
        const KELJSONObject *node = child(root, member);
        ASSERT_NE(node, nullptr) << member;
        EXPECT_EQ(KELJSONObject_getChildCount(node), children) << member;
        EXPECT_EQ(childAt(node, children), nullptr) << member;
    }
    const KELJSONObject *array = child(root, "a");
    ASSERT_TRUE(KELJSONObject_getIntValue(childAt(array, 2), &value));
    EXPECT_EQ(value, 30);
    EXPECT_EQ(child(root, "Z"), nullptr);
    EXPECT_EQ(child(array, "0"), nullptr);
    const KELJSONObject *sentinel = root;  // a failed access leaves the handle alone
    EXPECT_FALSE(KELJSONObject_getChildByName(root, &sentinel, "missing") ||
                 KELJSONObject_getChildAt(array, &sentinel, 3) ||
                 KELJSONObject_getChildAt(root, &sentinel, 5) ||
                 KELJSONObject_getChildByName(nullptr, &sentinel, "z") ||
                 KELJSONObject_getChildByName(root, nullptr, "z") ||
                 KELJSONObject_getChildByName(root, &sentinel, nullptr) ||
                 KELJSONObject_getChildAt(nullptr, &sentinel, 0) ||
                 KELJSONObject_getChildAt(root, nullptr, 0) ||
                 KELJSONObject_getChildCount(nullptr));
    EXPECT_EQ(sentinel, root);
}

}  // namespace
