// The stream buffer behind each logger stream: collects characters in a fixed
// line buffer and sends every finished line as one syslog record
// "[tag] component: text", in place and without allocating.
#pragma once

#include "Osal/commonCppOsalLinux/cpp/OsalRecursiveMutex.h"

#include <cstddef>
#include <streambuf>
#include <string>

namespace Common {
namespace Logging {

class LoggerOutStreamBuffer final : public std::basic_streambuf<char> {
public:
    // level: a syslog level (LOG_DEBUG ... LOG_CRIT); the facility starts as LOG_USER.
    LoggerOutStreamBuffer(int level, const std::string& componentName);
    // Sends what is still pending, ending a partial line.
    ~LoggerOutStreamBuffer() override;

    LoggerOutStreamBuffer(const LoggerOutStreamBuffer&) = delete;
    LoggerOutStreamBuffer& operator=(const LoggerOutStreamBuffer&) = delete;

    void setName(const std::string& componentName);
    void setFacility(int facility);

protected:
    int sync() override;
    int_type overflow(int_type c) override;

private:
    static constexpr std::ptrdiff_t lineSize = 256;

    void resetPutArea();
    void sendRecord(const char* text) const;

    int priority;
    std::string levelTag;
    std::string name;
    // Two spare characters behind the put area: the one overflow() stores when
    // the area is full, and the NUL behind a record of 257 characters.
    char lineBuffer[lineSize + 2];
    Halvern::CommonCpp::Osal::OsalRecursiveMutex lock;
};

} // namespace Logging
} // namespace Common
