// Locks that Clang's thread-safety analysis can follow.
//
// The standard library's mutexes carry no annotations, so the analysis cannot see them taken. These thin wrappers carry
// them and add nothing else. A build with Clang makes a violation an error; on Windows nothing is analysed, since the
// system's own critical section carries no annotations either and is not ours to wrap.
#pragma once

#include <mutex>

#if defined(__clang__) && !defined(_WIN32)
#define QS_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define QS_THREAD_ATTRIBUTE(x)
#endif

#define QS_CAPABILITY(name) QS_THREAD_ATTRIBUTE(capability(name))
#define QS_SCOPED_CAPABILITY QS_THREAD_ATTRIBUTE(scoped_lockable)
#define QS_GUARDED_BY(lock) QS_THREAD_ATTRIBUTE(guarded_by(lock))
#define QS_PT_GUARDED_BY(lock) QS_THREAD_ATTRIBUTE(pt_guarded_by(lock))
#define QS_REQUIRES(...) QS_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define QS_ACQUIRE(...) QS_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define QS_TRY_ACQUIRE(...) QS_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define QS_RELEASE(...) QS_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define QS_EXCLUDES(...) QS_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define QS_RETURN_CAPABILITY(lock) QS_THREAD_ATTRIBUTE(lock_returned(lock))
// The reason stands in a comment beside every use.
#define QS_NO_THREAD_SAFETY_ANALYSIS QS_THREAD_ATTRIBUTE(no_thread_safety_analysis)

template <class StdMutex>
class QS_CAPABILITY("mutex") CQsAnnotatedMutex
{
public:
    void lock() QS_ACQUIRE() { m_mutex.lock(); }
    bool try_lock() QS_TRY_ACQUIRE(true) { return m_mutex.try_lock(); }
    void unlock() QS_RELEASE() { m_mutex.unlock(); }
    // For a wait on a condition variable, which takes the standard type.
    StdMutex& Native() QS_RETURN_CAPABILITY(this) { return m_mutex; }

private:
    StdMutex m_mutex;
};

using CQsMutex = CQsAnnotatedMutex<std::mutex>;
using CQsRecursiveMutex = CQsAnnotatedMutex<std::recursive_mutex>;

// Holds `lock` from construction to the end of the scope.
template <class Lock>
class QS_SCOPED_CAPABILITY CQsScopedLock
{
public:
    explicit CQsScopedLock(Lock& lock) QS_ACQUIRE(lock) : m_lock(lock) { m_lock.lock(); }
    ~CQsScopedLock() QS_RELEASE() { m_lock.unlock(); }
    CQsScopedLock(const CQsScopedLock&) = delete;
    CQsScopedLock& operator=(const CQsScopedLock&) = delete;

private:
    Lock& m_lock;
};
