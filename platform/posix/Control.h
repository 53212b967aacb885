// Switches that only the POSIX side of the platform layer has, for tests.
#pragma once

#include "host/QsHostApi.h"
#include "platform/posix/Win32Posix.h"

#include <cstdint>

namespace QsPlatform {

// Makes every opening and creating of a key below the root, and every write below it, answer ERROR_ACCESS_DENIED.
QS_HOST_API void RefuseRegistry(HKEY root, bool refuse);

// The next `count` creations of a thread / of an event fail.
QS_HOST_API void FailThreadCreations(unsigned count);
QS_HOST_API void FailEventCreations(unsigned count);
// The next `count` items are not queued.
QS_HOST_API void FailPoolItems(unsigned count);
// CloseHandle calls / DeleteObject calls so far that closed something.
QS_HOST_API std::uint64_t ClosedHandles();
QS_HOST_API std::uint64_t DeletedObjects();
// Threads of the pool that exist now.
QS_HOST_API unsigned PoolThreads();
// After how long without an item a thread of the pool ends, for threads that become idle later; 30 s at first.
QS_HOST_API void SetPoolIdleTime(unsigned milliseconds);

} // namespace QsPlatform
