// Builds the exception for a failed system call from errno, so that every
// message names the class, the call and its object ("LoopDisk: open /dev/loop3").
// Callers must build it right after the failing call, before errno can change.
#pragma once

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

namespace Sandbox {

inline std::runtime_error systemError(const std::string& what, int error = errno)
{
    return std::runtime_error(what + ": " + std::strerror(error));
}

} // namespace Sandbox
