// Calls into code of other modules that may break its promise not to throw.
#pragma once

#include "host/QsSystem.h"

#include <exception>

// Runs `call` and returns what it returns; when it throws, logs one line that names the caller's class and `operation`
// and returns `failed`.
template <class Result, class Call>
Result QsGuardedCall(Result failed, const wchar_t* unit, int line, const wchar_t* callerClass, const wchar_t* operation,
                     Call call) noexcept
{
    constexpr const wchar_t* text = L"%s: exception out of %s: %hs";
    try
    {
        return call();
    }
    catch (const std::exception& error)
    {
        DiagOutputExW(unit, line, text, callerClass, operation, error.what());
    }
    catch (...)
    {
        DiagOutputExW(unit, line, text, callerClass, operation, "not a standard exception");
    }
    return failed;
}
