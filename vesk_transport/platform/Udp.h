/* The UDP transport module: the UDP property record shared by the UDPv4,
 * UDPv4 WAN and UDPv6 classes, the plugins' constructors, their traffic
 * statistics and their run-time controls. */
#ifndef VESK_TRANSPORT_PLATFORM_UDP_H
#define VESK_TRANSPORT_PLATFORM_UDP_H

#include "vesk_transport/platform/Transport.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---------------------------------------------------------------------
 * Property record
 * ------------------------------------------------------------------- */

/* One WAN port mapping. */
struct VESK_Transport_UDP_WAN_CommPortsMappingInfo {
    VESK_Transport_Port_t rtps_port;
    VESK_Transport_UDP_Port host_port;
    VESK_Transport_UDP_Port public_port;
    int ref_count;
};
typedef struct VESK_Transport_UDP_WAN_CommPortsMappingInfo
    VESK_Transport_UDP_WAN_CommPortsMappingInfo;

typedef void (*VESK_Transport_UDP_WAN_Listener_Public_Mapping_Resolved_Callback)(
    void *listener_data, const VESK_Transport_Address_t *public_address,
    VESK_Transport_Port_t public_port);

/* Application listener of the WAN transport; owned by the application. */
struct VESK_Transport_UDP_WAN_Listener {
    void *listener_data;
    VESK_Transport_UDP_WAN_Listener_Public_Mapping_Resolved_Callback on_public_mapping_resolved;
};
typedef struct VESK_Transport_UDP_WAN_Listener VESK_Transport_UDP_WAN_Listener;

/* Socket buffer sizes with a meaning of their own. */
#define VESK_TRANSPORT_UDP_SOCKET_BUFFER_SIZE_OS_DEFAULT (-1)
#define VESK_TRANSPORT_UDP_SOCKET_BUFFER_SIZE_OS_MAX (-2)
#define VESK_TRANSPORT_UDP_SOCKET_BUFFER_SIZE_DEFAULT 0x200000
#define VESK_TRANSPORT_UDP_BLOCKING_NEVER 0
#define VESK_TRANSPORT_UDP_BLOCKING_ALWAYS 1
/* Largest UDP payload; a message must fit with the protocol overhead. */
#define VESK_TRANSPORT_UDP_DATAGRAM_SIZE_MAX 65535
#define VESK_TRANSPORT_UDPV4_PAYLOAD_SIZE_MAX 65507

struct VESK_Transport_UDP_Property_t {
    struct VESK_Transport_Property_t parent;
    KEL_INT32 send_socket_buffer_size;
    KEL_INT32 recv_socket_buffer_size;
    KEL_INT32 unicast_enabled;
    KEL_INT32 multicast_enabled;
    KEL_INT32 multicast_ttl;
    KEL_INT32 multicast_loopback_disabled;
    KEL_INT32 ignore_loopback_interface;
    KEL_INT32 ignore_nonup_interfaces;
    KEL_INT32 ignore_nonrunning_interfaces;
    KEL_INT32 no_zero_copy;
    KEL_INT32 send_blocking;
    KEL_INT32 enable_v4mapped;
    KEL_INT32 use_checksum;
    KEL_UINT32 transport_priority_mask;
    KEL_INT32 transport_priority_mapping_low;
    KEL_INT32 transport_priority_mapping_high;
    KEL_INT32 send_ping;
    KEL_INT32 force_interface_poll_detection;
    KEL_UINT32 interface_poll_period;
    KEL_INT32 reuse_multicast_receive_resource;
    KEL_INT32 protocol_overhead_max;
    KEL_INT32 disable_interface_tracking;
    KEL_UINT32 join_multicast_group_timeout;
    char *public_address;
    struct VESK_Transport_UDP_WAN_CommPortsMappingInfo *comm_ports_list;
    KEL_INT32 comm_ports_list_length;
    struct VESK_Transport_UDP_WAN_Listener *wan_listener;
    KEL_INT32 port_offset;
    KEL_UINT32 binding_ping_period;
    KEL_UINT32 binding_ping_mapping_expiration;
    int gather_detailed_statistics;
    int drop_samples_by_guid_prefix;
    struct KELOsapiRtpsGuidPrefix guid_prefix_to_drop;
};
typedef struct VESK_Transport_UDP_Property_t VESK_Transport_UDP_Property_t;

/* Deep copy of a UDP record: the generic part as VESK_Transport_Property_copy
 * copies it, the public address and the port-mapping list onto the heap;
 * wan_listener is copied as a pointer. On failure dst holds no allocation
 * and 0 is returned. */
int VESK_Transport_UDP_Property_copy(struct VESK_Transport_UDP_Property_t *dst,
                                     const struct VESK_Transport_UDP_Property_t *src);
/* Releases what VESK_Transport_UDP_Property_copy allocated into record. */
void VESK_Transport_UDP_Property_finalize(struct VESK_Transport_UDP_Property_t *record);

