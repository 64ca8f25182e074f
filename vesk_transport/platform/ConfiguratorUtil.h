/* Configurator utilities: default network addresses of transports. */
#ifndef VESK_TRANSPORT_PLATFORM_CONFIGURATORUTIL_H
#define VESK_TRANSPORT_PLATFORM_CONFIGURATORUTIL_H

#include "vesk_transport/platform/Types.h"

#ifdef __cplusplus
extern "C" {
#endif
VESK_TRANSPORT_EXPORT_BEGIN

/* Builds the default network address of a transport whose addresses are
 * 96 bits wide, each field in network order:
 *
 *   bytes  0..3   classid
 *   bytes  4..7   host_id
 *   bytes  8..11  app_id
 *   bytes 12..15  instance_id
 *
 * The class id in the first four bytes keeps the address of one class
 * apart from another's with the same ids, and keeps it different from
 * VESK_TRANSPORT_ADDRESS_INVALID (all zero) even when every id is 0.
 * reserved is not used; pass 0.
 * Returns non-zero on success; 0, with *address_out untouched, for a NULL
 * address_out or a classid of 0 or less. */
int KELNetioConfiguratorUtil_generateDefaultNetworkAddress96(VESK_Transport_Address_t *address_out,
                                                             VESK_Transport_ClassId_t classid,
                                                             KEL_UINT32 host_id, KEL_UINT32 app_id,
                                                             KEL_UINT32 instance_id,
                                                             KEL_UINT32 reserved);

VESK_TRANSPORT_EXPORT_END
#ifdef __cplusplus
} /* extern "C" */
#endif

#endif
