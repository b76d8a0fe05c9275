#include "DescriptionBytes.h"

#include "LayoutParser.h"
#include "LodestoneDiag.h"

#include <fstream>
#include <sstream>
#include <zlib.h>

namespace LodestoneTapTest
{

Lodestone::DescriptionEncoder described(const std::string& layout)
{
    std::istringstream text(layout);
    return Lodestone::DescriptionEncoder(Lodestone::LayoutParser(text, "layout").parse());
}

Bytes deflated(const Bytes& description, std::size_t announced)
{
    Bytes payload = {0xDA, 0xDE, 0x03, 0x00, 0x01, 0x00, 0x00, 0x00};
    for (const int shift : {24, 16, 8, 0}) {
        payload.push_back(static_cast<std::uint8_t>(announced >> shift));
    }
    payload.push_back(0x02);
    uLongf size = compressBound(static_cast<uLong>(description.size()));
    Bytes stream(size);
    compress2(stream.data(), &size, description.data(), static_cast<uLong>(description.size()), 9);
    payload.insert(payload.end(), stream.begin(), stream.begin() + static_cast<std::ptrdiff_t>(size));
    return payload;
}

Bytes diagnosticsRecord()
{
    const ALProfilingItem profiling = {0.125F, 2.5F, 12.75, 51, 0.25F};
    const Lodestone::LodestoneDiag record = {
        3, 12, {{0xB0F01234U, 100, 0, 1, profiling}, {}, {0xB0F01234U, 7, 0, 1, profiling}, {}, {}}};
    const auto* const bytes = reinterpret_cast<const std::uint8_t*>(&record);
    return Bytes(bytes, bytes + sizeof record);
}

Bytes diagnosticsDescription()
{
    std::ifstream layout(LODESTONE_DIAG_LAYOUT);
    return Lodestone::DescriptionEncoder(Lodestone::LayoutParser(layout, "layout").parse()).array(256);
}

} // namespace LodestoneTapTest
