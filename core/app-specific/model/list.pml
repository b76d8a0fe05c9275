/* CycleList and the deliveries in it, the backlog, and the way of the memory back to the host. */

/* Deliveries in the order of their queueing, which is the order of their first cycles; their numbers are slots. */
byte m_deliveries[DELIVERIES];
byte noDeliveries;
byte firstCycle[DELIVERIES];
byte noCycles[DELIVERIES]; /* 0: the slot isn't in the queue */
bool hasWhole[DELIVERIES]; /* and they still stand in the delivery */
bool isOnce[DELIVERIES];

byte m_frontCycle, m_openCycle, m_cycleCounter;
#define listEmpty (m_frontCycle == m_cycleCounter)
#define listIdle (noDeliveries == 0)

/* The backlog of the whole channel (queuedCycles - sentCycles), and the newest range of the split one. */
byte queuedWhole;
#define partsFrom (m_frontCycle > partsFirst -> m_frontCycle : partsFirst)
#define queuedParts (partsBehind > partsFrom -> partsBehind - partsFrom : 0)

/* CycleJob, the cycle in the sender's hand; its deliveries are the first noInHand of the list. */
bool taken, leftInQueue;
byte cycle, newest, noInHand;

/* CycleList::append; under m_jobMutex. The slot d is filled in. */
inline append(d) {
    if
    :: isOnce[d] -> m_openCycle = m_cycleCounter
    :: else
    fi;
    firstCycle[d] = m_openCycle;
#ifdef MISTAKE_MERGE_INTO_FRONT
    firstCycle[d] = m_frontCycle;
#endif
    property(CYCLE_CLOSED, firstCycle[d] >= m_frontCycle && !(taken && firstCycle[d] == cycle));
    if
    :: firstCycle[d] + noCycles[d] > m_cycleCounter -> m_cycleCounter = firstCycle[d] + noCycles[d]
    :: else
    fi;
    if
    :: hasWhole[d] -> m_openCycle++
    :: else
    fi;
    m_deliveries[noDeliveries] = d;
    noDeliveries++
}

/* CycleList::take; under m_jobMutex. */
inline take(leave) {
    property(IN_BOUNDS, noDeliveries > 0 && firstCycle[m_deliveries[0]] <= m_frontCycle);
    taken = true;
    leftInQueue = leave;
    cycle = m_frontCycle;
#ifndef MISTAKE_TAKE_LEAVES_CYCLE_OPEN
    if
    :: m_openCycle == cycle -> m_openCycle++
    :: else
    fi;
#endif
    if
    :: !leftInQueue -> m_frontCycle++
    :: else
    fi;
    noInHand = 0;
    do
    :: noInHand < noDeliveries && firstCycle[m_deliveries[noInHand]] <= cycle ->
        newest = m_deliveries[noInHand];
        noInHand++
    :: else -> break
    od;
    property(ONCE_FIRST, !isOnce[newest] || noInHand == 1) /* and alone in its cycle */
}

/* Takes the i-th delivery out of the list; what it still owns goes to `owner`. */
inline removeDelivery(owner) {
    if
    :: hasWhole[m_deliveries[i]] -> give(whole[m_deliveries[i]], IN_QUEUE, owner)
    :: else
    fi;
    if
    :: noCycles[m_deliveries[i]] > 1 -> give(part[m_deliveries[i]], IN_QUEUE, owner)
    :: else
    fi;
    firstCycle[m_deliveries[i]] = 0;
    noCycles[m_deliveries[i]] = 0;
    hasWhole[m_deliveries[i]] = false;
    isOnce[m_deliveries[i]] = false;
    noDeliveries--;
    k = i;
    do
    :: k < noDeliveries -> m_deliveries[k] = m_deliveries[k + 1]; k++
    :: else -> break
    od;
    m_deliveries[noDeliveries] = 0
}

/* CycleList::finish; under m_jobMutex. */
inline finish() {
    property(ONE_OWNER, taken && noInHand <= noDeliveries);
    if
    :: leftInQueue -> m_frontCycle++
    :: else
    fi;
    i = 0;
    do
    :: noInHand > 0 ->
        noInHand--;
        if
        :: firstCycle[m_deliveries[i]] + noCycles[m_deliveries[i]] == cycle + 1 -> removeDelivery(WITH_SENDER)
        :: else -> i++
        fi
    :: else -> break
    od;
    taken = false
}

/* The list's part of clearJobList; under m_jobMutex, with no cycle in hand. The deliveries are freed. */
inline clearList() {
    property(ONE_OWNER, !taken);
    m_frontCycle = m_cycleCounter;
    m_openCycle = m_cycleCounter;
    i = 0;
    do
    :: noDeliveries > 0 -> removeDelivery(FREED)
    :: else -> break
    od
}

/* What the sender reads while it writes the cycle in hand. */
inline readPayloads() {
    property(ONE_OWNER, taken && noInHand <= noDeliveries);
    i = 0;
    do
    :: i < noInHand ->
        k = m_deliveries[i];
        property(ONE_OWNER, noCycles[k] > 0 && firstCycle[k] <= cycle);
        property(ONE_OWNER, !(hasWhole[k] && firstCycle[k] == cycle) || whole[k] == IN_QUEUE);
        property(ONE_OWNER, noCycles[k] == 1 || part[k] == IN_QUEUE);
        i++
    :: else -> break
    od;
    i = 0;
    k = 0
}

/* Moves everything that `from` owns; under the lock of both. */
inline giveAll(from, to) {
    i = 0;
    do
    :: i < DELIVERIES ->
        if
        :: whole[i] == from -> whole[i] = to
        :: else
        fi;
        if
        :: part[i] == from -> part[i] = to
        :: else
        fi;
        i++
    :: else -> break
    od;
    i = 0
}
