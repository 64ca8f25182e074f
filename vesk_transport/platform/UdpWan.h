/* The UDPv4 WAN transport's own interface: the registry of the listeners
 * that a WAN plugin may call, and what a running WAN plugin has learned
 * from its port mappings and binding pings (docs/wan-transport.md).
 *
 * Conventions: int results are non-zero on success; no operation takes
 * ownership of what it is given; every operation may be called from any
 * thread. */
#ifndef VESK_TRANSPORT_PLATFORM_UDPWAN_H
#define VESK_TRANSPORT_PLATFORM_UDPWAN_H

#include "vesk_transport/platform/Udp.h"

#ifdef __cplusplus
extern "C" {
#endif

/* How many listeners can be registered at once. */
#define VESK_TRANSPORT_UDP_WAN_LISTENER_CAPACITY 64

/* Lets WAN plugins call listener (the application keeps it alive while it
 * is registered). 1 also when it was registered already; 0 for NULL or a
 * full registry. */
int VESK_Transport_UDP_WAN_register_listener(
    const struct VESK_Transport_UDP_WAN_Listener *listener);
/* 1 when listener was registered; returns after every call into it in
 * progress on other threads has returned. */
int VESK_Transport_UDP_WAN_unregister_listener(
    const struct VESK_Transport_UDP_WAN_Listener *listener);
/* 1 when listener is registered. Reads nothing through the pointer. */
int VESK_Transport_UDP_WAN_is_listener_registered(
    const struct VESK_Transport_UDP_WAN_Listener *listener);

/* The result of the port rule for one RTPS port. */
struct VESK_Transport_UDP_WAN_PortMapping {
    VESK_Transport_UDP_Port host_port;
    VESK_Transport_UDP_Port public_port;
    int mapping_index; /* element of comm_ports_list used, -1 for port_offset */
    int ref_count;     /* that element's count in the plugin, 0 for -1 */
};

/* Applies the port rule of a WAN plugin to rtps_port. 0 for a plugin that
 * is not WAN or a port the rule cannot map. */
int VESK_Transport_UDP_WAN_get_mapping(VESK_Transport_Plugin *plugin,
                                       VESK_Transport_Port_t rtps_port,
                                       struct VESK_Transport_UDP_WAN_PortMapping *mapping_out);

/* The binding-ping state of a WAN plugin. */
struct VESK_Transport_UDP_WAN_PingInfo {
    KEL_UINT64 pings_sent;
    KEL_UINT64 answers_sent;
    KEL_UINT64 pings_received;
    KEL_UINT64 answers_received;
    KEL_UINT64 malformed_received;
    KEL_UINT64 unsolicited_answers;
    KEL_UINT64 mappings_resolved;            /* listener notifications made */
    int peer_count;                          /* peers held in the answering table */
    VESK_Transport_Address_t last_pinged_by; /* source of the last ping answered */
    VESK_Transport_Port_t last_pinged_by_port;
    int resolved;                            /* a public mapping is known */
    VESK_Transport_Address_t public_address; /* when resolved */
    VESK_Transport_Port_t public_port;       /* when resolved */
};

/* 0 for a plugin that is not WAN. */
int VESK_Transport_UDP_WAN_get_ping_info(VESK_Transport_Plugin *plugin,
                                         struct VESK_Transport_UDP_WAN_PingInfo *info_out);

/* The locator that a WAN plugin announces for rtps_port (docs/wan-transport.md):
 * the record's public_address with the public port of the port rule; without
 * a public_address, the mapping that binding pings resolved for the socket
 * of rtps_port; before that, the first interface address in use with the
 * host port. 0 for a plugin that is not WAN or a port the rule cannot map. */
int VESK_Transport_UDP_WAN_get_locator(VESK_Transport_Plugin *plugin,
                                       VESK_Transport_Port_t rtps_port,
                                       VESK_Transport_Address_t *address_out,
                                       VESK_Transport_Port_t *port_out);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif
