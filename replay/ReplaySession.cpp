#include "replay/ReplaySession.h"

#include "capture/CaptureWriter.h"
#include "replay/DeviceState.h"
#include "sandbox/Namespaces.h"

#include <algorithm>
#include <csignal>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace Replay {

namespace {

using Capture::CaptureRecord;

constexpr int startDeadlineMs = 30000; // qemu-user starts the device's builds slowly
constexpr auto handlingDeadline = std::chrono::seconds(60);
const std::string markerPrefix = "replay-settled-";
// Longer than anything the daemon does with one event, so nothing is lost by the bound.
constexpr uint64_t longestGapUs = 10000000;

} // namespace

ReplaySession::ReplaySession(std::vector<CaptureRecord> captured, Settings chosen)
    : records(std::move(captured)), settings(std::move(chosen)), replayPlan(ReplayPlan::of(records))
{
    // Loop devices first: the namespace can only be entered while one thread runs.
    Sandbox::Namespaces::enterPrivateMountNamespace();
    std::vector<std::pair<std::string, dev_t>> nodes;
    for (const auto& name : replayPlan.partitions) {
        const auto image = settings.images.find(name);
        if (image != settings.images.end()) {
            images.push_back(std::make_unique<ImageLoop>(image->second));
            nodes.emplace_back(name, images.back()->device());
            continue;
        }
        std::string why;
        if (!Sandbox::LoopDisk::available(why)) {
            throw std::runtime_error("no block device for partition " + name + ": " + why);
        }
        disks.push_back(std::make_unique<Sandbox::LoopDisk>(
            std::vector<Sandbox::LoopDisk::Partition>{{8, "ext4"}}));
        nodes.emplace_back(name, disks.back()->partitionDevice(1));
    }
    Sandbox::SimulatedDevice::Options options;
    options.daemonPath = settings.daemonPath;
    options.portDirectories = replayPlan.portDirectories;
    options.cascadeDirectory = replayPlan.cascadeDirectory;
    if (replayPlan.deviceFilesystems) {
        // The device's list, so the daemon tries its types in the device's order.
        options.procFilesystems = Sandbox::SimulatedDevice::ProcFilesystems::Custom;
        options.procFilesystemsText = *replayPlan.deviceFilesystems;
    }
    sandbox = std::make_unique<Sandbox::SimulatedDevice>(options);
    for (const auto& [name, device] : nodes) {
        sandbox->addDeviceNode(name, device);
    }
    sysfs = std::make_unique<CapturedSysfs>(sandbox->sysfs(), settings.addresses);
}

ReplaySession::~ReplaySession() = default;

void ReplaySession::say(const std::string& line) const
{
    if (settings.out != nullptr) {
        static_cast<void>(std::fputs((line + "\n").c_str(), settings.out));
        static_cast<void>(std::fflush(settings.out));
    }
}

void ReplaySession::start()
{
    // What comes before the first datagram is what the daemon finds at start.
    while (next < records.size() && records[next].kind != CaptureRecord::Kind::Datagram) {
        layDown(records[next++]);
    }
    if (replayPlan.fromUdevadm) {
        say("   (udevadm's form read back into the kernel's: DEVNAME without /dev/, MAJOR and "
            "MINOR before it)");
    }
    sandbox->start();
    if (!sandbox->waitUntilListening(startDeadlineMs)) {
        throw std::runtime_error("the daemon did not listen for uevents within 30 s; its output: " +
                                 sandbox->output());
    }
    // On the device the daemon was long past its start-up scan when the capture began.
    settle();
}

void ReplaySession::showState(const std::string& heading) const
{
    const auto lines = state();
    say("# state " + heading + ":");
    for (const auto& line : lines) {
        say(line);
    }
    if (lines.empty()) {
        say("# nothing mounted under /mnt/usb, nothing under /ravo500/devs");
    }
}

void ReplaySession::layDown(const CaptureRecord& record)
{
    switch (record.kind) {
    case CaptureRecord::Kind::Comment:
        say("# " + record.data);
        break;
    case CaptureRecord::Kind::Lost:
        say("!! LOST[" + Capture::CaptureWriter::timeText(record.timeUs) + "] " + record.data +
            " (capture line " + std::to_string(record.line) + "): the replay cannot send them");
        break;
    case CaptureRecord::Kind::SysfsLink:
    case CaptureRecord::Kind::SysfsFile:
        sysfs->apply(record);
        break;
    case CaptureRecord::Kind::Filesystems: // shown to the daemon from its start
    case CaptureRecord::Kind::Datagram:
        break;
    }
}

