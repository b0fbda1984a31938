#include "capture/CaptureOptions.h"

#include "capture/OptionScanner.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <stdexcept>

namespace Capture {

namespace {

unsigned long positiveNumber(const std::string& option, const std::string& text)
{
    char* end = nullptr;
    errno = 0;
    const unsigned long value = std::strtoul(text.c_str(), &end, 10);
    if (text.empty() || text[0] < '0' || text[0] > '9' || *end != '\0' || errno == ERANGE ||
        value == 0) {
        throw std::invalid_argument(option + " needs a whole number above 0, not \"" + text + "\"");
    }
    return value;
}

constexpr unsigned long minimumBytes = 16UL << 10;

// "1M", "512K" or plain bytes.
unsigned long byteCount(const std::string& option, const std::string& text)
{
    std::string digits = text;
    unsigned long unit = 1;
    if (!digits.empty() && (digits.back() == 'K' || digits.back() == 'M')) {
        unit = digits.back() == 'K' ? 1024UL : 1024UL * 1024UL;
        digits.pop_back();
    }
    const unsigned long value = positiveNumber(option, digits);
    if (value > ULONG_MAX / unit) {
        throw std::invalid_argument(option + " is too large: \"" + text + "\"");
    }
    return value * unit;
}

unsigned long sizeLimit(const std::string& option, const std::string& text)
{
    const unsigned long bytes = byteCount(option, text);
    if (bytes < minimumBytes) {
        throw std::invalid_argument(option + " needs at least 16K: the header alone takes a few "
                                             "kilobytes");
    }
    return bytes;
}

} // namespace

const char* CaptureOptions::usage()
{
    return "usage: hotplug_capture [-o FILE] [--sysfs] [-n COUNT] [-t SECONDS] [-s BYTES]\n"
           "  -o, --output FILE    write the capture to FILE instead of standard output\n"
           "      --sysfs          first record what the daemon reads in sysfs at start\n"
           "  -n, --count COUNT    stop after COUNT datagrams\n"
           "  -t, --duration SECONDS  stop after SECONDS\n"
           "  -s, --max-size BYTES stop before the capture grows past BYTES (K and M allowed,\n"
           "                       16K at least; 16M by default with -o, none on standard output)\n"
           "Ends on SIGINT or SIGTERM otherwise. Exit status 0, 1 when the capture failed,\n"
           "2 for a wrong command line.\n";
}

CaptureOptions CaptureOptions::parse(int argc, char** argv)
{
    static const option longOptions[] = {{"output", required_argument, nullptr, 'o'},
                                         {"sysfs", no_argument, nullptr, 'S'},
                                         {"count", required_argument, nullptr, 'n'},
                                         {"duration", required_argument, nullptr, 't'},
                                         {"max-size", required_argument, nullptr, 's'},
                                         {"help", no_argument, nullptr, 'h'},
                                         {nullptr, 0, nullptr, 0}};
    CaptureOptions options;
    bool sizeGiven = false;
    FieldTools::OptionScanner scanner(argc, argv, ":o:n:t:s:h", longOptions);
    for (int letter; (letter = scanner.next()) != -1;) {
        const std::string name = scanner.name();
        const std::string argument = scanner.argument();
        switch (letter) {
        case 'o':
            options.output = argument;
            if (options.output.empty()) {
                throw std::invalid_argument(name + " needs a file name");
            }
            break;
        case 'S':
            options.sysfs = true;
            break;
        case 'n':
            options.count = positiveNumber(name, argument);
            break;
        case 't':
            options.durationS = positiveNumber(name, argument);
            break;
        case 's':
            options.maxBytes = sizeLimit(name, argument);
            sizeGiven = true;
            break;
        case 'h':
            options.help = true;
            break;
        default:
            break;
        }
    }
    if (scanner.operandsLeft()) {
        throw std::invalid_argument("unexpected argument \"" + scanner.nextOperand() + "\"");
    }
    if (!sizeGiven && !options.output.empty()) {
        options.maxBytes = defaultFileBytes;
    }
    return options;
}

} // namespace Capture
