/* TCPSocket and the clients at the other end.
 *
 * Closed by peer: the peer has closed its end, or the connection has failed, or there is no descriptor. The library is
 * not told; it can ask.
 * Lost: a send failed. To a closed peer, bytes may go out for a while before one does.
 * Stalled: the peer is there and reads nothing; a send hangs as soon as the kernel's buffers are full. Cut off: the
 * connection is shut down under a hanging send, which then fails; the descriptor stays until the socket is destroyed. */

#define AWAY 0
#define READING 1
#define STALLED 2
#define GONE 3
#define NOBODY CLIENTS

byte peer[CLIENTS + 1] = AWAY; /* one more, so that NOBODY has a place */
bool ended[CLIENTS + 1];       /* the client saw its connection end */
chan backlog = [CLIENTS] of { byte };
bool listening = true;
byte clientsDone;

byte m_sondeSocket = 0; /* its id, from 1; 0: null */
byte sockClient = NOBODY;
bool sockAborted;
bool hanging;           /* the sender is in a send that found a client reading nothing ... */
#define hangs (hanging && peer[sockClient] == STALLED && !sockAborted) /* ... and still does */

/* What has gone out on this connection. */
bool onWire;            /* a cycle is being written */
bool halfSent;          /* one was broken off */
byte wireNext;          /* number of the next cycle, or later */
bool onceDue;           /* a regular start, and its ONCE cycle hasn't begun to go out */
bool streamed;          /* a NORMAL cycle has gone out since the closing frames began */

#define closedByPeer (sockClient == NOBODY || peer[sockClient] == GONE || sockAborted)

inline abort() {
    d_step {
        property(SOCKET_LIVES, m_watched == m_sondeSocket);
        sockAborted = true;
        ended[sockClient] = true
    }
}

inline destroySocket() {
    property(SOCKET_LIVES, m_watched == 0 || m_watched != m_sondeSocket);
    property(WHOLE_CYCLES, !onWire);
    ended[sockClient] = (m_sondeSocket != 0);
    ended[NOBODY] = false;
    m_sondeSocket = 0;
    sockClient = NOBODY;
    sockAborted = false
}

/* One connection. Clients come in the order of their numbers, which loses nothing: they are all alike. */
active [CLIENTS] proctype client() {
    atomic {
        (_pid == 0 || peer[_pid - 1] != AWAY || !listening);
        if
        :: listening -> peer[_pid] = READING; backlog!_pid
        :: else -> peer[_pid] = GONE; goto done
        fi
    }
    if
    :: STALLS ->
        peer[_pid] = STALLED;
        if
        :: peer[_pid] = READING
        :: skip
        fi
    :: true
    fi;
    if
    :: CLOSES -> peer[_pid] = GONE
    :: true
    fi;
done:
    clientsDone++
}
