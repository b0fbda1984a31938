#include "daemon/HotplugNetlink.h"

#include "common/exceptions/RavoException.h"
#include "daemon/DatagramDrain.h"
#include "daemon/UeventDecoder.h"

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

// The pause after a read (letEventsGather) is a build constant so that the
// benchmark can measure the daemon without it.
#ifndef DHH_LISTENER_PAUSE_US
#define DHH_LISTENER_PAUSE_US 200
#endif

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

// Both threads' scheduling, decided before the handler thread starts. The
// socket's receive buffer holds only a moment of a burst (docs/performance.md),
// so the listener, which only drains it into the queue, takes the lowest
// real-time priority. Scheduling the integrator chose (chrt, nice, systemd's
// CPUScheduling*=) is kept. Without the privilege the handler thread lowers
// its own priority instead: a loss becomes unlikely, and is logged, not fatal.
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
// in the socket and go in one drain, far fewer than the buffer holds; the
// first event after a quiet spell is still read at once. docs/performance.md
// has the figures with and without the pause.
void HotplugNetlink::letEventsGather() const
{
    constexpr long pauseNs = DHH_LISTENER_PAUSE_US * 1000L;
    if (pauseNs == 0) {
        return;
    }
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

// Its failures carry the method name "initSignals" on purpose: the listener's
// whole set-up reports under that one name.
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
    const auto decode = [this](char* datagram, size_t length) {
        parseKernelEvent(datagram, length);
    };
    if (drainDatagrams(netlinkSocket, receiveBuffer, decode) > 0) {
        receivedSinceLastPoll = true;
    }
}

void HotplugNetlink::parseKernelEvent(char* buffer, size_t length)
{
    if (auto event = decodeUevent(buffer, length)) {
        handlerThread.pushEvent(event.release());
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
