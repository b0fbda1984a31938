// hotplug_replay: plays a capture of the kernel's uevents (hotplug_capture's,
// or pasted udevadm output) against the real daemon binary in the sandbox and
// prints what it did; with --expect, a field report becomes a regression test.
#include "capture/CaptureReader.h"
#include "replay/DeviceState.h"
#include "replay/InputFile.h"
#include "replay/ReplayOptions.h"
#include "replay/ReplaySession.h"
#include "sandbox/Namespaces.h"
#include "sandbox/SystemError.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace {

using Replay::DeviceState;

using BadInput = Replay::InputFile::Refused;

// Four times hotplug_capture's default limit; a listing is a few lines.
constexpr size_t captureLimitBytes = 64UL << 20U;
constexpr size_t expectedStateLimitBytes = 1UL << 20U;

void checkInputs(const Replay::ReplayOptions& options, const Replay::ReplayPlan& plan)
{
    struct stat status {};
    if (stat(options.daemon.c_str(), &status) != 0 || !S_ISREG(status.st_mode) ||
        access(options.daemon.c_str(), X_OK) != 0) {
        throw BadInput("the daemon binary " + options.daemon + " is missing or not executable");
    }
    for (const auto& [name, image] : options.images) {
        if (access(image.c_str(), R_OK) != 0) {
            throw BadInput("cannot read the image " + image + " for " + name);
        }
        bool known = false;
        for (const auto& partition : plan.partitions) {
            known = known || partition == name;
        }
        if (!known) {
            throw BadInput("--image " + name + "=...: the capture has no partition " + name);
        }
    }
}

// The daemon built beside this program, or, once installed, the installed one.
std::string defaultDaemon()
{
    return access(DHH_DAEMON_PATH, X_OK) == 0 ? DHH_DAEMON_PATH : DHH_INSTALLED_DAEMON_PATH;
}

std::string joined(const std::vector<std::string>& words)
{
    std::string text;
    for (const auto& word : words) {
        text += (text.empty() ? "" : " ") + word;
    }
    return text;
}

// The daemon sees the device's list; what this kernel lacks of it fails to
// mount here and the daemon goes on to the next type, as on a device.
void describeFilesystems(const std::string& deviceList)
{
    const auto device = Replay::ReplayPlan::blockFilesystems(deviceList);
    std::ifstream hostFile("/proc/filesystems");
    std::ostringstream hostList;
    hostList << hostFile.rdbuf();
    const auto host = Replay::ReplayPlan::blockFilesystems(hostList.str());
    std::vector<std::string> lacking;
    for (const auto& type : device) {
        if (std::find(host.begin(), host.end(), type) == host.end()) {
            lacking.push_back(type);
        }
    }
    std::printf("   /proc/filesystems: the device's, as captured: %s\n", joined(device).c_str());
    if (!lacking.empty()) {
        std::printf("   this workstation's kernel cannot mount %s: the daemon's attempts with them "
                    "fail here, and it goes on to the next type as on the device\n",
                    joined(lacking).c_str());
    }
    if (std::find(device.begin(), device.end(), "ext4") == device.end()) {
        std::printf("   the device offers no ext4: the stand-in ext4 images will not mount\n");
    }
}

struct ReadCapture {
    std::vector<Capture::CaptureRecord> records;
    Replay::ReplayPlan plan;
};

ReadCapture readCapture(const Replay::ReplayOptions& options)
{
    const std::string text = Replay::InputFile::read(options.capture, "capture", captureLimitBytes);
    ReadCapture capture;
    std::vector<std::string> notes;
    try {
        capture.records = Capture::CaptureReader::read(text, &notes);
        capture.plan = Replay::ReplayPlan::of(capture.records);
    } catch (const Capture::CaptureFormatError& error) {
        std::string message = options.capture + ": " + error.what();
        if (!error.lineText().empty()) {
            message += "\n    " + error.lineText();
        }
        throw BadInput(message + "\nnothing was replayed");
    }
    if (capture.plan.datagrams == 0) {
        throw BadInput(options.capture + ": no datagram could be read from it (a capture of " +
                       "hotplug_capture, or udevadm monitor --kernel --property output, is " +
                       "wanted)\nnothing was replayed");
    }
    for (const auto& note : notes) {
        std::fprintf(stderr, "hotplug_replay: %s: %s\n", options.capture.c_str(), note.c_str());
    }
    return capture;
}

