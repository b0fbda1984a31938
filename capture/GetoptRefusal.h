// The message for what getopt_long refused with its own messages turned off
// (opterr = 0): a missing argument (':') or an unknown option ('?'), naming the
// option as the user wrote it. Shared by hotplug_capture and hotplug_replay.
#pragma once

#include <stdexcept>

namespace Capture {

std::invalid_argument getoptRefusal(int result, char** argv);

} // namespace Capture
