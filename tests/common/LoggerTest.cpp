// Lines cut after 257 characters; text sent on flush, overflow or destruction
// and nothing twice; a stream still usable after its thread was cancelled
// inside syslog().
#include "common/logging/Logger.h"
#include "tests/support/CapturedSyslog.h"

#include <gtest/gtest.h>

#include <pthread.h>

using Common::Logging::Logger;
using TestSupport::CapturedSyslog;
using Texts = std::vector<std::string>;

namespace {

TEST(Logger, LinesBecomeRecordsOnFlushOrOverflowAndPendingTextOnDestruction)
{
    std::string p; // letters that change with the position, so a misplaced piece shows
    for (size_t i = 0; i < 300; ++i) {
        p += static_cast<char>('a' + i % 26);
    }
    const struct {
        std::string written;
        bool flush;
        Texts sentAtOnce, sentOnDestruction;
    } rows[] = {
        {"100% %s%n\n\nb\n", true, {"100% %s%n", "", "b"}, {}}, // the text is never a format
        {"abc\n", false, {}, {"abc"}},
        {"0123456789\n" + p + "\n", true, {"0123456789", p.substr(0, 257), p.substr(257)}, {}},
        {p.substr(0, 256) + "\n", true, {p.substr(0, 256)}, {}},
        {p.substr(0, 256), true, {p.substr(0, 256)}, {}},
        {p.substr(0, 255), true, {}, {p.substr(0, 255)}},
    };
    const auto withTag = [](const Texts& texts) {
        Texts tagged;
        for (const auto& text : texts) {
            tagged.push_back("[Warn ] X: " + text);
        }
        return tagged;
    };
    for (const auto& row : rows) {
        {
            Logger logger("X");
            logger.warn() << row.written;
            if (row.flush) {
                logger.warn().flush();
            }
            EXPECT_EQ(CapturedSyslog::takeTexts(), withTag(row.sentAtOnce)) << row.written;
        }
        EXPECT_EQ(CapturedSyslog::takeTexts(), withTag(row.sentOnDestruction)) << row.written;
    }
}

TEST(Logger, AStreamCancelledInsideSyslogDropsItsTextAndStaysUsable)
{
    {
        Logger logger("X");
        pthread_t thread;
        const auto body = [](void* argument) -> void* {
            pthread_cancel(pthread_self()); // acted on inside syslog()
            static_cast<Logger*>(argument)->warn() << "a\nb" << std::endl;
            return nullptr;
        };
        ASSERT_EQ(pthread_create(&thread, nullptr, body, &logger), 0);
        ASSERT_EQ(pthread_join(thread, nullptr), 0);
        logger.warn() << "after" << std::endl;
    }
    EXPECT_EQ(CapturedSyslog::takeTexts(), Texts{"[Warn ] X: after"});
}

} // namespace
