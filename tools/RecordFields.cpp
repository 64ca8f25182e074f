#include "tools/RecordFields.hpp"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <type_traits>

namespace vesk::tool {

namespace {

namespace vt = vesk::transport;
using Generic = VESK_Transport_Property_t;
using Udp = VESK_Transport_UDP_Property_t;
using Shmem = VESK_Transport_Shmem_Property_t;

const std::vector<TransportClass> CLASSES = {
    {"udpv4", "UDPv4", vt::udpv4Class, RecordKind::udp, &VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT,
     VESK_Transport_setupUDPv4Property, VESK_Transport_cleanupUDPv4Property,
     VESK_Transport_UDPv4_newI, "dds.transport.UDPv4.builtin"},
    {"udpv4-wan", "UDPv4 WAN", vt::udpv4WanClass, RecordKind::udp,
     &VESK_TRANSPORT_UDPV4_WAN_PROPERTY_DEFAULT, VESK_Transport_setupUDPv4WanProperty,
     VESK_Transport_cleanupUDPv4WanProperty, VESK_Transport_UDPv4_WAN_newI,
     "dds.transport.UDPv4_WAN.builtin"},
    {"udpv6", "UDPv6", vt::udpv6Class, RecordKind::udp, &VESK_TRANSPORT_UDPV6_PROPERTY_DEFAULT,
     VESK_Transport_setupUDPv6Property, VESK_Transport_cleanupUDPv6Property,
     VESK_Transport_UDPv6_newI, "dds.transport.UDPv6.builtin"},
    {"shmem", "SHMEM", vt::shmemClass, RecordKind::shmem, nullptr, nullptr, nullptr, nullptr,
     nullptr},
};

Json textJson(const char *text) {
    return text != nullptr ? Json(text) : Json(nullptr);
}

Json interfaceListJson(char *const *list, KEL_INT32 length) {
    if (list == nullptr) return Json(nullptr);
    Json out = Json::array();
    for (KEL_INT32 i = 0; i < length; ++i) out.push_back(textJson(list[i]));
    return out;
}

// hostId,appId,instanceId: the form "participant_guid_prefix" is written in.
Json guidPrefixJson(const KELOsapiRtpsGuidPrefix &prefix) {
    return std::to_string(prefix.hostId) + "," + std::to_string(prefix.appId) + "," +
           std::to_string(prefix.instanceId);
}

Json uuidJson(const VESK_Transport_UUID &uuid) {
    KELOsapiRtpsGuidPrefix prefix{};
    static_assert(sizeof(prefix) == sizeof(uuid.value));
    std::memcpy(&prefix, uuid.value, sizeof(prefix));
    return guidPrefixJson(prefix);
}

// The shared-memory address is an identity, not an IP address: hex bytes.
Json hexJson(const VESK_Transport_Address_t &address) {
    std::string out;
    char byte[3];
    for (unsigned char value : address.network_ordered_value) {
        std::snprintf(byte, sizeof byte, "%02x", value);
        out += byte;
    }
    return out;
}

Json commPortsJson(const VESK_Transport_UDP_WAN_CommPortsMappingInfo *list, KEL_INT32 length) {
    if (list == nullptr) return Json(nullptr);
    Json out = Json::array();
    for (KEL_INT32 i = 0; i < length; ++i) {
        out.push_back({{"rtps", list[i].rtps_port},
                       {"host", list[i].host_port},
                       {"public", list[i].public_port}});
    }
    return out;
}

template <typename Full>
struct FieldRow {
    std::string path;
    std::vector<std::string> names;
    std::function<Json(const Full &)> read;
    // Whether the setup reads the names for this record.
    std::function<bool(const Full &)> namesRead;
};

template <typename Full>
class FieldRowBuilder {
public:
    // Adds the field(s) that row sets; part gives the row's record within
    // the full record.
    template <typename Record, typename Part>
    void addRow(const vt::PropertyRow<Record> &row, Part part, const std::string &pathPrefix) {
        std::vector<std::string> names{row.suffix};
        if (row.alternativeSuffix != nullptr) names.emplace_back(row.alternativeSuffix);
        const std::string field = pathPrefix + row.field;
        auto add = [&](const std::string &path, auto read) {
            add_(
                path, names, [part, read](const Full &full) { return read(part(full)); },
                namesRead(row));
        };
        if (row.addressField != nullptr) {
            add(field, [f = row.addressField](const Record &r) { return addressJson(r.*f); });
        } else if (row.intField != nullptr) {
            add(field, [f = row.intField](const Record &r) { return Json(r.*f); });
        } else if (row.uintField != nullptr) {
            add(field, [f = row.uintField](const Record &r) { return Json(r.*f); });
        } else if (!addUnpointedField(row, field, add)) {
            throw std::logic_error(std::string("no reader for the field of property ") +
                                   row.suffix);
        }
    }

