// DDS_StringSeq: strings and buffer on the library heap.
//
// Operations that build several strings (copy, split) build them into a
// new buffer first and install it only when everything succeeded, so that
// a failure leaves the target as it was and nothing allocated.
#include "vesk_transport/platform/StringSeq.h"

#include <cstdint>
#include <cstring>

#include "vesk_transport/platform/Heap.h"

namespace {

// Releases the first count strings of buffer and the buffer itself.
void releaseBuffer(char **buffer, DDS_Long count) {
    if (buffer == nullptr) return;
    for (DDS_Long i = 0; i < count; ++i) DDS_String_free(buffer[i]);
    KELOsapiHeap_freeArray(buffer);
}

bool isOwning(const DDS_StringSeq *seq) {
    return seq != nullptr && seq->_owned != 0;
}

// Replaces the (released) contents of seq by buffer.
void install(DDS_StringSeq *seq, char **buffer, DDS_Long length) {
    releaseBuffer(seq->_contiguous_buffer, seq->_length);
    seq->_contiguous_buffer = buffer;
    seq->_length = length;
    seq->_maximum = buffer != nullptr ? length : 0;
}

}  // namespace

extern "C" {

DDS_Boolean DDS_StringSeq_initialize(struct DDS_StringSeq *seq) {
    if (seq == nullptr) return DDS_BOOLEAN_FALSE;
    *seq = DDS_StringSeq DDS_SEQUENCE_INITIALIZER;
    return DDS_BOOLEAN_TRUE;
}

DDS_Long DDS_StringSeq_get_length(const struct DDS_StringSeq *seq) {
    return seq != nullptr ? seq->_length : 0;
}

char *DDS_StringSeq_get(const struct DDS_StringSeq *seq, DDS_Long i) {
    if (seq == nullptr || i < 0 || i >= seq->_length || seq->_contiguous_buffer == nullptr) {
        return nullptr;
    }
    return seq->_contiguous_buffer[i];
}

DDS_Boolean DDS_StringSeq_append(struct DDS_StringSeq *seq, const char *text) {
    if (!isOwning(seq) || seq->_length == INT32_MAX) return DDS_BOOLEAN_FALSE;
    char *copy = nullptr;
    if (text != nullptr) {
        copy = DDS_String_dup(text);
        if (copy == nullptr) return DDS_BOOLEAN_FALSE;
    }
    if (seq->_length >= seq->_maximum) {
        // Doubling keeps a run of appends linear.
        KEL_INT64 grown = seq->_maximum < 4 ? 4 : static_cast<KEL_INT64>(seq->_maximum) * 2;
        if (grown > INT32_MAX) grown = INT32_MAX;
        void *buffer = KELOsapiHeap_reallocateMemoryInternal(
            seq->_contiguous_buffer, static_cast<size_t>(grown), sizeof(char *), "char *",
            VESK_TRANSPORT_HEAP_TAG);
        if (buffer == nullptr) {
            DDS_String_free(copy);
            return DDS_BOOLEAN_FALSE;
        }
        seq->_contiguous_buffer = static_cast<char **>(buffer);
        seq->_maximum = static_cast<DDS_Long>(grown);
    }
    seq->_contiguous_buffer[seq->_length++] = copy;
    return DDS_BOOLEAN_TRUE;
}

DDS_Boolean DDS_StringSeq_finalize(struct DDS_StringSeq *seq) {
    if (!isOwning(seq)) return DDS_BOOLEAN_FALSE;
    releaseBuffer(seq->_contiguous_buffer, seq->_length);
    seq->_contiguous_buffer = nullptr;
    seq->_length = 0;
    seq->_maximum = 0;
    return DDS_BOOLEAN_TRUE;
}

DDS_Boolean DDS_StringSeq_copy(struct DDS_StringSeq *seq, const struct DDS_StringSeq *src) {
    if (!isOwning(seq) || src == nullptr) return DDS_BOOLEAN_FALSE;
    if (seq == src) return DDS_BOOLEAN_TRUE;
    const DDS_Long length = src->_length > 0 ? src->_length : 0;
    char **buffer = nullptr;
    if (length > 0) {
        if (!KELOsapiHeap_allocateArray(&buffer, length, char *)) return DDS_BOOLEAN_FALSE;
        for (DDS_Long i = 0; i < length; ++i) {
            const char *text = DDS_StringSeq_get(src, i);
            if (text == nullptr) continue;  // a null element stays null
            buffer[i] = DDS_String_dup(text);
            if (buffer[i] == nullptr) {
                releaseBuffer(buffer, i);
                return DDS_BOOLEAN_FALSE;
            }
        }
    }
    install(seq, buffer, length);
    return DDS_BOOLEAN_TRUE;
}

DDS_ReturnCode_t DDS_StringSeq_from_delimited_string(struct DDS_StringSeq *seq, const char *text,
                                                     char delimiter) {
    if (!isOwning(seq) || text == nullptr || seq->_length != 0) {
        return DDS_RETCODE_BAD_PARAMETER;
    }
    if (*text == '\0') return DDS_RETCODE_OK;  // no piece at all

    // n delimiters cut the text into n + 1 pieces, empty ones included.
    size_t pieces = 1;
    for (const char *p = text; *p != '\0'; ++p) {
        if (*p == delimiter) ++pieces;
    }
    if (pieces > static_cast<size_t>(INT32_MAX)) return DDS_RETCODE_OUT_OF_RESOURCES;
    const auto count = static_cast<DDS_Long>(pieces);

    char **buffer = nullptr;
    if (!KELOsapiHeap_allocateArray(&buffer, count, char *)) return DDS_RETCODE_OUT_OF_RESOURCES;
    const char *start = text;
    for (DDS_Long i = 0; i < count; ++i) {
        const char *stop = start;
        while (*stop != '\0' && *stop != delimiter) ++stop;
        const auto length = static_cast<size_t>(stop - start);
        buffer[i] = DDS_String_alloc(length);
        if (buffer[i] == nullptr) {
            releaseBuffer(buffer, i);
            return DDS_RETCODE_OUT_OF_RESOURCES;
        }
        std::memcpy(buffer[i], start, length);
        start = stop + 1;  // past the delimiter; unused after the last piece
    }
    install(seq, buffer, count);
    return DDS_RETCODE_OK;
}

}  // extern "C"
