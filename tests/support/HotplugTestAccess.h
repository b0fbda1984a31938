// Test access to the parts of the listener and the handler thread that only
// their own threads touch: the queue between them and the handler thread that
// the listener holds.
#pragma once

#include "daemon/HotplugNetlink.h"
#include "handler/HotplugHandlerThread.h"

#include <memory>
#include <vector>

class HotplugHandlerThreadTestAccess {
public:
    // Takes every queued event off the queue without handling it.
    static std::vector<std::unique_ptr<HotplugEvent>> takeQueued(HotplugHandlerThread& thread)
    {
        std::vector<std::unique_ptr<HotplugEvent>> events;
        for (auto& event : thread.eventQueue) {
            events.push_back(std::move(event));
        }
        thread.eventQueue.clear();
        return events;
    }

    // True when a wake-up is pending, consuming it.
    static bool takeWakeUp(HotplugHandlerThread& thread) { return thread.eventSemaphore.lock(0); }
};

class HotplugNetlinkTestAccess {
public:
    static HotplugHandlerThread& handlerThread(HotplugNetlink& listener)
    {
        return listener.handlerThread;
    }

    // Drains the given socket as if it were the uevent socket.
    static void readKernelEventFrom(HotplugNetlink& listener, int fd)
    {
        listener.netlinkSocket = fd;
        try {
            listener.readKernelEvent();
        } catch (...) {
            listener.netlinkSocket = -1;
            throw;
        }
        listener.netlinkSocket = -1;
    }
};