void announce(const Replay::ReplayOptions& options, const Replay::ReplayPlan& plan)
{
    std::printf("== hotplug_replay %s: %zu datagrams over %.1f s%s; daemon %s\n",
                options.capture.c_str(), plan.datagrams, static_cast<double>(plan.spanUs) / 1e6,
                options.fast ? " (sent fast)" : "", options.daemon.c_str());
    for (const auto& name : plan.partitions) {
        const auto image = options.images.find(name);
        std::printf("   /dev/%s: %s\n", name.c_str(),
                    image == options.images.end() ? "an empty ext4 file system"
                                                  : ("the image " + image->second).c_str());
    }
    if (plan.deviceFilesystems) {
        describeFilesystems(*plan.deviceFilesystems);
    }
}

// SIGINT and SIGTERM end the replay between two steps, with the state shown
// and the sandbox taken down as after a whole replay.
volatile std::sig_atomic_t stopSignal = 0;

void catchStopSignals()
{
    struct sigaction action {};
    action.sa_handler = [](int number) { stopSignal = number; };
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    for (const int number : {SIGINT, SIGTERM}) {
        if (sigaction(number, &action, nullptr) != 0) {
            throw Sandbox::systemError("sigaction");
        }
    }
}

int compare(const Replay::ReplayOptions& options, const std::vector<std::string>& expected,
            const std::vector<std::string>& state)
{
    const auto differences = DeviceState::diff(expected, state);
    if (!differences.empty()) {
        std::fprintf(stderr, "hotplug_replay: the state differs from %s:\n",
                     options.expect.c_str());
        for (const auto& line : differences) {
            std::fprintf(stderr, "%s\n", line.c_str());
        }
        return 1;
    }
    std::printf("# the state is the one %s expects\n", options.expect.c_str());
    return 0;
}

int replay(const Replay::ReplayOptions& options)
{
    const ReadCapture capture = readCapture(options);
    checkInputs(options, capture.plan);
    std::vector<std::string> expected;
    if (!options.expect.empty()) {
        expected = DeviceState::parse(
            Replay::InputFile::read(options.expect, "expected state", expectedStateLimitBytes));
    }
    std::string why;
    if (!Sandbox::Namespaces::canRun(why)) {
        std::fprintf(stderr, "hotplug_replay: the sandbox needs root: %s\n", why.c_str());
        return 1;
    }

    Replay::ReplaySession::Settings settings;
    settings.daemonPath = options.daemon;
    settings.fast = options.fast;
    settings.images = options.images;
    settings.addresses = options.addresses;
    settings.stopSignal = &stopSignal;
    catchStopSignals();
    announce(options, capture.plan);
    Replay::ReplaySession session(capture.records, settings);
    session.start();
    while (session.sendNext()) {
    }
    session.settle();
    const auto state = session.state();
    const int stoppedBy = stopSignal;
    session.showState(stoppedBy != 0
                          ? std::string("when SIG") + sigabbrev_np(stoppedBy) + " ended the replay"
                          : "after the replay");
    const int status = session.stop();
    if (status >= 0) {
        std::printf("# the daemon stopped on SIGTERM with exit status %d\n", status);
    }
    std::fflush(stdout);
    if (stoppedBy != 0) {
        std::fprintf(stderr, "hotplug_replay: SIG%s ended the replay after %zu of %zu datagrams\n",
                     sigabbrev_np(stoppedBy), session.sentDatagrams(), capture.plan.datagrams);
        return 1;
    }
    if (!options.expect.empty() && compare(options, expected, state) != 0) {
        return 1;
    }
    return status == 0 ? 0 : 1;
}

} // namespace

int main(int argc, char** argv)
{
    Replay::ReplayOptions options;
    try {
        options = Replay::ReplayOptions::parse(argc, argv, defaultDaemon());
        if (options.help) {
            std::fputs(Replay::ReplayOptions::usage(), stdout);
            return 0;
        }
        return replay(options);
    } catch (const std::invalid_argument& error) {
        std::fprintf(stderr, "hotplug_replay: %s\n%s", error.what(),
                     Replay::ReplayOptions::usage());
        return 2;
    } catch (const BadInput& error) {
        std::fprintf(stderr, "hotplug_replay: %s\n", error.what());
        return 2;
    } catch (const std::exception& error) {
        const std::string text = error.what();
        const bool foreign = text.find("Exec format error") != std::string::npos;
        std::fprintf(stderr, "hotplug_replay: %s%s\n", text.c_str(),
                     foreign ? " (a 32-bit x86 or ARM daemon runs through qemu-user once "
                               "scripts/binfmt.sh has registered it)"
                             : "");
        return 1;
    }
}
