#ifndef LODESTONE_CLIENT_TEST_STREAMBYTES_H
#define LODESTONE_CLIENT_TEST_STREAMBYTES_H

#include <cstdint>
#include <string>
#include <vector>

namespace LodestoneTapTest
{

typedef std::vector<std::uint8_t> Bytes;

/// Payload of `size` bytes that tells its place and, by `seed`, which buffer it is.
inline Bytes pattern(std::size_t size, unsigned seed)
{
    Bytes bytes;
    for (std::size_t i = 0; i < size; ++i) {
        bytes.push_back(static_cast<std::uint8_t>(seed + 7 * i));
    }
    return bytes;
}

/// A stream, written item by item with offsets of its own: nothing here knows the reader's records.
class StreamBytes
{
public:
    StreamBytes& number(std::int64_t value)
    {
        const std::uint32_t bits = static_cast<std::uint32_t>(value);
        for (unsigned shift = 0; shift < 32; shift += 8) {
            m_bytes.push_back(static_cast<std::uint8_t>(bits >> shift));
        }
        return *this;
    }

    StreamBytes& raw(const Bytes& bytes)
    {
        m_bytes.insert(m_bytes.end(), bytes.begin(), bytes.end());
        return *this;
    }

    StreamBytes& cycle(std::int64_t counter, std::int64_t entries)
    {
        return number(0).number(counter).number(entries);
    }

    StreamBytes& header(std::int64_t channel, std::int64_t parts, std::int64_t total, std::int64_t part,
                        std::int64_t size)
    {
        return number(channel).number(parts).number(total).number(part).number(size);
    }

    StreamBytes& whole(std::int64_t channel, const Bytes& payload)
    {
        const std::int64_t size = static_cast<std::int64_t>(payload.size());
        return header(channel, 1, size, 0, size).raw(payload);
    }

    /// The bytes from `offset` on as part `part`; where they lie is the caller's business.
    StreamBytes& part(std::int64_t channel, std::int64_t parts, const Bytes& buffer, std::int64_t part,
                      std::size_t offset, std::size_t size)
    {
        const auto begin = buffer.begin() + static_cast<std::ptrdiff_t>(offset);
        return header(channel, parts, static_cast<std::int64_t>(buffer.size()), part,
                      static_cast<std::int64_t>(size))
            .raw(Bytes(begin, begin + static_cast<std::ptrdiff_t>(size)));
    }

    const Bytes& bytes() const { return m_bytes; }

private:
    Bytes m_bytes;
};

} // namespace LodestoneTapTest

#endif
