// The start-up scan over a fake sysfs: devices present before the daemon
// starts are handled like new arrivals, everything else is left alone, and a
// directory that cannot be read does not end the scan.
#include "tests/system/DaemonSandboxTest.h"

#include <sys/sysmacros.h>

namespace {

using Sandbox::FakeSysfs;

TEST_F(DaemonSandboxTest, ScanHandlesDevicesPresentAtStart)
{
    auto* loop = makeDisk({{8, "ext4"}});
    if (loop == nullptr) {
        return;
    }
    auto& sys = prepare().sysfs();
    const std::string usb = "/devices/platform/soc/ehci/usb1/1-1";
    // A stick with one partition and its whole disc; a two-interface serial
    // adapter and the USB device itself; the cascading adapter and two
    // interfaces to leave alone.
    const std::string block = usb + "/1-1.2/1-1.2:1.0/host0/target0:0:0/0:0:0:0/block/sda";
    sys.addBlockDevice(block, "sda", makedev(8, 0), "disk");
    sys.addBlockDevice(block + "/sda1", "sda1", makedev(8, 1));
    sandbox->addDeviceNode("sda1", loop->partitionDevice(1));
    sys.addCharDevice(usb + "/1-1.3/1-1.3:1.0/ttyUSB0/tty/ttyUSB0", "ttyUSB0", makedev(188, 0));
    sys.addCharDevice(usb + "/1-1.3/1-1.3:1.1/ttyUSB1/tty/ttyUSB1", "ttyUSB1", makedev(188, 1));
    sys.addCharDevice(usb + "/1-1.3", "bus/usb/001/003", makedev(189, 2), "usb_device");
    sys.addNetInterface("eth1", usb + "/1-1.6/1-1.6:1.0/net/eth1", "02:00:00:00:00:01");
    sys.addNetInterface("eth0", "/devices/platform/soc/ethernet/net/eth0", "02:00:00:00:00:02");
    sys.addNetInterface("lo", "/devices/virtual/net/lo", "00:00:00:00:00:00");
    // Ignored: a device two hubs deep, one on a root port, a plain file, a
    // directory, a link too short to be a device.
    sys.addCharDevice(usb + "/1-1.4/1-1.4.1", "bus/usb/001/009", makedev(189, 8), "usb_device");
    sys.addCharDevice(usb, "bus/usb/001/002", makedev(189, 1), "usb_device");
    sys.addFile("dev/char/1:1", "not a link");
    sys.addDirectory("dev/block/7:7");
    sys.addLink("dev/block/7:8", "../x");
    // A serial adapter whose uevent file names no device (DEVNAME= must begin the line).
    const std::string nameless = usb + "/1-1.5/1-1.5:1.0/ttyUSB4/tty/ttyUSB4";
    sys.addDevice(nameless, "MAJOR=188\nMINOR=4\nOF_DEVNAME=ttyUSB4\n");
    sys.addLink("dev/char/188:4", FakeSysfs::linkTarget(nameless));
    // A target longer than the scan's first buffer.
    std::string deep = usb;
    for (int level = 0; level < 6; ++level) {
        deep += "/" + std::string(100, 'd');
    }
    deep += "/1-1.7/1-1.7:1.0/ttyUSB9/tty/ttyUSB9";
    sys.addCharDevice(deep, "ttyUSB9", makedev(188, 9));
    start();
    settle();
    EXPECT_TRUE(sandbox->isMounted("/mnt/usb/sda1"));
    EXPECT_EQ(sandbox->readLink("/ravo500/devs/usb1-3/uart0"), "/dev/ttyUSB0");
    EXPECT_EQ(sandbox->readLink("/ravo500/devs/usb1-3/uart1"), "/dev/ttyUSB1");
    EXPECT_EQ(sandbox->readLink("/ravo500/devs/usb1-3/usbdev"), "/dev/bus/usb/001/003");
    EXPECT_EQ(sandbox->readLink("/ravo500/devs/usb1-7/uart0"), "/dev/ttyUSB9");
    EXPECT_EQ(sandbox->readFile("/ravo500/devs/cascade/ravo-casc-info"),
              "02:00:00:00:00:01%eth1\n");
    EXPECT_FALSE(sandbox->exists("/ravo500/devs/usb1-4/usbdev") ||
                 sandbox->exists("/ravo500/devs/usb1-5/uart0"));
    EXPECT_EQ(
        recordsStartingWith("[Warn ]"),
        std::vector<std::string>{"[Warn ] HotplugHandlerThread: Unable to get the device name "
                                 "from the uevent file."});
    EXPECT_TRUE(recordsStartingWith("[Error]").empty());
    // The info file's own record and the settle marker: the rest is ignored silently.
    EXPECT_EQ(recordsStartingWith("[Info ]").size(), 2U);
    stop();
}

TEST_F(DaemonSandboxTest, ScanReportsAMissingDirectoryAndGoesOn)
{
    prepare().sysfs().remove("dev/char");
    sandbox->sysfs().addNetInterface(
        "eth1", "/devices/platform/ehci/usb1/1-1/1-1.6/1-1.6:1.0/net/eth1", "aa:bb:cc:dd:ee:ff");
    start();
    settle();
    EXPECT_TRUE(sawRecord("[Error] HotplugHandlerThread: Exception: \"HotplugHandlerThread::"
                          "searchExistingDevices(): The call to opendir() returns the error: 2 (No "
                          "such file or directory)\""));
    // /sys/class/net comes after /sys/dev/char and is still scanned.
    EXPECT_EQ(sandbox->readFile("/ravo500/devs/cascade/ravo-casc-info"),
              "aa:bb:cc:dd:ee:ff%eth1\n");
    stop();
}

} // namespace
