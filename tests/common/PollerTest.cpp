#include "common/polling/Poller.h"
#include "tests/common/CommonTestHelpers.h"

#include <chrono>

using Common::Polling::Poller;

namespace {

struct Recorder : Common::Polling::IFdHandle {
    std::vector<int> calls;
    std::function<void()> then = [] {};
    void handleEvent(int fd, short revents) override
    {
        EXPECT_EQ(revents, POLLIN);
        calls.push_back(fd);
        then();
    }
};

// The poller logs every registration, so its tests empty the private /dev/log.
class PollerTest : public SyslogTest {
protected:
    Recorder plain;
    Poller poller;
};

TEST_F(PollerTest, AFreshOrEmptiedPollerThrows)
{
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(failure([this] { poller.pollEvents(0); }).first,
                  "Poller::pollEvents(): No valid file descriptor available to poll!");
        poller.registerDescriptor(7, POLLIN, nullptr);
        poller.registerDescriptor(7, POLLOUT, nullptr);
        poller.unregisterDescriptor(7);
    }
}

TEST_F(PollerTest, ReadyDescriptorsGoToTheirHandlersInRegistrationOrder)
{
    Pipe first, second, idle, unhandled;
    // The later pipe has the higher number: registration order, not number order, counts.
    poller.registerDescriptor(second.fd(), POLLIN, &plain);
    poller.registerDescriptor(idle.fd(), POLLIN, &plain);
    poller.registerDescriptor(unhandled.fd(), POLLIN, nullptr);
    poller.registerDescriptor(first.fd(), POLLIN, &plain);
    EXPECT_FALSE(poller.pollEvents(10));
    first.fill(), second.fill(), unhandled.fill();
    EXPECT_TRUE(poller.pollEvents(1000));
    EXPECT_EQ(plain.calls, (std::vector<int>{second.fd(), first.fd()}));

    // Registering again replaces the events (a read end never reports POLLOUT) and the handler.
    Recorder other;
    poller.registerDescriptor(second.fd(), POLLOUT, &other);
    poller.registerDescriptor(first.fd(), POLLIN, &other);
    EXPECT_TRUE(poller.pollEvents(1000));
    EXPECT_EQ(other.calls, std::vector<int>{first.fd()});
    EXPECT_EQ(plain.calls.size(), 2u);
}

TEST_F(PollerTest, HandlersMayChangeRegistrationsDuringTheWalk)
{
    Pipe first, second, third;
    Recorder changer;
    changer.then = [&] {
        poller.unregisterDescriptor(second.fd());
        poller.registerDescriptor(third.fd(), POLLIN, &plain);
    };
    poller.registerDescriptor(first.fd(), POLLIN, &changer);
    poller.registerDescriptor(second.fd(), POLLIN, &plain);
    first.fill(), second.fill(), third.fill();
    EXPECT_TRUE(poller.pollEvents(1000));
    EXPECT_TRUE(plain.calls.empty()) << "neither the unregistered nor the newly registered one";
    poller.registerDescriptor(first.fd(), POLLIN, &plain);
    EXPECT_TRUE(poller.pollEvents(1000));
    EXPECT_EQ(plain.calls, (std::vector<int>{first.fd(), third.fd()}));
}

TEST_F(PollerTest, AnInterruptedWaitReturnsFalseAtOnce)
{
    Pipe idle;
    poller.registerDescriptor(idle.fd(), POLLIN, &plain);
    const Ticker ticker([](int) {});
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(poller.pollEvents(5000));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
}

} // namespace
