// USB devices and USB serial adapters on a hub port: their hub and port come
// from the device path, and their links follow the events.
#include "handler/HotplugHandlerThread.h"

#include "common/file/FileUtil.h"

namespace {

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

} // namespace

void HotplugHandlerThread::handleUsbDeviceEvent(const HotplugEvent& event)
{
    const std::string component = FileUtil::getFileName(event.devPath);
    if (component.find('.') == std::string::npos) {
        // Root hubs (usb1) and devices straight on a root port (1-1).
        logger.info() << "USB device is not a device connected to one of the hubs: "
                      << event.deviceName << " @ " << event.devPath << std::endl;
        return;
    }
    uint32_t hub = 0;
    uint32_t port = 0;
    if (!parseHubAndPort(component.c_str(), hub, port)) {
        logger.debug() << "usbdevice: Parsing error with DEVPATH = " << event.devPath << std::endl;
        return;
    }
    if (event.action == HotplugAction::Add) {
        logger.debug() << "New USB device found at hub " << hub << " port " << port << " and /dev/"
                       << event.deviceName << std::endl;
    } else {
        logger.debug() << "USB device removed from hub " << hub << " port " << port << " and /dev/"
                       << event.deviceName << std::endl;
    }
    handleLink(event.action, false, hub, port, 0, event.deviceName);
}

void HotplugHandlerThread::handleUsbTtyEvent(HotplugEvent& event)
{
    uint32_t hub = 0;
    uint32_t port = 0;
    uint32_t uartNumber = 0;
    if (!parseTtyDevPath(event.devPath, hub, port, uartNumber)) {
        return;
    }
    if (event.action == HotplugAction::Add) {
        logger.debug() << "New USB TTY device found at hub " << hub << " port " << port
                       << " with UART num " << uartNumber << " and /dev/" << event.deviceName
                       << std::endl;
    } else {
        logger.debug() << "USB TTY device removed from hub " << hub << " port " << port
                       << " with UART num " << uartNumber << " and /dev/" << event.deviceName
                       << std::endl;
    }
    handleLink(event.action, true, hub, port, static_cast<int32_t>(uartNumber), event.deviceName);
}

bool HotplugHandlerThread::parseTtyDevPath(std::string& devPath, uint32_t& hub, uint32_t& port,
                                           uint32_t& uartNumber)
{
    const auto ttyStart = devPath.find("/ttyUSB");
    if (ttyStart == std::string::npos) {
        logger.warn() << "tty: Unexpected device path: " << devPath << std::endl;
        return false;
    }
    // What is left ends in the interface directory, e.g. .../1-1.3/1-1.3:1.0.
    devPath.erase(ttyStart);
    return parseTtyInterface(FileUtil::getFileName(devPath), devPath, hub, port, uartNumber);
}

bool HotplugHandlerThread::parseTtyInterface(const std::string& component,
                                             const std::string& devPath, uint32_t& hub,
                                             uint32_t& port, uint32_t& uartNumber)
{
    const char* cursor = nullptr;
    if (!parseHubAndPort(component.c_str(), hub, port, &cursor) || *cursor != ':') {
        logger.debug() << "tty: Parsing error with DEVPATH = " << devPath << std::endl;
        return false;
    }
    // ":" configuration "." interface: the configuration number is not kept.
    ++cursor;
    if (!isDigit(*cursor)) {
        cursor = nullptr;
    } else {
        while (isDigit(*cursor)) {
            ++cursor;
        }
        if (*cursor != '.') {
            cursor = nullptr;
        }
    }
    if (cursor == nullptr) {
        logger.debug() << "tty: Parsing the 4th number failed (string = " << component
                       << " DEVPATH = " << devPath << ")" << std::endl;
        return false;
    }
    ++cursor;
    uartNumber = 0;
    bool uartValid = isDigit(*cursor);
    while (isDigit(*cursor)) {
        uartNumber = uartNumber * 10U + static_cast<uint32_t>(*cursor - '0');
        ++cursor;
    }
    uartValid = uartValid && *cursor == '\0';
    if (!uartValid) {
        logger.debug() << "tty: Parsing the UART number failed (string = " << component
                       << " DEVPATH = " << devPath << ")" << std::endl;
        return false;
    }
    return true;
}
