// Contract violations inside the OSAL end the process with the C library's
// assertion report, also in release builds (NDEBUG does not switch it off).
#pragma once

#include <cassert>

#ifdef NDEBUG
// <cassert> declares the C library's reporter only for debug builds.
extern "C" [[noreturn]] void __assert_fail(const char* assertion, const char* file,
                                           unsigned int line, const char* function) noexcept;
#endif

#define OSAL_FATAL_ASSERT(expr, file)                                                              \
    ((expr) ? static_cast<void>(0) : __assert_fail(#expr, file, __LINE__, __PRETTY_FUNCTION__))
