// Allocation-failure sweeps over the factories and the property setups:
// every allocation of a successful run is refused once, and each refusal
// must end in a clean failure (null plugin or -1, an error logged, nothing
// left allocated once the record's cleanup ran). The parsers have their
// sweeps in test_comm_ports.cpp and test_interface_list.cpp.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "support/AllocationSweep.hpp"
#include "support/EveryProperty.hpp"
#include "support/TestSupport.hpp"
#include "vesk_transport/Support.h"

namespace {

using vesk::test::acceptedSuffixes;
using vesk::test::Class;
using vesk::test::LogCapture;
using vesk::test::LogEntry;
using vesk::test::sweepAllocationFailures;
using vesk::test::SweepStep;
using vesk::test::SweepSummary;
using vesk::test::valueFor;

// ---------------------------------------------------------------------------
// Property lists that set every property a class reads (values from
// support/EveryProperty.hpp)
// ---------------------------------------------------------------------------

class Properties {
public:
    Properties() = default;
    ~Properties() { DDS_PropertyQosPolicy_finalize(&policy_); }
    Properties(const Properties &) = delete;
    Properties &operator=(const Properties &) = delete;

    void add(const std::string &name, const std::string &value) {
        ASSERT_EQ(DDS_RETCODE_OK, DDS_PropertyQosPolicyHelper_add_property(
                                      &policy_, name.c_str(), value.c_str(), DDS_BOOLEAN_FALSE))
            << name;
    }
    const DDS_PropertyQosPolicy *get() const { return &policy_; }

private:
    DDS_PropertyQosPolicy policy_ = DDS_PropertyQosPolicy_INITIALIZER;
};

constexpr const char *PREFIX = "dds.transport.sweep";

// Every accepted suffix of the class, named plainly, or under PREFIX. Under
// a prefix the names are not validated and every UDP class reads the WAN
// rows too, so a prefixed UDP list sets the WAN properties for all three.
void fillEveryProperty(Properties &properties, Class cls, bool prefixed) {
    std::vector<std::string> suffixes = acceptedSuffixes(cls);
    if (prefixed && cls != Class::shmem) {
        for (const std::string &suffix : acceptedSuffixes(Class::udpv4Wan)) {
            if (std::find(suffixes.begin(), suffixes.end(), suffix) == suffixes.end()) {
                suffixes.push_back(suffix);
            }
        }
    }
    for (const std::string &suffix : suffixes) {
        properties.add(prefixed ? std::string(PREFIX) + "." + suffix : suffix,
                       valueFor(suffix, cls));
    }
}

KEL_UINT64 totalAllocations() {
    KELOsapiHeapStatistics statistics{};
    KELOsapiHeap_getStatistics(&statistics);
    return statistics.total_allocations;
}

bool loggedAtLevel(const std::vector<LogEntry> &entries, KEL_UINT32 level) {
    for (const LogEntry &entry : entries) {
        if (entry.level == level) return true;
    }
    return false;
}

struct UdpFactoryRow {
    const char *name;
    Class cls;
    VESK_Transport_ClassId_t classid;
    VESK_Transport_Plugin *(*create)(VESK_Transport_Address_t *, const DDS_PropertyQosPolicy *,
                                     const char *);
    const char *factoryFunction;
    const char *constructorFunction;
};

const UdpFactoryRow UDP_FACTORIES[] = {
    {"UDPv4", Class::udpv4, VESK_TRANSPORT_CLASSID_UDPv4,
     VESK_Transport_UDPv4_create_from_properties_with_prefix,
     "VESK_Transport_UDPv4_create_from_properties_with_prefix", "VESK_Transport_UDPv4_newI"},
    {"UDPv4_WAN", Class::udpv4Wan, VESK_TRANSPORT_CLASSID_UDPv4_WAN,
     VESK_Transport_UDPv4_WAN_create_from_properties_with_prefix,
     "VESK_Transport_UDPv4_WAN_create_from_properties_with_prefix",
     "VESK_Transport_UDPv4_WAN_newI"},
    {"UDPv6", Class::udpv6, VESK_TRANSPORT_CLASSID_UDPv6,
     VESK_Transport_UDPv6_create_from_properties_with_prefix,
     "VESK_Transport_UDPv6_create_from_properties_with_prefix", "VESK_Transport_UDPv6_newI"},
};

// ---------------------------------------------------------------------------
// The value table
// ---------------------------------------------------------------------------

TEST(ValueTable, CoversEveryAcceptedSuffix) {
    for (Class cls : {Class::udpv4, Class::udpv4Wan, Class::udpv6, Class::shmem}) {
        for (const std::string &suffix : acceptedSuffixes(cls)) {
            EXPECT_FALSE(valueFor(suffix, cls).empty()) << "no sweep value for " << suffix;
        }
    }
}

// ---------------------------------------------------------------------------
// Factories
// ---------------------------------------------------------------------------

struct FactoryOutcome {
    VESK_Transport_Plugin *plugin = nullptr;
    std::vector<LogEntry> log;
};

// A refused allocation ends in a null plugin and an error of the factory or
// of the constructor; never in a precondition failure.
void checkFactoryRun(const SweepStep &step, const FactoryOutcome &outcome,
                     VESK_Transport_ClassId_t classid, const char *factoryFunction,
                     const char *constructorFunction) {
    if (!step.failed) {
        ASSERT_NE(outcome.plugin, nullptr);
        ASSERT_NE(outcome.plugin->property, nullptr);
        EXPECT_EQ(outcome.plugin->property->classid, classid);
        // Only the warning that lo (the one interface allowed) has no multicast.
        for (const LogEntry &entry : outcome.log) {
            EXPECT_EQ(entry.level, static_cast<KEL_UINT32>(KEL_LOG_BIT_WARN)) << entry.text;
        }
        return;
    }
    EXPECT_EQ(outcome.plugin, nullptr);
    ASSERT_FALSE(outcome.log.empty()) << "a refused allocation was not reported";
    EXPECT_FALSE(loggedAtLevel(outcome.log, KEL_LOG_BIT_EXCEPTION)) << outcome.log.front().text;
    // Some message names the shortage itself.
    static const std::set<std::string> shortageTemplates = {
        "DDS_LOG_OUT_OF_RESOURCES_s", "KEL_LOG_CREATION_FAILURE_s", "KEL_LOG_ANY_FAILURE_s",
        "KEL_LOG_ANY_FAILURE_ss"};
    EXPECT_TRUE(std::any_of(outcome.log.begin(), outcome.log.end(), [](const LogEntry &entry) {
        return shortageTemplates.count(entry.template_name) != 0;
    })) << outcome.log.back().text;
    // A failed setup is followed by exactly one creation failure of the
    // factory; a failed constructor by none.
    const LogEntry &last = outcome.log.back();
    EXPECT_EQ(last.level, static_cast<KEL_UINT32>(KEL_LOG_BIT_ERROR));
    const auto factoryMessages =
        std::count_if(outcome.log.begin(), outcome.log.end(),
                      [&](const LogEntry &entry) { return entry.function == factoryFunction; });
    if (last.function == factoryFunction) {
        EXPECT_EQ(last.template_name, "KEL_LOG_CREATION_FAILURE_s");
        EXPECT_EQ(factoryMessages, 1);
    } else {
        EXPECT_EQ(last.function, constructorFunction) << last.text;
        EXPECT_EQ(factoryMessages, 0);
    }
}

void releasePlugin(FactoryOutcome &outcome) {
    if (outcome.plugin != nullptr) outcome.plugin->delete_cEA(outcome.plugin, nullptr);
    outcome.plugin = nullptr;
}

TEST(FactorySweep, UdpFactoriesWithEveryProperty) {
    for (const UdpFactoryRow &row : UDP_FACTORIES) {
        for (bool prefixed : {false, true}) {
            SCOPED_TRACE(std::string(row.name) + (prefixed ? " with prefix" : " without prefix"));
            Properties properties;
            fillEveryProperty(properties, row.cls, prefixed);
            const char *prefix = prefixed ? PREFIX : nullptr;

            // A clean run first: the sweep must refuse each of its allocations.
            const KEL_UINT64 allocationsBefore = totalAllocations();
            VESK_Transport_Plugin *reference = row.create(nullptr, properties.get(), prefix);
            const KEL_UINT64 allocations = totalAllocations() - allocationsBefore;
            ASSERT_NE(reference, nullptr);
            reference->delete_cEA(reference, nullptr);

            const SweepSummary summary = sweepAllocationFailures(
                [&] {
                    LogCapture capture(VESK_CONFIG_LOG_VERBOSITY_WARNING);
                    FactoryOutcome outcome;
                    outcome.plugin = row.create(nullptr, properties.get(), prefix);
                    outcome.log = capture.entries();
                    return outcome;
                },
                [&](const SweepStep &step, FactoryOutcome &outcome) {
                    checkFactoryRun(step, outcome, row.classid, row.factoryFunction,
                                    row.constructorFunction);
                },
                releasePlugin);
            EXPECT_TRUE(summary.completed);
            EXPECT_EQ(static_cast<KEL_UINT64>(summary.failurePoints), allocations);
            // Four lists, their pieces, the prefix and the plugin at least.
            EXPECT_GT(summary.failurePoints, 20);
        }
    }
}

TEST(FactorySweep, UdpFactoriesWithAnEmptyList) {
    for (const UdpFactoryRow &row : UDP_FACTORIES) {
        SCOPED_TRACE(row.name);
        const DDS_PropertyQosPolicy empty = DDS_PropertyQosPolicy_INITIALIZER;
        const SweepSummary summary = sweepAllocationFailures(
            [&] {
                LogCapture capture(VESK_CONFIG_LOG_VERBOSITY_WARNING);
                FactoryOutcome outcome;
                outcome.plugin = row.create(nullptr, &empty, nullptr);
                outcome.log = capture.entries();
                return outcome;
            },
            [&](const SweepStep &step, FactoryOutcome &outcome) {
                checkFactoryRun(step, outcome, row.classid, row.factoryFunction,
                                row.constructorFunction);
            },
            releasePlugin);
        EXPECT_TRUE(summary.completed);
        EXPECT_GE(summary.failurePoints, 2);  // the default thread-name prefix and the plugin
    }
}

TEST(FactorySweep, ShmemFactoryWithEveryProperty) {
    Properties properties;
    fillEveryProperty(properties, Class::shmem, false);
    const DDS_ProductVersion_t minimum = {6, 1, 0, 0};

    const KEL_UINT64 allocationsBefore = totalAllocations();
    VESK_Transport_Plugin *reference =
        VESK_Transport_Shmem_create(nullptr, properties.get(), &minimum);
    const KEL_UINT64 allocations = totalAllocations() - allocationsBefore;
    ASSERT_NE(reference, nullptr);
    reference->delete_cEA(reference, nullptr);

    const SweepSummary summary = sweepAllocationFailures(
        [&] {
            LogCapture capture(VESK_CONFIG_LOG_VERBOSITY_WARNING);
            FactoryOutcome outcome;
            outcome.plugin = VESK_Transport_Shmem_create(nullptr, properties.get(), &minimum);
            outcome.log = capture.entries();
            return outcome;
        },
        [&](const SweepStep &step, FactoryOutcome &outcome) {
            checkFactoryRun(step, outcome, VESK_TRANSPORT_CLASSID_SHMEM,
                            "VESK_Transport_Shmem_create", "VESK_Transport_Shmem_newI");
        },
        releasePlugin);
    EXPECT_TRUE(summary.completed);
    EXPECT_EQ(static_cast<KEL_UINT64>(summary.failurePoints), allocations);
    EXPECT_GT(summary.failurePoints, 20);
}

// ---------------------------------------------------------------------------
// Setups
// ---------------------------------------------------------------------------

struct ListField {
    const char *name;
    char **VESK_Transport_Property_t::*list;
    KEL_INT32 VESK_Transport_Property_t::*length;
    KEL_INT32 VESK_Transport_internalMemoryAllocations::*flag;
};

const ListField LIST_FIELDS[] = {
    {"allow_interfaces_list", &VESK_Transport_Property_t::allow_interfaces_list,
     &VESK_Transport_Property_t::allow_interfaces_list_length,
     &VESK_Transport_internalMemoryAllocations::_allowInterfacesListAllocated},
    {"deny_interfaces_list", &VESK_Transport_Property_t::deny_interfaces_list,
     &VESK_Transport_Property_t::deny_interfaces_list_length,
     &VESK_Transport_internalMemoryAllocations::_denyInterfacesListAllocated},
    {"allow_multicast_interfaces_list", &VESK_Transport_Property_t::allow_multicast_interfaces_list,
     &VESK_Transport_Property_t::allow_multicast_interfaces_list_length,
     &VESK_Transport_internalMemoryAllocations::_allowMulticastInterfacesListAllocated},
    {"deny_multicast_interfaces_list", &VESK_Transport_Property_t::deny_multicast_interfaces_list,
     &VESK_Transport_Property_t::deny_multicast_interfaces_list_length,
     &VESK_Transport_internalMemoryAllocations::_denyMulticastInterfacesListAllocated},
};

std::vector<std::string> listContents(const VESK_Transport_Property_t &parent,
                                      const ListField &field) {
    std::vector<std::string> out;
    char **list = parent.*field.list;
    for (KEL_INT32 i = 0; list != nullptr && i < parent.*field.length; ++i) {
        out.emplace_back(list[i] != nullptr ? list[i] : "(null)");
    }
    return out;
}

// What a setup left in the generic part: every list it allocated is
// flagged and whole.
void checkParentLists(const VESK_Transport_Property_t &parent,
                      const VESK_Transport_internalMemoryAllocations &flags) {
    for (const ListField &field : LIST_FIELDS) {
        SCOPED_TRACE(field.name);
        char **list = parent.*field.list;
        if (list == nullptr) {
            EXPECT_EQ(parent.*field.length, 0);
            EXPECT_EQ(flags.*field.flag, 0);
            continue;
        }
        EXPECT_EQ(flags.*field.flag, 1);
        for (KEL_INT32 i = 0; i < parent.*field.length; ++i) EXPECT_NE(list[i], nullptr);
    }
}

void checkParentReleased(const VESK_Transport_Property_t &parent) {
    for (const ListField &field : LIST_FIELDS) {
        EXPECT_EQ(parent.*field.list, nullptr) << field.name;
        EXPECT_EQ(parent.*field.length, 0) << field.name;
    }
    EXPECT_EQ(parent.thread_name_prefix, nullptr);
}

struct UdpSetupOutcome {
    int result = 0;
    VESK_Transport_UDP_Property_t record{};
    VESK_Transport_internalMemoryAllocations flags{};
    std::vector<LogEntry> log;
};

struct UdpSetupRow {
    const char *name;
    Class cls;
    const VESK_Transport_UDP_Property_t *defaults;
    int (*setup)(VESK_Transport_UDP_Property_t *, VESK_Transport_internalMemoryAllocations *,
                 const DDS_PropertyQosPolicy *, const char *);
    void (*cleanup)(VESK_Transport_UDP_Property_t *,
                    const VESK_Transport_internalMemoryAllocations *);
};

const UdpSetupRow UDP_SETUPS[] = {
    {"UDPv4", Class::udpv4, &VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT,
     VESK_Transport_setupUDPv4Property, VESK_Transport_cleanupUDPv4Property},
    {"UDPv4_WAN", Class::udpv4Wan, &VESK_TRANSPORT_UDPV4_WAN_PROPERTY_DEFAULT,
     VESK_Transport_setupUDPv4WanProperty, VESK_Transport_cleanupUDPv4WanProperty},
    {"UDPv6", Class::udpv6, &VESK_TRANSPORT_UDPV6_PROPERTY_DEFAULT,
     VESK_Transport_setupUDPv6Property, VESK_Transport_cleanupUDPv6Property},
};

TEST(SetupSweep, UdpSetupsWithEveryProperty) {
    for (const UdpSetupRow &row : UDP_SETUPS) {
        for (bool prefixed : {false, true}) {
            SCOPED_TRACE(std::string(row.name) + (prefixed ? " with prefix" : " without prefix"));
            Properties properties;
            fillEveryProperty(properties, row.cls, prefixed);
            const char *prefix = prefixed ? PREFIX : nullptr;
            auto run = [&] {
                LogCapture capture(VESK_CONFIG_LOG_VERBOSITY_WARNING);
                UdpSetupOutcome outcome;
                outcome.record = *row.defaults;
                outcome.result =
                    row.setup(&outcome.record, &outcome.flags, properties.get(), prefix);
                outcome.log = capture.entries();
                return outcome;
            };
            auto release = [&](UdpSetupOutcome &outcome) {
                row.cleanup(&outcome.record, &outcome.flags);
                checkParentReleased(outcome.record.parent);
                EXPECT_EQ(outcome.record.public_address, nullptr);
                EXPECT_EQ(outcome.record.comm_ports_list, nullptr);
            };

            // The plain UDPv4 and UDPv6 lists hold no WAN names.
            const KEL_INT32 mappings = prefixed || row.cls == Class::udpv4Wan ? 3 : 0;
            UdpSetupOutcome reference = run();
            EXPECT_GT(reference.result, 0);
            EXPECT_EQ(reference.record.comm_ports_list_length, mappings);
            for (const ListField &field : LIST_FIELDS) {
                EXPECT_FALSE(listContents(reference.record.parent, field).empty()) << field.name;
            }

            const SweepSummary summary = sweepAllocationFailures(
                run,
                [&](const SweepStep &step, UdpSetupOutcome &outcome) {
                    checkParentLists(outcome.record.parent, outcome.flags);
                    EXPECT_EQ(outcome.record.public_address != nullptr,
                              outcome.flags._publicAddressAllocated != 0);
                    if (!step.failed) {
                        EXPECT_EQ(outcome.result, reference.result);
                        for (const ListField &field : LIST_FIELDS) {
                            EXPECT_EQ(listContents(outcome.record.parent, field),
                                      listContents(reference.record.parent, field))
                                << field.name;
                        }
                        EXPECT_EQ(outcome.record.comm_ports_list_length, mappings);
                        return;
                    }
                    EXPECT_EQ(outcome.result, -1);
                    // A failed setup hands back no port list.
                    EXPECT_EQ(outcome.record.comm_ports_list, nullptr);
                    ASSERT_FALSE(outcome.log.empty());
                    EXPECT_FALSE(loggedAtLevel(outcome.log, KEL_LOG_BIT_EXCEPTION));
                    EXPECT_EQ(outcome.log.back().level, static_cast<KEL_UINT32>(KEL_LOG_BIT_ERROR));
                },
                release);
            release(reference);
            EXPECT_TRUE(summary.completed);
            EXPECT_GT(summary.failurePoints, 20);
        }
    }
}

struct ShmemSetupOutcome {
    int result = 0;
    VESK_Transport_Shmem_Property_t record{};
    VESK_Transport_internalMemoryAllocations flags{};
    std::vector<LogEntry> log;
};

TEST(SetupSweep, ShmemSetupWithEveryPropertyAndAWireProtocol) {
    Properties properties;
    fillEveryProperty(properties, Class::shmem, false);
    const DDS_ProductVersion_t minimum = {5, 0, 0, 0};
    const DDS_WireProtocolQosPolicy wireProtocol = DDS_WireProtocolQosPolicy_INITIALIZER;
    DDS_RtpsAppIdGenerator *generator = DDS_RtpsAppIdGenerator_new();
    ASSERT_NE(generator, nullptr);
    DDS_RtpsAppIdGenerator_set_host_ids(generator, 0x0A000001u, 0x0A000002u);

    auto run = [&] {
        LogCapture capture(VESK_CONFIG_LOG_VERBOSITY_WARNING);
        ShmemSetupOutcome outcome;
        outcome.record = VESK_TRANSPORT_SHMEM_PROPERTY_DEFAULT;
        outcome.result = VESK_Transport_setupShmemProperty(
            &outcome.record, &outcome.flags, properties.get(), &wireProtocol, generator, &minimum);
        outcome.log = capture.entries();
        return outcome;
    };
    auto release = [](ShmemSetupOutcome &outcome) {
        VESK_Transport_cleanupShmemProperty(&outcome.record, &outcome.flags);
        checkParentReleased(outcome.record.parent);
    };
    ShmemSetupOutcome reference = run();
    EXPECT_GT(reference.result, 0);

    const SweepSummary summary = sweepAllocationFailures(
        run,
        [&](const SweepStep &step, ShmemSetupOutcome &outcome) {
            checkParentLists(outcome.record.parent, outcome.flags);
            if (!step.failed) {
                EXPECT_EQ(outcome.result, reference.result);
                EXPECT_EQ(outcome.record.majorVersion, reference.record.majorVersion);
                EXPECT_EQ(std::memcmp(&outcome.record.shmemUUID, &reference.record.shmemUUID,
                                      sizeof reference.record.shmemUUID),
                          0);
                return;
            }
            EXPECT_EQ(outcome.result, -1);
            ASSERT_FALSE(outcome.log.empty());
            EXPECT_FALSE(loggedAtLevel(outcome.log, KEL_LOG_BIT_EXCEPTION));
        },
        release);
    release(reference);
    DDS_RtpsAppIdGenerator_delete(generator);
    EXPECT_TRUE(summary.completed);
    EXPECT_GT(summary.failurePoints, 10);
}

}  // namespace
