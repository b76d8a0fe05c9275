#ifndef LODESTONE_BENCH_BARESENDER_H
#define LODESTONE_BENCH_BARESENDER_H

#include "ALStructs_extif.h"
#include "LoopbackPair.h"

#include <cstddef>
#include <vector>

/// The calls of send that a cycle makes, straight from the buffers' memory, without a library in between.
class BareSender
{
public:
    /// One cycle that carries these buffers whole. One thread at a time.
    void cycle(const std::vector<AlgoMeasBuffer>& buffers);
    DrainingReader& reader() { return m_road.reader(); }

private:
    void send(const void* data, std::size_t size);

    LoopbackPair m_road;
};

#endif
