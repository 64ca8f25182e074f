/* Property lists (DDS_PropertyQosPolicy) and the property helpers. */
#ifndef VESK_TRANSPORT_PLATFORM_PROPERTY_H
#define VESK_TRANSPORT_PLATFORM_PROPERTY_H

#include "vesk_transport/platform/StringSeq.h"
#include "vesk_transport/platform/Types.h"

#ifdef __cplusplus
extern "C" {
#endif
VESK_TRANSPORT_EXPORT_BEGIN

struct DDS_Property_t {
    char *name;
    char *value;
    DDS_Boolean propagate;
};

struct DDS_PropertySeq {
    struct DDS_Property_t *_contiguous_buffer;
    DDS_Long _length;
    DDS_Long _maximum;
};

/* A property list. It owns the names and values of its properties. */
struct DDS_PropertyQosPolicy {
    struct DDS_PropertySeq value;
};
typedef struct DDS_PropertyQosPolicy DDS_PropertyQosPolicy;

/* An empty list. */
#define DDS_PropertyQosPolicy_INITIALIZER {{NULL, 0, 0}}

/* Building and releasing a list (all on the library heap):
 * add: DDS_RETCODE_PRECONDITION_NOT_MET when the name exists already;
 * assert: adds, or replaces the value and propagate flag of that name;
 * remove: DDS_RETCODE_PRECONDITION_NOT_MET when there is no such name.
 * Null arguments give DDS_RETCODE_BAD_PARAMETER, exhausted memory
 * DDS_RETCODE_OUT_OF_RESOURCES with the list unchanged. */
DDS_ReturnCode_t DDS_PropertyQosPolicyHelper_add_property(DDS_PropertyQosPolicy *policy,
                                                          const char *name, const char *value,
                                                          DDS_Boolean propagate);
DDS_ReturnCode_t DDS_PropertyQosPolicyHelper_assert_property(DDS_PropertyQosPolicy *policy,
                                                             const char *name, const char *value,
                                                             DDS_Boolean propagate);
DDS_ReturnCode_t DDS_PropertyQosPolicyHelper_remove_property(DDS_PropertyQosPolicy *policy,
                                                             const char *name);
DDS_Long DDS_PropertyQosPolicyHelper_get_number_of_properties(const DDS_PropertyQosPolicy *policy);
/* Releases every property and leaves the list empty. */
void DDS_PropertyQosPolicy_finalize(DDS_PropertyQosPolicy *policy);

/* The property of exactly that name (the first one), or NULL. */
struct DDS_Property_t *DDS_PropertyQosPolicyHelper_lookup_property(
    const DDS_PropertyQosPolicy *policy, const char *name);

/* The property named by prefix and suffix joined: a null or empty prefix
 * gives the suffix alone; a prefix ending in '.' is followed directly by
 * the suffix; any other prefix is followed by '.' and the suffix. So the
 * prefixes "dds.transport.udp" and "dds.transport.udp." both find
 * "dds.transport.udp.send_blocking" for the suffix "send_blocking". */
struct DDS_Property_t *DDS_PropertyQosPolicyHelper_lookup_property_with_prefix(
    const DDS_PropertyQosPolicy *policy, const char *prefix, const char *suffix);

/* What to do with property names that a transport does not know. */
typedef enum DDS_PropertyQosPolicyValidationAction {
    DDS_PROPERTY_QOS_POLICY_VALIDATION_ACTION_WARNING = -1,
    DDS_PROPERTY_QOS_POLICY_VALIDATION_ACTION_EXCEPTION = 0,
    DDS_PROPERTY_QOS_POLICY_VALIDATION_ACTION_SKIP = 1
} DDS_PropertyQosPolicyValidationAction;

/* The property that holds the validation action. */
#define DDS_PROPERTY_VALIDATION_ACTION_PROPERTY_NAME "dds.property_validation_action"

/* Reads the validation action from the list. Accepted values, ignoring
 * case: "EXCEPTION", "WARNING", "SKIP" and their full enumerator names
 * ("DDS_PROPERTY_QOS_POLICY_VALIDATION_ACTION_SKIP"). Without the property
 * *action_out is not changed. Returns 1 on success, 0 (after logging the
 * value) for any other value or a null argument. */
int DDS_PropertyQosPolicy_parse_property_validation_action(
    DDS_PropertyQosPolicyValidationAction *action_out, const DDS_PropertyQosPolicy *policy);

/* Tests the name of every property under prefix (every property when the
 * prefix is null or empty; otherwise those whose names begin with the
 * prefix joined as for lookup_property_with_prefix) against two
 * NULL-terminated lists of accepted suffixes. The names "prefix" and
 * DDS_PROPERTY_VALIDATION_ACTION_PROPERTY_NAME are always accepted. Each
 * unknown name is logged (KEL_LOG_UNKNOWN_PROPERTY_s: a warning under
 * WARNING, an error under EXCEPTION) and, when unknown_names_out is
 * non-null, appended to it. Returns 0 when a name is unknown and the
 * action is EXCEPTION, 1 otherwise; SKIP tests nothing. */
int DDS_PropertyQosPolicy_validate_plugin_property_suffixes(
    const DDS_PropertyQosPolicy *policy, const char *prefix,
    const char *const *public_suffixes, const char *const *private_suffixes,
    struct DDS_StringSeq *unknown_names_out, DDS_PropertyQosPolicyValidationAction action);

/* The accepted suffixes of each builtin transport class, NULL-terminated.
 * They are generated from the tables that the property setups read, so
 * that every suffix a setup reads for a class is accepted for it. */
extern const char *const *const PROPERTY_PLUGIN_VALID_PUBLIC_PROPERTIES_UDPV4;
extern const char *const *const PROPERTY_PLUGIN_VALID_PRIVATE_PROPERTIES_UDPV4;
extern const char *const *const PROPERTY_PLUGIN_VALID_PUBLIC_PROPERTIES_UDPV4_WAN;
extern const char *const *const PROPERTY_PLUGIN_VALID_PRIVATE_PROPERTIES_UDPV4_WAN;
extern const char *const *const PROPERTY_PLUGIN_VALID_PUBLIC_PROPERTIES_UDPV6;
extern const char *const *const PROPERTY_PLUGIN_VALID_PRIVATE_PROPERTIES_UDPV6;
extern const char *const *const PROPERTY_PLUGIN_VALID_PUBLIC_PROPERTIES_SHMEM;
extern const char *const *const PROPERTY_PLUGIN_VALID_PRIVATE_PROPERTIES_SHMEM;

VESK_TRANSPORT_EXPORT_END
#ifdef __cplusplus
} /* extern "C" */
#endif

#endif
