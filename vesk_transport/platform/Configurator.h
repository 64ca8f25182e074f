/* The network-I/O configurator: the table of a participant's installed
 * transport plugins, with their aliases, network addresses and routes.
 *
 * An installed plugin belongs to the configurator: deleting the
 * configurator calls the plugin's delete_cEA (when present). Every
 * operation takes the calling thread's worker as its last argument. */
#ifndef VESK_TRANSPORT_PLATFORM_CONFIGURATOR_H
#define VESK_TRANSPORT_PLATFORM_CONFIGURATOR_H

#include "vesk_transport/platform/Transport.h"
#include "vesk_transport/platform/Worker.h"

#ifdef __cplusplus
extern "C" {
#endif
VESK_TRANSPORT_EXPORT_BEGIN

/* ---------------------------------------------------------------------
 * Alias lists
 *
 * A list of aliases held as one text of at most 128 characters: the
 * aliases in order, separated by commas ("udp_a,udp_b"). An alias is never
 * empty and never holds a comma.
 * ------------------------------------------------------------------- */
#define KEL_NETIO_ALIAS_LIST_LENGTH_MAX 128
typedef struct KELNetioAliasList {
    char element[KEL_NETIO_ALIAS_LIST_LENGTH_MAX + 1];
} KELNetioAliasList;

/* Appends one alias (with a separating comma when the list is not empty).
 * 0, with the list unchanged, when text is null or empty, holds a comma,
 * or does not fit. */
int KELNetioAliasList_appendFromString(KELNetioAliasList *list, const char *text);

/* ---------------------------------------------------------------------
 * Weak references
 * ------------------------------------------------------------------- */
typedef KEL_UINT32 REDAEpoch;
struct REDAWeakReferenceManager; /* opaque */

struct REDAWeakReference {
    const struct REDAWeakReferenceManager *_manager;
    KEL_UINT32 _index;
    REDAEpoch _referentEpochAtCreation;
};
#define REDA_WEAK_REFERENCE_INDEX_INVALID 0xFFFFFFFFu

/* ---------------------------------------------------------------------
 * Address filters
 * ------------------------------------------------------------------- */
typedef struct KELNetioAddressFilter {
    VESK_Transport_Address_t address;
    VESK_Transport_Address_t mask;
} KELNetioAddressFilter;

/* Builds the filter that matches every address agreeing with address_in in
 * its leading 128 - free_bit_count bits: free_bit_count is the number of
 * low-order (last) bits that are left free. mask has the leading bits set;
 * address is address_in with the free bits cleared. 0 (filter untouched)
 * when an argument is null or free_bit_count is outside 0..128. */
int KELNetioAddressFilter_from(KELNetioAddressFilter *filter_out,
                               const VESK_Transport_Address_t *address_in, int free_bit_count);
/* Non-zero when address_in passes the filter. */
int KELNetioAddressFilter_matches(const KELNetioAddressFilter *filter,
                                  const VESK_Transport_Address_t *address_in);

/* ---------------------------------------------------------------------
 * The configurator
 * ------------------------------------------------------------------- */
typedef struct KELNetioConfiguratorImpl KELNetioConfigurator;

#define KEL_NETIO_CONFIGURATOR_PLUGIN_COUNT_MAX_DEFAULT 16
#define KEL_NETIO_CONFIGURATOR_ROUTE_COUNT_MAX_DEFAULT 64

/* A configurator with room for plugin_count_max plugins and
 * route_count_max routes (0 for the defaults above). */
KELNetioConfigurator *KELNetioConfigurator_new(int plugin_count_max, int route_count_max);
/* Deletes the configurator and every plugin installed on it. */
void KELNetioConfigurator_delete(KELNetioConfigurator *self);

VESK_Transport_ClassId_t KELNetioConfigurator_getShmemTransportClassId(KELNetioConfigurator *self,
                                                                       struct REDAWorker *worker);

/* The installed plugin of that class (the first installed), or NULL. */
VESK_Transport_Plugin *KELNetioConfigurator_getTransportPluginByClass(
    KELNetioConfigurator *self, VESK_Transport_ClassId_t classid, struct REDAWorker *worker);

/* The installed plugin that carries one of the aliases of the list (the
 * first alias that any plugin carries wins), or NULL. When
 * plugin_reference_out is non-null it receives the installation's weak
 * reference. */
VESK_Transport_Plugin *KELNetioConfigurator_getTransportPluginFromAlias(
    KELNetioConfigurator *self, struct REDAWeakReference *plugin_reference_out,
    const KELNetioAliasList *aliases, struct REDAWorker *worker);

/* Installs plugin under aliases and network_address and fills
 * plugin_reference_out. 0 when plugin is null, already installed, carries
 * an alias that an installed plugin carries, or the table is full. */
int KELNetioConfigurator_installTransportPlugin(KELNetioConfigurator *self,
                                                struct REDAWeakReference *plugin_reference_out,
                                                VESK_Transport_Plugin *plugin,
                                                const KELNetioAliasList *aliases,
                                                const VESK_Transport_Address_t *network_address,
                                                struct REDAWorker *worker);

/* Non-zero when plugin is installed here; then fills the three outputs
 * (aliases_out and network_address_out may be null). */
int KELNetioConfigurator_queryTransportPlugin(KELNetioConfigurator *self,
                                              KELNetioAliasList *aliases_out,
                                              VESK_Transport_Address_t *network_address_out,
                                              struct REDAWeakReference *plugin_reference_out,
                                              const VESK_Transport_Plugin *plugin,
                                              struct REDAWorker *worker);

/* Adds a route that sends traffic for addresses passing filter through the
 * installation plugin_reference. service_class 0 means every service;
 * reserved must be NULL. 0 when the reference does not name a live
 * installation of this configurator, the same route exists already, or the
 * route table is full. */
int KELNetioConfigurator_addDestinationRoute(KELNetioConfigurator *self,
                                             VESK_Transport_ClassId_t service_class,
                                             const KELNetioAddressFilter *filter,
                                             const struct REDAWeakReference *plugin_reference,
                                             const void *reserved, struct REDAWorker *worker);
/* Adds a route that receives on entry ports whose addresses pass filter
 * through the installation; refusals as for destination routes. */
int KELNetioConfigurator_addEntryportRoute(KELNetioConfigurator *self,
                                           const KELNetioAddressFilter *filter,
                                           const struct REDAWeakReference *plugin_reference,
                                           struct REDAWorker *worker);

typedef enum KELNetioRouteKind {
    KEL_NETIO_ROUTE_DESTINATION = 0,
    KEL_NETIO_ROUTE_ENTRYPORT = 1
} KELNetioRouteKind;

struct KELNetioRoute {
    KELNetioRouteKind kind;
    VESK_Transport_ClassId_t service_class; /* destination routes only */
    KELNetioAddressFilter filter;
    struct REDAWeakReference plugin_reference;
};

int KELNetioConfigurator_getRouteCount(const KELNetioConfigurator *self);
/* Copies route index (in the order added); 0 when out of range. */
int KELNetioConfigurator_getRoute(const KELNetioConfigurator *self, int index,
                                  struct KELNetioRoute *route_out);
int KELNetioConfigurator_getPluginCount(const KELNetioConfigurator *self);
/* Room for plugins: the plugin_count_max the configurator was made with
 * (after applying the default). */
int KELNetioConfigurator_getPluginCountMax(const KELNetioConfigurator *self);

VESK_TRANSPORT_EXPORT_END
#ifdef __cplusplus
} /* extern "C" */
#endif

#endif
