// A network namespace owned by a fresh child user namespace. The kernel sends
// its own uevents only into namespaces owned by the initial user namespace, so
// a daemon in here hears nothing but the datagrams a test injects.
// Holds the namespace by descriptor; nothing runs inside it.
#pragma once

#include "sandbox/UniqueFd.h"

namespace Sandbox {

class IsolatedNetwork {
public:
    // Throws std::runtime_error when the namespaces cannot be created.
    IsolatedNetwork();

    // Descriptor of the namespace, for setns(fd, CLONE_NEWNET).
    int fd() const { return namespaceFd.get(); }

private:
    UniqueFd namespaceFd;
};

} // namespace Sandbox
