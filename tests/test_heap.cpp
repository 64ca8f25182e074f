// The library heap: blocks, accounting, resizing, strings, fault injection.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <thread>
#include <vector>

#include "support/TestSupport.hpp"
#include "vesk_transport/platform/Heap.h"

namespace {

using vesk::test::LogCapture;

KELOsapiHeapStatistics stats() {
    KELOsapiHeapStatistics s{};
    KELOsapiHeap_getStatistics(&s);
    return s;
}

bool allZero(const void *p, size_t n) {
    const auto *bytes = static_cast<const unsigned char *>(p);
    for (size_t i = 0; i < n; ++i) {
        if (bytes[i] != 0) return false;
    }
    return true;
}

TEST(Heap, ArraysAreZeroFilledAlignedAndRecordTheirTypeAndTag) {
    struct Row {
        const char *label;
        size_t count;
        size_t elementSize;
        const char *typeName;
    };
    const Row rows[] = {
        {"one byte", 1, 1, "char"},        {"pointers", 7, sizeof(char *), "char *"},
        {"odd size", 3, 13, "struct Odd"}, {"doubles", 33, sizeof(double), "double"},
        {"empty", 0, 8, "long"},           {"large", 1 << 16, 1, "unsigned char"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.label);
        const auto before = stats();
        void *block = KELOsapiHeap_reallocateMemoryInternal(nullptr, row.count, row.elementSize,
                                                            row.typeName, VESK_TRANSPORT_HEAP_TAG);
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % alignof(std::max_align_t), 0u);
        EXPECT_TRUE(allZero(block, row.count * row.elementSize));
        EXPECT_STREQ(KELOsapiHeap_getBlockTypeName(block), row.typeName);
        EXPECT_EQ(KELOsapiHeap_getBlockTag(block), VESK_TRANSPORT_HEAP_TAG);

        const auto during = stats();
        EXPECT_EQ(during.live_blocks, before.live_blocks + 1);
        EXPECT_EQ(during.live_bytes, before.live_bytes + row.count * row.elementSize);
        EXPECT_EQ(during.total_allocations, before.total_allocations + 1);

        KELOsapiHeap_freeMemoryInternal(block);
        const auto after = stats();
        EXPECT_EQ(after.live_blocks, before.live_blocks);
        EXPECT_EQ(after.live_bytes, before.live_bytes);
    }
}

TEST(Heap, AllocateArrayMacroRecordsTheTypeAsWritten) {
    char **names = nullptr;
    ASSERT_TRUE(KELOsapiHeap_allocateArray(&names, 4, char *));
    EXPECT_STREQ(KELOsapiHeap_getBlockTypeName(names), "char *");
    EXPECT_EQ(KELOsapiHeap_getBlockTag(names), 0x56545253u);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(names[i], nullptr);
    KELOsapiHeap_freeArray(names);
}

TEST(Heap, OverflowingSizesAreRefusedAndCounted) {
    struct Row {
        size_t count;
        size_t elementSize;
    };
    const size_t max = std::numeric_limits<size_t>::max();
    const Row rows[] = {
        {max, 2},       {2, max}, {max / 2 + 1, 2}, {max, 1},  // the header no longer fits
        {max / 16, 16},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::Message() << row.count << " x " << row.elementSize);
        const auto before = stats();
        EXPECT_EQ(KELOsapiHeap_reallocateMemoryInternal(nullptr, row.count, row.elementSize, "x",
                                                        VESK_TRANSPORT_HEAP_TAG),
                  nullptr);
        const auto after = stats();
        EXPECT_EQ(after.failed_allocations, before.failed_allocations + 1);
        EXPECT_EQ(after.live_blocks, before.live_blocks);
        EXPECT_EQ(after.total_allocations, before.total_allocations);
    }
}

