// Fixture of the tests that read what the code under test sends to syslog: the
// records arrive at the private /dev/log that the shared test main binds.
#pragma once

#include "tests/support/PrivateDevLog.h"

#include <gtest/gtest.h>

#include <vector>

class SyslogTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!TestSupport::PrivateDevLog::available()) {
            GTEST_SKIP() << "needs the private /dev/log: " << TestSupport::PrivateDevLog::unavailableReason();
        }
        TestSupport::PrivateDevLog::reader().drain(0);
    }
    // syslog() has queued its datagram when it returns: no waiting needed.
    static std::vector<Sandbox::SyslogRecord> sent()
    {
        std::vector<Sandbox::SyslogRecord> records;
        for (Sandbox::SyslogRecord record; TestSupport::PrivateDevLog::reader().next(record, 0);) {
            records.push_back(record);
        }
        return records;
    }
    static std::vector<std::string> sentTexts()
    {
        std::vector<std::string> texts;
        for (const auto& record : sent()) {
            texts.push_back(record.text);
        }
        return texts;
    }
};
