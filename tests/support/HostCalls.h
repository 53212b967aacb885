// Stands between the module and some calls of its host and its platform in every program that links HostCalls.cpp, and
// remembers them: run-time events, waits, and the pool. A call goes through unchanged unless a test asks for something
// else.
//
// [any thread] unless said otherwise.
#pragma once

#include "platform/Win32.h"
#include "tests/support/FakeDevice.h"

#include <string>
#include <vector>

namespace QsTest {

// A wait of one thread for events.
struct SWaitCall
{
    DWORD count = 0; // events waited for
    DWORD milliseconds = 0;
};

// A run-time event that was told to everyone.
struct SBroadcast
{
    std::wstring name;
    int argument1 = 0;
    int argument2 = 0;
    void* context = nullptr;
};

class CHostCalls
{
public:
    // Registrations for run-time events, in order: "RegisterConsumer", "UnregisterConsumer", "RegisterEvent <name>",
    // "UnregisterEvent <name>"; and device identities: "LogDev_GetIdByDBId(<id>)", "LogDev_GetPhysDevId(<id>)".
    static CCallLog& Log();
    static std::vector<SBroadcast> Broadcasts(); // of CQsPluginManager::AppRntm_HandleEvent, in order

    static std::vector<SWaitCall>
    Waits(); // of WaitForSingleObject and WaitForMultipleObjects, in order of their starts
    static std::vector<SWaitCall> WaitsOf(DWORD milliseconds);
    static void ForgetWaits();
    // Waits of that length see what is signalled now and last no time.
    static void ShortenWaits(DWORD milliseconds);
    static void ShortenAllWaits(); // but those without an end

    static std::vector<ULONG> PoolFlags(); // of the items that were handed to the pool
    // Items that are handed to the pool stay where they are until the next LetPoolGo.
    static void HoldPool();
    static void LetPoolGo();
    static std::size_t HeldPoolItems();
    // Until no item is queued, held or running; false after patience. Holding ends first.
    static bool WaitForPool();

    static void Reset(); // nothing remembered, nothing changed
};

} // namespace QsTest
