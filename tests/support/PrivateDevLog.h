// Gives a test binary its own /dev/log: the process moves into a private mount
// namespace, mounts a tmpfs on /dev there and binds a syslog reader at
// /dev/log, so the records that the code under test sends are read back and
// the host's logger never sees them. Must run while the process is still
// single-threaded (the test main does it first thing).
#pragma once

#include "sandbox/SyslogReader.h"

#include <string>

namespace TestSupport {

class PrivateDevLog {
public:
    // False, with the reason, when the namespace cannot be had (no privileges).
    static bool setUp(std::string& why);
    static bool available();
    static const std::string& unavailableReason();
    // The reader bound at /dev/log; only valid when available().
    static Sandbox::SyslogReader& reader();
};

} // namespace TestSupport
