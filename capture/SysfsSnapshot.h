// Reads from sysfs what the daemon reads there, as capture records: at start
// the links of /sys/dev/block, /sys/dev/char and /sys/class/net with the
// uevent files they lead to and the interfaces' address files, and for an
// interface that was just added its link and address file. What cannot be
// read becomes a comment that says why, as the daemon would find it missing too.
#pragma once

#include "capture/CaptureRecord.h"

#include <string>
#include <vector>

namespace Capture {

class SysfsSnapshot {
public:
    static std::vector<CaptureRecord> startupScan();
    static std::vector<CaptureRecord> netInterface(const std::string& name);
    // The device's /proc/filesystems, whose types the daemon tries in its own
    // order; a comment saying why when it cannot be read.
    static CaptureRecord procFilesystems();
};

} // namespace Capture
