// A failed system call, as the field tools report one: a std::system_error
// that keeps errno and reads "what: error text" ("LoopDisk: open /dev/loop3:
// No such file or directory"). Build it right after the failing call, before
// errno can change; failures that are no system call's stay runtime_error.
#pragma once

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <system_error>

namespace Sandbox {

inline std::system_error systemError(const std::string& what, int error = errno)
{
    return {error, std::generic_category(), what};
}

// For what fails while tearing down, where nothing may throw: said on stderr.
inline void warnSystemError(const std::string& what, int error = errno) noexcept
{
    static_cast<void>(std::fprintf(stderr, "%s: %s\n", what.c_str(), std::strerror(error)));
}

} // namespace Sandbox
