#include "sandbox/SimulatedDevice.h"

#include "sandbox/IsolatedNetwork.h"
#include "sandbox/Namespaces.h"
#include "sandbox/ScratchSpace.h"
#include "sandbox/SystemError.h"
#include "sandbox/UeventSender.h"
#include "sandbox/UniqueFd.h"

#include <chrono>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace Sandbox {

namespace {

void checkInside(const std::string& insidePath)
{
    if (insidePath.empty() || insidePath[0] != '/') {
        throw std::invalid_argument("SimulatedDevice: inside paths are absolute: \"" + insidePath +
                                    "\"");
    }
}

} // namespace

std::vector<std::string> SimulatedDevice::defaultPortDirectories()
{
    std::vector<std::string> names;
    for (int hub = 1; hub <= 2; ++hub) {
        for (int port = 1; port <= 7; ++port) {
            names.push_back("usb" + std::to_string(hub) + "-" + std::to_string(port));
        }
    }
    return names;
}

SimulatedDevice::SimulatedDevice(const Options& chosen) : options(chosen)
{
    Namespaces::enterPrivateMountNamespace();
    try {
        layOut();
        // Reads from its own thread: a daemon that logs while the test is busy elsewhere must not
        // block.
        reader =
            std::make_unique<SyslogReader>(path("/dev/log"), SyslogReader::Collection::Background);
        if (options.network == Network::Isolated) {
            network = std::make_unique<IsolatedNetwork>();
            sender = std::make_unique<UeventSender>(network->fd());
        }
    } catch (...) {
        tearDown();
        throw;
    }
}

SimulatedDevice::~SimulatedDevice()
{
    tearDown();
}

void SimulatedDevice::layOut()
{
    baseDirectory = ScratchSpace::makeDirectory("sandbox");
    // One mount to take down, with everything the daemon mounted under it.
    if (mount("dhh-sandbox", baseDirectory.c_str(), "tmpfs", 0, "mode=0755") != 0) {
        throw systemError("SimulatedDevice: mount tmpfs on " + baseDirectory);
    }
    baseMounted = true;
    rootDirectory = baseDirectory + "/root";
    if (mkdir(rootDirectory.c_str(), 0755) != 0) {
        throw systemError("SimulatedDevice: mkdir " + rootDirectory);
    }
    view = std::make_unique<RootView>(rootDirectory);

    bindReadOnly("/usr", "/usr");
    for (const char* name : {"bin", "sbin", "lib", "lib32", "lib64", "libx32"}) {
        mirrorTopLevelLink(name);
    }
    bindReadOnly("/etc", "/etc");

    makeDirectory("/dev");
    Namespaces::populateDev(path("/dev"));
    makeDirectory("/tmp", 01777);
    layOutProc();
    fakeSysfs = std::make_unique<FakeSysfs>(path("/sys"));

    makeDirectory("/mnt");
    if (options.mntUsb) {
        makeDirectory("/mnt/usb");
    }
    makeDirectory("/ravo500");
    makeDirectory("/ravo500/devs");
    for (const auto& name : options.portDirectories) {
        makeDirectory("/ravo500/devs/" + name);
    }
    if (options.cascadeDirectory) {
        makeDirectory("/ravo500/devs/cascade");
    }
}

// Each start of the daemon mounts a procfs of its own there (DaemonProcess);
// a chosen /proc/filesystems is prepared here and bound over the kernel's.
void SimulatedDevice::layOutProc()
{
    makeDirectory("/proc", 0555);
    const std::string replacement = baseDirectory + "/filesystems";
    if (options.procFilesystems == ProcFilesystems::Custom) {
        std::ofstream file(replacement, std::ios::binary);
        file << options.procFilesystemsText;
        if (!file.flush()) {
            throw std::runtime_error("SimulatedDevice: cannot write " + replacement);
        }
    } else if (options.procFilesystems == ProcFilesystems::Absent) {
        // A procfs file cannot be removed; open() of a socket fails (ENXIO)
        // the way it would for a missing file.
        UniqueFd socketFd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        replacement.copy(address.sun_path, sizeof(address.sun_path) - 1);
        if (socketFd.get() < 0 || bind(socketFd.get(), reinterpret_cast<const sockaddr*>(&address),
                                       sizeof(address)) != 0) {
            throw systemError("SimulatedDevice: bind a socket at " + replacement);
        }
    } else {
        return;
    }
    procFilesystemsFile = replacement;
}

