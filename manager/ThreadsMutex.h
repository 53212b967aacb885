// Recursive mutex of the threads library, which is not recursive by default.
#pragma once

#include "platform/ThreadSafety.h"
#include "platform/Threads.h"

class QS_CAPABILITY("mutex") CQsThreadsMutex
{
public:
    CQsThreadsMutex()
    {
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
        pthread_mutex_init(&m_mutex, &attributes);
        pthread_mutexattr_destroy(&attributes);
    }
    ~CQsThreadsMutex() { pthread_mutex_destroy(&m_mutex); }
    CQsThreadsMutex(const CQsThreadsMutex&) = delete;
    CQsThreadsMutex& operator=(const CQsThreadsMutex&) = delete;

    void lock() QS_ACQUIRE() { pthread_mutex_lock(&m_mutex); }
    void unlock() QS_RELEASE() { pthread_mutex_unlock(&m_mutex); }

private:
    pthread_mutex_t m_mutex;
};
