#include "FuzzTarget.h"

#include <cstdio>
#include <cstdlib>

void fuzzCheck(bool holds, const std::string& what)
{
    if (!holds) {
        std::fprintf(stderr, "The target's own check failed: %s\n", what.c_str());
        std::abort();
    }
}
