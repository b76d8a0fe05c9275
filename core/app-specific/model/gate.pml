/* CycleGate. Its mutex is innermost, so a section is one step. Waits with a time limit are guards; the sender's, which
 * has none, is a sleep that somebody must end. Time itself isn't there: a client that is stalled has moved nothing for
 * as long as it takes, and one that takes bytes is never cut. */

bool m_cycleUnderWay, m_cycleWaits, m_replacementUnderWay, m_replacementWaits, m_replacementWasLast, m_senderLives;
bool gateAsleep; /* the sender, on m_changed */
byte m_watched;  /* id of the socket */

#ifdef MISTAKE_GATE_WITHOUT_TURNS
#define cycleMustWait (m_replacementUnderWay || m_replacementWaits)
#define replacementMustWait (m_cycleUnderWay || m_cycleWaits)
#else
#define cycleMustWait (m_replacementUnderWay || (m_replacementWaits && !m_replacementWasLast))
#define replacementMustWait (m_cycleUnderWay || (m_cycleWaits && m_replacementWasLast))
#endif
#define stalledInSight (m_watched != 0 && hangs)
#define pthread_cond_broadcast() gateAsleep = false

inline CycleGate_Cycle() {
    atomic {
        m_cycleWaits = true;
        do
        :: cycleMustWait -> gateAsleep = true; (!gateAsleep) /* gives the gate's mutex back for the sleep */
        :: else -> break
        od;
        m_cycleWaits = false;
        m_cycleUnderWay = true;
        m_replacementWasLast = false
    }
}

inline CycleGate_Cycle_end() {
    d_step {
        m_watched = 0;
        m_cycleUnderWay = false;
        pthread_cond_broadcast()
    }
}

inline waitCuttingStalls(mustWait) {
    do
    :: !(mustWait) -> break
    :: mustWait && stalledInSight -> abort()
    od
}

inline CycleGate_Replacement() {
    atomic {
        m_replacementWaits = true;
#ifdef MISTAKE_NEWCOMER_CUTS_NOBODY
        (!replacementMustWait);
#else
        waitCuttingStalls(replacementMustWait);
#endif
        m_replacementWaits = false;
        m_replacementUnderWay = true
    }
}

inline CycleGate_Replacement_end() {
    d_step {
        m_replacementUnderWay = false;
        m_replacementWasLast = true;
#ifndef MISTAKE_REPLACEMENT_WAKES_NOBODY
        pthread_cond_broadcast()
#endif
    }
}

inline senderEnds() {
    d_step {
        m_senderLives = false;
        pthread_cond_broadcast()
    }
}

inline awaitSenderEnd() {
#ifdef MISTAKE_STOP_CUTS_NOBODY
    (!m_senderLives);
#else
    atomic { waitCuttingStalls(m_senderLives) }
#endif
}