/* ---------------------------------------------------------------------
 * Constructors
 *
 * Each returns a new plugin whose property member points to the plugin's
 * own deep copy of property_in, or NULL (after logging why) when the record
 * is one a UDP transport cannot run with. The rules are listed in
 * docs/udp-transport.md. default_network_address_out, when non-null,
 * receives the plugin's default network address (all zero: a UDP transport
 * is addressed by its interfaces). reserved must be NULL. The plugin's
 * delete_cEA releases it and everything it owns.
 * ------------------------------------------------------------------- */
VESK_Transport_Plugin *VESK_Transport_UDPv4_newI(
    const struct VESK_Transport_UDP_Property_t *property_in,
    VESK_Transport_Address_t *default_network_address_out, void *reserved);
VESK_Transport_Plugin *VESK_Transport_UDPv4_WAN_newI(
    const struct VESK_Transport_UDP_Property_t *property_in,
    VESK_Transport_Address_t *default_network_address_out, void *reserved);
VESK_Transport_Plugin *VESK_Transport_UDPv6_newI(
    const struct VESK_Transport_UDP_Property_t *property_in,
    VESK_Transport_Address_t *default_network_address_out, void *reserved);

/* Non-zero when plugin was made by one of the constructors above. */
int VESK_Transport_UDP_isUdpPlugin(const VESK_Transport_Plugin *plugin);

/* ---------------------------------------------------------------------
 * Statistics
 * ------------------------------------------------------------------- */

struct VESK_Transport_UDP_Statistics {
    KEL_UINT64 user_bytes_sent;
    KEL_UINT64 user_bytes_received;
    KEL_UINT64 user_packets_sent;
    KEL_UINT64 user_packets_received;
    KEL_UINT64 discovery_bytes_sent;
    KEL_UINT64 discovery_bytes_received;
    KEL_UINT64 discovery_packets_sent;
    KEL_UINT64 discovery_packets_received;
    KEL_UINT64 participant_discovery_bytes_sent;
    KEL_UINT64 participant_discovery_bytes_received;
    KEL_UINT64 participant_discovery_packets_sent;
    KEL_UINT64 participant_discovery_packets_received;
    KEL_UINT64 participant_config_bytes_sent;
    KEL_UINT64 participant_config_bytes_received;
    KEL_UINT64 participant_config_packets_sent;
    KEL_UINT64 participant_config_packets_received;
    KEL_UINT64 automatic_liveliness_bytes_sent;
    KEL_UINT64 automatic_liveliness_bytes_received;
    KEL_UINT64 automatic_liveliness_packets_sent;
    KEL_UINT64 automatic_liveliness_packets_received;
    KEL_UINT64 manual_liveliness_bytes_sent;
    KEL_UINT64 manual_liveliness_bytes_received;
    KEL_UINT64 manual_liveliness_packets_sent;
    KEL_UINT64 manual_liveliness_packets_received;
    KEL_UINT64 endpoint_discovery_bytes_sent;
    KEL_UINT64 endpoint_discovery_bytes_received;
    KEL_UINT64 endpoint_discovery_packets_sent;
    KEL_UINT64 endpoint_discovery_packets_received;
    KEL_UINT64 overhead_bytes_sent;
    KEL_UINT64 overhead_bytes_received;
    KEL_UINT64 overhead_packets_sent;
    KEL_UINT64 overhead_packets_received;
    KEL_UINT64 binding_ping_event_count;
    KEL_UINT64 binding_ping_packets_sent;
    KEL_UINT64 binding_ping_bytes_sent;
    KEL_UINT64 binding_ping_packets_received;
    KEL_UINT64 binding_ping_bytes_received;
    KEL_UINT32 received_priority_count[256];
    KEL_UINT64 _liveliness_bytes_sent;
    KEL_UINT64 _liveliness_bytes_received;
    KEL_UINT64 _liveliness_packets_sent;
    KEL_UINT64 _liveliness_packets_received;
};

/* Sets every counter to 0. */
void VESK_Transport_UDP_Statistics_initialize(struct VESK_Transport_UDP_Statistics *statistics);

/* Copies a consistent snapshot of the plugin's counters into statistics:
 * every traffic count made before the call is in it whole, none in part.
 * Non-zero on success; 0 when plugin is not a UDP plugin. */
int VESK_Transport_UDP_get_statistics(VESK_Transport_Plugin *plugin,
                                      struct VESK_Transport_UDP_Statistics *statistics);

/* Kinds of traffic. AUTOMATIC_LIVELINESS counts into the
 * automatic_liveliness_ and into the _liveliness_ counters;
 * SECURE_LIVELINESS only into the _liveliness_ counters. */
