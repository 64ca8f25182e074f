// The JSON reader: which texts parse, navigation of the tree, integers,
// and the heap block that holds a document.

#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "support/TestSupport.hpp"
#include "vesk_transport/platform/Heap.h"
#include "vesk_transport/platform/Json.h"

namespace {

using vesk::test::liveHeapBlocks;

struct TreeDeleter {
    void operator()(KELJSONObject *root) const { KELJSONObject_delete(root); }
};
using Tree = std::unique_ptr<KELJSONObject, TreeDeleter>;

Tree parse(const std::string &text) {
    return Tree(KELJSONParser_parse_ex(text.data(), text.size()));
}

KEL_UINT64 totalAllocations() {
    KELOsapiHeapStatistics statistics{};
    KELOsapiHeap_getStatistics(&statistics);
    return statistics.total_allocations;
}

// The member's handle, or nullptr.
const KELJSONObject *child(const KELJSONObject *node, const char *name) {
    const KELJSONObject *out = nullptr;
    return KELJSONObject_getChildByName(node, &out, name) ? out : nullptr;
}
const KELJSONObject *childAt(const KELJSONObject *node, size_t index) {
    const KELJSONObject *out = nullptr;
    return KELJSONObject_getChildAt(node, &out, index) ? out : nullptr;
}

struct ValidityRow {
    std::string text;
    bool valid;
};

TEST(Json, AcceptsExactlyOneDocument) {
    const std::vector<ValidityRow> rows = {
        {"{}", true},
        {"[]", true},
        {" \t\r\n{\"a\": [1, 2, {\"b\": null}]} \n", true},
        {"0", true},
        {"-12", true},
        {"1.5e3", true},
        {"\"text\"", true},
        {"true", true},
        {"null", true},
        {"{\"a\": 1, \"a\": 2}", true},
        {"\"\\u00e9\\n\"", true},
        {"", false},
        {"   ", false},
        {"{", false},
        {"[1, 2", false},
        {"{} x", false},
        {"{} {}", false},
        {"[1,]", false},
        {"{\"a\": 1,}", false},
        {"{'a': 1}", false},
        {"{a: 1}", false},
        {"{\"a\" 1}", false},
        {"01", false},
        {"+1", false},
        {"1e400", false},  // out of range of a double
        {"nul", false},
        {"/* c */ {}", false},
        {"\"unterminated", false},
        {"\"\xff\"", false},  // not UTF-8
        {std::string("[1]\0", 4), false},
        {std::string("[1]\0garbage", 11), false},
        {std::string("[\"a\0b\"]", 7), false},
    };
    for (const ValidityRow &row : rows) {
        SCOPED_TRACE("text: " + row.text);
        Tree tree = parse(row.text);
        EXPECT_EQ(row.valid, tree != nullptr);
    }
}

TEST(Json, ReadsOnlyTheGivenLength) {
    // An exact-size heap copy without a terminator: AddressSanitizer reports
    // any read past it.
    const std::string document = "[10,20]";
    auto exact = std::make_unique<char[]>(document.size());
    std::memcpy(exact.get(), document.data(), document.size());
    Tree whole(KELJSONParser_parse_ex(exact.get(), document.size()));
    ASSERT_NE(nullptr, whole);
    EXPECT_EQ(2u, KELJSONObject_getChildCount(whole.get()));

    struct Row {
        const char *text;
        size_t length;
        bool valid;
    };
    const std::vector<Row> rows = {
        {"{\"a\":1}", 3, false},    // cut inside the document
        {"{\"a\":1}", 6, false},    // the closing brace is beyond the length
        {"[1,2]garbage", 5, true},  // the garbage is beyond the length
        {"12", 1, true},           {"{}", 0, false},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(std::string(row.text) + " length " + std::to_string(row.length));
        Tree tree(KELJSONParser_parse_ex(row.text, row.length));
        EXPECT_EQ(row.valid, tree != nullptr);
    }
    Tree one(KELJSONParser_parse_ex("12", 1));
    KEL_INT64 value = 0;
    ASSERT_TRUE(KELJSONObject_getIntValue(one.get(), &value));
    EXPECT_EQ(1, value);
    EXPECT_EQ(nullptr, KELJSONParser_parse_ex(nullptr, 0));
    EXPECT_EQ(nullptr, KELJSONParser_parse_ex(nullptr, 5));
}

struct IntRow {
    const char *element;
    bool is_int;
    KEL_INT64 value;
};

TEST(Json, IntegersAreSigned64BitOnly) {
    constexpr KEL_INT64 kMax = std::numeric_limits<KEL_INT64>::max();
    constexpr KEL_INT64 kMin = std::numeric_limits<KEL_INT64>::min();
    const std::vector<IntRow> rows = {
        {"0", true, 0},
        {"-0", true, 0},
        {"7400", true, 7400},
        {"-1", true, -1},
        {"65536", true, 65536},
        {"4294967296", true, 4294967296LL},
        {"9223372036854775807", true, kMax},
        {"-9223372036854775808", true, kMin},
        {"9223372036854775808", false, 0},  // fits only unsigned
        {"18446744073709551615", false, 0},
        {"18446744073709551616", false, 0},  // read as a double
        {"-9223372036854775809", false, 0},
        {"1.0", false, 0},
        {"1e2", false, 0},
        {"-0.0", false, 0},
        {"true", false, 0},
        {"false", false, 0},
        {"null", false, 0},
        {"\"5\"", false, 0},
        {"[5]", false, 0},
        {"{\"a\": 5}", false, 0},
    };
    for (const IntRow &row : rows) {
        SCOPED_TRACE(row.element);
        Tree tree = parse(std::string("[") + row.element + "]");
        ASSERT_NE(nullptr, tree);
        const KELJSONObject *node = childAt(tree.get(), 0);
        ASSERT_NE(nullptr, node);
        constexpr KEL_INT64 kUntouched = 0x5A5A;
        KEL_INT64 value = kUntouched;
        EXPECT_EQ(row.is_int, KELJSONObject_getIntValue(node, &value) != 0);
        EXPECT_EQ(row.is_int ? row.value : kUntouched, value);
    }
    Tree scalar = parse("42");
    KEL_INT64 value = 0;
    EXPECT_TRUE(KELJSONObject_getIntValue(scalar.get(), &value));
    EXPECT_EQ(42, value);
    EXPECT_FALSE(KELJSONObject_getIntValue(scalar.get(), nullptr));
    EXPECT_FALSE(KELJSONObject_getIntValue(nullptr, &value));
}

TEST(Json, CommPortsDocumentReadsAsATable) {
    Tree tree = parse(
        R"({"default": {"host": 7400, "public": 17400},
            "mappings": [{"rtps": 7410, "host": 7410, "public": 17410},
                         {"rtps": 7411, "host": 7500}]})");
    ASSERT_NE(nullptr, tree);
    // What the comm-ports reader does: entry 0 from "default", then one per
    // element of "mappings"; a missing "public" takes "host", others 0.
    struct Entry {
        KEL_INT64 rtps, host, pub;
        bool operator==(const Entry &) const = default;
    };
    auto read = [](const KELJSONObject *mapping) {
        Entry e{0, 0, 0};
        const KELJSONObject *member = nullptr;
        if (KELJSONObject_getChildByName(mapping, &member, "rtps")) {
            EXPECT_TRUE(KELJSONObject_getIntValue(member, &e.rtps));
        }
        if (KELJSONObject_getChildByName(mapping, &member, "host")) {
            EXPECT_TRUE(KELJSONObject_getIntValue(member, &e.host));
        }
        e.pub = e.host;
        if (KELJSONObject_getChildByName(mapping, &member, "public")) {
            EXPECT_TRUE(KELJSONObject_getIntValue(member, &e.pub));
        }
        return e;
    };
    const KELJSONObject *defaults = child(tree.get(), "default");
    const KELJSONObject *mappings = child(tree.get(), "mappings");
    ASSERT_NE(nullptr, defaults);
    ASSERT_NE(nullptr, mappings);
    std::vector<Entry> table = {read(defaults)};
    const size_t count = KELJSONObject_getChildCount(mappings);
    ASSERT_EQ(2u, count);
    for (size_t i = 0; i < count; ++i) {
        const KELJSONObject *mapping = childAt(mappings, i);
        ASSERT_NE(nullptr, mapping);
        table.push_back(read(mapping));
    }
    EXPECT_EQ((std::vector<Entry>{{0, 7400, 17400}, {7410, 7410, 17410}, {7411, 7500, 7500}}),
              table);
    // The root's members in document order.
    EXPECT_EQ(2u, KELJSONObject_getChildCount(tree.get()));
    EXPECT_EQ(defaults, childAt(tree.get(), 0));
    EXPECT_EQ(mappings, childAt(tree.get(), 1));
    EXPECT_EQ(nullptr, childAt(tree.get(), 2));
}

