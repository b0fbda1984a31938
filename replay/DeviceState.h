// What the daemon leaves for the device's other software, as listing lines
// that a field report's regression test can expect: the mounts under /mnt/usb
// with type and options, the links under /ravo500/devs with their targets and
// the files there with their content. Comparing, not judging: a diff of lines.
#pragma once

#include "sandbox/SimulatedDevice.h"

#include <string>
#include <vector>

namespace Replay {

class DeviceState {
public:
    // Sorted lines: "mount /mnt/usb/sda1 ext4 ro,relatime", "directory /mnt/usb/sda2",
    // "link /ravo500/devs/usb1-2/usbdev -> /dev/bus/usb/001/004",
    // "file /ravo500/devs/cascade/ravo-casc-info 00:1e:c0:8a:3f:12%eth1\x0a".
    static std::vector<std::string> list(const Sandbox::SimulatedDevice& device);
    // The lines of a listing file; blank lines and "#" comments left out.
    static std::vector<std::string> parse(const std::string& text);
    // "-line" for what only expected has, "+line" for what only actual has.
    static std::vector<std::string> diff(std::vector<std::string> expected,
                                         std::vector<std::string> actual);
};

} // namespace Replay
