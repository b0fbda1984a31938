// The one folder on the host where a process keeps its sandboxes, discs and
// device nodes: made in $TMPDIR (or /tmp), with a tmpfs over it in the
// private mount namespace, so whatever lies in it goes with the process,
// however that ends. A killed process leaves the empty folder, locked while
// its owner lives; the next process to make one removes such stale folders.
#pragma once

#include <string>

namespace Sandbox {

class ScratchSpace {
public:
    // The process's folder, made on first use, which enters the private mount
    // namespace (Namespaces); throws std::runtime_error.
    static const std::string& directory();
    // A fresh folder "NAME-XXXXXX" in it; returns its path.
    static std::string makeDirectory(const std::string& name);
    // The host's folder that scratch folders are made in.
    static std::string parentDirectory();
};

} // namespace Sandbox
