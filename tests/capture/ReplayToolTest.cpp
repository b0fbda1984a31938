// hotplug_replay as a program: what it shows of the demonstration, the
// hostile captures it refuses before it builds anything, its bounded waits,
// and what it leaves when a signal ends it.
#include "sandbox/LoopDisk.h"
#include "sandbox/Namespaces.h"
#include "tests/capture/ToolRun.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <tuple>

namespace {

namespace fs = std::filesystem;

// A folder of the test's own, given to the tool as TMPDIR: whatever the tool
// leaves there is its own.
class ReplayFolder : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::string name = fs::temp_directory_path() / "dhh-replay-test-XXXXXX";
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        folder = name;
    }
    void TearDown() override { fs::remove_all(folder); }

    std::string write(const std::string& name, const std::string& text) const
    {
        std::ofstream(folder / name) << text;
        return folder / name;
    }
    // The names in the folder other than the test's own files.
    std::vector<std::string> leftovers(const std::vector<std::string>& own = {}) const
    {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(folder)) {
            const std::string name = entry.path().filename();
            if (std::find(own.begin(), own.end(), name) == own.end()) {
                names.push_back(name);
            }
        }
        return names;
    }
    ToolRun replay(const std::string& arguments) const
    {
        return ToolRun::shell("TMPDIR=" + folder.string() + " timeout 10 " DHH_REPLAY_PATH " " +
                              arguments);
    }

    fs::path folder;
};

std::string partitionAdd(const std::string& name, const std::string& moreKeys = "",
                         const std::string& time = "1.000000")
{
    return "KERNEL[" + time + "] add      /devices/x/block/sda/" + name +
           " (block)\nACTION=add\nDEVPATH=/devices/x/block/sda/" + name +
           "\nSUBSYSTEM=block\nDEVNAME=" + name + "\nDEVTYPE=partition\n" + moreKeys +
           "SEQNUM=1\n\n";
}

bool canRunSandboxes(std::string& why)
{
    return Sandbox::Namespaces::canRun(why) && Sandbox::LoopDisk::available(why);
}

TEST_F(ReplayFolder, RefusesHostileInputBeforeItBuildsAnything)
{
    const std::string usb =
        "KERNEL[1.0] add /devices/u (usb)\nACTION=add\nDEVPATH=/devices/u\nSUBSYSTEM=usb\n"
        "SEQNUM=1\n\n";
    ASSERT_EQ(mkfifo((folder / "fifo").c_str(), 0600), 0);
    for (const auto& [capture, options, message] :
         std::initializer_list<std::tuple<std::string, std::string, const char*>>{
             // INTERFACE names the device when it comes after DEVNAME.
             {partitionAdd("sda1", "INTERFACE=../../proc/1/root/tmp/dhh-no-such\n"), "",
              "device name \"../../proc/1/root/tmp/dhh-no-such\" holds \"/\""},
             // The start-up scan takes the name from the uevent file, DEVTYPE or not.
             {"SYSFS link /sys/dev/block/8:1 ../../devices/x/block/sda/sda1\n"
              "SYSFS file /sys/devices/x/block/sda/sda1/uevent DEVNAME=../../tmp\\x0a\n" +
                  usb,
              "", "has an empty, \".\" or \"..\" component"},
             {"SYSFS link /sys/class/net/eth1 ../../../proc/1/root/etc\n" + usb, "",
              "leads out of /sys"},
             {partitionAdd("../sdb1"), "", "device name \"../sdb1\" holds \"/\""},
             {partitionAdd("null"), "", "partition name \"null\" is taken by the sandbox's"},
             {partitionAdd(std::string(256, 'a')), "", "longer than 255 bytes"},
             {partitionAdd("sda1"), "--expect " + folder.string(), "is not a regular file"},
             {partitionAdd("sda1"), "--expect " + (folder / "fifo").string(),
              "is not a regular file"},
             {partitionAdd("sda1"), "--expect /dev/zero", "is not a regular file"},
             {partitionAdd("sda1"), "--image sda1=" + (folder / "fifo").string(),
              "not a regular file"}}) {
        const ToolRun run = replay("--fast " + options + " " + write("capture", capture));
        EXPECT_EQ(run.status, 2) << options << "\n" << capture << run.output;
        EXPECT_NE(run.output.find(message), std::string::npos) << run.output;
        EXPECT_EQ(leftovers({"capture", "fifo"}), std::vector<std::string>{}) << capture;
    }
}

// A stop signal ends the replay with the state shown and nothing left; after
// SIGKILL only an empty folder stays, which the next replay takes away.
TEST_F(ReplayFolder, BoundsItsWaitsAndLeavesNothingWhenStopped)
{
    std::string why;
    if (!canRunSandboxes(why)) {
        GTEST_SKIP() << "needs root, namespaces and loop devices: " << why;
    }
    const std::string capture =
        write("capture", partitionAdd("sda1") + partitionAdd("sda2", "", "999999999999.999999"));
    for (const int number : {SIGINT, SIGTERM, SIGKILL}) {
        BackgroundTool tool({DHH_REPLAY_PATH, capture}, {"TMPDIR=" + folder.string()},
                            folder / "output");
        ASSERT_TRUE(tool.waitForOutput("the replay waits 10 s", 60000)) << tool.output();
        tool.signal(number);
        const int status = tool.waitExit(30000);
        const std::string said = tool.output();
        if (number == SIGKILL) {
            const auto left = leftovers({"capture", "output"});
            ASSERT_EQ(left.size(), 1U);
            EXPECT_TRUE(fs::is_empty(folder / left[0])) << left[0];
            continue;
        }
        EXPECT_EQ(status, 1) << said;
        const std::string name = number == SIGINT ? "SIGINT" : "SIGTERM";
        EXPECT_NE(
            said.find("# state when " + name + " ended the replay:\nmount /mnt/usb/sda1 ext4 ro"),
            std::string::npos)
            << said;
        EXPECT_EQ(leftovers({"capture", "output"}), std::vector<std::string>{});
    }
    // --fast skips the capture's gap of a lifetime, or the 10 s timeout ends the run.
    const ToolRun next = replay("--fast " + capture);
    EXPECT_EQ(next.status, 0) << next.output;
    EXPECT_EQ(leftovers({"capture", "output"}), std::vector<std::string>{});
}

