// One record as the C library's syslog() puts it on /dev/log, split into its
// parts: "<PRI>Mmm dd hh:mm:ss IDENT: TEXT".
#pragma once

#include <string>

namespace Sandbox {

struct SyslogRecord {
    int priority = -1;    // facility | level
    std::string identity; // the openlog() identity
    std::string text;     // what the program logged

    int level() const { return priority & 7; }
    int facility() const { return priority & ~7; }

    // False when the datagram does not have the syslog() shape.
    static bool parse(const std::string& datagram, SyslogRecord& record);
};

} // namespace Sandbox
