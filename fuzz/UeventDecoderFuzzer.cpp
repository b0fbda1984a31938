// The uevent decoder on arbitrary datagrams: whatever it queues is checked and
// taken off again, so memory stays flat over millions of inputs.
#include "daemon/HotplugNetlink.h"
#include "sandbox/DevLogSink.h"
#include "tests/support/HotplugTestAccess.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    Sandbox::DevLogSink::enter();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static HotplugNetlink listener;
    // The receive buffer holds a NUL behind the datagram, as the listener's does.
    std::vector<char> buffer(size + 1);
    if (size > 0) {
        std::memcpy(buffer.data(), data, size);
    }
    listener.parseKernelEvent(buffer.data(), size);
    HotplugHandlerThread& thread = HotplugNetlinkTestAccess::handlerThread(listener);
    const auto events = HotplugHandlerThreadTestAccess::takeQueued(thread);
    const bool wokenUp = HotplugHandlerThreadTestAccess::takeWakeUp(thread);
    if (events.size() > 1 || wokenUp != (events.size() == 1)) {
        __builtin_trap(); // one datagram, at most one event, and its wake-up
    }
    if (events.empty()) {
        return 0;
    }
    const HotplugEvent& event = *events.front();
    const std::string datagram(reinterpret_cast<const char*>(data), size);
    if (event.deviceType == HotplugDeviceType::None || event.action == HotplugAction::None ||
        datagram.find(event.devPath) == std::string::npos ||
        datagram.find(event.deviceName) == std::string::npos) {
        __builtin_trap(); // a field from outside the datagram
    }
    return 0;
}
