#include "capture/CaptureOutput.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Capture {

CaptureOutput::CaptureOutput(const std::string& path) : fd(STDOUT_FILENO)
{
    if (path.empty()) {
        return; // may append to a file with more in it: no truncating back there
    }
    fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        throw std::system_error(errno, std::generic_category(), "cannot open " + path);
    }
    struct stat status {};
    regularFile = fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
    reserving = regularFile;
}

CaptureOutput::~CaptureOutput()
{
    if (fd != STDOUT_FILENO) {
        close(fd);
    }
}

int CaptureOutput::writeAll(const std::string& text) noexcept
{
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t count = ::write(fd, text.data() + done, text.size() - done);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            const int error = count < 0 ? errno : EIO;
            // Back to the last whole record; a pipe keeps what it got.
            if (regularFile && ftruncate(fd, static_cast<off_t>(written)) == 0) {
                static_cast<void>(lseek(fd, static_cast<off_t>(written), SEEK_SET));
            }
            return error;
        }
        done += static_cast<size_t>(count);
    }
    written += text.size();
    return 0;
}

void CaptureOutput::write(const std::string& text)
{
    // The record's room and the closing line's, before the record goes out:
    // when the disk is full, the record stays out and the closing line still fits.
    if (reserving && fallocate(fd, FALLOC_FL_KEEP_SIZE, static_cast<off_t>(written),
                               static_cast<off_t>(text.size() + closingBytes)) != 0) {
        if (errno != EOPNOTSUPP && errno != ENOSYS) {
            throw WriteFailed(errno, std::generic_category(), "cannot write the capture");
        }
        reserving = false; // jffs2, ubifs...: a full disk may cost the closing line
    }
    const int error = writeAll(text);
    if (error != 0) {
        throw WriteFailed(error, std::generic_category(), "cannot write the capture");
    }
}

bool CaptureOutput::writeClosing(const std::string& text) noexcept
{
    return writeAll(text) == 0;
}

void CaptureOutput::finish()
{
    // EINVAL: a device or pipe (-o /dev/ttyS0), which has nothing to sync.
    if (fd != STDOUT_FILENO && fsync(fd) != 0 && errno != EINVAL) {
        throw std::system_error(errno, std::generic_category(), "fsync of the capture");
    }
}

} // namespace Capture
