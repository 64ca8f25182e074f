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
#include "vesk_transport/platform/Host.h"
#include "vesk_transport/platform/Log.h"
#include "vesk_transport/platform/Participant.h"
#include "vesk_transport/platform/Property.h"
#include "vesk_transport/platform/Shmem.h"
#include "vesk_transport/platform/SocketUtil.h"
#include "vesk_transport/platform/StringSeq.h"
#include "vesk_transport/platform/Transport.h"
#include "vesk_transport/platform/Types.h"
#include "vesk_transport/platform/Udp.h"

#ifdef __cplusplus
extern "C" {
#endif
VESK_TRANSPORT_EXPORT_BEGIN

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
 * 2. Property-based transport configuration
 *
 * A setup fills a property record (already holding its class's defaults)
 * from the properties named by a prefix joined with fixed suffixes (see
 * DDS_PropertyQosPolicyHelper_lookup_property_with_prefix), and returns the
 * number of properties applied, or -1 after logging the first bad one.
 * What it allocates into the record is flagged in the caller's
 * allocations record and released by the matching cleanup, also after a
 * failed setup. docs/properties.md lists every property.
 * ===================================================================== */

/* What a setup allocated into a record; clear all six before the setup. */
struct VESK_Transport_internalMemoryAllocations {
    KEL_INT32 _allowInterfacesListAllocated;
    KEL_INT32 _denyInterfacesListAllocated;
    KEL_INT32 _allowMulticastInterfacesListAllocated;
    KEL_INT32 _denyMulticastInterfacesListAllocated;
    KEL_INT32 _publicAddressAllocated;
    KEL_INT32 _commPortsAllocated;
};
typedef struct VESK_Transport_internalMemoryAllocations VESK_Transport_internalMemoryAllocations;

/* Reads one interface list from the single-interface name (which wins) or
 * the list name; the value is split at commas and each entry trimmed.
 * properties_parsed and is_memory_allocated may be null. 1 on success
 * (also when neither name is present), 0 on failure, after which the list
 * is empty. A list that still holds an array flagged as allocated here is a
 * precondition failure. */
int VESK_Transport_Support_parse_interface_list(
    KEL_INT32 *interfaces_list_length, char ***interfaces_list, int *properties_parsed,
    KEL_INT32 *is_memory_allocated, const struct DDS_PropertyQosPolicy *transport_properties,
    const char *property_prefix, const char *interface_suffix_property_name,
    const char *interface_list_suffix_property_name);

/* The generic part of every record ("parent.*" and the thread-name and
 * GUID-prefix properties). propertyPrefix may be null. */
int VESK_Transport_setupParentTransportProperty(
    struct VESK_Transport_Property_t *transport_property,
    struct VESK_Transport_internalMemoryAllocations *memory_allocated_out,
    const struct DDS_PropertyQosPolicy *transport_properties, const char *propertyPrefix);
void VESK_Transport_cleanupParentTransportProperty(
    struct VESK_Transport_Property_t *transport_property,
    const struct VESK_Transport_internalMemoryAllocations *memory_allocated);

/* The UDP record for the class classid. A null propertyPrefix means the
 * list is the transport's own: its names are then validated (property
 * "prefix" and DDS_PROPERTY_VALIDATION_ACTION_PROPERTY_NAME). The record's
 * comm_ports_list must be null. */
int VESK_Transport_setupUDPProperty(
    struct VESK_Transport_UDP_Property_t *udp_property_out,
    struct VESK_Transport_internalMemoryAllocations *memory_allocated_out,
    const struct DDS_PropertyQosPolicy *udp_transport_properties, const char *propertyPrefix,
    VESK_Transport_ClassId_t classid);
void VESK_Transport_cleanupUDPProperty(
    struct VESK_Transport_UDP_Property_t *udp_property,
    const struct VESK_Transport_internalMemoryAllocations *memory_allocated);

int VESK_Transport_setupUDPv4Property(
    struct VESK_Transport_UDP_Property_t *udpv4_property_out,
    struct VESK_Transport_internalMemoryAllocations *memory_allocated_out,
    const struct DDS_PropertyQosPolicy *udpv4_transport_properties, const char *propertyPrefix);
int VESK_Transport_setupUDPv4WanProperty(
    struct VESK_Transport_UDP_Property_t *udpv4_property_out,
    struct VESK_Transport_internalMemoryAllocations *memory_allocated_out,
    const struct DDS_PropertyQosPolicy *udpv4_transport_properties, const char *propertyPrefix);
int VESK_Transport_setupUDPv6Property(
    struct VESK_Transport_UDP_Property_t *udpv6_property_out,
    struct VESK_Transport_internalMemoryAllocations *memory_allocated_out,
    const struct DDS_PropertyQosPolicy *udpv6_transport_properties, const char *propertyPrefix);
void VESK_Transport_cleanupUDPv4Property(
    struct VESK_Transport_UDP_Property_t *udpv4_property,
    const struct VESK_Transport_internalMemoryAllocations *memory_allocated);
void VESK_Transport_cleanupUDPv4WanProperty(
    struct VESK_Transport_UDP_Property_t *udpv4_wan_property,
    const struct VESK_Transport_internalMemoryAllocations *memory_allocated);
void VESK_Transport_cleanupUDPv6Property(
    struct VESK_Transport_UDP_Property_t *udpv6_property,
    const struct VESK_Transport_internalMemoryAllocations *memory_allocated);

/* The shared-memory record, from the transport's own list (names without
 * prefix, always validated). The format version follows from the oldest
 * product version that must interoperate (minimum_compatibility_version,
 * null or 0.0.0.0 for none) and from the platform's mutexes; the
 * shared-memory address from the host's identity when a wire-protocol
 * policy is given (then the generator is required), else from "host_id". */
int VESK_Transport_setupShmemProperty(
    struct VESK_Transport_Shmem_Property_t *shmem_property_out,
    struct VESK_Transport_internalMemoryAllocations *memory_allocated_out,
    const struct DDS_PropertyQosPolicy *shmem_transport_properties,
    const DDS_WireProtocolQosPolicy *cached_wire_protocol_qos_policy_in,
    DDS_RtpsAppIdGenerator *rtps_app_id_generator_in,
    const DDS_ProductVersion_t *minimum_compatibility_version);
void VESK_Transport_cleanupShmemProperty(
    struct VESK_Transport_Shmem_Property_t *shmem_property,
    const struct VESK_Transport_internalMemoryAllocations *memory_allocated);

/* The product versions that decide the shared-memory format. */
extern const DDS_ProductVersion_t ROBUST_MUTEX_PRODUCT_VERSION;          /* 7.2.0.0: format 5 */
extern const DDS_ProductVersion_t SHMEM_MAJOR_VERSION_4_PRODUCT_VERSION; /* 6.1.0.0: format 4 */
extern const DDS_ProductVersion_t BUG_14240_FIXED_PRODUCT_VERSION;       /* 4.5.'6'.0: format 2 */
extern const DDS_ProductVersion_t LOCATOR_600_PRODUCT_VERSION;           /* 6.0.0.0 */

/* Turns a WAN "comm_ports" JSON document into a new heap array of port
 * mappings: entry 0 from the "default" object, one entry per element of
 * the optional "mappings" array. 1 on success (the caller then owns
 * *commPortsListOut); 0 on failure, with *commPortsListOut unchanged and
 * nothing left allocated. */
int VESK_Transport_CommPortsHelper_parseJson(
    struct VESK_Transport_UDP_WAN_CommPortsMappingInfo **commPortsListOut,
    KEL_INT32 *commPortsListLengthOut, const char *jsonCommPorts);

/* =====================================================================
 * 3. Builtin transport factories
 * ===================================================================== */

/* The default property record of each builtin class: the record a factory
 * starts from, and the one a participant's builtin record starts as. */
extern const struct VESK_Transport_UDP_Property_t VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT;
extern const struct VESK_Transport_UDP_Property_t VESK_TRANSPORT_UDPV4_WAN_PROPERTY_DEFAULT;
extern const struct VESK_Transport_UDP_Property_t VESK_TRANSPORT_UDPV6_PROPERTY_DEFAULT;
extern const struct VESK_Transport_Shmem_Property_t VESK_TRANSPORT_SHMEM_PROPERTY_DEFAULT;

/* Each factory starts from its class's default record, applies the
 * properties found under propertyPrefix (a null prefix: the list is the
 * transport's own and its names are validated), builds the plugin and
 * releases what the setup allocated. The new plugin belongs to the caller;
 * NULL (after logging) when a property is bad or the transport cannot be
 * built. default_network_address_out is never read or written. */
VESK_Transport_Plugin *VESK_Transport_UDPv4_create_from_properties_with_prefix(
    VESK_Transport_Address_t *default_network_address_out,
    const struct DDS_PropertyQosPolicy *property_in, const char *propertyPrefix);
VESK_Transport_Plugin *VESK_Transport_UDPv4_WAN_create_from_properties_with_prefix(
    VESK_Transport_Address_t *default_network_address_out,
    const struct DDS_PropertyQosPolicy *property_in, const char *propertyPrefix);
VESK_Transport_Plugin *VESK_Transport_UDPv6_create_from_properties_with_prefix(
    VESK_Transport_Address_t *default_network_address_out,
    const struct DDS_PropertyQosPolicy *property_in, const char *propertyPrefix);
/* The shared-memory transport from its own list, with the format chosen
 * for minimum_compatibility_version (null or 0.0.0.0: no minimum). */
VESK_Transport_Plugin *VESK_Transport_Shmem_create(
    VESK_Transport_Address_t *default_network_address_out,
    const struct DDS_PropertyQosPolicy *property_in,
    const DDS_ProductVersion_t *minimum_compatibility_version);
/* The same with a null prefix. */
VESK_Transport_Plugin *VESK_Transport_UDPv4_create(
    VESK_Transport_Address_t *default_network_address_out,
    const struct DDS_PropertyQosPolicy *property_in);
VESK_Transport_Plugin *VESK_Transport_UDPv4_WAN_create(
    VESK_Transport_Address_t *default_network_address_out,
    const struct DDS_PropertyQosPolicy *property_in);
VESK_Transport_Plugin *VESK_Transport_UDPv6_create(
    VESK_Transport_Address_t *default_network_address_out,
    const struct DDS_PropertyQosPolicy *property_in);

/* =====================================================================
 * 4. Run-time control and statistics of UDP transports
 *
 * A null participant (or statistics record) gives DDS_RETCODE_BAD_PARAMETER
 * without a message.
 * ===================================================================== */

/* The counters of the participant's UDPv4 transport, or of its UDPv4 WAN
 * transport when it has no plain UDPv4 one. DDS_RETCODE_NO_DATA (record
 * untouched, nothing logged) when neither is installed. */
DDS_ReturnCode_t VESK_Transport_Support_get_udpv4_statistics(
    DDS_DomainParticipant *participant_in, struct VESK_Transport_UDP_Statistics *statistics);
/* The same for the UDPv6 transport (class 2), without a fallback. */
DDS_ReturnCode_t VESK_Transport_Support_get_udpv6_statistics(
    DDS_DomainParticipant *participant_in, struct VESK_Transport_UDP_Statistics *statistics);
/* The four liveliness counters of the transport of class transport_class_id
 * (1, 2, 5 or 0x01000001): the secure-or-automatic ones when is_secure or
 * is_automatic is non-zero, else the manual ones. Null outputs are skipped.
 * DDS_RETCODE_BAD_PARAMETER for another class or a missing transport. */
DDS_ReturnCode_t VESK_Transport_Support_get_udp_liveliness_statistics(
    DDS_DomainParticipant *participant_in, KEL_UINT64 *packets_sent, KEL_UINT64 *bytes_sent,
    KEL_UINT64 *packets_received, KEL_UINT64 *bytes_received,
    VESK_Transport_ClassId_t transport_class_id, int is_secure, int is_automatic);

/* Makes the UDPv4 (1) or UDPv4 WAN (0x01000001) transport report address as
 * its own; DDS_RETCODE_PRECONDITION_NOT_MET when that transport is not
 * installed. Nothing is logged. */
DDS_ReturnCode_t VESK_Transport_Support_assert_fake_address(
    DDS_DomainParticipant *participant_in, VESK_Transport_Address_t *address,
    VESK_Transport_ClassId_t transport_class_id);
DDS_ReturnCode_t VESK_Transport_Support_assert_fake_ipv4_address(
    DDS_DomainParticipant *participant_in, VESK_Transport_Address_t *address);
/* Drops the UDPv4 transport's fake address; DDS_RETCODE_OK also when there
 * is no UDPv4 transport. */
DDS_ReturnCode_t VESK_Transport_Support_remove_fake_ipv4_address(
    DDS_DomainParticipant *participant_in);

/* Forces one interface of the UDPv4, UDPv6 or UDPv4 WAN transport up or
 * down. DDS_RETCODE_ERROR when the transport does not use that interface. */
DDS_ReturnCode_t VESK_Transport_Support_change_interface_status(
    DDS_DomainParticipant *participant, VESK_Transport_ClassId_t transport_class_id,
    const char *interface_name, DDS_Boolean is_up);
/* Switches binding-ping generation of the UDPv4 WAN transport. */
DDS_ReturnCode_t VESK_Transport_Support_change_binding_ping_generation(
    DDS_DomainParticipant *participant, DDS_Boolean enable_binding_ping_generation);

VESK_TRANSPORT_EXPORT_END
#ifdef __cplusplus
} /* extern "C" */
#endif

#endif
