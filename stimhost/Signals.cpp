#include "stimhost/Signals.h"

#include "manager/StimulationManager.h"
#include "platform/ThreadSafety.h"

namespace Stimhost {

namespace {

// The manager's callbacks have no user pointer, so there is one list for the process.
struct SHeard
{
    CQsMutex lock;
    std::vector<SSignal> signals QS_GUARDED_BY(lock);
};

SHeard& Heard()
{
    static SHeard& heard = *new SHeard; // never destroyed: threads of devices may still call back
    return heard;
}

void Keep(bool command, unsigned value)
{
    SHeard& heard = Heard();
    const CQsScopedLock<CQsMutex> hold(heard.lock);
    heard.signals.push_back({QS_GetTimeCounter(), command, value});
}

void OnChange(unsigned code)
{
    Keep(false, code);
}

void OnCommand(unsigned command)
{
    Keep(true, command);
}

std::size_t HeardCount()
{
    SHeard& heard = Heard();
    const CQsScopedLock<CQsMutex> hold(heard.lock);
    return heard.signals.size();
}

} // namespace

std::string SignalText(const SSignal& signal)
{
    return (signal.command ? "OC " : "") + std::to_string(signal.value);
}

std::string SignalsText(const std::vector<SSignal>& signals)
{
    std::string text;
    for (const SSignal& signal : signals)
        text += (text.empty() ? "" : ", ") + SignalText(signal);
    return text.empty() ? "none" : text;
}

CSignalListener::CSignalListener(CQsStimulationDeviceManager& manager) : m_next(HeardCount())
{
    // Adding twice is adding once; they stay, since another listener may need them.
    manager.AddCallbackForChange(&OnChange);
    manager.AddCallbackForStimulationOCCommand(&OnCommand);
}

std::vector<SSignal> CSignalListener::Take()
{
    SHeard& heard = Heard();
    const CQsScopedLock<CQsMutex> hold(heard.lock);
    std::vector<SSignal> taken(heard.signals.begin() + static_cast<std::ptrdiff_t>(m_next), heard.signals.end());
    m_next = heard.signals.size();
    return taken;
}

} // namespace Stimhost
