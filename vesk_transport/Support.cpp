// The transport-support module: participant transport API, property setups,
// builtin transport factories and run-time control of UDP transports, in
// that order.
//
// The module keeps no state. Every operation logs the reason for a failure
// under the module's submodule bit before it returns the failure value.

#include "vesk_transport/Support.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "vesk_transport/PropertyTables.hpp"
#include "vesk_transport/platform/ConfiguratorUtil.h"
#include "vesk_transport/platform/Heap.h"
#include "vesk_transport/platform/Json.h"
#include "vesk_transport/platform/Log.h"
#include "vesk_transport/platform/SocketUtil.h"
#include "vesk_transport/platform/Utility.h"

namespace {

// ---------------------------------------------------------------------------
// Layouts that applications and the other modules rely on
// ---------------------------------------------------------------------------

template <size_t N>
constexpr bool strictlyIncreasing(const size_t (&offsets)[N]) {
    for (size_t i = 1; i < N; ++i) {
        if (offsets[i - 1] >= offsets[i]) return false;
    }
    return true;
}

static_assert(sizeof(KEL_INT16) == 2 && sizeof(KEL_INT32) == 4 && sizeof(KEL_UINT32) == 4 &&
              sizeof(KEL_UINT64) == 8 && sizeof(DDS_Long) == 4);
static_assert(sizeof(DDS_Boolean) == 1 && sizeof(DDS_Char) == 1);
static_assert(sizeof(VESK_Transport_ClassId_t) == 4 && sizeof(VESK_Transport_Port_t) == 4 &&
              sizeof(VESK_Transport_UDP_Port) == 2);
static_assert(sizeof(VESK_Transport_Address_t) == 16);
static_assert(sizeof(DDS_ProductVersion_t) == 4);
static_assert(sizeof(KELNetioAliasList) == 129);
static_assert(sizeof(VESK_Transport_UUID) == 12);
static_assert(sizeof(KELOsapiRtpsGuidPrefix) == 12);
static_assert(sizeof(KELNetioAddressFilter) == 32 && offsetof(KELNetioAddressFilter, mask) == 16);
static_assert(offsetof(VESK_Transport_Plugin, property) == 0);
static_assert(strictlyIncreasing({offsetof(VESK_Transport_Plugin, property),
                                  offsetof(VESK_Transport_Plugin, send),
                                  offsetof(VESK_Transport_Plugin, receive_rEA),
                                  offsetof(VESK_Transport_Plugin, return_loaned_buffer_rEA),
                                  offsetof(VESK_Transport_Plugin, unblock_receive_rrEA),
                                  offsetof(VESK_Transport_Plugin, create_recvresource_rrEA),
                                  offsetof(VESK_Transport_Plugin, destroy_recvresource_rrEA),
                                  offsetof(VESK_Transport_Plugin, share_recvresource_rrEA),
                                  offsetof(VESK_Transport_Plugin, unshare_recvresource_rrEA),
                                  offsetof(VESK_Transport_Plugin, create_sendresource_srEA),
                                  offsetof(VESK_Transport_Plugin, destroy_sendresource_srEA),
                                  offsetof(VESK_Transport_Plugin, share_sendresource_srEA),
                                  offsetof(VESK_Transport_Plugin, unshare_sendresource_srEA),
                                  offsetof(VESK_Transport_Plugin, get_class_name_cEA),
                                  offsetof(VESK_Transport_Plugin, string_to_address_cEA),
                                  offsetof(VESK_Transport_Plugin, get_receive_interfaces_cEA),
                                  offsetof(VESK_Transport_Plugin, get_transport_receive_context),
                                  offsetof(VESK_Transport_Plugin, get_transport_send_context),
                                  offsetof(VESK_Transport_Plugin, are_addresses_equivalent),
                                  offsetof(VESK_Transport_Plugin,
                                           get_equivalent_initial_peer_address),
                                  offsetof(VESK_Transport_Plugin, is_valid_entry_port),
                                  offsetof(VESK_Transport_Plugin, update_destination),
                                  offsetof(VESK_Transport_Plugin, register_listener_cEA),
                                  offsetof(VESK_Transport_Plugin, delete_cEA),
                                  offsetof(VESK_Transport_Plugin, multicastInterfaceEnabled)}));
static_assert(strictlyIncreasing({offsetof(VESK_Transport_Handle_t, _participant),
                                  offsetof(VESK_Transport_Handle_t, _plugin_handle)}));
static_assert(strictlyIncreasing({offsetof(REDAWeakReference, _manager),
                                  offsetof(REDAWeakReference, _index),
                                  offsetof(REDAWeakReference, _referentEpochAtCreation)}));
static_assert(
    strictlyIncreasing({offsetof(VESK_Transport_Property_t, classid),
                        offsetof(VESK_Transport_Property_t, address_bit_count),
                        offsetof(VESK_Transport_Property_t, properties_bitmap),
                        offsetof(VESK_Transport_Property_t, gather_send_buffer_count_max),
                        offsetof(VESK_Transport_Property_t, message_size_max),
                        offsetof(VESK_Transport_Property_t, allow_interfaces_list),
                        offsetof(VESK_Transport_Property_t, allow_interfaces_list_length),
                        offsetof(VESK_Transport_Property_t, deny_interfaces_list),
                        offsetof(VESK_Transport_Property_t, deny_interfaces_list_length),
                        offsetof(VESK_Transport_Property_t, allow_multicast_interfaces_list),
                        offsetof(VESK_Transport_Property_t, allow_multicast_interfaces_list_length),
                        offsetof(VESK_Transport_Property_t, deny_multicast_interfaces_list),
                        offsetof(VESK_Transport_Property_t, deny_multicast_interfaces_list_length),
                        offsetof(VESK_Transport_Property_t, transport_uuid),
                        offsetof(VESK_Transport_Property_t, domain_participant_ptr),
                        offsetof(VESK_Transport_Property_t, domain_participant_forwarder),
                        offsetof(VESK_Transport_Property_t, thread_name_prefix),
                        offsetof(VESK_Transport_Property_t, max_interface_count)}));
static_assert(offsetof(VESK_Transport_Property_t, classid) == 0);
static_assert(offsetof(VESK_Transport_UDP_Property_t, parent) == 0 &&
              offsetof(VESK_Transport_Shmem_Property_t, parent) == 0);
static_assert(
    strictlyIncreasing({offsetof(VESK_Transport_UDP_Property_t, parent),
                        offsetof(VESK_Transport_UDP_Property_t, send_socket_buffer_size),
                        offsetof(VESK_Transport_UDP_Property_t, recv_socket_buffer_size),
                        offsetof(VESK_Transport_UDP_Property_t, unicast_enabled),
                        offsetof(VESK_Transport_UDP_Property_t, multicast_enabled),
                        offsetof(VESK_Transport_UDP_Property_t, multicast_ttl),
                        offsetof(VESK_Transport_UDP_Property_t, multicast_loopback_disabled),
                        offsetof(VESK_Transport_UDP_Property_t, ignore_loopback_interface),
                        offsetof(VESK_Transport_UDP_Property_t, ignore_nonup_interfaces),
                        offsetof(VESK_Transport_UDP_Property_t, ignore_nonrunning_interfaces),
                        offsetof(VESK_Transport_UDP_Property_t, no_zero_copy),
                        offsetof(VESK_Transport_UDP_Property_t, send_blocking),
                        offsetof(VESK_Transport_UDP_Property_t, enable_v4mapped),
                        offsetof(VESK_Transport_UDP_Property_t, use_checksum),
                        offsetof(VESK_Transport_UDP_Property_t, transport_priority_mask),
                        offsetof(VESK_Transport_UDP_Property_t, transport_priority_mapping_low),
                        offsetof(VESK_Transport_UDP_Property_t, transport_priority_mapping_high),
                        offsetof(VESK_Transport_UDP_Property_t, send_ping),
                        offsetof(VESK_Transport_UDP_Property_t, force_interface_poll_detection),
                        offsetof(VESK_Transport_UDP_Property_t, interface_poll_period),
                        offsetof(VESK_Transport_UDP_Property_t, reuse_multicast_receive_resource),
                        offsetof(VESK_Transport_UDP_Property_t, protocol_overhead_max),
                        offsetof(VESK_Transport_UDP_Property_t, disable_interface_tracking),
                        offsetof(VESK_Transport_UDP_Property_t, join_multicast_group_timeout),
                        offsetof(VESK_Transport_UDP_Property_t, public_address),
                        offsetof(VESK_Transport_UDP_Property_t, comm_ports_list),
                        offsetof(VESK_Transport_UDP_Property_t, comm_ports_list_length),
                        offsetof(VESK_Transport_UDP_Property_t, wan_listener),
                        offsetof(VESK_Transport_UDP_Property_t, port_offset),
                        offsetof(VESK_Transport_UDP_Property_t, binding_ping_period),
                        offsetof(VESK_Transport_UDP_Property_t, binding_ping_mapping_expiration),
                        offsetof(VESK_Transport_UDP_Property_t, gather_detailed_statistics),
                        offsetof(VESK_Transport_UDP_Property_t, drop_samples_by_guid_prefix),
                        offsetof(VESK_Transport_UDP_Property_t, guid_prefix_to_drop)}));
static_assert(
    strictlyIncreasing({offsetof(VESK_Transport_Shmem_Property_t, parent),
                        offsetof(VESK_Transport_Shmem_Property_t, received_message_count_max),
                        offsetof(VESK_Transport_Shmem_Property_t, receive_buffer_size),
                        offsetof(VESK_Transport_Shmem_Property_t, enable_udp_debugging),
                        offsetof(VESK_Transport_Shmem_Property_t, udp_debugging_address),
                        offsetof(VESK_Transport_Shmem_Property_t, udp_debugging_port),
                        offsetof(VESK_Transport_Shmem_Property_t, segmentKeyOffset),
                        offsetof(VESK_Transport_Shmem_Property_t, segmentKeyFactor),
                        offsetof(VESK_Transport_Shmem_Property_t, semaphoreKeyOffset),
                        offsetof(VESK_Transport_Shmem_Property_t, semaphoreKeyFactor),
                        offsetof(VESK_Transport_Shmem_Property_t, mutexKeyOffset),
                        offsetof(VESK_Transport_Shmem_Property_t, mutexKeyFactor),
                        offsetof(VESK_Transport_Shmem_Property_t, maxAllowedWriterDurationMillisec),
                        offsetof(VESK_Transport_Shmem_Property_t, reserved),
                        offsetof(VESK_Transport_Shmem_Property_t, shmemUUID),
                        offsetof(VESK_Transport_Shmem_Property_t, majorVersion)}));
static_assert(sizeof(VESK_Transport_Shmem_Property_t::majorVersion) == 2);
static_assert(
    strictlyIncreasing({offsetof(VESK_Transport_UDP_WAN_CommPortsMappingInfo, rtps_port),
                        offsetof(VESK_Transport_UDP_WAN_CommPortsMappingInfo, host_port),
                        offsetof(VESK_Transport_UDP_WAN_CommPortsMappingInfo, public_port),
                        offsetof(VESK_Transport_UDP_WAN_CommPortsMappingInfo, ref_count)}));
static_assert(sizeof(VESK_Transport_UDP_Statistics::received_priority_count) == 256 * 4);
static_assert(
    strictlyIncreasing({offsetof(VESK_Transport_UDP_Statistics, user_bytes_sent),
                        offsetof(VESK_Transport_UDP_Statistics, user_bytes_received),
                        offsetof(VESK_Transport_UDP_Statistics, user_packets_sent),
                        offsetof(VESK_Transport_UDP_Statistics, user_packets_received),
                        offsetof(VESK_Transport_UDP_Statistics, overhead_packets_received),
                        offsetof(VESK_Transport_UDP_Statistics, binding_ping_event_count),
                        offsetof(VESK_Transport_UDP_Statistics, binding_ping_packets_sent),
                        offsetof(VESK_Transport_UDP_Statistics, binding_ping_bytes_sent),
                        offsetof(VESK_Transport_UDP_Statistics, binding_ping_packets_received),
                        offsetof(VESK_Transport_UDP_Statistics, binding_ping_bytes_received),
                        offsetof(VESK_Transport_UDP_Statistics, received_priority_count),
                        offsetof(VESK_Transport_UDP_Statistics, _liveliness_bytes_sent),
                        offsetof(VESK_Transport_UDP_Statistics, _liveliness_bytes_received),
                        offsetof(VESK_Transport_UDP_Statistics, _liveliness_packets_sent),
                        offsetof(VESK_Transport_UDP_Statistics, _liveliness_packets_received)}));
// The 32 counters of groups one to eight are contiguous, four per group.
static_assert(offsetof(VESK_Transport_UDP_Statistics, overhead_packets_received) == 31 * 8);

// ---------------------------------------------------------------------------
// Logging helpers
// ---------------------------------------------------------------------------

bool logEnabled(KEL_UINT32 level) {
    return KELLog_isEnabled(level, DDS_SUBMODULE_MASK_TRANSPORT) != 0;
}

// A message of one of the module's templates, written when the masks allow.
#define VESK_LOG(level_, function_, template_, ...)                                             \
    do {                                                                                        \
        if (logEnabled(level_)) {                                                               \
            KELLogMessage_printWithParams(-1, (level_), VESK_TRANSPORT_LOG_MODULE_ID, __FILE__, \
                                          __LINE__, (function_),                                \
                                          &(template_)__VA_OPT__(, ) __VA_ARGS__);              \
        }                                                                                       \
    } while (0)

#define VESK_LOG_ERROR(function_, template_, ...) \
    VESK_LOG(KEL_LOG_BIT_ERROR, function_, template_ __VA_OPT__(, ) __VA_ARGS__)

// A _TEMPLATE message: the format text and its arguments become the
// template's one parameter.
#define VESK_LOG_FORMAT(level_, function_, template_, ...)                                       \
    do {                                                                                         \
        if (logEnabled(level_)) {                                                                \
            KELLogMessageParamString_printWithParams(-1, (level_), VESK_TRANSPORT_LOG_MODULE_ID, \
                                                     __FILE__, __LINE__, (function_),            \
                                                     &(template_), __VA_ARGS__);                 \
        }                                                                                        \
    } while (0)

// The library's precondition convention: the condition text, quoted, at the
// precondition level; then the detection flag and the breakpoint hook.
#define VESK_PRECONDITION_FAILED(function_, condition_text_)                       \
    do {                                                                           \
        VESK_LOG(KEL_LOG_BIT_EXCEPTION, function_, KEL_LOG_PRECONDITION_FAILURE_s, \
                 "\"" condition_text_ "\"");                                       \
        if (KELLog_g_detectPrecondition) {                                         \
            KELLog_g_preconditionDetected = 1;                                     \
        }                                                                          \
        KELLog_onAssertBreakpoint();                                               \
    } while (0)

// ---------------------------------------------------------------------------
// The participant frame
// ---------------------------------------------------------------------------

// A participant begins with its entity part; a missing _is_enabled
// operation means "not enabled".
bool participantIsEnabled(DDS_DomainParticipant *participant) {
    const auto *entity = reinterpret_cast<const DDS_Entity *>(participant);
    return entity->_is_enabled != nullptr && entity->_is_enabled(entity) != 0;
}

bool handleIsValid(const VESK_Transport_Handle_t *handle) {
    return handle != nullptr && handle->_participant != nullptr &&
           handle->_plugin_handle._manager != nullptr &&
           handle->_plugin_handle._index != REDA_WEAK_REFERENCE_INDEX_INVALID;
}

}  // namespace

