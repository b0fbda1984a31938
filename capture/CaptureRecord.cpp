#include "capture/CaptureRecord.h"

namespace Capture {

std::string CaptureRecord::value(const std::string& key) const
{
    std::string found;
    size_t start = 0;
    while (start < data.size()) {
        size_t end = data.find('\0', start);
        if (end == std::string::npos) {
            end = data.size();
        }
        if (end - start > key.size() && data.compare(start, key.size(), key) == 0 &&
            data[start + key.size()] == '=') {
            found = data.substr(start + key.size() + 1, end - start - key.size() - 1);
        }
        start = end + 1;
    }
    return found;
}

} // namespace Capture
