// Stopping the daemon in the middle of every kind of work, many times: the
// records of the way out are whole and in order, and what it leaves on disc is
// what its records announced. The daemon is frozen (SIGSTOP) while a backlog
// of events and SIGTERM are queued, so the stop always finds it busy.
#include "tests/system/DaemonSandboxTest.h"

#include <map>
#include <sys/mount.h>
#include <sys/sysmacros.h>

namespace {

using Sandbox::Uevent;

constexpr int tries = 10;
constexpr int backlog = 100; // below what the socket's receive buffer holds
const std::string hub = "/devices/platform/ehci/usb1/1-1";
const std::string cascade = hub + "/1-1.6/1-1.6:1.0/net/eth1";
const std::string disc = hub + "/1-1.4/1-1.4:1.0/host0/target0:0:0/0:0:0:0/block/sda";

bool startsWith(const std::string& text, const std::string& prefix)
{
    return text.rfind(prefix, 0) == 0;
}

class StopTest : public DaemonSandboxTest {
protected:
    // Starts the daemon and waits for its start-up, or only for the first
    // record that starts with `busyWith` when that is the work to interrupt.
    void startAndWaitFor(const std::string& busyWith)
    {
        firstRecord = sandbox->syslog().history().size();
        sandbox->start();
        ASSERT_TRUE(sawNewRecord(busyWith));
    }

    void stopBusyWith(const std::function<Uevent(int)>& event)
    {
        startAndWaitFor(handler + "Mount supports");
        sandbox->signal(SIGSTOP);
        for (int index = 0; index < backlog; ++index) {
            sandbox->inject(event(index));
        }
        sandbox->signal(SIGTERM);
        sandbox->signal(SIGCONT);
        expectOrderlyWayOut();
    }

    bool sawNewRecord(const std::string& prefix)
    {
        return sandbox->syslog().waitFor(
            [&](const Sandbox::SyslogRecord& record) { return startsWith(record.text, prefix); },
            deadlineMs);
    }

    // The interrupted event's records are complete or absent, "Thread
    // terminated" comes once, then the poller's last record and the last one.
    void expectOrderlyWayOut()
    {
        ASSERT_EQ(sandbox->waitExit(deadlineMs), 0) << sandbox->output();
        sandbox->syslog().drain(50);
        const auto& history = sandbox->syslog().history();
        std::vector<std::string> texts;
        for (auto index = firstRecord; index < history.size(); ++index) {
            texts.push_back(history[index].text);
        }
        ASSERT_GE(texts.size(), 4U);
        const auto end = texts.end();
        EXPECT_EQ(std::count(texts.begin(), end, handler + "Thread terminated"), 1);
        EXPECT_EQ(end[-3], handler + "Thread terminated");
        EXPECT_TRUE(startsWith(end[-2], "[Debug] Poller: Unregister descriptor: ")) << end[-2];
        EXPECT_EQ(end[-1], "[Debug] HotplugNetlink: Process terminated");
        std::string lastWork;
        for (auto text = texts.begin(); text != end - 3; ++text) {
            if (startsWith(*text, "[") &&
                text->find("HotplugHandlerThread: ") != std::string::npos) {
                lastWork = text->substr(text->find(": ") + 2);
            }
        }
        const bool closesAnEvent = startsWith(lastWork, "Create link: ") ||
                                   startsWith(lastWork, "Create cascading info file with: ") ||
                                   startsWith(lastWork, "USB ethernet device disappeared") ||
                                   startsWith(lastWork, "Partition ") ||
                                   startsWith(lastWork, "Mount supports") ||
                                   startsWith(lastWork, "USB device is not a device connected");
        EXPECT_TRUE(closesAnEvent) << "the last event's records end with: " << lastWork;
        expectDiscAsAnnounced(texts);
    }

