// Ctrl-C and its kin, for a program that must not leave a light on.
#pragma once

#include <functional>

namespace Stimhost {

// From now on the first interrupt calls the hook that is set. Without a hook, and at the second interrupt, what runs is
// stopped within a second, every shutter is closed and the process ends with exit code 1. The third one does not wait
// for the device. Call it before other threads are started. False when the system refuses.
bool HandleInterruptions();

// Whether there was an interrupt. [any thread]
bool WasInterrupted();

// Sets the hook for the time of its life: `abort` only asks for the end, at once when there was an interrupt already;
// `stop` waits for it and may be called after the hook's life. Both run on an interrupt's own thread.
class CInterruptionHook
{
public:
    CInterruptionHook(std::function<void()> abort, std::function<void()> stop);
    ~CInterruptionHook();
    CInterruptionHook(const CInterruptionHook&) = delete;
    CInterruptionHook& operator=(const CInterruptionHook&) = delete;
};

} // namespace Stimhost
