// Main of every test binary: before any thread exists, the process gets a
// private /dev/log, so no test ever writes to the host's system logger. Without
// the privileges for that, every test is skipped with the reason.
#include "tests/support/PrivateDevLog.h"

#include <gtest/gtest.h>

namespace {

class NeedsPrivateDevLog : public testing::Environment {
public:
    void SetUp() override
    {
        if (!TestSupport::PrivateDevLog::available()) {
            GTEST_SKIP() << "these tests need root for a private /dev/log: "
                         << TestSupport::PrivateDevLog::unavailableReason();
        }
    }
};

} // namespace

int main(int argc, char** argv)
{
    std::string why;
    TestSupport::PrivateDevLog::setUp(why);
    testing::InitGoogleTest(&argc, argv);
    testing::AddGlobalTestEnvironment(new NeedsPrivateDevLog);
    return RUN_ALL_TESTS();
}
