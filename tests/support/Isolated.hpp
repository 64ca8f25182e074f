// Runs a piece of a test in a forked child with its own network and mount
// namespaces: its interfaces and files (a tmpfs over /etc) are its alone, and
// nothing it sends can leave. The child reports one line of text.
#pragma once

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

namespace vesk::test {

// Runs the commands, mounts an empty tmpfs over each fresh dir, writes the files.
struct Isolation {
    std::string commands;  // one shell command line, run first ("" for none)
    std::string fresh_dirs[2];
    std::pair<std::string, std::string> files[3];
};

// The body's text, or "SKIP: reason" when the isolation could not be made.
template <typename Body>
std::string runIsolated(const Isolation &isolation, Body body) {
    int fds[2];
    if (pipe(fds) != 0) return "SKIP: no pipe";
    const pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        auto finish = [&](const std::string &text) {
            (void)!write(fds[1], text.data(), text.size());
            _exit(0);
        };
        if (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0 ||
            mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) != 0) {
            finish("SKIP: cannot make network and mount namespaces (needs root)");
        }
        if (!isolation.commands.empty() &&
            std::system((isolation.commands + " >/dev/null 2>&1").c_str()) != 0) {
            finish("SKIP: failed in the namespace: " + isolation.commands);
        }
        for (const std::string &dir : isolation.fresh_dirs) {
            if (!dir.empty() && mount("none", dir.c_str(), "tmpfs", 0, nullptr) != 0) {
                finish("SKIP: cannot mount a tmpfs on " + dir);
            }
        }
        for (const auto &[path, text] : isolation.files) {
            if (path.empty()) continue;
            mkdir(path.substr(0, path.rfind('/')).c_str(), 0755);
            std::ofstream(path) << text;
        }
        finish(body());
    }
    close(fds[1]);
    std::string out;
    char buffer[256];
    for (ssize_t n; (n = read(fds[0], buffer, sizeof buffer)) > 0;) out.append(buffer, n);
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return "child failed: " + out;
    return out;
}

}  // namespace vesk::test
