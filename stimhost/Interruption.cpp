#include "stimhost/Interruption.h"

#include "platform/Interrupt.h"
#include "platform/Process.h"
#include "platform/ThreadSafety.h"
#include "standalone/DeviceManager.h"
#include "stimhost/Session.h"
#include "stimhost/Temporary.h"
#include "stimhost/Text.h"

#include <algorithm>
#include <atomic>

namespace Stimhost {

namespace {

struct SState
{
    std::atomic<unsigned> interrupts{0};
    CQsMutex lock;
    std::function<void()> abort QS_GUARDED_BY(lock);
    std::function<void()> stop QS_GUARDED_BY(lock);
};

// Never destroyed: the interrupts' thread may use it until the process is gone.
SState& State()
{
    static SState& state = *new SState;
    return state;
}

// Shutters first, since they are quick, and again at the end: what still ran may have opened one.
[[noreturn]] void StopAndEnd(const std::function<void()>& stop)
{
    std::vector<std::string> closed = QsStandalone::CQsDeviceManager::CloseAllShutters();
    if (stop)
        stop();
    for (std::string& light : LeaveNoLight())
        if (std::find(closed.begin(), closed.end(), light) == closed.end())
            closed.push_back(std::move(light));
    for (const std::string& light : closed)
        Complain("interrupted: the light of " + light + " was on and has been switched off");
    RemoveTemporaryFolder();
    QsPlatform::EndProcess(eExitFailed);
}

void OnInterruption()
{
    SState& state = State();
    const unsigned interrupts = ++state.interrupts;
    if (interrupts > 2) // without a word: stderr may be what we hang on
    {
        QsStandalone::CQsDeviceManager::CloseAllShutters();
        RemoveTemporaryFolder();
        QsPlatform::EndProcess(eExitFailed);
    }
    std::function<void()> stop;
    {
        const CQsScopedLock<CQsMutex> hold(state.lock);
        if (interrupts == 1 && state.abort)
            return state.abort();
        stop = state.stop;
    }
    StopAndEnd(stop);
}

} // namespace

bool HandleInterruptions()
{
    State();
    return QsPlatform::OnInterrupt(&OnInterruption);
}

bool WasInterrupted()
{
    return State().interrupts != 0;
}

CInterruptionHook::CInterruptionHook(std::function<void()> abort, std::function<void()> stop)
{
    SState& state = State();
    const CQsScopedLock<CQsMutex> hold(state.lock);
    state.abort = std::move(abort);
    state.stop = std::move(stop);
    if (state.interrupts != 0)
        state.abort();
}

CInterruptionHook::~CInterruptionHook()
{
    SState& state = State();
    const CQsScopedLock<CQsMutex> hold(state.lock);
    state.abort = nullptr;
    state.stop = nullptr;
}

} // namespace Stimhost
