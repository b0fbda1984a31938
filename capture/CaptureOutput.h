// Where a capture goes: standard output, a file or a device, whole records in
// one write each, so that a capture cut off by a power loss ends on a record.
// Writing to a file, room for the closing line is taken ahead of every record
// where the file system can reserve it, so a full disk ends the file on its
// last whole record and a line saying why. Knows nothing of the records.
#pragma once

#include <string>
#include <system_error>

namespace Capture {

class CaptureOutput {
public:
    // Room kept for the closing lines (a LOST line and the end).
    static constexpr unsigned long closingBytes = 512;

    // A failed write: nothing of the text is left in the file.
    class WriteFailed : public std::system_error {
    public:
        using std::system_error::system_error;
    };

    // "" writes to standard output. Throws std::system_error.
    explicit CaptureOutput(const std::string& path);
    ~CaptureOutput();
    CaptureOutput(const CaptureOutput&) = delete;
    CaptureOutput& operator=(const CaptureOutput&) = delete;

    // Throws WriteFailed.
    void write(const std::string& text);
    // The last line, into the room kept for it; false when even that failed.
    bool writeClosing(const std::string& text) noexcept;
    unsigned long bytes() const { return written; }
    // Throws std::system_error when the data cannot be made durable.
    void finish();

private:
    int fd;
    bool regularFile = false;
    bool reserving = false; // the file system reserves room ahead (fallocate)
    unsigned long written = 0;

    int writeAll(const std::string& text) noexcept; // 0 or errno
};

} // namespace Capture
