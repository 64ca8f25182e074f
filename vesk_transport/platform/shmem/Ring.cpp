// The receive ring: lock with dead-holder recovery, write, deliver, give back.
#include "vesk_transport/platform/shmem/Ring.hpp"

#include <linux/futex.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>

namespace vesk::shmem {

namespace {

constexpr std::uint64_t kAlign = 8;
constexpr long kLockStepNanos = 100'000'000L;
constexpr long kWaitStepMillis = 500;
constexpr int kLockTries = 1000;

std::uint64_t aligned(std::uint64_t length) {
    const std::uint64_t rounded = (length + kAlign - 1) & ~(kAlign - 1);
    return rounded == 0 ? kAlign : rounded;
}

std::atomic_ref<std::uint32_t> word(std::uint32_t &value) {
    return std::atomic_ref(value);
}

std::int64_t nowMillis() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// Shared (not private) futex: the waiters are in other processes.
void futexWait(std::uint32_t &address, std::uint32_t expected, long millis) {
    timespec timeout{millis / 1000, (millis % 1000) * 1000000L};
    syscall(SYS_futex, &address, FUTEX_WAIT, expected, &timeout, nullptr, 0);
}
void futexWake(std::uint32_t &address) {
    syscall(SYS_futex, &address, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}

// The lock's previous holder died: the one descriptor it may have been
// writing is outside the delivered range; free it.
void recover(Header &header) {
    Descriptor &slot = descriptors(&header)[header.write_seq % header.slot_count];
    if (slot.state == kWriting) {
        slot.state = kFree;
        ++header.torn;
    }
}

bool holderGone(int holder) {
    return holder > 0 && kill(holder, 0) != 0 && errno == ESRCH;
}

bool lockSemaphore(Header &header) {
    std::atomic_ref<std::int32_t> holder(header.semaphore_holder);
    int unknownSteps = 0;
    for (;;) {
        timespec deadline{};
        clock_gettime(CLOCK_REALTIME, &deadline);
        deadline.tv_nsec += kLockStepNanos;
        if (deadline.tv_nsec >= 1'000'000'000L) {
            deadline.tv_nsec -= 1'000'000'000L;
            ++deadline.tv_sec;
        }
        if (sem_timedwait(&header.semaphore, &deadline) == 0) {
            holder.store(getpid());
            return true;
        }
        if (errno == EINTR) continue;
        if (errno != ETIMEDOUT) return false;
        int seen = holder.load();
        // A holder that died between taking the semaphore and writing its
        // pid leaves 0: count it gone after two steps.
        unknownSteps = seen == 0 ? unknownSteps + 1 : 0;
        if ((holderGone(seen) || unknownSteps >= 2) &&
            holder.compare_exchange_strong(seen, getpid())) {
            recover(header);
            return true;
        }
    }
}

// Frees delivered-and-given-back descriptors from the oldest on; true when
// space was made.
bool reclaim(Header &header) {
    Descriptor *slots = descriptors(&header);
    bool freed = false;
    while (header.release_seq < header.read_seq) {
        Descriptor &slot = slots[header.release_seq % header.slot_count];
        if (slot.state != kReleased) break;
        header.data_tail = slot.position + aligned(slot.length);
        slot.state = kFree;
        ++header.release_seq;
        freed = true;
    }
    return freed;
}

// Where a message of `length` bytes would start, or false when it does
// not fit now.
bool place(Header &header, std::uint64_t length, std::uint64_t &start) {
    const std::uint64_t size = header.data_size;
    if (header.write_seq - header.release_seq >= header.slot_count) return false;
    if (header.write_seq == header.release_seq) {
        // Empty: start again at the beginning, so any message up to size fits.
        header.data_head = header.data_tail = (header.data_head + size - 1) / size * size;
    }
    start = header.data_head;
    const std::uint64_t offset = start % size;
    if (offset + length > size) start += size - offset;
    return start + length - header.data_tail <= size;
}

}  // namespace

bool lockRing(Header &header) {
    if (header.format != 5) return lockSemaphore(header);
    // Held for a copy of at most one message: worth a few microseconds of
    // trying before sleeping in the kernel (and waiting for the scheduler).
    int result = EBUSY;
    for (int i = 0; i < kLockTries && result == EBUSY; ++i) {
        result = pthread_mutex_trylock(&header.mutex);
        if (result == EBUSY) __builtin_ia32_pause();
    }
    if (result == EBUSY) result = pthread_mutex_lock(&header.mutex);
    if (result == EOWNERDEAD) {
        recover(header);
        pthread_mutex_consistent(&header.mutex);
        return true;
    }
    return result == 0;
}

void unlockRing(Header &header) {
    if (header.format == 5) {
        pthread_mutex_unlock(&header.mutex);
        return;
    }
    std::atomic_ref<std::int32_t>(header.semaphore_holder).store(0);
    sem_post(&header.semaphore);
}

WriteResult writeMessage(Header &header, const VESK_Transport_Buffer_t *buffers, int count,
                         std::uint32_t total, std::uint32_t timeout_ms) {
    const std::int64_t deadline = nowMillis() + timeout_ms;
    const std::uint64_t length = aligned(total);
    if (!lockRing(header)) return WriteResult::lockFailed;
    std::uint64_t start = 0;
    for (;;) {
        if (word(header.state).load() != kOpen) {
            unlockRing(header);
            return WriteResult::closed;
        }
        if (place(header, length, start)) break;
        const std::int64_t left = deadline - nowMillis();
        if (left <= 0) {
            ++header.dropped;
            unlockRing(header);
            return WriteResult::full;
        }
        ++header.writers_waiting;
        const std::uint32_t seen = word(header.space_word).load();
        unlockRing(header);
        futexWait(header.space_word, seen, static_cast<long>(left));
        if (!lockRing(header)) return WriteResult::lockFailed;
        --header.writers_waiting;
    }
    Descriptor &slot = descriptors(&header)[header.write_seq % header.slot_count];
    slot.state = kWriting;
    slot.sequence = header.write_seq;
    slot.position = start;
    slot.length = total;
    unsigned char *out = dataArea(&header) + start % header.data_size;
    for (int i = 0; i < count; ++i) {
        if (buffers[i].length <= 0) continue;
        std::memcpy(out, buffers[i].pointer, static_cast<std::size_t>(buffers[i].length));
        out += buffers[i].length;
    }
    slot.state = kReady;
    // Only now is the message in the delivered range.
    ++header.write_seq;
    header.data_head = start + length;
    ++header.sent;
    word(header.data_word).fetch_add(1);
    const bool wake = header.readers_waiting > 0;
    unlockRing(header);
    if (wake) futexWake(header.data_word);
    return WriteResult::written;
}

ReadResult takeMessage(Header &header, Delivery &out) {
    if (!lockRing(header)) return ReadResult::lockFailed;
    Descriptor *slots = descriptors(&header);
    for (;;) {
        if (header.unblock_requested != 0) {
            header.unblock_requested = 0;
            unlockRing(header);
            return ReadResult::unblocked;
        }
        bool freed = false;
        while (header.read_seq < header.write_seq) {
            Descriptor &slot = slots[header.read_seq % header.slot_count];
            const bool whole =
                slot.state == kReady && (header.format < 2 || slot.sequence == header.read_seq);
            if (whole) {
                slot.state = kDelivered;
                out = {dataArea(&header) + slot.position % header.data_size, slot.length,
                       header.read_seq};
                ++header.read_seq;
                unlockRing(header);
                return ReadResult::message;
            }
            slot.state = kReleased;  // torn or stale: never delivered
            ++header.torn;
            ++header.read_seq;
            freed = reclaim(header) || freed;
        }
        if (freed && header.writers_waiting > 0) word(header.space_word).fetch_add(1);
        ++header.readers_waiting;
        const std::uint32_t seen = word(header.data_word).load();
        unlockRing(header);
        if (freed) futexWake(header.space_word);
        futexWait(header.data_word, seen, kWaitStepMillis);
        if (!lockRing(header)) return ReadResult::lockFailed;
        --header.readers_waiting;
    }
}

void releaseMessage(Header &header, std::uint64_t sequence) {
    if (!lockRing(header)) return;
    Descriptor &slot = descriptors(&header)[sequence % header.slot_count];
    if (slot.state == kDelivered && slot.sequence == sequence) slot.state = kReleased;
    const bool wake = reclaim(header) && header.writers_waiting > 0;
    if (wake) word(header.space_word).fetch_add(1);
    unlockRing(header);
    if (wake) futexWake(header.space_word);
}

void requestUnblock(Header &header) {
    if (!lockRing(header)) return;
    header.unblock_requested = 1;
    word(header.data_word).fetch_add(1);
    const bool wake = header.readers_waiting > 0;
    unlockRing(header);
    if (wake) futexWake(header.data_word);
}

}  // namespace vesk::shmem
