#include "HostDiagnostics.h"

#include <algorithm>
#include <string>

namespace LodestoneTap
{

namespace
{

PackageDiagnostics readPackage(const RecordView& record, std::size_t slot)
{
    const std::string path = "diags[" + std::to_string(slot) + "].";
    const std::string profiling = path + "profiling.";
    PackageDiagnostics package;
    package.slot = slot;
    package.firstChannelID = record.read<std::int32_t>(path + "firstChannelID");
    package.waitedForQueue = record.read<std::int32_t>(path + "waitedForQueue") != 0;
    package.skipped = record.read<std::int32_t>(path + "skipped") != 0;
    package.numCalls = record.read<std::uint32_t>(profiling + "numCalls");
    package.runtimeMsecs = record.read<float>(profiling + "runtimeMsecs");
    package.avgRuntimeMsecs = record.read<float>(profiling + "avgRuntimeMsecs");
    package.maxRuntimeMsecs = record.read<float>(profiling + "maxRuntimeMsecs");
    package.cumRuntimeMsecs = record.read<double>(profiling + "cumRuntimeMsecs");
    return package;
}

/// Slots without a package are all zero. The number of slots is the description's word, and each costs a
/// search of all field names.
std::vector<PackageDiagnostics> readPackages(const RecordView& record)
{
    std::vector<PackageDiagnostics> packages;
    for (const RecordField& field : record.root().children) {
        const std::uint64_t slots = field.name == "diags" ? field.elementCount() : 0;
        if (slots > HostDiagnostics::MAX_PACKAGES) {
            throw ReaderError(std::to_string(slots) + " slots for packages");
        }
        for (std::uint64_t slot = 0; slot < slots; ++slot) {
            if (!record.isZero(field, slot * field.size)) {
                packages.push_back(readPackage(record, static_cast<std::size_t>(slot)));
            }
        }
    }
    return packages;
}

} // namespace

std::optional<HostDiagnostics> HostDiagnostics::read(const RecordView& record)
{
    if (record.root().name != "LodestoneDiag") {
        return std::nullopt;
    }
    try {
        HostDiagnostics host;
        host.queueLength = record.read<std::int32_t>("queueLength");
        host.numSkipped = record.read<std::int32_t>("numSkipped");
        host.packages = readPackages(record);
        return host;
    } catch (const ReaderError&) {
        return std::nullopt; // of another version of the library; the record is still shown field by field
    }
}

} // namespace LodestoneTap
