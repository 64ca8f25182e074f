// The library heap (blocks, accounting, resizing, strings, fault injection)
// and the string sequences built on it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "support/PlatformChecks.hpp"
#include "vesk_transport/platform/Heap.h"
#include "vesk_transport/platform/StringSeq.h"

namespace {

using vesk::test::liveHeapBlocks;
using vesk::test::refusing;
using Strings = std::vector<std::string>;

KELOsapiHeapStatistics stats() {
    KELOsapiHeapStatistics s{};
    KELOsapiHeap_getStatistics(&s);
    return s;
}

bool allZero(const void *p, size_t n) {
    const auto *bytes = static_cast<const unsigned char *>(p);
    return std::all_of(bytes, bytes + n, [](unsigned char b) { return b == 0; });
}

TEST(Heap, BlocksAndStringsAreZeroFilledAlignedTypedAndCounted) {
    // "x": the size overflows, or the header no longer fits.
    const size_t max = std::numeric_limits<size_t>::max();
    const struct {
        size_t count, elementSize;
        const char *typeName;
    } rows[] = {
        {1, 1, "char"}, {3, 13, "struct Odd"}, {0, 8, "long"}, {max, 2, "x"}, {max, 1, "x"}};
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::Message() << row.count << " x " << row.elementSize);
        const auto before = stats();
        void *block = KELOsapiHeap_reallocateMemoryInternal(nullptr, row.count, row.elementSize,
                                                            row.typeName, 0x41424344u);
        const auto during = stats();
        const bool fits = std::strcmp(row.typeName, "x") != 0;
        ASSERT_EQ(block != nullptr, fits);
        EXPECT_EQ(during.live_blocks, before.live_blocks + fits);
        EXPECT_EQ(during.total_allocations, before.total_allocations + fits);
        EXPECT_EQ(during.failed_allocations, before.failed_allocations + !fits);
        if (!fits) continue;
        EXPECT_EQ(during.live_bytes, before.live_bytes + row.count * row.elementSize);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % alignof(std::max_align_t), 0u);
        EXPECT_TRUE(allZero(block, row.count * row.elementSize));
        EXPECT_STREQ(KELOsapiHeap_getBlockTypeName(block), row.typeName);
        EXPECT_EQ(KELOsapiHeap_getBlockTag(block), 0x41424344u);
        KELOsapiHeap_freeMemoryInternal(block);
        EXPECT_EQ(stats().live_bytes, before.live_bytes);
    }
    // Strings live on the same heap.
    const auto before = stats();
    char *texts[] = {DDS_String_alloc(0), DDS_String_alloc(5), DDS_String_dup("eth0, lo")};
    EXPECT_TRUE(allZero(texts[1], 6));
    EXPECT_STREQ(texts[2], "eth0, lo");
    EXPECT_STREQ(KELOsapiHeap_getBlockTypeName(texts[2]), "char");
    EXPECT_EQ(KELOsapiHeap_getBlockTag(texts[2]), VESK_TRANSPORT_HEAP_TAG);
    EXPECT_EQ(stats().live_bytes, before.live_bytes + 1 + 6 + 9);
    EXPECT_EQ(DDS_String_dup(nullptr), nullptr);
    EXPECT_EQ(DDS_String_alloc(SIZE_MAX), nullptr);
    EXPECT_EQ(stats().failed_allocations, before.failed_allocations + 1);
    for (char *text : texts) DDS_String_free(text);
    EXPECT_EQ(stats().live_bytes, before.live_bytes);
}

