#ifndef LODESTONE_CLIENT_HOSTDIAGNOSTICS_H
#define LODESTONE_CLIENT_HOSTDIAGNOSTICS_H

#include "RecordView.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace LodestoneTap
{

/// One package of the host: the array that one delivery hands to the library, known by its first channel.
/// Times are in milliseconds and cover the library's whole call, up to the frame before the record's.
struct PackageDiagnostics
{
    std::size_t slot = 0;
    std::int32_t firstChannelID = 0;
    bool waitedForQueue = false; ///< The host's thread waited for room in the newest delivery.
    bool skipped = false;        ///< A buffer of the newest delivery was skipped.
    std::uint32_t numCalls = 0;
    float runtimeMsecs = 0.0F;
    float avgRuntimeMsecs = 0.0F;
    float maxRuntimeMsecs = 0.0F;
    double cumRuntimeMsecs = 0.0;
};

/// What the library reports about itself with every NORMAL cycle.
struct HostDiagnostics
{
    static constexpr std::size_t MAX_PACKAGES = 256; ///< The library has 5 slots; more than this are none.
    static constexpr std::int32_t CHANNEL = 10998;   ///< Its description is on the channel behind it.

    std::int32_t queueLength =
        0; ///< Cycles waiting behind this one; with a negative limit, this one included.
    std::int32_t numSkipped = 0;              ///< Buffers skipped since the transfer began.
    std::vector<PackageDiagnostics> packages; ///< Of the slots in use.

    /// From a record, by the names of its description. Nothing if it isn't the library's record, or lacks a
    /// field.
    static std::optional<HostDiagnostics> read(const RecordView& record);
};

} // namespace LodestoneTap

#endif
