// Segment naming, creation, takeover of abandoned segments and attaching.
#include "vesk_transport/platform/shmem/Segment.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace vesk::shmem {

namespace {

std::string errnoText(int error) {
    return std::strerror(error);
}

std::string format(const char *fmt, auto... args) {
    char text[320];
    std::snprintf(text, sizeof text, fmt, args...);
    return text;
}

void pause(long millis) {
    timespec delay{0, millis * 1000000L};
    nanosleep(&delay, nullptr);
}

bool initialiseLock(Header &header) {
    if (header.format != 5) return sem_init(&header.semaphore, 1, 1) == 0;
    pthread_mutexattr_t attributes;
    if (pthread_mutexattr_init(&attributes) != 0) return false;
    const bool ok = pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED) == 0 &&
                    pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST) == 0 &&
                    pthread_mutex_init(&header.mutex, &attributes) == 0;
    pthread_mutexattr_destroy(&attributes);
    return ok;
}

// Same object behind the name as behind fd?
bool nameStillRefersTo(const std::string &name, int fd) {
    struct stat held {
    }, current{};
    const int again = shm_open(name.c_str(), O_RDONLY | O_CLOEXEC, 0);
    if (again < 0) return false;
    const bool same = fstat(fd, &held) == 0 && fstat(again, &current) == 0 &&
                      held.st_ino == current.st_ino && held.st_dev == current.st_dev;
    close(again);
    return same;
}

enum class Takeover { removed, retry, busy, failed };

// The name exists: find out whether its owner is alive; remove it if not.
Takeover takeOver(const std::string &name, std::uint32_t port, std::string &reason) {
    const int fd = shm_open(name.c_str(), O_RDWR | O_CLOEXEC, 0);
    if (fd < 0) {
        if (errno == ENOENT) return Takeover::retry;  // gone meanwhile
        reason = format("cannot open existing %s for port %u: %s", name.c_str(), port,
                        errnoText(errno).c_str());
        return Takeover::failed;
    }
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        int pid = 0;
        struct stat status {};
        if (fstat(fd, &status) == 0 && static_cast<std::size_t>(status.st_size) >= sizeof(Header)) {
            if (void *map = mmap(nullptr, sizeof(Header), PROT_READ, MAP_SHARED, fd, 0);
                map != MAP_FAILED) {
                pid = static_cast<const Header *>(map)->creator_pid;
                munmap(map, sizeof(Header));
            }
        }
        close(fd);
        reason = format("port %u is in use by process %d", port, pid);
        return Takeover::busy;
    }
    struct stat status {};
    if (fstat(fd, &status) != 0 || status.st_size == 0) {
        close(fd);  // being made right now, or its maker died before sizing it
        return Takeover::retry;
    }
    if (static_cast<std::size_t>(status.st_size) >= sizeof(Header)) {
        if (void *map = mmap(nullptr, sizeof(Header), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
            map != MAP_FAILED) {
            auto *header = static_cast<Header *>(map);
            if (header->magic == kMagic) {
                std::atomic_ref<std::uint32_t>(header->state).store(kAbandoned);
            }
            munmap(map, sizeof(Header));
        }
    }
    if (nameStillRefersTo(name, fd)) shm_unlink(name.c_str());
    close(fd);
    return Takeover::removed;
}

}  // namespace

std::string segmentName(std::int32_t segment_key) {
    return format("%s%08x", kNamePrefix, static_cast<unsigned>(segment_key));
}

std::uint64_t processStartTime(int pid) {
    char path[64];
    std::snprintf(path, sizeof path, "/proc/%d/stat", pid);
    std::FILE *file = std::fopen(path, "re");
    if (file == nullptr) return 0;
    char text[1024];
    const std::size_t length = std::fread(text, 1, sizeof text - 1, file);
    std::fclose(file);
    text[length] = '\0';
    // The command name may hold spaces and parentheses: count from the last ')'.
    const char *field = std::strrchr(text, ')');
    for (int n = 2; field != nullptr && n < 22; ++n) field = std::strchr(field + 1, ' ');
    return field != nullptr ? std::strtoull(field + 1, nullptr, 10) : 0;
}

bool creatorAlive(const Header &header) {
    if (header.creator_pid <= 0) return false;
    if (kill(header.creator_pid, 0) != 0 && errno == ESRCH) return false;
    const std::uint64_t start = processStartTime(header.creator_pid);
    return start == 0 || header.creator_start_time == 0 || start == header.creator_start_time;
}

std::size_t segmentSize(std::uint32_t slot_count, std::uint32_t data_size) {
    return kHeaderSize + std::size_t{slot_count} * sizeof(Descriptor) + data_size;
}

