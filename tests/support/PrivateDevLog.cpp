#include "tests/support/PrivateDevLog.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace TestSupport {

namespace {

std::unique_ptr<Sandbox::SyslogReader>& globalReader()
{
    static std::unique_ptr<Sandbox::SyslogReader> reader;
    return reader;
}

std::string& globalReason()
{
    static std::string reason = "not set up";
    return reason;
}

bool fail(std::string& why, const std::string& what)
{
    why = what + ": " + std::strerror(errno);
    return false;
}

struct DeviceNode {
    const char* path;
    unsigned major;
    unsigned minor;
};

} // namespace

bool PrivateDevLog::setUp(std::string& why)
{
    if (geteuid() != 0) {
        why = "not running as root (run the tests as root, as CI does)";
        globalReason() = why;
        return false;
    }
    if (unshare(CLONE_NEWNS) != 0) {
        fail(why, "unshare(CLONE_NEWNS)");
        globalReason() = why;
        return false;
    }
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        fail(why, "making / private");
        globalReason() = why;
        return false;
    }
    if (mount("testdev", "/dev", "tmpfs", MS_NOSUID, "mode=0755") != 0) {
        fail(why, "mounting a tmpfs on /dev");
        globalReason() = why;
        return false;
    }
    static const DeviceNode nodes[] = {
        {"/dev/null", 1, 3}, {"/dev/zero", 1, 5}, {"/dev/random", 1, 8}, {"/dev/urandom", 1, 9}};
    for (const auto& node : nodes) {
        if (mknod(node.path, S_IFCHR | 0666, makedev(node.major, node.minor)) != 0) {
            fail(why, std::string("mknod ") + node.path);
            globalReason() = why;
            return false;
        }
    }
    globalReader() = std::make_unique<Sandbox::SyslogReader>("/dev/log");
    globalReason().clear();
    return true;
}

bool PrivateDevLog::available()
{
    return globalReader() != nullptr;
}

const std::string& PrivateDevLog::unavailableReason()
{
    return globalReason();
}

Sandbox::SyslogReader& PrivateDevLog::reader()
{
    return *globalReader();
}

} // namespace TestSupport
