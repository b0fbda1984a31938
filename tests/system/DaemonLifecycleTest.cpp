// The daemon from start to exit: its start-up records, the signals that end
// it, the order of a burst of events, and datagrams it must survive.
#include "tests/system/DaemonSandboxTest.h"

#include <algorithm>
#include <dirent.h>
#include <fstream>
#include <map>
#include <sched.h>
#include <sstream>

namespace {

using Sandbox::Uevent;

// The fields of a /proc stat file, numbered as proc(5) numbers them.
std::map<int, long> statFields(const std::string& path)
{
    std::ifstream stat(path);
    std::string line;
    std::getline(stat, line);
    std::istringstream fields(line.substr(line.rfind(')') + 2));
    std::string field;
    std::map<int, long> numbers;
    for (int index = 3; fields >> field; ++index) {
        numbers[index] = std::strtol(field.c_str(), nullptr, 10);
    }
    return numbers;
}

// User plus system CPU time of a process, in clock ticks.
long cpuTicks(pid_t pid)
{
    auto fields = statFields("/proc/" + std::to_string(pid) + "/stat");
    return fields[14] + fields[15];
}

class DaemonLifecycleTest : public DaemonSandboxTest, public testing::WithParamInterface<int> {};

TEST_P(DaemonLifecycleTest, StartsAndEndsInOrderOnSignal)
{
    Sandbox::SimulatedDevice::Options options;
    options.procFilesystems = Sandbox::SimulatedDevice::ProcFilesystems::Custom;
    options.procFilesystemsText = "nodev\tsysfs\n\text4\nnodev\tproc\n\tvfat\n";
    prepare(options);
    start();
    stop(GetParam());

    EXPECT_EQ(recordsStartingWith("[Debug] Poller: Register descriptor: ").size(), 2U);
    EXPECT_EQ(recordsStartingWith("[Debug] Poller: Unregister descriptor: ").size(), 2U);
    EXPECT_TRUE(sawRecord(handler + "Mount supports the following filesystem types: ext4 vfat "));
    EXPECT_TRUE(sawRecord(handler + "Thread terminated"));
    EXPECT_TRUE(sawRecord("[Debug] HotplugNetlink: Process terminated"));
    EXPECT_TRUE(recordsStartingWith("[Error]").empty());
    for (const auto& record : sandbox->syslog().history()) {
        EXPECT_EQ(record.identity, "device_hotplug_handler");
    }
    EXPECT_EQ(sandbox->output(), "");
}

INSTANTIATE_TEST_SUITE_P(Signals, DaemonLifecycleTest, testing::Values(SIGTERM, SIGINT));

// The listener must drain the socket's small buffer the moment events arrive,
// ahead of the handler and of syslogd, or a burst loses events; but a
// scheduling the integrator chose is kept for both threads.
TEST_F(DaemonSandboxTest, ListenerRunsAheadOfTheHandlerThreadUnlessTheIntegratorChose)
{
    const struct {
        std::vector<std::string> launcher;
        long listenerPolicy, listenerPriority, listenerNice, handlerPolicy, handlerNice;
        bool warned;
    } rows[] = {
        {{}, SCHED_RR, 1, 0, SCHED_OTHER, 0, false},
        {{"/usr/bin/nice", "-n", "5"}, SCHED_OTHER, 0, 5, SCHED_OTHER, 5, false},
        {{"/usr/bin/chrt", "-r", "3"}, SCHED_RR, 3, 0, SCHED_RR, 0, false},
        {{"/usr/bin/setpriv", "--bounding-set=-sys_nice"},
         SCHED_OTHER,
         0,
         0,
         SCHED_OTHER,
         10,
         true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.launcher.empty() ? "as root" : row.launcher[0]);
        Sandbox::SimulatedDevice::Options options;
        options.launcher = row.launcher;
        prepare(options);
        start(); // the handler thread settles its scheduling before init's record
        const std::string tasks = "/proc/" + std::to_string(sandbox->pid()) + "/task";
        // By thread id: nice (19), real-time priority (40), policy (41).
        std::map<long, std::map<int, long>> threads;
        DIR* directory = opendir(tasks.c_str());
        ASSERT_NE(directory, nullptr);
        while (const dirent* entry = readdir(directory)) {
            if (entry->d_name[0] != '.') {
                threads[std::atol(entry->d_name)] =
                    statFields(tasks + "/" + entry->d_name + "/stat");
            }
        }
        closedir(directory);
        EXPECT_EQ(threads[sandbox->pid()][41], row.listenerPolicy);
        EXPECT_EQ(threads[sandbox->pid()][40], row.listenerPriority);
        EXPECT_EQ(threads[sandbox->pid()][19], row.listenerNice);
        // qemu-user and the thread sanitizer add threads of their own, which
        // inherit whatever their creator had: only the handler's is known.
        threads.erase(sandbox->pid());
        EXPECT_TRUE(std::any_of(threads.begin(), threads.end(), [&](auto& thread) {
            return thread.second[41] == row.handlerPolicy && thread.second[19] == row.handlerNice;
        })) << "no thread scheduled as the handler should be";
        EXPECT_EQ(recordsStartingWith("[Warn ]"),
                  row.warned
                      ? std::vector<std::string>{"[Warn ] HotplugNetlink: Unable to give the "
                                                 "listener a real-time priority: Operation "
                                                 "not permitted. Grant the service "
                                                 "CAP_SYS_NICE and, on kernels with "
                                                 "CONFIG_RT_GROUP_SCHED, a real-time budget "
                                                 "(cpu.rt_runtime_us); the handler thread "
                                                 "runs at nice 10 instead"}
                      : std::vector<std::string>{});
        stop();
    }
}

TEST_F(DaemonSandboxTest, FallsBackToKnownTypesWithoutProcFilesystems)
{
    Sandbox::SimulatedDevice::Options options;
    options.procFilesystems = Sandbox::SimulatedDevice::ProcFilesystems::Absent;
    prepare(options);
    start();
    EXPECT_TRUE(
        sawRecord("[Error] HotplugHandlerThread: Exception: \"HotplugHandlerThread::init(): "
                  "Error opening /proc/filesystems\""));
    settle(); // still handles events
    stop();
}

TEST_F(DaemonSandboxTest, HandlesABurstInArrivalOrder)
{
    prepare();
    start();
    constexpr int count = 60;
    const std::string port = "/devices/platform/ehci/usb1/1-1/1-1.3";
    for (int uart = 0; uart < count; ++uart) {
        const std::string name = "ttyUSB" + std::to_string(uart);
        sandbox->inject(Uevent::ttyUsb(
            "add", port + "/1-1.3:1." + std::to_string(uart) + "/" + name + "/tty/" + name, name));
    }
    settle();
    const auto found = recordsStartingWith(handler + "New USB TTY device found at hub 1 port 3");
    ASSERT_EQ(found.size(), static_cast<size_t>(count));
    for (int uart = 0; uart < count; ++uart) {
        EXPECT_EQ(found[static_cast<size_t>(uart)],
                  handler + "New USB TTY device found at hub 1 port 3 with UART num " +
                      std::to_string(uart) + " and /dev/ttyUSB" + std::to_string(uart));
        EXPECT_EQ(sandbox->readLink("/ravo500/devs/usb1-3/uart" + std::to_string(uart)),
                  "/dev/ttyUSB" + std::to_string(uart));
    }
    stop();
}

TEST_F(DaemonSandboxTest, SurvivesMalformedDatagramsWithoutATrace)
{
    prepare();
    start();
    const auto recordsBefore = sandbox->syslog().history().size();
    const long ticksBefore = cpuTicks(sandbox->pid());
    const std::vector<std::string> datagrams = {
        "no separators at all",
        std::string("\0\0\0\0", 4),
        std::string("ACTION=add\0SUBSYSTEM=tty\0DEVNAME=ttyUSB0", 40), // no DEVPATH
        std::string(60000, '='),
        std::string("\xff\x01=\x02\0DEVPATH=\0=\0", 17),
        Uevent::partition("change", "/devices/x/block/sda/sda1", "sda1").datagram(),
        Uevent::usbDevice("add", "/devices/x/usb1/1-1/1-1.2", "bus/usb/001/002")
            .set("DEVTYPE", "usb_interface")
            .datagram(),
    };
    for (const auto& datagram : datagrams) {
        sandbox->injectRaw(datagram);
    }
    settle();
    // Nothing but the marker's record: dropped datagrams leave no trace.
    EXPECT_EQ(sandbox->syslog().history().size(), recordsBefore + 1);
    // A spinning poll loop would burn the whole core meanwhile.
    EXPECT_TRUE(sandbox->isAlive());
    Sandbox::SimulatedDevice::waitUntil([] { return false; }, 500);
    EXPECT_LT(cpuTicks(sandbox->pid()) - ticksBefore, 25);
    stop();
}

} // namespace
