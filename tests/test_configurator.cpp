// The network-I/O configurator: installation and its refusals, weak
// references, lookups, routes, address filters and alias lists.

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/TestSupport.hpp"
#include "vesk_transport/platform/Configurator.h"
#include "vesk_transport/platform/Heap.h"

namespace {

using vesk::test::liveHeapBlocks;

// A plugin on the library heap that counts its deletions, so that the
// configurator's ownership shows in the heap accounting.
struct FakePlugin {
    VESK_Transport_Plugin plugin;
    VESK_Transport_Property_t property;
};

int g_deleteCount = 0;
std::vector<const void *> g_deleteReserved;

void fakeDelete(VESK_Transport_Plugin *self, void *reserved) {
    ++g_deleteCount;
    g_deleteReserved.push_back(reserved);
    KELOsapiHeap_freeMemoryInternal(self);
}

VESK_Transport_Plugin *newFakePlugin(VESK_Transport_ClassId_t classid = 0x7000) {
    auto *fake = static_cast<FakePlugin *>(KELOsapiHeap_reallocateMemoryInternal(
        nullptr, 1, sizeof(FakePlugin), "FakePlugin", VESK_TRANSPORT_HEAP_TAG));
    fake->property.classid = classid;
    fake->plugin.property = &fake->property;
    fake->plugin.delete_cEA = &fakeDelete;
    return &fake->plugin;
}

KELNetioAliasList aliasList(const char *text) {
    KELNetioAliasList list;
    std::memset(&list, 0, sizeof(list));
    std::strncpy(list.element, text, KEL_NETIO_ALIAS_LIST_LENGTH_MAX);
    return list;
}

VESK_Transport_Address_t address(std::initializer_list<int> bytes) {
    VESK_Transport_Address_t result{};
    int i = 0;
    for (int b : bytes) result.network_ordered_value[i++] = static_cast<unsigned char>(b);
    return result;
}

VESK_Transport_Address_t ipv4(int a, int b, int c, int d) {
    return address({0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, a, b, c, d});
}

class ConfiguratorTest : public ::testing::Test {
protected:
    void SetUp() override {
        g_deleteCount = 0;
        g_deleteReserved.clear();
    }
    REDAWorker worker_{"test worker", nullptr};
};

TEST_F(ConfiguratorTest, NewAppliesDefaultsAndRefusesNegativeRoom) {
    KELNetioConfigurator *configurator = KELNetioConfigurator_new(0, 0);
    ASSERT_NE(configurator, nullptr);
    EXPECT_EQ(KELNetioConfigurator_getPluginCountMax(configurator),
              KEL_NETIO_CONFIGURATOR_PLUGIN_COUNT_MAX_DEFAULT);
    EXPECT_EQ(KELNetioConfigurator_getPluginCount(configurator), 0);
    EXPECT_EQ(KELNetioConfigurator_getRouteCount(configurator), 0);
    EXPECT_EQ(KELNetioConfigurator_getShmemTransportClassId(configurator, &worker_),
              VESK_TRANSPORT_CLASSID_SHMEM);
    KELNetioConfigurator_delete(configurator);

    EXPECT_EQ(KELNetioConfigurator_new(-1, 0), nullptr);
    EXPECT_EQ(KELNetioConfigurator_new(0, -1), nullptr);
    KELNetioConfigurator_delete(nullptr);
}

TEST_F(ConfiguratorTest, NewSurvivesEveryAllocationFailure) {
    const KEL_UINT64 before = liveHeapBlocks();
    KELNetioConfigurator *configurator = nullptr;
    long n = 1;
    for (; n < 100 && configurator == nullptr; ++n) {
        SCOPED_TRACE("failing allocation " + std::to_string(n));
        KELOsapiHeap_failAllocationAfter(n);
        configurator = KELNetioConfigurator_new(4, 4);
        if (configurator == nullptr) {
            EXPECT_EQ(liveHeapBlocks(), before);
        }
    }
    KELOsapiHeap_failAllocationAfter(0);
    ASSERT_NE(configurator, nullptr);
    EXPECT_GT(n, 2);  // at least one failure was exercised
    KELNetioConfigurator_delete(configurator);
    EXPECT_EQ(liveHeapBlocks(), before);
}

TEST_F(ConfiguratorTest, InstallRefusals) {
    struct Row {
        const char *name;
        int plugin_count_max;
        std::vector<const char *> installed;  // alias lists installed first
        const char *aliases;                  // of the new plugin
        bool null_plugin;
        bool same_plugin_again;  // reinstall the first installed plugin
        int expected;
    };
    const std::vector<Row> rows = {
        {"first plugin", 4, {}, "udp_a", false, false, 1},
        {"disjoint aliases", 4, {"udp_a,udp_b"}, "udp_c", false, false, 1},
        {"empty alias list", 4, {"udp_a"}, "", false, false, 1},
        {"alias prefix is not the alias", 4, {"udp"}, "udp2,ud", false, false, 1},
        {"null plugin", 4, {}, "udp_a", true, false, 0},
        {"same plugin twice", 4, {"udp_a"}, "udp_z", false, true, 0},
        {"alias of first plugin", 4, {"udp_a,udp_b", "udp_c"}, "udp_b", false, false, 0},
        {"alias of last plugin", 4, {"udp_a", "udp_b,udp_c"}, "x,udp_c", false, false, 0},
        {"middle alias of a list", 4, {"udp_a,udp_b,udp_c"}, "y,udp_b,z", false, false, 0},
        {"table full", 2, {"a", "b"}, "c", false, false, 0},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        KELNetioConfigurator *configurator = KELNetioConfigurator_new(row.plugin_count_max, 0);
        ASSERT_NE(configurator, nullptr);
        std::vector<VESK_Transport_Plugin *> installed;
        const VESK_Transport_Address_t zero{};
        for (const char *text : row.installed) {
            KELNetioAliasList list = aliasList(text);
            installed.push_back(newFakePlugin());
            ASSERT_EQ(KELNetioConfigurator_installTransportPlugin(
                          configurator, nullptr, installed.back(), &list, &zero, &worker_),
                      1);
        }
        VESK_Transport_Plugin *plugin = nullptr;
        if (row.same_plugin_again) {
            plugin = installed.front();
        } else if (!row.null_plugin) {
            plugin = newFakePlugin();
        }
        KELNetioAliasList list = aliasList(row.aliases);
        REDAWeakReference reference = {nullptr, REDA_WEAK_REFERENCE_INDEX_INVALID, 0};
        EXPECT_EQ(KELNetioConfigurator_installTransportPlugin(configurator, &reference, plugin,
                                                              &list, &zero, &worker_),
                  row.expected);
        EXPECT_EQ(KELNetioConfigurator_getPluginCount(configurator),
                  static_cast<int>(row.installed.size()) + row.expected);
        if (row.expected == 0) {
            EXPECT_EQ(reference._manager, nullptr);  // untouched on refusal
            EXPECT_EQ(reference._index, REDA_WEAK_REFERENCE_INDEX_INVALID);
            if (plugin != nullptr && !row.same_plugin_again) fakeDelete(plugin, nullptr);
        }
        g_deleteCount = 0;
        KELNetioConfigurator_delete(configurator);
        EXPECT_EQ(g_deleteCount, static_cast<int>(row.installed.size()) + row.expected);
    }
}

TEST_F(ConfiguratorTest, WeakReferencesNameInstallations) {
    KELNetioConfigurator *configurator = KELNetioConfigurator_new(4, 0);
    KELNetioConfigurator *other = KELNetioConfigurator_new(4, 0);
    ASSERT_NE(configurator, nullptr);
    ASSERT_NE(other, nullptr);

    VESK_Transport_Plugin *plugins[3] = {newFakePlugin(), newFakePlugin(), newFakePlugin()};
    const char *aliasTexts[3] = {"a", "b,c", "d"};
    const VESK_Transport_Address_t addresses[3] = {ipv4(10, 0, 0, 1), ipv4(10, 0, 0, 2),
                                                   ipv4(10, 0, 0, 3)};
    REDAWeakReference references[3];
    for (int i = 0; i < 3; ++i) {
        KELNetioAliasList list = aliasList(aliasTexts[i]);
        ASSERT_EQ(KELNetioConfigurator_installTransportPlugin(
                      configurator, &references[i], plugins[i], &list, &addresses[i], &worker_),
                  1);
        SCOPED_TRACE(i);
        EXPECT_EQ(references[i]._manager,
                  reinterpret_cast<const REDAWeakReferenceManager *>(configurator));
        EXPECT_EQ(references[i]._index, static_cast<KEL_UINT32>(i));
        EXPECT_EQ(references[i]._referentEpochAtCreation, static_cast<REDAEpoch>(i + 1));
    }
    // The same plugin can be installed on another configurator, with a
    // reference of that configurator.
    KELNetioAliasList otherList = aliasList("a");
    REDAWeakReference otherReference;
    ASSERT_EQ(KELNetioConfigurator_installTransportPlugin(other, &otherReference, newFakePlugin(),
                                                          &otherList, &addresses[0], &worker_),
              1);
    EXPECT_EQ(otherReference._manager, reinterpret_cast<const REDAWeakReferenceManager *>(other));

    for (int i = 0; i < 3; ++i) {
        SCOPED_TRACE(i);
        KELNetioAliasList aliases = aliasList("garbage");
        VESK_Transport_Address_t networkAddress{};
        REDAWeakReference reference{};
        ASSERT_EQ(KELNetioConfigurator_queryTransportPlugin(configurator, &aliases, &networkAddress,
                                                            &reference, plugins[i], &worker_),
                  1);
        EXPECT_STREQ(aliases.element, aliasTexts[i]);
        EXPECT_EQ(std::memcmp(&networkAddress, &addresses[i], sizeof(networkAddress)), 0);
        EXPECT_EQ(std::memcmp(&reference, &references[i], sizeof(reference)), 0);
        // Optional outputs.
        EXPECT_EQ(KELNetioConfigurator_queryTransportPlugin(configurator, nullptr, nullptr, nullptr,
                                                            plugins[i], &worker_),
                  1);
    }

    // A plugin that is not installed here: 0 and outputs untouched.
    VESK_Transport_Plugin *stranger = newFakePlugin();
    KELNetioAliasList aliases = aliasList("");
    REDAWeakReference reference = {nullptr, REDA_WEAK_REFERENCE_INDEX_INVALID, 0};
    EXPECT_EQ(KELNetioConfigurator_queryTransportPlugin(configurator, &aliases, nullptr, &reference,
                                                        stranger, &worker_),
              0);
    EXPECT_STREQ(aliases.element, "");
    EXPECT_EQ(reference._index, REDA_WEAK_REFERENCE_INDEX_INVALID);
    EXPECT_EQ(KELNetioConfigurator_queryTransportPlugin(configurator, &aliases, nullptr, &reference,
                                                        nullptr, &worker_),
              0);
    fakeDelete(stranger, nullptr);

    KELNetioConfigurator_delete(other);
    KELNetioConfigurator_delete(configurator);
}

TEST_F(ConfiguratorTest, LookupByAlias) {
    KELNetioConfigurator *configurator = KELNetioConfigurator_new(0, 0);
    ASSERT_NE(configurator, nullptr);
    VESK_Transport_Plugin *first = newFakePlugin();
    VESK_Transport_Plugin *second = newFakePlugin();
    KELNetioAliasList firstList = aliasList("alpha,beta");
    KELNetioAliasList secondList = aliasList("gamma");
    REDAWeakReference firstReference, secondReference;
    ASSERT_EQ(KELNetioConfigurator_installTransportPlugin(configurator, &firstReference, first,
                                                          &firstList, nullptr, &worker_),
              1);
    ASSERT_EQ(KELNetioConfigurator_installTransportPlugin(configurator, &secondReference, second,
                                                          &secondList, nullptr, &worker_),
              1);

    struct Row {
        const char *asked;
        VESK_Transport_Plugin *expected;
        const REDAWeakReference *reference;
    };
    const std::vector<Row> rows = {
        {"alpha", first, &firstReference},
        {"beta", first, &firstReference},
        {"gamma", second, &secondReference},
        // The first asked alias that anyone carries wins.
        {"gamma,alpha", second, &secondReference},
        {"nobody,beta,gamma", first, &firstReference},
        {"alph", nullptr, nullptr},
        {"alpha,beta,gamma,x", first, &firstReference},
        {"", nullptr, nullptr},
        {"nobody", nullptr, nullptr},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.asked);
        KELNetioAliasList asked = aliasList(row.asked);
        REDAWeakReference reference = {nullptr, REDA_WEAK_REFERENCE_INDEX_INVALID, 0};
        EXPECT_EQ(KELNetioConfigurator_getTransportPluginFromAlias(configurator, &reference, &asked,
                                                                   &worker_),
                  row.expected);
        EXPECT_EQ(KELNetioConfigurator_getTransportPluginFromAlias(configurator, nullptr, &asked,
                                                                   &worker_),
                  row.expected);
        if (row.reference != nullptr) {
            EXPECT_EQ(std::memcmp(&reference, row.reference, sizeof(reference)), 0);
        } else {
            EXPECT_EQ(reference._index, REDA_WEAK_REFERENCE_INDEX_INVALID);
        }
    }
    EXPECT_EQ(
        KELNetioConfigurator_getTransportPluginFromAlias(configurator, nullptr, nullptr, &worker_),
        nullptr);
    // A null network address is stored as the zero address.
    VESK_Transport_Address_t networkAddress = ipv4(1, 2, 3, 4);
    ASSERT_EQ(KELNetioConfigurator_queryTransportPlugin(configurator, nullptr, &networkAddress,
                                                        nullptr, first, &worker_),
              1);
    const VESK_Transport_Address_t zero{};
    EXPECT_EQ(std::memcmp(&networkAddress, &zero, sizeof(zero)), 0);
    KELNetioConfigurator_delete(configurator);
}

