#ifndef LODESTONE_APP_LODESTONE_H
#define LODESTONE_APP_LODESTONE_H

/*
 * The public face of the library, for C and C++ hosts.
 *
 * Results: 0 for success, 1 for failure. After a failure the reason is in the error text, which a later
 * success doesn't clear. No exception leaves any of these functions.
 *
 * Threads: call these functions from one thread at a time. They take no lock.
 *
 * Each operation exists twice: in namespace Lodestone for C++, and with the prefix CLodestone_ and plain
 * pointers.
 */

#include "ALStructs_extif.h"

/* The library hides everything else. */
#define LODESTONE_API __attribute__((visibility("default")))

#ifdef __cplusplus
#include <string>

namespace Lodestone
{

/**
 * Starts, restarts or stops the tap.
 *
 * With `lodestoneEnabled` 0 it stops streaming, closes the port and returns 0; `configStr` isn't looked at.
 * Else it reads the configuration and builds a new stream from it; a connected client is cut off. A string
 * that is refused changes nothing: what ran before goes on. A port that can't be bound is no failure here,
 * the tap then ignores all frames.
 *
 * Waits for the old stream's threads: up to 500 ms, and while a slow client takes the cycle under way. A
 * client that takes nothing for 2 s is cut off.
 */
LODESTONE_API alif_int32_t Lodestone_Init(alif_int32_t lodestoneEnabled, const std::string& configStr);

/**
 * Offers a frame. Call it once per frame with all buffers, or several times with some.
 *
 * The library copies what the configuration selects and keeps no pointer into the array or the buffers. With
 * `constantBuffers` not 0 it also keeps copies of all of them (4 bytes or 4 MB alike) and offers them again
 * on every later call, so that a buffer delivered once still reaches a client that connects an hour later. A
 * newer one of the same channel replaces the older.
 *
 * Never waits for the network if the queue length of the configuration is positive; with a negative one it
 * waits until the queue has room. Fails if memory runs out or a thread can't be started; the next frame tries
 * again.
 */
LODESTONE_API alif_int32_t Lodestone_Apply(AlgoMeasBuffer* measBuffer, alif_uint32_t measBuffersArraySize,
                                           alif_int32_t constantBuffers);

/** The reason of the newest failure; empty if there was none. The reference stays valid, its text changes. */
LODESTONE_API const std::string& GetLastErrorString();

/* C linkage, but the name's home is here; C sees the same function below. */
extern "C" LODESTONE_API alif_int32_t Lodestone_QueryVersion(AlgoVersion* version);

} /* namespace Lodestone */

extern "C" {
#else
/** Fills in the library's version. Fails if `version` is null. */
LODESTONE_API alif_int32_t Lodestone_QueryVersion(AlgoVersion* version);
#endif

/** As Lodestone_Init. `configStr` ends with a 0; null is refused unless `lodestoneEnabled` is 0. */
LODESTONE_API alif_int32_t CLodestone_Lodestone_Init(alif_int32_t lodestoneEnabled,
                                                     const alif_int8_t* configStr);

/** As Lodestone_Apply. */
LODESTONE_API alif_int32_t CLodestone_Lodestone_Apply(AlgoMeasBuffer* measBuffer,
                                                      alif_uint32_t measBuffersArraySize,
                                                      alif_int32_t constantBuffers);

/**
 * Copies the reason of the newest failure with its terminating 0 into `buffer` of `bufferSize` bytes. If it
 * doesn't fit, `buffer` becomes the empty string and the result is 1; nothing is truncated. With a null
 * `buffer` or size 0 the result is 1.
 */
LODESTONE_API alif_int32_t CLodestone_GetLastErrorString(alif_int8_t* buffer, alif_uint32_t bufferSize);

/** As Lodestone_QueryVersion. */
LODESTONE_API alif_int32_t CLodestone_Lodestone_QueryVersion(AlgoVersion* version);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif
