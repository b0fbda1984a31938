// Runs a system tool (sfdisk, partx, mkfs) to completion for the sandbox's
// set-up code and returns its output; a failure becomes an exception carrying
// the tool's own error text. Not for the daemon, which Sandbox starts itself.
#pragma once

#include <string>
#include <vector>

namespace Sandbox {

class Command {
public:
    // Runs arguments[0], found in the sbin and bin directories, with stdin
    // from /dev/null (or from `input`) and returns its standard output; throws
    // std::runtime_error when it cannot start or exits other than with 0.
    static std::string run(const std::vector<std::string>& arguments,
                           const std::string& input = "");

    // The full path of a tool, or "" when it is not installed.
    static std::string find(const std::string& program);
};

} // namespace Sandbox
