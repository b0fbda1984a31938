// Process-wide namespace set-up for tests that run the daemon: one private
// mount namespace shared by the test process and the daemons it starts, so the
// test sees every mount and file they make while the host sees none of it.
// It also lays out the /dev that every such root needs. Network namespaces
// are IsolatedNetwork's business.
#pragma once

#include <string>
#include <vector>

namespace Sandbox {

class Namespaces {
public:
    // Moves the process into a new mount namespace and makes every mount in
    // it private, once; later calls do nothing. Must be called while the
    // process has one thread: unshare() would move only the calling thread,
    // leaving the others on the host's mounts (throws std::logic_error then).
    // A process that already left its parent's namespace (a test main that
    // made its own) stays in it and may have threads by then.
    static void enterPrivateMountNamespace();

    // Makes the nodes every program expects in /dev (null, zero, urandom)
    // and the fd link in the given directory; throws std::runtime_error.
    static void populateDev(const std::string& devDirectory);
    // The names populateDev makes.
    static std::vector<std::string> devEntries();

    // Whether this process may build sandboxes (root, mount namespaces, a user
    // and network namespace); false with the reason in `why`. Changes nothing
    // in the caller: the attempts are made in a short-lived child.
    static bool canRun(std::string& why);
};

} // namespace Sandbox