TEST(Json, ChildAccessFollowsTheNodeKind) {
    Tree tree =
        parse(R"({"z": 1, "a": [10, 20, 30], "m": {}, "s": "str", "n": null, "A": 2, "a.b": 3})");
    ASSERT_NE(nullptr, tree);
    const KELJSONObject *root = tree.get();
    EXPECT_EQ(7u, KELJSONObject_getChildCount(root));

    // Object members come in document order, not sorted.
    const std::vector<std::string> order = {"z", "a", "m", "s", "n", "A", "a.b"};
    for (size_t i = 0; i < order.size(); ++i) {
        SCOPED_TRACE(order[i]);
        EXPECT_EQ(child(root, order[i].c_str()), childAt(root, i));
    }

    struct CountRow {
        const char *member;
        size_t children;
    };
    const std::vector<CountRow> counts = {{"z", 0}, {"a", 3}, {"m", 0}, {"s", 0}, {"n", 0}};
    for (const CountRow &row : counts) {
        SCOPED_TRACE(row.member);
        const KELJSONObject *node = child(root, row.member);
        ASSERT_NE(nullptr, node);
        EXPECT_EQ(row.children, KELJSONObject_getChildCount(node));
        EXPECT_EQ(nullptr, childAt(node, row.children));
    }

    const KELJSONObject *array = child(root, "a");
    KEL_INT64 value = 0;
    ASSERT_TRUE(KELJSONObject_getIntValue(childAt(array, 2), &value));
    EXPECT_EQ(30, value);
    // Names are exact; arrays and scalars have no named members.
    ASSERT_TRUE(KELJSONObject_getIntValue(child(root, "A"), &value));
    EXPECT_EQ(2, value);
    EXPECT_EQ(nullptr, child(root, "Z"));
    EXPECT_EQ(nullptr, child(root, "b"));
    EXPECT_EQ(nullptr, child(root, ""));
    EXPECT_EQ(nullptr, child(array, "0"));
    EXPECT_EQ(nullptr, child(child(root, "s"), "s"));
    EXPECT_EQ(nullptr, childAt(child(root, "s"), 0));
    EXPECT_EQ(nullptr, childAt(root, std::numeric_limits<size_t>::max()));

    // A failed access leaves the handle as it was.
    const KELJSONObject *sentinel = root;
    EXPECT_FALSE(KELJSONObject_getChildByName(root, &sentinel, "missing"));
    EXPECT_FALSE(KELJSONObject_getChildAt(array, &sentinel, 3));
    EXPECT_EQ(root, sentinel);

    // Null arguments.
    EXPECT_FALSE(KELJSONObject_getChildByName(nullptr, &sentinel, "z"));
    EXPECT_FALSE(KELJSONObject_getChildByName(root, nullptr, "z"));
    EXPECT_FALSE(KELJSONObject_getChildByName(root, &sentinel, nullptr));
    EXPECT_FALSE(KELJSONObject_getChildAt(nullptr, &sentinel, 0));
    EXPECT_FALSE(KELJSONObject_getChildAt(root, nullptr, 0));
    EXPECT_EQ(0u, KELJSONObject_getChildCount(nullptr));
}

