// A stand-in for the system logger: a datagram socket bound at a path (the
// /dev/log of a sandbox or of a private mount namespace) that hands out the
// records it receives, one at a time, with a deadline.
#pragma once

#include "sandbox/SyslogRecord.h"

#include <functional>
#include <string>
#include <vector>

namespace Sandbox {

class SyslogReader {
public:
    // Binds the socket; throws std::runtime_error on failure.
    explicit SyslogReader(const std::string& socketPath);
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
    int socketFd = -1;
    std::vector<SyslogRecord> records;
};

} // namespace Sandbox
