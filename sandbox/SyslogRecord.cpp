#include "sandbox/SyslogRecord.h"

#include <cstdlib>

namespace Sandbox {

namespace {
// "Mmm dd hh:mm:ss " as syslog() writes it with "%h %e %T ".
constexpr std::string::size_type timestampLength = 16;
} // namespace

bool SyslogRecord::parse(const std::string& datagram, SyslogRecord& record)
{
    if (datagram.size() < 3 || datagram[0] != '<') {
        return false;
    }
    const auto close = datagram.find('>');
    if (close == std::string::npos || close == 1) {
        return false;
    }
    record.priority =
        static_cast<int>(std::strtol(datagram.substr(1, close - 1).c_str(), nullptr, 10));
    const auto identStart = close + 1 + timestampLength;
    if (identStart > datagram.size()) {
        return false;
    }
    const auto colon = datagram.find(": ", identStart);
    if (colon == std::string::npos) {
        return false;
    }
    record.identity = datagram.substr(identStart, colon - identStart);
    record.text = datagram.substr(colon + 2);
    return true;
}

} // namespace Sandbox