TEST_F(ConfiguratorTest, LookupByClassFindsTheFirstInstalled) {
    KELNetioConfigurator *configurator = KELNetioConfigurator_new(0, 0);
    ASSERT_NE(configurator, nullptr);
    VESK_Transport_Plugin *classless = newFakePlugin();
    classless->property = nullptr;  // skipped, not dereferenced
    VESK_Transport_Plugin *udp1 = newFakePlugin(VESK_TRANSPORT_CLASSID_UDPv4);
    VESK_Transport_Plugin *shmem = newFakePlugin(VESK_TRANSPORT_CLASSID_SHMEM);
    VESK_Transport_Plugin *udp2 = newFakePlugin(VESK_TRANSPORT_CLASSID_UDPv4);
    for (VESK_Transport_Plugin *plugin : {classless, udp1, shmem, udp2}) {
        ASSERT_EQ(KELNetioConfigurator_installTransportPlugin(configurator, nullptr, plugin,
                                                              nullptr, nullptr, &worker_),
                  1);
    }
    EXPECT_EQ(KELNetioConfigurator_getTransportPluginByClass(
                  configurator, VESK_TRANSPORT_CLASSID_UDPv4, &worker_),
              udp1);
    EXPECT_EQ(KELNetioConfigurator_getTransportPluginByClass(
                  configurator,
                  KELNetioConfigurator_getShmemTransportClassId(configurator, nullptr), nullptr),
              shmem);
    EXPECT_EQ(KELNetioConfigurator_getTransportPluginByClass(
                  configurator, VESK_TRANSPORT_CLASSID_UDPv6, &worker_),
              nullptr);
    EXPECT_EQ(KELNetioConfigurator_getTransportPluginByClass(nullptr, VESK_TRANSPORT_CLASSID_UDPv4,
                                                             &worker_),
              nullptr);
    KELNetioConfigurator_delete(configurator);
}

