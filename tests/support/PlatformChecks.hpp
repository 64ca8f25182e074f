// Helpers for the platform component tests: log lines, hex, allocation
// refusal and a heap-allocated fake plugin whose deletions are counted.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "support/TestSupport.hpp"
#include "vesk_transport/platform/Configurator.h"
#include "vesk_transport/platform/Heap.h"

namespace vesk::test {

// "level function TEMPLATE(param|param)" per captured message.
inline std::vector<std::string> logLines(const LogCapture &capture) {
    std::vector<std::string> out;
    for (const LogEntry &entry : capture.entries()) {
        out.push_back(std::to_string(entry.level) + " " + entry.function + " " +
                      summarize(entry.template_name, entry.params));
    }
    return out;
}

inline std::string hex(const void *bytes, size_t count) {
    std::string text;
    char digits[3];
    for (size_t i = 0; i < count; ++i) {
        std::snprintf(digits, sizeof digits, "%02x", static_cast<const unsigned char *>(bytes)[i]);
        text += digits;
    }
    return text;
}
inline std::string hex(const VESK_Transport_Address_t &address) {
    return hex(address.network_ordered_value, 16);
}

inline int sign(int value) {
    return (value > 0) - (value < 0);
}

// Runs call() with this thread's n-th next allocation refused; true when it was reached.
template <typename Call>
bool refusing(long n, Call &&call) {
    KELOsapiHeap_failAllocationAfter(n);
    call();
    const bool refused = KELOsapiHeap_isFailurePending() == 0;
    KELOsapiHeap_failAllocationAfter(0);
    return refused;
}

// On the library heap, so leaks show; every delete_cEA call is counted.
struct FakePlugin {
    VESK_Transport_Plugin plugin;
    VESK_Transport_Property_t property;
    static inline int deletions = 0;
    static void destroy(VESK_Transport_Plugin *self, void *reserved) {
        EXPECT_EQ(reserved, nullptr);
        ++deletions;
        KELOsapiHeap_freeMemoryInternal(self);
    }
    static VESK_Transport_Plugin *make(VESK_Transport_ClassId_t classid = 0x7000) {
        auto *fake = static_cast<FakePlugin *>(KELOsapiHeap_reallocateMemoryInternal(
            nullptr, 1, sizeof(FakePlugin), "FakePlugin", VESK_TRANSPORT_HEAP_TAG));
        fake->property.classid = classid;
        fake->plugin.property = &fake->property;
        fake->plugin.delete_cEA = &destroy;
        return &fake->plugin;
    }
};

inline KELNetioAliasList aliasList(const char *text) {
    KELNetioAliasList list;
    std::memset(&list, 0, sizeof list);
    std::strncpy(list.element, text, KEL_NETIO_ALIAS_LIST_LENGTH_MAX);
    return list;
}

}  // namespace vesk::test
