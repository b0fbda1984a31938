#include "capture/CaptureOptions.h"

#include <cerrno>
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

} // namespace

const char* CaptureOptions::usage()
{
    return "usage: hotplug_capture [-o FILE] [--sysfs] [-n COUNT] [-t SECONDS]\n"
           "  -o, --output FILE    write the capture to FILE instead of standard output\n"
           "      --sysfs          first record what the daemon reads in sysfs at start\n"
           "  -n, --count COUNT    stop after COUNT datagrams\n"
           "  -t, --duration SECONDS  stop after SECONDS\n"
           "Ends on SIGINT or SIGTERM otherwise. Exit status 0, 1 when the capture failed,\n"
           "2 for a wrong command line.\n";
}

CaptureOptions CaptureOptions::parse(int argc, char** argv)
{
    CaptureOptions options;
    for (int index = 1; index < argc; ++index) {
        std::string option = argv[index];
        std::string argument;
        bool attached = false;
        const size_t equals = option.find('=');
        if (option.rfind("--", 0) == 0 && equals != std::string::npos) {
            argument = option.substr(equals + 1);
            option.erase(equals);
            attached = true;
        }
        const auto takeArgument = [&]() {
            if (attached) {
                return argument;
            }
            if (index + 1 >= argc) {
                throw std::invalid_argument(option + " needs an argument");
            }
            return std::string(argv[++index]);
        };
        if (option == "-o" || option == "--output") {
            options.output = takeArgument();
            if (options.output.empty()) {
                throw std::invalid_argument(option + " needs a file name");
            }
        } else if (option == "-n" || option == "--count") {
            options.count = positiveNumber(option, takeArgument());
        } else if (option == "-t" || option == "--duration") {
            options.durationS = positiveNumber(option, takeArgument());
        } else if (option == "--sysfs" && !attached) {
            options.sysfs = true;
        } else if ((option == "-h" || option == "--help") && !attached) {
            options.help = true;
        } else {
            throw std::invalid_argument("unknown option \"" + std::string(argv[index]) + "\"");
        }
    }
    return options;
}

} // namespace Capture