TEST_F(ConfiguratorTest, DeleteReleasesEveryInstalledPluginOnce) {
    KELNetioConfigurator *configurator = KELNetioConfigurator_new(0, 0);
    ASSERT_NE(configurator, nullptr);
    for (const char *text : {"a", "b", "c"}) {
        KELNetioAliasList list = aliasList(text);
        ASSERT_EQ(KELNetioConfigurator_installTransportPlugin(
                      configurator, nullptr, newFakePlugin(), &list, nullptr, &worker_),
                  1);
    }
    // A plugin without delete_cEA is left alone.
    FakePlugin undeletable{};
    ASSERT_EQ(KELNetioConfigurator_installTransportPlugin(
                  configurator, nullptr, &undeletable.plugin, nullptr, nullptr, &worker_),
              1);
    KELNetioConfigurator_delete(configurator);
    EXPECT_EQ(g_deleteCount, 3);
    EXPECT_EQ(g_deleteReserved, std::vector<const void *>(3, nullptr));
}

TEST_F(ConfiguratorTest, RoutesAreStoredInOrder) {
    KELNetioConfigurator *configurator = KELNetioConfigurator_new(0, 0);
    ASSERT_NE(configurator, nullptr);
    REDAWeakReference udp, shmem;
    KELNetioAliasList udpList = aliasList("udp");
    KELNetioAliasList shmemList = aliasList("shmem");
    ASSERT_EQ(KELNetioConfigurator_installTransportPlugin(configurator, &udp, newFakePlugin(),
                                                          &udpList, nullptr, &worker_),
              1);
    ASSERT_EQ(KELNetioConfigurator_installTransportPlugin(configurator, &shmem, newFakePlugin(),
                                                          &shmemList, nullptr, &worker_),
              1);
    KELNetioAddressFilter filterA, filterB;
    const VESK_Transport_Address_t a = ipv4(192, 168, 1, 0);
    const VESK_Transport_Address_t b = ipv4(10, 0, 0, 0);
    ASSERT_EQ(KELNetioAddressFilter_from(&filterA, &a, 8), 1);
    ASSERT_EQ(KELNetioAddressFilter_from(&filterB, &b, 24), 1);

    EXPECT_EQ(KELNetioConfigurator_addDestinationRoute(configurator, 0, &filterA, &udp, nullptr,
                                                       &worker_),
              1);
    EXPECT_EQ(KELNetioConfigurator_addEntryportRoute(configurator, &filterB, &shmem, &worker_), 1);
    EXPECT_EQ(KELNetioConfigurator_addDestinationRoute(configurator, 7, &filterB, &shmem, nullptr,
                                                       &worker_),
              1);
    ASSERT_EQ(KELNetioConfigurator_getRouteCount(configurator), 3);

    struct Expected {
        KELNetioRouteKind kind;
        VESK_Transport_ClassId_t service_class;
        const KELNetioAddressFilter *filter;
        const REDAWeakReference *reference;
    };
    const Expected expected[] = {{KEL_NETIO_ROUTE_DESTINATION, 0, &filterA, &udp},
                                 {KEL_NETIO_ROUTE_ENTRYPORT, 0, &filterB, &shmem},
                                 {KEL_NETIO_ROUTE_DESTINATION, 7, &filterB, &shmem}};
    for (int i = 0; i < 3; ++i) {
        SCOPED_TRACE(i);
        KELNetioRoute route;
        ASSERT_EQ(KELNetioConfigurator_getRoute(configurator, i, &route), 1);
        EXPECT_EQ(route.kind, expected[i].kind);
        EXPECT_EQ(route.service_class, expected[i].service_class);
        EXPECT_EQ(std::memcmp(&route.filter, expected[i].filter, sizeof(route.filter)), 0);
        EXPECT_EQ(std::memcmp(&route.plugin_reference, expected[i].reference,
                              sizeof(route.plugin_reference)),
                  0);
    }
    KELNetioRoute route;
    EXPECT_EQ(KELNetioConfigurator_getRoute(configurator, 3, &route), 0);
    EXPECT_EQ(KELNetioConfigurator_getRoute(configurator, -1, &route), 0);
    EXPECT_EQ(KELNetioConfigurator_getRoute(configurator, 0, nullptr), 0);
    KELNetioConfigurator_delete(configurator);
}

