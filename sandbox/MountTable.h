// The mounts of the calling process's mount namespace as
// /proc/self/mountinfo lists them; read on demand, never cached.
// It only reads: Sandbox does the unmounting.
#pragma once

#include <string>
#include <vector>

namespace Sandbox {

class MountTable {
public:
    struct Entry {
        std::string mountPoint; // as seen from this process's root
        std::string fsType;
        std::string source;
        std::string options; // per-mount options, such as "ro,relatime"

        bool readOnly() const;
    };

    static std::vector<Entry> read();
    // The topmost mount at exactly this path; false when nothing is mounted there.
    static bool find(const std::string& mountPoint, Entry& entry);
    // Mount points strictly below the directory, deepest first.
    static std::vector<std::string> below(const std::string& directory);
};

} // namespace Sandbox
