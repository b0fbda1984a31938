// The start-up scan: devices that were present before the daemon started are
// found through the links in sysfs and handled like new arrivals.
#include "handler/HotplugHandlerThread.h"

#include "common/container/ByteArray.h"
#include "common/exceptions/RavoException.h"

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fstream>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

using Common::Container::ByteArray;
using Common::Exceptions::RavoException;

namespace {

struct DirectoryCloser {
    void operator()(DIR* directory) const { closedir(directory); }
};
using DirectoryStream = std::unique_ptr<DIR, DirectoryCloser>;

// Sysfs links are relative: "../../devices/...". Dropping the leading "../.."
// leaves a path of the shape of a uevent's DEVPATH.
constexpr size_t relativePrefixLength = 5;
constexpr uint32_t initialLinkBufferSize = 512;
constexpr uint32_t linkBufferGrowth = 128;

} // namespace

void HotplugHandlerThread::searchExistingDevices(const std::string& directory)
{
    const DirectoryStream entries(opendir(directory.c_str()));
    if (!entries) {
        reportFailure("searchExistingDevices", "opendir", errno);
        return;
    }
    try {
        for (;;) {
            // A stop may end the scan between two entries.
            acceptStop();
            errno = 0;
            const dirent* entry = readdir(entries.get());
            if (entry == nullptr) {
                // readdir reports its own failure only through errno.
                if (errno != 0) {
                    reportFailure("searchExistingDevices", "readdir", errno);
                }
                return;
            }
            if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) {
                continue;
            }
            const std::string entryPath = directory + "/" + entry->d_name;
            struct stat status {};
            if (lstat(entryPath.c_str(), &status) != 0) {
                const int error = errno;
                char text[256];
                logger.error() << "Error getting the statistics of  " << entryPath << ": " << error
                               << " (" << strerror_r(error, text, sizeof(text)) << ")" << std::endl;
                continue;
            }
            if (S_ISLNK(status.st_mode)) {
                handleSysfsLink(entryPath);
            }
        }
    } catch (const RavoException& exception) {
        // No room for a link's target: the rest of the directory is skipped.
        logger.error() << exception << std::endl;
    }
}

void HotplugHandlerThread::handleSysfsLink(const std::string& entryPath)
{
    ByteArray buffer;
    uint32_t bufferSize = initialLinkBufferSize;
    ssize_t length = 0;
    for (;;) {
        if (buffer.resize(bufferSize) == nullptr) {
            throw RavoException("HotplugHandlerThread", "handleSysfsLink", "Out of memory");
        }
        length = readlink(entryPath.c_str(), reinterpret_cast<char*>(buffer.data()), bufferSize);
        if (length < 0) {
            return;
        }
        if (static_cast<uint32_t>(length) < bufferSize) {
            break;
        }
        // The target may have been cut off: try again with more room.
        bufferSize += linkBufferGrowth;
    }
    if (static_cast<size_t>(length) <= relativePrefixLength) {
        return;
    }
    buffer.data()[length] = '\0';
    const char* devicePath = reinterpret_cast<const char*>(buffer.data()) + relativePrefixLength;

    if (ttyUsbRegex.matches(devicePath)) {
        handleExistingDevice(HotplugDeviceType::UsbTty, devicePath);
    } else if (usbDeviceRegex.matches(devicePath)) {
        handleExistingDevice(HotplugDeviceType::UsbDevice, devicePath);
    } else if (discPartitionRegex.matches(devicePath)) {
        handleExistingDevice(HotplugDeviceType::DiscPartition, devicePath);
    } else if (usbEthernetRegex.matches(devicePath)) {
        const auto slash = entryPath.rfind('/');
        if (slash != std::string::npos && slash + 1 < entryPath.size()) {
            handleCascadingInfoFile(HotplugAction::Add, entryPath.substr(slash + 1));
        }
    }
}

void HotplugHandlerThread::handleExistingDevice(HotplugDeviceType type, const char* devicePath)
{
    EventPtr event(new HotplugEvent());
    event->action = HotplugAction::Add;
    event->deviceType = type;
    event->devPath = devicePath;
    // The device path starts with "/", hence the doubled slash, which is harmless.
    readDevName("/sys/" + event->devPath + "/uevent", event->deviceName);
    if (event->deviceName.empty()) {
        logger.warn() << "Unable to get the device name from the uevent file." << std::endl;
        return;
    }
    dispatchEvent(event);
}

void HotplugHandlerThread::readDevName(const std::string& ueventPath, std::string& deviceName)
{
    deviceName.clear();
    std::ifstream uevent(ueventPath);
    if (!uevent.is_open()) {
        logger.warn() << "File doesn't exist: " << ueventPath << std::endl;
        return;
    }
    static const std::string key = "DEVNAME=";
    std::string line;
    while (std::getline(uevent, line)) {
        if (line.compare(0, key.size(), key) == 0) {
            deviceName = line.substr(key.size());
            break;
        }
    }
}
