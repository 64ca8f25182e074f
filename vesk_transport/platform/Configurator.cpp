// The network-I/O configurator: a fixed-size table of installed plugins and
// a fixed-size table of routes, both on the library heap.
//
// The configurator is its own weak-reference manager: a reference names an
// installation by the configurator's address, the slot index and the epoch
// the slot received when the plugin was installed. Slots are never reused
// (there is no uninstall), but the epoch still lets a reference forged or
// copied from another configurator be told apart from a live one.
//
// A refused installation or route is reported through the result, which its
// callers log in their own terms (an alias list, say), and first in the
// configurator's own log line, which names the reason: the alias already in
// use, the plugin already installed, the route that exists already, the
// table full.

#include "vesk_transport/platform/Configurator.h"

#include <cstdio>
#include <cstring>
#include <new>
#include <string_view>

#include "vesk_transport/platform/Heap.h"
#include "vesk_transport/platform/Log.h"

namespace {

struct Installation {
    VESK_Transport_Plugin *plugin;  // null: the slot is unused
    KELNetioAliasList aliases;
    VESK_Transport_Address_t networkAddress;
    REDAEpoch epoch;
};

}  // namespace

struct KELNetioConfiguratorImpl {
    Installation *installations = nullptr;
    int pluginCountMax = 0;
    int pluginCount = 0;
    KELNetioRoute *routes = nullptr;
    int routeCountMax = 0;
    int routeCount = 0;
    // The epoch handed to the next installation; 0 is never handed out.
    REDAEpoch nextEpoch = 1;
};

