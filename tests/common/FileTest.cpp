// Binary files: whole transfers through interrupted and short reads and
// writes, offsets past 2 GiB also in the 32-bit build; no descriptor left open.
#include "common/file/BinaryFile.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sys/time.h>
#include <unistd.h>

namespace {

std::string readFile(const std::string& path)
{
    std::ifstream stream(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(stream), {});
}

const uint8_t* bytes(const std::string& text)
{
    return reinterpret_cast<const uint8_t*>(text.data());
}

class FileTest : public ::testing::Test {
protected:
    static long openDescriptors()
    {
        using std::filesystem::directory_iterator;
        return std::distance(directory_iterator("/proc/self/fd"), directory_iterator());
    }
    void SetUp() override { ASSERT_NE(mkdtemp(dir.data()), nullptr); }
    void TearDown() override
    {
        EXPECT_EQ(openDescriptors(), descriptorsBefore) << "descriptor or directory stream leaked";
        std::filesystem::remove_all(dir);
    }
    std::string dir = "/tmp/dhh-common-XXXXXX";
    const long descriptorsBefore = openDescriptors();
};

TEST_F(FileTest, SeeksAndSizesPastTwoGiB)
{
    const int64_t large = int64_t{3} << 30; // beyond 32 bits, also in the 32-bit build
    BinaryFile writer(dir + "/new");
    writer.openFile(O_RDWR | O_CREAT, 0600);
    writer.writeData(bytes("abcdef"), 6);
    EXPECT_EQ(writer.setFileOffset(2), 2);
    writer.writeData(bytes("XY"), 2);
    writer.syncFile();
    EXPECT_EQ(readFile(dir + "/new"), "abXYef");
    EXPECT_EQ(writer.setFileOffset(large - 1), large - 1);
    writer.writeData(bytes("xy"), 2);
    EXPECT_EQ(writer.getFileSize(), large + 1);
}

int tickFd = -1;
char drained[128 * 1024]; // a signal handler may not allocate
size_t drainedCount = 0;
void drainSome(int)
{
    const int saved = errno;
    const ssize_t count = read(tickFd, drained + drainedCount, 8192);
    drainedCount += count > 0 ? static_cast<size_t>(count) : 0;
    errno = saved;
}

// SIGALRM every 5 ms without SA_RESTART: each tick ends a blocked transfer
// with EINTR, and what the handler moves makes the next one a short one.
void withTicks(void (*onTick)(int), const std::function<void()>& action)
{
    struct sigaction tick {
    }, previous{};
    tick.sa_handler = onTick;
    sigaction(SIGALRM, &tick, &previous);
    const itimerval every5ms{{0, 5000}, {0, 5000}}, stop{};
    setitimer(ITIMER_REAL, &every5ms, nullptr);
    action();
    setitimer(ITIMER_REAL, &stop, nullptr);
    sigaction(SIGALRM, &previous, nullptr);
}

TEST_F(FileTest, ReadAndWriteRetryInterruptedAndShortTransfers)
{
    int in[2], out[2];
    ASSERT_EQ(pipe2(in, O_CLOEXEC), 0);
    ASSERT_EQ(pipe2(out, O_CLOEXEC | O_NONBLOCK), 0);
    { // opened again by path: blocking, unlike the pipe's own ends
        BinaryFile reader("/proc/self/fd/" + std::to_string(in[0]));
        BinaryFile writer("/proc/self/fd/" + std::to_string(out[1]));
        reader.openFile(O_RDONLY, 0);
        writer.openFile(O_WRONLY, 0);
        uint8_t buffer[4];
        tickFd = in[1];
        withTicks(
            [](int) {
                const int saved = errno;
                (void)!write(tickFd, "t", 1);
                errno = saved;
            },
            [&] { EXPECT_EQ(reader.readData(buffer, 4), 4u); });
        std::string full; // the first write() then blocks before moving a byte
        while (write(out[1], "-", 1) == 1) {
            full += '-';
        }
        std::string data; // varying bytes, so that a misplaced piece shows
        for (int i = 0; i < 32 * 1024; ++i) {
            data += static_cast<char>('0' + i % 71);
        }
        tickFd = out[0];
        withTicks(drainSome,
                  [&] { writer.writeData(bytes(data), static_cast<uint32_t>(data.size())); });
        for (int i = 0; i < 16; ++i) {
            drainSome(0);
        }
        EXPECT_TRUE(std::string(drained, drainedCount) == full + data) << drainedCount << " bytes";
    }
    for (const int fd : {in[0], in[1], out[0], out[1]}) {
        close(fd);
    }
}

} // namespace
