#ifndef LODESTONE_UTIL_ALSTRUCTS_EXTIF_H
#define LODESTONE_UTIL_ALSTRUCTS_EXTIF_H

#include "ALTypes_extif.h"

/// Records that pass between the host and the library, for C99 and for C++11 and later. Host and library must
/// be built for the same ABI: the records are passed by address, with the compiler's own layout.

/// One measurement buffer of a frame, as the host describes it. The record and the array that it stands in
/// belong to the host, which may change or free both as soon as the call that got them has returned.
typedef struct AlgoMeasBuffer
{
    /// The bytes to send. The host's, borrowed for the call: they are copied and no pointer is kept. May be
    /// null, and then counts as empty whatever the size says.
    const void* buffer;

    /// Bytes at `buffer`, below 2^31. Sizes are signed on the wire, so 2^31 and more counts as empty (0
    /// bytes).
    alif_uint32_t sizeTotal;

    /// Never read by the library, and left as it was where the library fills a record itself.
    alif_uint32_t sizeReady;

    /// Channel of the buffer. The configuration selects by it which buffers are sent, and how.
    alif_int32_t channelID;
} AlgoMeasBuffer;

/// Version of the library. Compare `major` first, then `minor`, then `patch`.
typedef struct AlgoVersion
{
    alif_uint32_t major;
    alif_uint32_t minor;
    alif_uint32_t patch;
} AlgoVersion;

#endif
