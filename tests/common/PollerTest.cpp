#include "common/exceptions/RavoException.h"
#include "common/polling/Poller.h"
#include "tests/common/SyslogTest.h"

#include <fcntl.h>
#include <functional>
#include <syslog.h>
#include <unistd.h>

using Common::Polling::Poller;

namespace {

struct Pipe {
    int fds[2] = {-1, -1};
    Pipe() { EXPECT_EQ(pipe2(fds, O_CLOEXEC), 0); }
    ~Pipe() { close(fds[0]), close(fds[1]); }
    int fd() const { return fds[0]; }
    void fill() const { EXPECT_EQ(write(fds[1], "x", 1), 1); }
};

struct Handler : Common::Polling::IFdHandle {
    std::vector<int>& calls;
    std::function<void()> then;
    Handler(std::vector<int>& callList, std::function<void()> action)
        : calls(callList), then(std::move(action))
    {
    }
    void handleEvent(int fd, short revents) override
    {
        EXPECT_EQ(revents, POLLIN);
        calls.push_back(fd);
        if (then) {
            then();
        }
    }
};

// The poller logs every registration, so its tests need the private /dev/log.
class PollerTest : public SyslogTest {
protected:
    std::vector<int> calls;
    Handler plain{calls, {}};
    Poller poller;
};

TEST_F(PollerTest, RegistrationsAreLoggedAndAnEmptyPollerThrows)
{
    const auto expectEmpty = [this] {
        try {
            poller.pollEvents(0);
            ADD_FAILURE() << "no exception";
        } catch (const Common::Exceptions::RavoException& error) {
            EXPECT_STREQ(error.what(), "Poller::pollEvents(): No valid file descriptor available to poll!");
        }
    };
    expectEmpty();
    poller.registerDescriptor(7, POLLIN, nullptr);
    poller.registerDescriptor(7, POLLIN, nullptr);
    poller.unregisterDescriptor(7);
    poller.unregisterDescriptor(9999);
    expectEmpty();
    std::vector<std::string> texts;
    for (const auto& record : sent()) {
        EXPECT_EQ(record.priority, LOG_USER | LOG_DEBUG);
        texts.push_back(record.text);
    }
    EXPECT_EQ(texts, (std::vector<std::string>{"[Debug] Poller: Register descriptor: 7",
                                               "[Debug] Poller: Register descriptor: 7",
                                               "[Debug] Poller: Unregister descriptor: 7",
                                               "[Debug] Poller: Unregister descriptor: 9999"}));
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
    EXPECT_EQ(calls, (std::vector<int>{second.fd(), first.fd()}));
}

TEST_F(PollerTest, RegisteringAgainReplacesEventsAndHandler)
{
    Pipe pipe;
    std::vector<int> oldCalls;
    Handler oldHandler{oldCalls, {}};
    pipe.fill();
    poller.registerDescriptor(pipe.fd(), POLLIN, &oldHandler);
    // A read end never reports POLLOUT: with the events replaced nothing is ready.
    poller.registerDescriptor(pipe.fd(), POLLOUT, &plain);
    EXPECT_FALSE(poller.pollEvents(10));
    poller.registerDescriptor(pipe.fd(), POLLIN, &plain);
    EXPECT_TRUE(poller.pollEvents(1000));
    EXPECT_EQ(calls, std::vector<int>{pipe.fd()});
    EXPECT_TRUE(oldCalls.empty());
}

TEST_F(PollerTest, HandlersMayChangeRegistrationsDuringTheWalk)
{
    Pipe first, second, third;
    Handler changer{calls, [&] {
                        poller.unregisterDescriptor(second.fd());
                        poller.registerDescriptor(third.fd(), POLLIN, &plain);
                    }};
    poller.registerDescriptor(first.fd(), POLLIN, &changer);
    poller.registerDescriptor(second.fd(), POLLIN, &plain);
    first.fill(), second.fill(), third.fill();
    EXPECT_TRUE(poller.pollEvents(1000));
    EXPECT_EQ(calls, std::vector<int>{first.fd()});
    poller.registerDescriptor(first.fd(), POLLIN, &plain);
    EXPECT_TRUE(poller.pollEvents(1000));
    EXPECT_EQ(calls, (std::vector<int>{first.fd(), first.fd(), third.fd()}));
}

} // namespace
