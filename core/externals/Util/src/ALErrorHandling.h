#ifndef LODESTONE_UTIL_ALERRORHANDLING_H
#define LODESTONE_UTIL_ALERRORHANDLING_H

#include <cstddef>

#include "ALTypes.h"

/// One way to report an unexpected condition: a line on standard output and, where the application has
/// attached them, an entry in a history of the whole run and in one of the current frame.
///
/// The histories are the application's memory, plain records without pointers, so they can be kept over a
/// restart or written out as they are. They stay borrowed until another history, or null, is attached.
///
/// Threads: reportError is safe across threads as far as the installed callbacks make it so; the other
/// functions take no lock. Attach and install at start-up, before another thread can report.

constexpr int32_t ALERR_HISTORY_LENGTH = 20; ///< Errors that one history holds.
constexpr int32_t ALERR_FILE_SIZE = 20;      ///< Bytes for a file name, terminator included.
constexpr int32_t ALERR_MESSAGE_SIZE = 128;  ///< Bytes for a message, terminator included.

/// One recorded error.
struct ALErrorDescription
{
    char_t file[ALERR_FILE_SIZE];        ///< Base name of the source file, cut to 19 characters, terminated.
    int32_t line;                        ///< Source line; -1 in an entry that is still empty.
    char_t errorMsg[ALERR_MESSAGE_SIZE]; ///< Message, cut to 127 characters, terminated.
};

/// The first 20 errors since the history was initialised. Later ones are dropped, for the first one usually
/// is the cause of the rest.
struct ALErrorHistory
{
    int32_t numValidEntries; ///< Entries in use, 0 to 20; anything else counts as full.
    ALErrorDescription entries[ALERR_HISTORY_LENGTH]; ///< Filled from index 0 on, the oldest error first.
};

static_assert(sizeof(ALErrorDescription) == 152, "layout of a kept history");
static_assert(offsetof(ALErrorDescription, file) == 0, "layout of a kept history");
static_assert(offsetof(ALErrorDescription, line) == 20, "layout of a kept history");
static_assert(offsetof(ALErrorDescription, errorMsg) == 24, "layout of a kept history");
static_assert(sizeof(ALErrorHistory) == 3044, "layout of a kept history");
static_assert(offsetof(ALErrorHistory, numValidEntries) == 0, "layout of a kept history");
static_assert(offsetof(ALErrorHistory, entries) == 4, "layout of a kept history");

/// The fixed width makes any other number a valid value too, which ErrorHandling_Init can refuse.
enum ALErrorHistoryType : int32_t
{
    ALERR_HT_PER_RUN_HISTORY = 0,
    ALERR_HT_PER_FRAME_HISTORY = 1
};

/// The application's mutex, by its handle. Must not throw and must not report errors; the result is ignored.
typedef alif_int32_t (*FctMutexLock)(alif_int32_t mutexHandle);
typedef alif_int32_t (*FctMutexUnlock)(alif_int32_t mutexHandle);

/// Prints "Unexpected Error! File %s Line %d" and adds an entry to each attached history that has room.
/// `filename`, terminated, may be a path with either kind of separator, of which the histories keep the base
/// name; null is printed as "(null)" and recorded as empty. `message`, terminated, may be null: the entry
/// then says "ERR@file:line", with at most the last five digits of `line`, and 0 for a negative one. Both
/// texts are borrowed for the call. Everything happens between the lock and unlock callbacks.
void reportError(const char_t* filename, int32_t line, const char_t* message);

/// Attaches `history` in the role `historyType`. With `reInitializeErrorMemory` not 0 it is emptied, and must
/// not be null; otherwise it goes on with the errors that it has, and null detaches the role. Returns 0, or 1
/// for an unknown `historyType`, with nothing changed.
int32_t ErrorHandling_Init(ALErrorHistory* history, ALErrorHistoryType historyType,
                           int32_t reInitializeErrorMemory) noexcept;

/// Installs the callbacks that reportError calls with `mutexHandle`. Each may be null and is then left out.
void ErrorHandling_InitThreadSafety(int32_t mutexHandle, FctMutexLock locker,
                                    FctMutexUnlock unlocker) noexcept;

/// 1 if a per-frame history is attached and has an entry, else 0. It lasts for a frame only if its owner
/// re-initialises it at each frame.
int32_t ErrorHandling_PerFrameErrorOccured() noexcept;

#endif
