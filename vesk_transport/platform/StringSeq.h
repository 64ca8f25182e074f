/* DDS_StringSeq: a sequence of strings. An owning sequence (the normal
 * kind) holds heap copies of its strings and releases them. */
#ifndef VESK_TRANSPORT_PLATFORM_STRINGSEQ_H
#define VESK_TRANSPORT_PLATFORM_STRINGSEQ_H

#include "vesk_transport/platform/Types.h"

#ifdef __cplusplus
extern "C" {
#endif
VESK_TRANSPORT_EXPORT_BEGIN

struct DDS_StringSeq {
    char **_contiguous_buffer;
    DDS_Long _length;
    DDS_Long _maximum;
    DDS_Boolean _owned; /* the strings and the buffer belong to the sequence */
};

/* An empty owning sequence. */
#define DDS_SEQUENCE_INITIALIZER {NULL, 0, 0, DDS_BOOLEAN_TRUE}

/* Makes seq an empty owning sequence. */
DDS_Boolean DDS_StringSeq_initialize(struct DDS_StringSeq *seq);
DDS_Long DDS_StringSeq_get_length(const struct DDS_StringSeq *seq);
/* The i-th string, NULL when i is out of range. */
char *DDS_StringSeq_get(const struct DDS_StringSeq *seq, DDS_Long i);
/* Appends a copy of text (NULL is stored as NULL). False when out of
 * memory or when the sequence is not an owner. */
DDS_Boolean DDS_StringSeq_append(struct DDS_StringSeq *seq, const char *text);
/* Releases the strings and the buffer and leaves seq empty. False, with
 * nothing released, when the sequence does not own its contents. */
DDS_Boolean DDS_StringSeq_finalize(struct DDS_StringSeq *seq);
/* Makes seq (which must be owning) an exact copy of src. */
DDS_Boolean DDS_StringSeq_copy(struct DDS_StringSeq *seq, const struct DDS_StringSeq *src);

/* Appends to an empty owning sequence the pieces of text between
 * delimiter characters, in order, untrimmed. Empty pieces are kept ("a,,b"
 * gives "a", "", "b"; "a," gives "a", ""); an empty text gives no piece.
 * DDS_RETCODE_OK, DDS_RETCODE_BAD_PARAMETER for a null argument or a
 * sequence that is not empty and owning, DDS_RETCODE_OUT_OF_RESOURCES when
 * memory runs out (the sequence is then left empty). */
DDS_ReturnCode_t DDS_StringSeq_from_delimited_string(struct DDS_StringSeq *seq, const char *text,
                                                     char delimiter);

VESK_TRANSPORT_EXPORT_END
#ifdef __cplusplus
} /* extern "C" */
#endif

#endif
