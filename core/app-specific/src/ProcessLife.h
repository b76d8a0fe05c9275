#ifndef LODESTONE_APP_PROCESSLIFE_H
#define LODESTONE_APP_PROCESSLIFE_H

#include <atomic>
#include <cstdint>

namespace Lodestone
{

/// The two turns in a process's life that the library's threads don't survive: the exit handlers, and a fork,
/// after which the child has the memory but not the threads. Any thread; no locks.
class ProcessLife
{
public:
    /// From now on every fork counts. Called when the library is loaded; later calls do nothing.
    static void watchForks();

    /// How many forks lie between this process and the one that loaded the library. A queue compares it with
    /// the value of its construction: if they differ, its threads don't exist here and its mutexes may be
    /// locked for ever.
    static std::uint32_t forks() noexcept { return s_forks.load(std::memory_order_relaxed); }

    /// The exit handlers have begun: nobody may wait for the host's thread any more.
    static void announceExit() noexcept { s_exiting.store(true); }
    static bool exiting() noexcept { return s_exiting.load(); }

private:
    static void countFork() noexcept { s_forks.fetch_add(1, std::memory_order_relaxed); }

    static std::atomic<std::uint32_t> s_forks; // written in a child before it has a second thread
    static std::atomic<bool> s_exiting;
};

} // namespace Lodestone

#endif