TEST_F(ConfiguratorTest, RouteRefusals) {
    KELNetioConfigurator *configurator = KELNetioConfigurator_new(4, 3);
    KELNetioConfigurator *other = KELNetioConfigurator_new(4, 3);
    ASSERT_NE(configurator, nullptr);
    ASSERT_NE(other, nullptr);
    REDAWeakReference live, foreign;
    KELNetioAliasList list = aliasList("udp");
    ASSERT_EQ(KELNetioConfigurator_installTransportPlugin(configurator, &live, newFakePlugin(),
                                                          &list, nullptr, &worker_),
              1);
    ASSERT_EQ(KELNetioConfigurator_installTransportPlugin(other, &foreign, newFakePlugin(), &list,
                                                          nullptr, &worker_),
              1);
    // Everything in foreign except the manager matches a live reference.
    ASSERT_EQ(foreign._index, live._index);
    ASSERT_EQ(foreign._referentEpochAtCreation, live._referentEpochAtCreation);

    KELNetioAddressFilter filter, otherFilter;
    const VESK_Transport_Address_t base = ipv4(10, 1, 2, 3);
    ASSERT_EQ(KELNetioAddressFilter_from(&filter, &base, 8), 1);
    ASSERT_EQ(KELNetioAddressFilter_from(&otherFilter, &base, 16), 1);
    ASSERT_EQ(KELNetioConfigurator_addDestinationRoute(configurator, 0, &filter, &live, nullptr,
                                                       &worker_),
              1);

    REDAWeakReference outOfRange = live;
    outOfRange._index = 4;
    REDAWeakReference invalidIndex = live;
    invalidIndex._index = REDA_WEAK_REFERENCE_INDEX_INVALID;
    REDAWeakReference unusedSlot = live;
    unusedSlot._index = 1;
    REDAWeakReference staleEpoch = live;
    staleEpoch._referentEpochAtCreation = live._referentEpochAtCreation + 1;
    REDAWeakReference nullManager = live;
    nullManager._manager = nullptr;
    static const int reservedValue = 0;

    struct Row {
        const char *name;
        bool destination;
        VESK_Transport_ClassId_t service_class;
        const KELNetioAddressFilter *filter;
        const REDAWeakReference *reference;
        const void *reserved;
        int expected;
    };
    const std::vector<Row> rows = {
        {"reference of another configurator", true, 0, &otherFilter, &foreign, nullptr, 0},
        {"null manager", true, 0, &otherFilter, &nullManager, nullptr, 0},
        {"index out of range", true, 0, &otherFilter, &outOfRange, nullptr, 0},
        {"invalid index", false, 0, &otherFilter, &invalidIndex, nullptr, 0},
        {"unused slot", false, 0, &otherFilter, &unusedSlot, nullptr, 0},
        {"epoch mismatch", true, 0, &otherFilter, &staleEpoch, nullptr, 0},
        {"null reference", true, 0, &otherFilter, nullptr, nullptr, 0},
        {"null filter", false, 0, nullptr, &live, nullptr, 0},
        {"reserved not null", true, 0, &otherFilter, &live, &reservedValue, 0},
        {"identical destination route", true, 0, &filter, &live, nullptr, 0},
        {"other service class", true, 5, &filter, &live, nullptr, 1},
        {"entry-port route of the same filter", false, 0, &filter, &live, nullptr, 1},
        {"identical entry-port route", false, 0, &filter, &live, nullptr, 0},
        {"table full", true, 0, &otherFilter, &live, nullptr, 0},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        const int countBefore = KELNetioConfigurator_getRouteCount(configurator);
        const int added = row.destination ? KELNetioConfigurator_addDestinationRoute(
                                                configurator, row.service_class, row.filter,
                                                row.reference, row.reserved, &worker_)
                                          : KELNetioConfigurator_addEntryportRoute(
                                                configurator, row.filter, row.reference, &worker_);
        EXPECT_EQ(added, row.expected);
        EXPECT_EQ(KELNetioConfigurator_getRouteCount(configurator), countBefore + row.expected);
    }
    EXPECT_EQ(KELNetioConfigurator_getRouteCount(other), 0);
    KELNetioConfigurator_delete(other);
    KELNetioConfigurator_delete(configurator);
}

