#ifndef LODESTONE_APP_LIBRARYTHREAD_H
#define LODESTONE_APP_LIBRARYTHREAD_H

#include <pthread.h>

namespace Lodestone
{

/// Starts a thread of the library: default attributes, every signal blocked (the host's handlers run on the
/// host's threads). False if it can't be created.
bool startLibraryThread(pthread_t& handle, void* (*function)(void*), void* argument) noexcept;

/// Gives the calling thread a name for debuggers and process lists, at most 15 characters. A thread names
/// itself: from outside the system does it through a file.
void nameLibraryThread(const char* name) noexcept;

} // namespace Lodestone

#endif
