// One loop device bound to a backing file, for the sandbox's discs and the
// replay's images alike: a free device asked of loop-control, reached through
// device nodes in a directory the owner keeps (the host's /dev may lack the
// new device's), taken again when another process got it first. Detaches on
// destruction; the kernel finishes that once nothing holds the device.
#pragma once

#include "sandbox/UniqueFd.h"

#include <string>
#include <sys/types.h>

namespace Sandbox {

class LoopDevice {
public:
    // Throws std::runtime_error with the failing step.
    LoopDevice(const std::string& nodeDirectory, const std::string& backingPath, bool readOnly);
    ~LoopDevice();
    LoopDevice(const LoopDevice&) = delete;
    LoopDevice& operator=(const LoopDevice&) = delete;

    const std::string& name() const { return loopName; } // "loop3"
    dev_t device() const { return number; }

    // The node DIRECTORY/NAME for the device whose "MAJOR:MINOR" the sysfs
    // file holds; an existing one is kept. Returns its path.
    static std::string makeNode(const std::string& directory, const std::string& name,
                                const std::string& sysfsDevFile, mode_t type);
    static dev_t deviceNumber(const std::string& sysfsDevFile);

private:
    std::string loopName;
    UniqueFd loopFd; // held open so that the device stays ours
    dev_t number = 0;
};

} // namespace Sandbox
