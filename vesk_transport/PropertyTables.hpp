// The properties that the setups read, one row each, in the order in which
// they are read. The setups loop over these rows; the lists of accepted
// suffixes, docs/properties.md and the command-line tool are generated from
// them, so a property is added in exactly one place.
//
// Internal to the library and its tools (C++ only).
#pragma once

#include <cstddef>

#include "vesk_transport/Support.h"

namespace vesk::transport {

// How a keyword is compared with the property's value.
enum class CaseRule { exact, ignoreCase };

// Which class ids a keyword is accepted for.
enum class KeywordClasses { all, udpv4Family, udpv6Only };

struct Keyword {
    const char *text;
    KEL_INT32 value;
    KeywordClasses classes = KeywordClasses::all;
};

// Whether a keyword is accepted for a record of this class id.
constexpr bool keywordApplies(const Keyword &keyword, VESK_Transport_ClassId_t classid) {
    switch (keyword.classes) {
        case KeywordClasses::all:
            return true;
        case KeywordClasses::udpv4Family:
            return classid == VESK_TRANSPORT_CLASSID_UDPv4 ||
                   classid == VESK_TRANSPORT_CLASSID_UDPv4_WAN;
        case KeywordClasses::udpv6Only:
            return classid == VESK_TRANSPORT_CLASSID_UDPv6;
    }
    return false;
}

struct KeywordTable {
    const Keyword *keywords;
    std::size_t count;
    CaseRule caseRule;
};

// How a value becomes a field.
enum class Conversion {
    classId,           // a class id number or name
    int32,             // keywords first (if any), then a signed 32-bit number
    uint32,            // an unsigned 32-bit number (strtoul)
    unsignedLong,      // an unsigned 32-bit number (strToUnsignedLong)
    boolean,           // a boolean word
    keywordOnly,       // one of the keywords, nothing else
    interfaceList,     // comma-separated interface names or addresses
    threadNamePrefix,  // at most 8 characters
    guidPrefix,        // hostId,appId,instanceId
    publicAddress,     // any text, copied
    commPorts,         // one port number, or a JSON port-mapping document
    pointer,           // the address of an object of the application
    transportAddress,  // an IPv4 or IPv6 address text
    disableSwitch,     // "true" (any case) switches shared memory off
    hostId,            // an unsigned host id
    locatorFlag,       // a boolean
};

// The message logged when a value does not convert.
enum class FailureMessage {
    parserFailure,    // KEL_LOG_PARSER_FAILURE_ss: suffix, value
    failedToParse,    // KEL_LOG_FAILED_TO_PARSE_TEMPLATE "%s: %s": suffix, value
    failedToConvert,  // KEL_LOG_FAILED_TO_CONVERT_TEMPLATE "'%s' value": suffix
    ownMessages,      // the conversion logs its own messages
};

// Classes whose validation lists accept a suffix.
enum ClassBits : unsigned {
    udpv4Class = 1u,
    udpv4WanClass = 2u,
    udpv6Class = 4u,
    shmemClass = 8u,
    udpClasses = udpv4Class | udpv4WanClass | udpv6Class,
    everyClass = udpClasses | shmemClass,
};

// An interface list: a single-interface name, a list name, two fields and
// the allocation flag that pairs the setup with its cleanup.
struct InterfaceList {
    const char *singleSuffix;
    const char *listSuffix;
    char **VESK_Transport_Property_t::*list;
    KEL_INT32 VESK_Transport_Property_t::*length;
    KEL_INT32 VESK_Transport_internalMemoryAllocations::*flag;
};

template <typename Record>
struct PropertyRow {
    const char *suffix;
    const char *field;  // the record field it sets, as written in the record
    Conversion conversion;
    FailureMessage failure;
    KEL_INT32 Record::*intField = nullptr;
    KEL_UINT32 Record::*uintField = nullptr;
    const KeywordTable *keywords = nullptr;
    bool hasRange = false;
    KEL_INT32 rangeMin = 0;
    KEL_INT32 rangeMax = 0;
    const char *rangeText = nullptr;
    const InterfaceList *interfaceList = nullptr;
    const char *alternativeSuffix = nullptr;  // read when suffix is absent
    VESK_Transport_Address_t Record::*addressField = nullptr;
    bool needsUdpDebugging = false;  // read only while UDP debugging is on
    bool isPublic = true;
    unsigned classes = everyClass;
    const char *description = "";
};

using GenericRow = PropertyRow<VESK_Transport_Property_t>;
using UdpRow = PropertyRow<VESK_Transport_UDP_Property_t>;
using ShmemRow = PropertyRow<VESK_Transport_Shmem_Property_t>;

template <typename T, std::size_t N>
constexpr KeywordTable keywordTable(const T (&keywords)[N], CaseRule caseRule) {
    return KeywordTable{keywords, N, caseRule};
}

// ---------------------------------------------------------------------------
// Keywords
// ---------------------------------------------------------------------------

inline constexpr Keyword PROPERTIES_BITMAP_KEYWORDS[] = {
    {"TRANSPORT_PROPERTY_BIT_BUFFER_ALWAYS_LOANED",
     VESK_TRANSPORT_PROPERTY_BIT_BUFFER_ALWAYS_LOANED},
    {"VESK_TRANSPORT_PROPERTY_BIT_BUFFER_ALWAYS_LOANED",
     VESK_TRANSPORT_PROPERTY_BIT_BUFFER_ALWAYS_LOANED},
    {"TRANSPORT_PROPERTY_BITMAP_DEFAULT", VESK_TRANSPORT_PROPERTIES_BITMAP_DEFAULT},
    {"VESK_TRANSPORT_PROPERTIES_BITMAP_DEFAULT", VESK_TRANSPORT_PROPERTIES_BITMAP_DEFAULT},
};
inline constexpr KeywordTable PROPERTIES_BITMAP_TABLE =
    keywordTable(PROPERTIES_BITMAP_KEYWORDS, CaseRule::exact);

// Whatever the class, these mean the UDPv4 payload limit.
inline constexpr Keyword MESSAGE_SIZE_MAX_KEYWORDS[] = {
    {"UDPV4_MESSAGE_SIZE_MAX_DEFAULT", VESK_TRANSPORT_UDPV4_PAYLOAD_SIZE_MAX},
    {"VESK_TRANSPORT_UDPV4_MESSAGE_SIZE_MAX_DEFAULT", VESK_TRANSPORT_UDPV4_PAYLOAD_SIZE_MAX},
    {"UDPV4_PAYLOAD_SIZE_MAX", VESK_TRANSPORT_UDPV4_PAYLOAD_SIZE_MAX},
    {"VESK_TRANSPORT_UDPV4_PAYLOAD_SIZE_MAX", VESK_TRANSPORT_UDPV4_PAYLOAD_SIZE_MAX},
};
inline constexpr KeywordTable MESSAGE_SIZE_MAX_TABLE =
    keywordTable(MESSAGE_SIZE_MAX_KEYWORDS, CaseRule::ignoreCase);

inline constexpr Keyword MAX_INTERFACE_COUNT_KEYWORDS[] = {
    {"DDS_LENGTH_UNLIMITED", DDS_LENGTH_UNLIMITED},
    {"LENGTH_UNLIMITED", DDS_LENGTH_UNLIMITED},
};
inline constexpr KeywordTable MAX_INTERFACE_COUNT_TABLE =
    keywordTable(MAX_INTERFACE_COUNT_KEYWORDS, CaseRule::ignoreCase);

// Either IP version's keyword works for every class.
inline constexpr Keyword SEND_SOCKET_BUFFER_KEYWORDS[] = {
    {"VESK_TRANSPORT_UDPV4_SEND_SOCKET_BUFFER_SIZE_DEFAULT",
     VESK_TRANSPORT_UDP_SOCKET_BUFFER_SIZE_DEFAULT},
    {"VESK_TRANSPORT_UDPV6_SEND_SOCKET_BUFFER_SIZE_DEFAULT",
     VESK_TRANSPORT_UDP_SOCKET_BUFFER_SIZE_DEFAULT},
    {"VESK_TRANSPORT_UDPV4_SOCKET_BUFFER_SIZE_OS_MAX",
     VESK_TRANSPORT_UDP_SOCKET_BUFFER_SIZE_OS_MAX},
    {"VESK_TRANSPORT_UDPV6_SOCKET_BUFFER_SIZE_OS_MAX",
     VESK_TRANSPORT_UDP_SOCKET_BUFFER_SIZE_OS_MAX},
    {"VESK_TRANSPORT_UDPV4_SOCKET_BUFFER_SIZE_OS_DEFAULT",
     VESK_TRANSPORT_UDP_SOCKET_BUFFER_SIZE_OS_DEFAULT},
    {"VESK_TRANSPORT_UDPV6_SOCKET_BUFFER_SIZE_OS_DEFAULT",
     VESK_TRANSPORT_UDP_SOCKET_BUFFER_SIZE_OS_DEFAULT},
};
inline constexpr KeywordTable SEND_SOCKET_BUFFER_TABLE =
    keywordTable(SEND_SOCKET_BUFFER_KEYWORDS, CaseRule::ignoreCase);

inline constexpr Keyword RECV_SOCKET_BUFFER_KEYWORDS[] = {
    {"VESK_TRANSPORT_UDPV4_RECV_SOCKET_BUFFER_SIZE_DEFAULT",
     VESK_TRANSPORT_UDP_SOCKET_BUFFER_SIZE_DEFAULT},
    {"VESK_TRANSPORT_UDPV6_RECV_SOCKET_BUFFER_SIZE_DEFAULT",
     VESK_TRANSPORT_UDP_SOCKET_BUFFER_SIZE_DEFAULT},
    {"VESK_TRANSPORT_UDPV4_SOCKET_BUFFER_SIZE_OS_MAX",
     VESK_TRANSPORT_UDP_SOCKET_BUFFER_SIZE_OS_MAX},
    {"VESK_TRANSPORT_UDPV6_SOCKET_BUFFER_SIZE_OS_MAX",
     VESK_TRANSPORT_UDP_SOCKET_BUFFER_SIZE_OS_MAX},
    {"VESK_TRANSPORT_UDPV4_SOCKET_BUFFER_SIZE_OS_DEFAULT",
     VESK_TRANSPORT_UDP_SOCKET_BUFFER_SIZE_OS_DEFAULT},
    {"VESK_TRANSPORT_UDPV6_SOCKET_BUFFER_SIZE_OS_DEFAULT",
     VESK_TRANSPORT_UDP_SOCKET_BUFFER_SIZE_OS_DEFAULT},
};
inline constexpr KeywordTable RECV_SOCKET_BUFFER_TABLE =
    keywordTable(RECV_SOCKET_BUFFER_KEYWORDS, CaseRule::ignoreCase);

// "true" and "false" are not among them.
inline constexpr Keyword SEND_BLOCKING_KEYWORDS[] = {
    {"TRANSPORT_BLOCKING_ALWAYS", VESK_TRANSPORT_UDP_BLOCKING_ALWAYS},
    {"VESK_TRANSPORT_UDP_BLOCKING_ALWAYS", VESK_TRANSPORT_UDP_BLOCKING_ALWAYS},
    {"1", VESK_TRANSPORT_UDP_BLOCKING_ALWAYS},
    {"TRANSPORT_BLOCKING_NEVER", VESK_TRANSPORT_UDP_BLOCKING_NEVER},
    {"VESK_TRANSPORT_UDP_BLOCKING_NEVER", VESK_TRANSPORT_UDP_BLOCKING_NEVER},
    {"0", VESK_TRANSPORT_UDP_BLOCKING_NEVER},
    {"VESK_TRANSPORT_UDPV4_BLOCKING_ALWAYS", VESK_TRANSPORT_UDP_BLOCKING_ALWAYS,
     KeywordClasses::udpv4Family},
    {"VESK_TRANSPORT_UDPV4_BLOCKING_NEVER", VESK_TRANSPORT_UDP_BLOCKING_NEVER,
     KeywordClasses::udpv4Family},
    {"VESK_TRANSPORT_UDPV6_BLOCKING_ALWAYS", VESK_TRANSPORT_UDP_BLOCKING_ALWAYS,
     KeywordClasses::udpv6Only},
    {"VESK_TRANSPORT_UDPV6_BLOCKING_NEVER", VESK_TRANSPORT_UDP_BLOCKING_NEVER,
     KeywordClasses::udpv6Only},
};
inline constexpr KeywordTable SEND_BLOCKING_TABLE =
    keywordTable(SEND_BLOCKING_KEYWORDS, CaseRule::exact);

// ---------------------------------------------------------------------------
// The generic part, read first by every setup
// ---------------------------------------------------------------------------

using Generic = VESK_Transport_Property_t;
using Allocations = VESK_Transport_internalMemoryAllocations;

inline constexpr InterfaceList ALLOW_INTERFACES = {
    "parent.allow_interfaces", "parent.allow_interfaces_list", &Generic::allow_interfaces_list,
    &Generic::allow_interfaces_list_length, &Allocations::_allowInterfacesListAllocated};
inline constexpr InterfaceList DENY_INTERFACES = {
    "parent.deny_interfaces", "parent.deny_interfaces_list", &Generic::deny_interfaces_list,
    &Generic::deny_interfaces_list_length, &Allocations::_denyInterfacesListAllocated};
inline constexpr InterfaceList ALLOW_MULTICAST_INTERFACES = {
    "parent.allow_multicast_interfaces", "parent.allow_multicast_interfaces_list",
    &Generic::allow_multicast_interfaces_list, &Generic::allow_multicast_interfaces_list_length,
    &Allocations::_allowMulticastInterfacesListAllocated};
inline constexpr InterfaceList DENY_MULTICAST_INTERFACES = {
    "parent.deny_multicast_interfaces", "parent.deny_multicast_interfaces_list",
    &Generic::deny_multicast_interfaces_list, &Generic::deny_multicast_interfaces_list_length,
    &Allocations::_denyMulticastInterfacesListAllocated};

inline constexpr GenericRow GENERIC_ROWS[] = {
    {.suffix = "parent.classid",
     .field = "classid",
     .conversion = Conversion::classId,
     .failure = FailureMessage::parserFailure,
     .intField = &Generic::classid,
     .isPublic = false,
     .description = "class id of the transport: a number or a class name"},
    {.suffix = "parent.address_bit_count",
     .field = "address_bit_count",
     .conversion = Conversion::int32,
     .failure = FailureMessage::parserFailure,
     .intField = &Generic::address_bit_count,
     .hasRange = true,
     .rangeMin = -128,
     .rangeMax = 128,
     .rangeText = "[-128, 128]",
     .isPublic = false,
     .description = "significant bits of the transport's 128-bit addresses"},
    {.suffix = "parent.properties_bitmap",
     .field = "properties_bitmap",
     .conversion = Conversion::int32,
     .failure = FailureMessage::parserFailure,
     .intField = &Generic::properties_bitmap,
     .keywords = &PROPERTIES_BITMAP_TABLE,
     .isPublic = false,
     .description = "transport property bits (2: buffers always loaned)"},
    {.suffix = "parent.gather_send_buffer_count_max",
     .field = "gather_send_buffer_count_max",
     .conversion = Conversion::int32,
     .failure = FailureMessage::parserFailure,
     .intField = &Generic::gather_send_buffer_count_max,
     .description = "largest number of buffers gathered into one send"},
    {.suffix = "parent.message_size_max",
     .field = "message_size_max",
     .conversion = Conversion::int32,
     .failure = FailureMessage::parserFailure,
     .intField = &Generic::message_size_max,
     .keywords = &MESSAGE_SIZE_MAX_TABLE,
     .description = "largest message size in bytes"},
    {.suffix = "parent.allow_interfaces",
     .field = "allow_interfaces_list",
     .conversion = Conversion::interfaceList,
     .failure = FailureMessage::ownMessages,
     .interfaceList = &ALLOW_INTERFACES,
     .alternativeSuffix = "parent.allow_interfaces_list",
     .description = "interfaces the transport may use: comma-separated names, addresses, name or "
                    "address patterns with * and ? (eth*), address ranges (10.0.0.0/8, fe80::/10)"},
    {.suffix = "parent.deny_interfaces",
     .field = "deny_interfaces_list",
     .conversion = Conversion::interfaceList,
     .failure = FailureMessage::ownMessages,
     .interfaceList = &DENY_INTERFACES,
     .alternativeSuffix = "parent.deny_interfaces_list",
     .description = "interfaces the transport must not use (same forms as the allow list; the deny "
                    "list wins)"},
    {.suffix = "parent.allow_multicast_interfaces",
     .field = "allow_multicast_interfaces_list",
     .conversion = Conversion::interfaceList,
     .failure = FailureMessage::ownMessages,
     .interfaceList = &ALLOW_MULTICAST_INTERFACES,
     .alternativeSuffix = "parent.allow_multicast_interfaces_list",
     .description = "interfaces multicast groups are joined on (same forms; replaces the allow "
                    "list for multicast)"},
    {.suffix = "parent.deny_multicast_interfaces",
     .field = "deny_multicast_interfaces_list",
     .conversion = Conversion::interfaceList,
     .failure = FailureMessage::ownMessages,
     .interfaceList = &DENY_MULTICAST_INTERFACES,
     .alternativeSuffix = "parent.deny_multicast_interfaces_list",
     .description =
         "interfaces multicast must not use (same forms; replaces the deny list for multicast)"},
    {.suffix = "parent.thread_name_prefix",
     .field = "thread_name_prefix",
     .conversion = Conversion::threadNamePrefix,
     .failure = FailureMessage::ownMessages,
     .alternativeSuffix = "thread_name_prefix",
     .description = "prefix of the transport's thread names, at most 8 characters"},
    {.suffix = "participant_guid_prefix",
     .field = "transport_uuid",
     .conversion = Conversion::guidPrefix,
     .failure = FailureMessage::ownMessages,
     .isPublic = false,
     .description = "the owner's GUID prefix: hostId,appId,instanceId"},
    {.suffix = "parent.max_interface_count",
     .field = "max_interface_count",
     .conversion = Conversion::int32,
     .failure = FailureMessage::parserFailure,
     .intField = &Generic::max_interface_count,
     .keywords = &MAX_INTERFACE_COUNT_TABLE,
     .description = "largest number of interfaces used (LENGTH_UNLIMITED: no limit)"},
};

// ---------------------------------------------------------------------------
// The UDP classes (the WAN rows are read for every class, but only the
// WAN class's lists accept them)
// ---------------------------------------------------------------------------

using Udp = VESK_Transport_UDP_Property_t;
inline constexpr unsigned WAN_ONLY = udpv4WanClass;

inline constexpr UdpRow UDP_ROWS[] = {
    {.suffix = "send_socket_buffer_size",
     .field = "send_socket_buffer_size",
     .conversion = Conversion::int32,
     .failure = FailureMessage::failedToParse,
     .intField = &Udp::send_socket_buffer_size,
     .keywords = &SEND_SOCKET_BUFFER_TABLE,
     .classes = udpClasses,
     .description = "socket send buffer in bytes (-1 OS default, -2 OS maximum)"},
    {.suffix = "recv_socket_buffer_size",
     .field = "recv_socket_buffer_size",
     .conversion = Conversion::int32,
     .failure = FailureMessage::failedToParse,
     .intField = &Udp::recv_socket_buffer_size,
     .keywords = &RECV_SOCKET_BUFFER_TABLE,
     .classes = udpClasses,
     .description = "socket receive buffer in bytes (-1 OS default, -2 OS maximum)"},
    {.suffix = "unicast_enabled",
     .field = "unicast_enabled",
     .conversion = Conversion::boolean,
     .failure = FailureMessage::parserFailure,
     .intField = &Udp::unicast_enabled,
     .classes = udpClasses,
     .description = "unicast traffic on"},
    {.suffix = "multicast_enabled",
     .field = "multicast_enabled",
     .conversion = Conversion::boolean,
     .failure = FailureMessage::parserFailure,
     .intField = &Udp::multicast_enabled,
     .classes = udpClasses,
     .description = "multicast traffic on"},
    {.suffix = "multicast_ttl",
     .field = "multicast_ttl",
     .conversion = Conversion::int32,
     .failure = FailureMessage::parserFailure,
     .intField = &Udp::multicast_ttl,
     .classes = udpClasses,
     .description = "time-to-live of sent multicast datagrams"},
    {.suffix = "multicast_loopback_disabled",
     .field = "multicast_loopback_disabled",
     .conversion = Conversion::boolean,
     .failure = FailureMessage::parserFailure,
     .intField = &Udp::multicast_loopback_disabled,
     .classes = udpClasses,
     .description = "multicast loopback off"},
    {.suffix = "ignore_loopback_interface",
     .field = "ignore_loopback_interface",
     .conversion = Conversion::int32,
     .failure = FailureMessage::parserFailure,
     .intField = &Udp::ignore_loopback_interface,
     .classes = udpClasses,
     .description = "1 ignore the loopback interface, 0 use it, -1 automatic"},
    {.suffix = "ignore_nonup_interfaces",
     .field = "ignore_nonup_interfaces",
     .conversion = Conversion::boolean,
     .failure = FailureMessage::parserFailure,
     .intField = &Udp::ignore_nonup_interfaces,
     .classes = udpClasses,
     .description = "interfaces that are not up are ignored"},
    {.suffix = "ignore_nonrunning_interfaces",
     .field = "ignore_nonrunning_interfaces",
     .conversion = Conversion::boolean,
     .failure = FailureMessage::parserFailure,
     .intField = &Udp::ignore_nonrunning_interfaces,
     .classes = udpClasses,
     .description = "interfaces that are not running are ignored"},
    {.suffix = "no_zero_copy",
     .field = "no_zero_copy",
     .conversion = Conversion::boolean,
     .failure = FailureMessage::parserFailure,
     .intField = &Udp::no_zero_copy,
     .classes = udpClasses,
     .description = "zero copy off"},
    {.suffix = "send_blocking",
     .field = "send_blocking",
     .conversion = Conversion::keywordOnly,
     .failure = FailureMessage::parserFailure,
     .intField = &Udp::send_blocking,
     .keywords = &SEND_BLOCKING_TABLE,
     .classes = udpClasses,
     .description = "whether sends block (ALWAYS) or not (NEVER)"},
    {.suffix = "enable_v4mapped",
     .field = "enable_v4mapped",
     .conversion = Conversion::boolean,
     .failure = FailureMessage::parserFailure,
     .intField = &Udp::enable_v4mapped,
     .classes = udpClasses,
     .description = "IPv4-mapped IPv6 addresses on"},
    {.suffix = "use_checksum",
     .field = "use_checksum",
     .conversion = Conversion::boolean,
     .failure = FailureMessage::parserFailure,
     .intField = &Udp::use_checksum,
     .classes = udpClasses,
     .description = "UDP checksums on"},
    {.suffix = "transport_priority_mask",
     .field = "transport_priority_mask",
     .conversion = Conversion::uint32,
     .failure = FailureMessage::parserFailure,
     .uintField = &Udp::transport_priority_mask,
     .classes = udpClasses,
     .description = "mask of the transport-priority mapping"},
    {.suffix = "transport_priority_mapping_low",
     .field = "transport_priority_mapping_low",
     .conversion = Conversion::int32,
     .failure = FailureMessage::parserFailure,
     .intField = &Udp::transport_priority_mapping_low,
     .classes = udpClasses,
     .description = "low end of the transport-priority mapping"},
    {.suffix = "transport_priority_mapping_high",
     .field = "transport_priority_mapping_high",
     .conversion = Conversion::int32,
     .failure = FailureMessage::parserFailure,
     .intField = &Udp::transport_priority_mapping_high,
     .classes = udpClasses,
     .description = "high end of the transport-priority mapping"},
    {.suffix = "send_ping",
     .field = "send_ping",
     .conversion = Conversion::int32,
     .failure = FailureMessage::parserFailure,
     .intField = &Udp::send_ping,
     .classes = udpClasses,
     .description = "switch for sending pings"},
    {.suffix = "force_interface_poll_detection",
     .field = "force_interface_poll_detection",
     .conversion = Conversion::boolean,
     .failure = FailureMessage::parserFailure,
     .intField = &Udp::force_interface_poll_detection,
     .classes = udpClasses,
     .description = "interface changes are detected by polling instead of netlink"},
    {.suffix = "interface_poll_period",
     .field = "interface_poll_period",
     .conversion = Conversion::uint32,
     .failure = FailureMessage::parserFailure,
     .uintField = &Udp::interface_poll_period,
     .classes = udpClasses,
     .description = "period of the interface poll, in milliseconds"},
    {.suffix = "reuse_multicast_receive_resource",
     .field = "reuse_multicast_receive_resource",
     .conversion = Conversion::boolean,
     .failure = FailureMessage::parserFailure,
     .intField = &Udp::reuse_multicast_receive_resource,
     .classes = udpClasses,
     .description = "multicast receive resources are reused"},
    {.suffix = "protocol_overhead_max",
     .field = "protocol_overhead_max",
     .conversion = Conversion::int32,
     .failure = FailureMessage::parserFailure,
     .intField = &Udp::protocol_overhead_max,
     .classes = udpClasses,
     .description = "largest protocol overhead per datagram in bytes"},
    {.suffix = "disable_interface_tracking",
     .field = "disable_interface_tracking",
     .conversion = Conversion::boolean,
     .failure = FailureMessage::parserFailure,
     .intField = &Udp::disable_interface_tracking,
     .classes = udpClasses,
     .description = "interface tracking off: the interfaces found at creation stay"},
    {.suffix = "public_address",
     .field = "public_address",
     .conversion = Conversion::publicAddress,
     .failure = FailureMessage::ownMessages,
     .classes = WAN_ONLY,
     .description = "public address of the WAN transport, as text"},
    {.suffix = "comm_ports",
     .field = "comm_ports_list",
     .conversion = Conversion::commPorts,
     .failure = FailureMessage::ownMessages,
     .classes = WAN_ONLY,
     .description = "one port (0..65535) or a JSON port-mapping document"},
    {.suffix = "wan_listener_ptr",
     .field = "wan_listener",
     .conversion = Conversion::pointer,
     .failure = FailureMessage::parserFailure,
     .isPublic = false,
     .classes = WAN_ONLY,
     .description = "address of the application's WAN listener in this process"},
    {.suffix = "join_multicast_group_timeout",
     .field = "join_multicast_group_timeout",
     .conversion = Conversion::unsignedLong,
     .failure = FailureMessage::parserFailure,
     .uintField = &Udp::join_multicast_group_timeout,
     .classes = udpClasses,
     .description =
         "how long a refused multicast join is retried on a new interface, in milliseconds"},
    {.suffix = "port_offset",
     .field = "port_offset",
     .conversion = Conversion::int32,
     .failure = FailureMessage::parserFailure,
     .intField = &Udp::port_offset,
     .classes = WAN_ONLY,
     .description = "WAN port offset"},
    {.suffix = "binding_ping_period",
     .field = "binding_ping_period",
     .conversion = Conversion::unsignedLong,
     .failure = FailureMessage::parserFailure,
     .uintField = &Udp::binding_ping_period,
     .classes = WAN_ONLY,
     .description = "period of WAN binding pings"},
    {.suffix = "binding_ping_mapping_expiration",
     .field = "binding_ping_mapping_expiration",
     .conversion = Conversion::unsignedLong,
     .failure = FailureMessage::failedToConvert,
     .uintField = &Udp::binding_ping_mapping_expiration,
     .classes = WAN_ONLY,
     .description = "expiration of a WAN binding-ping mapping"},
    {.suffix = "gather_detailed_statistics",
     .field = "gather_detailed_statistics",
     .conversion = Conversion::boolean,
     .failure = FailureMessage::parserFailure,
     .intField = &Udp::gather_detailed_statistics,
     .classes = udpClasses,
     .description = "detailed statistics are gathered"},
};

// ---------------------------------------------------------------------------
// The shared-memory class: its own list, names without prefix
// ---------------------------------------------------------------------------

using Shmem = VESK_Transport_Shmem_Property_t;

// Read after the generic part and the name validation, in this order.
inline constexpr ShmemRow SHMEM_SETTING_ROWS[] = {
    {.suffix = "received_message_count_max",
     .field = "received_message_count_max",
     .conversion = Conversion::int32,
     .failure = FailureMessage::parserFailure,
     .intField = &Shmem::received_message_count_max,
     .classes = shmemClass,
     .description = "largest number of received messages held"},
    {.suffix = "receive_buffer_size",
     .field = "receive_buffer_size",
     .conversion = Conversion::int32,
     .failure = FailureMessage::parserFailure,
     .intField = &Shmem::receive_buffer_size,
     .classes = shmemClass,
     .description = "size of the receive buffer in bytes"},
    {.suffix = "segmentKeyOffset",
     .field = "segmentKeyOffset",
     .conversion = Conversion::int32,
     .failure = FailureMessage::parserFailure,
     .intField = &Shmem::segmentKeyOffset,
     .classes = shmemClass,
     .description = "offset of the shared-memory segment keys"},
    {.suffix = "segmentKeyFactor",
     .field = "segmentKeyFactor",
     .conversion = Conversion::int32,
     .failure = FailureMessage::parserFailure,
     .intField = &Shmem::segmentKeyFactor,
     .classes = shmemClass,
     .description = "factor of the shared-memory segment keys"},
    {.suffix = "semaphoreKeyOffset",
     .field = "semaphoreKeyOffset",
     .conversion = Conversion::int32,
     .failure = FailureMessage::parserFailure,
     .intField = &Shmem::semaphoreKeyOffset,
     .classes = shmemClass,
     .description = "offset of the semaphore keys"},
    {.suffix = "semaphoreKeyFactor",
     .field = "semaphoreKeyFactor",
     .conversion = Conversion::int32,
     .failure = FailureMessage::parserFailure,
     .intField = &Shmem::semaphoreKeyFactor,
     .classes = shmemClass,
     .description = "factor of the semaphore keys"},
    {.suffix = "mutexKeyOffset",
     .field = "mutexKeyOffset",
     .conversion = Conversion::int32,
     .failure = FailureMessage::parserFailure,
     .intField = &Shmem::mutexKeyOffset,
     .classes = shmemClass,
     .description = "offset of the mutex keys"},
    {.suffix = "mutexKeyFactor",
     .field = "mutexKeyFactor",
     .conversion = Conversion::int32,
     .failure = FailureMessage::parserFailure,
     .intField = &Shmem::mutexKeyFactor,
     .classes = shmemClass,
     .description = "factor of the mutex keys"},
    {.suffix = "enable_udp_debugging",
     .field = "enable_udp_debugging",
     .conversion = Conversion::boolean,
     .failure = FailureMessage::parserFailure,
     .intField = &Shmem::enable_udp_debugging,
     .classes = shmemClass,
     .description = "copies of the traffic go to a UDP address for debugging"},
    {.suffix = "udp_debugging_address",
     .field = "udp_debugging_address",
     .conversion = Conversion::transportAddress,
     .failure = FailureMessage::ownMessages,
     .addressField = &Shmem::udp_debugging_address,
     .needsUdpDebugging = true,
     .classes = shmemClass,
     .description = "IP address of the UDP debugging output"},
    {.suffix = "udp_debugging_port",
     .field = "udp_debugging_port",
     .conversion = Conversion::uint32,
     .failure = FailureMessage::parserFailure,
     .uintField = &Shmem::udp_debugging_port,
     .needsUdpDebugging = true,
     .classes = shmemClass,
     .description = "port of the UDP debugging output"},
    {.suffix = "maxAllowedWriterDurationMillisec",
     .field = "maxAllowedWriterDurationMillisec",
     .conversion = Conversion::uint32,
     .failure = FailureMessage::parserFailure,
     .uintField = &Shmem::maxAllowedWriterDurationMillisec,
     .classes = shmemClass,
     .description = "writer time limit in milliseconds"},
};

// Read after the format version is settled.
inline constexpr ShmemRow SHMEM_IDENTITY_ROWS[] = {
    {.suffix = "CORE_6518_unit_test_disable_shmem",
     .field = "reserved",
     .conversion = Conversion::disableSwitch,
     .failure = FailureMessage::ownMessages,
     .isPublic = false,
     .classes = shmemClass,
     .description = "\"true\" disables shared memory (for unit tests)"},
    {.suffix = "host_id",
     .field = "shmemUUID",
     .conversion = Conversion::hostId,
     .failure = FailureMessage::parserFailure,
     .classes = shmemClass,
     .description = "host id of the generated shared-memory address"},
    {.suffix = "use_530_from_uuid_locator",
     .field = "shmemUUID",
     .conversion = Conversion::locatorFlag,
     .failure = FailureMessage::parserFailure,
     .isPublic = false,
     .classes = shmemClass,
     .description = "the whole host identity becomes the address (older locator form)"},
};

}  // namespace vesk::transport
