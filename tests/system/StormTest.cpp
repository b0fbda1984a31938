// Thousands of mixed events through the real daemon under valgrind memcheck:
// no invalid access, no leak, the orderly end with status 0, and afterwards
// exactly the links of the devices still plugged in.
#include "tests/system/DaemonSandboxTest.h"

#include <map>
#include <unistd.h>

namespace {

using Sandbox::Uevent;

const char* const valgrind = "/usr/bin/valgrind";
constexpr int rounds = 150; // about 2,500 datagrams
constexpr int valgrindDeadlineMs = 60000;

std::string port(int hub, int number)
{
    const std::string h = std::to_string(hub);
    return "/devices/platform/ehci/usb" + h + "/" + h + "-1/" + h + "-1." + std::to_string(number);
}

std::string ttyPath(const std::string& device, int uart)
{
    const std::string name = "ttyUSB" + std::to_string(uart);
    return device + device.substr(device.rfind('/')) + ":1." + std::to_string(uart) + "/" + name +
           "/tty/" + name;
}

TEST_F(DaemonSandboxTest, StormUnderValgrindLeavesTheLinksOfThePluggedDevices)
{
    if (access(valgrind, X_OK) != 0) {
        GTEST_SKIP() << "the storm test needs valgrind at " << valgrind;
    }
    Sandbox::SimulatedDevice::Options options;
    options.launcher = {valgrind,
                        "--quiet",
                        "--error-exitcode=99",
                        "--leak-check=full",
                        "--show-leak-kinds=definite,indirect",
                        "--errors-for-leak-kinds=definite,indirect"};
    const std::string cascade = port(1, 6) + "/1-1.6:1.0/net/eth1";
    prepare(options).sysfs().addNetInterface("eth1", cascade, "00:11:22:33:44:55");
    sandbox->start();
    ASSERT_TRUE(sandbox->waitUntilListening(valgrindDeadlineMs)) << sandbox->output();
    char executable[256] = {};
    const std::string exe = "/proc/" + std::to_string(sandbox->pid()) + "/exe";
    ASSERT_GT(readlink(exe.c_str(), executable, sizeof(executable) - 1), 0);
    ASSERT_NE(std::string(executable).find("memcheck"), std::string::npos) << executable;
    // Every kind of event, a few to reject and several dropped unseen; the
    // devices of odd rounds stay plugged in, the last of each port wins.
    std::map<std::string, std::string> plugged; // port directory -> node of usbdev
    for (int round = 0; round < rounds; ++round) {
        const int hub = 1 + round % 2;
        const std::string device = port(hub, 1 + round % 5);
        const std::string node = "bus/usb/00" + std::to_string(hub) + "/0" + std::to_string(round);
        const std::string tty = "ttyUSB" + std::to_string(round);
        std::vector<Uevent> events = {
            Uevent::usbDevice("add", device, node),
            Uevent::ttyUsb("add", ttyPath(device, 0), tty),
            Uevent::ttyUsb("add", ttyPath(device, 1), tty),
            Uevent::net("add", cascade, "eth1"),
            Uevent::partition("add", "/devices/x/block/sdb/sdb1", "sdb1"),
            Uevent::partition("remove", "/devices/x/block/sdb/sdb1", "sdb1"),
            Uevent::usbDevice("add", "/devices/usb1/1-1/1-x.3", "bad"),
            Uevent::ttyUsb("add", "/devices/usb1/1-1.3:1.0/tty/ttyS0", "ttyUSB8"),
            Uevent("bind", device).set("SUBSYSTEM", "usb")};
        const std::string directory =
            "/ravo500/devs/usb" + std::to_string(hub) + "-" + std::to_string(1 + round % 5);
        if (round % 2 == 0) {
            events.insert(events.end(), {Uevent::ttyUsb("remove", ttyPath(device, 0), tty),
                                         Uevent::ttyUsb("remove", ttyPath(device, 1), tty),
                                         Uevent::usbDevice("remove", device, node),
                                         Uevent::net("remove", cascade, "eth1")});
            plugged.erase(directory);
        } else {
            plugged[directory] = node;
        }
        for (const auto& event : events) {
            sandbox->inject(event);
        }
        sandbox->injectRaw(std::string("garbage\0=\0==\0ACTION=add", 23));
        settle(); // keeps the socket's queue short: losing events is not the point here
    }
    sandbox->signal(SIGTERM);
    EXPECT_EQ(sandbox->waitExit(valgrindDeadlineMs), 0) << "valgrind:\n" << sandbox->output();
    for (const auto& name : sandbox->list("/ravo500/devs")) {
        const std::string directory = "/ravo500/devs/" + name;
        if (plugged.count(directory) != 0) {
            EXPECT_EQ(sandbox->list(directory),
                      (std::vector<std::string>{"uart0", "uart1", "usbdev"}));
            EXPECT_EQ(sandbox->readLink(directory + "/usbdev"), "/dev/" + plugged[directory]);
        } else if (name == "cascade") { // the last round's adapter stays
            EXPECT_EQ(sandbox->readFile(directory + "/ravo-casc-info"), "00:11:22:33:44:55%eth1\n");
        } else {
            EXPECT_TRUE(sandbox->list(directory).empty()) << name;
        }
    }
    EXPECT_TRUE(sandbox->list("/mnt/usb").empty());
}

} // namespace
