// Network namespaces for tests (see NetNamespace.hpp).
#include "support/NetNamespace.hpp"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <thread>

extern char **environ;

namespace vesk::test {

namespace {

int openCurrent() {
    return open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
}

}  // namespace

std::string netNamespaceUnavailableReason() {
    if (geteuid() != 0) return "network namespaces need root (CAP_SYS_ADMIN)";
    const char *preload = std::getenv("LD_PRELOAD");
    if (preload != nullptr && std::strstr(preload, "vgpreload") != nullptr) {
        return "under valgrind: namespace tests run in the plain and sanitizer builds";
    }
    return "";
}

bool runCommand(const std::vector<std::string> &argv, int timeout_ms) {
    std::vector<char *> args;
    for (const std::string &word : argv) args.push_back(const_cast<char *>(word.c_str()));
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
    for (;;) {
        const pid_t done = waitpid(pid, &status, WNOHANG);
        if (done == pid) break;
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

bool ip(const std::string &words) {
    std::vector<std::string> argv = {"ip"};
    std::istringstream in(words);
    for (std::string word; in >> word;) argv.push_back(word);
    return runCommand(argv);
}

ScopedNetNamespace::ScopedNetNamespace() {
    reason_ = netNamespaceUnavailableReason();
    if (!reason_.empty()) return;
    original_ = openCurrent();
    if (original_ < 0) {
        reason_ = std::string("cannot open the current namespace: ") + std::strerror(errno);
        return;
    }
    if (unshare(CLONE_NEWNET) != 0) {
        reason_ = std::string("unshare(CLONE_NEWNET) refused: ") + std::strerror(errno);
        close(original_);
        original_ = -1;
        return;
    }
    if (!ip("link set lo up")) reason_ = "cannot set lo up in the new namespace";
}

ScopedNetNamespace::~ScopedNetNamespace() {
    if (original_ < 0) return;
    if (setns(original_, CLONE_NEWNET) != 0) std::abort();  // the test thread must get home
    close(original_);
}

NamedNetNamespaces::~NamedNetNamespaces() {
    for (const std::string &name : names_) ip("netns del " + name);
}

std::string NamedNetNamespaces::add() {
    static std::atomic<int> counter{0};
    const std::string name =
        "vesk-" + std::to_string(getpid()) + "-" + std::to_string(counter.fetch_add(1));
    if (!ip("netns add " + name)) return "";
    names_.push_back(name);
    if (!ip("-n " + name + " link set lo up")) return "";
    return name;
}

bool NamedNetNamespaces::connect(const std::string &a, const std::string &a_interface,
                                 const std::string &a_address, const std::string &b,
                                 const std::string &b_interface, const std::string &b_address) {
    // Each end is made directly in its namespace.
    return ip("link add " + a_interface + " netns " + a + " type veth peer name " + b_interface +
              " netns " + b) &&
           ip("-n " + a + " addr add " + a_address + " dev " + a_interface) &&
           ip("-n " + b + " addr add " + b_address + " dev " + b_interface) &&
           ip("-n " + a + " link set " + a_interface + " up") &&
           ip("-n " + b + " link set " + b_interface + " up");
}

NamedNetNamespaces::Entered::Entered(const std::string &name) {
    original_ = openCurrent();
    const int target = open(("/run/netns/" + name).c_str(), O_RDONLY | O_CLOEXEC);
    ok_ = original_ >= 0 && target >= 0 && setns(target, CLONE_NEWNET) == 0;
    if (target >= 0) close(target);
}

NamedNetNamespaces::Entered::~Entered() {
    if (original_ < 0) return;
    if (ok_ && setns(original_, CLONE_NEWNET) != 0) std::abort();
    close(original_);
}

}  // namespace vesk::test
