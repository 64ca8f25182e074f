// The network-I/O configurator: installation and its refusals, ownership of
// installed plugins, weak references, lookups, routes, address filters,
// alias lists and generated default addresses.
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include "support/PlatformChecks.hpp"
#include "vesk_transport/platform/Configurator.h"
#include "vesk_transport/platform/ConfiguratorUtil.h"
#include "vesk_transport/platform/SocketUtil.h"

namespace {

using vesk::test::aliasList;
using vesk::test::FakePlugin;
using vesk::test::hex;
using vesk::test::liveHeapBlocks;
using vesk::test::LogCapture;
using vesk::test::logLines;
using Strings = std::vector<std::string>;

VESK_Transport_Address_t address(std::initializer_list<int> bytes) {
    VESK_Transport_Address_t result{};
    int i = 0;
    for (int b : bytes) result.network_ordered_value[i++] = static_cast<unsigned char>(b);
    return result;
}
VESK_Transport_Address_t ipv4(int a, int b, int c, int d) {
    return address({0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, a, b, c, d});
}

// "2 function KEL_LOG_ANY_FAILURE_s(reason)", or nothing for no reason.
Strings refusal(const char *function, const std::string &reason) {
    if (reason.empty()) return {};
    return {std::string("2 KELNetioConfigurator_") + function + " KEL_LOG_ANY_FAILURE_s(" + reason +
            ")"};
}

class ConfiguratorTest : public ::testing::Test {
protected:
    // Installs a fake plugin under the aliases; its weak reference.
    REDAWeakReference install(const char *aliases, VESK_Transport_ClassId_t classid = 0x7000,
                              KELNetioConfigurator *on = nullptr) {
        KELNetioAliasList list = aliasList(aliases);
        REDAWeakReference reference{};
        EXPECT_EQ(KELNetioConfigurator_installTransportPlugin(on ? on : configurator_, &reference,
                                                              FakePlugin::make(classid), &list,
                                                              nullptr, &worker_),
                  1);
        return reference;
    }
    void TearDown() override { KELNetioConfigurator_delete(configurator_); }
    REDAWorker worker_{"test worker", nullptr};
    KELNetioConfigurator *configurator_ = KELNetioConfigurator_new(4, 3);
};

TEST_F(ConfiguratorTest, NewAppliesDefaultsAndSurvivesEveryAllocationFailure) {
    EXPECT_EQ(KELNetioConfigurator_new(-1, 0), nullptr);
    EXPECT_EQ(KELNetioConfigurator_new(0, -1), nullptr);
    const KEL_UINT64 before = liveHeapBlocks();
    KELNetioConfigurator *made = nullptr;
    long n = 1;
    for (; vesk::test::refusing(n, [&] { made = KELNetioConfigurator_new(0, 0); }); ++n) {
        EXPECT_EQ(made, nullptr);
        EXPECT_EQ(liveHeapBlocks(), before) << n;
    }
    EXPECT_EQ(n, 4);  // the configurator, its plugin table and its route table
    EXPECT_EQ(liveHeapBlocks(), before + 3);
    EXPECT_EQ(KELNetioConfigurator_getPluginCountMax(made),
              KEL_NETIO_CONFIGURATOR_PLUGIN_COUNT_MAX_DEFAULT);
    EXPECT_EQ(KELNetioConfigurator_getPluginCount(made), 0);
    EXPECT_EQ(KELNetioConfigurator_getRouteCount(made), 0);
    EXPECT_EQ(KELNetioConfigurator_getShmemTransportClassId(made, &worker_),
              VESK_TRANSPORT_CLASSID_SHMEM);
    KELNetioConfigurator_delete(made);
    KELNetioConfigurator_delete(nullptr);
    EXPECT_EQ(KELNetioConfigurator_getPluginCount(nullptr) +
                  KELNetioConfigurator_getPluginCountMax(nullptr),
              0);
}

// Each row starts from "a,busy,c" and "d" installed; the configurator owns what it
// installed: deleting it deletes each once. A refusal says why.
TEST_F(ConfiguratorTest, InstallRefusalsAndOwnership) {
    enum Plugin { NONE, FIRST, SPARE };
    const struct {
        int room;
        Plugin plugin;
        const char *aliases;  // nullptr: not terminated within its storage
        std::string reason;   // "": installed
    } rows[] = {
        {3, SPARE, "", ""},
        {3, SPARE, "bus,a2,usy", ""},  // a prefix or a part of an alias is another alias
        {3, SPARE, "free,busy,a",
         "the alias \"busy\" is in use by an installed plugin: choose another alias"},
        {3, SPARE, "c", "the alias \"c\" is in use by an installed plugin: choose another alias"},
        {3, NONE, "b", "the plugin is NULL: pass the plugin to install"},
        {3, FIRST, "b",
         "the plugin is installed already, under \"a,busy,c\": install a plugin object once"},
        {3, SPARE, nullptr,
         "the alias list is not terminated within its 129 characters: fill it with "
         "KELNetioAliasList_appendFromString"},
        {2, SPARE, "b",
         "all 2 plugin slots are in use: make the configurator with a larger plugin_count_max"}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.aliases ? row.aliases : "(unterminated)");
        KELNetioConfigurator *configurator = KELNetioConfigurator_new(row.room, 0);
        VESK_Transport_Plugin *first = FakePlugin::make(), *spare = FakePlugin::make();
        KELNetioAliasList list = aliasList("a,busy,c");
        KELNetioConfigurator_installTransportPlugin(configurator, nullptr, first, &list, nullptr,
                                                    &worker_);
        install("d", 0x7000, configurator);
        list = aliasList(row.aliases ? row.aliases : "");
        if (row.aliases == nullptr) std::memset(&list, 'x', sizeof list);
        VESK_Transport_Plugin *plugin = row.plugin == NONE    ? nullptr
                                        : row.plugin == FIRST ? first
                                                              : spare;
        REDAWeakReference reference = {nullptr, REDA_WEAK_REFERENCE_INDEX_INVALID, 0};
        LogCapture log;
        const int expected = row.reason.empty() ? 1 : 0;
        EXPECT_EQ(KELNetioConfigurator_installTransportPlugin(configurator, &reference, plugin,
                                                              &list, nullptr, &worker_),
                  expected);
        EXPECT_EQ(logLines(log), refusal("installTransportPlugin", row.reason));
        EXPECT_EQ(KELNetioConfigurator_getPluginCount(configurator), 2 + expected);
        if (expected == 0) {
            EXPECT_EQ(reference._index, REDA_WEAK_REFERENCE_INDEX_INVALID);  // untouched
            FakePlugin::destroy(spare, nullptr);
        }
        FakePlugin::deletions = 0;
        KELNetioConfigurator_delete(configurator);
        EXPECT_EQ(FakePlugin::deletions, 2 + expected);
    }
    // A plugin without delete_cEA is left alone.
    FakePlugin undeletable{};
    ASSERT_EQ(KELNetioConfigurator_installTransportPlugin(
                  configurator_, nullptr, &undeletable.plugin, nullptr, nullptr, &worker_),
              1);
    KELNetioConfigurator_delete(configurator_);  // while the plugin still exists
    configurator_ = nullptr;
}

