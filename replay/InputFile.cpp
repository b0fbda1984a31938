#include "replay/InputFile.h"

#include "sandbox/UniqueFd.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Replay {

std::string InputFile::read(const std::string& path, const std::string& what, size_t limitBytes)
{
    const std::string named = "the " + what + " " + path;
    const std::string tooLarge =
        named + " is larger than " + std::to_string(limitBytes >> 20U) + " MiB";
    Sandbox::UniqueFd opened;
    int fd = STDIN_FILENO;
    if (path != "-") {
        // Without O_NONBLOCK, opening a FIFO waits for a writer.
        opened.reset(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
        fd = opened.get();
        struct stat status {};
        if (fd < 0 || fstat(fd, &status) != 0) {
            throw Refused("cannot read " + named + ": " + std::strerror(errno));
        }
        if (!S_ISREG(status.st_mode)) {
            throw Refused(named + " is not a regular file");
        }
        if (static_cast<unsigned long long>(status.st_size) > limitBytes) {
            throw Refused(tooLarge);
        }
    }
    std::string text;
    char buffer[65536];
    for (;;) {
        const ssize_t length = ::read(fd, buffer, sizeof(buffer));
        if (length < 0 && errno == EINTR) {
            continue;
        }
        if (length < 0) {
            throw Refused("cannot read " + named + ": " + std::strerror(errno));
        }
        if (length == 0) {
            return text;
        }
        text.append(buffer, static_cast<size_t>(length));
        if (text.size() > limitBytes) {
            throw Refused(tooLarge);
        }
    }
}

} // namespace Replay
