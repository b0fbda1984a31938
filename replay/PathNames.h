// Which names from a capture may become paths in the sandbox. A capture comes
// from the field and the replay runs as root, so a device name is taken only
// in the shape the kernel gives it and a sysfs link only when it stays in /sys.
// Judging only: each returns "" for a good name, else what is wrong with it.
#pragma once

#include <string>

namespace Replay {

class PathNames {
public:
    // A device name (DEVNAME or INTERFACE): components that are not empty,
    // "." or "..", of at most 255 bytes, joined by "/" only where allowed
    // (the kernel puts it in names such as bus/usb/001/003, never in a
    // partition's or an interface's).
    static std::string deviceNameFault(const std::string& name, bool slashAllowed);
    // The target of the sysfs link at linkPath ("/sys/..."): relative, as the
    // kernel writes them, with no more leading "../" than the link lies deep
    // below /sys, then a path without "." or "..".
    static std::string linkTargetFault(const std::string& linkPath, const std::string& target);
};

} // namespace Replay
