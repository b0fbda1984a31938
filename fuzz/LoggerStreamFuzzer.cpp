// The logger's stream buffer under random writes, flushes, line ends and line
// lengths (records split at 256 characters), destroyed with text pending.
#include "common/logging/LoggerOutStreamBuffer.h"
#include "sandbox/DevLogSink.h"

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>
#include <syslog.h>

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    Sandbox::DevLogSink::enter();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1) {
        return 0;
    }
    static const int levels[] = {LOG_DEBUG, LOG_INFO, LOG_WARNING, LOG_ERR, LOG_CRIT};
    Common::Logging::LoggerOutStreamBuffer buffer(levels[data[0] % 5], "Fuzz");
    std::ostream out(&buffer);
    size_t at = 1;
    while (at < size) {
        const uint8_t operation = data[at++];
        const size_t length = at < size ? data[at++] : 0;
        switch (operation % 6) {
        case 0: // raw bytes, '%' and NUL included
        {
            const size_t count = std::min(length, size - at);
            out.write(reinterpret_cast<const char*>(data + at),
                      static_cast<std::streamsize>(count));
            at += count;
            break;
        }
        case 1:
            out << std::flush;
            break;
        case 2:
            out << std::endl;
            break;
        case 3: // a long run, up to several records' worth
            out << std::string(length * 3, static_cast<char>('a' + length % 26));
            break;
        case 4:
            out << static_cast<int>(length) << '%' << 's';
            break;
        default:
            buffer.setName(std::string(length % 40, 'n'));
            break;
        }
    }
    return 0;
}
