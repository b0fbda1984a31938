// device_hotplug_handler: keeps mounts, device links and the cascading info
// file in step with the USB equipment plugged into the device. No options;
// reports through syslog only; always exits 0 and relies on being restarted.
#include "common/exceptions/RavoException.h"
#include "common/logging/Logger.h"
#include "daemon/HotplugNetlink.h"

#include <exception>
#include <memory>

int main()
{
    Common::Logging::Logger::openSyslog("device_hotplug_handler");
    try {
        auto listener = std::make_unique<HotplugNetlink>();
        listener->run();
    } catch (const Common::Exceptions::RavoException& exception) {
        Common::Logging::Logger("main").error() << exception << std::endl;
    } catch (const std::exception& exception) {
        Common::Logging::Logger("main").error() << exception.what() << std::endl;
    } catch (...) {
        Common::Logging::Logger("main").error() << "Caught an unknown exception" << std::endl;
    }
    return 0;
}
