// The transport classes the tool knows, and the fields of their property
// records as the tool prints them. Everything about properties comes from
// the rows of vesk_transport/PropertyTables.hpp.
#pragma once

#include <nlohmann/json.hpp>

#include <string>
#include <string_view>
#include <vector>

#include "vesk_transport/PropertyTables.hpp"
#include "vesk_transport/Support.h"
#include "vesk_transport/platform/UdpWan.h"

namespace vesk::tool {

using Json = nlohmann::ordered_json;

enum class RecordKind { udp, shmem };

struct TransportClass {
    const char *option;  // the --class value: "udpv4"
    const char *title;   // "UDPv4"
    unsigned bit;        // the class's bit in the rows' classes
    RecordKind kind;
    // The UDP classes; null for shared memory.
    const VESK_Transport_UDP_Property_t *udpDefaults;
    int (*udpSetup)(VESK_Transport_UDP_Property_t *, VESK_Transport_internalMemoryAllocations *,
                    const DDS_PropertyQosPolicy *, const char *);
    void (*udpCleanup)(VESK_Transport_UDP_Property_t *,
                       const VESK_Transport_internalMemoryAllocations *);
    VESK_Transport_Plugin *(*udpConstruct)(const VESK_Transport_UDP_Property_t *,
                                           VESK_Transport_Address_t *, void *);
    // The prefix under which a participant's QoS usually holds the class's
    // properties (for the documentation's examples).
    const char *usualPrefix;
};

// udpv4, udpv4-wan, udpv6, shmem.
const std::vector<TransportClass> &transportClasses();
const TransportClass *findClass(std::string_view option);
std::vector<std::string> classOptions();

// One row of the tables, whatever its record.
struct PropertyDescription {
    const char *suffix;
    const char *alternativeSuffix;  // read when suffix is absent, or null
    std::string field;              // record path: "parent.message_size_max"
    transport::Conversion conversion;
    const transport::KeywordTable *keywords;
    const char *rangeText;  // null without a range
    bool needsUdpDebugging;
    bool isPublic;
    unsigned classes;
    const char *description;
};

// Every row the class's setup reads, in reading order.
std::vector<PropertyDescription> propertiesRead(RecordKind kind);

// One field of a record, read into JSON (a deep copy).
struct FieldValue {
    std::string path;                // "parent.allow_interfaces_list"
    std::vector<std::string> names;  // properties that set it, first found wins
    bool namesRead = true;           // false when the setup does not read them for this record
    Json value;
};

// Every field of the record: those that properties set, in reading order,
// then the others.
std::vector<FieldValue> readFields(const VESK_Transport_UDP_Property_t &record);
std::vector<FieldValue> readFields(const VESK_Transport_Shmem_Property_t &record);
// The fields of the class's default record.
std::vector<FieldValue> defaultFields(const TransportClass &transportClass);

// The text forms of the values.
Json addressJson(const VESK_Transport_Address_t &address);  // "192.0.2.1", "fd00::1"
Json pointerJson(const void *pointer);                      // null or "0x..."
// null, or "0x... (registered)" / "0x... (not registered: ...)".
Json listenerJson(const VESK_Transport_UDP_WAN_Listener *listener);

}  // namespace vesk::tool
