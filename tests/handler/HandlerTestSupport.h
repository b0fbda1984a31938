// Shared by the handler's unit tests: a handler thread object that is never
// started (its operations are called on the test's thread) and the syslog
// records its logger sends.
#pragma once

#include "handler/HotplugHandlerThread.h"
#include "tests/support/PrivateDevLog.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

class HandlerTest : public testing::Test {
protected:
    // The texts of the records that arrive within a short quiet period.
    std::vector<std::string> records()
    {
        auto& reader = TestSupport::PrivateDevLog::reader();
        const auto before = reader.history().size();
        reader.drain(20); // syslog() has sent before it returns
        const auto& all = reader.history();
        std::vector<std::string> texts;
        for (auto i = before; i < all.size(); ++i) {
            texts.push_back(all[i].text);
        }
        return texts;
    }

    void SetUp() override { TestSupport::PrivateDevLog::reader().drain(0); }

    HotplugHandlerThread thread;
};
