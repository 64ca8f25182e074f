// The JSON reader, over nlohmann/json.
//
// A document is one nlohmann::ordered_json value (object members keep their
// document order) placed in a block of the library heap, so that heap
// accounting and fault injection cover every parsed document. Node handles
// are the addresses of the values in the tree; the root handle is the block
// itself, which is why KELJSONObject_delete takes it.

#include "vesk_transport/platform/Json.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <new>
#include <utility>

#include <nlohmann/json.hpp>

#include "vesk_transport/platform/Heap.h"

namespace {

using Json = nlohmann::ordered_json;

static_assert(alignof(Json) <= alignof(std::max_align_t),
              "heap blocks are aligned for any fundamental type only");

constexpr const char *kDocumentTypeName = "KELJSONDocument";

const Json *toJson(const KELJSONObject *node) {
    return reinterpret_cast<const Json *>(node);
}
const KELJSONObject *toHandle(const Json *value) {
    return reinterpret_cast<const KELJSONObject *>(value);
}

}  // namespace

extern "C" {

KELJSONObject *KELJSONParser_parse_ex(const char *text, size_t length) {
    if (text == nullptr) return nullptr;
    // JSON text never holds a NUL byte (not even inside strings), but the
    // parser would take one as the end of its input and accept the bytes
    // before it.
    if (std::memchr(text, '\0', length) != nullptr) return nullptr;
    try {
        // Parse first: rejected text then costs no heap block. The iterator
        // range keeps the parser inside the first length bytes, and the
        // non-throwing overload reports errors as a discarded value.
        Json parsed = Json::parse(text, text + length, nullptr, false);
        if (parsed.is_discarded()) return nullptr;
        void *block = KELOsapiHeap_reallocateMemoryInternal(
            nullptr, 1, sizeof(Json), kDocumentTypeName, VESK_TRANSPORT_HEAP_TAG);
        if (block == nullptr) return nullptr;
        // Moving a value does not allocate or throw.
        Json *root = new (block) Json(std::move(parsed));
        return reinterpret_cast<KELJSONObject *>(root);
    } catch (...) {
        // std::bad_alloc while building the tree, or anything the parser
        // throws despite the non-throwing overload.
        return nullptr;
    }
}

int KELJSONObject_getChildByName(const KELJSONObject *node, const KELJSONObject **child_out,
                                 const char *name) {
    if (node == nullptr || child_out == nullptr || name == nullptr) return 0;
    const Json &value = *toJson(node);
    if (!value.is_object()) return 0;
    try {
        // Duplicate member names keep the first position and the last value,
        // as the parser stores them.
        const auto found = value.find(name);
        if (found == value.end()) return 0;
        *child_out = toHandle(&*found);
        return 1;
    } catch (...) {
        return 0;
    }
}

size_t KELJSONObject_getChildCount(const KELJSONObject *node) {
    if (node == nullptr) return 0;
    const Json &value = *toJson(node);
    return value.is_object() || value.is_array() ? value.size() : 0;
}

int KELJSONObject_getChildAt(const KELJSONObject *node, const KELJSONObject **child_out,
                             size_t index) {
    if (node == nullptr || child_out == nullptr) return 0;
    const Json &value = *toJson(node);
    if (value.is_array()) {
        const auto &elements = value.get_ref<const Json::array_t &>();
        if (index >= elements.size()) return 0;
        *child_out = toHandle(&elements[index]);
        return 1;
    }
    if (value.is_object()) {
        // ordered_json keeps its members in a vector, in document order.
        const auto &members = value.get_ref<const Json::object_t &>();
        if (index >= members.size()) return 0;
        const auto member = members.begin() + static_cast<std::ptrdiff_t>(index);
        *child_out = toHandle(&member->second);
        return 1;
    }
    return 0;
}

int KELJSONObject_getIntValue(const KELJSONObject *node, KEL_INT64 *value_out) {
    if (node == nullptr || value_out == nullptr) return 0;
    const Json &value = *toJson(node);
    // The parser stores non-negative integers as unsigned, negative ones as
    // signed; floating-point numbers are never integers here, even 1.0.
    if (value.is_number_unsigned()) {
        const auto number = value.get_ref<const Json::number_unsigned_t &>();
        if (number > static_cast<Json::number_unsigned_t>(std::numeric_limits<KEL_INT64>::max())) {
            return 0;
        }
        *value_out = static_cast<KEL_INT64>(number);
        return 1;
    }
    if (value.is_number_integer()) {
        *value_out = static_cast<KEL_INT64>(value.get_ref<const Json::number_integer_t &>());
        return 1;
    }
    return 0;
}

void KELJSONObject_delete(KELJSONObject *root) {
    if (root == nullptr) return;
    Json *value = reinterpret_cast<Json *>(root);
    value->~Json();
    KELOsapiHeap_freeMemoryInternal(value);
}

}  // extern "C"
