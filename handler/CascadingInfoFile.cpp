// The USB Ethernet adapter on the cascading port (port 6 of a hub on bus 1) is
// announced by a one-line info file: MAC "%" interface.
#include "handler/HotplugHandlerThread.h"

#include "daemon/HotplugPaths.h"

#include <fstream>
#include <unistd.h>

void HotplugHandlerThread::handleEthernetEvent(const HotplugEvent& event)
{
    if (usbEthernetRegex.matches(event.devPath)) {
        handleCascadingInfoFile(event.action, event.deviceName);
    } else {
        logger.info() << "Ethernet device " << event.deviceName
                      << " is not a USB ethernet device or not connected to the correct USB port"
                      << std::endl;
    }
}

void HotplugHandlerThread::handleCascadingInfoFile(HotplugAction action,
                                                   const std::string& interfaceName)
{
    if (action != HotplugAction::Add) {
        logger.info() << "USB ethernet device disappeared - delete the info file" << std::endl;
        // A missing file is the wanted outcome; any other failure has no remedy here.
        static_cast<void>(unlink(cascadingInfoFilePath.c_str()));
        return;
    }
    const std::string addressPath = "/sys/class/net/" + interfaceName + "/address";
    std::string mac;
    {
        std::ifstream address(addressPath);
        if (!address.is_open()) {
            logger.warn() << "File doesn't exist: " << addressPath << std::endl;
            return;
        }
        if (!std::getline(address, mac)) {
            logger.warn() << "Error reading the MAC address from: " << addressPath << std::endl;
            return;
        }
    }
    logger.info() << "Create cascading info file with: " << mac << "%" << interfaceName
                  << std::endl;
    std::ofstream info(cascadingInfoFilePath, std::ios::out | std::ios::trunc);
    if (!info.is_open()) {
        logger.error() << "Error creating the cascading info file: " << cascadingInfoFilePath
                       << std::endl;
        return;
    }
    info << mac << "%" << interfaceName << "\n";
    info.flush();
    info.close();
}