TEST_F(ConfiguratorTest, QueriesAndLookupsNameTheInstallation) {
    VESK_Transport_Plugin *classless = FakePlugin::make();
    classless->property = nullptr;  // skipped by class lookups, not read
    ASSERT_EQ(KELNetioConfigurator_installTransportPlugin(configurator_, nullptr, classless,
                                                          nullptr, nullptr, &worker_),
              1);
    const REDAWeakReference alpha = install("alpha,beta", VESK_TRANSPORT_CLASSID_UDPv4);
    const REDAWeakReference gamma = install("gamma", VESK_TRANSPORT_CLASSID_UDPv4);
    EXPECT_EQ(alpha._manager, reinterpret_cast<const REDAWeakReferenceManager *>(configurator_));
    EXPECT_TRUE(alpha._index == 1u && gamma._index == 2u && gamma._referentEpochAtCreation == 3u);
    const std::pair<const char *, const REDAWeakReference *> rows[] = {
        {"beta", &alpha},
        {"gamma,alpha", &gamma},
        {"nobody,beta,gamma", &alpha},
        {"alph", nullptr},
        {"", nullptr}};
    for (const auto &[asked, expected] : rows) {
        SCOPED_TRACE(asked);
        KELNetioAliasList list = aliasList(asked);
        REDAWeakReference reference = {nullptr, REDA_WEAK_REFERENCE_INDEX_INVALID, 0};
        VESK_Transport_Plugin *found = KELNetioConfigurator_getTransportPluginFromAlias(
            configurator_, &reference, &list, &worker_);
        EXPECT_EQ(KELNetioConfigurator_getTransportPluginFromAlias(configurator_, nullptr, &list,
                                                                   &worker_),
                  found);
        if (expected == nullptr) {
            EXPECT_EQ(found, nullptr);
            EXPECT_EQ(reference._index, REDA_WEAK_REFERENCE_INDEX_INVALID);
            continue;
        }
        EXPECT_EQ(std::memcmp(&reference, expected, sizeof reference), 0);
        // The query gives back the aliases, the (zero) address and the reference.
        KELNetioAliasList aliases = aliasList("garbage");
        VESK_Transport_Address_t networkAddress = ipv4(1, 2, 3, 4);
        REDAWeakReference queried{};
        ASSERT_EQ(KELNetioConfigurator_queryTransportPlugin(
                      configurator_, &aliases, &networkAddress, &queried, found, &worker_),
                  1);
        EXPECT_STREQ(aliases.element, expected == &alpha ? "alpha,beta" : "gamma");
        EXPECT_EQ(hex(networkAddress), std::string(32, '0'));
        EXPECT_EQ(std::memcmp(&queried, expected, sizeof queried), 0);
        EXPECT_EQ(KELNetioConfigurator_queryTransportPlugin(configurator_, nullptr, nullptr,
                                                            nullptr, found, &worker_),
                  1);
    }
    // A plugin that is not installed here is not found, and outputs stay.
    VESK_Transport_Plugin *stranger = FakePlugin::make();
    KELNetioAliasList aliases = aliasList("kept");
    for (VESK_Transport_Plugin *plugin :
         {stranger, static_cast<VESK_Transport_Plugin *>(nullptr)}) {
        EXPECT_EQ(KELNetioConfigurator_queryTransportPlugin(configurator_, &aliases, nullptr,
                                                            nullptr, plugin, &worker_),
                  0);
    }
    EXPECT_STREQ(aliases.element, "kept");
    FakePlugin::destroy(stranger, nullptr);
    EXPECT_EQ(
        KELNetioConfigurator_getTransportPluginFromAlias(configurator_, nullptr, nullptr, &worker_),
        nullptr);
    // By class: the first installed of the class.
    KELNetioAliasList alphaList = aliasList("alpha");
    EXPECT_EQ(KELNetioConfigurator_getTransportPluginByClass(configurator_, 1, &worker_),
              KELNetioConfigurator_getTransportPluginFromAlias(configurator_, nullptr, &alphaList,
                                                               &worker_));
    EXPECT_FALSE(KELNetioConfigurator_getTransportPluginByClass(configurator_, 2, &worker_) ||
                 KELNetioConfigurator_getTransportPluginByClass(nullptr, 1, &worker_));
}

