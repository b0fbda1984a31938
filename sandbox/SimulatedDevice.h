// Runs the real daemon binary, unchanged, chrooted into a prepared root (the
// host's /usr and /etc read-only, its own /dev, a fake /sys, /mnt/usb,
// /ravo500/devs) in the private mount namespace, logging to a reader at the
// root's /dev/log, and hearing only injected datagrams in a network and process
// namespace of its own (or the kernel's uevents in the host's network).
// Not a mock: everything is observed from outside the daemon.
#pragma once

#include "sandbox/DaemonProcess.h"
#include "sandbox/FakeSysfs.h"
#include "sandbox/MountTable.h"
#include "sandbox/RootView.h"
#include "sandbox/SyslogReader.h"
#include "sandbox/Uevent.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>
#include <vector>

namespace Sandbox {

class IsolatedNetwork;
class UeventSender;

class SimulatedDevice {
public:
    enum class Network {
        Isolated, // own namespace: injected datagrams only, no host uevents
        Initial,  // the host's: real kernel uevents, injecting is refused
    };
    enum class ProcFilesystems { HostCopy, Custom, Absent };

    struct Options {
        std::string daemonPath;
        std::vector<std::string> arguments; // the daemon takes none; other programs may
        Network network = Network::Isolated;
        ProcFilesystems procFilesystems = ProcFilesystems::HostCopy;
        std::string procFilesystemsText; // the file's content for Custom
        // Directories made under /ravo500/devs, "usb1-1" to "usb2-7" by default.
        std::vector<std::string> portDirectories = defaultPortDirectories();
        bool cascadeDirectory = true; // /ravo500/devs/cascade
        bool mntUsb = true;           // /mnt/usb
        // A program inside the root that runs the daemon, with its options
        // ({"/usr/bin/valgrind", "--error-exitcode=99"}, say); empty: none.
        std::vector<std::string> launcher;
    };
    static std::vector<std::string> defaultPortDirectories();

    // Enters the private mount namespace (see Namespaces) and lays out the
    // root; throws std::runtime_error naming the step that failed.
    explicit SimulatedDevice(const Options& chosen);
    // Kills a daemon still running, unmounts everything under the root (the
    // daemon's mounts included) and removes it; never throws.
    ~SimulatedDevice();
    SimulatedDevice(const SimulatedDevice&) = delete;
    SimulatedDevice& operator=(const SimulatedDevice&) = delete;

    // The tree, before or while the daemon runs. Paths are as the daemon sees them.
    FakeSysfs& sysfs() { return *fakeSysfs; }
    // A device node at "/dev/" + name (sub-directories made as needed).
    void addDeviceNode(const std::string& name, dev_t device, mode_t type = S_IFBLK);
    void writeFile(const std::string& insidePath, const std::string& content);

    // Starts the daemon; throws when it cannot be executed (the child reports
    // the step that failed). May be called again once the daemon has exited.
    void start();
    // True once the daemon has bound its uevent socket to group 1 (it would
    // miss datagrams injected before); false on time-out or when it ended.
    bool waitUntilListening(int timeoutMs);
    void inject(const Uevent& event);
    void injectRaw(const std::string& datagram);
    // Datagrams [0, count) in one go, as the kernel sends a burst.
    void injectRawBurst(const std::string* datagrams, size_t count);
    SyslogReader& syslog() { return *reader; }
    void signal(int signalNumber);
    // The exit status, 128 + signal when a signal ended it, -1 on time-out.
    int waitExit(int timeoutMs);
    bool isAlive();
    pid_t pid() const { return daemon ? daemon->pid() : -1; }
    // The daemon's uevent socket; none before it bound one.
    std::optional<DaemonProcess::NetlinkSocket> ueventSocket() const;
    // What the sandbox itself makes in /dev: no device node may take these names.
    static std::vector<std::string> ownDevEntries();
    // What the daemon wrote to stdout and stderr (nothing, normally).
    std::string output() const;

    // Inspection. Inside paths resolve as in the daemon's root: absolute
    // links made by the daemon do not lead out into the host.
    std::string path(const std::string& insidePath) const;
    bool exists(const std::string& insidePath) const; // a dangling link exists
    std::string readLink(const std::string& insidePath) const;
    std::string readFile(const std::string& insidePath) const;
    std::vector<std::string> list(const std::string& insideDirectory) const; // sorted names
    bool isMounted(const std::string& insidePath) const;
    bool findMount(const std::string& insidePath, MountTable::Entry& entry) const;

    // Checks the condition until it holds or the deadline passes.
    static bool waitUntil(const std::function<bool()>& condition, int timeoutMs);

private:
    Options options;
    std::string baseDirectory; // tmpfs: root/ and the daemon's output file
    std::string rootDirectory;
    bool baseMounted = false;
    bool binaryBound = false;        // the daemon binary inside the root, for a launcher
    std::string procFilesystemsFile; // bound over /proc/filesystems; "": the kernel's
    std::unique_ptr<RootView> view;
    std::unique_ptr<FakeSysfs> fakeSysfs;
    std::unique_ptr<SyslogReader> reader;
    std::unique_ptr<IsolatedNetwork> network;
    std::unique_ptr<UeventSender> sender;
    std::unique_ptr<DaemonProcess> daemon;

    void layOut();
    void layOutProc();
    void makeDirectory(const std::string& insidePath, mode_t mode = 0755) const;
    void bindReadOnly(const std::string& hostPath, const std::string& insidePath) const;
    void mirrorTopLevelLink(const std::string& name) const;
    DaemonProcess& running(const char* method) const;
    const UeventSender& isolatedSender() const;
    void tearDown() noexcept;
};

} // namespace Sandbox
