#include "common/file/FileUtil.h"

#include "common/container/ByteArray.h"
#include "common/exceptions/RavoException.h"
#include "common/file/BinaryFile.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <stdlib.h>
#include <unistd.h>

using Common::Exceptions::RavoException;

namespace {

constexpr int moveAttempts = 5;
constexpr useconds_t moveSleepUs = 100000;
constexpr uint32_t blockSize = 1024;

struct DirectoryCloser {
    void operator()(DIR* directory) const { closedir(directory); }
};
using DirectoryStream = std::unique_ptr<DIR, DirectoryCloser>;

} // namespace

void FileUtil::createTmpFile(std::string& path)
{
    path = path.empty() ? std::string("/tmp/tmpfile.XXXXXX") : path + ".tmp.XXXXXX";
    // mkstemp() fills in the X characters of the string's own buffer.
    const int fd = mkstemp(path.data());
    if (fd == -1) {
        const int error = errno;
        throw RavoException("FileUtil", "createTmpFile", "mkstemp", error);
    }
    // Only the name is wanted; nothing was written, so nothing can be lost here.
    close(fd);
}

void FileUtil::moveFile(const std::string& source, const std::string& destination)
{
    if (source.empty()) {
        throw RavoException("FileUtil", "moveFile", "Source file name empty!");
    }
    if (destination.empty()) {
        throw RavoException("FileUtil", "moveFile", "Destination file name empty!");
    }
    for (int attempt = 0; attempt < moveAttempts; ++attempt) {
        const int result = rename(source.c_str(), destination.c_str());
        const int error = errno;
        // The pause also follows success: callers count on the move having settled.
        if (result == 0) {
            usleep(moveSleepUs);
            return;
        }
        if (error != EBUSY) {
            throw RavoException("FileUtil", "moveFile", "rename", error);
        }
        usleep(moveSleepUs);
    }
    throw RavoException("FileUtil", "moveFile", "retried rename", EBUSY);
}

void FileUtil::syncDirectory(const std::string& directory)
{
    const DirectoryStream stream(opendir(directory.c_str()));
    if (!stream) {
        const int error = errno;
        throw RavoException("FileUtil", "syncDirectory", "opendir", error);
    }
    const int fd = dirfd(stream.get());
    if (fd == -1) {
        const int error = errno;
        throw RavoException("FileUtil", "syncDirectory", "dirfd", error);
    }
    if (fsync(fd) == -1) {
        const int error = errno;
        throw RavoException("FileUtil", "syncDirectory", "fsync", error);
    }
}

void FileUtil::copyFile(const std::string& source, const std::string& destination)
{
    if (source == destination) {
        return;
    }
    BinaryFile input(source);
    input.openFile(O_RDONLY, 0);
    BinaryFile output(destination);
    output.openFile(O_RDWR | O_CREAT | O_TRUNC, 0644);

    Common::Container::ByteArray buffer;
    uint8_t* const block = buffer.resize(blockSize);
    if (block == nullptr) {
        throw RavoException("FileUtil", "copyFile",
                            "Error creating the buffer for copying the file");
    }
    uint32_t count = 0;
    do {
        count = input.readData(block, blockSize);
        output.writeData(block, count);
    } while (count != 0);
    output.syncFile();
}

bool FileUtil::compareFiles(const std::string& first, const std::string& second)
{
    try {
        BinaryFile fileA(first);
        fileA.openFile(O_RDONLY, 0);
        BinaryFile fileB(second);
        fileB.openFile(O_RDONLY, 0);

        uint8_t blockA[blockSize];
        uint8_t blockB[blockSize];
        for (;;) {
            const uint32_t countA = fileA.readData(blockA, blockSize);
            const uint32_t countB = fileB.readData(blockB, blockSize);
            if (countA != countB || std::memcmp(blockA, blockB, countA) != 0) {
                return false;
            }
            if (countA == 0) {
                return true;
            }
        }
    } catch (const RavoException&) {
        return false;
    }
}

std::string FileUtil::getDirectoryName(const std::string& path)
{
    const std::string::size_type slash = path.rfind('/');
    if (slash == std::string::npos) {
        return ".";
    }
    if (slash == 0) {
        return "/";
    }
    return path.substr(0, slash);
}

std::string FileUtil::getFileName(const std::string& path)
{
    const std::string::size_type slash = path.rfind('/');
    if (slash == std::string::npos) {
        return path;
    }
    return path.substr(slash + 1);
}