TEST(Heap, ResizeKeepsContentTypeAndTagAndZeroFillsNewBytes) {
    auto *block = static_cast<unsigned char *>(
        KELOsapiHeap_reallocateMemoryInternal(nullptr, 4, 4, "int", 0x41424344u));
    ASSERT_NE(block, nullptr);
    std::memset(block, 0xAB, 16);

    // The type name and tag given to a resize are ignored.
    auto *grown = static_cast<unsigned char *>(
        KELOsapiHeap_reallocateMemoryInternal(block, 1000, 4, "other", 1u));
    ASSERT_NE(grown, nullptr);
    EXPECT_STREQ(KELOsapiHeap_getBlockTypeName(grown), "int");
    EXPECT_EQ(KELOsapiHeap_getBlockTag(grown), 0x41424344u);
    for (int i = 0; i < 16; ++i) EXPECT_EQ(grown[i], 0xAB);
    EXPECT_TRUE(allZero(grown + 16, 4000 - 16));
    const auto afterGrow = stats();

    auto *shrunk =
        static_cast<unsigned char *>(KELOsapiHeap_reallocateMemoryInternal(grown, 2, 4, "", 0));
    ASSERT_NE(shrunk, nullptr);
    EXPECT_EQ(stats().live_bytes, afterGrow.live_bytes - 3992);
    EXPECT_EQ(stats().live_blocks, afterGrow.live_blocks);
    std::memset(shrunk, 0xCD, 8);

    // Growing again after a shrink must not bring back the old bytes.
    auto *regrown =
        static_cast<unsigned char *>(KELOsapiHeap_reallocateMemoryInternal(shrunk, 8, 4, "", 0));
    ASSERT_NE(regrown, nullptr);
    for (int i = 0; i < 8; ++i) EXPECT_EQ(regrown[i], 0xCD);
    EXPECT_TRUE(allZero(regrown + 8, 24));
    KELOsapiHeap_freeMemoryInternal(regrown);
}

TEST(Heap, RefusedResizeLeavesTheBlockIntact) {
    auto *block =
        static_cast<char *>(KELOsapiHeap_reallocateMemoryInternal(nullptr, 8, 1, "char", 7u));
    ASSERT_NE(block, nullptr);
    std::memcpy(block, "abcdefg", 8);
    const auto before = stats();

    KELOsapiHeap_failAllocationAfter(1);
    EXPECT_EQ(KELOsapiHeap_reallocateMemoryInternal(block, 64, 1, "char", 7u), nullptr);
    EXPECT_EQ(KELOsapiHeap_reallocateMemoryInternal(block, std::numeric_limits<size_t>::max(), 2,
                                                    "char", 7u),
              nullptr);
    EXPECT_STREQ(block, "abcdefg");
    EXPECT_STREQ(KELOsapiHeap_getBlockTypeName(block), "char");
    const auto after = stats();
    EXPECT_EQ(after.live_bytes, before.live_bytes);
    EXPECT_EQ(after.failed_allocations, before.failed_allocations + 2);
    KELOsapiHeap_freeMemoryInternal(block);
}

TEST(Heap, FreeOfNullIsIgnored) {
    const auto before = stats();
    KELOsapiHeap_freeMemoryInternal(nullptr);
    KELOsapiHeap_freeArray(static_cast<int *>(nullptr));
    DDS_String_free(nullptr);
    EXPECT_EQ(stats().live_blocks, before.live_blocks);
    EXPECT_EQ(KELOsapiHeap_getBlockTypeName(nullptr), nullptr);
    EXPECT_EQ(KELOsapiHeap_getBlockTag(nullptr), 0u);
}

TEST(Heap, ForeignPointerIsRejectedAsAPreconditionFailure) {
    // Memory that never came from the heap: its would-be header holds no
    // magic, so it is neither described, resized nor released.
    alignas(std::max_align_t) unsigned char foreign[256] = {};
    void *fake = foreign + 128;
    LogCapture capture(VESK_CONFIG_LOG_VERBOSITY_ERROR);
    const KEL_UINT64 breakpoints = KELLog_getAssertBreakpointCount();
    const int detectedBefore = KELLog_g_preconditionDetected;
    const auto before = stats();

    EXPECT_EQ(KELOsapiHeap_getBlockTypeName(fake), nullptr);
    EXPECT_EQ(KELOsapiHeap_getBlockTag(fake), 0u);
    EXPECT_EQ(KELOsapiHeap_reallocateMemoryInternal(fake, 4, 4, "int", 1u), nullptr);
    KELOsapiHeap_freeMemoryInternal(fake);

    EXPECT_EQ(stats().live_blocks, before.live_blocks);
    EXPECT_EQ(KELLog_getAssertBreakpointCount(), breakpoints + 2);
    EXPECT_EQ(KELLog_g_preconditionDetected, 1);
    KELLog_g_preconditionDetected = detectedBefore;
    ASSERT_EQ(capture.entries().size(), 2u);
    EXPECT_EQ(capture.entries()[0].function, "KELOsapiHeap_reallocateMemoryInternal");
    EXPECT_EQ(capture.entries()[1].function, "KELOsapiHeap_freeMemoryInternal");
    EXPECT_EQ(capture.summary()[1], "KEL_LOG_PRECONDITION_FAILURE_s(\"ptr is a live heap block\")");
    EXPECT_EQ(capture.entries()[1].level, static_cast<KEL_UINT32>(KEL_LOG_BIT_EXCEPTION));
}

