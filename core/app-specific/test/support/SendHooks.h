#ifndef LODESTONE_TEST_SENDHOOKS_H
#define LODESTONE_TEST_SENDHOOKS_H

#include <cstddef>
#include <functional>
#include <sys/types.h>
#include <vector>

/// Stand between the library and the C library: record, hold and fail its calls of send, and tell when it
/// waits. For programs that link SendHooks.cpp with WRAP send usleep pthread_cond_timedwait.
///
/// One state for the program. Any thread may call any of them.
class SendHooks
{
public:
    struct SendCall
    {
        int descriptor;
        std::size_t byteSize;
        int flags;
    };

    /// Everything passes from here on, and what was recorded is forgotten.
    static void clear();

    /// Calls since the last clear, recorded before the kernel sees their bytes.
    static std::vector<SendCall> sendCalls();
    /// The call with that index, counted from 0 and from now, returns `result` and sends nothing; as a broken
    /// connection if it is negative.
    static void failSend(std::size_t index, ssize_t result);
    static bool sendFailed();

    /// From now on the sender stops before the first byte of each cycle. It is known by its size, so a test
    /// that holds cycles sends no payload of 12 bytes.
    static void holdCycles();
    /// Whether the sender stands before a cycle, and hasn't been let pass.
    static bool cycleHeld();
    /// Lets the cycle that is held pass.
    static void passCycle();
    /// Lets all pass, and holds no more.
    static void releaseCycles();

    /// Called on the host's thread whenever a frame is about to wait for room.
    static void onHostWait(std::function<void()> action);
    /// How often the library has begun to wait for the end of a cycle or of the sender.
    static unsigned gateWaits();
};

#endif
