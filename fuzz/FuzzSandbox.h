// The world a fuzzer runs in: a private mount namespace with its own /dev, where
// /dev/log is read and thrown away by a thread, as a syslog daemon would drain
// it. What the code under test logs never reaches the host's logger.
#pragma once

class FuzzSandbox {
public:
    // Enters the sandbox once per process; exits the process with the reason
    // when that is impossible (not root, no namespaces).
    static void enter();
};
