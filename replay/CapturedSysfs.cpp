#include "replay/CapturedSysfs.h"

#include "capture/CaptureReader.h"

#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <sys/stat.h>
#include <utility>

namespace Replay {

namespace {

using Capture::CaptureRecord;

// "eth1" out of ".../net/eth1/address", "" for other paths.
std::string addressInterface(const std::string& path)
{
    const std::string suffix = "/address";
    if (path.size() <= suffix.size() ||
        path.compare(path.size() - suffix.size(), suffix.size(), suffix) != 0) {
        return "";
    }
    const std::string directory = path.substr(0, path.size() - suffix.size());
    const size_t slash = directory.rfind('/');
    const size_t parent = slash == std::string::npos ? slash : directory.rfind('/', slash - 1);
    if (parent == std::string::npos || directory.compare(parent, slash - parent, "/net") != 0) {
        return "";
    }
    return directory.substr(slash + 1);
}

} // namespace

CapturedSysfs::CapturedSysfs(Sandbox::FakeSysfs& sysfs,
                             std::map<std::string, std::string> addresses)
    : tree(sysfs), chosenAddresses(std::move(addresses))
{
}

std::string CapturedSysfs::madeUpAddress(const std::string& interface)
{
    const size_t digits = interface.find_first_of("0123456789");
    unsigned long number = 0;
    if (digits != std::string::npos && interface.size() - digits <= 9) {
        number = std::stoul(interface.substr(digits));
    }
    char text[32];
    static_cast<void>(std::snprintf(text, sizeof(text), "02:00:00:%02lx:%02lx:%02lx",
                                    (number >> 16U) & 0xffU, (number >> 8U) & 0xffU,
                                    number & 0xffU));
    return text;
}

void CapturedSysfs::checkInside(const std::string& relative, size_t line) const
{
    std::string at = tree.path();
    for (size_t start = 0; start <= relative.size();) {
        size_t end = relative.find('/', start);
        if (end == std::string::npos) {
            end = relative.size();
        }
        at += "/" + relative.substr(start, end - start);
        // The last component is replaced whatever it is; the ones above must be directories.
        struct stat status {};
        if (end != relative.size() && lstat(at.c_str(), &status) == 0 && !S_ISDIR(status.st_mode)) {
            throw std::runtime_error("capture line " + std::to_string(line) + ": /sys/" + relative +
                                     " leads through a link or file of the captured sysfs");
        }
        start = end + 1;
    }
}

void CapturedSysfs::writeFile(const std::string& relative, const std::string& content, size_t line)
{
    checkInside(relative, line);
    tree.remove(relative); // a link there would be followed
    tree.addFile(relative, content);
}

void CapturedSysfs::writeLink(const std::string& relative, const std::string& target, size_t line)
{
    checkInside(relative, line);
    tree.remove(relative);
    tree.addLink(relative, target);
}

void CapturedSysfs::apply(const CaptureRecord& record)
{
    const std::string relative = record.path.substr(5); // the reader saw to "/sys/"
    if (record.kind == CaptureRecord::Kind::SysfsLink) {
        writeLink(relative, record.data, record.line);
        return;
    }
    const auto chosen = chosenAddresses.find(addressInterface(record.path));
    writeFile(relative, chosen == chosenAddresses.end() ? record.data : chosen->second + "\n",
              record.line);
}

std::string CapturedSysfs::prepareAddress(const CaptureRecord& event)
{
    const std::string name = event.value("INTERFACE");
    const std::string devpath = event.value("DEVPATH");
    if (name.empty() || name.find('/') != std::string::npos || name == "." || name == "..") {
        return "";
    }
    const auto chosen = chosenAddresses.find(name);
    struct stat status {};
    const bool present =
        stat((tree.path() + "/class/net/" + name + "/address").c_str(), &status) == 0;
    if (present && chosen == chosenAddresses.end()) {
        return "";
    }
    if (!Capture::isPlainPath(devpath)) {
        return name + ": no address file laid down, the DEVPATH is no plain path";
    }
    const std::string address =
        chosen == chosenAddresses.end() ? madeUpAddress(name) : chosen->second;
    writeFile(devpath.substr(1) + "/address", address + "\n", event.line);
    writeLink("class/net/" + name, Sandbox::FakeSysfs::linkTarget(devpath), event.line);
    if (chosen != chosenAddresses.end()) {
        return present ? "" : name + ": address " + address + " from --address";
    }
    return name + ": the capture has no address for it, made up " + address + " (--address " +
           name + "=MAC sets one)";
}

} // namespace Replay
