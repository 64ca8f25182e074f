// Network namespaces for the WAN tests, held by descriptors only: each is
// made with unshare(CLONE_NEWNET) on the calling thread, kept open as a
// descriptor, and the thread goes straight back to where it was. Nothing is
// named or mounted, so nothing outlives the test process. Commands run
// inside one namespace through system() from a thread that entered it;
// "ip ... netns <path()>" moves a veth end into another.
#pragma once

#include <fcntl.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <map>
#include <string>

namespace vesk::test {

class Namespaces {
public:
    Namespaces() : home_(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC)) {}
    ~Namespaces() {
        if (home_ >= 0) setns(home_, CLONE_NEWNET);
        for (const auto &entry : held_) close(entry.second);
        if (home_ >= 0) close(home_);
    }
    Namespaces(const Namespaces &) = delete;
    Namespaces &operator=(const Namespaces &) = delete;

    // Why namespaces cannot be used here, or empty when they can.
    std::string unavailable() const {
        if (home_ < 0) return "cannot open /proc/thread-self/ns/net";
        if (geteuid() != 0) return "not root: cannot make network namespaces";
        if (std::system("command -v ip >/dev/null && command -v nft >/dev/null") != 0) {
            return "ip or nft is not installed";
        }
        return "";
    }

    // Makes a namespace with lo up; false when the system refuses.
    bool create(const std::string &name) {
        if (unshare(CLONE_NEWNET) != 0) return false;
        const int fd = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
        setns(home_, CLONE_NEWNET);
        if (fd < 0) return false;
        held_[name] = fd;
        return run(name, "ip link set lo up");
    }

    // A path that ip(8) accepts for "netns": the descriptor through /proc.
    std::string path(const std::string &name) const {
        return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(held_.at(name));
    }

    // Runs a shell command inside the namespace; true when it exits with 0.
    bool run(const std::string &name, const std::string &command) {
        Inside inside(*this, name);
        const int status = std::system(command.c_str());
        return WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }

    // The calling thread is inside the namespace while this lives: sockets
    // and threads made meanwhile belong to it.
    class Inside {
    public:
        Inside(Namespaces &owner, const std::string &name) : owner_(owner) {
            setns(owner.held_.at(name), CLONE_NEWNET);
        }
        ~Inside() { setns(owner_.home_, CLONE_NEWNET); }
        Inside(const Inside &) = delete;
        Inside &operator=(const Inside &) = delete;

    private:
        Namespaces &owner_;
    };

private:
    int home_;
    std::map<std::string, int> held_;
};

}  // namespace vesk::test
