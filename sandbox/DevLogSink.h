// For fuzzers and benchmarks that log millions of records: a private mount
// namespace with its own /dev, where /dev/log is read and thrown away by a
// thread, as a syslog daemon would drain it. Nothing reaches the host's logger.
#pragma once

namespace Sandbox {

class DevLogSink {
public:
    // Enters the sandbox once per process; exits the process with the reason
    // when that is impossible (not root, no namespaces).
    static void enter();
};

} // namespace Sandbox
