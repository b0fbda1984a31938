#include "common/file/BinaryFile.h"

#include "common/exceptions/RavoException.h"
#include "common/file/FileUtil.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using Common::Exceptions::RavoException;

static_assert(sizeof(off_t) == sizeof(int64_t), "BinaryFile needs 64-bit file offsets");

BinaryFile::BinaryFile(const std::string& filePath) : path(filePath) {}

BinaryFile::~BinaryFile()
{
    closeFile();
}

void BinaryFile::openFile(int flags, mode_t mode)
{
    if (descriptor != -1) {
        return;
    }
    if (path.empty()) {
        throw RavoException("BinaryFile", "openFile", "No valid file path set");
    }
    descriptor = open(path.c_str(), flags, mode);
    if (descriptor == -1) {
        const int error = errno;
        throw RavoException("BinaryFile", "openFile", "open", error);
    }
}

void BinaryFile::closeFile()
{
    if (descriptor != -1) {
        // Nothing sensible to do about a failing close: the descriptor is gone either way.
        close(descriptor);
        descriptor = -1;
    }
}

int64_t BinaryFile::getFileSize()
{
    struct stat status {};
    if (fstat(descriptor, &status) == -1) {
        const int error = errno;
        throw RavoException("BinaryFile", "getFileSize", "fstat", error);
    }
    if (status.st_size < 0) {
        throw RavoException("BinaryFile", "getFileSize", "Negative file size");
    }
    return status.st_size;
}

int64_t BinaryFile::setFileOffset(int64_t offset)
{
    const off_t result = lseek(descriptor, offset, SEEK_SET);
    if (result == -1) {
        const int error = errno;
        // "lssek" is the call name the record has always carried; kept on purpose.
        throw RavoException("BinaryFile", "setFileOffset", "lssek", error);
    }
    return result;
}

void BinaryFile::writeData(const uint8_t* data, uint32_t length)
{
    uint32_t written = 0;
    while (written < length) {
        const ssize_t result = write(descriptor, data + written, length - written);
        if (result == -1) {
            const int error = errno;
            if (error == EINTR) {
                continue;
            }
            throw RavoException("BinaryFile", "writeData", "write", error);
        }
        written += static_cast<uint32_t>(result);
    }
}

uint32_t BinaryFile::readData(uint8_t* buffer, uint32_t length)
{
    uint32_t done = 0;
    while (done < length) {
        const ssize_t result = read(descriptor, buffer + done, length - done);
        if (result == -1) {
            const int error = errno;
            if (error == EINTR) {
                continue;
            }
            throw RavoException("BinaryFile", "readData", "read", error);
        }
        if (result == 0) {
            break;
        }
        done += static_cast<uint32_t>(result);
    }
    return done;
}

void BinaryFile::syncFile()
{
    if (fsync(descriptor) == -1) {
        const int error = errno;
        throw RavoException("BinaryFile", "syncFile", "fsync", error);
    }
    FileUtil::syncDirectory(FileUtil::getDirectoryName(path));
}

void BinaryFile::removeFile()
{
    closeFile();
    if (!path.empty()) {
        // Best effort by contract: a file that is already gone is fine.
        unlink(path.c_str());
    }
}
