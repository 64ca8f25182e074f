// Participants for the tests of the participant API and the run-time
// control: made without builtin transports, deleted when out of scope.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "support/SetupChecks.hpp"
#include "vesk_transport/Support.h"

namespace vesk::test {

struct ParticipantDeleter {
    void operator()(DDS_DomainParticipant *p) const { DDS_DomainParticipant_delete(p); }
};
using ParticipantPtr = std::unique_ptr<DDS_DomainParticipant, ParticipantDeleter>;

inline ParticipantPtr makeParticipant(int withoutConfigurator = 0, int withoutWorker = 0) {
    DDS_DomainParticipantOptions options = DDS_DOMAINPARTICIPANT_OPTIONS_DEFAULT;
    options.transport_builtin_mask = 0;  // no builtin transport to build on enable
    options.without_netio_configurator = withoutConfigurator;
    options.without_worker = withoutWorker;
    return ParticipantPtr(DDS_DomainParticipant_create(&options));
}

// A plugin of any class that the tests own; the configurator leaves it
// alone on deletion because it has no delete_cEA.
struct TestPlugin {
    VESK_Transport_Property_t property{};
    VESK_Transport_Plugin plugin{};
    explicit TestPlugin(VESK_Transport_ClassId_t classid) {
        property.classid = classid;
        plugin.property = &property;
    }
};

// An owning string sequence that releases itself.
struct Aliases {
    DDS_StringSeq seq = DDS_SEQUENCE_INITIALIZER;
    Aliases(std::initializer_list<std::string> names) {
        for (const std::string &name : names) EXPECT_TRUE(DDS_StringSeq_append(&seq, name.c_str()));
    }
    ~Aliases() { DDS_StringSeq_finalize(&seq); }
};

inline VESK_Transport_Address_t address(unsigned char last) {
    VESK_Transport_Address_t out{};
    out.network_ordered_value[15] = last;
    return out;
}

inline bool isValid(const VESK_Transport_Handle_t &h) {
    return h._participant != nullptr && h._plugin_handle._manager != nullptr &&
           h._plugin_handle._index != 0xFFFFFFFFu;
}

// Installs a plugin under one alias; the handle of the installation.
inline VESK_Transport_Handle_t install(DDS_DomainParticipant *participant,
                                       VESK_Transport_Plugin *plugin, const char *alias) {
    Aliases aliases{alias};
    const VESK_Transport_Address_t networkAddress = address(1);
    const VESK_Transport_Handle_t handle = VESK_Transport_Support_register_transport(
        participant, plugin, &aliases.seq, &networkAddress);
    EXPECT_TRUE(isValid(handle)) << alias;
    return handle;
}

// A call and what it must answer: its result, and the one message it logs
// ("" for none), as describe() gives it.
struct Answer {
    std::function<long()> call;
    long result;
    std::string message;
};
inline void expectAnswers(const std::vector<Answer> &rows) {
    for (const Answer &row : rows) {
        SCOPED_TRACE(testing::Message() << "row " << &row - rows.data() << ": " << row.message);
        LogCapture log;
        EXPECT_EQ(row.result, row.call());
        EXPECT_EQ(row.message.empty() ? std::vector<std::string>{} : std::vector{row.message},
                  describeAll(log));
    }
}

}  // namespace vesk::test
