// One run of the daemon binary inside a sandbox root: forked, moved into the
// chosen network namespace, chrooted, with clean signal state and descriptors,
// then executed from a descriptor opened outside the root, so the binary
// needs no copy inside. Knows nothing of the root's contents (Sandbox does).
#pragma once

#include "sandbox/UniqueFd.h"

#include <string>
#include <sys/types.h>
#include <vector>

namespace Sandbox {

class DaemonProcess {
public:
    struct Launch {
        std::string binaryPath;
        std::string rootDirectory;
        int networkNamespaceFd = -1; // -1: the caller's namespace
        std::string outputPath;      // receives stdout and stderr
        // When set, the program (a path inside the root) runs with these
        // arguments and insideBinaryPath last: valgrind, for example.
        std::vector<std::string> launcher;
        std::string insideBinaryPath;
    };

    // Returns once the binary runs; throws std::runtime_error naming the step
    // that failed in the child (setns, chroot, exec...) and its error.
    // The process gets SIGKILL when the thread that started it ends, so a
    // crashed test leaves no daemon behind; start it from a lasting thread.
    explicit DaemonProcess(const Launch& launch);
    // Kills the process with SIGKILL if it still runs and reaps it.
    ~DaemonProcess();
    DaemonProcess(const DaemonProcess&) = delete;
    DaemonProcess& operator=(const DaemonProcess&) = delete;

    pid_t pid() const { return processId; }
    void signal(int signalNumber);
    // The exit status, 128 + signal when a signal ended it, -1 on time-out.
    int waitExit(int timeoutMs);
    bool isAlive();
    // Whether the process holds a uevent netlink socket bound to group 1 with
    // its pid as port, as the daemon does before it reads any event.
    bool listensForUevents() const;

private:
    pid_t processId = -1;
    UniqueFd pidFd; // readable when the process has ended
    bool reaped = false;
    int status = -1;

    void reap(bool block);
};

} // namespace Sandbox
