#include "tests/osal/OsalTestThread.h"

#include "Osal/commonCppOsalLinux/cpp/OsalLockAutomatically.h"
#include "tests/support/PrivateDevLog.h"

#include <gtest/gtest.h>

#include <csignal>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

using namespace OsalTest;
using Halvern::CommonCpp::Osal::OsalLockAutomatically;

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

std::string systemName()
{
    char name[16] = {};
    pthread_getname_np(pthread_self(), name, sizeof name);
    return name;
}

TEST(OsalThread, CountsAsRunningFromStartUntilRunReturnsAndStartsAgain)
{
    Shared shared;
    TestThread thread([](TestThread& self, Shared& s) {
        ++s.runs;
        s.text = self.getName();
        s.flag = OsalThread::current() == &self && self.getPriority() == OsalThread::getMinPriority();
        signalThenWaitAtGate(self, s);
    });
    EXPECT_FALSE(thread.isRunning());
    thread.join();  // never started: returns at once
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
    shared.gate.unlock();  // for the second run
    ASSERT_TRUE(thread.start(&shared)) << "joins the finished, unjoined thread first";
    thread.join();
    thread.join();
    EXPECT_FALSE(thread.isRunning());
    EXPECT_EQ(2, shared.runs);
    EXPECT_EQ("", shared.text);
    EXPECT_TRUE(shared.flag) << "current() and the default priority inside run()";
    EXPECT_EQ(nullptr, OsalThread::current());
}

TEST(OsalThread, ExceptionEscapingRunEndsOnlyThatThread)
{
    const std::pair<TestThread::Body, const char*> rows[] = {
        {[](TestThread&, Shared&) { throw std::runtime_error("disk on fire"); },
         "[Error] OsalThread: Unhandled exception in thread thrower: disk on fire"},
        {[](TestThread&, Shared&) { throw 42; },
         "[Error] OsalThread: Unhandled unknown exception in thread thrower"},
    };
    for (const auto& [body, record] : rows) {
        Shared shared;
        TestThread thread(body);
        thread.setName("thrower");
        ASSERT_TRUE(thread.start(&shared));
        thread.join();
        EXPECT_FALSE(thread.isRunning());
        EXPECT_TRUE(TestSupport::PrivateDevLog::reader().waitForText(record, 5000)) << record;
    }
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

TEST(OsalThread, NameReachesTheSystemThreadBeforeAndWhileRunning)
{
    Shared shared;
    TestThread thread([](TestThread& self, Shared& s) {
        s.text = systemName();
        signalThenWaitAtGate(self, s);
        s.text += "/" + systemName();
    });
    thread.setName("osal-early");
    startAndWait(thread, shared);
    thread.setName(std::string("osal-renamed"));
    thread.setName("a-name-longer-than-fifteen");  // refused by the system only
    shared.gate.unlock();
    thread.join();
    EXPECT_EQ("osal-early/osal-renamed", shared.text);
    EXPECT_EQ("a-name-longer-than-fifteen", thread.getName());
}

TEST(OsalThread, StackSizeAndPriority)
{
    Shared shared;
    TestThread thread([](TestThread& self, Shared& s) {
        pthread_attr_t attributes;
        size_t size = 0;
        size_t defaultSize = 0;
        if (pthread_getattr_np(pthread_self(), &attributes) == 0) {
            pthread_attr_getstacksize(&attributes, &size);
            pthread_attr_destroy(&attributes);
        }
        if (pthread_attr_init(&attributes) == 0) {
            pthread_attr_getstacksize(&attributes, &defaultSize);
            pthread_attr_destroy(&attributes);
        }
        // Below the default, so a size that was not applied shows (sanitizers
        // may add to it); and not a real-time thread, so the system refuses a
        // SCHED_RR priority.
        s.flag = size >= 256 * 1024 && size < defaultSize &&
                 !self.setPriority(OsalThread::getMinPriority());
    });
    EXPECT_FALSE(thread.setStackSize(OsalThread::getMinimumStackSize() - 1));
    EXPECT_TRUE(thread.setStackSize(256 * 1024));
    EXPECT_TRUE(thread.setPriority(OsalThread::getMaxPriority()));
    ASSERT_TRUE(thread.start(&shared));
    thread.join();
    EXPECT_TRUE(shared.flag) << "256 KiB stack applied, priority change refused";
    EXPECT_EQ(OsalThread::getMaxPriority(), thread.getPriority());
}

TEST(OsalThread, SleepYieldsForZeroAndReportsTheRestWhenInterrupted)
{
    uint32_t remaining = 99;
    EXPECT_TRUE(OsalThread::sleep(0, remaining));
    EXPECT_EQ(0U, remaining);

    struct sigaction noOp = {};
    noOp.sa_handler = [](int) {};  // no SA_RESTART: the sleep is interrupted
    struct sigaction previous = {};
    ASSERT_EQ(0, sigaction(SIGUSR1, &noOp, &previous));
    Shared shared;
    std::atomic<uint32_t> left{0};
    std::thread sleeper([&] {
        uint32_t rest = 0;
        shared.flag = OsalThread::sleep(1500, rest);
        left = rest;
        shared.finished.unlock();
    });
    // Repeated, as one signal may land before the sleep begins.
    do {
        pthread_kill(sleeper.native_handle(), SIGUSR1);
    } while (!shared.finished.lock(20));
    sleeper.join();
    sigaction(SIGUSR1, &previous, nullptr);
    EXPECT_FALSE(shared.flag);
    EXPECT_GT(left, 0U);
    EXPECT_LE(left, 1500U);  // timer slack may round an early interruption up
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
            total += thread->getName().size();  // touches every object
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
    auto build = [] {
        for (int i = 0; i < 300; ++i) {
            TestThread([](TestThread&, Shared&) {}).setName("churn");
        }
    };
    std::thread builderA(build), builderB(build);
    builderA.join();
    builderB.join();
    building = false;
    walker.join();

    const TestThread::Body idle = [](TestThread&, Shared&) {};
    TestThread first(idle), second(idle), third(idle);
    Collector collector;
    OsalThread::forEachThread(collector);
    EXPECT_EQ((std::vector<OsalThread*>{&third, &second, &first}), collector.seen)
        << "every churned object left the list";
}

} // namespace
