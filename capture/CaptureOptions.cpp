#include "capture/CaptureOptions.h"

#include "capture/GetoptRefusal.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <getopt.h>
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

// The option in hand as the messages name it: getopt_long sets the long
// option's index only when the long form was used.
std::string optionName(const option* longOptions, int index, int letter)
{
    return index >= 0 ? std::string("--") + longOptions[index].name
                      : std::string("-") + static_cast<char>(letter);
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
    optind = 0; // a fresh scan, also when called again
    opterr = 0; // the messages below are ours
    for (;;) {
        int index = -1;
        const int letter = getopt_long(argc, argv, ":o:n:t:s:h", longOptions, &index);
        if (letter == -1) {
            break;
        }
        const std::string name = optionName(longOptions, index, letter);
        switch (letter) {
        case 'o':
            options.output = optarg;
            if (options.output.empty()) {
                throw std::invalid_argument(name + " needs a file name");
            }
            break;
        case 'S':
            options.sysfs = true;
            break;
        case 'n':
            options.count = positiveNumber(name, optarg);
            break;
        case 't':
            options.durationS = positiveNumber(name, optarg);
            break;
        case 's':
            options.maxBytes = byteCount(name, optarg);
            if (options.maxBytes < minimumBytes) {
                throw std::invalid_argument(name + " needs at least 16K: the header alone takes a "
                                                   "few kilobytes");
            }
            sizeGiven = true;
            break;
        case 'h':
            options.help = true;
            break;
        default:
            throw Capture::getoptRefusal(letter, argv);
        }
    }
    if (optind < argc) {
        throw std::invalid_argument("unexpected argument \"" + std::string(argv[optind]) + "\"");
    }
    if (!sizeGiven && !options.output.empty()) {
        options.maxBytes = defaultFileBytes;
    }
    return options;
}

} // namespace Capture
