/* vesk_transport: the transport-support module.
 *
 * Installs an application's own transport plugins on a domain participant
 * and routes traffic to them; builds the builtin UDPv4, UDPv4 WAN, UDPv6
 * and shared-memory transports from property lists; reads the statistics
 * of running UDP transports and steers them.
 *
 * Conventions:
 * - Every operation reports failure through its result: a DDS_ReturnCode_t,
 *   an invalid handle, a null pointer, -1 from a setup, 0 from a parse
 *   operation. The reason is logged first (Log.h says when messages are
 *   written and how to receive them).
 * - Property lists are only read. Property records belong to the caller;
 *   what a setup allocates into them is owned by the record until the
 *   matching cleanup. A plugin returned by a factory belongs to the caller
 *   (release it with its delete_cEA) until it is installed on a
 *   participant, which then owns it. Handles own nothing.
 * - The module keeps no global state and takes no lock; a record must not
 *   be used by two threads at once. */
#ifndef VESK_TRANSPORT_SUPPORT_H
#define VESK_TRANSPORT_SUPPORT_H

#include "vesk_transport/platform/Configurator.h"
#include "vesk_transport/platform/Participant.h"
#include "vesk_transport/platform/Property.h"
#include "vesk_transport/platform/Shmem.h"
#include "vesk_transport/platform/StringSeq.h"
#include "vesk_transport/platform/Transport.h"
#include "vesk_transport/platform/Types.h"
#include "vesk_transport/platform/Udp.h"

#ifdef __cplusplus
extern "C" {
#endif

/* =====================================================================
 * 1. Participant transport API
 * ===================================================================== */

/* Names one installation of a plugin on a participant. A plain value. */
struct VESK_TRANSPORT_HANDLE_TYPE_NATIVE {
    DDS_DomainParticipant *_participant;
    struct REDAWeakReference _plugin_handle;
};
typedef struct VESK_TRANSPORT_HANDLE_TYPE_NATIVE VESK_Transport_Handle_t;

/* The invalid handle: null participant, null manager, index 0xFFFFFFFF,
 * epoch 0. A handle is valid when its participant and manager are
 * non-null and its index is not 0xFFFFFFFF. */
extern const VESK_Transport_Handle_t VESK_TRANSPORT_HANDLE_NIL;

/* Installs transport_in on a participant that is not enabled yet, under
 * aliases_in and network_address_in. Returns the installation's handle, or
 * a handle with a null _participant after logging why. A participant holds
 * at most one plugin of the shared-memory class. */
VESK_Transport_Handle_t VESK_Transport_Support_register_transport(
    DDS_DomainParticipant *participant_in, VESK_Transport_Plugin *transport_in,
    const struct DDS_StringSeq *aliases_in, const VESK_Transport_Address_t *network_address_in);

/* The handle of transport_in's installation on the participant, with its
 * aliases (into aliases_out, an empty owning sequence, when non-null) and
 * its network address. Works before and after enabling. */
VESK_Transport_Handle_t VESK_Transport_Support_lookup_transport(
    DDS_DomainParticipant *participant_in, struct DDS_StringSeq *aliases_out,
    VESK_Transport_Address_t *network_address_out, const VESK_Transport_Plugin *transport_in);

/* Adds a route through the installation for the addresses that agree with
 * address_range_in in their leading address_range_bit_count_in bits
 * (0..128). Only before the participant is enabled. */
DDS_ReturnCode_t VESK_Transport_Support_add_send_route(
    const VESK_Transport_Handle_t *transport_handle_in,
    const VESK_Transport_Address_t *address_range_in, DDS_Long address_range_bit_count_in);
DDS_ReturnCode_t VESK_Transport_Support_add_receive_route(
    const VESK_Transport_Handle_t *transport_handle_in,
    const VESK_Transport_Address_t *address_range_in, DDS_Long address_range_bit_count_in);

/* Reads (at any time) or writes (before enabling) the property record of
 * one of the participant's builtin transports; the record type per kind is
 * described in Participant.h. The participant's result is returned. */
DDS_ReturnCode_t VESK_Transport_Support_get_builtin_transport_property(
    DDS_DomainParticipant *participant_in, DDS_TransportBuiltinKind builtin_transport_kind_in,
    struct VESK_Transport_Property_t *builtin_transport_property_inout);
DDS_ReturnCode_t VESK_Transport_Support_set_builtin_transport_property(
    DDS_DomainParticipant *participant_in, DDS_TransportBuiltinKind builtin_transport_kind_in,
    const struct VESK_Transport_Property_t *builtin_transport_property_in);

/* The installed plugin that carries alias_in, or NULL (no message when no
 * plugin carries it). The plugin still belongs to the participant. */
VESK_Transport_Plugin *VESK_Transport_Support_get_transport_plugin(
    DDS_DomainParticipant *participant_in, const char *alias_in);

/* =====================================================================
 * 3. Builtin transport factories
 * ===================================================================== */

/* The default property record of each builtin class: the record a factory
 * starts from, and the one a participant's builtin record starts as. */
extern const struct VESK_Transport_UDP_Property_t VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT;
extern const struct VESK_Transport_UDP_Property_t VESK_TRANSPORT_UDPV4_WAN_PROPERTY_DEFAULT;
extern const struct VESK_Transport_UDP_Property_t VESK_TRANSPORT_UDPV6_PROPERTY_DEFAULT;
extern const struct VESK_Transport_Shmem_Property_t VESK_TRANSPORT_SHMEM_PROPERTY_DEFAULT;

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif
