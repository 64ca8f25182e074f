// Host and shared-memory services.
//
// The host is read afresh on every call (interfaces, machine-id files); only
// the robust-mutex probe is done once, because the answer is a property of
// the C library and must not change while a setup asks it several times.
#include "vesk_transport/platform/Host.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <vector>

#ifdef __linux__
#include <netpacket/packet.h>
#endif

#include "vesk_transport/platform/Heap.h"

struct DDS_RtpsAppIdGenerator {
    bool hostIdsSet;
    KEL_UINT32 hostId;
    KEL_UINT32 hostIdFromMac;
};

namespace {

constexpr KEL_UINT32 kLoopbackHostId = 0x7F000001u;

// ---------------------------------------------------------------------
// Unique id

std::mutex g_overrideMutex;
bool g_overrideSet = false;
KELOsapiHostId g_override;

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Small files only: a machine-id is 33 bytes, so anything longer than the
// buffer is malformed anyway and is cut (and then rejected by the parser).
bool readSmallFile(const char *path, std::string *text_out) {
    std::FILE *file = std::fopen(path, "r");
    if (file == nullptr) return false;
    std::array<char, 128> buffer{};
    const size_t length = std::fread(buffer.data(), 1, buffer.size() - 1, file);
    std::fclose(file);
    text_out->assign(buffer.data(), length);
    return true;
}

bool machineIdFromFile(const char *path, KELOsapiHostId *id_out) {
    std::string text;
    if (!readSmallFile(path, &text)) return false;
    // An embedded NUL makes the text malformed rather than shorter.
    if (text.find('\0') != std::string::npos) return false;
    return KELOsapiHost_parseMachineId(text.c_str(), id_out) != 0;
}

bool isLoopbackIPv4(KEL_UINT32 host_order) {
    return (host_order >> 24) == 127u;
}

// The first IPv4 address, in getifaddrs order, of an interface that is up
// and not a loopback, as a host-order number.
std::optional<KEL_UINT32> firstNonLoopbackIPv4() {
    struct ifaddrs *list = nullptr;
    if (getifaddrs(&list) != 0) return std::nullopt;
    std::optional<KEL_UINT32> found;
    for (const struct ifaddrs *entry = list; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET) continue;
        if ((entry->ifa_flags & IFF_UP) == 0 || (entry->ifa_flags & IFF_LOOPBACK) != 0) continue;
        struct sockaddr_in address;
        std::memcpy(&address, entry->ifa_addr, sizeof(address));
        const KEL_UINT32 value = ntohl(address.sin_addr.s_addr);
        if (value == 0 || isLoopbackIPv4(value)) continue;
        found = value;
        break;
    }
    freeifaddrs(list);
    return found;
}

void storeIPv4(KEL_UINT32 host_order, KELOsapiHostId *id_out) {
    std::memset(id_out->value, 0, sizeof(id_out->value));
    id_out->value[0] = static_cast<unsigned char>(host_order >> 24);
    id_out->value[1] = static_cast<unsigned char>(host_order >> 16);
    id_out->value[2] = static_cast<unsigned char>(host_order >> 8);
    id_out->value[3] = static_cast<unsigned char>(host_order);
}

// ---------------------------------------------------------------------
// MAC address

struct MacCandidate {
    unsigned index;
    bool up;
    std::array<unsigned char, 6> mac;
};

bool isZeroMac(const unsigned char *mac) {
    for (int i = 0; i < 6; ++i) {
        if (mac[i] != 0) return false;
    }
    return true;
}

// Up interfaces first, then by interface index.
std::optional<KEL_UINT32> pickMac(const std::vector<MacCandidate> &candidates) {
    const MacCandidate *best = nullptr;
    for (const MacCandidate &candidate : candidates) {
        if (best == nullptr || (candidate.up && !best->up) ||
            (candidate.up == best->up && candidate.index < best->index)) {
            best = &candidate;
        }
    }
    if (best == nullptr) return std::nullopt;
    return (static_cast<KEL_UINT32>(best->mac[2]) << 24) |
           (static_cast<KEL_UINT32>(best->mac[3]) << 16) |
           (static_cast<KEL_UINT32>(best->mac[4]) << 8) | static_cast<KEL_UINT32>(best->mac[5]);
}

std::vector<MacCandidate> macCandidatesFromIfaddrs() {
    std::vector<MacCandidate> candidates;
#ifdef __linux__
    struct ifaddrs *list = nullptr;
    if (getifaddrs(&list) != 0) return candidates;
    for (const struct ifaddrs *entry = list; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_PACKET) continue;
        if ((entry->ifa_flags & IFF_LOOPBACK) != 0) continue;
        struct sockaddr_ll link;
        std::memcpy(&link, entry->ifa_addr, sizeof(link));
        if (link.sll_halen != 6 || isZeroMac(link.sll_addr)) continue;
        MacCandidate candidate{};
        candidate.index = static_cast<unsigned>(link.sll_ifindex);
        candidate.up = (entry->ifa_flags & IFF_UP) != 0;
        std::memcpy(candidate.mac.data(), link.sll_addr, 6);
        candidates.push_back(candidate);
    }
    freeifaddrs(list);
