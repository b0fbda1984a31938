#include "Osal/OsalBasicThread.h"

#include "Osal/OsalAssert.h"
#include "Osal/OsalThread.h"
#include "Osal/commonCppOsalLinux/cpp/OsalLockAutomatically.h"

#include <cxxabi.h>
#include <exception>
#include <string>
#include <syslog.h>

namespace Halvern {
namespace CommonCpp {
namespace Osal {

namespace {

// Straight to syslog: the logging library sits above this layer.
void reportUnhandled(const std::string& text)
{
    // syslog() may be a cancellation point; being cancelled in a catch handler
    // would skip clearing `running`.
    int oldState = PTHREAD_CANCEL_ENABLE;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &oldState);
    syslog(LOG_USER | LOG_ERR, "[%s] %s: %s", "Error", "OsalThread", text.c_str());
    pthread_setcancelstate(oldState, nullptr);
}

// "thread NAME", or "thread" alone for an unnamed one (the daemon's handler).
std::string describe(const OsalThread& thread)
{
    const std::string name = thread.getName();
    return name.empty() ? "thread" : "thread " + name;
}

} // namespace

// The cancellation's forced unwinding has no exception object, so catching it
// by reference trips UBSan's null check although the handler is correct.
__attribute__((no_sanitize("null"))) void* OsalBasicThread::threadFunctionPrivate(void* object)
{
    OsalThread* const self = static_cast<OsalThread*>(object);
    if (OsalThread::threadKeyCreated.load(std::memory_order_acquire) &&
        pthread_setspecific(OsalThread::threadKey, self) != 0) {
        OSAL_FATAL_ASSERT(false, "Osal/commonCppOsalLinux/cpp/OsalBasicThread.cpp");
    }

    try {
        {
            OsalLockAutomatically guard(self->objectLock, -1);
            // A name the system refuses (too long) leaves the thread unnamed;
            // not worth failing it for.
            static_cast<void>(pthread_setname_np(pthread_self(), self->name.c_str()));
            self->running = true;
        }
        self->run();
    } catch (abi::__forced_unwind&) {
        // Cancellation: the unwinding must go on for the thread to end.
        self->setRunning(false);
        throw;
    } catch (const std::exception& error) {
        // Ends this thread only; the owner learns of it through isRunning().
        reportUnhandled("Unhandled exception in " + describe(*self) + ": " + error.what());
    } catch (...) {
        reportUnhandled("Unhandled unknown exception in " + describe(*self));
    }
    self->setRunning(false);
    return nullptr;
}

} // namespace Osal
} // namespace CommonCpp
} // namespace Halvern
