// The threads library on Windows with MinGW's POSIX threads: gives its thread handle, the native handle of a thread and
// the timed wait the names that ThreadsPosix.h uses. A thread that is neither joined nor detached keeps its native
// handle valid, so an ended one answers "ended" to every wait.
#pragma once

#include <cerrno>

using QsThread = pthread_t;

// Waitable handle of the thread, null for none.
inline HANDLE pthread_getw32threadhandle_np(QsThread thread)
{
    return thread ? pthread_gethandle(thread) : nullptr;
}

// 0 when the object is signalled (a thread: has ended), ETIMEDOUT after `milliseconds`, EINVAL for a bad handle.
inline int pthreadCancelableTimedWait(HANDLE handle, DWORD milliseconds)
{
    switch (WaitForSingleObject(handle, milliseconds))
    {
    case WAIT_OBJECT_0:
        return 0;
    case WAIT_TIMEOUT:
        return ETIMEDOUT;
    default:
        return EINVAL;
    }
}
