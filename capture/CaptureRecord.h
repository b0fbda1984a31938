// One record of a capture: a datagram as the kernel sent it, a loss the
// socket reported, a sysfs link or file as the daemon would read it, the
// device's /proc/filesystems, or a comment. The text form is CaptureWriter's and CaptureReader's
// business.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace Capture {

struct CaptureRecord {
    enum class Kind { Datagram, Lost, SysfsLink, SysfsFile, Filesystems, Comment };

    Kind kind = Kind::Comment;
    uint64_t timeUs = 0;      // Datagram, Lost: monotonic clock at reception
    std::string data;         // the datagram, a file's content, the link's target, or text
    std::string path;         // SysfsLink, SysfsFile: "/sys/..."
    size_t line = 0;          // where the reader found it
    bool fromUdevadm = false; // rebuilt from udevadm's rearranged form

    // The value of the datagram's last KEY=VALUE string with this key, the
    // one the daemon's decoder would keep; "" when there is none. The decoder
    // itself keeps only the keys it acts on, of the devices it handles.
    std::string value(const std::string& key) const;
};

} // namespace Capture
