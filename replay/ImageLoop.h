// A file system image on a read-only loop device, for a partition that a
// capture names: the daemon then mounts the very image a field report came
// with, and nothing it does can change the file. Whole-disc images with a
// partition table are LoopDisk's shape, not this one's.
#pragma once

#include "sandbox/UniqueFd.h"

#include <string>
#include <sys/types.h>

namespace Replay {

class ImageLoop {
public:
    // Throws std::runtime_error with the failing step.
    explicit ImageLoop(const std::string& imagePath);
    ~ImageLoop();
    ImageLoop(const ImageLoop&) = delete;
    ImageLoop& operator=(const ImageLoop&) = delete;

    dev_t device() const { return number; }

private:
    std::string nodeDirectory; // own nodes: the host's /dev may lack the new device's
    Sandbox::UniqueFd loopFd;
    dev_t number = 0;

    std::string makeNode(const std::string& name, const std::string& sysfsDevFile, mode_t type);
    void removeNodes() noexcept;
};

} // namespace Replay
