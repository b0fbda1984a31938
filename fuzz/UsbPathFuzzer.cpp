// Hub-and-port parsing of USB device paths, and of serial adapter paths cut at
// "/ttyUSB" down to their ":configuration.interface" directory, on arbitrary
// text. Only parses: no link is made.
#include "common/file/FileUtil.h"
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
    const std::string component = FileUtil::getFileName(text);
    uint32_t hub = 0;
    uint32_t port = 0;
    const char* end = nullptr;
    if (thread.parseHubAndPort(component.c_str(), hub, port, &end) &&
        (end < component.c_str() || end > component.c_str() + component.size())) {
        __builtin_trap(); // the cursor left the text
    }

    std::string devPath = text;
    uint32_t uart = 0;
    if (thread.parseTtyDevPath(devPath, hub, port, uart) &&
        text.find("/ttyUSB") != devPath.size()) {
        __builtin_trap(); // not cut where the serial device's own directories start
    }
    return 0;
}
