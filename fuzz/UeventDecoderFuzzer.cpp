// The uevent decoder on arbitrary datagrams: at most one event, and only with
// fields that come from the datagram itself.
#include "daemon/UeventDecoder.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // The receive buffer holds a NUL behind the datagram, as the listener's does.
    std::vector<char> buffer(size + 1);
    if (size > 0) {
        std::memcpy(buffer.data(), data, size);
    }
    const auto event = decodeUevent(buffer.data(), size);
    if (!event) {
        return 0;
    }
    const std::string datagram(reinterpret_cast<const char*>(data), size);
    if (event->deviceType == HotplugDeviceType::None || event->action == HotplugAction::None ||
        datagram.find(event->devPath) == std::string::npos ||
        datagram.find(event->deviceName) == std::string::npos) {
        __builtin_trap(); // a field from outside the datagram
    }
    return 0;
}
