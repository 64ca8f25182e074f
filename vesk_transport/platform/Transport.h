/* The transport plugin interface and the generic transport property
 * record that heads the property record of every transport class. */
#ifndef VESK_TRANSPORT_PLATFORM_TRANSPORT_H
#define VESK_TRANSPORT_PLATFORM_TRANSPORT_H

#include "vesk_transport/platform/Types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---------------------------------------------------------------------
 * Generic property record
 * ------------------------------------------------------------------- */

/* Bit of properties_bitmap: receive buffers are always loaned. */
#define VESK_TRANSPORT_PROPERTY_BIT_BUFFER_ALWAYS_LOANED 0x2
#define VESK_TRANSPORT_PROPERTIES_BITMAP_DEFAULT 0

/* Largest length of a thread-name prefix, in characters. */
#define VESK_TRANSPORT_THREAD_NAME_PREFIX_MAX_LENGTH 8
#define VESK_TRANSPORT_THREAD_NAME_PREFIX_DEFAULT "rTr#####"

/* Identity of a transport's owner: the participant's GUID prefix. */
struct VESK_Transport_UUID {
    unsigned char value[12];
};

/* The participant's message callbacks. */
struct VESK_Transport_Plugin_DomainParticipantForwarder {
    KEL_INT32 (*getTransformedOutgoingMessageSize)(void *participant, KEL_INT32 message_size);
    int (*transformOutgoingMessage)(void *participant, void *message_inout);
    int (*transformIncomingMessage)(void *participant, void *message_inout);
};

struct VESK_Transport_Property_t {
    VESK_Transport_ClassId_t classid;
    KEL_INT32 address_bit_count;
    KEL_INT32 properties_bitmap;
    KEL_INT32 gather_send_buffer_count_max;
    KEL_INT32 message_size_max;
    char **allow_interfaces_list;
    KEL_INT32 allow_interfaces_list_length;
    char **deny_interfaces_list;
    KEL_INT32 deny_interfaces_list_length;
    char **allow_multicast_interfaces_list;
    KEL_INT32 allow_multicast_interfaces_list_length;
    char **deny_multicast_interfaces_list;
    KEL_INT32 deny_multicast_interfaces_list_length;
    struct VESK_Transport_UUID transport_uuid;
    void *domain_participant_ptr;
    const struct VESK_Transport_Plugin_DomainParticipantForwarder *domain_participant_forwarder;
    char *thread_name_prefix;
    KEL_INT32 max_interface_count;
};
typedef struct VESK_Transport_Property_t VESK_Transport_Property_t;

/* Releases every non-null element and the array of an interface list made
 * with KELOsapiHeap_allocateArray (element type "char *") and DDS_String_dup,
 * and leaves *list NULL and *length 0. Harmless on a null list. */
void VESK_Transport_Property_finalize_interface_list(char ***list, KEL_INT32 *length);

/* Deep copy of the generic record: the four interface lists and the
 * thread-name prefix are copied onto the heap; the participant pointers are
 * copied as they are. On failure (out of memory) dst holds no allocation
 * and 0 is returned. */
int VESK_Transport_Property_copy(struct VESK_Transport_Property_t *dst,
                                 const struct VESK_Transport_Property_t *src);
/* Releases what VESK_Transport_Property_copy allocated into record. */
void VESK_Transport_Property_finalize(struct VESK_Transport_Property_t *record);

/* Converts a class-id text: a whole decimal or 0x-hexadecimal number, or
 * one of the class names listed in VESK_TRANSPORT_CLASS_NAMES. Non-zero on
 * success. */
int VESK_Transport_parse_transport_class_id(const char *text,
                                            VESK_Transport_ClassId_t *classid_out);

struct VESK_Transport_ClassName {
    const char *name;
    VESK_Transport_ClassId_t classid;
};
/* The accepted class names, ending with a {NULL, 0} row. */
extern const struct VESK_Transport_ClassName VESK_TRANSPORT_CLASS_NAMES[];

/* ---------------------------------------------------------------------
 * Plugin interface
 * ------------------------------------------------------------------- */

typedef struct VESK_Transport_PluginImpl VESK_Transport_Plugin;

typedef void *VESK_Transport_RecvResource_t;
typedef void *VESK_Transport_SendResource_t;

struct VESK_Transport_Buffer_t {
    KEL_INT32 length;
    char *pointer;
};

struct VESK_Transport_Message_t {
    struct VESK_Transport_Buffer_t buffer;
    void *loaned_buffer_param;
};

/* One receive interface of a transport. */
struct VESK_Transport_Interface_t {
    VESK_Transport_ClassId_t transport_classid;
    VESK_Transport_Address_t address;
    KEL_UINT32 status; /* 1 up, 0 down */
};

/* The listener through which a transport reports events to the layer
 * above (register_listener_cEA). A transport calls it on a thread of its
 * own; the listener must not delete the plugin from within the call. */
typedef struct VESK_Transport_ListenerImpl VESK_Transport_Listener;
struct VESK_Transport_ListenerImpl {
    /* The interfaces that get_receive_interfaces_cEA reports changed (an
     * interface or address came or went, a status changed): the layer
     * above reads them again and announces its new locators. May be NULL. */
    void (*on_interfaces_changed)(VESK_Transport_Listener *self, VESK_Transport_Plugin *plugin);
    void *user_data;
};

