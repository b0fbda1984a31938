// Writes capture records in the text form of "udevadm monitor --kernel
// --property": a header line KERNEL[seconds.microseconds] ACTION DEVPATH
// (SUBSYSTEM), one KEY=VALUE line per string of the datagram in its order,
// an empty line. Bytes that would break a line are escaped (TextEscape), so
// the datagram can be rebuilt byte for byte; one the kernel would never send
// (no "@" in its first string, a string without "=", no final NUL...) becomes
// one RAW line instead. The other records are single lines of their own:
// LOST[...], SYSFS link PATH TARGET, SYSFS file PATH [CONTENT], "# " comments.
#pragma once

#include "capture/CaptureRecord.h"

#include <cstdint>
#include <string>

namespace Capture {

class CaptureWriter {
public:
    // The record's text, ending with its line feed (and the empty line that
    // closes a KERNEL record).
    static std::string format(const CaptureRecord& record);
    // The first line of a datagram's record: its KERNEL header, or its RAW line.
    static std::string headline(const CaptureRecord& record);
    // "seconds.microseconds", as udevadm prints its times.
    static std::string timeText(uint64_t timeUs);
};

} // namespace Capture