TEST(Json, DuplicateMembersKeepTheFirstPlaceAndTheLastValue) {
    Tree tree = parse(R"({"a": 1, "b": 2, "a": 3})");
    ASSERT_NE(nullptr, tree);
    EXPECT_EQ(2u, KELJSONObject_getChildCount(tree.get()));
    KEL_INT64 value = 0;
    ASSERT_TRUE(KELJSONObject_getIntValue(child(tree.get(), "a"), &value));
    EXPECT_EQ(3, value);
    EXPECT_EQ(child(tree.get(), "a"), childAt(tree.get(), 0));
}

TEST(Json, ADocumentIsOneHeapBlockReleasedByDelete) {
    const KEL_UINT64 blocks = liveHeapBlocks();
    const char *text = "{\"a\": [1, 2, 3]}";
    KELJSONObject *root = KELJSONParser_parse_ex(text, std::strlen(text));
    ASSERT_NE(nullptr, root);
    EXPECT_EQ(blocks + 1, liveHeapBlocks());
    EXPECT_STREQ("KELJSONDocument", KELOsapiHeap_getBlockTypeName(root));
    EXPECT_EQ(VESK_TRANSPORT_HEAP_TAG, KELOsapiHeap_getBlockTag(root));
    KELJSONObject_delete(root);
    EXPECT_EQ(blocks, liveHeapBlocks());
    KELJSONObject_delete(nullptr);

    // Rejected text costs no heap allocation at all.
    const KEL_UINT64 allocations = totalAllocations();
    EXPECT_EQ(nullptr, parse("{\"a\": [1, 2, 3}"));
    EXPECT_EQ(allocations, totalAllocations());
}

