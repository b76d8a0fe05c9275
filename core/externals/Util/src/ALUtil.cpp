#include "ALUtil.h"

#include <stdint.h>

#include "ALErrorHandling.h"

static_assert(__FINITE_MATH_ONLY__ == 0, "the float selections promise a NaN, -ffast-math would break that");

namespace
{

// A word of memory of whatever type, exempt from strict aliasing.
typedef uint32_t Word __attribute__((__may_alias__));
constexpr int32_t WORD_SIZE = 4;
static_assert(sizeof(Word) == WORD_SIZE, "sizes are divided by it");

constexpr Timestamp64_t NANOSECONDS_PER_SECOND = 1000000000u;

bool isMultiple(const void* address, uintptr_t divisor) noexcept
{
    return reinterpret_cast<uintptr_t>(address) % divisor == 0;
}

// On the addresses as numbers, for pointers into different objects have no order. By their distance, for
// "source + size" may wrap at the end of the address space. `size` is positive.
bool rangesOverlap(const void* target, const void* source, int32_t size) noexcept
{
    const uintptr_t to = reinterpret_cast<uintptr_t>(target);
    const uintptr_t from = reinterpret_cast<uintptr_t>(source);
    const uintptr_t distance = to >= from ? to - from : from - to;
    return distance < static_cast<uintptr_t>(size);
}

// Four words a step from an 8-byte boundary, which the compiler can turn into wide stores.
void zeroWords(Word* word, int32_t count) noexcept
{
    if (!isMultiple(word, 8)) {
        *word++ = 0;
        --count;
    }
    for (; count >= 4; count -= 4, word += 4) {
        word[0] = 0;
        word[1] = 0;
        word[2] = 0;
        word[3] = 0;
    }
    for (; count > 0; --count) {
        *word++ = 0;
    }
}

void zeroBytes(uint8_t* bytes, int32_t count) noexcept
{
    for (int32_t i = 0; i < count; ++i) {
        bytes[i] = 0;
    }
}

// Restricted, for the overlap test has come before: the compiler may then copy in wider steps.
void copyWords(Word* __restrict target, const Word* __restrict source, int32_t count) noexcept
{
    for (int32_t i = 0; i < count; ++i) {
        target[i] = source[i];
    }
}

void copyBytes(uint8_t* __restrict target, const uint8_t* __restrict source, int32_t count) noexcept
{
    for (int32_t i = 0; i < count; ++i) {
        target[i] = source[i];
    }
}

} // namespace

int32_t al_seli(int32_t cond, int32_t a, int32_t b) noexcept
{
    return a * cond + b * (1 - cond);
}

int32_t al_mini(int32_t a, int32_t b) noexcept
{
    return al_seli(a < b, a, b);
}

int32_t al_maxi(int32_t a, int32_t b) noexcept
{
    return al_seli(a > b, a, b);
}

float32_t al_self(int32_t cond, float32_t a, float32_t b) noexcept
{
    const float32_t tmp = static_cast<float32_t>(cond);
    return tmp * a + (1.0f - tmp) * b;
}

float32_t al_minf(float32_t a, float32_t b) noexcept
{
    return al_self(a < b, a, b);
}

float32_t al_maxf(float32_t a, float32_t b) noexcept
{
    return al_self(a > b, a, b);
}

int32_t intervals_overlap(float32_t v_min, float32_t v_max, float32_t w_min, float32_t w_max) noexcept
{
    return al_maxf(v_min, w_min) <= al_minf(v_max, w_max);
}

float32_t interp(float32_t minx, float32_t x, float32_t oneDivDx, float32_t y0, float32_t y1) noexcept
{
    return y0 + (y1 - y0) * oneDivDx * (x - minx);
}

Timestamp64_t al_sysTimestamp_to_Timestamp64(AlgoSystemTime ts) noexcept
{
    return static_cast<Timestamp64_t>(ts.seconds) * NANOSECONDS_PER_SECOND + ts.nanoSeconds;
}

AlgoSystemTime al_uint64_to_sysTimestamp(Timestamp64_t ts) noexcept
{
    AlgoSystemTime result;
    result.seconds = static_cast<alif_uint32_t>(ts / NANOSECONDS_PER_SECOND);
    result.nanoSeconds = static_cast<alif_uint32_t>(ts % NANOSECONDS_PER_SECOND);
    return result;
}

