#include "capture/GetoptRefusal.h"

#include <getopt.h>
#include <string>

namespace Capture {

std::invalid_argument getoptRefusal(int result, char** argv)
{
    const std::string written = argv[optind - 1];
    return std::invalid_argument(result == ':' ? written + " needs an argument"
                                               : "unknown option \"" + written + "\"");
}

} // namespace Capture
