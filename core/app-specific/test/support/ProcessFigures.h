#ifndef LODESTONE_TEST_PROCESSFIGURES_H
#define LODESTONE_TEST_PROCESSFIGURES_H

#include <cstddef>

/// What this process holds, as the kernel tells.
struct ProcessFigures
{
    std::size_t descriptors = 0;
    std::size_t threads = 0;
    std::size_t residentBytes = 0;

    static ProcessFigures now();
};

#endif
