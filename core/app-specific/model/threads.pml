/* The threads of SondeBufferQueue at the level of locks, flags and lists: host, sender, server, and the clients at the
 * other end of the wire. Steps carry the names of the functions that they stand for, and the order of the steps is
 * theirs: whoever changes that order there changes it here. check.sh tells what is checked, and with which sizes.
 *
 * MISTAKE_x seeds a mistake; each must be found. */

#include "state.pml"
#include "list.pml"
#include "socket.pml"
#include "gate.pml"
#include "sender.pml"
#include "server.pml"
#include "host.pml"
