// The decoded form of one uevent: the record that travels from the listener
// (or the start-up scan) to the handler thread. Held by one owner at a time,
// never copied.
#pragma once

#include "daemon/HotplugAction.h"
#include "daemon/HotplugDeviceType.h"

#include <string>

struct HotplugEvent {
    HotplugAction action = HotplugAction::None;
    HotplugDeviceType deviceType = HotplugDeviceType::None;
    std::string deviceName; // DEVNAME, or INTERFACE for network interfaces
    std::string devPath;    // DEVPATH: the sysfs path without the mount point

    HotplugEvent() = default;
    HotplugEvent(const HotplugEvent&) = delete;
    HotplugEvent& operator=(const HotplugEvent&) = delete;
};
