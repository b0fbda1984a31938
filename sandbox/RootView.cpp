#include "sandbox/RootView.h"

#include "sandbox/SystemError.h"

#include <algorithm>
#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace Sandbox {

RootView::RootView(const std::string& rootDirectory)
    : rootFd(::open(rootDirectory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC))
{
    if (!rootFd.valid()) {
        throw systemError("RootView: open " + rootDirectory);
    }
}

// RESOLVE_IN_ROOT treats the root like chroot() does, ".." and absolute links included.
UniqueFd RootView::open(const std::string& insidePath, int flags) const
{
    if (insidePath.empty() || insidePath[0] != '/') {
        throw std::invalid_argument("RootView: inside paths are absolute: \"" + insidePath + "\"");
    }
    open_how how{};
    how.flags = static_cast<__u64>(flags | O_CLOEXEC);
    how.resolve = RESOLVE_IN_ROOT | RESOLVE_NO_MAGICLINKS;
    return UniqueFd(static_cast<int>(
        syscall(SYS_openat2, rootFd.get(), insidePath.c_str(), &how, sizeof(how))));
}

bool RootView::exists(const std::string& insidePath) const
{
    const UniqueFd fd = open(insidePath, O_PATH | O_NOFOLLOW);
    if (!fd.valid() && errno != ENOENT && errno != ENOTDIR) {
        throw systemError("RootView::exists: openat2 " + insidePath);
    }
    return fd.valid();
}

std::string RootView::readLink(const std::string& insidePath) const
{
    const UniqueFd fd = open(insidePath, O_PATH | O_NOFOLLOW);
    if (!fd.valid()) {
        throw systemError("RootView::readLink: openat2 " + insidePath);
    }
    char target[4096];
    const ssize_t length = readlinkat(fd.get(), "", target, sizeof(target));
    if (length < 0) {
        throw systemError("RootView::readLink: readlinkat " + insidePath);
    }
    return std::string(target, static_cast<size_t>(length));
}

std::string RootView::readFile(const std::string& insidePath) const
{
    const UniqueFd fd = open(insidePath, O_RDONLY);
    if (!fd.valid()) {
        throw systemError("RootView::readFile: openat2 " + insidePath);
    }
    std::string text;
    char buffer[4096];
    for (;;) {
        const ssize_t length = read(fd.get(), buffer, sizeof(buffer));
        if (length < 0 && errno == EINTR) {
            continue;
        }
        if (length < 0) {
            throw systemError("RootView::readFile: read " + insidePath);
        }
        if (length == 0) {
            return text;
        }
        text.append(buffer, static_cast<size_t>(length));
    }
}

std::vector<std::string> RootView::list(const std::string& insideDirectory) const
{
    UniqueFd fd = open(insideDirectory, O_RDONLY | O_DIRECTORY);
    if (!fd.valid()) {
        throw systemError("RootView::list: openat2 " + insideDirectory);
    }
    DIR* directory = fdopendir(fd.get());
    if (directory == nullptr) {
        throw systemError("RootView::list: fdopendir " + insideDirectory);
    }
    fd.release(); // the directory stream owns it now
    std::vector<std::string> names;
    errno = 0;
    while (const dirent* entry = readdir(directory)) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") {
            names.push_back(name);
        }
    }
    const int error = errno;
    closedir(directory);
    if (error != 0) {
        throw systemError("RootView::list: readdir " + insideDirectory, error);
    }
    std::sort(names.begin(), names.end());
    return names;
}

} // namespace Sandbox
