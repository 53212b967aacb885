// Calls into devices and host functions that may break their promise not to throw.
#pragma once

#include "host/QsSystem.h"

#include <exception>

// Runs `call` and returns what it returns; when it throws, logs one line that names `operation` and returns `failed`.
template <class Result, class Call>
Result QsCallOr(Result failed, const wchar_t* operation, int line, Call call) noexcept
{
    constexpr const wchar_t* text = L"CQsStimulationDeviceManager: exception out of %s: %hs";
    try
    {
        return call();
    }
    catch (const std::exception& error)
    {
        DiagOutputExW(L"StimulationManager", line, text, operation, error.what());
    }
    catch (...)
    {
        DiagOutputExW(L"StimulationManager", line, text, operation, "not a standard exception");
    }
    return failed;
}
