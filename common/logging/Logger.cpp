#include "common/logging/Logger.h"

#include "common/logging/LoggerImplData.h"

#include <syslog.h>

namespace Common {
namespace Logging {

namespace {

// Never destroyed: syslog keeps the pointer that openlog() was given until the
// process ends, also while static destructors still log.
std::string& processIdentity()
{
    static std::string* const identity = new std::string();
    return *identity;
}

// An exception or a thread's cancellation that passes through a stream
// operation leaves the stream failed, and a failed stream swallows everything
// written to it after: each use starts from a good stream again.
std::ostream& usable(std::ostream& stream)
{
    if (!stream.good()) {
        stream.clear();
    }
    return stream;
}

} // namespace

Logger::Logger(const std::string& componentName)
    : impl(std::make_unique<LoggerImplData>(componentName))
{
}

Logger::~Logger() = default;

std::ostream& Logger::debug()
{
    return usable(impl->debugStream);
}

std::ostream& Logger::info()
{
    return usable(impl->infoStream);
}

std::ostream& Logger::warn()
{
    return usable(impl->warnStream);
}

std::ostream& Logger::error()
{
    return usable(impl->errorStream);
}

std::ostream& Logger::fatal()
{
    return usable(impl->fatalStream);
}

void Logger::setName(const std::string& componentName)
{
    for (LoggerStream* stream : {&impl->debugStream, &impl->infoStream, &impl->warnStream,
                                 &impl->errorStream, &impl->fatalStream}) {
        stream->buffer().setName(componentName);
    }
}

void Logger::setFacility(int facility)
{
    for (LoggerStream* stream : {&impl->debugStream, &impl->infoStream, &impl->warnStream,
                                 &impl->errorStream, &impl->fatalStream}) {
        stream->buffer().setFacility(facility);
    }
}

void Logger::openSyslog(const std::string& identity)
{
    std::string& stored = processIdentity();
    if (!stored.empty()) {
        return;
    }
    stored = identity;
    openlog(stored.c_str(), 0, LOG_USER);
}

} // namespace Logging
} // namespace Common
