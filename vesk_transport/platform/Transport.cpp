// The generic transport property record (deep copy, release), class-id
// parsing, and the parts of a plugin that every transport fills alike.
#include "vesk_transport/platform/Transport.h"

#include <arpa/inet.h>

#include <cstdio>
#include <cstring>

#include "vesk_transport/platform/Heap.h"
#include "vesk_transport/platform/Log.h"
#include "vesk_transport/platform/TransportInternal.hpp"
#include "vesk_transport/platform/Utility.h"

namespace {

// Copies one interface list; a list of length 0 (or less) copies as NULL.
// On failure *dst is NULL and nothing stays allocated.
bool copyInterfaceList(char ***dst, char *const *src, KEL_INT32 length) {
    *dst = nullptr;
    if (length <= 0) return true;
    // Nothing to copy from: a record that claims elements must hold them.
    if (src == nullptr) return false;
    char **copy = nullptr;
    if (!KELOsapiHeap_allocateArray(&copy, length, char *)) return false;
    for (KEL_INT32 i = 0; i < length; ++i) {
        if (src[i] == nullptr) continue;
        copy[i] = DDS_String_dup(src[i]);
        if (copy[i] == nullptr) {
            KEL_INT32 copied = i;
            VESK_Transport_Property_finalize_interface_list(&copy, &copied);
            return false;
        }
    }
    *dst = copy;
    return true;
}

}  // namespace

