#include "LodestoneCommon.h"

#include <cstring>
#include <utility>

namespace Lodestone
{

void string_split(const std::string& s, char delim, StringList& elems)
{
    std::istringstream stream(s);
    stream.exceptions(std::ios::badbit); // or getline takes a failed allocation for the end of the text
    std::string piece;
    while (std::getline(stream, piece, delim)) {
        if (!piece.empty()) {
            elems.push_back(piece);
        }
    }
}

std::int32_t storedSize(const AlgoMeasBuffer& measBuffer)
{
    const auto byteSize = static_cast<std::int32_t>(measBuffer.sizeTotal);
    return byteSize > 0 && measBuffer.buffer == nullptr ? 0 : byteSize;
}

SondeBuffer::SondeBuffer(const AlgoMeasBuffer& measBuffer)
    : byteSize(storedSize(measBuffer)), channelID(measBuffer.channelID)
{
    if (byteSize > 0) {
        payload = new std::uint8_t[static_cast<std::size_t>(byteSize)];
        std::memcpy(payload, measBuffer.buffer, static_cast<std::size_t>(byteSize));
    }
}

SondeBuffer::~SondeBuffer()
{
    delete[] payload;
}

SondeBuffer::SondeBuffer(SondeBuffer&& other) noexcept
    : payload(std::exchange(other.payload, nullptr)), byteSize(std::exchange(other.byteSize, 0)),
      channelID(std::exchange(other.channelID, -1))
{}

SondeBuffer& SondeBuffer::operator=(SondeBuffer&& other) noexcept
{
    if (this != &other) {
        delete[] payload;
        payload = std::exchange(other.payload, nullptr);
        byteSize = std::exchange(other.byteSize, 0);
        channelID = std::exchange(other.channelID, -1);
    }
    return *this;
}

void replaceBuffers(BufferMap& target, BufferMap& newer) noexcept
{
    while (!newer.empty()) {
        BufferMap::node_type node = newer.extract(newer.begin());
        const auto entry = target.find(node.key());
        if (entry != target.end()) {
            entry->second = std::move(node.mapped());
        } else {
            target.insert(std::move(node));
        }
    }
}

} // namespace Lodestone
