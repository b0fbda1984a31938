#include "common/logging/LoggerStream.h"

namespace Common {
namespace Logging {

LoggerStream::LoggerStream(int level, const std::string& componentName)
    : std::ostream(nullptr),
      outBuffer(std::make_unique<LoggerOutStreamBuffer>(level, componentName))
{
    rdbuf(outBuffer.get());
}

LoggerStream::~LoggerStream()
{
    // The base outlives the buffer by a moment; leave it no dangling pointer.
    rdbuf(nullptr);
}

} // namespace Logging
} // namespace Common