// ===========================================================================
// 1. Participant transport API
// ===========================================================================

extern "C" const VESK_Transport_Handle_t VESK_TRANSPORT_HANDLE_NIL = {
    nullptr, {nullptr, REDA_WEAK_REFERENCE_INDEX_INVALID, 0}};

extern "C" VESK_Transport_Handle_t VESK_Transport_Support_register_transport(
    DDS_DomainParticipant *participant_in, VESK_Transport_Plugin *transport_in,
    const struct DDS_StringSeq *aliases_in, const VESK_Transport_Address_t *network_address_in) {
    static const char *const METHOD_NAME = "VESK_Transport_Support_register_transport";
    VESK_Transport_Handle_t handle = VESK_TRANSPORT_HANDLE_NIL;
    KELNetioAliasList aliasList;
    std::memset(&aliasList, 0, sizeof(aliasList));

    if (participant_in == nullptr) {
        VESK_LOG_ERROR(METHOD_NAME, DDS_LOG_BAD_PARAMETER_s, "participant_in must be  non-NULL");
        return handle;
    }
    if (participantIsEnabled(participant_in)) {
        VESK_LOG_ERROR(METHOD_NAME, DDS_LOG_PARTICIPANT_ENABLED_ERROR);
        return handle;
    }
    if (transport_in == nullptr) {
        VESK_LOG_ERROR(METHOD_NAME, DDS_LOG_BAD_PARAMETER_s, "transport_in must be non-NULL");
        return handle;
    }
    if (aliases_in == nullptr) {
        VESK_LOG_ERROR(METHOD_NAME, DDS_LOG_BAD_PARAMETER_s, "aliases_in must be non-NULL");
        return handle;
    }
    if (network_address_in == nullptr) {
        VESK_LOG_ERROR(METHOD_NAME, DDS_LOG_BAD_PARAMETER_s, "network_address_in must be non-NULL");
        return handle;
    }
    if (DDS_TransportSelectionQosPolicy_AliasList_from_StringSeq(&aliasList, aliases_in) !=
        DDS_RETCODE_OK) {
        VESK_LOG_ERROR(METHOD_NAME, DDS_LOG_BAD_PARAMETER_s,
                       "aliases_in could not be converted to internal format");
        return handle;
    }

    KELNetioConfigurator *configurator =
        DDS_DomainParticipant_get_netio_configuratorI(participant_in);
    REDAWorker *worker = DDS_DomainParticipant_get_workerI(participant_in);

    // At most one shared-memory transport per participant, whether the one
    // installed first is the builtin one or a registered one. A plugin
    // without a property record has no class and cannot be shared memory.
    const VESK_Transport_ClassId_t shmemClassId =
        KELNetioConfigurator_getShmemTransportClassId(configurator, worker);
    if (transport_in->property != nullptr && transport_in->property->classid == shmemClassId &&
        KELNetioConfigurator_getTransportPluginByClass(configurator, shmemClassId, worker) !=
            nullptr) {
        VESK_LOG_ERROR(METHOD_NAME, KEL_LOG_ANY_FAILURE_s,
                       "Only one shared memory transport is accepted");
        return handle;
    }

    if (!KELNetioConfigurator_installTransportPlugin(configurator, &handle._plugin_handle,
                                                     transport_in, &aliasList, network_address_in,
                                                     worker)) {
        VESK_LOG_ERROR(METHOD_NAME, DDS_LOG_INSTALL_TRANSPORT_PLUGINS_s, aliasList.element);
        return handle;
    }

    handle._participant = participant_in;
    return handle;
}

extern "C" VESK_Transport_Handle_t VESK_Transport_Support_lookup_transport(
    DDS_DomainParticipant *participant_in, struct DDS_StringSeq *aliases_out,
    VESK_Transport_Address_t *network_address_out, const VESK_Transport_Plugin *transport_in) {
    static const char *const METHOD_NAME = "VESK_Transport_Support_lookup_transport";
    VESK_Transport_Handle_t handle = VESK_TRANSPORT_HANDLE_NIL;
    KELNetioAliasList aliasList;
    std::memset(&aliasList, 0, sizeof(aliasList));

    if (participant_in == nullptr) {
        VESK_LOG_ERROR(METHOD_NAME, DDS_LOG_BAD_PARAMETER_s, "participant_in must be  non-NULL");
        return handle;
    }
    if (transport_in == nullptr) {
        VESK_LOG_ERROR(METHOD_NAME, DDS_LOG_BAD_PARAMETER_s, "transport_in must be non-NULL");
        return handle;
    }

    KELNetioConfigurator *configurator =
        DDS_DomainParticipant_get_netio_configuratorI(participant_in);
    REDAWorker *worker = DDS_DomainParticipant_get_workerI(participant_in);

    if (!KELNetioConfigurator_queryTransportPlugin(configurator, &aliasList, network_address_out,
                                                   &handle._plugin_handle, transport_in, worker)) {
        VESK_LOG_ERROR(METHOD_NAME, DDS_LOG_INSTALL_TRANSPORT_PLUGINS_s, aliasList.element);
        return handle;
    }
    // A failed conversion still returns the weak reference that the query
    // found, beside a null participant.
    if (aliases_out != nullptr && DDS_TransportSelectionQosPolicy_StringSeq_from_AliasList(
                                      aliases_out, &aliasList) != DDS_RETCODE_OK) {
        VESK_LOG_ERROR(METHOD_NAME, DDS_LOG_BAD_PARAMETER_s,
                       "aliases_in could not be converted from internal format");
        return handle;
    }

    handle._participant = participant_in;
    return handle;
}

namespace {

enum class RouteKind { send, receive };

// Send and receive routes run the same checks and differ only in the
// configurator call. A null handle pointer counts as an invalid handle.
DDS_ReturnCode_t addRoute(const char *method_name, RouteKind kind,
                          const VESK_Transport_Handle_t *transport_handle_in,
                          const VESK_Transport_Address_t *address_range_in,
                          DDS_Long address_range_bit_count_in) {
    if (!handleIsValid(transport_handle_in)) {
        VESK_LOG_ERROR(method_name, DDS_LOG_BAD_PARAMETER_s, "transport_handle_in must be valid");
        return DDS_RETCODE_BAD_PARAMETER;
    }
    DDS_DomainParticipant *participant = transport_handle_in->_participant;
    if (participantIsEnabled(participant)) {
        VESK_LOG_ERROR(method_name, DDS_LOG_PARTICIPANT_ENABLED_ERROR);
        return DDS_RETCODE_PRECONDITION_NOT_MET;
    }
    if (address_range_in == nullptr) {
        VESK_LOG_ERROR(method_name, DDS_LOG_BAD_PARAMETER_s, "address_range_in must be non-NULL");
        return DDS_RETCODE_BAD_PARAMETER;
    }
    if (address_range_bit_count_in < 0 || address_range_bit_count_in > 128) {
        VESK_LOG_ERROR(method_name, DDS_LOG_BAD_PARAMETER_s,
                       "0 <= address_range_bit_count_in <= 128");
        return DDS_RETCODE_BAD_PARAMETER;
    }

    KELNetioConfigurator *configurator = DDS_DomainParticipant_get_netio_configuratorI(participant);
    REDAWorker *worker = DDS_DomainParticipant_get_workerI(participant);

    // The filter takes the number of free low-order bits, not the number of
    // significant ones.
    KELNetioAddressFilter serviceAddressRange;
    std::memset(&serviceAddressRange, 0, sizeof(serviceAddressRange));
    KELNetioAddressFilter_from(&serviceAddressRange, address_range_in,
                               128 - address_range_bit_count_in);

    int added = 0;
    if (kind == RouteKind::send) {
        const VESK_Transport_ClassId_t serviceClass = 0;
        added = KELNetioConfigurator_addDestinationRoute(
            configurator, serviceClass, &serviceAddressRange, &transport_handle_in->_plugin_handle,
            nullptr, worker);
    } else {
        added = KELNetioConfigurator_addEntryportRoute(
            configurator, &serviceAddressRange, &transport_handle_in->_plugin_handle, worker);
    }
    if (!added) {
        // Receive routes report a refusal with the send-route template too.
        VESK_LOG_ERROR(method_name, DDS_LOG_TRANSPORT_SEND_ROUTE);
        return DDS_RETCODE_ERROR;
    }
    return DDS_RETCODE_OK;
}

}  // namespace

extern "C" DDS_ReturnCode_t VESK_Transport_Support_add_send_route(
    const VESK_Transport_Handle_t *transport_handle_in,
    const VESK_Transport_Address_t *address_range_in, DDS_Long address_range_bit_count_in) {
    return addRoute("VESK_Transport_Support_add_send_route", RouteKind::send, transport_handle_in,
                    address_range_in, address_range_bit_count_in);
}

extern "C" DDS_ReturnCode_t VESK_Transport_Support_add_receive_route(
    const VESK_Transport_Handle_t *transport_handle_in,
    const VESK_Transport_Address_t *address_range_in, DDS_Long address_range_bit_count_in) {
    return addRoute("VESK_Transport_Support_add_receive_route", RouteKind::receive,
                    transport_handle_in, address_range_in, address_range_bit_count_in);
}

extern "C" DDS_ReturnCode_t VESK_Transport_Support_get_builtin_transport_property(
    DDS_DomainParticipant *participant_in, DDS_TransportBuiltinKind builtin_transport_kind_in,
    struct VESK_Transport_Property_t *builtin_transport_property_inout) {
    static const char *const METHOD_NAME = "VESK_Transport_Support_get_builtin_transport_property";
    if (participant_in == nullptr) {
        VESK_LOG_ERROR(METHOD_NAME, DDS_LOG_BAD_PARAMETER_s, "participant_in must be  non-NULL");
        return DDS_RETCODE_BAD_PARAMETER;
    }
    if (builtin_transport_property_inout == nullptr) {
        VESK_LOG_ERROR(METHOD_NAME, DDS_LOG_BAD_PARAMETER_s,
                       "builtin_transport_property_inout must be  non-NULL");
        return DDS_RETCODE_BAD_PARAMETER;
    }
    // Readable at any time; the participant reports its own failures.
    return DDS_DomainParticipant_get_builtin_transport_property(
        participant_in, builtin_transport_kind_in, builtin_transport_property_inout);
}

