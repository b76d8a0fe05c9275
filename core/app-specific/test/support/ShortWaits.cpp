// The library's rests, cut short, so that a million buffers take seconds. For programs that link this file
// with WRAP usleep select.

#include <algorithm>
#include <sys/select.h>
#include <unistd.h>

extern "C" {

int __real_usleep(useconds_t wait_us);
int __real_select(int count, fd_set* readable, fd_set* writable, fd_set* failed, timeval* timeout);

// A frame that waits for room.
int __wrap_usleep(useconds_t wait_us)
{
    return __real_usleep(std::min<useconds_t>(wait_us, 20));
}

// The listener's poll, by which it notices the end of its queue.
int __wrap_select(int count, fd_set* readable, fd_set* writable, fd_set* failed, timeval* timeout)
{
    timeval shorter = {0, 5000};
    return __real_select(count, readable, writable, failed, timeout == nullptr ? nullptr : &shorter);
}

} // extern "C"
