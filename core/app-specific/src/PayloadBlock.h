#ifndef LODESTONE_APP_PAYLOADBLOCK_H
#define LODESTONE_APP_PAYLOADBLOCK_H

#include <cstddef>
#include <cstdint>

namespace Lodestone
{

/// Sole owner of a piece of memory for payloads, or of none. Moving hands it over.
///
/// Large pieces are mapped rather than taken from the heap: the heap learns from their coming and going to
/// keep them, so a burst that is over would stay resident for good.
class PayloadBlock
{
public:
    PayloadBlock() noexcept = default;
    /// Memory for `capacity` bytes, not cleared. Throws std::bad_alloc.
    explicit PayloadBlock(std::size_t capacity);
    ~PayloadBlock();

    PayloadBlock(PayloadBlock&& other) noexcept;
    PayloadBlock& operator=(PayloadBlock&& other) noexcept;
    PayloadBlock(const PayloadBlock&) = delete;
    PayloadBlock& operator=(const PayloadBlock&) = delete;

    explicit operator bool() const noexcept { return m_head != nullptr; }
    std::size_t capacity() const noexcept;
    /// The first byte, aligned for every type. Null without memory.
    std::uint8_t* data() noexcept;

private:
    friend class PayloadBlockStack;

    static constexpr std::size_t MAPPED_FROM = 131072; // bytes of capacity

    // Stands at the start of the memory itself, so that blocks can be stacked without an allocation.
    struct alignas(std::max_align_t) Head
    {
        Head* next;
        std::size_t capacity;
    };

    void free() noexcept;

    Head* m_head = nullptr;
};

/// Blocks that wait, newest on top. Owns them. All operations take constant time and none throws, but for
/// clear.
class PayloadBlockStack
{
public:
    PayloadBlockStack() noexcept = default;
    ~PayloadBlockStack() { clear(); }

    PayloadBlockStack(const PayloadBlockStack&) = delete;
    PayloadBlockStack& operator=(const PayloadBlockStack&) = delete;

    bool empty() const noexcept { return m_top == nullptr; }
    /// A block without memory is passed over.
    void push(PayloadBlock block) noexcept;
    /// The newest block, or one without memory if there is none.
    PayloadBlock pop() noexcept;
    /// Takes all blocks of `other`.
    void splice(PayloadBlockStack& other) noexcept;
    /// Frees all; takes a step for each.
    void clear() noexcept;

private:
    PayloadBlock::Head* m_top = nullptr;
    PayloadBlock::Head* m_bottom = nullptr;
};

} // namespace Lodestone

#endif
