// The daemon's worker thread: takes decoded hotplug events off its queue one at
// a time and brings the device's world in step (mounts, device links, the
// cascading info file); walks sysfs once at start for devices already present.
// All device work runs here, never on the listener's thread.
#pragma once

#include "Osal/OsalThread.h"
#include "Osal/commonCppOsalLinux/cpp/OsalBinaryMutex.h"
#include "Osal/commonCppOsalLinux/cpp/OsalBinarySemaphore.h"
#include "common/logging/Logger.h"
#include "daemon/HotplugEvent.h"
#include "handler/CompiledPattern.h"

#include <cstdint>
#include <deque>
#include <list>
#include <memory>
#include <string>

class HotplugHandlerThread : public Halvern::CommonCpp::Osal::OsalThread {
public:
    using EventPtr = std::unique_ptr<HotplugEvent>;

    // What the thread makes of the scheduling it inherits from the listener,
    // which decides it before the start.
    enum class Scheduling {
        AsInherited,  // the integrator chose the daemon's scheduling
        Ordinary,     // back to the ordinary policy under a real-time listener
        BelowListener // a higher nice value, as the listener could not be raised
    };

    HotplugHandlerThread();
    ~HotplugHandlerThread() override;
    HotplugHandlerThread(const HotplugHandlerThread&) = delete;
    HotplugHandlerThread& operator=(const HotplugHandlerThread&) = delete;

    // Listener's thread: the queue takes ownership.
    void pushEvent(HotplugEvent* event);
    // Listener's thread, before start().
    void setScheduling(Scheduling chosen) { scheduling = chosen; }

    // The thread body: init, the start-up scan, then the event loop.
    void run() override;

    // The operations below run on the handler thread.
    void init();
    bool processNextEvent();
    void dispatchEvent(const EventPtr& event);
    void cleanUp();

    // Start-up scan.
    void searchExistingDevices(const std::string& directory);
    void handleSysfsLink(const std::string& entryPath);
    void handleExistingDevice(HotplugDeviceType type, const char* devicePath);
    void readDevName(const std::string& ueventPath, std::string& deviceName);

    // Disc partitions.
    void handleBlockDevPartionEvent(const EventPtr& event);

    // Hub-and-port links.
    bool parseHubAndPort(const char* text, uint32_t& hub, uint32_t& port,
                         const char** end = nullptr);
    void handleLink(HotplugAction action, bool isUart, uint32_t hub, uint32_t port,
                    int32_t uartNumber, const std::string& deviceName);

    // USB devices and USB serial adapters.
    void handleUsbDeviceEvent(const HotplugEvent& event);
    void handleUsbTtyEvent(HotplugEvent& event);

    // USB Ethernet adapter on the cascading port.
    void handleEthernetEvent(const HotplugEvent& event);
    void handleCascadingInfoFile(HotplugAction action, const std::string& interfaceName);

private:
    void applyScheduling();
    void waitForEvents();
    static void acceptStop();
    // The one way the handlers report a failed system call: one Error record
    // with the exception's text; the handler then returns.
    void reportFailure(const char* method, const char* call, int error);

    std::deque<EventPtr> eventQueue; // owns the events it holds
    uint32_t handledSinceTrim = 0;   // events taken from the queue since memory went back
    Scheduling scheduling = Scheduling::AsInherited;
    Halvern::CommonCpp::Osal::OsalBinaryMutex queueMutex;
    Halvern::CommonCpp::Osal::OsalBinarySemaphore eventSemaphore;
    std::list<std::string> supportedFileSystems;
    CompiledPattern ttyUsbRegex;
    CompiledPattern usbDeviceRegex;
    CompiledPattern discPartitionRegex;
    CompiledPattern usbEthernetRegex;
    Common::Logging::Logger logger;
};
