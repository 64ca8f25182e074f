// The library heap.
//
// Each block is a header followed by the payload. The header is aligned
// like std::max_align_t, so the payload right after it is too. The header
// records what the block holds, and a magic word that tells a live block
// from a stray or already released pointer.
#include "vesk_transport/platform/Heap.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "vesk_transport/platform/Log.h"

namespace {

constexpr KEL_UINT64 kLiveMagic = 0x4B454C48454150AAull;   // live block
constexpr KEL_UINT64 kFreedMagic = 0x0000000000000000ull;  // cleared on release

struct alignas(std::max_align_t) BlockHeader {
    KEL_UINT64 magic;
    size_t size;   // payload bytes
    size_t count;  // elements
    const char *type_name;
    KEL_UINT32 tag;
};
static_assert(sizeof(BlockHeader) % alignof(std::max_align_t) == 0,
              "the payload must follow the header max-aligned");

std::atomic<KEL_UINT64> g_liveBlocks{0};
std::atomic<KEL_UINT64> g_liveBytes{0};
std::atomic<KEL_UINT64> g_totalAllocations{0};
std::atomic<KEL_UINT64> g_failedAllocations{0};

// Allocations of this thread still to go before the injected failure; 0
// when no failure is pending.
thread_local long t_failCountdown = 0;

BlockHeader *headerOf(const void *payload) {
    return const_cast<BlockHeader *>(static_cast<const BlockHeader *>(payload) - 1);
}

// The header of a live block, or nullptr (after logging) for anything else.
BlockHeader *liveHeaderOf(const void *payload, const char *function) {
    BlockHeader *header = headerOf(payload);
    if (header->magic == kLiveMagic) return header;
    if (KELLog_isEnabled(KEL_LOG_BIT_EXCEPTION, DDS_SUBMODULE_MASK_TRANSPORT)) {
        KELLogMessage_printWithParams(-1, KEL_LOG_BIT_EXCEPTION, VESK_TRANSPORT_LOG_MODULE_ID,
                                      __FILE__, __LINE__, function, &KEL_LOG_PRECONDITION_FAILURE_s,
                                      "\"ptr is a live heap block\"");
    }
    if (KELLog_g_detectPrecondition != 0) KELLog_g_preconditionDetected = 1;
    KELLog_onAssertBreakpoint();
    return nullptr;
}

// Consumes one step of the injected-failure countdown; true when this
// allocation is the one to refuse.
bool injectedFailure() {
    if (t_failCountdown <= 0) return false;
    return --t_failCountdown == 0;
}

void *refuse() {
    g_failedAllocations.fetch_add(1, std::memory_order_relaxed);
    return nullptr;
}

}  // namespace

extern "C" {

void *KELOsapiHeap_reallocateMemoryInternal(void *ptr, size_t count, size_t element_size,
                                            const char *type_name, KEL_UINT32 tag) {
    BlockHeader *old = nullptr;
    if (ptr != nullptr) {
        old = liveHeaderOf(ptr, "KELOsapiHeap_reallocateMemoryInternal");
        if (old == nullptr) return nullptr;
    }
    if (injectedFailure()) return refuse();
    if (element_size != 0 &&
        count > (std::numeric_limits<size_t>::max() - sizeof(BlockHeader)) / element_size) {
        return refuse();
    }
    const size_t size = count * element_size;

    if (old == nullptr) {
        void *raw = std::calloc(1, sizeof(BlockHeader) + size);
        if (raw == nullptr) return refuse();
        auto *header = static_cast<BlockHeader *>(raw);
        header->magic = kLiveMagic;
        header->size = size;
        header->count = count;
        header->type_name = type_name;
        header->tag = tag;
        g_liveBlocks.fetch_add(1, std::memory_order_relaxed);
        g_liveBytes.fetch_add(size, std::memory_order_relaxed);
        g_totalAllocations.fetch_add(1, std::memory_order_relaxed);
        return header + 1;
    }

    const size_t oldSize = old->size;
    auto *header = static_cast<BlockHeader *>(std::realloc(old, sizeof(BlockHeader) + size));
    if (header == nullptr) return refuse();  // the old block is intact
    if (size > oldSize) {
        std::memset(reinterpret_cast<unsigned char *>(header + 1) + oldSize, 0, size - oldSize);
    }
    header->size = size;
    header->count = count;
    if (size >= oldSize) {
        g_liveBytes.fetch_add(size - oldSize, std::memory_order_relaxed);
    } else {
        g_liveBytes.fetch_sub(oldSize - size, std::memory_order_relaxed);
    }
    g_totalAllocations.fetch_add(1, std::memory_order_relaxed);
    return header + 1;
}

void KELOsapiHeap_freeMemoryInternal(void *ptr) {
    if (ptr == nullptr) return;
    BlockHeader *header = liveHeaderOf(ptr, "KELOsapiHeap_freeMemoryInternal");
    if (header == nullptr) return;
    // Cleared so that a second release of the same pointer is recognised
    // (while the memory has not been reused) instead of corrupting the heap.
    header->magic = kFreedMagic;
    g_liveBlocks.fetch_sub(1, std::memory_order_relaxed);
    g_liveBytes.fetch_sub(header->size, std::memory_order_relaxed);
    std::free(header);
}

char *DDS_String_alloc(size_t length) {
    if (length == std::numeric_limits<size_t>::max()) {
        g_failedAllocations.fetch_add(1, std::memory_order_relaxed);
        return nullptr;
    }
    return static_cast<char *>(KELOsapiHeap_reallocateMemoryInternal(
        nullptr, length + 1, sizeof(char), "char", VESK_TRANSPORT_HEAP_TAG));
}

char *DDS_String_dup(const char *text) {
    if (text == nullptr) return nullptr;
    const size_t length = std::strlen(text);
    char *copy = DDS_String_alloc(length);
    if (copy != nullptr) std::memcpy(copy, text, length);
    return copy;
}

void DDS_String_free(char *text) {
    KELOsapiHeap_freeMemoryInternal(text);
}

const char *KELOsapiHeap_getBlockTypeName(const void *ptr) {
    if (ptr == nullptr) return nullptr;
    const BlockHeader *header = headerOf(ptr);
    return header->magic == kLiveMagic ? header->type_name : nullptr;
}

KEL_UINT32 KELOsapiHeap_getBlockTag(const void *ptr) {
    if (ptr == nullptr) return 0;
    const BlockHeader *header = headerOf(ptr);
    return header->magic == kLiveMagic ? header->tag : 0;
}

void KELOsapiHeap_getStatistics(struct KELOsapiHeapStatistics *statistics_out) {
    if (statistics_out == nullptr) return;
    statistics_out->live_blocks = g_liveBlocks.load(std::memory_order_relaxed);
    statistics_out->live_bytes = g_liveBytes.load(std::memory_order_relaxed);
    statistics_out->total_allocations = g_totalAllocations.load(std::memory_order_relaxed);
    statistics_out->failed_allocations = g_failedAllocations.load(std::memory_order_relaxed);
}

void KELOsapiHeap_failAllocationAfter(long n) {
    t_failCountdown = n > 0 ? n : 0;
}

int KELOsapiHeap_isFailurePending(void) {
    return t_failCountdown > 0 ? 1 : 0;
}

}  // extern "C"
