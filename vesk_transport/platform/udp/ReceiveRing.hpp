// The receive side of one UDP receive resource: a ring of datagram slots
// filled in batches with recvmmsg, and an eventfd that wakes a blocked
// receiver. One thread takes datagrams (next); any thread may wake it or
// return a loaned slot.
#pragma once

#include <sys/socket.h>

#include <atomic>
#include <cstddef>

#include "vesk_transport/platform/udp/Socket.hpp"

namespace vesk::udp {

class ReceiveRing {
public:
    static constexpr int kSlotCount = 16;
    // Every slot holds the largest UDP payload, whatever the local
    // message_size_max, so that no peer's datagram is cut.
    static constexpr std::size_t kSlotSize = VESK_TRANSPORT_UDP_DATAGRAM_SIZE_MAX;

    struct Slot {
        char *data = nullptr;
        std::size_t length = 0;
        bool truncated = false;  // the system cut the datagram (MSG_TRUNC)
        int tos = -1;            // TOS / traffic class when delivered, else -1
        Endpoint from;
        std::atomic<bool> loaned{false};
    };

    enum class Next { Datagram, Woken, Failed };

    ReceiveRing() = default;
    ~ReceiveRing() { close(); }
    ReceiveRing(const ReceiveRing &) = delete;
    ReceiveRing &operator=(const ReceiveRing &) = delete;

    // Allocates the slots (one block of the library heap) and the eventfd.
    // False after logging; nothing is held then.
    bool open(const LogContext &context, const Endpoint &where) noexcept;
    void close() noexcept;

    // Blocks until a datagram is pending on socket_fd or the ring is woken.
    // A datagram is handed out in *slot_out and leaves the pending list;
    // the slot stays valid until the next call unless it is marked loaned.
    Next next(int socket_fd, Slot *&slot_out, const LogContext &context,
              const Endpoint &where) noexcept;

    // Wakes the next() in progress, or the next one to come. Never sends a
    // datagram: firewalls may drop those.
    bool wake() noexcept;

    // The slot whose data a loaned buffer points to, or nullptr.
    Slot *slotOf(const void *data) noexcept;

private:
    // One recvmmsg into every slot that is not loaned. Returns the count
    // read, 0 when nothing was waiting, -1 after a logged failure.
    int fill(int socket_fd, const LogContext &context, const Endpoint &where) noexcept;

    char *memory_ = nullptr;
    Descriptor wake_;
    Slot slots_[kSlotCount];
    int pending_[kSlotCount] = {};
    int pending_head_ = 0;
    int pending_count_ = 0;
    bool last_batch_full_ = false;
};

}  // namespace vesk::udp
