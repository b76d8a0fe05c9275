// The library's rests, cut short, so that a million buffers take seconds. For programs that link this file
// with WRAP usleep select.

#include "../torture/StandIn.h"

#include <algorithm>
#include <sys/select.h>
#include <unistd.h>

// A frame that waits for room.
STAND_IN(int, usleep, (useconds_t wait_us))
{
    return __real_usleep(std::min<useconds_t>(wait_us, 20));
}

// The listener's poll, by which it notices the end of its queue.
STAND_IN(int, select, (int count, fd_set* readable, fd_set* writable, fd_set* failed, timeval* timeout))
{
    timeval shorter = {0, 5000};
    return __real_select(count, readable, writable, failed, timeout == nullptr ? nullptr : &shorter);
}
