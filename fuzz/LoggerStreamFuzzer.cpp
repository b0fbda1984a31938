// The logger's stream buffer under random writes, flushes, line ends, name
// changes and line lengths, destroyed with text pending. syslog() is the
// tests' captured one, so every record is checked against a plain-string model
// of the buffer: nothing lost, nothing doubled, long lines cut after 257
// characters.
#include "common/logging/LoggerOutStreamBuffer.h"
#include "tests/support/CapturedSyslog.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>
#include <syslog.h>
#include <vector>

namespace {

struct Record {
    int priority;
    std::string text;
    bool operator==(const Record& other) const
    {
        return priority == other.priority && text == other.text;
    }
};

// What the buffer must send, kept as plain strings.
class Model {
public:
    Model(int level, const char* levelTag) : priority(LOG_USER | level), tag(levelTag) {}

    void put(char c)
    {
        // The put area holds 256; the character that does not fit triggers a sync.
        const bool full = pending.size() == 256;
        pending += c;
        if (full) {
            sync();
        }
    }
    void sync()
    {
        size_t start = 0;
        for (size_t newline; (newline = pending.find('\n', start)) != std::string::npos;
             start = newline + 1) {
            send(pending.substr(start, newline - start));
        }
        pending.erase(0, start);
        if (pending.size() > 255) {
            send(pending);
            pending.clear();
        }
    }
    void close()
    {
        if (!pending.empty() && pending.back() != '\n') {
            put('\n');
        }
        sync();
    }
    void setName(const std::string& newName) { name = newName; }
    std::vector<Record> expected;

private:
    void send(const std::string& line)
    {
        // A record is a C string: it ends at the first NUL of the line.
        expected.push_back({priority, "[" + tag + "] " + name + ": " + line.c_str()});
    }

    int priority;
    std::string tag;
    std::string name = "Fuzz";
    std::string pending;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1) {
        return 0;
    }
    static const struct {
        int level;
        const char* tag;
    } levels[] = {{LOG_DEBUG, "Debug"},
                  {LOG_INFO, "Info "},
                  {LOG_WARNING, "Warn "},
                  {LOG_ERR, "Error"},
                  {LOG_CRIT, "Fatal"}};
    const auto& level = levels[data[0] % 5];
    Model model(level.level, level.tag);
    TestSupport::CapturedSyslog::take();
    {
        Common::Logging::LoggerOutStreamBuffer buffer(level.level, "Fuzz");
        std::ostream out(&buffer);
        const auto writeText = [&](const std::string& text) {
            out << text;
            for (const char c : text) {
                model.put(c);
            }
        };
        size_t at = 1;
        while (at < size) {
            const uint8_t operation = data[at++];
            const size_t length = at < size ? data[at++] : 0;
            switch (operation % 6) {
            case 0: // raw bytes, '%' and NUL included
            {
                const size_t count = std::min(length, size - at);
                writeText(std::string(reinterpret_cast<const char*>(data + at), count));
                at += count;
                break;
            }
            case 1:
                out << std::flush;
                model.sync();
                break;
            case 2:
                out << std::endl;
                model.put('\n');
                model.sync();
                break;
            case 3: // a long run, up to several records' worth
                writeText(std::string(length * 3, static_cast<char>('a' + length % 26)));
                break;
            case 4:
                writeText(std::to_string(length) + "%s");
                break;
            default: {
                const std::string name(length % 40, 'n');
                buffer.setName(name);
                model.setName(name);
                break;
            }
            }
        }
        if (!out.good()) {
            __builtin_trap();
        }
    }
    model.close();
    std::vector<Record> sent;
    for (const auto& record : TestSupport::CapturedSyslog::take()) {
        sent.push_back({record.priority, record.text});
    }
    if (!(sent == model.expected)) {
        __builtin_trap();
    }
    return 0;
}
