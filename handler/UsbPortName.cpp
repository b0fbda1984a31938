#include "handler/UsbPortName.h"

namespace {

// The one digit reader of the grammar; false, and the cursor unmoved, when
// no digit is there.
bool readNumber(const char*& cursor, uint32_t& value)
{
    if (*cursor < '0' || *cursor > '9') {
        return false;
    }
    value = 0;
    for (; *cursor >= '0' && *cursor <= '9'; ++cursor) {
        value = value * 10U + static_cast<uint32_t>(*cursor - '0');
    }
    return true;
}

} // namespace

HubAndPort parseHubAndPortName(const char* text)
{
    HubAndPort parsed;
    const char* cursor = text;
    uint32_t rootPort = 0; // checked, not kept
    if (!readNumber(cursor, parsed.hub) || *cursor != '-') {
        parsed.refusal = "Unable to parse the hub number";
    } else if (!readNumber(++cursor, rootPort) || *cursor != '.') {
        parsed.refusal = "Unable to parse the second number";
    } else if (!readNumber(++cursor, parsed.port) || (*cursor != '\0' && *cursor != ':')) {
        parsed.refusal = "Unable to parse the port number";
    }
    parsed.end = cursor;
    return parsed;
}

InterfaceSuffixRefusal parseInterfaceSuffix(const char* text, uint32_t& interfaceNumber)
{
    const char* cursor = text;
    uint32_t configuration = 0; // checked, not kept
    if (!readNumber(cursor, configuration) || *cursor != '.') {
        return InterfaceSuffixRefusal::ConfigurationNumber;
    }
    if (!readNumber(++cursor, interfaceNumber) || *cursor != '\0') {
        return InterfaceSuffixRefusal::InterfaceNumber;
    }
    return InterfaceSuffixRefusal::None;
}
