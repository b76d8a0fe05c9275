#ifndef LODESTONE_APP_LODESTONECOMMON_H
#define LODESTONE_APP_LODESTONECOMMON_H

#include "ALStructs_extif.h"

#include <cstdint>
#include <list>
#include <locale>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>

namespace Lodestone
{

/// Strings in the order of their insertion.
typedef std::list<std::string> StringList;

/// Appends the non-empty pieces of `s` between the delimiters to `elems`. Pieces are not trimmed.
void string_split(const std::string& s, char delim, StringList& elems);

/// Whether `value` is a member of `theSet`.
template<typename T>
bool inSet(const std::set<T>& theSet, T value)
{
    return theSet.find(value) != theSet.end();
}

/// Builds a message in one expression: `throw std::runtime_error(Formatter() << "size " << n)`.
/// Numbers come out in the classic locale, whatever locale the host has made the global one.
class Formatter
{
public:
    Formatter()
    {
        m_stream.imbue(std::locale::classic());
        m_stream.exceptions(std::ios::badbit); // or a failed allocation cuts the message short
    }
    ~Formatter() = default;

    template<typename T>
    Formatter& operator<<(const T& value)
    {
        m_stream << value;
        return *this;
    }

    operator std::string() const { return m_stream.str(); }

private:
    Formatter(const Formatter&);
    Formatter& operator=(const Formatter&);

    std::stringstream m_stream;
};

/// The size under which the library stores a buffer of the host, in bytes. A size of 2^31 or more is negative
/// in the signed sizes of the wire and stands for no bytes; a size without memory behind it counts as 0.
std::int32_t storedSize(const AlgoMeasBuffer& measBuffer);

/// The library's own copy of a measurement buffer. Sole owner of its payload: moving hands it over, there are
/// no copies.
struct SondeBuffer
{
    SondeBuffer() = default;
    /// Copies the bytes of `measBuffer`. Throws std::bad_alloc.
    explicit SondeBuffer(const AlgoMeasBuffer& measBuffer);
    ~SondeBuffer();

    SondeBuffer(SondeBuffer&& other) noexcept;
    SondeBuffer& operator=(SondeBuffer&& other) noexcept;
    SondeBuffer(const SondeBuffer&) = delete;
    SondeBuffer& operator=(const SondeBuffer&) = delete;

    std::uint8_t* payload = nullptr; ///< Owned, allocated as an array; null if there are no bytes.
    std::int32_t byteSize = 0; ///< Bytes. A host's size of 2^31 or more stays negative here: no payload.
    std::int32_t channelID = -1;
};

/// Buffers by channel, in ascending order of the channel.
typedef std::map<int, SondeBuffer> BufferMap;

/// Moves all of `newer` into `target`, over what it holds of the same channels. Allocates nothing and can't
/// fail.
void replaceBuffers(BufferMap& target, BufferMap& newer) noexcept;

} // namespace Lodestone

#endif
