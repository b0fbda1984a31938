// A real disc for tests: a sparse image with an MBR partition table on a loop
// device, partitions added by partx, chosen partitions formatted. Its
// partitions can be bound into a sandbox (Sandbox::addDeviceNode) for the
// daemon to mount, and their sysfs "uevent" file makes the kernel announce them.
// It keeps image and device nodes in a tmpfs of its own in the private mount
// namespace, so it needs no /dev of the host and leaves nothing on disc.
// Declare it before the Sandbox that uses it: the sandbox must unmount first.
#pragma once

#include "sandbox/LoopDevice.h"

#include <memory>
#include <string>
#include <sys/types.h>
#include <vector>

namespace Sandbox {

class LoopDisk {
public:
    struct Partition {
        unsigned sizeMiB = 8;
        std::string fileSystem; // "ext2", "ext3", "ext4", or "" to leave it unformatted
    };

    // Throws std::runtime_error with the failing step; undoes what was done.
    explicit LoopDisk(const std::vector<Partition>& layout);
    ~LoopDisk();
    LoopDisk(const LoopDisk&) = delete;
    LoopDisk& operator=(const LoopDisk&) = delete;

    // Whether loop devices and the tools are there; false with the reason.
    static bool available(std::string& why);

    const std::string& name() const { return loop->name(); } // "loop3"
    size_t partitionCount() const { return partitions.size(); }
    // Partitions count from 1, as the kernel numbers them.
    std::string partitionName(size_t number) const; // "loop3p1"
    dev_t partitionDevice(size_t number) const;
    // The kernel's DEVPATH of the partition, such as /devices/virtual/block/loop3/loop3p1.
    std::string partitionDevpath(size_t number) const;
    // Writes the action ("add", "change", ...) to the partition's sysfs
    // "uevent" file, so that the kernel broadcasts a real uevent for it.
    void triggerUevent(size_t number, const std::string& action) const;

private:
    std::string workDirectory; // tmpfs with the image and the device nodes
    std::unique_ptr<LoopDevice> loop;
    std::vector<Partition> partitions;

    std::string node(const std::string& name) const { return workDirectory + "/" + name; }
    void makeWorkDirectory();
    void addPartitions();
    void detach() noexcept;
    void removeWorkDirectory() noexcept;
    const Partition& partition(size_t number) const;
};

} // namespace Sandbox