extern "C" {

// Names accepted wherever a class id is read from text, compared ignoring
// case. Both the short name and the constant's name are accepted.
const struct VESK_Transport_ClassName VESK_TRANSPORT_CLASS_NAMES[] = {
    {"UDPv4", VESK_TRANSPORT_CLASSID_UDPv4},
    {"VESK_TRANSPORT_CLASSID_UDPv4", VESK_TRANSPORT_CLASSID_UDPv4},
    {"UDPv6", VESK_TRANSPORT_CLASSID_UDPv6},
    {"VESK_TRANSPORT_CLASSID_UDPv6", VESK_TRANSPORT_CLASSID_UDPv6},
    {"INTRA", VESK_TRANSPORT_CLASSID_INTRA},
    {"VESK_TRANSPORT_CLASSID_INTRA", VESK_TRANSPORT_CLASSID_INTRA},
    {"UDPv6_510", VESK_TRANSPORT_CLASSID_UDPv6_510},
    {"VESK_TRANSPORT_CLASSID_UDPv6_510", VESK_TRANSPORT_CLASSID_UDPv6_510},
    {"SHMEM", VESK_TRANSPORT_CLASSID_SHMEM},
    {"VESK_TRANSPORT_CLASSID_SHMEM", VESK_TRANSPORT_CLASSID_SHMEM},
    {"UDPv4_WAN", VESK_TRANSPORT_CLASSID_UDPv4_WAN},
    {"VESK_TRANSPORT_CLASSID_UDPv4_WAN", VESK_TRANSPORT_CLASSID_UDPv4_WAN},
    {nullptr, 0},
};

void VESK_Transport_Property_finalize_interface_list(char ***list, KEL_INT32 *length) {
    // Without the length the elements cannot be found; leave it all alone
    // rather than release half of it.
    if (list == nullptr || length == nullptr) return;
    if (*list != nullptr) {
        for (KEL_INT32 i = 0; i < *length; ++i) DDS_String_free((*list)[i]);
        KELOsapiHeap_freeArray(*list);
        *list = nullptr;
    }
    *length = 0;
}

int VESK_Transport_Property_copy(struct VESK_Transport_Property_t *dst,
                                 const struct VESK_Transport_Property_t *src) {
    if (dst == nullptr || src == nullptr || dst == src) return 0;
    VESK_Transport_Property_t copy = vesk::transport::withoutOwnedMembers(*src);
    bool ok = copyInterfaceList(&copy.allow_interfaces_list, src->allow_interfaces_list,
                                src->allow_interfaces_list_length);
    if (ok) copy.allow_interfaces_list_length = src->allow_interfaces_list_length;
    ok = ok && copyInterfaceList(&copy.deny_interfaces_list, src->deny_interfaces_list,
                                 src->deny_interfaces_list_length);
    if (ok) copy.deny_interfaces_list_length = src->deny_interfaces_list_length;
    ok = ok && copyInterfaceList(&copy.allow_multicast_interfaces_list,
                                 src->allow_multicast_interfaces_list,
                                 src->allow_multicast_interfaces_list_length);
    if (ok)
        copy.allow_multicast_interfaces_list_length = src->allow_multicast_interfaces_list_length;
    ok = ok && copyInterfaceList(&copy.deny_multicast_interfaces_list,
                                 src->deny_multicast_interfaces_list,
                                 src->deny_multicast_interfaces_list_length);
    if (ok) copy.deny_multicast_interfaces_list_length = src->deny_multicast_interfaces_list_length;
    if (ok && src->thread_name_prefix != nullptr) {
        copy.thread_name_prefix = DDS_String_dup(src->thread_name_prefix);
        ok = copy.thread_name_prefix != nullptr;
    }
    if (!ok) {
        VESK_Transport_Property_finalize(&copy);
        *dst = vesk::transport::withoutOwnedMembers(*src);
        return 0;
    }
    *dst = copy;
    return 1;
}

void VESK_Transport_Property_finalize(struct VESK_Transport_Property_t *record) {
    if (record == nullptr) return;
    VESK_Transport_Property_finalize_interface_list(&record->allow_interfaces_list,
                                                    &record->allow_interfaces_list_length);
    VESK_Transport_Property_finalize_interface_list(&record->deny_interfaces_list,
                                                    &record->deny_interfaces_list_length);
    VESK_Transport_Property_finalize_interface_list(
        &record->allow_multicast_interfaces_list, &record->allow_multicast_interfaces_list_length);
    VESK_Transport_Property_finalize_interface_list(&record->deny_multicast_interfaces_list,
                                                    &record->deny_multicast_interfaces_list_length);
    DDS_String_free(record->thread_name_prefix);
    record->thread_name_prefix = nullptr;
}

int VESK_Transport_parse_transport_class_id(const char *text,
                                            VESK_Transport_ClassId_t *classid_out) {
    if (text == nullptr || classid_out == nullptr) return 0;
    KEL_INT32 number = 0;
    if (KELOsapiUtility_strtol(text, &number)) {
        *classid_out = number;
        return 1;
    }
    for (const VESK_Transport_ClassName *row = VESK_TRANSPORT_CLASS_NAMES; row->name != nullptr;
         ++row) {
        if (REDAString_iCompare(text, row->name) == 0) {
            *classid_out = row->classid;
            return 1;
        }
    }
    return 0;
}

// Operations shared by the transports of this library. They have C
// linkage because the plugin's function pointers are C function types.
static int commonSend(VESK_Transport_Plugin *, const VESK_Transport_SendResource_t *,
                      const VESK_Transport_Address_t *, VESK_Transport_Port_t, KEL_INT32,
                      const struct VESK_Transport_Buffer_t[], KEL_INT32, void *) {
    return 0;  // no send resource can exist, so nothing can be sent
}

static int commonReceive(VESK_Transport_Plugin *, const VESK_Transport_RecvResource_t *,
                         const struct VESK_Transport_Buffer_t *, struct VESK_Transport_Message_t *,
                         void *) {
    return 0;
}

static void commonReturnLoanedBuffer(VESK_Transport_Plugin *, const VESK_Transport_RecvResource_t *,
                                     struct VESK_Transport_Message_t *, void *) {}

static int commonUnblockReceive(VESK_Transport_Plugin *, const VESK_Transport_RecvResource_t *,
                                void *) {
    return 0;
}

static int commonCreateRecvResource(VESK_Transport_Plugin *, VESK_Transport_RecvResource_t *,
                                    VESK_Transport_Port_t *, const VESK_Transport_Address_t *,
                                    KEL_INT32) {
    return 0;
}

static void commonDestroyRecvResource(VESK_Transport_Plugin *,
                                      const VESK_Transport_RecvResource_t *) {}

static int commonShareRecvResource(VESK_Transport_Plugin *, const VESK_Transport_RecvResource_t *,
                                   const VESK_Transport_Address_t *, VESK_Transport_Port_t,
                                   KEL_INT32) {
    return 0;
}

static int commonUnshareRecvResource(VESK_Transport_Plugin *, const VESK_Transport_RecvResource_t *,
                                     const VESK_Transport_Address_t *, VESK_Transport_Port_t) {
    return 0;
}

static int commonCreateSendResource(VESK_Transport_Plugin *, VESK_Transport_SendResource_t *,
                                    const VESK_Transport_Address_t *, VESK_Transport_Port_t,
                                    KEL_INT32) {
    return 0;
}

static void commonDestroySendResource(VESK_Transport_Plugin *,
                                      const VESK_Transport_SendResource_t *) {}

static int commonShareSendResource(VESK_Transport_Plugin *, const VESK_Transport_SendResource_t *,
                                   const VESK_Transport_Address_t *, VESK_Transport_Port_t,
                                   KEL_INT32) {
    return 0;
}

static int commonUnshareSendResource(VESK_Transport_Plugin *, const VESK_Transport_SendResource_t *,
                                     const VESK_Transport_Address_t *, VESK_Transport_Port_t,
                                     KEL_INT32) {
    return 0;
}

static void *commonGetReceiveContext(VESK_Transport_Plugin *,
                                     const VESK_Transport_RecvResource_t *) {
    return nullptr;
}

static void *commonGetSendContext(VESK_Transport_Plugin *, const VESK_Transport_SendResource_t *) {
    return nullptr;
}

static int commonAreAddressesEquivalent(VESK_Transport_Plugin *,
                                        const VESK_Transport_Address_t *address1_in,
                                        const VESK_Transport_Address_t *address2_in) {
    if (address1_in == nullptr || address2_in == nullptr) return 0;
    return std::memcmp(address1_in->network_ordered_value, address2_in->network_ordered_value,
                       sizeof address1_in->network_ordered_value) == 0
               ? 1
               : 0;
}

static int commonGetEquivalentInitialPeerAddress(VESK_Transport_Plugin *,
                                                 VESK_Transport_Address_t *address_out,
                                                 const VESK_Transport_Address_t *address_in) {
    if (address_out == nullptr || address_in == nullptr) return 0;
    *address_out = *address_in;  // an address is its own initial peer
    return 1;
}

static int commonUpdateDestination(VESK_Transport_Plugin *, const VESK_Transport_SendResource_t *,
                                   const VESK_Transport_Address_t *, VESK_Transport_Port_t) {
    return 0;
}

}  // extern "C"

