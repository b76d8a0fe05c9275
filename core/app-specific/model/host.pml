/* The host's thread, and the process that ends around it. */

byte startFailures = START_FAILURES;

inline reapSender() {
    if
    :: m_senderJoinable ->
        awaitSenderEnd();
        (!senderCreated); /* pthread_join */
        m_senderJoinable = false
    :: else
    fi
}

/* False in `started` if it throws. */
inline startSender() {
#ifndef MISTAKE_START_REAPS_NOBODY
    reapSender();
#endif
#ifndef MISTAKE_START_KEEPS_STATE
    m_transmissionState = TRANSFER_INITIATE;
#endif
    onceCopy = FREED;
    m_senderRunning = true;
    m_senderLives = true; /* CycleGate::senderStarts */
    if
    :: startFailures > 0 && !closing ->
        startFailures--;
        senderEnds();
        m_senderRunning = false;
        started = false
    :: true ->
        d_step {
            property(ONE_SENDER, !senderCreated);
            senderCreated = true
        };
        m_senderJoinable = true
    fi
}

inline stopSender() {
    m_transmissionState = TRANSFER_FINISHED;
#ifdef MISTAKE_STOP_WITHOUT_MUTEX
    m_senderRunning = false;
    pthread_cond_signal();
#else
    atomic {
        !m_jobMutex -> d_step {
            m_senderRunning = false;
            pthread_cond_signal()
        }
    }
#endif
#ifdef MISTAKE_JOIN_UNDER_SOCKET_MUTEX
    lock(m_socketMutex);
#endif
    reapSender();
#ifdef MISTAKE_JOIN_UNDER_SOCKET_MUTEX
    unlock(m_socketMutex)
#endif
}

inline toggleSenderThreadOff() {
    if
    :: m_senderRunning -> stopSender()
    :: else
    fi
}

inline toggleSenderThreadOn() {
    started = true;
    if
    :: !m_senderRunning -> startSender()
    :: else
    fi
}

inline clearJobList() {
    atomic { !m_jobMutex -> d_step { clearList() } }
}

inline collectReturned() {
    d_step { giveAll(RETURNED, STORED) }
}

inline clearBufferList() {
    collectReturned();
    d_step { giveAll(STORED, FREED) }
}

inline resetChannels() {
    d_step {
        queuedWhole = 0;
        partsFirst = 0;
        partsBehind = 0
    }
}

inline emptyLists() {
    if
    :: !m_clean ->
        clearJobList();
        resetChannels();
        clearBufferList();
        m_clean = true
    :: else
    fi
}

inline reset() {
#ifdef MISTAKE_MARK_CLEARED_FIRST
    m_restartMarked = false;
#endif
#ifdef MISTAKE_CLEARED_BEFORE_JOIN
    emptyLists();
#endif
    toggleSenderThreadOff();
    reapSender();
#ifndef MISTAKE_MARK_NEVER_CLEARED
    m_restartMarked = false;
#endif
    emptyLists()
}

inline connectionLost() {
    lost = (m_connectedID == NO_CONNECTION);
    if
    :: !lost -> lost = m_restartMarked
    :: else
    fi
}

#define room (queuedWhole < MAX_APPEARANCE && (PARTS == 0 || queuedParts < MAX_APPEARANCE))

#ifdef MISTAKE_ROOM_WAIT_IGNORES_EXIT
#define leavesRoomWait (!m_senderRunning)
#elif defined(MISTAKE_ROOM_WAIT_IGNORES_SENDER)
#define leavesRoomWait exiting
#else
#define leavesRoomWait (!m_senderRunning || exiting)
#endif

/* The polling is a guard here: what it waits for stays once it is there. */
inline waitForRoom() {
    do
    :: found = room;
        connectionLost();
        if
        :: lost -> reset(); break
        :: !lost && leavesRoomWait -> break
        :: !lost && !leavesRoomWait ->
            if
            :: found -> break
            :: else ->
                frameInRoomWait = true;
                (room || m_connectedID == NO_CONNECTION || m_restartMarked || leavesRoomWait);
                frameInRoomWait = false
            fi
        fi
    od;
    found = false
}

