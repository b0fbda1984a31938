#include "replay/ReplayPlan.h"

#include "capture/CaptureReader.h"
#include "daemon/UeventDecoder.h"
#include "replay/PathNames.h"
#include "sandbox/SimulatedDevice.h"

#include <algorithm>
#include <set>
#include <sstream>

namespace Replay {

namespace {

using Capture::CaptureRecord;

// The value of the first line that starts with KEY=: a uevent file's grammar,
// read as the daemon's scan reads DEVNAME (the decoder reads datagrams).
std::optional<std::string> fileValue(const std::string& content, const std::string& key)
{
    const std::string wanted = key + "=";
    size_t start = 0;
    while (start < content.size()) {
        size_t end = content.find('\n', start);
        if (end == std::string::npos) {
            end = content.size();
        }
        if (content.compare(start, wanted.size(), wanted) == 0) {
            return content.substr(start + wanted.size(), end - start - wanted.size());
        }
        start = end + 1;
    }
    return std::nullopt;
}

bool digits(const std::string& text, size_t from, size_t to)
{
    return to > from && to - from <= 9 &&
           std::all_of(text.begin() + static_cast<std::ptrdiff_t>(from),
                       text.begin() + static_cast<std::ptrdiff_t>(to),
                       [](char c) { return c >= '0' && c <= '9'; });
}

// Every component of the form BUS-ROOTPORT.PORT[:...] names the directory the
// daemon links into for a device on that port.
void addPorts(const std::string& path, std::set<std::string>& ports)
{
    size_t start = 0;
    while (start < path.size()) {
        size_t end = path.find('/', start);
        if (end == std::string::npos) {
            end = path.size();
        }
        const std::string part = path.substr(start, end - start);
        const size_t dash = part.find('-');
        const size_t dot = part.find('.');
        size_t stop = part.find(':');
        if (stop == std::string::npos) {
            stop = part.size();
        }
        if (dash != std::string::npos && dot != std::string::npos && dash < dot && dot < stop &&
            digits(part, 0, dash) && digits(part, dash + 1, dot) && digits(part, dot + 1, stop)) {
            ports.insert("usb" + std::to_string(std::stoul(part.substr(0, dash))) + "-" +
                         std::to_string(std::stoul(part.substr(dot + 1, stop - dot - 1))));
        }
        start = end + 1;
    }
}

// Every partition costs a loop device and a file system: a capture may not ask for more.
constexpr size_t mostPartitions = 64;
constexpr size_t mostPortDirectories = 256;

[[noreturn]] void refuse(const CaptureRecord& record, const std::string& message)
{
    throw Capture::CaptureFormatError(record.line, "", message);
}

void checkName(const CaptureRecord& record, const std::string& name, bool slashAllowed)
{
    const std::string fault = PathNames::deviceNameFault(name, slashAllowed);
    if (!fault.empty()) {
        refuse(record, "device name \"" + name + "\" " + fault);
    }
}

void addPartition(const std::string& name, const CaptureRecord& record,
                  std::set<std::string>& partitions)
{
    checkName(record, name, false);
    const auto own = Sandbox::SimulatedDevice::ownDevEntries();
    if (std::find(own.begin(), own.end(), name) != own.end()) {
        refuse(record, "partition name \"" + name + "\" is taken by the sandbox's /dev/" + name);
    }
    partitions.insert(name);
    if (partitions.size() > mostPartitions) {
        refuse(record, "more than " + std::to_string(mostPartitions) + " partitions");
    }
}

// The event the daemon's own decoder makes of the datagram, if any: its name
// is the one the daemon turns into paths.
void addDatagram(const CaptureRecord& record, std::set<std::string>& partitions)
{
    std::vector<char> buffer(record.data.begin(), record.data.end());
    buffer.push_back('\0');
    const auto event = decodeUevent(buffer.data(), record.data.size());
    if (!event) {
        return;
    }
    if (event->deviceType == HotplugDeviceType::DiscPartition) {
        addPartition(event->deviceName, record, partitions);
    } else {
        checkName(record, event->deviceName, event->deviceType == HotplugDeviceType::UsbDevice);
    }
}

// The start-up scan takes a device's name from the DEVNAME line of its uevent file.
void addSysfsFile(const CaptureRecord& record, std::set<std::string>& partitions)
{
    const std::string suffix = "/uevent";
    const auto name = fileValue(record.data, "DEVNAME");
    if (!name || record.path.size() < suffix.size() ||
        record.path.compare(record.path.size() - suffix.size(), suffix.size(), suffix) != 0) {
        return;
    }
    if (fileValue(record.data, "DEVTYPE") == "partition") {
        addPartition(*name, record, partitions);
    } else {
        checkName(record, *name, true);
    }
}

void checkLink(const CaptureRecord& record)
{
    const std::string fault = PathNames::linkTargetFault(record.path, record.data);
    if (!fault.empty()) {
        refuse(record, "the target " + record.data + " of " + record.path + " " + fault);
    }
}

} // namespace

ReplayPlan ReplayPlan::of(const std::vector<CaptureRecord>& records)
{
    ReplayPlan plan;
    std::set<std::string> partitions;
    std::set<std::string> ports;
    uint64_t first = 0;
    for (const auto& record : records) {
        if (record.kind == CaptureRecord::Kind::Datagram) {
            first = plan.datagrams++ == 0 ? record.timeUs : first;
            plan.spanUs = record.timeUs > first ? record.timeUs - first : plan.spanUs;
            plan.fromUdevadm = plan.fromUdevadm || record.fromUdevadm;
            addPorts(record.value("DEVPATH"), ports);
            addDatagram(record, partitions);
            plan.cascadeDirectory = plan.cascadeDirectory || record.value("SUBSYSTEM") == "net";
        } else if (record.kind == CaptureRecord::Kind::SysfsLink) {
            checkLink(record);
            addPorts(record.data, ports);
            plan.cascadeDirectory =
                plan.cascadeDirectory || record.path.rfind("/sys/class/net/", 0) == 0;
        } else if (record.kind == CaptureRecord::Kind::SysfsFile) {
            addSysfsFile(record, partitions);
        } else if (record.kind == CaptureRecord::Kind::Filesystems) {
            plan.deviceFilesystems = record.data;
        }
        if (ports.size() > mostPortDirectories) {
            refuse(record, "more than " + std::to_string(mostPortDirectories) + " hub ports");
        }
    }
    plan.partitions.assign(partitions.begin(), partitions.end());
    plan.portDirectories.assign(ports.begin(), ports.end());
    return plan;
}

std::vector<std::string> ReplayPlan::blockFilesystems(const std::string& procFilesystems)
{
    std::vector<std::string> types;
    std::istringstream lines(procFilesystems);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string first;
        std::string second;
        if (words >> first && !(words >> second)) {
            types.push_back(first);
        }
    }
    return types;
}

} // namespace Replay