namespace vesk::transport {

VESK_Transport_Property_t withoutOwnedMembers(const VESK_Transport_Property_t &record) noexcept {
    VESK_Transport_Property_t out = record;
    out.allow_interfaces_list = nullptr;
    out.allow_interfaces_list_length = 0;
    out.deny_interfaces_list = nullptr;
    out.deny_interfaces_list_length = 0;
    out.allow_multicast_interfaces_list = nullptr;
    out.allow_multicast_interfaces_list_length = 0;
    out.deny_multicast_interfaces_list = nullptr;
    out.deny_multicast_interfaces_list_length = 0;
    out.thread_name_prefix = nullptr;
    return out;
}

const char *checkGenericRecord(const VESK_Transport_Property_t &record) {
    if (record.message_size_max < 1) return "parent.message_size_max is below 1";
    if (record.gather_send_buffer_count_max < 1) {
        return "parent.gather_send_buffer_count_max is below 1";
    }
    struct ListRow {
        char **list;
        KEL_INT32 length;
        const char *negative;
        const char *missing;
    };
    const ListRow lists[] = {
        {record.allow_interfaces_list, record.allow_interfaces_list_length,
         "parent.allow_interfaces_list_length is negative",
         "parent.allow_interfaces_list is NULL with a positive length"},
        {record.deny_interfaces_list, record.deny_interfaces_list_length,
         "parent.deny_interfaces_list_length is negative",
         "parent.deny_interfaces_list is NULL with a positive length"},
        {record.allow_multicast_interfaces_list, record.allow_multicast_interfaces_list_length,
         "parent.allow_multicast_interfaces_list_length is negative",
         "parent.allow_multicast_interfaces_list is NULL with a positive length"},
        {record.deny_multicast_interfaces_list, record.deny_multicast_interfaces_list_length,
         "parent.deny_multicast_interfaces_list_length is negative",
         "parent.deny_multicast_interfaces_list is NULL with a positive length"},
    };
    for (const ListRow &row : lists) {
        if (row.length < 0) return row.negative;
        if (row.length > 0 && row.list == nullptr) return row.missing;
    }
    if (record.thread_name_prefix != nullptr &&
        std::strlen(record.thread_name_prefix) > VESK_TRANSPORT_THREAD_NAME_PREFIX_MAX_LENGTH) {
        return "parent.thread_name_prefix is longer than 8 characters";
    }
    return nullptr;
}

void logError(const KELLogMessageTemplate &message_template, const char *function, const char *file,
              int line, const char *class_name, const char *reason) noexcept {
    if (!KELLog_isEnabled(KEL_LOG_BIT_ERROR, DDS_SUBMODULE_MASK_TRANSPORT)) return;
    char text[256];
    std::snprintf(text, sizeof text, "%s transport: %s", class_name, reason);
    KELLogMessage_printWithParams(-1, KEL_LOG_BIT_ERROR, VESK_TRANSPORT_LOG_MODULE_ID, file, line,
                                  function, &message_template, text);
}

void fillCommonOperations(VESK_Transport_Plugin &plugin) noexcept {
    plugin.send = commonSend;
    plugin.receive_rEA = commonReceive;
    plugin.return_loaned_buffer_rEA = commonReturnLoanedBuffer;
    plugin.unblock_receive_rrEA = commonUnblockReceive;
    plugin.create_recvresource_rrEA = commonCreateRecvResource;
    plugin.destroy_recvresource_rrEA = commonDestroyRecvResource;
    plugin.share_recvresource_rrEA = commonShareRecvResource;
    plugin.unshare_recvresource_rrEA = commonUnshareRecvResource;
    plugin.create_sendresource_srEA = commonCreateSendResource;
    plugin.destroy_sendresource_srEA = commonDestroySendResource;
    plugin.share_sendresource_srEA = commonShareSendResource;
    plugin.unshare_sendresource_srEA = commonUnshareSendResource;
    plugin.get_transport_receive_context = commonGetReceiveContext;
    plugin.get_transport_send_context = commonGetSendContext;
    plugin.are_addresses_equivalent = commonAreAddressesEquivalent;
    plugin.get_equivalent_initial_peer_address = commonGetEquivalentInitialPeerAddress;
    plugin.update_destination = commonUpdateDestination;
}

bool parseIpv4Text(const char *text, bool mapped, VESK_Transport_Address_t &address_out) noexcept {
    if (text == nullptr) return false;
    unsigned char bytes[4];
    if (inet_pton(AF_INET, text, bytes) != 1) return false;
    VESK_Transport_Address_t address{};
    if (mapped) {
        address.network_ordered_value[10] = 0xff;
        address.network_ordered_value[11] = 0xff;
    }
    std::memcpy(address.network_ordered_value + 12, bytes, sizeof bytes);
    address_out = address;
    return true;
}

bool parseIpv6Text(const char *text, VESK_Transport_Address_t &address_out) noexcept {
    if (text == nullptr) return false;
    unsigned char bytes[16];
    if (inet_pton(AF_INET6, text, bytes) != 1) return false;
    std::memcpy(address_out.network_ordered_value, bytes, sizeof bytes);
    return true;
}

}  // namespace vesk::transport
