#include "common/logging/LoggerOutStreamBuffer.h"

#include "Osal/commonCppOsalLinux/cpp/OsalLockAutomatically.h"

#include <cstring>
#include <syslog.h>

namespace Common {
namespace Logging {

using Halvern::CommonCpp::Osal::OsalLockAutomatically;

namespace {

// Five characters each, so that the text of every record starts in the same column.
const char* tagOfLevel(int level)
{
    switch (level) {
    case LOG_DEBUG:
        return "Debug";
    case LOG_INFO:
        return "Info ";
    case LOG_WARNING:
        return "Warn ";
    case LOG_ERR:
        return "Error";
    case LOG_CRIT:
        return "Fatal";
    default:
        return "";
    }
}

} // namespace

LoggerOutStreamBuffer::LoggerOutStreamBuffer(int level, const std::string& componentName)
    : priority(LOG_USER | level), levelTag(tagOfLevel(level)), name(componentName), lineBuffer(),
      lock()
{
    resetPutArea();
}

LoggerOutStreamBuffer::~LoggerOutStreamBuffer()
{
    if (pptr() != pbase()) {
        overflow(pptr()[-1] == '\n' ? traits_type::eof() : traits_type::to_int_type('\n'));
    }
    setp(nullptr, nullptr);
}

void LoggerOutStreamBuffer::setName(const std::string& componentName)
{
    OsalLockAutomatically guard(lock, -1);
    name = componentName;
}

void LoggerOutStreamBuffer::setFacility(int facility)
{
    priority = (priority & LOG_PRIMASK) | (facility & ~LOG_PRIMASK);
}

void LoggerOutStreamBuffer::resetPutArea()
{
    setp(lineBuffer, lineBuffer + lineSize);
}

void LoggerOutStreamBuffer::sendRecord(const char* text) const
{
    // The text is an argument, never the format: percent signs reach the log unchanged.
    syslog(priority, "[%s] %s: %s", levelTag.c_str(), name.c_str(), text);
}

int LoggerOutStreamBuffer::sync()
{
    OsalLockAutomatically guard(lock, -1);
    const std::ptrdiff_t pending = pptr() - pbase();
    if (pending == 0) {
        return 0;
    }

    std::ptrdiff_t lineStart = 0;
    try {
        for (std::ptrdiff_t i = 0; i < pending; ++i) {
            if (lineBuffer[i] == '\n') {
                lineBuffer[i] = '\0';
                sendRecord(lineBuffer + lineStart);
                lineStart = i + 1;
            }
        }
    } catch (...) {
        // syslog() is a cancellation point. Were the pending text kept, the
        // records already sent would go again at the next flush, and the rest
        // with the buffer's destructor, long after the thread was stopped.
        resetPutArea();
        throw;
    }

    const std::ptrdiff_t rest = pending - lineStart;
    resetPutArea();
    if (rest > lineSize - 1) {
        // A full buffer without a newline: cut the line here, it cannot grow further.
        lineBuffer[pending] = '\0';
        sendRecord(lineBuffer + lineStart);
    } else if (rest != 0) {
        std::memmove(lineBuffer, lineBuffer + lineStart, static_cast<std::size_t>(rest));
        pbump(static_cast<int>(rest));
    }
    return 0;
}

LoggerOutStreamBuffer::int_type LoggerOutStreamBuffer::overflow(int_type c)
{
    OsalLockAutomatically guard(lock, -1);
    const bool endOfFile = traits_type::eq_int_type(c, traits_type::eof());
    if (!endOfFile) {
        // When the put area is full this is the first spare character behind it.
        *pptr() = traits_type::to_char_type(c);
        pbump(1);
    }
    if (sync() != 0) {
        return traits_type::eof();
    }
    return endOfFile ? 0 : c;
}

} // namespace Logging
} // namespace Common
