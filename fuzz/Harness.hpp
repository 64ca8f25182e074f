// The fuzz harnesses: the UDP and shared-memory property setups (and their
// factories), the WAN port-mapping parser and the interface-list parser.
//
// Each harness decodes one input, runs the operation, checks what must hold
// afterwards and returns a description of the first violation (empty when
// none). The libFuzzer targets abort on a violation; the corpus test
// (tests/test_fuzz_corpus.cpp) replays the seed corpus through the same
// code, so a regression input checks the same invariants in every build.
//
// Input layout, shared by the property-list harnesses:
//   byte 0   mode bits, per harness (see each harness)
//   byte 1   n: the n-th allocation of the run fails (0: none)
//   ...      harness-specific header bytes, then properties until the end.
// One property: a selector byte s, then by s & 7:
//   0-3  a name drawn from the class's accepted suffixes (next byte: index)
//   4    a name drawn from every class's accepted suffixes (next byte: index)
//   5    a literal name: bytes up to a NUL
//   6    "prefix"
//   7    the validation-action property
// A drawn name (0-4) is put under the harness's prefix when s & 0x08: as
// prefix '.' suffix, or glued without the dot when s & 0x10 as well. Then the
// value: bytes up to a NUL or the end of the input.
//
// Header-only, without libFuzzer: it also compiles into the tests.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "vesk_transport/Support.h"
#include "vesk_transport/platform/Heap.h"
#include "vesk_transport/platform/Log.h"
#include "vesk_transport/platform/Property.h"

namespace vesk::fuzz {

// ---------------------------------------------------------------------------
// Plumbing
// ---------------------------------------------------------------------------

class Input {
public:
    Input(const std::uint8_t *data, std::size_t size) : data_(data), size_(size) {}

    bool empty() const { return position_ >= size_; }
    std::uint8_t byte() { return empty() ? 0 : data_[position_++]; }
    // The bytes up to the next NUL (consumed) or the end.
    std::string text() {
        std::string out;
        while (!empty()) {
            const char c = static_cast<char>(data_[position_++]);
            if (c == '\0') break;
            out.push_back(c);
        }
        return out;
    }
    // Everything left, as a C string sees it (cut at the first NUL).
    std::string rest() {
        std::string out = text();
        position_ = size_;
        return out;
    }

private:
    const std::uint8_t *data_;
    std::size_t size_;
    std::size_t position_ = 0;
};

inline KEL_UINT64 liveBlocks() {
    KELOsapiHeapStatistics statistics{};
    KELOsapiHeap_getStatistics(&statistics);
    return statistics.live_blocks;
}

// Keeps the logger quiet for one run. With exercise set, every level is
// formatted but handed to a sink that drops it, so that the message paths
// run too; otherwise nothing is even formatted.
class QuietLogger {
public:
    explicit QuietLogger(bool exercise)
        : savedMask_(DDSLog_g_instrumentationMask), savedSubmodules_(DDSLog_g_submoduleMask) {
        KELLog_setSink(&QuietLogger::discard, nullptr, &savedSink_, &savedSinkData_);
        DDSLog_g_instrumentationMask =
            exercise ? VESK_CONFIG_LOG_VERBOSITY_STATUS_ALL : VESK_CONFIG_LOG_VERBOSITY_SILENT;
        DDSLog_g_submoduleMask = 0xFFFFFFFFu;
    }
    ~QuietLogger() {
        KELLog_setSink(savedSink_, savedSinkData_, nullptr, nullptr);
        DDSLog_g_instrumentationMask = savedMask_;
        DDSLog_g_submoduleMask = savedSubmodules_;
    }
    QuietLogger(const QuietLogger &) = delete;
    QuietLogger &operator=(const QuietLogger &) = delete;

private:
    static void discard(void *, const KELLogRecord *) {}
    KEL_UINT32 savedMask_;
    KEL_UINT32 savedSubmodules_;
    KELLogSink savedSink_ = nullptr;
    void *savedSinkData_ = nullptr;
};

// Arms the heap's fault injection for the operation under test only.
class FailureInjection {
public:
    explicit FailureInjection(std::uint8_t n) { KELOsapiHeap_failAllocationAfter(n); }
    ~FailureInjection() { stop(); }
    void stop() { KELOsapiHeap_failAllocationAfter(0); }
    FailureInjection(const FailureInjection &) = delete;
    FailureInjection &operator=(const FailureInjection &) = delete;
};

// The first violated invariant.
class Checks {
public:
    void require(bool ok, const char *what) {
        if (!ok && first_.empty()) first_ = what;
    }
    const std::string &first() const { return first_; }

private:
    std::string first_;
};

class OwnedProperties {
public:
    OwnedProperties() = default;
    ~OwnedProperties() { DDS_PropertyQosPolicy_finalize(&policy_); }
    OwnedProperties(const OwnedProperties &) = delete;
    OwnedProperties &operator=(const OwnedProperties &) = delete;