TEST(Heap, ResizeKeepsContentTypeAndTagAndZeroFillsNewBytes) {
    auto resize = [](void *block, size_t count, size_t size) {
        return static_cast<unsigned char *>(
            KELOsapiHeap_reallocateMemoryInternal(block, count, size, "other", 1u));
    };
    auto *block = static_cast<unsigned char *>(
        KELOsapiHeap_reallocateMemoryInternal(nullptr, 4, 4, "int", 0x41424344u));
    std::memset(block, 0xAB, 16);
    auto *grown = resize(block, 1000, 4);
    ASSERT_NE(grown, nullptr);
    EXPECT_STREQ(KELOsapiHeap_getBlockTypeName(grown), "int");
    EXPECT_EQ(KELOsapiHeap_getBlockTag(grown), 0x41424344u);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(grown), 16), std::string(16, '\xab'));
    EXPECT_TRUE(allZero(grown + 16, 4000 - 16));
    const auto afterGrow = stats();
    auto *shrunk = resize(grown, 2, 4);
    EXPECT_EQ(stats().live_bytes, afterGrow.live_bytes - 3992);
    EXPECT_EQ(stats().live_blocks, afterGrow.live_blocks);
    EXPECT_EQ(stats().total_allocations, afterGrow.total_allocations + 1);
    std::memset(shrunk, 0xCD, 8);
    auto *regrown = resize(shrunk, 8, 4);  // must not bring back the old bytes
    EXPECT_TRUE(allZero(regrown + 8, 24));
    // A refused resize leaves the block as it was.
    const auto before = stats();
    EXPECT_TRUE(refusing(1, [&] { EXPECT_EQ(resize(regrown, 64, 1), nullptr); }));
    EXPECT_EQ(resize(regrown, SIZE_MAX, 2), nullptr);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(regrown), 8), std::string(8, '\xcd'));
    EXPECT_EQ(stats().live_bytes, before.live_bytes);
    EXPECT_EQ(stats().failed_allocations, before.failed_allocations + 2);
    KELOsapiHeap_freeMemoryInternal(regrown);
}

// Memory that never came from the heap is neither described, resized nor released.
TEST(Heap, NullIsIgnoredAndAForeignPointerIsAPreconditionFailure) {
    alignas(std::max_align_t) unsigned char foreign[256] = {};
    void *fake = foreign + 128;
    vesk::test::LogCapture capture(VESK_CONFIG_LOG_VERBOSITY_ERROR);
    const KEL_UINT64 breakpoints = KELLog_getAssertBreakpointCount();
    const auto before = stats();
    KELOsapiHeap_freeMemoryInternal(nullptr);
    DDS_String_free(nullptr);
    KELOsapiHeap_getStatistics(nullptr);
    for (void *block : {static_cast<void *>(nullptr), fake}) {
        EXPECT_EQ(KELOsapiHeap_getBlockTypeName(block), nullptr);
        EXPECT_EQ(KELOsapiHeap_getBlockTag(block), 0u);
    }
    EXPECT_EQ(KELOsapiHeap_reallocateMemoryInternal(fake, 4, 4, "int", 1u), nullptr);
    KELOsapiHeap_freeMemoryInternal(fake);
    EXPECT_EQ(stats().live_blocks, before.live_blocks);
    EXPECT_EQ(KELLog_getAssertBreakpointCount(), breakpoints + 2);
    EXPECT_EQ(KELLog_g_preconditionDetected, 1);
    KELLog_g_preconditionDetected = 0;
    const std::string logged = " KEL_LOG_PRECONDITION_FAILURE_s(\"ptr is a live heap block\")";
    EXPECT_EQ(vesk::test::logLines(capture),
              (Strings{"1 KELOsapiHeap_reallocateMemoryInternal" + logged,
                       "1 KELOsapiHeap_freeMemoryInternal" + logged}));
}

TEST(Heap, FaultInjectionFailsTheNthNextAllocationOfThisThreadOnly) {
    const struct {
        long n;
        std::string next;  // the next allocations, in order: '+' succeeds, '-' is refused
        bool pendingAfter;
    } rows[] = {
        {1, "-+", false}, {2, "+-+", false}, {4, "+++", true}, {0, "+", false}, {-3, "+", false}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.n);
        const auto before = stats();
        KELOsapiHeap_failAllocationAfter(row.n);
        EXPECT_EQ(KELOsapiHeap_isFailurePending() != 0, row.n > 0);
        bool otherThreadSucceeded = false;
        std::thread([&] {
            char *text = DDS_String_alloc(1);
            otherThreadSucceeded = text != nullptr;
            DDS_String_free(text);
        }).join();
        for (char next : row.next) {
            char *text = DDS_String_dup("x");
            EXPECT_EQ(text != nullptr, next == '+');
            DDS_String_free(text);
        }
        EXPECT_EQ(KELOsapiHeap_isFailurePending() != 0, row.pendingAfter);
        KELOsapiHeap_failAllocationAfter(0);
        EXPECT_EQ(KELOsapiHeap_isFailurePending(), 0);
        EXPECT_TRUE(otherThreadSucceeded);
        EXPECT_EQ(stats().failed_allocations,
                  before.failed_allocations + std::count(row.next.begin(), row.next.end(), '-'));
    }
}

// ---------------------------------------------------------------------------
// String sequences