extern "C" DDS_ReturnCode_t VESK_Transport_Support_set_builtin_transport_property(
    DDS_DomainParticipant *participant_in, DDS_TransportBuiltinKind builtin_transport_kind_in,
    const struct VESK_Transport_Property_t *builtin_transport_property_in) {
    static const char *const METHOD_NAME = "VESK_Transport_Support_set_builtin_transport_property";
    if (participant_in == nullptr) {
        VESK_LOG_ERROR(METHOD_NAME, DDS_LOG_BAD_PARAMETER_s, "participant_in must be  non-NULL");
        return DDS_RETCODE_BAD_PARAMETER;
    }
    if (builtin_transport_property_in == nullptr) {
        VESK_LOG_ERROR(METHOD_NAME, DDS_LOG_BAD_PARAMETER_s,
                       "builtin_transport_property_in must be  non-NULL");
        return DDS_RETCODE_BAD_PARAMETER;
    }
    if (participantIsEnabled(participant_in)) {
        VESK_LOG_ERROR(METHOD_NAME, DDS_LOG_PARTICIPANT_ENABLED_ERROR);
        return DDS_RETCODE_PRECONDITION_NOT_MET;
    }
    return DDS_DomainParticipant_set_builtin_transport_property(
        participant_in, builtin_transport_kind_in, builtin_transport_property_in);
}

extern "C" VESK_Transport_Plugin *VESK_Transport_Support_get_transport_plugin(
    DDS_DomainParticipant *participant_in, const char *alias_in) {
    static const char *const METHOD_NAME = "VESK_Transport_Support_get_transport_plugin";
    if (participant_in == nullptr) {
        VESK_LOG_ERROR(METHOD_NAME, DDS_LOG_BAD_PARAMETER_s, "participant_in must be  non-NULL");
        return nullptr;
    }
    if (alias_in == nullptr) {
        VESK_LOG_ERROR(METHOD_NAME, DDS_LOG_BAD_PARAMETER_s, "alias_in must be  non-NULL");
        return nullptr;
    }
    KELNetioConfigurator *configurator =
        DDS_DomainParticipant_get_netio_configuratorI(participant_in);
    if (configurator == nullptr) {
        VESK_LOG_ERROR(METHOD_NAME, DDS_LOG_GET_FAILURE_s, "netio configurator not valid");
        return nullptr;
    }
    REDAWorker *worker = DDS_DomainParticipant_get_workerI(participant_in);
    if (worker == nullptr) {
        VESK_LOG_ERROR(METHOD_NAME, DDS_LOG_GET_FAILURE_s, "worker not valid");
        return nullptr;
    }
    KELNetioAliasList pluginAliasIn;
    pluginAliasIn.element[0] = '\0';
    if (!KELNetioAliasList_appendFromString(&pluginAliasIn, alias_in)) {
        VESK_LOG_ERROR(METHOD_NAME, DDS_LOG_SET_FAILURE_s, "pluginAliasIn");
        return nullptr;
    }
    // No plugin with that alias is not an error here.
    return KELNetioConfigurator_getTransportPluginFromAlias(configurator, nullptr, &pluginAliasIn,
                                                            worker);
}

// ===========================================================================
// 2. Property-based transport configuration
// ===========================================================================

namespace {

using namespace vesk::transport;

const DDS_Property_t *lookup(const DDS_PropertyQosPolicy *properties, const char *prefix,
                             const char *suffix) {
    return DDS_PropertyQosPolicyHelper_lookup_property_with_prefix(properties, prefix, suffix);
}

// The first keyword of the table that the value names, in table order.
const Keyword *matchKeyword(const KeywordTable &table, const char *value,
                            VESK_Transport_ClassId_t classid) {
    for (std::size_t i = 0; i < table.count; ++i) {
        const Keyword &keyword = table.keywords[i];
        if (!keywordApplies(keyword, classid)) continue;
        // Ignoring case, the comparison covers the terminator too, so only
        // the whole keyword matches.
        const bool equal =
            table.caseRule == CaseRule::exact
                ? REDAString_compare(value, keyword.text) == 0
                : REDAString_inCompare(value, keyword.text, std::strlen(keyword.text) + 1) == 0;
        if (equal) return &keyword;
    }
    return nullptr;
}

enum RowResult { rowAbsent = 0, rowApplied = 1, rowFailed = -1 };

template <typename Record>
void logConversionFailure(const char *method_name, const PropertyRow<Record> &row,
                          const char *value) {
    switch (row.failure) {
        case FailureMessage::parserFailure:
            VESK_LOG_ERROR(method_name, KEL_LOG_PARSER_FAILURE_ss, row.suffix, value);
            break;
        case FailureMessage::failedToParse:
            VESK_LOG_FORMAT(KEL_LOG_BIT_ERROR, method_name, KEL_LOG_FAILED_TO_PARSE_TEMPLATE,
                            "%s: %s", row.suffix, value);
            break;
        case FailureMessage::failedToConvert:
            // The value itself is not part of this message.
            VESK_LOG_FORMAT(KEL_LOG_BIT_ERROR, method_name, KEL_LOG_FAILED_TO_CONVERT_TEMPLATE,
                            "'%s' value", row.suffix);
            break;
        case FailureMessage::ownMessages:
            break;
    }
}

// The conversions that only store a number, a boolean or a keyword.
template <typename Record>
RowResult applyScalarRow(const char *method_name, const PropertyRow<Record> &row, Record *record,
                         const char *value, VESK_Transport_ClassId_t classid) {
    bool converted = false;
    if (row.keywords != nullptr) {
        if (const Keyword *keyword = matchKeyword(*row.keywords, value, classid)) {
            record->*row.intField = keyword->value;
            return rowApplied;
        }
    }
    switch (row.conversion) {
        case Conversion::classId: {
            VESK_Transport_ClassId_t parsed = 0;
            converted = VESK_Transport_parse_transport_class_id(value, &parsed) != 0;
            if (converted) record->*row.intField = parsed;
            break;
        }
        case Conversion::int32: {
            KEL_INT32 parsed = 0;
            converted = KELOsapiUtility_strtol(value, &parsed) != 0;
            if (converted && row.hasRange && (parsed < row.rangeMin || parsed > row.rangeMax)) {
                VESK_LOG_ERROR(method_name, KEL_LOG_PARSER_VALUE_OUT_OF_RANGE_ss, row.suffix,
                               row.rangeText);
                return rowFailed;
            }
            if (converted) record->*row.intField = parsed;
            break;
        }
        case Conversion::uint32: {
            KEL_UINT32 parsed = 0;
            converted = KELOsapiUtility_strtoul(value, &parsed) != 0;
            if (converted) record->*row.uintField = parsed;
            break;
        }
        case Conversion::unsignedLong: {
            KEL_UINT32 parsed = 0;
            converted = REDAString_strToUnsignedLong(value, &parsed) != 0;
            if (converted) record->*row.uintField = parsed;
            break;
        }
        case Conversion::boolean: {
            int parsed = 0;
            converted = REDAString_strToBoolean(value, &parsed) != 0;
            if (converted) record->*row.intField = parsed;
            break;
        }
        default:
            converted = false;
            break;  // keywordOnly: no keyword matched
    }
    if (!converted) {
        logConversionFailure(method_name, row, value);
        return rowFailed;
    }
    return rowApplied;
}

constexpr const char *PARENT_SETUP = "VESK_Transport_setupParentTransportProperty";
constexpr const char *UDP_SETUP = "VESK_Transport_setupUDPProperty";
constexpr const char *PARSE_INTERFACE_LIST = "VESK_Transport_Support_parse_interface_list";
constexpr const char *PARSE_JSON = "VESK_Transport_CommPortsHelper_parseJson";
constexpr const char *PARSE_JSON_MAPPING_NODE =
    "VESK_Transport_CommPortsHelper_parseJsonMappingNode";

// The thread-name prefix: "parent.thread_name_prefix" is truncated to 8
// characters with a warning; the older "thread_name_prefix" must fit.
// Without either the record gets the default prefix, uncounted.
RowResult applyThreadNamePrefix(const GenericRow &row, VESK_Transport_Property_t *record,
                                const DDS_PropertyQosPolicy *properties, const char *prefix) {
    constexpr std::size_t maxLength = VESK_TRANSPORT_THREAD_NAME_PREFIX_MAX_LENGTH;
    if (const DDS_Property_t *property = lookup(properties, prefix, row.suffix)) {
        const char *value = property->value;
        if (std::strlen(value) <= maxLength) {
            record->thread_name_prefix = DDS_String_dup(value);
            if (record->thread_name_prefix == nullptr) {
                VESK_LOG_ERROR(PARENT_SETUP, DDS_LOG_OUT_OF_RESOURCES_s, row.suffix);
                return rowFailed;
            }
            return rowApplied;
        }
        char *truncated = DDS_String_alloc(maxLength);
        if (truncated == nullptr ||
            KELOsapiUtility_strncpy(truncated, maxLength, value, maxLength) == nullptr) {
            DDS_String_free(truncated);
            VESK_LOG_ERROR(PARENT_SETUP, KEL_LOG_ANY_FAILURE_s,
                           "truncate parent.thread_name_prefix");
            return rowFailed;
        }
        record->thread_name_prefix = truncated;
        VESK_LOG(KEL_LOG_BIT_WARN, PARENT_SETUP, KEL_LOG_TRUNCATED_STRING_sds, value,
                 static_cast<int>(maxLength), truncated);
        return rowApplied;
    }
    if (const DDS_Property_t *property = lookup(properties, prefix, row.alternativeSuffix)) {
        if (std::strlen(property->value) > maxLength) {
            VESK_PRECONDITION_FAILED(PARENT_SETUP, "strlen(thread_name_prefix) > 8");
            return rowFailed;
        }
        record->thread_name_prefix = DDS_String_dup(property->value);
        if (record->thread_name_prefix == nullptr) {
            VESK_LOG_ERROR(PARENT_SETUP, DDS_LOG_OUT_OF_RESOURCES_s, row.alternativeSuffix);
            return rowFailed;
        }
        return rowApplied;
    }
    record->thread_name_prefix = DDS_String_dup(VESK_TRANSPORT_THREAD_NAME_PREFIX_DEFAULT);
    if (record->thread_name_prefix == nullptr) {
        VESK_LOG_ERROR(PARENT_SETUP, DDS_LOG_OUT_OF_RESOURCES_s, row.suffix);
        return rowFailed;
    }
    return rowAbsent;
}

// "participant_guid_prefix" = hostId,appId,instanceId, three unsigned
// numbers stored in native byte order into the 12 bytes of transport_uuid.
RowResult applyGuidPrefix(const GenericRow &row, VESK_Transport_Property_t *record,
                          const DDS_PropertyQosPolicy *properties, const char *prefix) {
    const DDS_Property_t *property = lookup(properties, prefix, row.suffix);
    if (property == nullptr) return rowAbsent;
    const char *value = property->value;
    constexpr std::size_t capacity = 32;
    char buffer[capacity + 1];
    if (KELOsapiUtility_strcpy(buffer, capacity, value) == nullptr) {
        VESK_LOG_ERROR(PARENT_SETUP, KEL_LOG_INSUFFICIENT_SPACE_FAILURE_dd,
                       static_cast<int>(capacity + 1), static_cast<int>(std::strlen(value) + 1));
        return rowFailed;
    }
    char *firstComma = std::strchr(buffer, ',');
    char *secondComma = firstComma != nullptr ? std::strchr(firstComma + 1, ',') : nullptr;
    KELOsapiRtpsGuidPrefix guidPrefix{};
    bool converted = secondComma != nullptr;
    if (converted) {
        *firstComma = '\0';
        *secondComma = '\0';
        converted = KELOsapiUtility_strtoul(buffer, &guidPrefix.hostId) &&
                    KELOsapiUtility_strtoul(firstComma + 1, &guidPrefix.appId) &&
                    KELOsapiUtility_strtoul(secondComma + 1, &guidPrefix.instanceId);
    }
    if (!converted) {
        VESK_LOG_ERROR(PARENT_SETUP, KEL_LOG_PARSER_FAILURE_ss, row.suffix, value);
        return rowFailed;
    }
    static_assert(sizeof(guidPrefix) == sizeof(record->transport_uuid.value));
    std::memcpy(record->transport_uuid.value, &guidPrefix, sizeof(guidPrefix));
    return rowApplied;
}

RowResult applyGenericRow(const GenericRow &row, VESK_Transport_Property_t *record,
                          VESK_Transport_internalMemoryAllocations *allocations,
                          const DDS_PropertyQosPolicy *properties, const char *prefix, int *count) {
    switch (row.conversion) {
        case Conversion::interfaceList: {
            const InterfaceList &list = *row.interfaceList;
            if (!VESK_Transport_Support_parse_interface_list(
                    &(record->*list.length), &(record->*list.list), count,
                    &(allocations->*list.flag), properties, prefix, list.singleSuffix,
                    list.listSuffix)) {
                VESK_LOG_ERROR(PARENT_SETUP, KEL_LOG_PARSER_FAILURE_s, list.listSuffix);
                return rowFailed;
            }
            return rowAbsent;  // parse_interface_list counted it
        }
        case Conversion::threadNamePrefix:
            return applyThreadNamePrefix(row, record, properties, prefix);
        case Conversion::guidPrefix:
            return applyGuidPrefix(row, record, properties, prefix);
        default:
            break;
    }
    const DDS_Property_t *property = lookup(properties, prefix, row.suffix);
    if (property == nullptr) return rowAbsent;
    return applyScalarRow(PARENT_SETUP, row, record, property->value, record->classid);
}

// "comm_ports": one port for the RTPS, host and public port alike, or a
// JSON document of mappings.
RowResult applyCommPorts(const UdpRow &row, VESK_Transport_UDP_Property_t *record,
                         VESK_Transport_internalMemoryAllocations *allocations, const char *value) {
    KEL_INT32 uniquePortValue = 0;
    if (KELOsapiUtility_strtolWithBase(value, &uniquePortValue, 0, nullptr)) {
        if (uniquePortValue < 0 || uniquePortValue > 65535) {
            VESK_LOG_FORMAT(KEL_LOG_BIT_ERROR, UDP_SETUP, KEL_LOG_FAILED_TO_PARSE_TEMPLATE,
                            "%s: %s is out of valid port range (0-65535)", row.suffix, value);
            return rowFailed;
        }
        if (!KELOsapiHeap_allocateArray(&record->comm_ports_list, 1,
                                        struct VESK_Transport_UDP_WAN_CommPortsMappingInfo)) {
            VESK_LOG_ERROR(UDP_SETUP, KEL_LOG_CREATION_FAILURE_s, "commPortsList");
            return rowFailed;
        }
        const auto port = static_cast<VESK_Transport_UDP_Port>(uniquePortValue);
        record->comm_ports_list[0].rtps_port = static_cast<VESK_Transport_Port_t>(uniquePortValue);
        record->comm_ports_list[0].host_port = port;
        record->comm_ports_list[0].public_port = port;
        record->comm_ports_list_length = 1;
    } else if (!VESK_Transport_CommPortsHelper_parseJson(&record->comm_ports_list,
                                                         &record->comm_ports_list_length, value)) {
        VESK_LOG_ERROR(UDP_SETUP, KEL_LOG_PARSER_FAILURE_ss, row.suffix, value);
        return rowFailed;
    }
    allocations->_commPortsAllocated = 1;
    return rowApplied;
}

RowResult applyUdpRow(const UdpRow &row, VESK_Transport_UDP_Property_t *record,
                      VESK_Transport_internalMemoryAllocations *allocations,
                      const DDS_PropertyQosPolicy *properties, const char *prefix,
                      VESK_Transport_ClassId_t classid) {
    const DDS_Property_t *property = lookup(properties, prefix, row.suffix);
    if (property == nullptr) return rowAbsent;
    const char *value = property->value;
    switch (row.conversion) {
        case Conversion::publicAddress:
            // Any text is accepted; its form is the WAN transport's business.
            record->public_address = DDS_String_dup(value);
            if (record->public_address == nullptr) {
                VESK_LOG_ERROR(UDP_SETUP, KEL_LOG_ANY_FAILURE_s,
                               "ERROR: Out of resources for public_address. ");
                return rowFailed;
            }
            allocations->_publicAddressAllocated = 1;
            return rowApplied;
        case Conversion::commPorts:
            return applyCommPorts(row, record, allocations, value);
        case Conversion::pointer: {
            void *listener = nullptr;
            if (!KELOsapiUtility_strtoptr(value, &listener)) {
                logConversionFailure(UDP_SETUP, row, value);
                return rowFailed;
            }
            record->wan_listener = static_cast<VESK_Transport_UDP_WAN_Listener *>(listener);
            return rowApplied;
        }
        default:
            return applyScalarRow(UDP_SETUP, row, record, value, classid);
    }
}

struct ValidationLists {
    const char *const *publicSuffixes;
    const char *const *privateSuffixes;
};

// The lists a class's own property list is validated against; none for a
// class id that is not a UDP class.
bool udpValidationLists(VESK_Transport_ClassId_t classid, ValidationLists *lists) {
    switch (classid) {
        case VESK_TRANSPORT_CLASSID_UDPv4:
            *lists = {PROPERTY_PLUGIN_VALID_PUBLIC_PROPERTIES_UDPV4,
                      PROPERTY_PLUGIN_VALID_PRIVATE_PROPERTIES_UDPV4};
            return true;
        case VESK_TRANSPORT_CLASSID_UDPv4_WAN:
            *lists = {PROPERTY_PLUGIN_VALID_PUBLIC_PROPERTIES_UDPV4_WAN,
                      PROPERTY_PLUGIN_VALID_PRIVATE_PROPERTIES_UDPV4_WAN};
            return true;
        case VESK_TRANSPORT_CLASSID_UDPv6:
        case VESK_TRANSPORT_CLASSID_UDPv6_510:
            *lists = {PROPERTY_PLUGIN_VALID_PUBLIC_PROPERTIES_UDPV6,
                      PROPERTY_PLUGIN_VALID_PRIVATE_PROPERTIES_UDPV6};
            return true;
        default:
            return false;
    }
}

}  // namespace

