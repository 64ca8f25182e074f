// Property lists and the helpers that read them.
//
// A list owns the names and values of its properties (heap strings) and its
// buffer (a heap array of struct DDS_Property_t). Every change either
// completes or leaves the list exactly as it was.

#include "vesk_transport/platform/Property.h"

#include <climits>
#include <cstring>

#include "vesk_transport/platform/Heap.h"
#include "vesk_transport/platform/Log.h"
#include "vesk_transport/platform/Utility.h"

namespace {

constexpr const char *kParseActionFunction =
    "DDS_PropertyQosPolicy_parse_property_validation_action";
constexpr const char *kValidateFunction = "DDS_PropertyQosPolicy_validate_plugin_property_suffixes";

// The buffer grows by doubling from this many properties.
constexpr DDS_Long kInitialCapacity = 4;

bool logEnabled(KEL_UINT32 level) {
    return KELLog_isEnabled(level, DDS_SUBMODULE_MASK_TRANSPORT) != 0;
}

// The library's precondition convention: the quoted condition at the
// precondition level, then the detection flag and the breakpoint hook.
void preconditionFailed(const char *function, const char *quoted_condition) {
    if (logEnabled(KEL_LOG_BIT_EXCEPTION)) {
        KELLogMessage_printWithParams(-1, KEL_LOG_BIT_EXCEPTION, VESK_TRANSPORT_LOG_MODULE_ID,
                                      __FILE__, __LINE__, function, &KEL_LOG_PRECONDITION_FAILURE_s,
                                      quoted_condition);
    }
    if (KELLog_g_detectPrecondition) {
        KELLog_g_preconditionDetected = 1;
    }
    KELLog_onAssertBreakpoint();
}

// Index of the first property named exactly name, or -1.
DDS_Long indexOf(const DDS_PropertyQosPolicy *policy, const char *name) {
    const DDS_PropertySeq &seq = policy->value;
    for (DDS_Long i = 0; i < seq._length; ++i) {
        const char *candidate = seq._contiguous_buffer[i].name;
        if (candidate != nullptr && std::strcmp(candidate, name) == 0) return i;
    }
    return -1;
}

// The part of name after prefix joined as the lookups join it ("p" and "p."
// both stand for "p."), or nullptr when name is not under the prefix. A null
// or empty prefix puts every name under it.
const char *suffixUnderPrefix(const char *name, const char *prefix) {
    if (prefix == nullptr || prefix[0] == '\0') return name;
    const size_t prefix_length = std::strlen(prefix);
    if (std::strncmp(name, prefix, prefix_length) != 0) return nullptr;
    const char *rest = name + prefix_length;
    if (prefix[prefix_length - 1] == '.') return rest;
    return rest[0] == '.' ? rest + 1 : nullptr;
}

bool inSuffixList(const char *suffix, const char *const *list) {
    if (list == nullptr) return false;
    for (; *list != nullptr; ++list) {
        if (std::strcmp(*list, suffix) == 0) return true;
    }
    return false;
}

// Appends a property whose strings are already heap copies; on failure the
// list is untouched and the caller still owns the copies.
bool appendOwned(DDS_PropertyQosPolicy *policy, char *name, char *value, DDS_Boolean propagate) {
    DDS_PropertySeq &seq = policy->value;
    if (seq._length < 0 || seq._length > seq._maximum) return false;
    if (seq._length == seq._maximum) {
        if (seq._maximum == INT_MAX) return false;
        const DDS_Long new_maximum = seq._maximum < kInitialCapacity ? kInitialCapacity
                                     : seq._maximum > INT_MAX / 2    ? INT_MAX
                                                                     : seq._maximum * 2;
        void *grown = KELOsapiHeap_reallocateMemoryInternal(
            seq._contiguous_buffer, static_cast<size_t>(new_maximum), sizeof(DDS_Property_t),
            "struct DDS_Property_t", VESK_TRANSPORT_HEAP_TAG);
        if (grown == nullptr) return false;
        seq._contiguous_buffer = static_cast<DDS_Property_t *>(grown);
        seq._maximum = new_maximum;
    }
    DDS_Property_t &slot = seq._contiguous_buffer[seq._length];
    slot.name = name;
    slot.value = value;
    slot.propagate = propagate;
    ++seq._length;
    return true;
}

DDS_ReturnCode_t addNew(DDS_PropertyQosPolicy *policy, const char *name, const char *value,
                        DDS_Boolean propagate) {
    // The copies come first so that a failure leaves the buffer as it was.
    char *name_copy = DDS_String_dup(name);
    char *value_copy = name_copy != nullptr ? DDS_String_dup(value) : nullptr;
    if (value_copy == nullptr || !appendOwned(policy, name_copy, value_copy, propagate)) {
        DDS_String_free(value_copy);
        DDS_String_free(name_copy);
        return DDS_RETCODE_OUT_OF_RESOURCES;
    }
    return DDS_RETCODE_OK;
}

struct ActionName {
    const char *name;
    DDS_PropertyQosPolicyValidationAction action;
};

constexpr ActionName kActionNames[] = {
    {"EXCEPTION", DDS_PROPERTY_QOS_POLICY_VALIDATION_ACTION_EXCEPTION},
    {"WARNING", DDS_PROPERTY_QOS_POLICY_VALIDATION_ACTION_WARNING},
    {"SKIP", DDS_PROPERTY_QOS_POLICY_VALIDATION_ACTION_SKIP},
    {"DDS_PROPERTY_QOS_POLICY_VALIDATION_ACTION_EXCEPTION",
     DDS_PROPERTY_QOS_POLICY_VALIDATION_ACTION_EXCEPTION},
    {"DDS_PROPERTY_QOS_POLICY_VALIDATION_ACTION_WARNING",
     DDS_PROPERTY_QOS_POLICY_VALIDATION_ACTION_WARNING},
    {"DDS_PROPERTY_QOS_POLICY_VALIDATION_ACTION_SKIP",
     DDS_PROPERTY_QOS_POLICY_VALIDATION_ACTION_SKIP},
};

}  // namespace

