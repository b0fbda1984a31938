// Reads the files of a root directory as a process chrooted there sees them:
// every path, and every link on the way, resolves inside the root, so an
// absolute link the daemon made ("/dev/ttyUSB0") never leads into the host.
// Read-only; Sandbox writes the tree itself.
#pragma once

#include "sandbox/UniqueFd.h"

#include <string>
#include <vector>

namespace Sandbox {

class RootView {
public:
    explicit RootView(const std::string& rootDirectory);

    // Paths are absolute inside the root. A dangling link exists.
    bool exists(const std::string& insidePath) const;
    std::string readLink(const std::string& insidePath) const;
    std::string readFile(const std::string& insidePath) const;
    std::vector<std::string>
    list(const std::string& insideDirectory) const; // sorted, without . and ..

private:
    UniqueFd rootFd;

    UniqueFd open(const std::string& insidePath, int flags) const;
};

} // namespace Sandbox