// Routes are stored in order; a refused one says why.
TEST_F(ConfiguratorTest, RoutesAreStoredInOrderAndRefusedWhenNotLive) {
    KELNetioConfigurator *other = KELNetioConfigurator_new(4, 3);
    const REDAWeakReference live = install("udp");
    const REDAWeakReference foreign = install("udp", 0x7000, other);
    ASSERT_TRUE(foreign._index == live._index &&
                foreign._referentEpochAtCreation == live._referentEpochAtCreation);
    KELNetioAddressFilter filter, otherFilter;
    const VESK_Transport_Address_t base = ipv4(10, 1, 2, 3);
    ASSERT_EQ(KELNetioAddressFilter_from(&filter, &base, 8), 1);
    ASSERT_EQ(KELNetioAddressFilter_from(&otherFilter, &base, 16), 1);
    REDAWeakReference outOfRange = live, unusedSlot = live, staleEpoch = live;
    outOfRange._index = 4;
    unusedSlot._index = 1;
    staleEpoch._referentEpochAtCreation += 1;
    static const int reservedValue = 0;
    const std::string notLive =
        "the plugin reference names no installation of this configurator: pass the reference "
        "that installing the plugin filled";
    const std::string nullArgument = "the filter or the plugin reference is NULL";
    const std::string same = "the same route exists already";
    const struct {
        bool destination;
        VESK_Transport_ClassId_t service_class;
        const KELNetioAddressFilter *filter;
        const REDAWeakReference *reference;
        const void *reserved;
        std::string reason;  // "": added
    } rows[] = {
        {true, 0, &filter, &live, nullptr, ""},
        {true, 0, &otherFilter, &foreign, nullptr, notLive},
        {true, 0, &otherFilter, &outOfRange, nullptr, notLive},
        {false, 0, &otherFilter, &unusedSlot, nullptr, notLive},
        {true, 0, &otherFilter, &staleEpoch, nullptr, notLive},
        {true, 0, &otherFilter, nullptr, nullptr, nullArgument},
        {false, 0, nullptr, &live, nullptr, nullArgument},
        {true, 0, &otherFilter, &live, &reservedValue, "reserved is not NULL: pass NULL"},
        {true, 0, &filter, &live, nullptr, same},
        {true, 5, &filter, &live, nullptr, ""},
        {false, 0, &filter, &live, nullptr, ""},
        {false, 0, &filter, &live, nullptr, same},
        {false, 0, &otherFilter, &live, nullptr,
         "all 3 route slots are in use: make the configurator with a larger route_count_max"}};
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::Message() << &row - rows << ": " << row.reason);
        const int countBefore = KELNetioConfigurator_getRouteCount(configurator_);
        const int expected = row.reason.empty() ? 1 : 0;
        LogCapture log;
        EXPECT_EQ(row.destination ? KELNetioConfigurator_addDestinationRoute(
                                        configurator_, row.service_class, row.filter, row.reference,
                                        row.reserved, &worker_)
                                  : KELNetioConfigurator_addEntryportRoute(
                                        configurator_, row.filter, row.reference, &worker_),
                  expected);
        EXPECT_EQ(
            logLines(log),
            refusal(row.destination ? "addDestinationRoute" : "addEntryportRoute", row.reason));
        EXPECT_EQ(KELNetioConfigurator_getRouteCount(configurator_), countBefore + expected);
    }
    const KELNetioRoute expected[] = {{KEL_NETIO_ROUTE_DESTINATION, 0, filter, live},
                                      {KEL_NETIO_ROUTE_DESTINATION, 5, filter, live},
                                      {KEL_NETIO_ROUTE_ENTRYPORT, 0, filter, live}};
    for (int i = 0; i < 3; ++i) {
        KELNetioRoute route;
        std::memset(&route, 0x5A, sizeof route);
        ASSERT_EQ(KELNetioConfigurator_getRoute(configurator_, i, &route), 1);
        EXPECT_EQ(std::memcmp(&route, &expected[i], sizeof route), 0) << i;
    }
    KELNetioRoute route;
    EXPECT_EQ(KELNetioConfigurator_getRoute(configurator_, 3, &route) +
                  KELNetioConfigurator_getRoute(configurator_, -1, &route) +
                  KELNetioConfigurator_getRoute(configurator_, 0, nullptr) +
                  KELNetioConfigurator_getRouteCount(other),
              0);
    KELNetioConfigurator_delete(other);
    LogCapture log;
    EXPECT_EQ(KELNetioConfigurator_addEntryportRoute(nullptr, nullptr, nullptr, &worker_), 0);
    EXPECT_EQ(log.summary(), Strings{"KEL_LOG_ANY_FAILURE_s(the configurator is NULL)"});
}