    // A field that no property sets.
    void addOther(const std::string &path, std::function<Json(const Full &)> read) {
        add_(path, {}, std::move(read), nullptr);
    }

    std::vector<FieldRow<Full>> take() { return std::move(rows_); }

private:
    void add_(const std::string &path, const std::vector<std::string> &names,
              std::function<Json(const Full &)> read, std::function<bool(const Full &)> namesRead) {
        // Several properties may set one field (the shared-memory address).
        auto same = std::find_if(rows_.begin(), rows_.end(), [&](const FieldRow<Full> &fieldEntry) {
            return fieldEntry.path == path;
        });
        if (same != rows_.end()) {
            same->names.insert(same->names.end(), names.begin(), names.end());
            return;
        }
        rows_.push_back({path, names, std::move(read), std::move(namesRead)});
    }

    template <typename Record>
    static std::function<bool(const Full &)> namesRead(const vt::PropertyRow<Record> &row) {
        if constexpr (std::is_same_v<Full, Shmem>) {
            // The debugging destination is read only while debugging is on.
            if (row.needsUdpDebugging)
                return [](const Shmem &r) { return r.enable_udp_debugging != 0; };
            // The older locator form is read only with a wire-protocol
            // policy, which the tool, like the factory, does not give.
            if (row.conversion == vt::Conversion::locatorFlag)
                return [](const Shmem &) { return false; };
        }
        return nullptr;
    }

    // The conversions whose field the row does not point to: each kind
    // knows its field.
    template <typename Record, typename Add>
    static bool addUnpointedField(const vt::PropertyRow<Record> &row, const std::string &field,
                                  Add add) {
        using vt::Conversion;
        if constexpr (std::is_same_v<Record, Generic>) {
            switch (row.conversion) {
                case Conversion::interfaceList: {
                    const auto list = row.interfaceList->list;
                    const auto length = row.interfaceList->length;
                    add(field, [list, length](const Generic &r) {
                        return interfaceListJson(r.*list, r.*length);
                    });
                    add(field + "_length", [length](const Generic &r) { return Json(r.*length); });
                    return true;
                }
                case Conversion::threadNamePrefix:
                    add(field, [](const Generic &r) { return textJson(r.thread_name_prefix); });
                    return true;
                case Conversion::guidPrefix:
                    add(field, [](const Generic &r) { return uuidJson(r.transport_uuid); });
                    return true;
                default:
                    return false;
            }
        } else if constexpr (std::is_same_v<Record, Udp>) {
            switch (row.conversion) {
                case Conversion::publicAddress:
                    add(field, [](const Udp &r) { return textJson(r.public_address); });
                    return true;
                case Conversion::commPorts:
                    add(field, [](const Udp &r) {
                        return commPortsJson(r.comm_ports_list, r.comm_ports_list_length);
                    });
                    add(field + "_length",
                        [](const Udp &r) { return Json(r.comm_ports_list_length); });
                    return true;
                case Conversion::pointer:
                    add(field, [](const Udp &r) { return listenerJson(r.wan_listener); });
                    return true;
                default:
                    return false;
            }
        } else {
            switch (row.conversion) {
                case Conversion::disableSwitch:
                    add(field, [](const Shmem &r) { return Json(r.reserved); });
                    return true;
                case Conversion::hostId:
                case Conversion::locatorFlag:
                    add(field, [](const Shmem &r) { return hexJson(r.shmemUUID); });
                    return true;
                default:
                    return false;
            }
        }
    }

