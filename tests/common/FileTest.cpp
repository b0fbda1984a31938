// Binary files: whole transfers through interrupted and short reads and
// writes, offsets past 2 GiB also in the 32-bit build; no descriptor left open.
// File helpers and byte arrays at their edges: a copy as long as its source,
// a move that outlasts a busy destination, no index past the end.
#include "common/container/ByteArray.h"
#include "common/file/BinaryFile.h"
#include "common/file/FileUtil.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sched.h>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <thread>
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

TEST_F(FileTest, CopiesAsLongAsTheSourceAndRefusesTheIndexPastTheEnd)
{
    for (const size_t size : {0, 1, 1024, 1500, 3000}) { // around the copy's 1 KiB blocks
        std::string content;
        for (size_t i = 0; i < size; ++i) {
            content += static_cast<char>('a' + i % 23);
        }
        std::ofstream(dir + "/source", std::ios::binary) << content;
        FileUtil::copyFile(dir + "/source", dir + "/copy");
        EXPECT_TRUE(readFile(dir + "/copy") == content) << size << " bytes";
    }
    const struct {
        uint32_t size, index;
        bool refused;
    } rows[] = {{0, 0, true}, {3, 2, false}, {3, 3, true}};
    for (const auto& row : rows) {
        Common::Container::ByteArray array;
        array.resize(row.size);
        bool refused = false;
        try {
            array.at(row.index) = 1;
        } catch (const std::out_of_range&) {
            refused = true;
        }
        EXPECT_EQ(refused, row.refused) << "index " << row.index << " of " << row.size;
    }
}

TEST_F(FileTest, MoveOutlastsABusyDestination)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root: the destination is a tmpfs mount in a namespace of its own";
    }
    const std::string source = dir + "/source", target = dir + "/busy";
    ASSERT_EQ(mkdir(source.c_str(), 0700) | mkdir(target.c_str(), 0700), 0);
    const pid_t child = fork();
    if (child == 0) {
        // rename() onto a mount point fails with EBUSY until it is unmounted.
        if (unshare(CLONE_NEWNS) != 0 ||
            mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("busy", target.c_str(), "tmpfs", 0, nullptr) != 0) {
            _exit(77);
        }
        // Released after the first attempts, well before the 500 ms of retries end.
        std::thread release([&] {
            usleep(150000);
            umount2(target.c_str(), MNT_DETACH);
        });
        int status = 0;
        try {
            FileUtil::moveFile(source, target);
        } catch (const std::exception&) {
            status = 1;
        }
        release.join();
        _exit(status);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    if (WEXITSTATUS(status) == 77) {
        GTEST_SKIP() << "no mount namespace of its own here (qemu-user runs threads of its own)";
    }
    EXPECT_EQ(WEXITSTATUS(status), 0) << "moveFile gave up while the destination was busy";
}

} // namespace
