#ifndef LODESTONE_APP_CYCLEGATE_H
#define LODESTONE_APP_CYCLEGATE_H

#include "MutexLocker.h"

#include <pthread.h>

namespace Lodestone
{

class TCPSocket;

/// The door in front of the socket: one cycle or one replacement of the connection goes through at a time,
/// the two take turns, and nobody waits for a stalled client without bound.
///
/// The sender writes a cycle with blocking sends, so a client that stops reading holds it for as long as it
/// likes. As long as nobody waits for the sender, that is the client's own affair. Whoever waits here looks
/// at the connection from time to time. A client whose kernel takes anything is served to the end of its
/// cycle; one whose kernel has taken nothing for STALL_LIMIT_MS is cut off, and the hanging send fails like
/// one to a lost client. (A kernel announces room by the segment, so a reader of less than one segment in
/// that time can't be told from one that has stopped.)
///
/// The gate's mutex is the innermost: nothing is locked inside it, and only the connection's state is asked.
class CycleGate
{
public:
    static constexpr int STALL_LIMIT_MS = 2000;
    static constexpr int LOOK_INTERVAL_MS = 50;

    CycleGate();
    // The mutex and the condition are not destroyed: they hold no resource, and in a forked child the
    // destruction of a condition waits for sleepers that don't exist there.
    ~CycleGate() = default;

    CycleGate(const CycleGate&) = delete;
    CycleGate& operator=(const CycleGate&) = delete;

    /// The sender's passage for one cycle. Waits while a replacement is under way, or for one that waits and
    /// is next.
    class Cycle
    {
    public:
        explicit Cycle(CycleGate& gate);
        ~Cycle();

        Cycle(const Cycle&) = delete;
        Cycle& operator=(const Cycle&) = delete;

        /// From here on `socket` may be cut off for a stall; with null, no more. Whoever destroys the socket
        /// ends the watch first.
        void watch(TCPSocket* socket);

    private:
        CycleGate& m_gate;
    };

    /// The server's passage for one replacement. Waits for the end of the cycle under way, or for one that is
    /// next.
    class Replacement
    {
    public:
        explicit Replacement(CycleGate& gate);
        ~Replacement();

        Replacement(const Replacement&) = delete;
        Replacement& operator=(const Replacement&) = delete;

    private:
        CycleGate& m_gate;
    };

    /// Host: a sender is about to start.
    void senderStarts();
    /// Sender: the last thing that its thread does with the queue.
    void senderEnds();
    /// Host: waits for senderEnds.
    void awaitSenderEnd();

private:
    // Whom the two kinds of passage, and the one who waits for the sender's end, have to wait for.
    bool cycleMustWait() const LODESTONE_REQUIRES(m_mutex);
    bool replacementMustWait() const LODESTONE_REQUIRES(m_mutex);
    bool senderLives() const LODESTONE_REQUIRES(m_mutex) { return m_senderLives; }
    void waitCuttingStalls(bool (CycleGate::*mustWait)() const) LODESTONE_REQUIRES(m_mutex);

    Mutex m_mutex;
    pthread_cond_t m_changed; // with m_mutex; on the monotonic clock
    bool m_cycleUnderWay LODESTONE_GUARDED_BY(m_mutex) = false;
    bool m_cycleWaits LODESTONE_GUARDED_BY(m_mutex) = false;
    bool m_replacementUnderWay LODESTONE_GUARDED_BY(m_mutex) = false;
    bool m_replacementWaits LODESTONE_GUARDED_BY(m_mutex) = false;
    bool m_replacementWasLast LODESTONE_GUARDED_BY(m_mutex) = false; // if both wait, the cycle is next
    bool m_senderLives LODESTONE_GUARDED_BY(m_mutex) = false;
    TCPSocket* m_watched LODESTONE_GUARDED_BY(m_mutex) = nullptr; // borrowed for the length of a watch
};

} // namespace Lodestone

#endif
