// Calls of the system that fail, and counts of those that gave something back.
//
// Where the system is not Windows these are switches of the platform layer and hold for everything in the process. On
// Windows they hold for the calls of the test program itself, in which the code under test lies.
//
// [any thread]
#pragma once

#include "platform/Win32.h"

#include <cstdint>

namespace QsTest {

// The next `count` creations of a thread / of an event fail; the next `count` items are not queued.
void FailThreadCreations(unsigned count);
void FailEventCreations(unsigned count);
void FailPoolItems(unsigned count);
// Makes every opening and creating of a key below the root, and every write below it, answer ERROR_ACCESS_DENIED.
void RefuseRegistry(HKEY root, bool refuse);

// CloseHandle calls so far that closed something.
std::uint64_t ClosedHandles();
// DeleteObject calls so far with an event that was there. Windows refuses each, an event being no graphics object, and
// the event lives until the process ends; other systems release it.
std::uint64_t DeletedObjects();

} // namespace QsTest
