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
constexpr int backlog = 100; // well below what the socket's receive buffer holds
const std::string hub = "/devices/platform/ehci/usb1/1-1";
const std::string cascade = hub + "/1-1.6/1-1.6:1.0/net/eth1";
const std::string info = "/ravo500/devs/cascade/ravo-casc-info";

bool startsWith(const std::string& text, const std::string& prefix)
{
    return text.rfind(prefix, 0) == 0;
}

class StopTest : public DaemonSandboxTest {
protected:
    // Starts the daemon, waits for a record that begins with `busyWith`,
    // queues the backlog that `event` makes, if any, and stops the daemon.
    void stopWhile(const std::string& busyWith, const std::function<Uevent(int)>& event = nullptr)
    {
        const auto first = static_cast<long>(sandbox->syslog().history().size());
        sandbox->start();
        ASSERT_TRUE(sandbox->syslog().waitFor(
            [&](const Sandbox::SyslogRecord& record) { return startsWith(record.text, busyWith); },
            deadlineMs));
        if (event) {
            sandbox->signal(SIGSTOP);
            for (int index = 0; index < backlog; ++index) {
                sandbox->inject(event(index));
            }
            sandbox->signal(SIGTERM);
            sandbox->signal(SIGCONT);
        } else {
            sandbox->signal(SIGTERM);
        }
        ASSERT_EQ(sandbox->waitExit(deadlineMs), 0) << sandbox->output();
        sandbox->syslog().drain(50);
        const auto texts = sandbox->syslog().texts();
        expectOrderlyWayOut({texts.begin() + first, texts.end()});
    }

    // The interrupted event's records are complete or absent, "Thread
    // terminated" comes once, then the poller's last record and the last one;
    // the run's last record about a link, the info file or the mount tells
    // what is on disc.
    void expectOrderlyWayOut(const std::vector<std::string>& texts)
    {
        const auto end = texts.end();
        EXPECT_EQ(std::count(texts.begin(), end, handler + "Thread terminated"), 1);
        EXPECT_EQ(end[-3], handler + "Thread terminated");
        EXPECT_TRUE(startsWith(end[-2], "[Debug] Poller: Unregister descriptor: ")) << end[-2];
        EXPECT_EQ(end[-1], "[Debug] HotplugNetlink: Process terminated");
        std::string last;                             // of the handler's work
        std::map<std::string, std::string> announced; // "" for nothing there
        for (auto text = texts.begin(); text != end - 3; ++text) {
            const std::string work = text->substr(text->find(": ") + 2);
            const auto arrow = work.find(" -> ");
            last = text->find(" HotplugHandlerThread: ") != std::string::npos ? work : last;
            if (startsWith(work, "Create link: ")) {
                announced[work.substr(13, arrow - 13)] = work.substr(arrow + 4);
            } else if (startsWith(work, "Remove link: ")) {
                announced[work.substr(13)] = "";
            } else if (startsWith(work, "Create cascading info file with: ")) {
                announced[info] = work.substr(33) + "\n";
            } else if (startsWith(work, "USB ethernet device disappeared")) {
                announced[info] = "";
            } else if (startsWith(work, "Partition ")) {
                announced["/mnt/usb/sda"] = work;
            }
        }
        EXPECT_TRUE(startsWith(last, "Create ") || startsWith(last, "Partition ") ||
                    startsWith(last, "USB ethernet device disappeared") ||
                    startsWith(last, "Mount supports"))
            << "the last event's records end with: " << last;
        for (const auto& [path, state] : announced) {
            const std::string actual =
                path == "/mnt/usb/sda"
                    ? (sandbox->isMounted(path) ? "Partition mounted" : "Partition unmounted")
                : !sandbox->exists(path) ? ""
                : path == info           ? sandbox->readFile(path)
                                         : sandbox->readLink(path);
            EXPECT_EQ(actual, state) << path;
        }
    }
};

TEST_F(StopTest, WhileWaitingOrBusyWithLinksOrTheInfoFile)
{
    prepare().sysfs().addNetInterface("eth1", cascade, "00:11:22:33:44:55");
    const std::pair<const char*, std::function<Uevent(int)>> situations[] = {
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
    for (int attempt = 0; attempt < tries && !HasFailure(); ++attempt) {
        stopWhile(handler + "Mount supports"); // and then waiting, or scanning one device
        for (const auto& [what, event] : situations) {
            SCOPED_TRACE(what);
            stopWhile(handler + "Mount supports", event);
        }
    }
}

TEST_F(StopTest, WhileMounting)
{
    auto* loop = makeDisk({{8, "ext4"}});
    if (loop == nullptr) {
        return;
    }
    prepare().addDeviceNode("sda", loop->partitionDevice(1));
    for (int attempt = 0; attempt < tries && !HasFailure(); ++attempt) {
        stopWhile(handler + "Mount supports", [](int index) {
            return Uevent::partition(index % 2 == 0 ? "add" : "remove", hub + "/block/sda", "sda");
        });
        // Each attempt starts unmounted, so that its first event mounts.
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
    // A cancellation let in anywhere in the scan cuts a record in about one
    // stop of ten: many tries.
    for (int attempt = 0; attempt < 3 * tries && !HasFailure(); ++attempt) {
        stopWhile(handler + "New USB TTY device found");
    }
}

} // namespace
