// Shared-memory traffic tests: plugins on keys of their own, senders and
// receivers, counted descriptors and segments, and forked peers.
#pragma once

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
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
    void operator()(VESK_Transport_Plugin *plugin) const { plugin->delete_cEA(plugin, nullptr); }
};
using PluginPtr = std::unique_ptr<VESK_Transport_Plugin, PluginDeleter>;
using Record = VESK_Transport_Shmem_Property_t;

inline Record &recordOf(const VESK_Transport_Plugin *p) {
    return *const_cast<Record *>(reinterpret_cast<const Record *>(p->property));
}

struct Receiver {
    VESK_Transport_Plugin *plugin;
    VESK_Transport_Port_t port;
    VESK_Transport_RecvResource_t resource = nullptr;
    bool open() { return plugin->create_recvresource_rrEA(plugin, &resource, &port, nullptr, 0); }
    ~Receiver() {
        if (resource != nullptr) plugin->destroy_recvresource_rrEA(plugin, &resource);
    }
    // One message (loaned, or copied into into) as a string; "<none>" if none.
    std::string take(std::string *into = nullptr) {
        VESK_Transport_Message_t message{};
        VESK_Transport_Buffer_t buffer{into ? static_cast<KEL_INT32>(into->size()) : 0,
                                       into ? into->data() : nullptr};
        if (!plugin->receive_rEA(plugin, &resource, into ? &buffer : nullptr, &message, nullptr))
            return "<none>";
        std::string text(message.buffer.pointer, static_cast<std::size_t>(message.buffer.length));
        plugin->return_loaned_buffer_rEA(plugin, &resource, &message, nullptr);
        return text;
    }
};

struct Sender {
    VESK_Transport_Plugin *plugin;
    VESK_Transport_SendResource_t resource = nullptr;
    bool open(VESK_Transport_Port_t port) {
        return plugin->create_sendresource_srEA(plugin, &resource, &recordOf(plugin).shmemUUID,
                                                port, 0);
    }
    ~Sender() {
        if (resource != nullptr) plugin->destroy_sendresource_srEA(plugin, &resource);
    }
    // Sends head and tail (when not empty) gathered into one message.
    int send(const std::string &head, const std::string &tail = "") {
        const VESK_Transport_Buffer_t buffers[2] = {
            {static_cast<KEL_INT32>(head.size()), const_cast<char *>(head.data())},
            {static_cast<KEL_INT32>(tail.size()), const_cast<char *>(tail.data())}};
        return plugin->send(plugin, &resource, nullptr, 0, 0, buffers, tail.empty() ? 1 : 2,
                            nullptr);
    }
};

// Keys of this test process only (its pid in the offsets), so parallel runs
// never meet; a test leaves no segment of these keys (a crashed run's are
// taken over by the next receiver on the port), no descriptor open and no
// mapping in place.
class ShmemTraffic : public ::testing::Test {
protected:
    const int base = 0x20000000 + (getpid() & 0xFFFF) * 0x100;
    static long openDescriptors() {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    }
    static int sharedMappings() {  // of shared-memory objects, by this process
        std::ifstream maps("/proc/self/maps");
        int count = 0;
        for (std::string line; std::getline(maps, line);)
            count += line.find(" /dev/shm/") != line.npos;
        return count;
    }
    void TearDown() override {
        for (int port = 1; port <= 16; ++port) {
            EXPECT_NE(0, shm_unlink(vesk::shmem::segmentName(base + port).c_str())) << port;
        }
        EXPECT_EQ(fdsBefore, openDescriptors());
        EXPECT_EQ(mappingsBefore, sharedMappings());
    }
    const long fdsBefore = openDescriptors();
    const int mappingsBefore = sharedMappings();

    // A factory-built plugin on this test's keys, with extra properties.
    PluginPtr plugin(const std::vector<std::pair<std::string, std::string>> &extra = {}) {
        PropertyList properties{{"segmentKeyOffset", std::to_string(base)},
                                {"semaphoreKeyOffset", std::to_string(base + 0x1000000)},
                                {"mutexKeyOffset", std::to_string(base + 0x2000000)}};
        for (const auto &[name, value] : extra) properties.add(name, value);
        return PluginPtr(VESK_Transport_Shmem_create(nullptr, properties.get(), nullptr));
    }

    // Runs body in a child process; reap() gives its exit status, or -signal.
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
};

// Waits (at most two seconds) for a condition.
template <class Condition>
bool eventually(Condition condition) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

}  // namespace vesk::test
