#include "Osal/OsalThread.h"

#include "Osal/OsalAssert.h"
#include "Osal/commonCppOsalLinux/cpp/OsalLockAutomatically.h"

#include <cerrno>
#include <ctime>
#include <sched.h>

namespace Halvern {
namespace CommonCpp {
namespace Osal {

OsalThread* OsalThread::listHead = nullptr;
pthread_key_t OsalThread::threadKey = pthread_key_t();
std::atomic<bool> OsalThread::threadKeyCreated{false};

void OsalThread::Visitor::visit(OsalThread* /*thread*/)
{
    defaultVisitReached = true;
}

OsalThread::OsalThread()
    : suspendSemaphore(0), suspendRequested(false), suspended(false), running(false),
      stopRequested(false), argument(nullptr), created(false), stackSize(0), name(),
      priority(getMinPriority()), privileged(false), next(nullptr), previous(nullptr)
{
    doSuspend = true;
    if (!createThreadKey()) {
        OSAL_FATAL_ASSERT(false, "Osal/commonCppOsalLinux/cpp/OsalThread.cpp");
    }
    insertIntoList();
}

OsalThread::OsalThread(const char* threadName, int32_t threadPriority, size_t threadStackSize,
                       void* threadArgument)
    : suspendSemaphore(0), suspendRequested(false), suspended(false), running(false),
      stopRequested(false), argument(threadArgument), created(false), stackSize(0), name(),
      priority(getMinPriority()), privileged(false), next(nullptr), previous(nullptr)
{
    doSuspend = true;
    if (!createThreadKey()) {
        OSAL_FATAL_ASSERT(!"Initializing pthreadKey failed!",
                          "Osal/commonCppOsalLinux/cpp/OsalThread.cpp");
    }
    insertIntoList();
    setName(threadName);
    setPriority(threadPriority);
    setStackSize(threadStackSize);
}

OsalThread::~OsalThread()
{
    // Being cancelled while joining would unwind out of a destructor.
    int oldState = PTHREAD_CANCEL_ENABLE;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &oldState);
    {
        OsalLockAutomatically listGuard(listLock(), -1);
        if (isRunning()) {
            markStopRequested();
            // Nothing of a derived class is left to dispatch to.
            OsalThread::cancel();
        }
    }
    join();
    {
        OsalLockAutomatically listGuard(listLock(), -1);
        if (previous != nullptr) {
            previous->next = next;
        } else if (listHead == this) {
            listHead = next;
        }
        if (next != nullptr) {
            next->previous = previous;
        }
        next = nullptr;
        previous = nullptr;
    }
    pthread_setcancelstate(oldState, nullptr);
}

OsalBinaryMutex& OsalThread::listLock()
{
    // Built on first use, so thread objects defined at namespace scope in any
    // unit find it ready; it outlives every object that registered under it.
    static OsalBinaryMutex lock;
    return lock;
}

bool OsalThread::createThreadKey()
{
    // A function-local static is initialised exactly once, also when the
    // first thread objects are built concurrently.
    static const bool keyCreated = [] {
        const bool done = pthread_key_create(&threadKey, nullptr) == 0;
        threadKeyCreated.store(done, std::memory_order_release);
        return done;
    }();
    return keyCreated;
}

void OsalThread::insertIntoList()
{
    OsalLockAutomatically listGuard(listLock(), -1);
    if (listHead == this || previous != nullptr) {
        return;
    }
    next = listHead;
    if (listHead != nullptr) {
        listHead->previous = this;
    }
    listHead = this;
}

void OsalThread::setRunning(bool value)
{
    OsalLockAutomatically guard(objectLock, -1);
    running = value;
}

bool OsalThread::start(void* newArgument)
{
    OsalLockAutomatically guard(objectLock, -1);
    // Refused rather than joined: the running thread needs this lock to finish,
    // so joining it here would never return.
    if (running) {
        return false;
    }
    if (created) {
        // The earlier thread has left run() and needs the lock no more.
        join();
        if (created) {
            return false;
        }
    }
    argument = newArgument;
    stopRequested = false;

    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0) {
        return false;
    }
    // The policy goes first: the C library checks the priority against the
    // policy already in the attributes. The inherit-scheduler attribute stays
    // at its default, so the new thread inherits its creator's scheduling and
    // these values are inert: the daemon is not real-time, and explicit
    // SCHED_RR would fail without privileges.
    sched_param parameter{};
    parameter.sched_priority = priority;
    const bool configured =
        (stackSize == 0 || pthread_attr_setstacksize(&attributes, stackSize) == 0) &&
        pthread_attr_setschedpolicy(&attributes, SCHED_RR) == 0 &&
        pthread_attr_setschedparam(&attributes, &parameter) == 0;