    // A repeated name replaces the earlier value.
    void set(const std::string &name, const std::string &value) {
        DDS_PropertyQosPolicyHelper_assert_property(&policy_, name.c_str(), value.c_str(),
                                                    DDS_BOOLEAN_FALSE);
    }
    const DDS_PropertyQosPolicy *get() const { return &policy_; }
    int count() const { return DDS_PropertyQosPolicyHelper_get_number_of_properties(&policy_); }

private:
    DDS_PropertyQosPolicy policy_ = DDS_PropertyQosPolicy_INITIALIZER;
};

// ---------------------------------------------------------------------------
// Names
// ---------------------------------------------------------------------------

using NamePool = std::vector<const char *>;

inline void addName(NamePool &pool, const char *name) {
    for (const char *known : pool) {
        if (std::strcmp(known, name) == 0) return;
    }
    pool.push_back(name);
}

inline void addList(NamePool &pool, const char *const *list) {
    for (; list != nullptr && *list != nullptr; ++list) addName(pool, *list);
}

inline NamePool poolOf(std::initializer_list<const char *const *> lists) {
    NamePool pool;
    for (const char *const *list : lists) addList(pool, list);
    return pool;
}

inline const NamePool &udpPool() {
    static const NamePool pool = poolOf({PROPERTY_PLUGIN_VALID_PUBLIC_PROPERTIES_UDPV4,
                                         PROPERTY_PLUGIN_VALID_PRIVATE_PROPERTIES_UDPV4,
                                         PROPERTY_PLUGIN_VALID_PUBLIC_PROPERTIES_UDPV4_WAN,
                                         PROPERTY_PLUGIN_VALID_PRIVATE_PROPERTIES_UDPV4_WAN,
                                         PROPERTY_PLUGIN_VALID_PUBLIC_PROPERTIES_UDPV6,
                                         PROPERTY_PLUGIN_VALID_PRIVATE_PROPERTIES_UDPV6});
    return pool;
}

inline const NamePool &shmemPool() {
    static const NamePool pool = poolOf({PROPERTY_PLUGIN_VALID_PUBLIC_PROPERTIES_SHMEM,
                                         PROPERTY_PLUGIN_VALID_PRIVATE_PROPERTIES_SHMEM});
    return pool;
}

inline const NamePool &everyPool() {
    static const NamePool pool = [] {
        NamePool all = udpPool();
        for (const char *name : shmemPool()) addName(all, name);
        return all;
    }();
    return pool;
}

// The names of the interface-list pairs, single name first.
inline constexpr std::pair<const char *, const char *> INTERFACE_PAIRS[] = {
    {"parent.allow_interfaces", "parent.allow_interfaces_list"},
    {"parent.deny_interfaces", "parent.deny_interfaces_list"},
    {"parent.allow_multicast_interfaces", "parent.allow_multicast_interfaces_list"},
    {"parent.deny_multicast_interfaces", "parent.deny_multicast_interfaces_list"},
};

inline const NamePool &interfacePool() {
    static const NamePool pool = [] {
        NamePool names;
        for (const auto &[single, list] : INTERFACE_PAIRS) {
            names.push_back(single);
            names.push_back(list);
        }
        return names;
    }();
    return pool;
}

// The prefixes a harness works under: with and without the trailing dot.
inline constexpr const char *PREFIXES[] = {"dds.transport.udp", "p.", "x"};

inline std::string underPrefix(const char *prefix, const char *suffix, bool glued) {
    const std::size_t length = std::strlen(prefix);
    if (glued || (length > 0 && prefix[length - 1] == '.')) return std::string(prefix) + suffix;
    return std::string(prefix) + "." + suffix;
}

inline void decodeProperties(Input &in, OwnedProperties &properties, const NamePool &own,
                             const NamePool &every, const char *prefix) {
    constexpr int maxProperties = 64;
    for (int i = 0; i < maxProperties && !in.empty(); ++i) {
        const std::uint8_t selector = in.byte();
        std::string name;
        const int kind = selector & 7;
        if (kind <= 4) {
            const NamePool &pool = kind == 4 ? every : own;
            const char *suffix = pool[in.byte() % pool.size()];
            name = (selector & 0x08) != 0 ? underPrefix(prefix, suffix, (selector & 0x10) != 0)
                                          : std::string(suffix);
        } else if (kind == 5) {
            name = in.text();
        } else if (kind == 6) {
            name = "prefix";
        } else {
            name = DDS_PROPERTY_VALIDATION_ACTION_PROPERTY_NAME;
        }
        properties.set(name, in.text());
    }
}

// ---------------------------------------------------------------------------
// Record invariants
// ---------------------------------------------------------------------------

struct ListView {
    char **list;
    KEL_INT32 length;
    KEL_INT32 flag;
};

inline std::vector<ListView> listsOf(const VESK_Transport_Property_t &parent,
                                     const VESK_Transport_internalMemoryAllocations &flags) {
    return {
        {parent.allow_interfaces_list, parent.allow_interfaces_list_length,
         flags._allowInterfacesListAllocated},
        {parent.deny_interfaces_list, parent.deny_interfaces_list_length,
         flags._denyInterfacesListAllocated},
        {parent.allow_multicast_interfaces_list, parent.allow_multicast_interfaces_list_length,
         flags._allowMulticastInterfacesListAllocated},
        {parent.deny_multicast_interfaces_list, parent.deny_multicast_interfaces_list_length,
         flags._denyMulticastInterfacesListAllocated},
    };
}

// After a setup that started from a default record (which holds no list):
// whatever is allocated is flagged, and every list is whole.
inline void checkParentAfterSetup(Checks &checks, const VESK_Transport_Property_t &parent,
                                  const VESK_Transport_internalMemoryAllocations &flags,
                                  bool failed) {
    for (const ListView &view : listsOf(parent, flags)) {
        checks.require(view.list == nullptr || view.flag != 0, "an interface list is not flagged");
        checks.require(view.flag == 0 || view.list != nullptr, "a flagged interface list is null");
        checks.require(view.list != nullptr || view.length == 0,
                       "a null interface list has a length");
        if (view.list != nullptr) {
            checks.require(view.length > 0, "an allocated interface list is empty");
            for (KEL_INT32 i = 0; i < view.length; ++i) {
                checks.require(view.list[i] != nullptr, "an interface list holds a null entry");
            }
        }
    }
    if (!failed) {
        checks.require(parent.thread_name_prefix != nullptr, "no thread-name prefix after setup");
        checks.require(parent.thread_name_prefix == nullptr ||
                           std::strlen(parent.thread_name_prefix) <=
                               VESK_TRANSPORT_THREAD_NAME_PREFIX_MAX_LENGTH,
                       "thread-name prefix longer than 8 characters");
    }
}

inline void checkParentAfterCleanup(Checks &checks, const VESK_Transport_Property_t &parent,
                                    const VESK_Transport_internalMemoryAllocations &flags) {
    for (const ListView &view : listsOf(parent, flags)) {
        checks.require(view.flag == 0 || (view.list == nullptr && view.length == 0),
                       "cleanup left a flagged interface list");
    }
    checks.require(parent.thread_name_prefix == nullptr, "cleanup left the thread-name prefix");
}

// ---------------------------------------------------------------------------
// UDP setups and factories
// ---------------------------------------------------------------------------

struct UdpClass {
    const VESK_Transport_UDP_Property_t *defaults;
    int (*setup)(VESK_Transport_UDP_Property_t *, VESK_Transport_internalMemoryAllocations *,
                 const DDS_PropertyQosPolicy *, const char *);
    void (*cleanup)(VESK_Transport_UDP_Property_t *,
                    const VESK_Transport_internalMemoryAllocations *);
    VESK_Transport_Plugin *(*create)(VESK_Transport_Address_t *, const DDS_PropertyQosPolicy *,
                                     const char *);
};

inline const UdpClass &udpClass(int index) {
    static const UdpClass classes[] = {
        {&VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT, VESK_Transport_setupUDPv4Property,
         VESK_Transport_cleanupUDPv4Property,
         VESK_Transport_UDPv4_create_from_properties_with_prefix},
        {&VESK_TRANSPORT_UDPV4_WAN_PROPERTY_DEFAULT, VESK_Transport_setupUDPv4WanProperty,
         VESK_Transport_cleanupUDPv4WanProperty,
         VESK_Transport_UDPv4_WAN_create_from_properties_with_prefix},
        {&VESK_TRANSPORT_UDPV6_PROPERTY_DEFAULT, VESK_Transport_setupUDPv6Property,
         VESK_Transport_cleanupUDPv6Property,
         VESK_Transport_UDPv6_create_from_properties_with_prefix},
    };
    return classes[index % 3];
}

// Mode bits: 0-1 class (0 UDPv4, 1 WAN, 2 UDPv6, 3 UDPv4), 2-3 prefix index,
// 4 the setup gets the prefix (else null: the list is the transport's own
// and its names are validated), 5 the factory runs too, 7 log messages are
// formatted (and dropped).
inline std::string runUdpSetup(const std::uint8_t *data, std::size_t size) {
    Input in(data, size);
    const std::uint8_t mode = in.byte();
    const std::uint8_t failAt = in.byte();
    const UdpClass &udp = udpClass(mode & 3);
    const char *prefix = PREFIXES[((mode >> 2) & 3) % 3];
    const char *setupPrefix = (mode & 0x10) != 0 ? prefix : nullptr;
    QuietLogger quiet((mode & 0x80) != 0);
    OwnedProperties properties;
    decodeProperties(in, properties, udpPool(), everyPool(), prefix);

    Checks checks;
    const KEL_UINT64 before = liveBlocks();
    {
        VESK_Transport_UDP_Property_t record = *udp.defaults;
        VESK_Transport_internalMemoryAllocations flags{};
        FailureInjection injection(failAt);
        const int result = udp.setup(&record, &flags, properties.get(), setupPrefix);
        injection.stop();
        const bool failed = result < 0;
        checks.require(result >= -1, "setup result below -1");
        checks.require(result <= properties.count(), "setup counts more properties than given");
        checkParentAfterSetup(checks, record.parent, flags, failed);
        checks.require(record.public_address == nullptr || flags._publicAddressAllocated != 0,
                       "public_address is not flagged");
        if (failed) {
            checks.require(record.comm_ports_list == nullptr,
                           "a failed setup left comm_ports_list");
        } else {
            checks.require(record.comm_ports_list == nullptr || flags._commPortsAllocated != 0,
                           "comm_ports_list is not flagged");
            checks.require(
                (record.comm_ports_list != nullptr) == (record.comm_ports_list_length > 0),
                "comm_ports_list and its length disagree");
        }
        udp.cleanup(&record, &flags);
        checkParentAfterCleanup(checks, record.parent, flags);
        checks.require(flags._publicAddressAllocated == 0 || record.public_address == nullptr,
                       "cleanup left public_address");
        checks.require(flags._commPortsAllocated == 0 || record.comm_ports_list == nullptr,
                       "cleanup left comm_ports_list");
        checks.require(liveBlocks() == before, "setup and cleanup leave live heap blocks");
    }
    if ((mode & 0x20) != 0) {
        FailureInjection injection(failAt);
        VESK_Transport_Plugin *plugin = udp.create(nullptr, properties.get(), setupPrefix);
        injection.stop();
        if (plugin != nullptr) {
            checks.require(plugin->property != nullptr && plugin->delete_cEA != nullptr,
                           "the factory's plugin is incomplete");
            checks.require(VESK_Transport_UDP_isUdpPlugin(plugin) != 0,
                           "the factory's plugin is no UDP plugin");
            plugin->delete_cEA(plugin, nullptr);
        }
        checks.require(liveBlocks() == before, "the factory leaves live heap blocks");
    }
    return checks.first();
}

// ---------------------------------------------------------------------------
// Shared-memory setup and factory
// ---------------------------------------------------------------------------

// Mode bits: 0-1 minimum compatibility version (0 none, 1 0.0.0.0, 2-3 the
// next four header bytes), 2 a wire-protocol policy is given, 3-4 its
// automatic-id kind (3: a fixed host id), 5 the factory runs too, 6 robust
// mutexes are forced off for the run, 7 log messages are formatted.
inline std::string runShmemSetup(const std::uint8_t *data, std::size_t size) {
    Input in(data, size);
    const std::uint8_t mode = in.byte();
    const std::uint8_t failAt = in.byte();
    DDS_ProductVersion_t version{};
    const DDS_ProductVersion_t *minimum = nullptr;
    if ((mode & 3) == 1) minimum = &version;
    if ((mode & 3) >= 2) {
        version.major = static_cast<DDS_Char>(in.byte());
        version.minor = static_cast<DDS_Char>(in.byte());
        version.release = static_cast<DDS_Char>(in.byte());
        version.revision = static_cast<DDS_Char>(in.byte());
        minimum = &version;
    }
    DDS_WireProtocolQosPolicy wire = DDS_WireProtocolQosPolicy_INITIALIZER;
    const DDS_WireProtocolQosPolicy *wireProtocol = (mode & 0x04) != 0 ? &wire : nullptr;
    switch ((mode >> 3) & 3) {
        case 0:
            wire.rtps_auto_id_kind = DDS_RTPS_AUTO_ID_FROM_IP;
            break;
        case 1:
            wire.rtps_auto_id_kind = DDS_RTPS_AUTO_ID_FROM_MAC;
            break;
        case 2:
            wire.rtps_auto_id_kind = DDS_RTPS_AUTO_ID_FROM_UUID;
            break;
        default:
            wire.rtps_host_id = 0x0A000003u;
            break;
    }
    QuietLogger quiet((mode & 0x80) != 0);
    OwnedProperties properties;
    decodeProperties(in, properties, shmemPool(), everyPool(), PREFIXES[0]);
    // Fixed host ids keep the run independent of the host's network.
    DDS_RtpsAppIdGenerator *generator = DDS_RtpsAppIdGenerator_new();
    DDS_RtpsAppIdGenerator_set_host_ids(generator, 0x0A000001u, 0x0A000002u);
    if ((mode & 0x40) != 0) KELOsapiSharedMemorySemMutex_forceRobustMutex(0);

    Checks checks;
    const KEL_UINT64 before = liveBlocks();
    {
        VESK_Transport_Shmem_Property_t record = VESK_TRANSPORT_SHMEM_PROPERTY_DEFAULT;
        VESK_Transport_internalMemoryAllocations flags{};
        FailureInjection injection(failAt);
        const int result = VESK_Transport_setupShmemProperty(&record, &flags, properties.get(),
                                                             wireProtocol, generator, minimum);
        injection.stop();
        const bool failed = result < 0;
        checks.require(result >= -1, "setup result below -1");
        checks.require(result <= properties.count() + 2,
                       "setup counts more than the properties and the version");
        checkParentAfterSetup(checks, record.parent, flags, failed);
        checks.require(flags._publicAddressAllocated == 0 && flags._commPortsAllocated == 0,
                       "the shared-memory setup flags UDP members");
        if (!failed) {
            checks.require(record.majorVersion == 1 || record.majorVersion == 2 ||
                               record.majorVersion == 4 || record.majorVersion == 5,
                           "format version is not 1, 2, 4 or 5");
        }
        VESK_Transport_cleanupShmemProperty(&record, &flags);
        checkParentAfterCleanup(checks, record.parent, flags);
        checks.require(liveBlocks() == before, "setup and cleanup leave live heap blocks");
    }
    if ((mode & 0x20) != 0) {
        FailureInjection injection(failAt);
        VESK_Transport_Plugin *plugin =
            VESK_Transport_Shmem_create(nullptr, properties.get(), minimum);
        injection.stop();
        if (plugin != nullptr) {
            checks.require(plugin->property != nullptr &&
                               plugin->property->classid == VESK_TRANSPORT_CLASSID_SHMEM,
                           "the factory's plugin is not of the shared-memory class");
            plugin->delete_cEA(plugin, nullptr);
        }
        checks.require(liveBlocks() == before, "the factory leaves live heap blocks");
    }
    KELOsapiSharedMemorySemMutex_forceRobustMutex(-1);
    DDS_RtpsAppIdGenerator_delete(generator);
    return checks.first();
}

// ---------------------------------------------------------------------------
// WAN port-mapping parser
// ---------------------------------------------------------------------------

// Byte 0: bit 7 log messages are formatted; byte 1: allocation to fail;
// then the JSON text.
inline std::string runCommPortsJson(const std::uint8_t *data, std::size_t size) {
    Input in(data, size);
    const std::uint8_t mode = in.byte();
    const std::uint8_t failAt = in.byte();
    const std::string json = in.rest();
    QuietLogger quiet((mode & 0x80) != 0);

    Checks checks;
    const KEL_UINT64 before = liveBlocks();
    VESK_Transport_UDP_WAN_CommPortsMappingInfo sentinel{};
    VESK_Transport_UDP_WAN_CommPortsMappingInfo *list = &sentinel;
    KEL_INT32 length = -7;
    FailureInjection injection(failAt);
    const int result = VESK_Transport_CommPortsHelper_parseJson(&list, &length, json.c_str());
    injection.stop();
    checks.require(result == 0 || result == 1, "result is neither 0 nor 1");
    if (result == 1) {
        checks.require(list != &sentinel && list != nullptr, "success without a list");
        checks.require(length >= 1, "success with fewer than one mapping");
        checks.require(liveBlocks() == before + 1, "success holds more than the list");
        if (list != &sentinel && list != nullptr) {
            const char *type = KELOsapiHeap_getBlockTypeName(list);
            checks.require(
                type != nullptr &&
                    std::strcmp(type, "struct VESK_Transport_UDP_WAN_CommPortsMappingInfo") == 0,
                "the list is not a heap array of mappings");
            checks.require(KELOsapiHeap_getBlockTag(list) == VESK_TRANSPORT_HEAP_TAG,
                           "the list does not carry the module's tag");
            // Reading every entry lets the sanitizers catch a short array.
            unsigned sum = 0;
            for (KEL_INT32 i = 0; i < length; ++i) sum += list[i].host_port + list[i].public_port;
            checks.require(sum < 0xFFFFFFFFu, "unreachable");
            KELOsapiHeap_freeArray(list);
        }
    } else {
        checks.require(list == &sentinel, "a failed parse changed the output list");
    }
    checks.require(liveBlocks() == before, "the parser leaves live heap blocks");
    return checks.first();
}

// ---------------------------------------------------------------------------
// Interface-list parser
// ---------------------------------------------------------------------------

// Mode bits: 0-1 the pair of names read, 2 the prefix is null (else
// PREFIXES[0]), 3 the list starts with a caller's array (only without fault
// injection: a failure releases the list in its current state, which a
// caller's array of another length does not survive), 4 no counter, 5 no
// flag, 6 the list starts flagged (a precondition failure), 7 log messages
// are formatted.
inline std::string runInterfaceList(const std::uint8_t *data, std::size_t size) {
    Input in(data, size);
    const std::uint8_t mode = in.byte();
    const std::uint8_t failAt = in.byte();
    const auto &[singleSuffix, listSuffix] = INTERFACE_PAIRS[mode & 3];
    const char *prefix = (mode & 0x04) != 0 ? nullptr : PREFIXES[0];
    const bool flaggedStart = (mode & 0x40) != 0;
    const bool callerArray = !flaggedStart && (mode & 0x08) != 0 && failAt == 0;
    QuietLogger quiet((mode & 0x80) != 0);
    OwnedProperties properties;
    decodeProperties(in, properties, interfacePool(), everyPool(), PREFIXES[0]);

    // The value the parser must read: the single name wins.
    const DDS_Property_t *expected = DDS_PropertyQosPolicyHelper_lookup_property_with_prefix(
        properties.get(), prefix, singleSuffix);
    if (expected == nullptr) {
        expected = DDS_PropertyQosPolicyHelper_lookup_property_with_prefix(properties.get(), prefix,
                                                                           listSuffix);
    }

    Checks checks;
    const KEL_UINT64 before = liveBlocks();
    // A starting array of one entry, from the caller or flagged as ours.
    char **original = nullptr;
    if (callerArray || flaggedStart) {
        if (KELOsapiHeap_allocateArray(&original, 1, char *)) original[0] = DDS_String_dup("eth9");
    }
    const KEL_INT32 originalLength = original != nullptr ? 1 : 0;
    char **list = original;
    KEL_INT32 length = originalLength;
    int parsed = 5;
    KEL_INT32 flag = flaggedStart && original != nullptr ? 1 : 0;
    const KEL_UINT64 breakpoints = KELLog_getAssertBreakpointCount();

    FailureInjection injection(flaggedStart ? 0 : failAt);
    const int result = VESK_Transport_Support_parse_interface_list(
        &length, &list, (mode & 0x10) != 0 ? nullptr : &parsed,
        (mode & 0x20) != 0 ? nullptr : &flag, properties.get(), prefix, singleSuffix, listSuffix);
    injection.stop();

    checks.require(result == 0 || result == 1, "result is neither 0 nor 1");
    bool originalReleased = false;
    if (flaggedStart && original != nullptr && (mode & 0x20) == 0) {
        checks.require(result == 0, "a flagged list was read again");
        checks.require(list == original && length == 1 && flag == 1 && parsed == 5,
                       "a precondition failure changed the list");
        checks.require(KELLog_getAssertBreakpointCount() == breakpoints + 1,
                       "a precondition failure did not reach the breakpoint hook");
    } else if (result == 1) {
        checks.require(parsed == ((mode & 0x10) == 0 && expected != nullptr ? 6 : 5),
                       "the counter moved by other than the property found");
        if (expected == nullptr) {
            checks.require(list == original && length == originalLength,
                           "an absent property changed the list");
        } else if (expected->value[0] == '\0') {
            checks.require(list == original && length == 0, "an empty value changed the array");
        } else {
            KEL_INT32 pieces = 1;
            for (const char *c = expected->value; *c != '\0'; ++c) pieces += *c == ',' ? 1 : 0;
            checks.require(list != nullptr && list != original, "the list was not replaced");
            checks.require(length == pieces, "the list does not hold one entry per piece");
            checks.require((mode & 0x20) != 0 || flag == 1, "the new list is not flagged");
            for (KEL_INT32 i = 0; list != nullptr && i < length; ++i) {
                checks.require(list[i] != nullptr, "the new list holds a null entry");
            }
        }
    } else {
        checks.require(list == nullptr && length == 0, "a failed parse left a list");
        checks.require(flag == 0, "a failed parse left the flag set");
        checks.require(parsed == 5, "a failed parse counted");
        // The finalizer released the list in the state it had.
        originalReleased = original != nullptr;
    }

    // Release what is left: the parser's list and the starting array.
    if (list != nullptr && list != original) {
        VESK_Transport_Property_finalize_interface_list(&list, &length);
    }
    if (original != nullptr && !originalReleased) {
        KEL_INT32 startLength = originalLength;
        VESK_Transport_Property_finalize_interface_list(&original, &startLength);
    }
    checks.require(liveBlocks() == before, "the parser leaves live heap blocks");
    return checks.first();
}

// What a libFuzzer target does with a harness's answer.
inline void abortOnViolation(const std::string &violation) {
    if (violation.empty()) return;
    std::fprintf(stderr, "invariant violated: %s\n", violation.c_str());
    std::abort();
}

}  // namespace vesk::fuzz