extern "C" int VESK_Transport_Support_parse_interface_list(
    KEL_INT32 *interfaces_list_length, char ***interfaces_list, int *properties_parsed,
    KEL_INT32 *is_memory_allocated, const struct DDS_PropertyQosPolicy *transport_properties,
    const char *property_prefix, const char *interface_suffix_property_name,
    const char *interface_list_suffix_property_name) {
    if (interfaces_list_length == nullptr) {
        VESK_PRECONDITION_FAILED(PARSE_INTERFACE_LIST, "interfaces_list_length == ((void *)0)");
        return 0;
    }
    if (interfaces_list == nullptr) {
        VESK_PRECONDITION_FAILED(PARSE_INTERFACE_LIST, "interfaces_list == ((void *)0)");
        return 0;
    }
    if (transport_properties == nullptr) {
        VESK_PRECONDITION_FAILED(PARSE_INTERFACE_LIST, "transport_properties == ((void *)0)");
        return 0;
    }
    if (interface_suffix_property_name == nullptr) {
        VESK_PRECONDITION_FAILED(PARSE_INTERFACE_LIST,
                                 "interface_suffix_property_name == ((void *)0)");
        return 0;
    }
    if (interface_list_suffix_property_name == nullptr) {
        VESK_PRECONDITION_FAILED(PARSE_INTERFACE_LIST,
                                 "interface_list_suffix_property_name == ((void *)0)");
        return 0;
    }
    // A list this module allocated must be released by the cleanup first.
    if (*interfaces_list != nullptr && is_memory_allocated != nullptr && *is_memory_allocated) {
        VESK_PRECONDITION_FAILED(PARSE_INTERFACE_LIST,
                                 "*interfaces_list != ((void *)0) && is_memory_allocated != "
                                 "((void *)0) && *is_memory_allocated");
        return 0;
    }

    // The single-interface name wins; the list name is then not read.
    const DDS_Property_t *property =
        lookup(transport_properties, property_prefix, interface_suffix_property_name);
    if (property == nullptr) {
        property =
            lookup(transport_properties, property_prefix, interface_list_suffix_property_name);
    }
    if (property == nullptr) return 1;

    // The list as the caller handed it in: on a failure before our array
    // replaces it, the finalizer must see the caller's own length.
    char **const callerList = *interfaces_list;
    const KEL_INT32 callerLength = *interfaces_list_length;
    bool ok = false;
    DDS_StringSeq pieces = DDS_SEQUENCE_INITIALIZER;
    if (DDS_StringSeq_from_delimited_string(&pieces, property->value, ',') != DDS_RETCODE_OK) {
        VESK_LOG_ERROR(PARSE_INTERFACE_LIST, KEL_LOG_PARSER_FAILURE_ss,
                       interface_list_suffix_property_name, property->value);
    } else {
        const DDS_Long length = DDS_StringSeq_get_length(&pieces);
        *interfaces_list_length = length;
        ok = true;
        if (length > 0) {
            char **list = nullptr;
            if (!KELOsapiHeap_allocateArray(&list, length, char *)) {
                VESK_LOG_ERROR(PARSE_INTERFACE_LIST, DDS_LOG_OUT_OF_RESOURCES_s, "interfaces list");
                ok = false;
            } else {
                // The array the list held before was not ours (precondition),
                // so it is replaced, not released.
                if (is_memory_allocated != nullptr) *is_memory_allocated = 1;
                *interfaces_list = list;
                for (DDS_Long i = 0; i < length && ok; ++i) {
                    const char *trimmed = KELOsapiUtility_strTrim(DDS_StringSeq_get(&pieces, i));
                    list[i] = DDS_String_dup(trimmed);
                    if (list[i] == nullptr) {
                        VESK_LOG_ERROR(PARSE_INTERFACE_LIST, DDS_LOG_OUT_OF_RESOURCES_s,
                                       "interfaces_list element");
                        ok = false;
                    }
                }
            }
        }
        if (ok && properties_parsed != nullptr) ++*properties_parsed;
    }
    if (!DDS_StringSeq_finalize(&pieces)) {
        VESK_LOG_ERROR(PARSE_INTERFACE_LIST, DDS_LOG_SEQUENCE_NOT_OWNER);
        ok = false;
    }
    if (!ok) {
        if (*interfaces_list == callerList) *interfaces_list_length = callerLength;
        VESK_Transport_Property_finalize_interface_list(interfaces_list, interfaces_list_length);
        if (is_memory_allocated != nullptr) *is_memory_allocated = 0;
        return 0;
    }
    return 1;
}

extern "C" int VESK_Transport_setupParentTransportProperty(
    struct VESK_Transport_Property_t *transport_property,
    struct VESK_Transport_internalMemoryAllocations *memory_allocated_out,
    const struct DDS_PropertyQosPolicy *transport_properties, const char *propertyPrefix) {
    int count = 0;
    for (const GenericRow &row : GENERIC_ROWS) {
        const RowResult result = applyGenericRow(row, transport_property, memory_allocated_out,
                                                 transport_properties, propertyPrefix, &count);
        if (result == rowFailed) return -1;
        count += result;
    }
    return count;
}

extern "C" void VESK_Transport_cleanupParentTransportProperty(
    struct VESK_Transport_Property_t *transport_property,
    const struct VESK_Transport_internalMemoryAllocations *memory_allocated) {
    if (transport_property == nullptr) return;
    // A list whose flag is clear belongs to someone else.
    for (const InterfaceList *list : {&ALLOW_INTERFACES, &DENY_INTERFACES,
                                      &ALLOW_MULTICAST_INTERFACES, &DENY_MULTICAST_INTERFACES}) {
        if (memory_allocated->*list->flag) {
            VESK_Transport_Property_finalize_interface_list(&(transport_property->*list->list),
                                                            &(transport_property->*list->length));
        }
    }
    if (transport_property->thread_name_prefix != nullptr) {
        DDS_String_free(transport_property->thread_name_prefix);
        transport_property->thread_name_prefix = nullptr;
    }
}

extern "C" int VESK_Transport_setupUDPProperty(
    struct VESK_Transport_UDP_Property_t *udp_property_out,
    struct VESK_Transport_internalMemoryAllocations *memory_allocated_out,
    const struct DDS_PropertyQosPolicy *udp_transport_properties, const char *propertyPrefix,
    VESK_Transport_ClassId_t classid) {
    int retPropertiesParsed = -1;
    int propertiesParsed = 0;
    const char *prefix = "";
    // A list without a prefix is the transport's own: validate its names.
    const bool checkAllPropertiesExpected = propertyPrefix == nullptr;

    propertiesParsed += VESK_Transport_setupParentTransportProperty(
        &udp_property_out->parent, memory_allocated_out, udp_transport_properties, propertyPrefix);
    if (propertiesParsed == -1) {
        VESK_LOG_ERROR(UDP_SETUP, KEL_LOG_PARSER_FAILURE_s, "parent properties");
        goto done;
    }

    if (checkAllPropertiesExpected) {
        if (const DDS_Property_t *prefixProperty =
                lookup(udp_transport_properties, nullptr, "prefix")) {
            prefix = prefixProperty->value;
            ++propertiesParsed;
        }
        DDS_PropertyQosPolicyValidationAction action =
            DDS_PROPERTY_QOS_POLICY_VALIDATION_ACTION_EXCEPTION;
        if (!DDS_PropertyQosPolicy_parse_property_validation_action(&action,
                                                                    udp_transport_properties)) {
            VESK_LOG_ERROR(UDP_SETUP, KEL_LOG_PARSER_FAILURE_s, "property_validation_action");
            goto done;
        }
        ValidationLists lists{};
        if (action != DDS_PROPERTY_QOS_POLICY_VALIDATION_ACTION_SKIP &&
            udpValidationLists(classid, &lists) &&
            !DDS_PropertyQosPolicy_validate_plugin_property_suffixes(
                udp_transport_properties, prefix, lists.publicSuffixes, lists.privateSuffixes,
                nullptr, action)) {
            VESK_LOG_ERROR(UDP_SETUP, KEL_LOG_INCONSISTENT_PROPERTY_s, prefix);
            goto done;
        }
    }

    for (const UdpRow &row : UDP_ROWS) {
        const RowResult result = applyUdpRow(row, udp_property_out, memory_allocated_out,
                                             udp_transport_properties, propertyPrefix, classid);
        if (result == rowFailed) goto done;
        propertiesParsed += result;
    }
    retPropertiesParsed = propertiesParsed;

done:
    // A failed setup hands back no port list; its flag stays as it was.
    if (retPropertiesParsed == -1 && udp_property_out->comm_ports_list != nullptr) {
        KELOsapiHeap_freeArray(udp_property_out->comm_ports_list);
        udp_property_out->comm_ports_list = nullptr;
        udp_property_out->comm_ports_list_length = 0;
    }
    return retPropertiesParsed;
}

