// A stand-in for the daemon that the sandbox self-test runs in its place: it
// opens the uevent socket and logs as the daemon does, reports what it sees
// of the prepared root at start, logs every datagram (NULs shown as '|') and
// carries out the PROBE_* requests the test puts into datagrams.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <csignal>
#include <cstring>
#include <dirent.h>
#include <fstream>
#include <linux/netlink.h>
#include <poll.h>
#include <string>
#include <sys/mount.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>
#include <vector>

namespace {

void debug(const std::string& text)
{
    syslog(LOG_DEBUG, "[Debug] Probe: %s", text.c_str());
}

void failure(const std::string& what)
{
    syslog(LOG_ERR, "[Error] Probe: %s: %s", what.c_str(), std::strerror(errno));
}

std::string firstLineWith(const std::string& path, const std::string& prefix)
{
    std::ifstream file(path);
    std::string line;
    while (std::getline(file, line)) {
        if (line.compare(0, prefix.size(), prefix) == 0) {
            return line;
        }
    }
    return "";
}

// What the daemon's start-up scan relies on: relative links to uevent files.
void scan(const std::string& directory)
{
    DIR* stream = opendir(directory.c_str());
    if (stream == nullptr) {
        failure("opendir " + directory);
        return;
    }
    std::vector<std::string> names;
    while (const dirent* entry = readdir(stream)) {
        if (entry->d_name[0] != '.') {
            names.emplace_back(entry->d_name);
        }
    }
    closedir(stream);
    std::sort(names.begin(), names.end());
    for (const auto& name : names) {
        const std::string entry = directory + "/" + name;
        char target[4096];
        const ssize_t length = readlink(entry.c_str(), target, sizeof(target));
        if (length <= 5) {
            debug("not a device link: " + entry);
            continue;
        }
        const std::string devpath(target + 5, static_cast<size_t>(length) - 5);
        std::string line = "found " + entry + " " + firstLineWith("/sys" + devpath + "/uevent", "DEVNAME=") +
                           firstLineWith("/sys" + devpath + "/uevent", "INTERFACE=");
        if (directory == "/sys/class/net") {
            line += " address=" + firstLineWith(entry + "/address", "");
        }
        debug(line);
    }
}

void reportRoot()
{
    std::ifstream filesystems("/proc/filesystems");
    if (!filesystems) {
        debug("no /proc/filesystems");
    } else {
        int lines = 0;
        for (std::string line; std::getline(filesystems, line);) {
            ++lines;
        }
        debug("/proc/filesystems has " + std::to_string(lines) + " lines");
    }
    for (const char* directory : {"/sys/dev/block", "/sys/dev/char", "/sys/class/net"}) {
        scan(directory);
    }
}

// Splits "a b rest" into its first words and the rest.
std::vector<std::string> words(const std::string& text, size_t count)
{
    std::vector<std::string> parts;
    std::string::size_type start = 0;
    while (parts.size() + 1 < count) {
        const auto blank = text.find(' ', start);
        if (blank == std::string::npos) {
            break;
        }
        parts.push_back(text.substr(start, blank - start));
        start = blank + 1;
    }
    parts.push_back(text.substr(start));
    return parts;
}

void request(const std::string& key, const std::string& value)
{
    if (key == "PROBE_SYMLINK") {
        const auto parts = words(value, 2);
        if (parts.size() != 2 || symlink(parts[1].c_str(), parts[0].c_str()) != 0) {
            return failure("symlink " + value);
        }
    } else if (key == "PROBE_WRITE") {
        const auto parts = words(value, 2);
        std::ofstream file(parts[0], std::ios::trunc);
        file << (parts.size() == 2 ? parts[1] : "") << "\n";
        file.close();
        if (!file) {
            return failure("write " + parts[0]);
        }
    } else if (key == "PROBE_MOUNT") {
        const auto parts = words(value, 3);
        if (parts.size() != 3 || (mkdir(parts[1].c_str(), 0777) != 0 && errno != EEXIST) ||
            mount(parts[0].c_str(), parts[1].c_str(), parts[2].c_str(), MS_RDONLY, nullptr) != 0) {
            return failure("mount " + value);
        }
    } else if (key == "PROBE_EXIT") {
        debug("exit " + value);
        std::exit(std::atoi(value.c_str()));
    } else {
        return;
    }
    debug(key + " " + value + " done");
}

void handleDatagram(const std::string& datagram)
{
    std::string shown = datagram;
    std::replace(shown.begin(), shown.end(), '\0', '|');
    debug("datagram " + shown);
    std::string::size_type start = 0;
    while (start < datagram.size()) {
        auto end = datagram.find('\0', start);
        end = end == std::string::npos ? datagram.size() : end;
        const std::string field = datagram.substr(start, end - start);
        const auto equals = field.find('=');
        if (equals != std::string::npos) {
            request(field.substr(0, equals), field.substr(equals + 1));
        }
        start = end + 1;
    }
}

} // namespace

int main()
{
    openlog("device_hotplug_handler", 0, LOG_USER);
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    const int signalFd = signalfd(-1, &signals, SFD_CLOEXEC);
    const int socketFd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT);
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_pid = static_cast<__u32>(getpid());
    address.nl_groups = 1;
    if (signalFd < 0 || socketFd < 0 ||
        bind(socketFd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        failure("set-up");
        return 0;
    }
    debug("listening");
    reportRoot();
    std::vector<char> buffer(256 * 1024);
    for (;;) {
        pollfd entries[] = {{signalFd, POLLIN, 0}, {socketFd, POLLIN, 0}};
        if (poll(entries, 2, -1) < 0) {
            continue;
        }
        if (entries[1].revents != 0) {
            const ssize_t length = recv(socketFd, buffer.data(), buffer.size(), 0);
            if (length >= 0) {
                handleDatagram(std::string(buffer.data(), static_cast<size_t>(length)));
            }
        }
        if (entries[0].revents != 0) {
            debug("terminated");
            return 0;
        }
    }
}
