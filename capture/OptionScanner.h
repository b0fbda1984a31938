// getopt_long as both field tools use it: a fresh scan on every use, its own
// messages off, and what it refuses (an unknown option, a missing argument)
// turned into a message that names the option as the user wrote it.
#pragma once

#include <getopt.h>
#include <string>

namespace FieldTools {

class OptionScanner {
public:
    // The arrays must outlive the scanner.
    OptionScanner(int count, char** arguments, const char* shorts, const option* longs);

    // The next option's value (its letter, or the long option's val), -1
    // after the last one; throws std::invalid_argument for a refused one.
    int next();
    // The option in hand as the user wrote it: "--count" or "-n".
    std::string name() const;
    // The argument of the option in hand.
    std::string argument() const { return optarg != nullptr ? optarg : ""; }
    // The operands after the options, one by one; "" when none is left.
    std::string nextOperand();
    bool operandsLeft() const { return optind < argc; }

private:
    int argc;
    char** argv;
    const char* shortOptions;
    const option* longOptions;
    int letter = -1;
    int longIndex = -1;
};

} // namespace FieldTools