extern "C" void VESK_Transport_cleanupUDPProperty(
    struct VESK_Transport_UDP_Property_t *udp_property,
    const struct VESK_Transport_internalMemoryAllocations *memory_allocated) {
    if (udp_property == nullptr) return;
    if (memory_allocated->_publicAddressAllocated && udp_property->public_address != nullptr) {
        DDS_String_free(udp_property->public_address);
        udp_property->public_address = nullptr;
    }
    if (memory_allocated->_commPortsAllocated && udp_property->comm_ports_list != nullptr) {
        KELOsapiHeap_freeArray(udp_property->comm_ports_list);
        udp_property->comm_ports_list = nullptr;
        udp_property->comm_ports_list_length = 0;
    }
    VESK_Transport_cleanupParentTransportProperty(&udp_property->parent, memory_allocated);
}

extern "C" int VESK_Transport_setupUDPv4Property(
    struct VESK_Transport_UDP_Property_t *udpv4_property_out,
    struct VESK_Transport_internalMemoryAllocations *memory_allocated_out,
    const struct DDS_PropertyQosPolicy *udpv4_transport_properties, const char *propertyPrefix) {
    return VESK_Transport_setupUDPProperty(udpv4_property_out, memory_allocated_out,
                                           udpv4_transport_properties, propertyPrefix,
                                           VESK_TRANSPORT_CLASSID_UDPv4);
}

extern "C" int VESK_Transport_setupUDPv4WanProperty(
    struct VESK_Transport_UDP_Property_t *udpv4_property_out,
    struct VESK_Transport_internalMemoryAllocations *memory_allocated_out,
    const struct DDS_PropertyQosPolicy *udpv4_transport_properties, const char *propertyPrefix) {
    return VESK_Transport_setupUDPProperty(udpv4_property_out, memory_allocated_out,
                                           udpv4_transport_properties, propertyPrefix,
                                           VESK_TRANSPORT_CLASSID_UDPv4_WAN);
}

extern "C" int VESK_Transport_setupUDPv6Property(
    struct VESK_Transport_UDP_Property_t *udpv6_property_out,
    struct VESK_Transport_internalMemoryAllocations *memory_allocated_out,
    const struct DDS_PropertyQosPolicy *udpv6_transport_properties, const char *propertyPrefix) {
    return VESK_Transport_setupUDPProperty(udpv6_property_out, memory_allocated_out,
                                           udpv6_transport_properties, propertyPrefix,
                                           VESK_TRANSPORT_CLASSID_UDPv6);
}

extern "C" void VESK_Transport_cleanupUDPv4Property(
    struct VESK_Transport_UDP_Property_t *udpv4_property,
    const struct VESK_Transport_internalMemoryAllocations *memory_allocated) {
    VESK_Transport_cleanupUDPProperty(udpv4_property, memory_allocated);
}

extern "C" void VESK_Transport_cleanupUDPv4WanProperty(
    struct VESK_Transport_UDP_Property_t *udpv4_wan_property,
    const struct VESK_Transport_internalMemoryAllocations *memory_allocated) {
    VESK_Transport_cleanupUDPProperty(udpv4_wan_property, memory_allocated);
}

extern "C" void VESK_Transport_cleanupUDPv6Property(
    struct VESK_Transport_UDP_Property_t *udpv6_property,
    const struct VESK_Transport_internalMemoryAllocations *memory_allocated) {
    VESK_Transport_cleanupUDPProperty(udpv6_property, memory_allocated);
}

// ---------------------------------------------------------------------------
// WAN communication-ports mapping
// ---------------------------------------------------------------------------

namespace {

// Fills one mapping from one mapping object; "public" defaults to the host
// port just read. Values are cut to their low bits, not range-checked.
int VESK_Transport_CommPortsHelper_parseJsonMappingNode(
    struct VESK_Transport_UDP_WAN_CommPortsMappingInfo *commPortsMapping,
    const KELJSONObject *mappingNode) {
    if (commPortsMapping == nullptr) {
        VESK_PRECONDITION_FAILED(PARSE_JSON_MAPPING_NODE, "commPortsMapping == ((void *)0)");
        return 0;
    }
    if (mappingNode == nullptr) {
        VESK_PRECONDITION_FAILED(PARSE_JSON_MAPPING_NODE, "mappingNode == ((void *)0)");
        return 0;
    }
    const KELJSONObject *member = nullptr;
    KEL_INT64 value = 0;
    commPortsMapping->rtps_port = 0;
    if (KELJSONObject_getChildByName(mappingNode, &member, "rtps")) {
        if (!KELJSONObject_getIntValue(member, &value)) {
            VESK_LOG_ERROR(PARSE_JSON_MAPPING_NODE, KEL_LOG_GET_FAILURE_s, "rtps node value");
            return 0;
        }
        commPortsMapping->rtps_port = static_cast<VESK_Transport_Port_t>(value);
    }
    commPortsMapping->host_port = 0;
    if (KELJSONObject_getChildByName(mappingNode, &member, "host")) {
        if (!KELJSONObject_getIntValue(member, &value)) {
            VESK_LOG_ERROR(PARSE_JSON_MAPPING_NODE, KEL_LOG_GET_FAILURE_s, "host node value");
            return 0;
        }
        commPortsMapping->host_port = static_cast<VESK_Transport_UDP_Port>(value);
    }
    commPortsMapping->public_port = commPortsMapping->host_port;
    if (KELJSONObject_getChildByName(mappingNode, &member, "public")) {
        if (!KELJSONObject_getIntValue(member, &value)) {
            VESK_LOG_ERROR(PARSE_JSON_MAPPING_NODE, KEL_LOG_GET_FAILURE_s, "public node value");
            return 0;
        }
        commPortsMapping->public_port = static_cast<VESK_Transport_UDP_Port>(value);
    }
    return 1;
}

}  // namespace

extern "C" int VESK_Transport_CommPortsHelper_parseJson(
    struct VESK_Transport_UDP_WAN_CommPortsMappingInfo **commPortsListOut,
    KEL_INT32 *commPortsListLengthOut, const char *jsonCommPorts) {
    struct VESK_Transport_UDP_WAN_CommPortsMappingInfo *list = nullptr;
    KELJSONObject *root = nullptr;
    int result = 0;
    if (commPortsListOut == nullptr) {
        VESK_PRECONDITION_FAILED(PARSE_JSON, "commPortsListOut == ((void *)0)");
        return 0;
    }
    if (commPortsListLengthOut == nullptr) {
        VESK_PRECONDITION_FAILED(PARSE_JSON, "commPortsListLengthOut == ((void *)0)");
        return 0;
    }
    if (jsonCommPorts == nullptr) {
        VESK_PRECONDITION_FAILED(PARSE_JSON, "jsonCommPorts == ((void *)0)");
        return 0;
    }
    *commPortsListLengthOut = 0;

    const KELJSONObject *defaultNode = nullptr;
    const KELJSONObject *mappingsNode = nullptr;
    std::size_t mappingCount = 0;
    root = KELJSONParser_parse_ex(jsonCommPorts, std::strlen(jsonCommPorts));
    if (root == nullptr) {
        VESK_LOG_ERROR(PARSE_JSON, KEL_LOG_ANY_FAILURE_ss, "parse JSON string: ", jsonCommPorts);
        return 0;
    }
    if (!KELJSONObject_getChildByName(root, &defaultNode, "default")) {
        VESK_LOG_ERROR(PARSE_JSON, KEL_LOG_GET_FAILURE_s, "default comm_ports");
        goto done;
    }
    if (KELJSONObject_getChildByName(root, &mappingsNode, "mappings")) {
        mappingCount = KELJSONObject_getChildCount(mappingsNode);
    }
    if (mappingCount > static_cast<std::size_t>(INT32_MAX - 1) ||
        !KELOsapiHeap_allocateArray(&list, 1 + mappingCount,
                                    struct VESK_Transport_UDP_WAN_CommPortsMappingInfo)) {
        VESK_LOG_ERROR(PARSE_JSON, KEL_LOG_CREATION_FAILURE_s, "commPortsList");
        goto done;
    }
    if (!VESK_Transport_CommPortsHelper_parseJsonMappingNode(&list[0], defaultNode)) {
        VESK_LOG_ERROR(PARSE_JSON, KEL_LOG_ANY_FAILURE_s, "parse default node");
        goto done;
    }
    *commPortsListLengthOut = 1;
    for (std::size_t i = 0; i < mappingCount; ++i) {
        const KELJSONObject *mappingNode = nullptr;
        if (!KELJSONObject_getChildAt(mappingsNode, &mappingNode, i)) {
            VESK_LOG_ERROR(PARSE_JSON, KEL_LOG_ANY_FAILURE_s, "get child");
            goto done;
        }
        if (!VESK_Transport_CommPortsHelper_parseJsonMappingNode(&list[*commPortsListLengthOut],
                                                                 mappingNode)) {
            VESK_LOG_ERROR(PARSE_JSON, KEL_LOG_ANY_FAILURE_s, "parse mappings element");
            goto done;
        }
        ++*commPortsListLengthOut;
    }
    *commPortsListOut = list;
    result = 1;

done:
    KELJSONObject_delete(root);
    if (result == 0 && list != nullptr) KELOsapiHeap_freeArray(list);
    return result;
}

// ---------------------------------------------------------------------------
// Shared memory
// ---------------------------------------------------------------------------

extern "C" const DDS_ProductVersion_t ROBUST_MUTEX_PRODUCT_VERSION = {7, 2, 0, 0};
extern "C" const DDS_ProductVersion_t SHMEM_MAJOR_VERSION_4_PRODUCT_VERSION = {6, 1, 0, 0};
extern "C" const DDS_ProductVersion_t BUG_14240_FIXED_PRODUCT_VERSION = {4, 5, '6', 0};
extern "C" const DDS_ProductVersion_t LOCATOR_600_PRODUCT_VERSION = {6, 0, 0, 0};

