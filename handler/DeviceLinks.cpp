// Hub-and-port device links: /ravo500/devs/usbH-P/usbdev for a whole USB
// device and .../uartN for interface N of a USB serial adapter.
#include "handler/HotplugHandlerThread.h"

#include "common/exceptions/RavoException.h"

#include <cerrno>
#include <cstdio>
#include <sys/stat.h>
#include <unistd.h>

using Common::Exceptions::RavoException;

namespace {

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

// Reads a run of decimal digits; an absurdly long run wraps, it is not an error.
uint32_t readNumber(const char*& cursor)
{
    uint32_t value = 0;
    while (isDigit(*cursor)) {
        value = value * 10U + static_cast<uint32_t>(*cursor - '0');
        ++cursor;
    }
    return value;
}

} // namespace

bool HotplugHandlerThread::parseHubAndPort(const char* text, uint32_t& hub, uint32_t& port,
                                           const char** end)
{
    const char* cursor = text;
    const char* reason = nullptr;
    // Grammar: hub "-" second "." port, then the end of the text or ":".
    if (!isDigit(*cursor)) {
        reason = "Unable to parse the hub number";
    } else {
        hub = readNumber(cursor);
        if (*cursor != '-') {
            reason = "Unable to parse the hub number";
        } else if (!isDigit(*++cursor)) {
            reason = "Unable to parse the second number";
        } else {
            readNumber(cursor); // the root-hub port: checked, not kept
            if (*cursor != '.') {
                reason = "Unable to parse the second number";
            } else if (!isDigit(*++cursor)) {
                reason = "Unable to parse the port number";
            } else {
                port = readNumber(cursor);
                if (*cursor != '\0' && *cursor != ':') {
                    reason = "Unable to parse the port number";
                }
            }
        }
    }
    if (end != nullptr) {
        *end = cursor;
    }
    if (reason != nullptr) {
        logger.warn() << reason << " (string = " << text << ")" << std::endl;
        return false;
    }
    return true;
}

void HotplugHandlerThread::handleLink(HotplugAction action, bool isUart, uint32_t hub,
                                      uint32_t port, int32_t uartNumber,
                                      const std::string& deviceName)
{
    // Both forms fit with room to spare, whatever the numbers: never truncated.
    char linkPath[256];
    if (isUart) {
        static_cast<void>(std::snprintf(linkPath, sizeof(linkPath), "%s%u-%u/uart%d",
                                        "/ravo500/devs/usb", hub, port, uartNumber));
    } else {
        static_cast<void>(std::snprintf(linkPath, sizeof(linkPath), "%s%u-%u/usbdev",
                                        "/ravo500/devs/usb", hub, port));
    }
    const std::string target = "/dev/" + deviceName;
    try {
        struct stat status {};
        if (lstat(linkPath, &status) == 0) {
            // Whatever is there goes: an add always replaces, a remove always deletes.
            logger.debug() << "Remove link: " << linkPath << std::endl;
            if (unlink(linkPath) != 0) {
                const int error = errno;
                throw RavoException("HotplugHandlerThread", "handleLink", "unlink", error);
            }
        } else {
            const int error = errno;
            if (error != ENOENT) {
                throw RavoException("HotplugHandlerThread", "handleLink", "lstat", error);
            }
        }
        if (action == HotplugAction::Add) {
            logger.debug() << "Create link: " << linkPath << " -> " << target << std::endl;
            if (symlink(target.c_str(), linkPath) != 0) {
                const int error = errno;
                throw RavoException("HotplugHandlerThread", "handleLink", "symlink", error);
            }
        }
    } catch (const RavoException& exception) {
        logger.error() << exception << std::endl;
    }
}
