#include "DescriptionBytes.h"

#include <cstring>
#include <zlib.h>

namespace LodestoneTapTest
{

namespace
{

template<typename T>
void put(Bytes& record, std::size_t offset, T value)
{
    std::memcpy(record.data() + offset, &value, sizeof value); // the machines that run this are little-endian
}

void putPackage(Bytes& record, std::size_t at, std::int32_t channel, std::uint32_t calls)
{
    put<std::uint32_t>(record, at, 0xB0F01234U);
    put<std::int32_t>(record, at + 4, channel);
    put<std::int32_t>(record, at + 12, 1);
    put<float>(record, at + 16, 0.125F);
    put<float>(record, at + 20, 2.5F);
    put<double>(record, at + 24, 12.75);
    put<std::uint32_t>(record, at + 32, calls);
    put<float>(record, at + 36, 0.25F);
}

} // namespace

DescriptionBytes& DescriptionBytes::big(std::uint32_t value)
{
    for (int shift = 24; shift >= 0; shift -= 8) {
        m_bytes.push_back(static_cast<std::uint8_t>(value >> shift));
    }
    return *this;
}

DescriptionBytes& DescriptionBytes::item(std::uint8_t tag, std::uint32_t operand)
{
    m_bytes.push_back(tag);
    return big(operand);
}

DescriptionBytes& DescriptionBytes::begin(const std::string& name, const std::vector<std::uint32_t>& extents,
                                          std::uint32_t offset, std::uint32_t size)
{
    item(0x64, static_cast<std::uint32_t>(name.size()));
    m_bytes.insert(m_bytes.end(), name.begin(), name.end());
    item(0x65, static_cast<std::uint32_t>(extents.size()));
    for (const std::uint32_t extent : extents) {
        big(extent);
    }
    return item(0x66, offset).item(0x67, size);
}

Bytes DescriptionBytes::deflated(const Bytes& inflated, std::size_t announced)
{
    Bytes payload = {0xDA, 0xDE, 0x03, 0x00, 0x01, 0x00, 0x00, 0x00};
    for (int shift = 24; shift >= 0; shift -= 8) {
        payload.push_back(static_cast<std::uint8_t>(announced >> shift));
    }
    payload.push_back(0x02);
    uLongf size = compressBound(static_cast<uLong>(inflated.size()));
    Bytes stream(size);
    compress2(stream.data(), &size, inflated.data(), static_cast<uLong>(inflated.size()), 9);
    payload.insert(payload.end(), stream.begin(), stream.begin() + static_cast<std::ptrdiff_t>(size));
    return payload;
}

DescriptionBytes diagnosticsDescription()
{
    DescriptionBytes description;
    description.root("LodestoneDiag", 208);
    description.node("queueLength", {}, 0, 4, SIGNED).node("numSkipped", {}, 4, 4, SIGNED);
    description.node("diags", {5}, 8, 40, STRUCTURE);
    description.node("queue_ptr", {}, 8, 4, UNSIGNED).node("firstChannelID", {}, 12, 4, SIGNED);
    description.node("waitedForQueue", {}, 16, 4, SIGNED).node("skipped", {}, 20, 4, SIGNED);
    description.node("profiling", {}, 24, 24, STRUCTURE);
    description.node("runtimeMsecs", {}, 24, 4, FLOAT).node("maxRuntimeMsecs", {}, 28, 4, FLOAT);
    description.node("cumRuntimeMsecs", {}, 32, 8, FLOAT).node("numCalls", {}, 40, 4, UNSIGNED);
    description.node("avgRuntimeMsecs", {}, 44, 4, FLOAT);
    return description.end().end().end();
}

Bytes diagnosticsDescriptionPayload()
{
    Bytes payload = diagnosticsDescription().payload();
    payload.resize(256, 0);
    return payload;
}

Bytes diagnosticsRecord()
{
    Bytes record(208, 0);
    put<std::int32_t>(record, 0, 3);
    put<std::int32_t>(record, 4, 12);
    putPackage(record, 8, 100, 51);
    putPackage(record, 8 + 2 * 40, 7, 52);
    return record;
}

} // namespace LodestoneTapTest
