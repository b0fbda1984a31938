// The daemon from start to exit: the scheduling of its threads, the file
// system types it learns from /proc/filesystems, the signals that end it.
#include "tests/system/DaemonSandboxTest.h"

#include <algorithm>
#include <cctype>
#include <dirent.h>
#include <fstream>
#include <map>
#include <sched.h>
#include <sstream>

namespace {

using Sandbox::SimulatedDevice;

// The fields of a /proc stat file, numbered as proc(5) numbers them.
std::map<int, long> statFields(const std::string& path)
{
    std::ifstream stat(path);
    std::string line;
    std::getline(stat, line);
    std::istringstream fields(line.substr(line.rfind(')') + 2));
    std::map<int, long> numbers;
    std::string field;
    for (int index = 3; fields >> field; ++index) {
        numbers[index] = std::strtol(field.c_str(), nullptr, 10);
    }
    return numbers;
}

// The listener must drain the socket's small buffer the moment events arrive,
// ahead of the handler and of syslogd, or a burst loses events; but scheduling
// that the integrator chose is kept for both threads.
TEST_F(DaemonSandboxTest, ListenerRunsAheadOfTheHandlerThreadUnlessTheIntegratorChose)
{
    const std::string refused = "[Warn ] HotplugNetlink: Unable to give the listener a real-time "
                                "priority: Operation not permitted. Grant the service CAP_SYS_NICE "
                                "and, on kernels with CONFIG_RT_GROUP_SCHED, a real-time budget "
                                "(cpu.rt_runtime_us); the handler thread runs at nice 10 instead";
    const struct {
        std::vector<std::string> launcher;
        long listenerPolicy, listenerPriority, listenerNice, handlerPolicy, handlerNice;
        int signal;
        std::string warning;
    } rows[] = {
        // clang-format off
        {{}, SCHED_RR, 1, 0, SCHED_OTHER, 0, SIGTERM, ""},
        {{"/usr/bin/nice", "-n", "5"}, SCHED_OTHER, 0, 5, SCHED_OTHER, 5, SIGINT, ""},
        {{"/usr/bin/chrt", "-r", "3"}, SCHED_RR, 3, 0, SCHED_RR, 0, SIGTERM, ""},
        {{"/usr/bin/setpriv", "--bounding-set=-sys_nice"}, SCHED_OTHER, 0, 0, SCHED_OTHER, 10, SIGINT, refused},
        // clang-format on
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.launcher.empty() ? "as root" : row.launcher[0]);
        SimulatedDevice::Options options;
        options.launcher = row.launcher;
        options.procFilesystems = SimulatedDevice::ProcFilesystems::Custom;
        options.procFilesystemsText = "nodev\tsysfs\n\text4\nnodev\tproc\n\tvfat\n";
        prepare(options);
        start(); // the handler thread settles its scheduling before init's record
        EXPECT_TRUE(
            sawRecord(handler + "Mount supports the following filesystem types: ext4 vfat "));
        // A process namespace of its own: no /proc/N/root leads into the host's root.
        auto processes = sandbox->list("/proc");
        processes.erase(std::remove_if(processes.begin(), processes.end(),
                                       [](const std::string& name) {
                                           return std::isdigit(
                                                      static_cast<unsigned char>(name[0])) == 0;
                                       }),
                        processes.end());
        EXPECT_EQ(processes, std::vector<std::string>{"1"});
        // By thread id: nice (19), real-time priority (40), policy (41).
        std::map<long, std::map<int, long>> threads;
        const std::string tasks = "/proc/" + std::to_string(sandbox->pid()) + "/task";
        DIR* directory = opendir(tasks.c_str());
        ASSERT_NE(directory, nullptr);
        while (const dirent* entry = readdir(directory)) {
            if (entry->d_name[0] != '.') {
                threads[std::atol(entry->d_name)] =
                    statFields(tasks + "/" + entry->d_name + "/stat");
            }
        }
        closedir(directory);
        auto listener = threads[sandbox->pid()];
        EXPECT_EQ(listener[41] * 100 + listener[40],
                  row.listenerPolicy * 100 + row.listenerPriority);
        EXPECT_EQ(listener[19], row.listenerNice);
        // qemu-user and the thread sanitizer add threads of their own, which
        // inherit whatever their creator had: only the handler's is known.
        threads.erase(sandbox->pid());
        EXPECT_TRUE(std::any_of(threads.begin(), threads.end(), [&](auto& thread) {
            return thread.second[41] == row.handlerPolicy && thread.second[19] == row.handlerNice;
        })) << "no thread scheduled as the handler thread should be";
        stop(row.signal);
        EXPECT_EQ(recordsStartingWith("[Warn ]"),
                  (row.warning.empty() ? std::vector<std::string>{}
                                       : std::vector<std::string>{row.warning}));
        EXPECT_TRUE(recordsStartingWith("[Error]").empty());
        EXPECT_EQ(sandbox->syslog().texts().back(), "[Debug] HotplugNetlink: Process terminated");
        for (const auto& record : sandbox->syslog().history()) {
            EXPECT_EQ(record.identity, "device_hotplug_handler");
        }
        EXPECT_EQ(sandbox->output(), "");
    }
}

} // namespace
