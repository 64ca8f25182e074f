// Network namespaces for tests that need real kernel interfaces.
//
// The test's own thread enters a fresh namespace (unshare(CLONE_NEWNET))
// and leaves it again when the guard goes; threads that a transport starts
// meanwhile inherit it. Addresses come from the documentation ranges
// (192.0.2.0/24, 198.51.100.0/24, 203.0.113.0/24, 2001:db8::/32). Helper
// programs (ip) run under a time limit.
#pragma once

#include <string>
#include <vector>

namespace vesk::test {

// Why namespaces cannot be made here, or "" when they can.
std::string netNamespaceUnavailableReason();

// Runs a program (argv[0] looked up in PATH), killed after timeout_ms.
// True when it ended with status 0; its stderr goes to the test's stderr.
bool runCommand(const std::vector<std::string> &argv, int timeout_ms = 5000);
// runCommand of "ip" with the words of the text ("link set lo up").
bool ip(const std::string &words);

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

// Named namespaces (ip netns) with unique names, deleted when destroyed:
// for tests that put two or three hosts on one link. add() creates one,
// connect() a veth pair between two of them with an IPv4 address (text
// with its prefix length, "192.0.2.1/24") on each end, set up; enter()
// moves the calling thread into one until the returned guard goes.
class NamedNetNamespaces {
public:
    NamedNetNamespaces() = default;
    ~NamedNetNamespaces();
    NamedNetNamespaces(const NamedNetNamespaces &) = delete;
    NamedNetNamespaces &operator=(const NamedNetNamespaces &) = delete;

    // The unique name of the new namespace, "" on failure.
    std::string add();
    bool connect(const std::string &a, const std::string &a_interface, const std::string &a_address,
                 const std::string &b, const std::string &b_interface,
                 const std::string &b_address);

    class Entered {
    public:
        explicit Entered(const std::string &name);
        ~Entered();
        Entered(const Entered &) = delete;
        Entered &operator=(const Entered &) = delete;
        bool ok() const { return ok_; }

    private:
        int original_ = -1;
        bool ok_ = false;
    };

private:
    std::vector<std::string> names_;
};

}  // namespace vesk::test
