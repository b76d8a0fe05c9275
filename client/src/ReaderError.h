#ifndef LODESTONE_CLIENT_READERERROR_H
#define LODESTONE_CLIENT_READERERROR_H

#include <cstdint>
#include <stdexcept>
#include <string>

namespace LodestoneTap
{

/// Every failure of the reader, with one complete line of text: a connection that can't be made, a
/// description that can't be read, a field that a record doesn't have.
class ReaderError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/// The stream doesn't follow the protocol. Nothing behind this place can be trusted, and there is no way to
/// find the next cycle: the only cure is to connect again.
class StreamError : public ReaderError
{
public:
    /// `offset` counts bytes from the first byte of the connection, `cycle` is the cycleCounter of the cycle
    /// that the byte belongs to. what() names both before the reason.
    StreamError(std::uint64_t offset, std::uint32_t cycle, const std::string& reason);

    std::uint64_t offset() const { return m_offset; }
    std::uint32_t cycle() const { return m_cycle; }

private:
    std::uint64_t m_offset;
    std::uint32_t m_cycle;
};

} // namespace LodestoneTap

#endif
