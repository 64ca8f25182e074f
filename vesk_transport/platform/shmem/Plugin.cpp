// The shared-memory plugin's operations: resources, send, receive, loans.
#include "vesk_transport/platform/shmem/Plugin.hpp"

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <new>
#include <string>

#include "vesk_transport/platform/Heap.h"
#include "vesk_transport/platform/Host.h"
#include "vesk_transport/platform/Log.h"
#include "vesk_transport/platform/TransportInternal.hpp"
#include "vesk_transport/platform/shmem/Ring.hpp"
#include "vesk_transport/platform/shmem/Segment.hpp"

extern "C" {
static void shmemDelete(VESK_Transport_Plugin *self, void *reserved);
}

namespace vesk::shmem {

namespace {

constexpr const char *kPluginTypeName = "VESK_Transport_Shmem_Plugin";
constexpr std::size_t kDatagramMax = 65507;

struct RecvResource {
    RecvResource *next = nullptr;
    Mapping mapping;
    VESK_Transport_Port_t port = 0;
    std::int32_t key = 0;
    std::atomic<int> shares{0};     // beyond the creator's
    std::atomic<int> receiving{0};  // threads inside receive_rEA
    std::atomic<bool> closing{false};
};

struct SendResource {
    SendResource *next = nullptr;
    std::mutex lock;  // sends on one resource, and reattaching, one at a time
    Mapping mapping;
    VESK_Transport_Address_t address{};
    VESK_Transport_Port_t port = 0;
    std::atomic<int> shares{0};
};

struct ShmemPlugin {
    VESK_Transport_Plugin base;  // first: the pointer handed out
    VESK_Transport_Shmem_Property_t property;
    std::atomic<VESK_Transport_Listener *> listener{nullptr};
    std::mutex resources;
    RecvResource *receivers = nullptr;
    SendResource *senders = nullptr;
    int debugSocket = -1;
    sockaddr_in debugTo{};
};
static_assert(offsetof(ShmemPlugin, base) == 0);

ShmemPlugin *shmemPlugin(VESK_Transport_Plugin *plugin) {
    if (plugin == nullptr || plugin->delete_cEA != shmemDelete) return nullptr;
    return reinterpret_cast<ShmemPlugin *>(plugin);
}

template <class T>
T *allocate() {
    void *memory = KELOsapiHeap_reallocateMemoryInternal(nullptr, 1, sizeof(T), kPluginTypeName,
                                                         VESK_TRANSPORT_HEAP_TAG);
    return memory != nullptr ? new (memory) T{} : nullptr;
}

template <class T>
void release(T *object) {
    object->~T();
    KELOsapiHeap_freeMemoryInternal(object);
}

[[gnu::format(printf, 2, 3)]] int fail(const char *function, const char *fmt, ...) {
    char reason[400];
    va_list args;
    va_start(args, fmt);
    std::vsnprintf(reason, sizeof reason, fmt, args);
    va_end(args);
    vesk::transport::logError(KEL_LOG_ANY_FAILURE_s, function, __FILE__, __LINE__, "SHMEM", reason);
    return 0;
}

void warn(const char *function, const std::string &reason) {
    if (!KELLog_isEnabled(KEL_LOG_BIT_WARN, DDS_SUBMODULE_MASK_TRANSPORT)) return;
    const std::string text = "SHMEM transport: " + reason;
    KELLogMessage_printWithParams(-1, KEL_LOG_BIT_WARN, VESK_TRANSPORT_LOG_MODULE_ID, __FILE__,
                                  __LINE__, function, &KEL_LOG_ANY_FAILURE_s, text.c_str());
}

std::int32_t keyOf(KEL_INT32 offset, KEL_INT32 factor, VESK_Transport_Port_t port) {
    return static_cast<std::int32_t>(static_cast<std::int64_t>(offset) +
                                     static_cast<std::int64_t>(port) * factor);
}

bool keyUsable(KEL_INT32 offset, KEL_INT32 factor, VESK_Transport_Port_t port) {
    const std::int64_t key =
        static_cast<std::int64_t>(offset) + static_cast<std::int64_t>(port) * factor;
    return key >= 1 && key <= INT32_MAX;
}

bool portUsable(const VESK_Transport_Shmem_Property_t &p, VESK_Transport_Port_t port) {
    return keyUsable(p.segmentKeyOffset, p.segmentKeyFactor, port) &&
           keyUsable(p.semaphoreKeyOffset, p.semaphoreKeyFactor, port) &&
           keyUsable(p.mutexKeyOffset, p.mutexKeyFactor, port);
}

bool isNoAddress(const VESK_Transport_Address_t *address) {
    if (address == nullptr) return true;
    for (unsigned char byte : address->network_ordered_value) {
        if (byte != 0) return false;
    }
    return true;
}

bool sameAddress(const VESK_Transport_Address_t &a, const VESK_Transport_Address_t &b) {
    return std::memcmp(a.network_ordered_value, b.network_ordered_value, 16) == 0;
}

// Opens the destination's segment and checks that this plugin may write it.
bool attachFor(const ShmemPlugin &plugin, const VESK_Transport_Address_t &address,
               VESK_Transport_Port_t port, Mapping &out, const char *function) {
    const VESK_Transport_Shmem_Property_t &p = plugin.property;
    std::string reason;
    if (!attachSegment(keyOf(p.segmentKeyOffset, p.segmentKeyFactor, port), port, out, reason)) {
        return fail(function, "%s", reason.c_str());
    }
    const Header &header = *out.header;
    const std::int32_t semaphoreKey = keyOf(p.semaphoreKeyOffset, p.semaphoreKeyFactor, port);
    const std::int32_t mutexKey = keyOf(p.mutexKeyOffset, p.mutexKeyFactor, port);
    if (!canWrite(p.majorVersion, header.format)) {
        fail(function, "segment of port %u has format %u, which a format %d writer cannot write",
             port, header.format, p.majorVersion);
    } else if (header.format >= 4 &&
               std::memcmp(header.shmem_uuid, address.network_ordered_value, 16) != 0) {
        fail(function, "segment of port %u belongs to another shared-memory address: use UDP",
             port);
    } else if (header.semaphore_key != semaphoreKey || header.mutex_key != mutexKey) {
        fail(function,
             "segment of port %u has semaphore key %d and mutex key %d, this plugin %d and %d",
             port, header.semaphore_key, header.mutex_key, semaphoreKey, mutexKey);
    } else {
        return true;
    }
    unmap(out);
    return false;
}

void sendDebugCopy(ShmemPlugin &plugin, const VESK_Transport_Buffer_t *buffers, int count) {
    iovec pieces[64];
    int used = 0;
    std::size_t total = 0;
    for (int i = 0; i < count && used < 64 && total < kDatagramMax; ++i) {
        if (buffers[i].length <= 0) continue;
        const std::size_t length =
            std::min(static_cast<std::size_t>(buffers[i].length), kDatagramMax - total);
        pieces[used++] = {buffers[i].pointer, length};
        total += length;
    }
    msghdr message{};
    message.msg_name = &plugin.debugTo;
    message.msg_namelen = sizeof plugin.debugTo;
    message.msg_iov = pieces;
    message.msg_iovlen = static_cast<std::size_t>(used);
    (void)sendmsg(plugin.debugSocket, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
}

bool openDebugSocket(ShmemPlugin &plugin) {
    const unsigned char *bytes = plugin.property.udp_debugging_address.network_ordered_value + 12;
    plugin.debugTo.sin_family = AF_INET;
    plugin.debugTo.sin_port = htons(static_cast<std::uint16_t>(plugin.property.udp_debugging_port));
    std::memcpy(&plugin.debugTo.sin_addr, bytes, 4);
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    const unsigned char ttl = 0;
    const unsigned char loop = 1;
    in_addr loopback{htonl(INADDR_LOOPBACK)};
    // Multicast copies stay on this host: TTL 0, out of the loopback interface.
    if (bytes[0] >= 224 && bytes[0] <= 239 &&
        (setsockopt(fd, IPPROTO_IP, IP_MULTICAST_TTL, &ttl, sizeof ttl) != 0 ||
         setsockopt(fd, IPPROTO_IP, IP_MULTICAST_LOOP, &loop, sizeof loop) != 0 ||
         setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &loopback, sizeof loopback) != 0)) {
        close(fd);
        return false;
    }
    plugin.debugSocket = fd;
    return true;
}

// Wakes a receiver still inside receive_rEA and waits until it has left.
void destroyReceiver(RecvResource *resource) {
    resource->closing.store(true);
    while (resource->receiving.load() > 0) {
        requestUnblock(*resource->mapping.header);
        timespec pause{0, 1000000L};
        nanosleep(&pause, nullptr);
    }
    destroySegment(resource->mapping, resource->key);
    release(resource);
}

template <class T>
bool unlink(T *&head, T *item) {
    for (T **link = &head; *link != nullptr; link = &(*link)->next) {
        if (*link == item) {
            *link = item->next;
            return true;
        }
    }
    return false;
}

// One message for receive_rEA: 1 with a message, 0 when woken or closing.
int receiveOne(ShmemPlugin &plugin, RecvResource &resource, const VESK_Transport_Buffer_t *buffer,
               VESK_Transport_Message_t &message) {
    constexpr const char *function = "receive_rEA";
    Header &header = *resource.mapping.header;
    const bool loan = (plugin.property.parent.properties_bitmap &
                       VESK_TRANSPORT_PROPERTY_BIT_BUFFER_ALWAYS_LOANED) != 0 ||
                      buffer == nullptr;
    for (;;) {
        if (resource.closing.load()) return 0;
        Delivery delivery;
        switch (takeMessage(header, delivery)) {
            case ReadResult::unblocked:
                return 0;
            case ReadResult::lockFailed:
                return fail(function, "the lock of the segment of port %u is unusable",
                            resource.port);
            case ReadResult::message:
                break;
        }
        if (loan) {
            message.buffer = {static_cast<KEL_INT32>(delivery.length),
                              reinterpret_cast<char *>(delivery.data)};
            // The sequence + 1: never NULL.
            message.loaned_buffer_param = reinterpret_cast<void *>(delivery.sequence + 1);
            return 1;
        }
        const bool fits =
            buffer->length >= 0 && delivery.length <= static_cast<std::uint32_t>(buffer->length);
        if (fits) std::memcpy(buffer->pointer, delivery.data, delivery.length);
        releaseMessage(header, delivery.sequence);
        if (fits) {
            message.buffer = {static_cast<KEL_INT32>(delivery.length), buffer->pointer};
            return 1;
        }
        warn(function, "dropped a message of " + std::to_string(delivery.length) +
                           " bytes on port " + std::to_string(resource.port) +
                           ": the receive buffer holds " + std::to_string(buffer->length));
    }
}

template <class Resource>
int share(Resource *resource, bool same, bool more, const char *function) {
    if (!same) {
        warn(function, "the resource's port (" + std::to_string(resource->port) +
                           ") or address differs: not shared");
        return 0;
    }
    if (more) {
        resource->shares.fetch_add(1);
        return 1;
    }
    int shares = resource->shares.load();
    while (shares > 0 && !resource->shares.compare_exchange_weak(shares, shares - 1)) {
    }
    if (shares > 0) return 1;
    warn(function, "no share of the resource to undo (the creator's stays until destroy)");
    return 0;
}

const char *switchedOff = "shared memory is switched off (reserved = 1): use UDP";

}  // namespace

bool debuggingAddressAllowed(const VESK_Transport_Address_t &address) {
    const unsigned char *bytes = address.network_ordered_value;
    for (int i = 0; i < 12; ++i) {
        if (bytes[i] != 0) return false;
    }
    return bytes[12] == 127 || (bytes[12] >= 224 && bytes[12] <= 239);
}

}  // namespace vesk::shmem

