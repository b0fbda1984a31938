#include "common/file/BinaryFile.h"
#include "tests/common/FileTestFixture.h"

#include <csignal>
#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

using BinaryFileTest = FileTestFixture;

const uint8_t* bytes(const std::string& text)
{
    return reinterpret_cast<const uint8_t*>(text.data());
}

struct Pipe {
    int fds[2] = {-1, -1};
    explicit Pipe(int flags = 0) { EXPECT_EQ(pipe2(fds, O_CLOEXEC | flags), 0); }
    ~Pipe() { close(fds[0]), close(fds[1]); }
    // BinaryFile opens paths only; this one opens the same pipe again.
    std::string path(int end) const { return "/proc/self/fd/" + std::to_string(fds[end]); }
};

// SIGALRM every 5 ms without SA_RESTART; its handler feeds or drains a pipe.
// Each tick interrupts a blocked transfer (EINTR) and what the handler moved
// makes the next attempt a short one.
struct Ticker {
    struct sigaction previous {};
    explicit Ticker(void (*onTick)(int))
    {
        struct sigaction action {};
        action.sa_handler = onTick;
        sigaction(SIGALRM, &action, &previous);
        const itimerval every5ms{{0, 5000}, {0, 5000}};
        setitimer(ITIMER_REAL, &every5ms, nullptr);
    }
    ~Ticker()
    {
        const itimerval stop{};
        setitimer(ITIMER_REAL, &stop, nullptr);
        sigaction(SIGALRM, &previous, nullptr);
    }
};
int tickFd = -1;
char drained[128 * 1024];
size_t drainedCount = 0;

TEST_F(BinaryFileTest, OpenReadWriteSeek)
{
    BinaryFile unnamed("");
    EXPECT_EQ(failure([&] { unnamed.openFile(O_RDONLY, 0); }),
              std::make_pair(std::string("BinaryFile::openFile(): No valid file path set"), 0));
    EXPECT_FALSE(unnamed.isOpen());

    writeFile(dir + "/ten", "0123456789");
    BinaryFile file(dir + "/ten");
    file.openFile(O_RDONLY, 0);
    file.openFile(O_RDWR | O_TRUNC, 0); // already open: neither truncates nor reopens
    EXPECT_EQ(openDescriptors(), descriptorsBefore + 1);
    uint8_t buffer[1024];
    EXPECT_EQ(file.readData(buffer, sizeof(buffer)), 10u);
    EXPECT_EQ(std::string(buffer, buffer + 10), "0123456789");
    EXPECT_EQ(file.readData(buffer, sizeof(buffer)), 0u);
    EXPECT_EQ(failure([&] { file.writeData(bytes("x"), 1); }).second, EBADF);
    file.closeFile();
    EXPECT_EQ(failure([&] { file.setFileOffset(0); }),
              failedCall("BinaryFile::setFileOffset", "lssek", EBADF));
    EXPECT_EQ(failure([&] { file.writeData(nullptr, 0), file.readData(nullptr, 0); }).first, "no exception");

    BinaryFile writer(dir + "/new");
    writer.openFile(O_RDWR | O_CREAT, 0600);
    writer.writeData(bytes("abcdef"), 6);
    EXPECT_EQ(writer.setFileOffset(2), 2);
    writer.writeData(bytes("XY"), 2);
    writer.syncFile();
    EXPECT_EQ(readFile(dir + "/new"), "abXYef");
}

TEST_F(BinaryFileTest, SizesAndOffsetsPastTwoGiB)
{
    const int64_t size = int64_t{3} << 30;
    writeFile(dir + "/large", "");
    ASSERT_EQ(truncate((dir + "/large").c_str(), size), 0);
    BinaryFile file(dir + "/large");
    file.openFile(O_RDWR, 0);
    EXPECT_EQ(file.getFileSize(), size);
    EXPECT_EQ(file.setFileOffset(size - 1), size - 1);
    file.writeData(bytes("xy"), 2);
    EXPECT_EQ(file.getFileSize(), size + 1);
}

TEST_F(BinaryFileTest, ReadRetriesInterruptedAndShortTransfers)
{
    // Every tick interrupts the blocked read and then feeds it one byte.
    uint8_t buffer[4];
    Pipe pipe;
    BinaryFile reader(pipe.path(0));
    reader.openFile(O_RDONLY, 0);
    tickFd = pipe.fds[1];
    Ticker ticker([](int) { (void)!write(tickFd, "t", 1); });
    EXPECT_EQ(failure([&] { EXPECT_EQ(reader.readData(buffer, 4), 4u); }).first, "no exception");
}

TEST_F(BinaryFileTest, WriteRetriesInterruptedAndShortTransfers)
{
    Pipe pipe(O_NONBLOCK);
    BinaryFile writer(pipe.path(1)); // blocking, unlike the pipe's own ends
    writer.openFile(O_WRONLY, 0);
    std::string expected; // a full pipe: the first write() blocks before moving a byte
    while (write(pipe.fds[1], "-", 1) == 1) {
        expected += '-';
    }
    const std::string data = pattern(32 * 1024);
    tickFd = pipe.fds[0];
    drainedCount = 0;
    {
        Ticker ticker([](int) {
            const ssize_t count = read(tickFd, drained + drainedCount, 8192);
            drainedCount += count > 0 ? static_cast<size_t>(count) : 0;
        });
        const auto size = static_cast<uint32_t>(data.size());
        EXPECT_EQ(failure([&] { writer.writeData(bytes(data), size); }).first, "no exception");
    }
    char buffer[65536];
    const ssize_t count = read(pipe.fds[0], buffer, sizeof(buffer));
    const std::string received(drained, drainedCount);
    const std::string rest(buffer, static_cast<size_t>(std::max<ssize_t>(count, 0)));
    EXPECT_TRUE(received + rest == expected + data) << received.size() + rest.size() << " bytes";
}

} // namespace
