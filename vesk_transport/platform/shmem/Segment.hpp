// Shared-memory segments of the shared-memory transport: names from keys,
// the header, creation with takeover of abandoned segments, and attaching
// as a writer. Layout and rules: docs/shmem-transport.md.
#pragma once

#include <pthread.h>
#include <semaphore.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace vesk::shmem {

inline constexpr std::uint32_t kMagic = 0x4D53564Bu;
inline constexpr std::size_t kHeaderSize = 4096;
inline constexpr const char *kNamePrefix = "/vesk_shm.";

enum SegmentState : std::uint32_t { kMaking = 0, kOpen = 1, kClosed = 2, kAbandoned = 3 };
enum SlotState : std::uint32_t {
    kFree = 0,
    kWriting = 1,
    kReady = 2,
    kDelivered = 3,
    kReleased = 4
};

struct Descriptor {
    std::uint32_t state;
    std::uint32_t length;
    std::uint64_t sequence;
    std::uint64_t position;  // monotonic byte position of the data
};
static_assert(sizeof(Descriptor) == 24);

struct Header {
    std::uint32_t magic;
    std::uint16_t format;
    std::uint16_t reserved0;
    std::uint32_t state;  // SegmentState, atomic
    std::int32_t creator_pid;
    std::uint64_t creator_start_time;
    unsigned char shmem_uuid[16];
    std::uint32_t port;
    std::int32_t segment_key;
    std::int32_t semaphore_key;
    std::int32_t mutex_key;
    std::uint32_t slot_count;
    std::uint32_t data_size;
    std::uint32_t message_size_max;
    std::uint32_t reserved1;
    // Lock: the mutex (format 5) or the semaphore and its holder (others).
    pthread_mutex_t mutex;
    sem_t semaphore;
    std::int32_t semaphore_holder;  // atomic
    // Ring state, under the lock except the futex words.
    std::uint64_t write_seq;
    std::uint64_t read_seq;
    std::uint64_t release_seq;
    std::uint64_t data_head;
    std::uint64_t data_tail;
    std::uint32_t data_word;   // futex: bumped when data or an unblock arrives
    std::uint32_t space_word;  // futex: bumped when space is given back
    std::uint32_t readers_waiting;
    std::uint32_t writers_waiting;
    std::uint32_t unblock_requested;
    std::uint32_t reserved2;
    std::uint64_t sent;
    std::uint64_t dropped;
    std::uint64_t torn;
};
static_assert(sizeof(Header) <= kHeaderSize);

// "/vesk_shm.<8 lower-case hex digits>".
std::string segmentName(std::int32_t segment_key);

// Field 22 of /proc/<pid>/stat (start time in clock ticks since boot), or 0.
std::uint64_t processStartTime(int pid);

// 1 alive, 0 gone (ESRCH, or alive with another start time), as the header
// names it.
bool creatorAlive(const Header &header);

std::size_t segmentSize(std::uint32_t slot_count, std::uint32_t data_size);

inline Descriptor *descriptors(Header *header) {
    return reinterpret_cast<Descriptor *>(reinterpret_cast<unsigned char *>(header) + kHeaderSize);
}
inline unsigned char *dataArea(Header *header) {
    return reinterpret_cast<unsigned char *>(descriptors(header) + header->slot_count);
}

// What a receiver asks for.
struct SegmentLayout {
    std::uint16_t format;
    std::uint32_t port;
    std::int32_t segment_key, semaphore_key, mutex_key;
    std::uint32_t slot_count, data_size, message_size_max;
    unsigned char shmem_uuid[16];
};

// A mapped segment. The receiver's keeps the descriptor (it holds the
// flock); a writer's closes it after mapping.
struct Mapping {
    Header *header = nullptr;
    std::size_t size = 0;
    int fd = -1;
};

// Creates the segment of layout.port, taking over one whose owner is gone.
// On failure returns false and writes the reason into `reason` (nothing
// left open or mapped).
bool createSegment(const SegmentLayout &layout, Mapping &out, std::string &reason);

// Marks closed, removes the name, unmaps and closes.
void destroySegment(Mapping &mapping, std::int32_t segment_key);

// Opens and maps an existing segment for writing and checks its header
// (magic, state, geometry). The caller checks format and identity.
bool attachSegment(std::int32_t segment_key, std::uint32_t port, Mapping &out, std::string &reason);

void unmap(Mapping &mapping);

// One segment of this host (this IPC namespace), for diagnosis: a copy of
// its header (magic 0 when it could not be read) and whether its creator
// is alive (pid and start time; a pid of another pid namespace reads as
// dead).
struct SegmentInfo {
    std::string name;
    Header header;
    bool alive;
};
std::vector<SegmentInfo> listSegments();

// Which segment formats a writer of each format can write (rows of
// writer, segment); every other pair is refused.
struct FormatPair {
    int writer;
    int segment;
};
inline constexpr FormatPair kWritableFormats[] = {{1, 1}, {2, 1}, {2, 2}, {4, 4}, {5, 4}, {5, 5}};
bool canWrite(int writer_format, int segment_format);

}  // namespace vesk::shmem
