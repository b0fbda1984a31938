// Disc partitions: mounted read-only under /mnt/usb/NAME on add, lazily
// unmounted and their directory removed on remove.
#include "handler/HotplugHandlerThread.h"

#include "common/exceptions/RavoException.h"

#include <cerrno>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

using Common::Exceptions::RavoException;

namespace {
const char* const partitionClass = "HotplugHandlerThread";
const char* const partitionMethod = "handleBlockDevPartionEvent";
void removeMountPoint(const std::string& mountPoint)
{
    if (rmdir(mountPoint.c_str()) != 0) {
        const int error = errno;
        throw RavoException(partitionClass, partitionMethod, "rmdir", error);
    }
}

} // namespace

void HotplugHandlerThread::handleBlockDevPartionEvent(const EventPtr& event)
{
    const std::string mountPoint = "/mnt/usb/" + event->deviceName;
    const std::string deviceNode = "/dev/" + event->deviceName;
    try {
        if (event->action == HotplugAction::Add) {
            logger.debug() << "New disc partition found: " << event->deviceName << std::endl;
            if (mkdir(mountPoint.c_str(), 0777) != 0) {
                const int error = errno;
                if (error != EEXIST) {
                    throw RavoException(partitionClass, partitionMethod, "mkdir", error);
                }
            }
            for (const auto& type : supportedFileSystems) {
                if (mount(deviceNode.c_str(), mountPoint.c_str(), type.c_str(), MS_RDONLY,
                          nullptr) == 0) {
                    logger.debug() << "Partition mounted" << std::endl;
                    return;
                }
                const int error = errno;
                if (error == EBUSY) {
                    // Mounted already or in use: another type would not help.
                    logger.warn() << "Device already mounted or in use." << std::endl;
                    return;
                }
            }
            logger.warn() << "Unable to mount " << event->deviceName
                          << ", filesystem not supported, extended partition or filesystem error"
                          << std::endl;
            removeMountPoint(mountPoint);
        } else if (event->action == HotplugAction::Remove) {
            logger.debug() << "Disc partition removed: " << event->deviceName << std::endl;
            if (umount2(mountPoint.c_str(), MNT_DETACH) == 0) {
                removeMountPoint(mountPoint);
                logger.debug() << "Partition unmounted" << std::endl;
            } else {
                const int error = errno;
                // EINVAL: nothing mounted there; ENOENT: no such directory.
                if (error != EINVAL && error != ENOENT) {
                    throw RavoException(partitionClass, partitionMethod, "umount", error);
                }
            }
        }
    } catch (const RavoException& exception) {
        logger.error() << exception << std::endl;
    }
}
