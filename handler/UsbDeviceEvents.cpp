// USB devices and USB serial adapters on a hub port: their hub and port come
// from the device path, and their links follow the events.
#include "handler/HotplugHandlerThread.h"

#include "common/file/FileUtil.h"
#include "handler/UsbPortName.h"

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
    std::string& devPath = event.devPath;
    const auto ttyStart = devPath.find("/ttyUSB");
    if (ttyStart == std::string::npos) {
        logger.warn() << "tty: Unexpected device path: " << devPath << std::endl;
        return;
    }
    // What is left ends in the interface directory, e.g. .../1-1.3/1-1.3:1.0.
    devPath.erase(ttyStart);
    const std::string component = FileUtil::getFileName(devPath);
    uint32_t hub = 0;
    uint32_t port = 0;
    const char* suffix = nullptr;
    if (!parseHubAndPort(component.c_str(), hub, port, &suffix) || *suffix != ':') {
        logger.debug() << "tty: Parsing error with DEVPATH = " << devPath << std::endl;
        return;
    }
    uint32_t uartNumber = 0;
    switch (parseInterfaceSuffix(suffix + 1, uartNumber)) {
    case InterfaceSuffixRefusal::ConfigurationNumber:
        logger.debug() << "tty: Parsing the 4th number failed (string = " << component
                       << " DEVPATH = " << devPath << ")" << std::endl;
        return;
    case InterfaceSuffixRefusal::InterfaceNumber:
        logger.debug() << "tty: Parsing the UART number failed (string = " << component
                       << " DEVPATH = " << devPath << ")" << std::endl;
        return;
    case InterfaceSuffixRefusal::None:
        break;
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