namespace {

constexpr const char *SHMEM_SETUP = "VESK_Transport_setupShmemProperty";

// Absent, or 0.0.0.0: no minimum.
bool minimumVersionGiven(const DDS_ProductVersion_t *version) {
    return version != nullptr && (version->major != 0 || version->minor != 0 ||
                                  version->release != 0 || version->revision != 0);
}

RowResult applyShmemSettingRow(const ShmemRow &row, VESK_Transport_Shmem_Property_t *record,
                               const DDS_PropertyQosPolicy *properties) {
    // The UDP debugging destination is not even read while debugging is off.
    if (row.needsUdpDebugging && !record->enable_udp_debugging) return rowAbsent;
    const DDS_Property_t *property =
        DDS_PropertyQosPolicyHelper_lookup_property(properties, row.suffix);
    if (property == nullptr) return rowAbsent;
    if (row.conversion == Conversion::transportAddress) {
        if (!VESK_Transport_SocketUtil_StringAddress_to_transportAddress(
                &(record->*row.addressField), property->value, 1)) {
            VESK_LOG_ERROR(SHMEM_SETUP, KEL_LOG_ANY_FAILURE_s, "resolve UDP debugging IP address");
            return rowFailed;
        }
        return rowApplied;
    }
    return applyScalarRow(SHMEM_SETUP, row, record, property->value, record->parent.classid);
}

// The format version: robust mutexes need format 5; otherwise the oldest
// product version that must interoperate decides.
int chooseFormatVersion(VESK_Transport_Shmem_Property_t *record,
                        const DDS_ProductVersion_t *minimum_compatibility_version) {
    const bool robust = KELOsapiSharedMemorySemMutex_useRobustMutex() != 0;
    if (robust && record->majorVersion < 5) record->majorVersion = 5;
    if (!minimumVersionGiven(minimum_compatibility_version)) return 0;
    if (robust) {
        // A minimum below the first robust version is raised to it, which
        // always means format 5.
        record->majorVersion = 5;
    } else if (DDS_ProductVersion_compare(minimum_compatibility_version,
                                          &SHMEM_MAJOR_VERSION_4_PRODUCT_VERSION) >= 0) {
        record->majorVersion = 4;
    } else if (DDS_ProductVersion_compare(minimum_compatibility_version,
                                          &BUG_14240_FIXED_PRODUCT_VERSION) >= 0) {
        record->majorVersion = 2;
    } else {
        record->majorVersion = 1;
    }
    return 1;
}

// The leading bytes of an address that the transport's address bit count
// covers: the magnitude of the count, in whole bytes.
std::size_t significantBytes(KEL_INT32 addressBitCount, std::size_t available) {
    const long long magnitude = addressBitCount < 0 ? -static_cast<long long>(addressBitCount)
                                                    : static_cast<long long>(addressBitCount);
    const auto bytes = static_cast<std::size_t>(magnitude / 8);
    return bytes < available ? bytes : available;
}

// The host id and, from the host's identity, the shared-memory address.
// Returns the number of properties applied or -1.
int settleHostIdentity(VESK_Transport_Shmem_Property_t *record,
                       const DDS_PropertyQosPolicy *properties,
                       const DDS_WireProtocolQosPolicy *wireProtocol,
                       DDS_RtpsAppIdGenerator *generator,
                       const DDS_ProductVersion_t *minimum_compatibility_version,
                       KEL_UINT32 *hostId) {
    const ShmemRow &hostIdRow = SHMEM_IDENTITY_ROWS[1];
    const ShmemRow &locatorRow = SHMEM_IDENTITY_ROWS[2];
    int count = 0;
    if (const DDS_Property_t *property =
            DDS_PropertyQosPolicyHelper_lookup_property(properties, hostIdRow.suffix)) {
        // The property wins; the wire-protocol settings are not consulted.
        if (!KELOsapiUtility_strtoul(property->value, hostId)) {
            VESK_LOG_ERROR(SHMEM_SETUP, KEL_LOG_PARSER_FAILURE_ss, hostIdRow.suffix,
                           property->value);
            return -1;
        }
        return 1;
    }
    if (wireProtocol == nullptr) return 0;
    if (generator == nullptr) {
        VESK_PRECONDITION_FAILED(SHMEM_SETUP, "rtps_app_id_generator_in == ((void *)0)");
        return -1;
    }
    if (wireProtocol->rtps_auto_id_kind == DDS_RTPS_AUTO_ID_FROM_UUID) {
        KELOsapiHostId uniqueId;
        std::memset(&uniqueId, 0, sizeof(uniqueId));
        KELOsapiHost_getUniqueId(&uniqueId);

        int use530Locator = 0;
        if (const DDS_Property_t *property =
                DDS_PropertyQosPolicyHelper_lookup_property(properties, locatorRow.suffix)) {
            if (!REDAString_strToBoolean(property->value, &use530Locator)) {
                VESK_LOG_ERROR(SHMEM_SETUP, KEL_LOG_PARSER_FAILURE_ss, locatorRow.suffix,
                               property->value);
                return -1;
            }
            ++count;
        } else if (minimumVersionGiven(minimum_compatibility_version)) {
            use530Locator = DDS_ProductVersion_compare(minimum_compatibility_version,
                                                       &LOCATOR_600_PRODUCT_VERSION) < 0;
            ++count;
        }

        unsigned char *address = record->shmemUUID.network_ordered_value;
        const unsigned char loopback[4] = {127, 0, 0, 1};
        static_assert(sizeof(uniqueId.value) == sizeof(record->shmemUUID.network_ordered_value));
        if (use530Locator) {
            std::memcpy(address, uniqueId.value, sizeof(uniqueId.value));
        } else if (record->reserved == 2) {
            // The owner's identity has only 12 bytes; a larger count copies
            // no more than those.
            std::memcpy(address, record->parent.transport_uuid.value,
                        significantBytes(record->parent.address_bit_count,
                                         sizeof(record->parent.transport_uuid.value)));
        } else if (std::memcmp(uniqueId.value, loopback, sizeof(loopback)) == 0) {
            // A loopback address is no identity of this host.
            *hostId = DDS_RtpsAppIdGenerator_get_rtps_host_id(generator);
        } else {
            std::memcpy(address, uniqueId.value,
                        significantBytes(record->parent.address_bit_count, sizeof(uniqueId.value)));
        }
    } else if (wireProtocol->rtps_auto_id_kind == DDS_RTPS_AUTO_ID_FROM_MAC) {
        *hostId = DDS_RtpsAppIdGenerator_get_rtps_host_id_from_mac(generator);
    } else {
        *hostId = wireProtocol->rtps_host_id != DDS_RTPS_AUTO_ID
                      ? wireProtocol->rtps_host_id
                      : DDS_RtpsAppIdGenerator_get_rtps_host_id(generator);
    }
    return count;
}

}  // namespace

extern "C" int VESK_Transport_setupShmemProperty(
    struct VESK_Transport_Shmem_Property_t *shmem_property_out,
    struct VESK_Transport_internalMemoryAllocations *memory_allocated_out,
    const struct DDS_PropertyQosPolicy *shmem_transport_properties,
    const DDS_WireProtocolQosPolicy *cached_wire_protocol_qos_policy_in,
    DDS_RtpsAppIdGenerator *rtps_app_id_generator_in,
    const DDS_ProductVersion_t *minimum_compatibility_version) {
    KEL_UINT32 hostId = 0;
    const char *prefix = "";
    int count = VESK_Transport_setupParentTransportProperty(
        &shmem_property_out->parent, memory_allocated_out, shmem_transport_properties, nullptr);
    if (count == -1) {
        VESK_LOG_ERROR(SHMEM_SETUP, KEL_LOG_PARSER_FAILURE_s, "parent properties");
        return -1;
    }

    // The list is always the transport's own: validate its names.
    if (const DDS_Property_t *prefixProperty =
            DDS_PropertyQosPolicyHelper_lookup_property(shmem_transport_properties, "prefix")) {
        prefix = prefixProperty->value;
        ++count;
    }
    DDS_PropertyQosPolicyValidationAction action =
        DDS_PROPERTY_QOS_POLICY_VALIDATION_ACTION_EXCEPTION;
    if (!DDS_PropertyQosPolicy_parse_property_validation_action(&action,
                                                                shmem_transport_properties)) {
        VESK_LOG_ERROR(SHMEM_SETUP, KEL_LOG_PARSER_FAILURE_s, "property_validation_action");
        return -1;
    }
    if (action != DDS_PROPERTY_QOS_POLICY_VALIDATION_ACTION_SKIP &&
        !DDS_PropertyQosPolicy_validate_plugin_property_suffixes(
            shmem_transport_properties, prefix, PROPERTY_PLUGIN_VALID_PUBLIC_PROPERTIES_SHMEM,
            PROPERTY_PLUGIN_VALID_PRIVATE_PROPERTIES_SHMEM, nullptr, action)) {
        VESK_LOG_ERROR(SHMEM_SETUP, KEL_LOG_INCONSISTENT_PROPERTY_s, prefix);
        return -1;
    }

    for (const ShmemRow &row : SHMEM_SETTING_ROWS) {
        const RowResult result =
            applyShmemSettingRow(row, shmem_property_out, shmem_transport_properties);
        if (result == rowFailed) return -1;
        count += result;
    }

    count += chooseFormatVersion(shmem_property_out, minimum_compatibility_version);

    const ShmemRow &disableRow = SHMEM_IDENTITY_ROWS[0];
    if (const DDS_Property_t *property = DDS_PropertyQosPolicyHelper_lookup_property(
            shmem_transport_properties, disableRow.suffix)) {
        if (REDAString_iCompare(property->value, "true") == 0) shmem_property_out->reserved = 1;
        ++count;  // counted whatever its value
    }

    const int identityCount = settleHostIdentity(
        shmem_property_out, shmem_transport_properties, cached_wire_protocol_qos_policy_in,
        rtps_app_id_generator_in, minimum_compatibility_version, &hostId);
    if (identityCount < 0) return -1;
    count += identityCount;

    if (std::memcmp(&shmem_property_out->shmemUUID, &VESK_TRANSPORT_ADDRESS_INVALID,
                    sizeof(VESK_TRANSPORT_ADDRESS_INVALID)) == 0 &&
        !KELNetioConfiguratorUtil_generateDefaultNetworkAddress96(
            &shmem_property_out->shmemUUID, shmem_property_out->parent.classid, hostId, 0, 0, 0)) {
        // The transport can still run; it just has no address yet.
        VESK_LOG_ERROR(SHMEM_SETUP, KEL_LOG_ANY_FAILURE_s, "generate default network address");
    }
    return count;
}

extern "C" void VESK_Transport_cleanupShmemProperty(
    struct VESK_Transport_Shmem_Property_t *shmem_property,
    const struct VESK_Transport_internalMemoryAllocations *memory_allocated) {
    if (shmem_property == nullptr) return;
    VESK_Transport_cleanupParentTransportProperty(&shmem_property->parent, memory_allocated);
}

// ---------------------------------------------------------------------------
// The accepted suffixes of each class, generated from the rows
// ---------------------------------------------------------------------------

namespace {

// Calls visit(suffix) for every name that the setups read for a class, in
// reading order, public or private ones.
template <typename Visit>
constexpr void forEachSuffix(unsigned classBit, bool publicOnes, Visit visit) {
    for (const GenericRow &row : GENERIC_ROWS) {
        if ((row.classes & classBit) == 0 || row.isPublic != publicOnes) continue;
        visit(row.suffix);
        if (row.alternativeSuffix != nullptr) visit(row.alternativeSuffix);
    }
    for (const UdpRow &row : UDP_ROWS) {
        if ((row.classes & classBit) == 0 || row.isPublic != publicOnes) continue;
        visit(row.suffix);
    }
    for (const ShmemRow &row : SHMEM_SETTING_ROWS) {
        if ((row.classes & classBit) == 0 || row.isPublic != publicOnes) continue;
        visit(row.suffix);
    }
    for (const ShmemRow &row : SHMEM_IDENTITY_ROWS) {
        if ((row.classes & classBit) == 0 || row.isPublic != publicOnes) continue;
        visit(row.suffix);
    }
}

constexpr std::size_t suffixCount(unsigned classBit, bool publicOnes) {
    std::size_t count = 0;
    forEachSuffix(classBit, publicOnes, [&count](const char *) { ++count; });
    return count;
}

template <unsigned ClassBit, bool PublicOnes>
constexpr auto makeSuffixList() {
    std::array<const char *, suffixCount(ClassBit, PublicOnes) + 1> list{};
    std::size_t i = 0;
    forEachSuffix(ClassBit, PublicOnes, [&](const char *suffix) { list[i++] = suffix; });
    list[i] = nullptr;
    return list;
}

constexpr auto udpv4Public = makeSuffixList<udpv4Class, true>();
constexpr auto udpv4Private = makeSuffixList<udpv4Class, false>();
constexpr auto udpv4WanPublic = makeSuffixList<udpv4WanClass, true>();
constexpr auto udpv4WanPrivate = makeSuffixList<udpv4WanClass, false>();
constexpr auto udpv6Public = makeSuffixList<udpv6Class, true>();
constexpr auto udpv6Private = makeSuffixList<udpv6Class, false>();
constexpr auto shmemPublic = makeSuffixList<shmemClass, true>();
constexpr auto shmemPrivate = makeSuffixList<shmemClass, false>();

}  // namespace

extern "C" const char *const *const PROPERTY_PLUGIN_VALID_PUBLIC_PROPERTIES_UDPV4 =
    udpv4Public.data();
extern "C" const char *const *const PROPERTY_PLUGIN_VALID_PRIVATE_PROPERTIES_UDPV4 =
    udpv4Private.data();
extern "C" const char *const *const PROPERTY_PLUGIN_VALID_PUBLIC_PROPERTIES_UDPV4_WAN =
    udpv4WanPublic.data();
extern "C" const char *const *const PROPERTY_PLUGIN_VALID_PRIVATE_PROPERTIES_UDPV4_WAN =
    udpv4WanPrivate.data();
extern "C" const char *const *const PROPERTY_PLUGIN_VALID_PUBLIC_PROPERTIES_UDPV6 =
    udpv6Public.data();
extern "C" const char *const *const PROPERTY_PLUGIN_VALID_PRIVATE_PROPERTIES_UDPV6 =
    udpv6Private.data();
extern "C" const char *const *const PROPERTY_PLUGIN_VALID_PUBLIC_PROPERTIES_SHMEM =
    shmemPublic.data();