    // The last record about a link, the info file or the mount tells what is on disc.
    void expectDiscAsAnnounced(const std::vector<std::string>& texts)
    {
        std::map<std::string, std::string> links; // path -> target, "" when removed
        std::string info = "none";
        std::string mount = "none";
        for (const auto& text : texts) {
            const std::string work = text.substr(text.find(": ") + 2);
            const auto arrow = work.find(" -> ");
            if (startsWith(work, "Create link: ")) {
                links[work.substr(13, arrow - 13)] = work.substr(arrow + 4);
            } else if (startsWith(work, "Remove link: ")) {
                links[work.substr(13)] = "";
            } else if (startsWith(work, "Create cascading info file with: ")) {
                info = work.substr(33) + "\n";
            } else if (startsWith(work, "USB ethernet device disappeared")) {
                info = "";
            } else if (work == "Partition mounted" || work == "Partition unmounted") {
                mount = work;
            }
        }
        for (const auto& [path, target] : links) {
            EXPECT_EQ(sandbox->exists(path) ? sandbox->readLink(path) : "", target) << path;
        }
        const std::string infoFile = "/ravo500/devs/cascade/ravo-casc-info";
        if (info != "none") {
            EXPECT_EQ(sandbox->exists(infoFile) ? sandbox->readFile(infoFile) : "", info);
        }
        if (mount != "none") {
            EXPECT_EQ(sandbox->isMounted("/mnt/usb/sda"), mount == "Partition mounted");
        }
    }

    size_t firstRecord = 0;
};

TEST_F(StopTest, WhileWaitingOrBusyWithLinksOrTheInfoFile)
{
    prepare().sysfs().addNetInterface("eth1", cascade, "00:11:22:33:44:55");
    const std::vector<std::pair<const char*, std::function<Uevent(int)>>> situations = {
        {"waiting", nullptr},
        {"serial links",
         [](int index) {
             const std::string port = index % 2 == 0 ? "1-1.2" : "1-1.3";
             return Uevent::ttyUsb("add",
                                   hub + "/" + port + "/" + port + ":1.0/ttyUSB0/tty/ttyUSB0",
                                   "ttyUSB" + std::to_string(index));
         }},
        {"device links",
         [](int index) {
             return Uevent::usbDevice("add", hub + (index % 2 == 0 ? "/1-1.2" : "/1-1.3"),
                                      "bus/usb/001/" + std::to_string(index));
         }},
        {"info file",
         [](int index) { return Uevent::net(index % 2 == 0 ? "add" : "remove", cascade, "eth1"); }},
    };
    for (const auto& [what, event] : situations) {
        SCOPED_TRACE(what);
        for (int attempt = 0; attempt < tries && !HasFailure(); ++attempt) {
            if (event) {
                stopBusyWith(event);
            } else {
                startAndWaitFor(handler + "Mount supports");
                settle();
                sandbox->signal(SIGTERM);
                expectOrderlyWayOut();
            }
        }
    }
}

TEST_F(StopTest, WhileMounting)
{
    std::string why;
    if (!Sandbox::LoopDisk::available(why)) {
        GTEST_SKIP() << "needs loop devices: " << why;
    }
    auto& loop = makeDisk({{8, "ext4"}});
    prepare().addDeviceNode("sda", loop.partitionDevice(1));
    for (int attempt = 0; attempt < tries && !HasFailure(); ++attempt) {
        stopBusyWith([](int index) {
            return Uevent::partition(index % 2 == 0 ? "add" : "remove", disc + "/sda", "sda");
        });
        // Each attempt starts from an unmounted partition, so its first event mounts.
        umount2(sandbox->path("/mnt/usb/sda").c_str(), MNT_DETACH);
    }
}

TEST_F(StopTest, DuringTheStartupScan)
{
    prepare();
    for (int index = 0; index < 1500; ++index) {
        const std::string port = "1-1." + std::to_string(1 + index % 7);
        const std::string name = "ttyUSB" + std::to_string(index);
        sandbox->sysfs().addCharDevice(hub + "/" + port + "/" + port + ":1." +
                                           std::to_string(index / 7) + "/" + name + "/tty/" + name,
                                       name, makedev(188, static_cast<unsigned>(index)));
    }
    for (int attempt = 0; attempt < tries && !HasFailure(); ++attempt) {
        startAndWaitFor(handler + "New USB TTY device found");
        sandbox->signal(SIGTERM);
        expectOrderlyWayOut();
    }
}

} // namespace
