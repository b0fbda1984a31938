// poll()-based demultiplexer for the main loop: waits for the registered
// descriptors and calls their handlers in registration order. Not thread-safe;
// handlers run on the thread that calls pollEvents().
#pragma once

#include "common/logging/Logger.h"
#include "common/polling/IPoller.h"

#include <map>
#include <poll.h>
#include <vector>

namespace Common {
namespace Polling {

class Poller : public IPoller {
public:
    Poller();
    ~Poller() override = default;

    Poller(const Poller&) = delete;
    Poller& operator=(const Poller&) = delete;

    void registerDescriptor(int fd, short events, IFdHandle* handler) override;
    void unregisterDescriptor(int fd) override;

    // Waits at most timeoutMs (negative: without limit). True when ready
    // descriptors were dispatched; false on time-out or a signal. Throws
    // RavoException when nothing is registered or poll() fails; a handler's
    // exception passes through and ends the dispatch.
    bool pollEvents(int timeoutMs);

private:
    std::map<int, IFdHandle*> handlers;
    // Handed to poll() as it is, in order of first registration.
    std::vector<pollfd> pollList;
    Logging::Logger logger;
};

} // namespace Polling
} // namespace Common
