// The domain participant as the transports see it: its entity part, its
// configurator and worker, and the property records of its builtin
// transports.
//
// The participant owns its four builtin records (deep copies) and its
// configurator; the configurator owns every plugin installed on it.

#include "vesk_transport/platform/Participant.h"

#include <cstddef>
#include <cstring>
#include <new>
#include <type_traits>

#include "vesk_transport/Support.h"
#include "vesk_transport/platform/Heap.h"
#include "vesk_transport/platform/Log.h"
#include "vesk_transport/platform/Shmem.h"
#include "vesk_transport/platform/Udp.h"

struct DDS_DomainParticipantImpl {
    // Must stay first: a participant is read as its entity.
    DDS_Entity _as_Entity;
    int enabled;
    DDS_TransportBuiltinKindMask transportBuiltinMask;
    KELNetioConfigurator *configurator;  // null when made without one
    bool hasWorker;
    REDAWorker worker;
    VESK_Transport_UDP_Property_t udpv4;
    VESK_Transport_UDP_Property_t udpv4Wan;
    VESK_Transport_UDP_Property_t udpv6;
    VESK_Transport_Shmem_Property_t shmem;
};

static_assert(std::is_standard_layout_v<DDS_DomainParticipantImpl>);
static_assert(offsetof(DDS_DomainParticipantImpl, _as_Entity) == 0);

namespace {

constexpr const char *GET_PROPERTY_NAME = "DDS_DomainParticipant_get_builtin_transport_property";
constexpr const char *SET_PROPERTY_NAME = "DDS_DomainParticipant_set_builtin_transport_property";
constexpr const char *ENABLE_NAME = "DDS_DomainParticipant_enable";

template <typename... Args>
void logError(int line, const char *function, const KELLogMessageTemplate &message, Args... args) {
    if (KELLog_isEnabled(KEL_LOG_BIT_ERROR, DDS_SUBMODULE_MASK_TRANSPORT)) {
        KELLogMessage_printWithParams(-1, KEL_LOG_BIT_ERROR, VESK_TRANSPORT_LOG_MODULE_ID, __FILE__,
                                      line, function, &message, args...);
    }
}

int participantIsEnabled(const DDS_Entity *entity) {
    return reinterpret_cast<const DDS_DomainParticipantImpl *>(entity)->enabled;
}

// The builtin kinds that have a property record and a constructor, in the
// order enable makes and installs them.
constexpr DDS_TransportBuiltinKind BUILTIN_KINDS[] = {
    DDS_TRANSPORTBUILTIN_UDPv4, DDS_TRANSPORTBUILTIN_SHMEM, DDS_TRANSPORTBUILTIN_UDPv6,
    DDS_TRANSPORTBUILTIN_UDPv4_WAN};
constexpr int BUILTIN_KIND_COUNT = sizeof(BUILTIN_KINDS) / sizeof(BUILTIN_KINDS[0]);

// A C caller may pass any int as a kind. The value is read through its
// bytes, so that a value outside the enumeration's range is never loaded as
// the enumeration, and becomes a kind again only once it is known to be one.
static_assert(sizeof(DDS_TransportBuiltinKind) == sizeof(KEL_UINT32));
bool asOneEnumerator(const DDS_TransportBuiltinKind &kind_in, DDS_TransportBuiltinKind *kind_out) {
    KEL_UINT32 value = 0;
    std::memcpy(&value, &kind_in, sizeof(value));
    switch (value) {
        case DDS_TRANSPORTBUILTIN_UDPv4:
        case DDS_TRANSPORTBUILTIN_SHMEM:
        case DDS_TRANSPORTBUILTIN_INTRA:
        case DDS_TRANSPORTBUILTIN_UDPv6:
        case DDS_TRANSPORTBUILTIN_UDPv4_WAN:
            *kind_out = static_cast<DDS_TransportBuiltinKind>(value);
            return true;
        default:
            return false;
    }
}

// The stored UDP record of a UDP kind, null for the other kinds.
VESK_Transport_UDP_Property_t *udpRecord(DDS_DomainParticipant *self,
                                         DDS_TransportBuiltinKind kind) {
    switch (kind) {
        case DDS_TRANSPORTBUILTIN_UDPv4:
            return &self->udpv4;
        case DDS_TRANSPORTBUILTIN_UDPv6:
            return &self->udpv6;
        case DDS_TRANSPORTBUILTIN_UDPv4_WAN:
            return &self->udpv4Wan;
        default:
            return nullptr;
    }
}

const char *aliasOf(DDS_TransportBuiltinKind kind) {
    switch (kind) {
        case DDS_TRANSPORTBUILTIN_UDPv4:
            return DDS_TRANSPORTBUILTIN_UDPv4_ALIAS;
        case DDS_TRANSPORTBUILTIN_SHMEM:
            return DDS_TRANSPORTBUILTIN_SHMEM_ALIAS;
        case DDS_TRANSPORTBUILTIN_UDPv6:
            return DDS_TRANSPORTBUILTIN_UDPv6_ALIAS;
        case DDS_TRANSPORTBUILTIN_UDPv4_WAN:
            return DDS_TRANSPORTBUILTIN_UDPv4_WAN_ALIAS;
        default:
            return "";
    }
}

VESK_Transport_Plugin *makeBuiltin(DDS_DomainParticipant *self, DDS_TransportBuiltinKind kind) {
    switch (kind) {
        case DDS_TRANSPORTBUILTIN_UDPv4:
            return VESK_Transport_UDPv4_newI(&self->udpv4, nullptr, nullptr);
        case DDS_TRANSPORTBUILTIN_SHMEM:
            return VESK_Transport_Shmem_newI(&self->shmem);
        case DDS_TRANSPORTBUILTIN_UDPv6:
            return VESK_Transport_UDPv6_newI(&self->udpv6, nullptr, nullptr);
        case DDS_TRANSPORTBUILTIN_UDPv4_WAN:
            return VESK_Transport_UDPv4_WAN_newI(&self->udpv4Wan, nullptr, nullptr);
        default:
            return nullptr;
    }
}

void deletePlugin(VESK_Transport_Plugin *plugin) {
    if (plugin != nullptr && plugin->delete_cEA != nullptr) plugin->delete_cEA(plugin, nullptr);
}

// Releases a participant whose records were copied up to (not including)
// the one named by copiedRecords: 0 none, 4 all.
void destroy(DDS_DomainParticipant *self, int copiedRecords) {
    KELNetioConfigurator_delete(self->configurator);
    if (copiedRecords > 0) VESK_Transport_UDP_Property_finalize(&self->udpv4);
    if (copiedRecords > 1) VESK_Transport_UDP_Property_finalize(&self->udpv4Wan);
    if (copiedRecords > 2) VESK_Transport_UDP_Property_finalize(&self->udpv6);
    if (copiedRecords > 3) VESK_Transport_Shmem_Property_finalize(&self->shmem);
    self->~DDS_DomainParticipantImpl();
    KELOsapiHeap_freeMemoryInternal(self);
}

}  // namespace

