// Device handling end to end with real parts: the links and the cascading
// info file that each event leaves, partitions of loop devices holding real
// file systems mounted and released, also on a real kernel uevent.
#include "tests/system/DaemonSandboxTest.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using Sandbox::Uevent;

// As the kernel names a hub behind an xHCI controller on PCI: components with
// colons and dots stand above the USB bus.
const std::string hub = "/devices/platform/3f000000.pcie/pci0000:00/0000:00:01.0/usb1/1-1";
const std::string cascade = hub + "/1-1.6/1-1.6:1.0/net/eth1";
const std::string info = "/ravo500/devs/cascade/ravo-casc-info";

Uevent usb(const char* action, const std::string& below, const std::string& node)
{
    return Uevent::usbDevice(action, below.empty() ? hub : hub + "/" + below, node);
}

// A serial adapter's interface ("1-1.3:1.0") with its ttyUSB device.
Uevent tty(const char* action, const std::string& interface, int number)
{
    const std::string name = "ttyUSB" + std::to_string(number);
    const std::string device = interface.substr(0, interface.find(':'));
    return Uevent::ttyUsb(action,
                          hub + "/" + device + "/" + interface + "/" + name + "/tty/" + name, name);
}

TEST_F(DaemonSandboxTest, EachEventLeavesItsLinkOrInfoFile)
{
    Sandbox::SimulatedDevice::Options options;
    options.portDirectories = {"usb1-1", "usb1-2", "usb1-3", "usb1-4"};
    prepare(options).sysfs().addNetInterface("eth1", cascade, "00:11:22:33:44:55");
    start();
    const std::string mac = "00:11:22:33:44:55%eth1\n";
    const struct {
        Uevent event;
        std::string path, expected; // a link's target or the file's content; "" for none
    } rows[] = {
        // clang-format off
        {usb("add", "1-1.2", "bus/usb/001/005"), "/ravo500/devs/usb1-2/usbdev", "/dev/bus/usb/001/005"},
        {usb("add", "1-1.2", "bus/usb/001/006"), "/ravo500/devs/usb1-2/usbdev", "/dev/bus/usb/001/006"},
        {tty("add", "1-1.3:1.0", 0), "/ravo500/devs/usb1-3/uart0", "/dev/ttyUSB0"},
        {tty("add", "1-1.3:1.1", 1), "/ravo500/devs/usb1-3/uart1", "/dev/ttyUSB1"},
        {tty("remove", "1-1.3:1.1", 1), "/ravo500/devs/usb1-3/uart1", ""},
        {usb("remove", "1-1.2", "bus/usb/001/006"), "/ravo500/devs/usb1-2/usbdev", ""},
        // Only a device one hub below a root port, or its interface, gets a link.
        {usb("add", "", "bus/usb/001/002"), "/ravo500/devs/usb1-1/usbdev", ""},
        {usb("add", "1-1.4/1-1.4.1", "bus/usb/001/007"), "/ravo500/devs/usb1-4/usbdev", ""},
        {tty("add", "1-1:1.0", 2), "/ravo500/devs/usb1-1/uart0", ""},
        {tty("add", "1-1.4", 3), "/ravo500/devs/usb1-4/uart0", ""},
        {tty("add", "1-1.4:x.0", 4), "/ravo500/devs/usb1-4/uart0", ""},
        {tty("add", "1-1.4:1.0a", 5), "/ravo500/devs/usb1-4/uart0", ""},
        {tty("add", "1-1.4:1.", 7), "/ravo500/devs/usb1-4/uart0", ""},
        {Uevent::ttyUsb("add", hub + "/1-1.4/1-1.4:1.0/tty/ttyS0", "ttyUSB6"), "/ravo500/devs/usb1-4/uart0", ""},
        // The info file follows the adapter on the cascading port only.
        {Uevent::net("add", cascade, "eth1"), info, mac},
        {Uevent::net("remove", hub + "/1-1.5/1-1.5:1.0/net/eth2", "eth2"), info, mac},
        {Uevent::net("remove", cascade, "eth1"), info, ""},
        {Uevent::net("add", hub + "/1-1.6/1-1.6:1.0/net/eth3", "eth3"), info, ""}, // no address file
        // clang-format on
    };
    for (const auto& row : rows) {
        sandbox->inject(row.event);
        settle();
        const bool isLink = row.path != info;
        EXPECT_EQ(!sandbox->exists(row.path) ? ""
                  : isLink                   ? sandbox->readLink(row.path)
                                             : sandbox->readFile(row.path),
                  row.expected)
            << row.event.datagram();
    }
    // A port without its directory, and a directory where the link belongs:
    // reported, and the thread goes on.
    sandbox->inject(Uevent::usbDevice("add", "/devices/ehci/usb2/2-1/2-1.4", "bus/usb/002/002"));
    ASSERT_EQ(mkdir(sandbox->path("/ravo500/devs/usb1-3/uart5").c_str(), 0755), 0);
    sandbox->inject(tty("add", "1-1.3:1.5", 5));
    settle();
    const std::string failed = "[Error] HotplugHandlerThread: Exception: "
                               "\"HotplugHandlerThread::handleLink(): The call to ";
    EXPECT_EQ(recordsStartingWith("[Error]"),
              (std::vector<std::string>{
                  failed + "symlink() returns the error: 2 (No such file or directory)\"",
                  failed + "unlink() returns the error: 21 (Is a directory)\""}));
    stop();
}

