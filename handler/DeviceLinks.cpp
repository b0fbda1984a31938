// Hub-and-port device links: /ravo500/devs/usbH-P/usbdev for a whole USB
// device and .../uartN for interface N of a USB serial adapter.
#include "handler/HotplugHandlerThread.h"

#include "handler/UsbPortName.h"

#include <cerrno>
#include <cstdio>
#include <sys/stat.h>
#include <unistd.h>

bool HotplugHandlerThread::parseHubAndPort(const char* text, uint32_t& hub, uint32_t& port,
                                           const char** end)
{
    const HubAndPort parsed = parseHubAndPortName(text);
    if (end != nullptr) {
        *end = parsed.end;
    }
    if (parsed.refusal != nullptr) {
        logger.warn() << parsed.refusal << " (string = " << text << ")" << std::endl;
        return false;
    }
    hub = parsed.hub;
    port = parsed.port;
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
    struct stat status {};
    if (lstat(linkPath, &status) == 0) {
        // Whatever is there goes: an add always replaces, a remove always deletes.
        logger.debug() << "Remove link: " << linkPath << std::endl;
        if (unlink(linkPath) != 0) {
            reportFailure("handleLink", "unlink", errno);
            return;
        }
    } else if (errno != ENOENT) {
        reportFailure("handleLink", "lstat", errno);
        return;
    }
    if (action == HotplugAction::Add) {
        const std::string target = "/dev/" + deviceName;
        logger.debug() << "Create link: " << linkPath << " -> " << target << std::endl;
        if (symlink(target.c_str(), linkPath) != 0) {
            reportFailure("handleLink", "symlink", errno);
        }
    }
}
