// Benchmarks of the transport-support module (Google Benchmark).
//
// Names (scripts/bench.sh reads them back):
//   Factory/<class>/empty            a factory (create + delete) with an empty list
//   Factory/<class>/every            ... with every property of the class set
//   Factory/<class>/<mode>/<N>       ... with N unrelated properties
//   Setup/<class>/<mode>/<N>         the setup and cleanup alone, same lists
//   Baseline/<N>                     one walk over the same list, comparing every name
//   CommPortsJson/<M>                the port-mapping parser with M mappings
//   Statistics/...                   the statistics reads and the traffic count
// <mode> is "prefixed" (the factory gets a prefix; unrelated names are not
// under it and are not validated) or "unprefixed" (the list is the
// transport's own, so every name is validated: the list also holds the
// validation action WARNING, and the logger is silenced, so unknown names
// cost their validation but print nothing).

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/EveryProperty.hpp"
#include "vesk_transport/Support.h"
#include "vesk_transport/platform/Heap.h"
#include "vesk_transport/platform/Log.h"

namespace {

using vesk::test::Class;

constexpr const char *PREFIX = "dds.transport.bench";

class Properties {
public:
    Properties() = default;
    ~Properties() { DDS_PropertyQosPolicy_finalize(&policy_); }
    Properties(const Properties &) = delete;
    Properties &operator=(const Properties &) = delete;
    void add(const std::string &name, const std::string &value) {
        if (DDS_PropertyQosPolicyHelper_add_property(&policy_, name.c_str(), value.c_str(),
                                                     DDS_BOOLEAN_FALSE) != DDS_RETCODE_OK) {
            std::fprintf(stderr, "cannot add %s\n", name.c_str());
            std::abort();
        }
    }
    const DDS_PropertyQosPolicy *get() const { return &policy_; }
    DDS_Long size() const { return policy_.value._length; }

private:
    DDS_PropertyQosPolicy policy_ = DDS_PropertyQosPolicy_INITIALIZER;
};

// Lists are built once per shape: adding N names one by one costs N^2/2
// comparisons, which must stay out of the timings.
const Properties &unrelatedList(long count, bool validated) {
    static std::map<std::pair<long, bool>, std::unique_ptr<Properties>> cache;
    std::unique_ptr<Properties> &slot = cache[{count, validated}];
    if (!slot) {
        slot = std::make_unique<Properties>();
        if (validated) slot->add(DDS_PROPERTY_VALIDATION_ACTION_PROPERTY_NAME, "WARNING");
        char name[64];
        for (long i = 0; i < count; ++i) {
            std::snprintf(name, sizeof name, "com.example.application.setting_%06ld", i);
            slot->add(name, "value");
        }
    }
    return *slot;
}

const Properties &everyList(Class cls) {
    static std::map<Class, std::unique_ptr<Properties>> cache;
    std::unique_ptr<Properties> &slot = cache[cls];
    if (!slot) {
        slot = std::make_unique<Properties>();
        for (const std::string &suffix : vesk::test::acceptedSuffixes(cls)) {
            slot->add(suffix, vesk::test::valueFor(suffix, cls));
        }
    }
    return *slot;
}

struct FactoryRow {
    const char *name;
    Class cls;
    VESK_Transport_Plugin *(*create)(VESK_Transport_Address_t *, const DDS_PropertyQosPolicy *,
                                     const char *);
    int (*setup)(VESK_Transport_UDP_Property_t *, VESK_Transport_internalMemoryAllocations *,
                 const DDS_PropertyQosPolicy *, const char *);
    void (*cleanup)(VESK_Transport_UDP_Property_t *,
                    const VESK_Transport_internalMemoryAllocations *);
    const VESK_Transport_UDP_Property_t *defaults;
};

VESK_Transport_Plugin *shmemCreate(VESK_Transport_Address_t *,
                                   const DDS_PropertyQosPolicy *properties, const char *) {
    return VESK_Transport_Shmem_create(nullptr, properties, nullptr);
}

const FactoryRow FACTORIES[] = {
    {"UDPv4", Class::udpv4, VESK_Transport_UDPv4_create_from_properties_with_prefix,
     VESK_Transport_setupUDPv4Property, VESK_Transport_cleanupUDPv4Property,
     &VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT},
    {"UDPv4_WAN", Class::udpv4Wan, VESK_Transport_UDPv4_WAN_create_from_properties_with_prefix,
     VESK_Transport_setupUDPv4WanProperty, VESK_Transport_cleanupUDPv4WanProperty,
     &VESK_TRANSPORT_UDPV4_WAN_PROPERTY_DEFAULT},
    {"UDPv6", Class::udpv6, VESK_Transport_UDPv6_create_from_properties_with_prefix,
     VESK_Transport_setupUDPv6Property, VESK_Transport_cleanupUDPv6Property,
     &VESK_TRANSPORT_UDPV6_PROPERTY_DEFAULT},
    {"SHMEM", Class::shmem, shmemCreate, nullptr, nullptr, nullptr},
};

void createAndDelete(benchmark::State &state, const FactoryRow &row,
                     const DDS_PropertyQosPolicy *properties, const char *prefix) {
    for (auto _ : state) {
        VESK_Transport_Plugin *plugin = row.create(nullptr, properties, prefix);
        if (plugin == nullptr) {
            state.SkipWithError("the factory failed");
            return;
        }
        plugin->delete_cEA(plugin, nullptr);
    }
}

void setupAndCleanup(benchmark::State &state, const FactoryRow &row,
                     const DDS_PropertyQosPolicy *properties, const char *prefix) {
    for (auto _ : state) {
        if (row.setup == nullptr) {
            VESK_Transport_Shmem_Property_t record = VESK_TRANSPORT_SHMEM_PROPERTY_DEFAULT;
            VESK_Transport_internalMemoryAllocations flags{};
            const int result = VESK_Transport_setupShmemProperty(&record, &flags, properties,
                                                                 nullptr, nullptr, nullptr);
            VESK_Transport_cleanupShmemProperty(&record, &flags);
            if (result < 0) {
                state.SkipWithError("the setup failed");
                return;
            }
            continue;
        }
        VESK_Transport_UDP_Property_t record = *row.defaults;
        VESK_Transport_internalMemoryAllocations flags{};
        const int result = row.setup(&record, &flags, properties, prefix);
        row.cleanup(&record, &flags);
        if (result < 0) {
            state.SkipWithError("the setup failed");
            return;
        }
    }
}

// The reference: one pass over the list, comparing every name.
void walkOnce(benchmark::State &state, const DDS_PropertyQosPolicy *properties) {
    for (auto _ : state) {
        const DDS_PropertySeq &seq = properties->value;
        int found = 0;
        for (DDS_Long i = 0; i < seq._length; ++i) {
            found += std::strcmp(seq._contiguous_buffer[i].name, "parent.classid") == 0 ? 1 : 0;
        }
        benchmark::DoNotOptimize(found);
    }
}

std::string commPortsDocument(long mappings) {
    std::string json = R"({"default":{"rtps":7400,"host":7400,"public":17400},"mappings":[)";
    for (long i = 0; i < mappings; ++i) {
        if (i != 0) json += ",";
        json += R"({"rtps":)" + std::to_string(7410 + i) + R"(,"host":)" +
                std::to_string(20000 + i) + R"(,"public":)" + std::to_string(30000 + i) + "}";
    }
    return json + "]}";
}

void commPortsJson(benchmark::State &state) {
    const std::string json = commPortsDocument(state.range(0));
    for (auto _ : state) {
        VESK_Transport_UDP_WAN_CommPortsMappingInfo *list = nullptr;
        KEL_INT32 length = 0;
        if (!VESK_Transport_CommPortsHelper_parseJson(&list, &length, json.c_str())) {
            state.SkipWithError("the parser failed");
            return;
        }
        KELOsapiHeap_freeArray(list);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * json.size()));
}

