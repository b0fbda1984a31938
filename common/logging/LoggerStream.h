// One level's output stream of a logger: a std::ostream over its own
// LoggerOutStreamBuffer, which it owns.
#pragma once

#include "common/logging/LoggerOutStreamBuffer.h"

#include <memory>
#include <ostream>
#include <string>

namespace Common {
namespace Logging {

class LoggerStream : public std::ostream {
public:
    LoggerStream(int level, const std::string& componentName);
    ~LoggerStream() override;

    LoggerStream(const LoggerStream&) = delete;
    LoggerStream& operator=(const LoggerStream&) = delete;

    LoggerOutStreamBuffer& buffer() { return *outBuffer; }

private:
    std::unique_ptr<LoggerOutStreamBuffer> outBuffer;
};

} // namespace Logging
} // namespace Common
