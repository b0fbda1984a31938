#include "replay/ImageLoop.h"

#include "sandbox/SystemError.h"

#include <cstdlib>
#include <filesystem>

namespace Replay {

ImageLoop::ImageLoop(const std::string& imagePath)
{
    char directory[] = "/tmp/dhh-image-XXXXXX";
    if (mkdtemp(directory) == nullptr) {
        throw Sandbox::systemError("ImageLoop: mkdtemp");
    }
    nodeDirectory = directory;
    try {
        loop = std::make_unique<Sandbox::LoopDevice>(nodeDirectory, imagePath, true);
    } catch (...) {
        removeNodes();
        throw;
    }
}

ImageLoop::~ImageLoop()
{
    // Detaches once the sandbox has unmounted it (autoclear).
    loop.reset();
    removeNodes();
}

void ImageLoop::removeNodes() noexcept
{
    std::error_code ignored;
    std::filesystem::remove_all(nodeDirectory, ignored);
}

} // namespace Replay
