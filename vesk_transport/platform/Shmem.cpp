// The shared-memory transport module: record copy and the plugin.
//
// Like the UDP plugins, a plugin is one heap block whose first member is
// the VESK_Transport_Plugin handed out; it owns a deep copy of its record.
#include "vesk_transport/platform/Shmem.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <new>
#include <type_traits>

#include "vesk_transport/platform/Heap.h"
#include "vesk_transport/platform/Log.h"
#include "vesk_transport/platform/TransportInternal.hpp"

extern "C" {
static void shmemDelete(VESK_Transport_Plugin *self, void *reserved);
}

namespace {

constexpr const char *kFunction = "VESK_Transport_Shmem_newI";
constexpr const char *kPluginTypeName = "VESK_Transport_Shmem_Plugin";

struct ShmemPlugin {
    VESK_Transport_Plugin base;                // first: the pointer handed out
    VESK_Transport_Shmem_Property_t property;  // deep copy; base.property points into it
    std::atomic<VESK_Transport_Listener *> listener;
};
static_assert(std::is_standard_layout_v<ShmemPlugin>, "the plugin pointer must convert back");
static_assert(offsetof(ShmemPlugin, base) == 0);
static_assert(alignof(ShmemPlugin) <= alignof(std::max_align_t));

ShmemPlugin *shmemPlugin(VESK_Transport_Plugin *plugin) {
    if (plugin == nullptr || plugin->delete_cEA != shmemDelete) return nullptr;
    return reinterpret_cast<ShmemPlugin *>(plugin);
}

void releasePlugin(ShmemPlugin *plugin) {
    VESK_Transport_Shmem_Property_finalize(&plugin->property);
    plugin->~ShmemPlugin();
    KELOsapiHeap_freeMemoryInternal(plugin);
}

// The first reason why a shared-memory transport cannot run with the
// record, or nullptr.
const char *refusal(const VESK_Transport_Shmem_Property_t &property) {
    if (property.parent.classid != VESK_TRANSPORT_CLASSID_SHMEM) {
        return "parent.classid is not 0x01000000 (SHMEM)";
    }
    if (const char *generic = vesk::transport::checkGenericRecord(property.parent)) return generic;
    if (property.received_message_count_max < 1) return "received_message_count_max is below 1";
    // The receive buffer holds at least one whole message.
    if (property.receive_buffer_size < property.parent.message_size_max) {
        return "receive_buffer_size is below parent.message_size_max";
    }
    // A factor below 1 maps different ports to the same key.
    if (property.segmentKeyFactor < 1) return "segmentKeyFactor is below 1";
    if (property.semaphoreKeyFactor < 1) return "semaphoreKeyFactor is below 1";
    if (property.mutexKeyFactor < 1) return "mutexKeyFactor is below 1";
    switch (property.majorVersion) {
        case 1:
        case 2:
        case 4:
        case 5:
            break;
        default:
            return "majorVersion is not 1, 2, 4 or 5";
    }
    if (property.enable_udp_debugging != 0 &&
        (property.udp_debugging_port < 1 || property.udp_debugging_port > 65535)) {
        return "udp_debugging_port is outside 1..65535";
    }
    return nullptr;
}

// A key made from a port: offset + port * factor, usable when positive (0
// would be a private key, which no other process can open).
bool keyUsable(KEL_INT32 offset, KEL_INT32 factor, VESK_Transport_Port_t port) {
    const std::int64_t key =
        static_cast<std::int64_t>(offset) + static_cast<std::int64_t>(port) * factor;
    return key >= 1 && key <= INT32_MAX;
}

}  // namespace

