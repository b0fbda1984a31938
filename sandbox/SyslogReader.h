// A stand-in for the system logger: a datagram socket bound at a path (the
// /dev/log of a sandbox or of a private mount namespace) that hands out the
// records it receives, one at a time, with a deadline. A record that was sent
// before next() is called is always there, also with a time-out of 0.
// For another process's records (a sandboxed daemon) it can empty the socket
// from a thread of its own, as a real syslog daemon does: the kernel queues
// only a few datagrams, and a program that logs more than that while nobody
// reads would block inside syslog().
#pragma once

#include "sandbox/SyslogRecord.h"
#include "sandbox/UniqueFd.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace Sandbox {

class SyslogReader {
public:
    enum class Collection {
        OnDemand,   // read only inside next(): no thread
        Background, // a thread reads at once; next() hands out what it has
    };

    // Binds the socket; throws std::runtime_error on failure.
    explicit SyslogReader(const std::string& socketPath,
                          Collection collection = Collection::OnDemand);
    ~SyslogReader();
    SyslogReader(const SyslogReader&) = delete;
    SyslogReader& operator=(const SyslogReader&) = delete;

    // The next record, waiting at most timeoutMs; false when none came.
    bool next(SyslogRecord& record, int timeoutMs);

    // Reads records until one satisfies the predicate or the deadline passes;
    // every record read on the way (the match included) is kept in history().
    bool waitFor(const std::function<bool(const SyslogRecord&)>& match, int timeoutMs,
                 SyslogRecord* found = nullptr);
    // Shorthand: a record whose text equals the given one.
    bool waitForText(const std::string& text, int timeoutMs);

    // Everything read so far, in arrival order, as "text" lines.
    const std::vector<SyslogRecord>& history() const { return records; }
    std::vector<std::string> texts() const;
    // Reads whatever arrives within quietMs and adds it to history().
    void drain(int quietMs);

    const std::string& path() const { return socketPath; }

private:
    std::string socketPath;
    UniqueFd socketFd;
    UniqueFd stopFd; // eventfd that ends the collector thread
    std::vector<SyslogRecord> records;

    // Shared with the collector thread; the socket is read only under the
    // mutex, so records keep their order whoever reads them.
    std::mutex mutex;
    std::condition_variable arrival;
    std::deque<SyslogRecord> arrived;
    std::string failure;

    std::thread collector;

    void collect();
    void receivePending(); // with the mutex held
    bool waitForSocket(std::unique_lock<std::mutex>& lock,
                       std::chrono::steady_clock::time_point deadline);
};

} // namespace Sandbox
