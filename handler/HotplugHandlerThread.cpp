#include "handler/HotplugHandlerThread.h"

#include "Osal/commonCppOsalLinux/cpp/OsalLockAutomatically.h"
#include "common/exceptions/RavoException.h"

#include <cerrno>
#include <cstring>
#include <cxxabi.h>
#include <fstream>
#include <malloc.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <utility>

using Common::Exceptions::RavoException;
using Halvern::CommonCpp::Osal::OsalLockAutomatically;

namespace {

struct PatternEntry {
    CompiledPattern HotplugHandlerThread::*field;
    const char* pattern;
    const char* failureMessage;
};

// Lets a stop (a cancellation) take effect for the length of a scope; held
// off again afterwards.
class CancellationWindow {
public:
    CancellationWindow()
    {
        static_cast<void>(pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr));
    }
    ~CancellationWindow()
    {
        static_cast<void>(pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr));
    }
    CancellationWindow(const CancellationWindow&) = delete;
    CancellationWindow& operator=(const CancellationWindow&) = delete;
};

} // namespace

HotplugHandlerThread::HotplugHandlerThread()
    : OsalThread(), eventQueue(), queueMutex(), eventSemaphore(0), supportedFileSystems(),
      ttyUsbRegex(), usbDeviceRegex(), discPartitionRegex(), usbEthernetRegex(),
      logger("HotplugHandlerThread")
{
}

HotplugHandlerThread::~HotplugHandlerThread()
{
    cleanUp();
}

void HotplugHandlerThread::pushEvent(HotplugEvent* event)
{
    EventPtr owned(event);
    OsalLockAutomatically guard(queueMutex, -1);
    eventQueue.push_back(std::move(owned));
    // Signalled under the queue mutex: a wake-up never overtakes its event.
    eventSemaphore.unlock();
}

// The listener stops this thread by cancelling it, which takes effect only
// where nothing is half done: in the wait for events and between two events or
// two scanned entries (acceptStop). Elsewhere an unwind from a cancellation
// point (syslog, file streams, readdir) would cut a record, announce a link
// never made, or leave a destructor. A mount that hangs holds the stop.
// The sanitizer's null-reference check mistakes the binding of the unwind
// (abi::__forced_unwind, no exception object) for a fault: off here only.
__attribute__((no_sanitize("null"))) void HotplugHandlerThread::run()
{
    static_cast<void>(pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr));
    applyScheduling();
    try {
        init();
        searchExistingDevices("/sys/dev/block");
        searchExistingDevices("/sys/dev/char");
        searchExistingDevices("/sys/class/net");
        for (;;) {
            waitForEvents();
            // One wake-up may stand for several pushes: drain the whole queue.
            while (!processNextEvent()) {
                acceptStop();
            }
        }
    } catch (const RavoException& exception) {
        logger.error() << exception << std::endl;
        cleanUp();
        logger.debug() << "Thread terminated" << std::endl;
    } catch (abi::__forced_unwind&) {
        cleanUp();
        logger.debug() << "Thread terminated" << std::endl;
        throw;
    }
}

void HotplugHandlerThread::acceptStop()
{
    const CancellationWindow window;
    pthread_testcancel();
}

// A burst leaves the heap as large as the backlog was and the allocator keeps
// most of it. Once the burst has been quiet for a second the daemon hands it
// back, so that it returns to its idle footprint; small trickles of events
// never pay for that.
void HotplugHandlerThread::waitForEvents()
{
    constexpr uint32_t burstSize = 256;
    constexpr int32_t quietMs = 1000;
    if (handledSinceTrim >= burstSize) {
        {
            const CancellationWindow window;
            if (eventSemaphore.lock(quietMs)) {
                return;
            }
        }
        static_cast<void>(malloc_trim(0));
        handledSinceTrim = 0;
    }
    const CancellationWindow window;
    eventSemaphore.lock();
}

