// The threads library on systems that have POSIX threads themselves: the system's mutexes, and threads whose end can be
// waited for with a time-out, any number of times.
#pragma once

#include "platform/posix/Win32Posix.h"

#include <memory>
#include <pthread.h>

struct SQsThreadState;
using QsThread = std::shared_ptr<SQsThreadState>;

// As the library's function of that name. The thread is detached: nothing is left to join. 0, or an error number.
QS_HOST_API int pthread_create(QsThread* thread, const pthread_attr_t* attributes, void* (*start)(void*),
                               void* argument);
// Waitable handle of the thread, null for an empty QsThread. Valid while a copy of the QsThread exists.
QS_HOST_API HANDLE pthread_getw32threadhandle_np(const QsThread& thread);
// 0 when the object is signalled (a thread: has ended), ETIMEDOUT after `milliseconds`, EINVAL for a bad handle.
QS_HOST_API int pthreadCancelableTimedWait(HANDLE handle, DWORD milliseconds);
