// Hub-and-port parsing of USB device names and of serial interface names with
// their ":configuration.interface" suffix, on arbitrary text.
#include "handler/HotplugHandlerThread.h"
#include "sandbox/DevLogSink.h"

#include <cstddef>
#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    Sandbox::DevLogSink::enter();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static HotplugHandlerThread thread;
    // Exactly the input's bytes, NULs included, with no terminator of its own
    // beyond the one std::string keeps.
    const std::string text(reinterpret_cast<const char*>(data), size);
    uint32_t hub = 0;
    uint32_t port = 0;
    const char* end = nullptr;
    if (thread.parseHubAndPort(text.c_str(), hub, port, &end) &&
        (end < text.c_str() || end > text.c_str() + text.size())) {
        __builtin_trap(); // the cursor left the text
    }
    uint32_t uart = 0;
    thread.parseTtyInterface(text, "/devices/fuzz/" + text, hub, port, uart);
    return 0;
}
