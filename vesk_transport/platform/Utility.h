/* String and number utilities.
 *
 * Number conversions are strict: a text converts only when all of it is
 * one number of the target type and in its range. Accepted notation: an
 * optional sign ('+' or, for signed targets, '-'), then decimal digits, or
 * "0x"/"0X" and hexadecimal digits. No blanks, no other characters, no
 * empty text; overflow fails. A failed conversion leaves *value_out
 * unchanged and returns 0; success returns 1. */
#ifndef VESK_TRANSPORT_PLATFORM_UTILITY_H
#define VESK_TRANSPORT_PLATFORM_UTILITY_H

#include "vesk_transport/platform/Types.h"

#ifdef __cplusplus
extern "C" {
#endif
VESK_TRANSPORT_EXPORT_BEGIN

int KELOsapiUtility_strtol(const char *text, KEL_INT32 *value_out);
int KELOsapiUtility_strtoul(const char *text, KEL_UINT32 *value_out);
/* base 0 accepts the notation above; 2..36 accepts digits of that base
 * only (with an optional sign). When end_out is non-null the number may be
 * followed by other characters, and *end_out receives where it stopped;
 * when it is null, the whole text must be the number. */
int KELOsapiUtility_strtolWithBase(const char *text, KEL_INT32 *value_out, int base,
                                   const char **end_out);
/* A pointer value: "0x" and hexadecimal digits, or decimal digits; "0"
 * gives NULL. */
int KELOsapiUtility_strtoptr(const char *text, void **pointer_out);
/* Same notation as KELOsapiUtility_strtoul. */
int REDAString_strToUnsignedLong(const char *text, KEL_UINT32 *value_out);
/* Booleans, ignoring case: "1", "true", "yes", "on" are 1; "0", "false",
 * "no", "off" are 0. Nothing else converts. */
int REDAString_strToBoolean(const char *text, int *value_out);

/* Removes leading and trailing white space (space, \t, \n, \v, \f, \r) in
 * place and returns the start of the trimmed text; NULL stays NULL. */
char *KELOsapiUtility_strTrim(char *text);

/* Copies at most count characters of src into dest and terminates it.
 * capacity is the number of characters dest holds besides its terminator
 * (dest has capacity + 1 bytes). NULL, with dest untouched, when an
 * argument is null or the characters to copy exceed capacity. */
char *KELOsapiUtility_strncpy(char *dest, size_t capacity, const char *src, size_t count);
/* Copies the whole of src; NULL when it does not fit capacity. */
char *KELOsapiUtility_strcpy(char *dest, size_t capacity, const char *src);

/* Comparisons: 0 when equal, negative or positive as in strcmp. A null
 * text orders before every other and equals only another null. */
int REDAString_compare(const char *left, const char *right);
/* Ignoring ASCII letter case. */
int REDAString_iCompare(const char *left, const char *right);
/* Ignoring case, over at most n characters. */
int REDAString_inCompare(const char *left, const char *right, size_t n);

VESK_TRANSPORT_EXPORT_END
#ifdef __cplusplus
} /* extern "C" */
#endif

#endif
