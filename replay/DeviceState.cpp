#include "replay/DeviceState.h"

#include "capture/TextEscape.h"

#include <algorithm>
#include <iterator>
#include <sstream>
#include <sys/stat.h>

namespace Replay {

namespace {

using Capture::TextEscape;

void listEntry(const Sandbox::SimulatedDevice& device, const std::string& path,
               std::vector<std::string>& lines)
{
    struct stat status {};
    if (lstat(device.path(path).c_str(), &status) != 0) {
        return;
    }
    if (S_ISLNK(status.st_mode)) {
        lines.push_back("link " + TextEscape::field(path) + " -> " +
                        TextEscape::field(device.readLink(path)));
    } else if (S_ISREG(status.st_mode)) {
        lines.push_back("file " + TextEscape::field(path) + " " +
                        TextEscape::field(device.readFile(path)));
    } else if (S_ISDIR(status.st_mode)) {
        for (const auto& name : device.list(path)) {
            listEntry(device, path + "/" + name, lines);
        }
    } else {
        lines.push_back("other " + TextEscape::field(path));
    }
}

} // namespace

std::vector<std::string> DeviceState::list(const Sandbox::SimulatedDevice& device)
{
    std::vector<std::string> lines;
    if (device.exists("/mnt/usb")) {
        for (const auto& name : device.list("/mnt/usb")) {
            const std::string path = "/mnt/usb/" + name;
            Sandbox::MountTable::Entry mount;
            lines.push_back(device.findMount(path, mount)
                                ? "mount " + TextEscape::field(path) + " " +
                                      TextEscape::field(mount.fsType) + " " +
                                      TextEscape::field(mount.options)
                                : "directory " + TextEscape::field(path));
        }
    }
    listEntry(device, "/ravo500/devs", lines);
    std::sort(lines.begin(), lines.end());
    return lines;
}

std::vector<std::string> DeviceState::parse(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) {
            line.pop_back();
        }
        if (!line.empty() && line[0] != '#') {
            lines.push_back(line);
        }
    }
    std::sort(lines.begin(), lines.end());
    return lines;
}

std::vector<std::string> DeviceState::diff(std::vector<std::string> expected,
                                           std::vector<std::string> actual)
{
    std::sort(expected.begin(), expected.end());
    std::sort(actual.begin(), actual.end());
    std::vector<std::string> missing;
    std::vector<std::string> extra;
    std::set_difference(expected.begin(), expected.end(), actual.begin(), actual.end(),
                        std::back_inserter(missing));
    std::set_difference(actual.begin(), actual.end(), expected.begin(), expected.end(),
                        std::back_inserter(extra));
    std::vector<std::string> lines;
    lines.reserve(missing.size() + extra.size());
    const auto marked = [&lines](char mark) {
        return [&lines, mark](const std::string& line) { lines.push_back(mark + line); };
    };
    std::for_each(missing.begin(), missing.end(), marked('-'));
    std::for_each(extra.begin(), extra.end(), marked('+'));
    return lines;
}

} // namespace Replay
