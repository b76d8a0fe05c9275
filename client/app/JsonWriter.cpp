#include "JsonWriter.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>

namespace LodestoneTap
{

namespace
{

template<typename Float>
std::string shortest(Float number)
{
    if (!std::isfinite(number)) {
        return "null";
    }
    std::array<char, 64> buffer = {};
    const std::to_chars_result result = std::to_chars(buffer.data(), buffer.data() + buffer.size(), number);
    return std::string(buffer.data(), result.ptr);
}

} // namespace

JsonWriter& JsonWriter::key(const std::string& name)
{
    separate();
    quote(name);
    m_text += ':';
    m_needsComma = false;
    return *this;
}

JsonWriter& JsonWriter::value(const std::string& text)
{
    separate();
    quote(text);
    return *this;
}

JsonWriter& JsonWriter::value(float number)
{
    return raw(shortest(number));
}

JsonWriter& JsonWriter::value(double number)
{
    return raw(shortest(number));
}

JsonWriter& JsonWriter::open(char bracket)
{
    separate();
    m_text += bracket;
    m_needsComma = false;
    return *this;
}

JsonWriter& JsonWriter::close(char bracket)
{
    m_text += bracket;
    m_needsComma = true;
    return *this;
}

JsonWriter& JsonWriter::raw(const std::string& text)
{
    separate();
    m_text += text;
    return *this;
}

void JsonWriter::separate()
{
    if (m_needsComma) {
        m_text += ',';
    }
    m_needsComma = true;
}

// Bytes beyond ASCII are written as the code point of the same number, so the document is valid whatever the
// text.
void JsonWriter::quote(const std::string& text)
{
    m_text += '"';
    for (const char c : text) {
        const unsigned byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            m_text += '\\';
            m_text += c;
        } else if (byte < 0x20 || byte >= 0x7F) {
            std::array<char, 8> escape = {};
            std::snprintf(escape.data(), escape.size(), "\\u%04x", byte);
            m_text += escape.data();
        } else {
            m_text += c;
        }
    }
    m_text += '"';
}

} // namespace LodestoneTap
