// Fixed paths that more than one part of the daemon uses.
#pragma once

#include <string>

// The cascading Ethernet adapter's one-line information file.
extern const std::string cascadingInfoFilePath;
