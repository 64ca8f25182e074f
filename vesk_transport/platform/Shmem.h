/* The shared-memory transport module: its property record and
 * constructor. */
#ifndef VESK_TRANSPORT_PLATFORM_SHMEM_H
#define VESK_TRANSPORT_PLATFORM_SHMEM_H

#include "vesk_transport/platform/Transport.h"

#ifdef __cplusplus
extern "C" {
#endif
VESK_TRANSPORT_EXPORT_BEGIN

struct VESK_Transport_Shmem_Property_t {
    struct VESK_Transport_Property_t parent;
    KEL_INT32 received_message_count_max;
    KEL_INT32 receive_buffer_size;
    int enable_udp_debugging;
    VESK_Transport_Address_t udp_debugging_address;
    VESK_Transport_Port_t udp_debugging_port;
    KEL_INT32 segmentKeyOffset;
    KEL_INT32 segmentKeyFactor;
    KEL_INT32 semaphoreKeyOffset;
    KEL_INT32 semaphoreKeyFactor;
    KEL_INT32 mutexKeyOffset;
    KEL_INT32 mutexKeyFactor;
    KEL_UINT32 maxAllowedWriterDurationMillisec;
    KEL_INT32 reserved;
    VESK_Transport_Address_t shmemUUID;
    KEL_INT16 majorVersion;
};
typedef struct VESK_Transport_Shmem_Property_t VESK_Transport_Shmem_Property_t;

/* Deep copy (the generic part as VESK_Transport_Property_copy copies it; the
 * shared-memory part owns nothing). On failure dst holds no allocation and
 * 0 is returned. */
int VESK_Transport_Shmem_Property_copy(struct VESK_Transport_Shmem_Property_t *dst,
                                       const struct VESK_Transport_Shmem_Property_t *src);
void VESK_Transport_Shmem_Property_finalize(struct VESK_Transport_Shmem_Property_t *record);

/* A new shared-memory plugin whose property member points to its own deep
 * copy of property_in, or NULL (after logging why) for a record that a
 * shared-memory transport cannot run with (docs/shmem-transport.md). The
 * plugin's delete_cEA releases it and everything it owns. */
VESK_Transport_Plugin *VESK_Transport_Shmem_newI(const struct VESK_Transport_Shmem_Property_t *property_in);

VESK_TRANSPORT_EXPORT_END
#ifdef __cplusplus
} /* extern "C" */
#endif

#endif
