// Ctrl-C and its kin, for a program that must not leave a light on.
#pragma once

#include <functional>

namespace Stimhost {

// From now on the first interrupt calls the hook that is set. Without a hook, and at the second interrupt, every shutter
// is closed and the process ends at once with exit code 1. Call it before other threads are started. False when the
// system refuses.
bool HandleInterruptions();

// Whether there was an interrupt. [any thread]
bool WasInterrupted();

// Sets the hook for the time of its life; called on the interrupts' own thread, at once when there was an interrupt
// already.
class CInterruptionHook
{
public:
    explicit CInterruptionHook(std::function<void()> hook);
    ~CInterruptionHook();
    CInterruptionHook(const CInterruptionHook&) = delete;
    CInterruptionHook& operator=(const CInterruptionHook&) = delete;
};

} // namespace Stimhost
