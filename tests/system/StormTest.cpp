// Thousands of mixed events through the real daemon under valgrind memcheck:
// no invalid access, no leak, the orderly end with status 0, and afterwards
// exactly the links of the devices still plugged in.
#include "tests/system/DaemonSandboxTest.h"

#include <set>
#include <unistd.h>

namespace {

using Sandbox::Uevent;

const char* const valgrindPath = "/usr/bin/valgrind";
constexpr int rounds = 150; // about 3,000 datagrams; a multiple of 10 (see the end)
constexpr int valgrindDeadlineMs = 60000;

std::string portPath(int hub, int port)
{
    return "/devices/platform/ehci/usb" + std::to_string(hub) + "/" + std::to_string(hub) + "-1/" +
           std::to_string(hub) + "-1." + std::to_string(port);
}

std::string ttyPath(int hub, int port, int uart)
{
    const std::string device = portPath(hub, port);
    const std::string name = device.substr(device.rfind('/') + 1);
    return device + "/" + name + ":1." + std::to_string(uart) + "/ttyUSB" + std::to_string(uart) +
           "/tty/ttyUSB" + std::to_string(uart);
}

class StormTest : public DaemonSandboxTest {
protected:
    void SetUp() override
    {
        DaemonSandboxTest::SetUp();
        if (!IsSkipped() && access(valgrindPath, X_OK) != 0) {
            GTEST_SKIP() << "the storm test needs valgrind at " << valgrindPath;
        }
    }

    // One round: every kind of event the daemon handles, a few it must reject
    // and several it drops unseen. Devices of odd rounds stay plugged in.
    void injectRound(int round)
    {
        const int hub = 1 + round % 2;
        const int port = 1 + round % 5; // never 6: that is the cascading port
        const bool stays = round % 2 == 1;
        const std::string node = "bus/usb/00" + std::to_string(hub) + "/0" + std::to_string(round);
        const std::string tty = "ttyUSB" + std::to_string(round);
        sandbox->inject(Uevent::usbDevice("add", portPath(hub, port), node));
        for (int uart = 0; uart < 2; ++uart) {
            sandbox->inject(Uevent::ttyUsb("add", ttyPath(hub, port, uart), tty));
        }
        sandbox->inject(Uevent::net("add", cascade, "eth1"));
        sandbox->inject(Uevent::partition("add", "/devices/x/block/sdb/sdb1", "sdb1"));
        sandbox->inject(Uevent::partition("remove", "/devices/x/block/sdb/sdb1", "sdb1"));
        // Malformed paths: logged and dropped.
        sandbox->inject(Uevent::usbDevice("add", "/devices/usb1/1-1/1-x.3", "bad"));
        sandbox->inject(Uevent::ttyUsb("add", "/devices/usb1/1-1/1-1.3/1-1.3:1/ttyUSB9/tty/ttyUSB9",
                                       "ttyUSB9"));
        sandbox->inject(Uevent::ttyUsb("add", "/devices/usb1/1-1.3:1.0/tty/ttyS0", "ttyUSB8"));
        // Dropped by the decoder without a trace.
        sandbox->inject(Uevent("bind", portPath(hub, port)).set("SUBSYSTEM", "usb"));
        sandbox->inject(Uevent("add", portPath(hub, port) + "/x:1.0")
                            .set("SUBSYSTEM", "usb")
                            .set("DEVTYPE", "usb_interface"));
        sandbox->injectRaw(std::string("garbage\0=\0==\0ACTION=add", 23));
        sandbox->injectRaw("libudev");
        if (!stays) {
            for (int uart = 0; uart < 2; ++uart) {
                sandbox->inject(Uevent::ttyUsb("remove", ttyPath(hub, port, uart), tty));
            }
            sandbox->inject(Uevent::usbDevice("remove", portPath(hub, port), node));
            sandbox->inject(Uevent::net("remove", cascade, "eth1"));
        }
    }

    const std::string cascade = portPath(1, 6) + "/1-1.6:1.0/net/eth1";
};

TEST_F(StormTest, ValgrindFindsNothingAndTheLinksMatchThePluggedDevices)
{
    Sandbox::SimulatedDevice::Options options;
    options.launcher = {valgrindPath,
                        "--quiet",
                        "--error-exitcode=99",
                        "--leak-check=full",
                        "--show-leak-kinds=definite,indirect",
                        "--errors-for-leak-kinds=definite,indirect"};
    prepare(options).sysfs().addNetInterface("eth1", cascade, "00:11:22:33:44:55");
    sandbox->start();
    ASSERT_TRUE(sandbox->waitUntilListening(valgrindDeadlineMs)) << sandbox->output();
    char executable[256] = {};
    const std::string exeLink = "/proc/" + std::to_string(sandbox->pid()) + "/exe";
    ASSERT_GT(readlink(exeLink.c_str(), executable, sizeof(executable) - 1), 0);
    ASSERT_NE(std::string(executable).find("memcheck"), std::string::npos) << executable;

    for (int round = 0; round < rounds; ++round) {
        injectRound(round);
        // Keeps the socket's receive queue short: losing events is not the point here.
        settle();
    }
    sandbox->signal(SIGTERM);
    EXPECT_EQ(sandbox->waitExit(valgrindDeadlineMs), 0) << "valgrind:\n" << sandbox->output();

    // The last round of each hub and port stays; its links point at its nodes.
    std::set<std::string> expected;
    for (int round = rounds - 10; round < rounds; ++round) {
        if (round % 2 == 1) {
            const std::string directory = "/ravo500/devs/usb" + std::to_string(1 + round % 2) +
                                          "-" + std::to_string(1 + round % 5);
            EXPECT_EQ(sandbox->readLink(directory + "/usbdev"), "/dev/bus/usb/00" +
                                                                    std::to_string(1 + round % 2) +
                                                                    "/0" + std::to_string(round));
            EXPECT_EQ(sandbox->readLink(directory + "/uart1"),
                      "/dev/ttyUSB" + std::to_string(round));
            expected.insert(directory);
        }
    }
    for (const auto& name : sandbox->list("/ravo500/devs")) {
        const auto entries = sandbox->list("/ravo500/devs/" + name);
        if (expected.count("/ravo500/devs/" + name) != 0) {
            EXPECT_EQ(entries, (std::vector<std::string>{"uart0", "uart1", "usbdev"})) << name;
        } else if (name == "cascade") {
            EXPECT_EQ(sandbox->readFile("/ravo500/devs/cascade/ravo-casc-info"),
                      "00:11:22:33:44:55%eth1\n");
        } else {
            EXPECT_TRUE(entries.empty()) << name;
        }
    }
    EXPECT_TRUE(sandbox->list("/mnt/usb").empty());
}

} // namespace