bool ReplaySession::sendNext()
{
    if (stopping()) {
        return false;
    }
    size_t datagram = next;
    while (datagram < records.size() && records[datagram].kind != CaptureRecord::Kind::Datagram) {
        ++datagram;
    }
    if (datagram == records.size()) {
        layDownTheEnd();
        return false;
    }
    // Notes between datagrams open a step: the state the last one left comes first.
    if (sent > 0 && std::any_of(records.begin() + static_cast<std::ptrdiff_t>(next),
                                records.begin() + static_cast<std::ptrdiff_t>(datagram),
                                [](const CaptureRecord& note) {
                                    return note.kind == CaptureRecord::Kind::Comment;
                                })) {
        settle();
        showState("now");
    }
    const CaptureRecord& record = records[datagram];
    waitForTurn(record);
    if (stopping()) {
        return false;
    }
    for (; next < datagram; ++next) {
        layDown(records[next]);
    }
    ++next;
    send(record);
    return true;
}

void ReplaySession::send(const CaptureRecord& datagram)
{
    if (datagram.value("ACTION") == "add" && datagram.value("SUBSYSTEM") == "net") {
        const std::string note = sysfs->prepareAddress(datagram);
        if (!note.empty()) {
            say("   note: " + note);
        }
    }
    say("-> " + Capture::CaptureWriter::headline(datagram));
    sandbox->injectRaw(datagram.data);
    ++sent;
}

// The capture's closing notes read best after what the daemon made of the rest.
void ReplaySession::layDownTheEnd()
{
    if (next < records.size()) {
        settle();
    }
    for (; next < records.size(); ++next) {
        layDown(records[next]);
    }
}

void ReplaySession::waitForTurn(const CaptureRecord& datagram)
{
    const auto now = Clock::now();
    if (sent == 0) {
        lastTimeUs = datagram.timeUs;
        lastDue = now;
        showRecordsUntil(now);
        return;
    }
    if (settings.fast) {
        const auto deadline = now + handlingDeadline;
        while (!socketDrained() && !stopping()) {
            if (Clock::now() > deadline) {
                throw std::runtime_error("the daemon did not take a datagram within 60 s");
            }
            showRecordsUntil(Clock::now() + std::chrono::milliseconds(2));
        }
        showRecordsUntil(Clock::now());
        return;
    }
    // Stamps come from the field: a gap is taken as it is only up to a bound.
    const uint64_t gapUs = datagram.timeUs > lastTimeUs ? datagram.timeUs - lastTimeUs : 0;
    lastTimeUs = std::max(lastTimeUs, datagram.timeUs);
    if (gapUs > longestGapUs) {
        say("   (the device waited " + Capture::CaptureWriter::timeText(gapUs) +
            " s here; the replay waits " + std::to_string(longestGapUs / 1000000U) +
            " s, --fast does not wait)");
    }
    lastDue += std::chrono::microseconds(std::min(gapUs, longestGapUs));
    showRecordsUntil(lastDue);
}

// The daemon has taken every datagram once its socket's receive queue is empty.
bool ReplaySession::socketDrained() const
{
    const auto socket = sandbox->ueventSocket();
    return socket && socket->queuedBytes == 0;
}

void ReplaySession::checkAlive(const std::string& when)
{
    if (sandbox->isAlive()) {
        return;
    }
    const int status = sandbox->waitExit(0);
    showRecords();
    throw std::runtime_error("the daemon ended " + when + " with status " + std::to_string(status) +
                             "; its output: " + sandbox->output());
}

void ReplaySession::showRecords()
{
    const auto& history = sandbox->syslog().history();
    for (; shownRecords < history.size(); ++shownRecords) {
        if (history[shownRecords].text.find(markerPrefix) == std::string::npos) {
            say("      " + history[shownRecords].text);
        }
    }
}

void ReplaySession::showRecordsUntil(Clock::time_point deadline)
{
    for (;;) {
        checkAlive("while the replay ran");
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        Sandbox::SyslogRecord record;
        const bool got = sandbox->syslog().next(
            record,
            static_cast<int>(std::max<long long>(0, std::min<long long>(left.count(), 100))));
        showRecords();
        if ((!got && Clock::now() >= deadline) || stopping()) {
            return;
        }
    }
}

void ReplaySession::settle()
{
    // Events are handled in order: once the marker's record shows, all before it were.
    const std::string marker = markerPrefix + std::to_string(++markers);
    sandbox->inject(Sandbox::Uevent::usbDevice("add", "/devices/replay/usb9", marker));
    const auto deadline = Clock::now() + handlingDeadline;
    while (!sandbox->syslog().waitFor(
        [&marker](const Sandbox::SyslogRecord& record) {
            return record.text.find(marker) != std::string::npos;
        },
        100)) {
        if (stopping()) {
            return;
        }
        checkAlive("before it had handled every datagram");
        showRecords();
        if (Clock::now() > deadline) {
            throw std::runtime_error("the daemon did not handle the datagrams within 60 s");
        }
    }
    showRecords();
}

std::vector<std::string> ReplaySession::state() const
{
    return DeviceState::list(*sandbox);
}

int ReplaySession::stop()
{
    if (sandbox->pid() < 0) {
        return -1;
    }
    sandbox->signal(SIGTERM);
    const int status = sandbox->waitExit(startDeadlineMs);
    sandbox->syslog().drain(100);
    showRecords();
    return status;
}

} // namespace Replay
