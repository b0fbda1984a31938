// The five level streams of one logger, kept behind the logger's pointer so
// that users of Logger see neither stream buffers nor locks.
#pragma once

#include "common/logging/LoggerStream.h"

#include <string>

namespace Common {
namespace Logging {

class LoggerImplData {
public:
    explicit LoggerImplData(const std::string& componentName);
    virtual ~LoggerImplData() = default;

    LoggerImplData(const LoggerImplData&) = delete;
    LoggerImplData& operator=(const LoggerImplData&) = delete;

    // Destroyed in reverse order: Fatal first, Debug last.
    LoggerStream debugStream;
    LoggerStream infoStream;
    LoggerStream warnStream;
    LoggerStream errorStream;
    LoggerStream fatalStream;
};

} // namespace Logging
} // namespace Common
