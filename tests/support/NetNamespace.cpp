// Network namespaces for tests (see NetNamespace.hpp).
#include "support/NetNamespace.hpp"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <thread>
#include <vector>

extern char **environ;

namespace vesk::test {

bool run(const std::string &words, int timeout_ms) {
    std::vector<std::string> argv;
    std::istringstream in(words);
    for (std::string word; in >> word;) argv.push_back(word);
    std::vector<char *> args;
    for (std::string &word : argv) args.push_back(word.data());
    args.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    const int spawned = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) return false;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    int status = 0;
    for (pid_t done; (done = waitpid(pid, &status, WNOHANG)) != pid;) {
        if (done < 0 && errno != EINTR) return false;
        if (std::chrono::steady_clock::now() > deadline) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

ScopedNetNamespace::ScopedNetNamespace() {
    const char *preload = std::getenv("LD_PRELOAD");
    if (geteuid() != 0) {
        reason_ = "network namespaces need root (CAP_SYS_ADMIN)";
    } else if (preload != nullptr && std::strstr(preload, "vgpreload") != nullptr) {
        reason_ = "under valgrind: namespace tests run in the plain and sanitizer builds";
    } else if ((original_ = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC)) < 0) {
        reason_ = std::string("cannot open the current namespace: ") + std::strerror(errno);
    } else if (unshare(CLONE_NEWNET) != 0) {
        reason_ = std::string("unshare(CLONE_NEWNET) refused: ") + std::strerror(errno);
        close(original_);
        original_ = -1;
    } else if (!ip("link set lo up")) {
        reason_ = "cannot set lo up in the new namespace";
    }
}

ScopedNetNamespace::~ScopedNetNamespace() {
    if (original_ < 0) return;
    if (setns(original_, CLONE_NEWNET) != 0) std::abort();  // the test thread must get home
    close(original_);
}

}  // namespace vesk::test