using namespace vesk::shmem;

extern "C" {

static void shmemDelete(VESK_Transport_Plugin *self, void *) {
    ShmemPlugin *plugin = shmemPlugin(self);
    if (plugin == nullptr) return;
    while (RecvResource *resource = plugin->receivers) {
        plugin->receivers = resource->next;
        destroyReceiver(resource);
    }
    while (SendResource *resource = plugin->senders) {
        plugin->senders = resource->next;
        unmap(resource->mapping);
        release(resource);
    }
    if (plugin->debugSocket >= 0) close(plugin->debugSocket);
    VESK_Transport_Shmem_Property_finalize(&plugin->property);
    release(plugin);
}

static const char *shmemGetClassName(VESK_Transport_Plugin *self) {
    return shmemPlugin(self) != nullptr ? "SHMEM" : nullptr;
}

static int shmemStringToAddress(VESK_Transport_Plugin *self, VESK_Transport_Address_t *address_out,
                                const char *address_in) {
    if (shmemPlugin(self) == nullptr || address_out == nullptr || address_in == nullptr) return 0;
    // Shared-memory addresses are 16 bytes; written like IPv6, or IPv4 for
    // the last four bytes.
    if (vesk::transport::parseIpv6Text(address_in, *address_out)) return 1;
    return vesk::transport::parseIpv4Text(address_in, false, *address_out) ? 1 : 0;
}

static int shmemGetReceiveInterfaces(VESK_Transport_Plugin *self, int *found_more_out,
                                     int *reported_count_out,
                                     struct VESK_Transport_Interface_t interfaces_inout[],
                                     int interface_array_size_in) {
    const ShmemPlugin *plugin = shmemPlugin(self);
    if (plugin == nullptr || found_more_out == nullptr || reported_count_out == nullptr ||
        interface_array_size_in < 0 ||
        (interfaces_inout == nullptr && interface_array_size_in > 0)) {
        return 0;
    }
    // The host's segments are the one interface, addressed by shmemUUID.
    if (interface_array_size_in < 1) {
        *found_more_out = 1;
        *reported_count_out = 0;
        return 1;
    }
    interfaces_inout[0] = {plugin->property.parent.classid, plugin->property.shmemUUID, 1};
    *found_more_out = 0;
    *reported_count_out = 1;
    return 1;
}

static int shmemIsValidEntryPort(VESK_Transport_Plugin *self, VESK_Transport_Port_t port_in) {
    const ShmemPlugin *plugin = shmemPlugin(self);
    return plugin != nullptr && portUsable(plugin->property, port_in) ? 1 : 0;
}

static int shmemRegisterListener(VESK_Transport_Plugin *self, VESK_Transport_Listener *listener) {
    ShmemPlugin *plugin = shmemPlugin(self);
    if (plugin == nullptr) return 0;
    plugin->listener.store(listener);
    return 1;
}

static int shmemCreateRecvResource(VESK_Transport_Plugin *self,
                                   VESK_Transport_RecvResource_t *recvresource_out,
                                   VESK_Transport_Port_t *receive_port_inout,
                                   const VESK_Transport_Address_t *multicast_address_in,
                                   KEL_INT32) {
    constexpr const char *function = "create_recvresource_rrEA";
    ShmemPlugin *plugin = shmemPlugin(self);
    if (plugin == nullptr || recvresource_out == nullptr || receive_port_inout == nullptr) {
        return fail(function, "no plugin, resource or port given");
    }
    const VESK_Transport_Shmem_Property_t &p = plugin->property;
    const VESK_Transport_Port_t port = *receive_port_inout;
    if (p.reserved == 1) return fail(function, "%s", switchedOff);
    if (!isNoAddress(multicast_address_in)) {
        return fail(function, "shared memory has no multicast: use UDP for multicast receive");
    }
    if (port == 0) return fail(function, "port 0: give the port to receive on");
    if (!portUsable(p, port)) {
        return fail(function,
                    "port %u gives a key outside 1..2147483647: lower the key offsets or factors",
                    port);
    }
    if (p.majorVersion == 5 && KELOsapiSharedMemorySemMutex_useRobustMutex() == 0) {
        return fail(function,
                    "format 5 needs robust mutexes, which this platform lacks: set a "
                    "minimum compatibility version for format 4 or lower");
    }
    RecvResource *resource = allocate<RecvResource>();
    if (resource == nullptr) return fail(function, "out of memory");
    SegmentLayout layout{};
    layout.format = static_cast<std::uint16_t>(p.majorVersion);
    layout.port = port;
    layout.segment_key = keyOf(p.segmentKeyOffset, p.segmentKeyFactor, port);
    layout.semaphore_key = keyOf(p.semaphoreKeyOffset, p.semaphoreKeyFactor, port);
    layout.mutex_key = keyOf(p.mutexKeyOffset, p.mutexKeyFactor, port);
    layout.slot_count = static_cast<std::uint32_t>(p.received_message_count_max);
    layout.data_size = static_cast<std::uint32_t>(p.receive_buffer_size);
    layout.message_size_max = static_cast<std::uint32_t>(p.parent.message_size_max);
    std::memcpy(layout.shmem_uuid, p.shmemUUID.network_ordered_value, 16);
    std::string reason;
    if (!createSegment(layout, resource->mapping, reason)) {
        release(resource);
        return fail(function, "%s", reason.c_str());
    }
    resource->port = port;
    resource->key = layout.segment_key;
    {
        std::lock_guard guard(plugin->resources);
        resource->next = plugin->receivers;
        plugin->receivers = resource;
    }
    *recvresource_out = resource;
    return 1;
}

static void shmemDestroyRecvResource(VESK_Transport_Plugin *self,
                                     const VESK_Transport_RecvResource_t *recvresource_in) {
    ShmemPlugin *plugin = shmemPlugin(self);
    if (plugin == nullptr || recvresource_in == nullptr) return;
    auto *resource = static_cast<RecvResource *>(*recvresource_in);
    bool found = false;
    {
        std::lock_guard guard(plugin->resources);
        found = unlink(plugin->receivers, resource);
    }
    if (found) destroyReceiver(resource);
}

// Share and unshare differ only in the direction of the count.
static int shareReceiver(VESK_Transport_Plugin *self,
                         const VESK_Transport_RecvResource_t *recvresource_in,
                         const VESK_Transport_Address_t *multicast_address_in,
                         VESK_Transport_Port_t receive_port_in, bool more, const char *function) {
    if (shmemPlugin(self) == nullptr || recvresource_in == nullptr) return 0;
    auto *resource = static_cast<RecvResource *>(*recvresource_in);
    return share(resource, resource->port == receive_port_in && isNoAddress(multicast_address_in),
                 more, function);
}

static int shmemShareRecvResource(VESK_Transport_Plugin *self,
                                  const VESK_Transport_RecvResource_t *recvresource_in,
                                  const VESK_Transport_Address_t *multicast_address_in,
                                  VESK_Transport_Port_t receive_port_in, KEL_INT32) {
    return shareReceiver(self, recvresource_in, multicast_address_in, receive_port_in, true,
                         "share_recvresource_rrEA");
}

static int shmemUnshareRecvResource(VESK_Transport_Plugin *self,
                                    const VESK_Transport_RecvResource_t *recvresource_in,
                                    const VESK_Transport_Address_t *multicast_address_in,
                                    VESK_Transport_Port_t receive_port_in) {
    return shareReceiver(self, recvresource_in, multicast_address_in, receive_port_in, false,
                         "unshare_recvresource_rrEA");
}

static int shmemCreateSendResource(VESK_Transport_Plugin *self,
                                   VESK_Transport_SendResource_t *sendresource_out,
                                   const VESK_Transport_Address_t *dest_address_in,
                                   VESK_Transport_Port_t dest_port_in, KEL_INT32) {
    constexpr const char *function = "create_sendresource_srEA";
    ShmemPlugin *plugin = shmemPlugin(self);
    if (plugin == nullptr || sendresource_out == nullptr || dest_address_in == nullptr) {
        return fail(function, "no plugin, resource or address given");
    }
    const VESK_Transport_Shmem_Property_t &p = plugin->property;
    if (p.reserved == 1) return fail(function, "%s", switchedOff);
    if (!sameAddress(*dest_address_in, p.shmemUUID)) {
        return fail(function, "destination is not this host's shared-memory address: use UDP");
    }
    if (!portUsable(p, dest_port_in)) {
        return fail(function, "port %u gives a key outside 1..2147483647", dest_port_in);
    }
    SendResource *resource = allocate<SendResource>();
    if (resource == nullptr) return fail(function, "out of memory");
    if (!attachFor(*plugin, *dest_address_in, dest_port_in, resource->mapping, function)) {
        release(resource);
        return 0;
    }
    resource->address = *dest_address_in;
    resource->port = dest_port_in;
    {
        std::lock_guard guard(plugin->resources);
        resource->next = plugin->senders;
        plugin->senders = resource;
    }
    *sendresource_out = resource;
    return 1;
}

static void shmemDestroySendResource(VESK_Transport_Plugin *self,
                                     const VESK_Transport_SendResource_t *sendresource_in) {
    ShmemPlugin *plugin = shmemPlugin(self);
    if (plugin == nullptr || sendresource_in == nullptr) return;
    auto *resource = static_cast<SendResource *>(*sendresource_in);
    bool found = false;
    {
        std::lock_guard guard(plugin->resources);
        found = unlink(plugin->senders, resource);
    }
    if (!found) return;
    unmap(resource->mapping);
    release(resource);
}

static int shareSender(VESK_Transport_Plugin *self,
                       const VESK_Transport_SendResource_t *sendresource_in,
                       const VESK_Transport_Address_t *dest_address_in,
                       VESK_Transport_Port_t dest_port_in, bool more, const char *function) {
    if (shmemPlugin(self) == nullptr || sendresource_in == nullptr || dest_address_in == nullptr) {
        return 0;
    }
    auto *resource = static_cast<SendResource *>(*sendresource_in);
    return share(resource,
                 resource->port == dest_port_in && sameAddress(resource->address, *dest_address_in),
                 more, function);
}

static int shmemShareSendResource(VESK_Transport_Plugin *self,
                                  const VESK_Transport_SendResource_t *sendresource_in,
                                  const VESK_Transport_Address_t *dest_address_in,
                                  VESK_Transport_Port_t dest_port_in, KEL_INT32) {
    return shareSender(self, sendresource_in, dest_address_in, dest_port_in, true,
                       "share_sendresource_srEA");
}

static int shmemUnshareSendResource(VESK_Transport_Plugin *self,
                                    const VESK_Transport_SendResource_t *sendresource_in,
                                    const VESK_Transport_Address_t *dest_address_in,
                                    VESK_Transport_Port_t dest_port_in, KEL_INT32) {
    return shareSender(self, sendresource_in, dest_address_in, dest_port_in, false,
                       "unshare_sendresource_srEA");
}

// Points the resource at another port's segment (same host only).
static int shmemUpdateDestination(VESK_Transport_Plugin *self,
                                  const VESK_Transport_SendResource_t *sendresource_in,
                                  const VESK_Transport_Address_t *dest_address_in,
                                  VESK_Transport_Port_t dest_port_in) {
    constexpr const char *function = "update_destination";
    ShmemPlugin *plugin = shmemPlugin(self);
    if (plugin == nullptr || sendresource_in == nullptr || *sendresource_in == nullptr ||
        dest_address_in == nullptr) {
        return 0;
    }
    if (!sameAddress(*dest_address_in, plugin->property.shmemUUID)) {
        return fail(function, "destination is not this host's shared-memory address: use UDP");
    }
    if (!portUsable(plugin->property, dest_port_in)) {
        return fail(function, "port %u gives a key outside 1..2147483647", dest_port_in);
    }
    auto *resource = static_cast<SendResource *>(*sendresource_in);
    Mapping next;
    if (!attachFor(*plugin, *dest_address_in, dest_port_in, next, function)) return 0;
    std::lock_guard guard(resource->lock);
    unmap(resource->mapping);
    resource->mapping = next;
    resource->address = *dest_address_in;
    resource->port = dest_port_in;
    return 1;
}

static int shmemSend(VESK_Transport_Plugin *self,
                     const VESK_Transport_SendResource_t *sendresource_in,
                     const VESK_Transport_Address_t *dest_address_in,
                     VESK_Transport_Port_t dest_port_in, KEL_INT32,
                     const struct VESK_Transport_Buffer_t buffer_in[], KEL_INT32 buffer_count_in,
                     void *) {
    constexpr const char *function = "send";
    ShmemPlugin *plugin = shmemPlugin(self);
    if (plugin == nullptr || sendresource_in == nullptr || *sendresource_in == nullptr ||
        buffer_in == nullptr) {
        return fail(function, "no plugin, resource or buffers given");
    }
    const VESK_Transport_Shmem_Property_t &p = plugin->property;
    if (buffer_count_in < 1 || buffer_count_in > p.parent.gather_send_buffer_count_max) {
        return fail(function, "%d buffers to gather, outside 1..gather_send_buffer_count_max %d",
                    buffer_count_in, p.parent.gather_send_buffer_count_max);
    }
    auto *resource = static_cast<SendResource *>(*sendresource_in);
    if (dest_address_in != nullptr &&
        (dest_port_in != resource->port || !sameAddress(*dest_address_in, resource->address))) {
        return fail(function,
                    "send to port %u through the resource of port %u: create a send resource for "
                    "that port",
                    dest_port_in, resource->port);
    }
    std::int64_t total = 0;
    for (int i = 0; i < buffer_count_in; ++i) {
        if (buffer_in[i].length < 0 ||
            (buffer_in[i].length > 0 && buffer_in[i].pointer == nullptr)) {
            return fail(function, "buffer %d has a negative length or no data", i);
        }
        total += buffer_in[i].length;
    }
    if (total > p.parent.message_size_max) {
        return fail(function, "message of %lld bytes is above message_size_max %d",
                    static_cast<long long>(total), p.parent.message_size_max);
    }
    std::lock_guard guard(resource->lock);
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (resource->mapping.header == nullptr ||
            std::atomic_ref(resource->mapping.header->state).load() != kOpen) {
            // The receiver went away or was replaced: look for a new one once.
            unmap(resource->mapping);
            if (!attachFor(*plugin, resource->address, resource->port, resource->mapping,
                           function)) {
                return 0;
            }
        }
        Header &header = *resource->mapping.header;
        if (total > header.message_size_max || ((total + 7) & ~7) > header.data_size) {
            return fail(function,
                        "message of %lld bytes does not fit the receiver on port %u "
                        "(message_size_max %u, ring of %u bytes)",
                        static_cast<long long>(total), resource->port, header.message_size_max,
                        header.data_size);
        }
        switch (writeMessage(header, buffer_in, buffer_count_in, static_cast<std::uint32_t>(total),
                             p.maxAllowedWriterDurationMillisec)) {
            case WriteResult::written:
                if (plugin->debugSocket >= 0) sendDebugCopy(*plugin, buffer_in, buffer_count_in);
                return 1;
            case WriteResult::full:
                warn(function, "dropped a message of " + std::to_string(total) + " bytes to port " +
                                   std::to_string(resource->port) +
                                   ": its receive ring stayed full for " +
                                   std::to_string(p.maxAllowedWriterDurationMillisec) + " ms");
                return 0;
            case WriteResult::lockFailed:
                return fail(function, "the lock of the segment of port %u is unusable",
                            resource->port);
            case WriteResult::closed:
                break;
        }
    }
    return fail(function, "no receiver on port %u", resource->port);
}

