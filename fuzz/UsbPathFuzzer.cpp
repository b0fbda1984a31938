// The hub-and-port grammar of USB device and interface names on arbitrary
// text: the cursor never leaves the text, a refusal always has a reason, and
// an accepted name reads back as the numbers it was parsed into.
#include "handler/UsbPortName.h"

#include <cstddef>
#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // Exactly the input's bytes, NULs included; the parser stops at the first.
    const std::string text(reinterpret_cast<const char*>(data), size);
    const char* const begin = text.c_str();
    const HubAndPort parsed = parseHubAndPortName(begin);
    if (parsed.end < begin || parsed.end > begin + text.size()) {
        __builtin_trap(); // the cursor left the text
    }
    if (parsed.refusal != nullptr) {
        return 0;
    }
    // Short enough not to wrap and without zeros (no leading ones), an
    // accepted name begins with its hub and ends with its port.
    const std::string name(begin, parsed.end);
    if (name.size() <= 11 && name.find('0') == std::string::npos &&
        (name.rfind(std::to_string(parsed.hub) + "-", 0) != 0 ||
         name.substr(name.rfind('.') + 1) != std::to_string(parsed.port))) {
        __builtin_trap();
    }
    if (*parsed.end == ':') {
        uint32_t interfaceNumber = 0;
        static_cast<void>(parseInterfaceSuffix(parsed.end + 1, interfaceNumber));
    }
    return 0;
}
