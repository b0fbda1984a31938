// Self-test of the sandbox, run with a stand-in probe instead of the daemon:
// what goes in (datagrams, sysfs, /proc/filesystems, device nodes) arrives as
// the daemon would see it, and what comes out (records, files, mounts, exit
// status) is seen by the test and cleaned away afterwards.
#include "sandbox/LoopDisk.h"
#include "sandbox/MountTable.h"
#include "sandbox/Namespaces.h"
#include "sandbox/Sandbox.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fstream>
#include <sys/sysmacros.h>
#include <syslog.h>
#include <unistd.h>

using Sandbox::LoopDisk;
using Sandbox::MountTable;
using Sandbox::Uevent;
using Box = Sandbox::Sandbox;

namespace {

constexpr int deadlineMs = 5000;
const std::string usbDisk = "/devices/platform/ehci/usb1/1-1/1-1.2/1-1.2:1.0/host0/target0:0:0/0:0:0:0/block/sda";

std::string logged(std::string text)
{
    std::replace(text.begin(), text.end(), '\0', '|');
    return "[Debug] Probe: " + text;
}

std::string hostLine(const std::string& path)
{
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    return line;
}

class SandboxTest : public testing::Test {
protected:
    void SetUp() override
    {
        std::string why;
        if (!Sandbox::Namespaces::canRun(why)) {
            GTEST_SKIP() << why;
        }
    }

    static Box::Options probe(Box::Network network = Box::Network::Isolated)
    {
        Box::Options options;
        options.daemonPath = DHH_SANDBOX_PROBE;
        options.network = network;
        return options;
    }

    // Empty when loop disks can be made, else why not.
    static std::string loopDevicesMissing()
    {
        std::string why;
        return LoopDisk::available(why) ? "" : why;
    }

    static bool startListening(Box& sandbox)
    {
        sandbox.start();
        return sandbox.waitUntilListening(deadlineMs);
    }

