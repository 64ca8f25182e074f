// The receive ring; see ReceiveRing.hpp.
#include "vesk_transport/platform/udp/ReceiveRing.hpp"

#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "vesk_transport/platform/Heap.h"

namespace vesk::udp {

bool ReceiveRing::open(const LogContext &context, const Endpoint &where) noexcept {
    Descriptor wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!wake.valid()) {
        logSystemError(context, "eventfd", where, errno);
        return false;
    }
    memory_ = static_cast<char *>(KELOsapiHeap_reallocateMemoryInternal(
        nullptr, kSlotCount, kSlotSize, "char", VESK_TRANSPORT_HEAP_TAG));
    if (memory_ == nullptr) {
        logText(KEL_LOG_BIT_ERROR, context, "out of memory for the receive buffers");
        return false;
    }
    for (int i = 0; i < kSlotCount; ++i) slots_[i].data = memory_ + i * kSlotSize;
    wake_ = std::move(wake);
    return true;
}

void ReceiveRing::close() noexcept {
    KELOsapiHeap_freeMemoryInternal(memory_);
    memory_ = nullptr;
    wake_.reset();
    pending_head_ = pending_count_ = 0;
}

bool ReceiveRing::wake() noexcept {
    const std::uint64_t one = 1;
    // A full counter (EAGAIN) is already a pending wake.
    return ::write(wake_.get(), &one, sizeof one) == sizeof one || errno == EAGAIN;
}

ReceiveRing::Slot *ReceiveRing::slotOf(const void *data) noexcept {
    for (Slot &slot : slots_) {
        if (slot.data == data) return &slot;
    }
    return nullptr;
}

int ReceiveRing::fill(int socket_fd, const LogContext &context, const Endpoint &where) noexcept {
    mmsghdr messages[kSlotCount];
    iovec vectors[kSlotCount];
    alignas(cmsghdr) char control[kSlotCount][CMSG_SPACE(sizeof(int))];
    int free_slots[kSlotCount];
    int count = 0;
    for (int i = 0; i < kSlotCount; ++i) {
        if (slots_[i].loaned.load(std::memory_order_acquire)) continue;
        // The kernel overwrites lengths and flags: reset every field.
        Slot &slot = slots_[i];
        vectors[count] = {slot.data, kSlotSize};
        msghdr &header = messages[count].msg_hdr;
        header = {};
        header.msg_name = &slot.from.address;
        header.msg_namelen = sizeof slot.from.address;
        header.msg_iov = &vectors[count];
        header.msg_iovlen = 1;
        header.msg_control = control[count];
        header.msg_controllen = sizeof control[count];
        messages[count].msg_len = 0;
        free_slots[count++] = i;
    }
    if (count == 0) {
        char text[64];
        endpointText(where, text);
        logText(KEL_LOG_BIT_ERROR, context,
                "receive on %s: all %d receive buffers are loaned; return them with "
                "return_loaned_buffer_rEA",
                text, kSlotCount);
        return -1;
    }
    const int received =
        ::recvmmsg(socket_fd, messages, static_cast<unsigned>(count), MSG_DONTWAIT, nullptr);
    if (received < 0) {
        last_batch_full_ = false;
        if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) return 0;
        logSystemError(context, "recvmmsg", where, errno);
        return -1;
    }
    for (int k = 0; k < received; ++k) {
        Slot &slot = slots_[free_slots[k]];
        msghdr &header = messages[k].msg_hdr;
        slot.length = messages[k].msg_len;
        slot.truncated = (header.msg_flags & MSG_TRUNC) != 0;
        slot.from.length = header.msg_namelen;
        slot.tos = -1;
        for (cmsghdr *item = CMSG_FIRSTHDR(&header); item != nullptr;
             item = CMSG_NXTHDR(&header, item)) {
            const bool tos = (item->cmsg_level == IPPROTO_IP && item->cmsg_type == IP_TOS) ||
                             (item->cmsg_level == IPPROTO_IPV6 && item->cmsg_type == IPV6_TCLASS);
            if (!tos) continue;
            // IPv4 delivers one byte, IPv6 an int.
            if (item->cmsg_len >= CMSG_LEN(sizeof(int))) {
                int value = 0;
                std::memcpy(&value, CMSG_DATA(item), sizeof value);
                slot.tos = value & 0xFF;
            } else if (item->cmsg_len >= CMSG_LEN(1)) {
                slot.tos = *CMSG_DATA(item);
            }
        }
        pending_[k] = free_slots[k];
    }
    pending_head_ = 0;
    pending_count_ = received;
    last_batch_full_ = received == count;
    return received;
}

ReceiveRing::Next ReceiveRing::next(int socket_fd, Slot *&slot_out, const LogContext &context,
                                    const Endpoint &where) noexcept {
    for (;;) {
        if (pending_head_ < pending_count_) {
            slot_out = &slots_[pending_[pending_head_++]];
            return Next::Datagram;
        }
        // After a full batch more is likely waiting: read before sleeping.
        // Otherwise sleep first, which saves a call when traffic is sparse.
        if (last_batch_full_) {
            const int got = fill(socket_fd, context, where);
            if (got < 0) return Next::Failed;
            if (got > 0) continue;
        }
        pollfd watched[2] = {{socket_fd, POLLIN, 0}, {wake_.get(), POLLIN, 0}};
        if (::poll(watched, 2, -1) < 0) {
            if (errno == EINTR) continue;
            logSystemError(context, "poll", where, errno);
            return Next::Failed;
        }
        if ((watched[1].revents & POLLIN) != 0) {
            std::uint64_t count = 0;
            if (::read(wake_.get(), &count, sizeof count) < 0 && errno != EAGAIN) {
                logSystemError(context, "read of the wake eventfd", where, errno);
            }
            return Next::Woken;
        }
        if (fill(socket_fd, context, where) < 0) return Next::Failed;
    }
}

}  // namespace vesk::udp