Strings contents(const DDS_StringSeq &seq) {
    Strings out;
    for (DDS_Long i = 0; i < DDS_StringSeq_get_length(&seq); ++i) {
        const char *text = DDS_StringSeq_get(&seq, i);
        out.emplace_back(text != nullptr ? text : "<null>");
    }
    return out;
}

DDS_StringSeq sequenceOf(const std::vector<const char *> &texts) {
    DDS_StringSeq seq;
    EXPECT_TRUE(DDS_StringSeq_initialize(&seq));
    for (const char *text : texts) EXPECT_TRUE(DDS_StringSeq_append(&seq, text));
    return seq;
}

bool isEmpty(const DDS_StringSeq &seq) {
    return seq._contiguous_buffer == nullptr && seq._length == 0 && seq._maximum == 0;
}

TEST(StringSeq, AppendCopiesAndGrowsAndFinalizeReleases) {
    DDS_StringSeq seq = {reinterpret_cast<char **>(0x10), 5, 7, DDS_BOOLEAN_FALSE};
    ASSERT_TRUE(DDS_StringSeq_initialize(&seq));
    EXPECT_TRUE(isEmpty(seq) && seq._owned);
    Strings expected;
    for (int i = 0; i < 40; ++i) {
        expected.push_back("alias" + std::to_string(i));
        ASSERT_TRUE(DDS_StringSeq_append(&seq, expected.back().c_str()));
    }
    ASSERT_TRUE(DDS_StringSeq_append(&seq, nullptr));
    expected.emplace_back("<null>");
    EXPECT_EQ(contents(seq), expected);
    EXPECT_STREQ(KELOsapiHeap_getBlockTypeName(seq._contiguous_buffer), "char *");
    for (DDS_Long i : {-1, 41, 42}) EXPECT_EQ(DDS_StringSeq_get(&seq, i), nullptr) << i;
    EXPECT_TRUE(DDS_StringSeq_finalize(&seq));
    EXPECT_TRUE(isEmpty(seq));
    EXPECT_TRUE(DDS_StringSeq_finalize(&seq)) << "finalizing an empty sequence is harmless";
    EXPECT_FALSE(DDS_StringSeq_initialize(nullptr) || DDS_StringSeq_append(nullptr, "x") ||
                 DDS_StringSeq_finalize(nullptr) || DDS_StringSeq_get(nullptr, 0) ||
                 DDS_StringSeq_get_length(nullptr));
}

TEST(StringSeq, ANonOwningSequenceIsNeitherChangedNorReleased) {
    char first[] = "lent";
    char *lent[] = {first, nullptr};
    DDS_StringSeq seq = {lent, 1, 2, DDS_BOOLEAN_FALSE};
    DDS_StringSeq empty = DDS_SEQUENCE_INITIALIZER;
    const auto blocks = liveHeapBlocks();
    EXPECT_FALSE(DDS_StringSeq_append(&seq, "more"));
    EXPECT_FALSE(DDS_StringSeq_finalize(&seq));
    EXPECT_FALSE(DDS_StringSeq_copy(&seq, &empty));
    EXPECT_EQ(DDS_StringSeq_from_delimited_string(&seq, "a,b", ','), DDS_RETCODE_BAD_PARAMETER);
    EXPECT_TRUE(seq._contiguous_buffer == lent && seq._length == 1 && seq._maximum == 2);
    EXPECT_TRUE(lent[0] == first && lent[1] == nullptr);
    EXPECT_EQ(liveHeapBlocks(), blocks);
}

TEST(StringSeq, CopyMakesAnExactIndependentCopy) {
    const struct {
        std::vector<const char *> target, source;
    } rows[] = {{{}, {"a", "", nullptr}}, {{"old1", "old2", "old3"}, {"new"}}, {{"old"}, {}}};
    for (const auto &row : rows) {
        DDS_StringSeq target = sequenceOf(row.target), source = sequenceOf(row.source);
        const Strings expected = contents(source);
        SCOPED_TRACE(testing::PrintToString(expected));
        ASSERT_TRUE(DDS_StringSeq_copy(&target, &source));
        for (DDS_Long i = 0; i < source._length; ++i) {
            if (source._contiguous_buffer[i] != nullptr) {
                EXPECT_NE(target._contiguous_buffer[i], source._contiguous_buffer[i]);
            }
        }
        EXPECT_TRUE(DDS_StringSeq_finalize(&source));
        EXPECT_TRUE(DDS_StringSeq_copy(&target, &target));
        EXPECT_FALSE(DDS_StringSeq_copy(&target, nullptr) || DDS_StringSeq_copy(nullptr, &target));
        EXPECT_EQ(contents(target), expected);
        EXPECT_TRUE(DDS_StringSeq_finalize(&target));
    }
}

