#include "Osal/OsalThread.h"
#include "Osal/commonCppOsalLinux/cpp/OsalLockAutomatically.h"
#include "tests/support/PrivateDevLog.h"

#include <gtest/gtest.h>

#include <csignal>
#include <memory>
#include <stdexcept>
#include <sys/time.h>
#include <thread>
#include <vector>

namespace {

using namespace Halvern::CommonCpp::Osal;

struct Shared {
    OsalSemaphore started{0}, gate{0}, finished{0};
    std::atomic<int> runs{0};
    std::string text; // written by the body before `finished` or its end
    bool flag = false;
};

// The body is a plain function, so nothing it uses dies with the derived part
// of the object (the base destructor may still be cancelling the thread).
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

void startAndWait(TestThread& thread, Shared& shared)
{
    ASSERT_TRUE(thread.start(&shared));
    shared.started.lock();
}

void signalThenWaitAtGate(TestThread& /*self*/, Shared& shared)
{
    shared.started.unlock();
    shared.gate.lock();
}

void waitAtGate(TestThread&, Shared& shared)
{
    shared.gate.lock();
}

std::string systemName()
{
    char name[16] = {};
    pthread_getname_np(pthread_self(), name, sizeof name);
    return name;
}

TEST(OsalThread, CountsAsRunningFromStartUntilRunReturnsOrThrowsAndStartsAgain)
{
    Shared shared;
    TestThread thread([](TestThread& self, Shared& s) {
        if (++s.runs == 2) {
            throw std::runtime_error("disk on fire");
        }
        if (s.runs == 3) {
            throw 42;
        }
        s.flag =
            OsalThread::current() == &self && self.getPriority() == OsalThread::getMinPriority();
        signalThenWaitAtGate(self, s);
    });
    EXPECT_FALSE(thread.isRunning());
    thread.join(); // never started: returns at once
    {
        // Holding the object's lock keeps the new thread from reaching run().
        OsalLockAutomatically hold(thread.stateLock(), -1);
        ASSERT_TRUE(thread.start(&shared));
        EXPECT_TRUE(thread.isRunning());
    }
    shared.started.lock();
    EXPECT_TRUE(thread.isRunning());
    EXPECT_FALSE(thread.start(&shared)) << "refused while the earlier thread runs";
    shared.gate.unlock();
    for (int waited = 0; thread.isRunning() && waited < 10000; ++waited) {
        OsalThread::sleep(1);
    }
    EXPECT_TRUE(shared.flag) << "current() and the default priority inside run()";
    EXPECT_EQ(nullptr, OsalThread::current());
    // An exception escaping run() ends only that thread.
    thread.setName("thrower");
    for (const char* record :
         {"[Error] OsalThread: Unhandled exception in thread thrower: disk on fire",
          "[Error] OsalThread: Unhandled unknown exception in thread thrower"}) {
        ASSERT_TRUE(thread.start(&shared)) << "joins a finished, unjoined thread first";
        thread.join();
        thread.join();
        EXPECT_FALSE(thread.isRunning());
        EXPECT_TRUE(TestSupport::PrivateDevLog::reader().waitForText(record, 5000)) << record;
    }
    EXPECT_EQ(3, shared.runs);
}

TEST(OsalThread, StopOrDestructionCancelsAWaitOnASemaphoreAndLeavesItUsable)
{
    struct SetOnUnwind {
        Shared& shared;
        ~SetOnUnwind() { shared.flag = true; }
    };
    for (const bool byDestructor : {false, true}) {
        SCOPED_TRACE(byDestructor ? "destructor" : "stop");
        Shared shared;
        auto thread = std::make_unique<TestThread>([](TestThread& self, Shared& s) {
            SetOnUnwind sentinel{s};
            signalThenWaitAtGate(self, s);
        });
        startAndWait(*thread, shared);
        if (byDestructor) {
            thread.reset();
        } else {
            thread->stop();
            thread->join();
            EXPECT_FALSE(thread->isRunning());
            EXPECT_TRUE(thread->isStopRequested());
        }
        EXPECT_TRUE(shared.flag) << "unwound and joined";
        std::thread waiter([&] { EXPECT_TRUE(shared.gate.lock(5000)); });
        shared.gate.unlock();
        waiter.join();
    }
}

TEST(OsalThread, NameStackSizeAndPriorityReachTheSystemThread)
{
    Shared shared;
    TestThread thread([](TestThread& self, Shared& s) {
        pthread_attr_t attributes;
        size_t size = 0;
        pthread_getattr_np(pthread_self(), &attributes);
        pthread_attr_getstacksize(&attributes, &size);
        pthread_attr_destroy(&attributes);
        // Well below any default stack (ThreadSanitizer adds its own share);
        // and not a real-time thread, so the system refuses a SCHED_RR priority.
        s.flag = size >= 256 * 1024 && size < 1024 * 1024 &&
                 !self.setPriority(OsalThread::getMinPriority());
        s.text = systemName();
        signalThenWaitAtGate(self, s);
        s.text += "/" + systemName();
    });
    EXPECT_FALSE(thread.setStackSize(OsalThread::getMinimumStackSize() - 1));
    EXPECT_TRUE(thread.setStackSize(256 * 1024));
    EXPECT_TRUE(thread.setPriority(OsalThread::getMaxPriority()));
    thread.setName("osal-early");
    startAndWait(thread, shared);
    thread.setName(std::string("osal-renamed"));
    thread.setName("a-name-longer-than-fifteen"); // refused by the system only
    shared.gate.unlock();
    thread.join();
    EXPECT_TRUE(shared.flag) << "256 KiB stack applied, priority change refused";
    EXPECT_EQ("osal-early/osal-renamed", shared.text);
    EXPECT_EQ("a-name-longer-than-fifteen", thread.getName());
    EXPECT_EQ(OsalThread::getMaxPriority(), thread.getPriority());
}

TEST(OsalThread, SleepYieldsForZeroAndReportsTheRestWhenInterrupted)
{
    uint32_t remaining = 99;
    EXPECT_TRUE(OsalThread::sleep(0, remaining));
    EXPECT_EQ(0U, remaining);
    struct sigaction noOp = {}, previous = {};
    noOp.sa_handler = [](int) {};
    ASSERT_EQ(0, sigaction(SIGALRM, &noOp, &previous));
    const itimerval after50ms{{0, 0}, {0, 50000}};
    setitimer(ITIMER_REAL, &after50ms, nullptr);
    EXPECT_FALSE(OsalThread::sleep(1500, remaining));
    sigaction(SIGALRM, &previous, nullptr);
    EXPECT_GT(remaining, 1000U);
    EXPECT_LE(remaining, 1500U);
}

TEST(OsalThread, SuspensionParksAThreadUntilResumedOrStopped)
{
    // Cancel: stop() cancels it while parked; AskToStop: stop() only asks.
    enum class Then { Resume, Cancel, AskToStop, NotSuspendable };
    for (const Then then : {Then::Resume, Then::Cancel, Then::AskToStop, Then::NotSuspendable}) {
        SCOPED_TRACE(static_cast<int>(then));
        const bool parks = then != Then::NotSuspendable;
        Shared shared;
        TestThread thread([](TestThread& self, Shared& s) {
            s.started.unlock();
            s.flag = self.isStopRequested();
            s.finished.unlock();
        });
        thread.doSuspend = parks;
        thread.cooperativeStop = then == Then::AskToStop;
        OsalThread::suspendOtherThreads(OsalThread::current());
        startAndWait(thread, shared);
        EXPECT_EQ(parks, !shared.finished.lock(50));
        if (then == Then::Cancel || then == Then::AskToStop) {
            thread.stop();
            EXPECT_FALSE(shared.finished.lock(50)) << "not woken by the stop request itself";
        }
        OsalThread::resumeAllThreads();
        thread.join();
        EXPECT_EQ(then != Then::Cancel, !parks || shared.finished.lock(0)) << "returned";
        EXPECT_EQ(then == Then::AskToStop, shared.flag) << "stop seen";
    }
}

TEST(OsalThread, ListIsWalkedNewestFirstAndStaysSoundUnderChurn)
{
    struct Collector : OsalThread::Visitor {
        void visit(OsalThread* thread) override
        {
            seen.push_back(thread);
            total += thread->getName().size(); // touches every object
        }
        std::vector<OsalThread*> seen;
        size_t total = 0;
    };
    std::atomic<bool> building{true};
    std::thread walker([&] {
        while (building) {
            Collector collector;
            OsalThread::forEachThread(collector);
        }
    });
    const auto build = [] {
        for (int i = 0; i < 300; ++i) {
            TestThread(waitAtGate).setName("churn");
        }
    };
    std::thread builder(build);
    build();
    builder.join();
    building = false;
    walker.join();

    TestThread first(waitAtGate), second(waitAtGate), third(waitAtGate);
    Collector collector;
    OsalThread::forEachThread(collector);
    EXPECT_EQ((std::vector<OsalThread*>{&third, &second, &first}), collector.seen)
        << "every churned object left the list";
}

// The C library's report: "<file>:<line>: <function>: Assertion `!"<text>"' failed."
std::string report(const std::string& method, const std::string& text)
{
    const std::string file =
        "Osal/commonCppOsalLinux/cpp/" + method.substr(0, method.find(':')) + ".cpp";
    return file + ":[0-9]+: .*Halvern::CommonCpp::Osal::" + method + ".*: Assertion `!\"" + text +
           "\"' failed\\.";
}

TEST(OsalFatalAssertDeathTest, ContractViolationsEndTheProcessNamingTheirSource)
{
    // fork() without exec: re-executing the binary fails under qemu-user.
    GTEST_FLAG_SET(death_test_style, "fast");
    const std::string range = report("OsalThread::setPriority", "Priority not in allowed range!");
    const std::string privileged = "OsalThread::enablePrivilegedExecution";
    const std::string mode = "Setting privileged execution mode ";
    const std::pair<void (*)(), std::string> rows[] = {
        {[] { TestThread(waitAtGate).setPriority(OsalThread::getMinPriority() - 1); }, range},
        {[] { TestThread(waitAtGate).setPriority(OsalThread::getMaxPriority() + 1); }, range},
        {[] { TestThread(waitAtGate).enablePrivilegedExecution(true); },
         report(privileged, mode + "NOT supported in this implementation!")},
        {[] {
             Shared shared;
             TestThread running(waitAtGate);
             running.start(&shared);
             running.enablePrivilegedExecution(false);
         },
         report(privileged, mode + "for running thread NOT possible!")},
        {[] { OsalBinaryMutex().unlockFromIsr(); },
         report("OsalBinaryMutex::unlockFromIsr",
                "Call to illegal method OsalBinaryMutex::unlockFromIsr\\(\\)")},
    };
    for (const auto& [violation, pattern] : rows) {
        EXPECT_DEATH(violation(), pattern);
    }
}

} // namespace
