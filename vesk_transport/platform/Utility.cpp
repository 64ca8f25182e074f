// String and number utilities.
//
// Every integer conversion goes through one scanner (scanInteger), so the
// notation rules (sign, "0x", digits, overflow) are written once. The
// utilities do not log: a failed conversion is reported by the caller,
// which knows which property or field the text belonged to.
#include "vesk_transport/platform/Utility.h"

#include <cstdint>
#include <cstring>

namespace {

enum class Sign { kPlusOnly, kAny };

struct Scan {
    bool negative = false;
    KEL_UINT64 magnitude = 0;
    const char *end = nullptr;  // first character after the number
};

int digitValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'z') return c - 'a' + 10;
    if (c >= 'A' && c <= 'Z') return c - 'A' + 10;
    return 99;
}

char lowerAscii(char c) {
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

// Reads an optional sign, then (base 0) decimal digits or "0x"/"0X" and
// hexadecimal digits, or (base 2..36) digits of that base. Stops at the
// first character that cannot continue the number. Fails without a digit,
// or when the magnitude exceeds limit. When "0x" is not followed by a hex
// digit, the number is the "0" alone (the caller decides whether the rest
// may follow).
bool scanInteger(const char *text, int base, Sign sign, KEL_UINT64 limit, Scan *scan) {
    const char *p = text;
    if (*p == '+') {
        ++p;
    } else if (*p == '-' && sign == Sign::kAny) {
        scan->negative = true;
        ++p;
    }
    if (base == 0) {
        base = 10;
        if (p[0] == '0' && (p[1] == 'x' || p[1] == 'X') && digitValue(p[2]) < 16) {
            base = 16;
            p += 2;
        }
    }
    const char *digits = p;
    KEL_UINT64 value = 0;
    for (int digit; (digit = digitValue(*p)) < base; ++p) {
        if (value > (limit - static_cast<KEL_UINT64>(digit)) / static_cast<KEL_UINT64>(base)) {
            return false;  // overflow
        }
        value = value * static_cast<KEL_UINT64>(base) + static_cast<KEL_UINT64>(digit);
    }
    if (p == digits) return false;
    scan->magnitude = value;
    scan->end = p;
    return true;
}

// Signed 32-bit conversion; end_out null means the whole text must be used.
bool toInt32(const char *text, int base, KEL_INT32 *value_out, const char **end_out) {
    if (text == nullptr || value_out == nullptr) return false;
    if (base != 0 && (base < 2 || base > 36)) return false;
    Scan scan;
    // The magnitude of INT32_MIN is one above INT32_MAX; the sign decides below.
    constexpr KEL_UINT64 kMaxMagnitude = static_cast<KEL_UINT64>(INT32_MAX) + 1;
    if (!scanInteger(text, base, Sign::kAny, kMaxMagnitude, &scan)) return false;
    if (!scan.negative && scan.magnitude > static_cast<KEL_UINT64>(INT32_MAX)) return false;
    if (end_out == nullptr && *scan.end != '\0') return false;
    *value_out = scan.negative ? static_cast<KEL_INT32>(-static_cast<KEL_INT64>(scan.magnitude))
                               : static_cast<KEL_INT32>(scan.magnitude);
    if (end_out != nullptr) *end_out = scan.end;
    return true;
}

bool toUint32(const char *text, KEL_UINT32 *value_out) {
    if (text == nullptr || value_out == nullptr) return false;
    Scan scan;
    if (!scanInteger(text, 0, Sign::kPlusOnly, UINT32_MAX, &scan)) return false;
    if (*scan.end != '\0') return false;
    *value_out = static_cast<KEL_UINT32>(scan.magnitude);
    return true;
}

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

// Shared by the three comparisons: at most n characters, optionally
// folding ASCII letter case; nulls order first.
int compareTexts(const char *left, const char *right, size_t n, bool ignoreCase) {
    if (left == nullptr || right == nullptr) {
        if (left == right) return 0;
        return left == nullptr ? -1 : 1;
    }
    for (size_t i = 0; i < n; ++i) {
        char l = ignoreCase ? lowerAscii(left[i]) : left[i];
        char r = ignoreCase ? lowerAscii(right[i]) : right[i];
        if (l != r) {
            return static_cast<int>(static_cast<unsigned char>(l)) -
                   static_cast<int>(static_cast<unsigned char>(r));
        }
        if (l == '\0') break;
    }
    return 0;
}

struct BooleanWord {
    const char *text;
    int value;
};
// Compared ignoring case.
constexpr BooleanWord kBooleanWords[] = {
    {"1", 1}, {"true", 1}, {"yes", 1}, {"on", 1}, {"0", 0}, {"false", 0}, {"no", 0}, {"off", 0},
};

}  // namespace

extern "C" {

int KELOsapiUtility_strtol(const char *text, KEL_INT32 *value_out) {
    return toInt32(text, 0, value_out, nullptr) ? 1 : 0;
}

int KELOsapiUtility_strtoul(const char *text, KEL_UINT32 *value_out) {
    return toUint32(text, value_out) ? 1 : 0;
}

int KELOsapiUtility_strtolWithBase(const char *text, KEL_INT32 *value_out, int base,
                                   const char **end_out) {
    if (toInt32(text, base, value_out, end_out)) return 1;
    // A failed conversion consumed nothing.
    if (end_out != nullptr) *end_out = text;
    return 0;
}

int KELOsapiUtility_strtoptr(const char *text, void **pointer_out) {
    if (text == nullptr || pointer_out == nullptr) return 0;
    Scan scan;
    if (*text == '+' || *text == '-') return 0;  // addresses carry no sign
    if (!scanInteger(text, 0, Sign::kPlusOnly, UINTPTR_MAX, &scan)) return 0;
    if (*scan.end != '\0') return 0;
    *pointer_out = reinterpret_cast<void *>(static_cast<uintptr_t>(scan.magnitude));
    return 1;
}

int REDAString_strToUnsignedLong(const char *text, KEL_UINT32 *value_out) {
    return toUint32(text, value_out) ? 1 : 0;
}

int REDAString_strToBoolean(const char *text, int *value_out) {
    if (text == nullptr || value_out == nullptr) return 0;
    for (const auto &word : kBooleanWords) {
        if (compareTexts(text, word.text, SIZE_MAX, true) == 0) {
            *value_out = word.value;
            return 1;
        }
    }
    return 0;
}

char *KELOsapiUtility_strTrim(char *text) {
    if (text == nullptr) return nullptr;
    while (isBlank(*text)) ++text;
    size_t length = std::strlen(text);
    while (length > 0 && isBlank(text[length - 1])) --length;
    text[length] = '\0';
    return text;
}

char *KELOsapiUtility_strncpy(char *dest, size_t capacity, const char *src, size_t count) {
    if (dest == nullptr || src == nullptr) return nullptr;
    size_t length = 0;
    while (length < count && src[length] != '\0') ++length;
    if (length > capacity) return nullptr;
    std::memmove(dest, src, length);
    dest[length] = '\0';
    return dest;
}

char *KELOsapiUtility_strcpy(char *dest, size_t capacity, const char *src) {
    if (dest == nullptr || src == nullptr) return nullptr;
    return KELOsapiUtility_strncpy(dest, capacity, src, std::strlen(src));
}

int REDAString_compare(const char *left, const char *right) {
    return compareTexts(left, right, SIZE_MAX, false);
}

int REDAString_iCompare(const char *left, const char *right) {
    return compareTexts(left, right, SIZE_MAX, true);
}

int REDAString_inCompare(const char *left, const char *right, size_t n) {
    return compareTexts(left, right, n, true);
}

}  // extern "C"
