#ifndef LODESTONE_TEST_ALLOCATIONHOOK_H
#define LODESTONE_TEST_ALLOCATIONHOOK_H

#include <cstddef>

/// Counts the allocations of a test program and makes one of them fail.
///
/// A program that is linked with AllocationHook.cpp allocates by its operators new, but for over-aligned
/// types. They work under the sanitizers too, which see the malloc below them; GCC's address sanitizer keeps
/// arrays to itself.
///
/// A scope watches from its construction to its end. At a time there may be one for each thread, or one for
/// all of them. Inside a scope that fails call only the code under test: the test framework allocates as
/// well.
class AllocationScope
{
public:
    enum class Threads
    {
        CALLING, ///< Only allocations of the thread that made the scope.
        ALL      ///< Those of every thread, in the order in which they come.
    };

    static constexpr std::size_t NEVER = 0;

    /// Fails the calling thread's `failAt`-th allocation, counted from 1, by std::bad_alloc; those before and
    /// after it succeed.
    explicit AllocationScope(std::size_t failAt = NEVER, Threads threads = Threads::CALLING);
    ~AllocationScope();

    AllocationScope(const AllocationScope&) = delete;
    AllocationScope& operator=(const AllocationScope&) = delete;

    /// Allocations tried since the scope began, the failed one included.
    std::size_t count() const { return total() - m_begin; }

    /// Whether the allocation that was to fail has been tried. A sweep is at its end when it has not.
    bool failed() const;

    /// Each allocation of any thread for which `fails` answers true fails, until the next call; null: none.
    static void setFilter(bool (*fails)());

    /// Blocks of the whole program that are allocated and not freed. Equal before and after what leaks
    /// nothing.
    static std::size_t liveBlocks();

    /// Bytes in them, as the heap rounds them: two blocks of one size may differ by ROUNDING, for a place
    /// that is a little too large isn't split.
    static std::size_t liveBytes();
    static constexpr std::size_t ROUNDING = 16;

private:
    std::size_t total() const;

    const Threads m_threads;
    const std::size_t m_begin;
};

#endif
