// Stands between the module and its critical sections and the device manager's global lock in every program that links
// LockCalls.cpp, and remembers who took what in which order. Every call goes through unchanged.
//
// [any thread]
#pragma once

#include "platform/Win32.h"

#include <cstddef>
#include <ostream>
#include <vector>

namespace QsTest {

enum class ELockCall
{
    Try,     // of the global lock, granted
    Refused, // of the global lock
    Enter,
    Leave,
    Release // of the global lock
};
std::ostream& operator<<(std::ostream& stream, ELockCall call);

struct SLockCall
{
    ELockCall call;
    CRITICAL_SECTION* section; // null for the global lock
    int importance;            // that the global lock was asked for with
};

class CLockCalls
{
public:
    // Calls of this thread since the last Forget on it, in order. An Enter is there when the section is held.
    static std::vector<SLockCall> OfThisThread();
    static std::vector<ELockCall> KindsOfThisThread();
    static void Forget(); // of this thread

    // Sections that this thread holds, outermost first; one that it entered twice stands there twice.
    static std::vector<CRITICAL_SECTION*> Held();
    static unsigned GlobalDepth(); // how often this thread holds the global lock

    // Every pair (held, then entered) of different sections that any thread took since ForgetOrder.
    static std::vector<std::pair<CRITICAL_SECTION*, CRITICAL_SECTION*>> Order();
    static void ForgetOrder();

    // True as soon as a thread waits for the section, which another one holds; false after patience.
    static bool WaitForWaiter(CRITICAL_SECTION* section);

    static std::size_t Live(); // sections that are initialised and not deleted
};

} // namespace QsTest
