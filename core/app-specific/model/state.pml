/* What the threads share: sizes, locks, flags, and who owns each payload. */

#ifndef CLIENTS
#define CLIENTS 2
#endif
#ifndef FRAMES
#define FRAMES 3 /* before the closing ones */
#endif
#ifndef QUEUE_LENGTH
#define QUEUE_LENGTH 1
#endif
#ifndef PARTS
#define PARTS 2 /* of a split buffer; 0: no split channel */
#endif
#ifndef ONCE_CHANNELS
#define ONCE_CHANNELS 1 /* 2: some frames bring one half of the set only */
#endif
/* Faults: how many of each may happen, at any place where they can. */
#ifndef EXCEPTIONS
#define EXCEPTIONS 0 /* in the sender, other than a failed send */
#endif
#ifndef ACCEPT_FAILURES
#define ACCEPT_FAILURES 0
#endif
#ifndef START_FAILURES
#define START_FAILURES 0 /* of the sender's thread */
#endif
#ifndef SERVER_FAILURES
#define SERVER_FAILURES 0 /* the port is taken, or there is no memory for a connection */
#endif
#ifndef SPURIOUS
#define SPURIOUS 0 /* wake-ups that nobody sent */
#endif
/* Which clients close, or stop reading, and whether the process may exit in the middle of a call: 0 or 1. */
#ifndef CLOSES
#define CLOSES 0
#endif
#ifndef STALLS
#define STALLS 0
#endif
#ifndef EXITS
#define EXITS 0
#endif

#if QUEUE_LENGTH < 0
#define MAX_APPEARANCE (-QUEUE_LENGTH)
#else
#define MAX_APPEARANCE QUEUE_LENGTH
#endif
#define DELIVERIES (MAX_APPEARANCE + 4) /* at once; one more would be reported */

/* The properties. A violation names the one that it breaks; the others are spin's own: no invalid end state, which
 * covers deadlock, stops that don't end and wake-ups that are lost, and no cycle of states, so that every run ends. */
bool ONE_OWNER = true;        /* each payload, at any time; it is freed once, and not while the sender reads it */
bool CYCLE_CLOSED = true;     /* nothing joins the cycle that the sender has in hand */
bool ONCE_FIRST = true;       /* a regular start begins with the ONCE cycle */
bool NOBODY_STRANDED = true;  /* a connected client that reads gets a stream, or its connection ends */
bool WHOLE_CYCLES = true;     /* each at most once and in order, and nothing after half a one */
bool ONE_SENDER = true;       /* at a time */
bool SOCKET_LIVES = true;     /* while somebody sends on it or watches it */
bool IN_BOUNDS = true;        /* of the model itself: no array is too small, no count runs under */
#define property(NAME, condition) assert(!NAME || (condition))

/* --- Locks. m_addBufferMutex isn't here: only the host takes it. m_bufferListMutex and the gate's are innermost and
 * guard one step each, so that step is the section. --- */

bool m_jobMutex, m_socketMutex;
#define lock(mutex) atomic { !mutex -> mutex = true }
#define unlock(mutex) mutex = false

/* m_jobCondition has one sleeper, the sender. */
bool asleep;
#define pthread_cond_signal() asleep = false

/* --- Flags and states of the queue --- */

#define NO_CONNECTION 0
#define TRANSFER_INITIATE 0
#define TRANSFER_ONCE_DATA 1
#define TRANSFER_NORMAL_DATA 2
#define TRANSFER_FINISHED 3

byte m_connectedID = NO_CONNECTION;
bool m_restartMarked, m_senderRunning;
bool m_serverThreadRunning = true;
byte m_transmissionState = TRANSFER_INITIATE;
bool senderCreated;   /* and has not returned from its thread function yet */
bool exiting;         /* ProcessLife::exiting() */

/* --- What was not modelled away of the host's side --- */

bool frameInRoomWait; /* the host is in waitForRoom and has found no room */
bool closing;         /* clients and faults have had their turn; frames still come */
bool hostDone;

/* --- Payloads. A delivery has up to two: the bytes of its whole buffers (or once data), and those of its parts. --- */

#define FREED 0      /* or not allocated yet */
#define BUILDING 1   /* the host's local list */
#define IN_QUEUE 2   /* m_JobList, also while the sender has a cycle of it in hand */
#define WITH_SENDER 3 /* the sender's local list, in jobDone */
#define RETURNED 4   /* m_bufferList */
#define STORED 5     /* m_store */
#define COLLECTED 6  /* m_onceBuffers */

byte whole[DELIVERIES] = FREED;
byte part[DELIVERIES] = FREED;

/* Moves a payload from one owner to the next. */
#define give(payload, from, to) \
    property(ONE_OWNER, payload == from); \
    payload = to

hidden byte i, k; /* scratch of one step */
