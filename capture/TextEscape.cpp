#include "capture/TextEscape.h"

namespace Capture {

namespace {

bool mustEscape(unsigned char byte, bool blankToo)
{
    return byte < 0x20 || byte >= 0x7f || byte == '\\' || (blankToo && byte == ' ');
}

std::string escape(const std::string& bytes, bool blankToo)
{
    std::string text;
    text.reserve(bytes.size());
    for (const char character : bytes) {
        if (mustEscape(static_cast<unsigned char>(character), blankToo)) {
            text += TextEscape::byte(character);
        } else {
            text += character;
        }
    }
    return text;
}

int hexDigit(char character)
{
    if (character >= '0' && character <= '9') {
        return character - '0';
    }
    if (character >= 'a' && character <= 'f') {
        return character - 'a' + 10;
    }
    if (character >= 'A' && character <= 'F') {
        return character - 'A' + 10;
    }
    return -1;
}

} // namespace

std::string TextEscape::byte(char character)
{
    static const char digits[] = "0123456789abcdef";
    const auto code = static_cast<unsigned char>(character);
    return {'\\', 'x', digits[code >> 4U], digits[code & 0xfU]};
}

std::string TextEscape::value(const std::string& bytes)
{
    return escape(bytes, false);
}

std::string TextEscape::field(const std::string& bytes)
{
    return escape(bytes, true);
}

std::string TextEscape::decode(const std::string& text)
{
    std::string bytes;
    bytes.reserve(text.size());
    for (size_t at = 0; at < text.size(); ++at) {
        if (text[at] == '\\' && at + 3 < text.size() && text[at + 1] == 'x') {
            const int high = hexDigit(text[at + 2]);
            const int low = hexDigit(text[at + 3]);
            if (high >= 0 && low >= 0) {
                bytes += static_cast<char>(high * 16 + low);
                at += 3;
                continue;
            }
        }
        bytes += text[at];
    }
    return bytes;
}

} // namespace Capture
