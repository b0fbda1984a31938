#include "common/logging/Logger.h"
#include "tests/common/CommonTestHelpers.h"

#include <syslog.h>

using Common::Logging::Logger;
using Texts = std::vector<std::string>;

namespace {

using LoggerTest = SyslogTest;

// The identity is process-wide and taken once, so its whole story is one test.
TEST_F(LoggerTest, RecordsCarryTagPriorityNameAndTheFirstNonEmptyIdentity)
{
    const struct {
        std::ostream& (Logger::*stream)();
        int level;
        std::string tag;
    } levels[] = {{&Logger::debug, LOG_DEBUG, "Debug"},
                  {&Logger::info, LOG_INFO, "Info "},
                  {&Logger::warn, LOG_WARNING, "Warn "},
                  {&Logger::error, LOG_ERR, "Error"},
                  {&Logger::fatal, LOG_CRIT, "Fatal"}};
    const struct {
        int facility;
        std::string name, identity, expectedIdentity;
    } settings[] = {{LOG_USER, "X", "", ""},
                    {LOG_LOCAL0, "Renamed", "first", "first"},
                    {LOG_USER, "X", "second", "first"},
                    {LOG_USER, "X", "", "first"}};
    Logger logger("X");
    for (const auto& setting : settings) {
        logger.setFacility(setting.facility);
        logger.setName(setting.name);
        Logger::openSyslog(setting.identity);
        for (const auto& row : levels) {
            (logger.*row.stream)() << "abc" << std::endl;
            const auto records = sent();
            ASSERT_EQ(records.size(), 1u) << row.tag;
            EXPECT_EQ(records[0].priority, setting.facility | row.level) << row.tag;
            EXPECT_EQ(records[0].identity, setting.expectedIdentity) << setting.identity;
            EXPECT_EQ(records[0].text, "[" + row.tag + "] " + setting.name + ": abc");
        }
    }
}

TEST_F(LoggerTest, LinesBecomeRecordsOnFlushOrOverflowAndPendingTextOnDestruction)
{
    const std::string p = pattern(300);
    const struct {
        std::string written;
        bool flush;
        Texts sentAtOnce, sentOnDestruction;
    } rows[] = {
        {"100% %s%n\n\nb\n", true, {"100% %s%n", "", "b"}, {}}, // the text is never a format
        {"abc\n", false, {}, {"abc"}},
        {"0123456789\n" + p + "\n", true, {"0123456789", p.substr(0, 257), p.substr(257)}, {}},
        {pattern(256) + "\n", true, {pattern(256)}, {}},
        {pattern(256), true, {pattern(256)}, {}},
        {pattern(255), true, {}, {pattern(255)}},
    };
    const auto sentTexts = [] {
        Texts texts;
        for (const auto& record : sent()) {
            const bool prefixed = record.text.rfind("[Warn ] X: ", 0) == 0;
            texts.push_back(prefixed ? record.text.substr(11) : "unprefixed: " + record.text);
        }
        return texts;
    };
    for (const auto& row : rows) {
        {
            Logger logger("X");
            logger.warn() << row.written;
            if (row.flush) {
                logger.warn().flush();
            }
            EXPECT_EQ(sentTexts(), row.sentAtOnce) << row.written;
        }
        EXPECT_EQ(sentTexts(), row.sentOnDestruction) << row.written;
    }
}

} // namespace
