#ifndef LODESTONE_CLIENT_MEMORYBUDGET_H
#define LODESTONE_CLIENT_MEMORYBUDGET_H

#include <cstdint>

namespace LodestoneTap
{

/// Counts the bytes that one stream holds against its limit, so that sizes announced by a broken or hostile
/// peer can't exhaust the machine. It must outlive its claims. No lock: one thread at a time.
class MemoryBudget
{
public:
    explicit MemoryBudget(std::uint64_t limitBytes) : m_limitBytes(limitBytes) {}

    MemoryBudget(const MemoryBudget&) = delete;
    MemoryBudget& operator=(const MemoryBudget&) = delete;

    std::uint64_t usedBytes() const { return m_usedBytes; }

private:
    friend class MemoryClaim;

    std::uint64_t m_limitBytes;
    std::uint64_t m_usedBytes = 0;
};

/// A share of the budget, given back by the destructor. Whoever owns the memory keeps the claim beside it.
class MemoryClaim
{
public:
    MemoryClaim() = default;

    /// Throws ReaderError if the budget doesn't have `bytes` left. Nothing is allocated here.
    MemoryClaim(MemoryBudget& budget, std::uint64_t bytes);

    MemoryClaim(MemoryClaim&& other) noexcept;
    MemoryClaim& operator=(MemoryClaim&& other) noexcept;
    ~MemoryClaim() { release(); }

private:
    void release() noexcept;

    MemoryBudget* m_budget = nullptr;
    std::uint64_t m_bytes = 0;
};

} // namespace LodestoneTap

#endif
