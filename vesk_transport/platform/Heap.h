/* The library heap: arrays and strings, with accounting and fault injection.
 *
 * Every block records its element type's name (such as "char *") and a
 * four-character tag. Blocks are zero-filled. The heap counts live blocks
 * and bytes so that tests and applications can prove that a sequence of
 * operations released everything it allocated, and it can be told to fail
 * the n-th next allocation of the calling thread, so that every failure
 * path can be exercised. */
#ifndef VESK_TRANSPORT_PLATFORM_HEAP_H
#define VESK_TRANSPORT_PLATFORM_HEAP_H

#include "vesk_transport/platform/Types.h"

#ifdef __cplusplus
extern "C" {
#endif
VESK_TRANSPORT_EXPORT_BEGIN

/* The tag of every allocation of the transport-support module: "VTRS". */
#define VESK_TRANSPORT_HEAP_TAG 0x56545253u

/* Allocates (ptr NULL) or resizes a block of count elements of
 * element_size bytes. Returns NULL, leaving ptr untouched, when memory is
 * exhausted, when count * element_size overflows, or when fault injection
 * says so. A resized block keeps its type name and tag; new bytes are 0. */
void *KELOsapiHeap_reallocateMemoryInternal(void *ptr, size_t count, size_t element_size,
                                            const char *type_name, KEL_UINT32 tag);
/* Releases a block; NULL is ignored. */
void KELOsapiHeap_freeMemoryInternal(void *ptr);

/* Stores a new zero-filled array of count elements into *array_place
 * (which holds NULL), or leaves NULL there when it cannot. The element
 * type's name is recorded as written ("char *"). Evaluates to non-zero on
 * success. */
#define KELOsapiHeap_allocateArray(array_place, count, element_type)                        \
    ((*(array_place) = (element_type *)KELOsapiHeap_reallocateMemoryInternal(                \
          NULL, (size_t)(count), sizeof(element_type), #element_type,                       \
          VESK_TRANSPORT_HEAP_TAG)) != NULL)

#define KELOsapiHeap_freeArray(array) KELOsapiHeap_freeMemoryInternal((void *)(array))

/* Strings on the same heap. DDS_String_alloc(n) holds n characters and the
 * terminator, all zero. DDS_String_dup(NULL) is NULL. */
char *DDS_String_alloc(size_t length);
char *DDS_String_dup(const char *text);
void DDS_String_free(char *text);

/* The type name and tag recorded for a live block. */
const char *KELOsapiHeap_getBlockTypeName(const void *ptr);
KEL_UINT32 KELOsapiHeap_getBlockTag(const void *ptr);

struct KELOsapiHeapStatistics {
    KEL_UINT64 live_blocks;         /* allocated and not yet released */
    KEL_UINT64 live_bytes;          /* payload bytes of the live blocks */
    KEL_UINT64 total_allocations;   /* successful allocations so far */
    KEL_UINT64 failed_allocations;  /* refused allocations so far */
};
void KELOsapiHeap_getStatistics(struct KELOsapiHeapStatistics *statistics_out);

/* Fault injection, per thread: the n-th next allocation of the calling
 * thread fails (n = 1: the next one) and the ones after it succeed again.
 * n <= 0 switches injection off. */
void KELOsapiHeap_failAllocationAfter(long n);
/* Non-zero while an injected failure is still pending on this thread. */
int KELOsapiHeap_isFailurePending(void);

VESK_TRANSPORT_EXPORT_END
#ifdef __cplusplus
} /* extern "C" */
#endif

#endif
