/* The sender thread. */

byte exceptions = EXCEPTIONS;
byte wakeups = SPURIOUS;
#define NO_FAILURE 0
#define RUNTIME_ERROR 1
#define OTHER_FAILURE 2

inline pthread_cond_wait_job() {
    d_step {
        m_jobMutex = false;
        asleep = true
    };
    if
    :: !asleep
    :: wakeups > 0 -> wakeups--; asleep = false
    fi;
    lock(m_jobMutex)
}

#ifdef MISTAKE_ONCE_LEAVES_WHEN_TAKEN
#define staysQueued (QUEUE_LENGTH < 0)
#else
#define staysQueued (QUEUE_LENGTH < 0 || m_transmissionState == TRANSFER_ONCE_DATA)
#endif

inline getNextJob() {
    lock(m_jobMutex);
    do
    :: listEmpty && m_senderRunning -> pthread_cond_wait_job()
    :: else -> break
    od;
    if
    :: !listEmpty -> d_step { take(staysQueued) }
    :: else
    fi;
    unlock(m_jobMutex);
    if
    :: taken && !leftInQueue -> countSent()
    :: else
    fi
}

inline countSent() {
    d_step {
        if
        :: firstCycle[newest] == cycle && hasWhole[newest] && !isOnce[newest] ->
            property(IN_BOUNDS, queuedWhole > 0);
            queuedWhole--
        :: else
        fi
    }
}

inline returnWhole() {
    if
    :: firstCycle[newest] == cycle && hasWhole[newest] && noCycles[newest] > 1 ->
        give(whole[newest], IN_QUEUE, WITH_SENDER);
#ifndef MISTAKE_WHOLE_RETURNED_TWICE
        hasWhole[newest] = false
#endif
    :: else
    fi
}

inline jobDone() {
    if
    :: leftInQueue -> countSent()
    :: else
    fi;
    atomic { /* returnWhole needs no lock: nobody else looks into a delivery in hand */
        !m_jobMutex -> d_step {
            returnWhole();
            finish()
        }
    }
#ifndef MISTAKE_RETURN_IS_LOST
    d_step { giveAll(WITH_SENDER, RETURNED) }
#endif
}

inline dropJob() {
#ifdef MISTAKE_DROPPED_CYCLE_IS_FORGOTTEN
    taken = false;
#else
    if
    :: taken && !leftInQueue -> jobDone()
    :: else -> taken = false /* waits at the front of the queue */
    fi;
#endif
    noInHand = 0
}

/* One of the many sends of a cycle; the first takes the header's first byte along. */
inline sendPiece() {
    d_step { readPayloads() };
    if
    :: m_sondeSocket == 0 || sockClient == NOBODY -> failure = RUNTIME_ERROR
    :: sockClient != NOBODY && peer[sockClient] != GONE && !sockAborted /* taken, if by the kernel only */
    :: peer[sockClient] == GONE /* taken, and read by nobody */
    :: peer[sockClient] == GONE || sockAborted -> failure = RUNTIME_ERROR
    :: peer[sockClient] == STALLED && !sockAborted ->
        hanging = true;
        (!hangs);
        d_step {
            hanging = false;
            failure = (peer[sockClient] == GONE || sockAborted -> RUNTIME_ERROR : NO_FAILURE)
        }
    :: exceptions > 0 && !closing -> exceptions--; failure = OTHER_FAILURE
    fi
}

inline beginOnWire() {
    d_step {
        property(WHOLE_CYCLES, !halfSent && !onWire && cycle >= wireNext);
        property(ONCE_FIRST, isOnce[newest] || !onceDue);
        m_cycleBegun = true;
        onWire = true;
        wireNext = cycle + 1;
        onceDue = onceDue && !isOnce[newest]
    }
}

inline transmitCycle() {
    m_cycleBegun = false;
    sendPiece();
    if
    :: failure == NO_FAILURE ->
        beginOnWire();
        sendPiece();
        d_step {
            onWire = false;
            halfSent = (failure != NO_FAILURE);
            streamed = streamed || (closing && !halfSent && !isOnce[newest])
        }
    :: else
    fi
}

inline loseConnection() {
    m_restartMarked = true;
    m_connectedID = NO_CONNECTION;
    d_step { destroySocket() };
    m_senderRunning = false
}

inline watch(socket) {
    m_watched = socket
}

/* What is still in `failure` afterwards leaves the function. */
inline sendOrLoseConnection() {
    watch(m_sondeSocket);
    transmitCycle();
    if
#ifdef MISTAKE_HALF_CYCLE_LEFT_BEHIND
    :: failure == RUNTIME_ERROR ->
#else
    :: failure == RUNTIME_ERROR || (failure == OTHER_FAILURE && m_cycleBegun) ->
#endif
#ifndef MISTAKE_LOST_SOCKET_STAYS_WATCHED
        watch(0);
#endif
        loseConnection();
        failure = NO_FAILURE
    :: else
    fi
}

/* False in `more` if this sender is at its end; `failure` is what was thrown. */
inline sendNextCycle() {
    getNextJob();
    if
    :: !m_senderRunning || !taken -> dropJob(); more = false
    :: else ->
#ifdef MISTAKE_MARK_READ_BEFORE_ID
        marked = m_restartMarked;
#endif
        ID = m_connectedID;
        CycleGate_Cycle();
        lock(m_socketMutex);
#ifndef MISTAKE_MARK_READ_BEFORE_ID
        marked = m_restartMarked;
#endif
        if
#ifdef MISTAKE_MARKED_SENDER_GOES_ON
        :: marked -> dropJob(); more = true
#else
        :: marked -> dropJob(); m_senderRunning = false; more = false
#endif
        :: !marked && m_connectedID != ID -> dropJob(); more = true
        :: !marked && m_connectedID == ID ->
            sendOrLoseConnection();
            if
            :: failure == NO_FAILURE ->
                jobDone();
#ifdef MISTAKE_JOB_DONE_TWICE
                jobDone();
#endif
                more = m_senderRunning
            :: else -> dropJob()
            fi
        fi;
        unlock(m_socketMutex);
        CycleGate_Cycle_end();
        ID = 0;
        marked = false
    fi
}

inline sendCycles() {
    do
    :: more && m_senderRunning && failure == NO_FAILURE -> sendNextCycle()
    :: else -> break
    od;
    if
    :: failure != NO_FAILURE -> m_senderRunning = false
    :: else
    fi
}

/* One process for all the sender threads that follow one another. */
active proctype sender() {
    byte ID, failure;
    bool more, marked, m_cycleBegun;
end:
    do
    :: senderCreated ->
        more = true;
        sendCycles();
        senderEnds();
        d_step {
            more = false;
            failure = NO_FAILURE;
            m_cycleBegun = false;
            leftInQueue = false;
            cycle = 0;
            newest = 0;
            senderCreated = false
        }
    od
}
