#include "handler/CompiledPattern.h"

#include <cstring>

CompiledPattern::CompiledPattern() : expression(), compiled(false)
{
    std::memset(&expression, 0, sizeof(expression));
}

CompiledPattern::~CompiledPattern()
{
    release();
}

int CompiledPattern::compile(const char* pattern, int flags)
{
    release();
    const int result = regcomp(&expression, pattern, flags);
    if (result == 0) {
        compiled = true;
    } else {
        std::memset(&expression, 0, sizeof(expression));
    }
    return result;
}

bool CompiledPattern::matches(const char* text) const
{
    return compiled && regexec(&expression, text, 0, nullptr, 0) == 0;
}

void CompiledPattern::release()
{
    if (compiled) {
        regfree(&expression);
        std::memset(&expression, 0, sizeof(expression));
        compiled = false;
    }
}
