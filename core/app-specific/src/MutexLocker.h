#ifndef LODESTONE_APP_MUTEXLOCKER_H
#define LODESTONE_APP_MUTEXLOCKER_H

#include <pthread.h>

// Clang's thread-safety analysis reads these; other compilers see nothing.
#if defined(__clang__)
#define LODESTONE_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define LODESTONE_THREAD_ATTRIBUTE(x)
#endif
#define LODESTONE_CAPABILITY(x) LODESTONE_THREAD_ATTRIBUTE(capability(x))
#define LODESTONE_SCOPED_CAPABILITY LODESTONE_THREAD_ATTRIBUTE(scoped_lockable)
#define LODESTONE_GUARDED_BY(x) LODESTONE_THREAD_ATTRIBUTE(guarded_by(x))
#define LODESTONE_PT_GUARDED_BY(x) LODESTONE_THREAD_ATTRIBUTE(pt_guarded_by(x))
#define LODESTONE_ACQUIRED_BEFORE(...) LODESTONE_THREAD_ATTRIBUTE(acquired_before(__VA_ARGS__))
#define LODESTONE_ACQUIRE(...) LODESTONE_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define LODESTONE_RELEASE(...) LODESTONE_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define LODESTONE_REQUIRES(...) LODESTONE_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define LODESTONE_EXCLUDES(...) LODESTONE_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define LODESTONE_NO_ANALYSIS LODESTONE_THREAD_ATTRIBUTE(no_thread_safety_analysis)

namespace Lodestone
{

/// A pthread mutex that the analysis knows as a lock. The same type as pthread_mutex_t for everybody else.
typedef pthread_mutex_t LODESTONE_CAPABILITY("mutex") Mutex;

/// Holds a mutex for the length of a block, so that an exception on the way out releases it.
/// The mutex must outlive the guard.
class LODESTONE_SCOPED_CAPABILITY MutexLocker
{
public:
    explicit MutexLocker(Mutex& mutex) LODESTONE_ACQUIRE(mutex) : m_mutex(&mutex)
    {
        pthread_mutex_lock(m_mutex);
    }
    ~MutexLocker() LODESTONE_RELEASE() { pthread_mutex_unlock(m_mutex); }

    MutexLocker(const MutexLocker&) = delete;
    MutexLocker& operator=(const MutexLocker&) = delete;

private:
    pthread_mutex_t* m_mutex;
};

} // namespace Lodestone

#endif
