// hotplug_capture's command line. Parsing only: the tool acts on the result.
#pragma once

#include <string>

namespace Capture {

struct CaptureOptions {
    std::string output;          // "" writes to standard output
    bool sysfs = false;          // the start-up scan's view of sysfs first
    unsigned long count = 0;     // datagrams to write, 0 without limit
    unsigned long durationS = 0; // seconds to listen, 0 without limit
    bool help = false;

    // Throws std::invalid_argument with a message for the user.
    static CaptureOptions parse(int argc, char** argv);
    static const char* usage();
};

} // namespace Capture
