#ifndef LODESTONE_BENCH_COPYFLOOR_H
#define LODESTONE_BENCH_COPYFLOOR_H

#include "Load.h"

#include <cstring>
#include <vector>

/// The floor: the same bytes copied into memory that is there, as many frames deep as the tap's own.
class CopyFloor
{
public:
    CopyFloor(const Load& load, std::size_t depth) : m_slots(depth, std::vector<char>(load.bytes() + 16)) {}

    void apply(const std::vector<AlgoMeasBuffer>& buffers)
    {
        char* next = m_slots[m_slot++ % m_slots.size()].data();
        for (const AlgoMeasBuffer& buffer : buffers) {
            std::memcpy(next, buffer.buffer, buffer.sizeTotal);
            next += buffer.sizeTotal;
        }
        asm volatile("" : : "r"(next) : "memory"); // the copies are wanted, whoever looks
    }

private:
    std::vector<std::vector<char>> m_slots;
    std::size_t m_slot = 0;
};

#endif
