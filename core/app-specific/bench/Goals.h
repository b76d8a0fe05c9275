#ifndef LODESTONE_BENCH_GOALS_H
#define LODESTONE_BENCH_GOALS_H

#include "Samples.h"
#include "Summary.h"

#include <cstddef>
#include <functional>
#include <utility>
#include <vector>

typedef std::vector<std::pair<int, std::size_t>> Groups; ///< Of a Load: how many buffers of how many bytes.

inline double timed(const std::function<void()>& operation)
{
    const double start = nowNs();
    operation();
    return nowNs() - start;
}

/// The part of frame_goals about the sender's thread.
void senderGoals(Summary& summary);

#endif