    static bool sawText(Box& sandbox, const std::string& text)
    {
        return sandbox.syslog().waitForText(text, deadlineMs);
    }
};

TEST(Uevent, DatagramsHaveTheKernelsLayout)
{
    using namespace std::string_literals;
    const std::string devpath = usbDisk + "/sda1";
    const struct {
        Uevent event;
        std::string expected;
    } rows[] = {
        {Uevent::partition("add", devpath, "sda1").set("SEQNUM", "42"),
         "add@" + devpath + "\0ACTION=add\0DEVPATH="s + devpath +
             "\0SUBSYSTEM=block\0DEVNAME=sda1\0DEVTYPE=partition\0SEQNUM=42\0"s},
        {Uevent::net("remove", "/devices/n/net/eth1", "eth1").erase("SEQNUM").erase("DEVPATH"),
         "remove@/devices/n/net/eth1\0ACTION=remove\0SUBSYSTEM=net\0INTERFACE=eth1\0"s},
        {Uevent("add", "/d").set("DEVNAME", "a=b").append("DEVNAME", "c").set("SEQNUM", "7").set("ACTION", "bind"),
         "add@/d\0ACTION=bind\0DEVPATH=/d\0DEVNAME=a=b\0DEVNAME=c\0SEQNUM=7\0"s},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(logged(row.event.datagram()), logged(row.expected));
    }
}

TEST_F(SandboxTest, InjectedDatagramsArriveWholeUnderTheDaemonsIdentity)
{
    Box sandbox(probe());
    ASSERT_TRUE(startListening(sandbox)) << sandbox.output();
    const std::string datagrams[] = {
        Uevent::partition("add", usbDisk + "/sda1", "sda1").datagram(),
        Uevent::usbDevice("remove", "/devices/platform/ehci/usb1/1-1/1-1.2", "bus/usb/001/003").datagram(),
        std::string("no header\0=\0KEY=\0=value", 23),
        Uevent("add", "/long").set("X", std::string(60000, 'x')).datagram(),
    };
    for (const auto& datagram : datagrams) {
        sandbox.injectRaw(datagram);
        Sandbox::SyslogRecord record;
        ASSERT_TRUE(sandbox.syslog().waitFor(
            [&datagram](const Sandbox::SyslogRecord& r) { return r.text == logged("datagram " + datagram); },
            deadlineMs, &record))
            << testing::PrintToString(sandbox.syslog().texts()).substr(0, 2000);
        EXPECT_EQ(record.identity, "device_hotplug_handler");
        EXPECT_EQ(record.priority, LOG_USER | LOG_DEBUG);
    }
}

TEST_F(SandboxTest, FilesTheDaemonMakesAreSeenInsideItsRootOnly)
{
    Box sandbox(probe());
    ASSERT_TRUE(startListening(sandbox)) << sandbox.output();
    sandbox.inject(Uevent("add", "/probe")
                       .set("PROBE_WRITE", "/ravo500/devs/cascade/ravo-casc-info 00:11:22:33:44:55%eth1")
                       .set("PROBE_SYMLINK", "/ravo500/devs/usb1-3/uart0 /dev/ttyUSB0")
                       .append("PROBE_SYMLINK", "/ravo500/devs/usb2-7/usbdev /ravo500/devs/cascade/ravo-casc-info"));
    ASSERT_TRUE(sawText(sandbox, "[Debug] Probe: PROBE_SYMLINK /ravo500/devs/usb2-7/usbdev "
                                 "/ravo500/devs/cascade/ravo-casc-info done"));

    EXPECT_TRUE(sandbox.exists("/ravo500/devs/usb1-3/uart0")) << "a dangling link exists";
    EXPECT_EQ(sandbox.readLink("/ravo500/devs/usb1-3/uart0"), "/dev/ttyUSB0");
    EXPECT_EQ(sandbox.list("/ravo500/devs/usb1-3"), std::vector<std::string>{"uart0"});
    EXPECT_EQ(sandbox.readFile("/ravo500/devs/cascade/ravo-casc-info"), "00:11:22:33:44:55%eth1\n");
    EXPECT_EQ(sandbox.readFile("/ravo500/devs/usb2-7/usbdev"), "00:11:22:33:44:55%eth1\n")
        << "an absolute link resolves inside the root";
    EXPECT_FALSE(sandbox.exists("/ravo500/devs/usb1-3/uart1"));
    EXPECT_NE(access("/ravo500", F_OK), 0) << "the probe wrote outside its root";
}

TEST_F(SandboxTest, ExitStatusTellsHowTheDaemonEnded)
{
    Box sandbox(probe());
    const struct {
        int signal;  // 0: the probe is asked to exit instead
        int status;
    } rows[] = {{SIGTERM, 0}, {SIGINT, 0}, {SIGKILL, 128 + SIGKILL}, {0, 3}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.signal);
        ASSERT_TRUE(startListening(sandbox)) << sandbox.output();
        EXPECT_EQ(sandbox.waitExit(0), -1);
        if (row.signal != 0) {
            sandbox.signal(row.signal);
        } else {
            sandbox.inject(Uevent("add", "/probe").set("PROBE_EXIT", "3"));
        }
        EXPECT_EQ(sandbox.waitExit(deadlineMs), row.status);
        EXPECT_FALSE(sandbox.isAlive());
    }
    EXPECT_THROW(sandbox.signal(SIGTERM), std::logic_error);
}

// The kernel queues only a few records on /dev/log; a reader that waits for
// the test to ask would leave the daemon blocked inside syslog().
TEST_F(SandboxTest, ADaemonThatLogsWhileNobodyReadsStillEnds)
{
    Box sandbox(probe());
    ASSERT_TRUE(startListening(sandbox)) << sandbox.output();
    for (int i = 0; i < 100; ++i) {
        sandbox.inject(Uevent("add", "/burst/" + std::to_string(i)));
    }
    sandbox.inject(Uevent("add", "/probe").set("PROBE_WRITE", "/tmp/done"));
    EXPECT_TRUE(Box::waitUntil([&sandbox] { return sandbox.exists("/tmp/done"); }, deadlineMs));
    sandbox.signal(SIGTERM);
    EXPECT_EQ(sandbox.waitExit(deadlineMs), 0);
    EXPECT_TRUE(sawText(sandbox, logged("terminated")));
}

