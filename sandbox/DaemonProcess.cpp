#include "sandbox/DaemonProcess.h"

#include "sandbox/SystemError.h"

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <linux/netlink.h>
#include <linux/sched.h>
#include <poll.h>
#include <sched.h>
#include <sstream>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Sandbox {

namespace {

// What the child reports through the status pipe when a step fails.
enum Step {
    DeathSignal,
    ParentGone,
    EnterNetwork,
    NewSession,
    Redirect,
    MountProc,
    BindFilesystems,
    ChangeRoot,
    ChangeDirectory,
    Execute,
    StepCount
};
const char* const stepNames[StepCount] = {"prctl(PR_SET_PDEATHSIG)",
                                          "parent ended before the start",
                                          "setns(CLONE_NEWNET)",
                                          "setsid",
                                          "dup2 of stdin/stdout/stderr",
                                          "mount proc",
                                          "bind over /proc/filesystems",
                                          "chroot",
                                          "chdir(/)",
                                          "exec"};
struct Report {
    int step;
    int error;
};

// Everything the child needs, made before the clone: after it, the child may
// only make plain system calls.
struct ChildPlan {
    int statusFd = -1;
    int parentFd = -1; // a pidfd of the parent, readable once it has ended
    int networkFd = -1;
    int devNullFd = -1;
    int outputFd = -1;
    int binaryFd = -1;
    const char* root = nullptr;
    std::string proc;
    std::string procFilesystems;
    std::string filesystemsFile;
    char** argv = nullptr;
    char** launchArgv = nullptr;
    char** environment = nullptr;
    sigset_t noSignals{};
};

[[noreturn]] void fail(int statusFd, Step step)
{
    const Report report{step, errno};
    (void)!write(statusFd, &report, sizeof(report));
    _exit(127);
}

// A fresh procfs: one of the process's own PID namespace, and the chosen
// /proc/filesystems over it. An earlier run's procfs goes first.
void mountProc(const ChildPlan& plan)
{
    if (umount2(plan.proc.c_str(), MNT_DETACH) != 0 && errno != EINVAL) {
        fail(plan.statusFd, MountProc);
    }
    if (mount("proc", plan.proc.c_str(), "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) != 0) {
        fail(plan.statusFd, MountProc);
    }
    if (!plan.filesystemsFile.empty() &&
        mount(plan.filesystemsFile.c_str(), plan.procFilesystems.c_str(), nullptr, MS_BIND,
              nullptr) != 0) {
        fail(plan.statusFd, BindFilesystems);
    }
}

[[noreturn]] void runChild(const ChildPlan& plan)
{
    // A test that dies must not leave its daemon running.
    if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0) {
        fail(plan.statusFd, DeathSignal);
    }
    pollfd parent{plan.parentFd, POLLIN, 0};
    if (poll(&parent, 1, 0) != 0) {
        fail(plan.statusFd, ParentGone);
    }
    if (plan.networkFd >= 0 && setns(plan.networkFd, CLONE_NEWNET) != 0) {
        fail(plan.statusFd, EnterNetwork);
    }
    // As an init system starts it: a session of its own, away from the terminal's Ctrl-C.
    if (setsid() < 0) {
        fail(plan.statusFd, NewSession);
    }
    if (dup2(plan.devNullFd, 0) < 0 || dup2(plan.outputFd, 1) < 0 || dup2(plan.outputFd, 2) < 0) {
        fail(plan.statusFd, Redirect);
    }
    mountProc(plan);
    if (chroot(plan.root) != 0) {
        fail(plan.statusFd, ChangeRoot);
    }
    if (chdir("/") != 0) {
        fail(plan.statusFd, ChangeDirectory);
    }
    // No inherited mask, ignored signals or descriptors.
    umask(022);
    sigprocmask(SIG_SETMASK, &plan.noSignals, nullptr);
    struct sigaction defaultAction {};
    defaultAction.sa_handler = SIG_DFL;
    for (int number = 1; number < NSIG; ++number) {
        sigaction(number, &defaultAction, nullptr);
    }
    close_range(3, ~0U, CLOSE_RANGE_CLOEXEC);
    if (plan.launchArgv != nullptr) {
        execve(plan.launchArgv[0], plan.launchArgv, plan.environment);
        fail(plan.statusFd, Execute);
    }
    fexecve(plan.binaryFd, plan.argv, plan.environment);
    // The kernel does not hand a binary behind a close-on-exec descriptor to
    // a binfmt_misc interpreter (qemu, for the 32-bit build): keep it open.
    if (errno == ENOENT && fcntl(plan.binaryFd, F_SETFD, 0) == 0) {
        fexecve(plan.binaryFd, plan.argv, plan.environment);
    }
    fail(plan.statusFd, Execute);
}

UniqueFd openOrThrow(const std::string& path, int flags, mode_t mode = 0)
{
    UniqueFd fd(open(path.c_str(), flags | O_CLOEXEC, mode));
    if (!fd.valid()) {
        throw systemError("DaemonProcess: open " + path);
    }
    return fd;
}

// Like fork(), but straight into a new PID namespace if asked, and with a pidfd from the start.
pid_t cloneProcess(bool ownProcessNamespace, int& pidFd)
{
    clone_args args{};
    args.flags = CLONE_PIDFD | (ownProcessNamespace ? CLONE_NEWPID : 0);
    args.pidfd = reinterpret_cast<uintptr_t>(&pidFd);
    args.exit_signal = SIGCHLD;
    const auto pid = static_cast<pid_t>(syscall(SYS_clone3, &args, sizeof(args)));
    if (pid < 0) {
        throw systemError("DaemonProcess: clone3");
    }
    return pid;
}

std::vector<char*> pointers(std::vector<std::string>& strings)
{
    std::vector<char*> result(strings.size() + 1, nullptr);
    std::transform(strings.begin(), strings.end(), result.begin(),
                   [](std::string& text) { return text.data(); });
    return result;
}

} // namespace

