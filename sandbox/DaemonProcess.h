// One run of the daemon binary inside a sandbox root: cloned, moved into the
// chosen network namespace and, when asked, a process namespace of its own,
// given a procfs of that namespace, chrooted, with clean signal state and
// descriptors, then executed from a descriptor opened outside the root, so the
// binary needs no copy inside. Knows nothing else of the root's contents.
#pragma once

#include "sandbox/UniqueFd.h"

#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace Sandbox {

class DaemonProcess {
public:
    struct Launch {
        std::string binaryPath;
        std::vector<std::string> arguments; // after the program's name
        std::string rootDirectory;          // holds an empty /proc for the procfs
        int networkNamespaceFd = -1;        // -1: the caller's namespace
        // Its own PID namespace: its /proc shows no other process, so no
        // /proc/N/root leads out of the root.
        bool ownProcessNamespace = false;
        std::string procFilesystems; // a file shown as /proc/filesystems; "": the kernel's
        std::string outputPath;      // receives stdout and stderr
        // When set, the program (a path inside the root) runs with these
        // arguments and insideBinaryPath last: valgrind, for example.
        std::vector<std::string> launcher;
        std::string insideBinaryPath;
    };

    // A row of /proc/PID/net/netlink.
    struct NetlinkSocket {
        int protocol = -1;
        unsigned long port = 0;
        unsigned long groups = 0;
        unsigned long queuedBytes = 0;
        unsigned long dropped = 0; // datagrams the kernel could not queue
    };
    // The table of a process's network namespace; throws when it cannot be read.
    static std::vector<NetlinkSocket> netlinkSockets(pid_t pid);

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
    // The uevent socket the daemon binds with its own pid (as it sees it) as
    // port; none before it did.
    std::optional<NetlinkSocket> ueventSocket() const;
    // Whether that socket is bound to group 1, as before any event is read.
    bool listensForUevents() const;

private:
    pid_t processId = -1;
    pid_t pidInside = -1; // as the process sees itself
    UniqueFd pidFd;       // readable when the process has ended
    bool reaped = false;
    int status = -1;

    void reap(bool block);
    void awaitStart(int statusFd, const std::string& binaryPath);
};

} // namespace Sandbox
