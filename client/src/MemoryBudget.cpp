#include "MemoryBudget.h"

#include "ReaderError.h"

#include <utility>

namespace LodestoneTap
{

MemoryClaim::MemoryClaim(MemoryBudget& budget, std::uint64_t bytes)
{
    if (bytes > budget.m_limitBytes - budget.m_usedBytes) {
        throw ReaderError(std::to_string(bytes) + " more bytes are over the memory limit of " +
                          std::to_string(budget.m_limitBytes) + " bytes, " +
                          std::to_string(budget.m_usedBytes) + " are in use");
    }
    budget.m_usedBytes += bytes;
    m_budget = &budget;
    m_bytes = bytes;
}

MemoryClaim::MemoryClaim(MemoryClaim&& other) noexcept
    : m_budget(std::exchange(other.m_budget, nullptr)), m_bytes(std::exchange(other.m_bytes, 0))
{}

MemoryClaim& MemoryClaim::operator=(MemoryClaim&& other) noexcept
{
    if (this != &other) {
        release();
        m_budget = std::exchange(other.m_budget, nullptr);
        m_bytes = std::exchange(other.m_bytes, 0);
    }
    return *this;
}

void MemoryClaim::release() noexcept
{
    if (m_budget != nullptr) {
        m_budget->m_usedBytes -= m_bytes;
        m_budget = nullptr;
    }
}

} // namespace LodestoneTap