TEST(AddressFilterTest, FromKeepsTheLeadingBits) {
    VESK_Transport_Address_t ones;
    std::memset(&ones, 0xFF, sizeof(ones));
    struct Row {
        int free_bit_count;
        // Expected mask, byte by byte; the address equals it here.
        VESK_Transport_Address_t mask;
    };
    const std::vector<Row> rows = {
        {0, address({0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
                     0xFF, 0xFF, 0xFF})},
        {1, address({0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
                     0xFF, 0xFF, 0xFE})},
        {8, address({0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
                     0xFF, 0xFF, 0x00})},
        {12, address({0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
                      0xFF, 0xF0, 0x00})},
        {32, address({0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF})},
        {127, address({0x80})},
        {128, address({})},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.free_bit_count);
        KELNetioAddressFilter filter;
        std::memset(&filter, 0x5A, sizeof(filter));
        ASSERT_EQ(KELNetioAddressFilter_from(&filter, &ones, row.free_bit_count), 1);
        EXPECT_EQ(std::memcmp(&filter.mask, &row.mask, sizeof(row.mask)), 0);
        EXPECT_EQ(std::memcmp(&filter.address, &row.mask, sizeof(row.mask)), 0);
    }
}

TEST(AddressFilterTest, FromClearsTheFreeBitsOfTheAddress) {
    const VESK_Transport_Address_t in = ipv4(192, 168, 37, 201);
    KELNetioAddressFilter filter;
    ASSERT_EQ(KELNetioAddressFilter_from(&filter, &in, 12), 1);
    const VESK_Transport_Address_t expected = ipv4(192, 168, 32, 0);
    EXPECT_EQ(std::memcmp(&filter.address, &expected, sizeof(expected)), 0);

    // The address may be the filter's own.
    KELNetioAddressFilter self;
    self.address = in;
    ASSERT_EQ(KELNetioAddressFilter_from(&self, &self.address, 12), 1);
    EXPECT_EQ(std::memcmp(&self, &filter, sizeof(self)), 0);
}

