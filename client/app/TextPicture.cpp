#include "TextPicture.h"

#include "RecordText.h"
#include "TextTable.h"

#include <array>
#include <cstdio>

namespace LodestoneTap
{

namespace
{

typedef std::vector<std::string> Lines;

// A stream is called silent only when that is no pause between two frames any more.
constexpr double SILENT_AFTER_S = 2.0;

std::string fixed(double number, int decimals)
{
    std::array<char, 340> buffer = {}; // the longest double has 309 digits before the point
    std::snprintf(buffer.data(), buffer.size(), "%.*f", decimals, number);
    return buffer.data();
}

/// In the unit that leaves a short number: 12 ms, 3.4 s, 5.6 min, 7.8 h.
std::string duration(double seconds)
{
    if (seconds < 1.0) {
        return fixed(seconds * 1000.0, 0) + " ms";
    }
    if (seconds < 120.0) {
        return fixed(seconds, 1) + " s";
    }
    return seconds < 7200.0 ? fixed(seconds / 60.0, 1) + " min" : fixed(seconds / 3600.0, 1) + " h";
}

std::string kilobytes(double bytes)
{
    return fixed(bytes / 1000.0, 1);
}

std::string headLine(const StreamPicture& picture, const std::string& endpoint)
{
    if (picture.bytes == 0) {
        return endpoint + "   connected, nothing received for " + duration(picture.silent_s);
    }
    std::string line = endpoint + "   streaming for " + duration(picture.streaming_s) + "   cycle " +
                       std::to_string(picture.newestCycle) + "   " + fixed(picture.cyclesPerSecond, 1) +
                       " cycles/s   " + kilobytes(picture.bytesPerSecond) + " kB/s";
    if (picture.missedCycles > 0) {
        line += "   " + std::to_string(picture.missedCycles) + " cycles missed";
    }
    if (picture.silent_s >= SILENT_AFTER_S) {
        line += "   SILENT for " + duration(picture.silent_s);
    }
    return line;
}

std::string contentText(const ChannelPicture& channel)
{
    return channel.isDescription ? "describes " + std::to_string(channel.channelID - 1) : channel.recordName;
}

void addChannels(const StreamPicture& picture, Lines& lines)
{
    TextTable table("rlrrrrrrl");
    table.add({"channel", "kind", "size", "rate/s", "kB/s", "parts", "age", "lost", "content"});
    for (const ChannelPicture& channel : picture.channels) {
        const bool isOnce = channel.kind == ChannelKind::ONCE; // a rate of single buffers says nothing
        table.add({std::to_string(channel.channelID), kindName(channel.kind), std::to_string(channel.size),
                   isOnce ? "-" : fixed(channel.buffersPerSecond, 1),
                   isOnce ? "-" : kilobytes(channel.bytesPerSecond), std::to_string(channel.numberOfParts),
                   channel.age_s ? duration(*channel.age_s) : "-", std::to_string(channel.lost),
                   contentText(channel)});
    }
    const Lines rows = table.lines();
    lines.insert(lines.end(), rows.begin(), rows.end());
}

void addHost(const HostDiagnostics& host, Lines& lines)
{
    lines.push_back("host   queue length " + std::to_string(host.queueLength) + "   buffers skipped " +
                    std::to_string(host.numSkipped));
    TextTable table("rrrrrrll");
    table.add({"package", "calls", "last ms", "avg ms", "max ms", "total ms", "waited", "skipped"});
    for (const PackageDiagnostics& package : host.packages) {
        table.add({std::to_string(package.firstChannelID), std::to_string(package.numCalls),
                   fixed(package.runtimeMsecs, 3), fixed(package.avgRuntimeMsecs, 3),
                   fixed(package.maxRuntimeMsecs, 3), fixed(package.cumRuntimeMsecs, 1),
                   package.waitedForQueue ? "yes" : "no", package.skipped ? "yes" : "no"});
    }
    if (!host.packages.empty()) {
        const Lines rows = table.lines();
        lines.insert(lines.end(), rows.begin(), rows.end());
    }
}

void addRecord(const RecordPicture& record, Lines& lines)
{
    lines.push_back(record.description->root().name + "   channel " + std::to_string(record.channelID) +
                    "   cycle " + std::to_string(record.cycle));
    const Lines fields = recordText(RecordView(*record.description, *record.bytes));
    lines.insert(lines.end(), fields.begin(), fields.end());
}

} // namespace

Lines textPicture(const StreamPicture& picture, const std::string& endpoint)
{
    Lines lines = {headLine(picture, endpoint)};
    if (!picture.channels.empty()) {
        lines.emplace_back();
        addChannels(picture, lines);
    }
    if (picture.host) {
        lines.emplace_back();
        addHost(*picture.host, lines);
    }
    for (const RecordPicture& record : picture.records) {
        lines.emplace_back();
        addRecord(record, lines);
    }
    return lines;
}

} // namespace LodestoneTap
