// A component's logger: one std::ostream per level; every line ended with
// std::endl becomes one syslog record "[Level] component: text". One logger
// per component object; a stream must not be written by two threads at once.
#pragma once

#include <memory>
#include <ostream>
#include <string>

namespace Common {
namespace Logging {

class LoggerImplData;

class Logger {
public:
    explicit Logger(const std::string& componentName);
    ~Logger();

    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

    std::ostream& debug();
    std::ostream& info();
    std::ostream& warn();
    std::ostream& error();
    std::ostream& fatal();

    void setName(const std::string& componentName);
    // Replaces the facility bits (LOG_LOCAL0, ...) of every level's priority.
    void setFacility(int facility);

    // Sets the process's syslog identity; only the first non-empty identity
    // counts. Call once, on the main thread, before any other thread starts.
    static void openSyslog(const std::string& identity);

private:
    std::unique_ptr<LoggerImplData> impl;
};

} // namespace Logging
} // namespace Common
