// The threads library on Windows: POSIX threads, the waitable handle of a thread and a timed wait for it.
//
// Each library calls these as its own. The classic port of POSIX threads has them, with a structure for a thread
// handle; MinGW's library does not, and there they are made of what it has.
#pragma once

#include "platform/Win32.h"

#include <pthread.h>

#ifdef WIN_PTHREADS_H

#include <cerrno>
#include <memory>
#include <new>
#include <utility>

// What is waited for. A thread of this library that is neither joined nor detached keeps a handle of the system and
// some memory until the process ends, and nobody joins a worker; so the thread is detached, and a second handle is its
// QsThreads'.
struct SQsThreadHandle
{
    SQsThreadHandle() = default;
    ~SQsThreadHandle()
    {
        if (bOwn)
            CloseHandle(handle);
    }
    SQsThreadHandle(const SQsThreadHandle&) = delete;
    SQsThreadHandle& operator=(const SQsThreadHandle&) = delete;

    HANDLE handle = nullptr;
    bool bOwn = false;
};
using QsThread = std::shared_ptr<SQsThreadHandle>;

// As the library's function of that name. The thread is detached: nothing is left to join. 0, or an error number.
inline int pthread_create(QsThread* thread, const pthread_attr_t* attributes, void* (*start)(void*), void* argument)
{
    if (thread == nullptr || start == nullptr)
        return EINVAL;
    QsThread made; // before there is a thread that could not be known otherwise
    try
    {
        made = std::make_shared<SQsThreadHandle>();
    }
    catch (const std::bad_alloc&)
    {
        return EAGAIN;
    }
    // It must not be gone before its handle is taken.
    pthread_attr_t joinable;
    if (attributes != nullptr)
    {
        joinable = *attributes;
        pthread_attr_setdetachstate(&joinable, PTHREAD_CREATE_JOINABLE);
    }
    pthread_t created;
    const int error = pthread_create(&created, attributes != nullptr ? &joinable : nullptr, start, argument);
    if (error != 0)
        return error;
    made->handle = pthread_gethandle(created);
    HANDLE own = nullptr;
    if (DuplicateHandle(GetCurrentProcess(), made->handle, GetCurrentProcess(), &own, SYNCHRONIZE, FALSE, 0))
    {
        made->handle = own;
        made->bOwn = true;
        pthread_detach(created);
    } // otherwise the library keeps it: the thread runs already, and must not be lost sight of
    *thread = std::move(made);
    return 0;
}

// Waitable handle of the thread, null for none. Valid while a copy of the QsThread exists.
inline HANDLE pthread_getw32threadhandle_np(const QsThread& thread)
{
    return thread ? thread->handle : nullptr;
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

#else

using QsThread = pthread_t;

#endif
