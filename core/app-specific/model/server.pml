/* The server thread. */

byte acceptFailures = ACCEPT_FAILURES;
byte serverFailures = SERVER_FAILURES;
bool serverBusy; /* with a connection, not in its poll */
bool serverDone;
#define CONNECTED 0
#define VANISHED 1
#define FAILED 2

/* A client that is gone before it is accepted may have vanished from the backlog, or still be accepted. */
inline accept() {
    atomic {
        if
        :: acceptFailures > 0 -> acceptFailures--; result = FAILED
        :: backlog?connection -> result = CONNECTED
        fi;
        if
        :: result == CONNECTED && peer[connection] == GONE -> connection = NOBODY; result = VANISHED
        :: true
        fi
    }
}

/* The mark of a client that was lost before the new one came. */
inline markIfLost() {
    d_step {
        regular = (m_sondeSocket == 0 || closedByPeer);
        if
#ifndef MISTAKE_LOST_CLIENT_IS_NOT_MARKED
        :: m_sondeSocket != 0 && closedByPeer -> m_restartMarked = true
#endif
        :: else
        fi
    }
}

/* `connection` goes into m_sondeSocket, the old one is destroyed, and the id follows. */
inline install() {
    d_step {
        destroySocket();
        socketID++;
        m_sondeSocket = socketID;
        sockClient = connection;
        m_connectedID = socketID;
        halfSent = false;
        wireNext = 0;
        streamed = false;
        onceDue = (onceDue || regular) && ONCE_CHANNELS > 0
    }
}

inline replaceConnection() {
#ifndef MISTAKE_SERVER_TAKES_NO_LOCK
    CycleGate_Replacement();
    lock(m_socketMutex);
#endif
    if
    :: serverFailures > 0 -> serverFailures--; broken = true /* no memory for the connection */
    :: true ->
        accept();
        if
        :: result != VANISHED ->
            markIfLost();
            if
            :: result == FAILED && m_sondeSocket != 0 -> d_step { destroySocket() }; accept()
            :: else
            fi;
            install()
        :: else
        fi
    fi;
    d_step {
        connection = NOBODY;
        result = CONNECTED;
        regular = false
    };
#ifndef MISTAKE_SERVER_TAKES_NO_LOCK
    unlock(m_socketMutex);
    CycleGate_Replacement_end()
#endif
}

inline dropConnection() {
    CycleGate_Replacement();
    lock(m_socketMutex);
    m_connectedID = NO_CONNECTION;
    d_step { destroySocket() };
    unlock(m_socketMutex);
    CycleGate_Replacement_end()
}

/* Clients that wait in the backlog are reset, later ones are refused. */
inline closeListener() {
    d_step {
        listening = false;
        do
        :: nempty(backlog) -> backlog?connection; ended[connection] = true
        :: empty(backlog) -> break
        od;
        connection = NOBODY
    }
}

inline serveConnections() {
    if
    :: serverFailures > 0 -> serverFailures--; broken = true /* the port is taken */
    :: true
    fi;
    do
    :: broken || !m_serverThreadRunning -> break
    :: atomic { !broken && nempty(backlog) -> serverBusy = true };
        replaceConnection();
        serverBusy = false
    od;
    closeListener();
    if
    :: broken ->
        m_serverThreadRunning = false;
#ifndef MISTAKE_SERVER_FAILURE_KEEPS_CLIENT
        dropConnection()
#endif
    :: else
    fi
}

active proctype server() {
    byte connection = NOBODY, result, socketID;
    bool regular, broken;
    serveConnections();
    serverDone = true
}
