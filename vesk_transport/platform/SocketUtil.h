/* Socket utilities: transport addresses from texts, and the address that
 * stands for "no address". */
#ifndef VESK_TRANSPORT_PLATFORM_SOCKETUTIL_H
#define VESK_TRANSPORT_PLATFORM_SOCKETUTIL_H

#include "vesk_transport/platform/Types.h"

#ifdef __cplusplus
extern "C" {
#endif
VESK_TRANSPORT_EXPORT_BEGIN

/* No address: 16 zero bytes. An address that was never set (such as an
 * all-zero shared-memory address) therefore counts as invalid. */
extern const VESK_Transport_Address_t VESK_TRANSPORT_ADDRESS_INVALID;

/* Values of the flag of VESK_Transport_SocketUtil_StringAddress_to_transportAddress. */
#define VESK_TRANSPORT_SOCKETUTIL_NUMERIC_ONLY 0
#define VESK_TRANSPORT_SOCKETUTIL_RESOLVE_NAMES 1

/* Turns the text of an address into a transport address.
 * - A dotted-decimal IPv4 text ("192.0.2.1", four decimal parts) gives 12
 *   zero bytes followed by the address.
 * - An IPv6 text ("fd00::2") gives its 16 bytes; an IPv4-mapped text
 *   ("::ffff:1.2.3.4") keeps its mapped form (bytes 10 and 11 are 0xFF).
 * - With a non-zero flag, a text that is neither but is a well-formed host
 *   name (letters, digits, '-', '_' and '.', labels of 1 to 63 characters
 *   that neither begin nor end with '-', at most 253 in all, last label not
 *   all digits) is resolved with
 *   getaddrinfo: its first IPv4 address when it has one, else its first
 *   IPv6 address. Such a name may be sent to the host's name servers;
 *   "localhost" is answered by the host's own table. Legacy numeric forms
 *   that only the resolver would accept ("1.2.3", "0x7f000001") are
 *   refused.
 * Surrounding white space is not accepted. Returns non-zero on success; 0,
 * with *address_out untouched, for a NULL argument or a text that gives no
 * address. */
int VESK_Transport_SocketUtil_StringAddress_to_transportAddress(
    VESK_Transport_Address_t *address_out, const char *text, int flag);

/* Non-zero when both addresses hold the same 16 bytes, or both are NULL. */
int VESK_Transport_Address_is_equal(const VESK_Transport_Address_t *a,
                                    const VESK_Transport_Address_t *b);

VESK_TRANSPORT_EXPORT_END
#ifdef __cplusplus
} /* extern "C" */
#endif

#endif