// --expect turns a field report into a regression test: any mount, link or
// file more or less than the listing fails it.
TEST_F(ReplayFolder, ExpectFindsEveryDifferenceInTheState)
{
    std::string why;
    if (!canRunSandboxes(why)) {
        GTEST_SKIP() << "needs root, namespaces and loop devices: " << why;
    }
    const std::string hub = "/devices/platform/ehci/usb1/1-1/1-1.";
    const auto record = [](const std::string& devpath, const std::string& keys) {
        return "KERNEL[1.0] add " + devpath + " (x)\nACTION=add\nDEVPATH=" + devpath + "\n" + keys +
               "SEQNUM=1\n\n";
    };
    const std::string capture =
        write("capture",
              record(hub + "2", "SUBSYSTEM=usb\nDEVNAME=bus/usb/001/002\nDEVTYPE=usb_device\n") +
                  record(hub + "2/1-1.2:1.0/host0/target0:0:0/0:0:0:0/block/sda/sda1",
                         "SUBSYSTEM=block\nDEVNAME=sda1\nDEVTYPE=partition\n") +
                  record(hub + "6/1-1.6:1.0/net/eth1", "SUBSYSTEM=net\nINTERFACE=eth1\n"));
    const std::vector<std::string> state = {
        "file /ravo500/devs/cascade/ravo-casc-info 02:00:00:00:00:01%eth1\\x0a",
        "link /ravo500/devs/usb1-2/usbdev -> /dev/bus/usb/001/002",
        "mount /mnt/usb/sda1 ext4 ro,relatime"};
    const auto listing = [&](const std::vector<std::string>& lines) {
        std::string text = "# the state the report expects\n";
        for (const auto& line : lines) {
            text += line + "\n";
        }
        return write("state", text);
    };
    const ToolRun same = replay("--fast --expect " + listing(state) + " " + capture);
    EXPECT_EQ(same.status, 0) << same.output;
    EXPECT_NE(same.output.find("# the state is the one"), std::string::npos) << same.output;
    const ToolRun none = replay("--fast --expect " + listing({}) + " " + capture);
    EXPECT_EQ(none.status, 1) << none.output;
    for (const auto& line : state) {
        EXPECT_NE(none.output.find("\n+" + line + "\n"), std::string::npos) << line;
    }
    const std::string missing = "link /ravo500/devs/usb1-3/usbdev -> /dev/bus/usb/001/003";
    auto more = state;
    more.push_back(missing);
    const ToolRun less = replay("--fast --expect " + listing(more) + " " + capture);
    EXPECT_EQ(less.status, 1) << less.output;
    EXPECT_NE(less.output.find("\n-" + missing + "\n"), std::string::npos) << less.output;
}

// The demonstration as a newcomer reads it: the device's list of file system
// types reaches the daemon, and every step shows what the daemon left.
TEST_F(ReplayFolder, ShowsTheDevicesFilesystemsAndTheStateAfterEachStep)
{
    std::string why;
    if (!canRunSandboxes(why)) {
        GTEST_SKIP() << "needs root, namespaces and loop devices: " << why;
    }
    const ToolRun empty = replay("/dev/null");
    EXPECT_EQ(empty.status, 2) << "a file without a datagram passed: " << empty.output;
    const ToolRun run = replay("--fast " DHH_DEMO_CAPTURE);
    ASSERT_EQ(run.status, 0) << run.output;
    size_t at = 0;
    for (const char* expected :
         {"/proc/filesystems: the device's, as captured: ext3 ext2 ext4 vfat msdos",
          "Mount supports the following filesystem types: ext3 ext2 ext4 vfat msdos",
          "# state now:\nlink /ravo500/devs/usb1-2/usbdev -> /dev/bus/usb/001/003\n"
          "mount /mnt/usb/sda1 ext4 ro,",
          "link /ravo500/devs/usb1-3/uart1 -> /dev/ttyUSB1",
          "file /ravo500/devs/cascade/ravo-casc-info 00:0e:c6:8a:3f:12%eth1\\x0a",
          "# The Ethernet adapter comes out",
          "# state now:\nlink /ravo500/devs/usb1-2/usbdev -> /dev/bus/usb/001/003\n"
          "mount /mnt/usb/sda1 ext4 ro,",
          "# The USB stick comes out",
          "# state after the replay:\n# nothing mounted under /mnt/usb, nothing under "
          "/ravo500/devs"}) {
        const size_t found = run.output.find(expected, at);
        ASSERT_NE(found, std::string::npos) << "not after offset " << at << ": " << expected << "\n"
                                            << run.output;
        at = found;
    }
}

} // namespace
