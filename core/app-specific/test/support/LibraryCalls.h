#ifndef LODESTONE_TEST_LIBRARYCALLS_H
#define LODESTONE_TEST_LIBRARYCALLS_H

#include <atomic>
#include <cstddef>
#include <functional>

/// Stand-ins for the C functions at which the library's threads meet, so that a test can force an
/// interleaving: it holds a thread in front of a call and lets the others run. The library itself is
/// unchanged.
///
/// For programs that are linked with LibraryCalls.cpp, AllocationHook.cpp, and a WRAP of all functions in
/// LibraryCalls.cpp. The test's own calls come along here too, as those of the host's thread.
namespace LibraryCalls
{

enum Call
{
    SEND,
    ACCEPT,
    SLEEP,  ///< pthread_cond_wait
    LOOK,   ///< pthread_cond_timedwait: the gate waits and looks at the client from time to time.
    SIGNAL, ///< pthread_cond_signal
    LOCK,
    UNLOCK, ///< The one call where a thread is held behind it.
    REST,   ///< usleep
    CREATE, ///< pthread_create
    NO_CALLS
};

enum Thread
{
    HOST,
    SENDER,
    SERVER,
    NO_THREADS
};

/// Calls so far, the one that a thread is in included.
int count(Call call, Thread thread);

/// Waits for the `more`-th call from now on; false at the deadline.
class Calls
{
public:
    Calls(Call call, Thread thread);
    bool await(int more) const;
    int sinceThen() const;

private:
    const Call m_call;
    const Thread m_thread;
    const int m_before;
};

/// Holds the first thread that comes to a call, until it is released or the test's patience is at its end.
class Hold
{
public:
    /// `when` narrows it down; it is asked with the call's mutex or condition, or null, and mustn't block.
    Hold(Call call, Thread thread, std::function<bool(const void*)> when = {});
    /// Releases, and waits until the thread has gone on.
    ~Hold();

    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;

    bool held() const { return m_state == HELD; }
    bool awaitHeld() const;
    void release();

private:
    friend struct Gatekeeper;

    enum State
    {
        ARMED,
        HELD,
        RELEASED,
        LEFT
    };

    const Call m_call;
    const Thread m_thread;
    const std::function<bool(const void*)> m_when;
    std::atomic<State> m_state{ARMED};
};

/// What the next calls do instead of their work. Each fault is used up by the call that has it.
enum class SendFault
{
    NONE,
    ERROR, ///< As to a lost client.
    THROW  ///< std::bad_alloc
};
extern std::atomic<SendFault> g_sendFault;
extern std::atomic<int> g_acceptError;  ///< The errno with which accept fails ...
extern std::atomic<int> g_acceptFaults; ///< ... so many times.
extern std::atomic<int> g_createFault;  ///< The so-manyth thread from now on can't be created.
extern std::atomic<bool> g_serverAllocationFault;

/// What a thread of the host's does in the wait for room, if not null.
extern std::atomic<void (*)()> g_atRest;

/// Library threads that were started and haven't ended, and whether one of them began with a signal open.
extern std::atomic<int> g_threads;
extern std::atomic<bool> g_signalsOpen;
/// Allocations of the sender threads that have ended.
extern std::atomic<std::size_t> g_senderAllocations;
/// The descriptor of the newest connection.
extern std::atomic<int> g_connection;

/// Stops the gate's clock or lets it run. A stopped one is moved by each look, by as much as the gate would
/// have waited, as long as there are looks left.
void stopClock(bool stop);
extern std::atomic<int> g_looksLeft;
const int MANY_LOOKS = 1000000;

} // namespace LibraryCalls

#endif