void al_mem_zero(void* buffer, int32_t bufferSize) noexcept
{
    if (bufferSize <= 0) {
        return;
    }
    if (bufferSize % WORD_SIZE == 0 && isMultiple(buffer, WORD_SIZE)) {
        zeroWords(static_cast<Word*>(buffer), bufferSize / WORD_SIZE);
    } else {
        zeroBytes(static_cast<uint8_t*>(buffer), bufferSize);
    }
}

int32_t al_memcpy(void* target, const void* source, int32_t sizeInBytes)
{
    if (sizeInBytes <= 0) {
        return 0;
    }
    if (rangesOverlap(target, source, sizeInBytes)) {
        // Path and line are a fixed text that readers of the output know; they don't follow edits of this
        // file.
        reportError("core/externals/Util/src/ALUtil", 160, nullptr);
        return 1;
    }
    if (sizeInBytes % WORD_SIZE == 0 && isMultiple(target, WORD_SIZE) && isMultiple(source, WORD_SIZE)) {
        copyWords(static_cast<Word*>(target), static_cast<const Word*>(source), sizeInBytes / WORD_SIZE);
    } else {
        copyBytes(static_cast<uint8_t*>(target), static_cast<const uint8_t*>(source), sizeInBytes);
    }
    return 0;
}

int32_t al_memcmp(const void* v_buf1, const void* v_buf2, int32_t sizeInBytes) noexcept
{
    const uint8_t* const buf1 = static_cast<const uint8_t*>(v_buf1);
    const uint8_t* const buf2 = static_cast<const uint8_t*>(v_buf2);
    int32_t equal = 1;
    for (int32_t i = 0; i < sizeInBytes; ++i) {
        equal &= static_cast<int32_t>(buf1[i] == buf2[i]);
    }
    return equal;
}

uint32_t al_rand(uint32_t* state, uint32_t* randmax) noexcept
{
    *state = *state * 1103515245u + 12345u;
    *randmax = 32767;
    return (*state >> 16) & 0x7FFFu;
}

void al_convertAbsToRelMovement(float32_t* vxrel, float32_t* vyrel, float32_t* axrel, float32_t* ayrel,
                                float32_t x, float32_t y, float32_t vxog, float32_t vyog, float32_t axog,
                                float32_t ayog, float32_t ev, float32_t eomega) noexcept
{
    const float32_t eomegaSquare = eomega * eomega;
    *vxrel = vxog - ev + y * eomega;
    *vyrel = vyog - x * eomega;
    *axrel = axog + 2.0f * vyog * eomega - x * eomegaSquare;
    *ayrel = ayog + ev * eomega - y * eomegaSquare - 2.0f * vxog * eomega;
}

void al_initProfiling(Timestamp_t* g_ProfileTime, FctGetTime fctGetTime)
{
    *g_ProfileTime = fctGetTime();
}

void al_profile(ALProfilingItem* item, FctGetTime fctGetTime, Timestamp_t* g_ProfileTime)
{
    const Timestamp_t currTime = fctGetTime();
    const Timestamp_t uiDelta = currTime - *g_ProfileTime;
    const float32_t delta = static_cast<float32_t>(uiDelta) * 0.001f;
    *g_ProfileTime = currTime;
    item->runtimeMsecs = delta;
    if (delta > item->maxRuntimeMsecs) {
        item->maxRuntimeMsecs = delta;
    }
    item->cumRuntimeMsecs += static_cast<float64_t>(delta);
    item->numCalls += 1;
    item->avgRuntimeMsecs = static_cast<float32_t>(item->cumRuntimeMsecs / item->numCalls);
}

void al_packSondeBuffer(AlgoMeasBuffer* measBuffer, uint32_t* idx, uint32_t channelID, const void* data,
                        uint32_t dataSize, FctGetDescription getFCN)
{
    if (measBuffer == nullptr || idx == nullptr) {
        return;
    }
    if (data == nullptr || dataSize == 0 || getFCN == nullptr) {
        return;
    }
    AlgoMeasBuffer& record = measBuffer[*idx];
    record.buffer = data;
    record.sizeTotal = dataSize;
    record.channelID = static_cast<alif_int32_t>(channelID);
    ++*idx;

    uint32_t sonde_buffer_size = 0; // stays 0 if the getter knows no description
    AlgoMeasBuffer& description = measBuffer[*idx];
    getFCN(&description.buffer, &sonde_buffer_size);
    description.sizeTotal = sonde_buffer_size;
    description.channelID = static_cast<alif_int32_t>(channelID + 1);
    ++*idx;
}
