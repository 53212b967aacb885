// What the threads library needs of the waits: an object that is signalled once, when a thread has ended.
#pragma once

#include "platform/posix/Win32Posix.h"

#include <atomic>

namespace QsPlatform {

// The handle belongs to the thread's state: CloseHandle, SetEvent and ResetEvent refuse it. Null when there is no room.
HANDLE CreateThreadEnd();
void SignalThreadEnd(HANDLE end);
void CloseThreadEnd(HANDLE end);

// Takes one of the failures that a test has asked for. True: fail now.
bool TakeFailure(std::atomic<unsigned>& failures);

} // namespace QsPlatform
