// A thread object: wraps one POSIX thread that calls run(), with a name, a
// SCHED_RR priority, a stack size, one opaque argument and cooperative stop
// and suspension requests. Every object is kept in one process-wide list so
// that all threads can be suspended, resumed or visited together.
//
// Lock order: the list lock before an object's lock, never the other way.
#pragma once

#include "Osal/OsalBasicThread.h"
#include "Osal/OsalThreadDoSuspend.h"
#include "Osal/OsalWatchdogTracer.h"
#include "Osal/commonCppOsalLinux/cpp/OsalBinaryMutex.h"
#include "Osal/commonCppOsalLinux/cpp/OsalSemaphore.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

namespace Halvern {
namespace CommonCpp {
namespace Osal {

class OsalThread : protected OsalBasicThread,
                   public OsalWatchdogTracer,
                   public OsalThreadDoSuspend {
public:
    // Visitor for forEachThread(). visit() runs under the list lock: it must
    // not create or destroy thread objects nor call the static list
    // operations. A visitor that does not override visit() is never given a
    // thread: the default visit() only notes that and ends the walk, so at most
    // one empty call happens. Overrides must not call this default.
    class Visitor {
    public:
        Visitor() = default;
        virtual ~Visitor() = default;
        virtual void visit(OsalThread* thread);

    private:
        friend class OsalThread;
        bool defaultVisitReached = false;
    };

    OsalThread();
    OsalThread(const char* threadName, int32_t threadPriority, size_t threadStackSize,
               void* threadArgument);
    // Stops a still running thread by cancellation and joins it. Runs after the
    // derived destructor: a thread whose run() uses derived members must be
    // stopped and joined by the derived class itself.
    ~OsalThread() override;

    OsalThread(const OsalThread&) = delete;
    OsalThread& operator=(const OsalThread&) = delete;

    virtual bool isStopRequested();
    virtual void run() = 0;
    virtual void cancel();

    bool start(void* argument);
    void stop();
    void join();
    bool isRunning() const;

    void setName(const char* newName);
    void setName(const std::string& newName);
    // A copy: the name may change under a running thread.
    std::string getName() const;
    bool setPriority(int32_t newPriority);
    int32_t getPriority() const;
    bool setStackSize(size_t newStackSize);
    bool enablePrivilegedExecution(bool enable);
    void* getArgument() const;

    static bool sleep(uint32_t milliseconds, uint32_t& remainingMilliseconds);
    static bool sleep(uint32_t milliseconds);
    static void yield();
    static int32_t getMinPriority();
    static int32_t getMaxPriority();
    static size_t getMinimumStackSize();
    static OsalThread* current();
    static void forEachThread(Visitor& visitor);
    static void suspendOtherThreads(const OsalThread* self);
    static void resumeAllThreads();

private:
    friend class OsalBasicThread;

    static OsalBinaryMutex& listLock();
    static bool createThreadKey();
    void insertIntoList();
    void setRunning(bool value);
    void markStopRequested();

    OsalSemaphore suspendSemaphore;
    bool suspendRequested;
    bool suspended;
    bool running;
    bool stopRequested;
    void* argument;
    bool created;
    size_t stackSize;
    std::string name;
    int32_t priority;
    bool privileged;
    OsalThread* next;
    OsalThread* previous;

    static OsalThread* listHead;
    static pthread_key_t threadKey;
    static std::atomic<bool> threadKeyCreated;
};

} // namespace Osal
} // namespace CommonCpp
} // namespace Halvern