namespace {

const REDAWeakReferenceManager *managerOf(const KELNetioConfigurator *self) {
    return reinterpret_cast<const REDAWeakReferenceManager *>(self);
}

// The text of a list, or an empty view when the list is not terminated
// within its storage (such a list is refused wherever it is taken in).
bool aliasText(const KELNetioAliasList *list, std::string_view *text_out) {
    const size_t length = strnlen(list->element, sizeof(list->element));
    if (length > KEL_NETIO_ALIAS_LIST_LENGTH_MAX) return false;
    *text_out = std::string_view(list->element, length);
    return true;
}

// Calls visit(alias) for each alias of a comma-separated text, in order,
// until it returns true; returns whether it did.
template <typename Visit>
bool anyAlias(std::string_view text, Visit visit) {
    while (!text.empty()) {
        const size_t comma = text.find(',');
        const std::string_view alias = text.substr(0, comma);
        if (!alias.empty() && visit(alias)) return true;
        if (comma == std::string_view::npos) break;
        text.remove_prefix(comma + 1);
    }
    return false;
}

bool listCarries(const KELNetioAliasList *list, std::string_view alias) {
    std::string_view text;
    if (!aliasText(list, &text)) return false;
    return anyAlias(text, [alias](std::string_view candidate) { return candidate == alias; });
}

int findPlugin(const KELNetioConfigurator *self, const VESK_Transport_Plugin *plugin) {
    for (int i = 0; i < self->pluginCountMax; ++i) {
        if (self->installations[i].plugin != nullptr && self->installations[i].plugin == plugin) {
            return i;
        }
    }
    return -1;
}

REDAWeakReference referenceTo(const KELNetioConfigurator *self, int slot) {
    REDAWeakReference reference;
    reference._manager = managerOf(self);
    reference._index = static_cast<KEL_UINT32>(slot);
    reference._referentEpochAtCreation = self->installations[slot].epoch;
    return reference;
}

bool referenceIsLive(const KELNetioConfigurator *self, const REDAWeakReference *reference) {
    if (reference == nullptr || reference->_manager != managerOf(self)) return false;
    if (reference->_index >= static_cast<KEL_UINT32>(self->pluginCountMax)) return false;
    const Installation &installation = self->installations[reference->_index];
    return installation.plugin != nullptr &&
           installation.epoch == reference->_referentEpochAtCreation;
}

bool sameReference(const REDAWeakReference &a, const REDAWeakReference &b) {
    return a._manager == b._manager && a._index == b._index &&
           a._referentEpochAtCreation == b._referentEpochAtCreation;
}

bool sameRoute(const KELNetioRoute &a, const KELNetioRoute &b) {
    return a.kind == b.kind && a.service_class == b.service_class &&
           std::memcmp(&a.filter, &b.filter, sizeof(a.filter)) == 0 &&
           sameReference(a.plugin_reference, b.plugin_reference);
}

// Why an installation or a route is refused: the reason the configurator
// logs, with the detail that names the culprit (%.*s, when the reason has
// one) and how to fix it.
enum class Refusal {
    NoConfigurator,
    NoPlugin,
    AlreadyInstalled,
    Unterminated,
    AliasInUse,
    PluginTableFull,
    NoFilterOrReference,
    ReservedNotNull,
    NotLive,
    SameRoute,
    RouteTableFull
};

struct RefusalRow {
    Refusal refusal;
    const char *format;
};

constexpr RefusalRow REFUSALS[] = {
    {Refusal::NoConfigurator, "the configurator is NULL"},
    {Refusal::NoPlugin, "the plugin is NULL: pass the plugin to install"},
    {Refusal::AlreadyInstalled,
     "the plugin is installed already, under \"%.*s\": install a plugin object once"},
    {Refusal::Unterminated,
     "the alias list is not terminated within its %.*s characters: fill it with "
     "KELNetioAliasList_appendFromString"},
    {Refusal::AliasInUse,
     "the alias \"%.*s\" is in use by an installed plugin: choose another alias"},
    {Refusal::PluginTableFull,
     "all %.*s plugin slots are in use: make the configurator with a larger plugin_count_max"},
    {Refusal::NoFilterOrReference, "the filter or the plugin reference is NULL"},
    {Refusal::ReservedNotNull, "reserved is not NULL: pass NULL"},
    {Refusal::NotLive,
     "the plugin reference names no installation of this configurator: pass the reference "
     "that installing the plugin filled"},
    {Refusal::SameRoute, "the same route exists already"},
    {Refusal::RouteTableFull,
     "all %.*s route slots are in use: make the configurator with a larger route_count_max"},
};

// Logs the reason for the refusing operation and returns its result, 0.
int refuse(const char *function, Refusal refusal, std::string_view detail = {}) noexcept {
    if (!KELLog_isEnabled(KEL_LOG_BIT_ERROR, DDS_SUBMODULE_MASK_TRANSPORT)) return 0;
    for (const RefusalRow &row : REFUSALS) {
        if (row.refusal != refusal) continue;
        char reason[KEL_NETIO_ALIAS_LIST_LENGTH_MAX + 160];
        std::snprintf(reason, sizeof reason, row.format, static_cast<int>(detail.size()),
                      detail.data());
        KELLogMessage_printWithParams(-1, KEL_LOG_BIT_ERROR, VESK_TRANSPORT_LOG_MODULE_ID, __FILE__,
                                      __LINE__, function, &KEL_LOG_ANY_FAILURE_s, reason);
    }
    return 0;
}

constexpr const char *INSTALL_NAME = "KELNetioConfigurator_installTransportPlugin";
constexpr const char *DESTINATION_ROUTE_NAME = "KELNetioConfigurator_addDestinationRoute";
constexpr const char *ENTRYPORT_ROUTE_NAME = "KELNetioConfigurator_addEntryportRoute";

// A count as text, for a refusal's detail.
struct CountText {
    explicit CountText(int count) { std::snprintf(text, sizeof text, "%d", count); }
    char text[16];
};

int addRoute(KELNetioConfigurator *self, const KELNetioRoute &route, const char *function) {
    if (!referenceIsLive(self, &route.plugin_reference)) return refuse(function, Refusal::NotLive);
    for (int i = 0; i < self->routeCount; ++i) {
        if (sameRoute(self->routes[i], route)) return refuse(function, Refusal::SameRoute);
    }
    if (self->routeCount >= self->routeCountMax) {
        return refuse(function, Refusal::RouteTableFull, CountText(self->routeCountMax).text);
    }
    self->routes[self->routeCount++] = route;
    return 1;
}

void destroy(KELNetioConfigurator *self) {
    KELOsapiHeap_freeArray(self->routes);
    KELOsapiHeap_freeArray(self->installations);
    self->~KELNetioConfiguratorImpl();
    KELOsapiHeap_freeMemoryInternal(self);
}

}  // namespace