#endif
    return candidates;
}

// "aa:bb:cc:dd:ee:ff" with an optional trailing newline.
bool parseMac(const std::string &text, std::array<unsigned char, 6> *mac_out) {
    std::string body = text;
    if (!body.empty() && body.back() == '\n') body.pop_back();
    if (body.size() != 17) return false;
    for (size_t i = 0; i < 6; ++i) {
        const int high = hexValue(body[i * 3]);
        const int low = hexValue(body[i * 3 + 1]);
        if (high < 0 || low < 0 || (i < 5 && body[i * 3 + 2] != ':')) return false;
        (*mac_out)[i] = static_cast<unsigned char>(high * 16 + low);
    }
    return true;
}

std::vector<MacCandidate> macCandidatesFromSysfs() {
    std::vector<MacCandidate> candidates;
    struct if_nameindex *names = if_nameindex();
    if (names == nullptr) return candidates;
    for (const struct if_nameindex *name = names; name->if_index != 0; ++name) {
        const std::string directory = std::string("/sys/class/net/") + name->if_name + "/";
        std::string flagsText;
        std::string addressText;
        if (!readSmallFile((directory + "flags").c_str(), &flagsText) ||
            !readSmallFile((directory + "address").c_str(), &addressText)) {
            continue;
        }
        const unsigned long flags = std::strtoul(flagsText.c_str(), nullptr, 0);
        MacCandidate candidate{};
        if ((flags & IFF_LOOPBACK) != 0 || !parseMac(addressText, &candidate.mac) ||
            isZeroMac(candidate.mac.data())) {
            continue;
        }
        candidate.index = name->if_index;
        candidate.up = (flags & IFF_UP) != 0;
        candidates.push_back(candidate);
    }
    if_freenameindex(names);
    return candidates;
}

KEL_UINT32 realHostId() {
    return firstNonLoopbackIPv4().value_or(kLoopbackHostId);
}

KEL_UINT32 realHostIdFromMac() {
    std::optional<KEL_UINT32> value = pickMac(macCandidatesFromIfaddrs());
    if (!value) value = pickMac(macCandidatesFromSysfs());
    return value ? *value : realHostId();
}

// ---------------------------------------------------------------------
// Robust mutexes

bool probeRobustMutex() {
#if defined(__APPLE__) || defined(_WIN32)
    return false;  // no robust process-shared mutexes there
#else
    pthread_mutexattr_t attributes;
    if (pthread_mutexattr_init(&attributes) != 0) return false;
    bool robust = pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED) == 0 &&
                  pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST) == 0;
    if (robust) {
        // The attribute alone may be accepted by a library whose mutexes
        // then refuse it: initialise one to be sure.
        pthread_mutex_t mutex;
        robust = pthread_mutex_init(&mutex, &attributes) == 0;
        if (robust) pthread_mutex_destroy(&mutex);
    }
    pthread_mutexattr_destroy(&attributes);
    return robust;
#endif
}

std::atomic<int> g_robustMode{-1};

std::atomic<KEL_UINT32> g_appIdCounter{0};

}  // namespace

