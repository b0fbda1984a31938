// A thread for the OSAL tests whose body is a plain function, so that nothing
// the body uses dies with the derived part of the object (the base destructor
// may still be cancelling the thread). State is shared through the argument.
#pragma once

#include "Osal/OsalThread.h"
#include "Osal/commonCppOsalLinux/cpp/OsalSemaphore.h"

#include <atomic>
#include <string>

namespace OsalTest {

using Halvern::CommonCpp::Osal::OsalRecursiveMutex;
using Halvern::CommonCpp::Osal::OsalSemaphore;
using Halvern::CommonCpp::Osal::OsalThread;

struct Shared {
    OsalSemaphore started{0};
    OsalSemaphore gate{0};
    OsalSemaphore finished{0};
    std::atomic<int> runs{0};
    std::string text;  // written by the body before `finished`
    bool flag = false;
};

class TestThread : public OsalThread {
public:
    using Body = void (*)(TestThread& self, Shared& shared);

    explicit TestThread(Body threadBody) : body(threadBody) {}

    void run() override { body(*this, *static_cast<Shared*>(getArgument())); }
    // A stop that only asks: the thread sees it at its next isStopRequested().
    void cancel() override
    {
        if (!cooperativeStop) {
            OsalThread::cancel();
        }
    }

    OsalRecursiveMutex& stateLock() { return objectLock; }
    bool cooperativeStop = false;

private:
    Body body;
};

} // namespace OsalTest
