#ifndef LODESTONE_CLIENT_WIREBYTES_H
#define LODESTONE_CLIENT_WIREBYTES_H

#include <cstddef>
#include <cstdint>

namespace LodestoneTap
{

/// Loads of a fixed byte order from any address, so that the reader gives the same values on every machine:
/// the stream and its records are little-endian, the descriptions of records are big-endian.

/// `width` bytes, 1 to 8, least significant first.
inline std::uint64_t loadLittleEndian(const std::uint8_t* bytes, std::size_t width)
{
    std::uint64_t value = 0;
    for (std::size_t i = width; i > 0; --i) {
        value = (value << 8) | bytes[i - 1];
    }
    return value;
}

inline std::int32_t loadLittleEndianInt32(const std::uint8_t* bytes)
{
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(loadLittleEndian(bytes, 4)));
}

inline std::uint32_t loadBigEndian32(const std::uint8_t* bytes)
{
    return (std::uint32_t{bytes[0]} << 24) | (std::uint32_t{bytes[1]} << 16) |
           (std::uint32_t{bytes[2]} << 8) | std::uint32_t{bytes[3]};
}

} // namespace LodestoneTap

#endif
