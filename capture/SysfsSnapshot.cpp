#include "capture/SysfsSnapshot.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Capture {

namespace {

CaptureRecord comment(const std::string& text)
{
    CaptureRecord record;
    record.data = text;
    return record;
}

CaptureRecord failure(const std::string& path, int error)
{
    return comment(path + ": " + std::strerror(error));
}

void addFile(const std::string& path, std::vector<CaptureRecord>& records)
{
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        records.push_back(failure(path, errno));
        return;
    }
    CaptureRecord record;
    record.kind = CaptureRecord::Kind::SysfsFile;
    record.path = path;
    char buffer[4096];
    ssize_t length = 0;
    while ((length = read(fd, buffer, sizeof(buffer))) > 0) {
        record.data.append(buffer, static_cast<size_t>(length));
    }
    const int error = errno;
    close(fd);
    records.push_back(length < 0 ? failure(path, error) : record);
}

// The link, then the files behind it that the daemon reads; returns the
// device directory the link leads to, "" when it cannot be followed.
std::string addLink(const std::string& path, std::vector<CaptureRecord>& records)
{
    char target[PATH_MAX];
    const ssize_t length = readlink(path.c_str(), target, sizeof(target) - 1);
    if (length < 0) {
        records.push_back(failure(path, errno));
        return "";
    }
    CaptureRecord record;
    record.kind = CaptureRecord::Kind::SysfsLink;
    record.path = path;
    record.data.assign(target, static_cast<size_t>(length));
    records.push_back(record);
    char resolved[PATH_MAX];
    if (realpath(path.c_str(), resolved) == nullptr) {
        records.push_back(failure(path, errno));
        return "";
    }
    return resolved;
}

std::vector<std::string> linkNames(const std::string& directory,
                                   std::vector<CaptureRecord>& records)
{
    std::vector<std::string> names;
    DIR* stream = opendir(directory.c_str());
    if (stream == nullptr) {
        records.push_back(failure(directory, errno));
        return names;
    }
    while (const dirent* entry = readdir(stream)) {
        struct stat status {};
        const std::string path = directory + "/" + entry->d_name;
        if (lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode)) {
            names.emplace_back(entry->d_name);
        }
    }
    closedir(stream);
    std::sort(names.begin(), names.end());
    return names;
}

} // namespace

std::vector<CaptureRecord> SysfsSnapshot::startupScan()
{
    std::vector<CaptureRecord> records;
    for (const char* directory : {"/sys/dev/block", "/sys/dev/char", "/sys/class/net"}) {
        const bool net = std::strcmp(directory, "/sys/class/net") == 0;
        for (const auto& name : linkNames(directory, records)) {
            const std::string device = addLink(std::string(directory) + "/" + name, records);
            if (!device.empty()) {
                addFile(device + "/uevent", records);
                if (net) {
                    addFile(device + "/address", records);
                }
            }
        }
    }
    return records;
}

std::vector<CaptureRecord> SysfsSnapshot::netInterface(const std::string& name)
{
    std::vector<CaptureRecord> records;
    if (name.empty() || name.find('/') != std::string::npos || name == "." || name == "..") {
        return records;
    }
    const std::string device = addLink("/sys/class/net/" + name, records);
    if (!device.empty()) {
        addFile(device + "/address", records);
    }
    return records;
}

CaptureRecord SysfsSnapshot::procFilesystems()
{
    std::vector<CaptureRecord> records;
    addFile("/proc/filesystems", records);
    CaptureRecord record = records.back();
    if (record.kind == CaptureRecord::Kind::SysfsFile) {
        record.kind = CaptureRecord::Kind::Filesystems;
        record.path.clear();
    }
    return record;
}

} // namespace Capture