    std::vector<FieldRow<Full>> rows_;
};

template <typename Full>
void addGenericFields(FieldRowBuilder<Full> &builder) {
    const auto parent = [](const Full &full) -> const Generic & { return full.parent; };
    for (const vt::GenericRow &row : vt::GENERIC_ROWS) builder.addRow(row, parent, "parent.");
}

template <typename Full>
void addParticipantFields(FieldRowBuilder<Full> &builder) {
    // Set by the participant that installs the transport, never by a property.
    builder.addOther("parent.domain_participant_ptr",
                     [](const Full &r) { return pointerJson(r.parent.domain_participant_ptr); });
    builder.addOther("parent.domain_participant_forwarder", [](const Full &r) {
        return pointerJson(r.parent.domain_participant_forwarder);
    });
}

const std::vector<FieldRow<Udp>> &udpRows() {
    static const std::vector<FieldRow<Udp>> rows = [] {
        FieldRowBuilder<Udp> builder;
        addGenericFields(builder);
        const auto self = [](const Udp &full) -> const Udp & { return full; };
        for (const vt::UdpRow &row : vt::UDP_ROWS) builder.addRow(row, self, "");
        addParticipantFields(builder);
        builder.addOther("drop_samples_by_guid_prefix",
                         [](const Udp &r) { return Json(r.drop_samples_by_guid_prefix); });
        builder.addOther("guid_prefix_to_drop",
                         [](const Udp &r) { return guidPrefixJson(r.guid_prefix_to_drop); });
        return builder.take();
    }();
    return rows;
}

const std::vector<FieldRow<Shmem>> &shmemRows() {
    static const std::vector<FieldRow<Shmem>> rows = [] {
        FieldRowBuilder<Shmem> builder;
        addGenericFields(builder);
        const auto self = [](const Shmem &full) -> const Shmem & { return full; };
        for (const vt::ShmemRow &row : vt::SHMEM_SETTING_ROWS) builder.addRow(row, self, "");
        for (const vt::ShmemRow &row : vt::SHMEM_IDENTITY_ROWS) builder.addRow(row, self, "");
        addParticipantFields(builder);
        // From the minimum compatibility version and the platform's mutexes.
        builder.addOther("majorVersion", [](const Shmem &r) { return Json(r.majorVersion); });
        return builder.take();
    }();
    return rows;
}

template <typename Full>
std::vector<FieldValue> read(const std::vector<FieldRow<Full>> &rows, const Full &record) {
    std::vector<FieldValue> out;
    out.reserve(rows.size());
    for (const FieldRow<Full> &fieldEntry : rows) {
        out.push_back({fieldEntry.path, fieldEntry.names,
                       !fieldEntry.namesRead || fieldEntry.namesRead(record),
                       fieldEntry.read(record)});
    }
    return out;
}

template <typename Record>
PropertyDescription describeRow(const vt::PropertyRow<Record> &row, const std::string &pathPrefix) {
    return {row.suffix,
            row.alternativeSuffix,
            pathPrefix + row.field,
            row.conversion,
            row.keywords,
            row.hasRange ? row.rangeText : nullptr,
            row.needsUdpDebugging,
            row.isPublic,
            row.classes,
            row.description};
}

}  // namespace

const std::vector<TransportClass> &transportClasses() {
    return CLASSES;
}

const TransportClass *findClass(std::string_view option) {
    for (const TransportClass &transportClass : CLASSES) {
        if (option == transportClass.option) return &transportClass;
    }
    return nullptr;
}

std::vector<std::string> classOptions() {
    std::vector<std::string> out;
    for (const TransportClass &transportClass : CLASSES) out.emplace_back(transportClass.option);
    return out;
}

std::vector<PropertyDescription> propertiesRead(RecordKind kind) {
    std::vector<PropertyDescription> out;
    for (const vt::GenericRow &row : vt::GENERIC_ROWS) out.push_back(describeRow(row, "parent."));
    if (kind == RecordKind::udp) {
        for (const vt::UdpRow &row : vt::UDP_ROWS) out.push_back(describeRow(row, ""));
    } else {
        for (const vt::ShmemRow &row : vt::SHMEM_SETTING_ROWS) out.push_back(describeRow(row, ""));
        for (const vt::ShmemRow &row : vt::SHMEM_IDENTITY_ROWS) out.push_back(describeRow(row, ""));
    }
    return out;
}

std::vector<FieldValue> readFields(const VESK_Transport_UDP_Property_t &record) {
    return read(udpRows(), record);
}

std::vector<FieldValue> readFields(const VESK_Transport_Shmem_Property_t &record) {
    return read(shmemRows(), record);
}

std::vector<FieldValue> defaultFields(const TransportClass &transportClass) {
    if (transportClass.kind == RecordKind::udp) return readFields(*transportClass.udpDefaults);
    return readFields(VESK_TRANSPORT_SHMEM_PROPERTY_DEFAULT);
}

Json addressJson(const VESK_Transport_Address_t &address) {
    const unsigned char *bytes = address.network_ordered_value;
    // An IPv4 address sits in the last four bytes.
    if (std::all_of(bytes, bytes + 12, [](unsigned char b) { return b == 0; })) {
        return std::to_string(bytes[12]) + "." + std::to_string(bytes[13]) + "." +
               std::to_string(bytes[14]) + "." + std::to_string(bytes[15]);
    }
    char text[INET6_ADDRSTRLEN] = {};
    if (inet_ntop(AF_INET6, bytes, text, sizeof text) == nullptr) return hexJson(address);
    return std::string(text);
}

Json pointerJson(const void *pointer) {
    if (pointer == nullptr) return Json(nullptr);
    char text[2 + 2 * sizeof(void *) + 1];
    std::snprintf(text, sizeof text, "%p", pointer);
    return std::string(text);
}

Json listenerJson(const VESK_Transport_UDP_WAN_Listener *listener) {
    if (listener == nullptr) return Json(nullptr);
    // A verdict from the registry only: the tool never reads through it.
    const bool registered = VESK_Transport_UDP_WAN_is_listener_registered(listener) != 0;
    return pointerJson(listener).get<std::string>() +
           (registered ? " (registered)" : " (not registered: a WAN transport refuses it)");
}

}  // namespace vesk::tool