void SimulatedDevice::makeDirectory(const std::string& insidePath, mode_t mode) const
{
    const std::string directory = path(insidePath);
    if (mkdir(directory.c_str(), mode) != 0) {
        throw systemError("SimulatedDevice: mkdir " + directory);
    }
    // mkdir() applies the umask; the sticky bit of /tmp needs chmod anyway.
    if (chmod(directory.c_str(), mode) != 0) {
        throw systemError("SimulatedDevice: chmod " + directory);
    }
}

void SimulatedDevice::bindReadOnly(const std::string& hostPath, const std::string& insidePath) const
{
    makeDirectory(insidePath);
    const std::string target = path(insidePath);
    if (mount(hostPath.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) != 0) {
        throw systemError("SimulatedDevice: bind " + hostPath + " on " + target);
    }
    // A bind mount takes MS_RDONLY only on a second, remounting call.
    if (mount(nullptr, target.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) != 0) {
        throw systemError("SimulatedDevice: remount " + target + " read-only");
    }
}

// With a merged /usr, /bin and friends are links into usr; elsewhere they are directories.
void SimulatedDevice::mirrorTopLevelLink(const std::string& name) const
{
    const std::string hostPath = "/" + name;
    struct stat status {};
    if (lstat(hostPath.c_str(), &status) != 0) {
        return;
    }
    if (S_ISDIR(status.st_mode)) {
        bindReadOnly(hostPath, hostPath);
        return;
    }
    char target[4096];
    const ssize_t length = readlink(hostPath.c_str(), target, sizeof(target) - 1);
    if (length < 0) {
        throw systemError("SimulatedDevice: readlink " + hostPath);
    }
    const std::string link = path(hostPath);
    if (symlink(std::string(target, static_cast<size_t>(length)).c_str(), link.c_str()) != 0) {
        throw systemError("SimulatedDevice: symlink " + link);
    }
}

void SimulatedDevice::addDeviceNode(const std::string& name, dev_t device, mode_t type)
{
    const std::string node = path("/dev/" + name);
    for (auto slash = node.find('/', rootDirectory.size() + 5); slash != std::string::npos;
         slash = node.find('/', slash + 1)) {
        if (mkdir(node.substr(0, slash).c_str(), 0755) != 0 && errno != EEXIST) {
            throw systemError("SimulatedDevice: mkdir " + node.substr(0, slash));
        }
    }
    if (mknod(node.c_str(), type | 0666, device) != 0) {
        throw systemError("SimulatedDevice: mknod " + node);
    }
}

