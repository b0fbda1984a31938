// Shared by the tests of the common library: records read back from the
// private /dev/log, pipes, a ticking SIGALRM and the text of a failure.
#pragma once

#include "common/exceptions/RavoException.h"
#include "tests/support/PrivateDevLog.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <sys/time.h>
#include <unistd.h>

class SyslogTest : public ::testing::Test {
protected:
    // The kernel queues only a few datagrams: leftovers would block syslog().
    void SetUp() override { sent(); }
    // syslog() has queued its datagram when it returns: no waiting needed.
    static std::vector<Sandbox::SyslogRecord> sent()
    {
        std::vector<Sandbox::SyslogRecord> records;
        for (Sandbox::SyslogRecord record; TestSupport::PrivateDevLog::reader().next(record, 0);) {
            records.push_back(record);
        }
        return records;
    }
};

struct Pipe {
    int fds[2] = {-1, -1};
    explicit Pipe(int flags = 0) { EXPECT_EQ(pipe2(fds, O_CLOEXEC | flags), 0); }
    ~Pipe() { close(fds[0]), close(fds[1]); }
    int fd() const { return fds[0]; }
    void fill() const { EXPECT_EQ(write(fds[1], "x", 1), 1); }
    // BinaryFile opens paths only; this one opens the same pipe again.
    std::string path(int end) const { return "/proc/self/fd/" + std::to_string(fds[end]); }
};

// SIGALRM every 5 ms without SA_RESTART: each tick ends a blocked call with
// EINTR, and what the handler moves makes the next transfer a short one.
struct Ticker {
    struct sigaction previous {};
    explicit Ticker(void (*onTick)(int))
    {
        struct sigaction action {};
        action.sa_handler = onTick;
        sigaction(SIGALRM, &action, &previous);
        const itimerval every5ms{{0, 5000}, {0, 5000}};
        setitimer(ITIMER_REAL, &every5ms, nullptr);
    }
    ~Ticker()
    {
        const itimerval stop{};
        setitimer(ITIMER_REAL, &stop, nullptr);
        sigaction(SIGALRM, &previous, nullptr);
    }
};

// Letters that change with the position, so a misplaced piece shows.
inline std::string pattern(size_t length)
{
    std::string text;
    for (size_t i = 0; i < length; ++i) {
        text += static_cast<char>('a' + i % 26);
    }
    return text;
}

// The message and error number of the RavoException the action throws.
inline std::pair<std::string, int> failure(const std::function<void()>& action)
{
    try {
        action();
    } catch (const Common::Exceptions::RavoException& error) {
        return {error.what(), error.errorNumber()};
    }
    return {"no exception", 0};
}
