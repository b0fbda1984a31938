// The handler thread's frame: the queue, the dispatch by device type and the
// file system list that init learns from /proc/filesystems.
#include "tests/handler/HandlerTestSupport.h"

#include <cstdio>
#include <fstream>
#include <list>
#include <sys/mount.h>
#include <unistd.h>

namespace {

HotplugEvent* rootHubEvent(const std::string& name)
{
    auto* event = new HotplugEvent();
    event->action = HotplugAction::Add;
    event->deviceType = HotplugDeviceType::UsbDevice;
    event->deviceName = name;
    event->devPath = "/devices/usb1";
    return event;
}

std::string rootHubRecord(const std::string& name)
{
    return "[Info ] HotplugHandlerThread: USB device is not a device connected to one of the "
           "hubs: " +
           name + " @ /devices/usb1";
}

TEST_F(HandlerTest, QueuedEventsAreHandledOneByOneInPushOrder)
{
    thread.pushEvent(rootHubEvent("a"));
    thread.pushEvent(new HotplugEvent()); // a fresh record: no device type
    thread.pushEvent(nullptr);
    thread.pushEvent(rootHubEvent("c"));

    EXPECT_FALSE(thread.processNextEvent());
    EXPECT_FALSE(thread.processNextEvent());
    EXPECT_FALSE(thread.processNextEvent()); // the null entry is skipped silently
    EXPECT_TRUE(thread.processNextEvent());  // the last one empties the queue
    EXPECT_TRUE(thread.processNextEvent());
    EXPECT_EQ(records(),
              (std::vector<std::string>{
                  rootHubRecord("a"),
                  "[Info ] HotplugHandlerThread: Event of an unsupported device type - skip it",
                  rootHubRecord("c")}));
}

TEST_F(HandlerTest, UnknownDeviceTypeValueIsSkipped)
{
    auto event = std::make_unique<HotplugEvent>();
    event->deviceType = static_cast<HotplugDeviceType>(17);
    thread.dispatchEvent(event);
    EXPECT_EQ(records(),
              std::vector<std::string>{
                  "[Info ] HotplugHandlerThread: Event of an unsupported device type - skip it"});
}

TEST_F(HandlerTest, CleanUpDestroysQueuedEventsAndMayRunTwice)
{
    thread.pushEvent(rootHubEvent("x"));
    thread.cleanUp();
    thread.cleanUp();
    EXPECT_TRUE(thread.processNextEvent());
    EXPECT_TRUE(records().empty());
}

// Puts a file of our own over /proc/filesystems (in the test's private mount
// namespace), or hides it, for the length of a scope.
class ProcFilesystems {
public:
    explicit ProcFilesystems(const char* content)
    {
        if (content == nullptr) {
            mounted = mount("none", "/proc", "tmpfs", 0, nullptr) == 0;
            target = "/proc";
        } else {
            std::ofstream(file) << content;
            mounted = mount(file, "/proc/filesystems", nullptr, MS_BIND, nullptr) == 0;
            target = "/proc/filesystems";
        }
    }
    ~ProcFilesystems()
    {
        if (mounted) {
            umount2(target, MNT_DETACH);
        }
        std::remove(file);
    }
    bool ok() const { return mounted; }

private:
    const char* file = "/tmp/dhh-test-filesystems";
    const char* target = nullptr;
    bool mounted = false;
};

struct InitRow {
    const char* what;
    const char* content; // null: no file at all
    std::list<std::string> types;
    std::vector<std::string> expected;
};

const InitRow initRows[] = {
    {"vfat goes first, nodev names are skipped",
     "nodev\tsysfs\nnodev\tproc\n\text3\n\text2\n\text4\n\tvfat\n\tmsdos\n",
     {"vfat", "ext3", "ext2", "ext4", "msdos"},
     {"[Debug] HotplugHandlerThread: Mount supports the following filesystem types: ext3 ext2 ext4 "
      "vfat msdos "}},
    {"no vfat offered",
     "\text4\nnodev\ttmpfs\n",
     {"ext4"},
     {"[Debug] HotplugHandlerThread: Mount supports the following filesystem types: ext4 "}},
    {"missing file",
     nullptr,
     {"vfat", "ext4", "ext3", "ext2"},
     {"[Error] HotplugHandlerThread: Exception: \"HotplugHandlerThread::init(): Error opening "
      "/proc/filesystems\""}},
};

TEST_F(HandlerTest, InitLearnsTheFileSystemTypes)
{
    for (const auto& row : initRows) {
        SCOPED_TRACE(row.what);
        HotplugHandlerThread fresh;
        {
            ProcFilesystems file(row.content);
            ASSERT_TRUE(file.ok());
            fresh.init();
        }
        EXPECT_EQ(fresh.getSupportedFileSystems(), row.types);
        EXPECT_EQ(records(), row.expected);
    }
}

} // namespace
