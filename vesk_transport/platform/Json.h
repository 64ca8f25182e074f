/* The library's JSON reader. A parsed document is a tree owned by the
 * caller of KELJSONParser_parse_ex; node handles are pointers into it that
 * stay valid until KELJSONObject_delete releases the tree. Numbers are
 * read as signed 64-bit integers. Nothing throws. */
#ifndef VESK_TRANSPORT_PLATFORM_JSON_H
#define VESK_TRANSPORT_PLATFORM_JSON_H

#include "vesk_transport/platform/Types.h"

#ifdef __cplusplus
extern "C" {
#endif
VESK_TRANSPORT_EXPORT_BEGIN

typedef struct KELJSONObject KELJSONObject;

/* The root of the document held in the first length bytes of text, or
 * NULL when they are not one valid JSON document or memory runs out. The
 * tree is allocated on the library heap. */
KELJSONObject *KELJSONParser_parse_ex(const char *text, size_t length);

/* Non-zero when node is an object with a member of that name; its handle
 * is stored in *child_out. */
int KELJSONObject_getChildByName(const KELJSONObject *node, const KELJSONObject **child_out,
                                 const char *name);
/* Members of an object or elements of an array (in document order); 0 for
 * any other node. */
size_t KELJSONObject_getChildCount(const KELJSONObject *node);
int KELJSONObject_getChildAt(const KELJSONObject *node, const KELJSONObject **child_out,
                             size_t index);
/* Non-zero when node holds an integer that fits 64 signed bits. */
int KELJSONObject_getIntValue(const KELJSONObject *node, KEL_INT64 *value_out);
/* Releases a whole tree; NULL is ignored. */
void KELJSONObject_delete(KELJSONObject *root);

VESK_TRANSPORT_EXPORT_END
#ifdef __cplusplus
} /* extern "C" */
#endif

#endif
