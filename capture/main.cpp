// hotplug_capture: writes the kernel's uevents, as the daemon receives them,
// in a text form that hotplug_replay plays back against the same daemon on a
// workstation. Runs beside the daemon on the device; changes nothing there.
#include "capture/CaptureOptions.h"
#include "capture/CaptureOutput.h"
#include "capture/CaptureRecord.h"
#include "capture/CaptureWriter.h"
#include "capture/SysfsSnapshot.h"
#include "capture/UeventSocket.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <sys/signalfd.h>
#include <sys/utsname.h>
#include <system_error>
#include <unistd.h>

namespace {

using Capture::CaptureOutput;
using Capture::CaptureRecord;
using Capture::CaptureWriter;

// At most this many datagrams between two looks at the signals, so that a
// flood of uevents does not hold off Ctrl-C.
constexpr int batchDatagrams = 64;

void say(const std::string& text)
{
    static_cast<void>(std::fputs(("hotplug_capture: " + text + "\n").c_str(), stderr));
}

uint64_t monotonicUs()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000U +
           static_cast<uint64_t>(now.tv_nsec) / 1000U;
}

std::string commentText(const std::string& text)
{
    CaptureRecord record;
    record.data = text;
    return CaptureWriter::format(record);
}

// SIGINT and SIGTERM become readable on a descriptor, so the loop ends
// between two records and never in the middle of one.
int blockStopSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    if (sigprocmask(SIG_BLOCK, &signals, nullptr) != 0) {
        throw std::system_error(errno, std::generic_category(), "sigprocmask");
    }
    const int fd = signalfd(-1, &signals, SFD_CLOEXEC);
    if (fd < 0) {
        throw std::system_error(errno, std::generic_category(), "signalfd");
    }
    // A closed pipe shows as a failed write instead.
    static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
    return fd;
}

// What the capture has done so far, for its closing line.
struct Progress {
    unsigned long datagrams = 0;
    unsigned long overflows = 0;
    std::string reason; // why it ends; "" while it goes on
};

// Whether text of that size still fits, with room for the closing lines.
bool fits(const CaptureOutput& output, size_t textBytes, unsigned long maxBytes)
{
    return maxBytes == 0 || output.bytes() + textBytes + CaptureOutput::closingBytes <= maxBytes;
}

std::string sizeLimit(unsigned long maxBytes)
{
    return "the size limit (" + std::to_string(maxBytes) + " bytes)";
}

void writePreamble(CaptureOutput& output, int bufferBytes)
{
    utsname system{};
    const std::string kernel =
        uname(&system) == 0
            ? std::string(system.sysname) + " " + system.release + " " + system.version + " " +
                  system.machine + " on " + system.nodename
            : std::string("an unknown kernel (uname: ") + std::strerror(errno) + ")";
    char started[64] = "";
    const time_t now = time(nullptr);
    tm utc{};
    if (gmtime_r(&now, &utc) != nullptr) {
        static_cast<void>(strftime(started, sizeof(started), "%Y-%m-%d %H:%M:%S UTC", &utc));
    }
    output.write(
        commentText("hotplug_capture " DHH_VERSION
                    ": kernel uevents as udevadm monitor --kernel --property prints "
                    "them") +
        commentText("escaped as \\xHH: control bytes, bytes above 0x7e, the backslash, "
                    "and the blank in header fields") +
        commentText(kernel + ", receive buffer " + std::to_string(bufferBytes) + " bytes") +
        commentText(std::string("started ") + started + ", at " +
                    CaptureWriter::timeText(monotonicUs()) + " s of the monotonic clock") +
        CaptureWriter::format(Capture::SysfsSnapshot::procFilesystems()));
}

// After the socket's bind: what changes while sysfs is read arrives as events.
void writeSysfs(CaptureOutput& output, unsigned long maxBytes, Progress& progress)
{
    output.write(commentText("sysfs as the daemon's start-up scan reads it"));
    for (const auto& record : Capture::SysfsSnapshot::startupScan()) {
        const std::string text = CaptureWriter::format(record);
        if (!fits(output, text.size(), maxBytes)) {
            progress.reason = sizeLimit(maxBytes);
            return;
        }
        output.write(text);
    }
}

