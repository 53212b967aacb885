// Calls into a device that may never answer.
#pragma once

#include "host/QsSystem.h"

#include <functional>
#include <vector>

namespace Stimhost {

// Runs the function on a thread of its own and waits for it, at most that long; what it throws is dropped. False when
// it did not end by then: the thread then goes on by itself, so what the function uses must live as long as the
// process. Where no thread can be had it runs here, however long it takes. [blocks]
bool RunBounded(double timeoutMs, std::function<void()> function);

// The same for several at a time, each on a thread of its own; false when any did not end by then. [blocks]
bool RunAllBounded(double timeoutMs, const std::vector<std::function<void()>>& functions);

// Whether threads are still inside a device: then the process must end without its usual tidying. [any thread]
void LeaveThreadBehind();
bool ThreadsAreLeftBehind();

// Status of a call into a device.
struct SAnswer
{
    int status = 0;
    bool threw = false;
};

// A call that throws counts as failed.
template <class Call>
SAnswer Ask(Call call)
{
    try
    {
        return {call(), false};
    }
    catch (...) // a device's fault of whatever kind must not keep its light from being put out
    {
        return {QS_ERR_FAIL, true};
    }
}

} // namespace Stimhost
