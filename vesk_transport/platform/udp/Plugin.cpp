// The sending and receiving operations of the UDP plugins; the semantics
// are in docs/udp-transport.md ("Sending and receiving").
//
// Ownership: the plugin's Io owns every resource it created until the
// resource is destroyed or the plugin deleted. Resources and the Io are
// blocks of the library heap (so allocation failures can be injected);
// their C++ members use the C++ heap and every throw is caught here.
#include "vesk_transport/platform/udp/Plugin.hpp"

#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <mutex>
#include <new>
#include <thread>
#include <vector>

#include "vesk_transport/platform/Heap.h"
#include "vesk_transport/platform/udp/Multicast.hpp"
#include "vesk_transport/platform/udp/ReceiveRing.hpp"

namespace vesk::udp {

struct RecvResource;
struct SendResource;

// Interface tracking: a join the kernel refused on an interface that just
// came; retried until its deadline (join_multicast_group_timeout).
struct PendingJoin {
    const void *resource;  // a RecvResource, matched again before use
    VESK_Transport_Address_t group;
    int index;
    int error;
    std::chrono::steady_clock::time_point deadline;
};

struct Io {
    VESK_Transport_Plugin *plugin = nullptr;
    const VESK_Transport_UDP_Property_t *property = nullptr;  // the plugin's copy
    bool ipv6 = false;
    const char *class_name = nullptr;

    std::mutex mutex;  // the lists, the send socket, shares and groups
    // The interfaces multicast groups are joined on (see Multicast.hpp for
    // how live interface tracking hooks in here).
    std::vector<InterfaceCandidate> multicast_interfaces;
    std::vector<int> multicast_indexes;
    std::vector<PendingJoin> pending_joins;  // interface tracking
    Descriptor send_socket;                  // opened with the first send resource
    std::vector<RecvResource *> receive_resources;
    std::vector<SendResource *> send_resources;

