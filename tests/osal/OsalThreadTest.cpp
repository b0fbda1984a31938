// Threads as the daemon uses them: counted as running from start() until run()
// is left, whatever way, and stopped by cancellation out of a semaphore wait;
// suspending the others leaves a thread that opted out at work.
#include "Osal/OsalThread.h"
#include "Osal/commonCppOsalLinux/cpp/OsalLockAutomatically.h"
#include "tests/support/CapturedSyslog.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <thread>

namespace {

using namespace Halvern::CommonCpp::Osal;

struct Shared {
    OsalSemaphore started{0}, gate{0};
    int runs = 0;
    bool unwound = false;
    std::atomic<int> laps{0};
};

// The body is a plain function, so nothing it uses dies with the derived part
// of the object while the base destructor may still be cancelling the thread.
class TestThread : public OsalThread {
public:
    using Body = void (*)(TestThread& self, Shared& shared);
    explicit TestThread(Body threadBody) : body(threadBody) {}
    void run() override { body(*this, *static_cast<Shared*>(getArgument())); }
    OsalRecursiveMutex& stateLock() { return objectLock; }

private:
    Body body;
};

void waitAtGate(TestThread&, Shared& shared)
{
    shared.started.unlock();
    shared.gate.lock();
}

TEST(OsalThread, RunsFromStartUntilRunIsLeftAndAnEscapingExceptionEndsOnlyTheThread)
{
    Shared shared;
    TestThread thread([](TestThread& self, Shared& s) {
        if (++s.runs == 2) {
            throw std::runtime_error("disk on fire");
        }
        waitAtGate(self, s);
    });
    {
        // Holding the object's lock keeps the new thread from reaching run():
        // an owner polling isRunning() right after start() must not see it ended.
        OsalLockAutomatically hold(thread.stateLock(), -1);
        ASSERT_TRUE(thread.start(&shared));
        EXPECT_TRUE(thread.isRunning());
    }
    shared.started.lock();
    EXPECT_FALSE(thread.start(&shared)) << "refused while the earlier thread runs";
    shared.gate.unlock();
    while (thread.isRunning()) {
        OsalThread::yield();
    }
    TestSupport::CapturedSyslog::take();
    ASSERT_TRUE(thread.start(&shared)) << "joins the finished thread first";
    thread.join();
    EXPECT_FALSE(thread.isRunning());
    EXPECT_EQ(TestSupport::CapturedSyslog::takeTexts(),
              std::vector<std::string>{
                  "[Error] OsalThread: Unhandled exception in thread: disk on fire"});
}

TEST(OsalThread, StopOrDestructionCancelsAWaitOnASemaphoreAndLeavesItUsable)
{
    for (const bool byDestructor : {false, true}) {
        Shared shared;
        auto thread = std::make_unique<TestThread>([](TestThread& self, Shared& s) {
            struct SetOnUnwind {
                Shared& shared;
                ~SetOnUnwind() { shared.unwound = true; }
            } sentinel{s};
            waitAtGate(self, s);
        });
        ASSERT_TRUE(thread->start(&shared));
        shared.started.lock();
        if (byDestructor) {
            thread.reset();
        } else {
            thread->stop();
            thread->join();
            EXPECT_FALSE(thread->isRunning());
        }
        EXPECT_TRUE(shared.unwound) << byDestructor;
        std::thread waiter([&] { EXPECT_TRUE(shared.gate.lock(5000)); });
        shared.gate.unlock();
        waiter.join();
    }
}

TEST(OsalThread, SuspendingTheOthersSparesAThreadThatOptedOut)
{
    const auto lapping = [](TestThread& self, Shared& s) {
        s.started.unlock();
        while (!self.isStopRequested()) { // where a suspended thread parks
            ++s.laps;
            OsalThread::yield();
        }
    };
    Shared parkedState, sparedState;
    TestThread parked(lapping), spared(lapping);
    spared.doSuspend = false;
    ASSERT_TRUE(parked.start(&parkedState) && spared.start(&sparedState));
    parkedState.started.lock();
    sparedState.started.lock();
    OsalThread::suspendOtherThreads(nullptr);
    const int from = sparedState.laps;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (sparedState.laps < from + 100 && std::chrono::steady_clock::now() < deadline) {
        OsalThread::yield();
    }
    EXPECT_GE(sparedState.laps, from + 100) << "the thread that opted out was parked too";
    OsalThread::resumeAllThreads();
    parked.stop();
    spared.stop();
    parked.join();
    spared.join();
}

} // namespace
