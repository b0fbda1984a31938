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
        // A FIFO would hold the loop device's set-up; a field report brings files.
        struct stat imageStatus {};
        if (stat(image.c_str(), &imageStatus) != 0 || !S_ISREG(imageStatus.st_mode) ||
            access(image.c_str(), R_OK) != 0) {
            throw BadInput("the image " + image + " for " + name +
                           " is missing, unreadable or not a regular file");
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

void out(const std::string& line)
{
    static_cast<void>(std::fputs((line + "\n").c_str(), stdout));
}

void complain(const std::string& line)
{
    static_cast<void>(std::fputs(("hotplug_replay: " + line + "\n").c_str(), stderr));
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
    out("   /proc/filesystems: the device's, as captured: " + joined(device));
    if (!lacking.empty()) {
        out("   this workstation's kernel cannot mount " + joined(lacking) +
            ": the daemon's attempts with them fail here, and it goes on to the next type as on "
            "the device");
    }
    if (std::find(device.begin(), device.end(), "ext4") == device.end()) {
        out("   the device offers no ext4: the stand-in ext4 images will not mount");
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
        complain(options.capture + ": " + note);
    }
    return capture;
}

void announce(const Replay::ReplayOptions& options, const Replay::ReplayPlan& plan)
{
    char span[32];
    static_cast<void>(
        std::snprintf(span, sizeof(span), "%.1f", static_cast<double>(plan.spanUs) / 1e6));
    out("== hotplug_replay " + options.capture + ": " + std::to_string(plan.datagrams) +
        " datagrams over " + span + " s" + (options.fast ? " (sent fast)" : "") + "; daemon " +
        options.daemon);
    for (const auto& name : plan.partitions) {
        const auto image = options.images.find(name);
        out("   /dev/" + name + ": " +
            (image == options.images.end() ? "an empty ext4 file system"
                                           : "the image " + image->second));
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
        complain("the state differs from " + options.expect + ":");
        for (const auto& line : differences) {
            static_cast<void>(std::fputs((line + "\n").c_str(), stderr));
        }
        return 1;
    }
    out("# the state is the one " + options.expect + " expects");
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
        complain("the sandbox needs root: " + why);
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
        out("# the daemon stopped on SIGTERM with exit status " + std::to_string(status));
    }
    static_cast<void>(std::fflush(stdout));
    if (stoppedBy != 0) {
        complain(std::string("SIG") + sigabbrev_np(stoppedBy) + " ended the replay after " +
                 std::to_string(session.sentDatagrams()) + " of " +
                 std::to_string(capture.plan.datagrams) + " datagrams");
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
            static_cast<void>(std::fputs(Replay::ReplayOptions::usage(), stdout));
            return 0;
        }
        return replay(options);
    } catch (const std::invalid_argument& error) {
        complain(error.what());
        static_cast<void>(std::fputs(Replay::ReplayOptions::usage(), stderr));
        return 2;
    } catch (const BadInput& error) {
        complain(error.what());
        return 2;
    } catch (const std::exception& error) {
        const std::string text = error.what();
        const bool foreign = text.find("Exec format error") != std::string::npos;
        complain(text + (foreign ? " (a 32-bit x86 or ARM daemon runs through qemu-user once "
                                   "scripts/binfmt.sh has registered it)"
                                 : ""));
        return 1;
    }
}