static int shmemReceive(VESK_Transport_Plugin *self,
                        const VESK_Transport_RecvResource_t *recvresource_in,
                        const struct VESK_Transport_Buffer_t *buffer_in,
                        struct VESK_Transport_Message_t *message_out, void *) {
    constexpr const char *function = "receive_rEA";
    ShmemPlugin *plugin = shmemPlugin(self);
    if (plugin == nullptr || recvresource_in == nullptr || *recvresource_in == nullptr ||
        message_out == nullptr) {
        return fail(function, "no plugin, resource or message given");
    }
    *message_out = {{0, nullptr}, nullptr};
    auto *resource = static_cast<RecvResource *>(*recvresource_in);
    // destroy waits for this count to drop to 0 before it unmaps.
    resource->receiving.fetch_add(1);
    const int result = receiveOne(*plugin, *resource, buffer_in, *message_out);
    resource->receiving.fetch_sub(1);
    return result;
}

static void shmemReturnLoanedBuffer(VESK_Transport_Plugin *self,
                                    const VESK_Transport_RecvResource_t *recvresource_in,
                                    struct VESK_Transport_Message_t *message_in, void *) {
    if (shmemPlugin(self) == nullptr || recvresource_in == nullptr || message_in == nullptr ||
        message_in->loaned_buffer_param == nullptr) {
        return;
    }
    auto *resource = static_cast<RecvResource *>(*recvresource_in);
    releaseMessage(*resource->mapping.header,
                   reinterpret_cast<std::uintptr_t>(message_in->loaned_buffer_param) - 1);
    message_in->loaned_buffer_param = nullptr;
}

