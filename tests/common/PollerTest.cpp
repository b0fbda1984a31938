// The poller hands each handler what the kernel returned for its descriptor,
// so a hang-up or an error reaches it although only reading was asked for.
#include "common/polling/Poller.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <unistd.h>

namespace {

struct Recorder : Common::Polling::IFdHandle {
    short seen = 0;
    void handleEvent(int, short revents) override { seen = revents; }
};

TEST(Poller, HandsTheReturnedEventsToTheHandler)
{
    const struct {
        bool watchReadEnd; // the other end is closed
        short asked, expected;
    } rows[] = {{true, POLLIN, POLLHUP}, {false, POLLOUT, POLLERR}};
    for (const auto& row : rows) {
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        const int watched = row.watchReadEnd ? ends[0] : ends[1];
        close(row.watchReadEnd ? ends[1] : ends[0]);
        Common::Polling::Poller poller;
        Recorder recorder;
        poller.registerDescriptor(watched, row.asked, &recorder);
        EXPECT_TRUE(poller.pollEvents(5000));
        EXPECT_EQ(recorder.seen & row.expected, row.expected) << "got " << recorder.seen;
        close(watched);
    }
}

} // namespace
