#include "sandbox/LoopDevice.h"

#include "sandbox/SystemError.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace Sandbox {

dev_t LoopDevice::deviceNumber(const std::string& sysfsDevFile)
{
    std::ifstream file(sysfsDevFile);
    unsigned major = 0;
    unsigned minor = 0;
    char colon = 0;
    if (!(file >> major >> colon >> minor) || colon != ':') {
        throw std::runtime_error("loop device: no MAJOR:MINOR in " + sysfsDevFile);
    }
    return makedev(major, minor);
}

std::string LoopDevice::makeNode(const std::string& directory, const std::string& name,
                                 const std::string& sysfsDevFile, mode_t type)
{
    std::string path = directory + "/" + name;
    if (mknod(path.c_str(), type | 0600, deviceNumber(sysfsDevFile)) != 0 && errno != EEXIST) {
        throw systemError("loop device: mknod " + path);
    }
    return path;
}

LoopDevice::LoopDevice(const std::string& nodeDirectory, const std::string& backingPath,
                       bool readOnly)
{
    const int openMode = (readOnly ? O_RDONLY : O_RDWR) | O_CLOEXEC;
    const UniqueFd backing(open(backingPath.c_str(), openMode));
    if (!backing.valid()) {
        throw systemError("loop device: open " + backingPath);
    }
    const UniqueFd control(
        open(makeNode(nodeDirectory, "loop-control", "/sys/class/misc/loop-control/dev", S_IFCHR)
                 .c_str(),
             O_RDWR | O_CLOEXEC));
    if (!control.valid()) {
        throw systemError("loop device: open loop-control");
    }
    constexpr int attempts = 16;
    for (int attempt = 0; attempt < attempts; ++attempt) {
        const int free = ioctl(control.get(), LOOP_CTL_GET_FREE);
        if (free < 0) {
            throw systemError("loop device: ioctl(LOOP_CTL_GET_FREE)");
        }
        const std::string freeName = "loop" + std::to_string(free);
        const std::string sysfsDevFile = "/sys/class/block/" + freeName + "/dev";
        UniqueFd fd(
            open(makeNode(nodeDirectory, freeName, sysfsDevFile, S_IFBLK).c_str(), openMode));
        if (!fd.valid()) {
            throw systemError("loop device: open " + freeName);
        }
        loop_config config{};
        config.fd = static_cast<__u32>(backing.get());
        // Should the owner die, the kernel detaches the device once nothing holds it.
        config.info.lo_flags =
            readOnly ? LO_FLAGS_AUTOCLEAR | LO_FLAGS_READ_ONLY : LO_FLAGS_AUTOCLEAR;
        backingPath.copy(reinterpret_cast<char*>(config.info.lo_file_name), LO_NAME_SIZE - 1);
        if (ioctl(fd.get(), LOOP_CONFIGURE, &config) == 0) {
            loopName = freeName;
            loopFd = std::move(fd);
            number = deviceNumber(sysfsDevFile);
            return;
        }
        if (errno != EBUSY) {
            throw systemError("loop device: ioctl(LOOP_CONFIGURE) on " + freeName);
        }
        // Another process took the device between the two calls: ask for the next.
    }
    throw std::runtime_error("loop device: no free one after " + std::to_string(attempts) +
                             " attempts");
}

LoopDevice::~LoopDevice()
{
    // With others still holding the device this only defers the detach (autoclear).
    if (ioctl(loopFd.get(), LOOP_CLR_FD) != 0) {
        warnSystemError("loop device: ioctl(LOOP_CLR_FD) on " + loopName);
    }
}

} // namespace Sandbox