/* A slot of memory that has come back, or fresh. */
inline openDelivery() {
    d = 0;
    do
    :: d < DELIVERIES && (noCycles[d] > 0 || !(whole[d] == FREED || whole[d] == STORED) ||
                          !(part[d] == FREED || part[d] == STORED)) -> d++
    :: else -> break
    od;
    property(IN_BOUNDS, d < DELIVERIES)
}

/* The signal belongs to an empty list: the sender sleeps on no other. */
inline mergeIntoQueue() {
#ifdef MISTAKE_SIGNAL_BEFORE_MERGE
    if
    :: listEmpty -> pthread_cond_signal()
    :: else
    fi;
#endif
    atomic {
        !m_jobMutex -> d_step {
#ifndef MISTAKE_SIGNAL_BEFORE_MERGE
            if
            :: listEmpty -> pthread_cond_signal()
            :: else
            fi;
#endif
            if
            :: hasWhole[d] -> give(whole[d], BUILDING, IN_QUEUE)
            :: else
            fi;
            if
            :: noCycles[d] > 1 -> give(part[d], BUILDING, IN_QUEUE)
            :: else
            fi;
            append(d);
            if
            :: noCycles[d] > 1 ->
                partsFirst = firstCycle[d];
                partsBehind = firstCycle[d] + noCycles[d]
            :: else
            fi
        }
    };
    d = 0
}

inline queueOnceCycle() {
    d_step {
        openDelivery();
        noCycles[d] = 1;
        hasWhole[d] = true;
        isOnce[d] = true;
        whole[d] = BUILDING;
        onceCopy = FREED; /* its bytes are the delivery's now */
        m_clean = false
    };
#ifndef MISTAKE_ONCE_STATE_AFTER_MERGE
    m_transmissionState = TRANSFER_ONCE_DATA;
#endif
    mergeIntoQueue();
#ifdef MISTAKE_ONCE_STATE_AFTER_MERGE
    m_transmissionState = TRANSFER_ONCE_DATA;
#endif
}

inline collectOnceData() {
    if
    :: ONCE_CHANNELS == 0 -> m_transmissionState = TRANSFER_NORMAL_DATA
    :: ONCE_CHANNELS == 2 && !closing && onceCopy == FREED -> onceCopy = COLLECTED
    :: ONCE_CHANNELS > 0 -> queueOnceCycle()
    fi
}

inline awaitOnceData() {
    atomic {
        !m_jobMutex;
        if
        :: listIdle -> m_transmissionState = TRANSFER_NORMAL_DATA
        :: else
        fi
    }
}

/* The frame brings the whole channel, the split one, or both. A channel without room is skipped. */
inline chooseBuffers() {
    if
    :: true -> bringsWhole = true; bringsParts = (PARTS > 0)
    :: PARTS > 0 && !closing -> bringsWhole = false; bringsParts = true
    :: PARTS > 0 && !closing -> bringsWhole = true; bringsParts = false
    fi;
    bringsWhole = bringsWhole && queuedWhole < MAX_APPEARANCE;
    bringsParts = bringsParts && queuedParts == 0
}

inline copyPayloads() {
    d_step {
        openDelivery();
        noCycles[d] = (bringsParts -> PARTS : 1);
        hasWhole[d] = bringsWhole;
        if
        :: bringsWhole -> whole[d] = BUILDING; queuedWhole++
        :: else
        fi;
        if
        :: bringsParts -> part[d] = BUILDING
        :: else
        fi
    }
}

inline queueNormalData() {
    m_clean = false;
    collectReturned();
    chooseBuffers();
    if
    :: bringsWhole || bringsParts ->
        copyPayloads();
        mergeIntoQueue()
    :: else
    fi;
    bringsWhole = false;
    bringsParts = false
}