struct VESK_Transport_PluginImpl {
    struct VESK_Transport_Property_t *property;
    int (*send)(VESK_Transport_Plugin *self, const VESK_Transport_SendResource_t *sendresource_in,
                const VESK_Transport_Address_t *dest_address_in,
                VESK_Transport_Port_t dest_port_in, KEL_INT32 transport_priority_in,
                const struct VESK_Transport_Buffer_t buffer_in[], KEL_INT32 buffer_count_in,
                void *reserved);
    int (*receive_rEA)(VESK_Transport_Plugin *self,
                       const VESK_Transport_RecvResource_t *recvresource_in,
                       const struct VESK_Transport_Buffer_t *buffer_in,
                       struct VESK_Transport_Message_t *message_out, void *reserved);
    void (*return_loaned_buffer_rEA)(VESK_Transport_Plugin *self,
                                     const VESK_Transport_RecvResource_t *recvresource_in,
                                     struct VESK_Transport_Message_t *message_in,
                                     void *reserved);
    int (*unblock_receive_rrEA)(VESK_Transport_Plugin *self,
                                const VESK_Transport_RecvResource_t *recvresource_in,
                                void *reserved);
    int (*create_recvresource_rrEA)(VESK_Transport_Plugin *self,
                                    VESK_Transport_RecvResource_t *recvresource_out,
                                    VESK_Transport_Port_t *receive_port_inout,
                                    const VESK_Transport_Address_t *multicast_address_in,
                                    KEL_INT32 reserved);
    void (*destroy_recvresource_rrEA)(VESK_Transport_Plugin *self,
                                      const VESK_Transport_RecvResource_t *recvresource_in);
    int (*share_recvresource_rrEA)(VESK_Transport_Plugin *self,
                                   const VESK_Transport_RecvResource_t *recvresource_in,
                                   const VESK_Transport_Address_t *multicast_address_in,
                                   VESK_Transport_Port_t receive_port_in, KEL_INT32 reserved);
    int (*unshare_recvresource_rrEA)(VESK_Transport_Plugin *self,
                                     const VESK_Transport_RecvResource_t *recvresource_in,
                                     const VESK_Transport_Address_t *multicast_address_in,
                                     VESK_Transport_Port_t receive_port_in);
    int (*create_sendresource_srEA)(VESK_Transport_Plugin *self,
                                    VESK_Transport_SendResource_t *sendresource_out,
                                    const VESK_Transport_Address_t *dest_address_in,
                                    VESK_Transport_Port_t dest_port_in,
                                    KEL_INT32 transport_priority_in);
    void (*destroy_sendresource_srEA)(VESK_Transport_Plugin *self,
                                      const VESK_Transport_SendResource_t *sendresource_in);
    int (*share_sendresource_srEA)(VESK_Transport_Plugin *self,
                                   const VESK_Transport_SendResource_t *sendresource_in,
                                   const VESK_Transport_Address_t *dest_address_in,
                                   VESK_Transport_Port_t dest_port_in,
                                   KEL_INT32 transport_priority_in);
    int (*unshare_sendresource_srEA)(VESK_Transport_Plugin *self,
                                     const VESK_Transport_SendResource_t *sendresource_in,
                                     const VESK_Transport_Address_t *dest_address_in,
                                     VESK_Transport_Port_t dest_port_in,
                                     KEL_INT32 transport_priority_in);
    const char *(*get_class_name_cEA)(VESK_Transport_Plugin *self);
    int (*string_to_address_cEA)(VESK_Transport_Plugin *self, VESK_Transport_Address_t *address_out,
                                 const char *address_in);
    int (*get_receive_interfaces_cEA)(VESK_Transport_Plugin *self,
                                      int *found_more_than_provided_for_out,
                                      int *interface_reported_count_out,
                                      struct VESK_Transport_Interface_t interface_array_inout[],
                                      int interface_array_size_in);
    void *(*get_transport_receive_context)(VESK_Transport_Plugin *self,
                                           const VESK_Transport_RecvResource_t *recvresource_in);
    void *(*get_transport_send_context)(VESK_Transport_Plugin *self,
                                        const VESK_Transport_SendResource_t *sendresource_in);
    int (*are_addresses_equivalent)(VESK_Transport_Plugin *self,
                                    const VESK_Transport_Address_t *address1_in,
                                    const VESK_Transport_Address_t *address2_in);
    int (*get_equivalent_initial_peer_address)(VESK_Transport_Plugin *self,
                                               VESK_Transport_Address_t *address_out,
                                               const VESK_Transport_Address_t *address_in);
    int (*is_valid_entry_port)(VESK_Transport_Plugin *self, VESK_Transport_Port_t port_in);
    int (*update_destination)(VESK_Transport_Plugin *self,
                              const VESK_Transport_SendResource_t *sendresource_in,
                              const VESK_Transport_Address_t *dest_address_in,
                              VESK_Transport_Port_t dest_port_in);
    int (*register_listener_cEA)(VESK_Transport_Plugin *self, VESK_Transport_Listener *listener_in);
    /* Releases the plugin and everything it owns. */
    void (*delete_cEA)(VESK_Transport_Plugin *self, void *reserved);
    int multicastInterfaceEnabled;
};

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif
