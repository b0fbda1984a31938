// A failed system call, as the field tools report one: a std::system_error
// that keeps errno and reads "what: error text" ("LoopDisk: open /dev/loop3:
// No such file or directory"). Build it right after the failing call, before
// errno can change; failures that are no system call's stay runtime_error.
#pragma once

#include <cerrno>
#include <string>
#include <system_error>

namespace Sandbox {

inline std::system_error systemError(const std::string& what, int error = errno)
{
    return {error, std::generic_category(), what};
}

} // namespace Sandbox
