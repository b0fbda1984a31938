// Reads a capture back into records: hotplug_capture's own files and plain
// "udevadm monitor --kernel --property" output as people paste it into reports.
// udev's own records (UDEV [...]) and lines outside any record are skipped;
// what cannot be read is refused with the line, never guessed at.
#pragma once

#include "capture/CaptureRecord.h"

#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

namespace Capture {

class CaptureFormatError : public std::runtime_error {
public:
    CaptureFormatError(size_t line, std::string lineText, const std::string& message);
    size_t line() const { return number; }
    const std::string& lineText() const { return text; }

private:
    size_t number;
    std::string text;
};

class CaptureReader {
public:
    // Every record in order. udevadm's form (DEVNAME with "/dev/", MAJOR and
    // MINOR moved behind SEQNUM) is turned back into the kernel's datagram.
    // Throws CaptureFormatError for a header that does not parse, an entry
    // without "=", a record cut short (without the keys every uevent has) or
    // a sysfs path outside /sys. A paste quoted as mail quotes ("> " before
    // every line) is unquoted, and outside hotplug_capture's own files the
    // blanks that pasting leaves at line ends are dropped; a last record cut
    // off in the middle is left out; notes, when given, says so for the user.
    static std::vector<CaptureRecord> read(const std::string& text,
                                           std::vector<std::string>* notes = nullptr);
    // Whether the line opens a KERNEL record or one of udev's UDEV records.
    static bool startsRecord(const std::string& line);
};

// An absolute path without empty, "." or ".." components: one a capture may
// name without leading a replay out of the tree it lays down.
bool isPlainPath(const std::string& path);

} // namespace Capture