TEST(AddressFilterTest, FromRefusesBadArguments) {
    const VESK_Transport_Address_t in = ipv4(1, 2, 3, 4);
    for (int freeBits : {-1, 129, 1000}) {
        SCOPED_TRACE(freeBits);
        KELNetioAddressFilter filter;
        std::memset(&filter, 0x5A, sizeof(filter));
        KELNetioAddressFilter untouched = filter;
        EXPECT_EQ(KELNetioAddressFilter_from(&filter, &in, freeBits), 0);
        EXPECT_EQ(std::memcmp(&filter, &untouched, sizeof(filter)), 0);
    }
    KELNetioAddressFilter filter;
    EXPECT_EQ(KELNetioAddressFilter_from(nullptr, &in, 0), 0);
    EXPECT_EQ(KELNetioAddressFilter_from(&filter, nullptr, 0), 0);
}

TEST(AddressFilterTest, Matches) {
    struct Row {
        VESK_Transport_Address_t base;
        int free_bit_count;
        VESK_Transport_Address_t candidate;
        int expected;
    };
    const std::vector<Row> rows = {
        {ipv4(10, 0, 0, 0), 8, ipv4(10, 0, 0, 255), 1},
        {ipv4(10, 0, 0, 0), 8, ipv4(10, 0, 1, 0), 0},
        {ipv4(10, 0, 0, 7), 0, ipv4(10, 0, 0, 7), 1},
        {ipv4(10, 0, 0, 7), 0, ipv4(10, 0, 0, 6), 0},
        {ipv4(10, 0, 0, 0), 32, ipv4(99, 1, 2, 3), 1},
        {ipv4(10, 0, 0, 0), 32, address({1}), 0},
        {ipv4(10, 0, 0, 0), 128, address({0xFF, 1, 2}), 1},
        {address({0x80}), 127, address({0xFF, 0xFF}), 1},
        {address({0x80}), 127, address({0x7F, 0xFF}), 0},
        {ipv4(192, 168, 16, 0), 12, ipv4(192, 168, 31, 255), 1},
        {ipv4(192, 168, 16, 0), 12, ipv4(192, 168, 32, 0), 0},
    };
    for (size_t i = 0; i < rows.size(); ++i) {
        SCOPED_TRACE(i);
        KELNetioAddressFilter filter;
        ASSERT_EQ(KELNetioAddressFilter_from(&filter, &rows[i].base, rows[i].free_bit_count), 1);
        EXPECT_EQ(KELNetioAddressFilter_matches(&filter, &rows[i].candidate), rows[i].expected);
    }
    KELNetioAddressFilter filter{};
    EXPECT_EQ(KELNetioAddressFilter_matches(nullptr, &rows[0].base), 0);
    EXPECT_EQ(KELNetioAddressFilter_matches(&filter, nullptr), 0);
}

