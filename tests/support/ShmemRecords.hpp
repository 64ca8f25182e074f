// Shared-memory records rendered field by field (generic part first), for
// comparisons in the shared-memory tests.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/SetupChecks.hpp"
#include "vesk_transport/Support.h"

namespace vesk::test {

using Shmem = VESK_Transport_Shmem_Property_t;

struct ShmemField {
    const char *name;
    std::string (*render)(const Shmem &record);
};

#define SHMEM_NUMBER_FIELD(path)                                     \
    ShmemField {                                                     \
#path, [](const Shmem &r) { return std::to_string(r.path); } \
    }

// The shared-memory fields after the generic part.
inline const std::vector<ShmemField> &ownFields() {
    static const std::vector<ShmemField> fields = {
        SHMEM_NUMBER_FIELD(received_message_count_max),
        SHMEM_NUMBER_FIELD(receive_buffer_size),
        SHMEM_NUMBER_FIELD(enable_udp_debugging),
        {"udp_debugging_address",
         [](const Shmem &r) {
             return renderBytes(r.udp_debugging_address.network_ordered_value, 16);
         }},
        SHMEM_NUMBER_FIELD(udp_debugging_port),
        SHMEM_NUMBER_FIELD(segmentKeyOffset),
        SHMEM_NUMBER_FIELD(segmentKeyFactor),
        SHMEM_NUMBER_FIELD(semaphoreKeyOffset),
        SHMEM_NUMBER_FIELD(semaphoreKeyFactor),
        SHMEM_NUMBER_FIELD(mutexKeyOffset),
        SHMEM_NUMBER_FIELD(mutexKeyFactor),
        SHMEM_NUMBER_FIELD(maxAllowedWriterDurationMillisec),
        SHMEM_NUMBER_FIELD(reserved),
        {"shmemUUID",
         [](const Shmem &r) { return renderBytes(r.shmemUUID.network_ordered_value, 16); }},
        SHMEM_NUMBER_FIELD(majorVersion),
    };
    return fields;
}

#undef SHMEM_NUMBER_FIELD

// Every field, generic part first, rendered by content.
inline std::vector<std::pair<std::string, std::string>> render(const Shmem &record) {
    std::vector<std::pair<std::string, std::string>> out;
    VESK_Transport_UDP_Property_t carrier = VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT;
    carrier.parent = record.parent;
    for (const auto &field : vesk::test::udpFields()) {
        if (std::string(field.name).rfind("parent.", 0) == 0) {
            out.emplace_back(field.name, field.render(carrier));
        }
    }
    for (const ShmemField &field : ownFields()) out.emplace_back(field.name, field.render(record));
    return out;
}

inline std::string field(const Shmem &record, const std::string &name) {
    for (const auto &[fieldName, value] : render(record)) {
        if (fieldName == name) return value;
    }
    ADD_FAILURE() << "no field " << name;
    return {};
}

inline std::vector<std::string> differences(const Shmem &left, const Shmem &right) {
    const auto a = render(left);
    const auto b = render(right);
    std::vector<std::string> out;
    for (size_t i = 0; i < a.size(); ++i) {
        if (a[i].second != b[i].second) out.push_back(a[i].first);
    }
    return out;
}

}  // namespace vesk::test