void SimulatedDevice::writeFile(const std::string& insidePath, const std::string& content)
{
    const std::string file = path(insidePath);
    UniqueFd fd(open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (!fd.valid()) {
        throw systemError("SimulatedDevice: open " + file);
    }
    if (write(fd.get(), content.data(), content.size()) != static_cast<ssize_t>(content.size())) {
        throw systemError("SimulatedDevice: write " + file);
    }
}

void SimulatedDevice::start()
{
    if (daemon && daemon->isAlive()) {
        throw std::logic_error("SimulatedDevice::start: the daemon runs already");
    }
    daemon.reset();
    DaemonProcess::Launch launch;
    launch.binaryPath = options.daemonPath;
    launch.arguments = options.arguments;
    launch.rootDirectory = rootDirectory;
    launch.networkNamespaceFd = network ? network->fd() : -1;
    // In the host's network namespace the daemon binds its uevent socket with
    // its pid as port, which must then be the host's pid to be free.
    launch.ownProcessNamespace = static_cast<bool>(network);
    launch.procFilesystems = procFilesystemsFile;
    launch.outputPath = baseDirectory + "/output";
    if (!options.launcher.empty()) {
        // A launcher opens the daemon by path, so the binary must be in the root.
        launch.launcher = options.launcher;
        launch.insideBinaryPath = "/daemon-under-test";
        if (!binaryBound) {
            writeFile(launch.insideBinaryPath, "");
            const std::string target = path(launch.insideBinaryPath);
            if (mount(options.daemonPath.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) != 0) {
                throw systemError("SimulatedDevice: bind " + options.daemonPath + " on " + target);
            }
            binaryBound = true;
        }
    }
    daemon = std::make_unique<DaemonProcess>(launch);
}

DaemonProcess& SimulatedDevice::running(const char* method) const
{
    if (!daemon) {
        throw std::logic_error(std::string("SimulatedDevice::") + method +
                               ": the daemon was never started");
    }
    return *daemon;
}

bool SimulatedDevice::waitUntilListening(int timeoutMs)
{
    DaemonProcess& process = running("waitUntilListening");
    bool ended = false;
    const bool listens = waitUntil(
        [&process, &ended] {
            ended = !process.isAlive();
            return ended || process.listensForUevents();
        },
        timeoutMs);
    return listens && !ended;
}

void SimulatedDevice::inject(const Uevent& event)
{
    injectRaw(event.datagram());
}

void SimulatedDevice::injectRaw(const std::string& datagram)
{
    isolatedSender().send(datagram);
}

void SimulatedDevice::injectRawBurst(const std::string* datagrams, size_t count)
{
    isolatedSender().sendAll(datagrams, count);
}

const UeventSender& SimulatedDevice::isolatedSender() const
{
    if (!sender) {
        // The host's own listeners (udev) would take fake events for real ones.
        throw std::logic_error("SimulatedDevice::inject: refused in the host's network namespace");
    }
    return *sender;
}

void SimulatedDevice::signal(int signalNumber)
{
    running("signal").signal(signalNumber);
}

int SimulatedDevice::waitExit(int timeoutMs)
{
    return running("waitExit").waitExit(timeoutMs);
}

bool SimulatedDevice::isAlive()
{
    return daemon && daemon->isAlive();
}

std::optional<DaemonProcess::NetlinkSocket> SimulatedDevice::ueventSocket() const
{
    return running("ueventSocket").ueventSocket();
}

std::vector<std::string> SimulatedDevice::ownDevEntries()
{
    auto names = Namespaces::devEntries();
    names.emplace_back("log");
    return names;
}

std::string SimulatedDevice::output() const
{
    // Absent until the daemon was started once.
    std::ifstream file(baseDirectory + "/output", std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

std::string SimulatedDevice::path(const std::string& insidePath) const
{
    checkInside(insidePath);
    return insidePath == "/" ? rootDirectory : rootDirectory + insidePath;
}

bool SimulatedDevice::exists(const std::string& insidePath) const
{
    return view->exists(insidePath);
}

std::string SimulatedDevice::readLink(const std::string& insidePath) const
{
    return view->readLink(insidePath);
}

std::string SimulatedDevice::readFile(const std::string& insidePath) const
{
    return view->readFile(insidePath);
}

std::vector<std::string> SimulatedDevice::list(const std::string& insideDirectory) const
{
    return view->list(insideDirectory);
}

bool SimulatedDevice::isMounted(const std::string& insidePath) const
{
    MountTable::Entry entry;
    return findMount(insidePath, entry);
}

bool SimulatedDevice::findMount(const std::string& insidePath, MountTable::Entry& entry) const
{
    std::string mountPoint = path(insidePath);
    while (mountPoint.size() > 1 && mountPoint.back() == '/') {
        mountPoint.pop_back();
    }
    return MountTable::find(mountPoint, entry);
}

bool SimulatedDevice::waitUntil(const std::function<bool()>& condition, int timeoutMs)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        if (condition()) {
            return true;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

void SimulatedDevice::tearDown() noexcept
{
    // The daemon first: its mounts and open files would keep things busy.
    daemon.reset();
    sender.reset();
    network.reset();
    reader.reset();
    fakeSysfs.reset();
    view.reset();
    if (baseMounted) {
        try {
            for (const auto& mountPoint : MountTable::below(baseDirectory)) {
                if (umount2(mountPoint.c_str(), MNT_DETACH) != 0) {
                    warnSystemError("SimulatedDevice: umount2 " + mountPoint);
                }
            }
        } catch (const std::exception& error) {
            // Detaching the tmpfs below still takes every mount under it along.
            static_cast<void>(std::fprintf(stderr, "SimulatedDevice: %s\n", error.what()));
        }
        if (umount2(baseDirectory.c_str(), MNT_DETACH) != 0) {
            warnSystemError("SimulatedDevice: umount2 " + baseDirectory);
        }
        baseMounted = false;
    }
    if (!baseDirectory.empty() && rmdir(baseDirectory.c_str()) != 0) {
        warnSystemError("SimulatedDevice: rmdir " + baseDirectory);
    }
    baseDirectory.clear();
}

} // namespace Sandbox
