#include "common/file/FileUtil.h"
#include "tests/common/FileTestFixture.h"
#include "tests/support/PrivateDevLog.h"

#include <chrono>
#include <cstdio>
#include <dlfcn.h>
#include <sys/mount.h>
#include <unistd.h>

// Counting wrappers of the C library's rename() and usleep(): moveFile's
// attempts and pauses are seen exactly instead of being guessed from timing.
namespace {
int renameCalls = 0;
std::function<void(int)> beforeRename;
std::vector<useconds_t> sleeps;
} // namespace

extern "C" int rename(const char* from, const char* to) noexcept
{
    static const auto real = reinterpret_cast<int (*)(const char*, const char*)>(dlsym(RTLD_NEXT, "rename"));
    if (beforeRename) {
        beforeRename(renameCalls + 1);
    }
    ++renameCalls;
    return real(from, to);
}

extern "C" int usleep(useconds_t microseconds) noexcept
{
    static const auto real = reinterpret_cast<int (*)(useconds_t)>(dlsym(RTLD_NEXT, "usleep"));
    sleeps.push_back(microseconds);
    return real(microseconds);
}

namespace {

class FileUtilTest : public FileTestFixture {
protected:
    void SetUp() override
    {
        FileTestFixture::SetUp();
        renameCalls = 0;
        beforeRename = nullptr;
        sleeps.clear();
    }
};

TEST(PathNameTest, DirectoryAndFileNames)
{
    const struct {
        std::string path, directory, file;
    } rows[] = {
        {"/x", "/", "x"}, {"x", ".", "x"}, {"a/b/c", "a/b", "c"}, {"a/b/", "a/b", ""}, {"/", "/", ""},
        {"", ".", ""}, {"a//b", "a/", "b"}, {"/usb1/1-1/1-1.2", "/usb1/1-1", "1-1.2"},
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

TEST_F(FileUtilTest, MoveFileChecksNamesAndPausesAfterEveryAttempt)
{
    EXPECT_EQ(failure([] { FileUtil::moveFile("", ""); }).first,
              "FileUtil::moveFile(): Source file name empty!");
    EXPECT_EQ(failure([] { FileUtil::moveFile("a", ""); }).first,
              "FileUtil::moveFile(): Destination file name empty!");
    EXPECT_EQ(failure([&] { FileUtil::moveFile(dir + "/missing", dir + "/b"); }),
              failedCall("FileUtil::moveFile", "rename", ENOENT));
    EXPECT_EQ(renameCalls, 1);
    EXPECT_TRUE(sleeps.empty()) << "no pause after a hard failure";

    writeFile(dir + "/a", "content");
    FileUtil::moveFile(dir + "/a", dir + "/b");
    EXPECT_EQ(readFile(dir + "/b"), "content");
    EXPECT_EQ(sleeps, std::vector<useconds_t>{100000});
}

// Renaming onto a mount point fails with EBUSY; the bind mount exists only in
// the private mount namespace of the test process.
TEST_F(FileUtilTest, MoveFileRetriesFiveTimesWhileTheTargetIsBusy)
{
    if (!TestSupport::PrivateDevLog::available()) {
        GTEST_SKIP() << "needs a private mount namespace: "
                     << TestSupport::PrivateDevLog::unavailableReason();
    }
    const std::string source = dir + "/source", target = dir + "/target";
    writeFile(source, "s");
    writeFile(target, "t");
    ASSERT_EQ(mount(source.c_str(), target.c_str(), nullptr, MS_BIND, nullptr), 0);

    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(failure([&] { FileUtil::moveFile(source, target); }),
              failedCall("FileUtil::moveFile", "retried rename", EBUSY));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(490));
    EXPECT_EQ(renameCalls, 5);
    EXPECT_EQ(sleeps, std::vector<useconds_t>(5, 100000));

    renameCalls = 0; // the target stops being busy just before the third attempt
    beforeRename = [&](int attempt) {
        EXPECT_TRUE(attempt != 3 || umount2(target.c_str(), MNT_DETACH) == 0);
    };
    FileUtil::moveFile(source, target);
    EXPECT_EQ(renameCalls, 3);
    EXPECT_EQ(readFile(target), "s");
}

TEST_F(FileUtilTest, CopiesCompareEqualAndChangedCopiesDoNot)
{
    FileUtil::syncDirectory(dir);
    EXPECT_EQ(failure([&] { FileUtil::syncDirectory(dir + "/none"); }),
              failedCall("FileUtil::syncDirectory", "opendir", ENOENT));
    const std::string source = dir + "/source", copy = dir + "/copy";
    for (const size_t size : {0, 1, 1024, 2500}) {
        writeFile(source, pattern(size));
        writeFile(copy, pattern(4000)); // longer: the copy must truncate it
        FileUtil::copyFile(source, copy);
        EXPECT_EQ(readFile(copy), pattern(size));
        EXPECT_TRUE(FileUtil::compareFiles(source, copy) && FileUtil::compareFiles(copy, source)) << size;
        // A longer copy, and one whose last byte differs (both directions compared).
        for (const std::string& changed : {pattern(size) + "!", pattern(size).substr(0, size - 1) + "!"}) {
            writeFile(copy, changed);
            EXPECT_FALSE(FileUtil::compareFiles(source, copy)) << size;
            EXPECT_FALSE(FileUtil::compareFiles(copy, source)) << size;
        }
    }
    EXPECT_FALSE(FileUtil::compareFiles(source, dir + "/none"));
    EXPECT_FALSE(FileUtil::compareFiles(dir + "/none", source));
    FileUtil::copyFile(dir + "/none", dir + "/none");
    EXPECT_EQ(failure([&] { FileUtil::copyFile(dir + "/none", dir + "/new"); }),
              failedCall("BinaryFile::openFile", "open", ENOENT));
    EXPECT_FALSE(std::filesystem::exists(dir + "/new"));
}

} // namespace
