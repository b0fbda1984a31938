#include "replay/ImageLoop.h"

#include "sandbox/ScratchSpace.h"

#include <cstdlib>
#include <filesystem>

namespace Replay {

ImageLoop::ImageLoop(const std::string& imagePath)
    : nodeDirectory(Sandbox::ScratchSpace::makeDirectory("image"))
{
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
