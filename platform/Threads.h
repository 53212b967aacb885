// The threads library: POSIX threads with the native handle and the timed wait of the Windows port.
//
// QsThread is the library's thread handle as a copyable value. It may be overwritten without join or detach, and an
// ended thread answers "ended" to any number of waits from any number of threads. A native handle is valid while a
// copy of the QsThread that it was taken from exists.
#pragma once

#ifdef _WIN32
#include "platform/windows/ThreadsWindows.h"
#else
#include "platform/posix/ThreadsPosix.h"
#endif
