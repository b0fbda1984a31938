#include "tests/osal/OsalTestThread.h"

#include "Osal/commonCppOsalLinux/cpp/OsalBinaryMutex.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace OsalTest;
using Halvern::CommonCpp::Osal::OsalBinaryMutex;

const std::string threadSource = "Osal/commonCppOsalLinux/cpp/OsalThread.cpp";
const std::string nameSpace = "Halvern::CommonCpp::Osal::";

// The C library's report: "<file>:<line>: <function>: Assertion `<text>' failed."
std::string assertionReport(const std::string& file, const std::string& function,
                            const std::string& text)
{
    std::string pattern = file + ":[0-9]+: ";
    for (const char c : function + ": Assertion `!\"" + text + "\"' failed.") {
        if (std::string(".[]{}()\\*+?^$|").find(c) != std::string::npos) {
            pattern += '\\';
        }
        pattern += c;
    }
    return pattern;
}

void blockForever(TestThread&, Shared& shared)
{
    shared.gate.lock();
}

TEST(OsalFatalAssertDeathTest, ContractViolationsEndTheProcessNamingTheirSource)
{
    // fork() without exec: re-executing the binary fails under qemu-user.
    GTEST_FLAG_SET(death_test_style, "fast");
    const std::string priority = "bool " + nameSpace + "OsalThread::setPriority(int32_t)";
    const std::string privileged = "bool " + nameSpace + "OsalThread::enablePrivilegedExecution(bool)";
    const std::pair<void (*)(), std::string> rows[] = {
        {[] { TestThread(blockForever).setPriority(OsalThread::getMinPriority() - 1); },
         assertionReport(threadSource, priority, "Priority not in allowed range!")},
        {[] { TestThread(blockForever).setPriority(OsalThread::getMaxPriority() + 1); },
         assertionReport(threadSource, priority, "Priority not in allowed range!")},
        {[] { TestThread(blockForever).enablePrivilegedExecution(true); },
         assertionReport(threadSource, privileged,
                         "Setting privileged execution mode NOT supported in this implementation!")},
        {[] {
             Shared shared;
             TestThread running(blockForever);
             running.start(&shared);
             running.enablePrivilegedExecution(false);
         },
         assertionReport(threadSource, privileged,
                         "Setting privileged execution mode for running thread NOT possible!")},
        {[] { OsalBinaryMutex().unlockFromIsr(); },
         assertionReport("Osal/commonCppOsalLinux/cpp/OsalBinaryMutex.cpp",
                         "virtual void " + nameSpace + "OsalBinaryMutex::unlockFromIsr()",
                         "Call to illegal method OsalBinaryMutex::unlockFromIsr()")},
    };
    for (const auto& [violation, report] : rows) {
        EXPECT_DEATH(violation(), report);
    }
}

} // namespace
