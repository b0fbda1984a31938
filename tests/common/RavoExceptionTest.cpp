#include "common/exceptions/RavoException.h"

#include <gtest/gtest.h>

#include <cstring>
#include <sstream>

using Common::Exceptions::RavoException;

namespace {

TEST(RavoExceptionTest, MessageErrorNumberStreamFormAndCopy)
{
    const std::string call = "C::m(): The call to open() returns the error: ";
    const struct {
        RavoException exception;
        std::string message;
        int errorNumber;
    } rows[] = {
        {{"C", "m", "open", 2}, call + "2 (No such file or directory)", 2},
        {{"C", "m", "open", 0}, call + "0 (" + std::strerror(0) + ")", 0},
        {{"C", "m", "open", 9999}, call + "9999 (" + std::strerror(9999) + ")", 9999},
        {{"C", "m", "No valid file path set"}, "C::m(): No valid file path set", 0},
    };
    for (const auto& row : rows) {
        RavoException copy("other");
        copy = row.exception;
        std::ostringstream stream;
        stream << copy;
        EXPECT_EQ(stream.str(), "Exception: \"" + row.message + "\"");
        EXPECT_EQ(copy.errorNumber(), row.errorNumber) << row.message;
    }
}

} // namespace