DaemonProcess::DaemonProcess(const Launch& launch)
{
    const UniqueFd binary = openOrThrow(launch.binaryPath, O_PATH);
    const UniqueFd devNull = openOrThrow("/dev/null", O_RDWR);
    const UniqueFd output = openOrThrow(launch.outputPath, O_WRONLY | O_CREAT | O_APPEND, 0644);
    const UniqueFd parent(static_cast<int>(syscall(SYS_pidfd_open, getpid(), 0)));
    if (!parent.valid()) {
        throw systemError("DaemonProcess: pidfd_open of this process");
    }
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        throw systemError("DaemonProcess: pipe2");
    }
    UniqueFd statusRead(ends[0]);
    UniqueFd statusWrite(ends[1]);

    std::vector<std::string> argumentStrings{
        launch.binaryPath.substr(launch.binaryPath.rfind('/') + 1)};
    argumentStrings.insert(argumentStrings.end(), launch.arguments.begin(), launch.arguments.end());
    std::vector<char*> argv = pointers(argumentStrings);
    std::vector<std::string> launchStrings = launch.launcher;
    launchStrings.push_back(launch.insideBinaryPath);
    std::vector<char*> launchArgv = pointers(launchStrings);
    char path[] = "PATH=/usr/sbin:/usr/bin:/sbin:/bin";
    char* environment[] = {path, nullptr};

    ChildPlan plan;
    plan.statusFd = statusWrite.get();
    plan.parentFd = parent.get();
    plan.networkFd = launch.networkNamespaceFd;
    plan.devNullFd = devNull.get();
    plan.outputFd = output.get();
    plan.binaryFd = binary.get();
    plan.root = launch.rootDirectory.c_str();
    plan.proc = launch.rootDirectory + "/proc";
    plan.procFilesystems = plan.proc + "/filesystems";
    plan.filesystemsFile = launch.procFilesystems;
    plan.argv = argv.data();
    plan.launchArgv = launch.launcher.empty() ? nullptr : launchArgv.data();
    plan.environment = environment;
    sigemptyset(&plan.noSignals);

    int cloneFd = -1;
    processId = cloneProcess(launch.ownProcessNamespace, cloneFd);
    if (processId == 0) {
        runChild(plan);
    }
    pidFd.reset(cloneFd);
    pidInside = launch.ownProcessNamespace ? 1 : processId;
    statusWrite.reset();
    awaitStart(statusRead.get(), launch.binaryPath);
}