TEST(AddressFilter, KeepsTheLeadingBitsAndMatchesOnThem) {
    const struct {
        VESK_Transport_Address_t base;
        int freeBits;
        const char *mask;                  // hex; nullptr: refused, filter untouched
        VESK_Transport_Address_t in, out;  // one address that passes, one that does not
    } rows[] = {{ipv4(10, 0, 0, 7), 0, "ffffffffffffffffffffffffffffffff", ipv4(10, 0, 0, 7),
                 ipv4(10, 0, 0, 6)},
                {ipv4(192, 168, 37, 201), 12, "fffffffffffffffffffffffffffff000",
                 ipv4(192, 168, 32, 0), ipv4(192, 168, 48, 0)},
                {ipv4(10, 0, 0, 0), 32, "ffffffffffffffffffffffff00000000", ipv4(99, 1, 2, 3),
                 address({1})},
                {address({0x80}), 127, "80000000000000000000000000000000", address({0xFF, 0xFF}),
                 address({0x7F})},
                {address({0xFF}), 128, "00000000000000000000000000000000", address({1, 2}), {}},
                {ipv4(1, 2, 3, 4), -1, nullptr, {}, {}},
                {ipv4(1, 2, 3, 4), 129, nullptr, {}, {}}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.freeBits);
        KELNetioAddressFilter filter, untouched;
        std::memset(&filter, 0x5A, sizeof filter);
        std::memset(&untouched, 0x5A, sizeof untouched);
        EXPECT_EQ(KELNetioAddressFilter_from(&filter, &row.base, row.freeBits),
                  row.mask != nullptr);
        if (row.mask == nullptr) {
            EXPECT_EQ(std::memcmp(&filter, &untouched, sizeof filter), 0);
            continue;
        }
        EXPECT_EQ(hex(filter.mask), row.mask);
        VESK_Transport_Address_t masked = row.base;
        for (int i = 0; i < 16; ++i) {
            masked.network_ordered_value[i] &= filter.mask.network_ordered_value[i];
        }
        EXPECT_EQ(hex(filter.address), hex(masked));
        EXPECT_EQ(KELNetioAddressFilter_matches(&filter, &row.in), 1);
        EXPECT_EQ(KELNetioAddressFilter_matches(&filter, &row.out), row.freeBits == 128);
        // The address may be the filter's own.
        KELNetioAddressFilter self;
        self.address = row.base;
        ASSERT_EQ(KELNetioAddressFilter_from(&self, &self.address, row.freeBits), 1);
        EXPECT_EQ(std::memcmp(&self, &filter, sizeof self), 0);
    }
    KELNetioAddressFilter filter{};
    const VESK_Transport_Address_t any{};
    EXPECT_EQ(KELNetioAddressFilter_from(nullptr, &any, 0) +
                  KELNetioAddressFilter_from(&filter, nullptr, 0) +
                  KELNetioAddressFilter_matches(nullptr, &any) +
                  KELNetioAddressFilter_matches(&filter, nullptr),
              0);
}