    std::atomic<int> send_buffer_granted{-1};
    std::atomic<int> receive_buffer_granted{-1};
    std::atomic<KEL_UINT64> send_would_block{0};
    std::atomic<KEL_UINT64> receive_truncated{0};
    std::atomic<KEL_UINT64> receive_guid_prefix{0};
};

struct Group {
    VESK_Transport_Address_t address{};
    int shares = 0;
    std::vector<int> joined;  // interface indexes
};

struct RecvResource {
    Io *io = nullptr;
    Descriptor socket;
    Endpoint local;  // wildcard address and the bound port
    unsigned port = 0;
    bool multicast = false;
    int shares = 1;             // unicast: the creator's and the shares
    std::vector<Group> groups;  // multicast: groups[0] is the creator's
    ReceiveRing ring;
    std::atomic<bool> closing{false};
    std::atomic<int> receivers{0};  // threads inside receive_rEA
};

struct SendResource {
    Io *io = nullptr;
    Endpoint destination;
    KEL_INT32 priority = 0;
    int traffic_class = -1;  // -1: the plugin's socket, no class set
    Descriptor own_socket;   // when traffic_class >= 0
    int shares = 1;
};

namespace {

constexpr const char *kIoTypeName = "VESK_Transport_UDP_Io";
constexpr const char *kRecvTypeName = "VESK_Transport_UDP_RecvResource";
constexpr const char *kSendTypeName = "VESK_Transport_UDP_SendResource";

LogContext contextOf(const Io &io, const char *function) {
    return {io.class_name, function};
}

bool isZero(const VESK_Transport_Address_t &address) {
    static const VESK_Transport_Address_t kZero{};
    return std::memcmp(&address, &kZero, sizeof kZero) == 0;
}

bool sameAddress(const VESK_Transport_Address_t &a, const VESK_Transport_Address_t &b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}

// A heap block holding one T, built in place; nullptr when memory runs out.
template <typename T>
T *makeBlock(const char *type_name) noexcept {
    void *memory = KELOsapiHeap_reallocateMemoryInternal(nullptr, 1, sizeof(T), type_name,
                                                         VESK_TRANSPORT_HEAP_TAG);
    if (memory == nullptr) return nullptr;
    return new (memory) T{};
}

template <typename T>
void freeBlock(T *block) noexcept {
    if (block == nullptr) return;
    block->~T();
    KELOsapiHeap_freeMemoryInternal(block);
}

Endpoint wildcard(bool ipv6, unsigned port) {
    Endpoint endpoint;
    toEndpoint(ipv6, VESK_Transport_Address_t{}, port, endpoint);
    return endpoint;
}

// The traffic class for a transport priority: none (-1) while the mask is
// 0; otherwise the priority clamped into the mapping range, masked.
int trafficClassOf(const VESK_Transport_UDP_Property_t &property, KEL_INT32 priority) {
    if (property.transport_priority_mask == 0) return -1;
    const KEL_INT32 clamped = std::clamp(priority, property.transport_priority_mapping_low,
                                         property.transport_priority_mapping_high);
    return static_cast<int>(static_cast<KEL_UINT32>(clamped) & property.transport_priority_mask &
                            0xFFu);
}

template <typename T>
void removeFrom(std::vector<T *> &list, T *item) {
    list.erase(std::remove(list.begin(), list.end(), item), list.end());
}

// --- receive resources ---------------------------------------------------

void closeRecvResource(RecvResource *resource) noexcept {
    // Wake a receiver and wait until it has left receive_rEA: after its
    // last access (the decrement) nothing of the resource is touched.
    resource->closing.store(true, std::memory_order_release);
    resource->ring.wake();
    while (resource->receivers.load(std::memory_order_acquire) != 0) {
        resource->ring.wake();
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
    const Io &io = *resource->io;
    for (const Group &group : resource->groups) {
        leaveGroupOnInterfaces(resource->socket.get(), io.ipv6, group.address, group.joined,
                               contextOf(io, "destroy_recvresource_rrEA"));
    }
    freeBlock(resource);
}

int createRecvResource(VESK_Transport_Plugin *self, VESK_Transport_RecvResource_t *recvresource_out,
                       VESK_Transport_Port_t *receive_port_inout,
                       const VESK_Transport_Address_t *multicast_address_in, KEL_INT32) noexcept {
    Io *io = ioOf(self);
    if (io == nullptr) return 0;
    const LogContext context = contextOf(*io, "create_recvresource_rrEA");
    const VESK_Transport_UDP_Property_t &property = *io->property;
    if (recvresource_out == nullptr || receive_port_inout == nullptr) {
        logText(KEL_LOG_BIT_ERROR, context, "recvresource_out and receive_port_inout are required");
        return 0;
    }
    const bool multicast = multicast_address_in != nullptr && !isZero(*multicast_address_in);
    if (multicast && !isMulticast(io->ipv6, *multicast_address_in)) {
        logText(KEL_LOG_BIT_ERROR, context, "multicast_address_in is not a multicast address");
        return 0;
    }
    if (multicast ? property.multicast_enabled == 0 : property.unicast_enabled == 0) {
        logText(KEL_LOG_BIT_ERROR, context, "%s is off: set %s to 1",
                multicast ? "multicast" : "unicast",
                multicast ? "multicast_enabled" : "unicast_enabled");
        return 0;
    }
    if (*receive_port_inout > 65535) {
        logText(KEL_LOG_BIT_ERROR, context, "receive port %u is above 65535",
                static_cast<unsigned>(*receive_port_inout));
        return 0;
    }
    SocketRequest request{SocketRole::Receive, io->ipv6, wildcard(io->ipv6, *receive_port_inout)};
    request.reuse_port = multicast && property.reuse_multicast_receive_resource != 0;
    request.receive_tos = property.gather_detailed_statistics != 0;
    unsigned port = 0;
    int granted = -1;
    Descriptor socket_fd = openUdpSocket(property, request, context, &port, &granted);
    if (!socket_fd.valid()) return 0;
    const Endpoint local = wildcard(io->ipv6, port);
    if (multicast && !io->ipv6) {
        // Only the groups this socket joined, not every group of the host
        // on this port.
        const int off = 0;
        if (setsockopt(socket_fd.get(), IPPROTO_IP, IP_MULTICAST_ALL, &off, sizeof off) != 0) {
            logSystemError(context, "IP_MULTICAST_ALL", local, errno);
            return 0;
        }
    }
    RecvResource *resource = makeBlock<RecvResource>(kRecvTypeName);
    if (resource == nullptr) {
        logText(KEL_LOG_BIT_ERROR, context, "out of memory for a receive resource");
        return 0;
    }
    resource->io = io;
    resource->local = local;
    resource->port = port;
    resource->multicast = multicast;
    try {
        std::lock_guard<std::mutex> lock(io->mutex);
        if (multicast) {
            Group group;
            group.address = *multicast_address_in;
            group.shares = 1;
            if (!joinGroupOnInterfaces(socket_fd.get(), io->ipv6, group.address,
                                       io->multicast_indexes, group.joined, context)) {
                freeBlock(resource);
                return 0;
            }
            resource->groups.push_back(std::move(group));
        }
        resource->socket = std::move(socket_fd);
        if (!resource->ring.open(context, local)) {
            closeRecvResource(resource);
            return 0;
        }
        io->receive_resources.push_back(resource);
    } catch (...) {
        logText(KEL_LOG_BIT_ERROR, context, "out of memory for a receive resource");
        closeRecvResource(resource);
        return 0;
    }
    io->receive_buffer_granted.store(granted);
    *receive_port_inout = port;
    *recvresource_out = resource;
    return 1;
}

RecvResource *recvResource(const VESK_Transport_RecvResource_t *handle) {
    return handle != nullptr ? static_cast<RecvResource *>(*handle) : nullptr;
}

void destroyRecvResource(VESK_Transport_Plugin *self,
                         const VESK_Transport_RecvResource_t *recvresource_in) noexcept {
    Io *io = ioOf(self);
    RecvResource *resource = recvResource(recvresource_in);
    if (io == nullptr || resource == nullptr) return;
    {
        std::lock_guard<std::mutex> lock(io->mutex);
        removeFrom(io->receive_resources, resource);
    }
    closeRecvResource(resource);
}

int shareRecvResource(VESK_Transport_Plugin *self,
                      const VESK_Transport_RecvResource_t *recvresource_in,
                      const VESK_Transport_Address_t *multicast_address_in,
                      VESK_Transport_Port_t receive_port_in, KEL_INT32) noexcept {
    Io *io = ioOf(self);
    RecvResource *resource = recvResource(recvresource_in);
    if (io == nullptr || resource == nullptr) return 0;
    const LogContext context = contextOf(*io, "share_recvresource_rrEA");
    const bool multicast = multicast_address_in != nullptr && !isZero(*multicast_address_in);
    if (receive_port_in != resource->port) {
        logText(KEL_LOG_BIT_WARN, context, "not shared: the resource receives on port %u, not %u",
                resource->port, static_cast<unsigned>(receive_port_in));
        return 0;
    }
    if (multicast != resource->multicast) {
        logText(KEL_LOG_BIT_WARN, context, "not shared: a %s resource does not receive %s",
                resource->multicast ? "multicast" : "unicast", multicast ? "multicast" : "unicast");
        return 0;
    }
    try {
        std::lock_guard<std::mutex> lock(io->mutex);
        if (!multicast) {
            ++resource->shares;
            return 1;
        }
        for (Group &group : resource->groups) {
            if (sameAddress(group.address, *multicast_address_in)) {
                ++group.shares;
                return 1;
            }
        }
        if (io->property->reuse_multicast_receive_resource == 0) {
            logText(KEL_LOG_BIT_WARN, context,
                    "not shared: another group on this port needs "
                    "reuse_multicast_receive_resource");
            return 0;
        }
        Group group;
        group.address = *multicast_address_in;
        group.shares = 1;
        if (!joinGroupOnInterfaces(resource->socket.get(), io->ipv6, group.address,
                                   io->multicast_indexes, group.joined, context)) {
            return 0;
        }
        try {
            resource->groups.push_back(group);
        } catch (...) {
            leaveGroupOnInterfaces(resource->socket.get(), io->ipv6, group.address, group.joined,
                                   context);
            throw;
        }
        return 1;
    } catch (...) {
        logText(KEL_LOG_BIT_ERROR, context, "out of memory sharing a receive resource");
        return 0;
    }
}

int unshareRecvResource(VESK_Transport_Plugin *self,
                        const VESK_Transport_RecvResource_t *recvresource_in,
                        const VESK_Transport_Address_t *multicast_address_in,
                        VESK_Transport_Port_t receive_port_in) noexcept {
    Io *io = ioOf(self);
    RecvResource *resource = recvResource(recvresource_in);
    if (io == nullptr || resource == nullptr) return 0;
    const LogContext context = contextOf(*io, "unshare_recvresource_rrEA");
    const bool multicast = multicast_address_in != nullptr && !isZero(*multicast_address_in);
    std::lock_guard<std::mutex> lock(io->mutex);
    if (receive_port_in == resource->port && !multicast && !resource->multicast &&
        resource->shares > 1) {
        --resource->shares;
        return 1;
    }
    if (receive_port_in == resource->port && multicast) {
        for (size_t i = 0; i < resource->groups.size(); ++i) {
            Group &group = resource->groups[i];
            if (!sameAddress(group.address, *multicast_address_in)) continue;
            // The creator's group stays until the resource is destroyed.
            if (group.shares > (i == 0 ? 1 : 0))
                --group.shares;
            else
                break;
            if (group.shares == 0) {
                leaveGroupOnInterfaces(resource->socket.get(), io->ipv6, group.address,
                                       group.joined, context);
                resource->groups.erase(resource->groups.begin() + static_cast<long>(i));
            }
            return 1;
        }
    }
    logText(KEL_LOG_BIT_WARN, context,
            "not unshared: the resource holds no share for that address and port %u",
            static_cast<unsigned>(receive_port_in));
    return 0;
}

// --- receiving ----------------------------------------------------------

bool droppedByGuidPrefix(const VESK_Transport_UDP_Property_t &property,
                         const Classification &classification) {
    if (property.drop_samples_by_guid_prefix == 0 || !classification.rtps) return false;
    const KEL_UINT32 words[3] = {property.guid_prefix_to_drop.hostId,
                                 property.guid_prefix_to_drop.appId,
                                 property.guid_prefix_to_drop.instanceId};
    for (int w = 0; w < 3; ++w) {
        for (int b = 0; b < 4; ++b) {
            const auto byte = static_cast<std::uint8_t>(words[w] >> (24 - 8 * b));
            if (classification.guid_prefix[w * 4 + b] != byte) return false;
        }
    }
    return true;
}

int receive(VESK_Transport_Plugin *self, const VESK_Transport_RecvResource_t *recvresource_in,
            const struct VESK_Transport_Buffer_t *buffer_in,
            struct VESK_Transport_Message_t *message_out, void *) noexcept {
    Io *io = ioOf(self);
    RecvResource *resource = recvResource(recvresource_in);
    if (io == nullptr || resource == nullptr || message_out == nullptr) return 0;
    resource->receivers.fetch_add(1, std::memory_order_acq_rel);
    const LogContext context = contextOf(*io, "receive_rEA");
    const VESK_Transport_UDP_Property_t &property = *io->property;
    const bool loan = (property.parent.properties_bitmap &
                       VESK_TRANSPORT_PROPERTY_BIT_BUFFER_ALWAYS_LOANED) != 0 &&
                      property.no_zero_copy == 0;
    int result = 0;
    for (;;) {
        if (resource->closing.load(std::memory_order_acquire)) break;
        ReceiveRing::Slot *slot = nullptr;
        if (resource->ring.next(resource->socket.get(), slot, context, resource->local) !=
            ReceiveRing::Next::Datagram) {
            break;
        }
        char from[64];
        if (slot->truncated ||
            (!loan && (buffer_in == nullptr || buffer_in->pointer == nullptr ||
                       static_cast<size_t>(std::max(buffer_in->length, 0)) < slot->length))) {
            io->receive_truncated.fetch_add(1, std::memory_order_relaxed);
            endpointText(slot->from, from);
            logText(KEL_LOG_BIT_WARN, context,
                    "datagram of %zu bytes from %s dropped: it does not fit the %d-byte buffer",
                    slot->length, from,
                    slot->truncated ? static_cast<int>(ReceiveRing::kSlotSize)
                                    : (buffer_in != nullptr ? buffer_in->length : 0));
            continue;
        }
        const auto *bytes = reinterpret_cast<const std::uint8_t *>(slot->data);
        const Classification classification = classifyDatagram(bytes, slot->length, slot->length);
        if (droppedByGuidPrefix(property, classification)) {
            io->receive_guid_prefix.fetch_add(1, std::memory_order_relaxed);
            continue;
        }
        countDatagram(self, classification, slot->length, VESK_TRANSPORT_UDP_TRAFFIC_RECEIVED,
                      property.gather_detailed_statistics != 0 ? slot->tos : -1);
        const auto length = static_cast<KEL_INT32>(slot->length);
        if (loan) {
            slot->loaned.store(true, std::memory_order_release);
            message_out->buffer = {length, slot->data};
            message_out->loaned_buffer_param = slot;
        } else {
            std::memcpy(buffer_in->pointer, slot->data, slot->length);
            message_out->buffer = {length, buffer_in->pointer};
            message_out->loaned_buffer_param = nullptr;
        }
        result = 1;
        break;
    }
    // The last access: a closing thread may free the resource after it.
    resource->receivers.fetch_sub(1, std::memory_order_acq_rel);
    return result;
}

void returnLoanedBuffer(VESK_Transport_Plugin *self,
                        const VESK_Transport_RecvResource_t *recvresource_in,
                        struct VESK_Transport_Message_t *message_in, void *) noexcept {
    RecvResource *resource = recvResource(recvresource_in);
    if (ioOf(self) == nullptr || resource == nullptr || message_in == nullptr) return;
    ReceiveRing::Slot *slot = resource->ring.slotOf(message_in->buffer.pointer);
    if (slot == nullptr || slot != message_in->loaned_buffer_param) return;
    slot->loaned.store(false, std::memory_order_release);
    message_in->loaned_buffer_param = nullptr;
}

int unblockReceive(VESK_Transport_Plugin *self,
                   const VESK_Transport_RecvResource_t *recvresource_in, void *) noexcept {
    RecvResource *resource = recvResource(recvresource_in);
    if (ioOf(self) == nullptr || resource == nullptr) return 0;
    return resource->ring.wake() ? 1 : 0;
}

// --- send resources -----------------------------------------------------

SendResource *sendResource(const VESK_Transport_SendResource_t *handle) {
    return handle != nullptr ? static_cast<SendResource *>(*handle) : nullptr;
}

// Opens the plugin's shared send socket when it is not open yet; under the
// Io mutex.
bool ensureSendSocket(Io &io, const LogContext &context) noexcept {
    if (io.send_socket.valid()) return true;
    SocketRequest request{SocketRole::Send, io.ipv6, wildcard(io.ipv6, 0)};
    request.multicast_ifindex = io.multicast_indexes.empty() ? 0 : io.multicast_indexes.front();
    int granted = -1;
    io.send_socket = openUdpSocket(*io.property, request, context, nullptr, &granted);
    if (!io.send_socket.valid()) return false;
    io.send_buffer_granted.store(granted);
    return true;
}

int createSendResource(VESK_Transport_Plugin *self, VESK_Transport_SendResource_t *sendresource_out,
                       const VESK_Transport_Address_t *dest_address_in,
                       VESK_Transport_Port_t dest_port_in,
                       KEL_INT32 transport_priority_in) noexcept {
    Io *io = ioOf(self);
    if (io == nullptr) return 0;
    const LogContext context = contextOf(*io, "create_sendresource_srEA");
    const VESK_Transport_UDP_Property_t &property = *io->property;
    Endpoint destination;
    if (sendresource_out == nullptr || dest_address_in == nullptr ||
        !toEndpoint(io->ipv6, *dest_address_in, dest_port_in, destination)) {
        logText(KEL_LOG_BIT_ERROR, context,
                "sendresource_out and dest_address_in are required and the port at most 65535");
        return 0;
    }
    const bool multicast = isMulticast(io->ipv6, *dest_address_in);
    if (multicast ? property.multicast_enabled == 0 : property.unicast_enabled == 0) {
        logText(KEL_LOG_BIT_ERROR, context, "%s is off: set %s to 1",
                multicast ? "multicast" : "unicast",
                multicast ? "multicast_enabled" : "unicast_enabled");
        return 0;
    }
    const int traffic_class = trafficClassOf(property, transport_priority_in);
    Descriptor own;
    if (traffic_class >= 0) {
        SocketRequest request{SocketRole::Send, io->ipv6, wildcard(io->ipv6, 0)};
        request.multicast_ifindex =
            io->multicast_indexes.empty() ? 0 : io->multicast_indexes.front();
        own = openUdpSocket(property, request, context, nullptr, nullptr);
        if (!own.valid() ||
            !setTrafficClass(own.get(), io->ipv6, traffic_class, context, destination)) {
            return 0;
        }
    }
    SendResource *resource = makeBlock<SendResource>(kSendTypeName);
    if (resource == nullptr) {
        logText(KEL_LOG_BIT_ERROR, context, "out of memory for a send resource");
        return 0;
    }
    resource->io = io;
    resource->destination = destination;
    resource->priority = transport_priority_in;
    resource->traffic_class = traffic_class;
    resource->own_socket = std::move(own);
    try {
        std::lock_guard<std::mutex> lock(io->mutex);
        if (!ensureSendSocket(*io, context)) {
            freeBlock(resource);
            return 0;
        }
        io->send_resources.push_back(resource);
    } catch (...) {
        logText(KEL_LOG_BIT_ERROR, context, "out of memory for a send resource");
        freeBlock(resource);
        return 0;
    }
    *sendresource_out = resource;
    return 1;
}

void destroySendResource(VESK_Transport_Plugin *self,
                         const VESK_Transport_SendResource_t *sendresource_in) noexcept {
    Io *io = ioOf(self);
    SendResource *resource = sendResource(sendresource_in);
    if (io == nullptr || resource == nullptr) return;
    {
        std::lock_guard<std::mutex> lock(io->mutex);
        removeFrom(io->send_resources, resource);
    }
    freeBlock(resource);
}

// Same destination, port and traffic class.
bool sendResourceMatches(const Io &io, const SendResource &resource,
                         const VESK_Transport_Address_t *dest_address_in,
                         VESK_Transport_Port_t dest_port_in, KEL_INT32 transport_priority_in) {
    Endpoint destination;
    return dest_address_in != nullptr &&
           toEndpoint(io.ipv6, *dest_address_in, dest_port_in, destination) &&
           destination.length == resource.destination.length &&
           std::memcmp(&destination.address, &resource.destination.address, destination.length) ==
               0 &&
           trafficClassOf(*io.property, transport_priority_in) == resource.traffic_class;
}

int shareSendResource(VESK_Transport_Plugin *self,
                      const VESK_Transport_SendResource_t *sendresource_in,
                      const VESK_Transport_Address_t *dest_address_in,
                      VESK_Transport_Port_t dest_port_in,
                      KEL_INT32 transport_priority_in) noexcept {
    Io *io = ioOf(self);
    SendResource *resource = sendResource(sendresource_in);
    if (io == nullptr || resource == nullptr) return 0;
    if (!sendResourceMatches(*io, *resource, dest_address_in, dest_port_in,
                             transport_priority_in)) {
        logText(KEL_LOG_BIT_WARN, contextOf(*io, "share_sendresource_srEA"),
                "not shared: the resource sends to another address, port or traffic class");
        return 0;
    }
    std::lock_guard<std::mutex> lock(io->mutex);
    ++resource->shares;
    return 1;
}

int unshareSendResource(VESK_Transport_Plugin *self,
                        const VESK_Transport_SendResource_t *sendresource_in,
                        const VESK_Transport_Address_t *dest_address_in,
                        VESK_Transport_Port_t dest_port_in,
                        KEL_INT32 transport_priority_in) noexcept {
    Io *io = ioOf(self);
    SendResource *resource = sendResource(sendresource_in);
    if (io == nullptr || resource == nullptr) return 0;
    std::lock_guard<std::mutex> lock(io->mutex);
    if (resource->shares > 1 &&
        sendResourceMatches(*io, *resource, dest_address_in, dest_port_in, transport_priority_in)) {
        --resource->shares;
        return 1;
    }
    logText(KEL_LOG_BIT_WARN, contextOf(*io, "unshare_sendresource_srEA"),
            "not unshared: the resource holds no share for that destination");
    return 0;
}

int updateDestination(VESK_Transport_Plugin *self,
                      const VESK_Transport_SendResource_t *sendresource_in,
                      const VESK_Transport_Address_t *dest_address_in,
                      VESK_Transport_Port_t dest_port_in) noexcept {
    Io *io = ioOf(self);
    SendResource *resource = sendResource(sendresource_in);
    Endpoint destination;
    if (io == nullptr || resource == nullptr || dest_address_in == nullptr ||
        !toEndpoint(io->ipv6, *dest_address_in, dest_port_in, destination)) {
        return 0;
    }
    std::lock_guard<std::mutex> lock(io->mutex);
    resource->destination = destination;
    return 1;
}

// --- sending ------------------------------------------------------------

// How much of a gathered message the classification sees: enough for the
// header, an INFO submessage or two and the liveliness kind of a DATA.
constexpr size_t kClassifyWindow = 256;
constexpr int kStackVectors = 64;

int send(VESK_Transport_Plugin *self, const VESK_Transport_SendResource_t *sendresource_in,
         const VESK_Transport_Address_t *dest_address_in, VESK_Transport_Port_t dest_port_in,
         KEL_INT32, const struct VESK_Transport_Buffer_t buffer_in[], KEL_INT32 buffer_count_in,
         void *) noexcept {
    Io *io = ioOf(self);
    SendResource *resource = sendResource(sendresource_in);
    if (io == nullptr || resource == nullptr) return 0;
    const LogContext context = contextOf(*io, "send");
    const VESK_Transport_UDP_Property_t &property = *io->property;
    if (buffer_in == nullptr || buffer_count_in < 1) {
        logText(KEL_LOG_BIT_ERROR, context, "nothing to send: buffer_in holds no buffer");
        return 0;
    }
    if (buffer_count_in > property.parent.gather_send_buffer_count_max) {
        logText(KEL_LOG_BIT_ERROR, context,
                "%d buffers exceed parent.gather_send_buffer_count_max (%d): gather fewer or "
                "raise the limit",
                buffer_count_in, property.parent.gather_send_buffer_count_max);
        return 0;
    }
    size_t total = 0;
    for (KEL_INT32 i = 0; i < buffer_count_in; ++i) {
        if (buffer_in[i].length < 0 ||
            (buffer_in[i].length > 0 && buffer_in[i].pointer == nullptr)) {
            logText(KEL_LOG_BIT_ERROR, context, "buffer %d has no data or a negative length", i);
            return 0;
        }
        total += static_cast<size_t>(buffer_in[i].length);
    }
    if (total > static_cast<size_t>(property.parent.message_size_max)) {
        logText(KEL_LOG_BIT_ERROR, context,
                "message of %zu bytes exceeds parent.message_size_max (%d): not sent", total,
                property.parent.message_size_max);
        return 0;
    }
    Endpoint destination = resource->destination;
    if (dest_address_in != nullptr &&
        !toEndpoint(io->ipv6, *dest_address_in, dest_port_in, destination)) {
        logText(KEL_LOG_BIT_ERROR, context, "destination port %u is above 65535",
                static_cast<unsigned>(dest_port_in));
        return 0;
    }
    iovec stack_vectors[kStackVectors];
    std::vector<iovec> heap_vectors;
    iovec *vectors = stack_vectors;
    if (buffer_count_in > kStackVectors) {
        try {
            heap_vectors.resize(static_cast<size_t>(buffer_count_in));
        } catch (...) {
            logText(KEL_LOG_BIT_ERROR, context, "out of memory gathering %d buffers",
                    buffer_count_in);
            return 0;
        }
        vectors = heap_vectors.data();
    }
    for (KEL_INT32 i = 0; i < buffer_count_in; ++i) {
        vectors[i] = {buffer_in[i].pointer, static_cast<size_t>(buffer_in[i].length)};
    }
    msghdr message{};
    message.msg_name = &destination.address;
    message.msg_namelen = destination.length;
    message.msg_iov = vectors;
    message.msg_iovlen = static_cast<size_t>(buffer_count_in);
    const bool never_block = property.send_blocking == VESK_TRANSPORT_UDP_BLOCKING_NEVER;
    const int fd =
        resource->own_socket.valid() ? resource->own_socket.get() : io->send_socket.get();
    ssize_t sent;
    do {
        sent = ::sendmsg(fd, &message, never_block ? MSG_DONTWAIT : 0);
    } while (sent < 0 && errno == EINTR);
    if (sent < 0) {
        if (never_block && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            // Dropped, as send_blocking NEVER asks; the first drop is shown.
            if (io->send_would_block.fetch_add(1, std::memory_order_relaxed) == 0) {
                char where[64];
                endpointText(destination, where);
                logText(KEL_LOG_BIT_WARN, context,
                        "send buffer full: datagram to %s dropped (send_blocking is NEVER; "
                        "further drops are only counted)",
                        where);
            }
            return 0;
        }
        logSystemError(context, "sendmsg", destination, errno);
        return 0;
    }
    // Classify from the first buffer, or from a copy of the message's start.
    const auto *first = reinterpret_cast<const std::uint8_t *>(buffer_in[0].pointer);
    size_t available = static_cast<size_t>(buffer_in[0].length);
    std::uint8_t window[kClassifyWindow];
    if (available < std::min(total, kClassifyWindow)) {
        available = 0;
        for (KEL_INT32 i = 0; i < buffer_count_in && available < kClassifyWindow; ++i) {
            const size_t take =
                std::min(static_cast<size_t>(buffer_in[i].length), kClassifyWindow - available);
            if (take > 0) std::memcpy(window + available, buffer_in[i].pointer, take);
            available += take;
        }
        first = window;
    }
    countDatagram(self, classifyDatagram(first, available, total), total,
                  VESK_TRANSPORT_UDP_TRAFFIC_SENT, -1);
    return 1;
}

void *receiveContext(VESK_Transport_Plugin *self,
                     const VESK_Transport_RecvResource_t *recvresource_in) noexcept {
    return ioOf(self) != nullptr ? recvResource(recvresource_in) : nullptr;
}

void *sendContext(VESK_Transport_Plugin *self,
                  const VESK_Transport_SendResource_t *sendresource_in) noexcept {
    return ioOf(self) != nullptr ? sendResource(sendresource_in) : nullptr;
}

}  // namespace

Io *createIo(VESK_Transport_Plugin *plugin, const VESK_Transport_UDP_Property_t &property,
             bool ipv6, const char *class_name) noexcept {
    Io *io = makeBlock<Io>(kIoTypeName);
    if (io == nullptr) return nullptr;
    io->plugin = plugin;
    io->property = &property;
    io->ipv6 = ipv6;
    io->class_name = class_name;
    try {
        if (property.multicast_enabled != 0) {
            io->multicast_interfaces = selectMulticastInterfaces(property, ipv6);
            io->multicast_indexes = interfaceIndexes(io->multicast_interfaces);
        }
    } catch (...) {
        freeBlock(io);
        return nullptr;
    }
    return io;
}

void destroyIo(Io *io) noexcept {
    if (io == nullptr) return;
    for (RecvResource *resource : io->receive_resources) closeRecvResource(resource);
    for (SendResource *resource : io->send_resources) freeBlock(resource);
    freeBlock(io);
}

void fillIoOperations(VESK_Transport_Plugin &plugin) noexcept {
    plugin.send = send;
    plugin.receive_rEA = receive;
    plugin.return_loaned_buffer_rEA = returnLoanedBuffer;
    plugin.unblock_receive_rrEA = unblockReceive;
    plugin.create_recvresource_rrEA = createRecvResource;
    plugin.destroy_recvresource_rrEA = destroyRecvResource;
    plugin.share_recvresource_rrEA = shareRecvResource;
    plugin.unshare_recvresource_rrEA = unshareRecvResource;
    plugin.create_sendresource_srEA = createSendResource;
    plugin.destroy_sendresource_srEA = destroySendResource;
    plugin.share_sendresource_srEA = shareSendResource;
    plugin.unshare_sendresource_srEA = unshareSendResource;
    plugin.get_transport_receive_context = receiveContext;
    plugin.get_transport_send_context = sendContext;
    plugin.update_destination = updateDestination;
}

// --- interface tracking hook (called by Udp.cpp on an interface change) ---

namespace {

void setOutgoingInterface(int fd, bool ipv6, int index) noexcept {
    if (fd < 0) return;
    if (ipv6) {
        setsockopt(fd, IPPROTO_IPV6, IPV6_MULTICAST_IF, &index, sizeof index);
        return;
    }
    ip_mreqn request{};
    request.imr_ifindex = index;
    setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &request, sizeof request);
}

// One join, quietly: a refusal is retried before it is reported. 0 or errno.
int tryJoin(int fd, bool ipv6, const VESK_Transport_Address_t &group, int index) noexcept {
    int result;
    if (ipv6) {
        ipv6_mreq request{};
        std::memcpy(&request.ipv6mr_multiaddr, group.network_ordered_value, 16);
        request.ipv6mr_interface = static_cast<unsigned>(index);
        result = setsockopt(fd, IPPROTO_IPV6, IPV6_JOIN_GROUP, &request, sizeof request);
    } else {
        ip_mreqn request{};
        std::memcpy(&request.imr_multiaddr, group.network_ordered_value + 12, 4);
        request.imr_ifindex = index;
        result = setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof request);
    }
    return result == 0 || errno == EADDRINUSE ? 0 : errno;  // EADDRINUSE: joined already
}

Group *findGroup(Io &io, const void *resource, const VESK_Transport_Address_t &address,
                 RecvResource *&owner) {
    for (RecvResource *candidate : io.receive_resources) {
        if (candidate != resource) continue;
        for (Group &group : candidate->groups) {
            if (sameAddress(group.address, address)) {
                owner = candidate;
                return &group;
            }
        }
    }
    return nullptr;
}

}  // namespace

