#include "capture/OptionScanner.h"

#include <stdexcept>

namespace FieldTools {

OptionScanner::OptionScanner(int count, char** arguments, const char* shorts, const option* longs)
    : argc(count), argv(arguments), shortOptions(shorts), longOptions(longs)
{
    optind = 0; // a fresh scan, also when called again
    opterr = 0; // the messages are ours
}

int OptionScanner::next()
{
    longIndex = -1;
    letter = getopt_long(argc, argv, shortOptions, longOptions, &longIndex);
    if (letter == '?' || letter == ':') {
        const std::string written = argv[optind - 1];
        throw std::invalid_argument(letter == ':' ? written + " needs an argument"
                                                  : "unknown option \"" + written + "\"");
    }
    return letter;
}

// getopt_long sets the long option's index only when the long form was used.
std::string OptionScanner::name() const
{
    return longIndex >= 0 ? std::string("--") + longOptions[longIndex].name
                          : std::string("-") + static_cast<char>(letter);
}

std::string OptionScanner::nextOperand()
{
    return optind < argc ? argv[optind++] : "";
}

} // namespace FieldTools
