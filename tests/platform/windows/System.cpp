#include "tests/platform/System.h"

#include <chrono>
#include <thread>

#include <io.h>

namespace {

FARPROC SystemFunction(const char* name)
{
    return GetProcAddress(GetModuleHandleW(L"ntdll.dll"), name);
}

// Whether the thread is inside the function, which is a few instructions around the call of the system.
bool IsInside(const char* function, DWORD64 place)
{
    constexpr DWORD64 longest = 32;
    const auto begin = reinterpret_cast<DWORD64>(SystemFunction(function));
    return begin != 0 && place > begin && place < begin + longest;
}

bool IsInWait(DWORD thread)
{
    const HANDLE handle = OpenThread(THREAD_SUSPEND_RESUME | THREAD_GET_CONTEXT, FALSE, thread);
    if (handle == nullptr)
        return false;
    CONTEXT context = {};
    context.ContextFlags = CONTEXT_CONTROL;
    SuspendThread(handle);
    const BOOL seen = GetThreadContext(handle, &context);
    ResumeThread(handle);
    CloseHandle(handle);
    // The last two are what critical sections wait in.
    for (const char* const function :
         {"NtWaitForSingleObject", "NtWaitForMultipleObjects", "NtWaitForAlertByThreadId", "NtWaitForKeyedEvent"})
        if (seen && IsInside(function, context.Rip))
            return true;
    return false;
}

} // namespace

bool IsWine()
{
    return SystemFunction("wine_get_version") != nullptr;
}

void UntilParked(const std::atomic<DWORD>& thread)
{
    int parked = 0; // several looks in a row: a lock on the way to the wait is not the wait
    while (parked < 5)
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        parked = thread != 0 && IsInWait(thread) ? parked + 1 : 0;
    }
}

void Unload(void* module)
{
    FreeLibrary(static_cast<HMODULE>(module));
}

void SetEnvironment(const char* name, const std::string& value)
{
    SetEnvironmentVariableW(std::filesystem::u8path(name).c_str(), std::filesystem::u8path(value).c_str());
}

void CloseStandardStream(int number)
{
    constexpr DWORD which[] = {STD_INPUT_HANDLE, STD_OUTPUT_HANDLE, STD_ERROR_HANDLE};
    _close(number);
    SetStdHandle(which[number], nullptr);
}

void LeaveTerminal()
{
    FreeConsole();
    AllocConsole();
}

void InterruptThisProcess()
{
    constexpr DWORD everybodyAtThisConsole = 0;
    GenerateConsoleCtrlEvent(CTRL_C_EVENT, everybodyAtThisConsole);
}

std::filesystem::path LongName(const std::string& path)
{
    return std::filesystem::path(L"\\\\?\\" + std::filesystem::u8path(path).make_preferred().wstring());
}

std::wstring Wide(const std::string& utf8)
{
    return std::filesystem::u8path(utf8).make_preferred().wstring();
}
