// Socket utilities.
//
// Numeric texts go through inet_pton only, which takes exactly the
// dotted-decimal and IPv6 notations. Names are checked for host-name syntax
// before the resolver sees them, so that a malformed text fails at once
// and without a query, and so that the resolver's lenient numeric parsing
// ("1.2.3", "0x7f000001") cannot let through what inet_pton refused.
#include "vesk_transport/platform/SocketUtil.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>

extern "C" const VESK_Transport_Address_t VESK_TRANSPORT_ADDRESS_INVALID = {{0}};

namespace {

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

bool isNameCharacter(char c) {
    return isDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-' || c == '_';
}

// Letters, digits, '-' and '_' in dot-separated labels of 1 to 63
// characters that neither begin nor end with '-' (a trailing dot is
// allowed), at most 253 characters, the last label not all digits (so no
// dotted number passes as a name).
bool isHostNameSyntax(const char *text) {
    size_t length = std::strlen(text);
    if (length > 0 && text[length - 1] == '.') --length;  // the root label
    if (length == 0 || length > 253) return false;
    size_t labelLength = 0;
    bool labelAllDigits = true;
    for (size_t i = 0; i < length; ++i) {
        const char c = text[i];
        if (c == '.') {
            if (labelLength == 0 || text[i - 1] == '-') return false;
            labelLength = 0;
            labelAllDigits = true;
            continue;
        }
        if (!isNameCharacter(c) || (c == '-' && labelLength == 0) || ++labelLength > 63) {
            return false;
        }
        labelAllDigits = labelAllDigits && isDigit(c);
    }
    return labelLength != 0 && text[length - 1] != '-' && !labelAllDigits;
}

void storeIPv4(const struct in_addr &address, VESK_Transport_Address_t *address_out) {
    std::memset(address_out->network_ordered_value, 0, 12);
    std::memcpy(address_out->network_ordered_value + 12, &address.s_addr, 4);
}

bool resolve(const char *text, VESK_Transport_Address_t *address_out) {
    struct addrinfo hints;
    std::memset(&hints, 0, sizeof(hints));
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_DGRAM;  // one entry per address, not one per socket type
    struct addrinfo *results = nullptr;
    if (getaddrinfo(text, nullptr, &hints, &results) != 0) return false;
    const struct addrinfo *v4 = nullptr;
    const struct addrinfo *v6 = nullptr;
    for (const struct addrinfo *entry = results; entry != nullptr; entry = entry->ai_next) {
        if (entry->ai_addr == nullptr) continue;
        if (entry->ai_family == AF_INET && v4 == nullptr) v4 = entry;
        if (entry->ai_family == AF_INET6 && v6 == nullptr) v6 = entry;
    }
    bool found = true;
    if (v4 != nullptr) {
        struct sockaddr_in address;
        std::memcpy(&address, v4->ai_addr, sizeof(address));
        storeIPv4(address.sin_addr, address_out);
    } else if (v6 != nullptr) {
        struct sockaddr_in6 address;
        std::memcpy(&address, v6->ai_addr, sizeof(address));
        std::memcpy(address_out->network_ordered_value, address.sin6_addr.s6_addr, 16);
    } else {
        found = false;
    }
    freeaddrinfo(results);
    return found;
}

}  // namespace

extern "C" {

int VESK_Transport_SocketUtil_StringAddress_to_transportAddress(
    VESK_Transport_Address_t *address_out, const char *text, int flag) {
    if (address_out == nullptr || text == nullptr) return 0;
    struct in_addr v4;
    if (inet_pton(AF_INET, text, &v4) == 1) {
        storeIPv4(v4, address_out);
        return 1;
    }
    struct in6_addr v6;
    if (inet_pton(AF_INET6, text, &v6) == 1) {
        std::memcpy(address_out->network_ordered_value, v6.s6_addr, 16);
        return 1;
    }
    if (flag == 0 || !isHostNameSyntax(text)) return 0;
    // inet_aton takes the legacy forms that the resolver would also take.
    if (inet_aton(text, &v4) != 0) return 0;
    VESK_Transport_Address_t resolved;
    if (!resolve(text, &resolved)) return 0;
    *address_out = resolved;
    return 1;
}

int VESK_Transport_Address_is_equal(const VESK_Transport_Address_t *a,
                                    const VESK_Transport_Address_t *b) {
    if (a == nullptr || b == nullptr) return a == b ? 1 : 0;
    return std::memcmp(a->network_ordered_value, b->network_ordered_value, 16) == 0 ? 1 : 0;
}

}  // extern "C"
