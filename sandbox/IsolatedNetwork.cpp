#include "sandbox/IsolatedNetwork.h"

#include "sandbox/SystemError.h"

#include <csignal>
#include <fcntl.h>
#include <sched.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

namespace Sandbox {

namespace {

void reap(pid_t child)
{
    while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
}

} // namespace

IsolatedNetwork::IsolatedNetwork()
{
    // clone() with the namespace flags rather than fork() and unshare():
    // unshare(CLONE_NEWUSER) refuses a process with several threads, and a
    // sanitizer's runtime or a test harness may have started some. Used like
    // fork(): no new stack, no libc fork handlers, the child only waits.
    const long cloned = syscall(SYS_clone, CLONE_NEWUSER | CLONE_NEWNET | SIGCHLD, nullptr, nullptr,
                                nullptr, nullptr);
    if (cloned < 0) {
        throw systemError("IsolatedNetwork: clone(CLONE_NEWUSER | CLONE_NEWNET)");
    }
    if (cloned == 0) {
        // Holds the namespaces alive until the parent has opened the net one.
        for (;;) {
            pause();
        }
    }
    const auto child = static_cast<pid_t>(cloned);
    const std::string path = "/proc/" + std::to_string(child) + "/ns/net";
    namespaceFd.reset(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    const int openError = errno;
    kill(child, SIGKILL);
    reap(child);
    if (!namespaceFd.valid()) {
        throw systemError("IsolatedNetwork: open " + path, openError);
    }
}

} // namespace Sandbox
