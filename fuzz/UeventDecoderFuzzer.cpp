// The uevent decoder on arbitrary datagrams: whatever it queues is taken off
// again, so memory stays flat over millions of inputs.
#include "daemon/HotplugNetlink.h"
#include "sandbox/DevLogSink.h"
#include "tests/support/HotplugTestAccess.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
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
    HotplugHandlerThreadTestAccess::takeQueued(thread);
    HotplugHandlerThreadTestAccess::takeWakeUp(thread);
    return 0;
}
