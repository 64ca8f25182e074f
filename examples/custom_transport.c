/* Installs an application's own transport plugin on a participant, routes
 * traffic to it, finds it again, adds a UDPv4 transport built from
 * properties, reads its statistics, forces an interface down and up, and
 * shows what is refused once the participant is enabled. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "vesk_transport/Support.h"
#include "vesk_transport/platform/Log.h"

/* A class id of our own, outside the builtin ones. */
#define LOOPBACK_CLASSID 0x7E570001

/* The plugin record comes first, so a plugin pointer is also a pointer to
 * the whole object. */
struct LoopbackTransport {
    VESK_Transport_Plugin plugin;
    struct VESK_Transport_Property_t property;
    int messages_sent;
};

static const char *loopback_class_name(VESK_Transport_Plugin *self) {
    (void)self;
    return "loopback";
}

static int loopback_send(VESK_Transport_Plugin *self, const VESK_Transport_SendResource_t *resource,
                         const VESK_Transport_Address_t *destination, VESK_Transport_Port_t port,
                         KEL_INT32 priority, const struct VESK_Transport_Buffer_t buffers[],
                         KEL_INT32 buffer_count, void *reserved) {
    struct LoopbackTransport *transport = (struct LoopbackTransport *)self;
    (void)resource, (void)destination, (void)port, (void)priority, (void)buffers,
        (void)buffer_count, (void)reserved;
    ++transport->messages_sent;
    return 1;
}

static void loopback_delete(VESK_Transport_Plugin *self, void *reserved) {
    (void)reserved;
    printf("  (loopback plugin %p deleted)\n", (void *)self);
    free(self);
}

static VESK_Transport_Plugin *loopback_new(void) {
    struct LoopbackTransport *transport = calloc(1, sizeof(*transport));
    if (transport == NULL) return NULL;
    transport->property.classid = LOOPBACK_CLASSID;
    transport->property.address_bit_count = 32;
    transport->property.message_size_max = 9000;
    transport->property.gather_send_buffer_count_max = 16;
    transport->plugin.property = &transport->property;
    transport->plugin.send = loopback_send;
    transport->plugin.get_class_name_cEA = loopback_class_name;
    transport->plugin.delete_cEA = loopback_delete;
    return &transport->plugin;
}

static VESK_Transport_Address_t ipv4(unsigned a, unsigned b, unsigned c, unsigned d) {
    VESK_Transport_Address_t address;
    memset(&address, 0, sizeof(address));
    address.network_ordered_value[12] = (unsigned char)a;
    address.network_ordered_value[13] = (unsigned char)b;
    address.network_ordered_value[14] = (unsigned char)c;
    address.network_ordered_value[15] = (unsigned char)d;
    return address;
}

static int is_valid(VESK_Transport_Handle_t handle) {
    return handle._participant != NULL && handle._plugin_handle._manager != NULL &&
           handle._plugin_handle._index != 0xFFFFFFFFu;
}

static const char *code_name(DDS_ReturnCode_t code) {
    switch (code) {
        case DDS_RETCODE_OK:
            return "OK";
        case DDS_RETCODE_ERROR:
            return "ERROR";
        case DDS_RETCODE_BAD_PARAMETER:
            return "BAD_PARAMETER";
        case DDS_RETCODE_PRECONDITION_NOT_MET:
            return "PRECONDITION_NOT_MET";
        case DDS_RETCODE_NO_DATA:
            return "NO_DATA";
        default:
            return "other";
    }
}