bool createSegment(const SegmentLayout &layout, Mapping &out, std::string &reason) {
    const std::string name = segmentName(layout.segment_key);
    int fd = -1;
    for (int round = 0; fd < 0; ++round) {
        if (round == 8) {
            reason = format("cannot create %s for port %u: it keeps reappearing", name.c_str(),
                            layout.port);
            return false;
        }
        fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (fd >= 0) break;
        if (errno != EEXIST) {
            reason = format("cannot create %s for port %u: %s", name.c_str(), layout.port,
                            errnoText(errno).c_str());
            return false;
        }
        switch (takeOver(name, layout.port, reason)) {
            case Takeover::busy:
            case Takeover::failed:
                return false;
            case Takeover::retry:
                pause(20);
                break;
            case Takeover::removed:
                break;
        }
    }
    const std::size_t size = segmentSize(layout.slot_count, layout.data_size);
    void *map = MAP_FAILED;
    // A taker holds the lock only while it looks at an unsized segment.
    if (flock(fd, LOCK_EX) != 0 || ftruncate(fd, static_cast<off_t>(size)) != 0 ||
        (map = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0)) == MAP_FAILED) {
        reason = format("cannot size or map %s (%zu bytes) for port %u: %s", name.c_str(), size,
                        layout.port, errnoText(errno).c_str());
        shm_unlink(name.c_str());
        close(fd);
        return false;
    }
    auto *header = static_cast<Header *>(map);
    header->format = layout.format;
    header->creator_pid = getpid();
    header->creator_start_time = processStartTime(getpid());
    if (layout.format >= 4) std::memcpy(header->shmem_uuid, layout.shmem_uuid, 16);
    header->port = layout.port;
    header->segment_key = layout.segment_key;
    header->semaphore_key = layout.semaphore_key;
    header->mutex_key = layout.mutex_key;
    header->slot_count = layout.slot_count;
    header->data_size = layout.data_size;
    header->message_size_max = layout.message_size_max;
    if (!initialiseLock(*header)) {
        reason = format("cannot initialise the lock of %s", name.c_str());
        munmap(map, size);
        shm_unlink(name.c_str());
        close(fd);
        return false;
    }
    header->magic = kMagic;
    std::atomic_ref<std::uint32_t>(header->state).store(kOpen, std::memory_order_release);
    out = {header, size, fd};
    return true;
}

void unmap(Mapping &mapping) {
    if (mapping.header != nullptr) munmap(mapping.header, mapping.size);
    if (mapping.fd >= 0) close(mapping.fd);
    mapping = {};
}

void destroySegment(Mapping &mapping, std::int32_t segment_key) {
    if (mapping.header == nullptr) return;
    std::atomic_ref<std::uint32_t>(mapping.header->state).store(kClosed);
    const std::string name = segmentName(segment_key);
    if (nameStillRefersTo(name, mapping.fd)) shm_unlink(name.c_str());
    unmap(mapping);
}

bool attachSegment(std::int32_t segment_key, std::uint32_t port, Mapping &out,
                   std::string &reason) {
    const std::string name = segmentName(segment_key);
    const int fd = shm_open(name.c_str(), O_RDWR | O_CLOEXEC, 0);
    if (fd < 0) {
        const int error = errno;
        if (error == ENOENT) {
            reason = format(
                "no segment %s for port %u in this IPC namespace (no receiver, or the "
                "receiver is in another container): use UDP",
                name.c_str(), port);
        } else if (error == EACCES) {
            reason =
                format("no permission to open %s for port %u (segment of another user): use UDP",
                       name.c_str(), port);
        } else {
            reason = format("cannot open %s for port %u: %s", name.c_str(), port,
                            errnoText(error).c_str());
        }
        return false;
    }
    struct stat status {};
    const bool sized =
        fstat(fd, &status) == 0 && static_cast<std::size_t>(status.st_size) >= kHeaderSize;
    void *map = sized ? mmap(nullptr, static_cast<std::size_t>(status.st_size),
                             PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0)
                      : MAP_FAILED;
    close(fd);
    if (map == MAP_FAILED) {
        reason = format("%s for port %u is not ready (being made, or not a segment)", name.c_str(),
                        port);
        return false;
    }
    auto *header = static_cast<Header *>(map);
    const std::size_t size = static_cast<std::size_t>(status.st_size);
    const auto state =
        std::atomic_ref<std::uint32_t>(header->state).load(std::memory_order_acquire);
    if (header->magic != kMagic && !(header->magic == 0 && state == kMaking)) {
        reason = format("%s is not a segment of this transport (magic %08x)", name.c_str(),
                        header->magic);
    } else if (state != kOpen) {
        reason = format("no receiver on port %u (segment %s is %s)", port, name.c_str(),
                        state == kMaking ? "being made" : "closed");
    } else if (size < segmentSize(header->slot_count, header->data_size)) {
        reason = format("%s is shorter than its header says", name.c_str());
    } else {
        out = {header, size, -1};
        return true;
    }
    munmap(map, size);
    return false;
}

std::vector<SegmentInfo> listSegments() {
    std::vector<SegmentInfo> found;
    DIR *directory = opendir("/dev/shm");
    if (directory == nullptr) return found;
    const std::string prefix = kNamePrefix + 1;  // without the '/'
    while (const dirent *entry = readdir(directory)) {
        if (std::strncmp(entry->d_name, prefix.c_str(), prefix.size()) != 0) continue;
        SegmentInfo info{std::string("/") + entry->d_name, {}, false};
        const int fd = shm_open(info.name.c_str(), O_RDONLY | O_CLOEXEC, 0);
        struct stat status {};
        if (fd >= 0 && fstat(fd, &status) == 0 &&
            static_cast<std::size_t>(status.st_size) >= sizeof(Header)) {
            if (void *map = mmap(nullptr, sizeof(Header), PROT_READ, MAP_SHARED, fd, 0);
                map != MAP_FAILED) {
                std::memcpy(static_cast<void *>(&info.header), map, sizeof(Header));
                munmap(map, sizeof(Header));
                info.alive = info.header.magic == kMagic && creatorAlive(info.header);
            }
        }
        if (fd >= 0) close(fd);
        found.push_back(info);
    }
    closedir(directory);
    return found;
}

bool canWrite(int writer_format, int segment_format) {
    for (const FormatPair &pair : kWritableFormats) {
        if (pair.writer == writer_format && pair.segment == segment_format) return true;
    }
    return false;
}

}  // namespace vesk::shmem
