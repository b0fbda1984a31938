#include "sandbox/Namespaces.h"

#include "sandbox/IsolatedNetwork.h"
#include "sandbox/SystemError.h"
#include "sandbox/UniqueFd.h"

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <utility>

namespace Sandbox {

namespace {

bool entered = false;

const std::pair<const char*, unsigned> memoryDevices[] = {{"null", 3}, {"zero", 5}, {"urandom", 9}};
const char* const fdLinkName = "fd";

// Unknown counts as shared: unsharing once more is the safe side.
bool sharesParentsMountNamespace()
{
    struct stat mine {};
    struct stat parents {};
    const std::string parentPath = "/proc/" + std::to_string(getppid()) + "/ns/mnt";
    if (stat("/proc/thread-self/ns/mnt", &mine) != 0 || stat(parentPath.c_str(), &parents) != 0) {
        return true;
    }
    return mine.st_dev == parents.st_dev && mine.st_ino == parents.st_ino;
}

int threadCount()
{
    DIR* tasks = opendir("/proc/self/task");
    if (tasks == nullptr) {
        throw systemError("Namespaces: opendir /proc/self/task");
    }
    int count = 0;
    while (const dirent* entry = readdir(tasks)) {
        if (entry->d_name[0] != '.') {
            ++count;
        }
    }
    closedir(tasks);
    return count;
}

// Runs in the forked child: only plain system calls, the message is a literal.
const char* tryNamespaces()
{
    if (unshare(CLONE_NEWNS) != 0) {
        return "unshare(CLONE_NEWNS)";
    }
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        return "mount(/, MS_REC | MS_PRIVATE)";
    }
    return nullptr;
}

// tryNamespaces in a short-lived child, so the caller changes nothing: "" when
// it went through, else the call that failed and its error.
std::string mountNamespaceFailure()
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return "pipe2: " + std::string(std::strerror(errno));
    }
    UniqueFd readEnd(ends[0]);
    UniqueFd writeEnd(ends[1]);
    const pid_t child = fork();
    if (child < 0) {
        return "fork: " + std::string(std::strerror(errno));
    }
    if (child == 0) {
        const char* failed = tryNamespaces();
        if (failed != nullptr) {
            // errno first, then the call: strerror() is left to the parent.
            const int error = errno;
            (void)!write(writeEnd.get(), &error, sizeof(error));
            (void)!write(writeEnd.get(), failed, strlen(failed));
        }
        _exit(failed == nullptr ? 0 : 1);
    }
    writeEnd.reset();
    std::string message;
    char buffer[256];
    ssize_t length;
    while ((length = read(readEnd.get(), buffer, sizeof(buffer))) > 0 ||
           (length < 0 && errno == EINTR)) {
        if (length > 0) {
            message.append(buffer, static_cast<size_t>(length));
        }
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (message.size() <= sizeof(int)) {
        return "";
    }
    int error = 0;
    std::memcpy(&error, message.data(), sizeof(error));
    return message.substr(sizeof(int)) + ": " + std::strerror(error);
}

} // namespace

void Namespaces::enterPrivateMountNamespace()
{
    if (entered) {
        return;
    }
    // A test main may have given the process a namespace of its own already
    // (and started threads since): that one serves as well.
    if (sharesParentsMountNamespace()) {
        if (threadCount() != 1) {
            throw std::logic_error(
                "Namespaces::enterPrivateMountNamespace: the process has more than one thread");
        }
        if (unshare(CLONE_NEWNS) != 0) {
            throw systemError("Namespaces::enterPrivateMountNamespace: unshare(CLONE_NEWNS)");
        }
    }
    // Without this, mounts made here would propagate back into the host's namespace.
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        throw systemError("Namespaces::enterPrivateMountNamespace: mount(/, MS_REC | MS_PRIVATE)");
    }
    entered = true;
}

std::vector<std::string> Namespaces::devEntries()
{
    std::vector<std::string> names{fdLinkName};
    for (const auto& [name, minor] : memoryDevices) {
        names.emplace_back(name);
    }
    return names;
}

void Namespaces::populateDev(const std::string& devDirectory)
{
    for (const auto& [name, minor] : memoryDevices) {
        const std::string node = devDirectory + "/" + name;
        if (mknod(node.c_str(), S_IFCHR | 0666, makedev(1, minor)) != 0) {
            throw systemError("Namespaces::populateDev: mknod " + node);
        }
    }
    // As udev makes it; a binfmt_misc interpreter (qemu) opens programs there.
    const std::string fdLink = devDirectory + "/" + fdLinkName;
    if (symlink("/proc/self/fd", fdLink.c_str()) != 0) {
        throw systemError("Namespaces::populateDev: symlink " + fdLink);
    }
}

bool Namespaces::canRun(std::string& why)
{
    if (geteuid() != 0) {
        why = "the system tests need root (mounts, namespaces, loop devices); effective uid is " +
              std::to_string(geteuid());
        return false;
    }
    const std::string failure = mountNamespaceFailure();
    if (!failure.empty()) {
        why = "namespaces are not available here: " + failure;
        return false;
    }
    try {
        IsolatedNetwork probe;
    } catch (const std::exception& error) {
        why = std::string("namespaces are not available here: ") + error.what();
        return false;
    }
    return true;
}

} // namespace Sandbox