// The child's report of the step that failed, or the end of the pipe at its exec.
void DaemonProcess::awaitStart(int statusFd, const std::string& binaryPath)
{
    Report report{};
    ssize_t length;
    while ((length = read(statusFd, &report, sizeof(report))) < 0 && errno == EINTR) {
    }
    if (length == 0) {
        return;
    }
    reap(true);
    if (length == static_cast<ssize_t>(sizeof(report)) && report.step >= 0 &&
        report.step < StepCount) {
        throw systemError("DaemonProcess: starting " + binaryPath + ": " + stepNames[report.step],
                          report.error);
    }
    throw std::runtime_error("DaemonProcess: starting " + binaryPath +
                             ": no report from the child");
}

DaemonProcess::~DaemonProcess()
{
    if (!reaped && processId > 0) {
        kill(processId, SIGKILL);
        try {
            reap(true);
        } catch (const std::exception&) {
            // Only a process that is not our child fails here; nothing is left to reap.
        }
    }
}

void DaemonProcess::reap(bool block)
{
    if (reaped) {
        return;
    }
    int raw = 0;
    pid_t result;
    while ((result = waitpid(processId, &raw, block ? 0 : WNOHANG)) < 0 && errno == EINTR) {
    }
    if (result == processId) {
        reaped = true;
        status = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
    } else if (result < 0) {
        throw systemError("DaemonProcess: waitpid " + std::to_string(processId));
    }
}

void DaemonProcess::signal(int signalNumber)
{
    if (!isAlive()) {
        throw std::logic_error("DaemonProcess::signal: the daemon has ended already");
    }
    if (kill(processId, signalNumber) != 0) {
        throw systemError("DaemonProcess: kill " + std::to_string(processId));
    }
}

int DaemonProcess::waitExit(int timeoutMs)
{
    if (!reaped) {
        pollfd entry{pidFd.get(), POLLIN, 0};
        int ready;
        while ((ready = poll(&entry, 1, timeoutMs)) < 0 && errno == EINTR) {
        }
        if (ready < 0) {
            throw systemError("DaemonProcess: poll on the pidfd");
        }
        if (ready == 0) {
            return -1;
        }
        reap(true);
    }
    return status;
}

bool DaemonProcess::isAlive()
{
    reap(false);
    return !reaped;
}

std::vector<DaemonProcess::NetlinkSocket> DaemonProcess::netlinkSockets(pid_t pid)
{
    // The file lists the sockets of the process's own network namespace.
    const std::string path = "/proc/" + std::to_string(pid) + "/net/netlink";
    std::ifstream table(path);
    std::string line;
    if (!std::getline(table, line)) { // header: sk Eth Pid Groups Rmem Wmem Dump Locks Drops
        throw std::runtime_error("DaemonProcess: cannot read " + path);
    }
    std::vector<NetlinkSocket> sockets;
    while (std::getline(table, line)) {
        std::istringstream fields(line);
        std::string address;
        unsigned long skipped = 0;
        NetlinkSocket socket;
        fields >> address >> socket.protocol >> socket.port >> std::hex >> socket.groups >>
            std::dec >> socket.queuedBytes >> skipped >> skipped >> skipped >> socket.dropped;
        if (fields) {
            sockets.push_back(socket);
        }
    }
    return sockets;
}

std::optional<DaemonProcess::NetlinkSocket> DaemonProcess::ueventSocket() const
{
    std::vector<NetlinkSocket> sockets;
    try {
        sockets = netlinkSockets(processId);
    } catch (const std::runtime_error&) {
        return std::nullopt; // ended meanwhile
    }
    const auto found =
        std::find_if(sockets.begin(), sockets.end(), [this](const NetlinkSocket& socket) {
            return socket.protocol == NETLINK_KOBJECT_UEVENT &&
                   socket.port == static_cast<unsigned long>(pidInside);
        });
    return found == sockets.end() ? std::nullopt : std::optional<NetlinkSocket>(*found);
}

bool DaemonProcess::listensForUevents() const
{
    const auto socket = ueventSocket();
    return socket && (socket->groups & 1U) != 0;
}

} // namespace Sandbox
