#include "common/file/BinaryFile.h"
#include "common/file/FileUtil.h"
#include "tests/common/CommonTestHelpers.h"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sys/mount.h>
#include <thread>

namespace {

void writeFile(const std::string& path, const std::string& content)
{
    std::ofstream(path, std::ios::binary) << content;
}

std::string readFile(const std::string& path)
{
    std::ifstream stream(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(stream), {});
}

const uint8_t* bytes(const std::string& text)
{
    return reinterpret_cast<const uint8_t*>(text.data());
}

std::pair<std::string, int> failedCall(const std::string& where, const std::string& call, int error)
{
    return {where + "(): The call to " + call + "() returns the error: " + std::to_string(error) +
                " (" + std::strerror(error) + ")",
            error};
}

int64_t msTaken(const std::function<void()>& action)
{
    const auto start = std::chrono::steady_clock::now();
    action();
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                 start)
        .count();
}

// A fresh directory per test, and no descriptor or directory stream left open.
class FileTest : public ::testing::Test {
protected:
    static size_t openDescriptors()
    {
        using std::filesystem::directory_iterator;
        return static_cast<size_t>(
            std::distance(directory_iterator("/proc/self/fd"), directory_iterator()));
    }
    void SetUp() override { ASSERT_NE(mkdtemp(dir.data()), nullptr); }
    void TearDown() override
    {
        EXPECT_EQ(openDescriptors(), descriptorsBefore) << "descriptor or directory stream leaked";
        std::filesystem::remove_all(dir);
    }

    std::string dir = "/tmp/dhh-common-XXXXXX";
    const size_t descriptorsBefore = openDescriptors();
};
using FileUtilTest = FileTest;
using BinaryFileTest = FileTest;