TEST(AliasList, AppendTakesOneWholeAliasThatFits) {
    const std::string a64(64, 'a'), b63(63, 'b'), b64(64, 'b'), c128(128, 'c'), c129(129, 'c');
    const struct {
        std::string start;
        const char *text;
        std::string after;  // == start: refused
    } rows[] = {
        {"", "udp", "udp"},      {"udp", "shmem", "udp,shmem"},
        {"udp", "", "udp"},      {"", nullptr, ""},
        {"udp", "x,y", "udp"},   {"", c128.c_str(), c128},
        {"", c129.c_str(), ""},  {a64, b63.c_str(), a64 + "," + b63},
        {a64, b64.c_str(), a64},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE("\"" + row.start + "\" + " + (row.text ? row.text : "(null)"));
        KELNetioAliasList list = aliasList(row.start.c_str());
        EXPECT_EQ(KELNetioAliasList_appendFromString(&list, row.text), row.after != row.start);
        EXPECT_EQ(std::string(list.element), row.after);
    }
    EXPECT_EQ(KELNetioAliasList_appendFromString(nullptr, "udp"), 0);
    KELNetioAliasList unterminated;  // not terminated within its storage
    std::memset(&unterminated, 'x', sizeof unterminated);
    EXPECT_EQ(KELNetioAliasList_appendFromString(&unterminated, "y"), 0);
    EXPECT_EQ(unterminated.element[KEL_NETIO_ALIAS_LIST_LENGTH_MAX], 'x');
}

TEST(ConfiguratorUtil, DefaultAddressIsClassHostAppAndInstanceInNetworkOrder) {
    const struct {
        VESK_Transport_ClassId_t classid;
        KEL_UINT32 host, app, instance, reserved;
        const char *expected;  // nullptr: refused, address untouched
    } rows[] = {
        {VESK_TRANSPORT_CLASSID_SHMEM, 0, 0, 0, 0, "01000000000000000000000000000000"},
        {1, 0x01020304u, 0xA0B0C0D0u, 0x00FF00FFu, 0xFFFFFFFFu, "0000000101020304a0b0c0d000ff00ff"},
        {0, 1, 2, 3, 0, nullptr},
        {-1, 1, 2, 3, 0, nullptr}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.classid);
        VESK_Transport_Address_t address;
        std::memset(&address, 0xEE, sizeof address);
        EXPECT_EQ(KELNetioConfiguratorUtil_generateDefaultNetworkAddress96(
                      &address, row.classid, row.host, row.app, row.instance, row.reserved) != 0,
                  row.expected != nullptr);
        EXPECT_EQ(hex(address), row.expected != nullptr ? row.expected : std::string(32, 'e'));
    }
    EXPECT_EQ(KELNetioConfiguratorUtil_generateDefaultNetworkAddress96(nullptr, 1, 0, 0, 0, 0), 0);
}

}  // namespace
