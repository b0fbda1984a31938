// A file system image on a read-only loop device, for a partition that a
// capture names: the daemon then mounts the very image a field report came
// with, and nothing it does can change the file. Whole-disc images with a
// partition table are LoopDisk's shape, not this one's.
#pragma once

#include "sandbox/LoopDevice.h"

#include <memory>
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

    dev_t device() const { return loop->device(); }

private:
    std::string nodeDirectory;
    std::unique_ptr<Sandbox::LoopDevice> loop;

    void removeNodes() noexcept;
};

} // namespace Replay
