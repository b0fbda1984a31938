// The daemon's main-thread side: the kernel uevent socket and a signalfd for
// SIGTERM/SIGINT under one poller, the decoder that turns datagrams into
// hotplug events, and the handler thread it starts, watches and stops.
#pragma once

#include "common/container/ByteArray.h"
#include "common/logging/Logger.h"
#include "common/polling/IFdHandle.h"
#include "common/polling/Poller.h"
#include "handler/HotplugHandlerThread.h"

#include <cstddef>

class HotplugNetlink : public Common::Polling::IFdHandle {
public:
    HotplugNetlink();
    ~HotplugNetlink() override;
    HotplugNetlink(const HotplugNetlink&) = delete;
    HotplugNetlink& operator=(const HotplugNetlink&) = delete;

    // Sets up, runs the main loop until a termination signal or a failure, and
    // shuts down. Failures are logged, never passed on (but for foreign ones).
    void run();

    void handleEvent(int fd, short revents) override;

private:
    // Queues the event one datagram stands for, if any, for the handler thread.
    void parseKernelEvent(char* buffer, size_t length);
    void initSignals();
    void initNetlinkSocket();
    HotplugHandlerThread::Scheduling chooseScheduling();
    void letEventsGather() const;
    void readKernelEvent();
    void shutdown();

    int netlinkSocket;
    int signalFd;
    bool terminate;
    bool receivedSinceLastPoll = false;
    Common::Container::ByteArray receiveBuffer;
    Common::Polling::Poller poller;
    HotplugHandlerThread handlerThread;
    Common::Logging::Logger logger;
};
