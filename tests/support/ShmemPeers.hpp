// Shared-memory traffic tests: plugins on keys of their own, counted
// descriptors and segments, and forked peers.
#pragma once

#include <dirent.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/PropertyList.hpp"
#include "vesk_transport/Support.h"
#include "vesk_transport/platform/Shmem.h"
#include "vesk_transport/platform/shmem/Segment.hpp"

namespace vesk::test {

struct PluginDeleter {
    void operator()(VESK_Transport_Plugin *plugin) const {
        if (plugin != nullptr) plugin->delete_cEA(plugin, nullptr);
    }
};
using PluginPtr = std::unique_ptr<VESK_Transport_Plugin, PluginDeleter>;

inline int countEntries(const char *directory, const char *prefix) {
    int count = 0;
    if (DIR *dir = opendir(directory)) {
        while (dirent *entry = readdir(dir)) {
            if (std::strncmp(entry->d_name, prefix, std::strlen(prefix)) == 0) ++count;
        }
        closedir(dir);
    }
    return count;
}

// Keys of this test process only (its pid in the offsets), so parallel runs
// never meet; every segment of these keys is removed when the fixture ends,
// and descriptors must be back to what they were. Segments that a crashed
// run of these tests left (their creator dead) are removed first.
class ShmemTraffic : public ::testing::Test {
protected:
    static constexpr int kPorts = 16;
    static constexpr int kKeySpace = 0x20000000;
    const int base = kKeySpace + (getpid() & 0xFFFF) * 0x100;

    void SetUp() override {
        // Only old ones: a fresh dead segment may belong to a test running
        // now in another process (a killed receiver it is about to take over).
        for (const auto &segment : vesk::shmem::listSegments()) {
            const int key = segment.header.segment_key;
            struct stat status {};
            const std::string path = "/dev/shm" + segment.name;
            if (!segment.alive && key >= kKeySpace && key < kKeySpace + 0x1000000 &&
                stat(path.c_str(), &status) == 0 && time(nullptr) - status.st_mtime > 60) {
                shm_unlink(segment.name.c_str());
            }
        }
        fdsBefore = countEntries("/proc/self/fd", "");
    }
    void TearDown() override {
        int left = 0;
        for (int port = 1; port <= kPorts; ++port) {
            left += shm_unlink(vesk::shmem::segmentName(base + port).c_str()) == 0 ? 1 : 0;
        }
        EXPECT_EQ(0, left) << "segments left behind";
        EXPECT_EQ(fdsBefore, countEntries("/proc/self/fd", ""));
    }

    // A factory-built plugin on this test's keys, with extra properties.
    PluginPtr plugin(std::vector<std::pair<std::string, std::string>> extra = {}) {
        PropertyList properties{{"segmentKeyOffset", std::to_string(base)},
                                {"semaphoreKeyOffset", std::to_string(base + 0x1000000)},
                                {"mutexKeyOffset", std::to_string(base + 0x2000000)}};
        for (const auto &[name, value] : extra) properties.add(name, value);
        return PluginPtr(VESK_Transport_Shmem_create(nullptr, properties.get(), nullptr));
    }

    static VESK_Transport_Address_t addressOf(VESK_Transport_Plugin *p) {
        return reinterpret_cast<const VESK_Transport_Shmem_Property_t *>(p->property)->shmemUUID;
    }

    // Runs body in a child process; its exit status (0: passed), or -signal.
    template <class Body>
    static pid_t spawn(Body body) {
        const pid_t pid = fork();
        if (pid == 0) _exit(body());
        return pid;
    }
    static int reap(pid_t pid) {
        int status = 0;
        waitpid(pid, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }

    int fdsBefore = 0;
};

// Waits (bounded) for a condition.
template <class Condition>
bool eventually(Condition condition, int millis = 2000) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(millis);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

}  // namespace vesk::test
