#include "replay/ImageLoop.h"

#include "sandbox/SystemError.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace Replay {

namespace {

dev_t deviceNumber(const std::string& sysfsDevFile)
{
    std::ifstream file(sysfsDevFile);
    unsigned major = 0;
    unsigned minor = 0;
    char colon = 0;
    if (!(file >> major >> colon >> minor) || colon != ':') {
        throw std::runtime_error("ImageLoop: no MAJOR:MINOR in " + sysfsDevFile);
    }
    return makedev(major, minor);
}

} // namespace

ImageLoop::ImageLoop(const std::string& imagePath)
{
    char directory[] = "/tmp/dhh-image-XXXXXX";
    if (mkdtemp(directory) == nullptr) {
        throw Sandbox::systemError("ImageLoop: mkdtemp");
    }
    nodeDirectory = directory;
    try {
        const Sandbox::UniqueFd backing(open(imagePath.c_str(), O_RDONLY | O_CLOEXEC));
        if (!backing.valid()) {
            throw Sandbox::systemError("ImageLoop: open " + imagePath);
        }
        const Sandbox::UniqueFd control(
            open(makeNode("loop-control", "/sys/class/misc/loop-control/dev", S_IFCHR).c_str(),
                 O_RDWR | O_CLOEXEC));
        if (!control.valid()) {
            throw Sandbox::systemError("ImageLoop: open loop-control");
        }
        for (int attempt = 0; attempt < 16 && !loopFd.valid(); ++attempt) {
            const int free = ioctl(control.get(), LOOP_CTL_GET_FREE);
            if (free < 0) {
                throw Sandbox::systemError("ImageLoop: ioctl(LOOP_CTL_GET_FREE)");
            }
            const std::string name = "loop" + std::to_string(free);
            Sandbox::UniqueFd fd(
                open(makeNode(name, "/sys/class/block/" + name + "/dev", S_IFBLK).c_str(),
                     O_RDONLY | O_CLOEXEC));
            if (!fd.valid()) {
                throw Sandbox::systemError("ImageLoop: open " + name);
            }
            loop_config config{};
            config.fd = static_cast<__u32>(backing.get());
            config.info.lo_flags = LO_FLAGS_READ_ONLY | LO_FLAGS_AUTOCLEAR;
            if (ioctl(fd.get(), LOOP_CONFIGURE, &config) == 0) {
                number = deviceNumber("/sys/class/block/" + name + "/dev");
                loopFd = std::move(fd);
            } else if (errno != EBUSY) { // EBUSY: taken between the two calls, ask again
                throw Sandbox::systemError("ImageLoop: ioctl(LOOP_CONFIGURE) on " + name);
            }
        }
        if (!loopFd.valid()) {
            throw std::runtime_error("ImageLoop: no free loop device");
        }
    } catch (...) {
        removeNodes();
        throw;
    }
}

ImageLoop::~ImageLoop()
{
    if (loopFd.valid()) {
        // Detaches once the sandbox has unmounted it (autoclear).
        ioctl(loopFd.get(), LOOP_CLR_FD);
    }
    loopFd.reset();
    removeNodes();
}

std::string ImageLoop::makeNode(const std::string& name, const std::string& sysfsDevFile,
                                mode_t type)
{
    const std::string path = nodeDirectory + "/" + name;
    if (mknod(path.c_str(), type | 0600, deviceNumber(sysfsDevFile)) != 0 && errno != EEXIST) {
        throw Sandbox::systemError("ImageLoop: mknod " + path);
    }
    return path;
}

void ImageLoop::removeNodes() noexcept
{
    std::error_code ignored;
    std::filesystem::remove_all(nodeDirectory, ignored);
}

} // namespace Replay
