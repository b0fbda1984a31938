#include "daemon/UeventDecoder.h"

#include <cstring>
#include <memory>

namespace {

struct UeventFields {
    const char* action = nullptr;
    const char* name = nullptr;
    const char* devpath = nullptr;
    const char* subsystem = nullptr;
    const char* devtype = nullptr;
};

// Keys are told apart by their first letter before any comparison: most keys
// of a datagram (MAJOR, MINOR, SEQNUM, PARTN, ...) are of no interest.
void remember(UeventFields& fields, const char* key, const char* value)
{
    switch (key[0]) {
    case 'A':
        if (std::strcmp(key, "ACTION") == 0) {
            fields.action = value;
        }
        break;
    case 'D':
        if (std::strcmp(key, "DEVNAME") == 0) {
            // DEVNAME and INTERFACE fill one slot: whichever comes later wins.
            fields.name = value;
        } else if (std::strcmp(key, "DEVPATH") == 0) {
            fields.devpath = value;
        } else if (std::strcmp(key, "DEVTYPE") == 0) {
            fields.devtype = value;
        }
        break;
    case 'I':
        if (std::strcmp(key, "INTERFACE") == 0) {
            fields.name = value;
        }
        break;
    case 'S':
        if (std::strcmp(key, "SUBSYSTEM") == 0) {
            fields.subsystem = value;
        }
        break;
    default:
        break;
    }
}

bool deviceTypeOf(const UeventFields& fields, HotplugDeviceType& type)
{
    const bool hasDevtype = fields.devtype != nullptr;
    if (std::strcmp(fields.subsystem, "tty") == 0 && std::strncmp(fields.name, "ttyUSB", 6) == 0) {
        type = HotplugDeviceType::UsbTty;
    } else if (std::strcmp(fields.subsystem, "usb") == 0 && hasDevtype &&
               std::strcmp(fields.devtype, "usb_device") == 0) {
        type = HotplugDeviceType::UsbDevice;
    } else if (std::strcmp(fields.subsystem, "block") == 0 && hasDevtype &&
               std::strcmp(fields.devtype, "partition") == 0) {
        type = HotplugDeviceType::DiscPartition;
    } else if (std::strcmp(fields.subsystem, "net") == 0 &&
               std::strncmp(fields.name, "eth", 3) == 0) {
        type = HotplugDeviceType::UsbEthernet;
    } else {
        return false;
    }
    return true;
}

bool actionOf(const char* text, HotplugAction& action)
{
    if (std::strcmp(text, "add") == 0) {
        action = HotplugAction::Add;
    } else if (std::strcmp(text, "remove") == 0) {
        action = HotplugAction::Remove;
    } else {
        return false;
    }
    return true;
}

} // namespace

std::unique_ptr<HotplugEvent> decodeUevent(char* buffer, size_t length)
{
    if (length == 0) {
        return nullptr;
    }
    UeventFields fields;
    char* const end = buffer + length;
    char* string = buffer;
    while (string < end) {
        // memchr scans a word at a time; device paths run to a hundred bytes.
        auto* stop =
            static_cast<char*>(std::memchr(string, '\0', static_cast<size_t>(end - string)));
        if (stop == nullptr) {
            stop = end;
        }
        // The first "=" splits key and value, unless it is the very last byte.
        auto* equals =
            static_cast<char*>(std::memchr(string, '=', static_cast<size_t>(stop - string)));
        if (equals != nullptr && equals + 1 < end) {
            *equals = '\0';
            remember(fields, string, equals + 1);
        }
        string = stop + 1;
    }

    if (fields.action == nullptr || fields.name == nullptr || fields.devpath == nullptr ||
        fields.subsystem == nullptr) {
        return nullptr;
    }
    HotplugDeviceType type = HotplugDeviceType::None;
    HotplugAction action = HotplugAction::None;
    if (!deviceTypeOf(fields, type) || !actionOf(fields.action, action)) {
        return nullptr;
    }
    auto event = std::make_unique<HotplugEvent>();
    event->deviceType = type;
    event->action = action;
    event->deviceName = fields.name;
    event->devPath = fields.devpath;
    return event;
}
