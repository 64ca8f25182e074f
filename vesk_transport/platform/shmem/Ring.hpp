// The receive ring inside a segment: the lock (robust mutex or semaphore)
// with recovery from a dead holder, writing, delivering and giving back
// messages, and the futex waits. Rules: docs/shmem-transport.md.
#pragma once

#include <cstdint>

#include "vesk_transport/platform/Transport.h"
#include "vesk_transport/platform/shmem/Segment.hpp"

namespace vesk::shmem {

enum class WriteResult { written, full, closed, lockFailed };
// Copies the gathered buffers (total bytes in all) as one message; waits
// at most timeout_ms for space.
WriteResult writeMessage(Header &header, const VESK_Transport_Buffer_t *buffers, int count,
                         std::uint32_t total, std::uint32_t timeout_ms);

struct Delivery {
    unsigned char *data = nullptr;
    std::uint32_t length = 0;
    std::uint64_t sequence = 0;
};
enum class ReadResult { message, unblocked, lockFailed };
// Blocks until a message or an unblock request.
ReadResult takeMessage(Header &header, Delivery &out);

// Gives a delivered message's place back (any order).
void releaseMessage(Header &header, std::uint64_t sequence);

// Makes the blocked (or the next) takeMessage return unblocked.
void requestUnblock(Header &header);

// Lock and unlock, recovering from a holder that died; exposed for tests
// that kill a holder.
bool lockRing(Header &header);
void unlockRing(Header &header);

}  // namespace vesk::shmem
