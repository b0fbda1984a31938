// Reading the socket dry: datagrams of any length, an empty one among them,
// each decoded whole. A datagram socket pair stands in for the netlink socket,
// as the kernel refuses to send an empty netlink datagram from user space.
#include "common/exceptions/RavoException.h"
#include "daemon/HotplugNetlink.h"
#include "tests/support/HotplugTestAccess.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

namespace {

class SocketPair {
public:
    SocketPair() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends), 0); }
    ~SocketPair()
    {
        close(ends[0]);
        close(ends[1]);
    }
    void send(const std::string& datagram) const
    {
        ASSERT_EQ(::send(ends[0], datagram.data(), datagram.size(), 0),
                  static_cast<ssize_t>(datagram.size()));
    }
    int readEnd() const { return ends[1]; }

private:
    int ends[2] = {-1, -1};
};

std::string ttyAdd(const std::string& name, size_t padding = 0)
{
    return "ACTION=add" + std::string(1, '\0') + "DEVPATH=/d/" + std::string(padding, 'x') +
           std::string(1, '\0') + "SUBSYSTEM=tty" + std::string(1, '\0') + "DEVNAME=" + name;
}

TEST(KernelEventReader, DrainsEveryDatagramWhateverItsLength)
{
    HotplugNetlink listener;
    SocketPair pair;
    pair.send(ttyAdd("ttyUSB0"));
    pair.send(std::string()); // must be consumed, or poll would report it forever
    pair.send(ttyAdd("ttyUSB1", 100000));
    pair.send(ttyAdd("ttyUSB2"));
    HotplugNetlinkTestAccess::readKernelEventFrom(listener, pair.readEnd());

    char scratch = 0;
    EXPECT_EQ(recv(pair.readEnd(), &scratch, 1, MSG_DONTWAIT), -1); // drained
    const auto events = HotplugHandlerThreadTestAccess::takeQueued(
        HotplugNetlinkTestAccess::handlerThread(listener));
    ASSERT_EQ(events.size(), 3U);
    EXPECT_EQ(events[0]->deviceName, "ttyUSB0");
    EXPECT_EQ(events[1]->devPath, "/d/" + std::string(100000, 'x'));
    EXPECT_EQ(events[2]->deviceName, "ttyUSB2");
}

TEST(KernelEventReader, AFailingSocketEndsTheReadWithTheRecvException)
{
    HotplugNetlink listener;
    try {
        HotplugNetlinkTestAccess::readKernelEventFrom(listener, 9999); // not open: EBADF
        FAIL() << "no exception";
    } catch (const Common::Exceptions::RavoException& exception) {
        EXPECT_STREQ(exception.what(),
                     "HotplugNetlink::readKernelEvent(): The call to non-blocking "
                     "recv() returns the error: 9 (Bad file descriptor)");
    }
}

} // namespace