void updateMulticastInterfaces(Io *io, const std::vector<InterfaceCandidate> &interfaces) noexcept {
    if (io == nullptr || io->property->multicast_enabled == 0) return;
    try {
        const std::vector<int> now = interfaceIndexes(interfaces);
        const LogContext context = contextOf(*io, "interface tracking");
        auto in = [](const std::vector<int> &list, int index) {
            return std::find(list.begin(), list.end(), index) != list.end();
        };
        const auto deadline = std::chrono::steady_clock::now() +
                              std::chrono::milliseconds(io->property->join_multicast_group_timeout);
        std::lock_guard<std::mutex> lock(io->mutex);
        std::erase_if(io->pending_joins, [&](const PendingJoin &p) { return !in(now, p.index); });
        for (RecvResource *resource : io->receive_resources) {
            for (Group &group : resource->groups) {
                std::vector<int> gone, kept;
                for (int index : group.joined) (in(now, index) ? kept : gone).push_back(index);
                leaveGroupOnInterfaces(resource->socket.get(), io->ipv6, group.address, gone,
                                       context);
                for (int index : now) {
                    if (in(kept, index)) continue;
                    const bool pending = std::any_of(
                        io->pending_joins.begin(), io->pending_joins.end(), [&](const auto &p) {
                            return p.resource == resource && p.index == index &&
                                   sameAddress(p.group, group.address);
                        });
                    if (pending) continue;
                    const int error =
                        tryJoin(resource->socket.get(), io->ipv6, group.address, index);
                    if (error == 0) {
                        kept.push_back(index);
                    } else {
                        io->pending_joins.push_back(
                            {resource, group.address, index, error, deadline});
                    }
                }
                group.joined = std::move(kept);
            }
        }
        // Multicast goes out of the first interface left (0: the system's choice).
        const int first = now.empty() ? 0 : now.front();
        if (io->multicast_indexes.empty() || io->multicast_indexes.front() != first) {
            setOutgoingInterface(io->send_socket.get(), io->ipv6, first);
            for (SendResource *resource : io->send_resources) {
                if (resource->own_socket.valid()) {
                    setOutgoingInterface(resource->own_socket.get(), io->ipv6, first);
                }
            }
        }
        io->multicast_interfaces = interfaces;
        io->multicast_indexes = now;
    } catch (...) {
        // Out of memory: the groups stay as they were until the next change.
    }
}

