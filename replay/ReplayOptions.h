// hotplug_replay's command line. Parsing only: main acts on the result.
#pragma once

#include <map>
#include <string>

namespace Replay {

struct ReplayOptions {
    std::string capture; // a file, or "-" for standard input
    std::string daemon;
    bool fast = false;
    std::string expect;
    std::map<std::string, std::string> images;    // partition name -> image file
    std::map<std::string, std::string> addresses; // interface name -> MAC address text
    bool help = false;

    // Throws std::invalid_argument with a message for the user.
    static ReplayOptions parse(int argc, char** argv, const std::string& defaultDaemon);
    static const char* usage();
};

} // namespace Replay