inline dispatch() {
    if
    :: m_transmissionState == TRANSFER_INITIATE -> collectOnceData()
    :: m_transmissionState == TRANSFER_ONCE_DATA -> awaitOnceData()
    :: m_transmissionState == TRANSFER_NORMAL_DATA -> queueNormalData()
    :: m_transmissionState == TRANSFER_FINISHED -> property(NOBODY_STRANDED, false)
    fi
}

inline addBuffers() {
    if
    :: m_serverThreadRunning ->
        if
        :: QUEUE_LENGTH < 0 -> waitForRoom()
        :: else
        fi;
        connectionLost();
        if
        :: lost -> reset()
        :: else
        fi;
        lost = false;
        if
        :: m_connectedID == NO_CONNECTION || exiting
        :: else ->
            toggleSenderThreadOn();
            if
            :: started -> dispatch()
            :: else
            fi;
            started = false
        fi
    :: else
    fi
}

/* Clients have done what they do, and every one that connected has been accepted. */
#define quiet (clientsDone == CLIENTS && empty(backlog) && !serverBusy)

/* What was queued goes out or is dropped, if there is a sender, and a client that takes it. */
#define drained (listIdle || m_restartMarked || m_connectedID == NO_CONNECTION || !m_senderRunning || hangs)

/* Enough frames for a whole start: a reset or a failed start, the once data, their end, one to be sent. */
#define CLOSING_FRAMES 4

inline checkClients() {
    d_step {
        i = 0;
        do
        :: i < CLIENTS ->
            property(NOBODY_STRANDED, peer[i] != READING || ended[i] || (sockClient == i && streamed));
            i++
        :: else -> break
        od;
        i = 0
    }
}

inline destroyMembers() {
    d_step {
        destroySocket();
        giveAll(STORED, FREED);
        onceCopy = FREED;
        i = 0;
        do
        :: i < DELIVERIES -> property(ONE_OWNER, whole[i] == FREED && part[i] == FREED); i++
        :: else -> break
        od;
        i = 0;
        do
        :: i < CLIENTS -> property(NOBODY_STRANDED, ended[i] || peer[i] == GONE || peer[i] == AWAY); i++
        :: else -> break
        od;
        i = 0
    }
}

inline destroyQueue() {
    toggleSenderThreadOff();
    reapSender();
    m_serverThreadRunning = false;
    (serverDone); /* pthread_join */
    clearJobList();
    clearBufferList();
    destroyMembers()
}

active proctype host() {
    /* Members that only this thread uses, and locals of its functions. */
    byte partsFirst, partsBehind, onceCopy = FREED;
    bool m_senderJoinable, m_clean = true;
    byte frames, d;
    bool lost, found, started, bringsWhole, bringsParts;
    toggleSenderThreadOn(); /* the constructor */
    do
    :: exiting -> break
    :: !exiting && (frames < FRAMES || (closing && frames <= FRAMES + CLOSING_FRAMES)) ->
        frames++;
        addBuffers();
        (!closing || drained || exiting)
    :: break /* the queue may be destroyed between any two frames */
    :: frames == FRAMES ->
        (quiet || exiting || !m_serverThreadRunning);
        closing = true;
        frames++
    :: frames > FRAMES + CLOSING_FRAMES ->
        if
        :: exiting
        :: !exiting && !m_serverThreadRunning -> (serverDone); checkClients()
        :: else -> checkClients()
        fi;
        break
    od;
    destroyQueue();
    hostDone = true
}

/* Exit handlers: the call under way is waited for, then the queue is destroyed, which is the host's part here. Some
 * processes exit at any moment; the others only where a client that stalls would hold the host for ever. */
active proctype exitHandlers() {
    if
    :: EXITS -> exiting = true
    :: true ->
        if
        :: hostDone
        :: frameInRoomWait && hangs -> exiting = true
        fi
    fi
}
