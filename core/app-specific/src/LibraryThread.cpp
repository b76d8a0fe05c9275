#include "LibraryThread.h"

#include <csignal>

namespace Lodestone
{

bool startLibraryThread(pthread_t& handle, void* (*function)(void*), void* argument) noexcept
{
    // A thread inherits its creator's mask: so it never runs with a signal open, not even for its first
    // instruction.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    const bool created = pthread_create(&handle, nullptr, function, argument) == 0;
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return created;
}

void nameLibraryThread(const char* name) noexcept
{
    pthread_setname_np(pthread_self(), name);
}

} // namespace Lodestone
