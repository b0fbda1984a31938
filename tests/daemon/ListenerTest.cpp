// The listener notices a handler thread that ended on its own and ends the
// daemon in order. The listener runs in a child process, in namespaces of its
// own (no host uevents, an empty /sys), where a thread stops the handler
// thread behind the listener's back.
#include "daemon/HotplugNetlink.h"
#include "sandbox/IsolatedNetwork.h"
#include "sandbox/Namespaces.h"
#include "sandbox/Uevent.h"
#include "sandbox/UeventSender.h"
#include "tests/support/CapturedSyslog.h"

#include <gtest/gtest.h>

#include <chrono>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

using Halvern::CommonCpp::Osal::OsalThread;

// The records of the listener's run, one per line, written to `out`.
[[noreturn]] void runListenerWhoseHandlerEnds(int networkFd, int out)
{
    if (setns(networkFd, CLONE_NEWNET) != 0 || mount("none", "/sys", "tmpfs", 0, nullptr) != 0) {
        _exit(3);
    }
    HotplugNetlink listener;
    std::thread saboteur([] {
        struct Finder : OsalThread::Visitor {
            void visit(OsalThread* thread) override { found = thread; }
            OsalThread* found = nullptr;
        } handler;
        while (handler.found == nullptr || !handler.found->isRunning()) {
            OsalThread::forEachThread(handler);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        handler.found->stop();
        handler.found->join();
        // Wakes the listener's poll instead of waiting out its 5 s time-out.
        Sandbox::UeventSender().send(Sandbox::Uevent("change", "/devices/x").datagram());
    });
    listener.run();
    saboteur.join();
    for (const auto& text : TestSupport::CapturedSyslog::takeTexts()) {
        (void)!write(out, (text + "\n").data(), text.size() + 1);
    }
    _exit(0);
}

TEST(Listener, EndsInOrderWhenTheHandlerThreadEndsOnItsOwn)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root: the listener runs in namespaces of its own";
    }
    // Entered here, before the child exists: a sanitizer's runtime may give
    // the child a thread of its own at once. The /sys of the child is undone after.
    Sandbox::Namespaces::enterPrivateMountNamespace();
    Sandbox::IsolatedNetwork network;
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        runListenerWhoseHandlerEnds(network.fd(), ends[1]);
    }
    close(ends[1]);
    std::string output;
    char block[4096];
    for (ssize_t length; (length = read(ends[0], block, sizeof block)) > 0;) {
        output.append(block, static_cast<size_t>(length));
    }
    close(ends[0]);
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    umount2("/sys", MNT_DETACH);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    const std::string ending = "[Debug] HotplugHandlerThread: Thread terminated\n"
                               "[Error] HotplugNetlink: Exception: \"HotplugNetlink::run(): "
                               "Handler thread terminated unexpectedly\"\n"
                               "[Debug] Poller: Unregister descriptor: ";
    ASSERT_NE(output.find(ending), std::string::npos) << output;
    EXPECT_EQ(output.substr(output.size() - 43), "[Debug] HotplugNetlink: Process terminated\n");
}

} // namespace
