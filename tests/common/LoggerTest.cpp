#include "common/logging/Logger.h"
#include "tests/common/SyslogTest.h"

#include <functional>
#include <syslog.h>

using Common::Logging::Logger;
using Texts = std::vector<std::string>;

namespace {

using LoggerTest = SyslogTest;

// Letters that change with the position, so a misplaced piece of a line shows.
std::string line(size_t length, size_t from = 0)
{
    std::string text;
    for (size_t i = from; i < from + length; ++i) {
        text += static_cast<char>('a' + i % 26);
    }
    return text;
}

TEST_F(LoggerTest, EveryLevelHasItsTagAndPriorityUnderAnyFacilityAndName)
{
    const struct {
        std::ostream& (Logger::*stream)();
        int level;
        std::string tag;
    } levels[] = {{&Logger::debug, LOG_DEBUG, "Debug"}, {&Logger::info, LOG_INFO, "Info "},
                  {&Logger::warn, LOG_WARNING, "Warn "}, {&Logger::error, LOG_ERR, "Error"},
                  {&Logger::fatal, LOG_CRIT, "Fatal"}};
    Logger logger("X");
    for (const auto& [facility, name] : {std::pair{LOG_USER, "X"}, std::pair{LOG_LOCAL0, "Renamed"}}) {
        logger.setFacility(facility);
        logger.setName(name);
        for (const auto& row : levels) {
            (logger.*row.stream)() << "abc" << std::endl;
            const auto records = sent();
            ASSERT_EQ(records.size(), 1u) << row.tag;
            EXPECT_EQ(records[0].priority, facility | row.level) << row.tag;
            EXPECT_EQ(records[0].text, "[" + row.tag + "] " + name + ": abc");
        }
    }
}

TEST_F(LoggerTest, LinesBecomeRecordsOnFlushOrOverflowAndPendingTextOnDestruction)
{
    const struct {
        std::function<void(std::ostream&)> write;
        Texts sentAtOnce, sentOnDestruction;
    } rows[] = {
        {[](std::ostream& s) { s << "abc" << std::endl; }, {"abc"}, {}},
        {[](std::ostream& s) { s << "a\n\nb" << std::endl; }, {"a", "", "b"}, {}},
        {[](std::ostream& s) { s << std::endl; }, {""}, {}},
        {[](std::ostream& s) { s << "100% done %s%n" << std::endl; }, {"100% done %s%n"}, {}},
        {[](std::ostream& s) { s << "abc" << std::flush; }, {}, {"abc"}},
        {[](std::ostream& s) { s << "abc\n"; }, {}, {"abc"}},
        {[](std::ostream& s) { s << line(300) << std::endl; }, {line(257), line(43, 257)}, {}},
        {[](std::ostream& s) { s << "0123456789\n" << line(300) << std::endl; },
         {"0123456789", line(257), line(43, 257)}, {}},
        {[](std::ostream& s) { s << line(256) << std::endl; }, {line(256)}, {}},
        {[](std::ostream& s) { s << line(256) << std::flush; }, {line(256)}, {}},
        {[](std::ostream& s) { s << line(255) << std::flush; }, {}, {line(255)}},
        {[](std::ostream& s) { s << line(256); }, {}, {line(256)}},
    };
    const auto records = [](Texts texts) {
        for (auto& text : texts) {
            text = "[Warn ] X: " + text;
        }
        return texts;
    };
    for (size_t i = 0; i < std::size(rows); ++i) {
        {
            Logger logger("X");
            rows[i].write(logger.warn());
            EXPECT_EQ(sentTexts(), records(rows[i].sentAtOnce)) << "row " << i;
        }
        EXPECT_EQ(sentTexts(), records(rows[i].sentOnDestruction)) << "row " << i;
    }
}

// The identity is process-wide and set once, so its whole story is one test.
TEST_F(LoggerTest, OnlyTheFirstNonEmptyIdentityCounts)
{
    Logger logger("X");
    for (const auto& [identity, expected] : {std::pair{"", ""}, std::pair{"first", "first"},
                                             std::pair{"second", "first"}, std::pair{"", "first"}}) {
        Logger::openSyslog(identity);
        logger.info() << "abc" << std::endl;
        const auto records = sent();
        ASSERT_EQ(records.size(), 1u);
        EXPECT_EQ(records[0].identity, expected) << "after openSyslog(\"" << identity << "\")";
    }
}

} // namespace