TEST(StringSeq, SplittingKeepsEveryPieceUntrimmed) {
    const struct {
        const char *text;
        char delimiter;
        Strings expected;
    } rows[] = {{"", ',', {}},
                {"a,,b", ',', {"a", "", "b"}},
                {"a,", ',', {"a", ""}},
                {",a", ',', {"", "a"}},
                {" eth0 , 10.0.0.1 ,lo", ',', {" eth0 ", " 10.0.0.1 ", "lo"}},
                {"a;b,c", ';', {"a", "b,c"}},
                {"x", '\0', {"x"}}};
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::Message() << "\"" << row.text << "\" on '" << row.delimiter << "'");
        // Emptied by hand, it still holds its buffer: the split must not leak it.
        DDS_StringSeq seq = sequenceOf({"dropped"});
        DDS_String_free(seq._contiguous_buffer[0]);
        seq._length = 0;
        ASSERT_EQ(DDS_StringSeq_from_delimited_string(&seq, row.text, row.delimiter),
                  DDS_RETCODE_OK);
        EXPECT_EQ(contents(seq), row.expected);
        EXPECT_TRUE(DDS_StringSeq_finalize(&seq));
    }
    DDS_StringSeq full = sequenceOf({"already"}), empty = DDS_SEQUENCE_INITIALIZER;
    EXPECT_EQ(DDS_StringSeq_from_delimited_string(nullptr, "a", ','), DDS_RETCODE_BAD_PARAMETER);
    EXPECT_EQ(DDS_StringSeq_from_delimited_string(&empty, nullptr, ','), DDS_RETCODE_BAD_PARAMETER);
    EXPECT_EQ(DDS_StringSeq_from_delimited_string(&full, "a,b", ','), DDS_RETCODE_BAD_PARAMETER);
    EXPECT_EQ(contents(full), Strings{"already"});
    EXPECT_TRUE(DDS_StringSeq_finalize(&full));
}

// A refused operation leaves the sequence as it was and nothing live.
TEST(StringSeq, ExhaustedMemoryLeavesTheSequenceAsItWas) {
    DDS_StringSeq source = sequenceOf({"one", "two", "three"});
    using Operation = bool (*)(DDS_StringSeq *, const DDS_StringSeq *);
    const Operation append = [](DDS_StringSeq *s, const DDS_StringSeq *) {
        return DDS_StringSeq_append(s, "new") != 0;
    };
    const Operation copy = [](DDS_StringSeq *s, const DDS_StringSeq *src) {
        return DDS_StringSeq_copy(s, src) != 0;
    };
    const Operation split = [](DDS_StringSeq *s, const DDS_StringSeq *) {
        return DDS_StringSeq_from_delimited_string(s, "a,,bc,d", ',') == DDS_RETCODE_OK;
    };
    const struct {
        std::vector<const char *> held;
        Operation operation;
        long allocations;
        Strings expected;
    } rows[] = {{{"old"}, append, 1, {"old", "new"}},
                {{"1", "2", "3", "4"}, append, 2, {"1", "2", "3", "4", "new"}},
                {{"kept"}, copy, 4, {"one", "two", "three"}},
                {{}, split, 5, {"a", "", "bc", "d"}}};
    for (const auto &row : rows) {
        for (long n = 1;; ++n) {
            SCOPED_TRACE(testing::Message() << row.expected.back() << ", allocation " << n);
            ASSERT_LE(n, row.allocations + 1);
            DDS_StringSeq seq = sequenceOf(row.held);
            const DDS_StringSeq before = seq;
            const auto blocks = liveHeapBlocks();
            bool ok = false;
            const bool refused = refusing(n, [&] { ok = row.operation(&seq, &source); });
            EXPECT_EQ(ok, !refused);
            if (ok) {
                EXPECT_EQ(contents(seq), row.expected);
                EXPECT_EQ(n, row.allocations + 1);
            } else {
                EXPECT_EQ(liveHeapBlocks(), blocks);
                EXPECT_TRUE(seq._contiguous_buffer == before._contiguous_buffer &&
                            seq._length == before._length && seq._maximum == before._maximum);
            }
            DDS_StringSeq_finalize(&seq);
            if (ok) break;
        }
    }
    DDS_StringSeq_finalize(&source);
}

}  // namespace
