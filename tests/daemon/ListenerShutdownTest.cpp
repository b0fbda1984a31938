// The listener notices a handler thread that has ended on its own and shuts
// the daemon down in order. The listener runs in a child process, in a network
// namespace of its own (no host uevents) and over an empty /sys, and a helper
// thread there cancels the handler thread behind the listener's back.
#include "daemon/HotplugNetlink.h"
#include "sandbox/IsolatedNetwork.h"
#include "sandbox/Uevent.h"
#include "sandbox/UeventSender.h"
#include "tests/support/HotplugTestAccess.h"
#include "tests/support/PrivateDevLog.h"

#include <gtest/gtest.h>

#include <chrono>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

[[noreturn]] void runListenerWhoseHandlerDies(int networkFd)
{
    if (setns(networkFd, CLONE_NEWNET) != 0 || unshare(CLONE_NEWNS) != 0 ||
        mount("none", "/sys", "tmpfs", 0, nullptr) != 0) {
        _exit(3);
    }
    HotplugNetlink listener;
    std::thread saboteur([&listener] {
        auto& handler = HotplugNetlinkTestAccess::handlerThread(listener);
        while (!handler.isRunning()) {
            std::this_thread::yield();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        handler.stop();
        handler.join();
        // Wakes the listener's poll instead of waiting out its 5 s time-out.
        Sandbox::UeventSender().send(Sandbox::Uevent("change", "/devices/x").datagram());
    });
    listener.run();
    saboteur.join();
    _exit(0);
}

TEST(ListenerShutdown, EndsInOrderWhenTheHandlerThreadEndsOnItsOwn)
{
    Sandbox::IsolatedNetwork network;
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        runListenerWhoseHandlerDies(network.fd());
    }
    auto& reader = TestSupport::PrivateDevLog::reader();
    EXPECT_TRUE(reader.waitForText("[Debug] HotplugNetlink: Process terminated", 10000));
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;

    std::vector<std::string> ending;
    bool handlerEnded = false;
    for (const auto& text : reader.texts()) {
        handlerEnded = handlerEnded || text == "[Debug] HotplugHandlerThread: Thread terminated";
        if (handlerEnded) {
            ending.push_back(text);
        }
    }
    ASSERT_EQ(ending.size(), 5U);
    EXPECT_EQ(ending[1], "[Error] HotplugNetlink: Exception: \"HotplugNetlink::run(): Handler "
                         "thread terminated unexpectedly\"");
    EXPECT_EQ(ending[2].rfind("[Debug] Poller: Unregister descriptor: ", 0), 0U);
    EXPECT_EQ(ending[3].rfind("[Debug] Poller: Unregister descriptor: ", 0), 0U);
}

} // namespace
