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
std::atomic<std::size_t> g_failAt{0};
std::atomic<bool (*)()> g_filter{nullptr};
std::atomic<std::size_t> g_live{0};
std::atomic<std::size_t> g_liveBytes{0};

void* allocate(std::size_t size) noexcept
{
    const bool failsHere = ++t_count == t_failAt;
    const bool failsAnywhere = ++g_count == g_failAt;
    bool (*const filter)() = g_filter;
    if (failsHere || failsAnywhere || (filter != nullptr && filter())) {
        return nullptr;
    }
    void* const block = std::malloc(size == 0 ? 1 : size);
    if (block != nullptr) {
        ++g_live;
        g_liveBytes += malloc_usable_size(block);
    }
    return block;
}

void* allocateOrThrow(std::size_t size)
{
    void* const block = allocate(size);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}

void release(void* block) noexcept
{
    if (block != nullptr) {
        --g_live;
        g_liveBytes -= malloc_usable_size(block);
        std::free(block);
    }
}

} // namespace

AllocationScope::AllocationScope(std::size_t failAt, Threads threads)
    : m_threads(threads), m_begin(threads == Threads::ALL ? g_count.load() : t_count),
      m_failAt(failAt == NEVER ? 0 : m_begin + failAt)
{
    if (m_threads == Threads::ALL) {
        g_failAt = m_failAt;
    } else {
        t_failAt = m_failAt;
    }
}

AllocationScope::~AllocationScope()
{
    if (m_threads == Threads::ALL) {
        g_failAt = 0;
    } else {
        t_failAt = 0;
    }
}

std::size_t AllocationScope::count() const
{
    return (m_threads == Threads::ALL ? g_count.load() : t_count) - m_begin;
}

bool AllocationScope::failed() const
{
    return m_failAt != 0 && count() >= m_failAt - m_begin;
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

// All forms stand here: a sanitizer's own don't call one another.
void* operator new(std::size_t size)
{
    return allocateOrThrow(size);
}
void* operator new[](std::size_t size)
{
    return allocateOrThrow(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    return allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept
{
    return allocate(size);
}
void operator delete(void* block) noexcept
{
    release(block);
}
void operator delete[](void* block) noexcept
{
    release(block);
}
void operator delete(void* block, std::size_t) noexcept
{
    release(block);
}
void operator delete[](void* block, std::size_t) noexcept
{
    release(block);
}
void operator delete(void* block, const std::nothrow_t&) noexcept
{
    release(block);
}
void operator delete[](void* block, const std::nothrow_t&) noexcept
{
    release(block);
}
