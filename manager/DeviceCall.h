// Calls into devices and host functions that may break their promise not to throw.
#pragma once

#include "device/GuardedCall.h"
#include "device/StimulationDevice.h"

// Runs `call` and returns what it returns; when it throws, logs one line that names `operation` and returns `failed`.
template <class Result, class Call>
Result QsCallOr(Result failed, const wchar_t* operation, int line, Call call) noexcept
{
    return QsGuardedCall(failed, L"StimulationManager", line, L"CQsStimulationDeviceManager", operation, call);
}

// Status of a call; `bThrew` when it ended with an exception.
struct SQsCallOutcome
{
    int status = QS_ERR_FAIL;
    bool bThrew = true;
};

template <class Call>
SQsCallOutcome QsTry(const wchar_t* operation, int line, Call call) noexcept
{
    return QsCallOr(SQsCallOutcome(), operation, line, [&] { return SQsCallOutcome{call(), false}; });
}

// Ends the device's stimulation; where the end throws, the abort is what is left to put the light out.
inline SQsCallOutcome QsEndStimulation(IQsStimulationDevice& device, double* pdBeginTimes, double* pdEndTimes,
                                       std::uint64_t count) noexcept
{
    const SQsCallOutcome end =
        QsTry(L"StimulationEnd", __LINE__, [&] { return device.StimulationEnd(pdBeginTimes, pdEndTimes, count); });
    if (end.bThrew)
        QsTry(L"StimulationAbort", __LINE__, [&] { return device.StimulationAbort(); });
    return end;
}
