// Critical sections: recursive mutexes.
#include "platform/posix/Win32Posix.h"

void InitializeCriticalSection(CRITICAL_SECTION* section)
{
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&section->mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

// The analysis knows the section, not the mutex inside it.
void EnterCriticalSection(CRITICAL_SECTION* section) QS_NO_THREAD_SAFETY_ANALYSIS
{
    pthread_mutex_lock(&section->mutex);
}

void LeaveCriticalSection(CRITICAL_SECTION* section) QS_NO_THREAD_SAFETY_ANALYSIS // as above
{
    pthread_mutex_unlock(&section->mutex); // fails, and changes nothing, for a thread that does not hold it
}

void DeleteCriticalSection(CRITICAL_SECTION* section)
{
    pthread_mutex_destroy(&section->mutex);
}
