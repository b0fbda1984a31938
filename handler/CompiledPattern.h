// Owner of one compiled POSIX regular expression. A pattern that failed to
// compile (or was released) matches nothing, so callers need no extra check.
#pragma once

#include <regex.h>
#include <string>

class CompiledPattern {
public:
    CompiledPattern();
    ~CompiledPattern();
    CompiledPattern(const CompiledPattern&) = delete;
    CompiledPattern& operator=(const CompiledPattern&) = delete;

    // Releases what was compiled before; returns regcomp's result.
    int compile(const char* pattern, int flags);
    bool matches(const char* text) const;
    bool matches(const std::string& text) const { return matches(text.c_str()); }
    // Safe to repeat.
    void release();

private:
    regex_t expression;
    bool compiled;
};
