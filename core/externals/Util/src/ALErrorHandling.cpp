#include "ALErrorHandling.h"

#include <stdio.h>

#include "ALUtil.h"

namespace
{

// Set at start-up, before another thread can report, and only read from then on: hence no lock of their own.
ALErrorHistory* alErrorHandling_history = nullptr;
ALErrorHistory* alErrorHandling_frameHistory = nullptr;
int32_t alError_mutexHandle = 0;
FctMutexLock alError_mutexLock = nullptr;
FctMutexUnlock alError_mutexUnlock = nullptr;

// Drops what doesn't fit. The last byte of a zeroed buffer is never written, so the text stays terminated.
void copy_char(char_t* buffer, int32_t bufSize, int32_t* idx, char_t character) noexcept
{
    if (*idx < bufSize - 1) {
        buffer[*idx] = character;
        ++*idx;
    }
}

void copyText(char_t* buffer, int32_t bufSize, int32_t* idx, const char_t* text) noexcept
{
    for (; *text != '\0'; ++text) {
        copy_char(buffer, bufSize, idx, *text);
    }
}

// No leading zeros, but of a number beyond five digits the last five as they are: 100001 gives "00001".
void copyLine(char_t* buffer, int32_t bufSize, int32_t* idx, int32_t line) noexcept
{
    const int32_t number = line < 0 ? 0 : line;
    for (int32_t place = 10000; place > 0; place /= 10) {
        if (number >= place || place == 1) {
            copy_char(buffer, bufSize, idx, static_cast<char_t>('0' + number / place % 10));
        }
    }
}

void setFile(ALErrorDescription& entry, const char_t* filename) noexcept
{
    int32_t idx = 0;
    al_mem_zero(entry.file, ALERR_FILE_SIZE);
    for (; filename != nullptr && *filename != '\0'; ++filename) {
        if (*filename == '/' || *filename == '\\') {
            al_mem_zero(entry.file, ALERR_FILE_SIZE);
            idx = 0;
        } else {
            copy_char(entry.file, ALERR_FILE_SIZE, &idx, *filename);
        }
    }
}

// Needs the entry's file and line, of which it makes the text if there is no message.
void setMessage(ALErrorDescription& entry, const char_t* message) noexcept
{
    int32_t idx = 0;
    al_mem_zero(entry.errorMsg, ALERR_MESSAGE_SIZE);
    if (message != nullptr) {
        copyText(entry.errorMsg, ALERR_MESSAGE_SIZE, &idx, message);
        return;
    }
    copyText(entry.errorMsg, ALERR_MESSAGE_SIZE, &idx, "ERR@");
    copyText(entry.errorMsg, ALERR_MESSAGE_SIZE, &idx, entry.file);
    copy_char(entry.errorMsg, ALERR_MESSAGE_SIZE, &idx, ':');
    copyLine(entry.errorMsg, ALERR_MESSAGE_SIZE, &idx, entry.line);
}

void handleError(const char_t* filename, int32_t line, ALErrorHistory* history,
                 const char_t* message) noexcept
{
    // As unsigned, so that a negative number in a history that came damaged out of a restart counts as full.
    if (history == nullptr ||
        static_cast<uint32_t>(history->numValidEntries) >= static_cast<uint32_t>(ALERR_HISTORY_LENGTH)) {
        return;
    }
    ALErrorDescription& entry = history->entries[history->numValidEntries];
    ++history->numValidEntries;
    entry.line = line;
    setFile(entry, filename);
    setMessage(entry, message);
}

void clearHistory(ALErrorHistory& history) noexcept
{
    al_mem_zero(&history, static_cast<int32_t>(sizeof(history)));
    for (ALErrorDescription& entry : history.entries) {
        entry.line = -1;
    }
}

} // namespace

void reportError(const char_t* filename, int32_t line, const char_t* message)
{
    if (alError_mutexLock != nullptr) {
        alError_mutexLock(alError_mutexHandle);
    }
    // Nobody is left to be told of a failing standard output.
    (void)printf("Unexpected Error! File %s Line %d\n", filename != nullptr ? filename : "(null)",
                 static_cast<int>(line));
    handleError(filename, line, alErrorHandling_history, message);
    handleError(filename, line, alErrorHandling_frameHistory, message);
    if (alError_mutexUnlock != nullptr) {
        alError_mutexUnlock(alError_mutexHandle);
    }
}

int32_t ErrorHandling_Init(ALErrorHistory* history, ALErrorHistoryType historyType,
                           int32_t reInitializeErrorMemory) noexcept
{
    switch (historyType) {
    case ALERR_HT_PER_RUN_HISTORY:
        alErrorHandling_history = history;
        break;
    case ALERR_HT_PER_FRAME_HISTORY:
        alErrorHandling_frameHistory = history;
        break;
    default:
        return 1;
    }
    if (reInitializeErrorMemory != 0) {
        clearHistory(*history);
    }
    return 0;
}

void ErrorHandling_InitThreadSafety(int32_t mutexHandle, FctMutexLock locker,
                                    FctMutexUnlock unlocker) noexcept
{
    alError_mutexHandle = mutexHandle;
    alError_mutexLock = locker;
    alError_mutexUnlock = unlocker;
}

int32_t ErrorHandling_PerFrameErrorOccured() noexcept
{
    return alErrorHandling_frameHistory != nullptr && alErrorHandling_frameHistory->numValidEntries > 0 ? 1
                                                                                                        : 0;
}
