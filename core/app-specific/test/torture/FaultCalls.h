#ifndef LODESTONE_TEST_FAULTCALLS_H
#define LODESTONE_TEST_FAULTCALLS_H

#include "Scenario.h"

#include <string>
#include <vector>

/// Calls of the library that can fail; each has a stand-in that the linker puts in its place. What only frees
/// or initialises (close, shutdown, munmap, the mutexes) doesn't fail in life.
enum FaultCall
{
    ALLOCATION,
    MMAP,
    THREAD,
    SOCKET,
    SETSOCKOPT,
    BIND,
    LISTEN,
    FCNTL,
    ACCEPT,
    SELECT,
    POLL,
    SEND,
    IOCTL,
    GETSOCKOPT,
    CLOCK,
    SYSTEM_CLOCK,
    REST,  ///< usleep
    SLEEP, ///< pthread_cond_wait wakes up without a signal.
    LOOK,  ///< pthread_cond_timedwait does.
    ATFORK,
    NAME, ///< pthread_setname_np
    NO_FAULT_CALLS
};

/// One way in which a call fails. `error` is its errno, or one of these.
struct FaultKind
{
    enum Effect
    {
        HURTS,         ///< The call, the connection or the queue.
        HARMLESS_ONCE, ///< If it happens once, host and clients must not notice ...
        HARMLESS       ///< ... nor if it goes on.
    };

    FaultCall call;
    const char* name;
    int error;
    Effect effect;

    enum
    {
        SHORT = -1,   ///< The kernel takes half of what it is given ...
        NOTHING = -2, ///< ... or nothing.
        THROWS = -5,  ///< As if something within the library had run out of memory at that point.
        JUMP = -3,    ///< The clock jumps an hour ahead (the system's: back), and stays there.
        STANDS = -4   ///< This one reading shows the time of the first one.
    };
};
const std::vector<FaultKind>& faultKinds();

/// The `number`-th call of the library, counted from 1, fails, and all later ones as well if `everAfter`.
struct Fault
{
    const FaultKind* kind;
    int number;
    bool everAfter;
};

/// Fails calls of the library: of its own threads, and of the host's thread inside one of its functions.
/// Those of the test pass. The library's waits last a 500th of what it asks for.
///
/// For programs with FaultCalls.cpp, the allocation hook and a WRAP of all functions in FaultCalls.cpp. One
/// at a time. Children of the process count along with it.
class FaultCalls : public Disturbance
{
public:
    explicit FaultCalls(const Fault& fault);
    ~FaultCalls() override;

    void hostEnters() override;
    void hostLeaves() override;
    std::vector<std::string> expectedTexts() const override;
    bool happened() const override;
    bool isOver() const override;
    void expectStall() override;

    static int hits();            ///< Calls that have failed since the construction.
    static int threadsUnjoined(); ///< Of the library, in this process.
};

#endif