TEST(AliasListTest, AppendFromString) {
    const std::string a64(64, 'a');
    const std::string b63(63, 'b');
    const std::string b64(64, 'b');
    const std::string c128(128, 'c');
    const std::string c129(129, 'c');
    struct Row {
        std::string start;
        const char *text;
        int expected;
        std::string after;
    };
    const std::vector<Row> rows = {
        {"", "udp", 1, "udp"},
        {"udp", "shmem", 1, "udp,shmem"},
        {"a,b", "c", 1, "a,b,c"},
        {"", "", 0, ""},
        {"udp", "", 0, "udp"},
        {"", nullptr, 0, ""},
        {"udp", "x,y", 0, "udp"},
        {"", ",", 0, ""},
        {"", c128.c_str(), 1, c128},
        {"", c129.c_str(), 0, ""},
        {a64, b63.c_str(), 1, a64 + "," + b63},  // exactly 128 characters
        {a64, b64.c_str(), 0, a64},              // 129 characters
        {c128, "d", 0, c128},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE("start \"" + row.start + "\" text " + (row.text ? row.text : "(null)"));
        KELNetioAliasList list = aliasList(row.start.c_str());
        EXPECT_EQ(KELNetioAliasList_appendFromString(&list, row.text), row.expected);
        EXPECT_EQ(std::string(list.element), row.after);
    }
    EXPECT_EQ(KELNetioAliasList_appendFromString(nullptr, "udp"), 0);

    // A list that is not terminated within its storage takes nothing.
    KELNetioAliasList full;
    std::memset(&full, 'x', sizeof(full));
    EXPECT_EQ(KELNetioAliasList_appendFromString(&full, "y"), 0);
    EXPECT_EQ(full.element[KEL_NETIO_ALIAS_LIST_LENGTH_MAX], 'x');
}