    // Running from here on, not from when the new thread gets going: an owner
    // that polls isRunning() right after start() must not see a thread that
    // has not begun yet as one that has ended.
    running = configured;
    created =
        configured && pthread_create(&thread, &attributes, &OsalBasicThread::threadFunctionPrivate,
                                     static_cast<void*>(this)) == 0;
    running = created;
    pthread_attr_destroy(&attributes);
    return created;
}

void OsalThread::markStopRequested()
{
    OsalLockAutomatically guard(objectLock, -1);
    stopRequested = true;
}

void OsalThread::stop()
{
    markStopRequested();
    cancel();
}

void OsalThread::cancel()
{
    // pthread_cancel() does not block, so it may run under the lock, which
    // keeps a concurrent start() from swapping the handle meanwhile.
    OsalLockAutomatically guard(objectLock, -1);
    if (created) {
        // Its only failure means the thread has gone: nothing left to stop.
        static_cast<void>(pthread_cancel(thread));
    }
}

void OsalThread::join()
{
    pthread_t handle;
    {
        OsalLockAutomatically guard(objectLock, -1);
        if (!created) {
            return;
        }
        handle = thread;
    }
    // Without the lock, which the thread itself may still need.
    if (pthread_join(handle, nullptr) != 0) {
        // Joining itself (EDEADLK): the thread is still there.
        return;
    }
    OsalLockAutomatically guard(objectLock, -1);
    created = false;
}

bool OsalThread::isRunning() const
{
    OsalLockAutomatically guard(objectLock, -1);
    return running;
}

bool OsalThread::isStopRequested()
{
    OsalLockAutomatically guard(objectLock, -1);
    while (suspendRequested && !stopRequested) {
        suspended = true;
        // One level only, so that resumeAllThreads() and stop() get in.
        objectLock.unlock();
        try {
            suspendSemaphore.lock();
        } catch (...) {
            // Cancelled while parked: the guard releases the level it took.
            objectLock.lock();
            suspended = false;
            throw;
        }
        objectLock.lock();
    }
    suspended = false;
    return stopRequested;
}

void OsalThread::setName(const char* newName)
{
    setName(std::string(newName != nullptr ? newName : ""));
}

void OsalThread::setName(const std::string& newName)
{
    OsalLockAutomatically guard(objectLock, -1);
    name = newName;
    if (running) {
        // A name too long for the system keeps the old system name; the
        // object's name changes all the same.
        static_cast<void>(pthread_setname_np(thread, name.c_str()));
    }
}

std::string OsalThread::getName() const
{
    OsalLockAutomatically guard(objectLock, -1);
    return name;
}

bool OsalThread::setPriority(int32_t newPriority)
{
    if (newPriority < getMinPriority() || newPriority > getMaxPriority()) {
        OSAL_FATAL_ASSERT(!"Priority not in allowed range!",
                          "Osal/commonCppOsalLinux/cpp/OsalThread.cpp");
    }
    OsalLockAutomatically guard(objectLock, -1);
    if (running) {
        int policy = 0;
        sched_param parameter{};
        if (pthread_getschedparam(thread, &policy, &parameter) != 0) {
            return false;
        }
        parameter.sched_priority = newPriority;
        if (pthread_setschedparam(thread, policy, &parameter) != 0) {
            return false;
        }
    }
    priority = newPriority;
    return true;
}

int32_t OsalThread::getPriority() const
{
    OsalLockAutomatically guard(objectLock, -1);
    return priority;
}

bool OsalThread::setStackSize(size_t newStackSize)
{
    pthread_attr_t scratch;
    if (pthread_attr_init(&scratch) != 0) {
        return false;
    }
    const bool accepted = pthread_attr_setstacksize(&scratch, newStackSize) == 0;
    pthread_attr_destroy(&scratch);
    if (accepted) {
        // start() reads the size under the lock.
        OsalLockAutomatically guard(objectLock, -1);
        stackSize = newStackSize;
    }
    return accepted;
}

bool OsalThread::enablePrivilegedExecution(bool enable)
{
    OsalLockAutomatically guard(objectLock, -1);
    if (enable) {
        OSAL_FATAL_ASSERT(
            !"Setting privileged execution mode NOT supported in this implementation!",
            "Osal/commonCppOsalLinux/cpp/OsalThread.cpp");
    }
    if (running) {
        OSAL_FATAL_ASSERT(!"Setting privileged execution mode for running thread NOT possible!",
                          "Osal/commonCppOsalLinux/cpp/OsalThread.cpp");
    }
    privileged = false;
    return true;
}

void* OsalThread::getArgument() const
{
    OsalLockAutomatically guard(objectLock, -1);
    return argument;
}

bool OsalThread::sleep(uint32_t milliseconds, uint32_t& remainingMilliseconds)
{
    remainingMilliseconds = 0;
    if (milliseconds == 0) {
        yield();
        return true;
    }
    timespec request{};
    request.tv_sec = static_cast<time_t>(milliseconds / 1000U);
    request.tv_nsec = static_cast<long>(milliseconds % 1000U) * 1000000L;
    timespec remaining{};
    if (nanosleep(&request, &remaining) == 0) {
        return true;
    }
    if (errno == EINTR) {
        remainingMilliseconds = static_cast<uint32_t>(remaining.tv_sec) * 1000U +
                                static_cast<uint32_t>(remaining.tv_nsec / 1000000L);
    }
    return false;
}

bool OsalThread::sleep(uint32_t milliseconds)
{
    uint32_t remainingMilliseconds = 0;
    return sleep(milliseconds, remainingMilliseconds);
}

void OsalThread::yield()
{
    sched_yield();
}

int32_t OsalThread::getMinPriority()
{
    return sched_get_priority_min(SCHED_RR);
}

int32_t OsalThread::getMaxPriority()
{
    return sched_get_priority_max(SCHED_RR);
}

size_t OsalThread::getMinimumStackSize()
{
    return 16384;
}

OsalThread* OsalThread::current()
{
    OsalLockAutomatically listGuard(listLock(), -1);
    if (!threadKeyCreated.load(std::memory_order_acquire)) {
        return nullptr;
    }
    return static_cast<OsalThread*>(pthread_getspecific(threadKey));
}

void OsalThread::forEachThread(Visitor& visitor)
{
    OsalLockAutomatically listGuard(listLock(), -1);
    visitor.defaultVisitReached = false;
    for (OsalThread* thread = listHead; thread != nullptr && !visitor.defaultVisitReached;
         thread = thread->next) {
        visitor.visit(thread);
    }
}

void OsalThread::suspendOtherThreads(const OsalThread* self)
{
    OsalLockAutomatically listGuard(listLock(), -1);
    for (OsalThread* thread = listHead; thread != nullptr; thread = thread->next) {
        if (thread == self) {
            continue;
        }
        OsalLockAutomatically guard(thread->objectLock, -1);
        if (thread->doSuspend) {
            thread->suspendRequested = true;
        }
    }
}

void OsalThread::resumeAllThreads()
{
    OsalLockAutomatically listGuard(listLock(), -1);
    for (OsalThread* thread = listHead; thread != nullptr; thread = thread->next) {
        OsalLockAutomatically guard(thread->objectLock, -1);
        thread->suspendRequested = false;
        thread->suspendSemaphore.unlock();
    }
}

} // namespace Osal
} // namespace CommonCpp
} // namespace Halvern
