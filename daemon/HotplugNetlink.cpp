#include "daemon/HotplugNetlink.h"

#include "common/exceptions/RavoException.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <exception>
#include <linux/netlink.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

using Common::Exceptions::RavoException;

namespace {
constexpr int pollTimeoutMs = 5000;
constexpr uint32_t ueventGroup = 1;
} // namespace

HotplugNetlink::HotplugNetlink()
    : netlinkSocket(-1), signalFd(-1), terminate(false), receiveBuffer(), poller(), handlerThread(),
      logger("HotplugNetlink")
{
}

HotplugNetlink::~HotplugNetlink()
{
    shutdown();
}

void HotplugNetlink::run()
{
    try {
        initSignals();
        initNetlinkSocket();
        handlerThread.setScheduling(chooseScheduling());
        handlerThread.start(nullptr);
        while (!terminate) {
            if (receivedSinceLastPoll) {
                receivedSinceLastPoll = false;
                letEventsGather();
            }
            poller.pollEvents(pollTimeoutMs);
            if (!handlerThread.isRunning()) {
                throw RavoException("HotplugNetlink", "run",
                                    "Handler thread terminated unexpectedly");
            }
        }
    } catch (const RavoException& exception) {
        logger.error() << exception << std::endl;
    } catch (const std::exception& exception) {
        logger.error() << exception.what() << std::endl;
    }
    shutdown();
    logger.debug() << "Process terminated" << std::endl;
}

// Scheduling of both threads is decided here, before the handler thread
// starts. The socket's receive buffer holds little more than a millisecond of
// a burst at the kernel's pace, and enlarging it is not ours to do: the
// listener must run the moment datagrams arrive, whatever else competes for the
// CPU (the handler, syslogd). The lowest real-time priority does that; the
// listener only drains the socket into the queue, so it cannot starve anyone.
// A daemon started with other scheduling (chrt, systemd's CPUScheduling*=,
// nice) keeps it: the integrator chose. Without the privilege the listener
// stays an ordinary thread and the handler thread lowers its own priority
// instead, which makes a loss in a burst unlikely but not impossible: logged,
// not fatal.
HotplugHandlerThread::Scheduling HotplugNetlink::chooseScheduling()
{
    int policy = SCHED_OTHER;
    sched_param parameters{};
    if (pthread_getschedparam(pthread_self(), &policy, &parameters) != 0 || policy != SCHED_OTHER) {
        return HotplugHandlerThread::Scheduling::AsInherited;
    }
    errno = 0;
    const int nice = getpriority(PRIO_PROCESS, 0);
    if (nice != 0 || errno != 0) {
        return HotplugHandlerThread::Scheduling::AsInherited;
    }
    parameters.sched_priority = sched_get_priority_min(SCHED_RR);
    const int error = pthread_setschedparam(pthread_self(), SCHED_RR, &parameters);
    if (error != 0) {
        logger.warn() << "Unable to give the listener a real-time priority: "
                      << std::strerror(error)
                      << ". Grant the service CAP_SYS_NICE and, on kernels with "
                         "CONFIG_RT_GROUP_SCHED, a real-time budget (cpu.rt_runtime_us); the "
                         "handler thread runs at nice 10 instead"
                      << std::endl;
        return HotplugHandlerThread::Scheduling::BelowListener;
    }
    // The handler thread inherits the real-time policy and gives it up.
    return HotplugHandlerThread::Scheduling::Ordinary;
}

// At real-time priority the listener would otherwise take the CPU from the
// sender of a burst (the kernel's emitting thread) for every single datagram,
// two context switches each. Pausing briefly after a read lets a burst gather
// in the socket and go in one drain; the first event after a quiet spell is
// still read at once. At the kernel's pace (about 100,000 events a second) a
// pause gathers some 20 of the 166 datagrams the buffer holds.
void HotplugNetlink::letEventsGather() const
{
    constexpr long pauseNs = 200000;
    const timespec pause{0, pauseNs};
    // Signals come through the signalfd only, so nothing interrupts the pause;
    // were it cut short, the next poll would simply come sooner.
    static_cast<void>(clock_nanosleep(CLOCK_MONOTONIC, 0, &pause, nullptr));
}

void HotplugNetlink::initSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    // Blocked before the handler thread exists, so it inherits the mask and the
    // signals arrive only through the signalfd.
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    signalFd = signalfd(-1, &signals, 0);
    if (signalFd == -1) {
        const int error = errno;
        throw RavoException("HotplugNetlink", "initSignals", "signalfd", error);
    }
    poller.registerDescriptor(signalFd, POLLIN, this);
}

void HotplugNetlink::initNetlinkSocket()
{
    netlinkSocket = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT);
    if (netlinkSocket == -1) {
        const int error = errno;
        throw RavoException("HotplugNetlink", "initSignals", "socket", error);
    }
    poller.registerDescriptor(netlinkSocket, POLLIN, this);

    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_pad = 0;
    address.nl_pid = static_cast<uint32_t>(getpid());
    address.nl_groups = ueventGroup;
    if (bind(netlinkSocket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == -1) {
        const int error = errno;
        throw RavoException("HotplugNetlink", "initSignals", "bind", error);
    }
}

void HotplugNetlink::handleEvent(int fd, short revents)
{
    if (fd == signalFd && revents == POLLIN) {
        terminate = true;
    } else if (fd == netlinkSocket && (revents == POLLIN || (revents & POLLERR) != 0)) {
        // An error condition (a receive-buffer overrun) stays pending until the
        // socket is read: reading it lets the failure surface from recv instead
        // of poll reporting the same readiness again and again.
        readKernelEvent();
    }
}

void HotplugNetlink::readKernelEvent()
{
    for (;;) {
        char scratch = 0;
        const ssize_t peeked =
            recv(netlinkSocket, &scratch, 1, MSG_PEEK | MSG_TRUNC | MSG_DONTWAIT);
        if (peeked == 0) {
            // An empty datagram: consume it, or poll would report it forever.
            static_cast<void>(recv(netlinkSocket, &scratch, 1, MSG_DONTWAIT));
            continue;
        }
        if (peeked < 0) {
            const int error = errno;
            if (error == EAGAIN) {
                return;
            }
            throw RavoException("HotplugNetlink", "readKernelEvent", "non-blocking recv", error);
        }
        const auto length = static_cast<uint32_t>(peeked);
        if (receiveBuffer.size() <= length) {
            receiveBuffer.resize(length + 1);
            if (receiveBuffer.data() == nullptr) {
                throw RavoException("HotplugNetlink", "readKernelEvent", "Out of memory");
            }
        }
        const ssize_t received = recv(netlinkSocket, receiveBuffer.data(), length, 0);
        if (received < 0) {
            const int error = errno;
            throw RavoException("HotplugNetlink", "readKernelEvent", "recv", error);
        }
        receivedSinceLastPoll = true;
        char* text = reinterpret_cast<char*>(receiveBuffer.data());
        text[received] = '\0';
        parseKernelEvent(text, static_cast<size_t>(received));
    }
}

void HotplugNetlink::shutdown()
{
    if (netlinkSocket != -1) {
        poller.unregisterDescriptor(netlinkSocket);
        close(netlinkSocket);
        netlinkSocket = -1;
    }
    handlerThread.stop();
    handlerThread.join();
    if (signalFd != -1) {
        poller.unregisterDescriptor(signalFd);
        close(signalFd);
        signalFd = -1;
    }
}