TEST(Json, AllocationFailureOfTheParseLeavesNothingLive) {
    const std::string text = R"({"default": {"host": 7400}, "mappings": [{"rtps": 1}]})";
    const KEL_UINT64 blocks = liveHeapBlocks();
    int failures = 0;
    for (long n = 1;; ++n) {
        SCOPED_TRACE("failing allocation " + std::to_string(n));
        ASSERT_LT(n, 10) << "the parse never succeeded";
        KELOsapiHeap_failAllocationAfter(n);
        KELJSONObject *root = KELJSONParser_parse_ex(text.data(), text.size());
        const bool injected = KELOsapiHeap_isFailurePending() == 0;
        KELOsapiHeap_failAllocationAfter(0);
        if (root != nullptr) {
            EXPECT_FALSE(injected);
            EXPECT_EQ(2u, KELJSONObject_getChildCount(root));
            KELJSONObject_delete(root);
            EXPECT_EQ(blocks, liveHeapBlocks());
            break;
        }
        ++failures;
        EXPECT_TRUE(injected);
        EXPECT_EQ(blocks, liveHeapBlocks());
    }
    EXPECT_GE(failures, 1);
}

TEST(Json, DeepNestingParsesAndReleases) {
    constexpr size_t kDepth = 10000;
    const std::string text = std::string(kDepth, '[') + std::string(kDepth, ']');
    Tree tree = parse(text);
    ASSERT_NE(nullptr, tree);
    const KELJSONObject *node = tree.get();
    for (size_t i = 1; i < kDepth; ++i) {
        node = childAt(node, 0);
        ASSERT_NE(nullptr, node);
    }
    EXPECT_EQ(0u, KELJSONObject_getChildCount(node));
}

}  // namespace
