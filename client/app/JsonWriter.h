#ifndef LODESTONE_CLIENT_JSONWRITER_H
#define LODESTONE_CLIENT_JSONWRITER_H

#include <cstdint>
#include <string>

namespace LodestoneTap
{

/// Writes one JSON document on one line. The caller keeps to the grammar: a key before each value of an
/// object, an end for each begin. Numbers are written in the shortest form that reads back the same.
class JsonWriter
{
public:
    JsonWriter& beginObject() { return open('{'); }
    JsonWriter& endObject() { return close('}'); }
    JsonWriter& beginArray() { return open('['); }
    JsonWriter& endArray() { return close(']'); }
    JsonWriter& key(const std::string& name);

    JsonWriter& value(const std::string& text);
    JsonWriter& value(const char* text) { return value(std::string(text)); }
    JsonWriter& value(bool truth) { return raw(truth ? "true" : "false"); }
    JsonWriter& value(std::int32_t number) { return raw(std::to_string(number)); }
    JsonWriter& value(std::uint32_t number) { return raw(std::to_string(number)); }
    JsonWriter& value(std::int64_t number) { return raw(std::to_string(number)); }
    JsonWriter& value(std::uint64_t number) { return raw(std::to_string(number)); }
    JsonWriter& value(float number);  ///< null for NaN and the infinities, which JSON doesn't have.
    JsonWriter& value(double number); ///< As for float.
    JsonWriter& null() { return raw("null"); }

    const std::string& text() const { return m_text; }

private:
    JsonWriter& open(char bracket);
    JsonWriter& close(char bracket);
    JsonWriter& raw(const std::string& text);
    void separate();
    void quote(const std::string& text);

    std::string m_text;
    bool m_needsComma = false;
};

} // namespace LodestoneTap

#endif