extern "C" {

static void shmemDelete(VESK_Transport_Plugin *self, void *) {
    ShmemPlugin *plugin = shmemPlugin(self);
    if (plugin != nullptr) releasePlugin(plugin);
}

static const char *shmemGetClassName(VESK_Transport_Plugin *self) {
    return shmemPlugin(self) != nullptr ? "SHMEM" : nullptr;
}

static int shmemStringToAddress(VESK_Transport_Plugin *self, VESK_Transport_Address_t *address_out,
                                const char *address_in) {
    if (shmemPlugin(self) == nullptr || address_out == nullptr || address_in == nullptr) return 0;
    // Shared-memory addresses are 16 bytes; written like IPv6, or IPv4 for
    // the last four bytes.
    if (vesk::transport::parseIpv6Text(address_in, *address_out)) return 1;
    return vesk::transport::parseIpv4Text(address_in, false, *address_out) ? 1 : 0;
}

static int shmemGetReceiveInterfaces(VESK_Transport_Plugin *self, int *found_more_out,
                                     int *reported_count_out,
                                     struct VESK_Transport_Interface_t interfaces_inout[],
                                     int interface_array_size_in) {
    const ShmemPlugin *plugin = shmemPlugin(self);
    if (plugin == nullptr || found_more_out == nullptr || reported_count_out == nullptr ||
        interface_array_size_in < 0 ||
        (interfaces_inout == nullptr && interface_array_size_in > 0)) {
        return 0;
    }
    // The host's segment is the one interface, addressed by shmemUUID.
    if (interface_array_size_in < 1) {
        *found_more_out = 1;
        *reported_count_out = 0;
        return 1;
    }
    interfaces_inout[0] = {plugin->property.parent.classid, plugin->property.shmemUUID, 1};
    *found_more_out = 0;
    *reported_count_out = 1;
    return 1;
}

static int shmemIsValidEntryPort(VESK_Transport_Plugin *self, VESK_Transport_Port_t port_in) {
    const ShmemPlugin *plugin = shmemPlugin(self);
    if (plugin == nullptr) return 0;
    const VESK_Transport_Shmem_Property_t &p = plugin->property;
    return keyUsable(p.segmentKeyOffset, p.segmentKeyFactor, port_in) &&
                   keyUsable(p.semaphoreKeyOffset, p.semaphoreKeyFactor, port_in) &&
                   keyUsable(p.mutexKeyOffset, p.mutexKeyFactor, port_in)
               ? 1
               : 0;
}

static int shmemRegisterListener(VESK_Transport_Plugin *self, VESK_Transport_Listener *listener) {
    ShmemPlugin *plugin = shmemPlugin(self);
    if (plugin == nullptr) return 0;
    plugin->listener.store(listener);
    return 1;
}

int VESK_Transport_Shmem_Property_copy(struct VESK_Transport_Shmem_Property_t *dst,
                                       const struct VESK_Transport_Shmem_Property_t *src) {
    if (dst == nullptr || src == nullptr || dst == src) return 0;
    VESK_Transport_Shmem_Property_t copy = *src;
    if (!VESK_Transport_Property_copy(&copy.parent, &src->parent)) {
        copy.parent = vesk::transport::withoutOwnedMembers(src->parent);
        *dst = copy;
        return 0;
    }
    *dst = copy;
    return 1;
}

void VESK_Transport_Shmem_Property_finalize(struct VESK_Transport_Shmem_Property_t *record) {
    if (record == nullptr) return;
    VESK_Transport_Property_finalize(&record->parent);
}

VESK_Transport_Plugin *VESK_Transport_Shmem_newI(
    const struct VESK_Transport_Shmem_Property_t *property_in) {
    auto fail = [](const KELLogMessageTemplate &message_template, const char *reason) {
        vesk::transport::logError(message_template, kFunction, __FILE__, __LINE__, "SHMEM", reason);
        return nullptr;
    };
    // Nothing here throws: the checks and the logger allocate nothing.
    if (property_in == nullptr) return fail(KEL_LOG_CREATION_FAILURE_s, "property_in is NULL");
    if (const char *reason = refusal(*property_in)) {
        return fail(KEL_LOG_CREATION_FAILURE_s, reason);
    }
    void *memory = KELOsapiHeap_reallocateMemoryInternal(nullptr, 1, sizeof(ShmemPlugin),
                                                         kPluginTypeName, VESK_TRANSPORT_HEAP_TAG);
    if (memory == nullptr) return fail(KEL_LOG_ANY_FAILURE_s, "out of memory");
    auto *plugin = new (memory) ShmemPlugin{};
    if (!VESK_Transport_Shmem_Property_copy(&plugin->property, property_in)) {
        releasePlugin(plugin);
        return fail(KEL_LOG_ANY_FAILURE_s, "out of memory");
    }
    VESK_Transport_Plugin &base = plugin->base;
    vesk::transport::fillCommonOperations(base);
    base.property = &plugin->property.parent;
    base.get_class_name_cEA = shmemGetClassName;
    base.string_to_address_cEA = shmemStringToAddress;
    base.get_receive_interfaces_cEA = shmemGetReceiveInterfaces;
    base.is_valid_entry_port = shmemIsValidEntryPort;
    base.register_listener_cEA = shmemRegisterListener;
    base.delete_cEA = shmemDelete;
    base.multicastInterfaceEnabled = 0;  // shared memory has no multicast
    return &base;
}

}  // extern "C"