TEST_F(SandboxTest, StartSaysWhyTheBinaryDoesNotRun)
{
    const struct {
        std::string binary;
        std::string reason;
    } rows[] = {{"/nonexistent/daemon", "open /nonexistent/daemon: No such file"},
                {"/proc/version", "fexecve: Permission denied"}};
    for (const auto& row : rows) {
        Box::Options options = probe();
        options.daemonPath = row.binary;
        Box sandbox(options);
        try {
            sandbox.start();
            ADD_FAILURE() << row.binary << " started";
        } catch (const std::runtime_error& error) {
            EXPECT_NE(std::string(error.what()).find(row.reason), std::string::npos) << error.what();
        }
        EXPECT_FALSE(sandbox.isAlive());
    }
}

// The shapes of the daemon's start-up scan, seen from inside the root.
TEST_F(SandboxTest, FakeSysfsAndProcFilesystemsLookAsOnTheDevice)
{
    int hostLines = 0;
    std::ifstream host("/proc/filesystems");
    for (std::string line; std::getline(host, line);) {
        ++hostLines;
    }
    const struct {
        Box::ProcFilesystems kind;
        std::string text;
        std::string expected;
    } rows[] = {{Box::ProcFilesystems::HostCopy, "", "/proc/filesystems has " + std::to_string(hostLines) + " lines"},
                {Box::ProcFilesystems::Custom, "nodev\tproc\n\text4\n", "/proc/filesystems has 2 lines"},
                {Box::ProcFilesystems::Absent, "", "no /proc/filesystems"}};
    const std::string longDevpath = "/devices/platform/" + std::string(250, 'a') + "/" + std::string(250, 'b') +
                                    "/" + std::string(100, 'c') + "/usb1/1-1/1-1.4/1-1.4:1.0/host1/block/sdb/sdb1";
    ASSERT_GT(Sandbox::FakeSysfs::linkTarget(longDevpath).size(), 640u);
    for (const auto& row : rows) {
        Box::Options options = probe();
        options.procFilesystems = row.kind;
        options.procFilesystemsText = row.text;
        Box sandbox(options);
        auto& sysfs = sandbox.sysfs();
        sysfs.addBlockDevice(usbDisk, "sda", makedev(8, 0), "disk");
        sysfs.addBlockDevice(usbDisk + "/sda1", "sda1", makedev(8, 1));
        sysfs.addBlockDevice(longDevpath, "sdb1", makedev(8, 17));
        sysfs.addDevice("/devices/virtual/block/nameless", "MAJOR=8\nMINOR=33\n");
        sysfs.addLink("dev/block/8:33", Sandbox::FakeSysfs::linkTarget("/devices/virtual/block/nameless"));
        sysfs.addLink("dev/block/8:98", "../x");
        sysfs.addFile("dev/block/8:99", "");
        sysfs.addCharDevice("/devices/platform/ehci/usb1/1-1/1-1.3/1-1.3:1.0/ttyUSB0/tty/ttyUSB0", "ttyUSB0",
                            makedev(188, 0));
        sysfs.addCharDevice("/devices/platform/ehci/usb1/1-1/1-1.3", "bus/usb/001/003", makedev(189, 2),
                            "usb_device");
        sysfs.addNetInterface("eth1", "/devices/platform/ehci/usb1/1-1/1-1.6/1-1.6:1.0/net/eth1",
                              "00:11:22:33:44:55");
        ASSERT_TRUE(startListening(sandbox)) << sandbox.output();

        const std::vector<std::string> expected = {
            logged("listening"),
            logged(row.expected),
            logged("found /sys/dev/block/8:0 DEVNAME=sda"),
            logged("found /sys/dev/block/8:1 DEVNAME=sda1"),
            logged("found /sys/dev/block/8:17 DEVNAME=sdb1"),
            logged("found /sys/dev/block/8:33 "),
            logged("not a device link: /sys/dev/block/8:98"),
            logged("not a device link: /sys/dev/block/8:99"),
            logged("found /sys/dev/char/188:0 DEVNAME=ttyUSB0"),
            logged("found /sys/dev/char/189:2 DEVNAME=bus/usb/001/003"),
            logged("found /sys/class/net/eth1 INTERFACE=eth1 address=00:11:22:33:44:55"),
        };
        ASSERT_TRUE(sawText(sandbox, expected.back())) << testing::PrintToString(sandbox.syslog().texts());
        EXPECT_EQ(sandbox.syslog().texts(), expected);
    }
}

