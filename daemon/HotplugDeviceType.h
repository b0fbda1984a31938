// Which handler a hotplug event belongs to. Values outside the list are
// reported as unsupported by the dispatcher.
#pragma once

#include <cstdint>

enum class HotplugDeviceType : uint32_t {
    UsbDevice = 0,
    UsbTty = 1,
    DiscPartition = 2,
    UsbEthernet = 3,
    None = 4 // a fresh record only
};
