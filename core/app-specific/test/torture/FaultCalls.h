#ifndef LODESTONE_TEST_FAULTCALLS_H
#define LODESTONE_TEST_FAULTCALLS_H

#include <string>
#include <vector>

/// One way in which a call of the library fails. Each such call has a stand-in that the linker puts in its
/// place. What only frees or initialises (close, shutdown, munmap, the mutexes) doesn't fail in life.
struct FaultKind
{
    enum Effect
    {
        HURTS,         ///< The call, the connection or the queue.
        HARMLESS_ONCE, ///< If it happens once, host and clients must not notice ...
        HARMLESS       ///< ... nor if it goes on.
    };

    std::string call;
    std::string how; ///< If there are several ways.
    int error;       ///< The call's errno, or one of these below.
    Effect effect;
    std::vector<std::string> scenarios; ///< Those that must make the call; none: all must.

    enum
    {
        SHORT = -1,   ///< The kernel takes half of what it is given ...
        NOTHING = -2, ///< ... or nothing.
        JUMP = -3,    ///< The clock jumps an hour ahead, and stays there.
        STANDS = -4,  ///< This one reading shows the time of the first one.
        THROWS = -5   ///< As if something within the library had run out of memory at that point.
    };
    std::string name() const { return call + (how.empty() ? "" : "-") + how; }
};
const std::vector<FaultKind>& faultKinds();

/// The `number`-th call of the library, counted from 1, fails, and all later ones as well if `everAfter`. 0:
/// none does.
struct Fault
{
    const FaultKind* kind = &faultKinds()[0];
    int number = 0;
    bool everAfter = false;

    std::string name() const
    {
        return kind->name() + " " + std::to_string(number) + (everAfter ? " ever" : " once");
    }
};

/// Fails calls of the library: of its own threads, and of the host's thread inside one of its functions, in
/// a run of Schedule.h. Those of the test pass. Children of the process count along with it.
namespace FaultCalls
{

void arm(const Fault& fault);

/// If this call fails, the armed kind's error, which is errno then as well; else 0. For the stand-ins.
int fails(const char* call);

/// A call of the host begins.
void hostEnters();
/// The texts with which it must have failed, asked when it is back. None: it must have succeeded.
std::vector<std::string> expectedTexts();

/// Of the next listener: the kernel shall take little for clients, so that who stalls is felt soon.
void expectStall();
/// Calls that have failed since the fault was armed.
int hits();
/// Something has gone wrong in the library, so clients may be lost or get nothing.
bool happened();
/// And nothing more will. Then a frame that failed for it is all that is missing.
bool isOver();
/// It costs no more than a connection: when it is over, the same queue streams again.
bool heals();

} // namespace FaultCalls

#endif