// Neither change can be refused (both give up priority), so a failure would
// only cost speed: logged, not fatal.
void HotplugHandlerThread::applyScheduling()
{
    if (scheduling == Scheduling::Ordinary) {
        const sched_param parameters{};
        const int error = pthread_setschedparam(pthread_self(), SCHED_OTHER, &parameters);
        if (error != 0) {
            logger.warn() << "Unable to give the handler thread the ordinary policy: "
                          << std::strerror(error) << std::endl;
        }
    } else if (scheduling == Scheduling::BelowListener) {
        constexpr int handlerNice = 10;
        if (setpriority(PRIO_PROCESS, 0, handlerNice) != 0) {
            const int error = errno;
            logger.warn() << "Unable to lower the handler thread's priority: "
                          << std::strerror(error) << std::endl;
        }
    }
}

void HotplugHandlerThread::init()
{
    static const PatternEntry patterns[] = {
        {&HotplugHandlerThread::ttyUsbRegex, "^.*/ttyUSB[0-9]+$",
         "Error compile the regular expression for ttyUSB devices: "},
        {&HotplugHandlerThread::usbDeviceRegex, "^.*/usb[0-9]+/.*/[0-9]+-[0-9]+\\.[0-9]+$",
         "Error compile the regular expression for USB devices: "},
        {&HotplugHandlerThread::discPartitionRegex, "^.*/block/sd[a-z]+/sd[a-z]+[0-9]+$",
         "Error compile the regular expression for disc partitions: "},
        {&HotplugHandlerThread::usbEthernetRegex, "^.*/usb[0-9]+/.*/1-[0-9]+\\.6/.*/net/eth[0-9]+$",
         "Error compile the regular expression for the USB ethernet device: "},
    };
    for (const auto& entry : patterns) {
        const int result = (this->*entry.field).compile(entry.pattern, REG_EXTENDED | REG_NOSUB);
        if (result != 0) {
            logger.error() << entry.failureMessage << result << std::endl;
        }
    }

    std::ifstream filesystems("/proc/filesystems");
    if (!filesystems.is_open()) {
        logger.error() << RavoException("HotplugHandlerThread", "init",
                                        "Error opening /proc/filesystems")
                       << std::endl;
        supportedFileSystems.insert(supportedFileSystems.end(), {"vfat", "ext4", "ext3", "ext2"});
        return;
    }
    std::ostream& record = logger.debug();
    record << "Mount supports the following filesystem types: ";
    bool skipNext = false;
    std::string word;
    while (filesystems >> word) {
        if (skipNext) {
            // The name after "nodev" is a file system without a device.
            skipNext = false;
        } else if (word == "nodev") {
            skipNext = true;
        } else {
            record << word << " ";
            if (word == "vfat") {
                supportedFileSystems.push_front(word);
            } else {
                supportedFileSystems.push_back(word);
            }
        }
    }
    record << std::endl;
}

bool HotplugHandlerThread::processNextEvent()
{
    EventPtr event;
    bool queueEmpty = false;
    {
        OsalLockAutomatically guard(queueMutex, -1);
        if (eventQueue.empty()) {
            return true;
        }
        event = std::move(eventQueue.front());
        eventQueue.pop_front();
        queueEmpty = eventQueue.empty();
    }
    // Handled outside the queue mutex so the listener can keep pushing.
    if (event) {
        ++handledSinceTrim;
        dispatchEvent(event);
    }
    return queueEmpty;
}

void HotplugHandlerThread::dispatchEvent(const EventPtr& event)
{
    switch (event->deviceType) {
    case HotplugDeviceType::UsbDevice:
        handleUsbDeviceEvent(*event);
        break;
    case HotplugDeviceType::UsbTty:
        handleUsbTtyEvent(*event);
        break;
    case HotplugDeviceType::DiscPartition:
        handleBlockDevPartionEvent(event);
        break;
    case HotplugDeviceType::UsbEthernet:
        handleEthernetEvent(*event);
        break;
    case HotplugDeviceType::None:
    default:
        logger.info() << "Event of an unsupported device type - skip it" << std::endl;
        break;
    }
}

void HotplugHandlerThread::reportFailure(const char* method, const char* call, int error)
{
    logger.error() << RavoException("HotplugHandlerThread", method, call, error) << std::endl;
}

void HotplugHandlerThread::cleanUp()
{
    OsalLockAutomatically guard(queueMutex, -1);
    while (!eventQueue.empty()) {
        eventQueue.pop_front();
    }
    ttyUsbRegex.release();
    usbDeviceRegex.release();
    discPartitionRegex.release();
    usbEthernetRegex.release();
}
