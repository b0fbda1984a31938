#include "sandbox/Uevent.h"

#include <algorithm>
#include <atomic>

namespace Sandbox {

namespace {

std::string nextSequenceNumber()
{
    static std::atomic<unsigned long long> counter{1000};
    return std::to_string(counter++);
}

const std::string sequenceKey = "SEQNUM";

} // namespace

Uevent::Uevent(const std::string& action, const std::string& devpath)
    : header(action + "@" + devpath), pairs{{"ACTION", action}, {"DEVPATH", devpath}},
      sequenceNumber(nextSequenceNumber())
{
}

Uevent Uevent::partition(const std::string& action, const std::string& devpath,
                         const std::string& devname)
{
    Uevent event(action, devpath);
    event.set("SUBSYSTEM", "block").set("DEVNAME", devname).set("DEVTYPE", "partition");
    return event;
}

Uevent Uevent::disk(const std::string& action, const std::string& devpath,
                    const std::string& devname)
{
    Uevent event(action, devpath);
    event.set("SUBSYSTEM", "block").set("DEVNAME", devname).set("DEVTYPE", "disk");
    return event;
}

Uevent Uevent::usbDevice(const std::string& action, const std::string& devpath,
                         const std::string& devname)
{
    Uevent event(action, devpath);
    event.set("SUBSYSTEM", "usb").set("DEVNAME", devname).set("DEVTYPE", "usb_device");
    return event;
}

Uevent Uevent::ttyUsb(const std::string& action, const std::string& devpath,
                      const std::string& devname)
{
    Uevent event(action, devpath);
    event.set("SUBSYSTEM", "tty").set("DEVNAME", devname);
    return event;
}

Uevent Uevent::net(const std::string& action, const std::string& devpath,
                   const std::string& interface)
{
    Uevent event(action, devpath);
    event.set("SUBSYSTEM", "net").set("INTERFACE", interface);
    return event;
}

Uevent& Uevent::set(const std::string& key, const std::string& value)
{
    if (key == sequenceKey) {
        sequenceNumber = value;
        return *this;
    }
    const auto found = std::find_if(pairs.begin(), pairs.end(),
                                    [&key](const auto& pair) { return pair.first == key; });
    if (found == pairs.end()) {
        return append(key, value);
    }
    found->second = value;
    return *this;
}

Uevent& Uevent::append(const std::string& key, const std::string& value)
{
    pairs.emplace_back(key, value);
    return *this;
}

Uevent& Uevent::erase(const std::string& key)
{
    if (key == sequenceKey) {
        sequenceNumber.clear();
    }
    pairs.erase(std::remove_if(pairs.begin(), pairs.end(),
                               [&key](const auto& pair) { return pair.first == key; }),
                pairs.end());
    return *this;
}

std::string Uevent::datagram() const
{
    std::string bytes = header;
    bytes += '\0';
    for (const auto& [key, value] : pairs) {
        bytes += key + "=" + value;
        bytes += '\0';
    }
    if (!sequenceNumber.empty()) {
        bytes += sequenceKey + "=" + sequenceNumber;
        bytes += '\0';
    }
    return bytes;
}

} // namespace Sandbox