static int shmemUnblockReceive(VESK_Transport_Plugin *self,
                               const VESK_Transport_RecvResource_t *recvresource_in, void *) {
    if (shmemPlugin(self) == nullptr || recvresource_in == nullptr || *recvresource_in == nullptr) {
        return 0;
    }
    requestUnblock(*static_cast<RecvResource *>(*recvresource_in)->mapping.header);
    return 1;
}

static void *shmemReceiveContext(VESK_Transport_Plugin *self,
                                 const VESK_Transport_RecvResource_t *recvresource_in) {
    return shmemPlugin(self) != nullptr && recvresource_in != nullptr ? *recvresource_in : nullptr;
}

static void *shmemSendContext(VESK_Transport_Plugin *self,
                              const VESK_Transport_SendResource_t *sendresource_in) {
    return shmemPlugin(self) != nullptr && sendresource_in != nullptr ? *sendresource_in : nullptr;
}

}  // extern "C"

namespace vesk::shmem {

VESK_Transport_Plugin *makePlugin(const VESK_Transport_Shmem_Property_t &property) {
    constexpr const char *function = "VESK_Transport_Shmem_newI";
    ShmemPlugin *plugin = allocate<ShmemPlugin>();
    if (plugin == nullptr) {
        fail(function, "out of memory");
        return nullptr;
    }
    VESK_Transport_Plugin &base = plugin->base;
    base.delete_cEA = shmemDelete;  // first: the plugin can be released from here on
    if (!VESK_Transport_Shmem_Property_copy(&plugin->property, &property)) {
        shmemDelete(&base, nullptr);
        fail(function, "out of memory");
        return nullptr;
    }
    if (property.enable_udp_debugging != 0 && !openDebugSocket(*plugin)) {
        const int error = errno;
        shmemDelete(&base, nullptr);
        fail(function, "cannot open the UDP debugging socket: %s", std::strerror(error));
        return nullptr;
    }
    vesk::transport::fillCommonOperations(base);
    base.property = &plugin->property.parent;
    base.send = shmemSend;
    base.receive_rEA = shmemReceive;
    base.return_loaned_buffer_rEA = shmemReturnLoanedBuffer;
    base.unblock_receive_rrEA = shmemUnblockReceive;
    base.create_recvresource_rrEA = shmemCreateRecvResource;
    base.destroy_recvresource_rrEA = shmemDestroyRecvResource;
    base.share_recvresource_rrEA = shmemShareRecvResource;
    base.unshare_recvresource_rrEA = shmemUnshareRecvResource;
    base.create_sendresource_srEA = shmemCreateSendResource;
    base.destroy_sendresource_srEA = shmemDestroySendResource;
    base.share_sendresource_srEA = shmemShareSendResource;
    base.unshare_sendresource_srEA = shmemUnshareSendResource;
    base.get_transport_receive_context = shmemReceiveContext;
    base.get_transport_send_context = shmemSendContext;
    base.update_destination = shmemUpdateDestination;
    base.get_class_name_cEA = shmemGetClassName;
    base.string_to_address_cEA = shmemStringToAddress;
    base.get_receive_interfaces_cEA = shmemGetReceiveInterfaces;
    base.is_valid_entry_port = shmemIsValidEntryPort;
    base.register_listener_cEA = shmemRegisterListener;
    base.delete_cEA = shmemDelete;
    base.multicastInterfaceEnabled = 0;  // shared memory has no multicast
    return &base;
}

}  // namespace vesk::shmem