int main(void) {
    struct DDS_DomainParticipantOptions options = DDS_DOMAINPARTICIPANT_OPTIONS_DEFAULT;
    DDS_DomainParticipant *participant;
    VESK_Transport_Plugin *loopback, *refused_plugin;
    struct DDS_StringSeq aliases = DDS_SEQUENCE_INITIALIZER;
    struct DDS_StringSeq found_aliases = DDS_SEQUENCE_INITIALIZER;
    VESK_Transport_Address_t network_address = ipv4(10, 0, 0, 7), found_address;
    VESK_Transport_Address_t range = ipv4(10, 0, 0, 0);
    VESK_Transport_Handle_t handle, found, refused;
    DDS_Long i;
    int status = 0;
    DDS_PropertyQosPolicy udp_properties = DDS_PropertyQosPolicy_INITIALIZER;
    VESK_Transport_Plugin *udpv4;
    struct VESK_Transport_UDP_Statistics statistics;

    /* Line by line, so the logger's messages on stderr stay in order. */
    setvbuf(stdout, NULL, _IOLBF, 0);
    KELLog_setVerbosity(VESK_CONFIG_LOG_VERBOSITY_ERROR);
    options.transport_builtin_mask = 0; /* only our own transport */
    participant = DDS_DomainParticipant_create(&options);
    loopback = loopback_new();
    if (participant == NULL || loopback == NULL) return 1;
    printf("1. created a disabled participant and a loopback plugin (class 0x%X)\n",
           (unsigned)LOOPBACK_CLASSID);

    DDS_StringSeq_append(&aliases, "loop_a");
    DDS_StringSeq_append(&aliases, "loop_b");
    handle = VESK_Transport_Support_register_transport(participant, loopback, &aliases,
                                                       &network_address);
    printf("2. register under loop_a, loop_b at 10.0.0.7: handle %s (slot %u)\n",
           is_valid(handle) ? "valid" : "INVALID", (unsigned)handle._plugin_handle._index);
    if (!is_valid(handle)) status = 1;

    /* 10.0.0.0/8: the 96 leading bytes of an IPv4 address are zero. */
    printf("3. send route 10.0.0.0/8: %s\n",
           code_name(VESK_Transport_Support_add_send_route(&handle, &range, 96 + 8)));
    printf("   receive route 10.0.0.0/8: %s\n",
           code_name(VESK_Transport_Support_add_receive_route(&handle, &range, 96 + 8)));
    printf("   the configurator now holds %d routes\n",
           KELNetioConfigurator_getRouteCount(
               DDS_DomainParticipant_get_netio_configuratorI(participant)));

    printf("4. plugin by alias loop_b: %s\n",
           VESK_Transport_Support_get_transport_plugin(participant, "loop_b") == loopback
               ? "the loopback plugin"
               : "NOT FOUND");

    found = VESK_Transport_Support_lookup_transport(participant, &found_aliases, &found_address,
                                                    loopback);
    printf("5. lookup: handle %s, address %u.%u.%u.%u, aliases:",
           is_valid(found) && found._plugin_handle._index == handle._plugin_handle._index
               ? "same as registration"
               : "DIFFERENT",
           found_address.network_ordered_value[12], found_address.network_ordered_value[13],
           found_address.network_ordered_value[14], found_address.network_ordered_value[15]);
    for (i = 0; i < DDS_StringSeq_get_length(&found_aliases); ++i) {
        printf(" %s", DDS_StringSeq_get(&found_aliases, i));
    }
    printf("\n");

    /* A builtin-class transport from properties: UDPv4 on the loopback
     * interface, which every host has. */
    DDS_PropertyQosPolicyHelper_add_property(
        &udp_properties, "example.udp.ignore_loopback_interface", "0", DDS_BOOLEAN_FALSE);
    DDS_PropertyQosPolicyHelper_add_property(&udp_properties, "example.udp.parent.allow_interfaces",
                                             "lo", DDS_BOOLEAN_FALSE);
    udpv4 = VESK_Transport_UDPv4_create_from_properties_with_prefix(NULL, &udp_properties,
                                                                    "example.udp");
    DDS_PropertyQosPolicy_finalize(&udp_properties);
    DDS_StringSeq_finalize(&aliases);
    DDS_StringSeq_append(&aliases, "udp_lo");
    printf("6. UDPv4 transport from properties (loopback only): %s\n",
           udpv4 != NULL && is_valid(VESK_Transport_Support_register_transport(
                                participant, udpv4, &aliases, &network_address))
               ? "created and registered"
               : "FAILED");
    if (udpv4 == NULL) status = 1;

    printf("7. enable the participant: %s\n", code_name(DDS_DomainParticipant_enable(participant)));
    if (udpv4 != NULL) {
        /* Two datagrams of 600 bytes through the transport, over loopback:
         * its send and receive paths count them in the statistics. */
        VESK_Transport_RecvResource_t receiver = NULL;
        VESK_Transport_SendResource_t sender = NULL;
        VESK_Transport_Port_t port = 0;
        const VESK_Transport_Address_t localhost = ipv4(127, 0, 0, 1);
        static char payload[600], storage[2048];
        struct VESK_Transport_Buffer_t buffer;
        struct VESK_Transport_Message_t message;
        int sent = 0, received = 0;
        if (udpv4->create_recvresource_rrEA(udpv4, &receiver, &port, NULL, 0) &&
            udpv4->create_sendresource_srEA(udpv4, &sender, &localhost, port, 0)) {
            buffer.length = (KEL_INT32)sizeof payload;
            buffer.pointer = payload;
            for (i = 0; i < 2; ++i)
                sent += udpv4->send(udpv4, &sender, NULL, 0, 0, &buffer, 1, NULL);
            for (i = 0; i < sent; ++i) {
                buffer.length = (KEL_INT32)sizeof storage;
                buffer.pointer = storage;
                received += udpv4->receive_rEA(udpv4, &receiver, &buffer, &message, NULL);
            }
        }
        if (sender != NULL) udpv4->destroy_sendresource_srEA(udpv4, &sender);
        if (receiver != NULL) udpv4->destroy_recvresource_rrEA(udpv4, &receiver);
        printf("8. sent %d and received %d datagrams of 600 bytes over 127.0.0.1 port %u\n", sent,
               received, (unsigned)port);
        VESK_Transport_UDP_Statistics_initialize(&statistics);
        printf("   UDPv4 statistics: %s",
               code_name(VESK_Transport_Support_get_udpv4_statistics(participant, &statistics)));
        printf(", user packets sent %llu (%llu bytes), received %llu (%llu bytes)\n",
               (unsigned long long)statistics.user_packets_sent,
               (unsigned long long)statistics.user_bytes_sent,
               (unsigned long long)statistics.user_packets_received,
               (unsigned long long)statistics.user_bytes_received);
        if (received != 2 || statistics.user_packets_received != 2) status = 1;
        printf("   interface lo down: %s\n",
               code_name(VESK_Transport_Support_change_interface_status(
                   participant, VESK_TRANSPORT_CLASSID_UDPv4, "lo", DDS_BOOLEAN_FALSE)));
        printf("   interface lo up: %s\n",
               code_name(VESK_Transport_Support_change_interface_status(
                   participant, VESK_TRANSPORT_CLASSID_UDPv4, "lo", DDS_BOOLEAN_TRUE)));
    }
    refused_plugin = loopback_new();
    DDS_StringSeq_finalize(&aliases);
    DDS_StringSeq_append(&aliases, "late");
    printf("9. register another plugin now (the logger explains the refusal):\n");
    refused = VESK_Transport_Support_register_transport(participant, refused_plugin, &aliases,
                                                        &network_address);
    printf("   handle %s\n", is_valid(refused) ? "valid (UNEXPECTED)" : "invalid: refused");
    if (is_valid(refused)) status = 1;
    printf("   a route on the enabled participant: %s\n",
           code_name(VESK_Transport_Support_add_send_route(&handle, &range, 104)));
    refused_plugin->delete_cEA(refused_plugin, NULL);

    DDS_StringSeq_finalize(&aliases);
    DDS_StringSeq_finalize(&found_aliases);
    printf("10. delete the participant, which deletes the plugins installed on it\n");
    DDS_DomainParticipant_delete(participant);
    return status;
}
