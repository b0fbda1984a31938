#include "sandbox/DevLogSink.h"

#include "sandbox/Namespaces.h"
#include "sandbox/SystemError.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace Sandbox {

namespace {

[[noreturn]] void fail(const std::string& what)
{
    warnSystemError("DevLogSink: " + what);
    std::exit(2);
}

// Binds a datagram socket at the path and empties it for the process's life.
void drainSyslogAt(const char* path)
{
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        fail("socket");
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path, sizeof(address.sun_path) - 1);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        fail(std::string("bind ") + path);
    }
    // Owns the socket until the process ends (fuzzers end with exit()).
    std::thread([fd] {
        char record[2048];
        while (recv(fd, record, sizeof(record), 0) >= 0 || errno == EINTR) {
        }
    }).detach();
}

} // namespace

void Sandbox::DevLogSink::enter()
{
    static bool entered = false;
    if (entered) {
        return;
    }
    if (geteuid() != 0) {
        static_cast<void>(
            std::fputs("DevLogSink: needs root for a private mount namespace\n", stderr));
        std::exit(2);
    }
    try {
        Namespaces::enterPrivateMountNamespace();
        if (mount("dhh-dev", "/dev", "tmpfs", MS_NOSUID, "mode=0755") != 0) {
            fail("mounting a tmpfs on /dev");
        }
        Namespaces::populateDev("/dev");
    } catch (const std::exception& error) {
        static_cast<void>(std::fprintf(stderr, "DevLogSink: %s\n", error.what()));
        std::exit(2);
    }
    drainSyslogAt("/dev/log");
    entered = true;
}

} // namespace Sandbox
