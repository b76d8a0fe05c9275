#include "AllocationHook.h"

#include <atomic>
#include <cstdlib>
#include <malloc.h>
#include <new>

namespace
{

// Allocations since the start, and the one that fails. Numbers begin with 1, so that 0 stands for none.
thread_local std::size_t t_count = 0;
thread_local std::size_t t_failAt = 0;
std::atomic<std::size_t> g_count{0};
std::atomic<bool (*)()> g_filter{nullptr};
std::atomic<std::size_t> g_live{0};
std::atomic<std::size_t> g_liveBytes{0};

void* allocate(std::size_t size) noexcept
{
    ++g_count;
    bool (*const filter)() = g_filter;
    if (++t_count == t_failAt || (filter != nullptr && filter())) {
        return nullptr;
    }
    void* const block = std::malloc(size == 0 ? 1 : size);
    if (block != nullptr) {
        ++g_live;
        g_liveBytes += malloc_usable_size(block);
    }
    return block;
}

} // namespace

AllocationScope::AllocationScope(std::size_t failAt, Threads threads) : m_threads(threads), m_begin(total())
{
    t_failAt = failAt == NEVER ? 0 : t_count + failAt;
}

AllocationScope::~AllocationScope()
{
    t_failAt = 0;
}

std::size_t AllocationScope::total() const
{
    return m_threads == Threads::ALL ? g_count.load() : t_count;
}

bool AllocationScope::failed() const
{
    return t_failAt != 0 && t_count >= t_failAt;
}

void AllocationScope::setFilter(bool (*fails)())
{
    g_filter = fails;
}

std::size_t AllocationScope::liveBytes()
{
    return g_liveBytes;
}

std::size_t AllocationScope::liveBlocks()
{
    return g_live;
}

// Only these: the C++ library's other forms come down to them. A sanitizer's don't, so these four belong
// together, as what one of the first two has allocated may be freed by either of the others. A sanitizer's
// forms for arrays are a world of their own: under it nobody counts or fails them.
void* operator new(std::size_t size)
{
    void* const block = allocate(size);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    return allocate(size);
}
void operator delete(void* block) noexcept
{
    if (block != nullptr) {
        --g_live;
        g_liveBytes -= malloc_usable_size(block);
        std::free(block);
    }
}
void operator delete(void* block, std::size_t) noexcept
{
    operator delete(block);
}
