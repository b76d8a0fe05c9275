#ifndef LODESTONE_TEST_LIBRARYCALLS_H
#define LODESTONE_TEST_LIBRARYCALLS_H

#include <atomic>
#include <cstddef>
#include <functional>

/// Stand-ins for the C functions at which the library's threads meet. A test forces an interleaving with
/// them: it holds a thread at a call and lets the others run. The library itself is unchanged.
///
/// For programs with LibraryCalls.cpp and a WRAP of all functions in LibraryCalls.cpp.
/// The test's own calls come along here too, as those of the host's thread.
namespace LibraryCalls
{

enum Call
{
    SEND,
    ACCEPT,
    SLEEP,  ///< pthread_cond_wait
    LOOK,   ///< pthread_cond_timedwait: whoever waits for the sender looks at the client from time to time.
    SIGNAL, ///< pthread_cond_signal
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

/// Calls since the program began, the one that a thread is in included.
int count(Call call, Thread thread);

/// Calls since the construction.
class Calls
{
public:
    Calls(Call call, Thread thread) : m_call(call), m_thread(thread), m_before(count(call, thread)) {}
    int sinceThen() const { return count(m_call, m_thread) - m_before; }
    bool await(int number) const; ///< False at the deadline.

private:
    const Call m_call;
    const Thread m_thread;
    const int m_before;
};

/// Holds the next thread that comes to a call, until it is released or the test's patience is at its end. At
/// most four at a time.
class Hold
{
public:
    /// `when` narrows it down; it is asked with the call's mutex or condition, the number of bytes of a SEND
    /// (a std::size_t), or null, and mustn't block.
    Hold(Call call, Thread thread, std::function<bool(const void*)> when = {});
    ~Hold();
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;

    bool held() const { return m_state == HELD; }
    bool awaitHeld() const;
    void release(); ///< Waits until the thread has gone on. Nobody is held any more.

    /// For the stand-ins: the calling thread is at that call.
    static void pass(Call call, const void* object);

private:
    enum State
    {
        ARMED,
        HELD,
        RELEASED,
        LEFT
    };
    static Hold* find(Call call, const void* object);

    const Call m_call;
    const Thread m_thread;
    const std::function<bool(const void*)> m_when;
    std::atomic<State> m_state{ARMED};
};

/// Faults. Each is used up by the call that has it.
extern std::atomic<bool> g_sendThrows;   ///< std::bad_alloc
extern std::atomic<bool> g_acceptThrows; ///< The same.
extern std::atomic<int> g_acceptError;   ///< The errno with which accept fails ...
extern std::atomic<int> g_acceptFaults;  ///< ... so many times.
/// What a thread of the host's does at each REST, if anything. Set it while no such thread can come there.
extern std::function<void()> g_atRest;

extern std::atomic<int> g_threads;      ///< Library threads that were started and haven't ended.
extern std::atomic<int> g_earlyWakes;   ///< Waits with a limit that ended as if it had passed.
extern std::atomic<bool> g_signalsOpen; ///< One of them began with a signal open.
extern std::atomic<int> g_connection;   ///< The descriptor of the newest connection.

/// Stops the clock of whoever waits for the sender, or lets it run. A stopped one is moved by each look, by
/// as much as the waiter would have slept, as long as there are looks left.
void stopClock(bool stop);
extern std::atomic<int> g_looksLeft;

/// For a Hold: a SEND with which a cycle begins. It is known by its size, so no payload should have 12 bytes.
bool beginsCycle(const void* byteSize);

} // namespace LibraryCalls

#endif