extern "C" {

int KELNetioAliasList_appendFromString(KELNetioAliasList *list, const char *text) {
    if (list == nullptr || text == nullptr || text[0] == '\0') return 0;
    if (std::strchr(text, ',') != nullptr) return 0;
    std::string_view current;
    if (!aliasText(list, &current)) return 0;
    const size_t separator = current.empty() ? 0 : 1;
    const size_t textLength = std::strlen(text);
    if (textLength > KEL_NETIO_ALIAS_LIST_LENGTH_MAX) return 0;
    if (current.size() + separator + textLength > KEL_NETIO_ALIAS_LIST_LENGTH_MAX) return 0;
    char *end = list->element + current.size();
    if (separator != 0) *end++ = ',';
    std::memcpy(end, text, textLength + 1);
    return 1;
}

int KELNetioAddressFilter_from(KELNetioAddressFilter *filter_out,
                               const VESK_Transport_Address_t *address_in, int free_bit_count) {
    if (filter_out == nullptr || address_in == nullptr) return 0;
    if (free_bit_count < 0 || free_bit_count > 128) return 0;
    // Built aside: address_in may lie inside filter_out.
    KELNetioAddressFilter filter;
    int keptBits = 128 - free_bit_count;
    for (int i = 0; i < 16; ++i) {
        const int bits = keptBits >= 8 ? 8 : keptBits;
        keptBits -= bits;
        const unsigned char mask = static_cast<unsigned char>(0xFF00u >> bits);
        filter.mask.network_ordered_value[i] = mask;
        filter.address.network_ordered_value[i] = address_in->network_ordered_value[i] & mask;
    }
    *filter_out = filter;
    return 1;
}

int KELNetioAddressFilter_matches(const KELNetioAddressFilter *filter,
                                  const VESK_Transport_Address_t *address_in) {
    if (filter == nullptr || address_in == nullptr) return 0;
    for (int i = 0; i < 16; ++i) {
        const unsigned char mask = filter->mask.network_ordered_value[i];
        if ((address_in->network_ordered_value[i] & mask) !=
            (filter->address.network_ordered_value[i] & mask)) {
            return 0;
        }
    }
    return 1;
}

KELNetioConfigurator *KELNetioConfigurator_new(int plugin_count_max, int route_count_max) {
    if (plugin_count_max < 0 || route_count_max < 0) return nullptr;
    if (plugin_count_max == 0) plugin_count_max = KEL_NETIO_CONFIGURATOR_PLUGIN_COUNT_MAX_DEFAULT;
    if (route_count_max == 0) route_count_max = KEL_NETIO_CONFIGURATOR_ROUTE_COUNT_MAX_DEFAULT;
    try {
        void *block =
            KELOsapiHeap_reallocateMemoryInternal(nullptr, 1, sizeof(KELNetioConfiguratorImpl),
                                                  "KELNetioConfigurator", VESK_TRANSPORT_HEAP_TAG);
        if (block == nullptr) return nullptr;
        auto *self = new (block) KELNetioConfiguratorImpl;
        if (!KELOsapiHeap_allocateArray(&self->installations, plugin_count_max, Installation) ||
            !KELOsapiHeap_allocateArray(&self->routes, route_count_max, KELNetioRoute)) {
            destroy(self);
            return nullptr;
        }
        self->pluginCountMax = plugin_count_max;
        self->routeCountMax = route_count_max;
        return self;
    } catch (...) {
        return nullptr;
    }
}

void KELNetioConfigurator_delete(KELNetioConfigurator *self) {
    if (self == nullptr) return;
    for (int i = 0; i < self->pluginCountMax; ++i) {
        VESK_Transport_Plugin *plugin = self->installations[i].plugin;
        self->installations[i].plugin = nullptr;
        if (plugin != nullptr && plugin->delete_cEA != nullptr) {
            plugin->delete_cEA(plugin, nullptr);
        }
    }
    destroy(self);
}

VESK_Transport_ClassId_t KELNetioConfigurator_getShmemTransportClassId(KELNetioConfigurator *,
                                                                       struct REDAWorker *) {
    return VESK_TRANSPORT_CLASSID_SHMEM;
}

VESK_Transport_Plugin *KELNetioConfigurator_getTransportPluginByClass(
    KELNetioConfigurator *self, VESK_Transport_ClassId_t classid, struct REDAWorker *) {
    if (self == nullptr) return nullptr;
    for (int i = 0; i < self->pluginCountMax; ++i) {
        VESK_Transport_Plugin *plugin = self->installations[i].plugin;
        if (plugin != nullptr && plugin->property != nullptr &&
            plugin->property->classid == classid) {
            return plugin;
        }
    }
    return nullptr;
}

VESK_Transport_Plugin *KELNetioConfigurator_getTransportPluginFromAlias(
    KELNetioConfigurator *self, struct REDAWeakReference *plugin_reference_out,
    const KELNetioAliasList *aliases, struct REDAWorker *) {
    if (self == nullptr || aliases == nullptr) return nullptr;
    std::string_view text;
    if (!aliasText(aliases, &text)) return nullptr;
    int found = -1;
    // The order of the asked aliases decides, not the order of installation.
    anyAlias(text, [self, &found](std::string_view alias) {
        for (int i = 0; i < self->pluginCountMax; ++i) {
            const Installation &installation = self->installations[i];
            if (installation.plugin != nullptr && listCarries(&installation.aliases, alias)) {
                found = i;
                return true;
            }
        }
        return false;
    });
    if (found < 0) return nullptr;
    if (plugin_reference_out != nullptr) *plugin_reference_out = referenceTo(self, found);
    return self->installations[found].plugin;
}

int KELNetioConfigurator_installTransportPlugin(KELNetioConfigurator *self,
                                                struct REDAWeakReference *plugin_reference_out,
                                                VESK_Transport_Plugin *plugin,
                                                const KELNetioAliasList *aliases,
                                                const VESK_Transport_Address_t *network_address,
                                                struct REDAWorker *) {
    if (self == nullptr) return refuse(INSTALL_NAME, Refusal::NoConfigurator);
    if (plugin == nullptr) return refuse(INSTALL_NAME, Refusal::NoPlugin);
    const int installedSlot = findPlugin(self, plugin);
    if (installedSlot >= 0) {
        return refuse(INSTALL_NAME, Refusal::AlreadyInstalled,
                      self->installations[installedSlot].aliases.element);
    }

    KELNetioAliasList ownAliases;
    std::memset(&ownAliases, 0, sizeof(ownAliases));
    if (aliases != nullptr) {
        std::string_view text;
        if (!aliasText(aliases, &text)) {
            return refuse(INSTALL_NAME, Refusal::Unterminated,
                          CountText(KEL_NETIO_ALIAS_LIST_LENGTH_MAX + 1).text);
        }
        std::memcpy(ownAliases.element, text.data(), text.size());
    }
    // Every alias names at most one installation.
    std::string_view taken;
    anyAlias(ownAliases.element, [self, &taken](std::string_view alias) {
        for (int i = 0; i < self->pluginCountMax; ++i) {
            const Installation &installation = self->installations[i];
            if (installation.plugin != nullptr && listCarries(&installation.aliases, alias)) {
                taken = alias;
                return true;
            }
        }
        return false;
    });
    if (!taken.empty()) return refuse(INSTALL_NAME, Refusal::AliasInUse, taken);

    int slot = -1;
    for (int i = 0; i < self->pluginCountMax && slot < 0; ++i) {
        if (self->installations[i].plugin == nullptr) slot = i;
    }
    if (slot < 0)
        return refuse(INSTALL_NAME, Refusal::PluginTableFull, CountText(self->pluginCountMax).text);

    Installation &installation = self->installations[slot];
    installation.plugin = plugin;
    installation.aliases = ownAliases;
    if (network_address != nullptr) {
        installation.networkAddress = *network_address;
    } else {
        std::memset(&installation.networkAddress, 0, sizeof(installation.networkAddress));
    }
    installation.epoch = self->nextEpoch++;
    if (self->nextEpoch == 0) self->nextEpoch = 1;
    ++self->pluginCount;
    if (plugin_reference_out != nullptr) *plugin_reference_out = referenceTo(self, slot);
    return 1;
}

int KELNetioConfigurator_queryTransportPlugin(KELNetioConfigurator *self,
                                              KELNetioAliasList *aliases_out,
                                              VESK_Transport_Address_t *network_address_out,
                                              struct REDAWeakReference *plugin_reference_out,
                                              const VESK_Transport_Plugin *plugin,
                                              struct REDAWorker *) {
    if (self == nullptr || plugin == nullptr) return 0;
    const int slot = findPlugin(self, plugin);
    if (slot < 0) return 0;
    const Installation &installation = self->installations[slot];
    if (aliases_out != nullptr) *aliases_out = installation.aliases;
    if (network_address_out != nullptr) *network_address_out = installation.networkAddress;
    if (plugin_reference_out != nullptr) *plugin_reference_out = referenceTo(self, slot);
    return 1;
}

int KELNetioConfigurator_addDestinationRoute(KELNetioConfigurator *self,
                                             VESK_Transport_ClassId_t service_class,
                                             const KELNetioAddressFilter *filter,
                                             const struct REDAWeakReference *plugin_reference,
                                             const void *reserved, struct REDAWorker *) {
    if (self == nullptr) return refuse(DESTINATION_ROUTE_NAME, Refusal::NoConfigurator);
    if (filter == nullptr || plugin_reference == nullptr) {
        return refuse(DESTINATION_ROUTE_NAME, Refusal::NoFilterOrReference);
    }
    if (reserved != nullptr) return refuse(DESTINATION_ROUTE_NAME, Refusal::ReservedNotNull);
    KELNetioRoute route;
    std::memset(&route, 0, sizeof(route));
    route.kind = KEL_NETIO_ROUTE_DESTINATION;
    route.service_class = service_class;
    route.filter = *filter;
    route.plugin_reference = *plugin_reference;
    return addRoute(self, route, DESTINATION_ROUTE_NAME);
}

int KELNetioConfigurator_addEntryportRoute(KELNetioConfigurator *self,
                                           const KELNetioAddressFilter *filter,
                                           const struct REDAWeakReference *plugin_reference,
                                           struct REDAWorker *) {
    if (self == nullptr) return refuse(ENTRYPORT_ROUTE_NAME, Refusal::NoConfigurator);
    if (filter == nullptr || plugin_reference == nullptr) {
        return refuse(ENTRYPORT_ROUTE_NAME, Refusal::NoFilterOrReference);
    }
    KELNetioRoute route;
    std::memset(&route, 0, sizeof(route));
    route.kind = KEL_NETIO_ROUTE_ENTRYPORT;
    route.service_class = 0;
    route.filter = *filter;
    route.plugin_reference = *plugin_reference;
    return addRoute(self, route, ENTRYPORT_ROUTE_NAME);
}

int KELNetioConfigurator_getRouteCount(const KELNetioConfigurator *self) {
    return self == nullptr ? 0 : self->routeCount;
}

int KELNetioConfigurator_getRoute(const KELNetioConfigurator *self, int index,
                                  struct KELNetioRoute *route_out) {
    if (self == nullptr || route_out == nullptr) return 0;
    if (index < 0 || index >= self->routeCount) return 0;
    *route_out = self->routes[index];
    return 1;
}

int KELNetioConfigurator_getPluginCount(const KELNetioConfigurator *self) {
    return self == nullptr ? 0 : self->pluginCount;
}

int KELNetioConfigurator_getPluginCountMax(const KELNetioConfigurator *self) {
    return self == nullptr ? 0 : self->pluginCountMax;
}

}  // extern "C"
