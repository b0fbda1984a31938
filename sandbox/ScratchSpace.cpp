#include "sandbox/ScratchSpace.h"

#include "sandbox/Namespaces.h"
#include "sandbox/SystemError.h"
#include "sandbox/UniqueFd.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Sandbox {

namespace {

const std::string kind = "dhh-scratch-";

// A folder of our kind whose lock nobody holds belongs to a process that
// died; rmdir leaves it alone should it hold anything.
void removeStale(const std::string& parent)
{
    DIR* folder = opendir(parent.c_str());
    if (folder == nullptr) {
        return;
    }
    while (const dirent* entry = readdir(folder)) {
        const std::string name = entry->d_name;
        if (name.compare(0, kind.size(), kind) != 0) {
            continue;
        }
        const std::string path = parent + "/" + name;
        const UniqueFd fd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (fd.valid() && flock(fd.get(), LOCK_EX | LOCK_NB) == 0) {
            rmdir(path.c_str());
        }
    }
    closedir(folder);
}

bool sameFile(const std::string& path, int fd)
{
    struct stat byPath {};
    struct stat byFd {};
    return stat(path.c_str(), &byPath) == 0 && fstat(fd, &byFd) == 0 &&
           byPath.st_dev == byFd.st_dev && byPath.st_ino == byFd.st_ino;
}

class Folder {
public:
    Folder()
    {
        Namespaces::enterPrivateMountNamespace();
        const std::string parent = ScratchSpace::parentDirectory();
        removeStale(parent);
        // Another process's clean-up may take the folder before it is locked: then again.
        for (int attempt = 0; attempt < 16 && !lock.valid(); ++attempt) {
            std::string name = parent + "/" + kind + "XXXXXX";
            if (mkdtemp(name.data()) == nullptr) {
                throw systemError("ScratchSpace: mkdtemp " + name);
            }
            UniqueFd fd(open(name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
            if (fd.valid() && flock(fd.get(), LOCK_EX) == 0 && sameFile(name, fd.get())) {
                lock = std::move(fd);
                path = name;
            }
        }
        if (!lock.valid()) {
            throw std::runtime_error("ScratchSpace: no folder of its own in " + parent);
        }
        if (mount("dhh-scratch", path.c_str(), "tmpfs", 0, "mode=0755") != 0) {
            const int error = errno;
            rmdir(path.c_str());
            throw systemError("ScratchSpace: mount tmpfs on " + path, error);
        }
    }
    ~Folder()
    {
        if (umount2(path.c_str(), MNT_DETACH) != 0 || rmdir(path.c_str()) != 0) {
            warnSystemError("ScratchSpace: removing " + path);
        }
    }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    std::string path;

private:
    UniqueFd lock; // held for the process's life: the folder is in use
};

} // namespace

std::string ScratchSpace::parentDirectory()
{
    const char* chosen = std::getenv("TMPDIR");
    struct stat status {};
    if (chosen != nullptr && chosen[0] == '/' && stat(chosen, &status) == 0 &&
        S_ISDIR(status.st_mode)) {
        return chosen;
    }
    return "/tmp";
}

const std::string& ScratchSpace::directory()
{
    static const Folder folder;
    return folder.path;
}

std::string ScratchSpace::makeDirectory(const std::string& name)
{
    std::string path = directory() + "/" + name + "-XXXXXX";
    if (mkdtemp(path.data()) == nullptr) {
        throw systemError("ScratchSpace: mkdtemp " + path);
    }
    return path;
}

} // namespace Sandbox