bool retryMulticastJoins(Io *io) noexcept {
    if (io == nullptr) return false;
    const LogContext context = contextOf(*io, "interface tracking");
    std::lock_guard<std::mutex> lock(io->mutex);
    const auto now = std::chrono::steady_clock::now();
    std::erase_if(io->pending_joins, [&](PendingJoin &pending) {
        RecvResource *owner = nullptr;
        Group *group = findGroup(*io, pending.resource, pending.group, owner);
        if (group == nullptr) return true;  // the resource or its group went
        pending.error = tryJoin(owner->socket.get(), io->ipv6, pending.group, pending.index);
        if (pending.error == 0) {
            try {
                group->joined.push_back(pending.index);
            } catch (...) {
                leaveGroupOnInterfaces(owner->socket.get(), io->ipv6, pending.group,
                                       {pending.index}, context);
            }
            return true;
        }
        if (now < pending.deadline) return false;
        Endpoint where;
        toEndpoint(io->ipv6, pending.group, 0, where);
        char name[IF_NAMESIZE] = "?";
        if_indextoname(static_cast<unsigned>(pending.index), name);
        char group_text[64];
        endpointText(where, group_text);
        logText(KEL_LOG_BIT_WARN, context,
                "gave up joining %s on interface %s (index %d) after join_multicast_group_timeout "
                "(%u ms): %s",
                group_text, name, pending.index, io->property->join_multicast_group_timeout,
                std::strerror(pending.error));
        return true;
    });
    return !io->pending_joins.empty();
}

}  // namespace vesk::udp

extern "C" {

int VESK_Transport_UDP_get_socket_buffer_sizes(VESK_Transport_Plugin *plugin, int *send_granted_out,
                                               int *receive_granted_out) {
    const vesk::udp::Io *io = vesk::udp::ioOf(plugin);
    if (io == nullptr) return 0;
    if (send_granted_out != nullptr) *send_granted_out = io->send_buffer_granted.load();
    if (receive_granted_out != nullptr) *receive_granted_out = io->receive_buffer_granted.load();
    return 1;
}

int VESK_Transport_UDP_get_drop_counts(VESK_Transport_Plugin *plugin,
                                       struct VESK_Transport_UDP_DropCounts *counts_out) {
    const vesk::udp::Io *io = vesk::udp::ioOf(plugin);
    if (io == nullptr || counts_out == nullptr) return 0;
    counts_out->send_would_block = io->send_would_block.load();
    counts_out->receive_truncated = io->receive_truncated.load();
    counts_out->receive_guid_prefix = io->receive_guid_prefix.load();
    return 1;
}

}  // extern "C"
