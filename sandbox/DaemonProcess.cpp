#include "sandbox/DaemonProcess.h"

#include "sandbox/SystemError.h"

#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <linux/netlink.h>
#include <poll.h>
#include <sched.h>
#include <sstream>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace Sandbox {

namespace {

// What the child reports through the status pipe when a step fails.
enum Step {
    DeathSignal,
    ParentGone,
    EnterNetwork,
    Redirect,
    ChangeRoot,
    ChangeDirectory,
    Execute,
    StepCount
};
const char* const stepNames[StepCount] = {"prctl(PR_SET_PDEATHSIG)",
                                          "parent ended before the start",
                                          "setns(CLONE_NEWNET)",
                                          "dup2 of stdin/stdout/stderr",
                                          "chroot",
                                          "chdir(/)",
                                          "exec"};
struct Report {
    int step;
    int error;
};

[[noreturn]] void fail(int statusFd, Step step)
{
    const Report report{step, errno};
    (void)!write(statusFd, &report, sizeof(report));
    _exit(127);
}

UniqueFd openOrThrow(const std::string& path, int flags, mode_t mode = 0)
{
    UniqueFd fd(open(path.c_str(), flags | O_CLOEXEC, mode));
    if (!fd.valid()) {
        throw systemError("DaemonProcess: open " + path);
    }
    return fd;
}

} // namespace

DaemonProcess::DaemonProcess(const Launch& launch)
{
    const UniqueFd binary = openOrThrow(launch.binaryPath, O_PATH);
    const UniqueFd devNull = openOrThrow("/dev/null", O_RDWR);
    const UniqueFd output = openOrThrow(launch.outputPath, O_WRONLY | O_CREAT | O_APPEND, 0644);
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        throw systemError("DaemonProcess: pipe2");
    }
    UniqueFd statusRead(ends[0]);
    UniqueFd statusWrite(ends[1]);

    // Built before fork: the child may only make plain system calls.
    std::string name = launch.binaryPath.substr(launch.binaryPath.rfind('/') + 1);
    char* argv[] = {name.data(), nullptr};
    std::vector<std::string> launchStrings = launch.launcher;
    launchStrings.push_back(launch.insideBinaryPath);
    std::vector<char*> launchArgv;
    for (auto& argument : launchStrings) {
        launchArgv.push_back(argument.data());
    }
    launchArgv.push_back(nullptr);
    const bool launched = !launch.launcher.empty();
    char path[] = "PATH=/usr/sbin:/usr/bin:/sbin:/bin";
    char* environment[] = {path, nullptr};
    sigset_t noSignals;
    sigemptyset(&noSignals);
    struct sigaction defaultAction {};
    defaultAction.sa_handler = SIG_DFL;
    const pid_t parent = getpid();

    processId = fork();
    if (processId < 0) {
        throw systemError("DaemonProcess: fork");
    }
    if (processId == 0) {
        const int statusFd = statusWrite.get();
        // A test that dies must not leave its daemon running.
        if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0) {
            fail(statusFd, DeathSignal);
        }
        if (getppid() != parent) {
            fail(statusFd, ParentGone);
        }
        if (launch.networkNamespaceFd >= 0 && setns(launch.networkNamespaceFd, CLONE_NEWNET) != 0) {
            fail(statusFd, EnterNetwork);
        }
        if (dup2(devNull.get(), 0) < 0 || dup2(output.get(), 1) < 0 || dup2(output.get(), 2) < 0) {
            fail(statusFd, Redirect);
        }
        if (chroot(launch.rootDirectory.c_str()) != 0) {
            fail(statusFd, ChangeRoot);
        }
        if (chdir("/") != 0) {
            fail(statusFd, ChangeDirectory);
        }
        // As an init system starts it: no inherited mask, ignored signals or descriptors.
        umask(022);
        sigprocmask(SIG_SETMASK, &noSignals, nullptr);
        for (int number = 1; number < NSIG; ++number) {
            sigaction(number, &defaultAction, nullptr);
        }
        close_range(3, ~0U, CLOSE_RANGE_CLOEXEC);
        if (launched) {
            execve(launchArgv[0], launchArgv.data(), environment);
            fail(statusFd, Execute);
        }
        fexecve(binary.get(), argv, environment);
        // The kernel does not hand a binary behind a close-on-exec descriptor to
        // a binfmt_misc interpreter (qemu, for the 32-bit build): keep it open.
        if (errno == ENOENT && fcntl(binary.get(), F_SETFD, 0) == 0) {
            fexecve(binary.get(), argv, environment);
        }
        fail(statusFd, Execute);
    }
    statusWrite.reset();
    pidFd.reset(static_cast<int>(syscall(SYS_pidfd_open, processId, 0)));
    const int pidFdError = errno;
    Report report{};
    ssize_t length;
    while ((length = read(statusRead.get(), &report, sizeof(report))) < 0 && errno == EINTR) {
    }
    if (length != 0) {
        reap(true);
        if (length == static_cast<ssize_t>(sizeof(report)) && report.step >= 0 &&
            report.step < StepCount) {
            throw systemError("DaemonProcess: starting " + launch.binaryPath + ": " +
                                  stepNames[report.step],
                              report.error);
        }
        throw std::runtime_error("DaemonProcess: starting " + launch.binaryPath +
                                 ": no report from the child");
    }
    if (!pidFd.valid()) {
        kill(processId, SIGKILL);
        reap(true);
        throw systemError("DaemonProcess: pidfd_open", pidFdError);
    }
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

bool DaemonProcess::listensForUevents() const
{
    // The file lists the sockets of the process's own network namespace.
    std::ifstream table("/proc/" + std::to_string(processId) + "/net/netlink");
    std::string line;
    std::getline(table, line); // header
    while (std::getline(table, line)) {
        std::istringstream fields(line);
        std::string socket;
        int protocol = -1;
        unsigned long port = 0;
        unsigned long groups = 0;
        fields >> socket >> protocol >> port >> std::hex >> groups;
        if (fields && protocol == NETLINK_KOBJECT_UEVENT &&
            port == static_cast<unsigned long>(processId) && (groups & 1) != 0) {
            return true;
        }
    }
    return false;
}

} // namespace Sandbox
