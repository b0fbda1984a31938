#include "sandbox/LoopDisk.h"

#include "sandbox/Command.h"
#include "sandbox/ScratchSpace.h"
#include "sandbox/SystemError.h"

#include <algorithm>
#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace Sandbox {

LoopDisk::LoopDisk(const std::vector<Partition>& layout) : partitions(layout)
{
    if (layout.empty() || layout.size() > 4) {
        throw std::invalid_argument("LoopDisk: an MBR holds 1 to 4 primary partitions");
    }
    makeWorkDirectory();
    try {
        const std::string image = node("image");
        // One MiB ahead of the first partition, where sfdisk aligns it.
        off_t mebibytes = 1;
        std::string script = "label: dos\n";
        for (const auto& wanted : layout) {
            mebibytes += wanted.sizeMiB;
            script += "size=" + std::to_string(wanted.sizeMiB) + "MiB, type=83\n";
        }
        const UniqueFd file(open(image.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
        if (!file.valid() || ftruncate(file.get(), mebibytes * 1024 * 1024) != 0) {
            throw systemError("LoopDisk: creating the sparse image " + image);
        }
        Command::run({"sfdisk", "-q", image}, script);
        loop = std::make_unique<LoopDevice>(workDirectory, image, false);
        // The loop device holds the data from now on; its memory goes with the device.
        unlink(image.c_str());
        addPartitions();
        for (size_t number = 1; number <= partitions.size(); ++number) {
            const std::string& fileSystem = partition(number).fileSystem;
            if (!fileSystem.empty()) {
                Command::run(
                    {"mkfs." + fileSystem, "-q", "-E", "nodiscard", node(partitionName(number))});
            }
        }
    } catch (...) {
        detach();
        removeWorkDirectory();
        throw;
    }
}

LoopDisk::~LoopDisk()
{
    detach();
    removeWorkDirectory();
}

bool LoopDisk::available(std::string& why)
{
    if (access("/sys/class/misc/loop-control/dev", R_OK) != 0) {
        why = "loop devices are not available (no /sys/class/misc/loop-control)";
        return false;
    }
    const auto tools = {"sfdisk", "partx", "mkfs.ext4"};
    const auto* missing = std::find_if(
        tools.begin(), tools.end(), [](const char* tool) { return Command::find(tool).empty(); });
    if (missing != tools.end()) {
        why = std::string(*missing) + " is not installed";
        return false;
    }
    return true;
}

void LoopDisk::makeWorkDirectory()
{
    const std::string path = ScratchSpace::makeDirectory("loopdisk");
    // The image's memory goes back with one unmount.
    if (mount("dhh-loopdisk", path.c_str(), "tmpfs", 0, "mode=0700") != 0) {
        const int error = errno;
        rmdir(path.c_str());
        throw systemError("LoopDisk: mount tmpfs on " + path, error);
    }
    workDirectory = path;
}

void LoopDisk::removeWorkDirectory() noexcept
{
    if (workDirectory.empty()) {
        return;
    }
    if (umount2(workDirectory.c_str(), MNT_DETACH) != 0 || rmdir(workDirectory.c_str()) != 0) {
        warnSystemError("LoopDisk: removing " + workDirectory);
    }
    workDirectory.clear();
}

void LoopDisk::addPartitions()
{
    // Partitions left by a test process that died on this device make "partx -a" fail.
    const std::string prefix = name() + "p";
    const std::filesystem::directory_iterator entries("/sys/class/block/" + name());
    if (std::any_of(begin(entries), end(entries), [&prefix](const auto& entry) {
            return entry.path().filename().string().compare(0, prefix.size(), prefix) == 0;
        })) {
        Command::run({"partx", "-d", node(name())});
    }
    // The kernel's own scan ("losetup -P") does not add them everywhere; partx does.
    Command::run({"partx", "-a", node(name())});
    for (size_t number = 1; number <= partitions.size(); ++number) {
        LoopDevice::makeNode(workDirectory, partitionName(number),
                             "/sys/class/block/" + partitionName(number) + "/dev", S_IFBLK);
    }
}

void LoopDisk::detach() noexcept
{
    if (!loop) {
        return;
    }
    try {
        Command::run({"partx", "-d", node(name())});
    } catch (const std::exception& error) {
        static_cast<void>(std::fprintf(stderr, "LoopDisk: removing the partitions of %s: %s\n",
                                       name().c_str(), error.what()));
    }
    loop.reset();
}

const LoopDisk::Partition& LoopDisk::partition(size_t number) const
{
    if (number < 1 || number > partitions.size()) {
        throw std::out_of_range("LoopDisk: no partition " + std::to_string(number) + " on " +
                                name());
    }
    return partitions[number - 1];
}

std::string LoopDisk::partitionName(size_t number) const
{
    partition(number);
    return name() + "p" + std::to_string(number);
}

dev_t LoopDisk::partitionDevice(size_t number) const
{
    return LoopDevice::deviceNumber("/sys/class/block/" + partitionName(number) + "/dev");
}

std::string LoopDisk::partitionDevpath(size_t number) const
{
    const std::string link = "/sys/class/block/" + partitionName(number);
    const std::string target = std::filesystem::read_symlink(link).string();
    // The link reads "../../devices/...": two levels up is the sysfs root.
    if (target.compare(0, 5, "../..") != 0) {
        throw std::runtime_error("LoopDisk: unexpected target of " + link + ": " + target);
    }
    return target.substr(5);
}

void LoopDisk::triggerUevent(size_t number, const std::string& action) const
{
    const std::string path = "/sys/class/block/" + partitionName(number) + "/uevent";
    UniqueFd fd(open(path.c_str(), O_WRONLY | O_CLOEXEC));
    if (!fd.valid()) {
        throw systemError("LoopDisk: open " + path);
    }
    if (write(fd.get(), action.data(), action.size()) != static_cast<ssize_t>(action.size())) {
        throw systemError("LoopDisk: write \"" + action + "\" to " + path);
    }
}

} // namespace Sandbox