// A participant holding one UDPv4 plugin, for the statistics reads.
struct StatisticsFixture {
    DDS_DomainParticipant *participant = nullptr;
    VESK_Transport_Plugin *plugin = nullptr;
    StatisticsFixture() {
        DDS_DomainParticipantOptions options = DDS_DOMAINPARTICIPANT_OPTIONS_DEFAULT;
        options.transport_builtin_mask = 0;
        participant = DDS_DomainParticipant_create(&options);
        const DDS_PropertyQosPolicy empty = DDS_PropertyQosPolicy_INITIALIZER;
        VESK_Transport_Plugin *made = VESK_Transport_UDPv4_create(nullptr, &empty);
        DDS_StringSeq aliases = DDS_SEQUENCE_INITIALIZER;
        DDS_StringSeq_append(&aliases, "bench.udpv4");
        const VESK_Transport_Address_t address{};
        const VESK_Transport_Handle_t handle =
            VESK_Transport_Support_register_transport(participant, made, &aliases, &address);
        DDS_StringSeq_finalize(&aliases);
        if (handle._participant == nullptr) {
            std::fprintf(stderr, "cannot install the UDPv4 plugin\n");
            std::abort();
        }
        plugin = made;
    }
    ~StatisticsFixture() { DDS_DomainParticipant_delete(participant); }
};

