/* Scalar types, result codes and small value records shared by the
 * transport-support module and the library modules it calls.
 *
 * Conventions of every public header of this library:
 * - plain C99, usable from C and C++;
 * - records are plain structs; whoever allocates one releases it with the
 *   matching operation named in its header;
 * - operations report failure through their result (a DDS_ReturnCode_t, a
 *   null pointer, or an int that is 0 on failure) after logging the reason;
 * - nothing ever throws across this boundary. */
#ifndef VESK_TRANSPORT_PLATFORM_TYPES_H
#define VESK_TRANSPORT_PLATFORM_TYPES_H

#include <stddef.h>
#include <stdint.h>

#include "vesk_transport/Export.h"

#ifdef __cplusplus
extern "C" {
#endif
VESK_TRANSPORT_EXPORT_BEGIN

typedef int16_t KEL_INT16;
typedef uint16_t KEL_UINT16;
typedef int32_t KEL_INT32;
typedef uint32_t KEL_UINT32;
typedef int64_t KEL_INT64;
typedef uint64_t KEL_UINT64;

/* The DDS scalars. DDS_Boolean: 0 is false, anything else true. */
typedef int32_t DDS_Long;
typedef unsigned char DDS_Boolean;
typedef char DDS_Char;

#define DDS_BOOLEAN_FALSE ((DDS_Boolean)0)
#define DDS_BOOLEAN_TRUE ((DDS_Boolean)1)

/* "No limit" for lengths and counts. */
#define DDS_LENGTH_UNLIMITED (-1)

typedef enum DDS_ReturnCode_t {
    DDS_RETCODE_OK = 0,
    DDS_RETCODE_ERROR = 1,
    DDS_RETCODE_UNSUPPORTED = 2,
    DDS_RETCODE_BAD_PARAMETER = 3,
    DDS_RETCODE_PRECONDITION_NOT_MET = 4,
    DDS_RETCODE_OUT_OF_RESOURCES = 5,
    DDS_RETCODE_NOT_ENABLED = 6,
    DDS_RETCODE_IMMUTABLE_POLICY = 7,
    DDS_RETCODE_INCONSISTENT_POLICY = 8,
    DDS_RETCODE_ALREADY_DELETED = 9,
    DDS_RETCODE_TIMEOUT = 10,
    DDS_RETCODE_NO_DATA = 11,
    DDS_RETCODE_ILLEGAL_OPERATION = 12,
    DDS_RETCODE_NOT_ALLOWED_BY_SECURITY = 1000
} DDS_ReturnCode_t;

/* Transport class ids. */
typedef KEL_INT32 VESK_Transport_ClassId_t;

#define VESK_TRANSPORT_CLASSID_INVALID (-1)
#define VESK_TRANSPORT_CLASSID_UDPv4 1
#define VESK_TRANSPORT_CLASSID_UDPv6 2
#define VESK_TRANSPORT_CLASSID_INTRA 3
#define VESK_TRANSPORT_CLASSID_UDPv6_510 5
#define VESK_TRANSPORT_CLASSID_SHMEM 0x01000000
#define VESK_TRANSPORT_CLASSID_UDPv4_WAN 0x01000001

/* A 16-byte transport address in network order; an IPv4 address occupies
 * the last four bytes. */
typedef struct VESK_Transport_Address_t {
    unsigned char network_ordered_value[16];
} VESK_Transport_Address_t;

typedef KEL_UINT32 VESK_Transport_Port_t;
typedef KEL_UINT16 VESK_Transport_UDP_Port;

/* A product version, ordered field by field (DDS_ProductVersion_compare). */
typedef struct DDS_ProductVersion_t {
    DDS_Char major;
    DDS_Char minor;
    DDS_Char release;
    DDS_Char revision;
} DDS_ProductVersion_t;

/* The RTPS GUID prefix of a participant. */
struct KELOsapiRtpsGuidPrefix {
    KEL_UINT32 hostId;
    KEL_UINT32 appId;
    KEL_UINT32 instanceId;
};

VESK_TRANSPORT_EXPORT_END
#ifdef __cplusplus
} /* extern "C" */
#endif

#endif
