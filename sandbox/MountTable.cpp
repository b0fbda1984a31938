#include "sandbox/MountTable.h"

#include <algorithm>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace Sandbox {

namespace {

// mountinfo writes blanks, tabs, line feeds and backslashes as "\ooo".
std::string unescaped(const std::string& field)
{
    std::string text;
    for (std::string::size_type i = 0; i < field.size(); ++i) {
        if (field[i] == '\\' && i + 3 < field.size()) {
            const std::string octal = field.substr(i + 1, 3);
            if (octal.find_first_not_of("01234567") == std::string::npos) {
                text += static_cast<char>(std::stoi(octal, nullptr, 8));
                i += 3;
                continue;
            }
        }
        text += field[i];
    }
    return text;
}

} // namespace

bool MountTable::Entry::readOnly() const
{
    return ("," + options + ",").find(",ro,") != std::string::npos;
}

std::vector<MountTable::Entry> MountTable::read()
{
    std::ifstream file("/proc/self/mountinfo");
    if (!file) {
        throw std::runtime_error("MountTable::read: cannot open /proc/self/mountinfo");
    }
    std::vector<Entry> entries;
    std::string line;
    while (std::getline(file, line)) {
        // id parent major:minor root mount-point options [optional...] - type source super-options
        std::istringstream fields(line);
        std::string id, parent, device, root, mountPoint, options, field;
        fields >> id >> parent >> device >> root >> mountPoint >> options;
        while (fields >> field && field != "-") {
        }
        Entry entry;
        entry.mountPoint = unescaped(mountPoint);
        entry.options = options;
        fields >> entry.fsType >> entry.source;
        entry.source = unescaped(entry.source);
        entries.push_back(entry);
    }
    return entries;
}

bool MountTable::find(const std::string& mountPoint, Entry& entry)
{
    bool found = false;
    // Later lines are mounted on top of earlier ones at the same point.
    for (const auto& candidate : read()) {
        if (candidate.mountPoint == mountPoint) {
            entry = candidate;
            found = true;
        }
    }
    return found;
}

std::vector<std::string> MountTable::below(const std::string& directory)
{
    const std::string prefix = directory + "/";
    std::vector<std::string> points;
    for (const auto& entry : read()) {
        if (entry.mountPoint.compare(0, prefix.size(), prefix) == 0) {
            points.push_back(entry.mountPoint);
        }
    }
    // Reverse mount order unmounts stacked mounts top first, children before parents.
    std::reverse(points.begin(), points.end());
    std::stable_sort(points.begin(), points.end(), [](const std::string& a, const std::string& b) {
        return std::count(a.begin(), a.end(), '/') > std::count(b.begin(), b.end(), '/');
    });
    return points;
}

} // namespace Sandbox