// Every refusal says why, in the configurator's own line. Each row starts
// from room for one plugin, installed under "a,busy", and one route to it.
TEST_F(ConfiguratorTest, RefusalsLogTheirReason) {
    enum Call { INSTALL, DESTINATION, ENTRYPORT };
    enum Argument { NONE, FIRST, SPARE, UNTERMINATED, RESERVED, STALE };
    struct Row {
        Call call;
        Argument argument;  // the plugin for INSTALL, else the odd argument
        const char *aliases;
        std::string reason;
    };
    const std::vector<Row> rows = {
        {INSTALL, NONE, "b", "the plugin is NULL: pass the plugin to install"},
        {INSTALL, FIRST, "b",
         "the plugin is installed already, under \"a,busy\": install a plugin object once"},
        {INSTALL, UNTERMINATED, "",
         "the alias list is not terminated within its 129 characters: fill it with "
         "KELNetioAliasList_appendFromString"},
        {INSTALL, SPARE, "free,busy,a",
         "the alias \"busy\" is in use by an installed plugin: choose another alias"},
        {INSTALL, SPARE, "b",
         "all 1 plugin slots are in use: make the configurator with a larger plugin_count_max"},
        {DESTINATION, NONE, "", "the filter or the plugin reference is NULL"},
        {DESTINATION, RESERVED, "", "reserved is not NULL: pass NULL"},
        {ENTRYPORT, STALE, "",
         "the plugin reference names no installation of this configurator: pass the reference "
         "that installing the plugin filled"},
        {DESTINATION, FIRST, "", "the same route exists already"},
        {ENTRYPORT, FIRST, "",
         "all 1 route slots are in use: make the configurator with a larger route_count_max"},
    };
    const char *const names[] = {"KELNetioConfigurator_installTransportPlugin",
                                 "KELNetioConfigurator_addDestinationRoute",
                                 "KELNetioConfigurator_addEntryportRoute"};
    for (const Row &row : rows) {
        SCOPED_TRACE(row.reason);
        KELNetioConfigurator *configurator = KELNetioConfigurator_new(1, 1);
        VESK_Transport_Plugin *first = newFakePlugin();
        VESK_Transport_Plugin *spare = newFakePlugin();
        KELNetioAliasList list = aliasList("a,busy");
        REDAWeakReference reference{};
        const KELNetioAddressFilter filter{};
        KELNetioConfigurator_installTransportPlugin(configurator, &reference, first, &list, nullptr,
                                                    &worker_);
        KELNetioConfigurator_addDestinationRoute(configurator, 0, &filter, &reference, nullptr,
                                                 &worker_);
        list = aliasList(row.aliases);
        if (row.argument == UNTERMINATED) std::memset(&list, 'x', sizeof(list));
        REDAWeakReference stale = reference;
        ++stale._referentEpochAtCreation;
        vesk::test::LogCapture log;
        int result = -1;
        if (row.call == INSTALL) {
            VESK_Transport_Plugin *plugin =
                row.argument == NONE ? nullptr : (row.argument == FIRST ? first : spare);
            result = KELNetioConfigurator_installTransportPlugin(configurator, nullptr, plugin,
                                                                 &list, nullptr, &worker_);
        } else if (row.call == DESTINATION) {
            result = KELNetioConfigurator_addDestinationRoute(
                configurator, 0, row.argument == NONE ? nullptr : &filter, &reference,
                row.argument == RESERVED ? &filter : nullptr, &worker_);
        } else {
            result = KELNetioConfigurator_addEntryportRoute(
                configurator, &filter, row.argument == STALE ? &stale : &reference, &worker_);
        }
        EXPECT_EQ(result, 0);
        EXPECT_EQ(log.summary(),
                  std::vector<std::string>{"KEL_LOG_ANY_FAILURE_s(" + row.reason + ")"});
        for (const auto &entry : log.entries()) {
            EXPECT_EQ(entry.function, names[row.call]);
            EXPECT_EQ(entry.level, static_cast<KEL_UINT32>(KEL_LOG_BIT_ERROR));
        }
        fakeDelete(spare, nullptr);
        KELNetioConfigurator_delete(configurator);
    }
    vesk::test::LogCapture log;
    EXPECT_EQ(KELNetioConfigurator_addEntryportRoute(nullptr, nullptr, nullptr, &worker_), 0);
    EXPECT_EQ(log.summary(),
              std::vector<std::string>{"KEL_LOG_ANY_FAILURE_s(the configurator is NULL)"});
}

}  // namespace