typedef enum VESK_Transport_UDP_TrafficKind {
    VESK_TRANSPORT_UDP_TRAFFIC_USER_DATA = 0,
    VESK_TRANSPORT_UDP_TRAFFIC_DISCOVERY,
    VESK_TRANSPORT_UDP_TRAFFIC_PARTICIPANT_DISCOVERY,
    VESK_TRANSPORT_UDP_TRAFFIC_PARTICIPANT_CONFIG,
    VESK_TRANSPORT_UDP_TRAFFIC_AUTOMATIC_LIVELINESS,
    VESK_TRANSPORT_UDP_TRAFFIC_MANUAL_LIVELINESS,
    VESK_TRANSPORT_UDP_TRAFFIC_SECURE_LIVELINESS,
    VESK_TRANSPORT_UDP_TRAFFIC_ENDPOINT_DISCOVERY,
    VESK_TRANSPORT_UDP_TRAFFIC_OVERHEAD,
    VESK_TRANSPORT_UDP_TRAFFIC_BINDING_PING
} VESK_Transport_UDP_TrafficKind;

typedef enum VESK_Transport_UDP_TrafficDirection {
    VESK_TRANSPORT_UDP_TRAFFIC_SENT = 0,
    VESK_TRANSPORT_UDP_TRAFFIC_RECEIVED = 1
} VESK_Transport_UDP_TrafficDirection;

/* Counts packet_count packets of bytes bytes in all of one kind and
 * direction, atomically with respect to VESK_Transport_UDP_get_statistics.
 * The send and receive paths of the plugin count through this operation.
 * Non-zero on success; 0 for a plugin that is not UDP or a bad kind. */
int VESK_Transport_UDP_count_traffic(VESK_Transport_Plugin *plugin,
                                     VESK_Transport_UDP_TrafficKind kind,
                                     VESK_Transport_UDP_TrafficDirection direction,
                                     KEL_UINT64 packet_count, KEL_UINT64 bytes);
/* Counts one received packet of the given transport priority (0..255). */
int VESK_Transport_UDP_count_received_priority(VESK_Transport_Plugin *plugin,
                                               unsigned char priority);
/* Counts one binding-ping event. */
int VESK_Transport_UDP_count_binding_ping_event(VESK_Transport_Plugin *plugin);

/* ---------------------------------------------------------------------
 * Sockets
 * ------------------------------------------------------------------- */

/* The socket buffer sizes the system granted to the plugin's send socket
 * and to its latest receive resource, in bytes (as asked of the system;
 * Linux reports twice that for its bookkeeping), or -1 while the plugin has
 * no socket of that kind. Non-zero on success; 0 when plugin is not a UDP
 * plugin. */
int VESK_Transport_UDP_get_socket_buffer_sizes(VESK_Transport_Plugin *plugin, int *send_granted_out,
                                               int *receive_granted_out);

/* Datagrams a plugin did not pass on. */
struct VESK_Transport_UDP_DropCounts {
    KEL_UINT64 send_would_block;    /* send_blocking NEVER and the send buffer was full */
    KEL_UINT64 receive_truncated;   /* larger than the caller's buffer (or cut by the system) */
    KEL_UINT64 receive_guid_prefix; /* RTPS messages of guid_prefix_to_drop */
};
/* Non-zero on success; 0 when plugin is not a UDP plugin or counts_out is NULL. */
int VESK_Transport_UDP_get_drop_counts(VESK_Transport_Plugin *plugin,
                                       struct VESK_Transport_UDP_DropCounts *counts_out);

/* ---------------------------------------------------------------------
 * Run-time control
 * ------------------------------------------------------------------- */

/* The plugin reports address as its own address until the fake address is
 * removed. Non-zero on success. */
int VESK_Transport_UDP_assert_fake_ip_address(VESK_Transport_Plugin *plugin,
                                              const VESK_Transport_Address_t *address);
int VESK_Transport_UDP_remove_fake_ip_address(VESK_Transport_Plugin *plugin);
/* The fake address in force, if any: non-zero and *address_out filled. */
int VESK_Transport_UDP_get_fake_ip_address(VESK_Transport_Plugin *plugin,
                                           VESK_Transport_Address_t *address_out);

/* Forces the status of one of the interfaces that the plugin uses (1 up,
 * 0 down). 0 when the plugin does not use an interface of that name. */
int VESK_Transport_UDP_change_interface_status(VESK_Transport_Plugin *plugin,
                                               const char *interface_name, int up);

/* One interface that a UDP plugin uses. */
struct VESK_Transport_UDP_InterfaceInfo {
    char name[64];
    VESK_Transport_Address_t address;
    int is_up;     /* as the system reports it, or as last forced */
    int is_forced; /* the status was forced by change_interface_status */
};
/* The number of interfaces the plugin uses; fills up to capacity of them. */
int VESK_Transport_UDP_get_interfaces(VESK_Transport_Plugin *plugin,
                                      struct VESK_Transport_UDP_InterfaceInfo *interfaces_out,
                                      int capacity);

/* Switches binding-ping generation; accepted by UDPv4 WAN plugins only. */
int VESK_Transport_UDP_change_binding_ping_generation(VESK_Transport_Plugin *plugin,
                                                      DDS_Boolean enable);
/* Non-zero while a WAN plugin generates binding pings. */
int VESK_Transport_UDP_is_binding_ping_generation_enabled(VESK_Transport_Plugin *plugin);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif
