#include "replay/PathNames.h"

#include <algorithm>
#include <vector>

namespace Replay {

namespace {

constexpr size_t longestComponent = 255; // NAME_MAX

std::vector<std::string> components(const std::string& path)
{
    std::vector<std::string> parts;
    for (size_t start = 0;;) {
        const size_t end = path.find('/', start);
        parts.push_back(path.substr(start, end - start));
        if (end == std::string::npos) {
            return parts;
        }
        start = end + 1;
    }
}

std::string plainRelativeFault(const std::string& path)
{
    for (const auto& part : components(path)) {
        if (part.empty() || part == "." || part == "..") {
            return "has an empty, \".\" or \"..\" component";
        }
        if (part.size() > longestComponent) {
            return "has a component longer than 255 bytes";
        }
    }
    return "";
}

} // namespace

std::string PathNames::deviceNameFault(const std::string& name, bool slashAllowed)
{
    if (!slashAllowed && name.find('/') != std::string::npos) {
        return "holds \"/\", which the kernel never puts in such a name";
    }
    return plainRelativeFault(name);
}

std::string PathNames::linkTargetFault(const std::string& linkPath, const std::string& target)
{
    if (!target.empty() && target[0] == '/') {
        return "is absolute; the kernel's sysfs links are relative";
    }
    // "/sys/a/b/link" lies in a/b: two levels below /sys.
    const auto linkParts = components(linkPath);
    const size_t depth = linkParts.size() >= 3 ? linkParts.size() - 3 : 0;
    size_t up = 0;
    while (target.compare(3 * up, 3, "../") == 0) {
        ++up;
    }
    if (up > depth) {
        return "leads out of /sys";
    }
    const std::string fault = plainRelativeFault(target.substr(3 * up));
    return fault.empty() ? "" : "below its leading \"../\" " + fault;
}

} // namespace Replay
