#include "PayloadBlock.h"

#include <limits>
#include <new>
#include <sys/mman.h>
#include <utility>

namespace Lodestone
{

PayloadBlock::PayloadBlock(std::size_t capacity)
{
    if (capacity > std::numeric_limits<std::size_t>::max() / 2 - sizeof(Head)) {
        throw std::bad_alloc();
    }
    void* memory = nullptr;
    if (capacity < MAPPED_FROM) {
        memory = ::operator new(sizeof(Head) + capacity);
    } else {
        memory = ::mmap(nullptr, sizeof(Head) + capacity, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS,
                        -1, 0);
        if (memory == MAP_FAILED) {
            throw std::bad_alloc();
        }
    }
    m_head = new (memory) Head{nullptr, capacity};
}

PayloadBlock::~PayloadBlock()
{
    free();
}

void PayloadBlock::free() noexcept
{
    if (m_head != nullptr && m_head->capacity >= MAPPED_FROM) {
        ::munmap(m_head, sizeof(Head) + m_head->capacity);
    } else {
        ::operator delete(m_head);
    }
}

PayloadBlock::PayloadBlock(PayloadBlock&& other) noexcept : m_head(std::exchange(other.m_head, nullptr)) {}

PayloadBlock& PayloadBlock::operator=(PayloadBlock&& other) noexcept
{
    if (this != &other) {
        free();
        m_head = std::exchange(other.m_head, nullptr);
    }
    return *this;
}

std::size_t PayloadBlock::capacity() const noexcept
{
    return m_head == nullptr ? 0 : m_head->capacity;
}

std::uint8_t* PayloadBlock::data() noexcept
{
    return m_head == nullptr ? nullptr : reinterpret_cast<std::uint8_t*>(m_head + 1);
}

void PayloadBlockStack::push(PayloadBlock block) noexcept
{
    PayloadBlock::Head* const head = std::exchange(block.m_head, nullptr);
    if (head == nullptr) {
        return;
    }
    head->next = m_top;
    m_top = head;
    if (m_bottom == nullptr) {
        m_bottom = head;
    }
}

PayloadBlock PayloadBlockStack::pop() noexcept
{
    PayloadBlock block;
    if (m_top != nullptr) {
        block.m_head = m_top;
        m_top = m_top->next;
        if (m_top == nullptr) {
            m_bottom = nullptr;
        }
    }
    return block;
}

void PayloadBlockStack::splice(PayloadBlockStack& other) noexcept
{
    if (other.m_top == nullptr) {
        return;
    }
    other.m_bottom->next = m_top;
    if (m_bottom == nullptr) {
        m_bottom = other.m_bottom;
    }
    m_top = other.m_top;
    other.m_top = nullptr;
    other.m_bottom = nullptr;
}

void PayloadBlockStack::clear() noexcept
{
    while (!empty()) {
        pop();
    }
}

} // namespace Lodestone
