// The shared-memory transport module: record copy and the plugin.
//
// The plugin itself (resources, send, receive) is in shmem/.
#include "vesk_transport/platform/Shmem.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <new>
#include <type_traits>

#include "vesk_transport/platform/Heap.h"
#include "vesk_transport/platform/Log.h"
#include "vesk_transport/platform/TransportInternal.hpp"
#include "vesk_transport/platform/shmem/Plugin.hpp"

namespace {

constexpr const char *kFunction = "VESK_Transport_Shmem_newI";

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
    if (property.enable_udp_debugging != 0 &&
        !vesk::shmem::debuggingAddressAllowed(property.udp_debugging_address)) {
        return "udp_debugging_address must be an IPv4 multicast or loopback address";
    }
    return nullptr;
}

}  // namespace

extern "C" {

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
    return vesk::shmem::makePlugin(*property_in);
}

}  // extern "C"