TEST(PathNameTest, DirectoryAndFileNames)
{
    const struct {
        std::string path, directory, file;
    } rows[] = {
        {"/x", "/", "x"}, {"x", ".", "x"}, {"a/b/c", "a/b", "c"}, {"a/b/", "a/b", ""},
        {"/", "/", ""},   {"", ".", ""},   {"a//b", "a/", "b"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(FileUtil::getDirectoryName(row.path), row.directory) << row.path;
        EXPECT_EQ(FileUtil::getFileName(row.path), row.file) << row.path;
    }
}

TEST_F(FileUtilTest, CreateTmpFileMakesAFileBesideThePath)
{
    for (const std::string& given : {std::string(), dir + "/data"}) {
        std::string name = given;
        FileUtil::createTmpFile(name);
        const std::string prefix = given.empty() ? "/tmp/tmpfile." : given + ".tmp.";
        EXPECT_EQ(name.substr(0, prefix.size()) + std::to_string(name.size()),
                  prefix + std::to_string(prefix.size() + 6));
        EXPECT_EQ(unlink(name.c_str()), 0) << name;
    }
    std::string missing = dir + "/no/such";
    EXPECT_EQ(failure([&] { FileUtil::createTmpFile(missing); }),
              failedCall("FileUtil::createTmpFile", "mkstemp", ENOENT));
}

// A pause of 100 ms follows every attempt but a failed one that is not
// retried. Renaming onto a mount point fails with EBUSY; the bind mount exists
// only in the private mount namespace of the test process.
TEST_F(FileUtilTest, MoveFileChecksNamesPausesAndRetriesFiveTimesWhileBusy)
{
    EXPECT_EQ(failure([] { FileUtil::moveFile("", "b"); }).first,
              "FileUtil::moveFile(): Source file name empty!");
    EXPECT_EQ(failure([] { FileUtil::moveFile("a", ""); }).first,
              "FileUtil::moveFile(): Destination file name empty!");
    const std::string source = dir + "/source", target = dir + "/target";
    const auto move = [&] { return failure([&] { FileUtil::moveFile(source, target); }); };
    EXPECT_LT(
        msTaken([&] { EXPECT_EQ(move(), failedCall("FileUtil::moveFile", "rename", ENOENT)); }),
        90);
    writeFile(source, "s");
    writeFile(target, "t");
    ASSERT_EQ(mount(source.c_str(), target.c_str(), nullptr, MS_BIND, nullptr), 0);
    const int64_t ms = msTaken(
        [&] { EXPECT_EQ(move(), failedCall("FileUtil::moveFile", "retried rename", EBUSY)); });
    EXPECT_TRUE(ms >= 500 && ms < 590) << ms << " ms: a sixth attempt would add a pause";

    std::thread unmount([&] { // while the second attempt pauses
        std::this_thread::sleep_for(std::chrono::milliseconds(150));
        EXPECT_EQ(umount2(target.c_str(), MNT_DETACH), 0);
    });
    EXPECT_GE(msTaken([&] { EXPECT_EQ(move().first, "no exception"); }), 300)
        << "paused after success too";
    unmount.join();
    EXPECT_EQ(readFile(target), "s");
}

TEST_F(FileUtilTest, CopiesCompareEqualAndChangedCopiesDoNot)
{
    FileUtil::syncDirectory(dir);
    EXPECT_EQ(failure([&] { FileUtil::syncDirectory(dir + "/none"); }),
              failedCall("FileUtil::syncDirectory", "opendir", ENOENT));
    const std::string source = dir + "/source", copy = dir + "/copy";
    // How many of the two directions compare equal.
    const auto equalCount = [](const std::string& a, const std::string& b) {
        return FileUtil::compareFiles(a, b) + FileUtil::compareFiles(b, a);
    };
    for (const size_t size : {0, 1, 1024, 2500}) {
        writeFile(source, pattern(size));
        writeFile(copy, pattern(4000)); // longer: the copy must truncate it
        FileUtil::copyFile(source, copy);
        EXPECT_EQ(readFile(copy), pattern(size));
        EXPECT_EQ(equalCount(source, copy), 2) << size;
        // A longer copy, and one whose last byte differs.
        for (const std::string& changed :
             {pattern(size) + "!", pattern(size).substr(0, size - 1) + "!"}) {
            writeFile(copy, changed);
            EXPECT_EQ(equalCount(source, copy), 0) << size;
        }
    }
    EXPECT_EQ(equalCount(source, dir + "/none"), 0);
    FileUtil::copyFile(dir + "/none", dir + "/none");
    EXPECT_EQ(failure([&] { FileUtil::copyFile(dir + "/none", dir + "/new"); }),
              failedCall("BinaryFile::openFile", "open", ENOENT));
    EXPECT_FALSE(std::filesystem::exists(dir + "/new"));
}

TEST_F(BinaryFileTest, OpenReadWriteSeekPastTwoGiB)
{
    BinaryFile unnamed("");
    EXPECT_EQ(failure([&] { unnamed.openFile(O_RDONLY, 0); }),
              std::make_pair(std::string("BinaryFile::openFile(): No valid file path set"), 0));
    EXPECT_FALSE(unnamed.isOpen());

    writeFile(dir + "/ten", "0123456789");
    BinaryFile file(dir + "/ten");
    file.openFile(O_RDONLY, 0);
    file.openFile(O_RDWR | O_TRUNC, 0); // already open: neither truncates nor reopens (no leak)
    uint8_t buffer[1024];
    EXPECT_EQ(file.readData(buffer, sizeof(buffer)), 10u);
    EXPECT_EQ(std::string(buffer, buffer + 10), "0123456789");
    EXPECT_EQ(file.readData(buffer, sizeof(buffer)), 0u);
    EXPECT_EQ(failure([&] { file.writeData(bytes("x"), 1); }),
              failedCall("BinaryFile::writeData", "write", EBADF));
    file.closeFile();
    EXPECT_EQ(failure([&] { file.setFileOffset(0); }),
              failedCall("BinaryFile::setFileOffset", "lssek", EBADF));

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
char drained[128 * 1024];
size_t drainedCount = 0;
void drainSome(int)
{
    const ssize_t count = read(tickFd, drained + drainedCount, 8192);
    drainedCount += count > 0 ? static_cast<size_t>(count) : 0;
}

// Each tick ends a blocked transfer with EINTR, and then moves a little data
// so that the next attempt is a short one.
TEST_F(BinaryFileTest, ReadAndWriteRetryInterruptedAndShortTransfers)
{
    Pipe in, out(O_NONBLOCK);
    BinaryFile reader(in.path(0)), writer(out.path(1)); // blocking, unlike the pipe's own ends
    reader.openFile(O_RDONLY, 0);
    writer.openFile(O_WRONLY, 0);
    uint8_t buffer[4];
    tickFd = in.fds[1];
    {
        const Ticker feedOneByte([](int) { (void)!write(tickFd, "t", 1); });
        EXPECT_EQ(failure([&] { EXPECT_EQ(reader.readData(buffer, 4), 4u); }).first,
                  "no exception");
    }
    std::string full; // the first write() blocks before moving a byte
    while (write(out.fds[1], "-", 1) == 1) {
        full += '-';
    }
    const std::string data = pattern(32 * 1024);
    tickFd = out.fds[0];
    {
        const Ticker ticker(drainSome);
        const auto size = static_cast<uint32_t>(data.size());
        EXPECT_EQ(failure([&] { writer.writeData(bytes(data), size); }).first, "no exception");
    }
    for (int i = 0; i < 16; ++i) {
        drainSome(0);
    }
    EXPECT_TRUE(std::string(drained, drainedCount) == full + data) << drainedCount << " bytes";
}

} // namespace