extern "C" {

DDS_ReturnCode_t DDS_PropertyQosPolicyHelper_add_property(DDS_PropertyQosPolicy *policy,
                                                          const char *name, const char *value,
                                                          DDS_Boolean propagate) {
    if (policy == nullptr || name == nullptr || value == nullptr) {
        return DDS_RETCODE_BAD_PARAMETER;
    }
    if (indexOf(policy, name) >= 0) return DDS_RETCODE_PRECONDITION_NOT_MET;
    return addNew(policy, name, value, propagate);
}

DDS_ReturnCode_t DDS_PropertyQosPolicyHelper_assert_property(DDS_PropertyQosPolicy *policy,
                                                             const char *name, const char *value,
                                                             DDS_Boolean propagate) {
    if (policy == nullptr || name == nullptr || value == nullptr) {
        return DDS_RETCODE_BAD_PARAMETER;
    }
    const DDS_Long index = indexOf(policy, name);
    if (index < 0) return addNew(policy, name, value, propagate);
    char *value_copy = DDS_String_dup(value);
    if (value_copy == nullptr) return DDS_RETCODE_OUT_OF_RESOURCES;
    DDS_Property_t &property = policy->value._contiguous_buffer[index];
    DDS_String_free(property.value);
    property.value = value_copy;
    property.propagate = propagate;
    return DDS_RETCODE_OK;
}

DDS_ReturnCode_t DDS_PropertyQosPolicyHelper_remove_property(DDS_PropertyQosPolicy *policy,
                                                             const char *name) {
    if (policy == nullptr || name == nullptr) return DDS_RETCODE_BAD_PARAMETER;
    const DDS_Long index = indexOf(policy, name);
    if (index < 0) return DDS_RETCODE_PRECONDITION_NOT_MET;
    DDS_PropertySeq &seq = policy->value;
    DDS_String_free(seq._contiguous_buffer[index].name);
    DDS_String_free(seq._contiguous_buffer[index].value);
    // Later properties move down so that the list keeps its order.
    const DDS_Long last = seq._length - 1;
    if (index < last) {
        std::memmove(&seq._contiguous_buffer[index], &seq._contiguous_buffer[index + 1],
                     static_cast<size_t>(last - index) * sizeof(DDS_Property_t));
    }
    seq._contiguous_buffer[last] = DDS_Property_t{nullptr, nullptr, DDS_BOOLEAN_FALSE};
    seq._length = last;
    return DDS_RETCODE_OK;
}

DDS_Long DDS_PropertyQosPolicyHelper_get_number_of_properties(const DDS_PropertyQosPolicy *policy) {
    return policy == nullptr ? 0 : policy->value._length;
}

void DDS_PropertyQosPolicy_finalize(DDS_PropertyQosPolicy *policy) {
    if (policy == nullptr) return;
    DDS_PropertySeq &seq = policy->value;
    for (DDS_Long i = 0; i < seq._length; ++i) {
        DDS_String_free(seq._contiguous_buffer[i].name);
        DDS_String_free(seq._contiguous_buffer[i].value);
    }
    KELOsapiHeap_freeArray(seq._contiguous_buffer);
    seq._contiguous_buffer = nullptr;
    seq._length = 0;
    seq._maximum = 0;
}

struct DDS_Property_t *DDS_PropertyQosPolicyHelper_lookup_property(
    const DDS_PropertyQosPolicy *policy, const char *name) {
    if (policy == nullptr || name == nullptr) return nullptr;
    const DDS_Long index = indexOf(policy, name);
    return index < 0 ? nullptr : &policy->value._contiguous_buffer[index];
}

struct DDS_Property_t *DDS_PropertyQosPolicyHelper_lookup_property_with_prefix(
    const DDS_PropertyQosPolicy *policy, const char *prefix, const char *suffix) {
    if (policy == nullptr || suffix == nullptr) return nullptr;
    // Setups call this for every property they read: compare the pieces in
    // place instead of building the joined name.
    const DDS_PropertySeq &seq = policy->value;
    for (DDS_Long i = 0; i < seq._length; ++i) {
        const char *name = seq._contiguous_buffer[i].name;
        if (name == nullptr) continue;
        const char *rest = suffixUnderPrefix(name, prefix);
        if (rest != nullptr && std::strcmp(rest, suffix) == 0) {
            return &seq._contiguous_buffer[i];
        }
    }
    return nullptr;
}

int DDS_PropertyQosPolicy_parse_property_validation_action(
    DDS_PropertyQosPolicyValidationAction *action_out, const DDS_PropertyQosPolicy *policy) {
    if (action_out == nullptr) {
        preconditionFailed(kParseActionFunction, "\"action_out == ((void *)0)\"");
        return 0;
    }
    if (policy == nullptr) {
        preconditionFailed(kParseActionFunction, "\"policy == ((void *)0)\"");
        return 0;
    }
    const DDS_Property_t *property = DDS_PropertyQosPolicyHelper_lookup_property(
        policy, DDS_PROPERTY_VALIDATION_ACTION_PROPERTY_NAME);
    if (property == nullptr) return 1;
    if (property->value != nullptr) {
        for (const ActionName &entry : kActionNames) {
            if (REDAString_iCompare(property->value, entry.name) == 0) {
                *action_out = entry.action;
                return 1;
            }
        }
    }
    if (logEnabled(KEL_LOG_BIT_ERROR)) {
        KELLogMessage_printWithParams(-1, KEL_LOG_BIT_ERROR, VESK_TRANSPORT_LOG_MODULE_ID, __FILE__,
                                      __LINE__, kParseActionFunction, &KEL_LOG_PARSER_FAILURE_ss,
                                      DDS_PROPERTY_VALIDATION_ACTION_PROPERTY_NAME,
                                      property->value);
    }
    return 0;
}

int DDS_PropertyQosPolicy_validate_plugin_property_suffixes(
    const DDS_PropertyQosPolicy *policy, const char *prefix, const char *const *public_suffixes,
    const char *const *private_suffixes, struct DDS_StringSeq *unknown_names_out,
    DDS_PropertyQosPolicyValidationAction action) {
    if (action == DDS_PROPERTY_QOS_POLICY_VALIDATION_ACTION_SKIP) return 1;
    if (policy == nullptr) {
        preconditionFailed(kValidateFunction, "\"policy == ((void *)0)\"");
        return 0;
    }
    // Any action other than WARNING and SKIP is treated as EXCEPTION.
    const bool warn_only = action == DDS_PROPERTY_QOS_POLICY_VALIDATION_ACTION_WARNING;
    const KEL_UINT32 level = warn_only ? KEL_LOG_BIT_WARN : KEL_LOG_BIT_ERROR;
    bool ok = true;
    const DDS_PropertySeq &seq = policy->value;
    for (DDS_Long i = 0; i < seq._length; ++i) {
        const char *name = seq._contiguous_buffer[i].name;
        if (name == nullptr) continue;
        // The prefix holder and the action itself sit beside the transport's
        // properties in its own list, whatever the prefix.
        if (std::strcmp(name, "prefix") == 0 ||
            std::strcmp(name, DDS_PROPERTY_VALIDATION_ACTION_PROPERTY_NAME) == 0) {
            continue;
        }
        const char *suffix = suffixUnderPrefix(name, prefix);
        if (suffix == nullptr || inSuffixList(suffix, public_suffixes) ||
            inSuffixList(suffix, private_suffixes)) {
            continue;
        }
        if (logEnabled(level)) {
            KELLogMessage_printWithParams(-1, level, VESK_TRANSPORT_LOG_MODULE_ID, __FILE__,
                                          __LINE__, kValidateFunction, &KEL_LOG_UNKNOWN_PROPERTY_s,
                                          name);
        }
        // A caller that asked for the names must not get an incomplete list
        // silently.
        if (unknown_names_out != nullptr && !DDS_StringSeq_append(unknown_names_out, name)) {
            ok = false;
        }
        if (!warn_only) ok = false;
    }
    return ok ? 1 : 0;
}

}  // extern "C"