TEST_F(SandboxTest, PartitionMountedByTheDaemonIsSeenAndTornDown)
{
    if (const std::string why = loopDevicesMissing(); !why.empty()) {
        GTEST_SKIP() << why;
    }
    std::string backingPath;
    std::string backingFile;
    std::string base;
    pid_t probePid = -1;
    {
        LoopDisk disk({{8, "ext4"}, {2, ""}});
        backingPath = "/sys/block/" + disk.name() + "/loop/backing_file";
        backingFile = hostLine(backingPath);
        ASSERT_FALSE(backingFile.empty());
        {
            Box sandbox(probe());
            base = sandbox.path("/");
            sandbox.addDeviceNode("sda1", disk.partitionDevice(1));
            sandbox.addDeviceNode("sda2", disk.partitionDevice(2));
            ASSERT_TRUE(startListening(sandbox)) << sandbox.output();
            probePid = sandbox.pid();
            sandbox.inject(Uevent("add", "/probe").set("PROBE_MOUNT", "/dev/sda1 /mnt/usb/sda1 ext4"));
            ASSERT_TRUE(sawText(sandbox, "[Debug] Probe: PROBE_MOUNT /dev/sda1 /mnt/usb/sda1 ext4 done"));
            MountTable::Entry entry;
            ASSERT_TRUE(sandbox.findMount("/mnt/usb/sda1", entry));
            EXPECT_EQ(entry.fsType, "ext4");
            EXPECT_TRUE(entry.readOnly()) << entry.options;
            EXPECT_TRUE(sandbox.exists("/mnt/usb/sda1/lost+found"));

            sandbox.inject(Uevent("add", "/probe").set("PROBE_MOUNT", "/dev/sda2 /mnt/usb/sda2 ext4"));
            ASSERT_TRUE(sandbox.syslog().waitFor(
                [](const Sandbox::SyslogRecord& r) { return r.text.rfind("[Error] Probe: mount /dev/sda2", 0) == 0; },
                deadlineMs));
            EXPECT_FALSE(sandbox.isMounted("/mnt/usb/sda2"));
        }
        EXPECT_TRUE(MountTable::below(base).empty());
        EXPECT_TRUE(kill(probePid, 0) != 0 && errno == ESRCH) << "the probe was not killed and reaped";
        EXPECT_NE(access(base.c_str(), F_OK), 0) << base << " is left";
    }
    // Another test may take the device at once, but not with our image.
    EXPECT_NE(hostLine(backingPath), backingFile) << "the loop device is still attached";
}

TEST_F(SandboxTest, HostKernelUeventsStayOutOfTheIsolatedNetwork)
{
    if (const std::string why = loopDevicesMissing(); !why.empty()) {
        GTEST_SKIP() << why;
    }
    LoopDisk disk({{2, ""}});
    Box sandbox(probe());
    ASSERT_TRUE(startListening(sandbox)) << sandbox.output();
    disk.triggerUevent(1, "add");
    const Uevent marker("add", "/marker");
    sandbox.inject(marker);
    ASSERT_TRUE(sawText(sandbox, logged("datagram " + marker.datagram())));
    // One socket, one queue: a kernel event sent before the marker would come first.
    for (const auto& text : sandbox.syslog().texts()) {
        EXPECT_EQ(text.find(disk.name()), std::string::npos) << text;
    }
}

TEST_F(SandboxTest, KernelUeventsReachTheDaemonInTheHostsNetwork)
{
    if (const std::string why = loopDevicesMissing(); !why.empty()) {
        GTEST_SKIP() << why;
    }
    LoopDisk disk({{2, ""}});
    Box sandbox(probe(Box::Network::Initial));
    ASSERT_TRUE(startListening(sandbox)) << sandbox.output();
    EXPECT_THROW(sandbox.inject(Uevent("add", "/fake")), std::logic_error);
    disk.triggerUevent(1, "add");
    const std::string start = logged("datagram add@" + disk.partitionDevpath(1) + "|");
    EXPECT_TRUE(sandbox.syslog().waitFor(
        [&start](const Sandbox::SyslogRecord& r) { return r.text.rfind(start, 0) == 0; }, deadlineMs));
}

} // namespace
