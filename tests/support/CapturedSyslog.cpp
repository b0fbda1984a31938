#include "tests/support/CapturedSyslog.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <pthread.h>

namespace TestSupport {

namespace {

std::mutex lock;
std::vector<CapturedRecord> records;
const char* openedIdentity = "";

__attribute__((format(printf, 2, 0))) void capture(int priority, const char* format,
                                                   va_list arguments)
{
    // The C library's syslog() is a cancellation point; so is this one.
    pthread_testcancel();
    va_list copy;
    va_copy(copy, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    std::string text(static_cast<size_t>(length > 0 ? length : 0), '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, arguments);
    const std::lock_guard<std::mutex> guard(lock);
    records.push_back({priority, openedIdentity, text});
}

} // namespace

std::vector<CapturedRecord> CapturedSyslog::take()
{
    const std::lock_guard<std::mutex> guard(lock);
    std::vector<CapturedRecord> taken;
    taken.swap(records);
    return taken;
}

std::vector<std::string> CapturedSyslog::takeTexts()
{
    std::vector<std::string> texts;
    for (const auto& record : take()) {
        texts.push_back(record.text);
    }
    return texts;
}

} // namespace TestSupport

extern "C" {

void openlog(const char* identity, int, int)
{
    const std::lock_guard<std::mutex> guard(TestSupport::lock);
    TestSupport::openedIdentity = identity != nullptr ? identity : "";
}

__attribute__((format(printf, 2, 3))) void syslog(int priority, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    TestSupport::capture(priority, format, arguments);
    va_end(arguments);
}

__attribute__((format(printf, 3, 4))) void __syslog_chk(int priority, int, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    TestSupport::capture(priority, format, arguments);
    va_end(arguments);
}

} // extern "C"
