// hotplug_capture: writes the kernel's uevents, as the daemon receives them,
// in a text form that hotplug_replay plays back against the same daemon on a
// workstation. Runs beside the daemon on the device; changes nothing there.
#include "capture/CaptureOptions.h"
#include "capture/CaptureRecord.h"
#include "capture/CaptureWriter.h"
#include "capture/SysfsSnapshot.h"
#include "capture/UeventSocket.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <exception>
#include <fcntl.h>
#include <numeric>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <sys/signalfd.h>
#include <sys/utsname.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace {

using Capture::CaptureRecord;

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

// Whole records in one write each, so a capture cut off by a power loss ends
// with a complete record.
class Output {
public:
    explicit Output(const std::string& path)
    {
        if (path.empty()) {
            return;
        }
        fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd < 0) {
            throw std::system_error(errno, std::generic_category(), "cannot open " + path);
        }
    }
    ~Output()
    {
        if (fd != STDOUT_FILENO) {
            close(fd);
        }
    }
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    void write(const CaptureRecord& record) { writeText(Capture::CaptureWriter::format(record)); }
    unsigned long bytes() const { return written; }
    void comment(const std::string& text)
    {
        CaptureRecord record;
        record.data = text;
        write(record);
    }
    void finish()
    {
        // EINVAL: a device or pipe (-o /dev/ttyS0), which has nothing to sync.
        if (fd != STDOUT_FILENO && fsync(fd) != 0 && errno != EINVAL) {
            throw std::system_error(errno, std::generic_category(), "fsync of the capture");
        }
    }

private:
    int fd = STDOUT_FILENO;
    unsigned long written = 0;

    void writeText(const std::string& text)
    {
        size_t done = 0;
        while (done < text.size()) {
            const ssize_t count = ::write(fd, text.data() + done, text.size() - done);
            if (count < 0 && errno == EINTR) {
                continue;
            }
            if (count <= 0) {
                throw std::system_error(errno, std::generic_category(), "cannot write the capture");
            }
            done += static_cast<size_t>(count);
        }
        written += text.size();
    }
};

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

// Room kept for the closing lines (a LOST line and the end), so the capture
// stays within its limit and still says why it ended.
constexpr unsigned long closingBytes = 512;

bool fits(const Output& output, const std::vector<CaptureRecord>& batch, unsigned long maxBytes)
{
    if (maxBytes == 0) {
        return true;
    }
    const unsigned long total =
        std::accumulate(batch.begin(), batch.end(), output.bytes() + closingBytes,
                        [](unsigned long sum, const CaptureRecord& record) {
                            return sum + Capture::CaptureWriter::format(record).size();
                        });
    return total <= maxBytes;
}

std::string sizeLimit(unsigned long maxBytes)
{
    return "the size limit (" + std::to_string(maxBytes) + " bytes)";
}

void writePreamble(Output& output, int bufferBytes)
{
    utsname system{};
    uname(&system);
    char started[64] = "";
    const time_t now = time(nullptr);
    tm utc{};
    if (gmtime_r(&now, &utc) != nullptr) {
        static_cast<void>(strftime(started, sizeof(started), "%Y-%m-%d %H:%M:%S UTC", &utc));
    }
    output.comment("hotplug_capture " DHH_VERSION
                   ": kernel uevents as udevadm monitor --kernel --property prints them");
    output.comment("escaped as \\xHH: control bytes, bytes above 0x7e, the backslash, and the "
                   "blank in header fields");
    output.comment(std::string(system.sysname) + " " + system.release + " " + system.version + " " +
                   system.machine + " on " + system.nodename + ", receive buffer " +
                   std::to_string(bufferBytes) + " bytes");
    output.comment(std::string("started ") + started + ", at " +
                   Capture::CaptureWriter::timeText(monotonicUs()) + " s of the monotonic clock");
    output.write(Capture::SysfsSnapshot::procFilesystems());
}

int capture(const Capture::CaptureOptions& options)
{
    Output output(options.output);
    const int signalFd = blockStopSignals();
    Capture::UeventSocket socket;
    writePreamble(output, socket.receiveBufferBytes());
    std::string reason;
    if (options.sysfs) {
        // After the bind: what changes while sysfs is read arrives as events.
        output.comment("sysfs as the daemon's start-up scan reads it");
        for (const auto& record : Capture::SysfsSnapshot::startupScan()) {
            if (!fits(output, {record}, options.maxBytes)) {
                reason = sizeLimit(options.maxBytes);
                break;
            }
            output.write(record);
        }
    }
    say("capturing to " + (options.output.empty() ? "standard output" : options.output) +
        "; SIGINT or SIGTERM ends it");
    const uint64_t deadline =
        options.durationS > 0 ? monotonicUs() + options.durationS * 1000000U : 0;
    unsigned long written = 0;
    unsigned long losses = 0;
    CaptureRecord loss;
    loss.kind = CaptureRecord::Kind::Lost;
    loss.data = "datagrams lost: the receive buffer overflowed (ENOBUFS) after those above "
                "had arrived";
    while (reason.empty()) {
        int timeoutMs = -1;
        if (deadline != 0) {
            const uint64_t now = monotonicUs();
            if (now >= deadline) {
                reason = "time limit";
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
        CaptureRecord record;
        record.kind = CaptureRecord::Kind::Datagram;
        for (auto result = socket.receive(record.data);
             result != Capture::UeventSocket::Result::Empty && reason.empty();
             result = socket.receive(record.data)) {
            record.timeUs = monotonicUs();
            if (result == Capture::UeventSocket::Result::Lost) {
                // The kernel says so before the datagrams still queued, which came before
                // the loss: the record goes behind them, once the socket is empty.
                loss.timeUs = loss.timeUs == 0 ? record.timeUs : loss.timeUs;
                ++losses;
                continue;
            }
            // Written ahead of the event: a replay lays the file down before it sends the event.
            std::vector<CaptureRecord> batch;
            if (record.value("ACTION") == "add" && record.value("SUBSYSTEM") == "net") {
                batch = Capture::SysfsSnapshot::netInterface(record.value("INTERFACE"));
            }
            batch.push_back(record);
            if (!fits(output, batch, options.maxBytes)) {
                reason = sizeLimit(options.maxBytes);
                break;
            }
            for (const auto& entry : batch) {
                output.write(entry);
            }
            if (++written == options.count) {
                reason = "count reached";
            }
        }
        if (loss.timeUs != 0) {
            output.write(loss);
            loss.timeUs = 0;
        }
        signalfd_siginfo signal{};
        if ((ready[1].revents & POLLIN) != 0 && read(signalFd, &signal, sizeof(signal)) > 0) {
            reason = signal.ssi_signo == SIGINT ? "SIGINT" : "SIGTERM";
        }
    }
    output.comment("ended by " + reason + " after " + std::to_string(written) + " datagrams, " +
                   std::to_string(losses) + " overflows");
    output.finish();
    close(signalFd);
    say(std::to_string(written) + " datagrams, " + std::to_string(losses) +
        " overflows, written to " + (options.output.empty() ? "standard output" : options.output) +
        " (" + reason + ")");
    return 0;
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
