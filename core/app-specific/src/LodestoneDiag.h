#ifndef LODESTONE_APP_LODESTONEDIAG_H
#define LODESTONE_APP_LODESTONEDIAG_H

#include "ALUtil.h"

#include <cstddef>
#include <cstdint>

namespace Lodestone
{

/// What the queue tells about one package: the deliveries whose arrays begin with the same channel. Written
/// on the host's thread only; the sender sees copies.
///
/// Both records go out on channel 10998 byte for byte as they lie in memory, so their layout is a wire
/// format. Their description (sonde_ld_data) travels beside them: a change here needs a new one, from
/// tools/describe.
struct PerPackageDiag
{
    std::uint32_t queue_ptr; ///< Mark of the queue that wrote the slot; 0 before the first profiled delivery.
    std::int32_t firstChannelID; ///< Channel of the package's first buffer; 0 in a slot that nobody uses.
    std::int32_t waitedForQueue; ///< 1 if the last delivery waited for room in the queue, else 0.
    std::int32_t skipped;        ///< 1 if the last delivery of normal data skipped a buffer, else 0.
    ALProfilingItem profiling;   ///< Run time of the host's calls that delivered the package.
};

/// The diagnostics record of one NORMAL cycle: a snapshot from the moment of the cycle's creation, except for
/// queueLength, which the sender fills in.
struct LodestoneDiag
{
    std::int32_t queueLength; ///< Cycles queued when the sender took this one.
    std::int32_t numSkipped;  ///< Buffers skipped since this transfer began.
    PerPackageDiag
        diags[5]; ///< Packages in the order of their first arrival; the last slot is shared by the rest.
};

static_assert(sizeof(PerPackageDiag) == 40, "wire format");
static_assert(offsetof(PerPackageDiag, queue_ptr) == 0, "wire format");
static_assert(offsetof(PerPackageDiag, firstChannelID) == 4, "wire format");
static_assert(offsetof(PerPackageDiag, waitedForQueue) == 8, "wire format");
static_assert(offsetof(PerPackageDiag, skipped) == 12, "wire format");
static_assert(offsetof(PerPackageDiag, profiling) == 16, "wire format");

static_assert(sizeof(LodestoneDiag) == 208, "wire format");
static_assert(offsetof(LodestoneDiag, queueLength) == 0, "wire format");
static_assert(offsetof(LodestoneDiag, numSkipped) == 4, "wire format");
static_assert(offsetof(LodestoneDiag, diags) == 8, "wire format");

} // namespace Lodestone

#endif
