// What a capture asks of the sandbox before the daemon starts: the partitions
// that need a block device, the hub-and-port directories and whether the
// cascade directory is wanted. Reads records only; ReplaySession builds.
#pragma once

#include "capture/CaptureRecord.h"

#include <optional>
#include <string>
#include <vector>

namespace Replay {

struct ReplayPlan {
    std::vector<std::string> partitions;      // device names, sorted
    std::vector<std::string> portDirectories; // "usb1-2"... under /ravo500/devs
    bool cascadeDirectory = false;
    size_t datagrams = 0;
    uint64_t spanUs = 0; // from the first datagram to the last
    bool fromUdevadm = false;
    std::optional<std::string> deviceFilesystems; // the device's /proc/filesystems, if captured

    // Throws Capture::CaptureFormatError for what the sandbox must not be
    // built from: a name the daemon would turn into a path in a shape the
    // kernel never gives it (PathNames), a partition name the sandbox's /dev
    // holds already, a sysfs link that leads out of /sys, too many partitions.
    static ReplayPlan of(const std::vector<Capture::CaptureRecord>& records);
    // The types of a /proc/filesystems text that mount a block device, in order.
    static std::vector<std::string> blockFilesystems(const std::string& procFilesystems);
};

} // namespace Replay