// Up to a batch of datagrams into the file; true when the socket ran empty.
// A loss the kernel reports is only counted here (lossTimeUs).
bool captureBatch(CaptureOutput& output, Capture::UeventSocket& socket,
                  const Capture::CaptureOptions& options, Progress& progress, uint64_t& lossTimeUs)
{
    for (int taken = 0; taken < batchDatagrams && progress.reason.empty(); ++taken) {
        CaptureRecord record;
        record.kind = CaptureRecord::Kind::Datagram;
        const auto result = socket.receive(record.data);
        if (result == Capture::UeventSocket::Result::Empty) {
            return true;
        }
        record.timeUs = monotonicUs();
        if (result == Capture::UeventSocket::Result::Lost) {
            lossTimeUs = lossTimeUs == 0 ? record.timeUs : lossTimeUs;
            ++progress.overflows;
            continue;
        }
        // Ahead of the event: a replay lays the files down before it sends the event.
        std::string text;
        if (record.value("ACTION") == "add" && record.value("SUBSYSTEM") == "net") {
            for (const auto& file :
                 Capture::SysfsSnapshot::netInterface(record.value("INTERFACE"))) {
                text += CaptureWriter::format(file);
            }
        }
        text += CaptureWriter::format(record);
        if (!fits(output, text.size(), options.maxBytes)) {
            progress.reason = sizeLimit(options.maxBytes);
            break;
        }
        output.write(text);
        if (++progress.datagrams == options.count) {
            progress.reason = "count reached";
        }
    }
    return false;
}

void writeLoss(CaptureOutput& output, uint64_t timeUs)
{
    CaptureRecord loss;
    loss.kind = CaptureRecord::Kind::Lost;
    loss.timeUs = timeUs;
    loss.data = "datagrams lost: the receive buffer overflowed (ENOBUFS) after those above "
                "had arrived";
    output.write(CaptureWriter::format(loss));
}

void listen(CaptureOutput& output, Capture::UeventSocket& socket, int signalFd,
            const Capture::CaptureOptions& options, Progress& progress)
{
    const uint64_t deadline =
        options.durationS > 0 ? monotonicUs() + options.durationS * 1000000U : 0;
    uint64_t lossTimeUs = 0;
    while (progress.reason.empty()) {
        int timeoutMs = -1;
        if (deadline != 0) {
            const uint64_t now = monotonicUs();
            if (now >= deadline) {
                progress.reason = "time limit";
                break;
            }
            timeoutMs = static_cast<int>(std::min<uint64_t>((deadline - now) / 1000U + 1, INT_MAX));
        }
        pollfd ready[2] = {{socket.fd(), POLLIN, 0}, {signalFd, POLLIN, 0}};
        if (poll(ready, 2, timeoutMs) < 0) {
            if (errno == EINTR) {
                continue;
            }
            throw std::system_error(errno, std::generic_category(), "poll");
        }
        const bool drained = captureBatch(output, socket, options, progress, lossTimeUs);
        // The kernel reports a loss before the datagrams still queued, which came
        // before it: the line goes behind them.
        if (lossTimeUs != 0 && (drained || !progress.reason.empty())) {
            writeLoss(output, lossTimeUs);
            lossTimeUs = 0;
        }
        signalfd_siginfo signal{};
        if ((ready[1].revents & POLLIN) != 0 && read(signalFd, &signal, sizeof(signal)) > 0) {
            progress.reason = signal.ssi_signo == SIGINT ? "SIGINT" : "SIGTERM";
        }
    }
}

int capture(const Capture::CaptureOptions& options)
{
    CaptureOutput output(options.output);
    const int signalFd = blockStopSignals();
    Capture::UeventSocket socket;
    const std::string destination = options.output.empty() ? "standard output" : options.output;
    Progress progress;
    bool failed = false;
    try {
        writePreamble(output, socket.receiveBufferBytes());
        if (options.sysfs) {
            writeSysfs(output, options.maxBytes, progress);
        }
        say("capturing to " + destination + "; SIGINT or SIGTERM ends it");
        listen(output, socket, signalFd, options, progress);
    } catch (const CaptureOutput::WriteFailed& error) {
        progress.reason = "a write error (" + error.code().message() + ")";
        failed = true;
    }
    const bool closed = output.writeClosing(
        commentText("ended by " + progress.reason + " after " + std::to_string(progress.datagrams) +
                    " datagrams, " + std::to_string(progress.overflows) + " overflows"));
    output.finish();
    close(signalFd);
    say(std::to_string(progress.datagrams) + " datagrams, " + std::to_string(progress.overflows) +
        " overflows, written to " + destination + " (" + progress.reason + ")");
    if (failed) {
        say(std::string("the capture ends on its last whole record") +
            (closed ? ", with a line saying why" : ""));
    }
    return failed ? 1 : 0;
}

} // namespace

int main(int argc, char** argv)
{
    Capture::CaptureOptions options;
    try {
        options = Capture::CaptureOptions::parse(argc, argv);
    } catch (const std::invalid_argument& error) {
        say(error.what());
        static_cast<void>(std::fputs(Capture::CaptureOptions::usage(), stderr));
        return 2;
    }
    if (options.help) {
        static_cast<void>(std::fputs(Capture::CaptureOptions::usage(), stdout));
        return 0;
    }
    try {
        return capture(options);
    } catch (const std::exception& error) {
        say(error.what());
        return 1;
    }
}
