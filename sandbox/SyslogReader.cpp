#include "sandbox/SyslogReader.h"

#include "sandbox/SystemError.h"

#include <algorithm>
#include <cstdint>
#include <exception>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace Sandbox {

namespace {

int millisecondsUntil(std::chrono::steady_clock::time_point deadline)
{
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

} // namespace

SyslogReader::SyslogReader(const std::string& path, Collection collection) : socketPath(path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        throw std::runtime_error("SyslogReader: socket path too long: " + path);
    }
    path.copy(address.sun_path, path.size());
    socketFd.reset(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socketFd.valid()) {
        throw systemError("SyslogReader: socket(AF_UNIX)");
    }
    unlink(path.c_str());
    if (bind(socketFd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        throw systemError("SyslogReader: bind " + path);
    }
    // Bursts of records must not be dropped while nobody reads.
    int size = 8 * 1024 * 1024;
    if (setsockopt(socketFd.get(), SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof(size)) != 0) {
        const int error = errno;
        unlink(path.c_str());
        throw systemError("SyslogReader: setsockopt(SO_RCVBUFFORCE) on " + path, error);
    }
    if (collection == Collection::Background) {
        stopFd.reset(eventfd(0, EFD_CLOEXEC));
        if (!stopFd.valid()) {
            const int error = errno;
            unlink(path.c_str());
            throw systemError("SyslogReader: eventfd", error);
        }
        collector = std::thread(&SyslogReader::collect, this);
    }
}

SyslogReader::~SyslogReader()
{
    if (collector.joinable()) {
        const uint64_t one = 1;
        if (write(stopFd.get(), &one, sizeof(one)) != sizeof(one)) {
            // Without the wake-up the join below would hang for ever.
            std::terminate();
        }
        collector.join();
    }
    unlink(socketPath.c_str());
}

void SyslogReader::receivePending()
{
    char buffer[65536];
    for (;;) {
        const ssize_t length = recv(socketFd.get(), buffer, sizeof(buffer), MSG_DONTWAIT);
        if (length < 0) {
            if (errno == EINTR) {
                continue;
            }
            if (errno != EAGAIN && failure.empty()) {
                failure = systemError("SyslogReader: recv on " + socketPath).what();
            }
            return;
        }
        SyslogRecord record;
        if (SyslogRecord::parse(std::string(buffer, static_cast<size_t>(length)), record)) {
            arrived.push_back(record);
        }
    }
}

void SyslogReader::collect()
{
    for (;;) {
        pollfd entries[] = {{socketFd.get(), POLLIN, 0}, {stopFd.get(), POLLIN, 0}};
        const int ready = poll(entries, 2, -1);
        const int error = errno;
        std::lock_guard<std::mutex> lock(mutex);
        if (ready < 0 && error != EINTR) {
            failure = systemError("SyslogReader: poll on " + socketPath, error).what();
        } else if (entries[1].revents == 0) {
            receivePending();
        }
        arrival.notify_all();
        if (!failure.empty() || entries[1].revents != 0) {
            return;
        }
    }
}

bool SyslogReader::waitForSocket(std::unique_lock<std::mutex>& lock,
                                 std::chrono::steady_clock::time_point deadline)
{
    if (collector.joinable()) {
        return arrival.wait_until(lock, deadline) != std::cv_status::timeout;
    }
    pollfd entry{socketFd.get(), POLLIN, 0};
    const int ready = poll(&entry, 1, millisecondsUntil(deadline));
    if (ready < 0 && errno != EINTR) {
        throw systemError("SyslogReader: poll on " + socketPath);
    }
    return ready != 0;
}

bool SyslogReader::next(SyslogRecord& record, int timeoutMs)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
        // What is already queued counts even when the collector has not seen it yet.
        receivePending();
        if (!arrived.empty()) {
            record = arrived.front();
            arrived.pop_front();
            records.push_back(record);
            return true;
        }
        if (!failure.empty()) {
            throw std::runtime_error(failure);
        }
        if (!waitForSocket(lock, deadline) && std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
    }
}

bool SyslogReader::waitFor(const std::function<bool(const SyslogRecord&)>& match, int timeoutMs,
                           SyslogRecord* found)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    SyslogRecord record;
    for (;;) {
        if (!next(record, millisecondsUntil(deadline))) {
            return false;
        }
        if (match(record)) {
            if (found != nullptr) {
                *found = record;
            }
            return true;
        }
    }
}

bool SyslogReader::waitForText(const std::string& text, int timeoutMs)
{
    return waitFor([&text](const SyslogRecord& r) { return r.text == text; }, timeoutMs);
}

std::vector<std::string> SyslogReader::texts() const
{
    std::vector<std::string> result(records.size());
    std::transform(records.begin(), records.end(), result.begin(),
                   [](const SyslogRecord& record) { return record.text; });
    return result;
}

void SyslogReader::drain(int quietMs)
{
    SyslogRecord record;
    while (next(record, quietMs)) {
    }
}

} // namespace Sandbox