const std::string stick = hub + "/1-1.2/1-1.2:1.0/host0/target0:0:0/0:0:0:0/block/sda";

TEST_F(DaemonSandboxTest, MountsReadOnlyAndReleasesPartitions)
{
    auto* loop = makeDisk({{8, "ext4"}, {8, ""}});
    if (loop == nullptr) {
        return;
    }
    Sandbox::SimulatedDevice::Options options;
    // The types tried are then the known ones, ext4 among them.
    options.procFilesystems = Sandbox::SimulatedDevice::ProcFilesystems::Absent;
    prepare(options);
    sandbox->addDeviceNode("sda1", loop->partitionDevice(1));
    sandbox->addDeviceNode("sda2", loop->partitionDevice(2));
    start();
    sandbox->inject(Uevent::partition("add", stick + "/sda1", "sda1"));
    ASSERT_TRUE(sawRecord(handler + "Partition mounted"));
    Sandbox::MountTable::Entry mount;
    ASSERT_TRUE(sandbox->findMount("/mnt/usb/sda1", mount));
    EXPECT_EQ(mount.fsType, "ext4");
    EXPECT_TRUE(mount.readOnly());
    // Mounted already: no other type is tried.
    sandbox->inject(Uevent::partition("add", stick + "/sda1", "sda1"));
    EXPECT_TRUE(sawRecord("[Warn ] HotplugHandlerThread: Device already mounted or in use."));
    // No file system at all: every type fails and the mount point goes.
    sandbox->inject(Uevent::partition("add", stick + "/sda2", "sda2"));
    settle();
    EXPECT_TRUE(sawRecord("[Warn ] HotplugHandlerThread: Unable to mount sda2, filesystem not "
                          "supported, extended partition or filesystem error"));
    EXPECT_FALSE(sandbox->exists("/mnt/usb/sda2"));
    // Removed while in use: detached at once all the same; then nothing is left to remove.
    const int busy = open(sandbox->path("/mnt/usb/sda1/lost+found").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(busy, 0);
    sandbox->inject(Uevent::partition("remove", stick + "/sda1", "sda1"));
    sandbox->inject(Uevent::partition("remove", stick + "/sda1", "sda1"));
    settle();
    close(busy);
    EXPECT_EQ(recordsStartingWith(handler + "Partition unmounted").size(), 1U);
    EXPECT_FALSE(sandbox->isMounted("/mnt/usb/sda1") || sandbox->exists("/mnt/usb/sda1"));
    EXPECT_EQ(recordsStartingWith("[Error]").size(), 1U) << "only the one of /proc/filesystems";
    stop();
}

TEST_F(DaemonSandboxTest, MountsOnARealKernelUevent)
{
    auto* loop = makeDisk({{8, "ext2"}});
    if (loop == nullptr) {
        return;
    }
    Sandbox::SimulatedDevice::Options options;
    options.network = Sandbox::SimulatedDevice::Network::Initial;
    prepare(options);
    const std::string name = loop->partitionName(1);
    sandbox->addDeviceNode(name, loop->partitionDevice(1));
    start();
    loop->triggerUevent(1, "add");
    ASSERT_TRUE(sawRecord(handler + "Partition mounted"));
    EXPECT_TRUE(sandbox->isMounted("/mnt/usb/" + name));
    loop->triggerUevent(1, "remove");
    EXPECT_TRUE(sawRecord(handler + "Partition unmounted"));
    EXPECT_FALSE(sandbox->isMounted("/mnt/usb/" + name));
    stop();
}

} // namespace
