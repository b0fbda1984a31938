// Plays a capture back against the real daemon binary in the sandbox: the
// captured sysfs, a block device for every partition, the hub-and-port and
// cascade directories; then the datagrams with their original spacing (no
// gap longer than 10 s) or, fast, each once the daemon has taken the one
// before. Prints what it sends and the daemon's records as they arrive.
// Judging the outcome is the caller's.
#pragma once

#include "capture/CaptureRecord.h"
#include "replay/CapturedSysfs.h"
#include "replay/ImageLoop.h"
#include "replay/ReplayPlan.h"
#include "sandbox/LoopDisk.h"
#include "sandbox/SimulatedDevice.h"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace Replay {

class ReplaySession {
public:
    struct Settings {
        std::string daemonPath;
        bool fast = false;
        std::map<std::string, std::string> images;    // partition name -> image file
        std::map<std::string, std::string> addresses; // interface name -> MAC text
        std::FILE* out = stdout;                      // nullptr: silent
        // Set by a signal handler: every wait ends early and nothing more is sent.
        const volatile std::sig_atomic_t* stopSignal = nullptr;
    };

    // Builds the sandbox; throws std::runtime_error naming the step that failed.
    ReplaySession(std::vector<Capture::CaptureRecord> captured, Settings chosen);
    ~ReplaySession();
    ReplaySession(const ReplaySession&) = delete;
    ReplaySession& operator=(const ReplaySession&) = delete;

    const ReplayPlan& plan() const { return replayPlan; }
    // Starts the daemon and waits until it listens; throws when it does not.
    void start();
    // Lays down the records up to the next datagram, waits its turn and sends
    // it; false once every datagram was sent or a stop was asked for. Throws
    // when the daemon ended.
    bool sendNext();
    size_t sentDatagrams() const { return sent; }
    // Waits until the daemon has handled everything sent so far.
    void settle();
    std::vector<std::string> state() const;
    // Prints the state under "# state HEADING:".
    void showState(const std::string& heading) const;
    // SIGTERM, as an operator would; the daemon's exit status, -1 when it never started.
    int stop();
    Sandbox::SimulatedDevice& device() { return *sandbox; }

private:
    using Clock = std::chrono::steady_clock;

    std::vector<Capture::CaptureRecord> records;
    Settings settings;
    ReplayPlan replayPlan;
    // Declared before the sandbox: it must unmount them before they go.
    std::vector<std::unique_ptr<Sandbox::LoopDisk>> disks;
    std::vector<std::unique_ptr<ImageLoop>> images;
    std::unique_ptr<Sandbox::SimulatedDevice> sandbox;
    std::unique_ptr<CapturedSysfs> sysfs;
    size_t next = 0;
    size_t sent = 0;
    size_t shownRecords = 0;
    int markers = 0;
    uint64_t lastTimeUs = 0;   // the stamp of the datagram sent last
    Clock::time_point lastDue; // when it was due

    void say(const std::string& line) const;
    void layDown(const Capture::CaptureRecord& record);
    void layDownTheEnd();
    void send(const Capture::CaptureRecord& datagram);
    void showRecords();
    // Shows the daemon's records until the deadline; throws when it ended.
    void showRecordsUntil(Clock::time_point deadline);
    void waitForTurn(const Capture::CaptureRecord& datagram);
    bool socketDrained() const;
    void checkAlive(const std::string& when);
    bool stopping() const { return settings.stopSignal != nullptr && *settings.stopSignal != 0; }
};

} // namespace Replay
