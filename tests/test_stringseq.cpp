// DDS_StringSeq: ownership, growth, copies, splitting, memory exhaustion.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "support/TestSupport.hpp"
#include "vesk_transport/platform/Heap.h"
#include "vesk_transport/platform/StringSeq.h"

namespace {

using vesk::test::liveHeapBlocks;

// The contents, with null elements shown as "<null>".
std::vector<std::string> contents(const DDS_StringSeq &seq) {
    std::vector<std::string> out;
    for (DDS_Long i = 0; i < DDS_StringSeq_get_length(&seq); ++i) {
        const char *text = DDS_StringSeq_get(&seq, i);
        out.emplace_back(text != nullptr ? text : "<null>");
    }
    return out;
}

using Strings = std::vector<std::string>;

TEST(StringSeq, InitializeMakesAnEmptyOwningSequence) {
    DDS_StringSeq seq = {reinterpret_cast<char **>(0x10), 5, 7, DDS_BOOLEAN_FALSE};
    ASSERT_TRUE(DDS_StringSeq_initialize(&seq));
    EXPECT_EQ(seq._contiguous_buffer, nullptr);
    EXPECT_EQ(seq._length, 0);
    EXPECT_EQ(seq._maximum, 0);
    EXPECT_TRUE(seq._owned);
    EXPECT_FALSE(DDS_StringSeq_initialize(nullptr));
    EXPECT_EQ(DDS_StringSeq_get_length(nullptr), 0);
    EXPECT_EQ(DDS_StringSeq_get(nullptr, 0), nullptr);
}

TEST(StringSeq, AppendCopiesTheTextAndGrows) {
    DDS_StringSeq seq = DDS_SEQUENCE_INITIALIZER;
    std::string source = "alias";
    Strings expected;
    for (int i = 0; i < 40; ++i) {
        std::string text = source + std::to_string(i);
        ASSERT_TRUE(DDS_StringSeq_append(&seq, text.c_str()));
        expected.push_back(text);
    }
    ASSERT_TRUE(DDS_StringSeq_append(&seq, nullptr));
    expected.emplace_back("<null>");
    EXPECT_EQ(contents(seq), expected);
    EXPECT_GE(seq._maximum, seq._length);
    EXPECT_STREQ(KELOsapiHeap_getBlockTypeName(seq._contiguous_buffer), "char *");
    EXPECT_STREQ(KELOsapiHeap_getBlockTypeName(DDS_StringSeq_get(&seq, 0)), "char");

    struct Index {
        DDS_Long i;
        bool present;
    };
    for (const Index &row :
         {Index{-1, false}, Index{0, true}, Index{40, false}, Index{41, false}, Index{39, true}}) {
        SCOPED_TRACE(row.i);
        EXPECT_EQ(DDS_StringSeq_get(&seq, row.i) != nullptr, row.present);
    }
    EXPECT_TRUE(DDS_StringSeq_finalize(&seq));
    EXPECT_EQ(seq._length, 0);
    EXPECT_EQ(seq._maximum, 0);
    EXPECT_EQ(seq._contiguous_buffer, nullptr);
    EXPECT_TRUE(seq._owned);
    EXPECT_TRUE(DDS_StringSeq_finalize(&seq)) << "finalizing an empty sequence again is harmless";
}

TEST(StringSeq, NonOwningSequenceIsNeitherChangedNorReleased) {
    char first[] = "lent";
    char *lent[] = {first, nullptr};
    DDS_StringSeq seq = {lent, 1, 2, DDS_BOOLEAN_FALSE};
    const auto blocks = liveHeapBlocks();

    EXPECT_FALSE(DDS_StringSeq_append(&seq, "more"));
    EXPECT_FALSE(DDS_StringSeq_finalize(&seq));
    DDS_StringSeq src = DDS_SEQUENCE_INITIALIZER;
    EXPECT_FALSE(DDS_StringSeq_copy(&seq, &src));
    EXPECT_EQ(DDS_StringSeq_from_delimited_string(&seq, "a,b", ','), DDS_RETCODE_BAD_PARAMETER);

    EXPECT_EQ(seq._contiguous_buffer, lent);
    EXPECT_EQ(seq._length, 1);
    EXPECT_EQ(seq._maximum, 2);
    EXPECT_EQ(lent[0], first);
    EXPECT_EQ(lent[1], nullptr);
    EXPECT_EQ(liveHeapBlocks(), blocks);
    EXPECT_FALSE(DDS_StringSeq_append(nullptr, "x"));
    EXPECT_FALSE(DDS_StringSeq_finalize(nullptr));
}

TEST(StringSeq, CopyMakesAnExactIndependentCopy) {
    struct Row {
        const char *label;
        Strings target;  // what the target held before
        std::vector<const char *> source;
    };
    const std::vector<Row> rows = {
        {"into empty", {}, {"a", "", "c"}},
        {"replaces contents", {"old1", "old2", "old3"}, {"new"}},
        {"empty source empties", {"old"}, {}},
        {"null elements stay null", {}, {"x", nullptr, "z"}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.label);
        DDS_StringSeq target = DDS_SEQUENCE_INITIALIZER;
        for (const auto &text : row.target)
            ASSERT_TRUE(DDS_StringSeq_append(&target, text.c_str()));
        DDS_StringSeq source = DDS_SEQUENCE_INITIALIZER;
        Strings expected;
        for (const char *text : row.source) {
            ASSERT_TRUE(DDS_StringSeq_append(&source, text));
            expected.emplace_back(text != nullptr ? text : "<null>");
        }

        ASSERT_TRUE(DDS_StringSeq_copy(&target, &source));
        EXPECT_EQ(contents(target), expected);
        for (DDS_Long i = 0; i < target._length; ++i) {
            if (source._contiguous_buffer[i] != nullptr) {
                EXPECT_NE(target._contiguous_buffer[i], source._contiguous_buffer[i])
                    << "the copy must own its own strings";
            }
        }
        EXPECT_TRUE(DDS_StringSeq_finalize(&source));
        EXPECT_EQ(contents(target), expected);
        EXPECT_TRUE(DDS_StringSeq_finalize(&target));
    }
}

TEST(StringSeq, CopyOntoItselfAndFromNull) {
    DDS_StringSeq seq = DDS_SEQUENCE_INITIALIZER;
    ASSERT_TRUE(DDS_StringSeq_append(&seq, "self"));
    EXPECT_TRUE(DDS_StringSeq_copy(&seq, &seq));
    EXPECT_EQ(contents(seq), Strings{"self"});
    EXPECT_FALSE(DDS_StringSeq_copy(&seq, nullptr));
    EXPECT_FALSE(DDS_StringSeq_copy(nullptr, &seq));
    EXPECT_EQ(contents(seq), Strings{"self"});
    EXPECT_TRUE(DDS_StringSeq_finalize(&seq));
}

TEST(StringSeq, FromDelimitedStringKeepsEveryPieceUntrimmed) {
    struct Row {
        const char *text;
        char delimiter;
        Strings expected;
    };
    const std::vector<Row> rows = {
        {"", ',', {}},
        {"a", ',', {"a"}},
        {"a,b,c", ',', {"a", "b", "c"}},
        {"a,,b", ',', {"a", "", "b"}},
        {"a,", ',', {"a", ""}},
        {",a", ',', {"", "a"}},
        {",", ',', {"", ""}},
        {",,", ',', {"", "", ""}},
        {" eth0 , 10.0.0.1 ,lo", ',', {" eth0 ", " 10.0.0.1 ", "lo"}},
        {"a;b,c", ';', {"a", "b,c"}},
        {"a;b", ',', {"a;b"}},
        {" ", ',', {" "}},
        {"x", '\0', {"x"}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::Message() << "\"" << row.text << "\" on '" << row.delimiter << "'");
        DDS_StringSeq seq = DDS_SEQUENCE_INITIALIZER;
        ASSERT_EQ(DDS_StringSeq_from_delimited_string(&seq, row.text, row.delimiter),
                  DDS_RETCODE_OK);
        EXPECT_EQ(contents(seq), row.expected);
        EXPECT_TRUE(DDS_StringSeq_finalize(&seq));
    }
}

TEST(StringSeq, FromDelimitedStringRejectsBadArguments) {
    DDS_StringSeq full = DDS_SEQUENCE_INITIALIZER;
    ASSERT_TRUE(DDS_StringSeq_append(&full, "already"));
    char **buffer = full._contiguous_buffer;
    DDS_StringSeq empty = DDS_SEQUENCE_INITIALIZER;

    EXPECT_EQ(DDS_StringSeq_from_delimited_string(nullptr, "a", ','), DDS_RETCODE_BAD_PARAMETER);
    EXPECT_EQ(DDS_StringSeq_from_delimited_string(&empty, nullptr, ','), DDS_RETCODE_BAD_PARAMETER);
    EXPECT_EQ(DDS_StringSeq_from_delimited_string(&full, "a,b", ','), DDS_RETCODE_BAD_PARAMETER);
    EXPECT_EQ(contents(full), Strings{"already"});
    EXPECT_EQ(full._contiguous_buffer, buffer);
    EXPECT_EQ(empty._contiguous_buffer, nullptr);
    EXPECT_TRUE(DDS_StringSeq_finalize(&full));
}

TEST(StringSeq, FromDelimitedStringReusesAnEmptiedSequence) {
    // An owning sequence emptied by hand still holds its buffer; the split
    // must not leak it.
    DDS_StringSeq seq = DDS_SEQUENCE_INITIALIZER;
    ASSERT_TRUE(DDS_StringSeq_append(&seq, nullptr));
    seq._length = 0;
    ASSERT_NE(seq._contiguous_buffer, nullptr);
    ASSERT_EQ(DDS_StringSeq_from_delimited_string(&seq, "p,q", ','), DDS_RETCODE_OK);
    EXPECT_EQ(contents(seq), (Strings{"p", "q"}));
    EXPECT_TRUE(DDS_StringSeq_finalize(&seq));
}

// Runs operation with the n-th allocation failing, for n = 1, 2, ... until
// it succeeds; each failed run must leave nothing allocated.
void sweepAllocationFailures(const std::function<bool(DDS_StringSeq *)> &operation,
                             const std::function<void(const DDS_StringSeq &)> &checkFailed,
                             const Strings &expected) {
    for (long n = 1;; ++n) {
        SCOPED_TRACE(testing::Message() << "failing allocation " << n);
        ASSERT_LT(n, 100) << "never succeeded";
        DDS_StringSeq seq = DDS_SEQUENCE_INITIALIZER;
        ASSERT_TRUE(DDS_StringSeq_append(&seq, "kept"));
        const auto blocks = liveHeapBlocks();
        KELOsapiHeap_failAllocationAfter(n);
        const bool ok = operation(&seq);
        const bool injected = !KELOsapiHeap_isFailurePending();
        KELOsapiHeap_failAllocationAfter(0);
        if (ok) {
            EXPECT_FALSE(injected) << "succeeded although an allocation failed";
            EXPECT_EQ(contents(seq), expected);
            EXPECT_TRUE(DDS_StringSeq_finalize(&seq));
            break;
        }
        EXPECT_TRUE(injected);
        EXPECT_EQ(liveHeapBlocks(), blocks);
        checkFailed(seq);
        EXPECT_TRUE(DDS_StringSeq_finalize(&seq));
    }
}

TEST(StringSeq, AppendOutOfMemoryLeavesTheSequenceAsItWas) {
    // Appends that fit the buffer allocate the copy only; the one after a
    // full buffer also grows it. Each allocation of each is made to fail.
    struct Row {
        int alreadyHeld;
        int allocations;
    };
    for (const Row &row : {Row{1, 1}, Row{4, 2}}) {
        SCOPED_TRACE(testing::Message() << row.alreadyHeld << " strings held");
        for (long n = 1; n <= row.allocations + 1; ++n) {
            SCOPED_TRACE(testing::Message() << "failing allocation " << n);
            DDS_StringSeq seq = DDS_SEQUENCE_INITIALIZER;
            for (int i = 0; i < row.alreadyHeld; ++i)
                ASSERT_TRUE(DDS_StringSeq_append(&seq, "old"));
            const DDS_StringSeq before = seq;
            const auto blocks = liveHeapBlocks();
            KELOsapiHeap_failAllocationAfter(n);
            const bool ok = DDS_StringSeq_append(&seq, "new");
            KELOsapiHeap_failAllocationAfter(0);
            EXPECT_EQ(ok, n > row.allocations);
            if (!ok) {
                EXPECT_EQ(liveHeapBlocks(), blocks);
                EXPECT_EQ(seq._contiguous_buffer, before._contiguous_buffer);
                EXPECT_EQ(seq._length, before._length);
                EXPECT_EQ(seq._maximum, before._maximum);
            } else {
                EXPECT_EQ(seq._length, row.alreadyHeld + 1);
                EXPECT_STREQ(DDS_StringSeq_get(&seq, row.alreadyHeld), "new");
            }
            EXPECT_TRUE(DDS_StringSeq_finalize(&seq));
        }
    }
}

TEST(StringSeq, CopyOutOfMemoryLeavesTheTargetAsItWas) {
    DDS_StringSeq source = DDS_SEQUENCE_INITIALIZER;
    for (const char *text : {"one", "two", "three"})
        ASSERT_TRUE(DDS_StringSeq_append(&source, text));
    sweepAllocationFailures(
        [&](DDS_StringSeq *seq) { return DDS_StringSeq_copy(seq, &source) != 0; },
        [](const DDS_StringSeq &seq) { EXPECT_EQ(contents(seq), Strings{"kept"}); },
        Strings{"one", "two", "three"});
    EXPECT_TRUE(DDS_StringSeq_finalize(&source));
}

TEST(StringSeq, FromDelimitedStringOutOfMemoryLeavesTheSequenceEmpty) {
    for (long n = 1;; ++n) {
        SCOPED_TRACE(testing::Message() << "failing allocation " << n);
        ASSERT_LT(n, 100);
        DDS_StringSeq seq = DDS_SEQUENCE_INITIALIZER;
        const auto blocks = liveHeapBlocks();
        KELOsapiHeap_failAllocationAfter(n);
        DDS_ReturnCode_t result = DDS_StringSeq_from_delimited_string(&seq, "a,,bc,d", ',');
        KELOsapiHeap_failAllocationAfter(0);
        if (result == DDS_RETCODE_OK) {
            EXPECT_EQ(n, 6) << "one buffer and four strings";
            EXPECT_EQ(contents(seq), (Strings{"a", "", "bc", "d"}));
            EXPECT_TRUE(DDS_StringSeq_finalize(&seq));
            break;
        }
        EXPECT_EQ(result, DDS_RETCODE_OUT_OF_RESOURCES);
        EXPECT_EQ(seq._length, 0);
        EXPECT_EQ(seq._contiguous_buffer, nullptr);
        EXPECT_EQ(liveHeapBlocks(), blocks);
    }
}

}  // namespace
