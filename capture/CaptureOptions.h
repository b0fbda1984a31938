// hotplug_capture's command line. Parsing only: the tool acts on the result.
#pragma once

#include <string>

namespace Capture {

struct CaptureOptions {
    std::string output;          // "" writes to standard output
    bool sysfs = false;          // the start-up scan's view of sysfs first
    unsigned long count = 0;     // datagrams to write, 0 without limit
    unsigned long durationS = 0; // seconds to listen, 0 without limit
    unsigned long maxBytes = 0;  // the capture's size at most, 0 without limit
    bool help = false;

    // A file on the device's own storage (often a small tmpfs) ends here
    // unless -s says otherwise; standard output has no limit of its own.
    static constexpr unsigned long defaultFileBytes = 16UL << 20;

    // Throws std::invalid_argument with a message for the user.
    static CaptureOptions parse(int argc, char** argv);
    static const char* usage();
};

} // namespace Capture
