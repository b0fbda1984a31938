#include "common/polling/Poller.h"

#include "common/exceptions/RavoException.h"

#include <algorithm>
#include <cerrno>

namespace Common {
namespace Polling {

Poller::Poller() : handlers(), pollList(), logger("Poller") {}

void Poller::registerDescriptor(int fd, short events, IFdHandle* handler)
{
    logger.debug() << "Register descriptor: " << fd << std::endl;
    const auto entry = std::find_if(pollList.begin(), pollList.end(),
                                    [fd](const pollfd& item) { return item.fd == fd; });
    if (entry != pollList.end()) {
        entry->events = events;
    } else {
        pollList.push_back(pollfd{fd, events, 0});
    }
    handlers[fd] = handler;
}

void Poller::unregisterDescriptor(int fd)
{
    logger.debug() << "Unregister descriptor: " << fd << std::endl;
    pollList.erase(std::remove_if(pollList.begin(), pollList.end(),
                                  [fd](const pollfd& item) { return item.fd == fd; }),
                   pollList.end());
    handlers.erase(fd);
}

bool Poller::pollEvents(int timeoutMs)
{
    if (pollList.empty()) {
        throw Exceptions::RavoException("Poller", "pollEvents",
                                        "No valid file descriptor available to poll!");
    }
    const int ready = poll(pollList.data(), static_cast<nfds_t>(pollList.size()), timeoutMs);
    if (ready == 0) {
        return false;
    }
    if (ready == -1) {
        const int error = errno;
        if (error == EINTR) {
            return false;
        }
        throw Exceptions::RavoException("Poller", "poll", "poll", error);
    }

    // Handlers may register and unregister while we walk, so walk a copy; a
    // descriptor unregistered on the way is skipped because its handler is gone.
    const std::vector<pollfd> readyList(pollList);
    for (const pollfd& entry : readyList) {
        if (entry.revents == 0) {
            continue;
        }
        const auto handler = handlers.find(entry.fd);
        if (handler != handlers.end() && handler->second != nullptr) {
            handler->second->handleEvent(entry.fd, entry.revents);
        }
    }
    return true;
}

} // namespace Polling
} // namespace Common
