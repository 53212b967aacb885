#include "stimhost/Interruption.h"

#include "platform/Interrupt.h"
#include "platform/ThreadSafety.h"
#include "standalone/DeviceManager.h"
#include "stimhost/Text.h"

#include <cstdlib>

namespace Stimhost {

namespace {

struct SState
{
    CQsMutex lock;
    std::function<void()> hook QS_GUARDED_BY(lock);
    bool interrupted QS_GUARDED_BY(lock) = false;
};

// Never destroyed: the interrupts' thread may use it until the process is gone.
SState& State()
{
    static SState& state = *new SState;
    return state;
}

[[noreturn]] void CloseAndEnd()
{
    for (const std::string& shutter : QsStandalone::CQsDeviceManager::CloseAllShutters())
        Complain("interrupted: " + shutter + " was open and has been closed");
    std::_Exit(eExitFailed);
}

void OnInterruption()
{
    SState& state = State();
    {
        // The hook runs under the lock, so that it cannot go away meanwhile; it only wakes a thread.
        const CQsScopedLock<CQsMutex> hold(state.lock);
        const bool first = !state.interrupted;
        state.interrupted = true;
        if (first && state.hook)
        {
            state.hook();
            return;
        }
    }
    CloseAndEnd();
}

} // namespace

bool HandleInterruptions()
{
    State();
    return QsPlatform::OnInterrupt(&OnInterruption);
}

bool WasInterrupted()
{
    const CQsScopedLock<CQsMutex> hold(State().lock);
    return State().interrupted;
}

CInterruptionHook::CInterruptionHook(std::function<void()> hook)
{
    SState& state = State();
    const CQsScopedLock<CQsMutex> hold(state.lock);
    state.hook = std::move(hook);
    if (state.interrupted)
        state.hook();
}

CInterruptionHook::~CInterruptionHook()
{
    SState& state = State();
    const CQsScopedLock<CQsMutex> hold(state.lock);
    state.hook = nullptr;
}

} // namespace Stimhost
