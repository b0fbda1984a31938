// A syslog of the test binary's own, linked in place of the C library's: the
// records the code under test sends are kept in memory, formatted, in order.
// Unit tests read them without root and without touching /dev/log.
#pragma once

#include <string>
#include <vector>

namespace TestSupport {

struct CapturedRecord {
    int priority;
    std::string identity; // what openlog() was given last
    std::string text;
};

class CapturedSyslog {
public:
    // The records sent since the last call, oldest first.
    static std::vector<CapturedRecord> take();
    static std::vector<std::string> takeTexts();
};

} // namespace TestSupport
