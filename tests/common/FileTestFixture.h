// Shared by the file tests: a fresh directory per test, removed afterwards,
// and a check that the test left no descriptor or directory stream open.
#pragma once

#include "common/exceptions/RavoException.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>

inline void writeFile(const std::string& path, const std::string& content)
{
    std::ofstream(path, std::ios::binary) << content;
}

inline std::string readFile(const std::string& path)
{
    std::ifstream stream(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(stream), {});
}

// Bytes that change from block to block, so a misplaced block shows.
inline std::string pattern(size_t length)
{
    std::string text(length, '\0');
    for (size_t i = 0; i < length; ++i) {
        text[i] = static_cast<char>(i * 7 + i / 1024);
    }
    return text;
}

// The message and error number of the RavoException the action throws.
inline std::pair<std::string, int> failure(const std::function<void()>& action)
{
    try {
        action();
    } catch (const Common::Exceptions::RavoException& error) {
        return {error.what(), error.errorNumber()};
    }
    return {"no exception", 0};
}

inline std::pair<std::string, int> failedCall(const std::string& where, const std::string& call, int error)
{
    return {where + "(): The call to " + call + "() returns the error: " + std::to_string(error) + " (" +
                std::strerror(error) + ")",
            error};
}

class FileTestFixture : public ::testing::Test {
protected:
    static size_t openDescriptors()
    {
        using std::filesystem::directory_iterator;
        return static_cast<size_t>(std::distance(directory_iterator("/proc/self/fd"), directory_iterator()));
    }
    void SetUp() override
    {
        char name[] = "/tmp/dhh-common-XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        dir = name;
        descriptorsBefore = openDescriptors();
    }
    void TearDown() override
    {
        EXPECT_EQ(openDescriptors(), descriptorsBefore) << "descriptor or directory stream leaked";
        std::filesystem::remove_all(dir);
    }

    std::string dir;
    size_t descriptorsBefore = 0;
};
