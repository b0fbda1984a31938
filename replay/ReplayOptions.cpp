#include "replay/ReplayOptions.h"

#include <stdexcept>

namespace Replay {

namespace {

void addPair(const std::string& option, const std::string& text,
             std::map<std::string, std::string>& pairs)
{
    const size_t equals = text.find('=');
    if (equals == 0 || equals == std::string::npos || equals + 1 == text.size()) {
        throw std::invalid_argument(option +
                                    (option == "--image" ? " needs NAME=FILE" : " needs NAME=MAC") +
                                    ", not \"" + text + "\"");
    }
    pairs[text.substr(0, equals)] = text.substr(equals + 1);
}

} // namespace

const char* ReplayOptions::usage()
{
    return "usage: hotplug_replay CAPTURE [--daemon BINARY] [--fast] [--expect STATE]\n"
           "                      [--image NAME=FILE]... [--address ethN=MAC]...\n"
           "  CAPTURE              hotplug_capture's output or pasted udevadm monitor\n"
           "                       --kernel --property output; - reads standard input\n"
           "  --daemon BINARY      the daemon to run (default: this build's, else the installed "
           "one)\n"
           "  --fast               send each datagram once the daemon has taken the one before\n"
           "  --expect STATE       compare the final state with STATE; exit 1 with a diff\n"
           "  --image NAME=FILE    the file system image behind partition NAME (read-only)\n"
           "  --address ethN=MAC   the MAC address the daemon reads for interface ethN\n"
           "Exit status 0, 1 when the state differs or the replay failed, 2 for bad input.\n";
}

ReplayOptions ReplayOptions::parse(int argc, char** argv, const std::string& defaultDaemon)
{
    ReplayOptions options;
    options.daemon = defaultDaemon;
    for (int index = 1; index < argc; ++index) {
        const std::string option = argv[index];
        const auto argument = [&]() {
            if (index + 1 >= argc) {
                throw std::invalid_argument(option + " needs an argument");
            }
            return std::string(argv[++index]);
        };
        if (option == "--daemon") {
            options.daemon = argument();
        } else if (option == "--fast") {
            options.fast = true;
        } else if (option == "--expect") {
            options.expect = argument();
        } else if (option == "--image") {
            addPair(option, argument(), options.images);
        } else if (option == "--address") {
            addPair(option, argument(), options.addresses);
        } else if (option == "-h" || option == "--help") {
            options.help = true;
        } else if (option.size() > 1 && option[0] == '-') {
            throw std::invalid_argument("unknown option \"" + option + "\"");
        } else if (options.capture.empty()) {
            options.capture = option;
        } else {
            throw std::invalid_argument("one capture at a time, not also \"" + option + "\"");
        }
    }
    if (options.capture.empty() && !options.help) {
        throw std::invalid_argument("which capture?");
    }
    return options;
}

} // namespace Replay
