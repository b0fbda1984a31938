// What happened to a device, as decoded from a uevent's ACTION.
#pragma once

#include <cstdint>

enum class HotplugAction : uint32_t {
    Add = 0,
    Remove = 1,
    None = 2 // a fresh record only
};
