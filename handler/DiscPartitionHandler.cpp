// Disc partitions: mounted read-only under /mnt/usb/NAME on add, lazily
// unmounted and their directory removed on remove.
#include "handler/HotplugHandlerThread.h"

#include <cerrno>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {
const char* const partitionMethod = "handleBlockDevPartionEvent";
} // namespace

void HotplugHandlerThread::handleBlockDevPartionEvent(const EventPtr& event)
{
    const std::string mountPoint = "/mnt/usb/" + event->deviceName;
    const std::string deviceNode = "/dev/" + event->deviceName;
    if (event->action == HotplugAction::Add) {
        logger.debug() << "New disc partition found: " << event->deviceName << std::endl;
        if (mkdir(mountPoint.c_str(), 0777) != 0 && errno != EEXIST) {
            reportFailure(partitionMethod, "mkdir", errno);
            return;
        }
        for (const auto& type : supportedFileSystems) {
            if (mount(deviceNode.c_str(), mountPoint.c_str(), type.c_str(), MS_RDONLY, nullptr) ==
                0) {
                logger.debug() << "Partition mounted" << std::endl;
                return;
            }
            if (errno == EBUSY) {
                // Mounted already or in use: another type would not help.
                logger.warn() << "Device already mounted or in use." << std::endl;
                return;
            }
        }
        logger.warn() << "Unable to mount " << event->deviceName
                      << ", filesystem not supported, extended partition or filesystem error"
                      << std::endl;
        if (rmdir(mountPoint.c_str()) != 0) {
            reportFailure(partitionMethod, "rmdir", errno);
        }
    } else if (event->action == HotplugAction::Remove) {
        logger.debug() << "Disc partition removed: " << event->deviceName << std::endl;
        if (umount2(mountPoint.c_str(), MNT_DETACH) != 0) {
            const int error = errno;
            // EINVAL: nothing mounted there; ENOENT: no such directory.
            if (error != EINVAL && error != ENOENT) {
                reportFailure(partitionMethod, "umount", error);
            }
            return;
        }
        if (rmdir(mountPoint.c_str()) != 0) {
            reportFailure(partitionMethod, "rmdir", errno);
            return;
        }
        logger.debug() << "Partition unmounted" << std::endl;
    }
}
