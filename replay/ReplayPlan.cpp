#include "replay/ReplayPlan.h"

#include "capture/CaptureReader.h"

#include <algorithm>
#include <set>
#include <sstream>

namespace Replay {

namespace {

using Capture::CaptureRecord;

// The value of KEY= in a uevent file's lines.
std::string fileValue(const std::string& content, const std::string& key)
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
    return "";
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

void addPartition(const std::string& name, const CaptureRecord& record,
                  std::set<std::string>& partitions)
{
    if (name.empty() || name.find('/') != std::string::npos || name == "." || name == "..") {
        throw Capture::CaptureFormatError(
            record.line, "", "partition name \"" + name + "\" cannot be a device node under /dev");
    }
    partitions.insert(name);
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
            if (record.value("SUBSYSTEM") == "block" && record.value("DEVTYPE") == "partition") {
                addPartition(record.value("DEVNAME"), record, partitions);
            }
            plan.cascadeDirectory = plan.cascadeDirectory || record.value("SUBSYSTEM") == "net";
        } else if (record.kind == CaptureRecord::Kind::SysfsLink) {
            addPorts(record.data, ports);
            plan.cascadeDirectory =
                plan.cascadeDirectory || record.path.rfind("/sys/class/net/", 0) == 0;
        } else if (record.kind == CaptureRecord::Kind::SysfsFile &&
                   fileValue(record.data, "DEVTYPE") == "partition") {
            addPartition(fileValue(record.data, "DEVNAME"), record, partitions);
        } else if (record.kind == CaptureRecord::Kind::Filesystems) {
            plan.deviceFilesystems = record.data;
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
