#ifndef LODESTONE_UTIL_ALUTIL_H
#define LODESTONE_UTIL_ALUTIL_H

#include <cstddef>

#include "ALStructs_extif.h"
#include "ALTypes.h"

/// Plain functions for numbers, memory, time and profiling, and the packing of a self-describing buffer. No
/// state, no heap, no exceptions. Memory belongs to the caller and is borrowed for the call; pointers are not
/// tested for null unless a function says so. Any thread may call, as long as no two
/// use the same memory at once.

// ---- Selection and interpolation ----
//
// By multiplication with 0 or 1, not by a branch. For floats the operand that is not selected counts too: if
// it is an infinity or a NaN, the result is a NaN.

/// `a` if `cond` is 1, `b` if it is 0. Undefined for any other `cond`.
int32_t al_seli(int32_t cond, int32_t a, int32_t b) noexcept;
int32_t al_mini(int32_t a, int32_t b) noexcept;
int32_t al_maxi(int32_t a, int32_t b) noexcept;

/// `a` if `cond` is 1, `b` if it is 0. Mixes the two for any other `cond`.
float32_t al_self(int32_t cond, float32_t a, float32_t b) noexcept;
float32_t al_minf(float32_t a, float32_t b) noexcept;
float32_t al_maxf(float32_t a, float32_t b) noexcept;

/// 1 if the closed intervals [v_min, v_max] and [w_min, w_max] have a point in common, else 0.
int32_t intervals_overlap(float32_t v_min, float32_t v_max, float32_t w_min, float32_t w_max) noexcept;

/// The straight line through (`minx`, `y0`) and (`minx` + dx, `y1`) at `x`, with `oneDivDx` = 1 / dx. No
/// clamp: outside of the interval it extrapolates.
float32_t interp(float32_t minx, float32_t x, float32_t oneDivDx, float32_t y0, float32_t y1) noexcept;

// ---- Time ----

typedef alif_uint64_t Timestamp64_t; ///< Nanoseconds.

/// A point in time.
struct AlgoSystemTime
{
    alif_uint32_t seconds;
    alif_uint32_t nanoSeconds; ///< Within the second.
};

/// Nanoseconds in all; can't overflow. `nanoSeconds` of a second or more simply add in.
Timestamp64_t al_sysTimestamp_to_Timestamp64(AlgoSystemTime ts) noexcept;

/// The inverse. The seconds wrap at 2^32.
AlgoSystemTime al_uint64_to_sysTimestamp(Timestamp64_t ts) noexcept;

// ---- Memory ----
//
// Sizes in bytes; 0 or less is no memory at all, and the pointers are then not looked at.

/// Zeroes the buffer, word by word where its address and size are multiples of 4.
void al_mem_zero(void* buffer, int32_t bufferSize) noexcept;

/// Copies, word by word where both addresses and the size are multiples of 4. Returns 0, or 1 if the ranges
/// overlap: nothing is copied then, and the error is reported (see ALErrorHandling.h).
int32_t al_memcpy(void* target, const void* source, int32_t sizeInBytes);

/// 1 if the buffers are equal, 0 if not: the opposite sense of memcmp. Takes the same time wherever they
/// differ.
int32_t al_memcmp(const void* v_buf1, const void* v_buf2, int32_t sizeInBytes) noexcept;

// ---- Random numbers ----

/// The next number of a linear congruential generator, from 0 to 32767, which `*randmax` receives: the
/// example generator of the C standard, with its multiplier 1103515245 and increment 12345. `*state` is all
/// of its state; the caller seeds it. Not for secrets.
uint32_t al_rand(uint32_t* state, uint32_t* randmax) noexcept;

// ---- Movement ----

/// Velocity and acceleration of a point relative to a frame that moves along its own x axis with the constant
/// speed `ev` and turns at the constant rate `eomega`. The point is at (`x`, `y`) in the frame, and moves
/// over ground with (`vxog`, `vyog`) and (`axog`, `ayog`). Metres, seconds and radians, or any coherent
/// units. From the kinematics of a rotating frame, with w for `eomega`:
///   v' = v - v_frame - w x r,  a' = a - a_frame - w x (w x r) - 2 w x v'
/// which gives
///   vxrel = vxog - ev + y eomega
///   vyrel = vyog - x eomega
///   axrel = axog + 2 vyog eomega - x eomega^2
///   ayrel = ayog + ev eomega - y eomega^2 - 2 vxog eomega
void al_convertAbsToRelMovement(float32_t* vxrel, float32_t* vyrel, float32_t* axrel, float32_t* ayrel,
                                float32_t x, float32_t y, float32_t vxog, float32_t vyog, float32_t axog,
                                float32_t ayog, float32_t ev, float32_t eomega) noexcept;

// ---- Profiling ----

typedef alif_uint32_t Timestamp_t; ///< Microseconds, wraps at 2^32 (about 71.6 minutes).

/// The caller's clock. Must not throw.
typedef Timestamp_t (*FctGetTime)();

/// Run times of a section of code, in milliseconds. Its owner starts it at zero, and one thread at a time
/// uses it. Goes out on the wire with the diagnostics, so the layout is fixed.
struct ALProfilingItem
{
    float32_t runtimeMsecs;    ///< The last run.
    float32_t maxRuntimeMsecs; ///< The longest run so far.
    float64_t cumRuntimeMsecs; ///< Sum of all runs; double, so that short runs still count after days.
    uint32_t numCalls;         ///< Runs so far, wraps at 2^32.
    float32_t avgRuntimeMsecs; ///< cumRuntimeMsecs / numCalls.
};

static_assert(sizeof(ALProfilingItem) == 24, "wire format");
static_assert(offsetof(ALProfilingItem, runtimeMsecs) == 0, "wire format");
static_assert(offsetof(ALProfilingItem, maxRuntimeMsecs) == 4, "wire format");
static_assert(offsetof(ALProfilingItem, cumRuntimeMsecs) == 8, "wire format");
static_assert(offsetof(ALProfilingItem, numCalls) == 16, "wire format");
static_assert(offsetof(ALProfilingItem, avgRuntimeMsecs) == 20, "wire format");

/// Starts the stopwatch `*g_ProfileTime`. One stopwatch can serve several records.
void al_initProfiling(Timestamp_t* g_ProfileTime, FctGetTime fctGetTime);

/// Adds the time since the stopwatch was started to `*item` and starts it again, so that calls in a row
/// measure sections in a row. A section must last less than 2^32 microseconds, and the clock may
/// wrap in it.
void al_profile(ALProfilingItem* item, FctGetTime fctGetTime, Timestamp_t* g_ProfileTime);

// ---- Self-describing buffers ----

/// Delivers the description of a record: its address, which must stay valid as long as the packed entry is
/// used, and its size in bytes. Must not throw.
typedef void (*FctGetDescription)(const void** dataDescriptionBuffer, uint32_t* bufferSize);

/// Fills the entries `*idx` and `*idx` + 1 of `measBuffer`, which must have room for both, and moves `*idx`
/// behind them. The first is the record of `dataSize` bytes at `data` on `channelID`, the second its
/// description on `channelID` + 1. Nothing is copied: the entries borrow both. `sizeReady` stays as it was.
/// With a null pointer among the arguments or a `dataSize` of 0 nothing is changed, and `*idx` stays.
void al_packSondeBuffer(AlgoMeasBuffer* measBuffer, uint32_t* idx, uint32_t channelID, const void* data,
                        uint32_t dataSize, FctGetDescription getFCN);

#endif
