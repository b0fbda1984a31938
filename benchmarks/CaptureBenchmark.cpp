// hotplug_capture's CPU time per datagram: a burst of serial-adapter adds
// queued while the tool stands still (SIGSTOP), then taken in one go, as a
// fault's burst reaches it beside the daemon. Prints a Markdown row per
// binary: the median of five runs.
// Usage: dhh_capture_benchmark [LABEL=]CAPTURE...
#include "sandbox/Namespaces.h"
#include "sandbox/SimulatedDevice.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

namespace {

constexpr int burst = 5000;
constexpr int runs = 5;

[[noreturn]] void fail(const std::string& why)
{
    static_cast<void>(std::fprintf(stderr, "capture benchmark FAILED: %s\n", why.c_str()));
    std::exit(1);
}

// Nanoseconds on a CPU, from /proc/PID/schedstat (the tool has one thread).
double cpuNanoseconds(pid_t pid)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/schedstat");
    double nanoseconds = 0;
    if (!(file >> nanoseconds)) {
        fail("cannot read the schedstat of " + std::to_string(pid));
    }
    return nanoseconds;
}

double nanosecondsPerDatagram(const std::string& capture)
{
    Sandbox::SimulatedDevice::Options options;
    options.daemonPath = capture;
    options.arguments = {"-o", "/tmp/capture"};
    Sandbox::SimulatedDevice device(options);
    device.start();
    if (!device.waitUntilListening(10000)) {
        fail(capture + " does not listen: " + device.output());
    }
    std::vector<std::string> datagrams;
    for (int index = 0; index < burst; ++index) {
        const std::string name = "ttyUSB" + std::to_string(index);
        datagrams.push_back(
            Sandbox::Uevent::ttyUsb(
                "add", "/devices/platform/ehci/usb1/1-1/1-1.2/1-1.2:1.0/" + name + "/tty/" + name,
                name)
                .datagram());
    }
    const std::string last = "DEVNAME=ttyUSB" + std::to_string(burst - 1) + "\n";
    device.signal(SIGSTOP);
    const double before = cpuNanoseconds(device.pid());
    device.injectRawBurst(datagrams.data(), datagrams.size());
    device.signal(SIGCONT);
    if (!Sandbox::SimulatedDevice::waitUntil(
            [&] { return device.readFile("/tmp/capture").find(last) != std::string::npos; },
            60000)) {
        fail(capture + " did not write the burst down within 60 s");
    }
    const double used = cpuNanoseconds(device.pid()) - before;
    device.signal(SIGTERM);
    device.waitExit(10000);
    return used / burst;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2) {
        static_cast<void>(std::fprintf(stderr, "usage: %s [LABEL=]CAPTURE...\n", argv[0]));
        return 2;
    }
    std::string why;
    if (!Sandbox::Namespaces::canRun(why)) {
        fail(why);
    }
    std::printf("| hotplug_capture | CPU per datagram (median of %d bursts of %d) |\n|---|---|\n",
                runs, burst);
    for (int index = 1; index < argc; ++index) {
        const std::string argument = argv[index];
        const size_t equals = argument.find('=');
        const std::string binary = argument.substr(equals == std::string::npos ? 0 : equals + 1);
        std::vector<double> figures;
        for (int run = 0; run < runs; ++run) {
            figures.push_back(nanosecondsPerDatagram(binary));
        }
        std::sort(figures.begin(), figures.end());
        std::printf("| %s | %.1f µs |\n", argument.substr(0, equals).c_str(),
                    figures[runs / 2] / 1000.0);
    }
    return 0;
}
