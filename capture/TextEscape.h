// Turns bytes into text that keeps a capture record on one line and survives
// copying and pasting, and back again: every byte that could break a record
// becomes \xHH. Decoding is lenient on purpose: a backslash that does not start
// \xHH stands for itself, as it does in pasted udevadm output.
#pragma once

#include <string>

namespace Capture {

class TextEscape {
public:
    // For KEY=VALUE lines: control bytes, DEL, bytes above 0x7f and the backslash.
    static std::string value(const std::string& bytes);
    // For blank-separated fields: as value(), and the blank too.
    static std::string field(const std::string& bytes);
    // Any byte as \xHH.
    static std::string byte(char character);
    static std::string decode(const std::string& text);
};

} // namespace Capture
