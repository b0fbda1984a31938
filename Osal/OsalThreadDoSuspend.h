// Opt-out flag for OsalThread::suspendOtherThreads(): a thread whose doSuspend
// is false is never asked to park. Plain data, not a polymorphic base.
#pragma once

namespace Halvern {
namespace CommonCpp {
namespace Osal {

class OsalThreadDoSuspend {
public:
    bool doSuspend = false;

protected:
    OsalThreadDoSuspend() = default;
    // Not polymorphic: only the derived thread object may be destroyed.
    ~OsalThreadDoSuspend() = default;
};

} // namespace Osal
} // namespace CommonCpp
} // namespace Halvern