StatisticsFixture &statisticsFixture() {
    static StatisticsFixture fixture;
    return fixture;
}

void registerAll() {
    constexpr long COUNTS[] = {10, 100, 1000, 10000};
    for (const FactoryRow &row : FACTORIES) {
        const std::string name = row.name;
        benchmark::RegisterBenchmark(
            ("Factory/" + name + "/empty").c_str(), [&row](benchmark::State &state) {
                const DDS_PropertyQosPolicy empty = DDS_PropertyQosPolicy_INITIALIZER;
                createAndDelete(state, row, &empty, nullptr);
            });
        benchmark::RegisterBenchmark(
            ("Factory/" + name + "/every").c_str(), [&row](benchmark::State &state) {
                createAndDelete(state, row, everyList(row.cls).get(), nullptr);
            });
        for (bool prefixed : {true, false}) {
            // The shared-memory factory takes no prefix.
            if (prefixed && row.setup == nullptr) continue;
            const std::string mode = prefixed ? "prefixed" : "unprefixed";
            for (long count : COUNTS) {
                const std::string shape = "/" + mode + "/" + std::to_string(count);
                benchmark::RegisterBenchmark(
                    ("Factory/" + name + shape).c_str(),
                    [&row, count, prefixed](benchmark::State &state) {
                        createAndDelete(state, row, unrelatedList(count, !prefixed).get(),
                                        prefixed ? PREFIX : nullptr);
                    });
                benchmark::RegisterBenchmark(
                    ("Setup/" + name + shape).c_str(),
                    [&row, count, prefixed](benchmark::State &state) {
                        setupAndCleanup(state, row, unrelatedList(count, !prefixed).get(),
                                        prefixed ? PREFIX : nullptr);
                    });
            }
        }
    }
    for (long count : COUNTS) {
        for (bool validated : {false, true}) {
            // Both list shapes differ by one property; the baseline walks each.
            const std::string name = "Baseline/" +
                                     std::string(validated ? "unprefixed/" : "prefixed/") +
                                     std::to_string(count);
            benchmark::RegisterBenchmark(name.c_str(), [count, validated](benchmark::State &state) {
                walkOnce(state, unrelatedList(count, validated).get());
            });
        }
    }
    benchmark::RegisterBenchmark("CommPortsJson", commPortsJson)
        ->Arg(1)
        ->Arg(10)
        ->Arg(100)
        ->Arg(1000);

    benchmark::RegisterBenchmark("Statistics/get_udpv4_statistics", [](benchmark::State &state) {
        StatisticsFixture &fixture = statisticsFixture();
        VESK_Transport_UDP_Statistics statistics{};
        for (auto _ : state) {
            benchmark::DoNotOptimize(
                VESK_Transport_Support_get_udpv4_statistics(fixture.participant, &statistics));
        }
    });
    benchmark::RegisterBenchmark("Statistics/UDP_get_statistics", [](benchmark::State &state) {
        StatisticsFixture &fixture = statisticsFixture();
        VESK_Transport_UDP_Statistics statistics{};
        for (auto _ : state) {
            benchmark::DoNotOptimize(
                VESK_Transport_UDP_get_statistics(fixture.plugin, &statistics));
        }
    });
    benchmark::RegisterBenchmark(
        "Statistics/get_udp_liveliness_statistics", [](benchmark::State &state) {
            StatisticsFixture &fixture = statisticsFixture();
            KEL_UINT64 packets = 0, bytes = 0;
            for (auto _ : state) {
                benchmark::DoNotOptimize(VESK_Transport_Support_get_udp_liveliness_statistics(
                    fixture.participant, &packets, &bytes, nullptr, nullptr,
                    VESK_TRANSPORT_CLASSID_UDPv4, 0, 1));
            }
        });
    benchmark::RegisterBenchmark("Statistics/UDP_count_traffic", [](benchmark::State &state) {
        StatisticsFixture &fixture = statisticsFixture();
        for (auto _ : state) {
            benchmark::DoNotOptimize(VESK_Transport_UDP_count_traffic(
                fixture.plugin, VESK_TRANSPORT_UDP_TRAFFIC_USER_DATA,
                VESK_TRANSPORT_UDP_TRAFFIC_SENT, 1, 64));
        }
    });
}

}  // namespace

int main(int argc, char **argv) {
    // The logger stays silent for the whole run.
    DDSLog_g_instrumentationMask = VESK_CONFIG_LOG_VERBOSITY_SILENT;
    registerAll();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