extern "C" const char *const *const PROPERTY_PLUGIN_VALID_PRIVATE_PROPERTIES_SHMEM =
    shmemPrivate.data();

// ===========================================================================
// 3. Builtin transport factories
// ===========================================================================

namespace {

// Value-initialised records start with every list null and empty and every
// pointer null; the functions below set the rest field by field.
constexpr VESK_Transport_UDP_Property_t udpv4Default() {
    VESK_Transport_UDP_Property_t record{};
    record.parent.classid = VESK_TRANSPORT_CLASSID_UDPv4;
    record.parent.address_bit_count = 32;
    record.parent.properties_bitmap = VESK_TRANSPORT_PROPERTIES_BITMAP_DEFAULT;
    record.parent.gather_send_buffer_count_max = 16;
    record.parent.message_size_max = VESK_TRANSPORT_UDP_DATAGRAM_SIZE_MAX - 28;
    record.parent.domain_participant_ptr = nullptr;
    record.parent.domain_participant_forwarder = nullptr;
    record.parent.thread_name_prefix = nullptr;
    record.parent.max_interface_count = DDS_LENGTH_UNLIMITED;
    record.send_socket_buffer_size = VESK_TRANSPORT_UDP_SOCKET_BUFFER_SIZE_DEFAULT;
    record.recv_socket_buffer_size = VESK_TRANSPORT_UDP_SOCKET_BUFFER_SIZE_DEFAULT;
    record.unicast_enabled = 1;
    record.multicast_enabled = 1;
    record.multicast_ttl = 1;
    record.multicast_loopback_disabled = 0;
    record.ignore_loopback_interface = -1;
    record.ignore_nonup_interfaces = 1;
    record.ignore_nonrunning_interfaces = 1;
    record.no_zero_copy = 0;
    record.send_blocking = VESK_TRANSPORT_UDP_BLOCKING_ALWAYS;
    record.enable_v4mapped = 0;
    record.use_checksum = 1;
    record.transport_priority_mask = 0;
    record.transport_priority_mapping_low = 0;
    record.transport_priority_mapping_high = 255;
    record.send_ping = 1;
    record.force_interface_poll_detection = 0;
    record.interface_poll_period = 500;
    record.reuse_multicast_receive_resource = 1;
    record.protocol_overhead_max = 28;
    record.disable_interface_tracking = 0;
    record.join_multicast_group_timeout = 5000;
    record.public_address = nullptr;
    record.comm_ports_list = nullptr;
    record.comm_ports_list_length = 0;
    record.wan_listener = nullptr;
    record.port_offset = 0;
    record.binding_ping_period = 0;
    record.binding_ping_mapping_expiration = 0;
    record.gather_detailed_statistics = 0;
    record.drop_samples_by_guid_prefix = 0;
    record.guid_prefix_to_drop = {0, 0, 0};
    return record;
}

// The WAN class differs from UDPv4 in exactly six fields; it keeps the UDPv4
// overhead of 28 but sends messages of at most 1400 bytes.
constexpr VESK_Transport_UDP_Property_t udpv4WanDefault() {
    VESK_Transport_UDP_Property_t record = udpv4Default();
    record.parent.classid = VESK_TRANSPORT_CLASSID_UDPv4_WAN;
    record.parent.address_bit_count = 128;
    record.parent.message_size_max = 1400;
    record.multicast_enabled = 0;
    record.port_offset = 125;
    record.binding_ping_period = 1000;
    return record;
}

// UDPv6 differs from UDPv4 in exactly five fields.
constexpr VESK_Transport_UDP_Property_t udpv6Default() {
    VESK_Transport_UDP_Property_t record = udpv4Default();
    record.parent.classid = VESK_TRANSPORT_CLASSID_UDPv6;
    record.parent.address_bit_count = 128;
    record.protocol_overhead_max = 48;
    record.parent.message_size_max = VESK_TRANSPORT_UDP_DATAGRAM_SIZE_MAX - 48;
    record.use_checksum = 0;
    return record;
}

constexpr VESK_Transport_Shmem_Property_t shmemDefault() {
    VESK_Transport_Shmem_Property_t record{};
    record.parent.classid = VESK_TRANSPORT_CLASSID_SHMEM;
    record.parent.address_bit_count = -96;
    record.parent.properties_bitmap = VESK_TRANSPORT_PROPERTY_BIT_BUFFER_ALWAYS_LOANED;
    record.parent.gather_send_buffer_count_max = 1024;
    record.parent.message_size_max = 0x10000;
    record.parent.domain_participant_ptr = nullptr;
    record.parent.domain_participant_forwarder = nullptr;
    record.parent.thread_name_prefix = nullptr;
    record.parent.max_interface_count = DDS_LENGTH_UNLIMITED;
    record.received_message_count_max = 64;
    record.receive_buffer_size = 0x100000;
    record.enable_udp_debugging = 0;
    record.udp_debugging_address = {{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 239, 255, 1, 2}};
    record.udp_debugging_port = 7399;
    record.segmentKeyOffset = 4 * 0x100000;
    record.segmentKeyFactor = 1;
    record.semaphoreKeyOffset = 8 * 0x100000;
    record.semaphoreKeyFactor = 1;
    record.mutexKeyOffset = 11 * 0x100000;
    record.mutexKeyFactor = 1;
    record.maxAllowedWriterDurationMillisec = 1000;
    record.reserved = 0;
    record.shmemUUID = {};
    record.majorVersion = 2;
    return record;
}

}  // namespace

extern "C" const VESK_Transport_UDP_Property_t VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT =
    udpv4Default();
extern "C" const VESK_Transport_UDP_Property_t VESK_TRANSPORT_UDPV4_WAN_PROPERTY_DEFAULT =
    udpv4WanDefault();
extern "C" const VESK_Transport_UDP_Property_t VESK_TRANSPORT_UDPV6_PROPERTY_DEFAULT =
    udpv6Default();
extern "C" const VESK_Transport_Shmem_Property_t VESK_TRANSPORT_SHMEM_PROPERTY_DEFAULT =
    shmemDefault();

namespace {

// One row per UDP class: everything in which the three factories differ.
struct UdpFactory {
    const char *name;
    const VESK_Transport_UDP_Property_t *defaults;
    int (*setup)(VESK_Transport_UDP_Property_t *, VESK_Transport_internalMemoryAllocations *,
                 const DDS_PropertyQosPolicy *, const char *);
    VESK_Transport_Plugin *(*construct)(const VESK_Transport_UDP_Property_t *,
                                        VESK_Transport_Address_t *, void *);
    void (*cleanup)(VESK_Transport_UDP_Property_t *,
                    const VESK_Transport_internalMemoryAllocations *);
    const char *creationFailure;
};

const UdpFactory UDPV4_FACTORY = {"VESK_Transport_UDPv4_create_from_properties_with_prefix",
                                  &VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT,
                                  VESK_Transport_setupUDPv4Property,
                                  VESK_Transport_UDPv4_newI,
                                  VESK_Transport_cleanupUDPv4Property,
                                  "UDPv4 Transport: Properties not properly set"};
const UdpFactory UDPV4_WAN_FACTORY = {"VESK_Transport_UDPv4_WAN_create_from_properties_with_prefix",
                                      &VESK_TRANSPORT_UDPV4_WAN_PROPERTY_DEFAULT,
                                      VESK_Transport_setupUDPv4WanProperty,
                                      VESK_Transport_UDPv4_WAN_newI,
                                      VESK_Transport_cleanupUDPv4WanProperty,
                                      "UDPv4_WAN Transport: Properties not properly set"};
const UdpFactory UDPV6_FACTORY = {"VESK_Transport_UDPv6_create_from_properties_with_prefix",
                                  &VESK_TRANSPORT_UDPV6_PROPERTY_DEFAULT,
                                  VESK_Transport_setupUDPv6Property,
                                  VESK_Transport_UDPv6_newI,
                                  VESK_Transport_cleanupUDPv6Property,
                                  "UDPv6 Transport: Properties not properly set"};

// The caller's default_network_address_out is neither read nor written.
VESK_Transport_Plugin *createUdpTransport(const UdpFactory &factory,
                                          const DDS_PropertyQosPolicy *property_in,
                                          const char *propertyPrefix) {
    VESK_Transport_UDP_Property_t property = *factory.defaults;
    VESK_Transport_Plugin *result = nullptr;
    VESK_Transport_internalMemoryAllocations allocations{};
    if (factory.setup(&property, &allocations, property_in, propertyPrefix) < 0) {
        VESK_LOG_ERROR(factory.name, KEL_LOG_CREATION_FAILURE_s, factory.creationFailure);
        // What the setup allocated before it failed is still flagged.
        factory.cleanup(&property, &allocations);
        return nullptr;
    }
    // The constructor copies what it keeps, so the cleanup may run at once.
    result = factory.construct(&property, nullptr, nullptr);
    factory.cleanup(&property, &allocations);
    return result;
}

}  // namespace

extern "C" VESK_Transport_Plugin *VESK_Transport_UDPv4_create_from_properties_with_prefix(
    VESK_Transport_Address_t *, const struct DDS_PropertyQosPolicy *property_in,
    const char *propertyPrefix) {
    return createUdpTransport(UDPV4_FACTORY, property_in, propertyPrefix);
}

extern "C" VESK_Transport_Plugin *VESK_Transport_UDPv4_WAN_create_from_properties_with_prefix(
    VESK_Transport_Address_t *, const struct DDS_PropertyQosPolicy *property_in,
    const char *propertyPrefix) {
    return createUdpTransport(UDPV4_WAN_FACTORY, property_in, propertyPrefix);
}

extern "C" VESK_Transport_Plugin *VESK_Transport_UDPv6_create_from_properties_with_prefix(
    VESK_Transport_Address_t *, const struct DDS_PropertyQosPolicy *property_in,
    const char *propertyPrefix) {
    return createUdpTransport(UDPV6_FACTORY, property_in, propertyPrefix);
}

extern "C" VESK_Transport_Plugin *VESK_Transport_UDPv4_create(
    VESK_Transport_Address_t *default_network_address_out,
    const struct DDS_PropertyQosPolicy *property_in) {
    return VESK_Transport_UDPv4_create_from_properties_with_prefix(default_network_address_out,
                                                                   property_in, nullptr);
}

extern "C" VESK_Transport_Plugin *VESK_Transport_UDPv4_WAN_create(
    VESK_Transport_Address_t *default_network_address_out,
    const struct DDS_PropertyQosPolicy *property_in) {
    return VESK_Transport_UDPv4_WAN_create_from_properties_with_prefix(default_network_address_out,
                                                                       property_in, nullptr);
}

extern "C" VESK_Transport_Plugin *VESK_Transport_UDPv6_create(
    VESK_Transport_Address_t *default_network_address_out,
    const struct DDS_PropertyQosPolicy *property_in) {
    return VESK_Transport_UDPv6_create_from_properties_with_prefix(default_network_address_out,
                                                                   property_in, nullptr);
}

extern "C" VESK_Transport_Plugin *VESK_Transport_Shmem_create(
    VESK_Transport_Address_t *, const struct DDS_PropertyQosPolicy *property_in,
    const DDS_ProductVersion_t *minimum_compatibility_version) {
    static const char *const METHOD_NAME = "VESK_Transport_Shmem_create";
    VESK_Transport_Shmem_Property_t property = VESK_TRANSPORT_SHMEM_PROPERTY_DEFAULT;
    VESK_Transport_Plugin *result = nullptr;
    VESK_Transport_internalMemoryAllocations allocations{};
    // No wire-protocol settings here: the host id comes from "host_id" or is 0.
    if (VESK_Transport_setupShmemProperty(&property, &allocations, property_in, nullptr, nullptr,
                                          minimum_compatibility_version) < 0) {
        VESK_LOG_ERROR(METHOD_NAME, KEL_LOG_CREATION_FAILURE_s,
                       "Shared Memory Transport: Properties not properly set");
        VESK_Transport_cleanupShmemProperty(&property, &allocations);
        return nullptr;
    }
    result = VESK_Transport_Shmem_newI(&property);
    VESK_Transport_cleanupShmemProperty(&property, &allocations);
    return result;
}

// ===========================================================================
// 4. Run-time control and statistics of UDP transports
// ===========================================================================

