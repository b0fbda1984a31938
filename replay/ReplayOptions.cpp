#include "replay/ReplayOptions.h"

#include "capture/OptionScanner.h"

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
    enum : int { daemonOption = 1000, fastOption, expectOption, imageOption, addressOption };
    static const option longOptions[] = {{"daemon", required_argument, nullptr, daemonOption},
                                         {"fast", no_argument, nullptr, fastOption},
                                         {"expect", required_argument, nullptr, expectOption},
                                         {"image", required_argument, nullptr, imageOption},
                                         {"address", required_argument, nullptr, addressOption},
                                         {"help", no_argument, nullptr, 'h'},
                                         {nullptr, 0, nullptr, 0}};
    ReplayOptions options;
    options.daemon = defaultDaemon;
    FieldTools::OptionScanner scanner(argc, argv, ":h", longOptions);
    for (int letter; (letter = scanner.next()) != -1;) {
        switch (letter) {
        case daemonOption:
            options.daemon = scanner.argument();
            break;
        case fastOption:
            options.fast = true;
            break;
        case expectOption:
            options.expect = scanner.argument();
            break;
        case imageOption:
            addPair("--image", scanner.argument(), options.images);
            break;
        case addressOption:
            addPair("--address", scanner.argument(), options.addresses);
            break;
        case 'h':
            options.help = true;
            break;
        default:
            break;
        }
    }
    options.capture = scanner.nextOperand();
    if (scanner.operandsLeft()) {
        throw std::invalid_argument("one capture at a time, not also \"" + scanner.nextOperand() +
                                    "\"");
    }
    if (options.capture.empty() && !options.help) {
        throw std::invalid_argument("which capture?");
    }
    return options;
}

} // namespace Replay
