/* Host and shared-memory services: the identity of this host, the robust
 * mutex capability of its shared memory, product-version ordering, the
 * wire-protocol policy and the RTPS application-id generator.
 *
 * Every operation here is thread-safe. The override hooks are process-wide
 * and meant for tests and diagnostics; production code never calls them. */
#ifndef VESK_TRANSPORT_PLATFORM_HOST_H
#define VESK_TRANSPORT_PLATFORM_HOST_H

#include "vesk_transport/platform/Types.h"

#ifdef __cplusplus
extern "C" {
#endif
VESK_TRANSPORT_EXPORT_BEGIN

/* ---------------------------------------------------------------------
 * Host identity
 * ------------------------------------------------------------------- */

/* A 16-byte identity of this host. */
typedef struct KELOsapiHostId {
    unsigned char value[16];
} KELOsapiHostId;

/* Where KELOsapiHost_getUniqueIdWithSource found the identity. */
typedef enum KELOsapiHostIdSource {
    KEL_OSAPI_HOST_ID_SOURCE_OVERRIDE = 0,        /* KELOsapiHost_setUniqueIdOverride */
    KEL_OSAPI_HOST_ID_SOURCE_MACHINE_ID = 1,      /* /etc/machine-id */
    KEL_OSAPI_HOST_ID_SOURCE_DBUS_MACHINE_ID = 2, /* /var/lib/dbus/machine-id */
    KEL_OSAPI_HOST_ID_SOURCE_IPV4_ADDRESS = 3,    /* first non-loopback IPv4 address */
    KEL_OSAPI_HOST_ID_SOURCE_LOOPBACK = 4         /* none of the above: 127.0.0.1 */
} KELOsapiHostIdSource;

/* Stores the identity of this host into *id_out, taken from the first of
 * these sources that gives one:
 * 1. the override, when one is set;
 * 2. /etc/machine-id, when readable and well-formed (see
 *    KELOsapiHost_parseMachineId): its 32 hex digits as 16 bytes;
 * 3. /var/lib/dbus/machine-id, likewise;
 * 4. the first IPv4 address (getifaddrs order) of an interface that is up
 *    and not a loopback, in the first 4 bytes in network order, the other
 *    12 bytes zero;
 * 5. 127, 0, 0, 1 and 12 zero bytes: callers treat an identity beginning
 *    with the loopback address as "this host has no identity".
 * The sources are read on every call, so the answer is stable as long as
 * the host's configuration is. Returns 0 (and stores nothing) only for a
 * NULL id_out, non-zero otherwise. */
int KELOsapiHost_getUniqueId(KELOsapiHostId *id_out);

/* The same, also telling where the identity came from; source_out may be
 * NULL. */
int KELOsapiHost_getUniqueIdWithSource(KELOsapiHostId *id_out, KELOsapiHostIdSource *source_out);

/* Test and diagnostic hook: from now on KELOsapiHost_getUniqueId returns a
 * copy of *id (for instance one that begins 127, 0, 0, 1, to exercise the
 * "no identity" branch of a caller). NULL restores the real sources. */
void KELOsapiHost_setUniqueIdOverride(const KELOsapiHostId *id);

/* Parses the contents of a machine-id file: exactly 32 hexadecimal digits
 * (either case), optionally followed by one newline, and not all zero.
 * Returns non-zero and stores the 16 bytes on success; 0, with *id_out
 * untouched, for anything else (including NULL arguments). */
int KELOsapiHost_parseMachineId(const char *text, KELOsapiHostId *id_out);

/* ---------------------------------------------------------------------
 * Shared-memory mutexes
 * ------------------------------------------------------------------- */

/* Non-zero when the shared-memory mutexes of this platform are robust: a
 * process-shared mutex attribute accepts the robust setting (on Linux with
 * glibc it does). The platform is probed once per process; every call gives
 * the same answer unless KELOsapiSharedMemorySemMutex_forceRobustMutex
 * changes it. */
int KELOsapiSharedMemorySemMutex_useRobustMutex(void);

/* Test and application hook: mode 0 forces "not robust", 1 forces
 * "robust", -1 (or any other value) restores the platform's answer. */
void KELOsapiSharedMemorySemMutex_forceRobustMutex(int mode);

/* ---------------------------------------------------------------------
 * Product versions
 * ------------------------------------------------------------------- */

/* Negative, zero or positive as a is older than, equal to or newer than b:
 * major, minor, release and revision compared in turn, each as an unsigned
 * char (so release 54, the character '6', is above release 0). A NULL
 * version compares as 0, 0, 0, 0. */
int DDS_ProductVersion_compare(const DDS_ProductVersion_t *a, const DDS_ProductVersion_t *b);

/* ---------------------------------------------------------------------
 * Wire-protocol policy
 * ------------------------------------------------------------------- */

/* How a participant's RTPS host id is chosen when rtps_host_id is
 * DDS_RTPS_AUTO_ID. */
typedef enum DDS_RtpsAutoIdKind {
    DDS_RTPS_AUTO_ID_FROM_IP = 0,  /* from the host's IPv4 address */
    DDS_RTPS_AUTO_ID_FROM_MAC = 1, /* from the host's MAC address */
    DDS_RTPS_AUTO_ID_FROM_UUID = 2 /* from the host's unique id */
} DDS_RtpsAutoIdKind;

/* An id of the GUID prefix that is chosen automatically. */
#define DDS_RTPS_AUTO_ID ((KEL_UINT32)0)

typedef struct DDS_WireProtocolQosPolicy {
    KEL_UINT32 rtps_host_id;     /* DDS_RTPS_AUTO_ID: from rtps_auto_id_kind */
    KEL_UINT32 rtps_app_id;      /* DDS_RTPS_AUTO_ID: from the generator */
    KEL_UINT32 rtps_instance_id; /* DDS_RTPS_AUTO_ID: chosen by the participant */
    DDS_RtpsAutoIdKind rtps_auto_id_kind;
} DDS_WireProtocolQosPolicy;

/* Every id automatic; the host id from the host's unique id, the most
 * specific identity a host has. */
#define DDS_WireProtocolQosPolicy_INITIALIZER \
    { DDS_RTPS_AUTO_ID, DDS_RTPS_AUTO_ID, DDS_RTPS_AUTO_ID, DDS_RTPS_AUTO_ID_FROM_UUID }

/* ---------------------------------------------------------------------
 * RTPS application-id generator
 * ------------------------------------------------------------------- */

typedef struct DDS_RtpsAppIdGenerator DDS_RtpsAppIdGenerator; /* opaque */

/* A new generator on the library heap, or NULL when memory is exhausted.
 * Release it with DDS_RtpsAppIdGenerator_delete (NULL is ignored). */
DDS_RtpsAppIdGenerator *DDS_RtpsAppIdGenerator_new(void);
void DDS_RtpsAppIdGenerator_delete(DDS_RtpsAppIdGenerator *self);

/* The host id from the host's network: its first IPv4 address (the source
 * 4 of KELOsapiHost_getUniqueId) as a host-order number, such as
 * 0xC0000202 for 192.0.2.2; 0x7F000001 when it has none. */
KEL_UINT32 DDS_RtpsAppIdGenerator_get_rtps_host_id(DDS_RtpsAppIdGenerator *self);

/* The host id from the host's hardware: the last four bytes, as a
 * host-order number, of the MAC address of the first interface (interface
 * index order, interfaces that are up first) that is not a loopback and
 * whose MAC address is not all zero, read with getifaddrs or, failing that,
 * from /sys/class/net/<name>/address. When no interface has one, the value
 * of DDS_RtpsAppIdGenerator_get_rtps_host_id. */
KEL_UINT32 DDS_RtpsAppIdGenerator_get_rtps_host_id_from_mac(DDS_RtpsAppIdGenerator *self);

/* A new application id on each call: the process id in the upper 24 bits
 * and a process-wide call counter in the lower 8, so ids differ between
 * processes and between 256 consecutive calls of one process. */
KEL_UINT32 DDS_RtpsAppIdGenerator_get_rtps_app_id(DDS_RtpsAppIdGenerator *self);

/* Test and diagnostic hook: from now on this generator answers host_id and
 * host_id_from_mac instead of reading the host. It lasts as long as the
 * generator; a NULL generator is ignored. The getters above, given a NULL
 * generator, always read the host. */
void DDS_RtpsAppIdGenerator_set_host_ids(DDS_RtpsAppIdGenerator *self, KEL_UINT32 host_id,
                                         KEL_UINT32 host_id_from_mac);

VESK_TRANSPORT_EXPORT_END
#ifdef __cplusplus
} /* extern "C" */
#endif

#endif
