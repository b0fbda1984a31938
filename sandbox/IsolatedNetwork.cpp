#include "sandbox/IsolatedNetwork.h"

#include "sandbox/SystemError.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/socket.h>
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
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        throw systemError("IsolatedNetwork: socketpair");
    }
    UniqueFd parentEnd(ends[0]);
    UniqueFd childEnd(ends[1]);
    const pid_t child = fork();
    if (child < 0) {
        throw systemError("IsolatedNetwork: fork");
    }
    if (child == 0) {
        // The child holds the namespaces alive until the parent has opened the
        // net namespace; it reports errno (0 for success) and waits for EOF.
        parentEnd.reset();
        int error = unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0 ? 0 : errno;
        (void)!write(childEnd.get(), &error, sizeof(error));
        char byte;
        while (read(childEnd.get(), &byte, 1) < 0 && errno == EINTR) {
        }
        _exit(0);
    }
    childEnd.reset();
    int error = 0;
    ssize_t length;
    while ((length = read(parentEnd.get(), &error, sizeof(error))) < 0 && errno == EINTR) {
    }
    if (length != static_cast<ssize_t>(sizeof(error))) {
        reap(child);
        throw std::runtime_error("IsolatedNetwork: the namespace child ended without a report");
    }
    if (error != 0) {
        reap(child);
        throw systemError("IsolatedNetwork: unshare(CLONE_NEWUSER | CLONE_NEWNET)", error);
    }
    const std::string path = "/proc/" + std::to_string(child) + "/ns/net";
    namespaceFd.reset(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    const int openError = errno;
    parentEnd.reset();
    reap(child);
    if (!namespaceFd.valid()) {
        throw systemError("IsolatedNetwork: open " + path, openError);
    }
}

} // namespace Sandbox
