// Network namespaces for tests that need real kernel interfaces.
//
// The test's own thread enters a fresh namespace (unshare(CLONE_NEWNET))
// and leaves it again when the guard goes; threads that a transport starts
// meanwhile inherit it. Addresses come from the documentation ranges
// (192.0.2.0/24, 198.51.100.0/24, 203.0.113.0/24, 2001:db8::/32). Helper
// programs (ip, tc) run under a time limit.
#pragma once

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <string>

namespace vesk::test {

// Runs the program and its words ("ip link set lo up"), killed after
// timeout_ms; true when it ended with status 0.
bool run(const std::string &words, int timeout_ms = 5000);
// run() of "ip" with the words.
inline bool ip(const std::string &words) {
    return run("ip " + words);
}

// The calling thread in a fresh network namespace with lo up, until
// destroyed. ok() is false (with reason()) when it could not be entered.
class ScopedNetNamespace {
public:
    ScopedNetNamespace();
    ~ScopedNetNamespace();
    ScopedNetNamespace(const ScopedNetNamespace &) = delete;
    ScopedNetNamespace &operator=(const ScopedNetNamespace &) = delete;
    bool ok() const { return reason_.empty(); }
    const std::string &reason() const { return reason_; }

private:
    int original_ = -1;  // the namespace to return to
    std::string reason_;
};

// The calling thread in a namespace of its own (lo up) while this lives,
// for the short tests that may also run under valgrind (the guard above
// skips there); ok tells whether it was entered.
struct PlainNetNamespace {
    int home = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    bool ok = geteuid() == 0 && unshare(CLONE_NEWNET) == 0 && run("ip link set lo up");
    ~PlainNetNamespace() {
        setns(home, CLONE_NEWNET);
        close(home);
    }
};

}  // namespace vesk::test

// Enters a namespace for the rest of the test, or skips it with the reason.
#define VESK_ENTER_NET_NAMESPACE(guard)   \
    vesk::test::ScopedNetNamespace guard; \
    if (!guard.ok()) GTEST_SKIP() << guard.reason()
