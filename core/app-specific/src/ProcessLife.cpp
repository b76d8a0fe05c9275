#include "ProcessLife.h"

#include <pthread.h>

namespace Lodestone
{

std::atomic<std::uint32_t> ProcessLife::s_forks{0};
std::atomic<bool> ProcessLife::s_exiting{false};

void ProcessLife::watchForks()
{
    static bool watching = false; // host thread only, like the construction of queues
    if (!watching) {
        // A failure, for want of memory, is passed over: it only matters to a child that goes on using the
        // library.
        watching = ::pthread_atfork(nullptr, nullptr, &ProcessLife::countFork) == 0;
    }
}

} // namespace Lodestone
