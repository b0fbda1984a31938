// Hook for watchdog supervision of threads. This platform has no watchdog
// tracing, so the class carries no behaviour; it keeps the thread's interface
// the same as on platforms that have one.
#pragma once

namespace Halvern {
namespace CommonCpp {
namespace Osal {

class OsalWatchdogTracer {
public:
    OsalWatchdogTracer() = default;
    virtual ~OsalWatchdogTracer() = default;

    OsalWatchdogTracer(const OsalWatchdogTracer&) = delete;
    OsalWatchdogTracer& operator=(const OsalWatchdogTracer&) = delete;
};

} // namespace Osal
} // namespace CommonCpp
} // namespace Halvern
