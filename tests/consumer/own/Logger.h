// A header of the consumer's, with a name that one of the library's has, too.
#pragma once

#include <cstdio>

inline void logOwn(const char* text)
{
    std::fputs(text, stdout);
}
