#include "StreamScript.h"

#include "DescriptionEncoder.h"
#include "support/DescriptionBytes.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>

using namespace LodestoneTapTest;
using Lodestone::FieldType;

namespace
{

class Script
{
public:
    explicit Script(const Bytes& steps) : m_steps(steps) {}

    Bytes stream()
    {
        std::uint32_t counter = 0;
        for (int cycle = 0; cycle < 64 && m_at < m_steps.size(); ++cycle) {
            const unsigned step = next();
            counter += (step & 0x40) != 0 ? next() : 1; // cycles left out, or one that comes again
            m_once = (step & 0x80) != 0;
            const unsigned entries = 1 + (step & 7);
            m_stream.cycle(counter, entries);
            for (unsigned i = 0; i < entries; ++i) {
                addEntry();
            }
        }
        return m_stream.bytes();
    }

private:
    unsigned next() { return m_at < m_steps.size() ? m_steps[m_at++] : 0; }

    void addEntry()
    {
        static const std::int32_t channels[] = {0, 1, 2, 3, 10997, 10998, 10999, INT32_MAX};
        const unsigned step = next();
        const std::int32_t channel = channels[step & 7];
        const Bytes buffer = payload(step >> 5);
        const std::size_t parts = m_once ? 1 : 1 + (step >> 3 & 3);
        const std::size_t part = parts == 1 ? 0 : next() % parts;
        const std::size_t base = std::max<std::size_t>(buffer.size() / parts, 1);
        const std::size_t begin = std::min(part * base, buffer.size());
        const std::size_t end = part == parts - 1 ? buffer.size() : std::min(begin + base, buffer.size());
        m_stream.part(channel, static_cast<std::int64_t>(parts), buffer,
                      m_once ? -1 : static_cast<std::int64_t>(part), begin, end - begin);
    }

    Bytes payload(unsigned form)
    {
        static const Bytes diagnostics = diagnosticsDescription(); // takes its time
        switch (form) {
        case 7:
            return diagnosticsRecord();
        case 6:
            return diagnostics;
        case 5:
            return description();
        default:
            return pattern(next(), form);
        }
    }

    /// Often one that fits together, so that records follow it.
    Bytes description()
    {
        static const FieldType types[] = {FieldType::SIGNED_INTEGER, FieldType::UNSIGNED_INTEGER,
                                          FieldType::FLOATING_POINT, FieldType::STRUCTURE};
        Lodestone::RecordLayout layout;
        layout.root.name = "R";
        layout.root.size = next();
        const unsigned count = next() & 7;
        for (unsigned i = 0; i < count; ++i) {
            const unsigned step = next();
            Lodestone::LayoutNode field;
            field.name.assign(1 + (step >> 6), static_cast<char>('a' + i));
            field.dimensions.assign(step >> 4 & 3, 2);
            field.offset = next();
            field.size = 1U << (step >> 2 & 3);
            field.type = types[step & 3];
            layout.root.fields.push_back(field);
        }
        return Lodestone::DescriptionEncoder(layout).packed();
    }

    const Bytes& m_steps;
    std::size_t m_at = 0;
    bool m_once = false;
    StreamBytes m_stream;
};

} // namespace

Bytes streamOfScript(const Bytes& script)
{
    return Script(script).stream();
}
