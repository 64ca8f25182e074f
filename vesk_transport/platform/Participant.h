/* The domain participant, as far as the transports are concerned: its
 * entity part (enabled or not), its network-I/O configurator and worker,
 * and the property records of its builtin transports. */
#ifndef VESK_TRANSPORT_PLATFORM_PARTICIPANT_H
#define VESK_TRANSPORT_PLATFORM_PARTICIPANT_H

#include "vesk_transport/platform/Configurator.h"
#include "vesk_transport/platform/StringSeq.h"
#include "vesk_transport/platform/Transport.h"
#include "vesk_transport/platform/Worker.h"

#ifdef __cplusplus
extern "C" {
#endif
VESK_TRANSPORT_EXPORT_BEGIN

struct DDS_Entity;
/* Non-zero when the entity is enabled. */
typedef int (*DDS_Entity_IsEnabledFn)(const struct DDS_Entity *self);

/* Every entity begins with this part. */
struct DDS_Entity {
    DDS_Entity_IsEnabledFn _is_enabled; /* may be null: never enabled */
};

/* A participant begins with its DDS_Entity part: a DDS_DomainParticipant *
 * may be read as a struct DDS_Entity *. */
typedef struct DDS_DomainParticipantImpl DDS_DomainParticipant;

typedef enum DDS_TransportBuiltinKind {
    DDS_TRANSPORTBUILTIN_UDPv4 = 1,
    DDS_TRANSPORTBUILTIN_SHMEM = 2,
    DDS_TRANSPORTBUILTIN_INTRA = 4,
    DDS_TRANSPORTBUILTIN_UDPv6 = 8,
    DDS_TRANSPORTBUILTIN_UDPv4_WAN = 16
} DDS_TransportBuiltinKind;
typedef KEL_UINT32 DDS_TransportBuiltinKindMask;

/* The aliases under which enable installs the builtin transports. */
#define DDS_TRANSPORTBUILTIN_UDPv4_ALIAS "builtin.udpv4"
#define DDS_TRANSPORTBUILTIN_SHMEM_ALIAS "builtin.shmem"
#define DDS_TRANSPORTBUILTIN_UDPv6_ALIAS "builtin.udpv6"
#define DDS_TRANSPORTBUILTIN_UDPv4_WAN_ALIAS "builtin.udpv4_wan"

struct DDS_DomainParticipantOptions {
    /* The builtin transports that enable installs (INTRA is ignored). */
    DDS_TransportBuiltinKindMask transport_builtin_mask;
    /* Room in the configurator (0: its defaults). */
    int plugin_count_max;
    int route_count_max;
    /* A participant in one of the states that the transport API must
     * survive: no configurator yet, or a calling thread without a worker. */
    int without_netio_configurator;
    int without_worker;
};
/* UDPv4 only, default configurator room, with configurator and worker. */
#define DDS_DOMAINPARTICIPANT_OPTIONS_DEFAULT {DDS_TRANSPORTBUILTIN_UDPv4, 0, 0, 0, 0}

/* A new disabled participant (options may be null for the defaults), or
 * NULL when out of memory. Its builtin property records start as the
 * classes' default records. */
DDS_DomainParticipant *DDS_DomainParticipant_create(const struct DDS_DomainParticipantOptions *options);
/* Deletes the participant, its configurator with every installed plugin,
 * and its records. */
void DDS_DomainParticipant_delete(DDS_DomainParticipant *self);

/* Installs the builtin transports of the mask, each made from its current
 * property record, under the builtin aliases, then marks the participant
 * enabled. DDS_RETCODE_OK (also when already enabled), or
 * DDS_RETCODE_ERROR when a builtin transport could not be made or
 * installed; the participant then stays disabled. */
DDS_ReturnCode_t DDS_DomainParticipant_enable(DDS_DomainParticipant *self);
int DDS_DomainParticipant_is_enabled(const DDS_DomainParticipant *self);

KELNetioConfigurator *DDS_DomainParticipant_get_netio_configuratorI(DDS_DomainParticipant *self);
struct REDAWorker *DDS_DomainParticipant_get_workerI(DDS_DomainParticipant *self);

/* Builtin transport property records. The record behind the pointer is a
 * struct VESK_Transport_UDP_Property_t for UDPv4, UDPv6 and UDPv4_WAN and a
 * struct VESK_Transport_Shmem_Property_t for SHMEM.
 *
 * get copies the participant's record into *property_inout; its pointer
 * members (interface lists, thread-name prefix, public address, port
 * mappings) refer to the participant's storage and stay valid until the
 * next set of that kind or the participant's deletion: do not release them.
 * set replaces the participant's record with a deep copy of *property_in.
 *
 * Results: DDS_RETCODE_OK; DDS_RETCODE_BAD_PARAMETER for a null argument or
 * a kind that is not exactly one enumerator; DDS_RETCODE_UNSUPPORTED for
 * INTRA, which has no property record; DDS_RETCODE_PRECONDITION_NOT_MET for
 * set on an enabled participant; DDS_RETCODE_OUT_OF_RESOURCES when the copy
 * cannot be made (the old record then stays). Failures are logged. */
DDS_ReturnCode_t DDS_DomainParticipant_get_builtin_transport_property(
    DDS_DomainParticipant *self, DDS_TransportBuiltinKind kind,
    struct VESK_Transport_Property_t *property_inout);
DDS_ReturnCode_t DDS_DomainParticipant_set_builtin_transport_property(
    DDS_DomainParticipant *self, DDS_TransportBuiltinKind kind,
    const struct VESK_Transport_Property_t *property_in);

/* Alias conversions between an application's sequence and the
 * configurator's list (Configurator.h gives the text form).
 * from_StringSeq: DDS_RETCODE_BAD_PARAMETER for a null argument, a null,
 * empty or comma-holding alias, or aliases that do not fit 128 characters;
 * never truncates. to StringSeq: seq must be an empty owning sequence;
 * DDS_RETCODE_OUT_OF_RESOURCES when memory runs out (seq left empty). */
DDS_ReturnCode_t DDS_TransportSelectionQosPolicy_AliasList_from_StringSeq(
    KELNetioAliasList *alias_list_out, const struct DDS_StringSeq *aliases_in);
DDS_ReturnCode_t DDS_TransportSelectionQosPolicy_StringSeq_from_AliasList(
    struct DDS_StringSeq *aliases_out, const KELNetioAliasList *alias_list_in);

VESK_TRANSPORT_EXPORT_END
#ifdef __cplusplus
} /* extern "C" */
#endif

#endif
