// The grammar of a USB device's directory name in sysfs, as far as the links
// need it: bus number "-" root port "." port ("1-1.2"), and for one of its
// interfaces ":" configuration "." interface ("1-1.3:1.0"). Pure: it writes no
// records, the handlers do. Numbers accumulate in unsigned 32-bit arithmetic
// without a range check, so an absurdly long run of digits wraps.
#pragma once

#include <cstdint>

struct HubAndPort {
    uint32_t hub = 0;
    uint32_t port = 0;
    // On success the end of the text or the ":" that begins an interface
    // suffix; on failure the first character that does not fit.
    const char* end = nullptr;
    // Why the text does not fit; null when it does.
    const char* refusal = nullptr;
};

// Only a device one hub below a root port fits: "1-1" and "1-1.2.3" do not.
HubAndPort parseHubAndPortName(const char* text);

enum class InterfaceSuffixRefusal { None, ConfigurationNumber, InterfaceNumber };

// The text after the ":": configuration "." interface, then the end. The
// interface number is what a serial adapter's link is named by.
InterfaceSuffixRefusal parseInterfaceSuffix(const char* text, uint32_t& interfaceNumber);
