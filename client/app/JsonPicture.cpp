#include "JsonPicture.h"

#include "JsonWriter.h"
#include "RecordView.h"

#include <cstddef>

namespace LodestoneTap
{

namespace
{

constexpr std::uint64_t MAX_TEXT = std::uint64_t{256} << 20; // characters, the records' fields included

void writeChannel(const ChannelPicture& channel, JsonWriter& json)
{
    json.beginObject().key("channel").value(channel.channelID).key("kind").value(kindName(channel.kind));
    json.key("size_bytes").value(channel.size).key("parts").value(channel.numberOfParts);
    json.key("buffers_per_s")
        .value(channel.buffersPerSecond)
        .key("kB_per_s")
        .value(channel.bytesPerSecond / 1000.0);
    json.key("age_s");
    if (channel.age_s) {
        json.value(*channel.age_s);
    } else {
        json.null();
    }
    json.key("buffers").value(channel.buffers).key("lost").value(channel.lost);
    json.key("orphan_parts").value(channel.orphanParts);
    if (channel.isDescription) {
        json.key("describes").value(channel.channelID - 1);
    }
    if (!channel.recordName.empty()) {
        json.key("record").value(channel.recordName);
    }
    json.endObject();
}

void writeHost(const HostDiagnostics& host, JsonWriter& json)
{
    json.beginObject().key("queue_length").value(host.queueLength).key("skipped").value(host.numSkipped);
    json.key("packages").beginArray();
    for (const PackageDiagnostics& package : host.packages) {
        json.beginObject().key("slot").value(static_cast<std::uint64_t>(package.slot));
        json.key("first_channel").value(package.firstChannelID).key("waited").value(package.waitedForQueue);
        json.key("skipped").value(package.skipped).key("calls").value(package.numCalls);
        json.key("last_ms").value(package.runtimeMsecs).key("avg_ms").value(package.avgRuntimeMsecs);
        json.key("max_ms").value(package.maxRuntimeMsecs).key("total_ms").value(package.cumRuntimeMsecs);
        json.endObject();
    }
    json.endArray().endObject();
}

/// The fields of a record as nested objects and arrays. A value keeps its JSON type whatever it is, so an
/// array of bytes is one of numbers even if it holds a text.
class RecordJson
{
public:
    RecordJson(const RecordView& record, JsonWriter& json) : m_record(record), m_json(json) {}

    void writeFields(const RecordField& structure, std::uint64_t displacement)
    {
        m_json.beginObject();
        for (const RecordField& field : structure.children) {
            m_json.key(field.name);
            writeElements(field, 0, displacement, field.elementCount());
        }
        m_json.endObject();
    }

private:
    /// `count` elements: those of the dimensions from `dimension` on.
    void writeElements(const RecordField& field, std::size_t dimension, std::uint64_t displacement,
                       std::uint64_t count)
    {
        if (dimension == field.extents.size()) {
            writeElement(field, displacement);
            return;
        }
        const std::uint64_t inner = count / field.extents[dimension];
        m_json.beginArray();
        for (std::uint32_t i = 0; i < field.extents[dimension]; ++i) {
            writeElements(field, dimension + 1, displacement + i * inner * field.size, inner);
        }
        m_json.endArray();
    }

    void writeElement(const RecordField& field, std::uint64_t displacement)
    {
        if (field.type == FieldType::STRUCTURE) {
            writeFields(field, displacement);
            return;
        }
        const RecordValue value = m_record.valueAt(field, displacement);
        if (value.type == FieldType::SIGNED) {
            m_json.value(value.asSigned);
        } else if (value.type == FieldType::UNSIGNED) {
            m_json.value(value.asUnsigned);
        } else if (value.size == sizeof(float)) {
            m_json.value(static_cast<float>(value.asFloat));
        } else {
            m_json.value(value.asFloat);
        }
    }

    const RecordView& m_record;
    JsonWriter& m_json;
};

/// Not less than the characters that one element of `field` takes. A description may nest a byte in 32
/// structures with long names, all of which come again for every byte of the record.
std::uint64_t textSize(const RecordField& field)
{
    std::uint64_t size = field.type == FieldType::STRUCTURE ? 4 : 3 * std::uint64_t{field.size} + 4;
    for (const RecordField& child : field.children) {
        const std::uint64_t innerBrackets = child.extents.size() > 1 ? 2 * (child.extents.size() - 1) : 0;
        size += 2 * child.name.size() + 6 + child.elementCount() * (textSize(child) + innerBrackets);
    }
    return size;
}

void writeRecord(const RecordPicture& record, JsonWriter& json)
{
    json.beginObject().key("channel").value(record.channelID).key("cycle").value(record.cycle);
    json.key("name").value(record.description->root().name).key("fields");
    const RecordView view(*record.description, *record.bytes);
    if (json.text().size() + textSize(view.root()) <= MAX_TEXT) {
        RecordJson(view, json).writeFields(view.root(), 0);
    } else {
        json.null();
    }
    json.endObject();
}

} // namespace

std::string jsonPicture(const StreamPicture& picture, const std::string& endpoint, const std::string& error)
{
    JsonWriter json;
    json.beginObject().key("endpoint").value(endpoint);
    json.key("state").value(!error.empty() ? "over" : picture.bytes == 0 ? "waiting" : "streaming");
    if (!error.empty()) {
        json.key("error").value(error);
    }
    json.key("streaming_s").value(picture.streaming_s).key("silent_s").value(picture.silent_s);
    json.key("bytes").value(picture.bytes).key("cycle").value(picture.newestCycle);
    json.key("normal_cycles").value(picture.normalCycles).key("once_cycles").value(picture.onceCycles);
    json.key("missed_cycles").value(picture.missedCycles);
    json.key("cycles_per_s")
        .value(picture.cyclesPerSecond)
        .key("kB_per_s")
        .value(picture.bytesPerSecond / 1000.0);
    json.key("channels").beginArray();
    for (const ChannelPicture& channel : picture.channels) {
        writeChannel(channel, json);
    }
    json.endArray().key("host");
    if (picture.host) {
        writeHost(*picture.host, json);
    } else {
        json.null();
    }
    json.key("records").beginArray();
    for (const RecordPicture& record : picture.records) {
        writeRecord(record, json);
    }
    json.endArray().endObject();
    return json.text();
}

} // namespace LodestoneTap