namespace {

bool isUdpClass(VESK_Transport_ClassId_t classid) {
    return classid == VESK_TRANSPORT_CLASSID_UDPv4 || classid == VESK_TRANSPORT_CLASSID_UDPv6 ||
           classid == VESK_TRANSPORT_CLASSID_UDPv6_510 ||
           classid == VESK_TRANSPORT_CLASSID_UDPv4_WAN;
}

// A participant without a configurator has no transport installed.
VESK_Transport_Plugin *pluginOfClass(DDS_DomainParticipant *participant,
                                     VESK_Transport_ClassId_t classid) {
    KELNetioConfigurator *configurator = DDS_DomainParticipant_get_netio_configuratorI(participant);
    if (configurator == nullptr) return nullptr;
    REDAWorker *worker = DDS_DomainParticipant_get_workerI(participant);
    return KELNetioConfigurator_getTransportPluginByClass(configurator, classid, worker);
}

// The later messages of the control operations are also written when the
// worker is busy with an activity whose category the logger always wants
// errors of.
bool controlMessageEnabled(const REDAWorker *worker) {
    if (logEnabled(KEL_LOG_BIT_ERROR)) return true;
    const KELOsapiContext *context = worker != nullptr ? worker->_activityContext : nullptr;
    return context != nullptr && (context->category & KELLog_g_categoryMask[2]) != 0;
}

#define VESK_LOG_CONTROL(worker_, function_, template_, ...)                             \
    do {                                                                                 \
        if (controlMessageEnabled(worker_)) {                                            \
            KELLogMessageParamString_printWithParams(                                    \
                -1, KEL_LOG_BIT_ERROR, VESK_TRANSPORT_LOG_MODULE_ID, __FILE__, __LINE__, \
                (function_), &(template_), __VA_ARGS__);                                 \
        }                                                                                \
    } while (0)

DDS_ReturnCode_t wholeStatistics(DDS_DomainParticipant *participant,
                                 struct VESK_Transport_UDP_Statistics *statistics,
                                 VESK_Transport_ClassId_t classid,
                                 VESK_Transport_ClassId_t fallbackClassid) {
    if (participant == nullptr || statistics == nullptr) return DDS_RETCODE_BAD_PARAMETER;
    VESK_Transport_Plugin *plugin = pluginOfClass(participant, classid);
    if (plugin == nullptr && fallbackClassid != classid) {
        plugin = pluginOfClass(participant, fallbackClassid);
    }
    if (plugin == nullptr) return DDS_RETCODE_NO_DATA;
    // The record is filled whole; it is not initialised first.
    VESK_Transport_UDP_get_statistics(plugin, statistics);
    return DDS_RETCODE_OK;
}

KEL_UINT64 atomicLoad(KEL_UINT64 &counter) {
    return std::atomic_ref<KEL_UINT64>(counter).load();
}

}  // namespace

extern "C" DDS_ReturnCode_t VESK_Transport_Support_get_udpv4_statistics(
    DDS_DomainParticipant *participant_in, struct VESK_Transport_UDP_Statistics *statistics) {
    // Without a plain UDPv4 transport, the WAN transport's counters.
    return wholeStatistics(participant_in, statistics, VESK_TRANSPORT_CLASSID_UDPv4,
                           VESK_TRANSPORT_CLASSID_UDPv4_WAN);
}

extern "C" DDS_ReturnCode_t VESK_Transport_Support_get_udpv6_statistics(
    DDS_DomainParticipant *participant_in, struct VESK_Transport_UDP_Statistics *statistics) {
    return wholeStatistics(participant_in, statistics, VESK_TRANSPORT_CLASSID_UDPv6,
                           VESK_TRANSPORT_CLASSID_UDPv6);
}

extern "C" DDS_ReturnCode_t VESK_Transport_Support_get_udp_liveliness_statistics(
    DDS_DomainParticipant *participant_in, KEL_UINT64 *packets_sent, KEL_UINT64 *bytes_sent,
    KEL_UINT64 *packets_received, KEL_UINT64 *bytes_received,
    VESK_Transport_ClassId_t transport_class_id, int is_secure, int is_automatic) {
    static const char *const METHOD_NAME = "VESK_Transport_Support_get_udp_liveliness_statistics";
    if (participant_in == nullptr) return DDS_RETCODE_BAD_PARAMETER;
    if (!isUdpClass(transport_class_id)) return DDS_RETCODE_BAD_PARAMETER;
    KELNetioConfigurator *configurator =
        DDS_DomainParticipant_get_netio_configuratorI(participant_in);
    if (configurator == nullptr) {
        VESK_LOG_ERROR(METHOD_NAME, DDS_LOG_GET_FAILURE_s, "configurator");
        return DDS_RETCODE_BAD_PARAMETER;
    }
    REDAWorker *worker = DDS_DomainParticipant_get_workerI(participant_in);
    if (worker == nullptr) {
        VESK_LOG_ERROR(METHOD_NAME, DDS_LOG_GET_FAILURE_s, "worker");
        return DDS_RETCODE_BAD_PARAMETER;
    }
    // Exactly the class asked for: no fallback between classes here.
    VESK_Transport_Plugin *plugin =
        KELNetioConfigurator_getTransportPluginByClass(configurator, transport_class_id, worker);
    if (plugin == nullptr) {
        VESK_LOG_ERROR(METHOD_NAME, DDS_LOG_GET_FAILURE_s, "transportPlugin");
        return DDS_RETCODE_BAD_PARAMETER;
    }
    struct VESK_Transport_UDP_Statistics statistics;
    VESK_Transport_UDP_Statistics_initialize(&statistics);
    VESK_Transport_UDP_get_statistics(plugin, &statistics);

    // Secure or automatic liveliness is counted in the _liveliness_
    // counters; the automatic_liveliness_ ones are not read here.
    const bool shared = is_secure != 0 || is_automatic != 0;
    struct Output {
        KEL_UINT64 *out;
        KEL_UINT64 &source;
    };
    const Output outputs[] = {
        {packets_sent,
         shared ? statistics._liveliness_packets_sent : statistics.manual_liveliness_packets_sent},
        {bytes_sent,
         shared ? statistics._liveliness_bytes_sent : statistics.manual_liveliness_bytes_sent},
        {packets_received, shared ? statistics._liveliness_packets_received
                                  : statistics.manual_liveliness_packets_received},
        {bytes_received, shared ? statistics._liveliness_bytes_received
                                : statistics.manual_liveliness_bytes_received},
    };
    for (const Output &output : outputs) {
        if (output.out != nullptr) *output.out = atomicLoad(output.source);
    }
    return DDS_RETCODE_OK;
}

extern "C" DDS_ReturnCode_t VESK_Transport_Support_assert_fake_address(
    DDS_DomainParticipant *participant_in, VESK_Transport_Address_t *address,
    VESK_Transport_ClassId_t transport_class_id) {
    if (participant_in == nullptr) return DDS_RETCODE_BAD_PARAMETER;
    if (transport_class_id != VESK_TRANSPORT_CLASSID_UDPv4 &&
        transport_class_id != VESK_TRANSPORT_CLASSID_UDPv4_WAN) {
        return DDS_RETCODE_BAD_PARAMETER;
    }
    VESK_Transport_Plugin *plugin = pluginOfClass(participant_in, transport_class_id);
    if (plugin == nullptr) return DDS_RETCODE_PRECONDITION_NOT_MET;
    VESK_Transport_UDP_assert_fake_ip_address(plugin, address);
    return DDS_RETCODE_OK;
}

extern "C" DDS_ReturnCode_t VESK_Transport_Support_assert_fake_ipv4_address(
    DDS_DomainParticipant *participant_in, VESK_Transport_Address_t *address) {
    return VESK_Transport_Support_assert_fake_address(participant_in, address,
                                                      VESK_TRANSPORT_CLASSID_UDPv4);
}

extern "C" DDS_ReturnCode_t VESK_Transport_Support_remove_fake_ipv4_address(
    DDS_DomainParticipant *participant_in) {
    if (participant_in == nullptr) return DDS_RETCODE_BAD_PARAMETER;
    // Only the plain UDPv4 transport; a WAN transport keeps its fake address.
    if (VESK_Transport_Plugin *plugin =
            pluginOfClass(participant_in, VESK_TRANSPORT_CLASSID_UDPv4)) {
        VESK_Transport_UDP_remove_fake_ip_address(plugin);
    }
    return DDS_RETCODE_OK;
}

extern "C" DDS_ReturnCode_t VESK_Transport_Support_change_interface_status(
    DDS_DomainParticipant *participant, VESK_Transport_ClassId_t transport_class_id,
    const char *interface_name, DDS_Boolean is_up) {
    static const char *const METHOD_NAME = "VESK_Transport_Support_change_interface_status";
    if (participant == nullptr) {
        VESK_LOG_FORMAT(KEL_LOG_BIT_ERROR, METHOD_NAME, KEL_LOG_BAD_PARAMETER_FAILURE_TEMPLATE,
                        "participant");
        return DDS_RETCODE_BAD_PARAMETER;
    }
    if (interface_name == nullptr) {
        VESK_LOG_FORMAT(KEL_LOG_BIT_ERROR, METHOD_NAME, KEL_LOG_BAD_PARAMETER_FAILURE_TEMPLATE,
                        "interface_name");
        return DDS_RETCODE_BAD_PARAMETER;
    }
    KELNetioConfigurator *configurator = DDS_DomainParticipant_get_netio_configuratorI(participant);
    if (configurator == nullptr) {
        VESK_PRECONDITION_FAILED(METHOD_NAME, "configurator == ((void *)0)");
        return DDS_RETCODE_PRECONDITION_NOT_MET;
    }
    REDAWorker *worker = DDS_DomainParticipant_get_workerI(participant);
    if (worker == nullptr) {
        VESK_PRECONDITION_FAILED(METHOD_NAME, "worker == ((void *)0)");
        return DDS_RETCODE_PRECONDITION_NOT_MET;
    }
    if (transport_class_id != VESK_TRANSPORT_CLASSID_UDPv4 &&
        transport_class_id != VESK_TRANSPORT_CLASSID_UDPv6 &&
        transport_class_id != VESK_TRANSPORT_CLASSID_UDPv4_WAN) {
        VESK_LOG_CONTROL(worker, METHOD_NAME, KEL_LOG_BAD_PARAMETER_FAILURE_TEMPLATE,
                         "transport_class_id");
        return DDS_RETCODE_BAD_PARAMETER;
    }
    VESK_Transport_Plugin *plugin =
        KELNetioConfigurator_getTransportPluginByClass(configurator, transport_class_id, worker);
    if (plugin == nullptr) {
        VESK_LOG_CONTROL(worker, METHOD_NAME, KEL_LOG_FAILED_TO_FIND_TEMPLATE,
                         "transport plugin for class %d", static_cast<int>(transport_class_id));
        return DDS_RETCODE_PRECONDITION_NOT_MET;
    }
    const int up = is_up ? 1 : 0;
    if (!VESK_Transport_UDP_change_interface_status(plugin, interface_name, up)) {
        VESK_LOG_CONTROL(worker, METHOD_NAME, KEL_LOG_FAILED_TO_MODIFY_TEMPLATE,
                         "status of interface %s to %s", interface_name, up ? "UP" : "DOWN");
        return DDS_RETCODE_ERROR;
    }
    return DDS_RETCODE_OK;
}

extern "C" DDS_ReturnCode_t VESK_Transport_Support_change_binding_ping_generation(
    DDS_DomainParticipant *participant, DDS_Boolean enable_binding_ping_generation) {
    static const char *const METHOD_NAME = "VESK_Transport_Support_change_binding_ping_generation";
    if (participant == nullptr) {
        VESK_LOG_FORMAT(KEL_LOG_BIT_ERROR, METHOD_NAME, KEL_LOG_BAD_PARAMETER_FAILURE_TEMPLATE,
                        "participant");
        return DDS_RETCODE_BAD_PARAMETER;
    }
    KELNetioConfigurator *configurator = DDS_DomainParticipant_get_netio_configuratorI(participant);
    if (configurator == nullptr) {
        VESK_PRECONDITION_FAILED(METHOD_NAME, "configurator == ((void *)0)");
        return DDS_RETCODE_PRECONDITION_NOT_MET;
    }
    REDAWorker *worker = DDS_DomainParticipant_get_workerI(participant);
    if (worker == nullptr) {
        VESK_PRECONDITION_FAILED(METHOD_NAME, "worker == ((void *)0)");
        return DDS_RETCODE_PRECONDITION_NOT_MET;
    }
    VESK_Transport_Plugin *plugin = KELNetioConfigurator_getTransportPluginByClass(
        configurator, VESK_TRANSPORT_CLASSID_UDPv4_WAN, worker);
    if (plugin == nullptr) {
        VESK_LOG_CONTROL(worker, METHOD_NAME, KEL_LOG_FAILED_TO_FIND_TEMPLATE,
                         "transport plugin for class %d",
                         static_cast<int>(VESK_TRANSPORT_CLASSID_UDPv4_WAN));
        return DDS_RETCODE_PRECONDITION_NOT_MET;
    }
    if (!VESK_Transport_UDP_change_binding_ping_generation(plugin,
                                                           enable_binding_ping_generation)) {
        VESK_LOG_CONTROL(worker, METHOD_NAME, KEL_LOG_FAILED_TO_MODIFY_TEMPLATE,
                         "binding ping generation status to %s",
                         enable_binding_ping_generation ? "ENABLED" : "DISABLED");
        return DDS_RETCODE_ERROR;
    }
    return DDS_RETCODE_OK;
}