extern "C" {

int KELOsapiHost_parseMachineId(const char *text, KELOsapiHostId *id_out) {
    if (text == nullptr || id_out == nullptr) return 0;
    KELOsapiHostId id;
    bool allZero = true;
    for (int i = 0; i < 16; ++i) {
        const int high = hexValue(text[2 * i]);
        if (high < 0) return 0;  // also stops at the terminator
        const int low = hexValue(text[2 * i + 1]);
        if (low < 0) return 0;
        id.value[i] = static_cast<unsigned char>(high * 16 + low);
        allZero = allZero && id.value[i] == 0;
    }
    const char *rest = text + 32;
    if (*rest == '\n') ++rest;
    if (*rest != '\0' || allZero) return 0;
    *id_out = id;
    return 1;
}

int KELOsapiHost_getUniqueIdWithSource(KELOsapiHostId *id_out, KELOsapiHostIdSource *source_out) {
    if (id_out == nullptr) return 0;
    try {
        KELOsapiHostId id;
        KELOsapiHostIdSource source;
        bool overridden = false;
        {
            std::lock_guard<std::mutex> lock(g_overrideMutex);
            if (g_overrideSet) {
                id = g_override;
                overridden = true;
            }
        }
        if (overridden) {
            source = KEL_OSAPI_HOST_ID_SOURCE_OVERRIDE;
        } else if (machineIdFromFile("/etc/machine-id", &id)) {
            source = KEL_OSAPI_HOST_ID_SOURCE_MACHINE_ID;
        } else if (machineIdFromFile("/var/lib/dbus/machine-id", &id)) {
            source = KEL_OSAPI_HOST_ID_SOURCE_DBUS_MACHINE_ID;
        } else if (const std::optional<KEL_UINT32> address = firstNonLoopbackIPv4()) {
            storeIPv4(*address, &id);
            source = KEL_OSAPI_HOST_ID_SOURCE_IPV4_ADDRESS;
        } else {
            storeIPv4(kLoopbackHostId, &id);
            source = KEL_OSAPI_HOST_ID_SOURCE_LOOPBACK;
        }
        *id_out = id;
        if (source_out != nullptr) *source_out = source;
        return 1;
    } catch (...) {
        // Only the string and vector scratch can throw; without memory the
        // host still has the loopback "no identity".
        storeIPv4(kLoopbackHostId, id_out);
        if (source_out != nullptr) *source_out = KEL_OSAPI_HOST_ID_SOURCE_LOOPBACK;
        return 1;
    }
}

int KELOsapiHost_getUniqueId(KELOsapiHostId *id_out) {
    return KELOsapiHost_getUniqueIdWithSource(id_out, nullptr);
}

void KELOsapiHost_setUniqueIdOverride(const KELOsapiHostId *id) {
    std::lock_guard<std::mutex> lock(g_overrideMutex);
    g_overrideSet = id != nullptr;
    if (id != nullptr) g_override = *id;
}

int KELOsapiSharedMemorySemMutex_useRobustMutex(void) {
    const int mode = g_robustMode.load();
    if (mode == 0 || mode == 1) return mode;
    static const bool platformAnswer = probeRobustMutex();
    return platformAnswer ? 1 : 0;
}

void KELOsapiSharedMemorySemMutex_forceRobustMutex(int mode) {
    g_robustMode.store(mode == 0 || mode == 1 ? mode : -1);
}

int DDS_ProductVersion_compare(const DDS_ProductVersion_t *a, const DDS_ProductVersion_t *b) {
    const DDS_ProductVersion_t zero = {0, 0, 0, 0};
    if (a == nullptr) a = &zero;
    if (b == nullptr) b = &zero;
    const DDS_Char left[4] = {a->major, a->minor, a->release, a->revision};
    const DDS_Char right[4] = {b->major, b->minor, b->release, b->revision};
    for (int i = 0; i < 4; ++i) {
        const unsigned char l = static_cast<unsigned char>(left[i]);
        const unsigned char r = static_cast<unsigned char>(right[i]);
        if (l != r) return l < r ? -1 : 1;
    }
    return 0;
}

DDS_RtpsAppIdGenerator *DDS_RtpsAppIdGenerator_new(void) {
    void *block =
        KELOsapiHeap_reallocateMemoryInternal(nullptr, 1, sizeof(DDS_RtpsAppIdGenerator),
                                              "DDS_RtpsAppIdGenerator", VESK_TRANSPORT_HEAP_TAG);
    if (block == nullptr) return nullptr;
    return new (block) DDS_RtpsAppIdGenerator{false, 0, 0};  // no override
}

void DDS_RtpsAppIdGenerator_delete(DDS_RtpsAppIdGenerator *self) {
    KELOsapiHeap_freeMemoryInternal(self);
}

KEL_UINT32 DDS_RtpsAppIdGenerator_get_rtps_host_id(DDS_RtpsAppIdGenerator *self) {
    if (self != nullptr && self->hostIdsSet) return self->hostId;
    return realHostId();
}

KEL_UINT32 DDS_RtpsAppIdGenerator_get_rtps_host_id_from_mac(DDS_RtpsAppIdGenerator *self) {
    if (self != nullptr && self->hostIdsSet) return self->hostIdFromMac;
    try {
        return realHostIdFromMac();
    } catch (...) {
        return realHostId();  // scratch allocation failed: the documented fallback
    }
}

KEL_UINT32 DDS_RtpsAppIdGenerator_get_rtps_app_id(DDS_RtpsAppIdGenerator *) {
    const KEL_UINT32 pid = static_cast<KEL_UINT32>(getpid());
    const KEL_UINT32 count = g_appIdCounter.fetch_add(1);
    return (pid << 8) | (count & 0xFFu);
}

void DDS_RtpsAppIdGenerator_set_host_ids(DDS_RtpsAppIdGenerator *self, KEL_UINT32 host_id,
                                         KEL_UINT32 host_id_from_mac) {
    if (self == nullptr) return;
    self->hostIdsSet = true;
    self->hostId = host_id;
    self->hostIdFromMac = host_id_from_mac;
}

}  // extern "C"