TEST(Heap, StringsLiveOnTheSameHeap) {
    const auto before = stats();
    char *empty = DDS_String_alloc(0);
    ASSERT_NE(empty, nullptr);
    EXPECT_STREQ(empty, "");
    char *five = DDS_String_alloc(5);
    ASSERT_NE(five, nullptr);
    EXPECT_TRUE(allZero(five, 6));
    EXPECT_STREQ(KELOsapiHeap_getBlockTypeName(five), "char");
    EXPECT_EQ(KELOsapiHeap_getBlockTag(five), VESK_TRANSPORT_HEAP_TAG);

    char *copy = DDS_String_dup("eth0, lo");
    ASSERT_NE(copy, nullptr);
    EXPECT_STREQ(copy, "eth0, lo");
    EXPECT_STREQ(KELOsapiHeap_getBlockTypeName(copy), "char");
    EXPECT_EQ(DDS_String_dup(nullptr), nullptr);

    const auto during = stats();
    EXPECT_EQ(during.live_blocks, before.live_blocks + 3);
    EXPECT_EQ(during.live_bytes, before.live_bytes + 1 + 6 + 9);
    DDS_String_free(empty);
    DDS_String_free(five);
    DDS_String_free(copy);
    EXPECT_EQ(stats().live_bytes, before.live_bytes);

    EXPECT_EQ(DDS_String_alloc(std::numeric_limits<size_t>::max()), nullptr);
}

TEST(Heap, FaultInjectionFailsExactlyTheNthNextAllocation) {
    struct Row {
        long n;
        std::vector<bool> expectedSuccess;  // of the next allocations, in order
        bool pendingAfter;
    };
    const std::vector<Row> rows = {
        {1, {false, true, true}, false}, {2, {true, false, true}, false},
        {4, {true, true, true}, true},   {0, {true, true, true}, false},
        {-3, {true, true}, false},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::Message() << "n = " << row.n);
        KELOsapiHeap_failAllocationAfter(row.n);
        EXPECT_EQ(KELOsapiHeap_isFailurePending() != 0, row.n > 0);
        for (size_t i = 0; i < row.expectedSuccess.size(); ++i) {
            SCOPED_TRACE(testing::Message() << "allocation " << i + 1);
            char *text = DDS_String_dup("x");
            EXPECT_EQ(text != nullptr, row.expectedSuccess[i]);
            DDS_String_free(text);
        }
        EXPECT_EQ(KELOsapiHeap_isFailurePending() != 0, row.pendingAfter);
        KELOsapiHeap_failAllocationAfter(0);
        EXPECT_EQ(KELOsapiHeap_isFailurePending(), 0);
    }
}

TEST(Heap, FaultInjectionCountsTowardsTheStatistics) {
    const auto before = stats();
    KELOsapiHeap_failAllocationAfter(1);
    EXPECT_EQ(DDS_String_alloc(3), nullptr);
    const auto after = stats();
    EXPECT_EQ(after.failed_allocations, before.failed_allocations + 1);
    EXPECT_EQ(after.total_allocations, before.total_allocations);
    EXPECT_EQ(after.live_blocks, before.live_blocks);
}

TEST(Heap, FaultInjectionIsPerThread) {
    KELOsapiHeap_failAllocationAfter(1);
    bool otherSucceeded = false;
    bool otherPending = true;
    std::thread other([&] {
        otherPending = KELOsapiHeap_isFailurePending() != 0;
        char *text = DDS_String_dup("other");
        otherSucceeded = text != nullptr;
        DDS_String_free(text);
    });
    other.join();
    EXPECT_FALSE(otherPending);
    EXPECT_TRUE(otherSucceeded);
    EXPECT_TRUE(KELOsapiHeap_isFailurePending());
    EXPECT_EQ(DDS_String_dup("mine"), nullptr);
}

TEST(Heap, ConcurrentAllocationsKeepTheAccountsExact) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 2000;
    const auto before = stats();
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            std::vector<char *> kept;
            for (int i = 0; i < kRounds; ++i) {
                char *text = DDS_String_alloc(static_cast<size_t>(i % 17 + t));
                if (text == nullptr) continue;
                if (i % 3 == 0) {
                    kept.push_back(text);
                } else {
                    DDS_String_free(text);
                }
            }
            for (char *text : kept) DDS_String_free(text);
        });
    }
    for (auto &thread : threads) thread.join();
    const auto after = stats();
    EXPECT_EQ(after.live_blocks, before.live_blocks);
    EXPECT_EQ(after.live_bytes, before.live_bytes);
    EXPECT_EQ(after.total_allocations, before.total_allocations + kThreads * kRounds);
}

TEST(Heap, StatisticsOutMayBeNull) {
    KELOsapiHeap_getStatistics(nullptr);
}

}  // namespace