extern "C" {

DDS_DomainParticipant *DDS_DomainParticipant_create(
    const struct DDS_DomainParticipantOptions *options) {
    static const DDS_DomainParticipantOptions DEFAULT_OPTIONS =
        DDS_DOMAINPARTICIPANT_OPTIONS_DEFAULT;
    if (options == nullptr) options = &DEFAULT_OPTIONS;
    try {
        void *block =
            KELOsapiHeap_reallocateMemoryInternal(nullptr, 1, sizeof(DDS_DomainParticipantImpl),
                                                  "DDS_DomainParticipant", VESK_TRANSPORT_HEAP_TAG);
        if (block == nullptr) return nullptr;
        auto *self = new (block) DDS_DomainParticipantImpl{};
        self->_as_Entity._is_enabled = &participantIsEnabled;
        self->transportBuiltinMask = options->transport_builtin_mask;
        self->hasWorker = options->without_worker == 0;
        self->worker._name = "participant worker";
        self->worker._activityContext = nullptr;

        // Each record starts as a deep copy of its class default.
        int copied = 0;
        bool ok =
            VESK_Transport_UDP_Property_copy(&self->udpv4, &VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT);
        if (ok && ++copied) {
            ok = VESK_Transport_UDP_Property_copy(&self->udpv4Wan,
                                                  &VESK_TRANSPORT_UDPV4_WAN_PROPERTY_DEFAULT);
        }
        if (ok && ++copied) {
            ok = VESK_Transport_UDP_Property_copy(&self->udpv6,
                                                  &VESK_TRANSPORT_UDPV6_PROPERTY_DEFAULT);
        }
        if (ok && ++copied) {
            ok = VESK_Transport_Shmem_Property_copy(&self->shmem,
                                                    &VESK_TRANSPORT_SHMEM_PROPERTY_DEFAULT);
        }
        if (ok) ++copied;
        if (copied < 4) {
            destroy(self, copied);
            return nullptr;
        }
        if (options->without_netio_configurator == 0) {
            self->configurator =
                KELNetioConfigurator_new(options->plugin_count_max, options->route_count_max);
            if (self->configurator == nullptr) {
                destroy(self, copied);
                return nullptr;
            }
        }
        return self;
    } catch (...) {
        return nullptr;
    }
}

void DDS_DomainParticipant_delete(DDS_DomainParticipant *self) {
    if (self == nullptr) return;
    destroy(self, 4);
}

DDS_ReturnCode_t DDS_DomainParticipant_enable(DDS_DomainParticipant *self) {
    if (self == nullptr) {
        logError(__LINE__, ENABLE_NAME, DDS_LOG_BAD_PARAMETER_s, "self must be non-NULL");
        return DDS_RETCODE_BAD_PARAMETER;
    }
    if (self->enabled) return DDS_RETCODE_OK;

    DDS_TransportBuiltinKind wanted[BUILTIN_KIND_COUNT];
    int wantedCount = 0;
    for (DDS_TransportBuiltinKind kind : BUILTIN_KINDS) {
        if ((self->transportBuiltinMask & static_cast<KEL_UINT32>(kind)) != 0) {
            wanted[wantedCount++] = kind;
        }
    }
    KELNetioConfigurator *configurator = self->configurator;
    REDAWorker *worker = DDS_DomainParticipant_get_workerI(self);
    if (wantedCount > 0 && configurator == nullptr) {
        logError(__LINE__, ENABLE_NAME, DDS_LOG_GET_FAILURE_s, "netio configurator not valid");
        return DDS_RETCODE_ERROR;
    }

    // Installation is checked to be possible before anything is made, so
    // that a refusal leaves the configurator as it was.
    if (KELNetioConfigurator_getPluginCount(configurator) + wantedCount >
        KELNetioConfigurator_getPluginCountMax(configurator)) {
        logError(__LINE__, ENABLE_NAME, KEL_LOG_INSUFFICIENT_SPACE_FAILURE_dd,
                 KELNetioConfigurator_getPluginCount(configurator) + wantedCount,
                 KELNetioConfigurator_getPluginCountMax(configurator));
        return DDS_RETCODE_ERROR;
    }
    // At most one plugin of the shared-memory class, also when the
    // application registered its own.
    const VESK_Transport_ClassId_t shmemClassId =
        KELNetioConfigurator_getShmemTransportClassId(configurator, worker);
    if ((self->transportBuiltinMask & DDS_TRANSPORTBUILTIN_SHMEM) != 0 &&
        KELNetioConfigurator_getTransportPluginByClass(configurator, shmemClassId, worker) !=
            nullptr) {
        logError(__LINE__, ENABLE_NAME, KEL_LOG_ANY_FAILURE_s,
                 "Only one shared memory transport is accepted");
        return DDS_RETCODE_ERROR;
    }
    KELNetioAliasList aliases[BUILTIN_KIND_COUNT];
    for (int i = 0; i < wantedCount; ++i) {
        std::memset(&aliases[i], 0, sizeof(aliases[i]));
        KELNetioAliasList_appendFromString(&aliases[i], aliasOf(wanted[i]));
        if (KELNetioConfigurator_getTransportPluginFromAlias(configurator, nullptr, &aliases[i],
                                                             worker) != nullptr) {
            logError(__LINE__, ENABLE_NAME, DDS_LOG_INSTALL_TRANSPORT_PLUGINS_s,
                     aliases[i].element);
            return DDS_RETCODE_ERROR;
        }
    }

    // Make every plugin first: a constructor failure installs nothing.
    VESK_Transport_Plugin *plugins[BUILTIN_KIND_COUNT] = {};
    for (int i = 0; i < wantedCount; ++i) {
        plugins[i] = makeBuiltin(self, wanted[i]);
        if (plugins[i] == nullptr) {
            logError(__LINE__, ENABLE_NAME, KEL_LOG_CREATION_FAILURE_s, aliasOf(wanted[i]));
            for (int j = 0; j < i; ++j) deletePlugin(plugins[j]);
            return DDS_RETCODE_ERROR;
        }
    }

    const VESK_Transport_Address_t zeroAddress = {};
    for (int i = 0; i < wantedCount; ++i) {
        if (!KELNetioConfigurator_installTransportPlugin(configurator, nullptr, plugins[i],
                                                         &aliases[i], &zeroAddress, worker)) {
            // Not expected after the checks above. The plugins installed so
            // far stay with the configurator, which releases them with the
            // participant; the rest were never handed over.
            logError(__LINE__, ENABLE_NAME, DDS_LOG_INSTALL_TRANSPORT_PLUGINS_s,
                     aliases[i].element);
            for (int j = i; j < wantedCount; ++j) deletePlugin(plugins[j]);
            return DDS_RETCODE_ERROR;
        }
    }
    self->enabled = 1;
    return DDS_RETCODE_OK;
}

int DDS_DomainParticipant_is_enabled(const DDS_DomainParticipant *self) {
    return self != nullptr && self->enabled != 0;
}

KELNetioConfigurator *DDS_DomainParticipant_get_netio_configuratorI(DDS_DomainParticipant *self) {
    return self == nullptr ? nullptr : self->configurator;
}

struct REDAWorker *DDS_DomainParticipant_get_workerI(DDS_DomainParticipant *self) {
    return self == nullptr || !self->hasWorker ? nullptr : &self->worker;
}

DDS_ReturnCode_t DDS_DomainParticipant_get_builtin_transport_property(
    DDS_DomainParticipant *self, DDS_TransportBuiltinKind kind_in,
    struct VESK_Transport_Property_t *property_inout) {
    if (self == nullptr) {
        logError(__LINE__, GET_PROPERTY_NAME, DDS_LOG_BAD_PARAMETER_s, "self must be non-NULL");
        return DDS_RETCODE_BAD_PARAMETER;
    }
    if (property_inout == nullptr) {
        logError(__LINE__, GET_PROPERTY_NAME, DDS_LOG_BAD_PARAMETER_s,
                 "property_inout must be non-NULL");
        return DDS_RETCODE_BAD_PARAMETER;
    }
    DDS_TransportBuiltinKind kind;
    if (!asOneEnumerator(kind_in, &kind)) {
        logError(__LINE__, GET_PROPERTY_NAME, DDS_LOG_BAD_PARAMETER_s,
                 "kind must be exactly one DDS_TransportBuiltinKind");
        return DDS_RETCODE_BAD_PARAMETER;
    }
    if (kind == DDS_TRANSPORTBUILTIN_INTRA) {
        logError(__LINE__, GET_PROPERTY_NAME, KEL_LOG_ANY_FAILURE_s,
                 "the INTRA transport has no property record");
        return DDS_RETCODE_UNSUPPORTED;
    }
    // A shallow copy: the caller's record shares the participant's storage.
    if (kind == DDS_TRANSPORTBUILTIN_SHMEM) {
        *reinterpret_cast<VESK_Transport_Shmem_Property_t *>(property_inout) = self->shmem;
    } else {
        *reinterpret_cast<VESK_Transport_UDP_Property_t *>(property_inout) = *udpRecord(self, kind);
    }
    return DDS_RETCODE_OK;
}

DDS_ReturnCode_t DDS_DomainParticipant_set_builtin_transport_property(
    DDS_DomainParticipant *self, DDS_TransportBuiltinKind kind_in,
    const struct VESK_Transport_Property_t *property_in) {
    if (self == nullptr) {
        logError(__LINE__, SET_PROPERTY_NAME, DDS_LOG_BAD_PARAMETER_s, "self must be non-NULL");
        return DDS_RETCODE_BAD_PARAMETER;
    }
    if (property_in == nullptr) {
        logError(__LINE__, SET_PROPERTY_NAME, DDS_LOG_BAD_PARAMETER_s,
                 "property_in must be non-NULL");
        return DDS_RETCODE_BAD_PARAMETER;
    }
    DDS_TransportBuiltinKind kind;
    if (!asOneEnumerator(kind_in, &kind)) {
        logError(__LINE__, SET_PROPERTY_NAME, DDS_LOG_BAD_PARAMETER_s,
                 "kind must be exactly one DDS_TransportBuiltinKind");
        return DDS_RETCODE_BAD_PARAMETER;
    }
    if (kind == DDS_TRANSPORTBUILTIN_INTRA) {
        logError(__LINE__, SET_PROPERTY_NAME, KEL_LOG_ANY_FAILURE_s,
                 "the INTRA transport has no property record");
        return DDS_RETCODE_UNSUPPORTED;
    }
    if (self->enabled) {
        logError(__LINE__, SET_PROPERTY_NAME, DDS_LOG_PARTICIPANT_ENABLED_ERROR);
        return DDS_RETCODE_PRECONDITION_NOT_MET;
    }
    // The new record is copied before the old one is released: property_in
    // may share storage with the stored record (a record read with get).
    if (kind == DDS_TRANSPORTBUILTIN_SHMEM) {
        VESK_Transport_Shmem_Property_t copy;
        if (!VESK_Transport_Shmem_Property_copy(
                &copy, reinterpret_cast<const VESK_Transport_Shmem_Property_t *>(property_in))) {
            logError(__LINE__, SET_PROPERTY_NAME, DDS_LOG_OUT_OF_RESOURCES_s,
                     "builtin transport property");
            return DDS_RETCODE_OUT_OF_RESOURCES;
        }
        VESK_Transport_Shmem_Property_finalize(&self->shmem);
        self->shmem = copy;
    } else {
        VESK_Transport_UDP_Property_t copy;
        if (!VESK_Transport_UDP_Property_copy(
                &copy, reinterpret_cast<const VESK_Transport_UDP_Property_t *>(property_in))) {
            logError(__LINE__, SET_PROPERTY_NAME, DDS_LOG_OUT_OF_RESOURCES_s,
                     "builtin transport property");
            return DDS_RETCODE_OUT_OF_RESOURCES;
        }
        VESK_Transport_UDP_Property_t *stored = udpRecord(self, kind);
        VESK_Transport_UDP_Property_finalize(stored);
        *stored = copy;
    }
    return DDS_RETCODE_OK;
}

DDS_ReturnCode_t DDS_TransportSelectionQosPolicy_AliasList_from_StringSeq(
    KELNetioAliasList *alias_list_out, const struct DDS_StringSeq *aliases_in) {
    if (alias_list_out == nullptr || aliases_in == nullptr) return DDS_RETCODE_BAD_PARAMETER;
    const DDS_Long length = DDS_StringSeq_get_length(aliases_in);
    if (length < 0) return DDS_RETCODE_BAD_PARAMETER;
    // Built aside: the caller's list changes only on success.
    KELNetioAliasList list;
    std::memset(&list, 0, sizeof(list));
    for (DDS_Long i = 0; i < length; ++i) {
        // appendFromString refuses null, empty and comma-holding aliases
        // and any that would not fit, so nothing is ever truncated.
        if (!KELNetioAliasList_appendFromString(&list, DDS_StringSeq_get(aliases_in, i))) {
            return DDS_RETCODE_BAD_PARAMETER;
        }
    }
    *alias_list_out = list;
    return DDS_RETCODE_OK;
}

DDS_ReturnCode_t DDS_TransportSelectionQosPolicy_StringSeq_from_AliasList(
    struct DDS_StringSeq *aliases_out, const KELNetioAliasList *alias_list_in) {
    if (aliases_out == nullptr || alias_list_in == nullptr) return DDS_RETCODE_BAD_PARAMETER;
    if (DDS_StringSeq_get_length(aliases_out) != 0 || !aliases_out->_owned) {
        return DDS_RETCODE_BAD_PARAMETER;
    }
    if (strnlen(alias_list_in->element, sizeof(alias_list_in->element)) >
        KEL_NETIO_ALIAS_LIST_LENGTH_MAX) {
        return DDS_RETCODE_BAD_PARAMETER;
    }
    return DDS_StringSeq_from_delimited_string(aliases_out, alias_list_in->element, ',');
}

}  // extern "C"
