// Device handling end to end with real parts: loop devices holding real file
// systems, links and the cascading info file, as the daemon leaves them.
#include "tests/system/DaemonSandboxTest.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using Sandbox::LoopDisk;
using Sandbox::Uevent;

const std::string stick = "/devices/platform/ehci/usb1/1-1/1-1.2/1-1.2:1.0/host0/target0:0:0/"
                          "0:0:0:0/block/sda";

class PartitionTest : public DaemonSandboxTest {
protected:
    void SetUp() override
    {
        DaemonSandboxTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        std::string why;
        if (!LoopDisk::available(why)) {
            GTEST_SKIP() << "needs loop devices: " << why;
        }
    }
};

TEST_F(PartitionTest, MountsAndUnmountsFromInjectedUevents)
{
    auto& disk = makeDisk({{8, "ext4"}, {8, ""}});
    prepare();
    // The stick's partitions, as the daemon sees them.
    sandbox->addDeviceNode("sda1", disk.partitionDevice(1));
    sandbox->addDeviceNode("sda2", disk.partitionDevice(2));
    start();

    sandbox->inject(Uevent::partition("add", stick + "/sda1", "sda1"));
    ASSERT_TRUE(sawRecord(handler + "Partition mounted"));
    Sandbox::MountTable::Entry mount;
    ASSERT_TRUE(sandbox->findMount("/mnt/usb/sda1", mount));
    EXPECT_EQ(mount.fsType, "ext4");
    EXPECT_TRUE(mount.readOnly());

    // A second add finds the partition mounted: no other type is tried.
    sandbox->inject(Uevent::partition("add", stick + "/sda1", "sda1"));
    EXPECT_TRUE(sawRecord("[Warn ] HotplugHandlerThread: Device already mounted or in use."));

    // No file system at all: every type fails and the mount point goes.
    sandbox->inject(Uevent::partition("add", stick + "/sda2", "sda2"));
    EXPECT_TRUE(sawRecord("[Warn ] HotplugHandlerThread: Unable to mount sda2, filesystem not "
                          "supported, extended partition or filesystem error"));
    // The record comes before the rmdir.
    EXPECT_TRUE(Sandbox::SimulatedDevice::waitUntil(
        [&] { return !sandbox->exists("/mnt/usb/sda2"); }, deadlineMs));

    // Removed while in use: detached at once all the same.
    const int busy = open(sandbox->path("/mnt/usb/sda1/lost+found").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(busy, 0);
    sandbox->inject(Uevent::partition("remove", stick + "/sda1", "sda1"));
    EXPECT_TRUE(sawRecord(handler + "Partition unmounted"));
    close(busy);
    EXPECT_FALSE(sandbox->isMounted("/mnt/usb/sda1"));
    EXPECT_FALSE(sandbox->exists("/mnt/usb/sda1"));

    // Nothing left to remove: no further record, no error.
    sandbox->inject(Uevent::partition("remove", stick + "/sda1", "sda1"));
    settle();
    EXPECT_EQ(recordsStartingWith(handler + "Disc partition removed: sda1").size(), 2U);
    EXPECT_TRUE(recordsStartingWith("[Error]").empty());
    stop();
}

TEST_F(PartitionTest, MountsOnARealKernelUevent)
{
    auto& disk = makeDisk({{8, "ext2"}});
    Sandbox::SimulatedDevice::Options options;
    options.network = Sandbox::SimulatedDevice::Network::Initial;
    prepare(options);
    const std::string name = disk.partitionName(1);
    sandbox->addDeviceNode(name, disk.partitionDevice(1));
    start();

    disk.triggerUevent(1, "add");
    ASSERT_TRUE(sawRecord(handler + "New disc partition found: " + name));
    ASSERT_TRUE(sawRecord(handler + "Partition mounted"));
    EXPECT_TRUE(sandbox->isMounted("/mnt/usb/" + name));

    disk.triggerUevent(1, "remove");
    EXPECT_TRUE(sawRecord(handler + "Partition unmounted"));
    EXPECT_FALSE(sandbox->isMounted("/mnt/usb/" + name));
    stop();
}

TEST_F(PartitionTest, HostKernelUeventsStayOutOfTheIsolatedSandbox)
{
    auto& disk = makeDisk({{8, "ext2"}});
    prepare();
    const std::string name = disk.partitionName(1);
    sandbox->addDeviceNode(name, disk.partitionDevice(1));
    start();
    disk.triggerUevent(1, "add");
    settle(); // one socket, one queue: a kernel event sent before would come first
    for (const auto& text : sandbox->syslog().texts()) {
        EXPECT_EQ(text.find(name), std::string::npos) << text;
    }
    EXPECT_FALSE(sandbox->isMounted("/mnt/usb/" + name));
    stop();
}

TEST_F(DaemonSandboxTest, KeepsHubAndPortLinks)
{
    Sandbox::SimulatedDevice::Options options;
    options.portDirectories = {"usb1-2", "usb1-3"};
    prepare(options);
    start();
    const std::string hub = "/devices/platform/ehci/usb1/1-1";

    sandbox->inject(Uevent::usbDevice("add", hub + "/1-1.2", "bus/usb/001/005"));
    for (const char* uart : {"0", "1"}) {
        const std::string name = std::string("ttyUSB") + uart;
        sandbox->inject(Uevent::ttyUsb(
            "add", hub + "/1-1.3/1-1.3:1." + uart + "/" + name + "/tty/" + name, name));
    }
    settle();
    EXPECT_EQ(sandbox->readLink("/ravo500/devs/usb1-2/usbdev"), "/dev/bus/usb/001/005");
    EXPECT_EQ(sandbox->readLink("/ravo500/devs/usb1-3/uart0"), "/dev/ttyUSB0");
    EXPECT_EQ(sandbox->readLink("/ravo500/devs/usb1-3/uart1"), "/dev/ttyUSB1");
    EXPECT_TRUE(
        sawRecord(handler + "Create link: /ravo500/devs/usb1-2/usbdev -> /dev/bus/usb/001/005"));

    // A new device on the same port replaces the link.
    sandbox->inject(Uevent::usbDevice("add", hub + "/1-1.2", "bus/usb/001/006"));
    sandbox->inject(
        Uevent::ttyUsb("remove", hub + "/1-1.3/1-1.3:1.1/ttyUSB1/tty/ttyUSB1", "ttyUSB1"));
    settle();
    EXPECT_EQ(sandbox->readLink("/ravo500/devs/usb1-2/usbdev"), "/dev/bus/usb/001/006");
    EXPECT_FALSE(sandbox->exists("/ravo500/devs/usb1-3/uart1"));
    EXPECT_TRUE(sandbox->exists("/ravo500/devs/usb1-3/uart0"));
    EXPECT_TRUE(sawRecord(
        handler + "USB TTY device removed from hub 1 port 3 with UART num 1 and /dev/ttyUSB1"));

    // A port without its directory, and a directory where the link belongs.
    sandbox->inject(
        Uevent::usbDevice("add", "/devices/platform/ehci/usb2/2-1/2-1.4", "bus/usb/002/002"));
    EXPECT_TRUE(
        sawRecord("[Error] HotplugHandlerThread: Exception: \"HotplugHandlerThread::handleLink(): "
                  "The call to symlink() returns the error: 2 (No such file or directory)\""));
    ASSERT_EQ(mkdir(sandbox->path("/ravo500/devs/usb1-3/uart5").c_str(), 0755), 0);
    sandbox->inject(Uevent::ttyUsb("add", hub + "/1-1.3/1-1.3:1.5/ttyUSB5/tty/ttyUSB5", "ttyUSB5"));
    EXPECT_TRUE(
        sawRecord("[Error] HotplugHandlerThread: Exception: \"HotplugHandlerThread::handleLink(): "
                  "The call to unlink() returns the error: 21 (Is a directory)\""));
    settle(); // and the thread goes on
    stop();
}

TEST_F(DaemonSandboxTest, WritesAndDeletesTheCascadingInfoFile)
{
    prepare();
    const std::string cascade = "/devices/platform/ehci/usb1/1-1/1-1.6/1-1.6:1.0/net/eth1";
    sandbox->sysfs().addNetInterface("eth1", cascade, "00:11:22:33:44:55");
    start();

    sandbox->inject(Uevent::net("add", cascade, "eth1"));
    EXPECT_TRUE(sawRecord(
        "[Info ] HotplugHandlerThread: Create cascading info file with: 00:11:22:33:44:55%eth1"));
    settle();
    EXPECT_EQ(sandbox->readFile("/ravo500/devs/cascade/ravo-casc-info"),
              "00:11:22:33:44:55%eth1\n");

    // An adapter on another port leaves the file alone, also when it goes.
    sandbox->inject(
        Uevent::net("remove", "/devices/platform/ehci/usb1/1-1/1-1.5/1-1.5:1.0/net/eth2", "eth2"));
    EXPECT_TRUE(
        sawRecord("[Info ] HotplugHandlerThread: Ethernet device eth2 is not a USB ethernet "
                  "device or not connected to the correct USB port"));
    settle();
    EXPECT_TRUE(sandbox->exists("/ravo500/devs/cascade/ravo-casc-info"));

    sandbox->inject(Uevent::net("remove", cascade, "eth1"));
    EXPECT_TRUE(sawRecord(
        "[Info ] HotplugHandlerThread: USB ethernet device disappeared - delete the info file"));
    settle();
    EXPECT_FALSE(sandbox->exists("/ravo500/devs/cascade/ravo-casc-info"));

    // An adapter whose address cannot be read writes nothing.
    sandbox->inject(
        Uevent::net("add", "/devices/platform/ehci/usb1/1-1/1-1.6/1-1.6:1.0/net/eth3", "eth3"));
    EXPECT_TRUE(
        sawRecord("[Warn ] HotplugHandlerThread: File doesn't exist: /sys/class/net/eth3/address"));
    settle();
    EXPECT_FALSE(sandbox->exists("/ravo500/devs/cascade/ravo-casc-info"));
    stop();
}

} // namespace
